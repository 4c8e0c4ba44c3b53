#include "support/raw_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
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

bool isReadable(int descriptor, unsigned int limitMs) {
    pollfd entry = {descriptor, POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(limitMs)) > 0;
}

[[noreturn]] void fail(const char* p_what, int descriptor) {
    const std::string text = std::string(p_what) + ": " + std::strerror(errno);
    close(descriptor);
    throw std::runtime_error(text);
}

}  // namespace

RawPeer_::RawPeer_(const std::string& address) {
    const Endpoint_ endpoint(address);
    m_descriptor = endpoint.newSocket();
    if (connect(m_descriptor, &endpoint.m_native.m_any, endpoint.m_size) != 0) fail("connect", m_descriptor);
}

RawPeer_::RawPeer_(RawPeer_&& other) noexcept : m_descriptor(other.m_descriptor) {
    other.m_descriptor = -1;
}

RawPeer_& RawPeer_::operator=(RawPeer_&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
}

std::size_t RawPeer_::write(const std::string& bytes) {
    const ssize_t written = send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return written > 0 ? static_cast<std::size_t>(written) : 0;
}

bool RawPeer_::writeUrgent(char byte) {
    return send(m_descriptor, &byte, 1, MSG_NOSIGNAL | MSG_OOB) == 1;
}

std::string RawPeer_::read(std::size_t size, unsigned int limitMs) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    std::string bytes;
    while (bytes.size() < size && std::chrono::steady_clock::now() < limit) {
        if (!isReadable(m_descriptor, 10)) continue;
        char part[4096];
        const ssize_t count = recv(m_descriptor, part, std::min(sizeof(part), size - bytes.size()), 0);
        if (count <= 0) break;
        bytes.append(part, static_cast<std::size_t>(count));
    }
    return bytes;
}

bool RawPeer_::isClosed(unsigned int limitMs) {
    char byte = 0;
    return isReadable(m_descriptor, limitMs) && recv(m_descriptor, &byte, 1, MSG_PEEK) <= 0;
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

RawListener_::RawListener_(const std::string& address) {
    const Endpoint_ endpoint(address);
    m_descriptor = endpoint.newSocket();
    const int on = 1;
    setsockopt(m_descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(m_descriptor, &endpoint.m_native.m_any, endpoint.m_size) != 0 || listen(m_descriptor, 8) != 0)
        fail("listen", m_descriptor);
}

RawListener_::~RawListener_() {
    close(m_descriptor);
}

RawPeer_ RawListener_::accept(unsigned int limitMs) {
    if (!isReadable(m_descriptor, limitMs)) throw std::runtime_error("nobody came");
    return RawPeer_(::accept(m_descriptor, nullptr, nullptr));
}
