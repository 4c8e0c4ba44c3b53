#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>

#include "support/allocation_failure.h"
#include "transport/streams.h"

namespace {

using Type_ = VekSocketAddress_::AddressType_;

constexpr char kSend[] = "VekSocket_::SendResult_ VekSocket_::send(SP_BasicBuffer_)";
constexpr char kReceive[] = "bool VekSocket_::receive(unsigned int, SP_BasicBuffer_)";
constexpr char kCheck[] = "bool VekSocket_::check()";
constexpr char kCheckRead[] = "bool VekSocket_::check(BasicBuffer_&, SP_BasicBuffer_&)";
constexpr char kCheckWrite[] = "bool VekSocket_::check(BasicBuffer_&)";

/// Both transports behave alike.
class VekSocketIo : public testing::TestWithParam<Type_> {
protected:
    VekSocketIo() : m_streams(GetParam()), m_client(m_streams.m_client), m_server(*m_streams.m_sp_server) {}

    /// A check of the client, which has a receive armed that nobody serves.
    bool checkClient() {
        SP_BasicBuffer_ sp_complete(emptyBuffer(1));
        const bool result = m_client.check(sp_complete);
        EXPECT_TRUE(sp_complete.isNull());
        return result;
    }

    void armClient() { EXPECT_TRUE(m_client.receive(1, emptyBuffer(1))); }

    /// The client has a buffer of which nothing could be written.
    void holdBack(const SP_BasicBuffer_& sp_buffer) {
        m_calls.fail(SystemCalls_::Send, EAGAIN);
        EXPECT_EQ(m_client.send(sp_buffer), VekSocket_::SEND_OK);
        EXPECT_TRUE(m_client.isSendDataPending());
    }

    static void waitForBytes(const VekSocket_& socket) {
        pollfd entry = {socket.descriptor(), POLLIN, 0};
        EXPECT_EQ(::poll(&entry, 1, 10000), 1);
    }

    /// The system takes few bytes of the client at a time from now on.
    void narrow() {
        const int size = 4096;
        EXPECT_EQ(::setsockopt(m_client.descriptor(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
    }

    unsigned int sends() const { return m_calls.count(SystemCalls_::Send); }
    unsigned int receives() const { return m_calls.count(SystemCalls_::Recv); }

    Streams_ m_streams;
    SystemCalls_ m_calls;
    RecordCapture_ m_records;
    VekSocket_& m_client;
    VekSocket_& m_server;
};

using VekSocketState = SocketTest_;

}  // namespace

INSTANTIATE_TEST_SUITE_P(Transports, VekSocketIo, testing::Values(Type_::LOCAL, Type_::INET_TCP),
                         [](const auto& info) { return info.param == Type_::LOCAL ? "local" : "tcp"; });

TEST_P(VekSocketIo, aSmallBufferIsWrittenAtOnce) {
    EXPECT_EQ(m_client.send(bufferWith("hello")), VekSocket_::SEND_OK);

    EXPECT_FALSE(m_client.isSendDataPending());
    EXPECT_EQ(sends(), 1U);
    EXPECT_EQ(receiveText(m_server, 5), "hello");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, onlyTheDataAreaIsWritten) {
    SP_BasicBuffer_ sp_buffer = bufferWith("headDATAtrail");
    sp_buffer->setDataArea(4, 4);

    EXPECT_EQ(m_client.send(sp_buffer), VekSocket_::SEND_OK);

    EXPECT_EQ(receiveText(m_server, 4), "DATA");
    EXPECT_EQ(textOf(sp_buffer), "DATA");
}

TEST_P(VekSocketIo, aNullBufferCannotBeSent) {
    EXPECT_EQ(m_client.send(SP_BasicBuffer_()), VekSocket_::SEND_FAILED);

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kSend, "VekSocket_::send() null sp_buffer")});
}

TEST_P(VekSocketIo, anEmptyBufferIsTakenAndNothingHeld) {
    EXPECT_EQ(m_client.send(emptyBuffer(10)), VekSocket_::SEND_OK);

    EXPECT_EQ(m_records.take(), Records_{socketRecord(4, kSend, "VekSocket_::send() nothing to send")});
    EXPECT_FALSE(m_client.isSendDataPending());
    EXPECT_EQ(sends(), 0U);
    EXPECT_EQ(m_client.send(bufferWith("next")), VekSocket_::SEND_OK);
}

