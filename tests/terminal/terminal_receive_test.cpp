#include <gtest/gtest.h>

#include <stdexcept>

#include "support/allocation_failure.h"
#include "support/child_process.h"
#include "support/system_calls.h"
#include "terminal/foreign_message.h"
#include "terminal/installation.h"

namespace {

using Numbers_ = std::vector<unsigned int>;

constexpr char kReadHeader[] =
    "static unsigned int VekMessageBinary_::deserializeTtlvHeader(const unsigned char*, unsigned int, "
    "VekmsgTag_&, VekmsgDataType_&, unsigned int&)";

/// Does something when it goes.
class LeavingMessage_ : public ForeignMessage_ {
public:
    explicit LeavingMessage_(const std::function<void()>& act) : ForeignMessage_("anna"), m_act(act) {}
    ~LeavingMessage_() override { m_act(); }

private:
    std::function<void()> m_act;
};

/// A buffer that loses its last byte when it gets its next owner.
class LosingBuffer_ : public BasicBuffer_ {
public:
    explicit LosingBuffer_(const Bytes_& bytes) : BasicBuffer_(static_cast<unsigned int>(bytes.size())) {
        setDataArea(0, capacity());
        bytes.copy(reinterpret_cast<char*>(data()), bytes.size());
    }
    void addRef() override {
        BasicBuffer_::addRef();
        if (!m_loses) return;
        m_loses = false;
        setDataArea(dataOffset(), dataLength() - 1);
    }

    bool m_loses = false;
};

/// Anna, with raw peers that have named themselves.
class TerminalReceive : public Installation_ {
protected:
    void SetUp() override { m_anna = openLocal("anna", {"aaron", "xenia", "yann", "zoe"}); }

    RawPeer_ peer(const std::string& peerName) {
        RawPeer_ peer(local("anna"));
        peer.write(nameBlock(peerName));
        EXPECT_TRUE(m_anna->pass());
        EXPECT_FALSE(m_anna->active(peerName).isNull());
        return peer;
    }

    /// A listening peer to which anna has a connection, on which nothing is left to read.
    RawPeer_ connectedPeer(const std::string& peerName) {
        RawListener_ listener(local(peerName));
        EXPECT_TRUE(m_anna->sendMessage(messageTo(peerName, 0)));
        RawPeer_ peer = listener.accept();
        EXPECT_EQ(peer.readBlock(), nameBlock("anna"));
        EXPECT_EQ(peer.readBlock(), messageBlock(peerName, "anna", 0));
        return peer;
    }

    /// A buffer on the connection with bert, as if it had come from there.
    void putBuffer(const Bytes_& bytes) { m_anna->active("bert")->putBackReceived(bufferOf(bytes)); }

    void keep(const std::string& peerName, const std::vector<Bytes_>& blocks) {
        BufferQueue_ queue;
        for (const Bytes_& bytes : blocks) queue.push_back(bufferOf(bytes));
        m_anna->m_keptBlocks.push_back({name(peerName), queue});
    }

    void setFilter(const FilterOf_::Process_& process) { m_anna->setReceiveFilter(filterOf(process)); }

    /// Puts `sp_message` in place of the next message that arrives.
    void replaceWith(const SP_VekMessage_& sp_replacement) {
        setFilter([=](SP_VekMessage_& sp_message) {
            sp_message = sp_replacement;
            return true;
        });
    }

    /// What one call gives: null for no message, and also sets m_result.
    SP_VekMessage_ receive() {
        SP_VekMessage_ sp_message(new ForeignMessage_("left over"));
        m_result = m_anna->receiveMessage(sp_message);
        return sp_message;
    }

    bool givesNothing() { return receive().isNull() && m_result; }
    bool fails() { return receive().isNull() && !m_result; }

    Terminal_ m_anna;
    bool m_result = false;
};

Bytes_ toAnna(unsigned int number) {
    return messageBlock("anna", "bert", number);
}

Bytes_ ping(const std::string& source, unsigned int number, unsigned int timeToLive = 3) {
    return messageBlock("anna", source, number, timeToLive, kPingRequest);
}

}  // namespace

