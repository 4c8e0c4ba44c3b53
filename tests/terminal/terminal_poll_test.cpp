#include <gtest/gtest.h>

#include <set>

#include "support/child_process.h"
#include "support/system_calls.h"
#include "terminal/installation.h"
#include "vekmsg/log.h"

namespace {

using namespace std::string_literals;

constexpr char kConnecting[] = "bool VekSocket_::connecting()";
constexpr char kNameHeader[] =
#ifdef __clang__
    "bool VekmsgConnection_::processPollEvents(VekmsgConnection_::NameHeader_, libcpp::SP_BasicBuffer_&)";
#else
    "bool VekmsgConnection_::processPollEvents(NameHeader_, libcpp::SP_BasicBuffer_&)";
#endif

const Record_ kDeletingUnresolved = debug(kResolving, "Deleting unresolved connection at anna");

Record_ deletingActive(const std::string& own, const std::string& peer) {
    return debug(kServing, "Deleting active connection between " + own + " and " + peer);
}

Record_ notEnough(unsigned int count) {
    return error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() count " + std::to_string(count) +
                            " is not enough for anna");
}

int descriptorOf(const SP_VekmsgConnection_& sp_connection) {
    SP_VekSocket_ sp_socket;
    return sp_connection->getSocket(sp_socket) ? sp_socket->descriptor() : -1;
}

class TerminalPoll : public Installation_ {
protected:
    /// A peer whose name has been taken.
    RawPeer_ resolvedPeer(TestTerminal_& terminal, const std::string& peerName) {
        RawPeer_ peer(local(text(terminal.m_sp_componentName->c_str())));
        peer.write(nameBlock(peerName));
        EXPECT_TRUE(terminal.pass());
        EXPECT_FALSE(terminal.active(peerName).isNull());
        return peer;
    }

    /// A terminal with an own connection to a raw peer, established, on which one message has left.
    RawPeer_ connectedPeer(TestTerminal_& terminal, RawListener_& listener, const std::string& peerName) {
        EXPECT_TRUE(terminal.sendMessage(messageTo(peerName, 1)));
        RawPeer_ peer = listener.accept();
        EXPECT_EQ(peer.readBlock(), nameBlock(text(terminal.m_sp_componentName->c_str())));
        peer.readBlock();
        return peer;
    }

    std::vector<pollfd> fill(TestTerminal_& terminal, unsigned int capacity) {
        std::vector<pollfd> entries(capacity);
        unsigned int count = capacity;
        m_isFilled = terminal.fillPollFdArray(entries.data(), count);
        entries.resize(count);
        return entries;
    }

    bool m_isFilled = false;
};

}  // namespace

TEST_F(TerminalPoll, aClosedTerminalHasNothingToDo) {
    TestTerminal_ terminal;
    bool gotData = true;
    unsigned int count = 17;

    EXPECT_TRUE(terminal.processPollEvents(gotData));
    EXPECT_TRUE(terminal.fillPollFdArray(nullptr, count));

    EXPECT_FALSE(gotData);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalPoll, twoPeersAtOneSocketAreAcceptedInTwoPasses) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ first(local("anna"));
    RawPeer_ second(local("anna"));

    EXPECT_TRUE(anna->pass());
    EXPECT_EQ(anna->m_unresolvedConnections.size(), 1U);
    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(anna->m_unresolvedConnections.size(), 2U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalPoll, eachListeningSocketAcceptsInEachPass) {
    const Terminal_ anna = open("anna", {local("anna") + " anna", local("anna2") + " anna"});
    RawPeer_ first(local("anna"));
    RawPeer_ second(local("anna2"));

    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(anna->m_unresolvedConnections.size(), 2U);
}

TEST_F(TerminalPoll, aFailingAcceptEndsThePassAndTheNextOneGoesOn) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ bert = resolvedPeer(*anna, "bert");
    bert.write(messageBlock("anna", "bert", 1));
    RawPeer_ waiting(local("anna"));
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Accept, EMFILE);
    bool gotData = true;

    EXPECT_FALSE(anna->processPollEvents(gotData));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, "bool VekSocket_::accept(SP_VekSocket_&)",
                                                      "VekSocket_::accept() accept(" + local("anna") +
                                                          ") failed with error(24): Too many open files")});
    EXPECT_FALSE(gotData);
    EXPECT_TRUE(anna->processPollEvents(gotData));
    EXPECT_TRUE(gotData);
    EXPECT_EQ(anna->m_unresolvedConnections.size(), 1U);
}

