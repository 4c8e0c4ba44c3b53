// What a connection makes of the bytes that arrive.

#include <poll.h>

#include <algorithm>

#include "support/allocation_failure.h"
#include "terminal/connection.h"
#include "terminal/connections.h"
#include "vekmsg/log.h"

namespace {

using Connection_ = VekmsgConnection_;
using Texts_ = std::vector<std::string>;

constexpr char kProcess[] = "bool VekmsgConnection_::processPollEvents(libcpp::SP_BasicBuffer_&)";
constexpr char kNameHeader[] =
    "bool VekmsgConnection_::processPollEvents(" OF_CONNECTION "NameHeader_, libcpp::SP_BasicBuffer_&)";
constexpr char kName[] =
    "bool VekmsgConnection_::processPollEvents(" OF_CONNECTION "Name_, libcpp::SP_BasicBuffer_&)";
constexpr char kHeader[] =
    "bool VekmsgConnection_::processPollEvents(" OF_CONNECTION "Header_, libcpp::SP_BasicBuffer_&)";
constexpr char kPayload[] =
    "bool VekmsgConnection_::processPollEvents(" OF_CONNECTION "Payload_, libcpp::SP_BasicBuffer_&)";
constexpr char kExtractHeader[] = "bool VekmsgConnection_::extractEncodingHeader(libcpp::SP_BasicBuffer_)";
constexpr char kExtractPayload[] =
    "bool VekmsgConnection_::extractEncodingPayload(libcpp::SP_BasicBuffer_, unsigned char*&)";
constexpr char kDiscard[] = "bool VekmsgConnection_::discardAllDecodedPayload(libcpp::SP_BasicBuffer_&)";
constexpr char kSocketReceive[] = "bool VekSocket_::receive(unsigned int, libcpp::SP_BasicBuffer_)";
constexpr char kSocketRead[] = "bool VekSocket_::check(libcpp::BasicBuffer_&, libcpp::SP_BasicBuffer_&)";

const Record_ kNoBuffer =
    connectionRecord(3, kDiscard, "VekmsgConnection_::discardAllDecodedPayload() Can't create basicBuffer_");

Record_ skipped(unsigned int type, std::size_t length) {
    return connectionRecord(4, kHeader,
                            "Connection here to abc expecting BINARY_ENCODED_MESSAGE but got " +
                                std::to_string(type) + ", length " + std::to_string(length) +
                                ". Skipping the block");
}

Record_ dropped(unsigned int type) {
    return connectionRecord(4, kPayload,
                            "Connection here to abc dropped encoding block type " + std::to_string(type));
}

/// So many message blocks without a payload, back to back.
std::string emptyBlocks(unsigned int count, unsigned int type = 2) {
    std::string bytes;
    for (unsigned int number = 0; number < count; ++number) bytes += block(type, "");
    return bytes;
}

/// Message blocks whose payload is their number.
std::string numberedBlocks(unsigned int count) {
    std::string bytes;
    for (unsigned int number = 0; number < count; ++number) bytes += block(2, std::to_string(number));
    return bytes;
}

class Receiving : public ConnectionTest_ {
protected:
    void expectState(Connection_::ConnectionState_ state) { EXPECT_EQ(m_sp_connection->state(), state); }

    std::string peerName() {
        const SP_Utf8String_ sp_name = m_sp_connection->getPeerName();
        return sp_name ? reinterpret_cast<const char*>(sp_name->c_str()) : "no name";
    }

    /// Takes all received blocks off the connection.
    Texts_ takeReceived() {
        const Texts_ all = received();
        m_sp_connection->m_receivedBuffers.clear();
        return all;
    }

    /// Turns, as long as the connection is good for it, until so many blocks are there.
    void turnUntilReceived(std::size_t count) {
        while (m_sp_connection->m_receivedBuffers.size() < count) {
            awaitReadable(socket().descriptor());
            ASSERT_TRUE(turn());
            ASSERT_FALSE(HasFatalFailure());
        }
    }

    short polledEvents() {
        pollfd entry = {};
        pollfd* p_next = nullptr;
        EXPECT_TRUE(m_sp_connection->fillPollFd(&entry, p_next));
        return entry.events;
    }
};

}  // namespace

// The peer's name.