TEST_F(TerminalReceive, aClosedTerminalGivesNothing) {
    m_anna->close();

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aQueuedMessageIsGivenWithoutLookingAtAnySocket) {
    RawPeer_ bert = peer("bert");
    m_anna->m_receivedMessages.push_back(messageTo("anna", 4));
    SystemCalls_ calls;

    EXPECT_EQ(numberIn(receive()), 4U);

    EXPECT_TRUE(m_result);
    EXPECT_EQ(calls.count(SystemCalls_::Accept), 0U);
    EXPECT_EQ(calls.count(SystemCalls_::Recv), 0U);
}

TEST_F(TerminalReceive, withoutDataThereIsNoMessage) {
    RawPeer_ bert = peer("bert");

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aFailingPassFailsTheCall) {
    RawPeer_ bert = peer("bert");
    bert.write(toAnna(1));
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Accept, EMFILE);

    EXPECT_TRUE(fails());

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, "bool VekSocket_::accept(SP_VekSocket_&)",
                                                      "VekSocket_::accept() accept(" + local("anna") +
                                                          ") failed with error(24): Too many open files")});
    EXPECT_EQ(numberIn(receive()), 1U);
}

TEST_F(TerminalReceive, aMessageArrivesWithAllItsFields) {
    RawPeer_ bert = peer("bert");
    bert.write(messageBlock("anna", "cora", 77, 9, "a schema"));

    const SP_VekMessage_ sp_message = receive();

    ASSERT_TRUE(sp_message);
    EXPECT_EQ(text(sp_message->getDestination()), "anna");
    EXPECT_EQ(text(sp_message->getSource()), "cora");
    EXPECT_EQ(sp_message->getTimeToLive(), 9U);
    EXPECT_EQ(text(sp_message->getPayloadSchema()), "a schema");
    EXPECT_EQ(numberIn(sp_message), 77U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, eachCallTakesOneBlockOfEachConnectionInTheOrderOfPeerNames) {
    RawPeer_ cora = peer("cora");
    RawPeer_ bert = peer("bert");
    cora.write(toAnna(10) + toAnna(11));
    bert.write(toAnna(1) + toAnna(2) + toAnna(3));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 10, 2, 11, 3}));
}

TEST_F(TerminalReceive, aMessageForAnotherComponentIsForwardedWithItsTimeToLiveOneLower) {
    RawPeer_ zoe = connectedPeer("zoe");
    RawPeer_ bert = peer("bert");
    bert.write(messageBlock("zoe", "cora", 5, 1) + messageBlock("zoe", "cora", 6, 0xFFFFFFFF));

    EXPECT_TRUE(givesNothing());
    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(zoe.readBlock(), messageBlock("zoe", "cora", 5, 0));
    EXPECT_EQ(zoe.readBlock(), messageBlock("zoe", "cora", 6, 0xFFFFFFFE));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aMessageInTransitWithoutTimeToLiveIsDropped) {
    RawPeer_ bert = peer("bert");
    bert.write(messageBlock("zoe", "cora", 5, 0));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(),
              Records_{warning(kForwarding,
                               "anna can't route a message from bert because TTL = 0, dest zoe src cora")});
    EXPECT_EQ(m_anna->m_activeConnections.size(), 1U);
}

TEST_F(TerminalReceive, aMessageThatCannotBeForwardedIsDroppedWithTheTimeToLiveItHad) {
    RawPeer_ bert = peer("bert");
    bert.write(messageBlock("nobody", "cora", 5, 2));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(
        m_records.take(),
        (Records_{debug(kConnectionStart, "VekmsgConnection_::start() Can't start without a socket"),
                  warning(kForwarding,
                          "anna failed to route a message from bert with dest nobody, src cora, TTL 2")}));
}

TEST_F(TerminalReceive, anEmptyDestinationIsAForeignName) {
    RawPeer_ bert = peer("bert");
    bert.write(messageBlock("", "cora", 5, 2));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(),
              (Records_{error(kSend, "VekmsgTerminalImpl_::sendMessage() null destination"),
                        warning(kForwarding,
                                "anna failed to route a message from bert with dest , src cora, TTL 2")}));
}

