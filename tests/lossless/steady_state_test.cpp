#include <gtest/gtest.h>
#include <malloc.h>

#include <ostream>
#include <string>

#include "support/allocation_failure.h"
#include "support/station.h"
#include "support/system_calls.h"
#include "support/temporary_folder.h"

namespace {

// Sanitizers slow everything down.
#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned int kMessages = 20000;
constexpr unsigned int kFewerMessages = 20000;
#else
constexpr unsigned int kMessages = 1000000;
constexpr unsigned int kFewerMessages = 200000;
#endif

constexpr unsigned int kBurst = 50;  // messages one way before they are taken
constexpr unsigned int kWarmUp = 40 * kBurst;

/// What has been asked of the heap, and what is held of it.
struct Holdings_ {
    unsigned long m_allocations = allocationCount();
    long m_blocks = static_cast<long>(allocationCount() - releaseCount());
    std::size_t m_bytes = mallinfo2().uordblks;
};

struct Setting_ {
    const char* m_name;
    bool m_isLocal;
    unsigned int m_messages;
    std::string m_hub;
    std::string m_edge;
    std::string m_schema;
};

std::ostream& operator<<(std::ostream& stream, const Setting_& setting) {
    return stream << setting.m_name;
}

/// Two terminals of one thread that send bursts of messages to and fro.
class SteadyState : public testing::TestWithParam<Setting_> {
protected:
    void SetUp() override {
        m_edge.send(GetParam().m_hub, GetParam().m_schema, 0);
        ASSERT_TRUE(m_edge.workUntil([&] { return m_edge.isConnected(GetParam().m_hub); }));
        ASSERT_FALSE(m_hub.await().isNull());
    }

    std::string newAddress() const {
        return GetParam().m_isLocal ? m_folder.localAddress("hub") : freeTcpAddress();
    }

    void exchange(unsigned int messages) {
        for (unsigned int done = 0; done < messages; done += 2 * kBurst) {
            ASSERT_TRUE(burst(m_edge, m_hub, GetParam().m_hub));
            ASSERT_TRUE(burst(m_hub, m_edge, GetParam().m_edge));
        }
    }

    bool burst(Station_& from, Station_& to, const std::string& destination) {
        for (unsigned int i = 0; i < kBurst; ++i)
            if (!from.send(destination, GetParam().m_schema, i)) return false;
        for (unsigned int i = 0; i < kBurst; ++i) {
            const SP_VekMessage_ sp_message = to.await();
            if (sp_message.isNull() || Station_::numberIn(sp_message) != static_cast<long>(i)) return false;
        }
        return true;
    }

    TemporaryFolder_ m_folder;
    const std::string m_directory = m_folder.writeFile("directory", {newAddress() + " " + GetParam().m_hub});
    Station_ m_hub{GetParam().m_hub, m_directory};
    Station_ m_edge{GetParam().m_edge, m_directory};
};

// Names beyond the room inside a string, as installations that number their components have them.
INSTANTIATE_TEST_SUITE_P(
    Transports, SteadyState,
    testing::Values(Setting_{"local", true, kMessages, "hub", "edge", "steady"},
                    Setting_{"tcp", false, kFewerMessages, "hub", "edge", "steady"},
                    Setting_{"longNames", true, kFewerMessages, "installation.kitchen.temperature-controller",
                             "installation.panel.north-wing", "urn:example:installation:temperature:1"}),
    [](const auto& info) { return std::string(info.param.m_name); });

}  // namespace

TEST_P(SteadyState, manyMessagesTakeOneSendEachAndNoMoreMemory) {
    const unsigned int messages = GetParam().m_messages;
    exchange(kWarmUp);
    SystemCalls_ calls;
    const Holdings_ before;

    exchange(messages);

    const Holdings_ after;
    EXPECT_EQ(calls.count(SystemCalls_::Send), messages);
    EXPECT_EQ(after.m_blocks, before.m_blocks);
    EXPECT_EQ(after.m_bytes, before.m_bytes);
#if VEKMSG_FREE_LISTS
    EXPECT_EQ(after.m_allocations, before.m_allocations);
#endif
}
