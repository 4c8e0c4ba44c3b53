#ifndef VEKMSG_FOUNDATION_QUIET_SPELL_H
#define VEKMSG_FOUNDATION_QUIET_SPELL_H

#include <cstdint>

#include "foundation/thread_access.h"

// One poll tells of any number of descriptors that a call on them would find nothing, at the price of one
// such call. That knowledge is good for a spell: from the poll until anything happens that could make it
// untrue before the call returns which made the poll. Whoever learns that a descriptor is quiet keeps the
// number of the spell, and has to ask nothing of the kernel while that spell lasts.
//
// What ends a spell: the next poll; the end of the public call; anything written, connected or closed by this
// thread, whose peer may be another terminal of the same thread; and code that is not ours (a filter, a log
// sink), which may do all that.

// Off in a test build, which shows that nothing but the number of system calls depends on it.
#ifndef VEKMSG_QUIET_SPELLS
#define VEKMSG_QUIET_SPELLS 1
#endif

/// No number of a spell.
constexpr std::uint64_t kNoQuietSpell = 0;

/// The spells of this thread.
struct QuietSpells_ {
    std::uint64_t m_current;
    std::uint64_t m_next;  // numbers from here on are the thread's
    std::uint64_t m_end;
};

extern QuietSpells_ g_loadingThreadQuietSpells;
[[gnu::const]] VEKMSG_THREAD_ACCESS QuietSpells_& otherThreadQuietSpells();

inline QuietSpells_& threadQuietSpells() {
    return isLoadingThread() ? g_loadingThreadQuietSpells : otherThreadQuietSpells();
}

/// The number of the spell of this thread, or kNoQuietSpell.
inline std::uint64_t quietSpell() {
    return threadQuietSpells().m_current;
}

/// A number for a spell of this thread that may begin, which no other spell of the process has or will have;
/// kNoQuietSpell where there are no spells.
std::uint64_t takeQuietSpell();

/// To be called right after the poll.
inline void beginQuietSpell(std::uint64_t number) {
    threadQuietSpells().m_current = number;
}

inline void endQuietSpell() {
    beginQuietSpell(kNoQuietSpell);
}

/// Ends the spell of a public call together with the call.
struct QuietSpellEnd_ {
    QuietSpellEnd_() = default;
    ~QuietSpellEnd_() { endQuietSpell(); }
    QuietSpellEnd_(const QuietSpellEnd_&) = delete;
    QuietSpellEnd_& operator=(const QuietSpellEnd_&) = delete;
};

#endif
