// A connection's names, socket and state, and what it sends.

#include "terminal/connection.h"

#include <poll.h>

#include "support/allocation_failure.h"
#include "terminal/connections.h"

namespace {

using Connection_ = VekmsgConnection_;

constexpr char kSetMyName[] = "bool VekmsgConnection_::setMyName(SP_Utf8String_)";
constexpr char kStart[] = "bool VekmsgConnection_::start()";
constexpr char kSendMyName[] = "bool VekmsgConnection_::sendMyName()";
constexpr char kStartReceiving[] =
    "bool VekmsgConnection_::startReceiving(libcpp::SP_BasicBuffer_, unsigned int, " OF_CONNECTION
    "ConnectionState_)";
constexpr char kProcess[] = "bool VekmsgConnection_::processPollEvents(bool&)";
constexpr char kConnecting[] = "bool VekSocket_::connecting()";
constexpr char kReceive[] = "bool VekSocket_::receive(unsigned int, libcpp::SP_BasicBuffer_)";
constexpr char kSend[] = "VekSocket_::SendResult_ VekSocket_::send(libcpp::SP_BasicBuffer_)";
constexpr char kFillPollFd[] = "bool VekSocket_::fillPollFd(bool, pollfd*, pollfd*&) const";

constexpr short kReading = POLLIN | POLLPRI | POLLERR | POLLHUP | POLLNVAL;

class Connection : public ConnectionTest_ {
protected:
    /// What a poll would be asked; 0 when no entry is filled.
    short polledEvents() {
        pollfd entries[2] = {{-7, 0, 1}, {-7, 0, 1}};
        pollfd* p_next = nullptr;
        EXPECT_TRUE(m_sp_connection->fillPollFd(entries, p_next));
        if (p_next == entries) return 0;
        EXPECT_EQ(p_next, entries + 1);
        EXPECT_EQ(entries[0].fd, socket().descriptor());
        EXPECT_EQ(entries[0].revents, 0);
        EXPECT_EQ(entries[1].fd, -7);
        return entries[0].events;
    }

    /// Keeps a write pending, so that the socket takes no other buffer.
    void blockWriting() {
        m_calls.fail(SystemCalls_::Send, EAGAIN);
        ASSERT_EQ(socket().send(bufferOf("pending ")), VekSocket_::SEND_OK);
        ASSERT_TRUE(socket().isSendDataPending());
    }

    std::vector<std::string> sendQueue() const { return bytesOf(m_sp_connection->m_sendQueue); }
    std::string tcpAddress() { return listener(Type_::INET_TCP).localAddress().realName(); }
};

using Texts_ = std::vector<std::string>;

}  // namespace

TEST_F(Connection, statesHaveTheirNumbers) {
    EXPECT_EQ(Connection_::STATE_IDLE, 0U);
    EXPECT_EQ(Connection_::STATE_SENDING_NAME, 1U);
    EXPECT_EQ(Connection_::STATE_RECEIVING_NAME_HEADER, 2U);
    EXPECT_EQ(Connection_::STATE_RECEIVING_NAME, 3U);
    EXPECT_EQ(Connection_::STATE_RECEIVING_HEADER, 4U);
    EXPECT_EQ(Connection_::STATE_RECEIVING_PAYLOAD, 5U);
    EXPECT_EQ(Connection_::STATE_FAILED, 6U);
    EXPECT_EQ(sizeof(Connection_::ConnectionState_), 4U);
}

TEST_F(Connection, aNewOneIsIdleAndEmpty) {
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
    EXPECT_FALSE(m_sp_connection->getMyName());
    EXPECT_FALSE(m_sp_connection->getPeerName());
    EXPECT_FALSE(m_sp_connection->m_sp_socket);
    EXPECT_EQ(m_sp_connection->m_blockType, Connection_::NO_ENCODING_BLOCK);
    EXPECT_EQ(m_sp_connection->m_blockLength, 0U);
    EXPECT_EQ(m_sp_connection->m_decodeOffset, 0U);
    EXPECT_TRUE(m_sp_connection->m_receivedBuffers.empty());
    EXPECT_TRUE(m_sp_connection->m_sendQueue.empty());
    EXPECT_EQ(m_sp_connection->m_maxFailureRetryCount, 1U);
    EXPECT_EQ(m_sp_connection->m_failureCount, 0U);
}

