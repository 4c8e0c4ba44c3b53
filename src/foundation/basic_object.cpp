#include "libcpp/basic_object.h"

namespace libcpp {

BasicObject_::~BasicObject_() = default;

[[gnu::hot]] void BasicObject_::removeRef() {
    if (dropRef()) delete this;
}

}  // namespace libcpp