TEST_F(TerminalPoll, acceptingFailsWithoutMemory) {
    const std::string path = directory("anna", locals({"anna"}));

    const Outcomes_ outcomes = failEachAllocation([&]() -> Call_ {
        const std::shared_ptr<TestTerminal_> terminal(new TestTerminal_);
        terminal->open(utf8("anna"), path.c_str());
        const std::shared_ptr<RawPeer_> peer(new RawPeer_(local("anna")));
        return [=] { return peer != nullptr && terminal->pass(); };
    });

    EXPECT_TRUE(contains(
        outcomes,
        {false,
         {error(kAccepting, "VekmsgTerminalImpl_::processPollEvents() Can't create VekmsgConnection_")}}))
        << testing::PrintToString(outcomes);
    for (const Outcome_& outcome : outcomes) EXPECT_FALSE(outcome.m_result) << outcome;
}

TEST_F(TerminalPoll, aPeerThatHasNotNamedItselfStaysUnresolved) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ peer(local("anna"));
    peer.write(nameBlock("bert").substr(0, 5));
    bool gotData = true;

    EXPECT_TRUE(anna->processPollEvents(gotData));

    EXPECT_FALSE(gotData);
    EXPECT_EQ(anna->m_unresolvedConnections.size(), 1U);
    EXPECT_TRUE(anna->m_activeConnections.empty());
    peer.write(nameBlock("bert").substr(5));
    EXPECT_TRUE(anna->processPollEvents(gotData));
    EXPECT_FALSE(gotData);
    EXPECT_TRUE(anna->m_unresolvedConnections.empty());
    EXPECT_FALSE(anna->active("bert").isNull());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalPoll, aMessageBehindTheNameIsSeenInTheSamePass) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ peer(local("anna"));
    peer.write(nameBlock("bert") + messageBlock("anna", "bert", 1));
    bool gotData = false;

    EXPECT_TRUE(anna->processPollEvents(gotData));

    EXPECT_TRUE(gotData);
    EXPECT_FALSE(anna->active("bert").isNull());
}

TEST_F(TerminalPoll, aPeerThatLeavesBeforeItsNameIsDeleted) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_(local("anna")).write("\0\1"s);

    EXPECT_TRUE(anna->pass());
    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(m_records.take(), Records_{kDeletingUnresolved});
    EXPECT_TRUE(anna->m_unresolvedConnections.empty());
    EXPECT_TRUE(anna->m_keptBlocks.empty());
}

TEST_F(TerminalPoll, aPeerThatBeginsWithAMessageIsDeleted) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ peer(local("anna"));
    const Bytes_ message = messageBlock("anna", "bert", 1);
    peer.write(message);

    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(m_records.take(),
              (Records_{warning(kNameHeader, "anna is expecting VEK_COMPONENT_NAME. Got 2, length " +
                                                 std::to_string(message.size() - 4)),
                        kDeletingUnresolved}));
    EXPECT_TRUE(anna->m_unresolvedConnections.empty());
    EXPECT_TRUE(peer.isAtEnd());
}

TEST_F(TerminalPoll, aPeerWithAnEmptyNameIsDropped) {
    const Terminal_ anna = openLocal("anna");
    for (const Bytes_& payload : {""s, "\0"s, "x"s}) {
        RawPeer_ peer(local("anna"));
        peer.write(block(1, payload));

        EXPECT_TRUE(anna->pass());

        EXPECT_EQ(m_records.take(),
                  Records_{warning(kResolving,
                                   "VekmsgTerminalImpl_::processPollEvents(anna) got a null peerName for an "
                                   "unresolved connection")});
        EXPECT_TRUE(anna->m_unresolvedConnections.empty());
        EXPECT_TRUE(peer.isAtEnd());
    }
}

