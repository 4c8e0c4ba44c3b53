// Cap'n Proto beside the library. Its object is laid out as it travels, so that encoding is one copy;
// decoding to an owned tree copies what a reader sees into a message of its own, from which every value is
// read.

#include <capnp/message.h>
#include <capnp/serialize.h>

#include "codec_payloads.h"
#include "payload.capnp.h"

namespace {

void fill(One::Builder one, Payload_) {
    one.setNumber(kOneNumber);
}
void fill(Ten::Builder ten, Payload_ payload) {
    const auto bytes = kj::arrayPtr(kBytes, kByteCount);
    const char* p_text = textOf(payload);
    ten.setN0(1);
    ten.setT1(p_text);
    ten.setB2(bytes);
    ten.setN3(3001);
    ten.setT4(p_text);
    ten.setB5(bytes);
    ten.setN6(6001);
    ten.setT7(p_text);
    ten.setB8(bytes);
    ten.setN9(9001);
}
void fill(Hundred::Builder hundred, Payload_ payload) {
    for (Ten::Builder branch : hundred.initBranches(kBranches)) fill(branch, payload);
}

unsigned long readAll(One::Reader one) {
    return one.getNumber();
}
unsigned long readAll(Ten::Reader ten) {
    const auto letter = [](capnp::Text::Reader text) { return static_cast<unsigned char>(text[0]); };
    return 0UL + ten.getN0() + ten.getN3() + ten.getN6() + ten.getN9() + letter(ten.getT1()) +
           letter(ten.getT4()) + letter(ten.getT7()) + ten.getB2().size() + ten.getB5().size() +
           ten.getB8().size();
}
unsigned long readAll(Hundred::Reader hundred) {
    unsigned long sum = 0;
    for (const Ten::Reader branch : hundred.getBranches()) sum += readAll(branch);
    return sum;
}

template <class Object>
void encodeObject(benchmark::State& state, Payload_ payload) {
    capnp::MallocMessageBuilder message;
    fill(message.initRoot<Object>(), payload);
    const std::size_t size = capnp::messageToFlatArray(message).asBytes().size();
    measureCodec(state, size, size,
                 [&]() -> unsigned long { return capnp::messageToFlatArray(message).asBytes().size(); });
}

template <class Object>
void decodeObject(benchmark::State& state, Payload_ payload) {
    capnp::MallocMessageBuilder original;
    fill(original.initRoot<Object>(), payload);
    const auto encoded = capnp::messageToFlatArray(original);
    measureCodec(state, encoded.asBytes().size(), sumOf(payload), [&]() -> unsigned long {
        capnp::FlatArrayMessageReader reader(encoded);
        capnp::MallocMessageBuilder owned;
        owned.setRoot(reader.getRoot<Object>());
        return readAll(owned.getRoot<Object>().asReader());
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