TEST_F(Connection, namesAreShared) {
    const SP_Utf8String_ sp_mine = nameOf("mine");
    const SP_Utf8String_ sp_peers = nameOf("peers");

    EXPECT_TRUE(m_sp_connection->setMyName(sp_mine));
    EXPECT_TRUE(m_sp_connection->setPeerName(sp_peers));

    EXPECT_EQ(m_sp_connection->getMyName(), sp_mine);
    EXPECT_EQ(m_sp_connection->getPeerName(), sp_peers);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, anOwnNameThatIsNullIsRefusedAndTheOldOneStays) {
    const SP_Utf8String_ sp_before = nameOf("before");
    EXPECT_TRUE(m_sp_connection->setMyName(sp_before));
    const Record_ refused = connectionRecord(3, kSetMyName, "VekmsgConnection_::setMyName() null sp_myName");

    EXPECT_FALSE(m_sp_connection->setMyName(SP_Utf8String_()));
    EXPECT_FALSE(m_sp_connection->setMyName(emptyHolder()));

    EXPECT_EQ(m_sp_connection->getMyName(), sp_before);
    EXPECT_EQ(m_records.take(), (Records_{refused, refused}));
}

TEST_F(Connection, thePeersNameMayBeNull) {
    m_sp_connection->setPeerName(nameOf("before"));

    EXPECT_TRUE(m_sp_connection->setPeerName(SP_Utf8String_()));

    EXPECT_FALSE(m_sp_connection->getPeerName());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, aNewSocketStartsOverAndKeepsNamesAndQueues) {
    openEstablished();
    m_sp_connection->m_receivedBuffers.push_back(bufferOf("received"));
    m_sp_connection->m_sendQueue.push_back(bufferOf("sent"));
    m_sp_connection->m_decodeOffset = 9;
    m_sp_connection->m_failureCount = 1;
    m_sp_connection->m_sp_wholeUnit = bufferOf("unit");
    for (const SP_VekSocket_& sp_socket : {SP_VekSocket_(new VekSocket_), SP_VekSocket_()}) {
        m_sp_connection->m_connectionState = Connection_::STATE_FAILED;

        EXPECT_TRUE(m_sp_connection->setSocket(sp_socket));

        EXPECT_EQ(m_sp_connection->m_sp_socket, sp_socket);
        EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
        EXPECT_EQ(m_sp_connection->m_blockType, Connection_::NO_ENCODING_BLOCK);
        EXPECT_EQ(m_sp_connection->m_blockLength, 0U);
        EXPECT_EQ(m_sp_connection->m_decodeOffset, 0U);
        EXPECT_FALSE(m_sp_connection->m_sp_wholeUnit);
        EXPECT_EQ(*m_sp_connection->getMyName(), *nameOf("here"));
        EXPECT_EQ(*m_sp_connection->getPeerName(), *nameOf("abc"));
        EXPECT_EQ(received(), Texts_{"received"});
        EXPECT_EQ(sendQueue(), Texts_{"sent"});
        EXPECT_EQ(m_sp_connection->m_failureCount, 1U);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, withoutASocketGetSocketLeavesItsArgumentAlone) {
    const SP_VekSocket_ sp_before(new VekSocket_);
    SP_VekSocket_ sp_socket = sp_before;

    EXPECT_FALSE(m_sp_connection->getSocket(sp_socket));
    EXPECT_EQ(sp_socket, sp_before);

    const SP_VekSocket_ sp_own(new VekSocket_);
    m_sp_connection->setSocket(sp_own);
    EXPECT_TRUE(m_sp_connection->getSocket(sp_socket));
    EXPECT_EQ(sp_socket, sp_own);
}

TEST_F(Connection, itsEndLeavesASharedSocketOpen) {
    openEstablished();
    const SP_VekSocket_ sp_socket = m_sp_connection->m_sp_socket;

    m_sp_connection.reset();

    EXPECT_TRUE(sp_socket->isConnected());
    EXPECT_NE(sp_socket->descriptor(), -1);
}

TEST_F(Connection, cannotStartWithoutASocket) {
    EXPECT_FALSE(m_sp_connection->start());
    m_sp_connection->setMyName(nameOf("here"));
    EXPECT_FALSE(m_sp_connection->start());

    const Record_ record =
        connectionRecord(7, kStart, "VekmsgConnection_::start() Can't start without a socket");
    EXPECT_EQ(m_records.take(), (Records_{record, record}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
}

TEST_F(Connection, cannotStartWithoutItsOwnName) {
    m_sp_connection->setSocket(SP_VekSocket_(new VekSocket_));

    EXPECT_FALSE(m_sp_connection->start());
    m_sp_connection->m_sp_myName = emptyHolder();
    EXPECT_FALSE(m_sp_connection->start());

    const Record_ record =
        connectionRecord(3, kStart, "VekmsgConnection_::start() Can't start without myName");
    EXPECT_EQ(m_records.take(), (Records_{record, record}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
}

TEST_F(Connection, anAcceptedOneWaitsForThePeersNameAndSendsNothing) {
    openAccepted();

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_NAME_HEADER);
    EXPECT_TRUE(turn());
    EXPECT_FALSE(m_hasMessages);
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_NAME_HEADER);
    EXPECT_EQ(m_peer.readArrived(), "");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, startForgetsTheBlockBefore) {
    openOutgoing();
    m_sp_connection->m_blockType = Connection_::BINARY_ENCODED_MESSAGE;
    m_sp_connection->m_blockLength = 5;

    EXPECT_TRUE(m_sp_connection->start());

    EXPECT_EQ(m_sp_connection->m_blockType, Connection_::NO_ENCODING_BLOCK);
    EXPECT_EQ(m_sp_connection->m_blockLength, 0U);
}

TEST_F(Connection, startInTheMiddleOfABlockBeginsWithAFreshBuffer) {
    openNamed();
    ASSERT_TRUE(deliver(block(2, "hello").substr(0, 4)));
    ASSERT_EQ(m_sp_connection->m_decodeOffset, 4U);

    EXPECT_TRUE(m_sp_connection->start());

    EXPECT_EQ(m_sp_connection->m_decodeOffset, 0U);
    EXPECT_TRUE(deliver(block(2, "next")));
    EXPECT_EQ(received(), Texts_{block(2, "next")});
    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(4, kReceive, "VekSocket_::receive() discard pending receive buffer")}));
}