TEST_F(TerminalPoll, aPeerThatLeavesIsDeleted) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ peer = resolvedPeer(*anna, "bert");
    const SP_VekmsgConnection_ sp_connection = anna->active("bert");
    peer.close();

    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(m_records.take(), Records_{deletingActive("anna", "bert")});
    EXPECT_TRUE(anna->m_activeConnections.empty());
    EXPECT_EQ(sp_connection->state(), VekmsgConnection_::STATE_IDLE);
}

TEST_F(TerminalPoll, onePeersEndDoesNotDisturbTheOthers) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ bert = resolvedPeer(*anna, "bert");
    RawPeer_ cora = resolvedPeer(*anna, "cora");
    RawPeer_ dora = resolvedPeer(*anna, "dora");
    cora.close();
    dora.write(messageBlock("anna", "dora", 4));
    bert.write(messageBlock("anna", "bert", 2));

    EXPECT_EQ(numbersAt(*anna), (std::vector<unsigned int>{2, 4}));

    EXPECT_EQ(m_records.take(), Records_{deletingActive("anna", "cora")});
    EXPECT_EQ(anna->m_activeConnections.size(), 2U);
}

TEST_F(TerminalPoll, whatAnEndedConnectionHadReceivedIsKeptAndAnnouncedUntilItIsTaken) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ peer = resolvedPeer(*anna, "bert");
    peer.write(messageBlock("anna", "bert", 1) + messageBlock("anna", "bert", 2));
    peer.close();
    bool gotData = false;

    EXPECT_TRUE(anna->processPollEvents(gotData));
    EXPECT_TRUE(gotData);
    EXPECT_EQ(m_records.take(), Records_{deletingActive("anna", "bert")});
    EXPECT_TRUE(anna->processPollEvents(gotData));
    EXPECT_TRUE(gotData);
    EXPECT_EQ(numbersAt(*anna), (std::vector<unsigned int>{1, 2}));

    EXPECT_TRUE(anna->processPollEvents(gotData));
    EXPECT_FALSE(gotData);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalPoll, aPeerThatSendsAndLeavesBeforeItIsAcceptedIsHeard) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_(local("anna")).write(nameBlock("bert") + messageBlock("anna", "bert", 1));
    bool gotData = false;

    EXPECT_TRUE(anna->processPollEvents(gotData));

    EXPECT_TRUE(gotData);
    EXPECT_EQ(m_records.take(), Records_{kDeletingUnresolved});
    EXPECT_EQ(numbersAt(*anna), std::vector<unsigned int>{1});
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalPoll, blocksUnderAnEmptyNameAreNotKept) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_(local("anna")).write(block(1, "\0"s) + messageBlock("anna", "bert", 1));
    bool gotData = true;

    EXPECT_TRUE(anna->processPollEvents(gotData));

    EXPECT_FALSE(gotData);
    EXPECT_TRUE(anna->m_keptBlocks.empty());
    EXPECT_TRUE(anna->m_unresolvedConnections.empty());
}

TEST_F(TerminalPoll, theSmallerNameKeepsItsOwnConnection) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    RawPeer_ own = connectedPeer(*anna, listener, "bert");
    const SP_VekmsgConnection_ sp_old = anna->active("bert");
    const int ownDescriptor = descriptorOf(sp_old);
    RawPeer_ accepted(local("anna"));
    accepted.write(nameBlock("bert") + messageBlock("anna", "bert", 7));

    EXPECT_EQ(numbersAt(*anna), std::vector<unsigned int>{7});

    EXPECT_EQ(
        m_records.take(),
        Records_{warning(kSettling, "Duplicate connections between anna and bert. Closing the new one")});
    EXPECT_EQ(anna->active("bert"), sp_old);
    EXPECT_EQ(descriptorOf(sp_old), ownDescriptor);
    EXPECT_TRUE(accepted.isAtEnd());
    EXPECT_TRUE(own.isQuiet());
    EXPECT_TRUE(anna->m_unresolvedConnections.empty());
}

