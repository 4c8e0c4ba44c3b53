// The C functions.

#include <poll.h>

#include <stdexcept>
#include <string>

#include "proof/allocations/long_texts.h"
#include "proof/allocations/scenario.h"
#include "support/buffer_bytes.h"
#include "support/temporary_folder.h"
#include "support/utf8_text.h"
#include "support/wire_bytes.h"
#include "vekmsg/c_binding.h"
#include "vekmsg/message.h"

namespace {

constexpr unsigned int kMostRounds = 200;

/// Terminal handles of alpha and beta; a message of alpha for beta with a tree; one whose payload is encoded.
class Handles_ {
public:
    Handles_() {
        m_directory = m_folder.writeFile("names", {m_folder.localAddress("alpha") + " " + kAlpha,
                                                   m_folder.localAddress("beta") + " " + kBeta,
                                                   m_folder.localAddress("gamma") + " " + kGamma});
    }

    void prepare() {
        openBoth();
        m_p_message = vekmsg_terminal_create_message(m_p_alpha);
        m_p_root = vekmsg_message_create_element(m_p_message, 1);
        m_p_element = vekmsg_message_create_element(m_p_message, 6);
        if (m_p_message == nullptr || m_p_root == nullptr || m_p_element == nullptr)
            throw std::runtime_error("no message");
        vekmsg_message_set_destination(m_p_message, utf8(kBeta));
        vekmsg_message_set_payload_schema(m_p_message, utf8(kSchema), VEKMSG_SCHEMA_LITERAL);
        vekmsg_element_set_subelement_value_as_uint(m_p_root, 3, 3);
        vekmsg_element_set_subelement_value_as_string(m_p_root, 5, utf8("text"));
        vekmsg_element_set_subelement_value_as_bytestream(m_p_root, 9, utf8("bytes"), 5);
        vekmsg_message_set_payload(m_p_message, m_p_root);
        vekmsg_element_set_value_as_uint(m_p_element, 6);
        m_p_encoded = vekmsg_terminal_create_message(m_p_alpha);
        static_cast<VekMessage_*>(m_p_encoded)
            ->setRawPayload(bufferOf(wire::element(
                1, wire::Complex,
                wire::element(3, wire::Uint, wire::u32(3)) + wire::element(4, wire::Uint, wire::u32(4)))));
    }

    void proveUse(Run_& run) {
        unsigned int value = 0;
        run.require(
            vekmsg_element_set_subelement_value_as_uint(m_p_root, 3, 33) == VEKMSG_STATUS_SUCCESS &&
                vekmsg_element_get_subelement_value_as_uint(m_p_root, 3, &value) == VEKMSG_STATUS_SUCCESS &&
                value == 33,
            "the value of a sub-element");
        run.require(exchange(), "no message arrives any more");
        for (void* p_handle : {m_p_message, m_p_root, m_p_element, m_p_encoded, m_p_result})
            vekmsg_free_handle(p_handle);
        closeBoth();
        openBoth();
        closeBoth();
    }

    void openBoth() {
        m_p_alpha = vekmsg_terminal_open(utf8(kAlpha), m_directory.c_str());
        m_p_beta = vekmsg_terminal_open(utf8(kBeta), m_directory.c_str());
        if (m_p_alpha == nullptr || m_p_beta == nullptr) throw std::runtime_error("no terminal");
    }

    void closeBoth() {
        vekmsg_terminal_close(m_p_alpha);
        vekmsg_terminal_close(m_p_beta);
    }

    /// Sends the message until beta has one.
    bool exchange() {
        vekmsg_message_set_destination(m_p_message, utf8(kBeta));
        vekmsg_message_set_payload(m_p_message, m_p_root);
        for (unsigned int round = 0; round < kMostRounds; ++round) {
            if (round % 5 == 0) vekmsg_terminal_send_message(m_p_alpha, m_p_message);
            void* p_message = nullptr;
            vekmsg_terminal_receive_message(m_p_beta, &p_message);
            vekmsg_free_handle(p_message);
            if (p_message != nullptr) return true;
            vekmsg_terminal_receive_message(m_p_alpha, &p_message);
            vekmsg_free_handle(p_message);
            vekmsg_terminal_wait_for_message(m_p_beta, 1);
        }
        return false;
    }

