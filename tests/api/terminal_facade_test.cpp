#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "api/component_folder.h"
#include "api/public_records.h"
#include "message/message_binary.h"
#include "support/allocation_failure.h"
#include "support/child_process.h"
#include "support/record_capture.h"
#include "vekmsg/vekmsg.h"

namespace {

constexpr char kSource[] = "vekmsg.cpp";
constexpr VekmsgTag_ kTag = 7;

Record_ notOpenYet(const std::string& signature, const std::string& operation) {
    return Record_(3, kSource, signature, "VekmsgTerminal_::" + operation + "() not open yet");
}

/// Counts the messages it sees and passes them on.
class CountingFilter_ : public VekmsgFilter_ {
public:
    explicit CountingFilter_(unsigned int& count) : m_count(count) {}
    bool process(SP_VekMessage_&) override {
        ++m_count;
        return true;
    }

private:
    unsigned int& m_count;
};

class TerminalFacade : public testing::Test {
protected:
    void openBoth() {
        ASSERT_TRUE(m_alpha.open(utf8("alpha"), m_folder.directory()));
        ASSERT_TRUE(m_beta.open(utf8("beta"), m_folder.directory()));
        m_records.take();
    }

    static SP_VekMessage_ createMessage(VekmsgTerminal_& terminal, const char* p_destination,
                                        unsigned int value) {
        SP_VekMessage_ sp_message;
        EXPECT_TRUE(terminal.createMessage(sp_message));
        sp_message->setDestination(utf8(p_destination));
        sp_message->setPayloadSchema(utf8("a schema"), VekMessage_::SCHEMA_URI);
        const SP_VekmsgElement_ sp_element = sp_message->createElement(kTag);
        sp_element->setValue(value);
        sp_message->setPayload(sp_element);
        return sp_message;
    }

    static bool send(VekmsgTerminal_& terminal, const char* p_destination, unsigned int value) {
        return terminal.sendMessage(createMessage(terminal, p_destination, value));
    }

    static SP_VekMessage_ await(VekmsgTerminal_& terminal) {
        SP_VekMessage_ sp_message;
        eventually([&] { return !terminal.receiveMessage(sp_message) || sp_message; });
        return sp_message;
    }

    static unsigned int valueOf(const SP_VekMessage_& sp_message) {
        const SP_VekmsgElement_ sp_payload = sp_message ? sp_message->getPayload() : SP_VekmsgElement_();
        unsigned int value = 0;
        if (sp_payload) sp_payload->getValue(value);
        return value;
    }

