#include <gtest/gtest.h>

#include <sstream>

#include "hostile/hostile_input.h"
#include "hostile/open_terminal.h"
#include "message/element_binary.h"
#include "support/wire_bytes.h"

namespace {

std::string numbered(unsigned int number) {
    return wire::messageBlock(wire::header("own", "peer", 3, "from peer") +
                              wire::element(1, wire::Uint, wire::u32(number)));
}

using Texts_ = std::vector<std::string>;

/// What "own" has received from hostile peers after some more exchanges with its good one.
Texts_ receivedBy(OpenTerminal_& terminal) {
    for (int i = 0; i < 3; ++i) terminal.exchange();
    return terminal.takeReceived();
}

class HostileStream : public testing::Test {
protected:
    SilentRecords_ m_silence;
    OpenTerminal_ m_terminal;
};

}  // namespace

TEST_F(HostileStream, aBlockOfNoBytesIsSkippedAndDoesNotStallTheStream) {
    RawPeer_ peer(m_terminal.localAddress());
    const std::string empty = wire::block(2, "") + wire::block(7, "");
    peer.write(wire::nameBlock("peer") + empty + numbered(1) + empty + empty + numbered(2) + empty);

    EXPECT_EQ(receivedBy(m_terminal), (Texts_{"from peer/1", "from peer/2"}));
}

TEST_F(HostileStream, aBlockOfNoBytesAloneLeavesTheTerminalWaitingForMore) {
    RawPeer_ peer(m_terminal.localAddress());
    peer.write(wire::nameBlock("peer") + numbered(1) + wire::block(2, ""));
    EXPECT_EQ(receivedBy(m_terminal), Texts_{"from peer/1"});

    EXPECT_EQ(m_terminal.own().terminal().waitForMessage(5), VekmsgTerminal_::WAIT_TIMEOUT);

    peer.write(numbered(2));
    EXPECT_EQ(receivedBy(m_terminal), Texts_{"from peer/2"});
}

TEST_F(HostileStream, manyBlocksOfNoBytesDoNotKeepTheTerminalFromItsGoodPeer) {
    RawPeer_ peer(m_terminal.localAddress());
    std::string blocks = wire::nameBlock("peer");
    for (int i = 0; i < 5000; ++i) blocks += wire::block(2, "");
    peer.write(blocks);

    EXPECT_EQ(receivedBy(m_terminal), Texts_());

    peer.write(numbered(1));
    ASSERT_TRUE(m_terminal.own().workUntil([&] { return !receivedBy(m_terminal).empty(); }));
}

TEST_F(HostileStream, urgentDataIsNoPartOfTheStream) {
    RawPeer_ peer(m_terminal.tcpAddress());
    peer.resetOnClose();
    const std::string first = numbered(1);
    peer.write(wire::nameBlock("peer") + first.substr(0, 20));
    peer.writeUrgent('!');
    EXPECT_EQ(receivedBy(m_terminal), Texts_());
    peer.write(first.substr(20));
    EXPECT_EQ(receivedBy(m_terminal), Texts_{"from peer/1"});
    peer.writeUrgent('?');

    peer.write(numbered(2));

    EXPECT_EQ(receivedBy(m_terminal), Texts_{"from peer/2"});
}

// TCP knows one urgent byte at a time: one that a later one overtakes becomes part of the stream and spoils
// it.
TEST_F(HostileStream, urgentBytesThatOvertakeOneAnotherCostOnlyTheirStream) {
    RawPeer_ peer(m_terminal.tcpAddress());
    peer.resetOnClose();
    peer.write(wire::nameBlock("peer") + numbered(1));
    for (int i = 0; i < 50; ++i) peer.writeUrgent('\xff');

    EXPECT_EQ(receivedBy(m_terminal), Texts_{"from peer/1"});

    EXPECT_TRUE(m_terminal.closes(peer));
    EXPECT_TRUE(m_terminal.isAloneAgain());
}

TEST_F(HostileStream, urgentDataBeforeTheNameChangesNothing) {
    RawPeer_ peer(m_terminal.tcpAddress());
    peer.resetOnClose();
    peer.writeUrgent('!');

    peer.write(wire::nameBlock("peer") + numbered(1));

    EXPECT_EQ(receivedBy(m_terminal), Texts_{"from peer/1"});
}

TEST_F(HostileStream, halfAHeaderWaitsForItsOtherHalf) {
    RawPeer_ peer(m_terminal.localAddress());
    const std::string stream = wire::nameBlock("peer") + numbered(1);
    peer.write(stream.substr(0, 2));
    EXPECT_EQ(receivedBy(m_terminal), Texts_());
    peer.write(stream.substr(2, 9));
    EXPECT_EQ(receivedBy(m_terminal), Texts_());

    peer.write(stream.substr(11));

    EXPECT_EQ(receivedBy(m_terminal), Texts_{"from peer/1"});
}

TEST_F(HostileStream, aStreamOfSingleBytesArrives) {
    RawPeer_ peer(m_terminal.localAddress());
    for (const char byte : wire::nameBlock("peer") + numbered(1) + numbered(2)) {
        peer.write(std::string(1, byte));
        m_terminal.exchange();
    }

    EXPECT_EQ(receivedBy(m_terminal), (Texts_{"from peer/1", "from peer/2"}));
}

