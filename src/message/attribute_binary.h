#ifndef VEKMSG_MESSAGE_ATTRIBUTE_BINARY_H
#define VEKMSG_MESSAGE_ATTRIBUTE_BINARY_H

#include "vekmsg/attribute.h"

/// Stands where attributes would be: it has no tag and no value, and keeps none.
class VekmsgAttributeBinary_ : public VekmsgAttribute_ {
public:
    VekmsgTag_ getTag() const override;
    bool getValue(const unsigned char*& p_value) const override;
    bool getValue(unsigned int& value) const override;
    bool setValue(const unsigned char* p_value) override;
    bool setValue(unsigned int value) override;
    bool print(std::ostream* p_stream, unsigned int indent) const override;
};

#endif