TEST_F(TerminalPoll, theGreaterNameAdoptsTheAcceptedConnection) {
    const Terminal_ bert = openLocal("bert", {"anna"});
    RawListener_ listener(local("anna"));
    RawPeer_ own = connectedPeer(*bert, listener, "anna");
    const SP_VekmsgConnection_ sp_old = bert->active("anna");
    RawPeer_ accepted(local("bert"));
    accepted.write(nameBlock("anna") + messageBlock("bert", "anna", 7));

    EXPECT_EQ(numbersAt(*bert), std::vector<unsigned int>{7});

    EXPECT_EQ(m_records.take(),
              Records_{warning(kSettling, "Duplicate connections between bert and anna. Closing the old")});
    EXPECT_EQ(bert->active("anna"), sp_old);
    EXPECT_TRUE(own.isAtEnd());
    EXPECT_TRUE(bert->sendMessage(messageTo("anna", 8)));
    EXPECT_EQ(accepted.readBlock(), messageBlock("anna", "bert", 8));
}

TEST_F(TerminalPoll, aNameThatBeginsLikeTheOtherIsTheSmallerOne) {
    const Terminal_ longer = openLocal("anna-b", {"anna"});
    RawListener_ listener(local("anna"));
    RawPeer_ own = connectedPeer(*longer, listener, "anna");
    RawPeer_ accepted(local("anna-b"));
    accepted.write(nameBlock("anna"));

    EXPECT_TRUE(longer->pass());

    EXPECT_EQ(m_records.take(),
              Records_{warning(kSettling, "Duplicate connections between anna-b and anna. Closing the old")});
}

TEST_F(TerminalPoll, namesAreComparedAsUnsignedBytes) {
    const Terminal_ anna = openLocal("anna", {"\xC3\xA4nna"});
    RawListener_ listener(local("\xC3\xA4nna"));
    RawPeer_ own = connectedPeer(*anna, listener, "\xC3\xA4nna");
    RawPeer_ accepted(local("anna"));
    accepted.write(nameBlock("\xC3\xA4nna"));

    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(m_records.take(),
              Records_{warning(kSettling,
                               "Duplicate connections between anna and \xC3\xA4nna. Closing the new one")});
}

TEST_F(TerminalPoll, ofTwoAcceptedStreamsOfOneNameTheFirstIsTheOld) {
    const struct {
        std::string m_own;
        std::string m_closed;
        bool m_isFirstKept;
    } cases[] = {{"anna", "the new one", true}, {"zoe", "the old", false}};
    for (const auto& each : cases) {
        const Terminal_ own = openLocal(each.m_own);
        RawPeer_ first(local(each.m_own));
        ASSERT_TRUE(own->pass());
        RawPeer_ second(local(each.m_own));
        ASSERT_TRUE(own->pass());
        ASSERT_EQ(own->m_unresolvedConnections.size(), 2U);
        second.write(nameBlock("bert"));
        first.write(nameBlock("bert"));

        EXPECT_TRUE(own->pass());

        EXPECT_EQ(m_records.take(),
                  Records_{warning(kSettling, "Duplicate connections between " + each.m_own +
                                                  " and bert. Closing " + each.m_closed)});
        RawPeer_& kept = each.m_isFirstKept ? first : second;
        RawPeer_& closed = each.m_isFirstKept ? second : first;
        EXPECT_TRUE(closed.isAtEnd());
        EXPECT_TRUE(own->sendMessage(messageTo("bert", 1)));
        EXPECT_EQ(kept.readBlock(), messageBlock("bert", each.m_own, 1));
    }
}

TEST_F(TerminalPoll, twoTerminalsThatConnectToEachOtherKeepTheStreamOfTheSmallerName) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    const Terminal_ bert = openLocal("bert", {"anna"});
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    ASSERT_TRUE(bert->sendMessage(messageTo("anna", 2)));
    const int annasDescriptor = descriptorOf(anna->active("bert"));

    EXPECT_EQ(numbersAt(*anna), std::vector<unsigned int>{2});
    EXPECT_EQ(
        m_records.take(),
        Records_{warning(kSettling, "Duplicate connections between anna and bert. Closing the new one")});
    EXPECT_EQ(numbersAt(*bert), std::vector<unsigned int>{1});
    EXPECT_EQ(m_records.take(),
              Records_{warning(kSettling, "Duplicate connections between bert and anna. Closing the old")});

    EXPECT_EQ(descriptorOf(anna->active("bert")), annasDescriptor);
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 3)));
    EXPECT_TRUE(bert->sendMessage(messageTo("anna", 4)));
    EXPECT_EQ(numbersAt(*anna), std::vector<unsigned int>{4});
    EXPECT_EQ(numbersAt(*bert), std::vector<unsigned int>{3});
    EXPECT_EQ(anna->m_activeConnections.size() + anna->m_unresolvedConnections.size(), 1U);
    EXPECT_EQ(bert->m_activeConnections.size() + bert->m_unresolvedConnections.size(), 1U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalPoll, aConnectionOfNoUseAdoptsTheAcceptedOneWithoutARecord) {
    const Terminal_ anna = openLocal("anna");
    const SP_TestConnection_ sp_old = anna->addActive("bert");
    sp_old->m_connectionState = VekmsgConnection_::STATE_FAILED;
    const Bytes_ queued = messageBlock("bert", "anna", 5);
    sp_old->m_sendQueue.push_back(bufferOf(queued));
    RawPeer_ accepted(local("anna"));
    accepted.write(nameBlock("bert"));

    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_EQ(anna->active("bert").get(), sp_old.get());
    EXPECT_TRUE(sp_old->isFunctional());
    EXPECT_EQ(accepted.readBlock(), queued);
    EXPECT_TRUE(anna->m_unresolvedConnections.empty());
}