TEST_F(TerminalReceive, theSendFilterSeesMessagesInTransitAndPingReplies) {
    RawPeer_ zoe = connectedPeer("zoe");
    RawPeer_ bert = peer("bert");
    std::vector<std::string> seen;
    m_anna->setSendFilter(filterOf([&](SP_VekMessage_& sp_message) {
        seen.push_back(text(sp_message->getDestination()));
        return false;
    }));
    bert.write(messageBlock("zoe", "cora", 5) + ping("bert", 6));

    EXPECT_TRUE(givesNothing());
    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(seen, (std::vector<std::string>{"zoe", "bert"}));
    EXPECT_EQ(
        m_records.take(),
        (Records_{
            warning(kForwarding, "anna failed to route a message from bert with dest zoe, src cora, TTL 3"),
            warning(kPinging, "anna failed to respond to ping from bert with dest anna, src bert")}));
    EXPECT_TRUE(zoe.isQuiet());
    EXPECT_TRUE(bert.isQuiet());
}

TEST_F(TerminalReceive, aPingIsAnsweredInPlace) {
    RawPeer_ bert = peer("bert");
    bert.write(ping("bert", 5, 17));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "anna", 5, 17, kPingReply));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aSchemaThatDiffersFromThePingRequestIsAnOrdinaryMessage) {
    RawPeer_ bert = peer("bert");
    const std::string request = kPingRequest;
    for (const std::string& schema : {"vek" + request.substr(3), request + " ",
                                      request.substr(0, request.size() - 1), std::string(kPingReply)}) {
        bert.write(messageBlock("anna", "bert", 5, 3, schema));

        const SP_VekMessage_ sp_message = receive();

        ASSERT_TRUE(sp_message) << schema;
        EXPECT_EQ(text(sp_message->getPayloadSchema()), schema);
    }
    EXPECT_TRUE(bert.isQuiet());
}

TEST_F(TerminalReceive, aPingForAnotherComponentIsForwarded) {
    RawPeer_ zoe = connectedPeer("zoe");
    RawPeer_ bert = peer("bert");
    bert.write(messageBlock("zoe", "bert", 5, 3, kPingRequest));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(zoe.readBlock(), messageBlock("zoe", "bert", 5, 2, kPingRequest));
}

TEST_F(TerminalReceive, aPingWithoutSourceCannotBeAnswered) {
    RawPeer_ bert = peer("bert");
    bert.write(ping("", 5));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(),
              (Records_{error(kSend, "VekmsgTerminalImpl_::sendMessage() null destination"),
                        warning(kPinging, "anna failed to respond to ping from bert with dest anna, src ")}));
}

TEST_F(TerminalReceive, aPingWhoseNamesCannotBeSwappedIsDropped) {
    RawPeer_ bert = peer("bert");
    const SmartPointer_<ForeignMessage_> sp_foreign(new ForeignMessage_("anna"));
    sp_foreign->m_source = "cora";
    sp_foreign->m_schema = kPingRequest;
    sp_foreign->m_refusesSwap = true;
    replaceWith(sp_foreign);
    bert.write(toAnna(1));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(),
              Records_{warning(kPinging,
                               "anna failed to generate ping response to bert with dest anna, src cora")});
}

TEST_F(TerminalReceive, aPingThatRefusesTheReplySchemaIsDropped) {
    RawPeer_ bert = peer("bert");
    const SmartPointer_<ForeignMessage_> sp_foreign(new ForeignMessage_("anna"));
    sp_foreign->m_source = "cora";
    sp_foreign->m_schema = kPingRequest;
    sp_foreign->m_refusesSchema = true;
    replaceWith(sp_foreign);
    bert.write(toAnna(1));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(
        m_records.take(),
        Records_{warning(kPinging, "anna failed to set ping response uri to bert with dest cora, src anna")});
}

TEST_F(TerminalReceive, aMessageWithoutDestinationIsDropped) {
    RawPeer_ bert = peer("bert");
    const SmartPointer_<ForeignMessage_> sp_foreign(new ForeignMessage_(""));
    sp_foreign->m_hasDestination = false;
    replaceWith(sp_foreign);
    bert.write(toAnna(1));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(),
              Records_{warning(kDispatching, "anna dropped a message with NULL destination")});
}

