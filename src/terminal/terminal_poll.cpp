// One pass over all sockets of the terminal, and the poll entries for it.

#include <algorithm>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/quiet_spell.h"
#include "terminal/terminal_impl.h"

bool VekmsgTerminalImpl_::processPollEvents(bool& gotData) try {
    const QuietSpellEnd_ end;
    lookForQuietSockets();
    return makePass(gotData);
}
VEKMSG_RETURN_ON_EXCEPTION(false)

[[gnu::hot]] bool VekmsgTerminalImpl_::makePass(bool& gotData) {
    gotData = false;
    if (!isOpen()) return true;
    std::uint64_t spell = quietSpell();
    for (const SP_VekSocket_& sp_socket : m_listeningSockets) {
        if (sp_socket->isQuiet(spell)) continue;
        if (!processPollEvents(Accepting_(), *sp_socket)) return false;
        spell = quietSpell();
    }
    for (auto next = m_unresolvedConnections.begin(); next != m_unresolvedConnections.end();)
        processPollEvents(Resolving_(), next++);
    spell = quietSpell();
    auto [place, end] = dueConnections(spell);
    while (place < end) {
        VekmsgConnection_& active = *m_activeConnections[place];
        if (active.isAtRest(spell)) {
            gotData = gotData || active.hasReceived();
            ++place;
            continue;
        }
        const bool isOfUse = processPollEvents(Serving_(), active, gotData);
        if (isOfUse) {
            ++place;
        } else {
            retire(m_activeConnections.begin() + place);
        }
        if (isOfUse && quietSpell() == spell) continue;
        spell = quietSpell();
        end = allConnections().m_end;
    }
    if (!m_keptBlocks.empty()) gotData = true;
    return true;
}

// The order of fillPollFdArray.
template <class Action>
[[gnu::hot]] void VekmsgTerminalImpl_::forEachSocket(Action action) const {
    for (const SP_VekSocket_& sp_socket : m_listeningSockets) action(*sp_socket);
    const auto ofConnection = [&](const SP_VekmsgConnection_& sp_connection) {
        if (VekSocket_* p_socket = sp_connection->socket()) action(*p_socket);
    };
    std::for_each(m_unresolvedConnections.begin(), m_unresolvedConnections.end(), ofConnection);
    std::for_each(m_activeConnections.begin(), m_activeConnections.end(), ofConnection);
}

[[gnu::hot]] void VekmsgTerminalImpl_::lookForQuietSockets() {
    if (!isOpen()) return;
    prepareLook();
    look();
}

[[gnu::hot]] bool VekmsgTerminalImpl_::prepareLook() {
    if (VEKMSG_QUIET_SPELLS == 0) return false;
    m_poll.clear();
    bool areListenersAdded = true;
    for (const SP_VekSocket_& sp_socket : m_listeningSockets) {
        if (!m_poll.tryAdd(*sp_socket)) areListenersAdded = false;
    }
    for (const SP_VekmsgConnection_& sp_connection : m_unresolvedConnections) {
        if (VekSocket_* p_socket = sp_connection->socket()) m_poll.tryAdd(*p_socket);
    }
    const bool areStreamsAdded = prepareStreams();
    const bool isNoneDue = m_poll.due().m_end == 0;
    m_polledChanges = m_activeConnections.changes();
    // An unresolved connection may settle with any active one.
    const bool isDueKnown = areStreamsAdded && m_unresolvedConnections.empty();
    if (!isDueKnown) m_poll.setDue(allConnections());
    return isDueKnown && isNoneDue && areListenersAdded && m_keptBlocks.empty() &&
           m_poll.count() <= kWaitPollEntries;
}