TEST_F(TerminalPoll, aConnectionUnderWayAdoptsTheAcceptedOneWhateverTheNames) {
    SystemCalls_ calls;
    for (const char* p_peer : {"aaron", "bert"}) {
        const Terminal_ anna =
            open("anna", {local("anna") + " anna", "inettcp://127.0.0.1:9 " + std::string(p_peer)});
        calls.fail(SystemCalls_::Connect, EINPROGRESS);
        ASSERT_TRUE(anna->sendMessage(messageTo(p_peer, 5)));
        ASSERT_EQ(anna->active(p_peer)->state(), VekmsgConnection_::STATE_SENDING_NAME);
        RawPeer_ accepted(local("anna"));
        accepted.write(nameBlock(p_peer));

        EXPECT_TRUE(anna->pass());

        EXPECT_EQ(m_records.take(), Records_{}) << p_peer;
        EXPECT_EQ(accepted.readBlock(), messageBlock(p_peer, "anna", 5)) << p_peer;
        EXPECT_TRUE(anna->isConnected(utf8(p_peer))) << p_peer;
    }
}

TEST_F(TerminalPoll, theQueuesOfAnAcceptedConnectionGoBehindThoseOfTheOldOne) {
    const Terminal_ anna = openLocal("anna");
    const SP_TestConnection_ sp_old = anna->addActive("bert");
    sp_old->m_connectionState = VekmsgConnection_::STATE_FAILED;
    sp_old->m_receivedBuffers.push_back(bufferOf(messageBlock("anna", "bert", 1)));
    RawPeer_ accepted(local("anna"));
    accepted.write(nameBlock("bert") + messageBlock("anna", "bert", 2));

    EXPECT_EQ(numbersAt(*anna), (std::vector<unsigned int>{1, 2}));
}

TEST_F(TerminalPoll, aConnectThatHangsIsGivenUpAfterItsLimitAndItsRetries) {
    const std::string address = "inettcp://127.0.0.1:9";
    const Terminal_ anna = open("anna", {address + " bert"});
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Connect, EINPROGRESS, 0, 5);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    ASSERT_TRUE(anna->pass());
    ASSERT_EQ(m_records.take(), Records_{});
    const Record_ timedOut =
        socketRecord(3, kConnecting, "Attempt to connect to " + address + " timed out after 6 seconds");

    for (unsigned int failures = 1; failures <= 4; ++failures) {
        calls.advanceClock(6);
        EXPECT_TRUE(anna->pass());
        EXPECT_EQ(m_records.take(),
                  (Records_{timedOut, debug(kReconnect, "Reconnecting socket between anna and bert after " +
                                                            std::to_string(failures) + " failures")}));
        EXPECT_TRUE(anna->pass());
        EXPECT_EQ(m_records.take(), Records_{});
    }
    calls.advanceClock(6);
    EXPECT_TRUE(anna->pass());

    EXPECT_EQ(m_records.take(),
              (Records_{timedOut,
                        debug(kReconnect,
                              "Unable to reconnect failed socket between anna and bert after 5 attempts"),
                        deletingActive("anna", "bert")}));
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalPoll, aRefusedTcpConnectionIsTriedFiveTimes) {
    const std::string address = freeTcpAddress();
    const Terminal_ anna = open("anna", {address + " bert"});
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_TRUE(eventually([&] { return anna->pass() && anna->m_activeConnections.empty(); }));

    const Record_ refused = socketRecord(
        7, kConnecting,
        "VekSocket_::connecting(" + address + ") async failure with error(111): Connection refused");
    Records_ expected;
    for (unsigned int failures = 1; failures <= 4; ++failures) {
        expected.push_back(refused);
        expected.push_back(debug(kReconnect, "Reconnecting socket between anna and bert after " +
                                                 std::to_string(failures) + " failures"));
    }
    expected.push_back(refused);
    expected.push_back(
        debug(kReconnect, "Unable to reconnect failed socket between anna and bert after 5 attempts"));
    expected.push_back(deletingActive("anna", "bert"));
    EXPECT_EQ(m_records.take(), expected);
}

