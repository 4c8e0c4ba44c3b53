#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <cerrno>
#include <functional>

#include "support/allocation_failure.h"
#include "transport/streams.h"

namespace {

using Type_ = VekSocketAddress_::AddressType_;

constexpr char kListen[] = "bool VekSocket_::listen(unsigned int)";
constexpr char kAccept[] = "bool VekSocket_::accept(SP_VekSocket_&)";
constexpr char kMake[] = "bool VekSocket_::accept(int, SP_VekSocket_&) const";
constexpr char kAccepted[] = "bool VekSocket_::accepted(int, VekSocketAddress_::AddressType_)";

class VekSocketListen : public SocketTest_ {
protected:
    /// Accepts such clients, each time with another allocation failing, until one needs no more.
    void expectAddressesNeedMemory(const std::function<void(VekSocket_&)>& start) {
        unsigned int number = 2;  // the first is the socket itself
        for (bool hasStruck = true; hasStruck && number < 20; ++number) {
            VekSocket_ client;
            start(client);
            pollfd waiting = {m_socket.descriptor(), POLLIN, 0};
            ASSERT_EQ(::poll(&waiting, 1, 10000), 1);
            const int next = nextDescriptor();
            SP_VekSocket_ sp_accepted;
            bool isAccepted = false;
            {
                AllocationFailure_ failure(number);
                isAccepted = m_socket.accept(sp_accepted);
                hasStruck = failure.hasStruck();
            }
            EXPECT_NE(isAccepted, hasStruck);
            EXPECT_EQ(sp_accepted.isNull(), hasStruck);
            EXPECT_EQ(m_records.take(), Records_{});
            EXPECT_TRUE(isOpen(next));
            if (hasStruck) ::close(next);
        }
        EXPECT_GT(number, 3U);
    }
};

/// A listener with one peer waiting.
class VekSocketAccept : public SocketTest_ {
protected:
    void SetUp() override {
        m_text = listenOn(m_socket, m_folder.localAddress("socket"));
        startConnecting(m_client, m_text);
        m_next = nextDescriptor();
    }

    /// The waiting peer is taken but cannot be used: its descriptor stays open.
    void expectRefused(const Records_& records) {
        SP_VekSocket_ sp_accepted(new VekSocket_);

        EXPECT_FALSE(m_socket.accept(sp_accepted));

        EXPECT_EQ(m_records.take(), records);
        EXPECT_TRUE(sp_accepted.isNull());
        EXPECT_TRUE(isOpen(m_next));
        ::close(m_next);
    }

    std::string m_text;
    VekSocket_ m_client;
    int m_next = -1;
};

bool hasNoDelay(int descriptor) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(::getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
    return value != 0;
}

}  // namespace

TEST_F(VekSocketListen, anInitializedSocketListens) {
    EXPECT_TRUE(m_socket.initialize(addressOf(m_folder.localAddress("socket"))));

    EXPECT_TRUE(m_socket.listen(20));

    EXPECT_EQ(m_socket.state(), VekSocket_::LISTENING);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketListen, anIdleSocketCannotListen) {
    EXPECT_FALSE(m_socket.listen(20));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kListen, "VekSocket_::listen() wrong state 0")});
}

TEST_F(VekSocketListen, aSecondListenIsRefused) {
    listenOn(m_socket, m_folder.localAddress("socket"));

    EXPECT_FALSE(m_socket.listen(20));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kListen, "VekSocket_::listen() wrong state 2")});
    EXPECT_EQ(m_socket.state(), VekSocket_::LISTENING);
}

TEST_F(VekSocketListen, aStreamCannotListen) {
    Streams_ streams(Type_::LOCAL);
    VekSocket_ connecting;
    m_calls.fail(SystemCalls_::Connect, EINPROGRESS);
    startConnecting(connecting, "inettcp://127.0.0.1:7000");

    EXPECT_FALSE(connecting.listen(20));
    EXPECT_FALSE(streams.m_client.listen(20));

    EXPECT_EQ(m_records.take(), (Records_{socketRecord(3, kListen, "VekSocket_::listen() wrong state 3"),
                                          socketRecord(3, kListen, "VekSocket_::listen() wrong state 4")}));
}

