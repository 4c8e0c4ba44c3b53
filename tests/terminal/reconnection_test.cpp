#include "support/allocation_failure.h"
#include "terminal/connections.h"

namespace {

constexpr char kReconnect[] = "bool VekmsgConnection_::reconnectFailedSocket()";
constexpr char kConnect[] = "bool VekSocket_::connect()";
constexpr char kConnecting[] = "bool VekSocket_::connecting()";
constexpr char kInitialize[] = "bool VekSocket_::initialize(int, int, const char*)";
constexpr char kSend[] = "VekSocket_::SendResult_ VekSocket_::send(libcpp::SP_BasicBuffer_)";

using Connection_ = VekmsgConnection_;

class Reconnection : public ConnectionTest_ {
protected:
    /// An outgoing TCP connection whose stream broke while `blocks` wait to be sent.
    void breakStream(const std::vector<std::string>& blocks) {
        openNamed(Type_::INET_TCP);
        for (const std::string& bytes : blocks) m_sp_connection->m_sendQueue.push_back(bufferOf(bytes));
        m_sp_connection->m_connectionState = Connection_::STATE_FAILED;
    }

    /// Each connect fails after a while, until the budget is used up.
    void expectNewSockets(unsigned int budget) {
        EXPECT_TRUE(turn());
        EXPECT_EQ(m_records.take(), (Records_{tries(1)}));
        for (unsigned int failures = 2; failures <= budget; ++failures) {
            m_calls.setPendingError(ECONNREFUSED);
            EXPECT_TRUE(turn());
            EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_SENDING_NAME);
            EXPECT_EQ(m_records.take(), (Records_{refusedLater(), tries(failures)}));
        }
        m_calls.setPendingError(ECONNREFUSED);
        EXPECT_FALSE(turn());
        EXPECT_EQ(m_records.take(), (Records_{refusedLater(), gaveUp(budget + 1)}));

        EXPECT_FALSE(turn());
        EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());
        EXPECT_FALSE(m_sp_connection->sendEncodedMessage(bufferOf("another")));
        EXPECT_EQ(m_sp_connection->m_failureCount, budget + 1);
        EXPECT_EQ(bytesOf(m_sp_connection->m_sendQueue), (std::vector<std::string>{"block", "another"}));
        EXPECT_EQ(m_records.take(), Records_{});
    }

    std::string address() { return listener(Type_::INET_TCP).localAddress().realName(); }

    Record_ gaveUp(unsigned int count) {
        return connectionRecord(7, kReconnect,
                                "Unable to reconnect failed socket between here and abc after " +
                                    std::to_string(count) + " attempts");
    }
    Record_ unable(unsigned int count, const std::string& why) {
        return connectionRecord(3, kReconnect,
                                "Unable to reconnect socket between here and abc after " +
                                    std::to_string(count) + " attempts " + why);
    }
    Record_ tries(unsigned int count) {
        return connectionRecord(
            7, kReconnect,
            "Reconnecting socket between here and abc after " + std::to_string(count) + " failures");
    }
    Record_ refusedLater() {
        return socketRecord(
            7, kConnecting,
            "VekSocket_::connecting(" + address() + ") async failure with error(111): Connection refused");
    }
};

}  // namespace

TEST_F(Reconnection, theBudgetDependsOnTheKindOfAddress) {
    const struct {
        Type_ m_type;
        unsigned int m_budget;
    } cases[] = {{Type_::INET_TCP, 4},
                 {Type_::INET_UDP, 1},
                 {Type_::LOCAL, 0},
                 {Type_::UNKNOWN, 0},
                 {static_cast<Type_>(17), 0}};
    EXPECT_EQ(m_sp_connection->m_maxFailureRetryCount, 1U);
    EXPECT_EQ(m_sp_connection->m_failureCount, 0U);
    for (const auto& each : cases) {
        m_sp_connection->m_failureCount = 3;

        EXPECT_TRUE(m_sp_connection->setMaxFailureRetryCount(each.m_type));

        EXPECT_EQ(m_sp_connection->m_maxFailureRetryCount, each.m_budget);
        EXPECT_EQ(m_sp_connection->m_failureCount, 0U);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, aLocalConnectionIsNeverReconnected) {
    openNamed();
    m_sp_connection->m_connectionState = Connection_::STATE_FAILED;

    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());
    EXPECT_EQ(m_records.take(), (Records_{gaveUp(1)}));
    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());
    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());

    EXPECT_EQ(m_sp_connection->m_failureCount, 1U);
    EXPECT_FALSE(m_sp_connection->isFunctional());
    EXPECT_EQ(m_calls.count(SystemCalls_::Socket), 2U);  // the listener and the first one
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, aTcpConnectionGetsFourNewSockets) {
    breakStream({"block"});
    expectNewSockets(4);
}