TEST_F(Connection, anOutgoingOneSendsItsNameAsSoonAsItIsConnected) {
    openOutgoing();

    EXPECT_TRUE(m_sp_connection->start());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(m_peer.read(9), std::string("\0\1\0\5here\0", 9));
    EXPECT_EQ(m_peer.readArrived(), "");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, theNameGoesOutInTheFirstTurnAfterTheConnectCompletes) {
    openOutgoing(Type_::INET_TCP);
    awaitWritable(socket().descriptor());
    m_calls.fail(SystemCalls_::Getpeername, ENOTCONN, 0, 1);  // the connect is still under way

    EXPECT_TRUE(m_sp_connection->start());
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_SENDING_NAME);
    EXPECT_TRUE(turn());
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_SENDING_NAME);
    EXPECT_EQ(m_peer.readArrived(), "");

    EXPECT_TRUE(turn());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(m_peer.read(9), nameBlock("here"));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, startLeavesTheFailedState) {
    const struct {
        Type_ m_type;
        Connection_::ConnectionState_ m_state;
    } cases[] = {{Type_::INET_TCP, Connection_::STATE_SENDING_NAME},
                 {Type_::LOCAL, Connection_::STATE_RECEIVING_HEADER}};
    for (const auto& each : cases) {
        openOutgoing(each.m_type);
        m_sp_connection->m_connectionState = Connection_::STATE_FAILED;

        EXPECT_TRUE(m_sp_connection->start());

        EXPECT_EQ(m_sp_connection->state(), each.m_state);
        awaitWritable(socket().descriptor());
        EXPECT_TRUE(turn());
        EXPECT_EQ(m_peer.read(9), nameBlock("here"));
        EXPECT_TRUE(m_sp_connection->isFunctional());
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, blocksSentWhileConnectingFollowTheName) {
    openOutgoing(Type_::INET_TCP);
    awaitWritable(socket().descriptor());
    EXPECT_TRUE(m_sp_connection->start());

    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "one"))));
    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "two"))));

    EXPECT_EQ(sendQueue(), (Texts_{block(2, "one"), block(2, "two")}));
    EXPECT_TRUE(turn());
    EXPECT_EQ(m_peer.read(23), nameBlock("here") + block(2, "one") + block(2, "two"));
    EXPECT_EQ(sendQueue(), Texts_{});
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, aTurnWhileConnectingLeavesTheQueueAlone) {
    openOutgoing(Type_::INET_TCP);
    m_calls.fail(SystemCalls_::Getpeername, ENOTCONN);
    EXPECT_TRUE(m_sp_connection->start());
    m_sp_connection->m_sendQueue.push_back(bufferOf(block(2, "one")));
    m_sp_connection->m_receivedBuffers.push_back(bufferOf("received"));
    m_hasMessages = true;

    EXPECT_TRUE(turn());

    EXPECT_FALSE(m_hasMessages);
    EXPECT_EQ(m_sp_connection->m_sendQueue.size(), 1U);
    EXPECT_EQ(m_calls.count(SystemCalls_::Send), 0U);
}

TEST_F(Connection, sendingFindsOutThatTheConnectCompleted) {
    openOutgoing(Type_::INET_TCP);
    EXPECT_TRUE(m_sp_connection->start());
    awaitWritable(socket().descriptor());
    ASSERT_TRUE(socket().connecting());
    ASSERT_EQ(m_sp_connection->state(), Connection_::STATE_SENDING_NAME);

    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "one"))));

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(m_peer.read(16), nameBlock("here") + block(2, "one"));
}

TEST_F(Connection, aConnectThatFailsFailsTheConnection) {
    openOutgoing(Type_::INET_TCP);
    EXPECT_TRUE(m_sp_connection->start());
    m_calls.setPendingError(ECONNREFUSED);

    EXPECT_FALSE(turn());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(7, kConnecting,
                                     "VekSocket_::connecting(" + tcpAddress() +
                                         ") async failure with error(111): Connection refused")}));
}