TEST_F(VekSocketListen, aFailedListenLeavesTheSocketInitialized) {
    const std::string text = m_folder.localAddress("socket");
    EXPECT_TRUE(m_socket.initialize(addressOf(text)));
    const std::string error = failNext(SystemCalls_::Listen, EOPNOTSUPP);

    EXPECT_FALSE(m_socket.listen(20));

    EXPECT_EQ(
        m_records.take(),
        Records_{socketRecord(3, kListen, "VekSocket_::listen() listen(" + text + ") failed with " + error)});
    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_TRUE(m_socket.listen(20));
}

TEST_F(VekSocketListen, anUnboundLocalSocketCannotListen) {
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::LOCAL)));

    EXPECT_FALSE(m_socket.listen(20));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(
                  3, kListen, "VekSocket_::listen() listen(local://?) failed with " + errorText(EINVAL))});
}

TEST_F(VekSocketListen, aSocketThatDoesNotListenAcceptsNobody) {
    Streams_ streams(Type_::LOCAL);
    SP_VekSocket_ sp_accepted = streams.m_sp_server;
    const unsigned int before = m_calls.count(SystemCalls_::Accept);

    EXPECT_TRUE(m_socket.accept(sp_accepted));
    EXPECT_TRUE(sp_accepted.isNull());

    sp_accepted = streams.m_sp_server;
    EXPECT_TRUE(streams.m_client.accept(sp_accepted));
    EXPECT_TRUE(sp_accepted.isNull());
    EXPECT_EQ(m_calls.count(SystemCalls_::Accept), before);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketListen, nobodyIsAcceptedAtATextThatIsNoAddress) {
    VekSocketAddress_ noAddress;
    EXPECT_FALSE(noAddress.setRealName("inettcp://1.2.3.4"));
    EXPECT_TRUE(m_socket.initialize(noAddress));
    EXPECT_TRUE(m_socket.listen(20));
    m_records.take();
    SP_VekSocket_ sp_accepted(new VekSocket_);

    EXPECT_FALSE(m_socket.accept(sp_accepted));

    EXPECT_TRUE(sp_accepted.isNull());
    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(
                  3, "bool VekSocketAddress_::fillInNative(VekSockNativeAddr_*) const",
                  "VekSocketAddress_::fillInNative(INET_TCP) wrong native size 0. Expecting 16")});
}

TEST_F(VekSocketListen, whenNobodyWaitsThereIsNothingToAccept) {
    listenOn(m_socket, m_folder.localAddress("socket"));
    SP_VekSocket_ sp_accepted(new VekSocket_);

    EXPECT_TRUE(m_socket.accept(sp_accepted));

    EXPECT_TRUE(sp_accepted.isNull());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketAccept, aWaitingPeerIsTaken) {
    SP_VekSocket_ sp_accepted;
    const unsigned int clockReads = m_calls.count(SystemCalls_::ClockGettime);

    EXPECT_TRUE(m_socket.accept(sp_accepted));

    ASSERT_FALSE(sp_accepted.isNull());
    EXPECT_TRUE(sp_accepted->isConnected());
    EXPECT_EQ(sp_accepted->descriptor(), m_next);
    EXPECT_NE(::fcntl(m_next, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(m_next, F_GETFD), 0);
    EXPECT_EQ(sp_accepted->localAddress().realName(), m_text);
    EXPECT_EQ(sp_accepted->remoteAddress().realName(), "local://");
    EXPECT_TRUE(sp_accepted->remoteAddress().isWildcard());
    EXPECT_EQ(m_socket.state(), VekSocket_::LISTENING);
    EXPECT_EQ(m_calls.count(SystemCalls_::ClockGettime), clockReads);  // no limit runs yet
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketAccept, peersAreTakenOneByOne) {
    VekSocket_ second;
    startConnecting(second, m_text);
    SP_VekSocket_ sp_first;
    SP_VekSocket_ sp_second;
    SP_VekSocket_ sp_nobody;

    EXPECT_TRUE(m_socket.accept(sp_first));
    EXPECT_TRUE(m_socket.accept(sp_second));
    EXPECT_TRUE(m_socket.accept(sp_nobody));

    ASSERT_FALSE(sp_first.isNull() || sp_second.isNull());
    EXPECT_TRUE(sp_nobody.isNull());
    m_client.send(bufferWith("1"));
    second.send(bufferWith("2"));
    EXPECT_EQ(receiveText(*sp_first, 1), "1");
    EXPECT_EQ(receiveText(*sp_second, 1), "2");
}

TEST_F(VekSocketAccept, errorsOfTheWaitingPeerAreWarnings) {
    for (const int error : {EPROTO, ENONET, ENOPROTOOPT, EOPNOTSUPP, ENETDOWN, ENETUNREACH, ECONNABORTED,
                            EHOSTDOWN, EHOSTUNREACH}) {
        SP_VekSocket_ sp_accepted(new VekSocket_);
        m_calls.fail(SystemCalls_::Accept, error);

        EXPECT_TRUE(m_socket.accept(sp_accepted));

        EXPECT_EQ(
            m_records.take(),
            Records_{socketRecord(4, kAccept, "accept(" + m_text + ") returned with " + errorText(error))});
        EXPECT_TRUE(sp_accepted.isNull());
        EXPECT_EQ(m_socket.state(), VekSocket_::LISTENING);
    }
}

TEST_F(VekSocketAccept, otherErrorsAreErrors) {
    for (const int error : {EBADF, EINTR, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, ENOTSOCK, EPERM, EFAULT,
                            ETIMEDOUT, ECONNREFUSED}) {
        SP_VekSocket_ sp_accepted(new VekSocket_);
        m_calls.fail(SystemCalls_::Accept, error);

        EXPECT_FALSE(m_socket.accept(sp_accepted));

        EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kAccept,
                                                          "VekSocket_::accept() accept(" + m_text +
                                                              ") failed with " + errorText(error))});
        EXPECT_TRUE(sp_accepted.isNull());
    }
}

