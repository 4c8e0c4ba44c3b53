#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <cerrno>

#include "support/allocation_failure.h"
#include "transport/streams.h"

namespace {

using Type_ = VekSocketAddress_::AddressType_;
using VekSocketConnect = SocketTest_;

constexpr char kConnect[] = "bool VekSocket_::connect(const VekSocketAddress_&)";
constexpr char kBegin[] = "bool VekSocket_::connect()";
constexpr char kConnecting[] = "bool VekSocket_::connecting()";
constexpr char kCheck[] = "bool VekSocket_::check()";
constexpr char kFill[] = "bool VekSocketAddress_::fillInNative(VekSockNativeAddr_*) const";

constexpr char kPeer[] = "inettcp://127.0.0.1:7000";
constexpr char kOther[] = "inettcp://127.0.0.1:7001";

/// A socket whose connect is under way and hears nothing of its peer.
class VekSocketConnecting : public SocketTest_ {
protected:
    void SetUp() override {
        m_calls.fail(SystemCalls_::Connect, EINPROGRESS);
        startConnecting(m_socket, kPeer);
    }

    bool check() {
        SP_BasicBuffer_ sp_buffer(emptyBuffer(1));
        const bool result = m_socket.check(sp_buffer);
        EXPECT_TRUE(sp_buffer.isNull());
        return result;
    }

    void expectFailed() {
        EXPECT_EQ(m_socket.state(), VekSocket_::IDLE);
        EXPECT_TRUE(isOpen(m_socket.descriptor()));
    }

    /// Stays under way for 5 seconds and fails when it is 6 seconds old.
    void expectTheLimit() {
        EXPECT_TRUE(check());
        m_calls.advanceClock(5);
        EXPECT_TRUE(check());
        EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);
        EXPECT_EQ(m_records.take(), Records_{});

        m_calls.advanceClock(1);
        EXPECT_FALSE(check());
        EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kConnecting,
                                                          std::string("Attempt to connect to ") + kPeer +
                                                              " timed out after 6 seconds")});
        expectFailed();
    }
};

bool hasNoDelay(const VekSocket_& socket) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(::getsockopt(socket.descriptor(), IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
    return value != 0;
}

}  // namespace

TEST_F(VekSocketConnect, aLocalStreamStandsAtOnce) {
    VekSocket_ listener;
    const std::string text = listenOn(listener, m_folder.localAddress("server"));
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::LOCAL)));

    EXPECT_TRUE(m_socket.connect(addressOf(text)));

    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_EQ(m_socket.remoteAddress().realName(), text);
    EXPECT_EQ(m_socket.localAddress().realName(), "local://?");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketConnect, aTcpStreamIsUnderWayAndThenStands) {
    VekSocket_ listener;
    const std::string text = listenOn(listener, freeTcpAddress());
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));

    EXPECT_TRUE(m_socket.connect(addressOf(text)));
    EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);

    EXPECT_TRUE(becomesConnected(m_socket));
    EXPECT_TRUE(hasNoDelay(m_socket));
    EXPECT_EQ(m_socket.remoteAddress().realName(), text);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketConnect, aTcpStreamThatStandsAtOnceIsWithoutDelay) {
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));
    m_calls.answer(SystemCalls_::Connect, 0);

    EXPECT_TRUE(m_socket.connect(addressOf(kPeer)));

    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_TRUE(hasNoDelay(m_socket));
}

TEST_F(VekSocketConnect, anOptionThatFailsDoesNotDisturbAStream) {
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));
    m_calls.answer(SystemCalls_::Connect, 0);
    m_calls.fail(SystemCalls_::Setsockopt, EPERM);
    errno = EDOM;

    EXPECT_TRUE(m_socket.connect(addressOf(kPeer)));

    EXPECT_EQ(errno, EDOM);
    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketConnect, localAndUdpPeersNeedNoOption) {
    VekSocket_ listener;
    const std::string text = listenOn(listener, m_folder.localAddress("server"));
    const unsigned int before = m_calls.count(SystemCalls_::Setsockopt);
    VekSocket_ udp;

    startConnecting(m_socket, text);
    startConnecting(udp, "inetudp://127.0.0.1:7000");

    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_TRUE(udp.isConnected());
    EXPECT_EQ(m_calls.count(SystemCalls_::Setsockopt), before);
}

TEST_F(VekSocketConnect, anIdleSocketCannotConnect) {
    EXPECT_FALSE(m_socket.connect(addressOf(kPeer)));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kConnect,
                                                      std::string("VekSocket_::connect(") + kPeer +
                                                          ") failed because of the wrong state 0")});
    EXPECT_EQ(m_socket.remoteAddress().realName(), "");
}