TEST_F(Receiving, thePeersNameComesFromItsBlock) {
    openAccepted();

    EXPECT_TRUE(deliver(nameBlock("abc")));

    EXPECT_EQ(peerName(), "abc");
    EXPECT_FALSE(m_hasMessages);
    expectState(Connection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, theLastByteOfANameIsTakenForItsNul) {
    const struct {
        std::string m_payload;
        std::string m_name;
    } cases[] = {{std::string("abc\0", 4), "abc"},
                 {"abcd", "abc"},
                 {"ab", "a"},
                 {std::string("a\0bcd\0", 6), "a"},
                 {std::string("\0\0", 2), ""},
                 {std::string("\0abc\0", 5), ""},
                 {std::string("\xC3\xA4\0", 3), "\xC3\xA4"}};
    for (const auto& each : cases) {
        openAccepted();

        EXPECT_TRUE(deliver(block(1, each.m_payload)));

        EXPECT_EQ(peerName(), each.m_name);
        EXPECT_EQ(m_sp_connection->getPeerName()->size(), each.m_name.size());
        expectState(Connection_::STATE_RECEIVING_HEADER);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, theNameThatThePeerSendsReplacesOneThatIsSet) {
    const struct {
        std::string m_payload;
        std::string m_name;
    } cases[] = {{std::string("abc\0", 4), "abc"}, {"", ""}};
    for (const auto& each : cases) {
        openAccepted();
        const SP_Utf8String_ sp_before = nameOf("before");
        m_sp_connection->setPeerName(sp_before);

        EXPECT_TRUE(deliver(block(1, each.m_payload)));

        EXPECT_EQ(peerName(), each.m_name);
        EXPECT_EQ(*sp_before, *nameOf("before"));  // others may hold it
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aNamePayloadOfNoneOrOneByteGivesAnEmptyName) {
    for (const char* p_payload : {"", "x"}) {
        openAccepted();

        EXPECT_TRUE(deliver(block(1, p_payload)));

        EXPECT_EQ(peerName(), "");
        EXPECT_TRUE(m_sp_connection->isFunctional());
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aFirstBlockThatIsNoNameFailsTheConnection) {
    for (const unsigned int type : {0U, 2U, 7U, 65535U}) {
        openAccepted();

        EXPECT_FALSE(deliver(block(type, "hello")));

        expectState(Connection_::STATE_FAILED);
        EXPECT_FALSE(m_hasMessages);
        EXPECT_FALSE(m_sp_connection->getPeerName());
        EXPECT_EQ(m_records.take(), (Records_{connectionRecord(4, kNameHeader,
                                                               "here is expecting VEK_COMPONENT_NAME. Got " +
                                                                   std::to_string(type) + ", length 5")}));
    }
}

TEST_F(Receiving, aNameOfMoreThan9400BytesFailsTheConnection) {
    for (const unsigned int length : {9401U, 65535U}) {
        openAccepted();

        EXPECT_FALSE(deliver(block(1, std::string(length, 'n')).substr(0, 4)));

        expectState(Connection_::STATE_FAILED);
        EXPECT_EQ(m_records.take(),
                  (Records_{connectionRecord(
                      3, kNameHeader,
                      "VekmsgConnection_::processPollEvents() of here is getting VEK_COMPONENT_NAME length " +
                          std::to_string(length))}));
    }
}

TEST_F(Receiving, namesAreReadUpTo9396Bytes) {
    for (const std::size_t length : {0, 1, 2, 3, 254, 9394, 9395}) {
        openAccepted();

        EXPECT_TRUE(deliver(nameBlock(std::string(length, 'n'))));

        EXPECT_EQ(peerName(), std::string(length, 'n'));
        EXPECT_TRUE(m_sp_connection->isFunctional());
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

// Header and payload share a buffer of 9400 bytes.
TEST_F(Receiving, namesOf9397To9400BytesDoNotFitBehindTheirHeader) {
    for (const std::size_t length : {9397, 9398, 9399, 9400}) {
        openAccepted();

        EXPECT_FALSE(deliver(block(1, std::string(length, 'n'))));

        const std::string announced = std::to_string(length);
        expectState(Connection_::STATE_FAILED);
        EXPECT_FALSE(m_sp_connection->getPeerName());
        EXPECT_EQ(m_records.take(),
                  (Records_{socketRecord(4, kSocketReceive,
                                         "VekSocket_::receive() requested data size " + announced +
                                             " is greater than free space 9396"),
                            connectionRecord(3, kExtractPayload,
                                             "VekmsgConnection_::extractEncodingPayload() data length 9396 "
                                             "is shorter than the expected payload " +
                                                 announced)}));
    }
}

TEST_F(Receiving, aNameInStateNameWithAnotherTypeIsReadOver) {
    openAccepted();
    ASSERT_TRUE(deliver(nameBlock("xyz").substr(0, 4)));
    expectState(Connection_::STATE_RECEIVING_NAME);
    m_sp_connection->m_blockType = Connection_::BINARY_ENCODED_MESSAGE;

    EXPECT_TRUE(deliver("1234"));

    expectState(Connection_::STATE_RECEIVING_NAME_HEADER);
    EXPECT_FALSE(m_sp_connection->getPeerName());
    EXPECT_TRUE(deliver(nameBlock("abc")));
    EXPECT_EQ(peerName(), "abc");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aNameThatTurnsOutTooLongIsRefusedInItsState) {
    openAccepted();
    m_sp_connection->m_connectionState = Connection_::STATE_RECEIVING_NAME;
    m_sp_connection->m_blockType = Connection_::VEK_COMPONENT_NAME;
    m_sp_connection->m_blockLength = 9401;
    m_sp_connection->m_sp_wholeUnit = bufferOf(std::string(9401, 'n'));
    m_hasMessages = true;

    EXPECT_FALSE(turn());

    EXPECT_FALSE(m_hasMessages);
    expectState(Connection_::STATE_RECEIVING_NAME);
    EXPECT_FALSE(m_sp_connection->getPeerName());
    EXPECT_EQ(
        m_records.take(),
        (Records_{connectionRecord(
            3, kName, "VekmsgConnection_::processPollEvents() of here got VEK_COMPONENT_NAME length 9401")}));
}

TEST_F(Receiving, withoutMemoryForThePeersNameTheTurnFails) {
    const struct {
        std::string m_name;
        unsigned int m_failing;
    } cases[] = {{"abc", 1}, {std::string(100, 'n'), 1}, {std::string(100, 'n'), 2}};
    for (const auto& each : cases) {
        afresh([&] {
            openAccepted();
            ASSERT_TRUE(deliver(nameBlock(each.m_name).substr(0, 4)));
            m_peer.write(each.m_name + '\0');
            awaitBytes(socket().descriptor(), each.m_name.size() + 1);
            {
                AllocationFailure_ failure(each.m_failing);
                EXPECT_FALSE(turn());
            }
            EXPECT_FALSE(m_sp_connection->getPeerName());
            EXPECT_EQ(m_records.take(),
                      (Records_{connectionRecord(
                          3, kName, "VekmsgConnection_::processPollEvents() can't create Utf8String_")}));
        });
    }
}

// The receive after the name asks for as many bytes as the name had.

TEST_F(Receiving, afterAnEmptyNamePayloadNothingMoreIsRead) {
    openAccepted();
    ASSERT_TRUE(deliver(block(1, "")));

    EXPECT_TRUE(deliver(block(2, "hello")));

    EXPECT_FALSE(m_hasMessages);
    expectState(Connection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(unreadBytes(socket().descriptor()), 9U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, afterANamePayloadOfOneToThreeBytesNoHeaderCanBeRead) {
    for (std::size_t length = 1; length <= 3; ++length) {
        openAccepted();
        ASSERT_TRUE(deliver(block(1, std::string(length, 'n'))));

        EXPECT_FALSE(deliver(block(2, "hello")));

        expectState(Connection_::STATE_FAILED);
        EXPECT_EQ(
            m_records.take(),
            (Records_{connectionRecord(3, kExtractHeader,
                                       "VekmsgConnection_::extractEncodingHeader() data length " +
                                           std::to_string(length) + " is too short for encoding header")}));
    }
}

TEST_F(Receiving, everyLongerNameLetsBlocksOfEveryLengthThrough) {
    const std::string stream = block(2, "") + block(2, "1") + block(2, "seven..") + block(2, "") +
                               block(2, std::string(30, 'x')) + block(2, "") + block(2, "12");
    const Texts_ expected = {
        block(2, ""), block(2, "1"), block(2, "seven.."), block(2, ""), block(2, std::string(30, 'x')),
        block(2, ""), block(2, "12")};
    for (std::size_t length = 3; length < stream.size(); ++length) {
        openAccepted();
        ASSERT_TRUE(deliver(nameBlock(std::string(length, 'n'))));

        EXPECT_TRUE(deliver(stream));

        EXPECT_EQ(takeReceived(), expected) << length;
        EXPECT_TRUE(deliver(block(2, "next")));
        EXPECT_EQ(received(), Texts_{block(2, "next")}) << length;
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aFirstBlockShorterThanTheNameWaitsForAsManyBytes) {
    openAccepted();
    ASSERT_TRUE(deliver(nameBlock("a longer name")));  // 14 bytes

    EXPECT_TRUE(deliver(block(2, "hi")));
    EXPECT_FALSE(m_hasMessages);
    EXPECT_TRUE(deliver(block(2, "you")));
    EXPECT_FALSE(m_hasMessages);

    EXPECT_TRUE(deliver(block(2, "")));

    EXPECT_TRUE(m_hasMessages);
    EXPECT_EQ(received(), (Texts_{block(2, "hi"), block(2, "you"), block(2, "")}));
}

TEST_F(Receiving, aBlocksBufferHoldsNothingOfTheNextBlock) {
    openAccepted();
    ASSERT_TRUE(deliver(nameBlock("a longer name")));

    EXPECT_TRUE(deliver(block(2, "hi") + block(2, "1234567890")));

    ASSERT_EQ(m_sp_connection->m_receivedBuffers.size(), 2U);
    const SP_BasicBuffer_ sp_first = m_sp_connection->m_receivedBuffers.front();
    const SP_BasicBuffer_ sp_second = m_sp_connection->m_receivedBuffers.back();
    EXPECT_NE(sp_first->storage(), sp_second->storage());
    EXPECT_EQ(bytesOf(sp_first), block(2, "hi"));
    EXPECT_EQ(bytesOf(sp_second), block(2, "1234567890"));
    EXPECT_EQ(sp_first->dataOffset(), 0U);
    EXPECT_EQ(sp_second->dataOffset(), 0U);
    EXPECT_EQ(sp_second->capacity(), 9400U);
}

// Messages.

TEST_F(Receiving, twoMessagesInOneTurnAreQueuedInOrder) {
    openEstablished();

    EXPECT_TRUE(deliver(block(2, "first") + block(2, "second")));

    EXPECT_TRUE(m_hasMessages);
    EXPECT_EQ(received(), (Texts_{block(2, "first"), block(2, "second")}));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, nameAndMessagesMayArriveTogether) {
    openAccepted();

    EXPECT_TRUE(deliver(nameBlock("abc") + block(2, "first") + block(2, "second")));

    EXPECT_EQ(peerName(), "abc");
    EXPECT_TRUE(m_hasMessages);
    EXPECT_EQ(received(), (Texts_{block(2, "first"), block(2, "second")}));
}

TEST_F(Receiving, messagesThatAreNotTakenAreStillAnnounced) {
    openEstablished();
    ASSERT_TRUE(deliver(block(2, "first")));
    m_hasMessages = false;

    EXPECT_TRUE(turn());

    EXPECT_TRUE(m_hasMessages);
    EXPECT_EQ(received(), Texts_{block(2, "first")});
}

TEST_F(Receiving, aBlockIsReadWithTwoReceivesIntoTheBufferThatIsHandedOver) {
    openEstablished();
    const unsigned int before = m_calls.count(SystemCalls_::Recv);

    ASSERT_TRUE(deliver(block(2, "hello")));

    EXPECT_EQ(m_calls.count(SystemCalls_::Recv), before + 3);  // the third finds nothing
    EXPECT_EQ(m_sp_connection->m_receivedBuffers.front()->capacity(), 9400U);
}

TEST_F(Receiving, blocksWithoutAPayloadAreMessagesToo) {
    for (const Type_ type : {Type_::LOCAL, Type_::INET_TCP}) {
        openEstablished(type);

        EXPECT_TRUE(deliver(emptyBlocks(3)));

        EXPECT_EQ(received(), (Texts_{block(2, ""), block(2, ""), block(2, "")}));
        EXPECT_TRUE(deliver(block(2, "x")));
        EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 4U);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aMessageMayHave9396Bytes) {
    for (const Type_ type : {Type_::LOCAL, Type_::INET_TCP}) {
        openEstablished(type);
        const std::string longest = block(2, std::string(9396, 'm'));

        EXPECT_TRUE(deliver(longest + block(2, "next")));

        EXPECT_EQ(received(), (Texts_{longest, block(2, "next")}));
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aMessageOf9397BytesFailsTheConnection) {
    for (const unsigned int length : {9397U, 65535U}) {
        openEstablished();

        EXPECT_FALSE(deliver(block(2, "before") + block(2, std::string(length, 'm')).substr(0, 9)));

        expectState(Connection_::STATE_FAILED);
        EXPECT_TRUE(m_hasMessages);
        EXPECT_EQ(received(), Texts_{block(2, "before")});
        EXPECT_EQ(m_records.take(),
                  (Records_{connectionRecord(3, kHeader,
                                             "connection here to abc received BINARY_ENCODED_MESSAGE of " +
                                                 std::to_string(length) + " (too long)")}));
    }
}

TEST_F(Receiving, blocksOfUnknownTypesAreReadOver) {
    for (const unsigned int type : {0U, 1U, 3U, 7U, 65535U}) {
        openEstablished();

        EXPECT_TRUE(deliver(block(type, "0123456789") + block(2, "next")));

        EXPECT_EQ(received(), Texts_{block(2, "next")});
        EXPECT_EQ(m_records.take(), (Records_{skipped(type, 10), dropped(type)}));
    }
}

TEST_F(Receiving, unknownBlocksOfAnyLengthUpTo9396AreReadOver) {
    for (const std::size_t length : {0, 1, 9395, 9396}) {
        openEstablished();

        EXPECT_TRUE(deliver(block(7, std::string(length, 'u')) + block(2, "next")));

        EXPECT_EQ(received(), Texts_{block(2, "next")});
        EXPECT_EQ(m_records.take(), (Records_{skipped(7, length), dropped(7)}));
    }
}

TEST_F(Receiving, anUnknownBlockOf9397BytesFailsTheConnection) {
    openEstablished();

    EXPECT_FALSE(deliver(block(7, std::string(9397, 'u')).substr(0, 4)));

    expectState(Connection_::STATE_FAILED);
    EXPECT_FALSE(m_hasMessages);
    EXPECT_EQ(m_records.take(),
              (Records_{connectionRecord(3, kHeader,
                                         "Connection here to abc is expecing BINARY_ENCODED_MESSAGE but got "
                                         "7 of length 9397. Failed")}));
}

TEST_F(Receiving, unknownBlocksInTheBytesAfterALongNameAreReadOver) {
    openAccepted();
    ASSERT_TRUE(deliver(nameBlock("a longer name")));

    EXPECT_TRUE(deliver(block(7, "") + block(2, "hi") + block(7, "u") + block(2, "you")));

    EXPECT_EQ(received(), (Texts_{block(2, "hi"), block(2, "you")}));
    EXPECT_EQ(m_records.take().size(), 4U);
}

// How the bytes arrive.

namespace {

class Splitting : public Receiving, public ::testing::WithParamInterface<std::string> {
protected:
    const std::string m_stream = nameBlock(GetParam()) + block(2, "hello") + block(7, "x") + block(2, "") +
                                 block(2, "world!") + block(2, "");
    const Texts_ m_expected = {block(2, "hello"), block(2, ""), block(2, "world!"), block(2, "")};

    void expectAllReceived(std::size_t split) {
        EXPECT_EQ(peerName(), GetParam()) << split;
        EXPECT_EQ(received(), m_expected) << split;
        EXPECT_EQ(m_records.take().size(), 2U) << split;  // the block that is skipped
    }

    /// How many message blocks are whole in the first `size` bytes of the stream.
    std::size_t wholeIn(std::size_t size) const {
        const std::size_t name = 5 + GetParam().size();
        const std::size_t ends[] = {name + 9, name + 9 + 5 + 4, name + 9 + 5 + 4 + 10, m_stream.size()};
        std::size_t count = 0;
        for (const std::size_t end : ends) count += end <= size ? 1 : 0;
        return count;
    }
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Names, Splitting, ::testing::Values("abc", "longer"));

TEST_P(Splitting, aStreamMayBeSplitAtEveryByte) {
    for (std::size_t split = 0; split <= m_stream.size(); ++split) {
        openAccepted();

        EXPECT_TRUE(deliver(m_stream.substr(0, split)));
        EXPECT_TRUE(deliver(m_stream.substr(split)));

        expectAllReceived(split);
    }
}

TEST_P(Splitting, aTcpStreamMayBeSplitAtEveryByte) {
    for (std::size_t split = 0; split <= m_stream.size(); ++split) {
        openAccepted(Type_::INET_TCP);

        EXPECT_TRUE(deliver(m_stream.substr(0, split)));
        EXPECT_TRUE(deliver(m_stream.substr(split)));

        expectAllReceived(split);
    }
}

TEST_P(Splitting, aStreamMayArriveByteByByte) {
    for (const Type_ type : {Type_::LOCAL, Type_::INET_TCP}) {
        openAccepted(type);

        for (const char byte : m_stream) EXPECT_TRUE(deliver(std::string(1, byte)));

        expectAllReceived(0);
    }
}

TEST_P(Splitting, theSystemMayGiveOneByteAtATime) {
    openAccepted();
    m_peer.write(m_stream);
    m_calls.shorten(SystemCalls_::Recv, 1, 0, 1000);

    for (std::size_t turns = 0; turns < m_stream.size(); ++turns) EXPECT_TRUE(turn());

    expectAllReceived(0);
}

TEST_P(Splitting, interruptedReadsLoseNothing) {
    for (const int error : {EINTR, EAGAIN}) {
        for (unsigned int before = 0; before < 8; ++before) {
            openAccepted();
            m_calls.fail(SystemCalls_::Recv, error, before);

            EXPECT_TRUE(deliver(m_stream));
            EXPECT_TRUE(turn());

            expectAllReceived(before);
        }
    }
}

TEST_P(Splitting, whatIsWholeSurvivesAPeerThatClosesAtAnyByte) {
    for (std::size_t split = 0; split <= m_stream.size(); ++split) {
        openAccepted();
        EXPECT_TRUE(deliver(m_stream.substr(0, split)));
        m_peer.close();
        m_records.take();

        EXPECT_FALSE(turn());

        expectState(Connection_::STATE_FAILED);
        // The first blocks wait until as many bytes are there as the name had.
        const std::size_t name = 5 + GetParam().size();
        const std::size_t whole = split < name + GetParam().size() + 1 ? 0 : wholeIn(split);
        EXPECT_EQ(received(), Texts_(m_expected.begin(), m_expected.begin() + static_cast<long>(whole)))
            << split;
        EXPECT_EQ(m_hasMessages, whole != 0) << split;
        EXPECT_EQ(m_records.take(), Records_{}) << split;
    }
}

TEST_F(Receiving, whatArrivesTogetherWithTheEndIsQueuedThoughTheTurnFails) {
    for (const Type_ type : {Type_::LOCAL, Type_::INET_TCP}) {
        openAccepted(type);
        m_peer.write(nameBlock("abc") + block(2, "one") + block(2, "two") + "\0\2");
        m_peer.close();
        awaitBytes(socket().descriptor(), 8 + 7 + 7);
        bool isGood = true;
        while (isGood) {
            awaitReadable(socket().descriptor());
            isGood = turn();
        }

        expectState(Connection_::STATE_FAILED);
        EXPECT_TRUE(m_hasMessages);
        EXPECT_EQ(received(), (Texts_{block(2, "one"), block(2, "two")}));
        EXPECT_EQ(socket().descriptor(), -1);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aFailedOneStillAnnouncesWhatItReceived) {
    openEstablished();
    ASSERT_TRUE(deliver(block(2, "one")));
    m_peer.close();
    EXPECT_FALSE(turn());
    m_hasMessages = false;

    EXPECT_FALSE(turn());

    EXPECT_TRUE(m_hasMessages);
    EXPECT_EQ(received(), Texts_{block(2, "one")});
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aReadErrorFailsTheConnection) {
    openEstablished();
    const std::string address = socket().remoteAddress().realName();
    m_calls.fail(SystemCalls_::Recv, ECONNRESET);

    EXPECT_FALSE(turn());

    expectState(Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(7, kSocketRead,
                                     "VekSocket_::check() recv(" + address +
                                         ") failed with error(104): Connection reset by peer")}));
}

TEST_F(Receiving, urgentBytesAreNotPartOfTheStream) {
    openEstablished(Type_::INET_TCP);
    m_peer.write(block(2, "one") + block(2, "two").substr(0, 5));
    m_peer.writeUrgent('!');
    m_peer.write(block(2, "two").substr(5) + block(2, ""));

    turnUntilReceived(3);

    EXPECT_EQ(received(), (Texts_{block(2, "one"), block(2, "two"), block(2, "")}));
    m_peer.writeUrgent('!');
    m_peer.write(block(2, "four"));
    turnUntilReceived(4);
    EXPECT_EQ(bytesOf(m_sp_connection->m_receivedBuffers.back()), block(2, "four"));
    EXPECT_EQ(m_records.take(), Records_{});
}

// States that make no sense.

TEST_F(Receiving, aUnitThatArrivesInNoKnownStateIsRefused) {
    for (const unsigned int number : {0U, 7U, 99U}) {
        openEstablished();
        m_sp_connection->m_connectionState = static_cast<Connection_::ConnectionState_>(number);
        m_hasMessages = true;

        EXPECT_FALSE(deliver("1234"));

        EXPECT_FALSE(m_hasMessages);
        expectState(static_cast<Connection_::ConnectionState_>(number));
        EXPECT_EQ(
            m_records.take(),
            (Records_{connectionRecord(3, kProcess,
                                       "VekmsgConnection_::processPollEvents() invalid m_connectionState " +
                                           std::to_string(number))}));
    }
}

TEST_F(Receiving, anIdleOneWithoutAUnitFailsItsTurnSilently) {
    openEstablished();
    m_sp_connection->m_connectionState = Connection_::STATE_IDLE;

    EXPECT_FALSE(turn());

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, inconsistentOffsetsFailTheConnectionInEveryState) {
    const struct {
        Connection_::ConnectionState_ m_state;
        const char* m_p_signature;
        const char* m_p_operation;
    } cases[] = {
        {Connection_::STATE_RECEIVING_NAME_HEADER, kExtractHeader, "extractEncodingHeader"},
        {Connection_::STATE_RECEIVING_NAME, kExtractPayload, "extractEncodingPayload"},
        {Connection_::STATE_RECEIVING_HEADER, kExtractHeader, "extractEncodingHeader"},
        {Connection_::STATE_RECEIVING_PAYLOAD, kExtractPayload, "extractEncodingPayload"},
    };
    for (const auto& each : cases) {
        openEstablished();
        m_sp_connection->m_connectionState = each.m_state;
        m_sp_connection->m_decodeOffset = 5;

        EXPECT_FALSE(deliver("1234"));

        expectState(Connection_::STATE_FAILED);
        EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 0U);
        EXPECT_EQ(m_records.take(),
                  (Records_{connectionRecord(3, each.m_p_signature,
                                             std::string("VekmsgConnection_::") + each.m_p_operation +
                                                 "() data length 4 is shorter than decode offset 5")}));
    }
}

TEST_F(Receiving, aPayloadThatCannotBeWholeFailsTheConnection) {
    openEstablished();
    ASSERT_TRUE(deliver(block(2, "12345").substr(0, 4)));
    m_sp_connection->m_blockLength = 6;

    EXPECT_FALSE(deliver("12345"));

    expectState(Connection_::STATE_FAILED);
    EXPECT_EQ(m_records.take(),
              (Records_{connectionRecord(3, kExtractPayload,
                                         "VekmsgConnection_::extractEncodingPayload() data length 5 is "
                                         "shorter than the expected payload 6")}));
}

// One message at a time.

TEST_F(Receiving, theOldestBlockIsHandedOutFirst) {
    openEstablished();
    ASSERT_TRUE(deliver(block(2, "one") + block(2, "two")));
    const unsigned int before = m_calls.count(SystemCalls_::Recv);
    SP_BasicBuffer_ sp_buffer;

    EXPECT_TRUE(m_sp_connection->receiveEncodedMessage(sp_buffer));
    EXPECT_EQ(bytesOf(sp_buffer), block(2, "one"));
    EXPECT_TRUE(m_sp_connection->receiveEncodedMessage(sp_buffer));
    EXPECT_EQ(bytesOf(sp_buffer), block(2, "two"));

    EXPECT_EQ(m_calls.count(SystemCalls_::Recv), before);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, withNoBlockWaitingTheSocketIsLookedAt) {
    openEstablished();
    SP_BasicBuffer_ sp_buffer = bufferOf("before");
    EXPECT_TRUE(m_sp_connection->receiveEncodedMessage(sp_buffer));
    EXPECT_FALSE(sp_buffer);
    m_peer.write(block(2, "one"));
    awaitBytes(socket().descriptor(), 7);

    EXPECT_TRUE(m_sp_connection->receiveEncodedMessage(sp_buffer));

    EXPECT_EQ(bytesOf(sp_buffer), block(2, "one"));
    EXPECT_FALSE(m_sp_connection->hasReceived());
}

TEST_F(Receiving, aConnectionThatEndsHandsOutNothingMoreButKeepsItsBlocks) {
    openEstablished();
    m_peer.write(block(2, "one"));
    m_peer.close();
    awaitBytes(socket().descriptor(), 7);
    SP_BasicBuffer_ sp_buffer = bufferOf("before");

    EXPECT_FALSE(m_sp_connection->receiveEncodedMessage(sp_buffer));

    EXPECT_FALSE(sp_buffer);
    EXPECT_EQ(received(), Texts_{block(2, "one")});
    EXPECT_TRUE(m_sp_connection->receiveEncodedMessage(sp_buffer));
    EXPECT_EQ(bytesOf(sp_buffer), block(2, "one"));
}

TEST_F(Receiving, aBlockThatIsPutBackIsTheFirstAgain) {
    openEstablished();
    ASSERT_TRUE(deliver(block(2, "one") + block(2, "two")));
    SP_BasicBuffer_ sp_buffer;
    ASSERT_TRUE(m_sp_connection->receiveEncodedMessage(sp_buffer));

    m_sp_connection->putBackReceived(sp_buffer);

    EXPECT_EQ(received(), (Texts_{block(2, "one"), block(2, "two")}));
}

TEST_F(Receiving, receivedBlocksMoveBehindThoseOfAnotherQueue) {
    openEstablished();
    ASSERT_TRUE(deliver(block(2, "one") + block(2, "two")));
    BufferQueue_ queue;
    queue.push_back(bufferOf("zero"));

    m_sp_connection->moveReceivedTo(queue);

    EXPECT_EQ(bytesOf(queue), (Texts_{"zero", block(2, "one"), block(2, "two")}));
    EXPECT_FALSE(m_sp_connection->hasReceived());
}

// Not too much at once.

TEST_F(Receiving, atMost256BlocksAreReadInOneTurn) {
    openEstablished();
    Texts_ expected;
    for (unsigned int number = 0; number < 300; ++number)
        expected.push_back(block(2, std::to_string(number)));

    EXPECT_TRUE(deliver(numberedBlocks(300)));

    Texts_ all = takeReceived();
    EXPECT_EQ(all.size(), 256U);
    EXPECT_TRUE(turn());
    for (const std::string& each : takeReceived()) all.push_back(each);
    EXPECT_EQ(all, expected);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aTurnReads256BlocksWhole) {
    for (const std::size_t count : {255U, 256U, 257U}) {
        openEstablished();

        EXPECT_TRUE(deliver(numberedBlocks(static_cast<unsigned int>(count))));

        EXPECT_EQ(takeReceived().size(), std::min<std::size_t>(count, 256));
        EXPECT_TRUE(turn());
        EXPECT_EQ(takeReceived().size(), count - std::min<std::size_t>(count, 256));
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, blocksThatAreSkippedCountToo) {
    openEstablished();

    EXPECT_TRUE(deliver(emptyBlocks(300, 7) + block(2, "last")));
    EXPECT_EQ(m_records.take().size(), 2 * 256U);
    EXPECT_FALSE(m_hasMessages);

    EXPECT_TRUE(turn());
    EXPECT_EQ(m_records.take().size(), 2 * 44U);
    EXPECT_EQ(received(), Texts_{block(2, "last")});
}

TEST_F(Receiving, with256BlocksWaitingNoneIsBegun) {
    openEstablished();
    ASSERT_TRUE(deliver(emptyBlocks(300)));
    ASSERT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
    const unsigned int before = m_calls.count(SystemCalls_::Recv);

    EXPECT_TRUE(turn());
    EXPECT_TRUE(turn());

    EXPECT_TRUE(m_hasMessages);
    EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
    EXPECT_EQ(m_calls.count(SystemCalls_::Recv), before);
    m_sp_connection->m_receivedBuffers.pop_front();
    EXPECT_TRUE(turn());
    EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
}

TEST_F(Receiving, aBlockThatHasBegunIsReadToItsEnd) {
    openEstablished();
    ASSERT_TRUE(deliver(block(2, "late").substr(0, 6)));
    for (int number = 0; number < 256; ++number)
        m_sp_connection->m_receivedBuffers.push_back(bufferOf("waiting"));

    EXPECT_TRUE(deliver(block(2, "late").substr(6) + block(2, "later")));

    EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 257U);
    EXPECT_EQ(bytesOf(m_sp_connection->m_receivedBuffers.back()), block(2, "late"));
}

TEST_F(Receiving, aPendingSendGoesOnThoughNoBlockMayBegin) {
    openEstablished();
    ASSERT_TRUE(deliver(emptyBlocks(256)));
    m_calls.shorten(SystemCalls_::Send, 10, 0, 1000);
    ASSERT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf(std::string(50, 's'))));
    ASSERT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("next")));
    EXPECT_EQ(m_peer.readArrived().size(), 10U);

    for (int turns = 0; turns < 4; ++turns) EXPECT_TRUE(turn());

    EXPECT_EQ(m_peer.readArrived(), std::string(40, 's') + "next");
    EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, aPendingSendGoesOnInATurnThatReads256Blocks) {
    openEstablished();
    m_calls.shorten(SystemCalls_::Send, 1, 0, 1);
    ASSERT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("sent")));
    ASSERT_TRUE(socket().isSendDataPending());

    EXPECT_TRUE(deliver(emptyBlocks(300)));

    EXPECT_FALSE(socket().isSendDataPending());
    EXPECT_EQ(m_peer.read(4), "sent");
    EXPECT_LE(m_sp_connection->m_receivedBuffers.size(), 256U);
}

TEST_F(Receiving, thePendingSendIsGivenOneCheckOfAHeaderAtMost) {
    openEstablished();
    m_calls.fail(SystemCalls_::Send, EAGAIN, 0, 1000);
    ASSERT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("sent")));
    ASSERT_TRUE(deliver(numberedBlocks(300)));
    ASSERT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
    m_sp_connection->m_receivedBuffers.push_back(bufferOf("waiting"));
    expectState(Connection_::STATE_RECEIVING_PAYLOAD);  // the header came with the last check
    ASSERT_TRUE(turn());
    const std::size_t unread = unreadBytes(socket().descriptor());

    EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 258U);
    expectState(Connection_::STATE_RECEIVING_PAYLOAD);
    EXPECT_EQ(unread, 3 + 42 * 7U);  // 258 headers and 257 payloads are read
    EXPECT_TRUE(socket().isSendDataPending());
}

