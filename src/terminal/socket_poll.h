#ifndef VEKMSG_TERMINAL_SOCKET_POLL_H
#define VEKMSG_TERMINAL_SOCKET_POLL_H

#include <poll.h>

#include <cstdint>

class VekSocket_;

/// One `poll` over many sockets, after which each of them knows whether it is quiet (quiet_spell.h). Between
/// the first `add` and `poll` none of them may go.
///
/// A socket notes the number of the coming spell when its entry is added, while it is at hand anyway. The
/// spell begins with the answer, and the few sockets that the answer names forget it.
class SocketPoll_ {
public:
    static constexpr unsigned int kEntries = 256;

    // cppcheck-suppress uninitMemberVar
    SocketPoll_() {}  // NOLINT(modernize-use-equals-default): that would clear 4 KB
    SocketPoll_(const SocketPoll_&) = delete;
    SocketPoll_& operator=(const SocketPoll_&) = delete;

    /// To be called before the first `add`.
    void clear();

    unsigned int count() const { return m_count; }
    unsigned int room() const { return kEntries - m_count; }

    /// Where the next entries are to be written, as many as there is room for.
    pollfd* next() { return m_entries + m_count; }

    /// Adds the entry at `next`, which is of this socket.
    void add(VekSocket_& socket);

    /// The result and errno of `poll`. No spell begins where that fails. Out of line, so that there is one
    /// place for all of them; only pollFd, which asks for the caller's descriptors too, polls elsewhere.
    [[gnu::noinline]] int poll(int timeoutMs);

private:
    // Ordered so that what few sockets need lies together.
    std::uint64_t m_spell = 0;
    unsigned int m_count = 0;
    pollfd m_entries[kEntries];
    VekSocket_* m_sockets[kEntries];  // of each entry
};

#endif
