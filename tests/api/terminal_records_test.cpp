// What the operations of terminals and filters write.

#include <cerrno>
#include <memory>
#include <sstream>
#include <vector>

#include "api/component_folder.h"
#include "api/public_records.h"
#include "message/message_binary.h"
#include "support/child_process.h"
#include "support/raw_peer.h"
#include "support/system_calls.h"
#include "support/wire_bytes.h"
#include "terminal/foreign_message.h"

namespace {

/// Answers what it was made with.
class FixedFilter_ : public VekmsgFilter_ {
public:
    FixedFilter_(bool passes, bool consumes) : m_passes(passes), m_consumes(consumes) {}
    bool process(SP_VekMessage_& sp_message) override {
        if (m_consumes) sp_message.reset();
        return m_passes;
    }

private:
    bool m_passes;
    bool m_consumes;
};

/// Alpha and beta are open; gamma, to which nobody listens, and delta, which has a UDP address, stand in the
/// directory as well. Omega is a terminal that was never opened, and psi one whose opening failed.
class TerminalRecords : public PublicRecords_ {
protected:
    TerminalRecords() {
        const char* p_directory = m_directory.c_str();
        EXPECT_TRUE(m_alpha.open(utf8("alpha"), p_directory) && m_beta.open(utf8("beta"), p_directory));
        EXPECT_FALSE(m_psi.open(nullptr, p_directory));
        drop();
    }

    std::string address(const std::string& name) const { return m_folder.localAddress(name); }

    std::string directoryWith(const std::vector<std::string>& lines) const {
        return m_folder.writeFile("other", lines);
    }

    static SP_VekMessage_ messageTo(const std::string& destination, std::size_t payloadSize = 4) {
        SP_VekMessage_ sp_message(new VekMessageBinary_);
        if (!destination.empty()) sp_message->setDestination(utf8(destination));
        const SP_VekmsgElement_ sp_root = sp_message->createElement(1);
        unsigned int tag = 2;
        for (; payloadSize > 9000; payloadSize -= 9000)
            sp_root->setSubElementValue(tag++, utf8(std::string(9000, 'x')), 9000);
        sp_root->setSubElementValue(tag, utf8(std::string(payloadSize, 'x')),
                                    static_cast<unsigned int>(payloadSize));
        sp_message->setPayload(sp_root);
        return sp_message;
    }

    /// A stream to alpha, on which the name has been given.
    RawPeer_ peer(const std::string& name) {
        RawPeer_ peer(address("alpha"));
        peer.write(wire::nameBlock(name));
        SP_VekMessage_ sp_message;
        EXPECT_TRUE(eventually(
            [&] { return m_alpha.receiveMessage(sp_message) && m_alpha.isConnected(utf8(name)); }));
        drop();
        return peer;
    }

    /// One call with what the peer has just written. The bytes of a local stream are there at once.
    bool receivesNothing() {
        SP_VekMessage_ sp_message;
        return m_alpha.receiveMessage(sp_message) && sp_message.isNull();
    }

    TemporaryFolder_ m_folder;
    std::string m_directory =
        m_folder.writeFile("names", {address("alpha") + " alpha", address("beta") + " beta",
                                     address("gamma") + " gamma", "inetudp://127.0.0.1:9 delta"});
    VekmsgTerminal_ m_alpha;
    VekmsgTerminal_ m_beta;
    VekmsgTerminal_ m_omega;
    VekmsgTerminal_ m_psi;
    void* m_p_end = nullptr;
};

const Record_ kNoImplementation =
    Record_(3, "vekmsg.cpp", "virtual bool VekmsgTerminal_::open(const unsigned char*, const char*)",
            "VekmsgTerminal_::open() can't create vekmsgTerminalImpl_");

Record_ notOpen(const std::string& signature, const std::string& operation) {
    return Record_(3, "vekmsg.cpp", signature, "VekmsgTerminal_::" + operation + "() not open yet");
}

}  // namespace

