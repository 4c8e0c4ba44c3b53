// What the C functions write, beside their refusals of null handles and outputs.

#include <cerrno>
#include <vector>

#include "api/component_folder.h"
#include "api/public_records.h"
#include "message/message_binary.h"
#include "support/buffer_bytes.h"
#include "support/system_calls.h"
#include "support/wire_bytes.h"
#include "vekmsg/c_binding.h"

namespace {

const unsigned char g_bytes[] = {1, 2, 3};
const std::string g_long(9401, 'x');

/// A message, an element with the number 7, one with a text, and one with the sub-elements 2 (a number), 3 (a
/// text) and 4 (bytes).
class CRecords : public PublicRecords_ {
protected:
    CRecords() {
        vekmsg_element_set_value_as_uint(m_p_number, 7);
        vekmsg_element_set_value_as_string(m_p_text, utf8("text"));
        vekmsg_element_set_subelement_value_as_uint(m_p_tree, 2, 22);
        vekmsg_element_set_subelement_value_as_string(m_p_tree, 3, utf8("text"));
        vekmsg_element_set_subelement_value_as_bytestream(m_p_tree, 4, g_bytes, 3);
    }
    ~CRecords() override {
        for (void* p_handle : {m_p_number, m_p_text, m_p_tree, m_p_result}) vekmsg_free_handle(p_handle);
    }

    /// Whether a handle came back, which is then freed.
    static bool gives(void* p_handle) {
        vekmsg_free_handle(p_handle);
        return p_handle != nullptr;
    }

    SP_VekMessage_ m_sp_message{new VekMessageBinary_};
    void* m_p_message = m_sp_message.get();
    void* m_p_number = vekmsg_message_create_element(m_p_message, 1);
    void* m_p_text = vekmsg_message_create_element(m_p_message, 1);
    void* m_p_tree = vekmsg_message_create_element(m_p_message, 1);
    void* m_p_result = nullptr;
    unsigned int m_value = 0;
    const unsigned char* m_p_bytes = nullptr;
};

/// Alpha and beta are open; nobody listens at gamma.
class CTerminalRecords : public PublicRecords_ {
protected:
    CTerminalRecords() { drop(); }
    ~CTerminalRecords() override {
        for (void* p_terminal : {m_p_alpha, m_p_beta}) vekmsg_terminal_close(p_terminal);
        vekmsg_free_handle(m_p_received);
    }

    /// With the number 7 as its payload.
    static SP_VekMessage_ messageTo(const char* p_destination) {
        SP_VekMessage_ sp_message(new VekMessageBinary_);
        const SP_VekmsgElement_ sp_element = sp_message->createElement(1);
        sp_element->setValue(7U);
        sp_message->setDestination(utf8(p_destination));
        sp_message->setPayload(sp_element);
        return sp_message;
    }
    static bool sends(void* p_terminal, const SP_VekMessage_& sp_message) {
        return vekmsg_terminal_send_message(p_terminal, sp_message.get()) == VEKMSG_STATUS_SUCCESS;
    }

    ComponentFolder_ m_folder{{"alpha", "beta", "gamma"}};
    void* m_p_alpha = vekmsg_terminal_open(utf8("alpha"), m_folder.directory());
    void* m_p_beta = vekmsg_terminal_open(utf8("beta"), m_folder.directory());
    void* m_p_received = nullptr;
    void* m_p_end = nullptr;
};

}  // namespace

TEST_F(CTerminalRecords, ofOpeningAndClosing) {
    const char* p_entry = "vekmsg_terminal_open";
    callOf("vekmsg_terminal_close", "succeeds", [&] { vekmsg_terminal_close(m_p_alpha); });
    callOf("vekmsg_terminal_close", "null", [&] { vekmsg_terminal_close(nullptr); });
    m_p_alpha = vekmsg_terminal_open(utf8("alpha"), m_folder.directory());
    call(p_entry, "succeeds", m_p_alpha != nullptr,
         {kNoDefaultAddress, listening(m_folder.address("alpha"))});
    const auto fails = [&](const Utf8Char_* p_name, const char* p_directory) {
        return vekmsg_terminal_open(p_name, p_directory) == nullptr;
    };
    call(p_entry, "null name", fails(nullptr, m_folder.directory()), {kNullName});
    call(p_entry, "empty name", fails(utf8(""), m_folder.directory()), {kEmptyName});
    const std::string missing = m_folder.path("missing");
    call(p_entry, "no directory", fails(utf8("alpha"), missing.c_str()), {noDirectory(missing)});
    const std::string away = m_folder.address("missing/alpha");
    const std::string names = m_folder.folder().writeFile("other", {away + " alpha"});
    call(p_entry, "address cannot be bound", fails(utf8("alpha"), names.c_str()),
         {kNoDefaultAddress, noBind(away)});
    call(p_entry, "no memory", withoutMemory([&] { return fails(utf8("alpha"), m_folder.directory()); }),
         {Record_(3, "c_binding.cpp", "void* vekmsg_terminal_open(const utf8_char_*, const char*)",
                  "vekmsg_terminal_open() can't create vekmsgTerminalImpl_")});
}

