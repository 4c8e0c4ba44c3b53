// MQTT beside the library: a private mosquitto broker between the two, quality of service 0, the client
// library's own loop on the one thread of each side.

#include <mosquitto.h>

#include <cstring>
#include <deque>
#include <fstream>

#include "transfer.h"

namespace {

constexpr int kWaitTime = 1000;  // milliseconds
constexpr int kKeepAlive = 60;   // seconds

void demand(int result) {
    if (result != MOSQ_ERR_SUCCESS) fail(mosquitto_strerror(result));
}

class MqttSide_ : public Side_ {
public:
    MqttSide_(const Options_& options, const Meeting_& meeting, const std::string& topic, std::string toTopic)
        : m_p_client(mosquitto_new(nullptr, true, this)), m_toTopic(std::move(toTopic)) {
        mosquitto_message_callback_set(m_p_client, take);
        mosquitto_subscribe_callback_set(m_p_client, confirm);
        mosquitto_int_option(m_p_client, MOSQ_OPT_TCP_NODELAY, 1);
        demand(options.m_isTcp
                   ? mosquitto_connect(m_p_client, "127.0.0.1", std::stoi(meeting.m_brokerPort), kKeepAlive)
                   : mosquitto_connect(m_p_client, (meeting.m_folder + "/broker").c_str(), 0, kKeepAlive));
        demand(mosquitto_subscribe(m_p_client, nullptr, topic.c_str(), 0));
        while (!m_isSubscribed) demand(mosquitto_loop(m_p_client, kWaitTime, 1));
    }
    ~MqttSide_() override { mosquitto_destroy(m_p_client); }

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        const std::string topic = m_toTopic.empty() ? "sender" + std::to_string(to) : m_toTopic;
        demand(
            mosquitto_publish(m_p_client, nullptr, topic.c_str(), static_cast<int>(size), p_bytes, 0, false));
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        while (m_taken.empty()) demand(mosquitto_loop(m_p_client, kWaitTime, 1));
        const std::string& message = m_taken.front();
        const std::size_t size = message.size();
        if (size > capacity) fail("a message that is too long");
        std::memcpy(p_bytes, message.data(), size);
        m_taken.pop_front();
        return size;
    }

private:
    static void take(mosquitto*, void* p_side, const mosquitto_message* p_message) {
        static_cast<MqttSide_*>(p_side)->m_taken.emplace_back(
            static_cast<const char*>(p_message->payload), static_cast<std::size_t>(p_message->payloadlen));
    }
    static void confirm(mosquitto*, void* p_side, int, int, const int*) {
        static_cast<MqttSide_*>(p_side)->m_isSubscribed = true;
    }

    mosquitto* m_p_client;
    std::string m_toTopic;
    bool m_isSubscribed = false;
    std::deque<std::string> m_taken;
};

pid_t start(const Options_& options, const Meeting_& meeting) {
    const std::string path = meeting.m_folder + "/mosquitto.conf";
    std::ofstream(path)
        << "listener "
        << (options.m_isTcp ? meeting.m_brokerPort + " 127.0.0.1" : "0 " + meeting.m_folder + "/broker")
        << "\nallow_anonymous true\nset_tcp_nodelay true\nmax_queued_messages 0\nlog_dest none\n"
           "user root\n";
    return startBroker({"mosquitto", "-c", path}, isBrokerListening, options, meeting);
}

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    mosquitto_lib_init();
    return std::make_unique<MqttSide_>(options, meeting, "receiver", "");
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int number) {
    mosquitto_lib_init();
    return std::make_unique<MqttSide_>(options, meeting, "sender" + std::to_string(number), "receiver");
}

}  // namespace

const Program_ g_program = {"MQTT", makeReceiver, makeSender, start};