TEST_F(Reconnection, aUdpConnectionGetsOneNewSocket) {
    breakStream({"block"});
    m_sp_connection->setMaxFailureRetryCount(Type_::INET_UDP);
    expectNewSockets(1);
}

TEST_F(Reconnection, aConnectionWithoutASocketCannotReconnectAndThatCounts) {
    m_sp_connection->setMyName(nameOf("here"));
    m_sp_connection->setPeerName(nameOf("abc"));
    m_sp_connection->m_connectionState = Connection_::STATE_FAILED;

    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());
    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());

    EXPECT_EQ(m_records.take(), (Records_{unable(1, "because of null socket"), gaveUp(2)}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
}

TEST_F(Reconnection, namesThatAreNotSetPrintAsNothing) {
    m_sp_connection->m_sp_peerName = emptyHolder();

    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());

    EXPECT_EQ(m_records.take(),
              (Records_{connectionRecord(3, kReconnect,
                                         "Unable to reconnect socket between  and  after 1 attempts because "
                                         "of null socket")}));
}

TEST_F(Reconnection, aPeerWithoutAnAddressCannotBeReachedAndThatCounts) {
    openEstablished();  // an accepted local stream has no address at its far end
    m_sp_connection->m_connectionState = Connection_::STATE_FAILED;
    const int descriptor = socket().descriptor();

    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());

    EXPECT_EQ(m_records.take(), (Records_{unable(1, "due to wildcard address")}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(socket().descriptor(), descriptor);
    EXPECT_EQ(m_sp_connection->m_failureCount, 1U);
}

TEST_F(Reconnection, withoutMemoryForASocketTheConnectionStopsAndThatCounts) {
    inFreshThread([&] {
        breakStream({"block"});
        // The first memory is for the text of the address, the second for the socket.
        AllocationFailure_ failure(2);

        EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());

        EXPECT_TRUE(failure.hasStruck());
        EXPECT_EQ(m_records.take(),
                  (Records_{connectionRecord(
                      3, kReconnect, "VekmsgConnection_::reconnectFailedSocket() Can't create vekSocket_")}));
    });
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
    EXPECT_EQ(socket().descriptor(), -1);
    EXPECT_EQ(m_sp_connection->m_failureCount, 1U);
    EXPECT_EQ(m_sp_connection->m_sendQueue.size(), 1U);
}

TEST_F(Reconnection, aSocketThatCannotBeMadeCounts) {
    breakStream({"block"});
    m_calls.fail(SystemCalls_::Socket, EMFILE);

    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());

    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(3, kInitialize,
                                     "VekSocket_::initialize(inettcp://?) socket() failed with "
                                     "error(24): Too many open files")}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
    EXPECT_EQ(m_sp_connection->m_failureCount, 1U);
}

// The failed socket gave up its address, so that there is nowhere to go the next time.
TEST_F(Reconnection, aConnectThatFailsAtOnceCountsAndSoDoLaterAttempts) {
    breakStream({"block"});
    m_calls.fail(SystemCalls_::Connect, ENETUNREACH);
    const SP_VekSocket_ sp_before = m_sp_connection->m_sp_socket;

    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());

    EXPECT_EQ(m_records.take(),
              (Records_{tries(1), socketRecord(7, kConnect,
                                               "VekSocket_::connect(" + address() +
                                                   ") failed with error(101): Network is unreachable")}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
    EXPECT_EQ(m_sp_connection->m_sp_socket, sp_before);
    for (unsigned int count = 2; count <= 4; ++count) {
        EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());
        EXPECT_EQ(m_records.take(), (Records_{unable(count, "due to wildcard address")}));
    }
    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());
    EXPECT_EQ(m_records.take(), (Records_{gaveUp(5)}));
    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, aHandshakeThatCannotStartOnTheNewSocketIsNoSuccess) {
    breakStream({"block"});
    const SP_VekSocket_ sp_before = m_sp_connection->m_sp_socket;
    m_sp_connection->m_sp_myName.reset();

    EXPECT_FALSE(m_sp_connection->reconnectFailedSocket());

    EXPECT_EQ(
        m_records.take(),
        (Records_{connectionRecord(7, kReconnect, "Reconnecting socket between  and abc after 1 failures"),
                  connectionRecord(3, "bool VekmsgConnection_::start()",
                                   "VekmsgConnection_::start() Can't start without myName")}));
    EXPECT_NE(m_sp_connection->m_sp_socket, sp_before);
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
    EXPECT_EQ(m_sp_connection->m_failureCount, 1U);
    EXPECT_EQ(m_sp_connection->m_sendQueue.size(), 1U);
}