TEST_F(CTerminalRecords, ofMakingAndSendingMessages) {
    const char* p_create = "vekmsg_terminal_create_message";
    void* p_message = vekmsg_terminal_create_message(m_p_alpha);
    call(p_create, "succeeds", p_message != nullptr);
    callOf("vekmsg_free_handle", "succeeds", [&] { vekmsg_free_handle(p_message); });
    callOf("vekmsg_free_handle", "null", [&] { vekmsg_free_handle(nullptr); });
    call(p_create, "no memory",
         withoutMemory([&] { return vekmsg_terminal_create_message(m_p_alpha) == nullptr; }), {kNoMessage});

    const char* p_send = "vekmsg_terminal_send_message";
    const SP_VekMessage_ sp_empty = messageTo("beta");
    sp_empty->setPayload(SP_VekmsgElement_());
    call(p_send, "succeeds", sends(m_p_alpha, messageTo("beta")));
    call(p_send, "null message", !sends(m_p_alpha, SP_VekMessage_()), {kNullMessage});
    call(p_send, "no destination", !sends(m_p_alpha, messageTo("")), {kNullDestination});
    call(p_send, "to itself", !sends(m_p_alpha, messageTo("alpha")), {kToItself});
    call(p_send, "unlisted destination", !sends(m_p_alpha, messageTo("unknown")), {kNoSocket});
    call(p_send, "nobody listens", !sends(m_p_alpha, messageTo("gamma")),
         {noConnection(m_folder.address("gamma")), kUnable});
    call(p_send, "no payload", !sends(m_p_alpha, sp_empty), {kNullPayload});
}

TEST_F(CTerminalRecords, ofReceivingAndWaiting) {
    const char* p_receive = "vekmsg_terminal_receive_message";
    const char* p_wait = "vekmsg_terminal_wait_for_message";
    call(p_receive, "nothing there",
         vekmsg_terminal_receive_message(m_p_alpha, &m_p_received) && !m_p_received);
    call(p_receive, "null output", !vekmsg_terminal_receive_message(m_p_alpha, nullptr),
         {Record_(3, "c_binding.cpp", "vekmsg_status_ vekmsg_terminal_receive_message(void*, void**)",
                  "vekmsg_terminal_send_message() null pointer to message handle")});
    call(p_wait, "time-out", vekmsg_terminal_wait_for_message(m_p_alpha, 1) == VEKMSG_WAIT_TIMEOUT);
    ASSERT_TRUE(sends(m_p_beta, messageTo("alpha")));
    SystemCalls_ systemCalls;
    systemCalls.fail(SystemCalls_::Accept, EMFILE);
    call(p_receive, "no descriptor", !vekmsg_terminal_receive_message(m_p_alpha, &m_p_received),
         {noAccept(m_folder.address("alpha"))});
    call(p_wait, "succeeds", vekmsg_terminal_wait_for_message(m_p_alpha, 10000) == VEKMSG_WAIT_MESSAGE);
    call(p_receive, "succeeds", vekmsg_terminal_receive_message(m_p_alpha, &m_p_received) && m_p_received);
    systemCalls.fail(SystemCalls_::Poll, ENOMEM);
    call(p_wait, "poll fails", vekmsg_terminal_wait_for_message(m_p_alpha, 1) == VEKMSG_WAIT_ERROR,
         {kWaitFails});
}

