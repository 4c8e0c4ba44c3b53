// FlatBuffers beside the library: encode from a populated object of its object interface, with a builder that
// keeps its storage; decode by verifying the bytes and unpacking them to a new object, and read every value.

#include "codec_payloads.h"
#include "payload_generated.h"

namespace {

using vekmsg_flat::Hundred;
using vekmsg_flat::HundredT;
using vekmsg_flat::One;
using vekmsg_flat::OneT;
using vekmsg_flat::Ten;
using vekmsg_flat::TenT;

void fill(OneT& one, Payload_) {
    one.number = kOneNumber;
}
void fill(TenT& ten, Payload_ payload) {
    ten.n0 = 1;
    ten.n3 = 3001;
    ten.n6 = 6001;
    ten.n9 = 9001;
    for (std::string* p_text : {&ten.t1, &ten.t4, &ten.t7}) *p_text = textOf(payload);
    for (std::vector<std::uint8_t>* p_bytes : {&ten.b2, &ten.b5, &ten.b8})
        p_bytes->assign(kBytes, kBytes + kByteCount);
}
void fill(HundredT& hundred, Payload_ payload) {
    for (unsigned int i = 0; i < kBranches; ++i) {
        hundred.branches.push_back(std::make_unique<TenT>());
        fill(*hundred.branches.back(), payload);
    }
}

unsigned long readAll(const OneT& one) {
    return one.number;
}
unsigned long readAll(const TenT& ten) {
    const auto letter = [](const std::string& text) { return static_cast<unsigned char>(text[0]); };
    return 0UL + ten.n0 + ten.n3 + ten.n6 + ten.n9 + letter(ten.t1) + letter(ten.t4) + letter(ten.t7) +
           ten.b2.size() + ten.b5.size() + ten.b8.size();
}
unsigned long readAll(const HundredT& hundred) {
    unsigned long sum = 0;
    for (const auto& sp_branch : hundred.branches) sum += readAll(*sp_branch);
    return sum;
}

template <class Table>
void encodeTable(benchmark::State& state, Payload_ payload) {
    typename Table::NativeTableType object;
    fill(object, payload);
    flatbuffers::FlatBufferBuilder builder;
    builder.Finish(Table::Pack(builder, &object));
    const std::size_t size = builder.GetSize();
    measureCodec(state, size, size, [&]() -> unsigned long {
        builder.Clear();
        builder.Finish(Table::Pack(builder, &object));
        return builder.GetSize();
    });
}

template <class Table>
void decodeTable(benchmark::State& state, Payload_ payload) {
    typename Table::NativeTableType original;
    fill(original, payload);
    flatbuffers::FlatBufferBuilder builder;
    builder.Finish(Table::Pack(builder, &original));
    measureCodec(state, builder.GetSize(), sumOf(payload), [&]() -> unsigned long {
        flatbuffers::Verifier verifier(builder.GetBufferPointer(), builder.GetSize());
        if (!verifier.VerifyBuffer<Table>()) return 0;
        typename Table::NativeTableType object;
        flatbuffers::GetRoot<Table>(builder.GetBufferPointer())->UnPackTo(&object);
        return readAll(object);
    });
}

}  // namespace

void encode(benchmark::State& state) {
    const auto payload = static_cast<Payload_>(state.range(0));
    if (payload == OneNumber) encodeTable<One>(state, payload);
    if (payload == TenLeaves) encodeTable<Ten>(state, payload);
    if (payload == HundredLeaves) encodeTable<Hundred>(state, payload);
}

void decode(benchmark::State& state) {
    const auto payload = static_cast<Payload_>(state.range(0));
    if (payload == OneNumber) decodeTable<One>(state, payload);
    if (payload == TenLeaves) decodeTable<Ten>(state, payload);
    if (payload == HundredLeaves) decodeTable<Hundred>(state, payload);
}

VEKMSG_CODEC_BENCHMARKS;
