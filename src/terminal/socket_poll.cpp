#include "terminal/socket_poll.h"

void SocketPoll_::clear() {
    m_count = 0;
    m_firstStream = kEntries;
    m_due = none();
    m_spell = takeQuietSpell();
}

[[gnu::hot]] bool SocketPoll_::tryAdd(VekSocket_& socket) {
    if (room() == 0 || !socket.fillQuietPollFd(*next())) return false;
    add(socket);
    return true;
}

[[gnu::hot]] int SocketPoll_::poll(int timeoutMs) {
    endQuietSpell();
    const int result = ::poll(m_entries, m_count, timeoutMs);
    if (result < 0) return result;
    int unseen = result;
    for (unsigned int i = 0; unseen > 0 && i < m_count; ++i) {
        if (m_entries[i].revents == 0) continue;
        m_sockets[i]->forgetQuiet();
        if (i >= m_firstStream) m_due.include(i - m_firstStream);
        --unseen;
    }
    beginQuietSpell(m_spell);
    return result;
}
