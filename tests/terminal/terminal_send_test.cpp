#include <gtest/gtest.h>

#include <cstdio>
#include <iterator>
#include <stdexcept>

#include "support/allocation_failure.h"
#include "support/child_process.h"
#include "support/system_calls.h"
#include "terminal/foreign_message.h"
#include "terminal/installation.h"
#include "vekmsg/log.h"

namespace {

constexpr char kSocketConnect[] = "bool VekSocket_::connect()";
constexpr char kSerialize[] = "unsigned int VekMessageBinary_::serialize(libcpp::SP_BasicBuffer_&)";

class TerminalSend : public Installation_ {
protected:
    Record_ unreachable(const std::string& address) const {
        return socketRecord(
            7, kSocketConnect,
            "VekSocket_::connect(" + address + ") failed with error(2): No such file or directory");
    }
};

/// Takes records without asking for memory, where all of it is to fail.
class FixedRecords_ {
public:
    FixedRecords_() { vekmsg_log_set_sink(append, this); }
    ~FixedRecords_() { vekmsg_log_set_sink(nullptr, nullptr); }
    FixedRecords_(const FixedRecords_&) = delete;
    FixedRecords_& operator=(const FixedRecords_&) = delete;

    Records_ all() const {
        Records_ records;
        for (unsigned int i = 0; i < m_count; ++i) {
            const Entry_& entry = m_entries[i];
            records.emplace_back(entry.m_severity, entry.m_p_site->p_sourceName, entry.m_p_site->p_signature,
                                 entry.m_text);
            records.back().m_p_site = entry.m_p_site;
        }
        return records;
    }

private:
    struct Entry_ {
        int m_severity;
        const LogSite* m_p_site;
        char m_text[200];
    };

    static void append(void* p_context, int severity, const LogSite* p_site, const char* p_text) {
        auto& records = *static_cast<FixedRecords_*>(p_context);
        if (records.m_count == std::size(records.m_entries)) return;
        Entry_& entry = records.m_entries[records.m_count++];
        entry.m_severity = severity;
        entry.m_p_site = p_site;
        std::snprintf(entry.m_text, sizeof(entry.m_text), "%s", p_text);
    }

    Entry_ m_entries[4];
    unsigned int m_count = 0;
};

/// Holds the text of an address and does something when the last owner lets go of it.
class LastAct_ : public SP_StdString_::Pointee {
public:
    LastAct_(const std::string& text, const std::function<void()>& act)
        : SP_StdString_::Pointee(new std::string(text)), m_act(act) {}
    ~LastAct_() override { m_act(); }

private:
    std::function<void()> m_act;
};

const Record_ kUseNext = debug(kSendConnecting,
                               "VekmsgTerminalImpl_::sendMessage() Tolerate connect failure - Use next bert "
                               "address");

Record_ skipped(const std::string& address) {
    return warning(kSendSelecting, "Skipped " + address +
                                       " for destination bert because UDP binding is still under "
                                       "development");
}

const Record_ kNoSocket = debug(kConnectionStart, "VekmsgConnection_::start() Can't start without a socket");

}  // namespace

TEST_F(TerminalSend, aClosedTerminalCreatesMessages) {
    TestTerminal_ terminal;
    const SP_VekMessage_ sp_before = messageTo("bert", 1);
    SP_VekMessage_ sp_message = sp_before;

    EXPECT_TRUE(terminal.createMessage(sp_message));

    ASSERT_TRUE(sp_message);
    EXPECT_NE(sp_message, sp_before);
    EXPECT_EQ(text(sp_message->getDestination()), "");
    EXPECT_EQ(text(sp_message->getSource()), "");
    EXPECT_EQ(sp_message->getTimeToLive(), 3U);
    EXPECT_EQ(text(sp_message->getPayloadSchema()), "");
    EXPECT_EQ(sp_message->getPayloadSchemaType(), VekMessage_::SCHEMA_LITERAL);
    EXPECT_TRUE(sp_message->getPayload().isNull());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalSend, creatingAMessageFailsWithoutMemory) {
    inFreshThread([&] {
        TestTerminal_ terminal;
        SP_VekMessage_ sp_message(new ForeignMessage_("bert"));
        AllocationFailure_ failure(1);

        EXPECT_FALSE(terminal.createMessage(sp_message));

        EXPECT_TRUE(sp_message.isNull());
    });
    EXPECT_EQ(
        m_records.take(),
        Records_{error(kCreate, "VekmsgTerminalImpl_::createMessage() Can't create vekMessageBinary_")});
}