TEST_P(VekSocketIo, anyFirstPartCanBeWrittenAndTheRestFollows) {
    const std::string text = "0123456789";
    for (unsigned int part = 1; part <= 10; ++part) {
        m_calls.shorten(SystemCalls_::Send, part);

        EXPECT_EQ(m_client.send(bufferWith(text)), VekSocket_::SEND_OK);

        EXPECT_EQ(m_client.isSendDataPending(), part < 10);
        if (part < 10) {
            EXPECT_EQ(m_client.send(bufferWith("other")), VekSocket_::SEND_BUSY);
        }
        m_client.receive(1, emptyBuffer(1));
        EXPECT_TRUE(checkClient());
        EXPECT_FALSE(m_client.isSendDataPending());
        EXPECT_EQ(receiveText(m_server, 10), text);
        EXPECT_EQ(m_client.send(bufferWith("x")), VekSocket_::SEND_OK);
        EXPECT_EQ(receiveText(m_server, 1), "x");
    }
}

TEST_P(VekSocketIo, aBufferCanBeWrittenByteByByte) {
    const std::string text = "one byte at a time";
    const auto length = static_cast<unsigned int>(text.size());
    armClient();
    m_calls.shorten(SystemCalls_::Send, 1, 0, length);
    EXPECT_EQ(m_client.send(bufferWith(text)), VekSocket_::SEND_OK);

    for (unsigned int written = 1; written < length; ++written) {
        EXPECT_TRUE(m_client.isSendDataPending());
        EXPECT_TRUE(checkClient());
    }

    EXPECT_FALSE(m_client.isSendDataPending());
    EXPECT_EQ(sends(), length);
    EXPECT_EQ(receiveText(m_server, length), text);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aTransientErrorLeavesTheWholeBufferPending) {
    armClient();
    for (const int error : {EINTR, EAGAIN}) {
        m_calls.fail(SystemCalls_::Send, error);

        EXPECT_EQ(m_client.send(bufferWith("hello")), VekSocket_::SEND_OK);

        EXPECT_TRUE(m_client.isSendDataPending());
        EXPECT_TRUE(checkClient());
        EXPECT_FALSE(m_client.isSendDataPending());
        EXPECT_EQ(receiveText(m_server, 5), "hello");
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aWriteErrorIsADebugRecordAndTheBufferStays) {
    armClient();
    m_calls.fail(SystemCalls_::Send, ECONNRESET);

    EXPECT_EQ(m_client.send(bufferWith("hello")), VekSocket_::SEND_FAILED);

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(
                  7, kSend, "send(to " + m_streams.m_address + ") failed with " + errorText(ECONNRESET))});
    EXPECT_TRUE(m_client.isSendDataPending());
    EXPECT_EQ(m_client.send(bufferWith("other")), VekSocket_::SEND_BUSY);
    EXPECT_TRUE(checkClient());
    EXPECT_FALSE(m_client.isSendDataPending());
    EXPECT_EQ(receiveText(m_server, 5), "hello");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, nothingWrittenMeansAClosedSocket) {
    m_calls.answer(SystemCalls_::Send, 0);

    EXPECT_EQ(m_client.send(bufferWith("hello")), VekSocket_::SEND_FAILED);

    EXPECT_EQ(
        m_records.take(),
        Records_{socketRecord(4, kSend, "send(to " + m_streams.m_address + ") failed due to closed socket")});
    EXPECT_TRUE(m_client.isSendDataPending());
    EXPECT_EQ(m_client.send(bufferWith("other")), VekSocket_::SEND_BUSY);
}

TEST_P(VekSocketIo, withoutAClockNothingIsWrittenAndTheBufferStays) {
    m_calls.fail(SystemCalls_::ClockGettime, EINVAL);

    EXPECT_EQ(m_client.send(bufferWith("hello")), VekSocket_::SEND_FAILED);

    EXPECT_EQ(sends(), 0U);
    EXPECT_TRUE(m_client.isSendDataPending());
    EXPECT_EQ(m_client.send(bufferWith("other")), VekSocket_::SEND_BUSY);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, writingToAPeerThatWentEndsNoProcess) {
    m_server.cleanUp();
    VekSocket_::SendResult_ result = VekSocket_::SEND_OK;

    EXPECT_TRUE(
        eventually([&] { return (result = m_client.send(bufferWith("hello"))) == VekSocket_::SEND_FAILED; }));

    const Records_ records = m_records.take();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_TRUE(records[0].m_text == "send(to " + m_streams.m_address + ") failed with " + errorText(EPIPE) ||
                records[0].m_text ==
                    "send(to " + m_streams.m_address + ") failed with " + errorText(ECONNRESET))
        << records[0].m_text;
}

