#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>

#include "support/allocation_failure.h"
#include "support/system_calls.h"
#include "terminal/installation.h"

namespace {

VekmsgTerminalImpl_* terminalOf(void* p_handle) {
    return static_cast<VekmsgTerminalImpl_*>(p_handle);
}

VekmsgTerminalImpl_* noTerminal(void*) {
    return nullptr;
}

class Pipe_ {
public:
    Pipe_() { EXPECT_EQ(pipe(m_ends), 0); }
    ~Pipe_() {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    Pipe_(const Pipe_&) = delete;
    Pipe_& operator=(const Pipe_&) = delete;

    void write() { EXPECT_EQ(::write(m_ends[1], "x", 1), 1); }
    pollfd readEntry() const { return {m_ends[0], POLLIN, 0x55}; }
    pollfd writeEntry() const { return {m_ends[1], POLLOUT, 0x55}; }

private:
    int m_ends[2];
};

class TerminalWait : public Installation_ {
protected:
    /// Many addresses of one component: each gives a listening socket and so a poll entry.
    Terminal_ openWithAddresses(const std::string& component, unsigned int count) {
        std::vector<std::string> lines;
        for (unsigned int i = 0; i < count; ++i)
            lines.push_back(local(component + std::to_string(i)) + " " + component);
        return open(component, lines);
    }

    RawPeer_ peer(const std::string& address, const Bytes_& bytes) {
        RawPeer_ peer(local(address));
        peer.write(bytes);
        return peer;
    }

    int pollFd(std::vector<pollfd>& entries, unsigned int timeoutMs,
               const std::vector<TestTerminal_*>& terminals) {
        std::vector<void*> handles;
        for (VekmsgTerminalImpl_* p_terminal : terminals) handles.push_back(p_terminal);
        handles.push_back(nullptr);
        return VekmsgTerminalImpl_::pollFd(entries.data(), static_cast<unsigned int>(entries.size()),
                                           timeoutMs, terminalOf, reinterpret_cast<char*>(handles.data()));
    }

    int pollFd(unsigned int timeoutMs, const std::vector<TestTerminal_*>& terminals) {
        std::vector<pollfd> none;
        return pollFd(none, timeoutMs, terminals);
    }

    const Bytes_ m_bertsMessage = nameBlock("bert") + messageBlock("anna", "bert", 1);
};

const Record_ kNotEnough100 =
    error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() count 100 is not enough for anna");

Record_ noAccept(const std::string& address) {
    return socketRecord(
        3, "bool VekSocket_::accept(SP_VekSocket_&)",
        "VekSocket_::accept() accept(" + address + ") failed with error(24): Too many open files");
}

}  // namespace

TEST_F(TerminalWait, aClosedTerminalDoesNotWait) {
    TestTerminal_ terminal;

    EXPECT_EQ(terminal.waitForMessage(1000), VekmsgTerminal_::WAIT_ERROR);

    EXPECT_EQ(m_records.take(),
              Records_{error(kWait, "VekmsgTerminalImpl_::waitForMessage() null m_sp_componentName")});
}

TEST_F(TerminalWait, aQueuedMessageEndsTheWaitWithoutAPoll) {
    const Terminal_ anna = openLocal("anna");
    anna->m_receivedMessages.push_back(messageTo("anna", 1));
    SystemCalls_ calls;

    EXPECT_EQ(anna->waitForMessage(60000), VekmsgTerminal_::WAIT_MESSAGE);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 0U);
    EXPECT_EQ(calls.count(SystemCalls_::Accept), 0U);
}

TEST_F(TerminalWait, aKeptBlockEndsTheWaitWithoutAPoll) {
    const Terminal_ anna = openLocal("anna");
    anna->m_keptBlocks.push_back({name("bert"), BufferQueue_(1, bufferOf("kept"))});
    SystemCalls_ calls;

    EXPECT_EQ(anna->waitForMessage(60000), VekmsgTerminal_::WAIT_MESSAGE);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 0U);
}

TEST_F(TerminalWait, dataThatIsThereEndsTheWaitAtOnce) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ bert = peer("anna", m_bertsMessage);
    SystemCalls_ calls;

    EXPECT_EQ(anna->waitForMessage(60000), VekmsgTerminal_::WAIT_MESSAGE);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), VEKMSG_QUIET_SPELLS ? 1U : 0U);
    EXPECT_EQ(numbersAt(*anna), std::vector<unsigned int>{1});
}