// Names of 3 to 9395 characters work; shorter and longer ones end the connection.
TEST_F(HostileStream, aNameOfAnyLengthIsTakenOrRefused) {
    for (unsigned int length = 0; length <= 9401; ++length) {
        RawPeer_ peer(m_terminal.localAddress());
        const std::string name = length == 0 ? "" : wire::text(std::string(length - 1, 'n'));
        peer.write(wire::block(1, name) + wire::messageBlockOfSize(9396, "own", "peer", "filled"));
        m_terminal.exchange();
        const bool isTaken = length >= 4 && length <= 9396;
        ASSERT_EQ(m_terminal.takeReceived(), isTaken ? Texts_{"filled/-1"} : Texts_()) << length;
        ASSERT_TRUE(isTaken || m_terminal.closes(peer)) << length;
        peer.close();
        ASSERT_TRUE(m_terminal.isAloneAgain()) << length;
    }
}

// What arrived whole is delivered, what did not is lost, and the terminal is as before.
TEST_F(HostileStream, aStreamThatIsClosedAtAnyByteDeliversWhatWasWhole) {
    const std::string name = wire::nameBlock("peer");
    const std::string skipped = wire::block(7, "skipped");
    const std::string session = name + numbered(1) + skipped + numbered(2);
    const std::size_t endOfFirst = name.size() + numbered(1).size();
    const unsigned int descriptors = openDescriptors();
    for (const std::string& address : {m_terminal.localAddress(), m_terminal.tcpAddress()}) {
        for (std::size_t size = 0; size <= session.size(); ++size) {
            RawPeer_ peer(address);
            peer.write(session.substr(0, size));
            peer.close();
            Texts_ expected;
            if (size >= endOfFirst) expected.push_back("from peer/1");
            if (size == session.size()) expected.push_back("from peer/2");
            ASSERT_EQ(receivedBy(m_terminal), expected) << size;
            ASSERT_TRUE(m_terminal.isAloneAgain()) << size;
        }
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(HostileStream, theDeepestTreeOfABlockIsReadWrittenAndPrinted) {
    const std::string payload = wire::nest(778);
    RawPeer_ peer(m_terminal.localAddress());
    const std::string block = wire::messageBlock(wire::header("own", "abc", 3, "") + payload);
    ASSERT_EQ(block.size(), 4U + 9389U);
    peer.write(wire::nameBlock("abc") + block);
    for (int i = 0; i < 3; ++i) m_terminal.exchange();
    ASSERT_EQ(m_terminal.received().size(), 1U);
    const SP_VekMessage_ sp_message = m_terminal.received().front();
    std::ostringstream text;

    SP_VekmsgElement_ sp_element = sp_message->getPayload();

    ASSERT_FALSE(sp_element.isNull());
    EXPECT_TRUE(sp_message->print(&text, 0));
    unsigned int depth = 0;
    for (; !sp_element->findFirstMatchingSubelement(1).isNull(); ++depth)
        sp_element = sp_element->findFirstMatchingSubelement(1);
    EXPECT_EQ(depth, 778U);
}

TEST(HostileTree, theDeepestTreeOfARawPayloadIsReadWrittenAndPrinted) {
    const std::string bytes = wire::nest(5459);
    const auto size = static_cast<unsigned int>(bytes.size());
    GuardedBytes_ memory;
    const SP_VekmsgElementBinary_ sp_element(new VekmsgElementBinary_(VEKMSGTAG_ANY, nullptr));
    std::ostringstream text;

    EXPECT_EQ(sp_element->deserialize(memory.place(bytes), size), size);
    EXPECT_TRUE(sp_element->print(&text, 0));

    EXPECT_EQ(sp_element->getMaxSerializationSize(), size);
    unsigned char* p_room = memory.room(size);
    EXPECT_EQ(sp_element->serialize(p_room + size, size), size);
    EXPECT_EQ(std::string(p_room, p_room + size), bytes);
}

TEST_F(HostileStream, aPeerThatSendsWithoutPauseDoesNotStarveTheGoodOne) {
    RawPeer_ peer(m_terminal.localAddress());
    peer.write(wire::nameBlock("peer"));
    std::string blocks;
    for (unsigned int i = 0; i < 3000; ++i) blocks += numbered(i);
    std::size_t written = 0;
    unsigned int received = 0;
    for (unsigned int i = 0; i < 10000 && received < 3000; ++i) {
        written += peer.writeSome(blocks.substr(written));
        m_terminal.exchange();
        for (const std::string& text : m_terminal.takeReceived())
            ASSERT_EQ(text, "from peer/" + std::to_string(received++));
    }

    EXPECT_EQ(received, 3000U);
}

TEST_F(HostileStream, aPeerThatPingsAndNeverReadsCostsOnlyItself) {
    RawPeer_ peer(m_terminal.localAddress());
    const std::string ping =
        wire::messageBlock(wire::header("own", "peer", 3, "VEK Pinger Request Format version 1.0") +
                           wire::element(1, wire::Binary, std::string(4000, 'x')));
    peer.write(wire::nameBlock("peer"));
    for (unsigned int i = 0; i < 300; ++i) {
        peer.writeSome(ping);
        m_terminal.exchange();
    }
    peer.close();

    EXPECT_TRUE(m_terminal.isAloneAgain());
}