TEST_F(TerminalReceive, aMessageWithAStuckTimeToLiveIsDropped) {
    RawPeer_ bert = peer("bert");
    const SmartPointer_<ForeignMessage_> sp_foreign(new ForeignMessage_("zoe"));
    sp_foreign->m_source = "cora";
    sp_foreign->m_timeToLive = 7;
    sp_foreign->m_refusesTimeToLive = true;
    replaceWith(sp_foreign);
    bert.write(toAnna(1));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(),
              Records_{warning(kForwarding,
                               "anna failed to route a message with stuck TTL from bert with dest zoe, src "
                               "cora, TTL 7")});
}

TEST_F(TerminalReceive, aForeignMessageIsDeliveredButNotForwarded) {
    RawPeer_ bert = peer("bert");
    const SP_VekMessage_ sp_own(new ForeignMessage_("anna"));
    replaceWith(sp_own);
    bert.write(toAnna(1));
    EXPECT_EQ(receive(), sp_own);

    replaceWith(SP_VekMessage_(new ForeignMessage_("zoe")));
    bert.write(toAnna(2));
    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(m_records.take(),
              (Records_{error(kSend, "VekmsgTerminalImpl_::sendMessage() sp_message is not binary encoded"),
                        warning(kForwarding,
                                "anna failed to route a message from bert with dest zoe, src anna, TTL 3")}));
}

TEST_F(TerminalReceive, aBlockThatIsNoMessageIsDroppedAndTheNextOneIsRead) {
    RawPeer_ bert = peer("bert");
    bert.write(block(2, "") + block(2, item(9, 3, "anna")) + toAnna(3));

    EXPECT_TRUE(givesNothing());
    EXPECT_EQ(
        m_records.take(),
        (Records_{messageRecord(3, kReadHeader,
                                "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short"),
                  warning(kFirstBlock, "anna deserializer failed to handle data from bert")}));
    EXPECT_TRUE(givesNothing());
    EXPECT_EQ(
        m_records.take(),
        (Records_{messageRecord(
                      3, "unsigned int VekMessageBinary_::deserialize(const unsigned char*, unsigned int)",
                      "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_DESTINATION_NAME got 9"),
                  warning(kFirstBlock, "anna deserializer failed to handle data from bert")}));
    EXPECT_EQ(numberIn(receive()), 3U);
}

TEST_F(TerminalReceive, aBufferWithTwoBlocksGivesTwoMessagesInOrder) {
    RawPeer_ bert = peer("bert");
    putBuffer(toAnna(1) + toAnna(2));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 2}));

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aBufferThatIsTooShortForAHeaderIsDropped) {
    RawPeer_ bert = peer("bert");
    for (unsigned int length = 0; length < 4; ++length) {
        putBuffer(toAnna(1).substr(0, length));

        EXPECT_TRUE(givesNothing());

        EXPECT_EQ(
            m_records.take(),
            Records_{warning(kFirstBlock, "VekmsgTerminalImpl_::receiveMessage(anna) invalid data length " +
                                              std::to_string(length) + " from bert")});
    }
    EXPECT_EQ(m_anna->m_activeConnections.size(), 1U);
}

TEST_F(TerminalReceive, aSecondBlockThatClaimsMoreThanThereIsIsDroppedAlone) {
    RawPeer_ bert = peer("bert");
    const Bytes_ cut = toAnna(2).substr(0, 20);
    putBuffer(toAnna(1) + cut);

    EXPECT_EQ(numberIn(receive()), 1U);

    EXPECT_EQ(
        m_records.take(),
        Records_{error(kFirstBlock, "VekmsgTerminalImpl_::receiveMessage(anna) encoding block length " +
                                        std::to_string(toAnna(2).size() - 4) + " > data 16 from bert")});
    EXPECT_TRUE(givesNothing());
}

TEST_F(TerminalReceive, whatFollowsADamagedBlockInItsBufferIsDropped) {
    RawPeer_ bert = peer("bert");
    putBuffer(block(2, "") + toAnna(2));

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(
        m_records.take(),
        (Records_{messageRecord(3, kReadHeader,
                                "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short"),
                  warning(kFirstBlock, "anna deserializer failed to handle data from bert")}));
    EXPECT_TRUE(givesNothing());
}

