#include "foundation/thread_end.h"

#include <cstddef>
#include <cstdlib>

namespace {

// Too large for what the heap sets aside for small blocks of this thread, from which a note is not taken.
constexpr std::size_t kTrialSize = 4096;

}  // namespace

bool canNoteThreadEnd() noexcept {
    // Volatile, because compilers leave out what is only taken and given back.
    void* volatile p_trial = std::malloc(kTrialSize);
    const bool hasMemory = p_trial != nullptr;
    std::free(p_trial);
    return hasMemory;
}
