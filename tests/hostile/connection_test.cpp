#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include "hostile/hostile_input.h"
#include "hostile/open_terminal.h"
#include "support/wire_bytes.h"

namespace {

constexpr std::size_t kStreamsAtOnce = 8;
constexpr unsigned int kInputsPerStock = 500;

/// As many blocks as the library's lists of used ones may hold, and what messages under way take.
constexpr long kBlocksOnLists = 3000;

std::string randomBlock(Random_& random, const std::string& source) {
    static const char* const s_destinations[] = {"own", "own", "own", "undisturbed", "nobody", ""};
    switch (random.below(6)) {
        case 0:
            return wire::block(random.below(9), random.bytes(random.below(60)));
        case 1:
            return wire::messageBlock(
                wire::header("own", source, 3, "VEK Pinger Request Format version 1.0") +
                wire::element(1, wire::Uint, wire::u32(7)));
        default:
            return wire::messageBlock(randomMessage(random, s_destinations[random.below(6)], source));
    }
}

/// What a hostile peer sends: a session that is nearly right, or nothing like one.
std::string randomSession(Random_& random) {
    if (random.oneIn(16)) return random.bytes(random.below(200));
    const std::string name = random.text(random.below(random.oneIn(16) ? 3000 : 12), "hostile");
    std::string session = random.oneIn(16) ? std::string() : wire::nameBlock(name);
    for (unsigned int blocks = random.below(6); blocks != 0; --blocks) session += randomBlock(random, name);
    if (!random.oneIn(4)) mutate(random, session);
    return session;
}

/// One more hostile stream to an open terminal, while some of the streams before still stand.
class ConnectionCheck_ {
public:
    bool operator()(Random_& random) {
        connect(random);
        std::string session = randomSession(random);
        while (!session.empty()) {
            const std::size_t part = random.oneIn(2)
                                         ? session.size()
                                         : 1 + random.below(static_cast<unsigned int>(session.size()));
            if (m_streams.back().writeSome(session.substr(0, part)) == 0) break;
            session.erase(0, part);
            if (!session.empty()) m_terminal.exchange();
        }
        m_terminal.exchange();
        look();
        const bool isAccepted = !m_terminal.takeReceived().empty();
        endSome(random);
        if (++m_inputs % kInputsPerStock == 0) takeStock();
        return isAccepted;
    }

private:
    void connect(Random_& random) {
        const bool isTcp = random.oneIn(16);
        m_streams.emplace_back(isTcp ? m_terminal.tcpAddress() : m_terminal.localAddress());
        if (isTcp) m_streams.back().resetOnClose();
    }

    /// What an application does with what came.
    void look() const {
        std::ostringstream text;
        for (const SP_VekMessage_& sp_message : m_terminal.received()) sp_message->print(&text, 0);
    }

    void endSome(Random_& random) {
        while (!m_streams.empty() && (m_streams.size() >= kStreamsAtOnce || random.oneIn(2))) {
            const auto chosen = m_streams.begin() + random.below(static_cast<unsigned int>(m_streams.size()));
            if (random.oneIn(2)) chosen->finish();
            m_streams.erase(chosen);
        }
    }

    /// Without hostile streams the terminal is as it was, however many there have been.
    void takeStock() {
        m_streams.clear();
        ASSERT_TRUE(m_terminal.isAloneAgain());
        m_terminal.exchange();
        const unsigned int descriptors = openDescriptors();
        const long blocks = liveBlocks();
        if (m_descriptors == 0) {
            m_descriptors = descriptors;
            m_blocks = blocks;
        }
        ASSERT_EQ(descriptors, m_descriptors);
        ASSERT_LE(blocks, m_blocks + kBlocksOnLists);
    }

    OpenTerminal_ m_terminal;
    std::vector<RawPeer_> m_streams;
    unsigned int m_inputs = 0;
    unsigned int m_descriptors = 0;
    long m_blocks = 0;
};

}  // namespace

TEST(HostileInput, streamsToAnOpenTerminalLeaveItsGoodPeerUndisturbed) {
    forEachInput("streams", checkBy<ConnectionCheck_>, "VEKMSG_HOSTILE_STREAMS");
}