TEST_F(TerminalWait, aPeerThatOnlyNamesItselfDoesNotEndTheWait) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ bert = peer("anna", nameBlock("bert"));

    EXPECT_EQ(anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);

    EXPECT_TRUE(anna->isConnected(utf8("bert")));
}

TEST_F(TerminalWait, aWaitOfZeroPollsOnce) {
    const Terminal_ anna = openLocal("anna");
    SystemCalls_ calls;

    EXPECT_EQ(anna->waitForMessage(0), VekmsgTerminal_::WAIT_TIMEOUT);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 1U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalWait, aWaitIsMadeOfSlicesOfOneSecond) {
    const Terminal_ anna = openLocal("anna");
    struct {
        unsigned int m_timeoutMs;
        unsigned int m_polls;
    } const cases[] = {{0, 1}, {1, 1}, {1000, 1}, {1001, 2}, {2500, 3}, {60000, 60}};
    for (const auto& each : cases) {
        SystemCalls_ calls;
        calls.answer(SystemCalls_::Poll, 0, 0, 1000);

        EXPECT_EQ(anna->waitForMessage(each.m_timeoutMs), VekmsgTerminal_::WAIT_TIMEOUT);

        EXPECT_EQ(calls.count(SystemCalls_::Poll), each.m_polls) << each.m_timeoutMs;
    }
}

TEST_F(TerminalWait, timeSpentOnEventsIsNotCharged) {
    const Terminal_ anna = openLocal("anna");
    SystemCalls_ calls;
    calls.answer(SystemCalls_::Poll, 1, 0, 50);

    EXPECT_EQ(anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 51U);
}

TEST_F(TerminalWait, anInterruptedPollIsNotChargedAndMadeAgain) {
    const Terminal_ anna = openLocal("anna");
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Poll, EINTR, 0, 5);

    EXPECT_EQ(anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 6U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalWait, aFailingPollFailsTheWait) {
    const Terminal_ anna = openLocal("anna");
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Poll, EINVAL);
    EXPECT_EQ(anna->waitForMessage(1500), VekmsgTerminal_::WAIT_ERROR);
    calls.fail(SystemCalls_::Poll, ENOMEM, 1);
    EXPECT_EQ(anna->waitForMessage(1500), VekmsgTerminal_::WAIT_ERROR);

    EXPECT_EQ(m_records.take(),
              (Records_{error(kWait,
                              "VekmsgTerminalImpl_::waitForMessage(1500) poll() for anna failed with "
                              "error(22) Invalid argument"),
                        error(kWait,
                              "VekmsgTerminalImpl_::waitForMessage(500) poll() for anna failed with "
                              "error(12) Cannot allocate memory")}));
}

TEST_F(TerminalWait, aTimeoutHas32Bits) {
    const Terminal_ anna = openLocal("anna");
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Poll, EINVAL, 0, 2);

    EXPECT_EQ(anna->waitForMessage(0xFFFFFFFFU), VekmsgTerminal_::WAIT_ERROR);
    EXPECT_EQ(pollFd(0xFFFFFFFFU, {}), VekmsgTerminal_::POLL_ERROR);

    EXPECT_EQ(m_records.take(),
              (Records_{error(kWait,
                              "VekmsgTerminalImpl_::waitForMessage(4294967295) poll() for anna failed with "
                              "error(22) Invalid argument"),
                        error(kPollFd,
                              "VekmsgTerminal_::pollFd(4294967295) poll() for multiple terminal failed with "
                              "error(22) Invalid argument")}));
}

TEST_F(TerminalWait, aFailingPassFailsTheWait) {
    const Terminal_ anna = openLocal("anna");
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Accept, EMFILE);

    EXPECT_EQ(anna->waitForMessage(1), VekmsgTerminal_::WAIT_ERROR);

    EXPECT_EQ(m_records.take(), Records_{noAccept(local("anna"))});
}

TEST_F(TerminalWait, aWaitHasRoomForAHundredDescriptors) {
    const Terminal_ anna = openWithAddresses("anna", 100);
    EXPECT_EQ(anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);
    RawPeer_ oneTooMany = peer("anna0", nameBlock("bert"));

    EXPECT_EQ(anna->waitForMessage(1), VekmsgTerminal_::WAIT_ERROR);

    EXPECT_EQ(m_records.take(), Records_{kNotEnough100});
}