    ComponentFolder_ m_folder{{"alpha", "beta", "gamma"}};
    RecordCapture_ m_records;
    VekmsgTerminal_ m_alpha;
    VekmsgTerminal_ m_beta;
};

TEST_F(TerminalFacade, closedTerminalsRefuseToCreateMessages) {
    SP_VekMessage_ sp_message(new VekMessageBinary_);
    VekMessage_* p_before = sp_message.get();

    EXPECT_FALSE(m_alpha.createMessage(sp_message));

    EXPECT_EQ(sp_message.get(), p_before);
    EXPECT_EQ(m_records.take(),
              (Records_{notOpenYet("virtual bool VekmsgTerminal_::createMessage(SmartPointer_<VekMessage_>&)",
                                   "createMessage")}));
}

TEST_F(TerminalFacade, closedTerminalsRefuseToSend) {
    EXPECT_FALSE(m_alpha.sendMessage(SP_VekMessage_(new VekMessageBinary_)));
    EXPECT_EQ(m_records.take(),
              (Records_{notOpenYet("virtual bool VekmsgTerminal_::sendMessage(SmartPointer_<VekMessage_>)",
                                   "sendMessage")}));
}

TEST_F(TerminalFacade, closedTerminalsRefuseToReceive) {
    SP_VekMessage_ sp_message(new VekMessageBinary_);
    VekMessage_* p_before = sp_message.get();

    EXPECT_FALSE(m_alpha.receiveMessage(sp_message));

    EXPECT_EQ(sp_message.get(), p_before);
    EXPECT_EQ(
        m_records.take(),
        (Records_{notOpenYet("virtual bool VekmsgTerminal_::receiveMessage(SmartPointer_<VekMessage_>&)",
                             "receiveMessage")}));
}

TEST_F(TerminalFacade, closedTerminalsAreConnectedToNobody) {
    EXPECT_FALSE(m_alpha.isConnected(utf8("beta")));
    EXPECT_EQ(m_records.take(),
              (Records_{notOpenYet("virtual bool VekmsgTerminal_::isConnected(const unsigned char*) const",
                                   "isConnected")}));
}

TEST_F(TerminalFacade, closedTerminalsRefuseToWait) {
    EXPECT_EQ(m_alpha.waitForMessage(10), VekmsgTerminal_::WAIT_ERROR);
    EXPECT_EQ(m_records.take(),
              (Records_{notOpenYet(
                  "virtual VekmsgTerminal_::WaitResult_ VekmsgTerminal_::waitForMessage(unsigned int)",
                  "waitForMessage")}));
}

TEST_F(TerminalFacade, closedTerminalsHaveNoPollEntries) {
    pollfd entries[4] = {};
    unsigned int count = 4;

    EXPECT_FALSE(m_alpha.fillPollFdArray(entries, count));

    EXPECT_EQ(count, 4U);
    EXPECT_EQ(m_records.take(),
              (Records_{notOpenYet("virtual bool VekmsgTerminal_::fillPollFdArray(pollfd*, unsigned int&)",
                                   "fillPollFdArray")}));
}

TEST_F(TerminalFacade, closedTerminalsTakeNoSendFilter) {
    EXPECT_FALSE(m_alpha.setSendFilter(SP_VekmsgFilter_()));
    EXPECT_EQ(
        m_records.take(),
        (Records_{notOpenYet("virtual bool VekmsgTerminal_::setSendFilter(SmartPointer_<VekmsgFilter_>)",
                             "setSendFilter")}));
}

TEST_F(TerminalFacade, closedTerminalsTakeNoReceiveFilter) {
    EXPECT_FALSE(m_alpha.setReceiveFilter(SP_VekmsgFilter_()));
    EXPECT_EQ(
        m_records.take(),
        (Records_{notOpenYet("virtual bool VekmsgTerminal_::setReceiveFilter(SmartPointer_<VekmsgFilter_>)",
                             "setReceiveFilter")}));
}

TEST_F(TerminalFacade, closedTerminalsMakeNoPrinter) {
    std::ostringstream stream;
    unsigned int count = 0;
    const SP_VekmsgFilter_ sp_old(new CountingFilter_(count));
    SP_VekmsgFilter_ sp_filter = sp_old;

    EXPECT_FALSE(m_alpha.CreateMessagePrinter(&stream, "note", sp_filter));

    EXPECT_EQ(sp_filter.get(), sp_old.get());
    EXPECT_EQ(m_records.take(), (Records_{notOpenYet("virtual bool VekmsgTerminal_::CreateMessagePrinter("
                                                     "std::ostream*, const char*, "
                                                     "SmartPointer_<VekmsgFilter_>&)",
                                                     "CreateMessagePrinter")}));
}

TEST_F(TerminalFacade, aTerminalThatWasClosedRefusesAgain) {
    openBoth();
    m_alpha.close();

    EXPECT_FALSE(m_alpha.isConnected(utf8("beta")));

    EXPECT_EQ(m_records.take(),
              (Records_{notOpenYet("virtual bool VekmsgTerminal_::isConnected(const unsigned char*) const",
                                   "isConnected")}));
}

TEST_F(TerminalFacade, closeBeforeOpenAndTwiceIsHarmless) {
    m_alpha.close();
    openBoth();
    m_alpha.close();
    m_alpha.close();

    EXPECT_EQ(m_records.take(), Records_());
    EXPECT_EQ(VekmsgTerminal_::getImplementation(&m_alpha), nullptr);
}

TEST_F(TerminalFacade, aClosedTerminalCanBeOpenedAgain) {
    openBoth();
    m_beta.close();
    EXPECT_FALSE(m_folder.hasSocketFile("beta"));

    ASSERT_TRUE(m_beta.open(utf8("beta"), m_folder.directory()));

    EXPECT_TRUE(send(m_alpha, "beta", 11));
    EXPECT_EQ(valueOf(await(m_beta)), 11U);
}

TEST_F(TerminalFacade, aTerminalMayComeBackUnderAnotherName) {
    openBoth();
    m_beta.close();

    ASSERT_TRUE(m_beta.open(utf8("gamma"), m_folder.directory()));

    EXPECT_TRUE(send(m_alpha, "gamma", 12));
    EXPECT_EQ(valueOf(await(m_beta)), 12U);
}

TEST_F(TerminalFacade, openListensAndSaysSo) {
    EXPECT_TRUE(m_alpha.open(utf8("alpha"), m_folder.directory()));

    EXPECT_TRUE(m_folder.hasSocketFile("alpha"));
    EXPECT_EQ(m_records.take(), (Records_{kNoDefaultAddress, listening(m_folder.address("alpha"))}));
}

TEST_F(TerminalFacade, openOnAnOpenTerminalRunsTheSameImplementationAgain) {
    openBoth();
    void* p_implementation = VekmsgTerminal_::getImplementation(&m_beta);
    ASSERT_TRUE(send(m_alpha, "beta", 1));
    ASSERT_EQ(valueOf(await(m_beta)), 1U);

    EXPECT_TRUE(m_beta.open(utf8("beta"), m_folder.directory()));

    EXPECT_EQ(VekmsgTerminal_::getImplementation(&m_beta), p_implementation);
    EXPECT_FALSE(m_beta.isConnected(utf8("alpha")));  // opening ended the active connections
    m_alpha.close();
    ASSERT_TRUE(m_alpha.open(utf8("alpha"), m_folder.directory()));
    EXPECT_TRUE(send(m_alpha, "beta", 2));
    EXPECT_EQ(valueOf(await(m_beta)), 2U);
}

TEST_F(TerminalFacade, openOnAnOpenTerminalFindsItsTcpAddressTaken) {
    const std::string directory = m_folder.folder().writeFile("tcp", {freeTcpAddress() + " alpha"});
    ASSERT_TRUE(m_alpha.open(utf8("alpha"), directory.c_str()));

    EXPECT_FALSE(m_alpha.open(utf8("alpha"), directory.c_str()));

    m_alpha.close();
    EXPECT_TRUE(m_alpha.open(utf8("alpha"), directory.c_str()));
}

TEST_F(TerminalFacade, aFailedOpenKeepsItsImplementationUntilClose) {
    EXPECT_FALSE(m_alpha.open(utf8(""), m_folder.directory()));
    EXPECT_EQ(m_records.take(), Records_{kEmptyName});

    EXPECT_NE(VekmsgTerminal_::getImplementation(&m_alpha), nullptr);
    SP_VekMessage_ sp_message;
    EXPECT_TRUE(m_alpha.receiveMessage(sp_message));  // as a closed implementation answers
    EXPECT_FALSE(sp_message);
    EXPECT_EQ(m_records.take(), Records_());

    m_alpha.close();
    EXPECT_EQ(VekmsgTerminal_::getImplementation(&m_alpha), nullptr);
}

TEST_F(TerminalFacade, aFailedOpenCanBeRepeated) {
    EXPECT_FALSE(m_alpha.open(utf8("alpha"), m_folder.path("missing").c_str()));
    EXPECT_FALSE(m_alpha.open(nullptr, m_folder.directory()));

    EXPECT_TRUE(m_alpha.open(utf8("alpha"), m_folder.directory()));

    ASSERT_TRUE(m_beta.open(utf8("beta"), m_folder.directory()));
    EXPECT_TRUE(send(m_alpha, "beta", 3));
    EXPECT_EQ(valueOf(await(m_beta)), 3U);
}

TEST_F(TerminalFacade, deletingAnOpenTerminalRemovesItsSocketFile) {
    VekmsgTerminal_* p_terminal = createVekmsgTerminal();
    ASSERT_NE(p_terminal, nullptr);
    ASSERT_TRUE(p_terminal->open(utf8("alpha"), m_folder.directory()));
    ASSERT_TRUE(m_folder.hasSocketFile("alpha"));
    m_records.take();

    delete p_terminal;

    EXPECT_FALSE(m_folder.hasSocketFile("alpha"));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacade, createVekmsgTerminalGivesAClosedTerminal) {
    const std::unique_ptr<VekmsgTerminal_> p_terminal(createVekmsgTerminal());
    ASSERT_NE(p_terminal, nullptr);
    EXPECT_EQ(VekmsgTerminal_::getImplementation(p_terminal.get()), nullptr);
}

TEST_F(TerminalFacade, createVekmsgTerminalWithoutMemoryIsNull) {
    const AllocationFailure_ failure(1);

    EXPECT_EQ(createVekmsgTerminal(), nullptr);

    EXPECT_TRUE(failure.hasStruck());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacade, openWithoutMemoryForTheImplementationFails) {
    {
        const AllocationFailure_ failure(1);
        EXPECT_FALSE(m_alpha.open(utf8("alpha"), m_folder.directory()));
    }
    EXPECT_EQ(
        m_records.take(),
        (Records_{Record_(3, kSource, "virtual bool VekmsgTerminal_::open(const unsigned char*, const char*)",
                          "VekmsgTerminal_::open() can't create vekmsgTerminalImpl_")}));
    EXPECT_EQ(VekmsgTerminal_::getImplementation(&m_alpha), nullptr);
    EXPECT_TRUE(m_alpha.open(utf8("alpha"), m_folder.directory()));
}

TEST_F(TerminalFacade, getImplementationFollowsOpenAndClose) {
    EXPECT_EQ(VekmsgTerminal_::getImplementation(nullptr), nullptr);
    EXPECT_EQ(VekmsgTerminal_::getImplementation(&m_alpha), nullptr);
    openBoth();
    EXPECT_NE(VekmsgTerminal_::getImplementation(&m_alpha), nullptr);
    EXPECT_NE(VekmsgTerminal_::getImplementation(&m_alpha), VekmsgTerminal_::getImplementation(&m_beta));
}

TEST_F(TerminalFacade, messagesTravelBothWays) {
    openBoth();

    EXPECT_TRUE(send(m_alpha, "beta", 21));
    const SP_VekMessage_ sp_request = await(m_beta);
    EXPECT_TRUE(send(m_beta, "alpha", 22));
    const SP_VekMessage_ sp_reply = await(m_alpha);

    EXPECT_EQ(valueOf(sp_request), 21U);
    EXPECT_EQ(text(sp_request->getSource()), "alpha");
    EXPECT_EQ(text(sp_request->getDestination()), "beta");
    EXPECT_EQ(text(sp_request->getPayloadSchema()), "a schema");
    EXPECT_EQ(sp_request->getPayloadSchemaType(), VekMessage_::SCHEMA_LITERAL);
    EXPECT_EQ(valueOf(sp_reply), 22U);
    EXPECT_TRUE(m_alpha.isConnected(utf8("beta")));
    EXPECT_TRUE(m_beta.isConnected(utf8("alpha")));
    EXPECT_FALSE(m_alpha.isConnected(utf8("gamma")));
    EXPECT_FALSE(m_alpha.isConnected(nullptr));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacade, waitForMessageTellsWhatItWaitedFor) {
    openBoth();
    EXPECT_EQ(m_beta.waitForMessage(0), VekmsgTerminal_::WAIT_TIMEOUT);

    ASSERT_TRUE(send(m_alpha, "beta", 31));

    EXPECT_EQ(m_beta.waitForMessage(10000), VekmsgTerminal_::WAIT_MESSAGE);
    EXPECT_EQ(valueOf(await(m_beta)), 31U);
    EXPECT_EQ(m_beta.waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);
}

TEST_F(TerminalFacade, theFilledPollEntriesAnnounceAMessage) {
    openBoth();
    pollfd entries[8] = {};
    unsigned int count = 8;

    ASSERT_TRUE(m_beta.fillPollFdArray(entries, count));

    ASSERT_EQ(count, 1U);  // the listening socket
    EXPECT_EQ(poll(entries, count, 0), 0);
    ASSERT_TRUE(send(m_alpha, "beta", 32));
    EXPECT_EQ(poll(entries, count, 10000), 1);
}

TEST_F(TerminalFacade, filtersSeeWhatIsSentAndReceivedUntilClose) {
    openBoth();
    unsigned int sent = 0;
    unsigned int received = 0;
    EXPECT_TRUE(m_alpha.setSendFilter(SP_VekmsgFilter_(new CountingFilter_(sent))));
    EXPECT_TRUE(m_beta.setReceiveFilter(SP_VekmsgFilter_(new CountingFilter_(received))));

    ASSERT_TRUE(send(m_alpha, "beta", 41));
    ASSERT_TRUE(await(m_beta));
    EXPECT_EQ(sent, 1U);
    EXPECT_EQ(received, 1U);

    m_alpha.close();
    m_beta.close();
    openBoth();
    ASSERT_TRUE(send(m_alpha, "beta", 42));
    ASSERT_TRUE(await(m_beta));
    EXPECT_EQ(sent, 1U);
    EXPECT_EQ(received, 1U);
}

TEST_F(TerminalFacade, thePrinterBearsTheTerminalsNameAndTheNote) {
    openBoth();
    std::ostringstream stream;
    SP_VekmsgFilter_ sp_printer;

    ASSERT_TRUE(m_alpha.CreateMessagePrinter(&stream, "a note", sp_printer));

    ASSERT_TRUE(sp_printer);
    EXPECT_EQ(stream.str(), "");  // made, not installed
    ASSERT_TRUE(m_alpha.setSendFilter(sp_printer));
    ASSERT_TRUE(send(m_alpha, "beta", 43));
    EXPECT_EQ(stream.str().substr(0, 24), "\n<!-- alpha  a note -->\n");
    EXPECT_NE(stream.str().find("<Tag_7 Type=\"uint\">43</Tag_7>"), std::string::npos);
}

TEST_F(TerminalFacade, messagesAndElementsOutliveTheTerminal) {
    openBoth();
    ASSERT_TRUE(send(m_alpha, "beta", 51));
    SP_VekMessage_ sp_received = await(m_beta);
    ASSERT_TRUE(sp_received);
    SP_VekMessage_ sp_created = createMessage(m_beta, "alpha", 52);
    m_alpha.close();
    m_beta.close();

    const SP_VekmsgElement_ sp_payload = sp_received->getPayload();
    const SP_VekmsgElement_ sp_own = sp_created->getPayload();
    sp_received.reset();
    sp_created.reset();

    unsigned int value = 0;
    ASSERT_TRUE(sp_payload);
    EXPECT_TRUE(sp_payload->getValue(value));
    EXPECT_EQ(value, 51U);
    ASSERT_TRUE(sp_own);
    EXPECT_TRUE(sp_own->setSubElementValue(3, 53U));  // makes an element although its message is gone
    EXPECT_TRUE(sp_own->getSubElementValue(3, value));
    EXPECT_EQ(value, 53U);
}

TEST_F(TerminalFacade, aMessageOfOneTerminalCanBeSentByAnother) {
    openBoth();
    const SP_VekMessage_ sp_message = createMessage(m_alpha, "alpha", 54);
    EXPECT_TRUE(m_beta.sendMessage(sp_message));
    EXPECT_EQ(valueOf(await(m_alpha)), 54U);
}

// Raw payloads

SP_BasicBuffer_ encodedUint() {
    static const unsigned char s_bytes[] = {0, 7, 0, 0, 0, 10, 0, 0, 0, 2, 0, 4, 0, 0, 0, 61};
    SP_BasicBuffer_ sp_buffer(new BasicBuffer_(64));
    std::memcpy(sp_buffer->storage() + 8, s_bytes, sizeof(s_bytes));
    sp_buffer->setDataArea(8, sizeof(s_bytes));
    return sp_buffer;
}

Record_ nullPayload() {
    return Record_(3, "vekmsg_binary.cpp", "unsigned int VekMessageBinary_::serialize(SP_BasicBuffer_&)",
                   "VekMessageBinary_::serialize() null payload");
}

TEST_F(TerminalFacade, sendRawPayloadFindsNoPayloadInABuffer) {
    openBoth();
    const SP_BasicBuffer_ sp_payload = encodedUint();

    EXPECT_FALSE(m_alpha.sendRawPayload(utf8("beta"), utf8("schema"), sp_payload));
    EXPECT_EQ(m_records.take(), (Records_{nullPayload()}));
    EXPECT_FALSE(m_alpha.sendRawPayload(utf8("beta"), utf8("schema"), SP_BasicBuffer_()));
    EXPECT_EQ(m_records.take(), (Records_{nullPayload()}));

    EXPECT_EQ(sp_payload->dataLength(), 16U);
    EXPECT_EQ(m_beta.waitForMessage(1), VekmsgTerminal_::WAIT_TIMEOUT);
}

TEST_F(TerminalFacade, sendRawPayloadNeedsADestinationAndASchema) {
    openBoth();

    EXPECT_FALSE(m_alpha.sendRawPayload(nullptr, utf8("schema"), encodedUint()));
    EXPECT_FALSE(m_alpha.sendRawPayload(utf8("beta"), nullptr, encodedUint()));
    EXPECT_FALSE(m_alpha.sendRawPayload(utf8(""), utf8("schema"), encodedUint()));
    EXPECT_FALSE(m_alpha.sendRawPayload(nullptr, nullptr, encodedUint()));

    const Record_ nullDestination(3, "vekmsg_binary.cpp",
                                  "virtual bool VekMessageBinary_::setDestination(const Utf8Char_*)",
                                  "VekMessageBinary_::setDestination(): null p_destinationName");
    EXPECT_EQ(m_records.take(),
              (Records_{nullDestination,
                        Record_(3, "vekmsg_binary.cpp",
                                "virtual bool VekMessageBinary_::setPayloadSchema(const Utf8Char_*, "
                                "VekMessage_::SchemaType_)",
                                "VekMessageBinary_::setPayloadSchema(): null p_schema"),
                        Record_(3, "vekmsg_impl.cpp", "bool VekmsgTerminalImpl_::sendMessage(SP_VekMessage_)",
                                "VekmsgTerminalImpl_::sendMessage() null destination"),
                        nullDestination}));
}

TEST_F(TerminalFacade, closedTerminalsRefuseToSendARawPayload) {
    EXPECT_FALSE(m_alpha.sendRawPayload(utf8("beta"), utf8("schema"), encodedUint()));
    EXPECT_EQ(m_records.take(),
              (Records_{notOpenYet("virtual bool VekmsgTerminal_::createMessage(SmartPointer_<VekMessage_>&)",
                                   "createMessage")}));
}

TEST_F(TerminalFacade, aSendingOperationThatThrowsFailsTheRawPayload) {
    class ThrowingTerminal_ : public VekmsgTerminal_ {
    public:
        bool sendMessage(SmartPointer_<VekMessage_>) override { throw std::runtime_error("not sent"); }
    };
    ThrowingTerminal_ terminal;
    ASSERT_TRUE(terminal.open(utf8("alpha"), m_folder.directory()));
    m_records.take();

    EXPECT_FALSE(terminal.sendRawPayload(utf8("beta"), utf8("schema"), encodedUint()));
    EXPECT_EQ(m_records.take(), Records_{});
}

/// Keeps the last message instead of sending it.
class KeepingTerminal_ : public VekmsgTerminal_ {
public:
    bool createMessage(SmartPointer_<VekMessage_>& sp_message) override {
        sp_message = m_sp_next ? m_sp_next : SP_VekMessage_(new VekMessageBinary_);
        return true;
    }
    bool sendMessage(SmartPointer_<VekMessage_> sp_message) override {
        m_sp_kept = sp_message;
        return true;
    }
    bool receiveMessage(SmartPointer_<VekMessage_>& sp_message) override {
        sp_message = m_sp_kept;
        return true;
    }