TEST_F(Connection, aConnectThatNeverCompletesFailsAfterSixSeconds) {
    openOutgoing(Type_::INET_TCP);
    EXPECT_TRUE(m_sp_connection->start());
    m_calls.fail(SystemCalls_::Getpeername, ENOTCONN, 0, 3);
    EXPECT_TRUE(turn());
    m_calls.advanceClock(6);

    EXPECT_FALSE(turn());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(
                  3, kConnecting, "Attempt to connect to " + tcpAddress() + " timed out after 6 seconds")}));
}

// No peer can bring this about: a socket that gives bytes is connected, and then the name goes out.
TEST_F(Connection, bytesThatArriveBeforeTheNameIsSentAreDropped) {
    openOutgoing(Type_::INET_TCP);
    EXPECT_TRUE(m_sp_connection->start());
    m_sp_connection->m_sp_wholeUnit = bufferOf("12345");
    m_sp_connection->m_sendQueue.push_back(bufferOf(block(2, "one")));

    EXPECT_TRUE(turn());

    EXPECT_EQ(m_records.take(),
              (Records_{connectionRecord(4, kProcess,
                                         "Received 5 bytes of data while connecting here to abc. Dropped")}));
    EXPECT_FALSE(m_sp_connection->m_sp_wholeUnit);
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_SENDING_NAME);
    EXPECT_EQ(m_sp_connection->m_sendQueue.size(), 1U);
}

TEST_F(Connection, bytesInHandAreNotLookedAtWhenTheNameCannotBeSent) {
    openOutgoing();
    m_sp_connection->m_connectionState = Connection_::STATE_SENDING_NAME;
    m_sp_connection->m_sp_wholeUnit = bufferOf(block(2, "12345"));
    m_calls.fail(SystemCalls_::Send, EPIPE);
    const std::string address = m_localListener.localAddress().realName();

    EXPECT_FALSE(turn());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_FALSE(m_hasMessages);
    EXPECT_EQ(
        m_records.take(),
        (Records_{socketRecord(7, kSend, "send(to " + address + ") failed with error(32): Broken pipe")}));
}

TEST_F(Connection, withoutASocketTheNameWaits) {
    EXPECT_TRUE(m_sp_connection->sendMyName());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_SENDING_NAME);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, aNameIsSentWithItsNulAndCutTo9400Bytes) {
    for (const std::size_t length : {0, 1, 2, 3, 254, 9395, 9396, 9397, 9399, 9400, 9401, 20000}) {
        const std::string name(length, 'n');
        openOutgoing();
        m_sp_connection->setMyName(nameOf(name));

        EXPECT_TRUE(m_sp_connection->start());

        const std::string expected = nameBlock(name.substr(0, 9399));
        EXPECT_EQ(m_peer.read(expected.size()), expected) << length;
        EXPECT_EQ(m_peer.readArrived(), "");
        EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_HEADER);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, aNameEndsAtItsFirstNulAndIsFilledUp) {
    openOutgoing();
    m_sp_connection->setMyName(nameOf(std::string("ab\0cd", 5)));

    EXPECT_TRUE(m_sp_connection->start());

    EXPECT_EQ(m_peer.read(10), std::string("\0\1\0\6ab\0\0\0\0", 10));
}

TEST_F(Connection, withoutMemoryForTheNameBlockStartFails) {
    const char* texts[] = {"VekmsgConnection_::sendMyName() Can't create basicBuffer_",
                           "VekmsgConnection_::sendMyName() can't allocate basicBuffer"};
    for (unsigned int number : {1U, 2U}) {
        afresh([&] {
            openOutgoing();
            {
                AllocationFailure_ failure(number);
                EXPECT_FALSE(m_sp_connection->start());
            }
            EXPECT_EQ(m_records.take(), (Records_{connectionRecord(3, kSendMyName, texts[number - 1])}));
            EXPECT_EQ(m_peer.readArrived(), "");
        });
    }
}

TEST_F(Connection, withoutMemoryForTheNameBlockATurnAndASendFail) {
    for (const bool isTurn : {true, false}) {
        afresh([&] {
            openOutgoing(Type_::INET_TCP);
            EXPECT_TRUE(m_sp_connection->start());
            awaitWritable(socket().descriptor());
            ASSERT_TRUE(socket().connecting());
            m_hasMessages = true;
            {
                AllocationFailure_ failure(1);
                EXPECT_FALSE(isTurn ? turn() : m_sp_connection->sendQueuedBuffers());
            }
            EXPECT_EQ(m_hasMessages, !isTurn);
            EXPECT_EQ(m_records.take(),
                      (Records_{connectionRecord(
                          3, kSendMyName, "VekmsgConnection_::sendMyName() Can't create basicBuffer_")}));
        });
    }
}