[[gnu::hot]] bool VekmsgTerminalImpl_::prepareStreams() {
    m_poll.beginStreams();
    Places_ due = SocketPoll_::none();
    bool areAllAdded = true;
    const unsigned int end = allConnections().m_end;
    for (unsigned int place = 0; place < end; ++place) {
        const VekmsgConnection_& connection = *m_activeConnections[place];
        VekSocket_* p_socket = connection.socket();
        if (connection.awaitsOnlyData() && m_poll.tryAddStream(*p_socket)) {
            if (connection.hasReceived()) due.include(place);
        } else {
            due.include(place);
            if (p_socket == nullptr || !m_poll.tryAdd(*p_socket)) areAllAdded = false;
        }
    }
    m_poll.setDue(due);
    return areAllAdded;
}

void VekmsgTerminalImpl_::look() {
    // Asking one stream costs no more than the poll; a listening socket with nobody waiting costs ten times
    // that.
    const bool isWorthIt = m_poll.count() >= 2 || !m_listeningSockets.empty();
    if (VEKMSG_QUIET_SPELLS != 0 && isWorthIt) {
        m_poll.poll(0);
    } else {
        endQuietSpell();
    }
}

bool VekmsgTerminalImpl_::preparePoll() {
    m_poll.clear();
    m_poll.setDue(allConnections());
    unsigned int count = kWaitPollEntries;
    if (!fillPollFdArray(m_poll.next(), count)) return false;
    const pollfd* const p_end = m_poll.next() + count;
    forEachSocket([&](VekSocket_& socket) {
        // Entries come in the order of the sockets, but not every socket has one.
        if (m_poll.next() != p_end && m_poll.next()->fd == socket.descriptor()) m_poll.add(socket);
    });
    return true;
}

const pollfd* VekmsgTerminalImpl_::noteQuietSockets(const pollfd* p_entries, unsigned int count) const {
    const pollfd* const p_end = p_entries + count;
    const std::uint64_t spell = quietSpell();
    forEachSocket([&](VekSocket_& socket) {
        if (p_entries == p_end || p_entries->fd != socket.descriptor()) return;
        if (p_entries->revents == 0) socket.noteQuiet(spell);
        ++p_entries;
    });
    return p_entries;
}

bool VekmsgTerminalImpl_::processPollEvents(Accepting_, VekSocket_& listeningSocket) {
    SP_VekSocket_ sp_socket;
    if (!listeningSocket.accept(sp_socket)) return false;
    if (!sp_socket) return true;
    SP_VekmsgConnection_ sp_connection(new (std::nothrow) VekmsgConnection_);
    if (!sp_connection) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::processPollEvents() Can't create VekmsgConnection_");
        return false;
    }
    sp_connection->setSocket(sp_socket);
    sp_connection->setMyName(m_sp_componentName);
    sp_connection->setMaxFailureRetryCount(sp_socket->remoteAddress().type());
    if (!sp_connection->start()) return false;
    m_unresolvedConnections.push_back(sp_connection);
    return true;
}

void VekmsgTerminalImpl_::processPollEvents(Resolving_, Connections_::iterator unresolved) {
    m_poll.setDue(allConnections());  // it may settle with any of them
    const SP_VekmsgConnection_ sp_connection = *unresolved;
    bool hasMessages = false;
    if (!sp_connection->processPollEvents(hasMessages)) {
        VEKMSG_LOG_DEBUG("Deleting unresolved connection at %s", printable(sp_connection->getMyName()));
        keepReceivedBlocks(*sp_connection);
        sp_connection->stop();
        m_unresolvedConnections.erase(unresolved);
        return;
    }
    const SP_Utf8String_ sp_peerName = sp_connection->getPeerName();
    if (!sp_peerName) return;
    if (sp_peerName->empty()) {
        VEKMSG_LOG_WARNING(
            "VekmsgTerminalImpl_::processPollEvents(%s) got a null peerName for an unresolved connection",
            printable(m_sp_componentName));
        sp_connection->stop();
    } else {
        const auto [place, isInserted] = m_activeConnections.insert(sp_connection);
        if (!isInserted) processPollEvents(Settling_(), **place, *sp_connection);
    }
    m_unresolvedConnections.erase(unresolved);
}