    SP_VekMessage_ m_sp_next;  // what is created; null: a new message each time
    SP_VekMessage_ m_sp_kept;
};

/// As an application's own class may be: without texts, and of no payload.
class BareMessage_ : public VekMessageBinary_ {
public:
    bool setPayload(SP_VekmsgElement_) override { return false; }
    const Utf8Char_* getSource() const override { return nullptr; }
    const Utf8Char_* getPayloadSchema() const override { return nullptr; }
};

TEST_F(TerminalFacade, sendRawPayloadSendsWhereThePayloadIsRefused) {
    KeepingTerminal_ terminal;
    terminal.m_sp_next = SP_VekMessage_(new BareMessage_);

    EXPECT_TRUE(terminal.sendRawPayload(utf8("beta"), utf8("schema"), encodedUint()));
    EXPECT_EQ(terminal.m_sp_kept.get(), terminal.m_sp_next.get());
}

TEST_F(TerminalFacade, receiveRawPayloadOfAMessageWithoutTextsGivesEmptyOnes) {
    KeepingTerminal_ terminal;
    terminal.m_sp_kept = SP_VekMessage_(new BareMessage_);
    SP_Utf8String_ sp_source;
    SP_Utf8String_ sp_schema;
    SP_BasicBuffer_ sp_payload = encodedUint();

    EXPECT_TRUE(terminal.receiveRawPayload(sp_source, sp_schema, sp_payload));

    EXPECT_TRUE(sp_source->empty());
    EXPECT_TRUE(sp_schema->empty());
    EXPECT_FALSE(sp_payload);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacade, sendRawPayloadGoesThroughTheVirtualOperations) {
    KeepingTerminal_ terminal;

    EXPECT_TRUE(terminal.sendRawPayload(utf8("beta"), utf8("schema"), encodedUint()));

    ASSERT_TRUE(terminal.m_sp_kept);
    EXPECT_EQ(text(terminal.m_sp_kept->getDestination()), "beta");
    EXPECT_EQ(text(terminal.m_sp_kept->getPayloadSchema()), "schema");
    EXPECT_EQ(terminal.m_sp_kept->getPayloadSchemaType(), VekMessage_::SCHEMA_LITERAL);
    EXPECT_FALSE(terminal.m_sp_kept->getPayload());
    EXPECT_FALSE(terminal.m_sp_kept->getRawPayload());
    EXPECT_EQ(m_records.take(), Records_());
}

/// A buffer that is an element as well. The test owns it.
class BufferAndElement_ : public BasicBuffer_, public VekmsgElementBinary_ {
public:
    using BasicBuffer_::operator delete;  // each base brings its own; neither is used

