#include "vekmsg/c_binding.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "api/component_folder.h"
#include "api/public_records.h"
#include "message/message_binary.h"
#include "support/allocation_failure.h"
#include "support/child_process.h"
#include "support/record_capture.h"
#include "support/record_notes.h"
#include "terminal/terminal_impl.h"

namespace {

constexpr char kSource[] = "c_binding.cpp";
void* const kNull = nullptr;

// Null handles and null outputs

struct Refusal_ {
    std::string m_signature;
    std::string m_fault;            // behind the function's name
    std::function<bool()> m_fails;  // whether the call gives its failure value
};

/// "bool f(int)" -> "f"
std::string functionName(const std::string& signature) {
    const std::size_t end = signature.find('(');
    const std::size_t begin = signature.rfind(' ', end) + 1;
    return signature.substr(begin, end - begin);
}

void expectRefusals(const std::vector<Refusal_>& refusals) {
    RecordCapture_ records;
    for (const Refusal_& refusal : refusals) {
        const std::string name = functionName(refusal.m_signature);
        SCOPED_TRACE(refusal.m_signature + refusal.m_fault);
        const Record_ expected(3, kSource, refusal.m_signature, name + "() " + refusal.m_fault);
        const bool isRefused = refusal.m_fails();
        const Records_ written = records.take();
        EXPECT_TRUE(isRefused);
        EXPECT_EQ(written, Records_{expected});
        if (isRefused && written == Records_{expected}) noteCall(name.c_str(), refusal.m_fault.c_str());
    }
}

class CBindingRefusals : public testing::Test {
protected:
    bool areOutputsUntouched() const {
        return m_uint == 5 && m_p_text == &m_byte && m_p_bytes == &m_byte && m_length == 6;
    }

