// The demo's sensor: a service that answers requests for a reading on a local socket and on a TCP port, and
// that sends the panel a receipt for each note. Being pinged is the library's work; the sensor only counts
// it.
//
//     sensor DIRECTORY READY
//
// READY is a pipe that gets the line "ready" or "failed". SIGTERM ends the sensor, with 0 when exactly what
// the demo sends had arrived.

#include <cstring>
#include <iostream>
#include <memory>

#include "demo.h"

namespace {

using namespace demo;

unsigned int s_requests = 0;
unsigned int s_notes = 0;
unsigned int s_pings = 0;

/// Counts the pings on their way to the printer, and checks what they carry.
class PingWatch_ : public VekmsgFilter_ {
public:
    explicit PingWatch_(SP_VekmsgFilter_ sp_printer) : m_sp_printer(sp_printer) {}

    bool process(SP_VekMessage_& sp_message) override {
        if (!m_sp_printer->process(sp_message)) return false;
        const Frame_ ping = {PANEL, SENSOR, PING_SCHEMA, FULL_TIME_TO_LIVE};
        if (std::strcmp(reinterpret_cast<const char*>(sp_message->getPayloadSchema()), PING_SCHEMA) != 0)
            return true;
        ++s_pings;
        return isFramed(*sp_message, ping) && isText(*sp_message, "are you there?");
    }

private:
    SP_VekmsgFilter_ m_sp_printer;
};

bool watchPings(VekmsgTerminal_& terminal) {
    SP_VekmsgFilter_ sp_printer;
    return terminal.CreateMessagePrinter(&std::cout, "received", sp_printer) &&
           terminal.setReceiveFilter(SP_VekmsgFilter_(new PingWatch_(sp_printer)));
}

bool answerRequest(VekmsgTerminal_& terminal, const SP_VekMessage_& sp_message) {
    const char* p_source = s_requests++ == 0 ? PANEL : PANEL_TCP;
    const Frame_ frame = {p_source, SENSOR, REQUEST_SCHEMA, FULL_TIME_TO_LIVE};
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
    const bool isNote =
        std::strcmp(reinterpret_cast<const char*>(sp_message->getPayloadSchema()), NOTE_SCHEMA) == 0;
    return isNote ? acknowledgeNote(terminal, sp_message) : answerRequest(terminal, sp_message);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const int termination = watchForTermination();
    const std::unique_ptr<VekmsgTerminal_> terminal(openTerminal(SENSOR, argv[1]));
    const bool isReady = termination >= 0 && terminal != nullptr && watchPings(*terminal);
    if (!announce(argv[2], isReady ? "ready" : "failed") || !isReady) return 1;

    const bool isGood = serve(*terminal, termination, handle) && isEqual("the requests", s_requests, 2) &&
                        isEqual("the pings", s_pings, 1) && isEqual("the notes", s_notes, 1);
    return isGood ? 0 : 1;
}