TEST_F(VekSocketAccept, afterAnErrorTheWaitingPeerCanStillBeTaken) {
    SP_VekSocket_ sp_accepted;
    m_calls.fail(SystemCalls_::Accept, EMFILE);
    EXPECT_FALSE(m_socket.accept(sp_accepted));

    EXPECT_TRUE(m_socket.accept(sp_accepted));

    EXPECT_FALSE(sp_accepted.isNull());
}

TEST_F(VekSocketAccept, unreadableFlagsLeaveTheDescriptorOpen) {
    const std::string error = failNext(SystemCalls_::Fcntl, EINVAL);

    expectRefused(
        {socketRecord(3, kMake, "VekSocket_::accept(" + m_text + ") fcntl(F_GETFL) failed with " + error)});
}

TEST_F(VekSocketAccept, flagsThatCannotBeSetLeaveTheDescriptorOpen) {
    const std::string error = failNext(SystemCalls_::Fcntl, EPERM, 1);

    expectRefused(
        {socketRecord(3, kMake, "VekSocket_::accept(" + m_text + ") fcntl(F_SETFL) failed with " + error)});
}

TEST_F(VekSocketAccept, aDescriptorThatDoesNotBlockIsLeftAsItIs) {
    SP_VekSocket_ sp_accepted;
    m_calls.answer(SystemCalls_::Fcntl, O_RDWR | O_NONBLOCK);
    const unsigned int before = m_calls.count(SystemCalls_::Fcntl);

    EXPECT_TRUE(m_socket.accept(sp_accepted));

    EXPECT_FALSE(sp_accepted.isNull());
    EXPECT_EQ(m_calls.count(SystemCalls_::Fcntl), before + 1);
}

TEST_F(VekSocketAccept, withoutMemoryForTheSocketTheDescriptorStaysOpen) {
    SP_VekSocket_ sp_accepted;
    bool isAccepted = true;
    {
        AllocationFailure_ failure(1);
        isAccepted = m_socket.accept(sp_accepted);
    }

    EXPECT_FALSE(isAccepted);
    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kMake, "VekSocket_::accept() Can't create vekSocket_")});
    EXPECT_TRUE(sp_accepted.isNull());
    EXPECT_TRUE(isOpen(m_next));
    ::close(m_next);
}

