#include <gtest/gtest.h>

#include <cerrno>

#include "foundation/quiet_spell.h"
#include "support/child_process.h"
#include "support/raw_peer.h"
#include "support/system_calls.h"
#include "terminal/installation.h"

namespace {

/// How often the kernel was asked.
struct Asked_ {
    unsigned int m_looks;
    unsigned int m_waits;
    unsigned int m_accepts;
    unsigned int m_reads;

    bool operator==(const Asked_& other) const {
        return m_looks == other.m_looks && m_waits == other.m_waits && m_accepts == other.m_accepts &&
               m_reads == other.m_reads;
    }
};

std::ostream& operator<<(std::ostream& stream, const Asked_& asked) {
    return stream << asked.m_looks << " looks, " << asked.m_waits << " waits, " << asked.m_accepts
                  << " accepts, " << asked.m_reads << " reads";
}

Asked_ asked(const SystemCalls_& calls) {
    return {calls.count(SystemCalls_::Look), calls.count(SystemCalls_::Poll),
            calls.count(SystemCalls_::Accept), calls.count(SystemCalls_::Recv)};
}

VekmsgTerminalImpl_* terminalOf(void* p_handle) {
    return static_cast<VekmsgTerminalImpl_*>(p_handle);
}

/// A terminal with one listening socket and `count` peers that have named themselves.
class TerminalQuiet : public Installation_ {
protected:
    ~TerminalQuiet() override { EXPECT_EQ(quietSpell(), kNoQuietSpell); }

    void openWithPeers(unsigned int count) {
        m_anna = openLocal("anna");
        for (unsigned int i = 0; i < count; ++i) {
            m_peers.emplace_back(new RawPeer_(local("anna")));
            m_peers.back()->write(nameBlock("peer" + std::to_string(i)));
            EXPECT_TRUE(m_anna->pass());
        }
        EXPECT_EQ(m_anna->m_activeConnections.size(), count);
    }

    /// A connection that has a socket, of which nothing is awaited.
    void addWithoutEntry(const std::string& peerName) {
        VekSocketAddress_ wildcard;
        wildcard.initializeAsWildcard(VekSocketAddress_::INET_TCP);
        const SP_VekSocket_ sp_socket(new VekSocket_);
        EXPECT_TRUE(sp_socket->initialize(wildcard));
        const SP_TestConnection_ sp_connection = m_anna->addActive(peerName);
        sp_connection->m_sp_socket = sp_socket;
        sp_connection->m_connectionState = VekmsgConnection_::STATE_SENDING_NAME;
    }

    static int pollFd(const std::vector<TestTerminal_*>& terminals, unsigned int timeoutMs) {
        std::vector<void*> handles;
        for (VekmsgTerminalImpl_* p_terminal : terminals) handles.push_back(p_terminal);
        handles.push_back(nullptr);
        return VekmsgTerminalImpl_::pollFd(nullptr, 0, timeoutMs, terminalOf,
                                           reinterpret_cast<char*>(handles.data()));
    }

    Terminal_ m_anna;
    std::vector<std::unique_ptr<RawPeer_>> m_peers;
};

}  // namespace

TEST_F(TerminalQuiet, aPassWithNothingToDoIsOneLook) {
    openWithPeers(3);
    SystemCalls_ calls;

    EXPECT_TRUE(m_anna->pass());

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 0}));
}

TEST_F(TerminalQuiet, aListenerAloneIsWorthALook) {
    openWithPeers(0);
    SystemCalls_ calls;

    EXPECT_TRUE(m_anna->pass());

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 0}));
}

TEST_F(TerminalQuiet, oneStreamAloneIsReadWithoutALook) {
    RawListener_ bert(local("bert"));
    const Terminal_ cora = open("cora", locals({"bert"}));
    ASSERT_TRUE(cora->sendMessage(messageTo("bert", 1)));
    SystemCalls_ calls;

    EXPECT_TRUE(cora->pass());

    EXPECT_EQ(asked(calls), (Asked_{0, 0, 0, 1}));
}

TEST_F(TerminalQuiet, onlyWhoHasSomethingIsRead) {
    openWithPeers(3);
    m_peers[1]->write(messageBlock("anna", "peer1", 1));
    SystemCalls_ calls;

    EXPECT_TRUE(m_anna->pass());

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 3}));  // a header, a payload, and nothing more
    EXPECT_EQ(numbersAt(*m_anna), std::vector<unsigned int>{1});
}

