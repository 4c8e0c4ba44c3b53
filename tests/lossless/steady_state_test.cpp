#include <gtest/gtest.h>
#include <malloc.h>

#include "support/allocation_failure.h"
#include "support/station.h"
#include "support/system_calls.h"
#include "support/temporary_folder.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned int kMessages = 20000;
#else
constexpr unsigned int kMessages = 1000000;
#endif

constexpr unsigned int kBurst = 50;  // messages one way before they are taken
constexpr unsigned int kWarmUp = 40 * kBurst;

/// What the process holds of the heap.
struct Holdings_ {
    long m_blocks = static_cast<long>(allocationCount() - releaseCount());
    std::size_t m_bytes = mallinfo2().uordblks;
};

/// Two terminals of one thread that send bursts of messages to and fro.
class SteadyState : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        m_edge.send("hub", "steady", 0);
        ASSERT_TRUE(m_edge.workUntil([&] { return m_edge.isConnected("hub"); }));
        ASSERT_FALSE(m_hub.await().isNull());
    }

    std::string newAddress() const {
        return GetParam() == std::string("local") ? m_folder.localAddress("hub") : freeTcpAddress();
    }

    void exchange(unsigned int messages) {
        for (unsigned int done = 0; done < messages; done += 2 * kBurst) {
            ASSERT_TRUE(burst(m_edge, m_hub, "hub"));
            ASSERT_TRUE(burst(m_hub, m_edge, "edge"));
        }
    }

    bool burst(Station_& from, Station_& to, const std::string& destination) {
        for (unsigned int i = 0; i < kBurst; ++i)
            if (!from.send(destination, "steady", i)) return false;
        for (unsigned int i = 0; i < kBurst; ++i) {
            const SP_VekMessage_ sp_message = to.await();
            if (sp_message.isNull() || Station_::numberIn(sp_message) != static_cast<long>(i)) return false;
        }
        return true;
    }

    TemporaryFolder_ m_folder;
    const std::string m_directory = m_folder.writeFile("directory", {newAddress() + " hub"});
    Station_ m_hub{"hub", m_directory};
    Station_ m_edge{"edge", m_directory};
};

INSTANTIATE_TEST_SUITE_P(Transports, SteadyState, testing::Values("local", "tcp"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace

TEST_P(SteadyState, manyMessagesTakeOneSendEachAndNoMoreMemory) {
    exchange(kWarmUp);
    SystemCalls_ calls;
    const Holdings_ before;
    const unsigned long allocations = allocationCount();

    exchange(kMessages);

    const Holdings_ after;
    EXPECT_EQ(calls.count(SystemCalls_::Send), kMessages);
    EXPECT_EQ(after.m_blocks, before.m_blocks);
    EXPECT_EQ(after.m_bytes, before.m_bytes);
    RecordProperty("allocations", std::to_string(allocationCount() - allocations));
    std::printf("  %lu allocations, %u recv\n", allocationCount() - allocations,
                calls.count(SystemCalls_::Recv));
}
