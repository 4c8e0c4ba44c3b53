#include "proof/calls/witness.h"

#include <algorithm>
#include <cstdlib>

namespace {

SeenPlaces_ g_seen;

}  // namespace

void noteCall(SystemCalls_::Call_ call, const void* p_place, bool isStruck) {
    SeenPlace_* p_end = g_seen.m_places + g_seen.m_count;
    SeenPlace_* p_known = std::find_if(g_seen.m_places, p_end, [&](const SeenPlace_& seen) {
        return seen.m_p_return == p_place && seen.m_call == call;
    });
    if (p_known == p_end) {
        if (g_seen.m_count == sizeof(g_seen.m_places) / sizeof(*p_end)) std::abort();
        *p_end = SeenPlace_{call, p_place, false};
        ++g_seen.m_count;
    }
    p_known->m_isStruck = p_known->m_isStruck || isStruck;
}

const SeenPlaces_& seenPlaces() {
    return g_seen;
}

void forgetCalls() {
    g_seen.m_count = 0;
}
