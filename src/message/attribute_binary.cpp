#include "message/attribute_binary.h"

VekmsgTag_ VekmsgAttributeBinary_::getTag() const {
    return VEKMSGTAG_ANY;
}

bool VekmsgAttributeBinary_::getValue(const unsigned char*&) const {
    return false;
}

bool VekmsgAttributeBinary_::getValue(unsigned int&) const {
    return false;
}

bool VekmsgAttributeBinary_::setValue(const unsigned char*) {
    return false;
}

bool VekmsgAttributeBinary_::setValue(unsigned int) {
    return false;
}