TEST_F(TerminalPoll, messagesQueuedWhileReconnectingLeaveOnTheNewStream) {
    const std::string address = freeTcpAddress();
    const Terminal_ anna = open("anna", {address + " bert"});
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Connect, EINPROGRESS);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 2)));
    RawListener_ listener(address);
    calls.advanceClock(6);

    EXPECT_TRUE(anna->pass());
    RawPeer_ bert = listener.accept();
    EXPECT_TRUE(eventually([&] { return anna->pass() && anna->isConnected(utf8("bert")); }));

    EXPECT_EQ(bert.readBlock(), nameBlock("anna"));
    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "anna", 1));
    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "anna", 2));
}

TEST_F(TerminalPoll, fillNeedsAnArray) {
    const Terminal_ anna = openLocal("anna");
    unsigned int count = 10;

    EXPECT_FALSE(anna->fillPollFdArray(nullptr, count));

    EXPECT_EQ(m_records.take(),
              Records_{error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() null p_pollFdBuf for anna")});
    EXPECT_EQ(count, 10U);
}

TEST_F(TerminalPoll, fillNeedsRoomForThreeWhateverThereIs) {
    const Terminal_ anna = openLocal("anna");
    for (unsigned int capacity = 0; capacity < 3; ++capacity) {
        std::vector<pollfd> entries(3);
        unsigned int count = capacity;

        EXPECT_FALSE(anna->fillPollFdArray(entries.data(), count));

        EXPECT_EQ(m_records.take(), Records_{error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() count " +
                                                              std::to_string(capacity) + " < 3 for anna")});
        EXPECT_EQ(count, capacity);
    }
    EXPECT_EQ(fill(*anna, 3).size(), 1U);
    EXPECT_TRUE(m_isFilled);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalPoll, fillDescribesListenersThenUnresolvedThenActiveConnections) {
    const Terminal_ anna = openLocal("anna", {"zoe"});
    RawListener_ listener(local("zoe"));
    RawPeer_ zoe = connectedPeer(*anna, listener, "zoe");
    RawPeer_ bert = resolvedPeer(*anna, "bert");
    RawPeer_ unresolved(local("anna"));
    ASSERT_TRUE(anna->pass());

    const std::vector<pollfd> entries = fill(*anna, 4);

    ASSERT_TRUE(m_isFilled);
    ASSERT_EQ(entries.size(), 4U);
    EXPECT_EQ(entries[0].fd, anna->m_listeningSockets.front()->descriptor());
    EXPECT_EQ(entries[1].fd, descriptorOf(anna->m_unresolvedConnections.front()));
    EXPECT_EQ(entries[2].fd, descriptorOf(anna->active("bert")));
    EXPECT_EQ(entries[3].fd, descriptorOf(anna->active("zoe")));
    for (const pollfd& entry : entries) {
        EXPECT_EQ(entry.events & POLLIN, POLLIN);
        EXPECT_EQ(entry.events & POLLOUT, 0);
        EXPECT_EQ(entry.revents, 0);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalPoll, aConnectionWithQueuedBlocksAsksForWritability) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ bert = resolvedPeer(*anna, "bert");
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Send, EAGAIN);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));

    const std::vector<pollfd> entries = fill(*anna, 3);

    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[1].events & POLLOUT, POLLOUT);
}