TEST_F(Connection, aBlockWaitsWhenItsNameFindsNoMemory) {
    afresh([&] {
        openOutgoing(Type_::INET_TCP);
        EXPECT_TRUE(m_sp_connection->start());
        awaitWritable(socket().descriptor());
        ASSERT_TRUE(socket().connecting());
        const SP_BasicBuffer_ sp_block = bufferOf(block(2, "x"));
        {
            AllocationFailure_ failure(2);  // the first is for the place in the queue
            EXPECT_FALSE(m_sp_connection->sendEncodedMessage(sp_block));
        }
        EXPECT_EQ(bytesOf(m_sp_connection->m_sendQueue), (std::vector<std::string>{block(2, "x")}));
        EXPECT_EQ(m_records.take(),
                  (Records_{connectionRecord(3, kSendMyName,
                                             "VekmsgConnection_::sendMyName() Can't create basicBuffer_")}));
    });
}

TEST_F(Connection, aSocketThatIsBusyCannotTakeTheName) {
    openOutgoing();
    blockWriting();

    EXPECT_TRUE(m_sp_connection->start());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(),
              (Records_{connectionRecord(
                  3, kSendMyName, "VekmsgConnection_::sendMyName() socket is too busy to send myName")}));
}

TEST_F(Connection, aWriteErrorUnderTheNameFailsTheConnection) {
    openOutgoing();
    m_calls.fail(SystemCalls_::Send, EPIPE);
    const std::string address = m_localListener.localAddress().realName();

    EXPECT_TRUE(m_sp_connection->start());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(
        m_records.take(),
        (Records_{socketRecord(7, kSend, "send(to " + address + ") failed with error(32): Broken pipe")}));
}

TEST_F(Connection, aNameThatIsWrittenInPiecesArrivesWhole) {
    openOutgoing();
    m_calls.shorten(SystemCalls_::Send, 1, 0, 9);
    EXPECT_TRUE(m_sp_connection->start());
    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "x"))));
    EXPECT_EQ(m_sp_connection->m_sendQueue.size(), 1U);

    for (int turns = 0; turns < 9; ++turns) EXPECT_TRUE(turn());

    EXPECT_EQ(m_peer.read(14), nameBlock("here") + block(2, "x"));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, withoutAReceiveBufferNothingIsArmed) {
    const char* texts[] = {"VekmsgConnection_::startReceiving() Can't create basicBuffer_",
                           "VekmsgConnection_::startReceiving() can't allocate basicBuffer"};
    for (unsigned int number : {1U, 2U}) {
        afresh([&] {
            openOutgoing();
            m_sp_connection->m_decodeOffset = 3;
            {
                AllocationFailure_ failure(number);
                EXPECT_FALSE(m_sp_connection->startReceiving(SP_BasicBuffer_(), 4,
                                                             Connection_::STATE_RECEIVING_HEADER));
            }
            EXPECT_EQ(m_records.take(), (Records_{connectionRecord(3, kStartReceiving, texts[number - 1])}));
            EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
            EXPECT_EQ(m_sp_connection->m_decodeOffset, 3U);
        });
    }
}

TEST_F(Connection, startFailsWhenTheReceiveAfterTheNameHasNoMemory) {
    inFreshThread([&] {
        openOutgoing();
        m_calls.fail(SystemCalls_::Send, EAGAIN);  // the name's buffer stays in use
        {
            AllocationFailure_ failure(3);
            EXPECT_FALSE(m_sp_connection->start());
        }
        EXPECT_EQ(m_records.take(),
                  (Records_{connectionRecord(
                      3, kStartReceiving, "VekmsgConnection_::startReceiving() Can't create basicBuffer_")}));
    });
}

TEST_F(Connection, aFailedOneArmsNoReceive) {
    openOutgoing();
    m_sp_connection->m_connectionState = Connection_::STATE_FAILED;
    m_sp_connection->m_decodeOffset = 3;

    EXPECT_TRUE(m_sp_connection->startReceiving(SP_BasicBuffer_(), 4, Connection_::STATE_RECEIVING_HEADER));

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_sp_connection->m_decodeOffset, 3U);
}

TEST_F(Connection, aReceiveCountsTheUndecodedBytesThatAreThere) {
    const struct {
        unsigned int m_offset;
        unsigned int m_size;
        std::string m_filled;
    } cases[] = {{2, 5, "..abcXY"}, {0, 6, "..abcX"}, {5, 2, "..abcXY"}};
    for (const auto& each : cases) {
        openOutgoing();
        const SP_BasicBuffer_ sp_buffer = bufferOf("..abc");
        m_sp_connection->m_decodeOffset = each.m_offset;

        EXPECT_TRUE(
            m_sp_connection->startReceiving(sp_buffer, each.m_size, Connection_::STATE_RECEIVING_PAYLOAD));

        EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_PAYLOAD);
        EXPECT_EQ(m_sp_connection->m_decodeOffset, each.m_offset);
        m_peer.write("XYZ");
        awaitBytes(socket().descriptor(), 3);
        SP_BasicBuffer_ sp_filled;
        EXPECT_TRUE(socket().check(sp_filled));
        EXPECT_EQ(bytesOf(sp_filled), each.m_filled);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, aReceiveThatIsWholeAlreadyAsksForNothing) {
    for (const unsigned int size : {3U, 2U, 0U}) {
        openOutgoing();
        m_sp_connection->m_decodeOffset = 2;

        EXPECT_TRUE(
            m_sp_connection->startReceiving(bufferOf("..abc"), size, Connection_::STATE_RECEIVING_HEADER));

        m_peer.write("XYZ");
        awaitBytes(socket().descriptor(), 3);
        SP_BasicBuffer_ sp_filled;
        EXPECT_TRUE(socket().check(sp_filled));
        EXPECT_FALSE(sp_filled);
        EXPECT_EQ(unreadBytes(socket().descriptor()), 3U);
    }
}

