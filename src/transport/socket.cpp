#include "transport/socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"

namespace {

constexpr unsigned int kConnectLimitInSec = 6;
constexpr unsigned int kSendLimitInSec = 8;

/// The call may be made again later: nothing is wrong with the stream.
bool isTransient(int error) {
    return error == EINTR || error == EAGAIN;
}

/// Linux gives errors of the connection that was waiting as the result of accept; the listener is sound.
bool isOfWaitingPeer(int error) {
    switch (error) {
        case EPROTO:
        case ENONET:
        case ENOPROTOOPT:
        case EOPNOTSUPP:
        case ENETDOWN:
        case ENETUNREACH:
        case ECONNABORTED:
        case EHOSTDOWN:
        case EHOSTUNREACH:
            return true;
        default:
            return false;
    }
}

bool isUnderWay(int error) {
    return error == EALREADY || error == EINPROGRESS;
}

/// Linux shows no pending error while a connect is under way.
bool hasPeer(int descriptor) {
    VekSockNativeAddr_ peer;
    socklen_t length = sizeof(peer);
    return ::getpeername(descriptor, &peer.m_any, &length) == 0 || errno != ENOTCONN;
}

/// Messages are small and each is written at once: none should wait for the acknowledgement of the one
/// before. Without the option the stream is slower and nothing else.
void sendWithoutDelay(int descriptor, VekSocketAddress_::AddressType_ type) {
    if (type != VekSocketAddress_::INET_TCP) return;
    const int savedErrno = errno;
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    errno = savedErrno;
}

}  // namespace

VekSocket_::VekSocket_() = default;

VekSocket_::~VekSocket_() {
    cleanUp();
}

bool VekSocket_::initialize(const VekSocketAddress_& localAddress) try {
    const VekSocketAddress_::AddressType_ type = localAddress.type();
    const bool isLocal = type == VekSocketAddress_::LOCAL;
    const bool isUdp = type == VekSocketAddress_::INET_UDP;
    if (!isLocal && !isUdp && type != VekSocketAddress_::INET_TCP) {
        VEKMSG_LOG_ERROR("VekSocket_::initialize() invalid address type %d", static_cast<int>(type));
        return false;
    }
    // It may be a member, which cleanUp resets.  NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    const VekSocketAddress_ address(localAddress);
    cleanUp();
    if (!initialize(isLocal ? AF_UNIX : AF_INET, isUdp ? SOCK_DGRAM : SOCK_STREAM,
                    address.realName().c_str()))
        return false;
    m_localAddress = address;
    VekSockNativeAddr_ native;
    if (!m_localAddress.isWildcard() && !initialize(native)) {
        closeDescriptor();
        return false;
    }
    m_state = INITIALIZED;
    return m_timeStamp.imprint();
} catch (const std::exception&) {
    cleanUp();
    return false;
}

/// Makes the descriptor.
bool VekSocket_::initialize(int domain, int kind, const char* p_name) {
    m_descriptor = ::socket(domain, kind, 0);
    if (m_descriptor < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::initialize(%s) socket() failed with error(%d): %s", p_name, error,
                         std::strerror(error));
        return false;
    }
    const int flags = ::fcntl(m_descriptor, F_GETFL);
    if (flags < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::initialize(%s) fcntl(F_GETFL) failed with error(%d): %s", p_name, error,
                         std::strerror(error));
        closeDescriptor();
        return false;
    }
    if (::fcntl(m_descriptor, F_SETFL, flags | O_NONBLOCK) < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::initialize(%s) fcntl(F_SETFL) failed with error(%d): %s", p_name, error,
                         std::strerror(error));
        closeDescriptor();
        return false;
    }
    return true;
}

/// Binds the descriptor to the local address.
bool VekSocket_::initialize(VekSockNativeAddr_& native) {
    const bool isLocal = m_localAddress.type() == VekSocketAddress_::LOCAL;
    const char* p_name = m_localAddress.realName().c_str();
    const int on = 1;
    if (::setsockopt(m_descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
        const int error = errno;
        VEKMSG_LOG_WARNING("setsockopt(SOL_SOCKET, SO_REUSEADDR) on %s failed with error(%d): %s", p_name,
                           error, std::strerror(error));
    }
    if (isLocal && !initialize(m_localAddress.path())) return false;
    m_localAddress.fillInNative(&native);  // it is no wildcard, so it has a native form
    if (::bind(m_descriptor, &native.m_any, m_localAddress.nativeSize()) < 0) {
        const int error = errno;
        VEKMSG_LOG_DEBUG("VekSocket_::initialize() bind(%s) failed with error(%d): %s", p_name, error,
                         std::strerror(error));
        return false;
    }
    if (isLocal && ::chmod(m_localAddress.path(), 0777) < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::initialize(%s) chmod failed with error(%d): %s", m_localAddress.path(),
                         error, std::strerror(error));
        return false;
    }
    return true;
}

