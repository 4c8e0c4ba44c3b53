// Every public operation without memory: it is run with its first, second, ... allocation failing, once and
// from there on, until it runs through untouched. No exception leaves it, nothing is leaked, and its object
// can still be used and closed.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "api/component_folder.h"
#include "support/allocation_failure.h"
#include "terminal/message_printer.h"
#include "terminal/terminal_impl.h"
#include "vekmsg/c_binding.h"
#include "vekmsg/vekmsg.h"

namespace {

// Longer than the strings that need no memory of their own.
constexpr char kAlpha[] = "alpha-a-component-with-a-long-name";
constexpr char kBeta[] = "beta-a-component-with-a-long-name";
constexpr char kGamma[] = "gamma-a-component-with-a-long-name";
constexpr char kDelta[] = "delta-a-component-with-a-long-name";
constexpr char kSchema[] = "a schema text that is longer than a short string";
const std::string g_endless(600, 'n');  // longer than any room that a thread keeps for texts
constexpr char kPing[] = "VEK Pinger Request Format version 1.0";
constexpr unsigned int kMostFailures = 2000;

std::set<int> openDescriptors() {
    std::set<int> descriptors;
    DIR* p_folder = opendir("/proc/self/fd");
    while (const dirent* p_entry = readdir(p_folder)) descriptors.insert(std::atoi(p_entry->d_name));
    descriptors.erase(dirfd(p_folder));
    closedir(p_folder);
    return descriptors;
}

/// Only an accepted socket bears the path of its listener without listening itself.
bool isAccepted(int descriptor) {
    sockaddr_un name = {};
    socklen_t length = sizeof(name);
    int isListening = 0;
    socklen_t size = sizeof(isListening);
    return getsockname(descriptor, reinterpret_cast<sockaddr*>(&name), &length) == 0 &&
           name.sun_family == AF_UNIX && length > sizeof(sa_family_t) && name.sun_path[0] != 0 &&
           getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &isListening, &size) == 0 && isListening == 0;
}

/// Closes those which the library leaves open, as is its way, when it has accepted a descriptor and has no
/// memory to make a socket of it.
void closeAbandoned(const std::set<int>& before) {
    for (const int descriptor : openDescriptors())
        if (before.count(descriptor) == 0 && isAccepted(descriptor)) close(descriptor);
}