TEST_F(Connection, aReceiveThatDoesNotFitIsCutWithAWarning) {
    openOutgoing();

    EXPECT_TRUE(m_sp_connection->startReceiving(bufferOf("1234"), 9401, Connection_::STATE_RECEIVING_NAME));

    EXPECT_EQ(
        m_records.take(),
        (Records_{socketRecord(
            4, kReceive, "VekSocket_::receive() requested data size 9397 is greater than free space 9396")}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_NAME);
}

TEST_F(Connection, aBlockIsWrittenAtOnce) {
    for (const Type_ type : {Type_::LOCAL, Type_::INET_TCP}) {
        openNamed(type);

        EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "hello"))));

        EXPECT_EQ(m_peer.read(9), block(2, "hello"));
        EXPECT_EQ(sendQueue(), Texts_{});
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, anAcceptedOneSendsWithoutANameBlock) {
    openEstablished();

    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(block(2, "hello"))));

    EXPECT_EQ(m_peer.read(9), block(2, "hello"));
}

TEST_F(Connection, blocksWaitInOrderWhileTheSocketIsBusy) {
    openNamed();
    blockWriting();

    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("one")));
    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("two")));

    EXPECT_EQ(sendQueue(), (Texts_{"one", "two"}));
    EXPECT_TRUE(turn());
    EXPECT_EQ(m_peer.read(14), "pending onetwo");
    EXPECT_EQ(sendQueue(), Texts_{});
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, aBlockDoesNotOvertakeThoseThatWaitThoughTheSocketIsFree) {
    const SP_BareConnection_ sp_other(new (std::nothrow) BareConnection_);
    sp_other->m_sendQueue.push_back(bufferOf("one"));
    sp_other->m_sendQueue.push_back(bufferOf("two"));
    openNamed();
    ASSERT_TRUE(m_sp_connection->mergeQueues(sp_other.get()));

    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("three")));

    EXPECT_EQ(sendQueue(), Texts_{});
    EXPECT_EQ(m_peer.readArrived(), "onetwothree");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, theBlockThatFindsTheSocketBusyStaysFirst) {
    openNamed();
    m_sp_connection->m_sendQueue.push_back(bufferOf("one"));
    m_sp_connection->m_sendQueue.push_back(bufferOf("two"));
    m_sp_connection->m_sendQueue.push_back(bufferOf("three"));
    m_calls.fail(SystemCalls_::Send, EAGAIN);  // "one" is taken over, and pending

    EXPECT_TRUE(m_sp_connection->sendQueuedBuffers());

    EXPECT_EQ(sendQueue(), (Texts_{"two", "three"}));
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_RECEIVING_HEADER);
    EXPECT_TRUE(turn());
    EXPECT_EQ(m_peer.read(11), "onetwothree");
}

TEST_F(Connection, aFailedOneWritesNothing) {
    openNamed();
    m_sp_connection->m_sendQueue.push_back(bufferOf("one"));
    m_sp_connection->m_connectionState = Connection_::STATE_FAILED;
    const unsigned int before = m_calls.count(SystemCalls_::Send);

    EXPECT_TRUE(m_sp_connection->sendQueuedBuffers());

    EXPECT_EQ(m_calls.count(SystemCalls_::Send), before);
    EXPECT_EQ(sendQueue(), Texts_{"one"});
}

TEST_F(Connection, aBlockThatCannotBeWrittenStaysQueuedAndFailsTheConnection) {
    openNamed();
    m_sp_connection->m_sendQueue.push_back(bufferOf("one"));
    m_calls.fail(SystemCalls_::Send, EPIPE);
    const std::string address = m_localListener.localAddress().realName();

    EXPECT_TRUE(m_sp_connection->sendQueuedBuffers());

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(sendQueue(), Texts_{"one"});
    EXPECT_EQ(
        m_records.take(),
        (Records_{socketRecord(7, kSend, "send(to " + address + ") failed with error(32): Broken pipe")}));
}

