#include "terminal/socket_poll.h"

#include "foundation/quiet_spell.h"
#include "transport/socket.h"

void SocketPoll_::clear() {
    m_count = 0;
    m_spell = takeQuietSpell();
}

[[gnu::hot]] void SocketPoll_::add(VekSocket_& socket) {
    m_sockets[m_count++] = &socket;
    socket.noteQuiet(m_spell);
}

[[gnu::hot]] int SocketPoll_::poll(int timeoutMs) {
    endQuietSpell();
    const int result = ::poll(m_entries, m_count, timeoutMs);
    if (result < 0) return result;
    for (unsigned int i = 0; i < m_count; ++i) {
        if (m_entries[i].revents != 0) m_sockets[i]->forgetQuiet();
    }
    beginQuietSpell(m_spell);
    return result;
}