TEST_F(TerminalSend, aNullMessageIsRefused) {
    const Terminal_ anna = openLocal("anna");

    EXPECT_FALSE(anna->sendMessage(SP_VekMessage_()));

    EXPECT_EQ(m_records.take(), Records_{error(kSend, "VekmsgTerminalImpl_::sendMessage() null sp_message")});
}

TEST_F(TerminalSend, aMessageWithoutDestinationIsRefused) {
    const Terminal_ anna = openLocal("anna");
    const SmartPointer_<ForeignMessage_> sp_without(new ForeignMessage_(""));
    sp_without->m_hasDestination = false;

    EXPECT_FALSE(anna->sendMessage(messageTo("", 1)));
    EXPECT_FALSE(anna->sendMessage(sp_without));

    const Record_ record = error(kSend, "VekmsgTerminalImpl_::sendMessage() null destination");
    EXPECT_EQ(m_records.take(), (Records_{record, record}));
}

TEST_F(TerminalSend, aClosedTerminalDoesNotSend) {
    TestTerminal_ terminal;
    const SP_VekMessage_ sp_message = messageTo("bert", 1);

    EXPECT_FALSE(terminal.sendMessage(sp_message));

    EXPECT_EQ(m_records.take(),
              Records_{error(kSend, "VekmsgTerminalImpl_::sendMessage() null m_sp_componentName")});
    EXPECT_EQ(text(sp_message->getSource()), "");
}

TEST_F(TerminalSend, aMessageToItselfIsRefusedBeforeTheFilterSeesIt) {
    const Terminal_ anna = openLocal("anna");
    bool wasCalled = false;
    anna->setSendFilter(filterOf([&](SP_VekMessage_&) { return wasCalled = true; }));

    EXPECT_FALSE(anna->sendMessage(messageTo("anna", 1)));

    EXPECT_EQ(m_records.take(), Records_{error(kSend, "Can't send a message to itself (anna)")});
    EXPECT_FALSE(wasCalled);
}

TEST_F(TerminalSend, aNameThatOnlyResemblesTheOwnOneIsAnotherComponent) {
    for (const char* p_other : {"Anna", "annA", "ann", "anna2"}) {
        const Terminal_ anna = open("anna", {local("anna") + " anna", local(p_other) + ' ' + p_other});
        RawListener_ listener(local(p_other));

        EXPECT_TRUE(anna->sendMessage(messageTo(p_other, 1)));

        EXPECT_EQ(m_records.take(), Records_{}) << p_other;
        RawPeer_ peer = listener.accept();
        EXPECT_EQ(peer.readBlock(), nameBlock("anna"));
        EXPECT_EQ(peer.readBlock(), messageBlock(p_other, "anna", 1));
    }
}