TEST_F(TerminalReceive, theBlockTypeIsNotLookedAtAgain) {
    RawPeer_ bert = peer("bert");
    Bytes_ bytes = toAnna(1);
    bytes[1] = 99;
    putBuffer(bytes);

    EXPECT_EQ(numberIn(receive()), 1U);
}

TEST_F(TerminalReceive, withoutMemoryForACopyTheFollowingBlocksAreLost) {
    const Outcomes_ outcomes = failEachAllocation([&]() -> Call_ {
        m_anna->close();
        m_anna = openLocal("anna");
        const std::shared_ptr<RawPeer_> bert(new RawPeer_(peer("bert")));
        putBuffer(toAnna(1) + toAnna(2));
        return [=] {
            SP_VekMessage_ sp_message;
            return bert && m_anna->receiveMessage(sp_message) && sp_message &&
                   m_anna->m_receivedMessages.empty();
        };
    });

    EXPECT_TRUE(contains(outcomes, {true, {}})) << testing::PrintToString(outcomes);
}

TEST_F(TerminalReceive, aBlockThatFindsNoMemoryForItsMessageWaits) {
    const Bytes_ bytes = toAnna(1);
    inFreshThread([&] {
        RawPeer_ bert = peer("bert");
        putBuffer(bytes);
        SP_VekMessage_ sp_message;
        {
            AllocationFailure_ failure(1);
            EXPECT_FALSE(m_anna->receiveMessage(sp_message));
        }
        EXPECT_TRUE(sp_message.isNull());
        EXPECT_EQ(
            m_records.take(),
            Records_{error(kCreate, "VekmsgTerminalImpl_::createMessage() Can't create vekMessageBinary_")});

        EXPECT_TRUE(m_anna->receiveMessage(sp_message));
        EXPECT_EQ(numberIn(sp_message), 1U);
    });
}

TEST_F(TerminalReceive, withoutMemoryToKeepItTheRestOfARefusedBufferIsLost) {
    const Bytes_ bytes = toAnna(1) + toAnna(2);

    const Outcomes_ outcomes = failEachAllocation([&]() -> Call_ {
        const std::shared_ptr<TestTerminal_> anna(new TestTerminal_);
        anna->m_sp_componentName = name("anna");
        anna->setReceiveFilter(filterOf([](SP_VekMessage_&) { return false; }));
        anna->m_keptBlocks.push_back({name("bert"), BufferQueue_(1, bufferOf(bytes))});
        return [=] {
            SP_VekMessage_ sp_message;
            EXPECT_FALSE(anna->receiveMessage(sp_message));
            return anna->m_keptBlocks.empty();
        };
    });

    ASSERT_FALSE(outcomes.empty());
    EXPECT_EQ(outcomes.back(), (Outcome_{true, {}}));
}

TEST_F(TerminalReceive, theReceiveFilterSeesEveryMessage) {
    RawPeer_ zoe = connectedPeer("zoe");
    RawPeer_ bert = peer("bert");
    std::vector<std::string> seen;
    setFilter([&](SP_VekMessage_& sp_message) {
        seen.push_back(text(sp_message->getDestination()) + " " + text(sp_message->getPayloadSchema()));
        return true;
    });
    bert.write(toAnna(1) + ping("bert", 2) + messageBlock("zoe", "bert", 3));

    EXPECT_EQ(numberIn(receive()), 1U);
    EXPECT_TRUE(givesNothing());
    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(seen,
              (std::vector<std::string>{"anna numbers", std::string("anna ") + kPingRequest, "zoe numbers"}));
}

TEST_F(TerminalReceive, aSwallowedMessageIsDroppedSilently) {
    RawPeer_ bert = peer("bert");
    setFilter([](SP_VekMessage_& sp_message) {
        if (numberIn(sp_message) == 1) sp_message.reset();
        return true;
    });
    putBuffer(toAnna(1) + toAnna(2));

    EXPECT_EQ(numbersAt(*m_anna), Numbers_{2});

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, theMessageThatAFilterPutsInIsTheOneDelivered) {
    RawPeer_ bert = peer("bert");
    replaceWith(messageTo("anna", 8));
    bert.write(messageBlock("zoe", "bert", 1));

    EXPECT_EQ(numberIn(receive()), 8U);
}