TEST_P(VekSocketIo, aCheckWithoutAnArmedReceiveWritesNothing) {
    holdBack(bufferWith("hello"));
    const unsigned int before = sends();

    EXPECT_TRUE(checkClient());

    EXPECT_EQ(sends(), before);
    EXPECT_EQ(receives(), 0U);
    EXPECT_TRUE(m_client.isSendDataPending());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aCheckWritesOnceAndReadsOnce) {
    armClient();
    holdBack(bufferWith("hello"));
    m_calls.shorten(SystemCalls_::Send, 2);
    const unsigned int before = sends();

    EXPECT_TRUE(checkClient());

    EXPECT_EQ(sends(), before + 1);
    EXPECT_EQ(receives(), 1U);
    EXPECT_TRUE(m_client.isSendDataPending());
}

TEST_P(VekSocketIo, aTransientErrorWhileWritingTheRestIsNoFailure) {
    armClient();
    holdBack(bufferWith("hello"));
    for (const int error : {EINTR, EAGAIN}) {
        m_calls.fail(SystemCalls_::Send, error);
        EXPECT_TRUE(checkClient());
        EXPECT_TRUE(m_client.isSendDataPending());
    }
    m_calls.answer(SystemCalls_::Send, 0);
    EXPECT_TRUE(checkClient());
    EXPECT_TRUE(m_client.isSendDataPending());

    EXPECT_TRUE(checkClient());

    EXPECT_FALSE(m_client.isSendDataPending());
    EXPECT_EQ(receiveText(m_server, 5), "hello");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, anErrorWhileWritingTheRestIsAnError) {
    armClient();
    holdBack(bufferWith("hello"));
    m_calls.fail(SystemCalls_::Send, EPIPE);

    EXPECT_FALSE(checkClient());

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kCheckWrite,
                                                      "VekSocket_::send(" + m_streams.m_address +
                                                          ") failed with " + errorText(EPIPE))});
    EXPECT_TRUE(m_client.isSendDataPending());
    EXPECT_TRUE(m_client.isConnected());
}

TEST_P(VekSocketIo, aBufferThatCannotBeWrittenFailsAfterEightSeconds) {
    armClient();
    holdBack(bufferWith("hello"));
    m_calls.shorten(SystemCalls_::Send, 2);
    EXPECT_TRUE(checkClient());
    m_calls.fail(SystemCalls_::Send, EAGAIN, 0, 2);
    m_calls.advanceClock(7);
    EXPECT_TRUE(checkClient());
    EXPECT_EQ(m_client.send(bufferWith("other")), VekSocket_::SEND_BUSY);
    EXPECT_EQ(m_records.take(), Records_{});

    m_calls.advanceClock(1);
    EXPECT_FALSE(checkClient());

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kCheckWrite,
                                                      "Attempt to send 3 bytes to " + m_streams.m_address +
                                                          " timed out after 8 seconds")});
    EXPECT_TRUE(m_client.isConnected());
}

TEST_P(VekSocketIo, progressDoesNotExtendTheLimit) {
    armClient();
    holdBack(bufferWith("hello"));
    m_calls.advanceClock(9);
    m_calls.shorten(SystemCalls_::Send, 4);

    EXPECT_FALSE(checkClient());

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kCheckWrite,
                                                      "Attempt to send 1 bytes to " + m_streams.m_address +
                                                          " timed out after 9 seconds")});
}

TEST_P(VekSocketIo, theRestMayBeWrittenHoweverLate) {
    armClient();
    holdBack(bufferWith("hello"));
    m_calls.advanceClock(100);

    EXPECT_TRUE(checkClient());

    EXPECT_FALSE(m_client.isSendDataPending());
    EXPECT_EQ(receiveText(m_server, 5), "hello");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, eachBufferHasALimitOfItsOwn) {
    armClient();
    m_calls.advanceClock(100);
    holdBack(bufferWith("hello"));
    m_calls.fail(SystemCalls_::Send, EAGAIN);

    EXPECT_TRUE(checkClient());

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, withoutAClockAnIncompleteWriteFails) {
    armClient();
    holdBack(bufferWith("hello"));
    m_calls.fail(SystemCalls_::Send, EAGAIN);
    m_calls.fail(SystemCalls_::ClockGettime, EINVAL);

    EXPECT_FALSE(checkClient());

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_TRUE(m_client.isSendDataPending());
}