    unsigned char m_byte = 0;
    unsigned int m_uint = 5;
    unsigned int m_length = 6;
    const utf8_char_* m_p_text = &m_byte;
    const unsigned char* m_p_bytes = &m_byte;
};

TEST_F(CBindingRefusals, terminalFunctionsRefuseANullHandle) {
    const std::string fault = "null terminal handle";
    void* p_message = &m_byte;
    expectRefusals({
        {"void* vekmsg_terminal_create_message(void*)", fault,
         [] { return vekmsg_terminal_create_message(kNull) == kNull; }},
        {"vekmsg_status_ vekmsg_terminal_send_message(void*, void*)", fault,
         [] { return vekmsg_terminal_send_message(kNull, kNull) == VEKMSG_STATUS_FAILURE; }},
        {"vekmsg_status_ vekmsg_terminal_receive_message(void*, void**)", fault,
         [&] { return vekmsg_terminal_receive_message(kNull, &p_message) == VEKMSG_STATUS_FAILURE; }},
        {"vekmsg_terminal_wait_result_ vekmsg_terminal_wait_for_message(void*, unsigned int)", fault,
         [] { return vekmsg_terminal_wait_for_message(kNull, 1) == VEKMSG_WAIT_ERROR; }},
    });
    EXPECT_EQ(p_message, &m_byte);
}

TEST_F(CBindingRefusals, messageFunctionsRefuseANullHandle) {
    const std::string fault = "null message handle";
    expectRefusals({
        {"vekmsg_status_ vekmsg_message_set_destination(void*, const utf8_char_*)", fault,
         [] { return vekmsg_message_set_destination(kNull, nullptr) == VEKMSG_STATUS_FAILURE; }},
        {"const utf8_char_* vekmsg_message_get_destination(void*)", fault,
         [] { return vekmsg_message_get_destination(kNull) == nullptr; }},
        {"vekmsg_status_ vekmsg_message_set_source(void*, const utf8_char_*)", fault,
         [] { return vekmsg_message_set_source(kNull, nullptr) == VEKMSG_STATUS_FAILURE; }},
        {"const utf8_char_* vekmsg_message_get_source(void*)", fault,
         [] { return vekmsg_message_get_source(kNull) == nullptr; }},
        {"vekmsg_status_ vekmsg_message_swap_source_destination(void*)", fault,
         [] { return vekmsg_message_swap_source_destination(kNull) == VEKMSG_STATUS_FAILURE; }},
        {"vekmsg_status_ vekmsg_message_set_payload_schema(void*, const utf8_char_*, vekmsg_schema_type_)",
         fault,
         [] {
             return vekmsg_message_set_payload_schema(kNull, nullptr, VEKMSG_SCHEMA_URI) ==
                    VEKMSG_STATUS_FAILURE;
         }},
        {"const utf8_char_* vekmsg_message_get_payload_schema(void*)", fault,
         [] { return vekmsg_message_get_payload_schema(kNull) == nullptr; }},
        {"vekmsg_schema_type_ vekmsg_message_get_payload_schema_type(void*)", fault,
         [] { return vekmsg_message_get_payload_schema_type(kNull) == VEKMSG_SCHEMA_LITERAL; }},
        {"vekmsg_status_ vekmsg_message_set_payload(void*, void*)", fault,
         [] { return vekmsg_message_set_payload(kNull, kNull) == VEKMSG_STATUS_FAILURE; }},
        {"void* vekmsg_message_get_payload(void*)", fault,
         [] { return vekmsg_message_get_payload(kNull) == kNull; }},
        {"void* vekmsg_message_create_element(void*, vekmsg_tag_)", fault,
         [] { return vekmsg_message_create_element(kNull, 1) == kNull; }},
    });
}

TEST_F(CBindingRefusals, elementSettersRefuseANullHandle) {
    const std::string fault = "null element handle";
    expectRefusals({
        {"vekmsg_status_ vekmsg_element_set_value_as_uint(void*, unsigned int)", fault,
         [] { return vekmsg_element_set_value_as_uint(kNull, 1) == VEKMSG_STATUS_FAILURE; }},
        {"vekmsg_status_ vekmsg_element_set_value_as_string(void*, const utf8_char_*)", fault,
         [] { return vekmsg_element_set_value_as_string(kNull, nullptr) == VEKMSG_STATUS_FAILURE; }},
        {"vekmsg_status_ vekmsg_element_set_value_as_bytestream(void*, const unsigned char*, unsigned int)",
         fault,
         [] { return vekmsg_element_set_value_as_bytestream(kNull, nullptr, 1) == VEKMSG_STATUS_FAILURE; }},
        {"vekmsg_status_ vekmsg_element_set_subelement_value_as_uint(void*, vekmsg_tag_, unsigned int)",
         fault,
         [] { return vekmsg_element_set_subelement_value_as_uint(kNull, 1, 1) == VEKMSG_STATUS_FAILURE; }},
        {"vekmsg_status_ vekmsg_element_set_subelement_value_as_string(void*, vekmsg_tag_, const "
         "utf8_char_*)",
         fault,
         [] {
             return vekmsg_element_set_subelement_value_as_string(kNull, 1, nullptr) == VEKMSG_STATUS_FAILURE;
         }},
        {"vekmsg_status_ vekmsg_element_set_subelement_value_as_bytestream(void*, vekmsg_tag_, const "
         "unsigned char*, unsigned int)",
         fault,
         [] {
             return vekmsg_element_set_subelement_value_as_bytestream(kNull, 1, nullptr, 1) ==
                    VEKMSG_STATUS_FAILURE;
         }},
    });
}

TEST_F(CBindingRefusals, subElementFunctionsRefuseANullHandle) {
    const std::string fault = "null element handle";
    expectRefusals({
        {"vekmsg_tag_ vekmsg_element_getTag(void*)", fault,
         [] { return vekmsg_element_getTag(kNull) == 0xFFFFFFFFU; }},
        {"vekmsg_status_ vekmsg_element_query_subelements(void*, vekmsg_tag_)", fault,
         [] { return vekmsg_element_query_subelements(kNull, 1) == VEKMSG_STATUS_FAILURE; }},
        {"void* vekmsg_element_get_next_subelement(void*)", fault,
         [] { return vekmsg_element_get_next_subelement(kNull) == kNull; }},
        {"void vekmsg_element_end_query_subelements(void*)", fault,
         [] {
             vekmsg_element_end_query_subelements(kNull);
             return true;  // it has no result
         }},
        {"void* vekmsg_element_find_first_matching_subelement(void*, vekmsg_tag_)", fault,
         [] { return vekmsg_element_find_first_matching_subelement(kNull, 1) == kNull; }},
        {"vekmsg_status_ vekmsg_element_add_subelements(void*, void*)", fault,
         [] { return vekmsg_element_add_subelements(kNull, kNull) == VEKMSG_STATUS_FAILURE; }},
    });
}

constexpr char kGetUint[] = "vekmsg_status_ vekmsg_element_get_value_as_uint(void*, unsigned int*)";
constexpr char kGetString[] = "vekmsg_status_ vekmsg_element_get_value_as_string(void*, const utf8_char_**)";
constexpr char kGetBytes[] =
    "vekmsg_status_ vekmsg_element_get_value_as_bytestream(void*, const unsigned char**, unsigned int*)";
constexpr char kGetSubUint[] =
    "vekmsg_status_ vekmsg_element_get_subelement_value_as_uint(void*, vekmsg_tag_, unsigned int*)";
constexpr char kGetSubString[] =
    "vekmsg_status_ vekmsg_element_get_subelement_value_as_string(void*, vekmsg_tag_, const utf8_char_**)";
constexpr char kGetSubBytes[] =
    "vekmsg_status_ vekmsg_element_get_subelement_value_as_bytestream(void*, vekmsg_tag_, const unsigned "
    "char**, unsigned int*)";

TEST_F(CBindingRefusals, elementGettersRefuseANullHandle) {
    const std::string fault = "null element handle";
    expectRefusals({
        {kGetUint, fault, [&] { return !vekmsg_element_get_value_as_uint(kNull, &m_uint); }},
        {kGetString, fault, [&] { return !vekmsg_element_get_value_as_string(kNull, &m_p_text); }},
        {kGetBytes, fault,
         [&] { return !vekmsg_element_get_value_as_bytestream(kNull, &m_p_bytes, &m_length); }},
        {kGetSubUint, fault, [&] { return !vekmsg_element_get_subelement_value_as_uint(kNull, 1, &m_uint); }},
        {kGetSubString, fault,
         [&] { return !vekmsg_element_get_subelement_value_as_string(kNull, 1, &m_p_text); }},
        {kGetSubBytes, fault,
         [&] { return !vekmsg_element_get_subelement_value_as_bytestream(kNull, 1, &m_p_bytes, &m_length); }},
    });
    EXPECT_TRUE(areOutputsUntouched());
}

TEST_F(CBindingRefusals, theHandleIsCheckedBeforeTheOutputs) {
    const std::string fault = "null element handle";
    expectRefusals({
        {"vekmsg_status_ vekmsg_terminal_receive_message(void*, void**)", "null terminal handle",
         [] { return !vekmsg_terminal_receive_message(kNull, nullptr); }},
        {kGetUint, fault, [] { return !vekmsg_element_get_value_as_uint(kNull, nullptr); }},
        {kGetString, fault, [] { return !vekmsg_element_get_value_as_string(kNull, nullptr); }},
        {kGetBytes, fault, [] { return !vekmsg_element_get_value_as_bytestream(kNull, nullptr, nullptr); }},
        {kGetSubUint, fault, [] { return !vekmsg_element_get_subelement_value_as_uint(kNull, 1, nullptr); }},
        {kGetSubString, fault,
         [] { return !vekmsg_element_get_subelement_value_as_string(kNull, 1, nullptr); }},
        {kGetSubBytes, fault,
         [] { return !vekmsg_element_get_subelement_value_as_bytestream(kNull, 1, nullptr, nullptr); }},
    });
}

TEST_F(CBindingRefusals, gettersRefuseNullOutputs) {
    const SP_VekMessage_ sp_message(new VekMessageBinary_);
    const SP_VekmsgElement_ sp_element = sp_message->createElement(1);
    void* p_element = sp_element.get();
    expectRefusals({
        {kGetUint, "null p_value", [=] { return !vekmsg_element_get_value_as_uint(p_element, nullptr); }},
        {kGetString, "null p_string",
         [=] { return !vekmsg_element_get_value_as_string(p_element, nullptr); }},
        {kGetBytes, "null p_stream",
         [&] { return !vekmsg_element_get_value_as_bytestream(p_element, nullptr, &m_length); }},
        {kGetBytes, "null p_stream",
         [=] { return !vekmsg_element_get_value_as_bytestream(p_element, nullptr, nullptr); }},
        {kGetBytes, "null p_length",
         [&] { return !vekmsg_element_get_value_as_bytestream(p_element, &m_p_bytes, nullptr); }},
        {kGetSubUint, "null p_value",
         [=] { return !vekmsg_element_get_subelement_value_as_uint(p_element, 1, nullptr); }},
        {kGetSubString, "null p_string",
         [=] { return !vekmsg_element_get_subelement_value_as_string(p_element, 1, nullptr); }},
        {kGetSubBytes, "null p_stream",
         [&] {
             return !vekmsg_element_get_subelement_value_as_bytestream(p_element, 1, nullptr, &m_length);
         }},
        {kGetSubBytes, "null p_length",
         [&] {
             return !vekmsg_element_get_subelement_value_as_bytestream(p_element, 1, &m_p_bytes, nullptr);
         }},
    });
    EXPECT_TRUE(areOutputsUntouched());
}

// Terminals

class CBinding : public testing::Test {
protected:
    void* open(const char* p_name) {
        void* p_terminal = vekmsg_terminal_open(utf8(p_name), m_folder.directory());
        EXPECT_NE(p_terminal, kNull);
        m_records.take();
        return p_terminal;
    }

