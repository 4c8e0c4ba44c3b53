// The demo's router: a component that only forwards. It has no code for that: a terminal that is driven
// forwards what is addressed to others. Here its filters print what passes and compare both sides of it.
//
//     router DIRECTORY READY
//
// READY is a pipe that gets the line "ready" or "failed". SIGTERM ends the router, with 0 when exactly the
// demo's one message had passed.

#include <iostream>
#include <memory>

#include "demo.h"

namespace {

using namespace demo;

/// Expects one message, the note on its way, with the time-to-live that it has on this side.
class Watch_ : public VekmsgFilter_ {
public:
    Watch_(SP_VekmsgFilter_ sp_printer, unsigned int timeToLive)
        : m_sp_printer(sp_printer), m_timeToLive(timeToLive) {}

    bool process(SP_VekMessage_& sp_message) override {
        ++m_count;
        const Frame_ frame = {PANEL_FAR, SENSOR, NOTE_SCHEMA, m_timeToLive};
        return m_sp_printer->process(sp_message) && isFramed(*sp_message, frame);
    }

    unsigned int count() const { return m_count; }

private:
    SP_VekmsgFilter_ m_sp_printer;
    unsigned int m_timeToLive;
    unsigned int m_count = 0;
};

using SP_Watch_ = SmartPointer_<Watch_>;

SP_Watch_ watch(VekmsgTerminal_& terminal, const char* p_note, unsigned int timeToLive) {
    SP_VekmsgFilter_ sp_printer;
    if (!terminal.CreateMessagePrinter(&std::cout, p_note, sp_printer)) return SP_Watch_();
    return SP_Watch_(new Watch_(sp_printer, timeToLive));
}

bool refuse(VekmsgTerminal_&, const SP_VekMessage_&) {
    std::cerr << "mismatch: a message for the router itself" << std::endl;
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const int termination = watchForTermination();
    const std::unique_ptr<VekmsgTerminal_> terminal(openTerminal("router", argv[1]));
    const bool isReady = termination >= 0 && terminal != nullptr;
    if (!isReady) {
        announce(argv[2], "failed");
        return 1;
    }
    const SP_Watch_ sp_arriving = watch(*terminal, "received, to be forwarded", FULL_TIME_TO_LIVE);
    const SP_Watch_ sp_leaving = watch(*terminal, "forwards", FULL_TIME_TO_LIVE - 1);
    if (!sp_arriving || !sp_leaving) return 1;
    terminal->setReceiveFilter(sp_arriving);
    terminal->setSendFilter(sp_leaving);
    if (!announce(argv[2], "ready")) return 1;

    const bool isGood = serve(*terminal, termination, refuse) &&
                        isEqual("the messages that came", sp_arriving->count(), 1) &&
                        isEqual("the messages that left", sp_leaving->count(), 1);
    return isGood ? 0 : 1;
}