TEST_F(Reconnection, anAddressThatCannotBeCopiedFailsTheConnection) {
    inFreshThread([&] {
        breakStream({});
        m_sp_connection->m_sendQueue.push_back(bufferOf("block"));
        m_sp_connection->m_failureCount = 2;
        const SP_BasicBuffer_ sp_block = bufferOf("another");
        const AllocationFailure_ failure(2);  // the first is for the place in the queue

        EXPECT_THROW(m_sp_connection->sendEncodedMessage(sp_block), std::bad_alloc);
    });
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_sp_connection->m_failureCount, 3U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, waitingBlocksFollowTheNameOnTheNewSocket) {
    breakStream({block(2, "first"), block(2, "second")});
    const SP_VekSocket_ sp_before = m_sp_connection->m_sp_socket;

    EXPECT_TRUE(m_sp_connection->reconnectFailedSocket());

    EXPECT_EQ(m_records.take(), (Records_{tries(1)}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_SENDING_NAME);
    EXPECT_NE(m_sp_connection->m_sp_socket, sp_before);
    EXPECT_EQ(sp_before->descriptor(), -1);
    m_peer = RawPeer_::acceptedFrom(m_tcpListener.descriptor());
    awaitWritable(socket().descriptor());
    EXPECT_TRUE(turn());
    EXPECT_EQ(m_peer.read(28), nameBlock("here") + block(2, "first") + block(2, "second"));
    EXPECT_TRUE(m_sp_connection->isFunctional());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, aFailedConnectionWithNothingToSendIsNotReconnected) {
    breakStream({});

    EXPECT_FALSE(turn());

    EXPECT_EQ(m_sp_connection->m_failureCount, 0U);
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, aTurnReconnectsAConnectionThatHasBlocksToSend) {
    breakStream({block(2, "x")});

    EXPECT_TRUE(turn());

    EXPECT_EQ(m_records.take(), (Records_{tries(1)}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_SENDING_NAME);
    EXPECT_FALSE(m_sp_connection->isFunctional());
    EXPECT_TRUE(m_sp_connection->isStarting());
}

TEST_F(Reconnection, aTurnThatCannotReconnectAnnouncesNoBlocks) {
    openNamed();
    m_sp_connection->m_connectionState = Connection_::STATE_FAILED;
    m_sp_connection->m_receivedBuffers.push_back(bufferOf("received"));
    m_sp_connection->m_sendQueue.push_back(bufferOf("waiting"));
    m_hasMessages = true;

    EXPECT_FALSE(turn());

    EXPECT_FALSE(m_hasMessages);
    EXPECT_EQ(received(), (std::vector<std::string>{"received"}));
    EXPECT_EQ(bytesOf(m_sp_connection->m_sendQueue), (std::vector<std::string>{"waiting"}));
    EXPECT_EQ(m_records.take(), (Records_{gaveUp(1)}));
}

TEST_F(Reconnection, aWriteThatFailsReconnectsAndKeepsTheBlock) {
    openNamed(Type_::INET_TCP);
    m_calls.fail(SystemCalls_::Send, EPIPE);

    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "kept"))));

    EXPECT_EQ(
        m_records.take(),
        (Records_{socketRecord(7, kSend, "send(to " + address() + ") failed with error(32): Broken pipe"),
                  tries(1)}));
    m_peer = RawPeer_::acceptedFrom(m_tcpListener.descriptor());
    awaitWritable(socket().descriptor());
    EXPECT_TRUE(turn());
    EXPECT_EQ(m_peer.read(17), nameBlock("here") + block(2, "kept"));
}