    ComponentFolder_ m_folder{{"alpha", "beta"}};
    RecordCapture_ m_records;
};

TEST_F(CBinding, closeAndFreeIgnoreNull) {
    vekmsg_terminal_close(kNull);
    vekmsg_free_handle(kNull);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(CBinding, openWithoutMemoryForATerminalFails) {
    {
        const AllocationFailure_ failure(1);
        EXPECT_EQ(vekmsg_terminal_open(utf8("alpha"), m_folder.directory()), kNull);
    }
    EXPECT_EQ(m_records.take(),
              (Records_{Record_(3, kSource, "void* vekmsg_terminal_open(const utf8_char_*, const char*)",
                                "vekmsg_terminal_open() can't create vekmsgTerminalImpl_")}));
}

TEST_F(CBinding, aFailedOpenLeavesNothingBehind) {
    const std::string names = m_folder.folder().writeFile(
        "half", {m_folder.address("alpha") + " alpha", m_folder.address("missing/alpha") + " alpha"});
    const long live = liveAllocations();

    inFreshThread([&] { EXPECT_EQ(vekmsg_terminal_open(utf8(""), m_folder.directory()), kNull); });
    EXPECT_EQ(m_records.take(), Records_{kEmptyName});
    inFreshThread([&] { EXPECT_EQ(vekmsg_terminal_open(nullptr, m_folder.directory()), kNull); });
    EXPECT_EQ(m_records.take(), Records_{kNullName});
    inFreshThread([&] { EXPECT_EQ(vekmsg_terminal_open(utf8("alpha"), names.c_str()), kNull); });
    EXPECT_EQ(m_records.take(), (Records_{kNoDefaultAddress, listening(m_folder.address("alpha")),
                                          noBind(m_folder.address("missing/alpha"))}));

    EXPECT_FALSE(m_folder.hasSocketFile("alpha"));
    EXPECT_EQ(liveAllocations(), live);
}

TEST_F(CBinding, closingATerminalRemovesItsSocketFile) {
    void* p_terminal = open("alpha");
    EXPECT_TRUE(m_folder.hasSocketFile("alpha"));
    vekmsg_terminal_close(p_terminal);
    EXPECT_FALSE(m_folder.hasSocketFile("alpha"));
    EXPECT_EQ(m_records.take(), Records_());
}

/// Two open terminals and what it takes to send a number.
class CBindingExchange : public CBinding {
protected:
    void SetUp() override {
        m_p_alpha = open("alpha");
        m_p_beta = open("beta");
    }
    void TearDown() override {
        vekmsg_terminal_close(m_p_alpha);
        vekmsg_terminal_close(m_p_beta);
    }

    static void* createMessage(void* p_terminal, const char* p_destination, unsigned int value) {
        void* p_message = vekmsg_terminal_create_message(p_terminal);
        void* p_element = vekmsg_message_create_element(p_message, 7);
        EXPECT_TRUE(vekmsg_element_set_value_as_uint(p_element, value));
        EXPECT_TRUE(vekmsg_message_set_payload(p_message, p_element));
        EXPECT_TRUE(vekmsg_message_set_destination(p_message, utf8(p_destination)));
        vekmsg_free_handle(p_element);
        return p_message;
    }

    static void* await(void* p_terminal) {
        void* p_message = nullptr;
        eventually([&] {
            return vekmsg_terminal_receive_message(p_terminal, &p_message) == VEKMSG_STATUS_FAILURE ||
                   p_message != nullptr;
        });
        return p_message;
    }

    static unsigned int takeValue(void* p_message) {
        void* p_payload = vekmsg_message_get_payload(p_message);
        unsigned int value = 0;
        EXPECT_TRUE(vekmsg_element_get_value_as_uint(p_payload, &value));
        vekmsg_free_handle(p_payload);
        vekmsg_free_handle(p_message);
        return value;
    }

    void* m_p_alpha = nullptr;
    void* m_p_beta = nullptr;
};

TEST_F(CBindingExchange, aSentMessageStillBelongsToTheCaller) {
    void* p_message = createMessage(m_p_alpha, "beta", 1);

    EXPECT_EQ(vekmsg_terminal_send_message(m_p_alpha, p_message), VEKMSG_STATUS_SUCCESS);
    EXPECT_EQ(vekmsg_terminal_send_message(m_p_alpha, p_message), VEKMSG_STATUS_SUCCESS);

    EXPECT_EQ(text(vekmsg_message_get_destination(p_message)), "beta");
    EXPECT_EQ(text(vekmsg_message_get_source(p_message)), "alpha");
    vekmsg_free_handle(p_message);
    EXPECT_EQ(takeValue(await(m_p_beta)), 1U);
    EXPECT_EQ(takeValue(await(m_p_beta)), 1U);
    EXPECT_EQ(m_records.take(), Records_());
}

/// Gives the application's handle back while the message is being sent, and swallows the message.
class ReleasingFilter_ : public VekmsgFilter_ {
public:
    explicit ReleasingFilter_(void* p_handle) : m_p_handle(p_handle) {}
    bool process(SP_VekMessage_& sp_message) override {
        vekmsg_free_handle(std::exchange(m_p_handle, nullptr));
        m_hasDestination = text(sp_message->getDestination()) == "beta";
        sp_message.reset();
        return true;
    }

    void* m_p_handle;
    bool m_hasDestination = false;
};

TEST_F(CBindingExchange, aMessageMayLoseItsHandleWhileItIsBeingSent) {
    const SmartPointer_<ReleasingFilter_> sp_filter(
        new ReleasingFilter_(createMessage(m_p_alpha, "beta", 1)));
    void* p_message = sp_filter->m_p_handle;
    ASSERT_TRUE(static_cast<VekmsgTerminalImpl_*>(m_p_alpha)->setSendFilter(sp_filter));

    EXPECT_EQ(vekmsg_terminal_send_message(m_p_alpha, p_message), VEKMSG_STATUS_SUCCESS);

    EXPECT_EQ(sp_filter->m_p_handle, nullptr);
    EXPECT_TRUE(sp_filter->m_hasDestination);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(CBindingExchange, receivingWithNothingToDeliverSetsNull) {
    void* p_message = &m_p_alpha;
    EXPECT_EQ(vekmsg_terminal_receive_message(m_p_beta, &p_message), VEKMSG_STATUS_SUCCESS);
    EXPECT_EQ(p_message, kNull);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(CBindingExchange, aFailedReceiveLeavesTheOutputAlone) {
    void* p_message = createMessage(m_p_alpha, "beta", 2);
    ASSERT_TRUE(vekmsg_terminal_send_message(m_p_alpha, p_message));
    vekmsg_free_handle(p_message);
    void* p_received = &m_p_alpha;
    inFreshThread([&] {
        const AllocationFailure_ failure(1);
        EXPECT_EQ(vekmsg_terminal_receive_message(m_p_beta, &p_received), VEKMSG_STATUS_FAILURE);
    });
    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, "bool VekSocket_::accept(int, SP_VekSocket_&) const",
                                                      "VekSocket_::accept() Can't create vekSocket_")});
    EXPECT_EQ(p_received, &m_p_alpha);
}

TEST_F(CBindingExchange, aNullOutputOfReceiveIsReportedUnderTheNameOfSend) {
    EXPECT_EQ(vekmsg_terminal_receive_message(m_p_beta, nullptr), VEKMSG_STATUS_FAILURE);
    EXPECT_EQ(m_records.take(),
              (Records_{Record_(3, kSource, "vekmsg_status_ vekmsg_terminal_receive_message(void*, void**)",
                                "vekmsg_terminal_send_message() null pointer to message handle")}));
}

TEST_F(CBindingExchange, failuresBelowAreReportedBelowAlone) {
    EXPECT_EQ(vekmsg_terminal_send_message(m_p_alpha, kNull), VEKMSG_STATUS_FAILURE);
    void* p_message = createMessage(m_p_alpha, "alpha", 3);
    EXPECT_EQ(vekmsg_terminal_send_message(m_p_alpha, p_message), VEKMSG_STATUS_FAILURE);
    EXPECT_EQ(vekmsg_message_set_destination(p_message, nullptr), VEKMSG_STATUS_FAILURE);
    vekmsg_free_handle(p_message);

    EXPECT_EQ(m_records.take(), (Records_{kNullMessage, kToItself, kNoDestination}));
}

TEST_F(CBindingExchange, waitingTellsATimeoutFromAMessage) {
    EXPECT_EQ(vekmsg_terminal_wait_for_message(m_p_beta, 0), VEKMSG_WAIT_TIMEOUT);
    void* p_message = createMessage(m_p_alpha, "beta", 4);
    ASSERT_TRUE(vekmsg_terminal_send_message(m_p_alpha, p_message));
    vekmsg_free_handle(p_message);
    EXPECT_EQ(vekmsg_terminal_wait_for_message(m_p_beta, 10000), VEKMSG_WAIT_MESSAGE);
    EXPECT_EQ(takeValue(await(m_p_beta)), 4U);
}

TEST_F(CBindingExchange, pollingTellsErrorTimeoutAndMessage) {
    std::vector<pollfd> tooMany(129, pollfd{-1, 0, 0});
    EXPECT_EQ(vekmsg_terminal_pollfd(tooMany.data(), 129, 1, m_p_alpha, kNull), -2);
    EXPECT_EQ(m_records.take(), Records_{kTooManyEntries});
    EXPECT_EQ(vekmsg_terminal_pollfd(nullptr, 0, 1, m_p_alpha, m_p_beta, kNull), -1);
    EXPECT_EQ(vekmsg_terminal_pollfd(nullptr, 0, 1, kNull), -1);

    void* p_message = createMessage(m_p_alpha, "beta", 5);
    ASSERT_TRUE(vekmsg_terminal_send_message(m_p_alpha, p_message));
    vekmsg_free_handle(p_message);
    EXPECT_EQ(vekmsg_terminal_pollfd(nullptr, 0, 10000, m_p_alpha, m_p_beta, kNull), 0);
    EXPECT_EQ(takeValue(await(m_p_beta)), 5U);
}

TEST_F(CBindingExchange, aTerminalHandleIsTheImplementationItself) {
    auto* p_terminal = static_cast<VekmsgTerminalImpl_*>(m_p_alpha);
    SP_VekMessage_ sp_message;
    EXPECT_TRUE(p_terminal->createMessage(sp_message));
    EXPECT_TRUE(sp_message);
}

TEST_F(CBindingExchange, createMessageWithoutMemoryIsNull) {
    inFreshThread([&] {
        const AllocationFailure_ failure(1);
        EXPECT_EQ(vekmsg_terminal_create_message(m_p_alpha), kNull);
    });
    EXPECT_EQ(m_records.take(), Records_{kNoMessage});
}

// References

/// Tells when it is destroyed.
template <class Object>
class Watched_ : public Object {
public:
    template <class... Arguments>
    explicit Watched_(bool& isGone, Arguments... arguments) : Object(arguments...), m_isGone(isGone) {}
    ~Watched_() override { m_isGone = true; }

private:
    bool& m_isGone;
};

class CBindingReferences : public testing::Test {
protected:
    CBindingReferences()
        : m_p_message(handle<VekMessage_>(new Watched_<VekMessageBinary_>(m_isMessageGone))),
          m_p_element(
              handle<VekmsgElement_>(new Watched_<VekmsgElementBinary_>(m_isElementGone, 7U, nullptr))) {}