TEST_F(TerminalQuiet, aWaitLooksAtAStreamThatCannotBePolled) {
    openWithPeers(1);
    m_peers.clear();
    SP_BasicBuffer_ sp_nothing;
    EXPECT_FALSE(m_anna->active("peer0")->socket()->check(sp_nothing));  // behind the connection's back
    EXPECT_EQ(m_anna->active("peer0")->socket()->descriptor(), -1);

    EXPECT_EQ(m_anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);

    EXPECT_TRUE(m_anna->m_activeConnections.empty());
}

TEST_F(TerminalQuiet, aWaitWithAListenerThatCannotBePolledTellsItOnce) {
    openWithPeers(1);
    m_anna->m_listeningSockets.front()->cleanUp();

    EXPECT_EQ(m_anna->waitForMessage(1), VekmsgTerminal_::WAIT_ERROR);

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, "bool VekSocket_::fillPollFd(bool, pollfd*, pollfd*&) const",
                                    "VekSocket_::fillPollFd() failed because of the wrong state 0")});
}

TEST_F(TerminalQuiet, socketsWithoutAnEntryDoNotMixUpTheOthers) {
    openWithPeers(2);
    addWithoutEntry("abel");
    addWithoutEntry("peer00");
    addWithoutEntry("zora");
    for (const char* p_peer : {"peer0", "peer1"}) {
        RawPeer_& peer = *m_peers[p_peer[4] == '0' ? 0 : 1];
        EXPECT_EQ(m_anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);
        EXPECT_EQ(pollFd({m_anna.get()}, 1), VekmsgTerminal_::POLL_TIMEOUT);
        peer.write(messageBlock("anna", p_peer, 1));
        EXPECT_EQ(pollFd({m_anna.get()}, 60000), VekmsgTerminal_::POLL_MESSAGE);
        EXPECT_EQ(m_anna->waitForMessage(60000), VekmsgTerminal_::WAIT_MESSAGE);
        EXPECT_EQ(numbersAt(*m_anna), std::vector<unsigned int>{1});
    }
}

TEST_F(TerminalQuiet, behindOneWithoutAnEntryTheLastIsReadInTheFirstPass) {
    openWithPeers(3);
    addWithoutEntry("abel");
    m_peers[2]->write(messageBlock("anna", "peer2", 1));
    SystemCalls_ calls;

    EXPECT_TRUE(m_anna->pass());

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 3}));
    EXPECT_TRUE(m_anna->active("peer2")->hasReceived());
}

TEST_F(TerminalQuiet, aCallThatReceivesNothingIsOneLook) {
    openWithPeers(3);
    SystemCalls_ calls;
    SP_VekMessage_ sp_message;

    EXPECT_TRUE(m_anna->receiveMessage(sp_message));

    EXPECT_FALSE(sp_message);
    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 0}));
}

TEST_F(TerminalQuiet, receivingFromOneAsksNothingOfTheOthers) {
    openWithPeers(3);
    m_peers[1]->write(messageBlock("anna", "peer1", 1));
    SystemCalls_ calls;
    SP_VekMessage_ sp_message;

    EXPECT_TRUE(m_anna->receiveMessage(sp_message));

    EXPECT_EQ(numberIn(sp_message), 1U);
    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 3}));
}

TEST_F(TerminalQuiet, aWaitServesThePassThatFollows) {
    openWithPeers(3);
    SystemCalls_ calls;

    EXPECT_EQ(m_anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);
    EXPECT_EQ(asked(calls), (Asked_{0, 1, 0, 0}));
    EXPECT_EQ(pollFd({m_anna.get()}, 1), VekmsgTerminal_::POLL_TIMEOUT);
    EXPECT_EQ(asked(calls), (Asked_{1, 2, 0, 0}));
}

TEST_F(TerminalQuiet, everySliceOfAWaitServesOnePass) {
    openWithPeers(2);
    SystemCalls_ calls;
    calls.answer(SystemCalls_::Poll, 0, 0, 2);

    EXPECT_EQ(m_anna->waitForMessage(1001), VekmsgTerminal_::WAIT_TIMEOUT);

    EXPECT_EQ(asked(calls), (Asked_{0, 2, 0, 0}));
}

