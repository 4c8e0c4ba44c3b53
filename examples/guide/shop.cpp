// The guide's client: orders from the kitchen directly and through the relay, pings it, and shows the calls
// around sending and receiving.
//
//     shop FOLDER
//
// FOLDER holds shop.directory and far.directory.

#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <new>
#include <sstream>

#include "guide.h"

namespace {

// [build]
bool fillOrder(VekMessage_& message) {
    const SP_VekmsgElement_ sp_order = message.createElement(TAG_ORDER);
    const unsigned char seal[] = {0x00, 0xC0, 0xFF};
    if (!sp_order || !sp_order->setSubElementValue(TAG_DISH, utf8("soup")) ||
        !sp_order->setSubElementValue(TAG_COUNT, 2U) || !sp_order->setSubElementValue(TAG_IS_URGENT, true) ||
        !sp_order->setSubElementValue(TAG_SEAL, seal, sizeof(seal)))
        return false;

    // setSubElementValue() would set the first one again: repeated elements are added.
    for (const char* p_extra : {"bread", "salt"}) {
        const SP_VekmsgElement_ sp_extra = message.createElement(TAG_EXTRA);
        if (!sp_extra || !sp_extra->setValue(utf8(p_extra)) || !sp_order->addSubelements(sp_extra))
            return false;
    }
    return message.setPayload(sp_order);
}
// [/build]

// [send]
bool sendOrder(VekmsgTerminal_& terminal, const char* p_schema) {
    SP_VekMessage_ sp_message;
    return terminal.createMessage(sp_message) && sp_message->setDestination(utf8("kitchen")) &&
           sp_message->setPayloadSchema(utf8(p_schema), VekMessage_::SCHEMA_LITERAL) &&
           fillOrder(*sp_message) && terminal.sendMessage(sp_message);
}
// [/send]

// [receive]
/// The next message; null when none came for so long that the wait ran out.
SP_VekMessage_ receive(VekmsgTerminal_& terminal) {
    SP_VekMessage_ sp_message;
    while (!sp_message && terminal.waitForMessage(5000) == VekmsgTerminal_::WAIT_MESSAGE)
        if (!terminal.receiveMessage(sp_message)) break;
    return sp_message;
}
// [/receive]

bool printAnswer(const SP_VekMessage_& sp_answer) {
    const SP_VekmsgElement_ sp_payload = sp_answer ? sp_answer->getPayload() : SP_VekmsgElement_();
    const Utf8Char_* p_text = nullptr;
    if (!sp_payload || !sp_payload->getValue(p_text)) return false;
    std::cout << sp_answer->getSource() << " answers: " << p_text << std::endl;
    return true;
}

bool order(VekmsgTerminal_& terminal) {
    return sendOrder(terminal, "order 1.0") && printAnswer(receive(terminal));
}

// [ping]
bool ping(VekmsgTerminal_& terminal, const char* p_name) {
    SP_VekMessage_ sp_message;
    if (!terminal.createMessage(sp_message)) return false;
    const SP_VekmsgElement_ sp_payload = sp_message->createElement(TAG_ANSWER);  // any payload; it comes back
    const bool isSent = sp_payload && sp_payload->setValue(1U) && sp_message->setPayload(sp_payload) &&
                        sp_message->setDestination(utf8(p_name)) &&
                        sp_message->setPayloadSchema(utf8("VEK Pinger Request Format version 1.0"),
                                                     VekMessage_::SCHEMA_LITERAL) &&
                        terminal.sendMessage(sp_message);
    if (!isSent) return false;
    const SP_VekMessage_ sp_reply = receive(terminal);  // a busy application looks for it among the others
    return sp_reply && hasSchema(*sp_reply, "VEK Pinger Reply Format version 1.0");
}
// [/ping]

// [printer]
bool trace(VekmsgTerminal_& terminal, std::ostream& stream) {
    SP_VekmsgFilter_ sp_printer;
    return terminal.CreateMessagePrinter(&stream, "order desk", sp_printer) &&
           terminal.setSendFilter(sp_printer) && terminal.setReceiveFilter(sp_printer);
}
// [/printer]

bool orderTraced(VekmsgTerminal_& terminal) {
    std::ostringstream stream;
    const bool isDone = trace(terminal, stream) && order(terminal) &&
                        terminal.setSendFilter(SP_VekmsgFilter_()) &&
                        terminal.setReceiveFilter(SP_VekmsgFilter_());
    std::cout << stream.str() << std::endl;
    return isDone;
}

// [pollfd]
/// Waits for a line from `pipe` or a message on one of two terminals.
bool waitForAny(int pipe, VekmsgTerminal_& first, VekmsgTerminal_& second) {
    pollfd own = {pipe, POLLIN, 0};
    const int result = VekmsgTerminal_::pollFd(&own, 1, 5000, &first, &second, nullptr);
    if (result > 0) std::cout << "the pipe is ready" << std::endl;
    if (result == VekmsgTerminal_::POLL_MESSAGE) std::cout << "a terminal is ready" << std::endl;
    return result >= 0;
}
// [/pollfd]

bool waitForPipeAndTerminal(VekmsgTerminal_& first, VekmsgTerminal_& second) {
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], "\n", 1) != 1) return false;
    char byte = 0;
    const bool isDone = waitForAny(ends[0], first, second) && ::read(ends[0], &byte, 1) == 1 &&
                        sendOrder(first, "order 1.0") && waitForAny(ends[0], first, second) &&
                        printAnswer(receive(first));
    close(ends[0]);
    close(ends[1]);
    return isDone;
}

