#ifndef VEKMSG_TESTS_PROOF_WITNESS_H
#define VEKMSG_TESTS_PROOF_WITNESS_H

#include <cstddef>

#include "support/system_calls.h"

/// A place in the library from which a call was made, by where the call returns to.
struct SeenPlace_ {
    SystemCalls_::Call_ m_call;
    const void* m_p_return;
    bool m_isStruck;  // a plan had this call fail
};

/// The places seen since the last `forgetCalls`. They lie in fixed room, so that seeing one needs no memory.
struct SeenPlaces_ {
    const SeenPlace_* begin() const { return m_places; }
    const SeenPlace_* end() const { return m_places + m_count; }

    SeenPlace_ m_places[128];
    std::size_t m_count;
};

void noteCall(SystemCalls_::Call_ call, const void* p_place, bool isStruck);
const SeenPlaces_& seenPlaces();
void forgetCalls();

#endif
