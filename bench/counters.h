#ifndef VEKMSG_BENCH_COUNTERS_H
#define VEKMSG_BENCH_COUNTERS_H

/// What this process has asked of the system since counting began. The benchmark programs hold strong
/// definitions of these calls and of `malloc`, which the library's calls and `operator new` reach too. While
/// nothing is counted they cost every program the same load and branch.
struct Counters_ {
    unsigned long m_sends;
    unsigned long m_receives;
    unsigned long m_accepts;
    unsigned long m_polls;
    unsigned long m_others;  // queries and changes of sockets
    unsigned long m_allocations;
};

void countCalls(bool isCounting);
Counters_ counters();
Counters_ operator-(const Counters_& later, const Counters_& earlier);

#endif
