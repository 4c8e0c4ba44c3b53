// What do the protocol's own system calls cost? The same bytes in the same blocks as the library's, with
// nothing but the calls that the protocol needs: a send per message; a poll, an accept that would block, two
// receives and one that would block. With --blocking it is the floor: blocking sockets, one send and two
// receives.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "transfer.h"

const char* const g_p_programName = "bare";

namespace {

constexpr std::size_t kHeaderSize = 4;

int makeSocket(const Options_& options, const Meeting_& meeting, const std::string& port,
               sockaddr_storage& address, socklen_t& length) {
    address = {};
    if (options.m_isTcp) {
        auto& inet = reinterpret_cast<sockaddr_in&>(address);
        inet.sin_family = AF_INET;
        inet.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        inet.sin_port = htons(static_cast<std::uint16_t>(std::stoul(port)));
        length = sizeof(inet);
    } else {
        auto& local = reinterpret_cast<sockaddr_un&>(address);
        local.sun_family = AF_UNIX;
        std::strncpy(local.sun_path, (meeting.m_folder + "/" + port).c_str(), sizeof(local.sun_path) - 1);
        length = sizeof(local);
    }
    const int descriptor = socket(address.ss_family, SOCK_STREAM, 0);
    const int on = 1;
    if (descriptor < 0) fail("making a socket");
    if (options.m_isTcp) setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return descriptor;
}

class BareSide_ : public Side_ {
public:
    BareSide_(const Options_& options, int listener)
        : m_isBlocking(options.m_isBlocking), m_listener(listener) {}

    void connectTo(int descriptor) {
        m_descriptor = descriptor;
        if (m_isBlocking) return;
        fcntl(m_descriptor, F_SETFL, fcntl(m_descriptor, F_GETFL) | O_NONBLOCK);
        if (m_listener >= 0) fcntl(m_listener, F_SETFL, fcntl(m_listener, F_GETFL) | O_NONBLOCK);
    }

    void send(const unsigned char* p_bytes, std::size_t size) override {
        const std::size_t payload = size + kFraming - kHeaderSize;
        std::vector<unsigned char>& block = m_block;
        block.resize(kHeaderSize + payload);
        block[0] = 0;
        block[1] = 2;
        block[2] = static_cast<unsigned char>(payload >> 8);
        block[3] = static_cast<unsigned char>(payload);
        std::memcpy(block.data() + block.size() - size, p_bytes, size);
        std::size_t done = 0;
        while (done < block.size()) {
            const ssize_t written =
                ::send(m_descriptor, block.data() + done, block.size() - done, MSG_NOSIGNAL);
            if (written > 0) {
                done += static_cast<std::size_t>(written);
            } else if (errno == EAGAIN) {
                pollfd entry = {m_descriptor, POLLOUT, 0};
                poll(&entry, 1, 1000);
            } else {
                fail("sending");
            }
        }
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        if (m_isBlocking) {
            std::size_t size = 0;
            if (!readBlock(size)) fail("receiving");
            return handOut(p_bytes, capacity, size);
        }
        while (m_waiting.empty()) {
            pollfd entries[2] = {{m_descriptor, POLLIN, 0}, {m_listener, POLLIN, 0}};
            poll(entries, m_listener >= 0 ? 2 : 1, 1000);
            if (m_listener >= 0) ::accept(m_listener, nullptr, nullptr);
            std::size_t size = 0;
            while (readBlock(size))
                m_waiting.emplace_back(m_received.begin(), m_received.begin() + static_cast<long>(size));
        }
        m_received.swap(m_waiting.front());
        m_waiting.pop_front();
        return handOut(p_bytes, capacity, m_received.size());
    }

private:
    /// False when nothing has come; a block that has begun is waited for.
    bool readBlock(std::size_t& size) {
        unsigned char header[kHeaderSize];
        if (!readAll(header, kHeaderSize)) return false;
        size = static_cast<std::size_t>(header[2] << 8 | header[3]);
        if (m_received.size() < size) m_received.resize(size);
        while (!readAll(m_received.data(), size)) {
        }
        return true;
    }
    bool readAll(unsigned char* p_bytes, std::size_t size) {
        std::size_t done = 0;
        while (done < size) {
            const ssize_t count = ::recv(m_descriptor, p_bytes + done, size - done, 0);
            if (count > 0) {
                done += static_cast<std::size_t>(count);
            } else if (count == 0) {
                fail("the peer");
            } else if (errno != EAGAIN) {
                fail("receiving");
            } else if (done == 0) {
                return false;
            } else {
                pollfd entry = {m_descriptor, POLLIN, 0};
                poll(&entry, 1, 1000);
            }
        }
        return true;
    }
    std::size_t handOut(unsigned char* p_bytes, std::size_t capacity, std::size_t blockSize) {
        const std::size_t size = blockSize - (kFraming - kHeaderSize);
        if (size > capacity) fail("a message that is too long");
        std::memcpy(p_bytes, m_received.data() + blockSize - size, size);
        return size;
    }

    bool m_isBlocking;
    int m_listener;
    int m_descriptor = -1;
    std::vector<unsigned char> m_block;
    std::vector<unsigned char> m_received;
    std::deque<std::vector<unsigned char>> m_waiting;
};

/// Accepts its peer when it is first asked to receive, so that both sides can be made in any order.
class BareReceiver_ : public BareSide_ {
public:
    BareReceiver_(const Options_& options, int listener)
        : BareSide_(options, listener), m_listener(listener) {}

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        if (!m_isConnected) {
            const int descriptor = ::accept(m_listener, nullptr, nullptr);
            const int on = 1;
            if (descriptor < 0) fail("accepting");
            setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            connectTo(descriptor);
            m_isConnected = true;
        }
        return BareSide_::receive(p_bytes, capacity);
    }

private:
    int m_listener;
    bool m_isConnected = false;
};

}  // namespace

Side_* makeReceiver(const Options_& options, const Meeting_& meeting) {
    sockaddr_storage address;
    socklen_t length = 0;
    const int listener = makeSocket(options, meeting, meeting.m_receiverPort, address, length);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 20) != 0)
        fail("listening");
    return new BareReceiver_(options, listener);
}

Side_* makeSender(const Options_& options, const Meeting_& meeting) {
    sockaddr_storage address;
    socklen_t length = 0;
    const int descriptor = makeSocket(options, meeting, meeting.m_receiverPort, address, length);
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), length) != 0) fail("connecting");
    // A component listens too, and its pass asks that socket as well.
    const int listener = makeSocket(options, meeting, meeting.m_senderPort, address, length);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 20) != 0)
        fail("listening");
    auto* p_side = new BareSide_(options, listener);
    p_side->connectTo(descriptor);
    return p_side;
}