TEST_F(Connection, anEmptyBlockIsTakenOffTheQueueWithTheSocketsWarning) {
    openNamed();

    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("")));

    EXPECT_EQ(sendQueue(), Texts_{});
    EXPECT_EQ(m_records.take(), (Records_{socketRecord(4, kSend, "VekSocket_::send() nothing to send")}));
}

TEST_F(Connection, withoutASocketBlocksOnlyQueue) {
    EXPECT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("one")));

    EXPECT_EQ(sendQueue(), Texts_{"one"});
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, aBlockThatIsWrittenAtOnceNeedsNoPlaceInTheQueue) {
    inFreshThread([&] {
        openNamed();
        const SP_BasicBuffer_ sp_block = bufferOf("one");
        const AllocationFailure_ failure(1);

        EXPECT_TRUE(m_sp_connection->sendEncodedMessage(sp_block));
    });
    EXPECT_TRUE(m_sp_connection->m_sendQueue.empty());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, withoutMemoryForAPlaceInTheQueueItFails) {
    inFreshThread([&] {
        openNamed();
        m_sp_connection->m_connectionState = Connection_::STATE_SENDING_NAME;  // what is sent has to wait
        const SP_BasicBuffer_ sp_block = bufferOf("one");
        const AllocationFailure_ failure(1);

        EXPECT_THROW(m_sp_connection->sendEncodedMessage(sp_block), std::bad_alloc);
    });
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, withoutMemoryToPutABlockBackItFails) {
    inFreshThread([&] {
        openNamed();
        const SP_BasicBuffer_ sp_block = bufferOf("one");
        const AllocationFailure_ failure(1);

        EXPECT_THROW(m_sp_connection->putBackReceived(sp_block), std::bad_alloc);
    });
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
}

TEST_F(Connection, cannotTakeATurnWithoutASocket) {
    m_hasMessages = true;

    EXPECT_FALSE(turn());

    EXPECT_FALSE(m_hasMessages);
    EXPECT_EQ(m_records.take(),
              (Records_{connectionRecord(
                  3, kProcess, "VekmsgConnection_::processPollEvents() Can't process without a socket")}));
}

TEST_F(Connection, stoppingClosesTheSocketAndKeepsTheRest) {
    openEstablished();
    m_sp_connection->m_receivedBuffers.push_back(bufferOf("received"));
    m_sp_connection->m_sendQueue.push_back(bufferOf("sent"));
    m_sp_connection->m_sp_wholeUnit = bufferOf("unit");
    const SP_VekSocket_ sp_socket = m_sp_connection->m_sp_socket;

    m_sp_connection->stop();

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
    EXPECT_EQ(m_sp_connection->m_sp_socket, sp_socket);
    EXPECT_EQ(sp_socket->state(), VekSocket_::IDLE);
    EXPECT_EQ(sp_socket->descriptor(), -1);
    EXPECT_TRUE(m_sp_connection->getMyName());
    EXPECT_TRUE(m_sp_connection->getPeerName());
    EXPECT_EQ(received(), Texts_{"received"});
    EXPECT_EQ(sendQueue(), Texts_{"sent"});
    EXPECT_FALSE(m_sp_connection->m_sp_wholeUnit);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, stoppingWithoutASocketIsHarmless) {
    m_sp_connection->m_connectionState = Connection_::STATE_FAILED;

    m_sp_connection->stop();

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_IDLE);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, nothingIsPolledWithoutASocketOrWhenIdleOrFailed) {
    EXPECT_EQ(polledEvents(), 0);
    openEstablished();
    for (const auto state : {Connection_::STATE_IDLE, Connection_::STATE_FAILED}) {
        m_sp_connection->m_connectionState = state;
        EXPECT_EQ(polledEvents(), 0);
        EXPECT_EQ(m_sp_connection->state(), state);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Connection, aConnectUnderWayIsPolledForWritingAlone) {
    openOutgoing(Type_::INET_TCP);
    EXPECT_TRUE(m_sp_connection->start());

    EXPECT_EQ(polledEvents(), POLLOUT | POLLERR | POLLHUP | POLLNVAL);
}

TEST_F(Connection, writingIsPolledOnlyWhileThereIsWorkForIt) {
    openEstablished();
    EXPECT_EQ(polledEvents(), kReading);

    m_sp_connection->m_sendQueue.push_back(bufferOf("block"));
    EXPECT_EQ(polledEvents(), kReading | POLLOUT);
    m_sp_connection->m_sendQueue.clear();

    m_sp_connection->m_sp_wholeUnit = bufferOf("unit");
    EXPECT_EQ(polledEvents(), kReading | POLLOUT);
    m_sp_connection->m_sp_wholeUnit.reset();

    blockWriting();
    EXPECT_EQ(polledEvents(), kReading | POLLOUT);
}

TEST_F(Connection, aSocketThatCannotBePolledFailsTheConnection) {
    openEstablished();
    socket().cleanUp();

    EXPECT_EQ(polledEvents(), 0);

    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(3, kFillPollFd,
                                     "VekSocket_::fillPollFd() failed because of the wrong state 0")}));
}