TEST_F(TerminalRecords, ofOpening) {
    const char* p_entry = "VekmsgTerminal_::open";
    const char* p_directory = m_directory.c_str();
    m_alpha.close();
    call(p_entry, "succeeds", m_alpha.open(utf8("alpha"), p_directory),
         {kNoDefaultAddress, listening(address("alpha"))});
    call(p_entry, "null name", !m_omega.open(nullptr, p_directory), {kNullName});
    call(p_entry, "empty name", !m_omega.open(utf8(""), p_directory), {kEmptyName});
    call(p_entry, "no directory", !m_omega.open(utf8("alpha"), m_folder.path("missing").c_str()),
         {noDirectory(m_folder.path("missing"))});
    call(p_entry, "a folder for a directory", m_omega.open(utf8("unlisted"), m_folder.path("").c_str()),
         {directoryRecord(
              3,
              "static bool NameDirectory_::getEntry(std::ifstream*, unsigned int&, SP_StdString_&, "
              "SP_Utf8String_&)",
              "NameDirectory_::getEntry(): bad file"),
          kNoDefaultAddress});
    m_omega.close();
    call(p_entry, "no memory", withoutMemory([&] { return !m_omega.open(utf8("alpha"), p_directory); }),
         {kNoImplementation});
}

TEST_F(TerminalRecords, ofOpeningOnVariousAddresses) {
    const char* p_entry = "VekmsgTerminal_::open";
    const std::string away = address("missing/alpha");
    m_alpha.close();
    // Each time with a new implementation: one keeps the first default address that it has read.
    const auto open = [&](const std::vector<std::string>& lines) {
        m_omega.close();
        return m_omega.open(utf8("alpha"), directoryWith(lines).c_str());
    };
    call(p_entry, "address cannot be bound", !open({away + " alpha"}), {kNoDefaultAddress, noBind(away)});
    call(p_entry, "no address", open({}), {kNoDefaultAddress});
    call(p_entry, "default address", open({address("relay")}), {});
    call(p_entry, "default address is no address", open({"nothing://relay"}),
         {socketRecord(3, "bool VekSocketAddress_::setRealName(const char*, std::size_t)",
                       "VekSocketAddress_::setRealName(nothing://relay) invalid type"),
          kNoDefaultAddress});
    call(p_entry, "default address is a wildcard", open({"inettcp://0.0.0.0:0"}),
         {warning(kOpenDefault, "Default transport address can't be a wildcard inettcp://0.0.0.0:0")});
    call(p_entry, "default address is its own", open({address("alpha"), address("alpha") + " alpha"}),
         {warning(kOpenOwn, "Default transport address " + address("alpha") +
                                " is the same as alpha self address. Not used"),
          listening(address("alpha"))});
    call(p_entry, "address is a wildcard", open({"inettcp://0.0.0.0:0 alpha"}),
         {kNoDefaultAddress,
          warning(kOpenOwn, "Transport address inettcp://0.0.0.0:0 for Component alpha is not specific")});
    const std::string udp = "inetudp" + freeTcpAddress().substr(7);
    call(p_entry, "address is a UDP one", open({udp + " alpha"}),
         {kNoDefaultAddress,
          warning(kOpenOwn, "UDP binding " + udp + " for component alpha is still under development")});
    call(p_entry, "lines without a meaning", open({"short alpha", std::string(257, 'x')}),
         {directoryRecord(
              4,
              "static bool NameDirectory_::getEntry(const std::string&, unsigned int, SP_StdString_&, "
              "SP_Utf8String_&)",
              "VEK Directory file line 1 is invalid. Ignored short alpha"),
          directoryRecord(
              4,
              "static bool NameDirectory_::getEntry(const std::string&, unsigned int, SP_StdString_&, "
              "SP_Utf8String_&)",
              "VEK Directory file line 2 is too long (257). Ignored"),
          kNoDefaultAddress});
}