/// A stream that takes everything and needs no memory.
class NullBuffer_ : public std::streambuf {
protected:
    int_type overflow(int_type character) override { return traits_type::not_eof(character); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

/// All records are formatted, as they are for an application that wants them, and go nowhere.
class UnseenRecords_ {
public:
    UnseenRecords_() {
        vekmsg_log_set_sink([](void*, int, const LogSite*, const char*) {}, nullptr);
        vekmsg_log_set_threshold(7);
    }
    ~UnseenRecords_() {
        vekmsg_log_set_sink(nullptr, nullptr);
        vekmsg_log_set_threshold(4);
    }
};

/// A situation in which an operation is tried. Preparing, the operation and what follows run in a thread
/// each, so that the operation meets empty free lists.
class Situation_ {
public:
    virtual ~Situation_() = default;
    virtual void prepare() = 0;

    /// With memory again: whether everything still works.
    virtual void proveItsUse() = 0;
};

template <class Situation>
struct Entry_ {
    const char* m_name;
    bool m_allocates;  // else there is nothing that could fail
    void (*m_operation)(Situation&);
};

template <class Situation>
std::ostream& operator<<(std::ostream& stream, const Entry_<Situation>& entry) {
    return stream << entry.m_name;
}

/// Whether a failure struck.
template <class Situation>
bool tryWithFailure(void (*operation)(Situation&), unsigned int number, bool andAllAfter) {
    const std::set<int> descriptors = openDescriptors();
    const UnseenRecords_ unseen;
    const long live = liveAllocations();
    std::unique_ptr<Situation> p_situation;
    bool hasStruck = false;
    bool hasThrown = false;
    inFreshThread([&] {
        p_situation = std::make_unique<Situation>();
        p_situation->prepare();
    });
    inFreshThread([&] {
        const AllocationFailure_ failure(number, andAllAfter);
        try {
            operation(*p_situation);
        } catch (...) {
            hasThrown = true;
        }
        hasStruck = failure.hasStruck();
    });
    inFreshThread([&] {
        p_situation->proveItsUse();
        p_situation.reset();
    });
    EXPECT_EQ(liveAllocations(), live) << "memory";
    EXPECT_FALSE(hasThrown) << "an exception leaves";
    if (hasStruck) closeAbandoned(descriptors);
    EXPECT_EQ(openDescriptors(), descriptors);
    return hasStruck;
}

template <class Situation>
void survivesEveryFailure(const Entry_<Situation>& entry) {
    for (const bool andAllAfter : {false, true}) {
        unsigned int number = 1;
        while (number < kMostFailures && tryWithFailure(entry.m_operation, number, andAllAfter)) {
            ASSERT_FALSE(testing::Test::HasFailure())
                << "allocation " << number << ", all after " << andAllAfter;
            ++number;
        }
        EXPECT_LT(number, kMostFailures) << "it never runs through";
        EXPECT_EQ(number > 1, entry.m_allocates);
    }
}

template <class Test>
std::string entryName(const testing::TestParamInfo<Test>& info) {
    return info.param.m_name;
}

SP_VekMessage_ createMessage(const char* p_destination, const char* p_schema) {
    SP_VekMessage_ sp_message(new VekMessageBinary_);
    sp_message->setDestination(utf8(p_destination));
    sp_message->setPayloadSchema(utf8(p_schema), VekMessage_::SCHEMA_LITERAL);
    const SP_VekmsgElement_ sp_root = sp_message->createElement(1);
    sp_root->setSubElementValue(5, utf8("text"));
    sp_root->setSubElementValue(3, 3U);
    sp_message->setPayload(sp_root);
    return sp_message;
}

/// A folder for alpha, beta, gamma and delta. Beta's own directory lists gamma at the address of alpha, which
/// so becomes its relay.
class Installation_ {
public:
    const char* directory() const { return m_directory.c_str(); }
    const char* directoryOfBeta() const { return m_directoryOfBeta.c_str(); }

private:
    std::vector<std::string> lines(const char* p_socketOfGamma) const {
        return {m_folder.localAddress("alpha") + " " + kAlpha, m_folder.localAddress("beta") + " " + kBeta,
                m_folder.localAddress(p_socketOfGamma) + " " + kGamma,
                m_folder.localAddress("delta") + " " + kDelta};
    }

    TemporaryFolder_ m_folder;
    std::string m_directory = m_folder.writeFile("names", lines("gamma"));
    std::string m_directoryOfBeta = m_folder.writeFile("names-of-beta", lines("alpha"));
};

// Terminals

/// Alpha and beta are connected. For alpha there wait: on that connection a message, and on connections not
/// yet accepted a ping of gamma and a message that beta wants forwarded to gamma.
class OpenTerminals_ : public Situation_ {
public:
    void prepare() override {
        openAll();
        exchange();
        EXPECT_TRUE(m_beta.sendMessage(createMessage(kAlpha, kSchema)));
        EXPECT_TRUE(m_gamma.sendMessage(createMessage(kAlpha, kPing)));
        EXPECT_TRUE(m_beta.sendMessage(createMessage(kGamma, kSchema)));
        m_p_delta.reset(createVekmsgTerminal());
        EXPECT_TRUE(m_p_delta->open(utf8(kDelta), m_installation.directory()));
        EXPECT_TRUE(m_alpha.CreateMessagePrinter(&m_stream, "a note", m_sp_filter));
        m_sp_toBeta = createMessage(kBeta, kSchema);
        m_sp_toDelta = createMessage(kDelta, kSchema);
        m_sp_text = SP_Utf8String_(new Utf8String_(utf8(kBeta)));
    }

    void proveItsUse() override {
        for (VekmsgTerminal_* p_terminal : {&m_alpha, &m_beta, &m_gamma}) {
            SP_VekMessage_ sp_message;
            const bool isOpen = VekmsgTerminal_::getImplementation(p_terminal) != nullptr;
            EXPECT_EQ(p_terminal->receiveMessage(sp_message), isOpen);
            p_terminal->close();
            EXPECT_EQ(VekmsgTerminal_::getImplementation(p_terminal), nullptr);
        }
        openAll();
        exchange();
    }

    VekmsgTerminalImpl_& implementation() {
        return *static_cast<VekmsgTerminalImpl_*>(VekmsgTerminal_::getImplementation(&m_alpha));
    }

    Installation_ m_installation;
    VekmsgTerminal_ m_alpha;
    VekmsgTerminal_ m_beta;
    VekmsgTerminal_ m_gamma;
    std::unique_ptr<VekmsgTerminal_> m_p_delta;
    SP_VekMessage_ m_sp_toBeta;
    SP_VekMessage_ m_sp_toDelta;
    SP_VekMessage_ m_sp_received;
    SP_VekmsgFilter_ m_sp_filter;
    SP_Utf8String_ m_sp_text;
    SP_Utf8String_ m_sp_otherText;
    SP_BasicBuffer_ m_sp_buffer;
    NullBuffer_ m_nowhere;
    std::ostream m_stream{&m_nowhere};

private:
    void openAll() {
        EXPECT_TRUE(m_alpha.open(utf8(kAlpha), m_installation.directory()));
        EXPECT_TRUE(m_beta.open(utf8(kBeta), m_installation.directoryOfBeta()));
        EXPECT_TRUE(m_gamma.open(utf8(kGamma), m_installation.directory()));
    }

    void exchange() {
        EXPECT_TRUE(m_alpha.sendMessage(createMessage(kBeta, kSchema)));
        EXPECT_EQ(m_beta.waitForMessage(10000), VekmsgTerminal_::WAIT_MESSAGE);
        SP_VekMessage_ sp_message;
        EXPECT_TRUE(m_beta.receiveMessage(sp_message));
        EXPECT_TRUE(sp_message && sp_message->getPayload());
    }
};

using OfOpenTerminals_ = Entry_<OpenTerminals_>;

class TerminalEntries : public testing::TestWithParam<OfOpenTerminals_> {};

TEST_P(TerminalEntries, surviveEveryAllocationFailure) {
    survivesEveryFailure(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    All, TerminalEntries,
    testing::Values(
        OfOpenTerminals_{"createVekmsgTerminal", true,
                         [](OpenTerminals_& s) { s.m_p_delta.reset(createVekmsgTerminal()); }},
        OfOpenTerminals_{"destructor", false, [](OpenTerminals_& s) { s.m_p_delta.reset(); }},
        OfOpenTerminals_{"close", false, [](OpenTerminals_& s) { s.m_alpha.close(); }},
        OfOpenTerminals_{"openAfterClose", true,
                         [](OpenTerminals_& s) {
                             s.m_alpha.close();
                             s.m_alpha.open(utf8(kAlpha), s.m_installation.directory());
                         }},
        OfOpenTerminals_{
            "openAgain", true,
            [](OpenTerminals_& s) { s.m_alpha.open(utf8(kAlpha), s.m_installation.directory()); }},
        OfOpenTerminals_{"createMessage", true,
                         [](OpenTerminals_& s) { s.m_alpha.createMessage(s.m_sp_received); }},
        OfOpenTerminals_{"sendMessageOnAStandingConnection", true,
                         [](OpenTerminals_& s) { s.m_alpha.sendMessage(s.m_sp_toBeta); }},
        OfOpenTerminals_{"sendMessageOnANewConnection", true,
                         [](OpenTerminals_& s) { s.m_alpha.sendMessage(s.m_sp_toDelta); }},
        OfOpenTerminals_{"receiveMessage", true,
                         [](OpenTerminals_& s) { s.m_alpha.receiveMessage(s.m_sp_received); }},
        OfOpenTerminals_{"receiveMessageWithPingAndForwarding", true,
                         [](OpenTerminals_& s) {
                             for (int i = 0; i < 6; ++i) s.m_alpha.receiveMessage(s.m_sp_received);
                         }},
        OfOpenTerminals_{"isConnected", true, [](OpenTerminals_& s) { s.m_alpha.isConnected(utf8(kBeta)); }},
        OfOpenTerminals_{"waitForMessage", false, [](OpenTerminals_& s) { s.m_gamma.waitForMessage(1); }},
        OfOpenTerminals_{"waitForMessageThatIsThere", true,
                         [](OpenTerminals_& s) { s.m_alpha.waitForMessage(1); }},
        OfOpenTerminals_{"fillPollFdArray", false,
                         [](OpenTerminals_& s) {
                             pollfd entries[10];
                             unsigned int count = 10;
                             s.m_alpha.fillPollFdArray(entries, count);
                         }},
        OfOpenTerminals_{"setSendFilter", false,
                         [](OpenTerminals_& s) { s.m_alpha.setSendFilter(s.m_sp_filter); }},
        OfOpenTerminals_{"setReceiveFilter", false,
                         [](OpenTerminals_& s) { s.m_alpha.setReceiveFilter(s.m_sp_filter); }},
        OfOpenTerminals_{
            "CreateMessagePrinter", true,
            [](OpenTerminals_& s) { s.m_alpha.CreateMessagePrinter(&s.m_stream, "note", s.m_sp_filter); }},
        OfOpenTerminals_{"printerProcess", false,
                         [](OpenTerminals_& s) { s.m_sp_filter->process(s.m_sp_toBeta); }},
        OfOpenTerminals_{"sendMessageThroughAPrinter", true,
                         [](OpenTerminals_& s) {
                             s.m_alpha.setSendFilter(s.m_sp_filter);
                             s.m_alpha.sendMessage(s.m_sp_toBeta);
                         }},
        OfOpenTerminals_{"receiveMessageThroughAPrinter", true,
                         [](OpenTerminals_& s) {
                             s.m_alpha.setReceiveFilter(s.m_sp_filter);
                             for (int i = 0; i < 3; ++i) s.m_alpha.receiveMessage(s.m_sp_received);
                         }},
        OfOpenTerminals_{
            "sendRawPayload", true,
            [](OpenTerminals_& s) { s.m_alpha.sendRawPayload(utf8(kBeta), utf8(kSchema), s.m_sp_buffer); }},
        OfOpenTerminals_{"receiveRawPayload", true,
                         [](OpenTerminals_& s) {
                             s.m_alpha.receiveRawPayload(s.m_sp_text, s.m_sp_otherText, s.m_sp_buffer);
                         }},
        OfOpenTerminals_{"pollFd", true,
                         [](OpenTerminals_& s) {
                             VekmsgTerminal_::pollFd(nullptr, 0, 1, &s.m_alpha, &s.m_beta, &s.m_gamma,
                                                     static_cast<void*>(nullptr));
                         }},
        OfOpenTerminals_{"findActiveConnection", true,
                         [](OpenTerminals_& s) { s.implementation().findActiveConnection(s.m_sp_text); }},
        OfOpenTerminals_{"processPollEvents", true,
                         [](OpenTerminals_& s) {
                             bool gotData = false;
                             for (int i = 0; i < 3; ++i) s.implementation().processPollEvents(gotData);
                         }}),
    entryName<OfOpenTerminals_>);

// Messages and elements

/// A message with a tree, and one with the same payload still encoded.
class Messages_ : public Situation_ {
public:
    void prepare() override {
        m_sp_message = createMessage(kBeta, kSchema);
        m_sp_root = m_sp_message->getPayload();
        static const unsigned char s_bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
        EXPECT_TRUE(m_sp_root->setSubElementValue(9, s_bytes, sizeof(s_bytes)));
        m_sp_root->querySubelements(5);
        m_sp_element = m_sp_message->createElement(6);
        m_sp_element->setValue(6U);
        const unsigned int size = binary(m_sp_message).getMaxSerializationSize();
        m_sp_encoded = new BasicBuffer_(size);  // without room for a longer header
        m_sp_encoded->setDataArea(size, 0);
        EXPECT_NE(binary(m_sp_message).serialize(m_sp_encoded), 0U);
        m_sp_received = SP_VekMessage_(new VekMessageBinary_);
        EXPECT_NE(binary(m_sp_received).deserialize(m_sp_encoded->copy()), 0U);
        m_sp_other = SP_VekMessage_(new VekMessageBinary_);
    }

    void proveItsUse() override {
        for (const SP_VekMessage_& sp_message : {m_sp_message, m_sp_received, m_sp_other}) {
            EXPECT_TRUE(sp_message->setDestination(utf8(kAlpha)));
            EXPECT_TRUE(sp_message->setPayload(m_sp_element));
            EXPECT_TRUE(m_sp_element->setValue(utf8("a new value")));
            EXPECT_TRUE(m_sp_element->setSubElementValue(8, 8U));
            EXPECT_TRUE(sp_message->print(&m_stream, 0));
            SP_BasicBuffer_ sp_buffer;
            EXPECT_NE(binary(sp_message).serialize(sp_buffer), 0U);
        }
        unsigned int value = 0;
        EXPECT_TRUE(m_sp_root->setSubElementValue(3, 33U));
        EXPECT_TRUE(m_sp_root->getSubElementValue(3, value));
        EXPECT_EQ(value, 33U);
    }

    static VekMessageBinary_& binary(const SP_VekMessage_& sp_message) {
        return dynamic_cast<VekMessageBinary_&>(*sp_message);
    }

    SP_VekMessage_ m_sp_message;   // with a tree
    SP_VekMessage_ m_sp_received;  // with a raw payload
    SP_VekMessage_ m_sp_other;     // empty
    SP_VekmsgElement_ m_sp_root;   // complex: 3, 5, 9; a walk over 5 has begun
    SP_VekmsgElement_ m_sp_element;
    SP_BasicBuffer_ m_sp_encoded;
    SP_BasicBuffer_ m_sp_buffer;
    unsigned int m_number = 0;
    const unsigned char* m_p_bytes = nullptr;
    NullBuffer_ m_nowhere;
    std::ostream m_stream{&m_nowhere};
};

using OfMessages_ = Entry_<Messages_>;

class MessageEntries : public testing::TestWithParam<OfMessages_> {};

TEST_P(MessageEntries, surviveEveryAllocationFailure) {
    survivesEveryFailure(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Messages, MessageEntries,
    testing::Values(
        OfMessages_{"setDestination", true,
                    [](Messages_& s) { s.m_sp_other->setDestination(utf8(g_endless.c_str())); }},
        OfMessages_{"setSource", true,
                    [](Messages_& s) { s.m_sp_other->setSource(utf8(g_endless.c_str())); }},
        OfMessages_{"swapSourceDestination", false,
                    [](Messages_& s) { s.m_sp_message->swapSourceDestination(); }},
        OfMessages_{"setPayloadSchema", true,
                    [](Messages_& s) {
                        s.m_sp_other->setPayloadSchema(utf8(g_endless.c_str()), VekMessage_::SCHEMA_URI);
                    }},
        OfMessages_{"plainAccessors", false,
                    [](Messages_& s) {
                        s.m_sp_message->setTimeToLive(s.m_sp_message->getTimeToLive());
                        s.m_p_bytes = s.m_sp_message->getDestination();
                        s.m_p_bytes = s.m_sp_message->getSource();
                        s.m_p_bytes = s.m_sp_message->getPayloadSchema();
                        s.m_number = s.m_sp_message->getPayloadSchemaType();
                    }},
        OfMessages_{"hasGoodPayload", false, [](Messages_& s) { s.m_sp_received->hasGoodPayload(); }},
        OfMessages_{"getPayload", true, [](Messages_& s) { s.m_sp_received->getPayload(); }},
        OfMessages_{"getRawPayload", false,
                    [](Messages_& s) { s.m_sp_buffer = s.m_sp_received->getRawPayload(); }},
        OfMessages_{"setPayload", false, [](Messages_& s) { s.m_sp_received->setPayload(s.m_sp_element); }},
        OfMessages_{"setRawPayload", false,
                    [](Messages_& s) { s.m_sp_message->setRawPayload(s.m_sp_encoded); }},
        OfMessages_{"createElement", true, [](Messages_& s) { s.m_sp_message->createElement(1); }},
        OfMessages_{"printATree", true, [](Messages_& s) { s.m_sp_message->print(&s.m_stream, 0); }},
        OfMessages_{"printARawPayload", true, [](Messages_& s) { s.m_sp_received->print(&s.m_stream, 0); }},
        OfMessages_{"serialize", true,
                    [](Messages_& s) { s.binary(s.m_sp_message).serialize(s.m_sp_buffer); }},
        OfMessages_{"serializeARawPayload", true,
                    [](Messages_& s) {
                        s.m_sp_received->setDestination(
                            utf8("a name that makes the header grow beyond the room "
                                 "that there was for the old one"));
                        s.binary(s.m_sp_received).serialize(s.m_sp_buffer);
                    }},
        OfMessages_{"deserialize", true,
                    [](Messages_& s) { s.binary(s.m_sp_other).deserialize(s.m_sp_encoded); }}),
    entryName<OfMessages_>);

INSTANTIATE_TEST_SUITE_P(
    Elements, MessageEntries,
    testing::Values(
        OfMessages_{"setValues", false,
                    [](Messages_& s) {
                        s.m_sp_element->setValue(1U);
                        s.m_sp_element->setValue(true);
                        s.m_sp_element->setValue(utf8(kSchema));
                        s.m_sp_element->setValue(utf8(kSchema), sizeof(kSchema));
                        s.m_sp_element->setTag(6);
                    }},
        OfMessages_{"getValues", false,
                    [](Messages_& s) {
                        bool isSet = false;
                        s.m_sp_element->getTag();
                        s.m_sp_element->getValue(s.m_number);
                        s.m_sp_element->getValue(isSet);
                        s.m_sp_element->getValue(s.m_p_bytes);
                        s.m_sp_element->getValue(s.m_p_bytes, s.m_number);
                    }},
        OfMessages_{"findFirstMatchingSubelement", true,
                    [](Messages_& s) { s.m_sp_root->findFirstMatchingSubelement(9); }},
        OfMessages_{"querySubelements", true, [](Messages_& s) { s.m_sp_root->querySubelements(3); }},
        OfMessages_{"walk", false,
                    [](Messages_& s) {
                        s.m_sp_root->getNextSubelement();
                        s.m_sp_root->endQuerySubelements();
                    }},
        OfMessages_{"addSubelements", true,
                    [](Messages_& s) { s.m_sp_element->addSubelements(s.m_sp_root); }},
        OfMessages_{"getSubElementValueOfAUint", true,
                    [](Messages_& s) { s.m_sp_root->getSubElementValue(3, s.m_number); }},
        OfMessages_{"getSubElementValueOfABool", true,
                    [](Messages_& s) {
                        bool isSet = false;
                        s.m_sp_root->getSubElementValue(3, isSet);
                    }},
        OfMessages_{"getSubElementValueOfAText", true,
                    [](Messages_& s) { s.m_sp_root->getSubElementValue(5, s.m_p_bytes); }},
        OfMessages_{"getSubElementValueOfBytes", true,
                    [](Messages_& s) { s.m_sp_root->getSubElementValue(9, s.m_p_bytes, s.m_number); }},
        OfMessages_{"setSubElementValueOfAUint", true,
                    [](Messages_& s) { s.m_sp_root->setSubElementValue(20, 1U); }},
        OfMessages_{"setSubElementValueOfABool", true,
                    [](Messages_& s) { s.m_sp_root->setSubElementValue(20, true); }},
        OfMessages_{"setSubElementValueOfAText", true,
                    [](Messages_& s) { s.m_sp_root->setSubElementValue(20, utf8(kSchema)); }},
        OfMessages_{"setSubElementValueOfBytes", true,
                    [](Messages_& s) { s.m_sp_root->setSubElementValue(20, utf8(kSchema), 3); }},
        OfMessages_{"attributes", false,
                    [](Messages_& s) {
                        s.m_sp_root->createAttribute(1);
                        s.m_sp_root->getAttribute(1);
                        s.m_sp_root->setAttribute(SmartPointer_<VekmsgAttribute_>());
                        s.m_sp_root->setAttribute(1, 1U);
                    }},
        OfMessages_{"print", true, [](Messages_& s) { s.m_sp_root->print(&s.m_stream, 0); }}),
    entryName<OfMessages_>);

// C functions

/// The same in C: alpha and beta are connected, a message of beta waits for alpha.
class Handles_ : public Situation_ {
public:
    void prepare() override {
        openAll();
        exchange(m_p_alpha, m_p_beta, kBeta);
        send(m_p_beta, kAlpha);
        m_p_message = vekmsg_terminal_create_message(m_p_alpha);
        EXPECT_TRUE(vekmsg_message_set_destination(m_p_message, utf8(kDelta)));
        m_p_root = vekmsg_message_create_element(m_p_message, 1);
        EXPECT_TRUE(vekmsg_element_set_subelement_value_as_uint(m_p_root, 3, 3));
        EXPECT_TRUE(vekmsg_element_set_subelement_value_as_string(m_p_root, 5, utf8("text")));
        EXPECT_TRUE(vekmsg_element_set_subelement_value_as_bytestream(m_p_root, 9, utf8("bytes"), 5));
        EXPECT_TRUE(vekmsg_element_query_subelements(m_p_root, 5));
        EXPECT_TRUE(vekmsg_message_set_payload(m_p_message, m_p_root));
        m_p_element = vekmsg_message_create_element(m_p_message, 6);
        EXPECT_TRUE(vekmsg_element_set_value_as_uint(m_p_element, 6));
        m_p_received = encodedMessage();
    }

    void proveItsUse() override {
        unsigned int value = 0;
        EXPECT_TRUE(vekmsg_element_set_subelement_value_as_uint(m_p_root, 3, 33));
        EXPECT_TRUE(vekmsg_element_get_subelement_value_as_uint(m_p_root, 3, &value));
        EXPECT_EQ(value, 33U);
        EXPECT_TRUE(vekmsg_message_set_source(m_p_message, utf8(kSchema)));
        for (void* p_handle : {m_p_message, m_p_root, m_p_element, m_p_received, m_p_result})
            vekmsg_free_handle(p_handle);
        for (void* p_terminal : {m_p_alpha, m_p_beta, m_p_delta}) vekmsg_terminal_close(p_terminal);
        openAll();
        exchange(m_p_alpha, m_p_beta, kBeta);
        for (void* p_terminal : {m_p_alpha, m_p_beta}) vekmsg_terminal_close(p_terminal);
    }

    Installation_ m_installation;
    void* m_p_alpha = nullptr;
    void* m_p_beta = nullptr;
    void* m_p_delta = nullptr;
    void* m_p_message = nullptr;   // for delta, with root as its payload
    void* m_p_received = nullptr;  // still encoded
    void* m_p_root = nullptr;      // complex: 3, 5, 9; a walk over 5 has begun
    void* m_p_element = nullptr;
    void* m_p_result = nullptr;  // what an operation returned
    unsigned int m_number = 0;
    const unsigned char* m_p_bytes = nullptr;

private:
    void openAll() {
        m_p_alpha = vekmsg_terminal_open(utf8(kAlpha), m_installation.directory());
        m_p_beta = vekmsg_terminal_open(utf8(kBeta), m_installation.directory());
        EXPECT_NE(m_p_alpha, nullptr);
        EXPECT_NE(m_p_beta, nullptr);
    }

    static void send(void* p_terminal, const char* p_destination) {
        const SP_VekMessage_ sp_message = createMessage(p_destination, kSchema);
        EXPECT_TRUE(vekmsg_terminal_send_message(p_terminal, sp_message.get()));
    }

    static void exchange(void* p_from, void* p_to, const char* p_destination) {
        send(p_from, p_destination);
        EXPECT_EQ(vekmsg_terminal_wait_for_message(p_to, 10000), VEKMSG_WAIT_MESSAGE);
        void* p_message = nullptr;
        EXPECT_TRUE(vekmsg_terminal_receive_message(p_to, &p_message));
        EXPECT_NE(p_message, nullptr);
        vekmsg_free_handle(p_message);
    }

    static void* encodedMessage() {
        const SP_VekMessage_ sp_message = createMessage(kAlpha, kSchema);
        SP_BasicBuffer_ sp_buffer;
        EXPECT_NE(dynamic_cast<VekMessageBinary_&>(*sp_message).serialize(sp_buffer), 0U);
        auto* p_received = new VekMessageBinary_;
        p_received->addRef();
        EXPECT_NE(p_received->deserialize(sp_buffer), 0U);
        return static_cast<VekMessage_*>(p_received);
    }
};

using OfHandles_ = Entry_<Handles_>;

class CEntries : public testing::TestWithParam<OfHandles_> {};

TEST_P(CEntries, surviveEveryAllocationFailure) {
    survivesEveryFailure(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Terminals, CEntries,
    testing::Values(
        OfHandles_{"open", true,
                   [](Handles_& s) {
                       s.m_p_delta = vekmsg_terminal_open(utf8(kDelta), s.m_installation.directory());
                   }},
        OfHandles_{"close", false,
                   [](Handles_& s) { vekmsg_terminal_close(std::exchange(s.m_p_alpha, nullptr)); }},
        OfHandles_{"create_message", true,
                   [](Handles_& s) { s.m_p_result = vekmsg_terminal_create_message(s.m_p_alpha); }},
        OfHandles_{"send_message", true,
                   [](Handles_& s) { vekmsg_terminal_send_message(s.m_p_alpha, s.m_p_message); }},
        OfHandles_{"send_message_on_a_standing_connection", true,
                   [](Handles_& s) {
                       vekmsg_message_set_destination(s.m_p_message, utf8(kBeta));
                       vekmsg_terminal_send_message(s.m_p_alpha, s.m_p_message);
                   }},
        OfHandles_{"receive_message", true,
                   [](Handles_& s) { vekmsg_terminal_receive_message(s.m_p_alpha, &s.m_p_result); }},
        OfHandles_{"wait_for_message", true,
                   [](Handles_& s) { vekmsg_terminal_wait_for_message(s.m_p_alpha, 1); }},
        OfHandles_{"pollfd", true,
                   [](Handles_& s) {
                       vekmsg_terminal_pollfd(nullptr, 0, 1, s.m_p_alpha, s.m_p_beta,
                                              static_cast<void*>(nullptr));
                   }}),
    entryName<OfHandles_>);

INSTANTIATE_TEST_SUITE_P(
    Messages, CEntries,
    testing::Values(
        OfHandles_{
            "set_destination", true,
            [](Handles_& s) { vekmsg_message_set_destination(s.m_p_message, utf8(g_endless.c_str())); }},
        OfHandles_{"set_source", true,
                   [](Handles_& s) { vekmsg_message_set_source(s.m_p_message, utf8(g_endless.c_str())); }},
        OfHandles_{"set_payload_schema", true,
                   [](Handles_& s) {
                       vekmsg_message_set_payload_schema(s.m_p_message, utf8(g_endless.c_str()),
                                                         VEKMSG_SCHEMA_URI);
                   }},
        OfHandles_{"getters", false,
                   [](Handles_& s) {
                       s.m_p_bytes = vekmsg_message_get_destination(s.m_p_message);
                       s.m_p_bytes = vekmsg_message_get_source(s.m_p_message);
                       s.m_p_bytes = vekmsg_message_get_payload_schema(s.m_p_message);
                       s.m_number = vekmsg_message_get_payload_schema_type(s.m_p_message);
                       vekmsg_message_swap_source_destination(s.m_p_message);
                   }},
        OfHandles_{"set_payload", false,
                   [](Handles_& s) { vekmsg_message_set_payload(s.m_p_message, s.m_p_element); }},
        OfHandles_{"get_payload", true,
                   [](Handles_& s) { s.m_p_result = vekmsg_message_get_payload(s.m_p_received); }},
        OfHandles_{"create_element", true,
                   [](Handles_& s) { s.m_p_result = vekmsg_message_create_element(s.m_p_message, 1); }},
        OfHandles_{"free_handle", false,
                   [](Handles_& s) { vekmsg_free_handle(std::exchange(s.m_p_received, nullptr)); }}),
    entryName<OfHandles_>);

INSTANTIATE_TEST_SUITE_P(
    Elements, CEntries,
    testing::Values(
        OfHandles_{"set_values", false,
                   [](Handles_& s) {
                       vekmsg_element_set_value_as_uint(s.m_p_element, vekmsg_element_getTag(s.m_p_element));
                       vekmsg_element_set_value_as_string(s.m_p_element, utf8(kSchema));
                       vekmsg_element_set_value_as_bytestream(s.m_p_element, utf8(kSchema), 20);
                   }},
        OfHandles_{"get_values", false,
                   [](Handles_& s) {
                       vekmsg_element_get_value_as_uint(s.m_p_element, &s.m_number);
                       vekmsg_element_get_value_as_string(s.m_p_element, &s.m_p_bytes);
                       vekmsg_element_get_value_as_bytestream(s.m_p_element, &s.m_p_bytes, &s.m_number);
                   }},
        OfHandles_{"set_subelement_value_as_uint", true,
                   [](Handles_& s) { vekmsg_element_set_subelement_value_as_uint(s.m_p_root, 20, 1); }},
        OfHandles_{"set_subelement_value_as_string", true,
                   [](Handles_& s) {
                       vekmsg_element_set_subelement_value_as_string(s.m_p_root, 20, utf8(kSchema));
                   }},
        OfHandles_{"set_subelement_value_as_bytestream", true,
                   [](Handles_& s) {
                       vekmsg_element_set_subelement_value_as_bytestream(s.m_p_root, 20, utf8(kSchema), 4);
                   }},
        OfHandles_{
            "get_subelement_value_as_uint", true,
            [](Handles_& s) { vekmsg_element_get_subelement_value_as_uint(s.m_p_root, 3, &s.m_number); }},
        OfHandles_{
            "get_subelement_value_as_string", true,
            [](Handles_& s) { vekmsg_element_get_subelement_value_as_string(s.m_p_root, 5, &s.m_p_bytes); }},
        OfHandles_{"get_subelement_value_as_bytestream", true,
                   [](Handles_& s) {
                       vekmsg_element_get_subelement_value_as_bytestream(s.m_p_root, 9, &s.m_p_bytes,
                                                                         &s.m_number);
                   }},
        OfHandles_{"query_subelements", true,
                   [](Handles_& s) { vekmsg_element_query_subelements(s.m_p_root, 3); }},
        OfHandles_{"walk", false,
                   [](Handles_& s) {
                       s.m_p_result = vekmsg_element_get_next_subelement(s.m_p_root);
                       vekmsg_element_end_query_subelements(s.m_p_root);
                   }},
        OfHandles_{
            "find_first_matching_subelement", true,
            [](Handles_& s) { s.m_p_result = vekmsg_element_find_first_matching_subelement(s.m_p_root, 9); }},
        OfHandles_{"add_subelements", true,
                   [](Handles_& s) { vekmsg_element_add_subelements(s.m_p_element, s.m_p_root); }}),
    entryName<OfHandles_>);

}  // namespace
