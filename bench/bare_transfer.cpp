// What do the protocol's own system calls cost? The same bytes in the same blocks as the library's, with
// nothing but the calls that the protocol needs, for every message: a send; a poll, an accept that would
// block, two receives and one that would block.
//
//     (no variant)          those calls; with several peers it asks each socket that is quiet as well
//     --variant blocking    the floor: blocking sockets, one send and two receives
//     --polls S,R           for a comparison with a library that asks the kernel with so many polls over all
//                           its descriptors, in the sender and in the receiver: these, and no call that would
//                           block
//     --polls S,R --variant drain
//                           the same, and after each message the receive that would block: no poll has told
//                           whether another one has followed

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "transfer.h"

namespace {

constexpr std::size_t kHeaderSize = 4;
constexpr int kWaitTime = 1000;  // milliseconds

/// What a message adds to its payload on the stream: block header, names, time-to-live, schema and element
/// headers.
constexpr std::size_t kFraming = kHeaderSize + 9 + 8 + 4 + 2 + 4 * 6 + 12;

void makeNonBlocking(int descriptor) {
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
}

int listenAt(const Address_& address) {
    const int descriptor = socket(address.m_bytes.ss_family, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(descriptor, address.get(), address.m_length) != 0 || listen(descriptor, 20) != 0)
        fail("listening");
    return descriptor;
}

int connectTo(const Address_& address) {
    const int descriptor = socket(address.m_bytes.ss_family, SOCK_STREAM, 0);
    if (connect(descriptor, address.get(), address.m_length) != 0) fail("connecting");
    return descriptor;
}

/// One end of a stream on which nothing comes.
int quietStream(const Address_& listeningAt, int listener) {
    const int descriptor = connectTo(listeningAt);
    if (::accept(listener, nullptr, nullptr) < 0) fail("accepting");
    makeNonBlocking(descriptor);
    return descriptor;
}

class BareSide_ : public Side_ {
public:
    /// A side that listens, as every component does. Its pass asks that socket as well.
    BareSide_(const Options_& options, const Address_& own, unsigned int polls)
        : m_isBlocking(options.m_variant == "blocking"),
          m_polls(polls),
          m_isDraining(polls == 0 || options.m_variant == "drain"),
          m_isAskingAll(options.m_mode == Mode_::RoundTrip),
          m_entries{{listenAt(own), POLLIN, 0}},
          m_quiet(quietStream(own, m_entries[0].fd)) {
        if (!m_isBlocking) makeNonBlocking(m_entries[0].fd);
    }

    void add(int descriptor) {
        const int on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        if (!m_isBlocking) makeNonBlocking(descriptor);
        m_entries.push_back({descriptor, POLLIN, 0});
    }

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        const auto route = m_routes.find(to);
        const int descriptor = route == m_routes.end() ? m_entries[1].fd : route->second;
        const std::size_t payload = size + kFraming - kHeaderSize;
        m_block.resize(kHeaderSize + payload);
        m_block[0] = 0;
        m_block[1] = 2;
        m_block[2] = static_cast<unsigned char>(payload >> 8);
        m_block[3] = static_cast<unsigned char>(payload);
        std::memcpy(m_block.data() + m_block.size() - size, p_bytes, size);
        std::size_t done = 0;
        while (done < m_block.size()) {
            const ssize_t written =
                ::send(descriptor, m_block.data() + done, m_block.size() - done, MSG_NOSIGNAL);
            if (written > 0) {
                done += static_cast<std::size_t>(written);
            } else if (errno == EAGAIN) {
                pollfd entry = {descriptor, POLLOUT, 0};
                poll(&entry, 1, kWaitTime);
            } else {
                fail("sending");
            }
        }
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        const std::size_t blockSize = m_isBlocking ? receiveBlocking() : receivePolled();
        const std::size_t size = blockSize - (kFraming - kHeaderSize);
        if (size > capacity) fail("a message that is too long");
        std::memcpy(p_bytes, m_received.data() + blockSize - size, size);
        m_routes.emplace(senderOf(p_bytes), m_entries[m_last].fd);
        return size;
    }

private:
    std::size_t receiveBlocking() {
        if (m_entries.size() == 1) add(::accept(m_entries[0].fd, nullptr, nullptr));
        m_last = 1;
        return readBlock(m_entries[1].fd);
    }