TEST_F(VekSocketConnect, aListenerCannotConnect) {
    listenOn(m_socket, m_folder.localAddress("server"));

    EXPECT_FALSE(m_socket.connect(addressOf(kPeer)));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kConnect,
                                                      std::string("VekSocket_::connect(") + kPeer +
                                                          ") failed because of the wrong state 2")});
}

TEST_F(VekSocketConnecting, connectingAgainToTheSameAddressIsAWarning) {
    EXPECT_TRUE(m_socket.connect(addressOf(kPeer)));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(4, kConnect, std::string("Socket is connecting to ") + kPeer)});
    EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);
}

TEST_F(VekSocketConnecting, connectingToAnotherAddressFails) {
    EXPECT_FALSE(m_socket.connect(addressOf(kOther)));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kConnect,
                                                      std::string("VekSocket_::connect(") + kOther +
                                                          ") failed because it's connecting to " + kPeer)});
    EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);
    EXPECT_EQ(m_socket.remoteAddress().realName(), kPeer);
}

TEST_F(VekSocketConnect, connectingToThePeerThatOneHasIsAWarning) {
    Streams_ streams(Type_::LOCAL);

    EXPECT_TRUE(streams.m_client.connect(addressOf(streams.m_address)));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(4, kConnect, "Socket is already connected to " + streams.m_address)});
    EXPECT_TRUE(streams.m_client.isConnected());
}

TEST_F(VekSocketConnect, aConnectedSocketDoesNotChangeItsPeer) {
    Streams_ streams(Type_::LOCAL);

    EXPECT_FALSE(streams.m_client.connect(addressOf(kOther)));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kConnect,
                                    std::string("VekSocket_::connect(") + kOther +
                                        ") failed because it's already connected to " + streams.m_address)});
    EXPECT_TRUE(streams.m_client.isConnected());
    EXPECT_EQ(streams.m_client.remoteAddress().realName(), streams.m_address);
}

TEST_F(VekSocketConnect, aLocalPeerThatIsNotThereIsADebugRecord) {
    const std::string missing = m_folder.localAddress("missing");
    VekSocket_ bound;
    const std::string deaf = m_folder.localAddress("deaf");
    EXPECT_TRUE(bound.initialize(addressOf(deaf)));
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::LOCAL)));

    EXPECT_FALSE(m_socket.connect(addressOf(missing)));
    EXPECT_FALSE(m_socket.connect(addressOf(deaf)));

    EXPECT_EQ(
        m_records.take(),
        (Records_{
            socketRecord(7, kBegin, "VekSocket_::connect(" + missing + ") failed with " + errorText(ENOENT)),
            socketRecord(7, kBegin,
                         "VekSocket_::connect(" + deaf + ") failed with " + errorText(ECONNREFUSED))}));
    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_TRUE(isOpen(m_socket.descriptor()));
}

TEST_F(VekSocketConnect, afterARefusalTheSocketCanConnectElsewhere) {
    VekSocket_ listener;
    const std::string text = listenOn(listener, m_folder.localAddress("server"));
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::LOCAL)));
    EXPECT_FALSE(m_socket.connect(addressOf(m_folder.localAddress("missing"))));

    EXPECT_TRUE(m_socket.connect(addressOf(text)));

    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_EQ(m_socket.remoteAddress().realName(), text);
}

TEST_F(VekSocketConnect, bothErrorsOfProgressMeanUnderWay) {
    for (const int error : {EALREADY, EINPROGRESS}) {
        EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));
        m_calls.fail(SystemCalls_::Connect, error);

        EXPECT_TRUE(m_socket.connect(addressOf(kPeer)));

        EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);
        EXPECT_FALSE(m_socket.isConnected());
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketConnect, otherErrorsAreNoProgress) {
    for (const int error : {EAGAIN, EINTR, ECONNREFUSED, ENETUNREACH, EACCES}) {
        EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));
        m_calls.fail(SystemCalls_::Connect, error);

        EXPECT_FALSE(m_socket.connect(addressOf(kPeer)));

        EXPECT_EQ(m_records.take(), Records_{socketRecord(7, kBegin,
                                                          std::string("VekSocket_::connect(") + kPeer +
                                                              ") failed with " + errorText(error))});
        EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    }
}

TEST_F(VekSocketConnect, anUnsetAddressIsNoPeer) {
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));

    EXPECT_FALSE(m_socket.connect(VekSocketAddress_()));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kFill, "VekSocketAddress_::fillInNative() unknown type 0")});
    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_EQ(m_calls.count(SystemCalls_::Connect), 0U);
}

