#include "libcpp/basic_object.h"

namespace libcpp {

BasicObject_::~BasicObject_() = default;

void BasicObject_::removeRef() {
    if (--m_referenceCount == 0) delete this;
}

}  // namespace libcpp
