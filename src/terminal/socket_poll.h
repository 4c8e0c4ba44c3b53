#ifndef VEKMSG_TERMINAL_SOCKET_POLL_H
#define VEKMSG_TERMINAL_SOCKET_POLL_H

#include <poll.h>

#include <algorithm>
#include <cstdint>

#include "foundation/quiet_spell.h"
#include "transport/socket.h"

/// The places from `m_begin` up to `m_end`; none when that is not beyond the other.
struct Places_ {
    unsigned int m_begin;
    unsigned int m_end;

    void include(unsigned int place) {
        m_begin = std::min(m_begin, place);
        m_end = std::max(m_end, place + 1);
    }
};

/// One `poll` over many sockets, after which each of them knows whether it is quiet (quiet_spell.h). Between
/// the first entry and `poll` none of them may go.
///
/// A socket notes the number of the coming spell when its entry is added, while it is at hand anyway. The
/// spell begins with the answer, and the few sockets that the answer names forget it.
///
/// The last of the sockets may be streams of which most have nothing to do. Those that have are *due*, and
/// who walks over them may pass over the others: see `beginStreams`.
class SocketPoll_ {
public:
    static constexpr unsigned int kEntries = 256;

    // cppcheck-suppress uninitMemberVar
    SocketPoll_() {}  // NOLINT(modernize-use-equals-default): that would clear 4 KB
    SocketPoll_(const SocketPoll_&) = delete;
    SocketPoll_& operator=(const SocketPoll_&) = delete;

    /// To be called before the first entry is added.
    void clear();

    unsigned int count() const { return m_count; }
    unsigned int room() const { return kEntries - m_count; }

    /// Where the next entries are to be written, as many as there is room for.
    pollfd* next() { return m_entries + m_count; }

    /// Adds the entry at `next`, which is of this socket.
    void add(VekSocket_& socket) {
        m_sockets[m_count++] = &socket;
        socket.noteQuiet(m_spell);
    }

    /// Adds an entry for what would make the socket do something. False when nothing would but the clock, or
    /// without room.
    [[gnu::noinline]] bool tryAdd(VekSocket_& socket);

    /// The same for a socket that awaits only data.
    bool tryAddStream(VekSocket_& socket);

    /// The entries from here on are those of the streams. `poll` adds to the due ones those that it reports.
    void beginStreams() { m_firstStream = m_count; }
    void setDue(Places_ due) { m_due = due; }
    static Places_ none() { return {kEntries, 0}; }

    /// Among the streams, all due ones.
    Places_ due() const { return m_due; }

    /// The result and errno of `poll`. No spell begins where that fails. Out of line, so that there is one
    /// place for all of them; only pollFd, which asks for the caller's descriptors too, polls elsewhere.
    [[gnu::noinline]] int poll(int timeoutMs);

    /// Whether it was the last `poll` that began the spell of that number.
    bool hasBegun(std::uint64_t spell) const { return spell != kNoQuietSpell && m_spell == spell; }

private:
    // Ordered so that what few sockets need lies together.
    std::uint64_t m_spell = kNoQuietSpell;
    unsigned int m_count = 0;
    unsigned int m_firstStream = kEntries;
    Places_ m_due = none();
    pollfd m_entries[kEntries];
    VekSocket_* m_sockets[kEntries];  // of each entry
};

inline bool SocketPoll_::tryAddStream(VekSocket_& socket) {
    if (room() == 0 || !socket.fillReadPollFd(*next())) return false;
    add(socket);
    return true;
}

#endif
