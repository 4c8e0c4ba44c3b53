// A first program in C++, the sending half: opens a terminal as the component "sender", sends a text to the
// component "receiver" and prints the answer. The directory need not list "sender": it reaches out and is
// answered on its own connection.
//
//     hello_sender DIRECTORY

#include <vekmsg/vekmsg.h>

#include <iostream>
#include <memory>

namespace {

constexpr VekmsgTag_ TAG_TEXT = 100;
constexpr unsigned int PATIENCE_MS = 5000;

const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

bool sendText(VekmsgTerminal_& terminal, const char* p_destination, const char* p_text) {
    SP_VekMessage_ sp_message;
    if (!terminal.createMessage(sp_message)) return false;
    const SP_VekmsgElement_ sp_payload = sp_message->createElement(TAG_TEXT);
    if (!sp_payload || !sp_payload->setValue(utf8(p_text))) return false;
    sp_message->setDestination(utf8(p_destination));
    sp_message->setPayloadSchema(utf8("greeting 1.0"), VekMessage_::SCHEMA_LITERAL);
    sp_message->setPayload(sp_payload);
    return terminal.sendMessage(sp_message);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::unique_ptr<VekmsgTerminal_> terminal(createVekmsgTerminal());
    if (terminal == nullptr || !terminal->open(utf8("sender"), argv[1])) return 1;
    if (!sendText(*terminal, "receiver", "Hello")) return 1;

    SP_VekMessage_ sp_answer;
    while (!sp_answer && terminal->waitForMessage(PATIENCE_MS) == VekmsgTerminal_::WAIT_MESSAGE)
        if (!terminal->receiveMessage(sp_answer)) break;
    if (!sp_answer) return 1;

    const SP_VekmsgElement_ sp_payload = sp_answer->getPayload();
    const Utf8Char_* p_text = nullptr;
    if (!sp_payload || !sp_payload->getValue(p_text)) return 1;
    std::cout << sp_answer->getSource() << " answers: " << p_text << std::endl;
    return 0;
}