TEST_F(TerminalRecords, ofMakingAndClosing) {
    std::unique_ptr<VekmsgTerminal_> p_terminal;
    callOf("createVekmsgTerminal", "succeeds", [&] { p_terminal.reset(createVekmsgTerminal()); });
    call("createVekmsgTerminal", "no memory",
         withoutMemory([] { return createVekmsgTerminal() == nullptr; }));
    callOf("VekmsgTerminal_::~VekmsgTerminal_", "succeeds", [&] { p_terminal.reset(); });
    call("VekmsgTerminal_::getImplementation", "succeeds",
         VekmsgTerminal_::getImplementation(&m_alpha) != nullptr);
    call("VekmsgTerminal_::getImplementation", "not open",
         VekmsgTerminal_::getImplementation(&m_omega) == nullptr);
    call("VekmsgTerminal_::getImplementation", "null",
         VekmsgTerminal_::getImplementation(nullptr) == nullptr);
    callOf("VekmsgTerminal_::close", "succeeds", [&] { m_beta.close(); });
    callOf("VekmsgTerminal_::close", "not open", [&] { m_omega.close(); });
    ASSERT_EQ(unlink(m_folder.path("alpha").c_str()), 0);
    callOf("VekmsgTerminal_::close", "socket file is gone", [&] { m_alpha.close(); },
           {socketRecord(4, "void VekSocket_::cleanUp()",
                         "VekSocket_::cleanUp() unlink(" + m_folder.path("alpha") +
                             ") failed with error(2): No such file or directory")});
}

TEST_F(TerminalRecords, ofCreatingMessages) {
    const char* p_entry = "VekmsgTerminal_::createMessage";
    SP_VekMessage_ sp_message;
    call(p_entry, "succeeds", m_alpha.createMessage(sp_message));
    call(p_entry, "not open", !m_omega.createMessage(sp_message),
         {notOpen("virtual bool VekmsgTerminal_::createMessage(SmartPointer_<VekMessage_>&)",
                  "createMessage")});
    call(p_entry, "failed to open", m_psi.createMessage(sp_message));
    call(p_entry, "no memory", withoutMemory([&] { return !m_alpha.createMessage(sp_message); }),
         {kNoMessage});
}

TEST_F(TerminalRecords, ofSendingWhatCannotBeSent) {
    const char* p_entry = "VekmsgTerminal_::sendMessage";
    call(p_entry, "not open", !m_omega.sendMessage(messageTo("beta")),
         {notOpen("virtual bool VekmsgTerminal_::sendMessage(SmartPointer_<VekMessage_>)", "sendMessage")});
    call(p_entry, "failed to open", !m_psi.sendMessage(messageTo("beta")),
         {error(kSend, "VekmsgTerminalImpl_::sendMessage() null m_sp_componentName")});
    call(p_entry, "null message", !m_alpha.sendMessage(SP_VekMessage_()), {kNullMessage});
    call(p_entry, "no destination", !m_alpha.sendMessage(messageTo("")), {kNullDestination});
    call(p_entry, "to itself", !m_alpha.sendMessage(messageTo("alpha")), {kToItself});
    auto* p_foreign = new ForeignMessage_("beta");
    const SP_VekMessage_ sp_foreign(p_foreign);
    call(p_entry, "foreign class", !m_alpha.sendMessage(sp_foreign),
         {error(kSend, "VekmsgTerminalImpl_::sendMessage() sp_message is not binary encoded")});
    p_foreign->m_hasSource = false;
    p_foreign->m_refusesSource = true;
    call(p_entry, "source is refused", !m_alpha.sendMessage(sp_foreign));
    m_alpha.setSendFilter(SP_VekmsgFilter_(new FixedFilter_(false, false)));
    call(p_entry, "filter refuses", !m_alpha.sendMessage(messageTo("beta")));
    m_alpha.setSendFilter(SP_VekmsgFilter_(new FixedFilter_(true, true)));
    call(p_entry, "filter consumes", m_alpha.sendMessage(messageTo("beta")));
}