    TemporaryFolder_ m_folder;
    std::string m_directory;
    void* m_p_alpha = nullptr;
    void* m_p_beta = nullptr;
    void* m_p_message = nullptr;
    void* m_p_encoded = nullptr;
    void* m_p_root = nullptr;     // complex: 3, 5, 9
    void* m_p_element = nullptr;  // tag 6, a number
    void* m_p_result = nullptr;   // what a call has given
};

using Of_ = ScenariosOf_<Handles_>;

bool succeeds(Run_& run, const char* p_operation, const std::function<vekmsg_status_()>& call) {
    return run.succeeds(p_operation, call) == VEKMSG_STATUS_SUCCESS;
}

/// Beta receives until it has a message; a failed call leaves the output alone.
void receiveAtBeta(Handles_& s, Run_& run) {
    void* const p_untouched = s.m_p_root;
    for (unsigned int round = 0; round < 5 && s.m_p_result == nullptr; ++round) {
        void* p_message = p_untouched;
        if (succeeds(run, "vekmsg_terminal_receive_message",
                     [&] { return vekmsg_terminal_receive_message(s.m_p_beta, &p_message); })) {
            s.m_p_result = p_message;
        } else {
            run.require(p_message == p_untouched, "the output is touched");
        }
    }
    run.requireUntouched(s.m_p_result != nullptr, "no message comes");
}

void addTerminals(Of_& of) {
    of.add("C: open and close", [](Handles_& s, Run_& run) {
        void* p_terminal = run.succeeds("vekmsg_terminal_open", [&] {
            return vekmsg_terminal_open(utf8(kGamma), s.m_directory.c_str());
        });
        run.call("vekmsg_terminal_close", [&] {
            vekmsg_terminal_close(p_terminal);
            return true;
        });
    });
    of.add("C: create a message", [](Handles_& s, Run_& run) {
        s.m_p_result = run.succeeds("vekmsg_terminal_create_message",
                                    [&] { return vekmsg_terminal_create_message(s.m_p_alpha); });
    });
    of.add("C: send and receive", [](Handles_& s, Run_& run) {
        succeeds(run, "vekmsg_terminal_send_message",
                 [&] { return vekmsg_terminal_send_message(s.m_p_alpha, s.m_p_message); });
        receiveAtBeta(s, run);
    });
    of.add(
        "C: send and receive on a standing connection",
        [](Handles_& s) {
            if (!s.exchange()) throw std::runtime_error("no connection");
        },
        [](Handles_& s, Run_& run) {
            succeeds(run, "vekmsg_terminal_send_message",
                     [&] { return vekmsg_terminal_send_message(s.m_p_alpha, s.m_p_message); });
            receiveAtBeta(s, run);
        });
    of.add(
        "C: wait for a message",
        [](Handles_& s) { vekmsg_terminal_send_message(s.m_p_alpha, s.m_p_message); },
        [](Handles_& s, Run_& run) {
            for (unsigned int round = 0; round < 3; ++round) {
                run.succeeds("vekmsg_terminal_wait_for_message",
                             [&] { return vekmsg_terminal_wait_for_message(s.m_p_beta, 1); });
            }
            receiveAtBeta(s, run);
        });
    of.add(
        "C: wait at several terminals",
        [](Handles_& s) { vekmsg_terminal_send_message(s.m_p_alpha, s.m_p_message); },
        [](Handles_& s, Run_& run) {
            for (unsigned int round = 0; round < 3; ++round) {
                const int result = run.call("vekmsg_terminal_pollfd", [&] {
                    return vekmsg_terminal_pollfd(nullptr, 0, 1, s.m_p_alpha, s.m_p_beta, s.m_p_alpha,
                                                  s.m_p_beta, s.m_p_alpha, s.m_p_beta, s.m_p_alpha,
                                                  s.m_p_beta, static_cast<void*>(nullptr));
                });
                run.require(result != -2 || run.hasStruckInCall(), "fails with all its memory");
            }
            receiveAtBeta(s, run);
        });
}

void addMessages(Of_& of) {
    of.add("C: texts of a message", [](Handles_& s, Run_& run) {
        const auto judge = [&](bool isDone, const unsigned char* p_now, const char* p_old) {
            run.require(plain(p_now) == (isDone ? kLongText : p_old), "neither the old text nor the new one");
        };
        bool isDone = succeeds(run, "vekmsg_message_set_destination", [&] {
            return vekmsg_message_set_destination(s.m_p_message, utf8(kLongText));
        });
        judge(isDone, vekmsg_message_get_destination(s.m_p_message), kBeta);
        isDone = succeeds(run, "vekmsg_message_set_source",
                          [&] { return vekmsg_message_set_source(s.m_p_message, utf8(kLongText)); });
        judge(isDone, vekmsg_message_get_source(s.m_p_message), "");
        isDone = succeeds(run, "vekmsg_message_set_payload_schema", [&] {
            return vekmsg_message_set_payload_schema(s.m_p_message, utf8(kLongText), VEKMSG_SCHEMA_URI);
        });
        judge(isDone, vekmsg_message_get_payload_schema(s.m_p_message), kSchema);
        succeeds(run, "vekmsg_message_swap_source_destination",
                 [&] { return vekmsg_message_swap_source_destination(s.m_p_message); });
    });
    of.add("C: read a payload", [](Handles_& s, Run_& run) {
        s.m_p_result = run.succeeds("vekmsg_message_get_payload",
                                    [&] { return vekmsg_message_get_payload(s.m_p_encoded); });
        if (s.m_p_result == nullptr) s.m_p_result = vekmsg_message_get_payload(s.m_p_encoded);
        run.require(s.m_p_result != nullptr, "cannot be read again");
    });
    of.add("C: create an element and make it the payload", [](Handles_& s, Run_& run) {
        s.m_p_result = run.succeeds("vekmsg_message_create_element",
                                    [&] { return vekmsg_message_create_element(s.m_p_message, 2); });
        succeeds(run, "vekmsg_message_set_payload",
                 [&] { return vekmsg_message_set_payload(s.m_p_message, s.m_p_result); });
    });
}

void addElements(Of_& of) {
    of.add("C: set values of sub-elements", [](Handles_& s, Run_& run) {
        succeeds(run, "vekmsg_element_set_subelement_value_as_uint",
                 [&] { return vekmsg_element_set_subelement_value_as_uint(s.m_p_root, 20, 1); });
        succeeds(run, "vekmsg_element_set_subelement_value_as_string", [&] {
            return vekmsg_element_set_subelement_value_as_string(s.m_p_root, 21, utf8(kLongText));
        });
        succeeds(run, "vekmsg_element_set_subelement_value_as_bytestream", [&] {
            return vekmsg_element_set_subelement_value_as_bytestream(s.m_p_root, 22, utf8("bytes"), 5);
        });
    });
    of.add("C: get values of sub-elements", [](Handles_& s, Run_& run) {
        unsigned int number = 77;
        const unsigned char* p_text = nullptr;
        unsigned int length = 77;
        // From the last to the first: who asks in the order of tags needs no memory.
        bool isDone = succeeds(run, "vekmsg_element_get_subelement_value_as_bytestream", [&] {
            return vekmsg_element_get_subelement_value_as_bytestream(s.m_p_root, 9, &p_text, &length);
        });
        run.require(length == (isDone ? 5 : 77), "the output");
        p_text = nullptr;
        isDone = succeeds(run, "vekmsg_element_get_subelement_value_as_string", [&] {
            return vekmsg_element_get_subelement_value_as_string(s.m_p_root, 5, &p_text);
        });
        run.require(isDone ? plain(p_text) == "text" : p_text == nullptr, "the output");
        isDone = succeeds(run, "vekmsg_element_get_subelement_value_as_uint", [&] {
            return vekmsg_element_get_subelement_value_as_uint(s.m_p_root, 3, &number);
        });
        run.require(number == (isDone ? 3 : 77), "the output");
    });
    of.add("C: find and walk over sub-elements", [](Handles_& s, Run_& run) {
        s.m_p_result = run.succeeds("vekmsg_element_find_first_matching_subelement", [&] {
            return vekmsg_element_find_first_matching_subelement(s.m_p_root, 5);
        });
        if (!succeeds(run, "vekmsg_element_query_subelements",
                      [&] { return vekmsg_element_query_subelements(s.m_p_root, 9); }))
            return;
        void* p_found = run.succeeds("vekmsg_element_get_next_subelement",
                                     [&] { return vekmsg_element_get_next_subelement(s.m_p_root); });
        run.require(p_found != nullptr, "the one there is does not come");
        vekmsg_free_handle(p_found);
        vekmsg_element_end_query_subelements(s.m_p_root);
    });
    of.add("C: add a sub-element", [](Handles_& s, Run_& run) {
        const bool isDone = succeeds(run, "vekmsg_element_add_subelements", [&] {
            return vekmsg_element_add_subelements(s.m_p_element, s.m_p_root);
        });
        unsigned int value = 0;
        run.require(
            isDone != (vekmsg_element_get_value_as_uint(s.m_p_element, &value) == VEKMSG_STATUS_SUCCESS),
            "the value is lost, or kept beside the sub-element");
    });
}

}  // namespace

void addCScenarios(Scenarios_& list) {
    Of_ of(list);
    addTerminals(of);
    addMessages(of);
    addElements(of);
}