// [connected]
/// Works until a connection stands. Without one there is nothing to wait for: a message must have been sent.
bool waitUntilConnected(VekmsgTerminal_& terminal, const char* p_name) {
    for (unsigned int attempt = 0; attempt < 500; ++attempt) {
        if (terminal.isConnected(utf8(p_name))) return true;
        if (terminal.waitForMessage(10) == VekmsgTerminal_::WAIT_ERROR) return false;
    }
    return false;
}

bool sendAndLeave(const std::string& directory) {
    const std::unique_ptr<VekmsgTerminal_> terminal = openTerminal("runner", directory);
    return terminal != nullptr && sendOrder(*terminal, "order, no answer 1.0") &&
           waitUntilConnected(*terminal, "kitchen");
}
// [/connected]

// [raw]
/// Sends an encoded payload on as it is, without decoding it. The bytes go into a buffer without room in
/// front, so that sending takes a new one: it would build the message in any room that seems to do.
bool copyPayload(const VekMessage_& received, VekMessage_& copy) {
    const SP_BasicBuffer_ sp_encoded = received.getRawPayload();
    if (!sp_encoded) return false;
    const unsigned int length = sp_encoded->dataLength();
    const SP_BasicBuffer_ sp_bytes(new (std::nothrow) BasicBuffer_(length));
    if (!sp_bytes || !sp_bytes->setDataArea(0, length)) return false;
    std::memcpy(sp_bytes->data(), sp_encoded->data(), length);
    return copy.setRawPayload(sp_bytes);
}
// [/raw]

bool echoAnswer(VekmsgTerminal_& terminal) {
    SP_VekMessage_ sp_copy;
    const bool isCopied = sendOrder(terminal, "order 1.0") && terminal.createMessage(sp_copy);
    const SP_VekMessage_ sp_answer = receive(terminal);
    return isCopied && sp_answer && copyPayload(*sp_answer, *sp_copy) &&
           sp_copy->setDestination(utf8("kitchen")) &&
           sp_copy->setPayloadSchema(utf8("an answer sent back"), VekMessage_::SCHEMA_LITERAL) &&
           terminal.sendMessage(sp_copy) && printAnswer(sp_answer);
}

bool sendNoise(VekmsgTerminal_& terminal) {
    return sendOrder(terminal, "noise 1.0");
}

// [log]
void writeRecord(void* p_context, int severity, const LogSite* p_site, const char* p_text) {
    *static_cast<std::ostream*>(p_context)
        << "record " << severity << " from " << p_site->p_sourceName << ": " << p_text << std::endl;
}

void redirectRecords(std::ostream& stream) {
    vekmsg_log_set_sink(writeRecord, &stream);
    vekmsg_log_set_threshold(7);  // everything; 4, errors and warnings, is what passes at first
}
// [/log]

// What cannot be sent is refused, and the record says why.
bool showRefusals(VekmsgTerminal_& terminal) {
    redirectRecords(std::cout);
    SP_VekMessage_ sp_message;
    terminal.createMessage(sp_message);
    fillOrder(*sp_message);
    sp_message->setDestination(utf8("shop"));
    const bool isSentToItself = terminal.sendMessage(sp_message);
    sp_message->setDestination(utf8("nobody"));
    const bool isSentToNobody = terminal.sendMessage(sp_message);
    vekmsg_log_set_sink(nullptr, nullptr);
    vekmsg_log_set_threshold(4);
    return !isSentToItself && !isSentToNobody;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string folder = argv[1];
    const std::unique_ptr<VekmsgTerminal_> terminal = openTerminal("shop", folder + "/shop.directory");
    const std::unique_ptr<VekmsgTerminal_> far = openTerminal("far", folder + "/far.directory");
    if (terminal == nullptr || far == nullptr) return 1;

    const bool isDone = sendNoise(*terminal) && orderTraced(*terminal) && ping(*terminal, "kitchen") &&
                        waitForPipeAndTerminal(*terminal, *far) && echoAnswer(*terminal) &&
                        sendOrder(*far, "order, no answer 1.0") && order(*far) &&
                        sendAndLeave(folder + "/shop.directory") && showRefusals(*terminal);
    std::cout << (isDone ? "all done" : "something went wrong") << std::endl;
    return isDone ? 0 : 1;
}