TEST_F(CTerminalRecords, ofPolling) {
    const char* p_entry = "vekmsg_terminal_pollfd";
    std::vector<pollfd> entries(129, pollfd{-1, 0, 0});
    const auto poll = [&](unsigned int count, unsigned int timeout) {
        return vekmsg_terminal_pollfd(entries.data(), count, timeout, m_p_alpha, m_p_end);
    };
    call(p_entry, "time-out", poll(1, 1) == -1);
    call(p_entry, "no terminal", vekmsg_terminal_pollfd(nullptr, 0, 1, m_p_end) == -1);
    call(p_entry, "too many descriptors", poll(129, 1) == -2, {kTooManyEntries});
    ASSERT_TRUE(sends(m_p_beta, messageTo("alpha")));
    call(p_entry, "succeeds", poll(1, 10000) == 0);
    ASSERT_TRUE(vekmsg_terminal_receive_message(m_p_alpha, &m_p_received));
    SystemCalls_ systemCalls;
    systemCalls.fail(SystemCalls_::Poll, ENOMEM);
    call(p_entry, "poll fails", poll(1, 1) == -2, {kPollFdFails});
}

TEST_F(CRecords, ofMessages) {
    call("vekmsg_message_set_destination", "succeeds",
         vekmsg_message_set_destination(m_p_message, utf8("beta")));
    call("vekmsg_message_set_destination", "null name", !vekmsg_message_set_destination(m_p_message, nullptr),
         {kNoDestination});
    call("vekmsg_message_set_source", "succeeds", vekmsg_message_set_source(m_p_message, utf8("alpha")));
    call("vekmsg_message_set_source", "null name", !vekmsg_message_set_source(m_p_message, nullptr),
         {kNoSource});
    call("vekmsg_message_swap_source_destination", "succeeds",
         vekmsg_message_swap_source_destination(m_p_message));
    call("vekmsg_message_get_destination", "succeeds",
         plain(vekmsg_message_get_destination(m_p_message)) == "alpha");
    call("vekmsg_message_get_source", "succeeds", plain(vekmsg_message_get_source(m_p_message)) == "beta");
    const char* p_set = "vekmsg_message_set_payload_schema";
    call(p_set, "succeeds",
         vekmsg_message_set_payload_schema(m_p_message, utf8("schema"), VEKMSG_SCHEMA_URI));
    call(p_set, "null schema", !vekmsg_message_set_payload_schema(m_p_message, nullptr, VEKMSG_SCHEMA_URI),
         {kNoSchema});
    call("vekmsg_message_get_payload_schema", "succeeds",
         plain(vekmsg_message_get_payload_schema(m_p_message)) == "schema");
    call("vekmsg_message_get_payload_schema_type", "succeeds",
         vekmsg_message_get_payload_schema_type(m_p_message) == VEKMSG_SCHEMA_URI);
}

TEST_F(CRecords, ofPayloads) {
    const char* p_create = "vekmsg_message_create_element";
    call(p_create, "succeeds", gives(vekmsg_message_create_element(m_p_message, 1)));
    call(p_create, "no memory",
         withoutMemory([&] { return !gives(vekmsg_message_create_element(m_p_message, 1)); }), {kNoElement});
    const char* p_get = "vekmsg_message_get_payload";
    call(p_get, "none", !gives(vekmsg_message_get_payload(m_p_message)));
    call("vekmsg_message_set_payload", "succeeds", vekmsg_message_set_payload(m_p_message, m_p_number));
    call(p_get, "succeeds", gives(vekmsg_message_get_payload(m_p_message)));
    call("vekmsg_message_set_payload", "null element", vekmsg_message_set_payload(m_p_message, nullptr));
    const std::string element = wire::element(1, wire::Uint, wire::u32(7));
    m_sp_message->setRawPayload(bufferOf(element));
    call(p_get, "no memory", withoutMemory([&] { return !gives(vekmsg_message_get_payload(m_p_message)); }),
         {kNoElement, kNoPayloadElement});
    m_sp_message->setRawPayload(bufferOf(element + ".."));
    call(p_get, "bytes left over", gives(vekmsg_message_get_payload(m_p_message)), {kPartOfPayload});
    m_sp_message->setRawPayload(bufferOf("abc"));
    call(p_get, "damaged", !gives(vekmsg_message_get_payload(m_p_message)), {kShortHeader});
}