TEST_F(TerminalRecords, ofSendingWhereNobodyIs) {
    const char* p_entry = "VekmsgTerminal_::sendMessage";
    const std::string skipped = "inetudp://127.0.0.1:9";
    call(p_entry, "unlisted destination", !m_alpha.sendMessage(messageTo("unknown")), {kNoSocket});
    call(p_entry, "nobody listens", !m_alpha.sendMessage(messageTo("gamma")),
         {noConnection(address("gamma")), kUnable});
    call(p_entry, "UDP address alone", !m_alpha.sendMessage(messageTo("delta")),
         {warning(kSendSelecting,
                  "Skipped " + skipped +
                      " for destination delta because UDP binding is still under development")});
    SystemCalls_ systemCalls;
    systemCalls.fail(SystemCalls_::Socket, EMFILE);
    call(p_entry, "no descriptor", !m_alpha.sendMessage(messageTo("beta")),
         {socketRecord(
             3, "bool VekSocket_::initialize(int, int, const char*)",
             "VekSocket_::initialize(local://?) socket() failed with error(24): Too many open files")});
    const SP_VekMessage_ sp_message = messageTo("beta");
    call(p_entry, "no memory", withoutMemory([&] { return !m_alpha.sendMessage(sp_message); }),
         {error(kSendFinding, "VekmsgTerminalImpl_::sendMessage() can't create Utf8String_")});
}

TEST_F(TerminalRecords, ofSending) {
    const char* p_entry = "VekmsgTerminal_::sendMessage";
    const std::string fromTo = "Message (alpha -> beta) size ";
    const SP_VekMessage_ sp_large = messageTo("beta", 9300);
    const SP_VekMessage_ sp_huge = messageTo("beta", 66000);
    const SP_VekMessage_ sp_empty = messageTo("beta");
    sp_empty->setPayload(SP_VekmsgElement_());
    const auto sizeOf = [](const SP_VekMessage_& sp_message) {
        sp_message->setSource(utf8("alpha"));
        return std::to_string(dynamic_cast<VekMessageBinary_&>(*sp_message).getMaxSerializationSize());
    };
    const char* p_make = "bool VekMessageBinary_::serialize(unsigned int, libcpp::SP_BasicBuffer_&) const";

    call(p_entry, "succeeds", m_alpha.sendMessage(messageTo("beta")));
    call(p_entry, "on a standing connection", m_alpha.sendMessage(messageTo("beta")));
    call(p_entry, "no payload", !m_alpha.sendMessage(sp_empty), {kNullPayload});
    call(p_entry, "large", m_alpha.sendMessage(sp_large),
         {messageRecord(4, p_make, fromTo + sizeOf(sp_large) + " could be too large for the peer")});
    call(p_entry, "too large", !m_alpha.sendMessage(sp_huge),
         {messageRecord(3, p_make, fromTo + sizeOf(sp_huge) + " exceeds the encoding limit")});
}

TEST_F(TerminalRecords, ofReceiving) {
    const char* p_entry = "VekmsgTerminal_::receiveMessage";
    SP_VekMessage_ sp_message;
    call(p_entry, "not open", !m_omega.receiveMessage(sp_message),
         {notOpen("virtual bool VekmsgTerminal_::receiveMessage(SmartPointer_<VekMessage_>&)",
                  "receiveMessage")});
    call(p_entry, "failed to open", m_psi.receiveMessage(sp_message));
    call(p_entry, "nothing there", m_alpha.receiveMessage(sp_message) && sp_message.isNull());
    RawPeer_ bert = peer("bert");
    const std::string message =
        wire::header("alpha", "bert", 3, "") + wire::element(1, wire::Uint, wire::u32(7));
    bert.write(wire::messageBlock(message));
    call(p_entry, "succeeds", m_alpha.receiveMessage(sp_message) && !sp_message.isNull());

    bert.write(wire::messageBlock("abc"));
    call(p_entry, "damaged message", receivesNothing(),
         {kShortHeader, warning(kFirstBlock, "alpha deserializer failed to handle data from bert")});
    bert.write(wire::block(7, "abc"));
    call(p_entry, "unknown block", receivesNothing(),
         {warning("bool VekmsgConnection_::processPollEvents(" CONNECTION_STAGE
                  "Header_, libcpp::SP_BasicBuffer_&)",
                  "Connection alpha to bert expecting BINARY_ENCODED_MESSAGE but got 7, length 3. Skipping "
                  "the block"),
          warning("bool VekmsgConnection_::processPollEvents(" CONNECTION_STAGE
                  "Payload_, libcpp::SP_BasicBuffer_&)",
                  "Connection alpha to bert dropped encoding block type 7")});
    bert.write(
        wire::messageBlock(wire::header("gamma", "bert", 0, "") + wire::element(1, wire::Uint, "....")));
    call(
        p_entry, "may not be forwarded", receivesNothing(),
        {warning(kForwarding, "alpha can't route a message from bert because TTL = 0, dest gamma src bert")});
    bert.write(
        wire::messageBlock(wire::header("gamma", "bert", 3, "") + wire::element(1, wire::Uint, "....")));
    call(
        p_entry, "cannot be forwarded", receivesNothing(),
        {noConnection(address("gamma")), kUnable,
         warning(kForwarding, "alpha failed to route a message from bert with dest gamma, src bert, TTL 3")});
    m_alpha.setReceiveFilter(SP_VekmsgFilter_(new FixedFilter_(false, false)));
    bert.write(wire::messageBlock(message));
    call(p_entry, "filter refuses", !m_alpha.receiveMessage(sp_message));
    m_alpha.setReceiveFilter(SP_VekmsgFilter_());
    bert.close();
    call(p_entry, "peer has gone", receivesNothing(),
         {debug(kServing, "Deleting active connection between alpha and bert")});
}

