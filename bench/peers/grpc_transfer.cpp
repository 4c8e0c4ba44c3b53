// gRPC beside the library: one bidirectional stream for each sender. The receiver serves them from a
// completion queue on its one thread, which is what gRPC recommends for latency; the senders use the
// synchronous interface.

#include <grpcpp/grpcpp.h>

#include <cstring>
#include <deque>
#include <map>

#include "transfer.grpc.pb.h"
#include "transfer.h"

namespace {

using vekmsg_bench::Block;
using vekmsg_bench::Transfer;

std::string target(const Options_& options, const Meeting_& meeting) {
    return options.m_isTcp ? "127.0.0.1:" + meeting.m_receiverPort : "unix:" + meeting.m_folder + "/receiver";
}

std::size_t handOut(const Block& block, unsigned char* p_bytes, std::size_t capacity) {
    if (block.data().size() > capacity) fail("a message that is too long");
    std::memcpy(p_bytes, block.data().data(), block.data().size());
    return block.data().size();
}

/// A stream that a sender has opened. Its three tags are its address and the two behind it.
struct Stream_ {
    enum Event_ : std::uintptr_t { Opened, Read, Written };

    void* tag(Event_ event) { return reinterpret_cast<char*>(this) + event; }

    alignas(8) grpc::ServerContext m_context;
    grpc::ServerAsyncReaderWriter<Block, Block> m_stream{&m_context};
    Block m_incoming;
    bool m_isWriting = false;
};

class GrpcReceiver_ : public Side_ {
public:
    GrpcReceiver_(const Options_& options, const Meeting_& meeting) {
        grpc::ServerBuilder builder;
        builder.AddListeningPort(target(options, meeting), grpc::InsecureServerCredentials());
        builder.RegisterService(&m_service);
        m_sp_queue = builder.AddCompletionQueue();
        m_sp_server = builder.BuildAndStart();
        if (!m_sp_server) fail("starting a server");
        expectStream();
    }
    ~GrpcReceiver_() override {
        m_sp_server->Shutdown();
        m_sp_queue->Shutdown();
    }

    void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) override {
        Stream_& stream = *m_routes.at(to);
        Block block;
        block.set_data(p_bytes, size);
        while (stream.m_isWriting) work();
        stream.m_isWriting = true;
        stream.m_stream.Write(block, stream.tag(Stream_::Written));
    }

    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        while (m_taken.empty()) work();
        const auto [block, p_stream] = std::move(m_taken.front());
        m_taken.pop_front();
        const std::size_t size = handOut(block, p_bytes, capacity);
        m_routes.emplace(senderOf(p_bytes), p_stream);
        return size;
    }

private:
    void expectStream() {
        m_streams.push_back(std::make_unique<Stream_>());
        Stream_& stream = *m_streams.back();
        m_service.RequestExchange(&stream.m_context, &stream.m_stream, m_sp_queue.get(), m_sp_queue.get(),
                                  stream.tag(Stream_::Opened));
    }
    void work() {
        void* p_tag = nullptr;
        bool isFine = false;
        if (!m_sp_queue->Next(&p_tag, &isFine) || !isFine) fail("working");
        const std::uintptr_t event = reinterpret_cast<std::uintptr_t>(p_tag) % 8;
        Stream_& stream = *reinterpret_cast<Stream_*>(static_cast<char*>(p_tag) - event);
        if (event == Stream_::Written) {
            stream.m_isWriting = false;
            return;
        }
        if (event == Stream_::Opened) expectStream();
        if (event == Stream_::Read) m_taken.emplace_back(std::move(stream.m_incoming), &stream);
        stream.m_stream.Read(&stream.m_incoming, stream.tag(Stream_::Read));
    }

    Transfer::AsyncService m_service;
    std::unique_ptr<grpc::ServerCompletionQueue> m_sp_queue;
    std::unique_ptr<grpc::Server> m_sp_server;
    std::vector<std::unique_ptr<Stream_>> m_streams;
    std::deque<std::pair<Block, Stream_*>> m_taken;
    std::map<unsigned int, Stream_*> m_routes;
};

class GrpcSender_ : public Side_ {
public:
    GrpcSender_(const Options_& options, const Meeting_& meeting) {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a connection of its own
        m_sp_stub = Transfer::NewStub(grpc::CreateCustomChannel(
            target(options, meeting), grpc::InsecureChannelCredentials(), arguments));
        m_sp_stream = m_sp_stub->Exchange(&m_context);
    }
    ~GrpcSender_() override { m_context.TryCancel(); }

    void send(unsigned int, const unsigned char* p_bytes, std::size_t size) override {
        m_outgoing.set_data(p_bytes, size);
        if (!m_sp_stream->Write(m_outgoing)) fail("sending");
    }
    std::size_t receive(unsigned char* p_bytes, std::size_t capacity) override {
        if (!m_sp_stream->Read(&m_incoming)) fail("receiving");
        return handOut(m_incoming, p_bytes, capacity);
    }

private:
    grpc::ClientContext m_context;
    std::unique_ptr<Transfer::Stub> m_sp_stub;
    std::unique_ptr<grpc::ClientReaderWriter<Block, Block>> m_sp_stream;
    Block m_outgoing;
    Block m_incoming;
};

std::unique_ptr<Side_> makeReceiver(const Options_& options, const Meeting_& meeting) {
    return std::make_unique<GrpcReceiver_>(options, meeting);
}

std::unique_ptr<Side_> makeSender(const Options_& options, const Meeting_& meeting, unsigned int) {
    return std::make_unique<GrpcSender_>(options, meeting);
}

}  // namespace

const Program_ g_program = {"gRPC", makeReceiver, makeSender};
