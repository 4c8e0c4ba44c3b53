// MessagePack (msgpack-cxx) beside the library: encode a populated tree of msgpack objects, maps from tag to
// value, into a buffer that keeps its storage; decode to a new tree that owns its values and read every one.

#include <msgpack.hpp>

#include "codec_payloads.h"

namespace {

constexpr unsigned int kFirstBranchTag = 100;

msgpack::object makeTen(msgpack::zone& zone, const char* p_text) {
    std::map<unsigned int, msgpack::object> leaves;
    for (unsigned int i = 0; i < kLeaves; ++i) {
        const Kind_ kind = kindOf(i);
        if (kind == Kind_::Number) leaves[i] = msgpack::object(i * 1000U + 1, zone);
        if (kind == Kind_::Text) leaves[i] = msgpack::object(std::string(p_text), zone);
        if (kind == Kind_::Bytes)
            leaves[i] = msgpack::object(std::vector<unsigned char>(kBytes, kBytes + kByteCount), zone);
    }
    return msgpack::object(leaves, zone);
}

msgpack::object makeTree(msgpack::zone& zone, Payload_ payload) {
    if (payload == OneNumber) return msgpack::object(kOneNumber, zone);
    if (payload == TenLeaves) return makeTen(zone, textOf(payload));
    std::map<unsigned int, msgpack::object> branches;
    for (unsigned int i = 0; i < kBranches; ++i)
        branches[kFirstBranchTag + i] = makeTen(zone, textOf(payload));
    return msgpack::object(branches, zone);
}

unsigned long readAll(const msgpack::object& object) {
    unsigned long sum = 0;
    switch (object.type) {
        case msgpack::type::POSITIVE_INTEGER:
            return static_cast<unsigned long>(object.via.u64);
        case msgpack::type::STR:
            return static_cast<unsigned char>(object.via.str.ptr[0]);
        case msgpack::type::BIN:
            return object.via.bin.size;
        case msgpack::type::MAP:
            for (const msgpack::object_kv& entry : object.via.map) sum += readAll(entry.val);
            return sum;
        default:
            return 0;
    }
}

}  // namespace

void encode(benchmark::State& state) {
    msgpack::zone zone;
    const msgpack::object tree = makeTree(zone, static_cast<Payload_>(state.range(0)));
    msgpack::sbuffer buffer;
    msgpack::pack(buffer, tree);
    const std::size_t size = buffer.size();
    measureCodec(state, size, size, [&]() -> unsigned long {
        buffer.clear();
        msgpack::pack(buffer, tree);
        return buffer.size();
    });
}

void decode(benchmark::State& state) {
    const auto payload = static_cast<Payload_>(state.range(0));
    msgpack::zone zone;
    msgpack::sbuffer buffer;
    msgpack::pack(buffer, makeTree(zone, payload));
    measureCodec(state, buffer.size(), sumOf(payload), [&]() -> unsigned long {
        const msgpack::object_handle handle = msgpack::unpack(buffer.data(), buffer.size());
        return readAll(handle.get());
    });
}

VEKMSG_CODEC_BENCHMARKS;
