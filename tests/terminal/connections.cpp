#include "terminal/connections.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

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
    m_peer = RawPeer_(listener(type).localAddress().realName());
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
    m_peer = RawPeer_::acceptedFrom(listener(type).descriptor());
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
