// What does the library cost beside the bare system calls? Messages with one byte string are built, sent,
// received and read through the public interface, as an application does: in C++, and with --variant c in C.

#include <cstdio>
#include <cstring>
#include <fstream>

#include "transfer.h"
#include "vekmsg/c_binding.h"
#include "vekmsg/vekmsg.h"

namespace {

constexpr VekmsgTag_ kPayloadTag = 5;
constexpr unsigned int kWaitTime = 1000;  // milliseconds
constexpr int kErrorsOnly = 3;

const Utf8Char_* utf8(const std::string& text) {
    return reinterpret_cast<const Utf8Char_*>(text.c_str());
}

std::string senderName(unsigned int number) {
    return "sender" + std::to_string(number);
}

/// Writes the name directory that all components of the meeting read.
std::string writeDirectory(const Options_& options, const Meeting_& meeting) {
    const std::string path = meeting.m_folder + "/directory";
    std::ofstream file(path);
    const auto add = [&](const std::string& name, const std::string& port) {
        file << (options.m_isTcp ? "inettcp://127.0.0.1:" + port : "local://" + meeting.m_folder + "/" + name)
             << ' ' << name << '\n';
    };
    add("receiver", meeting.m_receiverPort);
    for (unsigned int number = 0; number < options.m_peers; ++number)
        add(senderName(number), meeting.m_senderPorts[number]);
    return path;
}

/// The names of the components at the other end. A sender has the receiver alone.
std::vector<std::string> peersOfReceiver(const Options_& options) {
    std::vector<std::string> names;
    for (unsigned int number = 0; number < options.m_peers; ++number) names.push_back(senderName(number));
    return names;
}

class CppSide_ : public Side_ {
public:
    CppSide_(const std::string& own, const std::string& directory, std::vector<std::string> peers)
        : m_terminal(createVekmsgTerminal()), m_peers(std::move(peers)) {
        if (!m_terminal->open(utf8(own), directory.c_str())) fail("opening a terminal");
    }

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        SP_VekMessage_ sp_message;
        if (!m_terminal->createMessage(sp_message)) fail("making a message");
        const SP_VekmsgElement_ sp_payload = sp_message->createElement(kPayloadTag);
        sp_message->setDestination(utf8(m_peers.size() == 1 ? m_peers[0] : m_peers[to]));
        sp_message->setPayloadSchema(utf8("b"), VekMessage_::SCHEMA_LITERAL);
        if (!sp_payload->setValue(p_bytes, static_cast<unsigned int>(size)) ||
            !sp_message->setPayload(sp_payload) || !m_terminal->sendMessage(sp_message))
            fail("sending");
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        SP_VekMessage_ sp_message;
        while (!sp_message) {
            if (m_terminal->waitForMessage(kWaitTime) == VekmsgTerminal_::WAIT_ERROR) fail("waiting");
            if (!m_terminal->receiveMessage(sp_message)) fail("receiving");
        }
        const SP_VekmsgElement_ sp_payload = sp_message->getPayload();
        const unsigned char* p_value = nullptr;
        unsigned int size = 0;
        if (!sp_payload || !sp_payload->getValue(p_value, size) || size > capacity) fail("reading a message");
        std::memcpy(p_bytes, p_value, size);
        return size;
    }

private:
    std::unique_ptr<VekmsgTerminal_> m_terminal;
    std::vector<std::string> m_peers;
};

class CSide_ : public Side_ {
public:
    CSide_(const std::string& own, const std::string& directory, std::vector<std::string> peers)
        : m_p_terminal(vekmsg_terminal_open(utf8(own), directory.c_str())), m_peers(std::move(peers)) {
        if (m_p_terminal == nullptr) fail("opening a terminal");
    }
    ~CSide_() override { vekmsg_terminal_close(m_p_terminal); }

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        void* p_message = vekmsg_terminal_create_message(m_p_terminal);
        void* p_payload = vekmsg_message_create_element(p_message, kPayloadTag);
        vekmsg_message_set_destination(p_message, utf8(m_peers.size() == 1 ? m_peers[0] : m_peers[to]));
        vekmsg_message_set_payload_schema(p_message, utf8("b"), VEKMSG_SCHEMA_LITERAL);
        if (vekmsg_element_set_value_as_bytestream(p_payload, p_bytes, static_cast<unsigned int>(size)) !=
                VEKMSG_STATUS_SUCCESS ||
            vekmsg_message_set_payload(p_message, p_payload) != VEKMSG_STATUS_SUCCESS ||
            vekmsg_terminal_send_message(m_p_terminal, p_message) != VEKMSG_STATUS_SUCCESS)
            fail("sending");
        vekmsg_free_handle(p_payload);
        vekmsg_free_handle(p_message);
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        void* p_message = nullptr;
        while (p_message == nullptr) {
            if (vekmsg_terminal_wait_for_message(m_p_terminal, kWaitTime) == VEKMSG_WAIT_ERROR)
                fail("waiting");
            if (vekmsg_terminal_receive_message(m_p_terminal, &p_message) != VEKMSG_STATUS_SUCCESS)
                fail("receiving");
        }
        void* p_payload = vekmsg_message_get_payload(p_message);
        const unsigned char* p_value = nullptr;
        unsigned int size = 0;
        if (vekmsg_element_get_value_as_bytestream(p_payload, &p_value, &size) != VEKMSG_STATUS_SUCCESS ||
            size > capacity)
            fail("reading a message");
        std::memcpy(p_bytes, p_value, size);
        vekmsg_free_handle(p_payload);
        vekmsg_free_handle(p_message);
        return size;
    }

private:
    void* m_p_terminal;
    std::vector<std::string> m_peers;
};

std::unique_ptr<Side_> makeSide(const Options_& options, const std::string& own, const std::string& directory,
                                const std::vector<std::string>& peers) {
    // A directory without a default address is worth a warning, but not here.
    vekmsg_log_set_threshold(kErrorsOnly);
    if (options.m_variant == "c") return std::make_unique<CSide_>(own, directory, peers);
    return std::make_unique<CppSide_>(own, directory, peers);
}

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    return makeSide(options, "receiver", writeDirectory(options, meeting), peersOfReceiver(options));
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int number) {
    return makeSide(options, senderName(number), meeting.m_folder + "/directory", {"receiver"});
}

}  // namespace

const Program_ g_program = {"vekmsg", makeReceiver, makeSender};
