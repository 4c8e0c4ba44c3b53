#ifndef VEKMSG_BENCH_COUNTERS_H
#define VEKMSG_BENCH_COUNTERS_H

/// What this process has asked of the system so far. The benchmark programs hold strong definitions of these
/// calls and of `operator new`, which the library's calls reach too; counting costs every program the same.
struct Counters_ {
    unsigned long m_sends;
    unsigned long m_receives;
    unsigned long m_accepts;
    unsigned long m_polls;
    unsigned long m_allocations;
};

Counters_ counters();

#endif