/// Removes the socket file that a dead process left behind: it would block the bind.
bool VekSocket_::initialize(const char* p_path) {
    if (::access(p_path, F_OK) != 0 || ::unlink(p_path) == 0) return true;
    const int error = errno;
    VEKMSG_LOG_ERROR("VekSocket_::initialize() unlink(%s) failed with error(%d): %s", p_path, error,
                     std::strerror(error));
    return false;
}

bool VekSocket_::listen(unsigned int backlog) {
    if (m_state != INITIALIZED) {
        VEKMSG_LOG_ERROR("VekSocket_::listen() wrong state %d", static_cast<int>(m_state));
        return false;
    }
    if (::listen(m_descriptor, static_cast<int>(backlog)) < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::listen() listen(%s) failed with error(%d): %s",
                         m_localAddress.realName().c_str(), error, std::strerror(error));
        return false;
    }
    m_state = LISTENING;
    return true;
}

bool VekSocket_::accept(SP_VekSocket_& sp_socket) {
    sp_socket.reset();
    if (m_state != LISTENING || isQuiet()) return true;
    VekSockNativeAddr_ peer;
    if (!m_localAddress.fillInNative(&peer)) return false;
    socklen_t length = m_localAddress.nativeSize();
    const int descriptor = ::accept(m_descriptor, &peer.m_any, &length);
    if (descriptor >= 0) return accept(descriptor, sp_socket);

    const int error = errno;
    if (error == EAGAIN) return true;
    const char* p_name = m_localAddress.realName().c_str();
    if (isOfWaitingPeer(error)) {
        VEKMSG_LOG_WARNING("accept(%s) returned with error(%d): %s", p_name, error, std::strerror(error));
        return true;
    }
    VEKMSG_LOG_ERROR("VekSocket_::accept() accept(%s) failed with error(%d): %s", p_name, error,
                     std::strerror(error));
    return false;
}

/// Makes a socket of the descriptor, which stays open when that fails.
bool VekSocket_::accept(int descriptor, SP_VekSocket_& sp_socket) const {
    const char* p_name = m_localAddress.realName().c_str();
    const int flags = ::fcntl(descriptor, F_GETFL);
    if (flags < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::accept(%s) fcntl(F_GETFL) failed with error(%d): %s", p_name, error,
                         std::strerror(error));
        return false;
    }
    if ((flags & O_NONBLOCK) == 0 && ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::accept(%s) fcntl(F_SETFL) failed with error(%d): %s", p_name, error,
                         std::strerror(error));
        return false;
    }
    SP_VekSocket_ sp_accepted(new (std::nothrow) VekSocket_);
    if (!sp_accepted) {
        VEKMSG_LOG_ERROR("VekSocket_::accept() Can't create vekSocket_");
        return false;
    }
    if (!sp_accepted->accepted(descriptor, m_localAddress.type())) return false;
    sp_socket = sp_accepted;
    return true;
}

bool VekSocket_::accepted(int descriptor, VekSocketAddress_::AddressType_ type) {
    VekSockNativeAddr_ local = {};
    VekSockNativeAddr_ remote = {};
    socklen_t localLength = sizeof(local);
    socklen_t remoteLength = sizeof(remote);
    if (::getsockname(descriptor, &local.m_any, &localLength) < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::accepted() getsockname() failed with error(%d): %s", error,
                         std::strerror(error));
        return false;
    }
    if (::getpeername(descriptor, &remote.m_any, &remoteLength) < 0) {
        const int error = errno;
        VEKMSG_LOG_ERROR("VekSocket_::accepted() getpeername() failed with error(%d): %s", error,
                         std::strerror(error));
        return false;
    }
    if (type == VekSocketAddress_::LOCAL) {
        if (!m_localAddress.extractFromNative(&local.m_local)) return false;
        if (!m_remoteAddress.extractFromNative(&remote.m_local)) return false;
    } else if (type == VekSocketAddress_::INET_TCP) {
        if (!m_localAddress.extractFromNative(&local.m_inet, false)) return false;
        if (!m_remoteAddress.extractFromNative(&remote.m_inet, false)) return false;
    } else {
        VEKMSG_LOG_ERROR("VekSocket_::accepted() invalid address type %d", static_cast<int>(type));
        return false;
    }
    m_descriptor = descriptor;
    dropBuffers();
    m_state = CONNECTED;
    sendWithoutDelay(descriptor, type);
    return true;
}