TEST_F(Reconnection, sendingOverAFailedConnectionReconnectsIt) {
    breakStream({});

    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "x"))));

    EXPECT_EQ(m_records.take(), (Records_{tries(1)}));
    EXPECT_EQ(m_sp_connection->m_sendQueue.size(), 1U);
}

TEST_F(Reconnection, sendingOverABrokenLocalConnectionFails) {
    openNamed();
    m_peer.close();
    m_calls.fail(SystemCalls_::Send, EPIPE);
    const std::string address = m_localListener.localAddress().realName();

    EXPECT_FALSE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "x"))));

    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(7, kSend, "send(to " + address + ") failed with error(32): Broken pipe"),
                        gaveUp(1)}));
    EXPECT_EQ(m_sp_connection->m_sendQueue.size(), 1U);
    EXPECT_FALSE(turn());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, aStreamThatBreaksAgainAtTheNameIsNoSuccess) {
    breakStream({block(2, "x")});
    EXPECT_TRUE(turn());
    EXPECT_EQ(m_records.take(), (Records_{tries(1)}));
    awaitWritable(socket().descriptor());
    m_calls.fail(SystemCalls_::Send, ECONNRESET);

    EXPECT_TRUE(turn());

    EXPECT_EQ(m_records.take(), (Records_{socketRecord(7, kSend,
                                                       "send(to " + address() +
                                                           ") failed with error(104): Connection reset by "
                                                           "peer"),
                                          tries(2)}));
    EXPECT_EQ(m_sp_connection->m_failureCount, 2U);
}

TEST_F(Reconnection, mergingPutsTheOtherQueuesBehindTheOwnOnes) {
    const SP_BareConnection_ sp_other(new (std::nothrow) BareConnection_);
    for (const char* p_text : {"a", "b"}) {
        m_sp_connection->m_receivedBuffers.push_back(bufferOf(std::string("own received ") + p_text));
        m_sp_connection->m_sendQueue.push_back(bufferOf(std::string("own sent ") + p_text));
        sp_other->m_receivedBuffers.push_back(bufferOf(std::string("other received ") + p_text));
        sp_other->m_sendQueue.push_back(bufferOf(std::string("other sent ") + p_text));
    }

    EXPECT_TRUE(m_sp_connection->mergeQueues(sp_other.get()));

    EXPECT_EQ(received(), (std::vector<std::string>{"own received a", "own received b", "other received a",
                                                    "other received b"}));
    EXPECT_EQ(bytesOf(m_sp_connection->m_sendQueue),
              (std::vector<std::string>{"own sent a", "own sent b", "other sent a", "other sent b"}));
    EXPECT_TRUE(sp_other->m_receivedBuffers.empty());
    EXPECT_TRUE(sp_other->m_sendQueue.empty());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, mergingAConnectionWithItselfChangesNothing) {
    m_sp_connection->m_receivedBuffers.push_back(bufferOf("received"));
    m_sp_connection->m_sendQueue.push_back(bufferOf("sent"));

    EXPECT_TRUE(m_sp_connection->mergeQueues(m_sp_connection.get()));

    EXPECT_EQ(received(), (std::vector<std::string>{"received"}));
    EXPECT_EQ(bytesOf(m_sp_connection->m_sendQueue), (std::vector<std::string>{"sent"}));
}

TEST_F(Reconnection, mergingWithNothingIsRefused) {
    EXPECT_FALSE(m_sp_connection->mergeQueues(nullptr));

    EXPECT_EQ(m_records.take(),
              (Records_{connectionRecord(3, "bool VekmsgConnection_::mergeQueues(VekmsgConnection_*)",
                                         "VekmsgConnection_::mergeQueues() null p_connection")}));
}

TEST_F(Reconnection, swappingWithNothingIsRefused) {
    EXPECT_FALSE(m_sp_connection->swapSockets(nullptr));

    EXPECT_EQ(m_records.take(),
              (Records_{connectionRecord(3, "bool VekmsgConnection_::swapSockets(VekmsgConnection_*)",
                                         "VekmsgConnection_::swapSockets() null p_connection")}));
}