TEST_F(TerminalReceive, aRefusingFilterFailsTheCallAndTheRestIsDeliveredByTheNext) {
    RawPeer_ bert = peer("bert");
    RawPeer_ cora = peer("cora");
    setFilter([](SP_VekMessage_& sp_message) { return numberIn(sp_message) != 2; });
    cora.write(toAnna(5));
    putBuffer(toAnna(1) + toAnna(2) + toAnna(3) + toAnna(4));

    EXPECT_TRUE(fails());
    EXPECT_EQ(m_anna->m_receivedMessages.size(), 1U);

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 3, 4, 5}));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aRefusedMessageAtTheEndOfItsBufferLeavesNothingBehind) {
    RawPeer_ bert = peer("bert");
    setFilter([](SP_VekMessage_& sp_message) { return numberIn(sp_message) != 1; });
    bert.write(toAnna(1) + toAnna(2));

    EXPECT_TRUE(fails());

    EXPECT_EQ(numbersAt(*m_anna), Numbers_{2});
}

TEST_F(TerminalReceive, aRefusedKeptMessageAtTheEndOfItsBufferLeavesNothingBehind) {
    setFilter([](SP_VekMessage_& sp_message) { return numberIn(sp_message) != 1; });
    keep("bert", {toAnna(1)});

    EXPECT_TRUE(fails());

    EXPECT_TRUE(m_anna->m_keptBlocks.empty());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aRefusalAmongKeptBlocksLeavesTheRestForTheNextCall) {
    setFilter([](SP_VekMessage_& sp_message) { return numberIn(sp_message) != 2; });
    keep("bert", {toAnna(1) + toAnna(2) + toAnna(3), toAnna(4)});
    keep("cora", {toAnna(5)});

    EXPECT_TRUE(fails());

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 3, 4, 5}));
    EXPECT_TRUE(m_anna->m_keptBlocks.empty());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aFilterThatThrowsRefuses) {
    RawPeer_ bert = peer("bert");
    setFilter([](SP_VekMessage_& sp_message) {
        if (numberIn(sp_message) == 1) throw std::runtime_error("no");
        return true;
    });
    putBuffer(toAnna(1) + toAnna(2));

    EXPECT_TRUE(fails());

    EXPECT_EQ(numbersAt(*m_anna), Numbers_{2});
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, aFilterMaySendAReply) {
    RawPeer_ bert = peer("bert");
    setFilter([&](SP_VekMessage_&) { return m_anna->sendMessage(messageTo("bert", 9)); });
    bert.write(toAnna(1));

    EXPECT_EQ(numberIn(receive()), 1U);

    EXPECT_EQ(bert.readBlock(), messageBlock("bert", "anna", 9));
}

TEST_F(TerminalReceive, aFilterMayReceive) {
    RawPeer_ bert = peer("bert");
    Numbers_ inside;
    setFilter([&](SP_VekMessage_& sp_message) {
        SP_VekMessage_ sp_next;
        if (numberIn(sp_message) != 1) return true;
        if (m_anna->receiveMessage(sp_next) && sp_next) inside.push_back(numberIn(sp_next));
        return true;
    });
    bert.write(toAnna(1) + toAnna(2) + toAnna(3));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 3}));

    EXPECT_EQ(inside, Numbers_{2});
}

TEST_F(TerminalReceive, aFilterMayReceiveAmongKeptBlocks) {
    Numbers_ inside;
    setFilter([&](SP_VekMessage_& sp_message) {
        if (numberIn(sp_message) == 1) inside = numbersAt(*m_anna);
        return true;
    });
    keep("bert", {toAnna(1), toAnna(2)});
    keep("cora", {toAnna(3)});

    EXPECT_EQ(numbersAt(*m_anna), Numbers_{1});

    EXPECT_EQ(inside, (Numbers_{2, 3}));
}