    BufferAndElement_() : BasicBuffer_(10), VekmsgElementBinary_(kTag, nullptr) {}
    void addRef() override {}
    void removeRef() override {}
};

TEST_F(TerminalFacade, sendRawPayloadLooksForAnElementInTheBuffer) {
    BufferAndElement_ payload;
    KeepingTerminal_ terminal;

    EXPECT_TRUE(terminal.sendRawPayload(utf8("beta"), utf8("schema"), SP_BasicBuffer_(&payload)));

    ASSERT_TRUE(terminal.m_sp_kept);
    EXPECT_EQ(terminal.m_sp_kept->getPayload().get(), &payload);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacade, receiveRawPayloadGoesThroughTheVirtualOperations) {
    KeepingTerminal_ terminal;
    terminal.sendRawPayload(utf8("beta"), utf8("schema"), SP_BasicBuffer_());
    terminal.m_sp_kept->setSource(utf8("alpha"));
    SP_Utf8String_ sp_source;
    SP_Utf8String_ sp_schema;
    SP_BasicBuffer_ sp_payload = encodedUint();

    EXPECT_TRUE(terminal.receiveRawPayload(sp_source, sp_schema, sp_payload));

    EXPECT_EQ(text(sp_source->c_str()), "alpha");
    EXPECT_EQ(text(sp_schema->c_str()), "schema");
    EXPECT_FALSE(sp_payload);  // the message has no raw payload
}

TEST_F(TerminalFacade, receiveRawPayloadWithoutAMessageGivesEmptyTexts) {
    openBoth();
    SP_Utf8String_ sp_source(new Utf8String_(utf8("old")));
    const SP_Utf8String_ sp_before = sp_source;
    SP_Utf8String_ sp_schema;
    const SP_BasicBuffer_ sp_old = encodedUint();
    SP_BasicBuffer_ sp_payload = sp_old;

    EXPECT_TRUE(m_alpha.receiveRawPayload(sp_source, sp_schema, sp_payload));

    ASSERT_TRUE(sp_source);
    ASSERT_TRUE(sp_schema);
    EXPECT_TRUE(sp_source->empty());
    EXPECT_TRUE(sp_schema->empty());
    EXPECT_EQ(text(sp_before->c_str()), "old");  // replaced, not overwritten
    EXPECT_EQ(sp_payload.get(), sp_old.get());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacade, receiveRawPayloadGivesTheMessageAsItsParts) {
    openBoth();
    SP_VekMessage_ sp_message;
    ASSERT_TRUE(m_alpha.createMessage(sp_message));
    sp_message->setDestination(utf8("beta"));
    sp_message->setPayloadSchema(utf8("schema"), VekMessage_::SCHEMA_LITERAL);
    sp_message->setRawPayload(encodedUint());
    ASSERT_TRUE(m_alpha.sendMessage(sp_message));
    SP_Utf8String_ sp_source;
    SP_Utf8String_ sp_schema;
    SP_BasicBuffer_ sp_payload;

    eventually(
        [&] { return !m_beta.receiveRawPayload(sp_source, sp_schema, sp_payload) || !sp_source->empty(); });

    EXPECT_EQ(text(sp_source->c_str()), "alpha");
    EXPECT_EQ(text(sp_schema->c_str()), "schema");
    ASSERT_TRUE(sp_payload);
    ASSERT_EQ(sp_payload->dataLength(), 16U);
    EXPECT_EQ(std::memcmp(sp_payload->data(), encodedUint()->data(), 16), 0);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacade, closedTerminalsRefuseToReceiveARawPayload) {
    SP_Utf8String_ sp_source(new Utf8String_(utf8("old")));
    SP_Utf8String_ sp_schema;
    const SP_BasicBuffer_ sp_old = encodedUint();
    SP_BasicBuffer_ sp_payload = sp_old;

    EXPECT_FALSE(m_alpha.receiveRawPayload(sp_source, sp_schema, sp_payload));

    ASSERT_TRUE(sp_source);
    ASSERT_TRUE(sp_schema);
    EXPECT_TRUE(sp_source->empty());
    EXPECT_TRUE(sp_schema->empty());
    EXPECT_EQ(sp_payload.get(), sp_old.get());
    EXPECT_EQ(
        m_records.take(),
        (Records_{notOpenYet("virtual bool VekmsgTerminal_::receiveMessage(SmartPointer_<VekMessage_>&)",
                             "receiveMessage")}));
}

TEST_F(TerminalFacade, receiveRawPayloadWithoutMemoryForEitherTextFails) {
    openBoth();
    for (unsigned int number = 1; number <= 2; ++number) {
        inFreshThread([&] {
            SP_Utf8String_ sp_source;
            SP_Utf8String_ sp_schema;
            SP_BasicBuffer_ sp_payload;
            const AllocationFailure_ failure(number);
            EXPECT_FALSE(m_alpha.receiveRawPayload(sp_source, sp_schema, sp_payload));
        });
        EXPECT_EQ(m_records.take(),
                  (Records_{Record_(3, kSource, kReceiveRawPayload,
                                    "VekmsgTerminal_::receiveRawPayload() can't create Utf8String_")}))
            << number;
    }
}

// Polling

/// A pipe; reading becomes possible with `write`.
class Pipe_ {
public:
    Pipe_() { EXPECT_EQ(pipe(m_ends), 0); }
    ~Pipe_() {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    void write() { EXPECT_EQ(::write(m_ends[1], "x", 1), 1); }
    pollfd entry() const { return pollfd{m_ends[0], POLLIN, 0}; }

private:
    int m_ends[2];
};

class TerminalFacadePolling : public TerminalFacade {
protected:
    void SetUp() override { openBoth(); }

