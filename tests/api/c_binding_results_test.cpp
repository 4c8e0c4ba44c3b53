// What the C functions make of the results of waiting, those included that no terminal returns: the
// operations behind them are replaced, and return what the test says.

#include <gtest/gtest.h>

#include <vector>

#include "terminal/terminal_impl.h"
#include "vekmsg/c_binding.h"

namespace {

int g_result;
unsigned int g_timeout;
unsigned int g_count;
pollfd* g_p_pollFd;
std::vector<void*> g_terminals;

class CBindingResults : public testing::Test {
protected:
    vekmsg_terminal_wait_result_ wait(int result) {
        g_result = result;
        return vekmsg_terminal_wait_for_message(&m_terminal, 17);
    }

    int poll(int result) {
        g_result = result;
        g_terminals.clear();
        return vekmsg_terminal_pollfd(&m_entry, 1, 18, &m_terminal, &m_other, static_cast<void*>(nullptr));
    }

    VekmsgTerminalImpl_ m_terminal;
    VekmsgTerminalImpl_ m_other;
    pollfd m_entry = {};
};

}  // namespace

VekmsgTerminal_::WaitResult_ VekmsgTerminalImpl_::waitForMessage(unsigned int timeoutMs) {
    g_timeout = timeoutMs;
    return static_cast<WaitResult_>(g_result);
}

VekmsgTerminal_::PollResult_ VekmsgTerminalImpl_::pollFd(pollfd* p_pollFd, unsigned int count,
                                                         unsigned int timeoutMs,
                                                         VekmsgTerminalImpl_* (*accessor)(void*),
                                                         char* handles) {
    g_p_pollFd = p_pollFd;
    g_count = count;
    g_timeout = timeoutMs;
    for (void** p_handle = reinterpret_cast<void**>(handles); *p_handle != nullptr; ++p_handle)
        g_terminals.push_back(accessor(*p_handle));
    return static_cast<PollResult_>(g_result);
}

// Lives in the same file as the two above, so that all three have to be replaced.
bool VekmsgTerminalImpl_::isConnected(const Utf8Char_*) const {
    return false;
}

TEST_F(CBindingResults, aTimeoutAndAMessageArePassedOn) {
    EXPECT_EQ(wait(1), VEKMSG_WAIT_TIMEOUT);
    EXPECT_EQ(wait(2), VEKMSG_WAIT_MESSAGE);
    EXPECT_EQ(g_timeout, 17U);
}

TEST_F(CBindingResults, anyOtherWaitResultIsAnError) {
    EXPECT_EQ(wait(0), VEKMSG_WAIT_ERROR);
    EXPECT_EQ(wait(3), VEKMSG_WAIT_ERROR);
    EXPECT_EQ(wait(-1), VEKMSG_WAIT_ERROR);
}

TEST_F(CBindingResults, pollCountsAndTimeoutsArePassedOn) {
    EXPECT_EQ(poll(-1), -1);
    EXPECT_EQ(poll(0), 0);
    EXPECT_EQ(poll(1), 1);
    EXPECT_EQ(poll(128), 128);
}

TEST_F(CBindingResults, anyLowerPollResultIsAnError) {
    EXPECT_EQ(poll(-2), -2);
    EXPECT_EQ(poll(-3), -2);
    EXPECT_EQ(poll(-1000), -2);
}

TEST_F(CBindingResults, pollHandsOnWhatItWasGiven) {
    EXPECT_EQ(poll(0), 0);

    EXPECT_EQ(g_p_pollFd, &m_entry);
    EXPECT_EQ(g_count, 1U);
    EXPECT_EQ(g_timeout, 18U);
    EXPECT_EQ(g_terminals, (std::vector<void*>{&m_terminal, &m_other}));  // a handle is the terminal itself
}