TEST_P(VekSocketIo, aBufferThatShrinksWhilePendingIsAWarning) {
    armClient();
    SP_BasicBuffer_ sp_shared = bufferWith("hello");
    holdBack(sp_shared);
    sp_shared->extendDataIntoTrailer(-2);

    EXPECT_TRUE(checkClient());

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(4, kCheckWrite,
                                    "VekSocket_::check() m_dataToBeSent=5 is greater than dataLength()=3")});
    EXPECT_FALSE(m_client.isSendDataPending());
    EXPECT_EQ(receiveText(m_server, 3), "hel");
}

TEST_P(VekSocketIo, aBufferThatIsEmptiedWhilePendingIsDropped) {
    armClient();
    SP_BasicBuffer_ sp_shared = bufferWith("hello");
    holdBack(sp_shared);
    sp_shared->setDataArea(0, 0);

    EXPECT_TRUE(checkClient());

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(4, kCheckWrite,
                                    "VekSocket_::check() m_dataToBeSent=5 is greater than dataLength()=0")});
    EXPECT_EQ(m_client.send(bufferWith("next")), VekSocket_::SEND_OK);
    EXPECT_EQ(receiveText(m_server, 4), "next");
}

TEST_P(VekSocketIo, aBufferThatIsEmptiedAndNotTakenIsDroppedByTheNextCheck) {
    armClient();
    SP_BasicBuffer_ sp_shared = bufferWith("hello");
    holdBack(sp_shared);
    sp_shared->setDataArea(0, 0);
    m_calls.fail(SystemCalls_::Send, EAGAIN);
    EXPECT_TRUE(checkClient());
    EXPECT_EQ(m_client.send(bufferWith("next")), VekSocket_::SEND_BUSY);
    const unsigned int before = sends();
    m_records.take();

    EXPECT_TRUE(checkClient());

    EXPECT_EQ(sends(), before);
    EXPECT_EQ(m_client.send(bufferWith("next")), VekSocket_::SEND_OK);
    EXPECT_EQ(receiveText(m_server, 4), "next");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aReceiveIsCompleteWhenAllItsBytesAreThere) {
    const SP_BasicBuffer_ sp_buffer = emptyBuffer(10);
    SP_BasicBuffer_ sp_complete;
    EXPECT_TRUE(m_server.receive(6, sp_buffer));
    m_client.send(bufferWith("abc"));
    EXPECT_TRUE(eventually([&] { return m_server.check(sp_complete) && sp_buffer->dataLength() == 3; }));
    EXPECT_TRUE(sp_complete.isNull());
    m_client.send(bufferWith("defghi"));

    EXPECT_EQ(receiveAll(m_server), "abcdef");

    EXPECT_EQ(textOf(sp_buffer), "abcdef");
    EXPECT_EQ(receiveText(m_server, 3), "ghi");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, receivedBytesStandBehindTheDataOfTheBuffer) {
    EXPECT_TRUE(m_server.receive(3, bufferWith("old", 3)));
    m_client.send(bufferWith("new"));

    EXPECT_EQ(receiveAll(m_server), "oldnew");
}

TEST_P(VekSocketIo, aReceiveCanBeServedByteByByte) {
    m_client.send(bufferWith("hello"));
    m_calls.shorten(SystemCalls_::Recv, 1, 0, 100);

    EXPECT_EQ(receiveText(m_server, 5), "hello");

    EXPECT_GE(receives(), 5U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aCompleteReceiveMustBeArmedAgain) {
    EXPECT_TRUE(m_server.receive(1, emptyBuffer(1)));
    m_client.send(bufferWith("ab"));
    EXPECT_EQ(receiveAll(m_server), "a");
    const unsigned int before = receives();
    SP_BasicBuffer_ sp_complete(emptyBuffer(1));

    EXPECT_TRUE(m_server.check(sp_complete));

    EXPECT_TRUE(sp_complete.isNull());
    EXPECT_EQ(receives(), before);
}

TEST_P(VekSocketIo, aNullBufferCannotBeReceivedInto) {
    EXPECT_FALSE(m_server.receive(5, SP_BasicBuffer_()));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kReceive, "VekSocket_::receive() null sp_buffer")});
}