bool VekSocket_::connect(const VekSocketAddress_& remoteAddress) try {
    const char* p_name = remoteAddress.realName().c_str();
    const char* p_present = m_remoteAddress.realName().c_str();
    const bool isSame = std::strcmp(p_name, p_present) == 0;
    switch (m_state) {
        case INITIALIZED:
            m_remoteAddress = remoteAddress;
            return connect();
        case CONNECTING:
            if (isSame) {
                VEKMSG_LOG_WARNING("Socket is connecting to %s", p_present);
            } else {
                VEKMSG_LOG_ERROR("VekSocket_::connect(%s) failed because it's connecting to %s", p_name,
                                 p_present);
            }
            return isSame;
        case CONNECTED:
            if (isSame) {
                VEKMSG_LOG_WARNING("Socket is already connected to %s", p_present);
            } else {
                VEKMSG_LOG_ERROR("VekSocket_::connect(%s) failed because it's already connected to %s",
                                 p_name, p_present);
            }
            return isSame;
        default:
            VEKMSG_LOG_ERROR("VekSocket_::connect(%s) failed because of the wrong state %d", p_name,
                             static_cast<int>(m_state));
            return false;
    }
}
VEKMSG_RETURN_ON_EXCEPTION(false)

/// Begins to connect to the remote address.
bool VekSocket_::connect() {
    VekSockNativeAddr_ native;
    if (!m_remoteAddress.fillInNative(&native)) return false;
    endQuietSpell();
    if (::connect(m_descriptor, &native.m_any, m_remoteAddress.nativeSize()) == 0) {
        becomeConnected();
        return true;
    }
    const int error = errno;
    if (isUnderWay(error)) {
        m_state = CONNECTING;
        return m_timeStamp.imprint();
    }
    VEKMSG_LOG_DEBUG("VekSocket_::connect(%s) failed with error(%d): %s", m_remoteAddress.realName().c_str(),
                     error, std::strerror(error));
    return false;
}

void VekSocket_::becomeConnected() {
    m_state = CONNECTED;
    sendWithoutDelay(m_descriptor, m_remoteAddress.type());
}

bool VekSocket_::connecting() {
    const char* p_name = m_remoteAddress.realName().c_str();
    const bool isAsked = !isQuiet();
    int error = 0;
    socklen_t length = sizeof(error);
    if (isAsked && ::getsockopt(m_descriptor, SOL_SOCKET, SO_ERROR, &error, &length) < 0) {
        error = errno;
        m_state = IDLE;
        VEKMSG_LOG_ERROR("VekSocket_::connecting(%s) getsockopt() failed with error(%d): %s", p_name, error,
                         std::strerror(error));
        return false;
    }
    if (isAsked && error == 0 && hasPeer(m_descriptor)) {
        becomeConnected();
        return true;
    }
    if (error != 0 && !isUnderWay(error)) {
        m_state = IDLE;
        VEKMSG_LOG_DEBUG("VekSocket_::connecting(%s) async failure with error(%d): %s", p_name, error,
                         std::strerror(error));
        return false;
    }
    unsigned int age = 0;
    if (!m_timeStamp.getAgeInSec(age)) return false;
    if (age < kConnectLimitInSec) return true;
    m_state = IDLE;
    VEKMSG_LOG_ERROR("Attempt to connect to %s timed out after %u seconds", p_name, age);
    return false;
}

