#include <gtest/gtest.h>

#include <memory>

#include "support/child_process.h"
#include "support/raw_peer.h"
#include "support/station.h"
#include "support/temporary_folder.h"
#include "support/wire_bytes.h"
#include "vekmsg/log.h"

namespace {

// Sanitizers slow everything down.
#if defined(__SANITIZE_ADDRESS__)
constexpr long kMessages = 4000;
constexpr int kPrograms = 20;
#else
constexpr long kMessages = 100000;
constexpr int kPrograms = 200;
#endif

std::string numbered(unsigned int number) {
    return wire::messageBlock(wire::header("hub", "program", 3, "numbered") +
                              wire::element(1, wire::Uint, wire::u32(number)));
}

/// How far a side runs ahead of what it has got from the other: the library queues without a limit.
constexpr long kWindow = 200;

constexpr unsigned int kExchangeLimitMs = 240000;

enum Result_ { Good = 0, Misplaced = 1, Unsent = 2, Missing = 3 };

/// Numbers messages to one peer and expects numbered ones from it, in order, none lost and none twice.
class Partner_ {
public:
    Partner_(const std::string& name, const std::string& peer, const std::string& directory)
        : m_station(name, directory), m_peer(peer) {}

    /// Messages each way until both sides have had all of them.
    Result_ exchange(bool opens) {
        if (!opens && !awaitFirst()) return Missing;
        while (m_sent < kMessages || m_received < kMessages) {
            const long before = m_sent + m_received;
            if (!sendSome()) return Unsent;
            if (!receiveSome()) return Misplaced;
            if (before == m_sent + m_received &&
                m_station.terminal().waitForMessage(20000) != VekmsgTerminal_::WAIT_MESSAGE)
                return Missing;
        }
        return finish();
    }

private:
    /// The other side opens the connection.
    bool awaitFirst() { return m_station.terminal().waitForMessage(20000) == VekmsgTerminal_::WAIT_MESSAGE; }

    bool sendSome() {
        for (; m_sent < kMessages && m_sent - m_received < kWindow; ++m_sent)
            if (!m_station.send(m_peer, "numbered", static_cast<unsigned int>(m_sent))) return false;
        return true;
    }

    bool receiveSome() {
        for (SP_VekMessage_ sp_message = m_station.receive(); !sp_message.isNull();
             sp_message = m_station.receive()) {
            if (plain(sp_message->getPayloadSchema()) == "done") {
                m_isDone = true;
            } else if (Station_::numberIn(sp_message) != m_received++) {
                return false;
            }
        }
        return true;
    }

    /// A side that has all says so, and stays until the other one has all as well.
    Result_ finish() {
        if (!m_station.send(m_peer, "done", 0)) return Unsent;
        while (!m_isDone) {
            if (m_station.terminal().waitForMessage(20000) != VekmsgTerminal_::WAIT_MESSAGE) return Missing;
            if (!receiveSome()) return Misplaced;
        }
        return m_received == kMessages ? Good : Misplaced;
    }

    Station_ m_station;
    const std::string m_peer;
    long m_sent = 0;
    long m_received = 0;
    bool m_isDone = false;
};

/// The warning that there is no default address is left out.
class Lossless : public testing::TestWithParam<const char*> {
protected:
    Lossless() { vekmsg_log_set_threshold(3); }
    ~Lossless() override { vekmsg_log_set_threshold(4); }

    std::string newAddress(const std::string& name) const {
        return GetParam() == std::string("local") ? m_folder.localAddress(name) : freeTcpAddress();
    }

    /// A program that sends `count` numbers to "hub" and ends at once, without closing anything.
    int sendAndExit(unsigned int count) const {
        Station_ source("source", m_directory);
        for (unsigned int number = 0; number < count; ++number) {
            if (!source.send("hub", "numbered", number)) return Unsent;
            // On TCP a program has to see the connection stand before it may go.
            if (number == 0 && !source.workUntil([&] { return source.isConnected("hub"); })) return Missing;
        }
        endProcess(Good);
    }

    /// The numbers that reach the hub, in order, each answered or not.
    static void expectNumbers(Station_& hub, unsigned int count, bool answers) {
        for (unsigned int number = 0; number < count; ++number) {
            const SP_VekMessage_ sp_message = hub.await(300);
            ASSERT_FALSE(sp_message.isNull()) << number;
            ASSERT_EQ(Station_::numberIn(sp_message), number);
            if (answers) hub.send("source", "answer", number);
        }
    }