TEST_F(TerminalSend, anEmptySourceBecomesTheOwnNameAndAnotherIsKept) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    const SP_VekMessage_ sp_own = messageTo("bert", 1);
    const SP_VekMessage_ sp_other = messageTo("bert", 2);
    sp_other->setSource(utf8("cora"));
    sp_other->setTimeToLive(8);

    EXPECT_TRUE(anna->sendMessage(sp_own));
    EXPECT_TRUE(anna->sendMessage(sp_other));

    EXPECT_EQ(text(sp_own->getSource()), "anna");
    RawPeer_ bert = listener.accept();
    EXPECT_EQ(bert.readBlock(), nameBlock("anna"));
    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "anna", 1));
    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "cora", 2, 8));
    EXPECT_TRUE(bert.isQuiet());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalSend, aMessageThatRefusesItsSourceIsNotSent) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    const SmartPointer_<ForeignMessage_> sp_message(new ForeignMessage_("bert"));
    sp_message->m_hasSource = false;
    sp_message->m_refusesSource = true;

    EXPECT_FALSE(anna->sendMessage(sp_message));

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalSend, aMessageOfAnotherClassIsRefusedAfterTheFilter) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    std::string seenSource;
    anna->setSendFilter(filterOf([&](SP_VekMessage_& sp_message) {
        seenSource = text(sp_message->getSource());
        return true;
    }));

    EXPECT_FALSE(anna->sendMessage(SP_VekMessage_(new ForeignMessage_("bert"))));

    EXPECT_EQ(m_records.take(),
              Records_{error(kSend, "VekmsgTerminalImpl_::sendMessage() sp_message is not binary encoded")});
    EXPECT_EQ(seenSource, "anna");
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, aFilterThatSwallowsTheMessageMakesItASuccess) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    anna->setSendFilter(filterOf([](SP_VekMessage_& sp_message) {
        sp_message.reset();
        return true;
    }));

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, aFilterThatRefusesOrThrowsFailsTheCallWithoutARecord) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    anna->setSendFilter(filterOf([](SP_VekMessage_&) { return false; }));
    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    anna->setSendFilter(filterOf([](SP_VekMessage_&) -> bool { throw std::runtime_error("no"); }));
    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, theMessageThatAFilterPutsInIsSent) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    const Terminal_ bert = openLocal("bert");
    anna->setSendFilter(filterOf([](SP_VekMessage_& sp_message) {
        sp_message = messageTo("bert", 2);
        return true;
    }));

    EXPECT_TRUE(anna->sendMessage(messageTo("cora", 1)));

    const SP_VekMessage_ sp_message = receiveAt(*bert);
    EXPECT_EQ(numberIn(sp_message), 2U);
    EXPECT_EQ(text(sp_message->getSource()), "");
}

TEST_F(TerminalSend, aFilterMaySendOnTheSameTerminal) {
    const Terminal_ anna = openLocal("anna", {"bert", "cora"});
    const Terminal_ bert = openLocal("bert");
    const Terminal_ cora = openLocal("cora");
    std::vector<std::string> seen;
    anna->setSendFilter(filterOf([&](SP_VekMessage_& sp_message) {
        seen.push_back(text(sp_message->getDestination()));
        return seen.back() == "cora" || anna->sendMessage(messageTo("cora", 2));
    }));

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(seen, (std::vector<std::string>{"bert", "cora"}));
    EXPECT_EQ(numberIn(receiveAt(*bert)), 1U);
    EXPECT_EQ(numberIn(receiveAt(*cora)), 2U);
}

// Filters may not close their terminal; that one does must still not do worse than this.
TEST_F(TerminalSend, aTerminalThatItsFilterClosesDoesNotSend) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    anna->setSendFilter(filterOf([&](SP_VekMessage_&) {
        anna->close();
        return true;
    }));

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(), Records_{error("bool VekmsgConnection_::setMyName(SP_Utf8String_)",
                                               "VekmsgConnection_::setMyName() null sp_myName")});
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, aFilterMayReceiveOnTheSameTerminal) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    const Terminal_ bert = openLocal("bert", {"anna"});
    ASSERT_TRUE(bert->sendMessage(messageTo("anna", 7)));
    SP_VekMessage_ sp_received;
    anna->setSendFilter(filterOf([&](SP_VekMessage_&) { return anna->receiveMessage(sp_received); }));

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(numberIn(sp_received), 7U);
    EXPECT_EQ(numberIn(receiveAt(*bert)), 1U);
}

TEST_F(TerminalSend, aFilterMayReplaceItself) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    const Terminal_ bert = openLocal("bert");
    unsigned int first = 0;
    unsigned int second = 0;
    anna->setSendFilter(filterOf([&](SP_VekMessage_&) {
        anna->setSendFilter(filterOf([&](SP_VekMessage_&) { return ++second != 0; }));
        return ++first != 0;
    }));

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 2)));

    EXPECT_EQ(first, 1U);
    EXPECT_EQ(second, 1U);
    EXPECT_EQ(numbersAt(*bert), (std::vector<unsigned int>{1, 2}));
}

