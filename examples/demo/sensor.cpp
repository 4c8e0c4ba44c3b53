// The demo's sensor: a service that answers requests for a reading on a local socket and on a TCP port, and
// that sends the panel a receipt for each note. Being pinged is the library's work; the sensor only counts
// it. The command vekmsg may ask and ping as often as it likes; only what the panel did counts at the end.
//
//     sensor DIRECTORY READY
//
// READY is a pipe that gets the line "ready" or "failed". SIGTERM ends the sensor, with 0 when exactly what
// the demo sends had arrived.

#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "demo.h"

namespace {

using namespace demo;

unsigned int s_requests = 0;
unsigned int s_notes = 0;
unsigned int s_pings = 0;

bool isOfCommand(const Utf8Char_* p_name) {
    return std::strncmp(reinterpret_cast<const char*>(p_name), COMMAND_PREFIX, std::strlen(COMMAND_PREFIX)) ==
           0;
}

/// Prints what passes, but for the pings of the command and their answers: it tells of them itself.
class Printer_ : public VekmsgFilter_ {
public:
    explicit Printer_(SP_VekmsgFilter_ sp_printer) : m_sp_printer(sp_printer) {}

    bool process(SP_VekMessage_& sp_message) override {
        const bool isLeftOut =
            (hasSchema(*sp_message, PING_SCHEMA) && isOfCommand(sp_message->getSource())) ||
            (hasSchema(*sp_message, PING_REPLY_SCHEMA) && isOfCommand(sp_message->getDestination()));
        return isLeftOut || m_sp_printer->process(sp_message);
    }

private:
    SP_VekmsgFilter_ m_sp_printer;
};

/// Counts the panel's pings on their way to the printer, and checks what they carry.
class PingWatch_ : public Printer_ {
public:
    using Printer_::Printer_;

    bool process(SP_VekMessage_& sp_message) override {
        if (!Printer_::process(sp_message)) return false;
        const Frame_ ping = {PANEL, SENSOR, PING_SCHEMA, FULL_TIME_TO_LIVE};
        if (!hasSchema(*sp_message, PING_SCHEMA) || isOfCommand(sp_message->getSource())) return true;
        ++s_pings;
        return isFramed(*sp_message, ping) && isText(*sp_message, "are you there?");
    }
};

bool watchMessages(VekmsgTerminal_& terminal) {
    SP_VekmsgFilter_ sp_received;
    SP_VekmsgFilter_ sp_sent;
    return terminal.CreateMessagePrinter(&std::cout, "received", sp_received) &&
           terminal.CreateMessagePrinter(&std::cout, "sends", sp_sent) &&
           terminal.setReceiveFilter(SP_VekmsgFilter_(new PingWatch_(sp_received))) &&
           terminal.setSendFilter(SP_VekmsgFilter_(new Printer_(sp_sent)));
}

/// The component that the next request has to come from.
std::string expectedSource(const VekMessage_& request) {
    if (isOfCommand(request.getSource())) return reinterpret_cast<const char*>(request.getSource());
    return s_requests++ == 0 ? PANEL : PANEL_TCP;
}

bool answerRequest(VekmsgTerminal_& terminal, const SP_VekMessage_& sp_message) {
    const std::string source = expectedSource(*sp_message);
    const Frame_ frame = {source.c_str(), SENSOR, REQUEST_SCHEMA, FULL_TIME_TO_LIVE};
    return isFramed(*sp_message, frame) && isRequest(*sp_message) && sp_message->swapSourceDestination() &&
           fillReading(*sp_message) && terminal.sendMessage(sp_message);
}

bool acknowledgeNote(VekmsgTerminal_& terminal, const SP_VekMessage_& sp_note) {
    ++s_notes;
    const Frame_ frame = {PANEL_FAR, SENSOR, NOTE_SCHEMA, FULL_TIME_TO_LIVE - 1};
    if (!isFramed(*sp_note, frame) || !isText(*sp_note, "sent the long way round")) return false;
    SP_VekMessage_ sp_receipt;
    return terminal.createMessage(sp_receipt) && sp_receipt->setDestination(utf8(PANEL)) &&
           fillReceipt(*sp_receipt, frame) && terminal.sendMessage(sp_receipt);
}

bool handle(VekmsgTerminal_& terminal, const SP_VekMessage_& sp_message) {
    return hasSchema(*sp_message, NOTE_SCHEMA) ? acknowledgeNote(terminal, sp_message)
                                               : answerRequest(terminal, sp_message);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const int termination = watchForTermination();
    const std::unique_ptr<VekmsgTerminal_> terminal(openTerminal(SENSOR, argv[1]));
    const bool isReady = termination >= 0 && terminal != nullptr && watchMessages(*terminal);
    if (!announce(argv[2], isReady ? "ready" : "failed") || !isReady) return 1;

    const bool isGood = serve(*terminal, termination, handle) && isEqual("the requests", s_requests, 2) &&
                        isEqual("the pings", s_pings, 1) && isEqual("the notes", s_notes, 1);
    return isGood ? 0 : 1;
}