    TemporaryFolder_ m_folder;
    const std::string m_hubAddress = newAddress("hub");
    const std::string m_directory =
        m_folder.writeFile("directory", {m_hubAddress + " hub", newAddress("edge") + " edge"});
};

class LosslessLocally : public Lossless {};

INSTANTIATE_TEST_SUITE_P(Transports, LosslessLocally, testing::Values("local"));
INSTANTIATE_TEST_SUITE_P(Transports, Lossless, testing::Values("local", "tcp"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace

TEST_P(Lossless, messagesBothWaysBetweenTwoProcessesArriveOnceAndInOrder) {
    Partner_ hub("hub", "edge", m_directory);
    ChildProcess_ edge([&] { return Partner_("edge", "hub", m_directory).exchange(true); });

    EXPECT_EQ(hub.exchange(false), Good);

    EXPECT_EQ(edge.wait(kExchangeLimitMs), Good);
}

TEST_P(Lossless, aProgramThatEndsBeforeItIsAcceptedIsHeard) {
    Station_ hub("hub", m_directory);
    for (int i = 0; i < kPrograms && !HasFailure(); ++i) {
        ChildProcess_ program([&] { return sendAndExit(5); });
        ASSERT_EQ(program.wait(), Good);

        expectNumbers(hub, 5, false);
    }
}

TEST_P(Lossless, aProgramThatEndsWhileItIsAcceptedIsHeard) {
    Station_ hub("hub", m_directory);
    for (int i = 0; i < kPrograms && !HasFailure(); ++i) {
        ChildProcess_ program([&] { return sendAndExit(5); });

        expectNumbers(hub, 5, false);

        ASSERT_EQ(program.wait(), Good);
    }
}

TEST_P(Lossless, aProgramThatSendsManyAndEndsIsHeardToItsEnd) {
    Station_ hub("hub", m_directory);
    for (int i = 0; i < kPrograms / 4 && !HasFailure(); ++i) {
        ChildProcess_ program([&] { return sendAndExit(200); });
        ASSERT_EQ(program.wait(), Good);

        expectNumbers(hub, 200, false);
    }
}

// Its old stream has ended without the hub having looked at it since. Both orders of names.
TEST_P(Lossless, aProgramThatIsStartedAgainIsHeardOnItsNewStream) {
    Station_ hub("hub", m_directory);
    for (const std::string name : {"program", "a program"}) {
        RawPeer_ before(m_hubAddress);
        before.write(wire::nameBlock(name) + numbered(0));
        expectNumbers(hub, 1, false);
        before.write(numbered(0));
        before.close();
        RawPeer_ after(m_hubAddress);
        after.write(wire::nameBlock(name) + numbered(1));

        expectNumbers(hub, 2, false);

        EXPECT_TRUE(hub.isConnected(name));
        after.write(numbered(0));
        expectNumbers(hub, 1, false);
    }
}

// Not on TCP: there an answer to a program that has ended makes its kernel drop what is still under way.
TEST_P(LosslessLocally, aProgramThatEndsIsHeardToItsEndThoughAnswersFail) {
    Station_ hub("hub", m_directory);
    for (int i = 0; i < kPrograms / 4 && !HasFailure(); ++i) {
        ChildProcess_ program([&] { return sendAndExit(200); });
        ASSERT_EQ(program.wait(), Good);

        expectNumbers(hub, 200, true);
    }
}

TEST(LosslessOnTcp, whatIsSentWhileTheConnectionIsBeingMadeArrivesInOrder) {
    const TemporaryFolder_ folder;
    const std::string address = freeTcpAddress();
    const std::string directory = folder.writeFile("directory", {address + " hub"});
    Station_ hub("hub", directory);
    Station_ source("source", directory);
    // With its queue of waiting connections full, the hub does not answer one more before it has accepted
    // some.
    std::vector<RawPeer_> waiting;
    for (int i = 0; i < 21; ++i) waiting.emplace_back(address);

    for (unsigned int number = 0; number < 1000; ++number) {
        ASSERT_TRUE(source.send("hub", "numbered", number));
        ASSERT_FALSE(source.isConnected("hub"));
    }
    source.terminal().waitForMessage(1);
    ASSERT_FALSE(source.isConnected("hub"));

    unsigned int received = 0;
    for (unsigned int i = 0; i < 6000 && received < 1000; ++i) {
        source.terminal().waitForMessage(1);
        for (SP_VekMessage_ sp_message = hub.receive(); !sp_message.isNull(); sp_message = hub.receive())
            ASSERT_EQ(Station_::numberIn(sp_message), received++);
    }
    EXPECT_EQ(received, 1000U);
    EXPECT_TRUE(source.isConnected("hub"));
}