TEST_F(TerminalSend, aDestinationThatIsNotListedIsNotReachedByTheDefaultAddressEither) {
    const Terminal_ anna = open("anna", {local("router")});
    RawListener_ router(local("router"));

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(), Records_{kNoSocket});
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, aDestinationWithUdpAddressesAloneIsSkippedOncePerAddress) {
    const Terminal_ anna =
        open("anna", {"inetudp://127.0.0.1:9 bert", "inetudp://127.0.0.1:10 bert", local("router")});

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(),
              (Records_{skipped("inetudp://127.0.0.1:9"), skipped("inetudp://127.0.0.1:10")}));
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, aSkippedAddressIsShownInItsOwnForm) {
    const Terminal_ anna = open("anna", {"inetudp://127.0.0.1:09 bert"});

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(), (Records_{skipped("inetudp://127.0.0.1:9")}));
}

TEST_F(TerminalSend, aDestinationWithWildcardsAloneFailsWithoutARecord) {
    const Terminal_ anna = open("anna", {"inettcp:// bert", "inetudp:// bert", local("router")});

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalSend, anAddressThatDoesNotParseHasTheParsersRecordAlone) {
    const Terminal_ anna = open("anna", {"tcp://1.2.3.4:5 bert"});

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, "bool VekSocketAddress_::setRealName(const char*, std::size_t)",
                                    "VekSocketAddress_::setRealName(tcp://1.2.3.4:5) invalid type")});
}

TEST_F(TerminalSend, theNextAddressIsUsedWhenOneRefusesAtOnce) {
    const std::string tcp = freeTcpAddress();
    const Terminal_ anna =
        open("anna", {local("dead") + " bert", "inetudp://127.0.0.1:9 bert", tcp + " bert"});
    RawListener_ listener(tcp);

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(),
              (Records_{unreachable(local("dead")), kUseNext, skipped("inetudp://127.0.0.1:9")}));
    RawPeer_ bert = listener.accept();
    EXPECT_TRUE(eventually([&] { return anna->pass() && anna->isConnected(utf8("bert")); }));
    EXPECT_EQ(bert.readBlock(), nameBlock("anna"));
    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "anna", 1));
}

TEST_F(TerminalSend, theFirstAddressThatTakesTheConnectionIsUsed) {
    const Terminal_ anna = open("anna", {local("bert1") + " bert", local("bert2") + " bert"});
    RawListener_ first(local("bert1"));
    RawListener_ second(local("bert2"));

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(first.accept().readBlock(), nameBlock("anna"));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalSend, aDestinationThatIsNotThereAtAnyAddressFails) {
    const Terminal_ anna = open("anna", {local("dead1") + " bert", local("dead2") + " bert"});

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(),
              (Records_{unreachable(local("dead1")), kUseNext, unreachable(local("dead2")),
                        error(kSendConnecting,
                              "VekmsgTerminalImpl_::sendMessage() Unable to send to any bert address")}));
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, aListThatEndsWithAnUnusableAddressFailsWithoutAnError) {
    const Terminal_ anna = open("anna", {local("dead") + " bert", "inettcp:// bert"});

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(), (Records_{unreachable(local("dead")), kUseNext}));
}

TEST_F(TerminalSend, aSocketThatCannotBeMadeFailsTheCall) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Socket, EMFILE);

    EXPECT_FALSE(anna->sendMessage(messageTo("bert", 1)));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, "bool VekSocket_::initialize(int, int, const char*)",
                                    "VekSocket_::initialize(local://?) socket() failed with error(24): Too "
                                    "many open files")});
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, messagesSentWhileConnectingWaitOnTheSameConnection) {
    const std::string tcp = freeTcpAddress();
    const Terminal_ anna = open("anna", {tcp + " bert"});
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Connect, EINPROGRESS);

    for (unsigned int number = 1; number <= 3; ++number)
        EXPECT_TRUE(anna->sendMessage(messageTo("bert", number)));

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_EQ(calls.count(SystemCalls_::Connect), 1U);
    EXPECT_EQ(calls.count(SystemCalls_::Send), 0U);
    ASSERT_EQ(anna->m_activeConnections.size(), 1U);
    EXPECT_EQ(anna->active("bert")->state(), VekmsgConnection_::STATE_SENDING_NAME);
    EXPECT_FALSE(anna->isConnected(utf8("bert")));
}

