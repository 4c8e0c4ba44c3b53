// A first program in C++, the receiving half: opens a terminal as the component "receiver", prints the first
// message that arrives and answers it. Start it before hello_sender or hello_c.
//
//     hello_receiver DIRECTORY

#include <vekmsg/vekmsg.h>

#include <iostream>
#include <memory>

namespace {

constexpr VekmsgTag_ TAG_TEXT = 100;  // tags name the parts of a payload: every application chooses its own
constexpr unsigned int PATIENCE_MS = 30000;

const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

// Waiting can end for work that the library does by itself, so that there may be no message yet.
SP_VekMessage_ receive(VekmsgTerminal_& terminal) {
    SP_VekMessage_ sp_message;
    while (!sp_message && terminal.waitForMessage(PATIENCE_MS) == VekmsgTerminal_::WAIT_MESSAGE)
        if (!terminal.receiveMessage(sp_message)) break;
    return sp_message;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::unique_ptr<VekmsgTerminal_> terminal(createVekmsgTerminal());
    if (terminal == nullptr || !terminal->open(utf8("receiver"), argv[1])) return 1;
    std::cout << "receiver is listening" << std::endl;

    const SP_VekMessage_ sp_message = receive(*terminal);
    if (!sp_message) return 1;
    const SP_VekmsgElement_ sp_payload = sp_message->getPayload();
    const Utf8Char_* p_text = nullptr;
    if (!sp_payload || !sp_payload->getValue(p_text)) return 1;
    std::cout << sp_message->getSource() << " says: " << p_text << std::endl;

    // The request turned round is the frame of the reply.
    const SP_VekmsgElement_ sp_answer = sp_message->createElement(TAG_TEXT);
    if (!sp_answer || !sp_answer->setValue(utf8("Hello yourself"))) return 1;
    sp_message->swapSourceDestination();
    sp_message->setPayload(sp_answer);
    return terminal->sendMessage(sp_message) ? 0 : 1;
}
