#ifndef VEKMSG_TESTS_SHARED_PROBE_H
#define VEKMSG_TESTS_SHARED_PROBE_H

#include "libcpp/basic_object.h"

/// A shared object that tells when it goes.
class SharedProbe_ : public BasicObject_ {
public:
    explicit SharedProbe_(int& destructions) : m_destructions(destructions) {}
    SharedProbe_(const SharedProbe_&) = default;
    SharedProbe_& operator=(const SharedProbe_& other) {
        BasicObject_::operator=(other);
        return *this;
    }
    ~SharedProbe_() override { ++m_destructions; }

private:
    int& m_destructions;
};

#endif
