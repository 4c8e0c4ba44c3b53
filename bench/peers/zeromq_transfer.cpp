// ZeroMQ beside the library: DEALER sockets to one ROUTER, the pattern for messages both ways between one and
// many. TCP sockets of ZeroMQ always have TCP_NODELAY.

#include <cstring>
#include <zmq.hpp>

#include "transfer.h"

namespace {

std::string endpoint(const Options_& options, const Meeting_& meeting) {
    return options.m_isTcp ? "tcp://127.0.0.1:" + meeting.m_receiverPort
                           : "ipc://" + meeting.m_folder + "/receiver";
}

std::string identity(unsigned int number) {
    return "sender" + std::to_string(number);
}

class ZeromqSide_ : public Side_ {
public:
    ZeromqSide_(zmq::context_t& context, zmq::socket_type type)
        : m_isRouter(type == zmq::socket_type::router), m_socket(context, type) {
        m_socket.set(zmq::sockopt::linger, 0);
    }
    zmq::socket_t& socket() { return m_socket; }

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        if (m_isRouter) m_socket.send(zmq::buffer(identity(to)), zmq::send_flags::sndmore);
        m_socket.send(zmq::buffer(p_bytes, size), zmq::send_flags::none);
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        if (m_isRouter && !m_socket.recv(m_message)) fail("receiving an identity");
        if (!m_socket.recv(m_message) || m_message.size() > capacity) fail("receiving");
        std::memcpy(p_bytes, m_message.data(), m_message.size());
        return m_message.size();
    }

private:
    bool m_isRouter;
    zmq::socket_t m_socket;
    zmq::message_t m_message;
};

/// One per process, made after the processes have parted.
zmq::context_t& context() {
    static zmq::context_t& s_context = *new zmq::context_t(1);
    return s_context;
}

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    auto sp_side = std::make_unique<ZeromqSide_>(context(), zmq::socket_type::router);
    sp_side->socket().set(zmq::sockopt::router_mandatory, true);
    sp_side->socket().bind(endpoint(options, meeting));
    return sp_side;
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int number) {
    auto sp_side = std::make_unique<ZeromqSide_>(context(), zmq::socket_type::dealer);
    sp_side->socket().set(zmq::sockopt::routing_id, identity(number));
    sp_side->socket().connect(endpoint(options, meeting));
    return sp_side;
}

}  // namespace

const Program_ g_program = {"ZeroMQ", makeReceiver, makeSender};
