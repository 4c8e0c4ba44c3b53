#ifndef LIBCPP_BASIC_OBJECT_H
#define LIBCPP_BASIC_OBJECT_H

#include <cstdint>

#include "libcpp/export.h"

namespace libcpp {

/// Base of every shared object. It counts the owners that hold the object and destroys it when the last lets
/// go.
///
/// The count is a plain integer: an object and everything reachable from it belongs to one thread at a time.
/// A new object has no owner; the first SmartPointer_ that takes it raises the count to 1. A copy of an
/// object is a new object without owners, and assigning to an object leaves its owners alone.
class VEKMSG_API BasicObject_ {
public:
    BasicObject_() noexcept = default;
    BasicObject_(const BasicObject_&) noexcept {}
    BasicObject_& operator=(const BasicObject_&) noexcept { return *this; }

    virtual void addRef() { ++m_referenceCount; }

    /// Requires an owner. Destroys the object when it was the last one.
    virtual void removeRef();

    virtual ~BasicObject_();

protected:
    /// `removeRef` without the destruction: true when that is left to do.
    bool dropRef() noexcept { return --m_referenceCount == 0; }

    bool isHeldOnce() const noexcept { return m_referenceCount == 1; }

private:
    std::uint32_t m_referenceCount = 0;
};

}  // namespace libcpp

using libcpp::BasicObject_;

#endif