TEST_P(VekSocketIo, aRefusedReceiveLeavesTheArmedOneAlone) {
    EXPECT_TRUE(m_server.receive(5, emptyBuffer(5)));
    EXPECT_FALSE(m_server.receive(5, SP_BasicBuffer_()));
    m_client.send(bufferWith("hello"));

    EXPECT_EQ(receiveAll(m_server), "hello");
}

TEST_P(VekSocketIo, aSecondReceiveDiscardsTheFirst) {
    const SP_BasicBuffer_ sp_first = emptyBuffer(5);
    SP_BasicBuffer_ sp_complete;
    EXPECT_TRUE(m_server.receive(5, sp_first));
    m_client.send(bufferWith("ab"));
    EXPECT_TRUE(eventually([&] { return m_server.check(sp_complete) && sp_first->dataLength() == 2; }));

    EXPECT_TRUE(m_server.receive(2, emptyBuffer(2)));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(4, kReceive, "VekSocket_::receive() discard pending receive buffer")});
    m_client.send(bufferWith("cd"));
    EXPECT_EQ(receiveAll(m_server), "cd");
    EXPECT_EQ(textOf(sp_first), "ab");
}

TEST_P(VekSocketIo, aReceiveIsCutToTheFreeSpace) {
    EXPECT_TRUE(m_server.receive(100, emptyBuffer(40)));

    EXPECT_EQ(
        m_records.take(),
        Records_{socketRecord(
            4, kReceive, "VekSocket_::receive() requested data size 100 is greater than free space 40")});
    m_client.send(bufferWith(std::string(41, 'x')));
    EXPECT_EQ(receiveAll(m_server), std::string(40, 'x'));
    EXPECT_EQ(receiveText(m_server, 1), "x");
}

TEST_P(VekSocketIo, aReceiveMayTakeExactlyTheFreeSpace) {
    EXPECT_TRUE(m_server.receive(40, bufferWith("before", 40)));

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aReceiveOfNothingArmsNothing) {
    SP_BasicBuffer_ sp_complete(emptyBuffer(1));
    m_client.send(bufferWith("hello"));

    EXPECT_TRUE(m_server.receive(0, emptyBuffer(10)));

    EXPECT_TRUE(m_server.check(sp_complete));
    EXPECT_TRUE(sp_complete.isNull());
    EXPECT_EQ(receives(), 0U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aHeldBufferIsDiscardedBeforeTheNextOneIsMeasured) {
    EXPECT_TRUE(m_server.receive(0, emptyBuffer(10)));  // held, though nothing is wanted of it

    EXPECT_TRUE(m_server.receive(5, emptyBuffer(4)));

    EXPECT_EQ(
        m_records.take(),
        (Records_{socketRecord(4, kReceive, "VekSocket_::receive() discard pending receive buffer"),
                  socketRecord(4, kReceive,
                               "VekSocket_::receive() requested data size 5 is greater than free space 4")}));
}

TEST_P(VekSocketIo, aReceiveIntoAFullBufferArmsNothing) {
    SP_BasicBuffer_ sp_complete;

    EXPECT_TRUE(m_server.receive(1, bufferWith("full")));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(
                  4, kReceive, "VekSocket_::receive() requested data size 1 is greater than free space 0")});
    EXPECT_TRUE(m_server.check(sp_complete));
    EXPECT_EQ(receives(), 0U);
}

TEST_P(VekSocketIo, aTransientErrorWhileReadingIsNoFailure) {
    SP_BasicBuffer_ sp_complete;
    EXPECT_TRUE(m_server.receive(5, emptyBuffer(5)));
    m_client.send(bufferWith("hello"));
    for (const int error : {EINTR, EAGAIN}) {
        m_calls.fail(SystemCalls_::Recv, error);
        EXPECT_TRUE(m_server.check(sp_complete));
        EXPECT_TRUE(sp_complete.isNull());
    }

    EXPECT_EQ(receiveAll(m_server), "hello");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aReadErrorIsADebugRecord) {
    armClient();
    m_calls.fail(SystemCalls_::Recv, ECONNRESET);

    EXPECT_FALSE(checkClient());

    EXPECT_EQ(m_records.take(), Records_{socketRecord(7, kCheckRead,
                                                      "VekSocket_::check() recv(" + m_streams.m_address +
                                                          ") failed with " + errorText(ECONNRESET))});
    EXPECT_TRUE(m_client.isConnected());
    EXPECT_TRUE(isOpen(m_client.descriptor()));
}