TEST_F(TerminalSend, aMessageOnAnEstablishedConnectionTakesOneSystemCall) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    SystemCalls_ calls;

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 2)));

    EXPECT_EQ(calls.count(SystemCalls_::Send), 1U);
    EXPECT_EQ(calls.count(SystemCalls_::Recv), 0U);
}

TEST_F(TerminalSend, anUnrecoverableWriteErrorIsNotTheCallersToSee) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Send, EPIPE);

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 2)));

    EXPECT_EQ(
        m_records.take(),
        (Records_{
            socketRecord(7, "VekSocket_::SendResult_ VekSocket_::send(libcpp::SP_BasicBuffer_)",
                         "send(to " + local("bert") + ") failed with error(32): Broken pipe"),
            debug(kReconnect, "Unable to reconnect failed socket between anna and bert after 1 attempts"),
            debug(kSendHanding, "VekmsgTerminalImpl_::sendMessage() Unrecoverable send error at anna")}));
    EXPECT_TRUE(anna->pass());
    EXPECT_EQ(m_records.take(),
              Records_{debug(kServing, "Deleting active connection between anna and bert")});
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, aMessageAfterAnUnrecoverableErrorGoesOnANewConnection) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    RawPeer_ old = listener.accept();
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Send, EPIPE);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 2)));

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 3)));

    RawPeer_ bert = listener.accept();
    EXPECT_EQ(bert.readBlock(), nameBlock("anna"));
    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "anna", 3));
    EXPECT_EQ(anna->m_activeConnections.size(), 1U);
}

TEST_F(TerminalSend, aBrokenTcpConnectionIsMadeAnewWithTheMessage) {
    const std::string tcp = freeTcpAddress();
    const Terminal_ anna = open("anna", {tcp + " bert"});
    RawListener_ listener(tcp);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    RawPeer_ old = listener.accept();
    ASSERT_TRUE(eventually([&] { return anna->pass() && anna->isConnected(utf8("bert")); }));
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Send, EPIPE);
    m_records.take();

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 2)));

    EXPECT_EQ(m_records.take(),
              (Records_{socketRecord(7, "VekSocket_::SendResult_ VekSocket_::send(libcpp::SP_BasicBuffer_)",
                                     "send(to " + tcp + ") failed with error(32): Broken pipe"),
                        debug(kReconnect, "Reconnecting socket between anna and bert after 1 failures")}));
    RawPeer_ bert = listener.accept();
    EXPECT_TRUE(eventually([&] { return anna->pass() && anna->isConnected(utf8("bert")); }));
    EXPECT_EQ(bert.readBlock(), nameBlock("anna"));
    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "anna", 2));
}

TEST_F(TerminalSend, aMessageWithoutPayloadFailsInTheEncoder) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    const SP_VekMessage_ sp_message = messageTo("bert", 1);
    sp_message->setPayload(SP_VekmsgElement_());

    EXPECT_FALSE(anna->sendMessage(sp_message));

    EXPECT_EQ(m_records.take(),
              Records_{messageRecord(3, kSerialize, "VekMessageBinary_::serialize() null payload")});
    EXPECT_FALSE(anna->active("bert").isNull());  // made before the message was looked into
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 2)));
    EXPECT_EQ(anna->m_activeConnections.size(), 1U);
}