TEST_F(VekSocketListen, withoutMemoryForTheAddressesTheDescriptorStaysOpen) {
    const std::string text = listenOn(m_socket, m_folder.localAddress("a socket with a long path"));

    expectAddressesNeedMemory([&](VekSocket_& client) { startConnecting(client, text); });
    expectAddressesNeedMemory([&](VekSocket_& client) {
        // This peer has an address, too.
        EXPECT_TRUE(client.initialize(addressOf(m_folder.localAddress("a client with a long path"))));
        EXPECT_TRUE(client.connect(addressOf(text)));
    });
}

TEST_F(VekSocketListen, withoutMemoryForTcpAddressesTheDescriptorStaysOpen) {
    const std::string text = listenOn(m_socket, freeTcpAddress());

    expectAddressesNeedMemory([&](VekSocket_& client) { startConnecting(client, text); });
}

TEST_F(VekSocketAccept, anUnknownOwnNameLeavesTheDescriptorOpen) {
    const std::string error = failNext(SystemCalls_::Getsockname, ENOBUFS);

    expectRefused({socketRecord(3, kAccepted, "VekSocket_::accepted() getsockname() failed with " + error)});
}

TEST_F(VekSocketAccept, anUnknownPeerNameLeavesTheDescriptorOpen) {
    const std::string error = failNext(SystemCalls_::Getpeername, ENOTCONN);

    expectRefused({socketRecord(3, kAccepted, "VekSocket_::accepted() getpeername() failed with " + error)});
}

TEST_F(VekSocketListen, aTcpPeerIsTakenWithItsAddress) {
    const std::string text = listenOn(m_socket, freeTcpAddress());
    VekSocket_ client;
    startConnecting(client, text);

    const SP_VekSocket_ sp_accepted = acceptOne(m_socket);

    ASSERT_FALSE(sp_accepted.isNull());
    EXPECT_EQ(sp_accepted->localAddress().realName(), text);
    sockaddr_in native = {};
    socklen_t length = sizeof(native);
    VekSocketAddress_ ofClient;
    EXPECT_EQ(::getsockname(client.descriptor(), reinterpret_cast<sockaddr*>(&native), &length), 0);
    EXPECT_TRUE(ofClient.extractFromNative(&native, false));
    EXPECT_EQ(sp_accepted->remoteAddress().realName(), ofClient.realName());
    EXPECT_TRUE(hasNoDelay(sp_accepted->descriptor()));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketListen, anAcceptedSocketRefusesOtherTypes) {
    Streams_ streams(Type_::INET_TCP);
    const int descriptor = streams.m_sp_server->descriptor();

    EXPECT_FALSE(m_socket.accepted(descriptor, Type_::INET_UDP));
    EXPECT_FALSE(m_socket.accepted(descriptor, Type_::UNKNOWN));

    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(3, kAccepted, "VekSocket_::accepted() invalid address type 3"),
                        socketRecord(3, kAccepted, "VekSocket_::accepted() invalid address type 0")}));
    EXPECT_EQ(m_socket.state(), VekSocket_::IDLE);
    EXPECT_EQ(m_socket.descriptor(), -1);
}

TEST_F(VekSocketListen, anAcceptedSocketStartsWithoutBuffers) {
    Streams_ streams(Type_::LOCAL);
    m_socket.receive(4, emptyBuffer(4));

    EXPECT_TRUE(m_socket.accepted(::dup(streams.m_sp_server->descriptor()), Type_::LOCAL));

    EXPECT_TRUE(m_socket.receive(4, emptyBuffer(4)));
    EXPECT_FALSE(m_socket.isSendDataPending());
    EXPECT_EQ(m_records.take(), Records_{});  // no receive buffer was discarded
}

TEST_F(VekSocketListen, anOptionThatFailsDoesNotDisturbAnAcceptedSocket) {
    Streams_ streams(Type_::INET_TCP);
    const int descriptor = ::dup(streams.m_sp_server->descriptor());
    m_calls.fail(SystemCalls_::Setsockopt, EPERM);
    errno = EDOM;

    EXPECT_TRUE(m_socket.accepted(descriptor, Type_::INET_TCP));

    EXPECT_EQ(errno, EDOM);
    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketListen, aLocalPeerNeedsNoOption) {
    Streams_ streams(Type_::LOCAL);

    EXPECT_EQ(m_calls.count(SystemCalls_::Setsockopt), 1U);  // the listener's address
}