TEST_F(TerminalWait, withCallersDescriptorsAlonePollFdIsAPoll) {
    Pipe_ readable;
    Pipe_ silent;
    readable.write();
    std::vector<pollfd> entries = {readable.readEntry(), silent.readEntry(), silent.writeEntry()};

    EXPECT_EQ(pollFd(entries, 60000, {}), 2);

    EXPECT_EQ(entries[0].revents, POLLIN);
    EXPECT_EQ(entries[1].revents, 0);
    EXPECT_EQ(entries[2].revents, POLLOUT);
    EXPECT_EQ(entries[0].events, POLLIN);
}

TEST_F(TerminalWait, pollFdTimesOutInSlicesOfOneSecond) {
    const Terminal_ anna = openLocal("anna");
    struct {
        unsigned int m_timeoutMs;
        unsigned int m_polls;
    } const cases[] = {{0, 1}, {1, 1}, {1000, 1}, {1001, 2}, {2500, 3}};
    for (const auto& each : cases) {
        SystemCalls_ calls;
        calls.answer(SystemCalls_::Poll, 0, 0, 100);

        EXPECT_EQ(pollFd(each.m_timeoutMs, {anna.get()}), VekmsgTerminal_::POLL_TIMEOUT);

        EXPECT_EQ(calls.count(SystemCalls_::Poll), each.m_polls) << each.m_timeoutMs;
    }
}

TEST_F(TerminalWait, aTimeoutLeavesTheCallersReturnedEventsAlone) {
    Pipe_ silent;
    std::vector<pollfd> entries = {silent.readEntry()};

    EXPECT_EQ(pollFd(entries, 0, {}), VekmsgTerminal_::POLL_TIMEOUT);

    EXPECT_EQ(entries[0].revents, 0x55);
}

TEST_F(TerminalWait, anInterruptedPollFdIsNotChargedAndMadeAgain) {
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Poll, EINTR, 0, 5);

    EXPECT_EQ(pollFd(1, {}), VekmsgTerminal_::POLL_TIMEOUT);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 6U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalWait, aFailingPollFailsPollFd) {
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Poll, EINVAL);

    EXPECT_EQ(pollFd(700, {}), VekmsgTerminal_::POLL_ERROR);

    EXPECT_EQ(m_records.take(),
              Records_{error(kPollFd,
                             "VekmsgTerminal_::pollFd(700) poll() for multiple terminal failed with "
                             "error(22) Invalid argument")});
}

TEST_F(TerminalWait, theRecordOfAFailingPollFdShowsTheTimeThatRemained) {
    SystemCalls_ calls;
    calls.answer(SystemCalls_::Poll, 0);
    calls.then().fail(SystemCalls_::Poll, ENOMEM);

    EXPECT_EQ(pollFd(1700, {}), VekmsgTerminal_::POLL_ERROR);

    EXPECT_EQ(m_records.take(),
              Records_{error(kPollFd,
                             "VekmsgTerminal_::pollFd(700) poll() for multiple terminal failed with "
                             "error(12) Cannot allocate memory")});
}

TEST_F(TerminalWait, pollFdTakesAtMost128CallersDescriptors) {
    Pipe_ readable;
    readable.write();
    std::vector<pollfd> entries(128, readable.readEntry());
    EXPECT_EQ(pollFd(entries, 0, {}), 128);
    entries.push_back(readable.readEntry());

    EXPECT_EQ(pollFd(entries, 0, {}), VekmsgTerminal_::POLL_ERROR);

    EXPECT_EQ(m_records.take(),
              Records_{error(kPollFd, "VekmsgTerminalImpl_::pollFd() pollfd count 129 > 128")});
}

