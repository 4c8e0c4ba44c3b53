// The guide's service: a kitchen that reads structured orders and answers them, swallows noise with a filter,
// and ends when SIGTERM comes.
//
//     kitchen DIRECTORY

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>
#include <iostream>

#include "guide.h"

namespace {

// [read]
struct Order_ {
    std::string m_dish;
    unsigned int m_count = 0;
    bool m_isUrgent = false;
    std::string m_seal;
    unsigned int m_extras = 0;
};

bool read(VekMessage_& message, Order_& order) {
    const SP_VekmsgElement_ sp_order = message.getPayload();
    if (!sp_order || sp_order->getTag() != TAG_ORDER) return false;
    const Utf8Char_* p_dish = nullptr;
    const unsigned char* p_seal = nullptr;
    unsigned int sealLength = 0;
    if (!sp_order->getSubElementValue(TAG_DISH, p_dish) ||
        !sp_order->getSubElementValue(TAG_COUNT, order.m_count) ||
        !sp_order->getSubElementValue(TAG_IS_URGENT, order.m_isUrgent) ||
        !sp_order->getSubElementValue(TAG_SEAL, p_seal, sealLength))
        return false;
    order.m_dish = reinterpret_cast<const char*>(p_dish);  // copied: it belongs to the message
    order.m_seal.assign(p_seal, p_seal + sealLength);

    if (!sp_order->querySubelements(TAG_EXTRA)) return false;
    while (const SP_VekmsgElement_ sp_extra = sp_order->getNextSubelement()) ++order.m_extras;
    sp_order->endQuerySubelements();
    return true;
}
// [/read]

// [reply]
bool reply(VekmsgTerminal_& terminal, const SP_VekMessage_& sp_message, const std::string& text) {
    const SP_VekmsgElement_ sp_answer = sp_message->createElement(TAG_ANSWER);
    return sp_answer && sp_answer->setValue(utf8(text.c_str())) && sp_message->setPayload(sp_answer) &&
           sp_message->setPayloadSchema(utf8("kitchen answer 1.0"), VekMessage_::SCHEMA_LITERAL) &&
           sp_message->swapSourceDestination() && terminal.sendMessage(sp_message);
}
// [/reply]

// [filter]
/// Keeps messages with one schema from the application.
class Mute_ : public VekmsgFilter_ {
public:
    explicit Mute_(const char* p_schema) : m_schema(p_schema) {}

    bool process(SP_VekMessage_& sp_message) override {
        if (hasSchema(*sp_message, m_schema.c_str())) sp_message.reset();  // swallowed
        return true;                                                       // false would refuse it
    }

private:
    std::string m_schema;
};

bool mute(VekmsgTerminal_& terminal) {
    return terminal.setReceiveFilter(SP_VekmsgFilter_(new Mute_("noise 1.0")));
}
// [/filter]

void handle(VekmsgTerminal_& terminal, const SP_VekMessage_& sp_message) {
    Order_ order;
    if (!read(*sp_message, order)) {
        std::cout << "not an order: " << sp_message->getPayloadSchema() << std::endl;
        return;
    }
    std::cout << sp_message->getSource() << " orders " << order.m_count << " " << order.m_dish << ", "
              << (order.m_isUrgent ? "urgent" : "not urgent") << ", " << order.m_extras << " extras, seal of "
              << order.m_seal.size() << " bytes, time-to-live " << sp_message->getTimeToLive() << std::endl;
    if (!hasSchema(*sp_message, "order, no answer 1.0"))
        reply(terminal, sp_message, order.m_dish + " is coming");
}

// [signal]
int watchForTermination() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    return sigprocmask(SIG_BLOCK, &signals, nullptr) == 0 ? signalfd(-1, &signals, SFD_CLOEXEC) : -1;
}

bool serve(VekmsgTerminal_& terminal, int termination) {
    for (;;) {
        pollfd entry = {termination, POLLIN, 0};
        const int ready = VekmsgTerminal_::pollFd(&entry, 1, 1000, &terminal, nullptr);
        if (ready == VekmsgTerminal_::POLL_ERROR) return false;
        SP_VekMessage_ sp_message;
        while (terminal.receiveMessage(sp_message) && sp_message) handle(terminal, sp_message);
        if (ready > 0) return true;
    }
}
// [/signal]

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const int termination = watchForTermination();
    const std::unique_ptr<VekmsgTerminal_> terminal = openTerminal("kitchen", argv[1]);
    if (termination < 0 || terminal == nullptr || !mute(*terminal)) return 1;
    std::cout << "kitchen is open" << std::endl;
    return serve(*terminal, termination) ? 0 : 1;
}
