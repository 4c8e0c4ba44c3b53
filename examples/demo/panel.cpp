// The demo's panel: asks the sensor for a reading over a local socket and over TCP, pings it, and sends it a
// note through the router. Each way is a terminal of its own, because routes come from the directory file
// that a terminal was opened with.
//
//     panel FOLDER
//
// FOLDER holds panel.directory, panel-tcp.directory and panel-far.directory. Ends with 0 when everything
// arrived as it was sent.

#include <iostream>
#include <memory>
#include <string>

#include "demo.h"

namespace {

using namespace demo;

using Terminal_ = std::unique_ptr<VekmsgTerminal_>;

constexpr unsigned int PATIENCE_MS = 10000;

Terminal_ openIn(const std::string& folder, const char* p_name) {
    return Terminal_(openTerminal(p_name, (folder + "/" + p_name + ".directory").c_str()));
}

void title(const char* p_text) {
    std::cout << "\n=== " << p_text << std::endl;
}

SP_VekMessage_ create(VekmsgTerminal_& terminal, const char* p_schema) {
    SP_VekMessage_ sp_message;
    if (!terminal.createMessage(sp_message)) return sp_message;
    sp_message->setDestination(utf8(SENSOR));
    sp_message->setPayloadSchema(utf8(p_schema), VekMessage_::SCHEMA_LITERAL);
    return sp_message;
}

SP_VekMessage_ receive(VekmsgTerminal_& terminal) {
    SP_VekMessage_ sp_message;
    while (!sp_message && terminal.waitForMessage(PATIENCE_MS) == VekmsgTerminal_::WAIT_MESSAGE)
        if (!terminal.receiveMessage(sp_message)) break;
    if (!sp_message) std::cerr << "mismatch: nothing arrived" << std::endl;
    return sp_message;
}

bool ask(VekmsgTerminal_& terminal, const char* p_name) {
    const SP_VekMessage_ sp_request = create(terminal, REQUEST_SCHEMA);
    if (!sp_request || !fillRequest(*sp_request) || !terminal.sendMessage(sp_request)) return false;
    const SP_VekMessage_ sp_reading = receive(terminal);
    const Frame_ frame = {SENSOR, p_name, READING_SCHEMA, FULL_TIME_TO_LIVE};
    return sp_reading && isFramed(*sp_reading, frame) && isReading(*sp_reading);
}

bool ping(VekmsgTerminal_& terminal) {
    const SP_VekMessage_ sp_ping = create(terminal, PING_SCHEMA);
    if (!sp_ping || !fillText(*sp_ping, "are you there?") || !terminal.sendMessage(sp_ping)) return false;
    const SP_VekMessage_ sp_reply = receive(terminal);
    const Frame_ frame = {SENSOR, PANEL, PING_REPLY_SCHEMA, FULL_TIME_TO_LIVE};
    return sp_reply && isFramed(*sp_reply, frame) && isText(*sp_reply, "are you there?");
}

// The sensor's receipt tells what reached it; it comes the direct way, to the first terminal.
bool sendNote(VekmsgTerminal_& far, VekmsgTerminal_& direct) {
    const SP_VekMessage_ sp_note = create(far, NOTE_SCHEMA);
    if (!sp_note || !fillText(*sp_note, "sent the long way round") || !far.sendMessage(sp_note)) return false;
    const SP_VekMessage_ sp_receipt = receive(direct);
    const Frame_ frame = {SENSOR, PANEL, RECEIPT_SCHEMA, FULL_TIME_TO_LIVE};
    const Frame_ arrived = {PANEL_FAR, SENSOR, NOTE_SCHEMA, FULL_TIME_TO_LIVE - 1};
    return sp_receipt && isFramed(*sp_receipt, frame) && isReceipt(*sp_receipt, arrived);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const Terminal_ direct = openIn(argv[1], PANEL);
    const Terminal_ tcp = openIn(argv[1], PANEL_TCP);
    const Terminal_ far = openIn(argv[1], PANEL_FAR);
    if (direct == nullptr || tcp == nullptr || far == nullptr) return 1;

    title("The panel asks the sensor for a reading, over a local socket");
    if (!ask(*direct, PANEL)) return 1;
    title("The same over TCP");
    if (!ask(*tcp, PANEL_TCP)) return 1;
    title("The panel pings the sensor");
    if (!ping(*direct)) return 1;
    title("The panel sends the sensor a note through the router, and gets a receipt the direct way");
    return sendNote(*far, *direct) ? 0 : 1;
}
