#include "foundation/quiet_spell.h"

#include <atomic>

namespace {

// Numbers belong to the process, because a socket may be used by one thread after the other. A thread takes
// many at a time.
constexpr std::uint64_t kNumbersAtOnce = 65536;
std::atomic<std::uint64_t> g_nextNumbers{kNoQuietSpell + 1};

}  // namespace

QuietSpells_ g_loadingThreadQuietSpells{kNoQuietSpell, 0, 0};

QuietSpells_& otherThreadQuietSpells() {
    static thread_local QuietSpells_ t_spells{kNoQuietSpell, 0, 0};
    return t_spells;
}

[[gnu::hot]] std::uint64_t takeQuietSpell() {
    if (VEKMSG_QUIET_SPELLS == 0) return kNoQuietSpell;
    QuietSpells_& spells = threadQuietSpells();
    if (spells.m_next == spells.m_end) {
        spells.m_next = g_nextNumbers.fetch_add(kNumbersAtOnce, std::memory_order_relaxed);
        spells.m_end = spells.m_next + kNumbersAtOnce;
    }
    return spells.m_next++;
}
