#include "foundation/quiet_spell.h"

#include <atomic>

namespace {

std::atomic<std::uint64_t> g_lastSpell{kNoQuietSpell};
thread_local std::uint64_t t_spell = kNoQuietSpell;

}  // namespace

std::uint64_t quietSpell() {
    return t_spell;
}

void beginQuietSpell() {
    // Numbers belong to the process, because a socket may be used by one thread after the other.
    if (VEKMSG_QUIET_SPELLS != 0) t_spell = g_lastSpell.fetch_add(1, std::memory_order_relaxed) + 1;
}

void endQuietSpell() {
    t_spell = kNoQuietSpell;
}
