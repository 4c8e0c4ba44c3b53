// nng beside the library: a pair of sockets, the lightest of its patterns; with several senders the pair
// socket of the receiver takes many peers. TCP_NODELAY is on by default.

#include <nng/nng.h>
#include <nng/protocol/pair1/pair.h>

#include <cstring>
#include <map>

#include "transfer.h"

namespace {

std::string address(const Options_& options, const Meeting_& meeting) {
    return options.m_isTcp ? "tcp://127.0.0.1:" + meeting.m_receiverPort
                           : "ipc://" + meeting.m_folder + "/receiver";
}

void demand(int result) {
    if (result != 0) fail(nng_strerror(result));
}

class NngSide_ : public Side_ {
public:
    explicit NngSide_(bool isTakingMany) {
        demand(isTakingMany ? nng_pair1_open_poly(&m_socket) : nng_pair1_open(&m_socket));
    }
    ~NngSide_() override { nng_close(m_socket); }
    nng_socket socket() const { return m_socket; }

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        nng_msg* p_message = nullptr;
        demand(nng_msg_alloc(&p_message, size));
        std::memcpy(nng_msg_body(p_message), p_bytes, size);
        const auto pipe = m_pipes.find(to);
        if (pipe != m_pipes.end()) nng_msg_set_pipe(p_message, pipe->second);
        demand(nng_sendmsg(m_socket, p_message, 0));
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        nng_msg* p_message = nullptr;
        demand(nng_recvmsg(m_socket, &p_message, 0));
        const std::size_t size = nng_msg_len(p_message);
        if (size > capacity) fail("a message that is too long");
        std::memcpy(p_bytes, nng_msg_body(p_message), size);
        m_pipes.emplace(senderOf(p_bytes), nng_msg_get_pipe(p_message));
        nng_msg_free(p_message);
        return size;
    }

private:
    nng_socket m_socket;
    std::map<unsigned int, nng_pipe> m_pipes;
};

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    auto sp_side = std::make_unique<NngSide_>(options.m_peers > 1);
    demand(nng_listen(sp_side->socket(), address(options, meeting).c_str(), nullptr, 0));
    return sp_side;
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int) {
    auto sp_side = std::make_unique<NngSide_>(false);
    demand(nng_dial(sp_side->socket(), address(options, meeting).c_str(), nullptr, 0));
    return sp_side;
}

}  // namespace

const Program_ g_program = {"nng", makeReceiver, makeSender};