TEST_F(TerminalWait, withoutAnArrayTheCountOfCallersDescriptorsDoesNotMatter) {
    void* const handles[] = {nullptr};
    char* p_handles = const_cast<char*>(reinterpret_cast<const char*>(handles));

    EXPECT_EQ(VekmsgTerminalImpl_::pollFd(nullptr, 500, 0, terminalOf, p_handles),
              VekmsgTerminal_::POLL_TIMEOUT);
    EXPECT_EQ(VekmsgTerminalImpl_::pollFd(nullptr, 0, 0, terminalOf, nullptr), VekmsgTerminal_::POLL_TIMEOUT);

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalWait, aNullFromTheAccessorIsAClosedTerminal) {
    TestTerminal_ closed;
    void* handles[] = {&closed, nullptr};

    EXPECT_EQ(VekmsgTerminalImpl_::pollFd(nullptr, 0, 0, noTerminal, reinterpret_cast<char*>(handles)),
              VekmsgTerminal_::POLL_TIMEOUT);
    EXPECT_EQ(pollFd(0, {&closed}), VekmsgTerminal_::POLL_TIMEOUT);

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalWait, anAccessorThatThrowsFailsPollFd) {
    void* handles[] = {this, nullptr};

    EXPECT_EQ(VekmsgTerminalImpl_::pollFd(
                  nullptr, 0, 0, [](void*) -> VekmsgTerminalImpl_* { throw std::runtime_error("none"); },
                  reinterpret_cast<char*>(handles)),
              VekmsgTerminal_::POLL_ERROR);

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalWait, dataOfOneTerminalIsTheResultWithoutAPoll) {
    const Terminal_ anna = openLocal("anna");
    const Terminal_ cora = openLocal("cora");
    const Terminal_ dora = openLocal("dora");
    RawPeer_ bert = peer("cora", m_bertsMessage);
    RawPeer_ emil = peer("dora", nameBlock("emil"));
    SystemCalls_ calls;

    EXPECT_EQ(pollFd(60000, {anna.get(), cora.get(), dora.get()}), VekmsgTerminal_::POLL_MESSAGE);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 0U);
    EXPECT_TRUE(dora->isConnected(utf8("emil")));  // terminals behind the one with data are served too
}

TEST_F(TerminalWait, dataOfATerminalComesBeforeTheCallersDescriptors) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ bert = peer("anna", m_bertsMessage);
    Pipe_ readable;
    readable.write();
    std::vector<pollfd> entries = {readable.readEntry()};

    EXPECT_EQ(pollFd(entries, 60000, {anna.get()}), VekmsgTerminal_::POLL_MESSAGE);

    EXPECT_EQ(entries[0].revents, 0x55);
}

TEST_F(TerminalWait, dataThatComesDuringThePollIsTheResult) {
    const Terminal_ anna = openLocal("anna");
    const Terminal_ cora = openLocal("cora");
    SystemCalls_ calls;
    RawPeer_ bert(local("cora"));
    // The first look at cora's listening socket finds nobody; the poll then reports the peer.
    calls.fail(SystemCalls_::Accept, EAGAIN, 0, 2);
    bert.write(m_bertsMessage);

    EXPECT_EQ(pollFd(60000, {anna.get(), cora.get()}), VekmsgTerminal_::POLL_MESSAGE);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 1U);
}

TEST_F(TerminalWait, terminalsBehindTheOneWhoseDataCameDuringThePollAreServedToo) {
    const Terminal_ anna = openLocal("anna");
    const Terminal_ cora = openLocal("cora");
    RawPeer_ bert = peer("anna", m_bertsMessage);
    RawPeer_ emil = peer("cora", nameBlock("emil"));
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Accept, EAGAIN, 0, 2);  // the look before the poll finds nobody

    EXPECT_EQ(pollFd(60000, {anna.get(), cora.get()}), VekmsgTerminal_::POLL_MESSAGE);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 1U);
    EXPECT_TRUE(anna->isConnected(utf8("bert")));
    EXPECT_TRUE(cora->isConnected(utf8("emil")));
}

TEST_F(TerminalWait, dataThatComesAtTheLastMomentIsTheResultWhicheverTerminalHasIt) {
    for (const unsigned int place : {0U, 1U, 2U}) {
        const Terminal_ terminals[] = {openLocal("anna"), openLocal("cora"), openLocal("dora")};
        RawPeer_ bert = peer(text(terminals[place]->m_sp_componentName->c_str()), m_bertsMessage);
        SystemCalls_ calls;
        calls.fail(SystemCalls_::Accept, EAGAIN, 0, 3);  // the look before the poll finds nobody

        EXPECT_EQ(pollFd(0, {terminals[0].get(), terminals[1].get(), terminals[2].get()}),
                  VekmsgTerminal_::POLL_MESSAGE)
            << place;

        EXPECT_EQ(calls.count(SystemCalls_::Poll), 1U);
    }
}

TEST_F(TerminalWait, readyCallersDescriptorsComeBeforeDataThatCameDuringThePoll) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ bert = peer("anna", m_bertsMessage);
    Pipe_ readable;
    readable.write();
    std::vector<pollfd> entries = {readable.readEntry()};
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Accept, EAGAIN);

    EXPECT_EQ(pollFd(entries, 60000, {anna.get()}), 1);

    EXPECT_EQ(entries[0].revents, POLLIN);
    EXPECT_EQ(numbersAt(*anna), std::vector<unsigned int>{1});
}

