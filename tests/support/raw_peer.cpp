#include "support/raw_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace {

/// What the system calls take for an address text.
struct Endpoint_ {
    explicit Endpoint_(const std::string& address) {
        const std::string path = address.substr(address.find("://") + 3);
        std::memset(&m_native, 0, sizeof(m_native));
        if (address.rfind("local://", 0) == 0) {
            m_native.m_local.sun_family = AF_UNIX;
            path.copy(m_native.m_local.sun_path, sizeof(m_native.m_local.sun_path) - 1);
            m_size = sizeof(m_native.m_local);
        } else {
            const std::size_t colon = path.find(':');
            m_native.m_inet.sin_family = AF_INET;
            m_native.m_inet.sin_port = htons(static_cast<std::uint16_t>(std::stoul(path.substr(colon + 1))));
            inet_aton(path.substr(0, colon).c_str(), &m_native.m_inet.sin_addr);
            m_size = sizeof(m_native.m_inet);
        }
    }

    int newSocket() const { return socket(m_native.m_any.sa_family, SOCK_STREAM, 0); }

    union {
        sockaddr m_any;
        sockaddr_un m_local;
        sockaddr_in m_inet;
    } m_native;
    socklen_t m_size;
};

constexpr unsigned int kWriteLimitMs = 10000;

bool isReady(int descriptor, short events, unsigned int limitMs) {
    pollfd entry = {descriptor, events, 0};
    const timespec limit = {static_cast<time_t>(limitMs / 1000), static_cast<long>(limitMs % 1000) * 1000000};
    return ::ppoll(&entry, 1, &limit, nullptr) > 0;
}

ssize_t sendNow(int descriptor, const char* p_bytes, std::size_t size, int flags) {
    iovec piece = {const_cast<char*>(p_bytes), size};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    return ::sendmsg(descriptor, &message, flags | MSG_NOSIGNAL | MSG_DONTWAIT);
}

ssize_t receiveNow(int descriptor, char* p_bytes, std::size_t size, int flags) {
    iovec piece = {p_bytes, size};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    return ::recvmsg(descriptor, &message, flags);
}

[[noreturn]] void fail(const char* p_what, int descriptor) {
    const std::string text = std::string(p_what) + ": " + std::strerror(errno);
    if (descriptor != -1) close(descriptor);
    throw std::runtime_error(text);
}

}  // namespace

RawPeer_::RawPeer_(const std::string& address) {
    const Endpoint_ endpoint(address);
    m_descriptor = endpoint.newSocket();
    if (connect(m_descriptor, &endpoint.m_native.m_any, endpoint.m_size) != 0) fail("connect", m_descriptor);
}

RawPeer_ RawPeer_::acceptedFrom(int listener, unsigned int limitMs) {
    if (!isReady(listener, POLLIN, limitMs)) throw std::runtime_error("nobody came");
    RawPeer_ peer(::accept(listener, nullptr, nullptr));
    if (peer.m_descriptor == -1) fail("accept", -1);
    return peer;
}

RawPeer_::RawPeer_(RawPeer_&& other) noexcept : m_descriptor(other.m_descriptor) {
    other.m_descriptor = -1;
}

RawPeer_& RawPeer_::operator=(RawPeer_&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
}

void RawPeer_::write(const std::string& bytes) {
    for (std::size_t written = 0; written < bytes.size();) {
        const bool hasRoom = isReady(m_descriptor, POLLOUT, kWriteLimitMs);
        const ssize_t count =
            hasRoom ? sendNow(m_descriptor, bytes.data() + written, bytes.size() - written, 0) : 0;
        if (count <= 0) throw std::runtime_error("a raw peer cannot write");
        written += static_cast<std::size_t>(count);
    }
}

std::size_t RawPeer_::writeSome(const std::string& bytes) {
    const ssize_t written = sendNow(m_descriptor, bytes.data(), bytes.size(), 0);
    return written > 0 ? static_cast<std::size_t>(written) : 0;
}

void RawPeer_::writeUrgent(char byte) {
    if (sendNow(m_descriptor, &byte, 1, MSG_OOB) != 1)
        throw std::runtime_error("a raw peer cannot write urgent data");
}

std::string RawPeer_::read(std::size_t size, unsigned int limitMs) {
    std::string bytes;
    while (bytes.size() < size && isReady(m_descriptor, POLLIN, limitMs)) {
        char part[4096];
        const ssize_t count = receiveNow(m_descriptor, part, std::min(sizeof(part), size - bytes.size()), 0);
        if (count <= 0) break;
        bytes.append(part, static_cast<std::size_t>(count));
    }
    return bytes;
}

std::string RawPeer_::readArrived() {
    return read(std::string::npos, 0);
}

std::string RawPeer_::readBlock() {
    const std::string header = read(4);
    if (header.size() < 4) return header;
    const auto high = static_cast<unsigned char>(header[2]);
    const auto low = static_cast<unsigned char>(header[3]);
    return header + read(static_cast<std::size_t>(high) << 8 | low);
}

bool RawPeer_::isQuiet() const {
    return !isReady(m_descriptor, POLLIN, 0);
}

bool RawPeer_::isAtEnd(unsigned int limitMs) const {
    char byte = 0;
    return isReady(m_descriptor, POLLIN, limitMs) && receiveNow(m_descriptor, &byte, 1, MSG_PEEK) <= 0;
}

std::string RawPeer_::address() const {
    sockaddr_in own = {};
    socklen_t length = sizeof(own);
    if (getsockname(m_descriptor, reinterpret_cast<sockaddr*>(&own), &length) != 0) fail("getsockname", -1);
    return std::string("inettcp://") + inet_ntoa(own.sin_addr) + ':' + std::to_string(ntohs(own.sin_port));
}

bool RawPeer_::isAcknowledged(unsigned int limitMs) const {
    int waiting = 0;
    for (unsigned int i = 0; i <= limitMs; ++i) {
        if (ioctl(m_descriptor, TIOCOUTQ, &waiting) == 0 && waiting == 0) return true;
        isReady(-1, 0, 1);  // a millisecond
    }
    return false;
}

void RawPeer_::finish() {
    shutdown(m_descriptor, SHUT_WR);
}

void RawPeer_::resetOnClose() {
    const linger atOnce = {1, 0};
    setsockopt(m_descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
}

void RawPeer_::close() {
    if (m_descriptor != -1) ::close(m_descriptor);
    m_descriptor = -1;
}

RawListener_::RawListener_(const std::string& address, int backlog) {
    const Endpoint_ endpoint(address);
    m_descriptor = endpoint.newSocket();
    const int on = 1;
    setsockopt(m_descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(m_descriptor, &endpoint.m_native.m_any, endpoint.m_size) != 0 ||
        listen(m_descriptor, backlog) != 0)
        fail("listen", m_descriptor);
}

RawListener_::~RawListener_() {
    close(m_descriptor);
}
