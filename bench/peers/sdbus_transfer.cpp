// sd-bus beside the library: method calls that expect no reply, with one byte array.
//
//     (no variant)      peer to peer, each connection a bus of its own
//     --variant daemon  through a private dbus-daemon

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <fstream>
#include <map>

#include "transfer.h"

namespace {

constexpr char kPath[] = "/transfer";
constexpr char kInterface[] = "vekmsg.bench.Transfer";
constexpr char kReceiver[] = "vekmsg.bench.receiver";
constexpr std::uint64_t kWaitTime = 1000000;  // microseconds

void demand(int result, const char* p_what) {
    if (result < 0) fail(p_what);
}

std::string senderName(unsigned int number) {
    return "vekmsg.bench.sender" + std::to_string(number);
}

/// A listening or connected socket at the receiver's address.
int makeSocket(const Options_& options, const Meeting_& meeting, bool isListening) {
    const Address_ address = makeAddress(options, meeting, "receiver", meeting.m_receiverPort);
    const int descriptor = socket(address.m_bytes.ss_family, SOCK_STREAM, 0);
    if (isListening) {
        if (bind(descriptor, address.get(), address.m_length) != 0 || listen(descriptor, 100) != 0)
            fail("listening");
    } else if (connect(descriptor, address.get(), address.m_length) != 0) {
        fail("connecting");
    }
    return descriptor;
}

class BusSide_ : public Side_ {
public:
    void add(sd_bus* p_bus) {
        demand(sd_bus_add_filter(p_bus, nullptr, take, this), "adding a filter");
        m_buses.push_back(p_bus);
    }
    /// Receivers on a daemon have one bus and call their senders by name.
    void callByName() { m_isCallingByName = true; }
    void callReceiver() { m_destination = kReceiver; }

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        const auto route = m_routes.find(to);
        sd_bus* p_bus = route == m_routes.end() ? m_buses[0] : route->second;
        const std::string destination = m_isCallingByName ? senderName(to) : m_destination;
        sd_bus_message* p_message = nullptr;
        demand(sd_bus_message_new_method_call(p_bus, &p_message,
                                              destination.empty() ? nullptr : destination.c_str(), kPath,
                                              kInterface, "Take"),
               "making a message");
        demand(sd_bus_message_set_expect_reply(p_message, 0), "making a message");
        demand(sd_bus_message_append_array(p_message, 'y', p_bytes, size), "filling a message");
        demand(sd_bus_send(p_bus, p_message, nullptr), "sending");
        sd_bus_message_unref(p_message);
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        while (m_taken.empty()) {
            if (!work()) wait();
        }
        sd_bus_message* p_message = m_taken.front();
        m_taken.pop_front();
        const void* p_value = nullptr;
        std::size_t size = 0;
        demand(sd_bus_message_read_array(p_message, 'y', &p_value, &size), "reading a message");
        if (size > capacity) fail("a message that is too long");
        std::memcpy(p_bytes, p_value, size);
        m_routes.emplace(senderOf(p_bytes), sd_bus_message_get_bus(p_message));
        sd_bus_message_unref(p_message);
        return size;
    }

