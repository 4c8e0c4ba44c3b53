// How long does it take to encode a populated tree and to decode one and read every value, and does either
// ask the heap for memory? Three payloads: one number; ten leaves; a hundred leaves in three levels, about 4
// KB.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "counters.h"
#include "message/message_binary.h"

namespace {

enum Payload_ { OneNumber, TenLeaves, HundredLeaves };

const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

void addTenLeaves(VekmsgElement_& parent, const char* p_text) {
    const unsigned char bytes[32] = {1, 2, 3};
    for (unsigned int i = 0; i < 10; ++i) {
        switch (i % 3) {
            case 0:
                parent.setSubElementValue(10 + i, i * 1000U);
                break;
            case 1:
                parent.setSubElementValue(10 + i, utf8(p_text));
                break;
            default:
                parent.setSubElementValue(10 + i, bytes, static_cast<unsigned int>(sizeof(bytes)));
                break;
        }
    }
}

SP_VekmsgElement_ makeTree(const VekMessageBinary_& message, Payload_ payload) {
    SP_VekmsgElement_ sp_root = message.createElement(5);
    if (payload == OneNumber) sp_root->setValue(7U);
    if (payload == TenLeaves) addTenLeaves(*sp_root, "a short text");
    for (unsigned int i = 0; payload == HundredLeaves && i < 10; ++i) {
        const SP_VekmsgElement_ sp_branch = message.createElement(100 + i);
        addTenLeaves(*sp_branch, "a text of some forty bytes, as names are");
        sp_root->addSubelements(sp_branch);
    }
    return sp_root;
}

SP_VekMessageBinary_ makeMessage(Payload_ payload) {
    SP_VekMessageBinary_ sp_message(new (std::nothrow) VekMessageBinary_);
    sp_message->setDestination(utf8("receiver"));
    sp_message->setSource(utf8("sender"));
    sp_message->setPayload(makeTree(*sp_message, payload));
    return sp_message;
}

/// Reads every value once; the sum keeps the compiler from leaving it out.
unsigned long readAll(VekmsgElement_& element) {
    unsigned long sum = 0;
    element.querySubelements(VEKMSGTAG_ANY);
    for (SP_VekmsgElement_ sp_child = element.getNextSubelement(); sp_child;
         sp_child = element.getNextSubelement()) {
        unsigned int number = 0;
        const Utf8Char_* p_text = nullptr;
        const unsigned char* p_bytes = nullptr;
        unsigned int length = 0;
        const VekmsgTag_ tag = sp_child->getTag();
        if (tag >= 100) {
            sum += readAll(*sp_child);
        } else if ((tag - 10) % 3 == 0) {
            sum += sp_child->getValue(number) ? number : 0;
        } else if ((tag - 10) % 3 == 1) {
            sum += sp_child->getValue(p_text) ? p_text[0] : 0;
        } else {
            sum += sp_child->getValue(p_bytes, length) ? length : 0;
        }
    }
    return sum;
}

void reportAllocations(benchmark::State& state, unsigned long before) {
    state.counters["allocations"] = benchmark::Counter(static_cast<double>(counters().m_allocations - before),
                                                       benchmark::Counter::kAvgIterations);
}

void encode(benchmark::State& state) {
    const SP_VekMessageBinary_ sp_message = makeMessage(static_cast<Payload_>(state.range(0)));
    const unsigned long before = counters().m_allocations;
    unsigned int size = 0;
    for (auto _ : state) {
        SP_BasicBuffer_ sp_buffer;
        size = sp_message->serialize(sp_buffer);
        benchmark::DoNotOptimize(sp_buffer->data());
    }
    reportAllocations(state, before);
    state.counters["bytes"] = size;
}

void decode(benchmark::State& state) {
    const auto payload = static_cast<Payload_>(state.range(0));
    SP_BasicBuffer_ sp_encoded;
    makeMessage(payload)->serialize(sp_encoded);
    const unsigned int length = sp_encoded->dataLength();
    const unsigned int offset = sp_encoded->dataOffset();
    const unsigned long before = counters().m_allocations;
    for (auto _ : state) {
        sp_encoded->setDataArea(offset, length);
        SP_VekMessageBinary_ sp_message(new (std::nothrow) VekMessageBinary_);
        sp_message->deserialize(sp_encoded);
        const SP_VekmsgElement_ sp_root = sp_message->getPayload();
        unsigned int number = 0;
        if (payload == OneNumber) {
            sp_root->getValue(number);
            benchmark::DoNotOptimize(number);
        } else {
            benchmark::DoNotOptimize(readAll(*sp_root));
        }
    }
    reportAllocations(state, before);
    state.counters["bytes"] = length;
}

BENCHMARK(encode)->Arg(OneNumber)->Arg(TenLeaves)->Arg(HundredLeaves);
BENCHMARK(decode)->Arg(OneNumber)->Arg(TenLeaves)->Arg(HundredLeaves);

}  // namespace

BENCHMARK_MAIN();
