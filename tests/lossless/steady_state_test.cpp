#include <gtest/gtest.h>
#include <malloc.h>

#include "support/allocation_failure.h"
#include "support/station.h"
#include "support/system_calls.h"
#include "support/temporary_folder.h"

namespace {

// Sanitizers slow everything down.
#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned int kMessages = 20000;
constexpr unsigned int kTcpMessages = 20000;
#else
constexpr unsigned int kMessages = 1000000;
constexpr unsigned int kTcpMessages = 200000;
#endif

constexpr unsigned int kBurst = 50;  // messages one way before they are taken
constexpr unsigned int kWarmUp = 40 * kBurst;

/// What has been asked of the heap, and what is held of it.
struct Holdings_ {
    unsigned long m_allocations = allocationCount();
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

    bool isLocal() const { return GetParam() == std::string("local"); }

    std::string newAddress() const { return isLocal() ? m_folder.localAddress("hub") : freeTcpAddress(); }

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
    const unsigned int messages = isLocal() ? kMessages : kTcpMessages;
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
