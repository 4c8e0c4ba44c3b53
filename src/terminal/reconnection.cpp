// What becomes of a connection whose socket failed, and of two connections to the same peer.

#include <utility>

#include "foundation/log_record.h"
#include "terminal/connection.h"

bool VekmsgConnection_::setMaxFailureRetryCount(VekSocketAddress_::AddressType_ type) {
    switch (type) {
        case VekSocketAddress_::INET_TCP:
            m_maxFailureRetryCount = 4;
            break;
        case VekSocketAddress_::INET_UDP:
            m_maxFailureRetryCount = 1;
            break;
        default:
            m_maxFailureRetryCount = 0;
            break;
    }
    m_failureCount = 0;
    return true;
}

bool VekmsgConnection_::reconnectFailedSocket() {
    if (m_failureCount > m_maxFailureRetryCount) return false;
    ++m_failureCount;
    if (m_failureCount > m_maxFailureRetryCount) {
        VEKMSG_LOG_DEBUG("Unable to reconnect failed socket between %s and %s after %u attempts",
                         printable(m_sp_myName), printable(m_sp_peerName), m_failureCount);
        return false;
    }
    if (!m_sp_socket) {
        VEKMSG_LOG_ERROR(
            "Unable to reconnect socket between %s and %s after %u attempts because of null socket",
            printable(m_sp_myName), printable(m_sp_peerName), m_failureCount);
        return false;
    }
    const VekSocketAddress_ remoteAddress = m_sp_socket->remoteAddress();
    if (remoteAddress.isWildcard()) {
        VEKMSG_LOG_ERROR(
            "Unable to reconnect socket between %s and %s after %u attempts due to wildcard address",
            printable(m_sp_myName), printable(m_sp_peerName), m_failureCount);
        return false;
    }
    stop();
    SP_VekSocket_ sp_socket(new (std::nothrow) VekSocket_);
    if (!sp_socket) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::reconnectFailedSocket() Can't create vekSocket_");
        return false;
    }
    VekSocketAddress_ localAddress;
    localAddress.initializeAsWildcard(remoteAddress.type());
    if (!sp_socket->initialize(localAddress)) return false;
    VEKMSG_LOG_DEBUG("Reconnecting socket between %s and %s after %u failures", printable(m_sp_myName),
                     printable(m_sp_peerName), m_failureCount);
    if (!sp_socket->connect(remoteAddress)) return false;
    setSocket(sp_socket);
    return start();
}

bool VekmsgConnection_::mergeQueues(VekmsgConnection_* p_connection) {
    if (p_connection == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::mergeQueues() null p_connection");
        return false;
    }
    if (p_connection == this) return true;
    p_connection->moveReceivedTo(m_receivedBuffers);
    m_sendQueue.splice(m_sendQueue.end(), p_connection->m_sendQueue);
    return true;
}

bool VekmsgConnection_::swapSockets(VekmsgConnection_* p_connection) {
    if (p_connection == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::swapSockets() null p_connection");
        return false;
    }
    m_sp_socket.swap(p_connection->m_sp_socket);
    if (m_sp_socket) m_sp_socket->forgetQuiet();
    if (p_connection->m_sp_socket) p_connection->m_sp_socket->forgetQuiet();
    std::swap(m_connectionState, p_connection->m_connectionState);
    std::swap(m_blockType, p_connection->m_blockType);
    std::swap(m_blockLength, p_connection->m_blockLength);
    std::swap(m_decodeOffset, p_connection->m_decodeOffset);
    std::swap(m_maxFailureRetryCount, p_connection->m_maxFailureRetryCount);
    std::swap(m_failureCount, p_connection->m_failureCount);
    m_sp_wholeUnit.swap(p_connection->m_sp_wholeUnit);
    return true;
}