TEST_F(TerminalQuiet, aMessageThatEndsAWaitIsReadAlone) {
    openWithPeers(3);
    SystemCalls_ calls;
    m_peers[2]->write(messageBlock("anna", "peer2", 1));

    EXPECT_EQ(m_anna->waitForMessage(10000), VekmsgTerminal_::WAIT_MESSAGE);

    EXPECT_EQ(asked(calls), (Asked_{0, 1, 0, 3}));
}

TEST_F(TerminalQuiet, aWaitLooksFirstWhereNotOnlyEventsBringWork) {
    openWithPeers(1);
    const auto waitAsks = [&] {
        SystemCalls_ calls;
        EXPECT_EQ(m_anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);
        return asked(calls);
    };
    EXPECT_EQ(waitAsks(), (Asked_{0, 1, 0, 0}));

    RawPeer_ nameless(local("anna"));
    EXPECT_TRUE(m_anna->pass());
    EXPECT_EQ(waitAsks(), (Asked_{1, 1, 0, 0}));
    nameless.close();
    EXPECT_TRUE(m_anna->pass());
    m_records.take();
    EXPECT_EQ(waitAsks(), (Asked_{0, 1, 0, 0}));

    while (m_anna->sendMessage(messageTo("peer0", 1)) &&
           !(*m_anna->m_activeConnections.begin())->socket()->isSendDataPending()) {
    }
    EXPECT_EQ(waitAsks(), (Asked_{1, 1, 0, 0}));
}

TEST_F(TerminalQuiet, aWaitOnMoreSocketsThanItsArrayLooksFirst) {
    std::vector<std::string> lines;
    for (unsigned int i = 0; i < 101; ++i) lines.push_back(local("anna" + std::to_string(i)) + " anna");
    const Terminal_ anna = open("anna", lines);
    SystemCalls_ calls;

    EXPECT_EQ(anna->waitForMessage(1), VekmsgTerminal_::WAIT_ERROR);

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 0}));
    EXPECT_EQ(m_records.take().size(), 1U);  // too many for the array
}

TEST_F(TerminalQuiet, aWaitWithBlocksAtHandMakesItsPassFirst) {
    openWithPeers(1);
    m_peers[0]->write(messageBlock("anna", "peer0", 1));
    EXPECT_TRUE(m_anna->pass());
    SystemCalls_ calls;

    EXPECT_EQ(m_anna->waitForMessage(10000), VekmsgTerminal_::WAIT_MESSAGE);

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 0}));
}

TEST_F(TerminalQuiet, aWaitWhosePollFailsHasStillMadeItsPass) {
    openWithPeers(1);
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Poll, ENOMEM);
    m_peers[0]->write(messageBlock("anna", "peer0", 1));

    EXPECT_EQ(m_anna->waitForMessage(10000), VekmsgTerminal_::WAIT_MESSAGE);

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_EQ(numbersAt(*m_anna), std::vector<unsigned int>{1});
}

TEST_F(TerminalQuiet, aPassBehindAFailedPollMayFailItself) {
    openWithPeers(1);
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Poll, ENOMEM);
    calls.fail(SystemCalls_::Accept, EMFILE);

    EXPECT_EQ(m_anna->waitForMessage(10000), VekmsgTerminal_::WAIT_ERROR);

    EXPECT_EQ(m_records.take().size(), 1U);  // that of accept
}

TEST_F(TerminalQuiet, severalTerminalsShareAWait) {
    openWithPeers(2);
    const Terminal_ bert = openLocal("bert");
    RawPeer_ emil(local("bert"));
    emil.write(nameBlock("emil"));
    ASSERT_TRUE(bert->pass());
    SystemCalls_ calls;
    calls.answer(SystemCalls_::Look, 0, 0, 2);
    emil.write(messageBlock("bert", "emil", 7));

    EXPECT_EQ(pollFd({m_anna.get(), bert.get()}, 10000), VekmsgTerminal_::POLL_MESSAGE);

    EXPECT_EQ(asked(calls), (Asked_{2, 1, 0, 3}));
    EXPECT_EQ(numbersAt(*bert), std::vector<unsigned int>{7});
}

TEST_F(TerminalQuiet, withoutALookAllAreAsked) {
    openWithPeers(3);
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Look, EINTR);

    EXPECT_TRUE(m_anna->pass());

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 1, 3}));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalQuiet, afterAnInterruptedWaitAllAreAsked) {
    openWithPeers(3);
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Poll, EINTR);

    EXPECT_EQ(m_anna->waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);

    EXPECT_EQ(asked(calls), (Asked_{0, 2, 1, 3}));
}