    Pipe_ m_idle;
    Pipe_ m_ready;
    void* m_p_end = nullptr;
};

TEST_F(TerminalFacadePolling, severalIdleTerminalsTimeOut) {
    EXPECT_EQ(VekmsgTerminal_::pollFd(nullptr, 0, 1, &m_alpha, &m_beta, m_p_end),
              VekmsgTerminal_::POLL_TIMEOUT);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacadePolling, theTerminalWithAMessageMayBeAnywhereInTheList) {
    ASSERT_TRUE(send(m_beta, "alpha", 71));
    EXPECT_EQ(VekmsgTerminal_::pollFd(nullptr, 0, 10000, &m_alpha, &m_beta, m_p_end),
              VekmsgTerminal_::POLL_MESSAGE);
    EXPECT_EQ(VekmsgTerminal_::pollFd(nullptr, 0, 10000, &m_beta, &m_alpha, m_p_end),
              VekmsgTerminal_::POLL_MESSAGE);
    EXPECT_EQ(valueOf(await(m_alpha)), 71U);
}

TEST_F(TerminalFacadePolling, withoutTerminalsItWaitsForTheCallersDescriptors) {
    pollfd entries[] = {m_idle.entry(), m_ready.entry()};
    EXPECT_EQ(VekmsgTerminal_::pollFd(entries, 2, 1, m_p_end), VekmsgTerminal_::POLL_TIMEOUT);
    m_ready.write();

    EXPECT_EQ(VekmsgTerminal_::pollFd(entries, 2, 10000, m_p_end), 1);

    EXPECT_EQ(entries[0].revents, 0);
    EXPECT_EQ(entries[1].revents, POLLIN);
}

TEST_F(TerminalFacadePolling, withNothingAtAllItTimesOut) {
    EXPECT_EQ(VekmsgTerminal_::pollFd(nullptr, 0, 1, m_p_end), VekmsgTerminal_::POLL_TIMEOUT);
}

TEST_F(TerminalFacadePolling, readyDescriptorsAreCountedBesideTerminals) {
    m_ready.write();
    m_idle.write();
    pollfd entries[] = {m_idle.entry(), m_ready.entry()};

    EXPECT_EQ(VekmsgTerminal_::pollFd(entries, 2, 10000, &m_alpha, &m_beta, m_p_end), 2);

    EXPECT_EQ(entries[0].revents, POLLIN);
    EXPECT_EQ(entries[1].revents, POLLIN);
}

TEST_F(TerminalFacadePolling, aClosedTerminalInTheListCountsForNothing) {
    VekmsgTerminal_ closed;
    ASSERT_TRUE(send(m_alpha, "beta", 72));

    EXPECT_EQ(VekmsgTerminal_::pollFd(nullptr, 0, 10000, &closed, &m_beta, m_p_end),
              VekmsgTerminal_::POLL_MESSAGE);
    EXPECT_EQ(valueOf(await(m_beta)), 72U);
    EXPECT_EQ(VekmsgTerminal_::pollFd(nullptr, 0, 1, &closed, &m_beta, &closed, m_p_end),
              VekmsgTerminal_::POLL_TIMEOUT);
    EXPECT_EQ(VekmsgTerminal_::pollFd(nullptr, 0, 1, &closed, m_p_end), VekmsgTerminal_::POLL_TIMEOUT);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacadePolling, tooManyDescriptorsAreRefused) {
    std::vector<pollfd> entries(129, m_idle.entry());

    EXPECT_EQ(VekmsgTerminal_::pollFd(entries.data(), 129, 1, &m_alpha, m_p_end),
              VekmsgTerminal_::POLL_ERROR);

    EXPECT_EQ(m_records.take(), Records_{kTooManyEntries});
    EXPECT_EQ(VekmsgTerminal_::pollFd(entries.data(), 128, 1, &m_alpha, m_p_end),
              VekmsgTerminal_::POLL_TIMEOUT);
}

namespace {

/// pollFd with so many handles of the first terminal before that of the second.
template <std::size_t... Index>
int pollBehind(VekmsgTerminal_& first, VekmsgTerminal_& last, std::index_sequence<Index...>) {
    return VekmsgTerminal_::pollFd(nullptr, 0, 10000, (static_cast<void>(Index), &first)..., &last,
                                   static_cast<void*>(nullptr));
}

}  // namespace

TEST_F(TerminalFacadePolling, anyNumberOfTerminalsMayBeGiven) {
    ASSERT_TRUE(send(m_alpha, "beta", 1));
    VekmsgTerminal_ closed;

    EXPECT_EQ(pollBehind(closed, m_beta, std::make_index_sequence<300>()), VekmsgTerminal_::POLL_MESSAGE);

    EXPECT_EQ(valueOf(await(m_beta)), 1U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TerminalFacadePolling, withoutMemoryItFailsWithoutARecord) {
    const AllocationFailure_ failure(1);
    EXPECT_EQ(VekmsgTerminal_::pollFd(nullptr, 0, 1, &m_alpha, m_p_end), VekmsgTerminal_::POLL_ERROR);
    EXPECT_TRUE(failure.hasStruck());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST(TagOrder, tagsCompareByTheir32BitDifference) {
    EXPECT_EQ(vekMsgTagCompare(1, 2), -1);
    EXPECT_EQ(vekMsgTagCompare(0, 4294967295U), 1);
    EXPECT_EQ(vekMsgTagCompare(5, 5), 0);
    EXPECT_EQ(vekMsgTagCompare(65535, 0), 65535);
    EXPECT_EQ(vekMsgTagCompare(0x80000000U, 0), -2147483647 - 1);
}

}  // namespace