TEST_F(Receiving, aPendingSendBeginsNoBlockThatIsInHand) {
    openAccepted();
    ASSERT_TRUE(deliver(nameBlock(std::string(2399, 'n'))));
    m_calls.fail(SystemCalls_::Send, EAGAIN, 0, 1000);
    ASSERT_TRUE(m_sp_connection->sendEncodedMessage(bufferOf("sent")));

    EXPECT_TRUE(deliver(emptyBlocks(600)));
    EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
    EXPECT_TRUE(turn());

    EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
}

TEST_F(Receiving, theNameGoesOutWhile256BlocksWait) {
    openOutgoing(Type_::INET_TCP);
    awaitWritable(socket().descriptor());
    for (int number = 0; number < 256; ++number)
        m_sp_connection->m_receivedBuffers.push_back(bufferOf("waiting"));
    ASSERT_TRUE(m_sp_connection->start());

    EXPECT_TRUE(turn());

    EXPECT_EQ(m_peer.read(9), nameBlock("here"));
    EXPECT_TRUE(m_sp_connection->isFunctional());
    EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
}

TEST_F(Receiving, blocksInHandWaitForTheirTurnAndArePolledFor) {
    openAccepted();
    ASSERT_TRUE(deliver(nameBlock(std::string(9395, 'n'))));  // the next receive is one of 9396 bytes
    EXPECT_EQ(polledEvents() & POLLOUT, 0);

    EXPECT_TRUE(deliver(emptyBlocks(2349)));

    std::size_t count = takeReceived().size();
    EXPECT_EQ(count, 256U);
    const unsigned int before = m_calls.count(SystemCalls_::Recv);
    for (int turns = 0; turns < 8; ++turns) {
        EXPECT_EQ(polledEvents() & POLLOUT, POLLOUT);
        EXPECT_TRUE(turn());
        EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
        EXPECT_TRUE(turn());
        EXPECT_EQ(m_sp_connection->m_receivedBuffers.size(), 256U);
        count += takeReceived().size();
    }
    EXPECT_EQ(m_calls.count(SystemCalls_::Recv), before);
    EXPECT_TRUE(turn());
    count += takeReceived().size();
    EXPECT_EQ(count, 2349U);
    EXPECT_EQ(polledEvents() & POLLOUT, 0);
    EXPECT_TRUE(deliver(block(2, "next")));
    EXPECT_EQ(received(), Texts_{block(2, "next")});
    EXPECT_EQ(m_records.take(), Records_{});
}