[[gnu::hot]] VekSocket_::SendResult_ VekSocket_::send(SP_BasicBuffer_ sp_buffer) {
    if (sp_buffer.isNull()) {
        VEKMSG_LOG_ERROR("VekSocket_::send() null sp_buffer");
        return SEND_FAILED;
    }
    if (m_state != CONNECTED || !m_sp_sendBuffer.isNull()) return SEND_BUSY;
    if (sp_buffer->dataLength() == 0) {
        VEKMSG_LOG_WARNING("VekSocket_::send() nothing to send");
        return SEND_OK;
    }
    m_sp_sendBuffer.swap(sp_buffer);
    m_dataToBeSent = m_sp_sendBuffer->dataLength();
    if (!m_timeStamp.imprint()) return SEND_FAILED;

    const long written = writePending();
    if (written > 0) {
        takeOffPending(written);
        return SEND_OK;
    }
    const int error = errno;
    if (written == 0) {
        VEKMSG_LOG_WARNING("send(to %s) failed due to closed socket", m_remoteAddress.realName().c_str());
        return SEND_FAILED;
    }
    if (isTransient(error)) return SEND_OK;
    VEKMSG_LOG_DEBUG("send(to %s) failed with error(%d): %s", m_remoteAddress.realName().c_str(), error,
                     std::strerror(error));
    return SEND_FAILED;
}

/// Writes what the descriptor takes of the last `m_dataToBeSent` bytes.
long VekSocket_::writePending() const {
    const unsigned char* p_end = m_sp_sendBuffer->data() + m_sp_sendBuffer->dataLength();
    endQuietSpell();
    // A closed peer must not end the process with SIGPIPE.
    return ::send(m_descriptor, p_end - m_dataToBeSent, m_dataToBeSent, MSG_NOSIGNAL);
}

void VekSocket_::takeOffPending(long written) {
    m_dataToBeSent -= static_cast<unsigned int>(written);
    if (m_dataToBeSent == 0) m_sp_sendBuffer.reset();
}

[[gnu::hot]] bool VekSocket_::receive(unsigned int size, SP_BasicBuffer_ sp_buffer) {
    if (sp_buffer.isNull()) {
        VEKMSG_LOG_ERROR("VekSocket_::receive() null sp_buffer");
        return false;
    }
    if (!m_sp_receiveBuffer.isNull()) {
        VEKMSG_LOG_WARNING("VekSocket_::receive() discard pending receive buffer");
    }
    const unsigned int room = sp_buffer->trailerRoom();
    if (size > room) {
        VEKMSG_LOG_WARNING("VekSocket_::receive() requested data size %d is greater than free space %d",
                           static_cast<int>(size), static_cast<int>(room));
        size = room;
    }
    m_bytesToReceive = size;
    m_sp_receiveBuffer.swap(sp_buffer);
    return true;
}

[[gnu::hot]] bool VekSocket_::check(SP_BasicBuffer_& sp_buffer) {
    sp_buffer.reset();
    if (m_state != CONNECTED) return check();
    if (m_sp_receiveBuffer.isNull() || m_bytesToReceive == 0) return true;
    if (!check(*m_sp_receiveBuffer, sp_buffer)) return false;
    if (m_dataToBeSent == 0) {
        m_sp_sendBuffer.reset();
        return true;
    }
    return check(*m_sp_sendBuffer);
}

/// A socket that is not connected.
bool VekSocket_::check() {
    switch (m_state) {
        case INITIALIZED:
            return true;
        case CONNECTING:
            return connecting();
        case LISTENING:
            VEKMSG_LOG_ERROR("VekSocket_::check() Shouldn't call check() in listening mode");
            return false;
        default:
            VEKMSG_LOG_ERROR("VekSocket_::check() failed because of the wrong state %d",
                             static_cast<int>(m_state));
            return false;
    }
}

/// Reads once.
[[gnu::hot]] bool VekSocket_::check(BasicBuffer_& receiveBuffer, SP_BasicBuffer_& sp_complete) {
    // The owner may have put more data into the buffer since it was armed.
    m_bytesToReceive = std::min(m_bytesToReceive, receiveBuffer.trailerRoom());
    if (isQuiet() && m_bytesToReceive != 0) return true;
    long count = ::recv(m_descriptor, receiveBuffer.data() + receiveBuffer.dataLength(), m_bytesToReceive, 0);
    if (count == 0) {
        closeDescriptor();
        return false;
    }
    if (count < 0) {
        const int error = errno;
        if (!isTransient(error)) {
            VEKMSG_LOG_DEBUG("VekSocket_::check() recv(%s) failed with error(%d): %s",
                             m_remoteAddress.realName().c_str(), error, std::strerror(error));
            return false;
        }
        count = 0;
    }
    receiveBuffer.extendDataIntoTrailer(static_cast<int>(count));
    m_bytesToReceive -= static_cast<unsigned int>(count);
    if (m_bytesToReceive == 0) sp_complete.swap(m_sp_receiveBuffer);
    return true;
}