TEST_F(TerminalPoll, aConnectionThatIsIdleOrFailedHasNoEntry) {
    const Terminal_ anna = openLocal("anna");
    anna->addActive("bert");
    anna->addActive("cora")->m_connectionState = VekmsgConnection_::STATE_FAILED;

    const std::vector<pollfd> entries = fill(*anna, 3);

    EXPECT_TRUE(m_isFilled);
    EXPECT_EQ(entries.size(), 1U);
}

TEST_F(TerminalPoll, aListenerThatCannotBeDescribedFailsTheFill) {
    const Terminal_ anna = openLocal("anna");
    anna->m_listeningSockets.front()->cleanUp();

    fill(*anna, 5);

    EXPECT_FALSE(m_isFilled);
    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, "bool VekSocket_::fillPollFd(bool, pollfd*, pollfd*&) const",
                                    "VekSocket_::fillPollFd() failed because of the wrong state 0")});
}

TEST_F(TerminalPoll, tooManyListenersFailTheFill) {
    const Terminal_ anna = open("anna", {local("an1") + " anna", local("an2") + " anna",
                                         local("an3") + " anna", local("an4") + " anna"});

    fill(*anna, 3);
    EXPECT_FALSE(m_isFilled);
    EXPECT_EQ(m_records.take(), Records_{notEnough(3)});

    EXPECT_EQ(fill(*anna, 4).size(), 4U);
    EXPECT_TRUE(m_isFilled);
}

TEST_F(TerminalPoll, tooManyUnresolvedConnectionsFailTheFill) {
    const Terminal_ anna = openLocal("anna");
    std::list<RawPeer_> peers;
    for (int i = 0; i < 3; ++i) {
        peers.emplace_back(local("anna"));
        ASSERT_TRUE(anna->pass());
    }

    fill(*anna, 3);
    EXPECT_FALSE(m_isFilled);
    EXPECT_EQ(m_records.take(), Records_{notEnough(3)});

    EXPECT_EQ(fill(*anna, 4).size(), 4U);
    EXPECT_TRUE(m_isFilled);
}

TEST_F(TerminalPoll, tooManyActiveConnectionsFailTheFill) {
    const Terminal_ anna = openLocal("anna");
    RawPeer_ bert = resolvedPeer(*anna, "bert");
    RawPeer_ cora = resolvedPeer(*anna, "cora");
    RawPeer_ dora = resolvedPeer(*anna, "dora");

    fill(*anna, 3);
    EXPECT_FALSE(m_isFilled);
    EXPECT_EQ(m_records.take(), Records_{notEnough(3)});

    EXPECT_EQ(fill(*anna, 4).size(), 4U);
    EXPECT_TRUE(m_isFilled);
}

TEST_F(TerminalPoll, eachGroupThatDoesNotFitHasASiteOfItsOwn) {
    const Terminal_ listeners = open("anna", {local("an1") + " anna", local("an2") + " anna",
                                              local("an3") + " anna", local("an4") + " anna"});
    const Terminal_ unresolved = openLocal("bert");
    const Terminal_ active = openLocal("cora");
    std::list<RawPeer_> peers;
    for (const char* p_peer : {"dora", "emil", "fred"}) peers.push_back(resolvedPeer(*active, p_peer));
    for (const SP_VekmsgConnection_& sp_connection : active->m_activeConnections) {
        SP_TestConnection_ sp_copy(new TestConnection_);
        sp_connection->getSocket(sp_copy->m_sp_socket);
        sp_copy->m_connectionState = VekmsgConnection_::STATE_RECEIVING_HEADER;
        unresolved->m_unresolvedConnections.push_back(sp_copy);
    }
    std::set<const LogSite*> sites;
    vekmsg_log_set_sink([](void* p_sites, int, const LogSite* p_site,
                           const char*) { static_cast<std::set<const LogSite*>*>(p_sites)->insert(p_site); },
                        &sites);

    for (TestTerminal_* p_terminal : {listeners.get(), unresolved.get(), active.get()}) {
        fill(*p_terminal, 3);
        EXPECT_FALSE(m_isFilled);
    }
    vekmsg_log_set_sink(nullptr, nullptr);

    EXPECT_EQ(sites.size(), 3U);
}
