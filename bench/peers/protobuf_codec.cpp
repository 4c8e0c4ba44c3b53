// Protocol Buffers beside the library: encode from a populated object into a string that keeps its storage;
// decode to a new object and read every value.

#include <string>

#include "codec_payloads.h"
#include "payload.pb.h"

namespace {

using vekmsg_bench::Hundred;
using vekmsg_bench::One;
using vekmsg_bench::Ten;

void fill(One& one, Payload_) {
    one.set_number(kOneNumber);
}
void fill(Ten& ten, Payload_ payload) {
    ten.set_n0(1);
    ten.set_n3(3001);
    ten.set_n6(6001);
    ten.set_n9(9001);
    for (std::string* p_text : {ten.mutable_t1(), ten.mutable_t4(), ten.mutable_t7()})
        *p_text = textOf(payload);
    for (std::string* p_bytes : {ten.mutable_b2(), ten.mutable_b5(), ten.mutable_b8()})
        p_bytes->assign(reinterpret_cast<const char*>(kBytes), kByteCount);
}
void fill(Hundred& hundred, Payload_ payload) {
    for (unsigned int i = 0; i < kBranches; ++i) fill(*hundred.add_branches(), payload);
}

unsigned long readAll(const One& one) {
    return one.number();
}
unsigned long readAll(const Ten& ten) {
    const auto letter = [](const std::string& text) { return static_cast<unsigned char>(text[0]); };
    return 0UL + ten.n0() + ten.n3() + ten.n6() + ten.n9() + letter(ten.t1()) + letter(ten.t4()) +
           letter(ten.t7()) + ten.b2().size() + ten.b5().size() + ten.b8().size();
}
unsigned long readAll(const Hundred& hundred) {
    unsigned long sum = 0;
    for (const Ten& branch : hundred.branches()) sum += readAll(branch);
    return sum;
}

template <class Object>
void encodeObject(benchmark::State& state, Payload_ payload) {
    Object object;
    fill(object, payload);
    std::string encoded;
    object.SerializeToString(&encoded);
    const std::size_t size = encoded.size();
    measureCodec(state, size, size, [&]() -> unsigned long {
        object.SerializeToString(&encoded);
        return encoded.size();
    });
}

template <class Object>
void decodeObject(benchmark::State& state, Payload_ payload) {
    Object original;
    fill(original, payload);
    const std::string encoded = original.SerializeAsString();
    measureCodec(state, encoded.size(), sumOf(payload), [&]() -> unsigned long {
        Object object;
        return object.ParseFromString(encoded) ? readAll(object) : 0;
    });
}

}  // namespace

void encode(benchmark::State& state) {
    const auto payload = static_cast<Payload_>(state.range(0));
    if (payload == OneNumber) encodeObject<One>(state, payload);
    if (payload == TenLeaves) encodeObject<Ten>(state, payload);
    if (payload == HundredLeaves) encodeObject<Hundred>(state, payload);
}

void decode(benchmark::State& state) {
    const auto payload = static_cast<Payload_>(state.range(0));
    if (payload == OneNumber) decodeObject<One>(state, payload);
    if (payload == TenLeaves) decodeObject<Ten>(state, payload);
    if (payload == HundredLeaves) decodeObject<Hundred>(state, payload);
}

VEKMSG_CODEC_BENCHMARKS;