    std::size_t receivePolled() {
        for (;;) {
            poll(m_entries.data(), m_entries.size(), kWaitTime);
            for (unsigned int i = 1; i < m_polls; ++i) poll(m_entries.data(), m_entries.size(), 0);
            if (m_polls == 0 || m_entries[0].revents != 0) acceptOne();
            if (m_polls == 0 && m_isAskingAll) askTheQuiet();
            const std::size_t ready = nextReady();
            if (ready == 0) continue;
            m_last = ready;
            const std::size_t size = readBlock(m_entries[ready].fd);
            // Another message may have come on the busy one: the receive that would block is made elsewhere.
            if (m_isDraining) askIt(m_quiet);
            return size;
        }
    }

    void acceptOne() {
        const int descriptor = ::accept(m_entries[0].fd, nullptr, nullptr);
        if (descriptor >= 0) add(descriptor);
    }
    void askTheQuiet() {
        for (std::size_t i = 1; i < m_entries.size(); ++i)
            if (m_entries[i].revents == 0) askIt(m_entries[i].fd, MSG_PEEK);
    }
    void askIt(int descriptor, int flags = 0) {
        unsigned char header[kHeaderSize];
        static_cast<void>(::recv(descriptor, header, sizeof(header), flags));
    }

    /// The connections take turns. 0 when none is ready.
    std::size_t nextReady() const {
        const std::size_t connections = m_entries.size() - 1;
        for (std::size_t i = 0; i < connections; ++i) {
            const std::size_t place = (m_last + i) % connections + 1;
            if (m_entries[place].revents != 0) return place;
        }
        return 0;
    }

    std::size_t readBlock(int descriptor) {
        unsigned char header[kHeaderSize];
        readAll(descriptor, header, kHeaderSize);
        const auto size = static_cast<std::size_t>(header[2] << 8 | header[3]);
        if (m_received.size() < size) m_received.resize(size);
        readAll(descriptor, m_received.data(), size);
        return size;
    }
    static void readAll(int descriptor, unsigned char* p_bytes, std::size_t size) {
        std::size_t done = 0;
        while (done < size) {
            const ssize_t count = ::recv(descriptor, p_bytes + done, size - done, 0);
            if (count > 0) {
                done += static_cast<std::size_t>(count);
            } else if (count == 0) {
                fail("the peer");
            } else if (errno != EAGAIN) {
                fail("receiving");
            } else {
                pollfd entry = {descriptor, POLLIN, 0};
                poll(&entry, 1, kWaitTime);
            }
        }
    }

    bool m_isBlocking;
    unsigned int m_polls;
    bool m_isDraining;
    bool m_isAskingAll;
    std::vector<pollfd> m_entries;  // the listening socket, then the connections
    int m_quiet;
    std::size_t m_last = 0;  // the entry that the last message came from
    std::map<unsigned int, int> m_routes;
    std::vector<unsigned char> m_block;
    std::vector<unsigned char> m_received;
};

Address_ receiverAddress(const Options_& options, const Meeting_& meeting) {
    return makeAddress(options, meeting, "receiver", meeting.m_receiverPort);
}

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    if (options.m_variant == "blocking" && options.m_peers > 1) refuse("several peers with blocking sockets");
    return std::make_unique<BareSide_>(options, receiverAddress(options, meeting), options.m_receiverPolls);
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int number) {
    const Address_ own =
        makeAddress(options, meeting, "sender" + std::to_string(number), meeting.m_senderPorts[number]);
    auto sp_side = std::make_unique<BareSide_>(options, own, options.m_senderPolls);
    sp_side->add(connectTo(receiverAddress(options, meeting)));
    return sp_side;
}

}  // namespace

const Program_ g_program = {"bare", makeReceiver, makeSender};
