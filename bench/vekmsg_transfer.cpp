// What does the library cost beside the bare system calls? Messages with one byte string are built, sent,
// received and read through the public interface, as an application does.

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#include "transfer.h"
#include "vekmsg/vekmsg.h"

const char* const g_p_programName = "vekmsg";

namespace {

constexpr VekmsgTag_ kPayloadTag = 5;

const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

std::string address(const Options_& options, const Meeting_& meeting, const std::string& name,
                    const std::string& port) {
    return options.m_isTcp ? "inettcp://127.0.0.1:" + port : "local://" + meeting.m_folder + "/" + name;
}

class VekmsgSide_ : public Side_ {
public:
    VekmsgSide_(const Options_& options, const Meeting_& meeting, const char* p_own, const char* p_peer)
        : m_terminal(createVekmsgTerminal()), m_p_peer(p_peer) {
        const std::string directory = meeting.m_folder + "/directory-" + p_own;
        std::ofstream(directory) << address(options, meeting, "sender", meeting.m_senderPort) << " sender\n"
                                 << address(options, meeting, "receiver", meeting.m_receiverPort)
                                 << " receiver\n";
        vekmsg_log_set_threshold(
            3);  // a directory without a default address is worth a warning, but not here
        if (!m_terminal->open(utf8(p_own), directory.c_str())) fail("opening a terminal");
    }

    void send(const unsigned char* p_bytes, std::size_t size) override {
        SP_VekMessage_ sp_message;
        if (!m_terminal->createMessage(sp_message)) fail("making a message");
        const SP_VekmsgElement_ sp_payload = sp_message->createElement(kPayloadTag);
        sp_message->setDestination(utf8(m_p_peer));
        sp_message->setPayloadSchema(utf8("b"), VekMessage_::SCHEMA_LITERAL);
        if (!sp_payload->setValue(p_bytes, static_cast<unsigned int>(size)) ||
            !sp_message->setPayload(sp_payload) || !m_terminal->sendMessage(sp_message))
            fail("sending");
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        SP_VekMessage_ sp_message;
        while (!sp_message) {
            if (!m_terminal->receiveMessage(sp_message)) fail("receiving");
            if (!sp_message && m_terminal->waitForMessage(1000) == VekmsgTerminal_::WAIT_ERROR)
                fail("waiting");
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
    const char* m_p_peer;
};

}  // namespace

Side_* makeReceiver(const Options_& options, const Meeting_& meeting) {
    return new VekmsgSide_(options, meeting, "receiver", "sender");
}

Side_* makeSender(const Options_& options, const Meeting_& meeting) {
    return new VekmsgSide_(options, meeting, "sender", "receiver");
}