TEST_F(TerminalWait, aFailingPassFailsPollFdBeforeAndAfterThePoll) {
    const Terminal_ anna = openLocal("anna");
    Pipe_ readable;
    readable.write();
    std::vector<pollfd> entries = {readable.readEntry()};
    for (unsigned int passes = 0; passes < 2; ++passes) {
        SystemCalls_ calls;
        calls.fail(SystemCalls_::Accept, EMFILE, passes);

        EXPECT_EQ(pollFd(entries, 60000, {anna.get()}), VekmsgTerminal_::POLL_ERROR);

        EXPECT_EQ(calls.count(SystemCalls_::Poll), passes);
        EXPECT_EQ(m_records.take(), Records_{noAccept(local("anna"))});
    }
}

TEST_F(TerminalWait, pollFdHasRoomFor256DescriptorsInAll) {
    Pipe_ silent;
    std::vector<pollfd> entries(128, silent.readEntry());
    const Terminal_ anna = openWithAddresses("anna", 128);
    const Terminal_ bert = openWithAddresses("bert", 129);

    EXPECT_EQ(pollFd(entries, 0, {anna.get()}), VekmsgTerminal_::POLL_TIMEOUT);
    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_EQ(pollFd(entries, 0, {bert.get()}), VekmsgTerminal_::POLL_ERROR);

    EXPECT_EQ(
        m_records.take(),
        Records_{error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() count 128 is not enough for bert")});
}

TEST_F(TerminalWait, aTerminalNeedsRoomForThreeInPollFdToo) {
    const Terminal_ anna = openWithAddresses("anna", 127);
    const Terminal_ bert = openWithAddresses("bert", 127);
    const Terminal_ cora = openLocal("cora");

    EXPECT_EQ(pollFd(0, {anna.get(), bert.get(), cora.get()}), VekmsgTerminal_::POLL_ERROR);

    EXPECT_EQ(m_records.take(),
              Records_{error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() count 2 < 3 for cora")});
}

TEST_F(TerminalWait, aNullNameIsNotConnected) {
    const Terminal_ anna = openLocal("anna");

    EXPECT_FALSE(anna->isConnected(nullptr));

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalWait, aPeerIsConnectedFromItsNameToItsEnd) {
    const Terminal_ anna = openLocal("anna");
    EXPECT_FALSE(anna->isConnected(utf8("bert")));
    RawPeer_ bert(local("anna"));
    ASSERT_TRUE(anna->pass());
    EXPECT_EQ(anna->m_unresolvedConnections.size(), 1U);
    EXPECT_FALSE(anna->isConnected(utf8("bert")));

    bert.write(nameBlock("bert"));
    ASSERT_TRUE(anna->pass());
    EXPECT_TRUE(anna->isConnected(utf8("bert")));
    EXPECT_FALSE(anna->isConnected(utf8("ber")));
    EXPECT_FALSE(anna->isConnected(utf8("berta")));

    bert.close();
    ASSERT_TRUE(anna->pass());
    EXPECT_FALSE(anna->isConnected(utf8("bert")));
}

TEST_F(TerminalWait, aConnectionUnderWayIsNotConnected) {
    const Terminal_ anna = open("anna", {"inettcp://127.0.0.1:9 bert"});
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Connect, EINPROGRESS);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_FALSE(anna->isConnected(utf8("bert")));

    EXPECT_EQ(anna->m_activeConnections.size(), 1U);
}

TEST_F(TerminalWait, withoutMemoryNobodyIsConnected) {
    const std::string path = directory("anna", locals({"anna"}));

    const Outcomes_ outcomes = failEachAllocation([&]() -> Call_ {
        const std::shared_ptr<TestTerminal_> anna(new TestTerminal_);
        anna->open(utf8("anna"), path.c_str());
        const std::shared_ptr<RawPeer_> bert(new RawPeer_(local("anna")));
        bert->write(nameBlock("bert"));
        EXPECT_TRUE(anna->pass());
        EXPECT_TRUE(anna->active("bert")->isConnected());
        return [=] { return bert && anna->isConnected(utf8("bert")); };
    });

    ASSERT_FALSE(outcomes.empty());
    for (const Outcome_& outcome : outcomes) EXPECT_EQ(outcome, (Outcome_{false, {}}));
}