TEST_F(CRecords, ofValues) {
    const char* p_set = "vekmsg_element_set_value_as_";
    const char* p_get = "vekmsg_element_get_value_as_";
    const auto of = [](const char* p_start, const char* p_type) { return std::string(p_start) + p_type; };
    call("vekmsg_element_getTag", "succeeds", vekmsg_element_getTag(m_p_number) == 1);
    call(of(p_get, "uint").c_str(), "succeeds", vekmsg_element_get_value_as_uint(m_p_number, &m_value));
    call(of(p_get, "uint").c_str(), "another type", !vekmsg_element_get_value_as_uint(m_p_text, &m_value),
         {kNoUint});
    call(of(p_get, "string").c_str(), "succeeds", vekmsg_element_get_value_as_string(m_p_text, &m_p_bytes));
    call(of(p_get, "string").c_str(), "another type",
         !vekmsg_element_get_value_as_string(m_p_number, &m_p_bytes), {kNoText});
    call(of(p_get, "bytestream").c_str(), "another type",
         !vekmsg_element_get_value_as_bytestream(m_p_number, &m_p_bytes, &m_value), {kNoBytes});
    call(of(p_set, "uint").c_str(), "succeeds", vekmsg_element_set_value_as_uint(m_p_number, 1));
    call(of(p_set, "string").c_str(), "succeeds",
         vekmsg_element_set_value_as_string(m_p_number, utf8("text")));
    call(of(p_set, "string").c_str(), "null text", !vekmsg_element_set_value_as_string(m_p_number, nullptr),
         {kNullText});
    call(of(p_set, "string").c_str(), "text is cut",
         vekmsg_element_set_value_as_string(m_p_number, utf8(g_long)), {kCutText});
    call(of(p_set, "bytestream").c_str(), "null bytes",
         !vekmsg_element_set_value_as_bytestream(m_p_number, nullptr, 3), {kNullBytes});
    call(of(p_set, "bytestream").c_str(), "too long",
         !vekmsg_element_set_value_as_bytestream(m_p_number, utf8(g_long), 9401), {kLongBytes});
    call(of(p_set, "bytestream").c_str(), "succeeds",
         vekmsg_element_set_value_as_bytestream(m_p_number, g_bytes, 3));
    call(of(p_get, "bytestream").c_str(), "succeeds",
         vekmsg_element_get_value_as_bytestream(m_p_number, &m_p_bytes, &m_value));
}

TEST_F(CRecords, ofGettingSubElementValues) {
    const char* p_uint = "vekmsg_element_get_subelement_value_as_uint";
    const char* p_text = "vekmsg_element_get_subelement_value_as_string";
    const char* p_bytes = "vekmsg_element_get_subelement_value_as_bytestream";
    const auto uint = [&](unsigned int tag) {
        return vekmsg_element_get_subelement_value_as_uint(m_p_tree, tag, &m_value) == VEKMSG_STATUS_SUCCESS;
    };
    const auto text = [&](unsigned int tag) {
        return vekmsg_element_get_subelement_value_as_string(m_p_tree, tag, &m_p_bytes) ==
               VEKMSG_STATUS_SUCCESS;
    };
    const auto bytes = [&](unsigned int tag) {
        return vekmsg_element_get_subelement_value_as_bytestream(m_p_tree, tag, &m_p_bytes, &m_value) ==
               VEKMSG_STATUS_SUCCESS;
    };
    call(p_uint, "succeeds", uint(2));
    call(p_uint, "none with that tag", !uint(9));
    call(p_uint, "another type", !uint(3), {kNoUint});
    call(p_uint, "no memory", withoutMemory([&] { return !uint(2); }), {kNoElement, kNoProbe});
    call(p_text, "succeeds", text(3));
    call(p_text, "none with that tag", !text(9));
    call(p_text, "another type", !text(2), {kNoText});
    call(p_text, "no memory", withoutMemory([&] { return !text(4); }), {kNoElement, kNoProbe});
    call(p_bytes, "succeeds", bytes(4));
    call(p_bytes, "none with that tag", !bytes(9));
    call(p_bytes, "another type", !bytes(2), {kNoBytes});
    call(p_bytes, "no memory", withoutMemory([&] { return !bytes(4); }), {kNoElement, kNoProbe});
}