/// Writes once.
bool VekSocket_::check(BasicBuffer_& sendBuffer) {
    const unsigned int dataLength = sendBuffer.dataLength();
    if (m_dataToBeSent > dataLength) {
        VEKMSG_LOG_WARNING("VekSocket_::check() m_dataToBeSent=%d is greater than dataLength()=%d",
                           static_cast<int>(m_dataToBeSent), static_cast<int>(dataLength));
        m_dataToBeSent = dataLength;
    }
    const char* p_name = m_remoteAddress.realName().c_str();
    const long written = writePending();
    if (written < 0) {
        const int error = errno;
        if (!isTransient(error)) {
            VEKMSG_LOG_ERROR("VekSocket_::send(%s) failed with error(%d): %s", p_name, error,
                             std::strerror(error));
            return false;
        }
    } else {
        takeOffPending(written);
    }
    if (m_dataToBeSent == 0) return true;

    unsigned int age = 0;
    if (!m_timeStamp.getAgeInSec(age)) return false;
    if (age < kSendLimitInSec) return true;
    VEKMSG_LOG_ERROR("Attempt to send %u bytes to %s timed out after %u seconds", m_dataToBeSent, p_name,
                     age);
    return false;
}

bool VekSocket_::fillPollFd(bool wantWrite, pollfd* p_pollFd, pollfd*& p_next) const {
    p_next = p_pollFd;
    if (p_pollFd == nullptr) {
        VEKMSG_LOG_ERROR("VekSocket_::fillPollFd() null p_pollFd");
        return false;
    }
    int events = POLLERR | POLLHUP | POLLNVAL;
    switch (m_state) {
        case INITIALIZED:
            return true;
        case LISTENING:
            events |= POLLIN | POLLPRI;
            break;
        case CONNECTING:
            events |= POLLOUT;
            break;
        case CONNECTED:
            events |= POLLIN | POLLPRI | (wantWrite || isSendDataPending() ? POLLOUT : 0);
            break;
        default:
            VEKMSG_LOG_ERROR("VekSocket_::fillPollFd() failed because of the wrong state %d",
                             static_cast<int>(m_state));
            return false;
    }
    p_pollFd->fd = m_descriptor;
    p_pollFd->events = static_cast<short>(events);
    p_pollFd->revents = 0;
    p_next = p_pollFd + 1;
    return true;
}

bool VekSocket_::fillQuietPollFd(pollfd& entry) const {
    const bool isReceiving = m_state == CONNECTED && !m_sp_receiveBuffer.isNull() && m_bytesToReceive != 0;
    if (m_state == LISTENING || isReceiving) return fillReadPollFd(entry);
    entry = {m_descriptor, POLLOUT, 0};
    return m_state == CONNECTING;
}

void VekSocket_::cleanUp() {
    closeDescriptor();
    if (m_state == LISTENING && m_localAddress.type() == VekSocketAddress_::LOCAL &&
        ::unlink(m_localAddress.path()) < 0) {
        const int error = errno;
        VEKMSG_LOG_WARNING("VekSocket_::cleanUp() unlink(%s) failed with error(%d): %s",
                           m_localAddress.path(), error, std::strerror(error));
    }
    m_state = IDLE;
    forgetQuiet();
    m_localAddress.initializeAsWildcard(VekSocketAddress_::UNKNOWN);
    m_remoteAddress.initializeAsWildcard(VekSocketAddress_::UNKNOWN);
    dropBuffers();
}

void VekSocket_::dropBuffers() {
    m_sp_receiveBuffer.reset();
    m_bytesToReceive = 0;
    m_sp_sendBuffer.reset();
    m_dataToBeSent = 0;
}

void VekSocket_::closeDescriptor() {
    if (m_descriptor == -1) return;
    endQuietSpell();
    ::close(m_descriptor);
    m_descriptor = -1;
}