namespace {

/// All that a connection consists of.
struct Content_ {
    explicit Content_(const BareConnection_& connection)
        : m_sp_socket(connection.m_sp_socket),
          m_sp_wholeUnit(connection.m_sp_wholeUnit),
          m_numbers{connection.m_connectionState,      connection.m_blockType,
                    connection.m_blockLength,          connection.m_decodeOffset,
                    connection.m_maxFailureRetryCount, connection.m_failureCount},
          m_sp_myName(connection.m_sp_myName),
          m_sp_peerName(connection.m_sp_peerName),
          m_received(bytesOf(connection.m_receivedBuffers)),
          m_sent(bytesOf(connection.m_sendQueue)) {}

    bool hasStreamOf(const Content_& other) const {
        return m_sp_socket == other.m_sp_socket && m_sp_wholeUnit == other.m_sp_wholeUnit &&
               m_numbers == other.m_numbers;
    }
    bool hasNamesAndQueuesOf(const Content_& other) const {
        return m_sp_myName == other.m_sp_myName && m_sp_peerName == other.m_sp_peerName &&
               m_received == other.m_received && m_sent == other.m_sent;
    }

    SP_VekSocket_ m_sp_socket;
    SP_BasicBuffer_ m_sp_wholeUnit;
    std::vector<unsigned int> m_numbers;
    SP_Utf8String_ m_sp_myName;
    SP_Utf8String_ m_sp_peerName;
    std::vector<std::string> m_received;
    std::vector<std::string> m_sent;
};

SP_BareConnection_ connectionNumbered(unsigned int number) {
    SP_BareConnection_ sp_connection(new (std::nothrow) BareConnection_);
    const std::string text = std::to_string(number);
    sp_connection->setSocket(SP_VekSocket_(new VekSocket_));
    sp_connection->setMyName(nameOf("own " + text));
    sp_connection->setPeerName(nameOf("peer " + text));
    sp_connection->m_connectionState = static_cast<Connection_::ConnectionState_>(number);
    sp_connection->m_blockType = static_cast<Connection_::EncodingBlockType_>(10 + number);
    sp_connection->m_blockLength = 20 + number;
    sp_connection->m_decodeOffset = 30 + number;
    sp_connection->m_maxFailureRetryCount = 40 + number;
    sp_connection->m_failureCount = 50 + number;
    sp_connection->m_sp_wholeUnit = bufferOf("unit");
    sp_connection->m_receivedBuffers.push_back(bufferOf("received " + text));
    sp_connection->m_sendQueue.push_back(bufferOf("sent " + text));
    return sp_connection;
}

}  // namespace

TEST_F(Reconnection, swappingExchangesAllThatBelongsToTheStreams) {
    const SP_BareConnection_ sp_one = connectionNumbered(1);
    const SP_BareConnection_ sp_two = connectionNumbered(2);
    const Content_ one(*sp_one);
    const Content_ two(*sp_two);
    ASSERT_FALSE(one.hasStreamOf(two));

    EXPECT_TRUE(sp_one->swapSockets(sp_two.get()));

    EXPECT_TRUE(Content_(*sp_one).hasStreamOf(two));
    EXPECT_TRUE(Content_(*sp_two).hasStreamOf(one));
    EXPECT_TRUE(Content_(*sp_one).hasNamesAndQueuesOf(one));
    EXPECT_TRUE(Content_(*sp_two).hasNamesAndQueuesOf(two));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Reconnection, swappingTwiceRestoresBoth) {
    const SP_BareConnection_ sp_one = connectionNumbered(1);
    const SP_BareConnection_ sp_two = connectionNumbered(2);
    const Content_ one(*sp_one);
    const Content_ two(*sp_two);

    EXPECT_TRUE(sp_one->swapSockets(sp_two.get()));
    EXPECT_TRUE(sp_one->swapSockets(sp_two.get()));

    EXPECT_TRUE(Content_(*sp_one).hasStreamOf(one));
    EXPECT_TRUE(Content_(*sp_two).hasStreamOf(two));
    EXPECT_TRUE(Content_(*sp_one).hasNamesAndQueuesOf(one));
    EXPECT_TRUE(Content_(*sp_two).hasNamesAndQueuesOf(two));
}