TEST_F(TerminalRecords, ofReceivingFromStreamsWithoutAName) {
    const char* p_entry = "VekmsgTerminal_::receiveMessage";
    SP_VekMessage_ sp_message;
    RawPeer_ silent(address("alpha"));
    call(p_entry, "stream without a name", receivesNothing());
    silent.close();
    call(p_entry, "stream without a name has gone", receivesNothing(),
         {debug(kResolving, "Deleting unresolved connection at alpha")});
    RawPeer_ waiting(address("alpha"));
    SystemCalls_ systemCalls;
    systemCalls.fail(SystemCalls_::Accept, EMFILE);
    call(p_entry, "no descriptor", !m_alpha.receiveMessage(sp_message), {noAccept(address("alpha"))});
}

TEST_F(TerminalRecords, ofAskingForAConnection) {
    const char* p_entry = "VekmsgTerminal_::isConnected";
    RawPeer_ bert = peer("bert");
    call(p_entry, "succeeds", m_alpha.isConnected(utf8("bert")));
    call(p_entry, "nobody", !m_alpha.isConnected(utf8("gamma")));
    call(p_entry, "null name", !m_alpha.isConnected(nullptr));
    call(p_entry, "no memory", withoutMemory([&] { return !m_alpha.isConnected(utf8("bert")); }));
    call(p_entry, "not open", !m_omega.isConnected(utf8("bert")),
         {notOpen("virtual bool VekmsgTerminal_::isConnected(const unsigned char*) const", "isConnected")});
    call(p_entry, "failed to open", !m_psi.isConnected(utf8("bert")));
}

TEST_F(TerminalRecords, ofWaiting) {
    const char* p_entry = "VekmsgTerminal_::waitForMessage";
    call(p_entry, "not open", m_omega.waitForMessage(1) == VekmsgTerminal_::WAIT_ERROR,
         {notOpen("virtual VekmsgTerminal_::WaitResult_ VekmsgTerminal_::waitForMessage(unsigned int)",
                  "waitForMessage")});
    call(p_entry, "failed to open", m_psi.waitForMessage(1) == VekmsgTerminal_::WAIT_ERROR,
         {error(kWait, "VekmsgTerminalImpl_::waitForMessage() null m_sp_componentName")});
    call(p_entry, "time-out", m_alpha.waitForMessage(0) == VekmsgTerminal_::WAIT_TIMEOUT);
    ASSERT_TRUE(m_beta.sendMessage(messageTo("alpha")));
    call(p_entry, "succeeds", m_alpha.waitForMessage(10000) == VekmsgTerminal_::WAIT_MESSAGE);
    SP_VekMessage_ sp_message;
    ASSERT_TRUE(m_alpha.receiveMessage(sp_message));
    SystemCalls_ systemCalls;
    systemCalls.fail(SystemCalls_::Poll, ENOMEM);
    call(p_entry, "poll fails", m_alpha.waitForMessage(1) == VekmsgTerminal_::WAIT_ERROR, {kWaitFails});
}

