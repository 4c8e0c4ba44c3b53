#include "foundation/free_list.h"

namespace libcpp {

void* takeFromHeap(std::size_t size) noexcept {
    return ::operator new(size, std::nothrow);
}

}  // namespace libcpp