TEST_F(VekSocketConnect, withoutAClockConnectingFailsAlthoughUnderWay) {
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));
    m_calls.fail(SystemCalls_::Connect, EINPROGRESS);
    m_calls.fail(SystemCalls_::ClockGettime, EINVAL);

    EXPECT_FALSE(m_socket.connect(addressOf(kPeer)));

    EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketConnect, withoutMemoryForTheAddressConnectingFails) {
    VekSocket_ listener;
    const VekSocketAddress_ address = addressOf(listenOn(listener, m_folder.localAddress("server")));
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::LOCAL)));
    bool isConnected = true;
    {
        AllocationFailure_ failure(1);
        isConnected = m_socket.connect(address);
        EXPECT_TRUE(failure.hasStruck());
    }

    EXPECT_FALSE(isConnected);
    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_TRUE(m_socket.connect(address));
}

TEST_F(VekSocketConnecting, withoutPendingErrorAndPeerItIsStillUnderWay) {
    expectTheLimit();
}

TEST_F(VekSocketConnecting, aPendingErrorOfProgressIsStillUnderWay) {
    m_calls.setPendingError(EINPROGRESS, 3);
    expectTheLimit();
}

TEST_F(VekSocketConnecting, thePendingErrorAlreadyIsStillUnderWay) {
    m_calls.setPendingError(EALREADY, 3);
    expectTheLimit();
}

TEST_F(VekSocketConnecting, aLateCheckTellsTheAge) {
    m_calls.advanceClock(100);

    EXPECT_FALSE(check());

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kConnecting,
                                                      std::string("Attempt to connect to ") + kPeer +
                                                          " timed out after 100 seconds")});
    expectFailed();
}

TEST_F(VekSocketConnecting, thatThePeerIsThereCountsMoreThanTheAge) {
    m_calls.advanceClock(100);
    m_calls.answer(SystemCalls_::Getpeername, 0);

    EXPECT_TRUE(check());

    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketConnecting, onlyNotConnectedMeansThatThereIsNoPeer) {
    m_calls.fail(SystemCalls_::Getpeername, ENOBUFS);

    EXPECT_TRUE(check());

    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketConnecting, anUnreadablePendingErrorFails) {
    const std::string error = failNext(SystemCalls_::Getsockopt, ENOTSOCK);

    EXPECT_FALSE(check());

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kConnecting,
                                                      std::string("VekSocket_::connecting(") + kPeer +
                                                          ") getsockopt() failed with " + error)});
    expectFailed();
}

TEST_F(VekSocketConnecting, anyOtherPendingErrorIsADebugRecord) {
    m_calls.setPendingError(EHOSTUNREACH);

    EXPECT_FALSE(check());

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(7, kConnecting,
                                    std::string("VekSocket_::connecting(") + kPeer + ") async failure with " +
                                        errorText(EHOSTUNREACH))});
    expectFailed();
}

TEST_F(VekSocketConnecting, withoutAClockTheStateStays) {
    m_calls.fail(SystemCalls_::ClockGettime, EINVAL);

    EXPECT_FALSE(check());

    EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);
    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_TRUE(check());
}

TEST_F(VekSocketConnecting, afterAFailureTheSocketIsIdleUntilInitialized) {
    m_calls.advanceClock(6);
    EXPECT_FALSE(check());
    m_records.take();

    EXPECT_FALSE(check());
    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kCheck, "VekSocket_::check() failed because of the wrong state 0")});

    const int descriptor = m_socket.descriptor();
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));
    EXPECT_EQ(m_socket.descriptor(), descriptor);  // closed, and its number taken again
    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
}

TEST_F(VekSocketConnect, aRefusedTcpPeerShowsWhileConnecting) {
    const std::string text = freeTcpAddress();
    SP_BasicBuffer_ sp_nothing;
    startConnecting(m_socket, text);
    EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);

    EXPECT_TRUE(eventually([&] { return !m_socket.check(sp_nothing); }));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(
                  7, kConnecting,
                  "VekSocket_::connecting(" + text + ") async failure with " + errorText(ECONNREFUSED))});
    EXPECT_EQ(m_socket.state(), VekSocket_::IDLE);
}

TEST_F(VekSocketConnect, aPeerWhoseQueueIsFullNeverAnswers) {
    VekSocket_ listener;
    const std::string text = freeTcpAddress();
    EXPECT_TRUE(listener.initialize(addressOf(text)));
    EXPECT_TRUE(listener.listen(0));
    VekSocket_ first;
    startConnecting(first, text);
    ASSERT_TRUE(becomesConnected(first));
    startConnecting(m_socket, text);
    SP_BasicBuffer_ sp_nothing;

    EXPECT_TRUE(m_socket.check(sp_nothing));
    EXPECT_EQ(m_socket.state(), VekSocket_::CONNECTING);

    m_calls.advanceClock(6);
    EXPECT_FALSE(m_socket.check(sp_nothing));
    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kConnecting,
                                    "Attempt to connect to " + text + " timed out after 6 seconds")});
}