TEST_F(TerminalSend, aReusedPayloadBufferWithoutRoomForTheBlockHeaderIsRefused) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    // Items of 6 bytes and their values: "bert", "anna" and "numbers" with their NULs, 4 bytes time-to-live.
    const unsigned int headerLength = 4 * 6 + 5 + 5 + 8 + 4;
    for (unsigned int spare = 0; spare <= 4; ++spare) {
        const SP_VekMessage_ sp_message = messageTo("bert", 1);
        const SP_BasicBuffer_ sp_payload(new BasicBuffer_(100));
        sp_payload->setDataArea(headerLength + spare, 20);
        sp_message->setRawPayload(sp_payload);

        EXPECT_EQ(anna->sendMessage(sp_message), spare == 4);

        const Record_ refusal = error(kSendHanding, "Not enough header space " + std::to_string(spare) +
                                                        " left to encode message (anna -> bert) in a block");
        EXPECT_EQ(m_records.take(), spare == 4 ? Records_{} : Records_{refusal});
    }
}

TEST_F(TerminalSend, sendingFailsWithoutMemory) {
    const std::string path = directory("anna", locals({"bert"}));
    RawListener_ listener(local("bert"), 100);

    const Outcomes_ outcomes = failEachAllocation([&]() -> Call_ {
        const std::shared_ptr<TestTerminal_> terminal(new TestTerminal_);
        terminal->open(utf8("anna"), path.c_str());
        const SP_VekMessage_ sp_message = messageTo("bert", 1);
        return [=] { return terminal->sendMessage(sp_message); };
    });

    EXPECT_TRUE(contains(
        outcomes,
        {false, {error(kSendFinding, "VekmsgTerminalImpl_::sendMessage() can't create Utf8String_")}}))
        << testing::PrintToString(outcomes);
    EXPECT_TRUE(contains(
        outcomes,
        {false, {error(kSendConnecting, "VekmsgTerminalImpl_::sendMessage() Can't create vekSocket_")}}))
        << testing::PrintToString(outcomes);
}

TEST_F(TerminalSend, aConnectionIsNotMadeWithoutMemory) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    FixedRecords_ records;
    inFreshThread([&] {
        const SP_VekMessage_ sp_message = messageTo("bert", 1);
        AllocationFailure_ failure(2, true);  // the first is the copy of the name, the second the probe

        EXPECT_FALSE(anna->sendMessage(sp_message));
    });

    EXPECT_EQ(
        records.all(),
        (Records_{error(kFind, "VekmsgTerminalImpl_::findActiveConnection() Can't create VekmsgConnection_"),
                  error(kSendOpening, "VekmsgTerminalImpl_::sendMessage() Can't create VekmsgConnection_")}));
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_F(TerminalSend, whereTheLastMessageWentIsNotFoundWithoutMemoryForTheLookUp) {
    const std::string longName(100, 'd');
    const Terminal_ anna = open("anna", {local("bert") + ' ' + longName, local("cora") + " cora"});
    RawListener_ bert(local("bert"));
    RawListener_ cora(local("cora"));
    ASSERT_TRUE(anna->sendMessage(messageTo("cora", 1)));
    ASSERT_TRUE(anna->sendMessage(messageTo(longName, 2)));
    const Record_ noName = error(kSendFinding, "VekmsgTerminalImpl_::sendMessage() can't create Utf8String_");
    const Record_ noProbe =
        error(kFind, "VekmsgTerminalImpl_::findActiveConnection() Can't create VekmsgConnection_");
    const auto recordsWithoutMemoryFor = [&](unsigned int number, const std::string& name) {
        FixedRecords_ records;
        inFreshThread([&] {
            const SP_VekMessage_ sp_message = messageTo(name, 3);
            const AllocationFailure_ failure(number);
            EXPECT_FALSE(anna->sendMessage(sp_message));
        });
        return records.all();
    };

    EXPECT_EQ(recordsWithoutMemoryFor(1, longName), Records_{noName});
    EXPECT_EQ(recordsWithoutMemoryFor(2, longName), Records_{noName});  // its text
    ASSERT_FALSE(recordsWithoutMemoryFor(3, longName).empty());
    EXPECT_EQ(recordsWithoutMemoryFor(3, longName)[0], noProbe);

    ASSERT_TRUE(anna->sendMessage(messageTo("cora", 4)));
    EXPECT_EQ(recordsWithoutMemoryFor(1, "cora"), Records_{noName});
    ASSERT_FALSE(recordsWithoutMemoryFor(2, "cora").empty());
    EXPECT_EQ(recordsWithoutMemoryFor(2, "cora")[0], noProbe);
    EXPECT_EQ(anna->m_activeConnections.size(), 2U);
}

