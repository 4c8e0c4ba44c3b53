#include "terminal/connections.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "foundation/utf8_name.h"
#include "support/allocation_failure.h"

namespace {

constexpr int kLimitInMs = 10000;

bool await(int descriptor, short events) {
    pollfd entry = {descriptor, events, 0};
    return ::poll(&entry, 1, kLimitInMs) == 1;
}

VekSocketAddress_ addressOf(const std::string& text) {
    VekSocketAddress_ address;
    EXPECT_TRUE(address.setRealName(text.c_str()));
    return address;
}

void listenOn(VekSocket_& listener, const std::string& address) {
    if (listener.state() == VekSocket_::LISTENING) return;
    ASSERT_TRUE(listener.initialize(addressOf(address)));
    ASSERT_TRUE(listener.listen(20));
}

}  // namespace

Peer_::Peer_(Peer_&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

Peer_& Peer_::operator=(Peer_&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
}

Peer_ Peer_::connectedTo(const VekSocketAddress_& address) {
    const bool isLocal = address.type() == VekSocketAddress_::LOCAL;
    Peer_ peer(::socket(isLocal ? AF_UNIX : AF_INET, SOCK_STREAM, 0));
    VekSockNativeAddr_ native;
    EXPECT_TRUE(address.fillInNative(&native));
    EXPECT_EQ(::connect(peer.m_descriptor, &native.m_any, address.nativeSize()), 0);
    return peer;
}

Peer_ Peer_::acceptedFrom(const VekSocket_& listener) {
    EXPECT_TRUE(await(listener.descriptor(), POLLIN));
    Peer_ peer(::accept(listener.descriptor(), nullptr, nullptr));
    EXPECT_NE(peer.m_descriptor, -1);
    return peer;
}

void Peer_::write(const std::string& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        ASSERT_TRUE(await(m_descriptor, POLLOUT));
        const ssize_t count = ::write(m_descriptor, bytes.data() + written, bytes.size() - written);
        ASSERT_GT(count, 0);
        written += static_cast<std::size_t>(count);
    }
}

void Peer_::writeUrgent(char byte) {
    iovec piece = {&byte, 1};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    ASSERT_EQ(::sendmsg(m_descriptor, &message, MSG_OOB), 1);
}

std::string Peer_::read(std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t count = 0;
    while (count < size) {
        const bool isReadable = await(m_descriptor, POLLIN);
        EXPECT_TRUE(isReadable) << "got " << count << " bytes of " << size;
        const ssize_t now = isReadable ? ::read(m_descriptor, &bytes[count], size - count) : 0;
        if (now <= 0) break;
        count += static_cast<std::size_t>(now);
    }
    bytes.resize(count);
    return bytes;
}

std::string Peer_::readArrived() {
    return read(unreadBytes(m_descriptor));
}

void Peer_::close() {
    if (m_descriptor != -1) ::close(std::exchange(m_descriptor, -1));
}

std::string block(unsigned int type, const std::string& payload) {
    const std::size_t length = payload.size();
    const char header[] = {static_cast<char>(type >> 8), static_cast<char>(type),
                           static_cast<char>(length >> 8), static_cast<char>(length)};
    return std::string(header, sizeof(header)) + payload;
}

std::string nameBlock(const std::string& name) {
    return block(1, name + '\0');
}

SP_BasicBuffer_ bufferOf(const std::string& bytes) {
    const auto size = static_cast<unsigned int>(bytes.size());
    SP_BasicBuffer_ sp_buffer(new BasicBuffer_(std::max(size, 9400U)));
    EXPECT_TRUE(sp_buffer->setDataArea(0, size));
    bytes.copy(reinterpret_cast<char*>(sp_buffer->data()), bytes.size());
    return sp_buffer;
}

std::string bytesOf(const SP_BasicBuffer_& sp_buffer) {
    if (!sp_buffer) return "no buffer";
    return std::string(reinterpret_cast<const char*>(sp_buffer->data()), sp_buffer->dataLength());
}

std::vector<std::string> bytesOf(const BufferQueue_& queue) {
    std::vector<std::string> all;
    for (const SP_BasicBuffer_& sp_buffer : queue) all.push_back(bytesOf(sp_buffer));
    return all;
}

