#include "libcpp/basic_object.h"

namespace libcpp {

BasicObject_::~BasicObject_() = default;

// Out of line: a message lets go of two dozen objects, and code that is fetched once each costs more than a
// call.
[[gnu::hot, gnu::noinline]] void BasicObject_::removeRef() {
    if (dropRef()) delete this;
}

}  // namespace libcpp