TEST_F(TerminalRecords, ofFillingPollEntries) {
    const char* p_entry = "VekmsgTerminal_::fillPollFdArray";
    pollfd entries[10];
    const auto fill = [&](VekmsgTerminal_& terminal, unsigned int count) {
        return terminal.fillPollFdArray(entries, count);
    };
    unsigned int count = 10;
    call(p_entry, "succeeds", fill(m_alpha, 10));
    call(p_entry, "not open", !fill(m_omega, 10),
         {notOpen("virtual bool VekmsgTerminal_::fillPollFdArray(pollfd*, unsigned int&)",
                  "fillPollFdArray")});
    call(p_entry, "failed to open", fill(m_psi, 10));
    call(p_entry, "null array", !m_alpha.fillPollFdArray(nullptr, count),
         {error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() null p_pollFdBuf for alpha")});
    call(p_entry, "fewer than three", !fill(m_alpha, 2),
         {error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() count 2 < 3 for alpha")});
    RawPeer_ bert = peer("bert");
    RawPeer_ cora = peer("cora");
    RawPeer_ doris = peer("doris");
    call(p_entry, "not enough", !fill(m_alpha, 3),
         {error(kFill, "VekmsgTerminalImpl_::fillPollFdArray() count 3 is not enough for alpha")});
}

TEST_F(TerminalRecords, ofFilters) {
    const SP_VekmsgFilter_ sp_filter(new FixedFilter_(true, false));
    call("VekmsgTerminal_::setSendFilter", "succeeds", m_alpha.setSendFilter(sp_filter));
    call("VekmsgTerminal_::setSendFilter", "failed to open", m_psi.setSendFilter(sp_filter));
    call("VekmsgTerminal_::setSendFilter", "not open", !m_omega.setSendFilter(sp_filter),
         {notOpen("virtual bool VekmsgTerminal_::setSendFilter(SmartPointer_<VekmsgFilter_>)",
                  "setSendFilter")});
    call("VekmsgTerminal_::setReceiveFilter", "succeeds", m_alpha.setReceiveFilter(sp_filter));
    call("VekmsgTerminal_::setReceiveFilter", "failed to open", m_psi.setReceiveFilter(sp_filter));
    call("VekmsgTerminal_::setReceiveFilter", "not open", !m_omega.setReceiveFilter(sp_filter),
         {notOpen("virtual bool VekmsgTerminal_::setReceiveFilter(SmartPointer_<VekmsgFilter_>)",
                  "setReceiveFilter")});
}

TEST_F(TerminalRecords, ofPrinters) {
    const char* p_entry = "VekmsgTerminal_::CreateMessagePrinter";
    const char* p_process = "VekmsgFilter_::process(SP_VekMessage_&)";
    std::ostringstream stream;
    SP_VekmsgFilter_ sp_filter;
    call(p_entry, "not open", !m_omega.CreateMessagePrinter(&stream, "note", sp_filter),
         {notOpen("virtual bool VekmsgTerminal_::CreateMessagePrinter(std::ostream*, const char*, "
                  "SmartPointer_<VekmsgFilter_>&)",
                  "CreateMessagePrinter")});
    call(p_entry, "failed to open", !m_psi.CreateMessagePrinter(&stream, "note", sp_filter),
         {error(kPrinter, "VekmsgTerminalImpl_::CreateMessagePrinter() null m_sp_componentName")});
    call(p_entry, "null stream", !m_alpha.CreateMessagePrinter(nullptr, "note", sp_filter),
         {error(kPrinter, "VekmsgTerminalImpl_::CreateMessagePrinter() null p_ostrm")});
    call(p_entry, "no memory",
         withoutMemory([&] { return !m_alpha.CreateMessagePrinter(&stream, "note", sp_filter); }),
         {error(kPrinter, "VekmsgTerminalImpl_::CreateMessagePrinter() can't create VekmsgPrinter_")});
    call(p_entry, "succeeds", m_alpha.CreateMessagePrinter(&stream, "note", sp_filter));

    SP_VekMessage_ sp_message = messageTo("alpha");
    SP_VekMessage_ sp_null;
    call(p_process, "succeeds", sp_filter->process(sp_message));
    call(p_process, "null message", !sp_filter->process(sp_null),
         {error("virtual bool VekmsgPrinter_::process(SP_VekMessage_&)",
                "VekmsgPrinter_::process() null sp_message at alpha with note note")});
}

TEST_F(TerminalRecords, ofRawPayloads) {
    const char* p_send = "VekmsgTerminal_::sendRawPayload";
    const SP_BasicBuffer_ sp_buffer(new BasicBuffer_(16));
    call(p_send, "not open", !m_omega.sendRawPayload(utf8("beta"), utf8("s"), sp_buffer),
         {notOpen("virtual bool VekmsgTerminal_::createMessage(SmartPointer_<VekMessage_>&)",
                  "createMessage")});
    call(p_send, "null destination", !m_alpha.sendRawPayload(nullptr, utf8("s"), sp_buffer),
         {kNoDestination});
    call(p_send, "null schema", !m_alpha.sendRawPayload(utf8("beta"), nullptr, sp_buffer), {kNoSchema});
    call(p_send, "no payload is found", !m_alpha.sendRawPayload(utf8("beta"), utf8("s"), sp_buffer),
         {kNullPayload});
    call(p_send, "no memory",
         withoutMemory([&] { return !m_alpha.sendRawPayload(utf8("beta"), utf8("s"), sp_buffer); }),
         {kNoMessage});

    const char* p_receive = "VekmsgTerminal_::receiveRawPayload";
    SP_Utf8String_ sp_source;
    SP_Utf8String_ sp_schema;
    SP_BasicBuffer_ sp_payload;
    const auto receive = [&](VekmsgTerminal_& terminal) {
        return terminal.receiveRawPayload(sp_source, sp_schema, sp_payload);
    };
    call(p_receive, "succeeds", receive(m_beta));
    call(p_receive, "not open", !receive(m_omega),
         {notOpen("virtual bool VekmsgTerminal_::receiveMessage(SmartPointer_<VekMessage_>&)",
                  "receiveMessage")});
    call(p_receive, "no memory", withoutMemory([&] { return !receive(m_beta); }),
         {Record_(3, "vekmsg.cpp", kReceiveRawPayload,
                  "VekmsgTerminal_::receiveRawPayload() can't create Utf8String_")});
}

TEST_F(TerminalRecords, ofPolling) {
    const char* p_entry = "VekmsgTerminal_::pollFd";
    std::vector<pollfd> entries(129, pollfd{-1, 0, 0});
    const auto poll = [&](unsigned int count, unsigned int timeout) {
        return VekmsgTerminal_::pollFd(entries.data(), count, timeout, &m_alpha, &m_omega, m_p_end);
    };
    call(p_entry, "time-out", poll(1, 1) == VekmsgTerminal_::POLL_TIMEOUT);
    call(p_entry, "no terminal",
         VekmsgTerminal_::pollFd(nullptr, 0, 1, m_p_end) == VekmsgTerminal_::POLL_TIMEOUT);
    call(p_entry, "too many descriptors", poll(129, 1) == VekmsgTerminal_::POLL_ERROR, {kTooManyEntries});
    ASSERT_TRUE(m_beta.sendMessage(messageTo("alpha")));
    call(p_entry, "succeeds", poll(1, 10000) == VekmsgTerminal_::POLL_MESSAGE);
    SP_VekMessage_ sp_message;
    ASSERT_TRUE(m_alpha.receiveMessage(sp_message));
    SystemCalls_ systemCalls;
    systemCalls.fail(SystemCalls_::Poll, ENOMEM);
    call(p_entry, "poll fails", poll(1, 1) == VekmsgTerminal_::POLL_ERROR, {kPollFdFails});
}