TEST_F(TerminalReceive, aFilterMayReplaceItself) {
    RawPeer_ bert = peer("bert");
    const std::string marker = "still alive after the replacement";
    std::string seen;
    setFilter([this, marker, &seen](SP_VekMessage_&) {
        m_anna->setReceiveFilter(SP_VekmsgFilter_());
        seen = marker;
        return true;
    });
    bert.write(toAnna(1) + toAnna(2));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 2}));

    EXPECT_EQ(seen, marker);
    EXPECT_TRUE(m_anna->m_sp_receiveFilter.isNull());
}

TEST_F(TerminalReceive, connectionsThatAFilterMakesDoNotDisturbTheWalk) {
    RawListener_ aaron(local("aaron"));
    RawListener_ xenia(local("xenia"));
    RawPeer_ bert = peer("bert");
    RawPeer_ cora = peer("cora");
    setFilter([&](SP_VekMessage_& sp_message) {
        return numberIn(sp_message) != 1 ||
               (m_anna->sendMessage(messageTo("aaron", 8)) && m_anna->sendMessage(messageTo("xenia", 9)));
    });
    bert.write(toAnna(1));
    cora.write(toAnna(2));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 2}));

    EXPECT_EQ(m_anna->m_activeConnections.size(), 4U);
}

TEST_F(TerminalReceive, theConnectionBeingServedMayEndWhileAFilterRuns) {
    RawPeer_ bert = peer("bert");
    RawPeer_ cora = peer("cora");
    setFilter([&](SP_VekMessage_& sp_message) {
        if (numberIn(sp_message) != 1) return true;
        bert.close();
        return m_anna->pass();
    });
    bert.write(toAnna(1));
    cora.write(toAnna(2));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 2}));

    EXPECT_EQ(m_records.take(),
              Records_{debug(kServing, "Deleting active connection between anna and bert")});
}

TEST_F(TerminalReceive, theNextConnectionsMayEndWhileAFilterRuns) {
    RawPeer_ bert = peer("bert");
    RawPeer_ cora = peer("cora");
    RawPeer_ dora = peer("dora");
    setFilter([&](SP_VekMessage_& sp_message) {
        if (numberIn(sp_message) != 1) return true;
        cora.close();
        return m_anna->pass();
    });
    bert.write(toAnna(1));
    cora.write(toAnna(2));
    dora.write(toAnna(3));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 3, 2}));

    EXPECT_EQ(m_anna->m_activeConnections.size(), 2U);
}

TEST_F(TerminalReceive, theRestOfARefusedBufferOutlivesItsConnection) {
    RawPeer_ bert = peer("bert");
    setFilter([&](SP_VekMessage_& sp_message) {
        if (numberIn(sp_message) != 1) return true;
        bert.close();
        m_anna->pass();
        return false;
    });
    putBuffer(toAnna(1) + toAnna(2));

    EXPECT_TRUE(fails());

    EXPECT_TRUE(m_anna->active("bert").isNull());
    EXPECT_EQ(numbersAt(*m_anna), Numbers_{2});
}

TEST_F(TerminalReceive, aConnectionThatFailsWhenItsTurnComesGoesWithoutARecord) {
    RawPeer_ bert = peer("bert");
    RawPeer_ cora = peer("cora");
    RawPeer_ dora = peer("dora");
    const SP_VekmsgConnection_ sp_cora = m_anna->active("cora");
    setFilter([&](SP_VekMessage_& sp_message) {
        if (numberIn(sp_message) == 1) cora.close();
        return true;
    });
    bert.write(toAnna(1));
    dora.write(toAnna(3));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 3}));

    EXPECT_TRUE(m_anna->active("cora").isNull());
    EXPECT_EQ(sp_cora->state(), VekmsgConnection_::STATE_IDLE);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, whatAConnectionBringsWhenItFailsInItsTurnIsKept) {
    RawPeer_ bert = peer("bert");
    RawPeer_ cora = peer("cora");
    setFilter([&](SP_VekMessage_& sp_message) {
        if (numberIn(sp_message) != 1) return true;
        cora.write(toAnna(2));
        cora.close();
        return true;
    });
    bert.write(toAnna(1));

    EXPECT_EQ(numberIn(receive()), 1U);
    EXPECT_TRUE(m_anna->active("cora").isNull());
    EXPECT_EQ(m_anna->m_keptBlocks.size(), 1U);
    EXPECT_EQ(numberIn(receive()), 2U);

    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalReceive, keptBlocksComeInOrderAndBeforeThoseOfConnections) {
    RawPeer_ aaron = peer("aaron");
    aaron.write(toAnna(9));
    keep("cora", {toAnna(1), toAnna(2)});
    keep("bert", {toAnna(3)});

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 2, 3, 9}));
}