// Without memory.

TEST_F(Receiving, withoutMemoryForTheNextBufferTheTurnFailsAndTheBlockIsKept) {
    const char* texts[] = {"VekmsgConnection_::discardAllDecodedPayload() Can't create basicBuffer_",
                           "VekmsgConnection_::discardAllDecodedPayload() can't allocate basicBuffer"};
    for (unsigned int number : {2U, 3U}) {  // the first is for the block's place in the queue
        afresh([&] {
            openEstablished();
            m_peer.write(block(2, "one"));
            awaitBytes(socket().descriptor(), 7);
            {
                AllocationFailure_ failure(number);
                EXPECT_FALSE(turn());
            }
            EXPECT_EQ(received(), Texts_{block(2, "one")});
            EXPECT_EQ(m_records.take(), (Records_{connectionRecord(3, kDiscard, texts[number - 2])}));
        });
    }
}

TEST_F(Receiving, withoutMemoryForTheBytesBehindAnUnknownBlockTheTurnFails) {
    afresh([&] {
        openAccepted();
        ASSERT_TRUE(deliver(nameBlock("longer name")));
        // The receive after the name asks for as many bytes as the name had.
        m_peer.write(block(7, "") + block(2, "next"));
        awaitBytes(socket().descriptor(), 12);
        vekmsg_log_set_threshold(3);  // to capture the warnings would take memory
        {
            AllocationFailure_ failure(1);
            EXPECT_FALSE(turn());
        }
        EXPECT_EQ(received(), Texts_{});
        EXPECT_EQ(m_records.take(), Records_{kNoBuffer});
    });
}