    /// As a function returns it: with a reference for the caller.
    template <class Base>
    static void* handle(Base* p_object) {
        p_object->addRef();
        return p_object;
    }

    bool m_isMessageGone = false;
    bool m_isElementGone = false;
    void* m_p_message;
    void* m_p_element;
};

TEST_F(CBindingReferences, freeingTheLastHandleDestroysTheObject) {
    vekmsg_free_handle(m_p_message);
    vekmsg_free_handle(m_p_element);
    EXPECT_TRUE(m_isMessageGone);
    EXPECT_TRUE(m_isElementGone);
}

TEST_F(CBindingReferences, handlesPassedInAreBorrowed) {
    EXPECT_TRUE(vekmsg_message_set_source(m_p_message, utf8("source")));
    EXPECT_EQ(text(vekmsg_message_get_source(m_p_message)), "source");
    EXPECT_TRUE(vekmsg_message_set_payload(m_p_message, kNull));
    EXPECT_TRUE(vekmsg_element_set_value_as_uint(m_p_element, 1));
    EXPECT_EQ(vekmsg_element_getTag(m_p_element), 7U);

    EXPECT_FALSE(m_isMessageGone);
    EXPECT_FALSE(m_isElementGone);
    vekmsg_free_handle(m_p_message);
    vekmsg_free_handle(m_p_element);
    EXPECT_TRUE(m_isMessageGone);
    EXPECT_TRUE(m_isElementGone);
}

TEST_F(CBindingReferences, aMessageHoldsItsPayloadByAReferenceOfItsOwn) {
    EXPECT_TRUE(vekmsg_message_set_payload(m_p_message, m_p_element));
    vekmsg_free_handle(m_p_element);
    EXPECT_FALSE(m_isElementGone);

    void* p_payload = vekmsg_message_get_payload(m_p_message);
    EXPECT_EQ(p_payload, m_p_element);
    vekmsg_free_handle(m_p_message);
    EXPECT_TRUE(m_isMessageGone);
    EXPECT_FALSE(m_isElementGone);  // the new handle holds it

    vekmsg_free_handle(p_payload);
    EXPECT_TRUE(m_isElementGone);
}

TEST_F(CBindingReferences, aParentHoldsItsSubElementByAReferenceOfItsOwn) {
    void* p_parent = vekmsg_message_create_element(m_p_message, 1);
    ASSERT_TRUE(vekmsg_element_add_subelements(p_parent, m_p_element));
    vekmsg_free_handle(m_p_element);
    EXPECT_FALSE(m_isElementGone);

    void* p_found = vekmsg_element_find_first_matching_subelement(p_parent, 7);
    ASSERT_TRUE(vekmsg_element_query_subelements(p_parent, 7));
    void* p_walked = vekmsg_element_get_next_subelement(p_parent);
    vekmsg_element_end_query_subelements(p_parent);
    EXPECT_EQ(p_found, m_p_element);
    EXPECT_EQ(p_walked, m_p_element);
    vekmsg_free_handle(p_parent);
    vekmsg_free_handle(p_walked);
    EXPECT_FALSE(m_isElementGone);

    vekmsg_free_handle(p_found);
    EXPECT_TRUE(m_isElementGone);
    vekmsg_free_handle(m_p_message);
}

TEST_F(CBindingReferences, createdElementsOutliveTheirMessage) {
    void* p_parent = vekmsg_message_create_element(m_p_message, 1);
    vekmsg_free_handle(m_p_message);
    ASSERT_TRUE(m_isMessageGone);

    EXPECT_TRUE(vekmsg_element_set_subelement_value_as_uint(p_parent, 2, 3));
    unsigned int value = 0;
    EXPECT_TRUE(vekmsg_element_get_subelement_value_as_uint(p_parent, 2, &value));
    EXPECT_EQ(value, 3U);
    vekmsg_free_handle(p_parent);
    vekmsg_free_handle(m_p_element);
}

TEST_F(CBinding, allHandlesFreedLeaveNoMemoryInUse) {
    const long live = liveAllocations();
    inFreshThread([&] {
        void* p_terminal = open("alpha");
        void* p_message = vekmsg_terminal_create_message(p_terminal);
        void* p_root = vekmsg_message_create_element(p_message, 1);
        EXPECT_GT(liveAllocations(), live);
        vekmsg_terminal_close(p_terminal);
        EXPECT_TRUE(vekmsg_element_set_subelement_value_as_uint(p_root, 2, 3));
        EXPECT_TRUE(vekmsg_message_set_payload(p_message, p_root));
        vekmsg_free_handle(p_message);
        vekmsg_free_handle(p_root);
    });
    EXPECT_EQ(liveAllocations(), live);
}

// Messages and elements

class CBindingValues : public testing::Test {
protected:
    CBindingValues() {
        m_sp_message = SP_VekMessage_(new VekMessageBinary_);
        m_sp_element = m_sp_message->createElement(1);
    }
    void* message() { return m_sp_message.get(); }
    void* element() { return m_sp_element.get(); }

