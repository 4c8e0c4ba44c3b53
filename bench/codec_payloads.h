#ifndef VEKMSG_BENCH_CODEC_PAYLOADS_H
#define VEKMSG_BENCH_CODEC_PAYLOADS_H

#include <benchmark/benchmark.h>

#include <cstddef>

#include "counters.h"

// The payloads of every codec benchmark: one number; ten leaves (four numbers, three texts, three byte
// strings); a hundred leaves in three levels, about 4 KB.

enum Payload_ { OneNumber, TenLeaves, HundredLeaves };

constexpr unsigned int kOneNumber = 7;
constexpr unsigned int kBranches = 10;
constexpr unsigned int kLeaves = 10;
constexpr unsigned int kByteCount = 32;
constexpr unsigned char kBytes[kByteCount] = {1, 2, 3};

/// Leaf `i` of a branch is the number i * 1000 + 1, a text or the bytes, in turn. No number is zero, which
/// some encodings leave out.
enum class Kind_ { Number, Text, Bytes };
inline Kind_ kindOf(unsigned int leaf) {
    return leaf % 3 == 0 ? Kind_::Number : leaf % 3 == 1 ? Kind_::Text : Kind_::Bytes;
}
inline const char* textOf(Payload_ payload) {
    return payload == TenLeaves ? "a short text" : "a text of some forty bytes, as names are";
}

/// What reading every value once adds up to: numbers, first letters of texts, lengths of byte strings.
inline unsigned long sumOf(Payload_ payload) {
    const unsigned long ofTen = (0 + 3 + 6 + 9) * 1000 + 4 + 3 * 'a' + 3 * kByteCount;
    return payload == OneNumber ? kOneNumber : payload == TenLeaves ? ofTen : kBranches * ofTen;
}

/// Runs `work` for the time that the state wants. `work` gives a number that has to be `expected` each time.
template <class Work>
void measureCodec(benchmark::State& state, std::size_t bytes, unsigned long expected, const Work& work) {
    if (work() != expected) state.SkipWithError("a wrong result");
    for (auto _ : state) benchmark::DoNotOptimize(work());
    // Counted by themselves: counting would slow the others down.
    constexpr unsigned long kCounted = 1000;
    const unsigned long before = counters().m_allocations;
    countCalls(true);
    for (unsigned long i = 0; i < kCounted; ++i) benchmark::DoNotOptimize(work());
    countCalls(false);
    state.counters["allocations"] =
        static_cast<double>(counters().m_allocations - before) / static_cast<double>(kCounted);
    state.counters["bytes"] = static_cast<double>(bytes);
}

void encode(benchmark::State& state);
void decode(benchmark::State& state);

#define VEKMSG_CODEC_BENCHMARKS                                            \
    BENCHMARK(encode)->Arg(OneNumber)->Arg(TenLeaves)->Arg(HundredLeaves); \
    BENCHMARK(decode)->Arg(OneNumber)->Arg(TenLeaves)->Arg(HundredLeaves); \
    BENCHMARK_MAIN()

#endif