TEST_F(TerminalSend, aSecondConnectionWithTheSamePeerIsNotInserted) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    inFreshThread([&] {
        const SP_TestConnection_ sp_present = anna->addActive("bert");
        const SP_VekMessage_ sp_message = messageTo("bert", 1);
        AllocationFailure_ failure(2);  // the probe, without which the present connection is not found

        EXPECT_FALSE(anna->sendMessage(sp_message));

        EXPECT_EQ(anna->active("bert").get(), sp_present.get());
    });

    EXPECT_EQ(
        m_records.take(),
        (Records_{error(kFind, "VekmsgTerminalImpl_::findActiveConnection() Can't create VekmsgConnection_"),
                  error(kSendOpening,
                        "VekmsgTerminalImpl_::sendMessage() connection anna -- bert insert failure")}));
    RawPeer_ dropped = listener.accept();
    EXPECT_EQ(dropped.readBlock(), nameBlock("anna"));
    EXPECT_TRUE(dropped.isAtEnd());
}

// The choice of an address never hands over a wildcard; one becomes a wildcard behind its back here.
TEST_F(TerminalSend, withoutAnAddressAndADefaultOneThereIsNoRoute) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    VekSocketAddress_ address;
    const auto forget = [&] { address.initializeAsWildcard(VekSocketAddress_::UNKNOWN); };
    TestTerminal_::AddressNames_ names{SP_StdString_::adopt(new LastAct_(local("bert"), forget))};
    SP_VekSocket_ sp_socket;

    EXPECT_TRUE(anna->sendMessage(TestTerminal_::Connecting_(), *name("bert"), names, address, sp_socket));

    EXPECT_TRUE(sp_socket.isNull());
    EXPECT_EQ(m_records.take(), Records_{error(kSendConnecting, "No route to bert at anna")});
}

TEST_F(TerminalSend, afterADestinationWithoutARouteTheNextAddressIsTried) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("bert"));
    VekSocketAddress_ address;
    const auto forget = [&] { address.initializeAsWildcard(VekSocketAddress_::UNKNOWN); };
    TestTerminal_::AddressNames_ names{SP_StdString_::adopt(new LastAct_(local("other"), forget)),
                                       SP_StdString_(new std::string(local("bert")))};
    SP_VekSocket_ sp_socket;

    EXPECT_TRUE(anna->sendMessage(TestTerminal_::Connecting_(), *name("bert"), names, address, sp_socket));

    ASSERT_FALSE(sp_socket.isNull());
    EXPECT_TRUE(sp_socket->isConnected());
    EXPECT_EQ(m_records.take(), Records_{error(kSendConnecting, "No route to bert at anna")});
}

TEST_F(TerminalSend, insteadOfAnAddressTheDefaultOneServes) {
    const Terminal_ anna = openLocal("anna", {"bert"});
    RawListener_ listener(local("relay"));
    ASSERT_TRUE(anna->m_defaultTransportAddress.setRealName(local("relay").c_str()));
    VekSocketAddress_ address;
    const auto forget = [&] { address.initializeAsWildcard(VekSocketAddress_::UNKNOWN); };
    TestTerminal_::AddressNames_ names{SP_StdString_::adopt(new LastAct_(local("bert"), forget))};
    SP_VekSocket_ sp_socket;

    EXPECT_TRUE(anna->sendMessage(TestTerminal_::Connecting_(), *name("bert"), names, address, sp_socket));

    EXPECT_EQ(address.realName(), local("relay"));
    EXPECT_EQ(m_records.take(), Records_{});
}
