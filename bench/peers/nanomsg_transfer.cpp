// nanomsg beside the library: a pair of sockets, the lightest of its patterns, which takes one peer only.

#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <nanomsg/tcp.h>

#include <cstring>

#include "transfer.h"

namespace {

class NanomsgSide_ : public Side_ {
public:
    NanomsgSide_(const Options_& options, const Meeting_& meeting, bool isReceiver)
        : m_socket(nn_socket(AF_SP, NN_PAIR)) {
        const std::string address = options.m_isTcp ? "tcp://127.0.0.1:" + meeting.m_receiverPort
                                                    : "ipc://" + meeting.m_folder + "/receiver";
        const int on = 1;
        if (m_socket < 0 || nn_setsockopt(m_socket, NN_TCP, NN_TCP_NODELAY, &on, sizeof(on)) != 0 ||
            (isReceiver ? nn_bind(m_socket, address.c_str()) : nn_connect(m_socket, address.c_str())) < 0)
            fail("making a socket");
    }
    ~NanomsgSide_() override { nn_close(m_socket); }

    void send(unsigned int, const unsigned char* p_bytes, std::size_t size) override {
        void* p_message = nn_allocmsg(size, 0);
        std::memcpy(p_message, p_bytes, size);
        if (nn_send(m_socket, &p_message, NN_MSG, 0) != static_cast<int>(size)) fail("sending");
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        void* p_message = nullptr;
        const int size = nn_recv(m_socket, &p_message, NN_MSG, 0);
        if (size < 0 || static_cast<std::size_t>(size) > capacity) fail("receiving");
        std::memcpy(p_bytes, p_message, static_cast<std::size_t>(size));
        nn_freemsg(p_message);
        return static_cast<std::size_t>(size);
    }

private:
    int m_socket;
};

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    if (options.m_peers > 1) refuse("several peers: a pair has two ends");
    return std::make_unique<NanomsgSide_>(options, meeting, true);
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int) {
    return std::make_unique<NanomsgSide_>(options, meeting, false);
}

}  // namespace

const Program_ g_program = {"nanomsg", makeReceiver, makeSender};
