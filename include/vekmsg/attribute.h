#ifndef VEKMSG_ATTRIBUTE_H
#define VEKMSG_ATTRIBUTE_H

#include <iosfwd>

#include "libcpp/basic_object.h"
#include "libcpp/smart_pointer.h"
#include "vekmsg/tag.h"

/// An attribute of an element. Attributes have a place in the interface but are not provided: no element ever
/// has one, and none travels.
class VEKMSG_API VekmsgAttribute_ : public BasicObject_ {
public:
    virtual VekmsgTag_ getTag() const = 0;
    virtual bool getValue(const unsigned char*& p_value) const = 0;
    virtual bool getValue(unsigned int& value) const = 0;
    virtual bool setValue(const unsigned char* p_value) = 0;
    virtual bool setValue(unsigned int value) = 0;
    virtual bool print(std::ostream* p_stream, unsigned int indent) const = 0;
};

#endif