TEST_F(TerminalReceive, aReturningPeersBlocksComeBehindThoseOfItsFormerConnection) {
    RawPeer_ first = peer("bert");
    first.write(toAnna(1) + toAnna(2));
    first.close();
    ASSERT_TRUE(m_anna->pass());
    RawPeer_ second = peer("bert");
    second.write(toAnna(3));

    EXPECT_EQ(numbersAt(*m_anna), (Numbers_{1, 2, 3}));
}

TEST_F(TerminalReceive, pingsAndMessagesInTransitAmongKeptBlocksAreServed) {
    RawPeer_ zoe = connectedPeer("zoe");
    RawPeer_ aaron = connectedPeer("aaron");
    keep("bert", {ping("aaron", 1), messageBlock("zoe", "bert", 2), messageBlock("zoe", "bert", 3, 0)});

    EXPECT_TRUE(givesNothing());

    EXPECT_EQ(aaron.readBlock(), messageBlock("aaron", "anna", 1, 3, kPingReply));
    EXPECT_EQ(zoe.readBlock(), messageBlock("zoe", "bert", 2, 2));
    EXPECT_EQ(m_records.take(),
              Records_{warning(kForwarding,
                               "anna can't route a message from bert because TTL = 0, dest zoe src bert")});
}

TEST_F(TerminalReceive, damagedKeptBlocksCarryTheNameOfTheirPeer) {
    keep("bert", {toAnna(1).substr(0, 3), toAnna(2)});

    EXPECT_EQ(numberIn(receive()), 2U);

    EXPECT_EQ(m_records.take(),
              Records_{warning(kFirstBlock,
                               "VekmsgTerminalImpl_::receiveMessage(anna) invalid data length 3 from bert")});
}

// A message of the terminal's own making is always one that it can read into. The message in whose place it
// comes can put another one there.
TEST_F(TerminalReceive, blocksAreReadIntoMessagesOfTheLibrarysClassAlone) {
    SP_BasicBuffer_ sp_block = bufferOf(toAnna(1));
    SP_BasicBuffer_ sp_rest;
    SP_VekMessage_ sp_message;
    sp_message = SP_VekMessage_(
        new LeavingMessage_([&] { sp_message = SP_VekMessage_(new ForeignMessage_("anna")); }));

    EXPECT_EQ(
        m_anna->receiveMessage(TestTerminal_::FirstBlock_(), sp_block, sp_rest, name("bert"), sp_message),
        TestTerminal_::Decoded_::Failed);

    EXPECT_EQ(m_records.take(),
              Records_{error(kFirstBlock, "VekmsgTerminalImpl_::receiveMessage() invalid sp_impMessage")});
}

TEST_F(TerminalReceive, aMessageThatLeavesPartOfItsBlockUnreadIsTakenAllTheSame) {
    auto* p_block = new LosingBuffer_(toAnna(1));
    SP_BasicBuffer_ sp_block(p_block);
    p_block->m_loses = true;
    SP_BasicBuffer_ sp_rest;
    SP_VekMessage_ sp_message;

    EXPECT_EQ(
        m_anna->receiveMessage(TestTerminal_::FirstBlock_(), sp_block, sp_rest, name("bert"), sp_message),
        TestTerminal_::Decoded_::Message);

    const std::size_t length = toAnna(1).size() - 4;
    EXPECT_EQ(text(sp_message->getDestination()), "anna");
    EXPECT_EQ(m_records.take(),
              Records_{warning(kFirstBlock, "anna message deserializer used " + std::to_string(length - 1) +
                                                " out of " + std::to_string(length) + " data from bert")});
}