// Both ends keep the stream that the component with the smaller name opened: the greater name adopts the
// accepted socket, the smaller name keeps its own. The old object survives in any case, with all that is
// queued on it.
void VekmsgTerminalImpl_::processPollEvents(Settling_, VekmsgConnection_& old, VekmsgConnection_& accepted) {
    const bool wasFunctional = old.isFunctional();
    // What the old stream still holds comes first. That it has ended, or found no memory to go on, shows now
    // as well: a peer that was started again must not be turned away for the sake of a stream that it has
    // left.
    bool hasMessages = false;
    const bool stands = wasFunctional && old.processPollEvents(hasMessages) && old.isFunctional();
    old.mergeQueues(&accepted);
    const SP_Utf8String_ sp_peerName = old.getPeerName();
    const bool isPeerSmaller = *sp_peerName < *m_sp_componentName;
    const bool adoptsAccepted = isPeerSmaller || !stands;
    if (adoptsAccepted) old.swapSockets(&accepted);
    if (wasFunctional && isPeerSmaller)
        VEKMSG_LOG_WARNING("Duplicate connections between %s and %s. Closing the old",
                           printable(m_sp_componentName), printable(sp_peerName));
    if (!adoptsAccepted)
        VEKMSG_LOG_WARNING("Duplicate connections between %s and %s. Closing the new one",
                           printable(m_sp_componentName), printable(sp_peerName));
    accepted.stop();
}

[[gnu::hot]] bool VekmsgTerminalImpl_::processPollEvents(Serving_, VekmsgConnection_& active, bool& gotData) {
    bool hasMessages = false;
    if (active.processPollEvents(hasMessages)) {
        // While a new stream connects, a turn says nothing of what the failed one has brought.
        gotData = gotData || hasMessages || active.hasReceived();
        return true;
    }
    VEKMSG_LOG_DEBUG("Deleting active connection between %s and %s", printable(m_sp_componentName),
                     printable(active.getPeerName()));
    return false;
}

bool VekmsgTerminalImpl_::fillPollFdArray(pollfd* p_pollFdBuf, unsigned int& count) {
    if (!isOpen()) {
        count = 0;
        return true;
    }
    if (p_pollFdBuf == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::fillPollFdArray() null p_pollFdBuf for %s",
                         printable(m_sp_componentName));
        return false;
    }
    if (count < 3) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::fillPollFdArray() count %d < 3 for %s", count,
                         printable(m_sp_componentName));
        return false;
    }
    // One site for each group, so that the line of a record tells which sockets were too many.
    const pollfd* const p_end = p_pollFdBuf + count;
    pollfd* p_cursor = p_pollFdBuf;
    for (const SP_VekSocket_& sp_socket : m_listeningSockets) {
        if (p_cursor == p_end) {
            VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::fillPollFdArray() count %d is not enough for %s", count,
                             printable(m_sp_componentName));
            return false;
        }
        if (!sp_socket->fillPollFd(false, p_cursor, p_cursor)) return false;
    }
    for (const SP_VekmsgConnection_& sp_connection : m_unresolvedConnections) {
        if (p_cursor == p_end) {
            VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::fillPollFdArray() count %d is not enough for %s", count,
                             printable(m_sp_componentName));
            return false;
        }
        sp_connection->fillPollFd(p_cursor, p_cursor);
    }
    for (const SP_VekmsgConnection_& sp_connection : m_activeConnections) {
        if (p_cursor == p_end) {
            VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::fillPollFdArray() count %d is not enough for %s", count,
                             printable(m_sp_componentName));
            return false;
        }
        sp_connection->fillPollFd(p_cursor, p_cursor);
    }
    count = static_cast<unsigned int>(p_cursor - p_pollFdBuf);
    return true;
}