TEST_F(Connection, aPollWithoutAnEntryFailsTheConnection) {
    openEstablished();
    pollfd entry = {};
    pollfd* p_next = &entry;

    EXPECT_TRUE(m_sp_connection->fillPollFd(nullptr, p_next));

    EXPECT_EQ(p_next, nullptr);
    EXPECT_EQ(m_sp_connection->state(), Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(3, kFillPollFd, "VekSocket_::fillPollFd() null p_pollFd")}));
}

TEST_F(Connection, usabilityFollowsTheState) {
    openEstablished();
    for (unsigned int number = 0; number <= 7; ++number) {
        const auto state = static_cast<Connection_::ConnectionState_>(number);
        m_sp_connection->m_connectionState = state;
        const bool isReceiving =
            state == Connection_::STATE_RECEIVING_HEADER || state == Connection_::STATE_RECEIVING_PAYLOAD;

        EXPECT_EQ(m_sp_connection->isFunctional(), isReceiving) << number;
        EXPECT_EQ(m_sp_connection->isConnected(), isReceiving) << number;
        EXPECT_EQ(m_sp_connection->isStarting(), state == Connection_::STATE_SENDING_NAME) << number;
    }
}

TEST_F(Connection, usabilityNeedsSocketNamesAndBudget) {
    const struct {
        void (*m_change)(BareConnection_&);
        bool m_isUsable;
    } cases[] = {
        {[](BareConnection_&) {}, true},
        {[](BareConnection_& connection) { connection.m_sp_socket.reset(); }, false},
        {[](BareConnection_& connection) { connection.m_sp_myName.reset(); }, false},
        {[](BareConnection_& connection) { connection.m_sp_myName = emptyHolder(); }, false},
        {[](BareConnection_& connection) { connection.m_sp_peerName.reset(); }, false},
        {[](BareConnection_& connection) { connection.m_sp_peerName = emptyHolder(); }, false},
        {[](BareConnection_& connection) { connection.m_sp_peerName = nameOf(""); }, true},
        {[](BareConnection_& connection) { connection.m_failureCount = 1; }, true},
        {[](BareConnection_& connection) { connection.m_failureCount = 2; }, false},
    };
    for (const auto& each : cases) {
        openEstablished();
        each.m_change(*m_sp_connection);

        EXPECT_EQ(m_sp_connection->isFunctional(), each.m_isUsable) << &each - cases;
        EXPECT_EQ(m_sp_connection->isConnected(), each.m_isUsable) << &each - cases;
        m_sp_connection->m_connectionState = Connection_::STATE_SENDING_NAME;
        EXPECT_EQ(m_sp_connection->isStarting(), each.m_isUsable) << &each - cases;
    }
}

TEST_F(Connection, isConnectedAsksTheSocketToo) {
    openEstablished();
    socket().cleanUp();

    EXPECT_TRUE(m_sp_connection->isFunctional());
    EXPECT_FALSE(m_sp_connection->isConnected());
}

TEST_F(Connection, theOrderIsThatOfThePeersNames) {
    const char* names[] = {nullptr, "", "a", "aa", "ab", "b", "\x7F", "\x80", "\xFF"};
    const unsigned int count = sizeof(names) / sizeof(names[0]);
    for (unsigned int a = 0; a < count; ++a) {
        for (unsigned int b = 0; b < count; ++b) {
            BareConnection_ one;
            BareConnection_ two;
            one.setPeerName(names[a] != nullptr ? nameOf(names[a]) : SP_Utf8String_());
            two.setPeerName(names[b] != nullptr ? nameOf(names[b]) : SP_Utf8String_());

            EXPECT_EQ(one.isLess(&two), a < b) << a << ' ' << b;
            if (names[b] == nullptr) continue;
            EXPECT_EQ(one.hasPeer(nameOf(names[b])->c_str()), a == b) << a << ' ' << b;
        }
    }
    EXPECT_FALSE(m_sp_connection->isLess(nullptr));
    m_sp_connection->setPeerName(nameOf("a"));
    EXPECT_FALSE(m_sp_connection->isLess(nullptr));
}

TEST_F(Connection, anyNumberOfBlocksWaitsToBeSent) {
    openOutgoing(Type_::INET_TCP);
    EXPECT_TRUE(m_sp_connection->start());
    m_calls.fail(SystemCalls_::Getpeername, ENOTCONN, 0, 1);
    const SP_BasicBuffer_ sp_block = bufferOf(block(2, "x"));

    for (unsigned int number = 0; number < 10000; ++number)
        EXPECT_TRUE(m_sp_connection->sendEncodedMessage(sp_block));

    EXPECT_EQ(m_sp_connection->m_sendQueue.size(), 10000U);
    EXPECT_EQ(m_records.take(), Records_{});
}