TEST_F(TerminalQuiet, socketsBeyondTheArrayAreAsked) {
    std::vector<std::string> lines;
    for (unsigned int i = 0; i < 258; ++i) lines.push_back(local("anna" + std::to_string(i)) + " anna");
    const Terminal_ anna = open("anna", lines);
    SystemCalls_ calls;

    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 2, 0}));
}

TEST_F(TerminalQuiet, connectionsBeyondTheArrayAreAsked) {
    openWithPeers(258);  // beside one listening socket: three too many
    m_peers[0]->write(messageBlock("anna", "peer0", 1));
    m_peers[200]->write(messageBlock("anna", "peer200", 2));
    SystemCalls_ calls;

    EXPECT_TRUE(m_anna->pass());

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 9}));
    EXPECT_EQ(numbersAt(*m_anna), (std::vector<unsigned int>{1, 2}));
}

TEST_F(TerminalQuiet, theFirstAndTheLastOfManyAreReadInOnePass) {
    openWithPeers(5);
    for (const unsigned int i : {4, 0}) {
        const std::string peer = "peer" + std::to_string(i);
        m_peers[i]->write(messageBlock("anna", peer.c_str(), i + 1));
    }
    SystemCalls_ calls;

    EXPECT_TRUE(m_anna->pass());

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 6}));
    EXPECT_EQ(numbersAt(*m_anna), (std::vector<unsigned int>{1, 5}));
}

TEST_F(TerminalQuiet, blocksAtHandComeWithThoseThatArrive) {
    openWithPeers(4);
    m_peers[3]->write(messageBlock("anna", "peer3", 3));
    EXPECT_TRUE(m_anna->pass());
    m_peers[1]->write(messageBlock("anna", "peer1", 1));
    SystemCalls_ calls;
    SP_VekMessage_ sp_message;

    EXPECT_TRUE(m_anna->receiveMessage(sp_message));

    EXPECT_EQ(asked(calls), (Asked_{1, 0, 0, 3}));
    EXPECT_EQ(numberIn(sp_message), 1U);
    EXPECT_EQ(numberIn(m_anna->m_receivedMessages.front()), 3U);  // taken in the same call
}

TEST_F(TerminalQuiet, oneThatEndsDoesNotHideTheOthers) {
    openWithPeers(4);
    m_peers[0]->write(messageBlock("anna", "peer0", 1));
    m_peers[1]->close();
    m_peers[2]->write(messageBlock("anna", "peer2", 2));

    EXPECT_EQ(m_anna->waitForMessage(10000), VekmsgTerminal_::WAIT_MESSAGE);

    EXPECT_EQ(m_anna->m_activeConnections.size(), 3U);
    EXPECT_TRUE(m_anna->active("peer0")->hasReceived());
    EXPECT_TRUE(m_anna->active("peer2")->hasReceived());
    EXPECT_EQ(numbersAt(*m_anna), (std::vector<unsigned int>{1, 2}));
}

// The connection that was there has nothing to do until the new stream brings it a block.
TEST_F(TerminalQuiet, whatComesWithASecondStreamOfAPeerIsFoundInThePassThatAcceptsIt) {
    openWithPeers(3);
    const auto connectAgain = [&](unsigned int number) {
        m_peers.emplace_back(new RawPeer_(local("anna")));
        m_peers.back()->write(nameBlock("peer1") + messageBlock("anna", "peer1", number));
    };
    connectAgain(1);
    EXPECT_EQ(m_anna->waitForMessage(10000), VekmsgTerminal_::WAIT_MESSAGE);
    EXPECT_EQ(numbersAt(*m_anna), std::vector<unsigned int>{1});
    connectAgain(2);
    SP_VekMessage_ sp_message;

    EXPECT_TRUE(m_anna->receiveMessage(sp_message));

    EXPECT_EQ(numberIn(sp_message), 2U);
    EXPECT_EQ(m_anna->m_activeConnections.size(), 3U);
    m_records.take();  // that there were two
}