SP_Utf8String_ nameOf(const std::string& text) {
    return createUtf8String(reinterpret_cast<const Utf8Char_*>(text.data()), text.size());
}

SP_Utf8String_ emptyHolder() {
    return SP_Utf8String_::adopt(new SP_Utf8String_::Pointee(nullptr));
}

Record_ connectionRecord(int severity, const std::string& signature, const std::string& text) {
    return Record_(severity, "vekmsg_impl.cpp", signature, text);
}

Record_ socketRecord(int severity, const std::string& signature, const std::string& text) {
    return Record_(severity, "vek_socket.cpp", signature, text);
}

void awaitBytes(int descriptor, std::size_t wanted) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLimitInMs);
    while (unreadBytes(descriptor) < wanted) {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << wanted << " bytes did not arrive";
        await(descriptor, POLLIN);
    }
}

void awaitReadable(int descriptor) {
    ASSERT_TRUE(await(descriptor, POLLIN));
}

void awaitWritable(int descriptor) {
    ASSERT_TRUE(await(descriptor, POLLOUT));
}

std::size_t unreadBytes(int descriptor) {
    int count = 0;
    EXPECT_EQ(::ioctl(descriptor, FIONREAD, &count), 0);
    return static_cast<std::size_t>(count);
}

ConnectionTest_::ConnectionTest_() : m_sp_connection(new (std::nothrow) BareConnection_) {}

VekSocket_& ConnectionTest_::listener(Type_ type) {
    const bool isLocal = type == Type_::LOCAL;
    VekSocket_& listener = isLocal ? m_localListener : m_tcpListener;
    listenOn(listener, isLocal ? m_folder.localAddress("abc") : freeTcpAddress());
    return listener;
}

void ConnectionTest_::openAccepted(Type_ type) {
    m_peer = Peer_::connectedTo(listener(type).localAddress());
    SP_VekSocket_ sp_socket;
    awaitReadable(listener(type).descriptor());
    ASSERT_TRUE(listener(type).accept(sp_socket));
    ASSERT_TRUE(sp_socket);
    m_sp_connection = new (std::nothrow) BareConnection_;
    m_sp_connection->setMyName(nameOf("here"));
    m_sp_connection->setSocket(sp_socket);
    ASSERT_TRUE(m_sp_connection->start());
}

void ConnectionTest_::openEstablished(Type_ type) {
    openAccepted(type);
    ASSERT_TRUE(deliver(nameBlock("abc")));
    ASSERT_TRUE(m_sp_connection->isFunctional());
}

void ConnectionTest_::openOutgoing(Type_ type) {
    const VekSocketAddress_ address = listener(type).localAddress();
    VekSocketAddress_ wildcard;
    wildcard.initializeAsWildcard(type);
    SP_VekSocket_ sp_socket(new VekSocket_);
    ASSERT_TRUE(sp_socket->initialize(wildcard));
    ASSERT_TRUE(sp_socket->connect(address));
    m_sp_connection = new (std::nothrow) BareConnection_;
    m_sp_connection->setMyName(nameOf("here"));
    m_sp_connection->setPeerName(nameOf("abc"));
    m_sp_connection->setSocket(sp_socket);
    m_sp_connection->setMaxFailureRetryCount(type);
    m_peer = Peer_::acceptedFrom(listener(type));
}

void ConnectionTest_::openNamed(Type_ type) {
    openOutgoing(type);
    ASSERT_TRUE(m_sp_connection->start());
    awaitWritable(socket().descriptor());
    ASSERT_TRUE(turn());
    ASSERT_EQ(m_peer.read(9), nameBlock("here"));
}

bool ConnectionTest_::deliver(const std::string& bytes) {
    const std::size_t before = unreadBytes(socket().descriptor());
    m_peer.write(bytes);
    awaitBytes(socket().descriptor(), before + bytes.size());
    return turn();
}

bool ConnectionTest_::turn() {
    return m_sp_connection->processPollEvents(m_hasMessages);
}

void ConnectionTest_::afresh(const std::function<void()>& scenario) {
    m_sp_connection.reset();
    inFreshThread([&] {
        scenario();
        m_sp_connection.reset();
    });
}
