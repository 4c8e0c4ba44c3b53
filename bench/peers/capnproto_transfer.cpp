// Cap'n Proto RPC beside the library: a message is a call, a message back is its result. A call to which
// nothing is said is answered with an empty result when the next one is taken.

#include <capnp/rpc-twoparty.h>
#include <kj/async-io.h>

#include <cstring>
#include <deque>
#include <list>

#include "transfer.capnp.h"
#include "transfer.h"

namespace {

kj::AsyncIoContext& io() {
    static kj::AsyncIoContext& s_context = *new kj::AsyncIoContext(kj::setupAsyncIo());
    return s_context;
}

kj::Own<kj::NetworkAddress> address(const Options_& options, const Meeting_& meeting) {
    const std::string text =
        options.m_isTcp ? "127.0.0.1:" + meeting.m_receiverPort : "unix:" + meeting.m_folder + "/receiver";
    return io().provider->getNetwork().parseAddress(text.c_str()).wait(io().waitScope);
}

using TakeContext_ = capnp::CallContext<Transfer::TakeParams, Transfer::TakeResults>;

/// A call that has not been answered yet.
struct Call_ {
    TakeContext_ m_context;
    kj::Own<kj::PromiseFulfiller<void>> m_sp_done;
};

class CallQueue_ {
public:
    void add(TakeContext_ context, kj::Own<kj::PromiseFulfiller<void>> sp_done) {
        m_calls.push_back({context, kj::mv(sp_done)});
        if (m_sp_waiter.get() != nullptr) m_sp_waiter->fulfill();
    }
    Call_ next() {
        while (m_calls.empty()) {
            auto waiting = kj::newPromiseAndFulfiller<void>();
            m_sp_waiter = kj::mv(waiting.fulfiller);
            waiting.promise.wait(io().waitScope);
            m_sp_waiter = nullptr;
        }
        Call_ call = kj::mv(m_calls.front());
        m_calls.pop_front();
        return call;
    }

private:
    std::deque<Call_> m_calls;
    kj::Own<kj::PromiseFulfiller<void>> m_sp_waiter;
};

class TransferServer_ final : public Transfer::Server {
public:
    explicit TransferServer_(CallQueue_& queue) : m_queue(queue) {}
    kj::Promise<void> take(TakeContext_ context) override {
        auto done = kj::newPromiseAndFulfiller<void>();
        m_queue.add(context, kj::mv(done.fulfiller));
        return kj::mv(done.promise);
    }

private:
    CallQueue_& m_queue;
};

class CapnprotoReceiver_ : public Side_ {
public:
    // The members' destructors may throw, and then nothing is left to save.
    ~CapnprotoReceiver_() noexcept override {}
    CapnprotoReceiver_(const Options_& options, const Meeting_& meeting)
        : m_sp_listener(address(options, meeting)->listen()),
          m_server(kj::heap<TransferServer_>(m_queue)),
          m_serving(m_server.listen(*m_sp_listener).eagerlyEvaluate([](kj::Exception&& fault) {
              fail(fault.getDescription().cStr());
          })) {}

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        for (auto call = m_open.begin(); call != m_open.end(); ++call) {
            if (call->first != to) continue;
            call->second.m_context.getResults().setReply(kj::arrayPtr(p_bytes, size));
            call->second.m_sp_done->fulfill();
            m_open.erase(call);
            // Results leave when the event loop runs.
            kj::evalLast([] {}).wait(io().waitScope);
            return;
        }
        fail("finding a call to answer");
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        Call_ call = m_queue.next();
        const capnp::Data::Reader data = call.m_context.getParams().getData();
        if (data.size() > capacity) fail("a message that is too long");
        std::memcpy(p_bytes, data.begin(), data.size());
        const std::size_t size = data.size();
        const unsigned int from = senderOf(p_bytes);
        call.m_context.releaseParams();
        releaseOpen(from);
        m_open.emplace_back(from, kj::mv(call));
        return size;
    }

private:
    /// One open call for each sender is enough to answer.
    void releaseOpen(unsigned int from) {
        for (auto call = m_open.begin(); call != m_open.end(); ++call) {
            if (call->first != from) continue;
            call->second.m_context.getResults(capnp::MessageSize{4, 0});
            call->second.m_sp_done->fulfill();
            m_open.erase(call);
            return;
        }
    }

    CallQueue_ m_queue;
    std::list<std::pair<unsigned int, Call_>> m_open;
    kj::Own<kj::ConnectionReceiver> m_sp_listener;
    capnp::TwoPartyServer m_server;
    kj::Promise<void> m_serving;
};

class CapnprotoSender_ : public Side_ {
public:
    ~CapnprotoSender_() noexcept override {}
    CapnprotoSender_(const Options_& options, const Meeting_& meeting)
        : m_sp_stream(address(options, meeting)->connect().wait(io().waitScope)),
          m_client(*m_sp_stream),
          m_transfer(m_client.bootstrap().castAs<Transfer>()) {}

    void send(unsigned int, const unsigned char* p_bytes, std::size_t size) override {
        auto request = m_transfer.takeRequest(capnp::MessageSize{size / sizeof(capnp::word) + 8, 0});
        request.setData(kj::arrayPtr(p_bytes, size));
        m_answers.push_back(request.send());
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        for (;;) {
            if (m_answers.empty()) fail("waiting for an answer");
            auto promise = kj::mv(m_answers.front());
            m_answers.pop_front();
            const auto answer = promise.wait(io().waitScope);
            const capnp::Data::Reader reply = answer.getReply();
            if (reply.size() == 0) continue;
            if (reply.size() > capacity) fail("a message that is too long");
            std::memcpy(p_bytes, reply.begin(), reply.size());
            return reply.size();
        }
    }

private:
    kj::Own<kj::AsyncIoStream> m_sp_stream;
    capnp::TwoPartyClient m_client;
    Transfer::Client m_transfer;
    std::deque<capnp::RemotePromise<Transfer::TakeResults>> m_answers;
};

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    return std::make_unique<CapnprotoReceiver_>(options, meeting);
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int) {
    return std::make_unique<CapnprotoSender_>(options, meeting);
}

}  // namespace

const Program_ g_program = {"Cap'n Proto", makeReceiver, makeSender};