TEST_P(VekSocketIo, aPeerThatClosesEndsTheDescriptorWithoutARecord) {
    armClient();
    const int descriptor = m_client.descriptor();
    m_server.cleanUp();

    EXPECT_TRUE(eventually([&] { return !checkClient(); }));

    EXPECT_EQ(m_client.descriptor(), -1);
    EXPECT_FALSE(isOpen(descriptor));
    EXPECT_EQ(m_client.state(), VekSocket_::CONNECTED);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aStreamWithoutDescriptorStaysUnusable) {
    armClient();
    m_server.cleanUp();
    EXPECT_TRUE(eventually([&] { return !checkClient(); }));

    EXPECT_FALSE(checkClient());
    EXPECT_EQ(m_client.send(bufferWith("hello")), VekSocket_::SEND_FAILED);

    EXPECT_EQ(
        m_records.take(),
        (Records_{
            socketRecord(
                7, kCheckRead,
                "VekSocket_::check() recv(" + m_streams.m_address + ") failed with " + errorText(EBADF)),
            socketRecord(7, kSend, "send(to " + m_streams.m_address + ") failed with " + errorText(EBADF))}));
}

TEST_P(VekSocketIo, whatCameBeforeThePeerClosedIsReadFirst) {
    m_client.send(bufferWith("last words"));
    m_client.cleanUp();

    EXPECT_EQ(receiveText(m_server, 10), "last words");
    EXPECT_EQ(receiveText(m_server, 1), "(null)");
    EXPECT_EQ(m_server.descriptor(), -1);
}

TEST_P(VekSocketIo, aPeerThatClosesInsideAReceiveLeavesWhatCame) {
    const SP_BasicBuffer_ sp_buffer = emptyBuffer(10);
    EXPECT_TRUE(m_server.receive(10, sp_buffer));
    m_client.send(bufferWith("half"));
    m_client.cleanUp();

    EXPECT_EQ(receiveAll(m_server), "(null)");

    EXPECT_EQ(textOf(sp_buffer), "half");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, anArmedBufferMayLoseRoomWithoutARecord) {
    const SP_BasicBuffer_ sp_shared = emptyBuffer(10);
    EXPECT_TRUE(m_server.receive(10, sp_shared));
    std::memcpy(sp_shared->storage(), "own", 3);
    sp_shared->setDataArea(0, 3);
    m_client.send(bufferWith("0123456789"));

    EXPECT_EQ(receiveAll(m_server), "own0123456");

    EXPECT_EQ(receiveText(m_server, 3), "789");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_P(VekSocketIo, aCompleteReceiveIsGivenEvenWhenTheWriteFails) {
    EXPECT_TRUE(m_client.receive(2, emptyBuffer(2)));
    holdBack(bufferWith("hello"));
    m_server.send(bufferWith("ab"));
    waitForBytes(m_client);
    m_calls.fail(SystemCalls_::Send, EPIPE);
    SP_BasicBuffer_ sp_complete;

    EXPECT_FALSE(m_client.check(sp_complete));

    EXPECT_EQ(textOf(sp_complete), "ab");
    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kCheckWrite,
                                                      "VekSocket_::send(" + m_streams.m_address +
                                                          ") failed with " + errorText(EPIPE))});
}

TEST_P(VekSocketIo, steadyTrafficAsksForNoMemory) {
    const SP_BasicBuffer_ sp_outgoing = bufferWith("hello");
    const SP_BasicBuffer_ sp_incoming = emptyBuffer(5);
    SP_BasicBuffer_ sp_complete;
    const unsigned long before = allocationCount();
    for (int round = 0; round < 100; ++round) {
        sp_incoming->setDataArea(0, 0);
        m_client.send(sp_outgoing);
        m_server.receive(5, sp_incoming);
        waitForBytes(m_server);
        ASSERT_TRUE(m_server.check(sp_complete));
        ASSERT_FALSE(sp_complete.isNull());
    }

    EXPECT_EQ(allocationCount(), before);
    EXPECT_EQ(sends(), 100U);
    EXPECT_EQ(receives(), 100U);
}