    /// Where peers connect directly: one bus for each.
    void acceptFrom(int listener) { m_listener = listener; }

private:
    static int take(sd_bus_message* p_message, void* p_side, sd_bus_error*) {
        if (sd_bus_message_is_method_call(p_message, kInterface, "Take") <= 0) return 0;
        static_cast<BusSide_*>(p_side)->m_taken.push_back(sd_bus_message_ref(p_message));
        return 1;
    }
    /// False when there is nothing to take without waiting. With many buses only those that poll() named are
    /// worth a call.
    bool work() {
        const bool isNamed = m_buses.size() > 1 && m_entries.size() == m_buses.size() + 1;
        for (std::size_t i = 0; i < m_buses.size(); ++i) {
            if (isNamed && m_entries[i + 1].revents == 0) continue;
            int result = 0;
            while ((result = sd_bus_process(m_buses[i], nullptr)) > 0)
                if (!m_taken.empty()) return true;
            demand(result, "processing");
            if (isNamed) m_entries[i + 1].revents = 0;
        }
        return false;
    }
    void wait() {
        if (m_listener < 0 && m_buses.size() == 1) {
            demand(sd_bus_wait(m_buses[0], kWaitTime), "waiting");
            return;
        }
        m_entries.assign(1, pollfd{m_listener, POLLIN, 0});
        for (sd_bus* p_bus : m_buses) {
            const int events = sd_bus_get_events(p_bus);
            m_entries.push_back({sd_bus_get_fd(p_bus), static_cast<short>(events), 0});
        }
        poll(m_entries.data(), m_entries.size(), 1000);
        if (m_entries[0].revents != 0) acceptOne();
    }
    void acceptOne() {
        sd_bus* p_bus = nullptr;
        sd_id128_t id = {};
        const int descriptor = accept(m_listener, nullptr, nullptr);
        const int on = 1;
        if (descriptor < 0) fail("accepting");
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        sd_id128_randomize(&id);
        demand(sd_bus_new(&p_bus), "making a bus");
        demand(sd_bus_set_fd(p_bus, descriptor, descriptor), "making a bus");
        demand(sd_bus_set_server(p_bus, 1, id), "making a bus");
        demand(sd_bus_set_anonymous(p_bus, 1), "making a bus");
        demand(sd_bus_start(p_bus), "starting a bus");
        add(p_bus);
    }

    int m_listener = -1;
    bool m_isCallingByName = false;
    std::string m_destination;
    std::vector<sd_bus*> m_buses;
    std::vector<pollfd> m_entries;
    std::deque<sd_bus_message*> m_taken;
    std::map<unsigned int, sd_bus*> m_routes;
};

std::string brokerAddress(const Options_& options, const Meeting_& meeting) {
    return options.m_isTcp ? "tcp:host=127.0.0.1,port=" + meeting.m_brokerPort
                           : "unix:path=" + meeting.m_folder + "/broker";
}

sd_bus* joinDaemon(const Options_& options, const Meeting_& meeting, const std::string& name) {
    sd_bus* p_bus = nullptr;
    demand(sd_bus_new(&p_bus), "making a bus");
    demand(sd_bus_set_address(p_bus, brokerAddress(options, meeting).c_str()), "making a bus");
    demand(sd_bus_set_bus_client(p_bus, 1), "making a bus");
    demand(sd_bus_set_anonymous(p_bus, 1), "making a bus");
    demand(sd_bus_start(p_bus), "starting a bus");
    demand(sd_bus_request_name(p_bus, name.c_str(), 0), "asking for a name");
    const int on = 1;
    setsockopt(sd_bus_get_fd(p_bus), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return p_bus;
}

pid_t startDaemon(const Options_& options, const Meeting_& meeting) {
    if (options.m_variant != "daemon") return 0;
    const std::string path = meeting.m_folder + "/daemon.conf";
    std::ofstream(path)
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>"
        << brokerAddress(options, meeting)
        << "</listen><auth>EXTERNAL</auth><auth>ANONYMOUS</auth><allow_anonymous/>"
           "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    return startBroker({"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog", "--config-file=" + path},
                       isBrokerListening, options, meeting);
}

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    auto sp_side = std::make_unique<BusSide_>();
    if (options.m_variant == "daemon") {
        sp_side->add(joinDaemon(options, meeting, kReceiver));
        sp_side->callByName();
    } else {
        sp_side->acceptFrom(makeSocket(options, meeting, true));
    }
    return sp_side;
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int number) {
    auto sp_side = std::make_unique<BusSide_>();
    if (options.m_variant == "daemon") {
        sp_side->add(joinDaemon(options, meeting, senderName(number)));
        sp_side->callReceiver();
        return sp_side;
    }
    sd_bus* p_bus = nullptr;
    const int descriptor = makeSocket(options, meeting, false);
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    demand(sd_bus_new(&p_bus), "making a bus");
    demand(sd_bus_set_fd(p_bus, descriptor, descriptor), "making a bus");
    demand(sd_bus_set_anonymous(p_bus, 1), "making a bus");
    demand(sd_bus_start(p_bus), "starting a bus");
    sp_side->add(p_bus);
    return sp_side;
}

}  // namespace

const Program_ g_program = {"sd-bus", makeReceiver, makeSender, startDaemon};