TEST_F(Receiving, withoutMemoryForTheBytesBehindANameTheTurnFails) {
    const struct {
        VekmsgConnection_::EncodingBlockType_ m_type;
        unsigned int m_failing;
    } cases[] = {{Connection_::BINARY_ENCODED_MESSAGE, 1}, {Connection_::VEK_COMPONENT_NAME, 2}};
    for (const auto& each : cases) {
        afresh([&] {
            openAccepted();
            m_sp_connection->m_connectionState = Connection_::STATE_RECEIVING_NAME;
            m_sp_connection->m_blockType = each.m_type;
            m_sp_connection->m_blockLength = 4;
            m_sp_connection->m_sp_wholeUnit = bufferOf(std::string("abc\0next", 8));
            {
                AllocationFailure_ failure(each.m_failing);  // a name takes the first
                EXPECT_FALSE(turn());
            }
            EXPECT_EQ(m_records.take(), Records_{kNoBuffer});
        });
    }
}

TEST_F(Receiving, withoutMemoryForABlocksPlaceTheConnectionFails) {
    inFreshThread([&] {
        openEstablished();
        m_peer.write(block(2, "one"));
        awaitBytes(socket().descriptor(), 7);
        m_hasMessages = true;
        const AllocationFailure_ failure(1);

        EXPECT_THROW(turn(), std::bad_alloc);
    });
    expectState(Connection_::STATE_FAILED);
    EXPECT_FALSE(m_hasMessages);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(Receiving, noShortageOfMemoryDamagesWhatWasReceived) {
    const Texts_ whole = {block(2, ""), block(2, "hello"), block(2, "you")};
    bool hasStruck = true;
    for (unsigned int number = 1; hasStruck; ++number) {
        ASSERT_LT(number, 100U);
        afresh([&] {
            openAccepted();
            m_peer.write(nameBlock("longer name") + block(2, "") + block(2, "hello") + block(7, "") +
                         block(2, "you"));
            awaitBytes(socket().descriptor(), 16 + 4 + 9 + 4 + 7);
            bool isGood = false;
            {
                const AllocationFailure_ failure(number);
                try {
                    isGood = turn();
                } catch (const std::bad_alloc&) {
                    expectState(Connection_::STATE_FAILED);
                }
                hasStruck = failure.hasStruck();
            }
            const Texts_ blocks = received();
            EXPECT_EQ(isGood, !hasStruck) << number;
            EXPECT_TRUE(!isGood || blocks == whole) << number;
            ASSERT_LE(blocks.size(), whole.size());
            for (std::size_t index = 0; index < blocks.size(); ++index)
                EXPECT_EQ(blocks[index], whole[index]) << number;
        });
        m_records.take();
    }
}