TEST_F(CRecords, ofSettingSubElementValues) {
    const char* p_uint = "vekmsg_element_set_subelement_value_as_uint";
    const char* p_text = "vekmsg_element_set_subelement_value_as_string";
    const char* p_bytes = "vekmsg_element_set_subelement_value_as_bytestream";
    const auto uint = [](void* p_element, unsigned int tag) {
        return vekmsg_element_set_subelement_value_as_uint(p_element, tag, 5) == VEKMSG_STATUS_SUCCESS;
    };
    const auto text = [](void* p_element, unsigned int tag, const Utf8Char_* p_value) {
        return vekmsg_element_set_subelement_value_as_string(p_element, tag, p_value) ==
               VEKMSG_STATUS_SUCCESS;
    };
    const auto bytes = [](void* p_element, unsigned int tag, const unsigned char* p_value,
                          unsigned int length) {
        return vekmsg_element_set_subelement_value_as_bytestream(p_element, tag, p_value, length) ==
               VEKMSG_STATUS_SUCCESS;
    };
    call(p_uint, "succeeds", uint(m_p_tree, 2));
    call(p_uint, "any tag", !uint(m_p_tree, VEKMSG_TAG_ANY), {kAnyUint});
    call(p_uint, "no memory", withoutMemory([&] { return !uint(m_p_number, 2); }), {kNoElement});
    call(p_text, "succeeds", text(m_p_tree, 3, utf8("text")));
    call(p_text, "any tag", !text(m_p_tree, VEKMSG_TAG_ANY, utf8("text")), {kAnyText});
    call(p_text, "null text", !text(m_p_tree, 3, nullptr), {kNullText});
    call(p_text, "text is cut", text(m_p_tree, 3, utf8(g_long)), {kCutText});
    call(p_text, "no memory", withoutMemory([&] { return !text(m_p_number, 3, utf8("text")); }),
         {kNoElement});
    call(p_bytes, "succeeds", bytes(m_p_tree, 4, g_bytes, 3));
    call(p_bytes, "any tag", !bytes(m_p_tree, VEKMSG_TAG_ANY, g_bytes, 3), {kAnyBytes});
    call(p_bytes, "null bytes", !bytes(m_p_tree, 4, nullptr, 3), {kNullBytes});
    call(p_bytes, "too long", !bytes(m_p_tree, 4, utf8(g_long), 9401), {kLongBytes});
    call(p_bytes, "no memory", withoutMemory([&] { return !bytes(m_p_number, 4, g_bytes, 3); }),
         {kNoElement});
}

TEST_F(CRecords, ofSubElements) {
    const char* p_find = "vekmsg_element_find_first_matching_subelement";
    const auto finds = [&](unsigned int tag) {
        return gives(vekmsg_element_find_first_matching_subelement(m_p_tree, tag));
    };
    call(p_find, "succeeds", finds(3));
    call(p_find, "any", finds(VEKMSG_TAG_ANY));
    call(p_find, "none with that tag", !finds(9));
    call(p_find, "no memory", withoutMemory([&] { return !finds(3); }), {kNoElement, kNoProbe});
    const char* p_query = "vekmsg_element_query_subelements";
    call(p_query, "simple type", !vekmsg_element_query_subelements(m_p_number, 3), {kNoSubelements});
    call(p_query, "no memory", withoutMemory([&] { return !vekmsg_element_query_subelements(m_p_tree, 3); }),
         {kNoElement, kNoQueryProbe});
    call(p_query, "succeeds", vekmsg_element_query_subelements(m_p_tree, 3));
    call("vekmsg_element_get_next_subelement", "succeeds",
         gives(vekmsg_element_get_next_subelement(m_p_tree)));
    call("vekmsg_element_get_next_subelement", "none left",
         !gives(vekmsg_element_get_next_subelement(m_p_tree)));
    callOf("vekmsg_element_end_query_subelements", "succeeds",
           [&] { vekmsg_element_end_query_subelements(m_p_tree); });
    const char* p_add = "vekmsg_element_add_subelements";
    call(p_add, "succeeds", vekmsg_element_add_subelements(m_p_tree, m_p_number));
    call(p_add, "null element", !vekmsg_element_add_subelements(m_p_tree, nullptr), {kNullSubelement});
    void* p_any = vekmsg_message_create_element(m_p_message, VEKMSG_TAG_ANY);
    call(p_add, "any tag", !vekmsg_element_add_subelements(m_p_tree, p_any), {kAnySubelement});
    vekmsg_free_handle(p_any);
}

TEST_F(CRecords, ofTheLogInterfaceThereAreNone) {
    // What the capture has set already is set once more.
    callOf("vekmsg_log_set_threshold", "succeeds", [] { vekmsg_log_set_threshold(7); });
    vekmsg_element_set_value_as_string(m_p_number, nullptr);
    EXPECT_EQ(m_records.take(), Records_{kNullText});
    callOf("vekmsg_log_set_sink", "succeeds",
           [] { vekmsg_log_set_sink([](void*, int, const LogSite*, const char*) {}, nullptr); });
    vekmsg_element_set_value_as_string(m_p_number, nullptr);
    EXPECT_EQ(m_records.take(), Records_());
}