    RecordCapture_ m_records;
    SP_VekMessage_ m_sp_message;
    SP_VekmsgElement_ m_sp_element;
};

TEST_F(CBindingValues, namesAndSchemaAreKeptByTheMessage) {
    EXPECT_TRUE(vekmsg_message_set_destination(message(), utf8("to")));
    EXPECT_TRUE(vekmsg_message_set_source(message(), utf8("from")));
    EXPECT_TRUE(vekmsg_message_set_payload_schema(message(), utf8("urn:x"), VEKMSG_SCHEMA_URI));
    EXPECT_TRUE(vekmsg_message_swap_source_destination(message()));

    EXPECT_EQ(text(vekmsg_message_get_destination(message())), "from");
    EXPECT_EQ(text(vekmsg_message_get_source(message())), "to");
    EXPECT_EQ(text(vekmsg_message_get_payload_schema(message())), "urn:x");
    EXPECT_EQ(vekmsg_message_get_payload_schema_type(message()), VEKMSG_SCHEMA_URI);
    EXPECT_TRUE(vekmsg_message_set_payload_schema(message(), utf8("y"), VEKMSG_SCHEMA_LITERAL));
    EXPECT_EQ(vekmsg_message_get_payload_schema_type(message()), VEKMSG_SCHEMA_LITERAL);
    EXPECT_EQ(vekmsg_message_get_payload(message()), kNull);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(CBindingValues, valuesReadBackAsTheTypeTheyWereSet) {
    const unsigned char bytes[] = {9, 0, 8};
    unsigned int number = 0;
    const utf8_char_* p_text = nullptr;
    const unsigned char* p_bytes = nullptr;

    EXPECT_TRUE(vekmsg_element_set_value_as_uint(element(), 0x01020304));
    EXPECT_TRUE(vekmsg_element_get_value_as_uint(element(), &number));
    EXPECT_EQ(number, 0x01020304U);
    EXPECT_TRUE(vekmsg_element_set_value_as_string(element(), utf8("text")));
    EXPECT_TRUE(vekmsg_element_get_value_as_string(element(), &p_text));
    EXPECT_EQ(text(p_text), "text");
    EXPECT_TRUE(vekmsg_element_set_value_as_bytestream(element(), bytes, 3));
    EXPECT_TRUE(vekmsg_element_get_value_as_bytestream(element(), &p_bytes, &number));
    EXPECT_EQ(std::string(p_bytes, p_bytes + number), std::string("\x09\0\x08", 3));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(CBindingValues, subElementValuesReadBackByTag) {
    const unsigned char bytes[] = {9, 0, 8};
    unsigned int number = 0;
    const utf8_char_* p_text = nullptr;
    const unsigned char* p_bytes = nullptr;

    EXPECT_TRUE(vekmsg_element_set_subelement_value_as_uint(element(), 2, 22));
    EXPECT_TRUE(vekmsg_element_set_subelement_value_as_string(element(), 3, utf8("text")));
    EXPECT_TRUE(vekmsg_element_set_subelement_value_as_bytestream(element(), 4, bytes, 3));

    EXPECT_TRUE(vekmsg_element_get_subelement_value_as_uint(element(), 2, &number));
    EXPECT_EQ(number, 22U);
    EXPECT_TRUE(vekmsg_element_get_subelement_value_as_string(element(), 3, &p_text));
    EXPECT_EQ(text(p_text), "text");
    EXPECT_TRUE(vekmsg_element_get_subelement_value_as_bytestream(element(), 4, &p_bytes, &number));
    EXPECT_EQ(std::string(p_bytes, p_bytes + number), std::string("\x09\0\x08", 3));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(CBindingValues, aMissingSubElementFailsWithoutARecord) {
    ASSERT_TRUE(vekmsg_element_set_subelement_value_as_uint(element(), 2, 22));
    unsigned int number = 5;
    EXPECT_FALSE(vekmsg_element_get_subelement_value_as_uint(element(), 3, &number));
    EXPECT_EQ(number, 5U);
    EXPECT_EQ(vekmsg_element_find_first_matching_subelement(element(), 3), kNull);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(CBindingValues, aWrongTypeIsReportedByTheElement) {
    ASSERT_TRUE(vekmsg_element_set_value_as_string(element(), utf8("text")));
    unsigned int number = 5;
    EXPECT_FALSE(vekmsg_element_get_value_as_uint(element(), &number));
    EXPECT_FALSE(vekmsg_element_query_subelements(element(), VEKMSG_TAG_ANY));
    EXPECT_FALSE(vekmsg_element_add_subelements(element(), kNull));
    EXPECT_EQ(number, 5U);
    EXPECT_EQ(m_records.take(), (Records_{kNoUint, kNoSubelements, kNullSubelement}));
}

TEST_F(CBindingValues, aWalkEndsWhenItIsTold) {
    ASSERT_TRUE(vekmsg_element_set_subelement_value_as_uint(element(), 2, 22));
    ASSERT_TRUE(vekmsg_element_query_subelements(element(), VEKMSG_TAG_ANY));
    vekmsg_element_end_query_subelements(element());
    EXPECT_EQ(vekmsg_element_get_next_subelement(element()), kNull);
    EXPECT_EQ(m_records.take(), Records_());
}

}  // namespace
