#include "foundation/quiet_spell.h"

#include <atomic>

#include "foundation/thread_access.h"

namespace {

// Numbers belong to the process, because a socket may be used by one thread after the other. A thread takes
// many at a time.
constexpr std::uint64_t kNumbersAtOnce = 65536;
std::atomic<std::uint64_t> g_nextNumbers{kNoQuietSpell + 1};

struct Spells_ {
    std::uint64_t m_current;
    std::uint64_t m_next;
    std::uint64_t m_end;
};

VEKMSG_THREAD_ACCESS Spells_& threadSpells() {
    static thread_local Spells_ t_spells{kNoQuietSpell, 0, 0};
    return t_spells;
}

}  // namespace

std::uint64_t quietSpell() {
    return threadSpells().m_current;
}

std::uint64_t takeQuietSpell() {
    if (VEKMSG_QUIET_SPELLS == 0) return kNoQuietSpell;
    Spells_& spells = threadSpells();
    if (spells.m_next == spells.m_end) {
        spells.m_next = g_nextNumbers.fetch_add(kNumbersAtOnce, std::memory_order_relaxed);
        spells.m_end = spells.m_next + kNumbersAtOnce;
    }
    return spells.m_next++;
}

void beginQuietSpell(std::uint64_t number) {
    threadSpells().m_current = number;
}

void endQuietSpell() {
    beginQuietSpell(kNoQuietSpell);
}