TEST_F(TerminalQuiet, aConnectionWithoutASocketDoesNotKeepTheOthersFromBeingRead) {
    openWithPeers(2);
    m_anna->m_unresolvedConnections.push_back(SP_VekmsgConnection_(new VekmsgConnection_));
    m_anna->addActive("peer00");
    m_peers[1]->write(messageBlock("anna", "peer1", 1));

    EXPECT_TRUE(m_anna->pass());

    EXPECT_EQ(numbersAt(*m_anna), std::vector<unsigned int>{1});
    EXPECT_TRUE(m_anna->m_unresolvedConnections.empty());
    EXPECT_EQ(m_anna->m_activeConnections.size(), 2U);
    m_records.take();  // that there was no socket
}

TEST_F(TerminalQuiet, aConnectionThatComesWithoutASocketDuringAWaitIsPassedBy) {
    openWithPeers(1);
    static TestTerminal_* s_p_anna = nullptr;
    static unsigned int s_calls = 0;
    s_p_anna = m_anna.get();
    s_calls = 0;
    const auto addAfterFilling = [](void*) -> VekmsgTerminalImpl_* {
        if (++s_calls == 2) s_p_anna->addActive("abel");
        return s_p_anna;
    };
    void* handles[] = {m_anna.get(), nullptr};

    EXPECT_EQ(VekmsgTerminalImpl_::pollFd(nullptr, 0, 1, addAfterFilling, reinterpret_cast<char*>(handles)),
              VekmsgTerminal_::POLL_TIMEOUT);

    EXPECT_EQ(m_anna->m_activeConnections.size(), 1U);
    m_records.take();  // that there was no socket
}

TEST_F(TerminalQuiet, aPeerAcceptedInThePassIsReadInIt) {
    openWithPeers(1);
    RawPeer_ emil(local("anna"));
    emil.write(nameBlock("emil") + messageBlock("anna", "emil", 5));
    SystemCalls_ calls;

    EXPECT_EQ(m_anna->waitForMessage(10000), VekmsgTerminal_::WAIT_MESSAGE);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 1U);
    EXPECT_EQ(numbersAt(*m_anna), std::vector<unsigned int>{5});
}

TEST_F(TerminalQuiet, urgentDataMakesTheSocketBeRead) {
    const std::string address = freeTcpAddress();
    const Terminal_ anna = open("anna", {address + " anna"});
    RawPeer_ bert(address);
    bert.write(nameBlock("bert"));
    ASSERT_TRUE(eventually([&] { return anna->pass() && anna->isConnected(utf8("bert")); }));
    bert.writeUrgent('!');

    EXPECT_TRUE(eventually([&] {
        SystemCalls_ calls;
        EXPECT_TRUE(anna->pass());
        return asked(calls) == Asked_{1, 0, 0, 1};
    }));
}

// Filters may send to another terminal of the thread, whose socket was quiet when the call looked.
TEST_F(TerminalQuiet, afterAFilterAllAreAsked) {
    openWithPeers(3);
    unsigned int runs = 0;
    m_anna->setReceiveFilter(filterOf([&](SP_VekMessage_&) {
        if (++runs == 1) m_peers[2]->write(messageBlock("anna", "peer2", 2));
        return true;
    }));
    m_peers[0]->write(messageBlock("anna", "peer0", 1));
    SP_VekMessage_ sp_first;
    EXPECT_TRUE(m_anna->receiveMessage(sp_first));
    EXPECT_EQ(numberIn(sp_first), 1U);
    SystemCalls_ calls;

    SP_VekMessage_ sp_second;
    EXPECT_TRUE(m_anna->receiveMessage(sp_second));

    EXPECT_EQ(numberIn(sp_second), 2U);
    EXPECT_EQ(asked(calls), (Asked_{0, 0, 0, 0}));  // it came in the call before
}

TEST_F(TerminalQuiet, whatOneTerminalSendsAnotherOfTheSameCallReads) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    const Terminal_ bert = openLocal("bert", {"anna"});
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    ASSERT_TRUE(bert->pass());
    ASSERT_EQ(numbersAt(*bert), std::vector<unsigned int>{1});
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Send, EAGAIN, 0, 2);  // of the call that sends, and of the pass before the wait
    calls.answer(SystemCalls_::Poll, 0);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 2)));

    EXPECT_EQ(pollFd({anna.get(), bert.get()}, 1000), VekmsgTerminal_::POLL_MESSAGE);

    EXPECT_EQ(calls.count(SystemCalls_::Poll), 1U);
    EXPECT_EQ(numbersAt(*bert), std::vector<unsigned int>{2});
}