TEST_P(VekSocketIo, manyBytesArriveWholeAndInOrderThroughFullQueues) {
    constexpr unsigned int kBufferSize = 60000;
    constexpr unsigned int kBuffers = 60;
    std::string sent;
    std::string received;
    unsigned int buffers = 0;
    unsigned int delayed = 0;
    SP_BasicBuffer_ sp_complete;
    narrow();
    armClient();
    m_server.receive(1000, emptyBuffer(1000));

    const bool isComplete = eventually(
        [&] {
            for (int round = 0; round < 100; ++round) {
                if (buffers < kBuffers && !m_client.isSendDataPending()) {
                    std::string text(kBufferSize, ' ');
                    for (char& byte : text) byte = static_cast<char>(buffers * 37 + (&byte - &text[0]) % 251);
                    EXPECT_EQ(m_client.send(bufferWith(text)), VekSocket_::SEND_OK);
                    sent += text;
                    ++buffers;
                }
                delayed += m_client.isSendDataPending() ? 1 : 0;
                EXPECT_TRUE(checkClient());
                EXPECT_TRUE(m_server.check(sp_complete));
                if (!sp_complete) continue;
                received += textOf(sp_complete);
                m_server.receive(1000, emptyBuffer(1000));
            }
            return received.size() == kBuffers * kBufferSize;
        },
        60000);

    EXPECT_TRUE(isComplete);
    EXPECT_TRUE(received == sent);
    EXPECT_GT(delayed, 0U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST(VekSocketUrgent, urgentDataDoesNotDisturbTheStream) {
    Streams_ streams(Type_::INET_TCP);
    RecordCapture_ records;
    const int descriptor = streams.m_client.descriptor();
    ASSERT_EQ(::send(descriptor, "ab", 2, 0), 2);
    ASSERT_EQ(::send(descriptor, "!", 1, MSG_OOB), 1);
    ASSERT_EQ(::send(descriptor, "cd", 2, 0), 2);

    EXPECT_EQ(receiveText(*streams.m_sp_server, 4), "abcd");

    EXPECT_TRUE(streams.m_sp_server->isConnected());
    EXPECT_EQ(records.take(), Records_{});
}

TEST_F(VekSocketState, aSocketThatIsNotConnectedIsBusy) {
    EXPECT_EQ(m_socket.send(bufferWith("hello")), VekSocket_::SEND_BUSY);
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::INET_TCP)));
    EXPECT_EQ(m_socket.send(bufferWith("hello")), VekSocket_::SEND_BUSY);
    m_calls.fail(SystemCalls_::Connect, EINPROGRESS);
    EXPECT_TRUE(m_socket.connect(addressOf("inettcp://127.0.0.1:7000")));
    EXPECT_EQ(m_socket.send(bufferWith("hello")), VekSocket_::SEND_BUSY);
    EXPECT_EQ(m_socket.send(emptyBuffer(1)), VekSocket_::SEND_BUSY);

    EXPECT_FALSE(m_socket.isSendDataPending());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketState, aReceiveCanBeArmedInAnyState) {
    EXPECT_TRUE(m_socket.receive(5, emptyBuffer(5)));

    EXPECT_EQ(m_socket.state(), VekSocket_::IDLE);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocketState, anIdleSocketCannotBeChecked) {
    SP_BasicBuffer_ sp_buffer(emptyBuffer(1));

    EXPECT_FALSE(m_socket.check(sp_buffer));

    EXPECT_TRUE(sp_buffer.isNull());
    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kCheck, "VekSocket_::check() failed because of the wrong state 0")});
}

TEST_F(VekSocketState, aListenerCannotBeChecked) {
    SP_BasicBuffer_ sp_buffer(emptyBuffer(1));
    listenOn(m_socket, m_folder.localAddress("socket"));

    EXPECT_FALSE(m_socket.check(sp_buffer));

    EXPECT_TRUE(sp_buffer.isNull());
    EXPECT_EQ(
        m_records.take(),
        Records_{socketRecord(3, kCheck, "VekSocket_::check() Shouldn't call check() in listening mode")});
    EXPECT_EQ(m_socket.state(), VekSocket_::LISTENING);
}

TEST_F(VekSocketState, thereIsNothingToCheckBeforeConnecting) {
    SP_BasicBuffer_ sp_buffer(emptyBuffer(1));
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::LOCAL)));

    EXPECT_TRUE(m_socket.check(sp_buffer));

    EXPECT_TRUE(sp_buffer.isNull());
    EXPECT_EQ(m_records.take(), Records_{});
}
