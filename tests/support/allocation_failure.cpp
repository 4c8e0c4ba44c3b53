#include "support/allocation_failure.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>

namespace {

struct Plan_ {
    unsigned long m_count;    // allocations so far
    unsigned long m_failing;  // the one that fails; 0: none
    bool m_failsAllAfter;
    bool m_hasStruck;
};

thread_local Plan_ t_plan{0, 0, false, false};
thread_local AllocationJudge_* t_p_judge = nullptr;
thread_local bool t_isInsideNew = false;
thread_local unsigned long t_releases = 0;
std::atomic<long> g_live{0};

struct InsideNew_ {
    InsideNew_() { t_isInsideNew = true; }
    ~InsideNew_() { t_isInsideNew = false; }
};

bool mustFail(AllocationKind_ kind) noexcept {
    Plan_& plan = t_plan;
    ++plan.m_count;
    if (t_p_judge != nullptr && t_p_judge->mustFail(kind)) return true;
    if (plan.m_failing == 0) return false;
    const bool fails = plan.m_failsAllAfter ? plan.m_count >= plan.m_failing : plan.m_count == plan.m_failing;
    plan.m_hasStruck = plan.m_hasStruck || fails;
    return fails;
}

void* allocate(std::size_t size, AllocationKind_ kind) noexcept {
    void* p_memory = mustFail(kind) ? nullptr : std::malloc(size != 0 ? size : 1);
    if (p_memory != nullptr) ++g_live;
    return p_memory;
}

void* allocateOrThrow(std::size_t size) {
    const InsideNew_ inside;
    void* p_memory = allocate(size, AllocationKind_::Throwing);
    if (p_memory == nullptr) throw std::bad_alloc();
    return p_memory;
}

void* allocateOrGiveNull(std::size_t size) noexcept {
    const InsideNew_ inside;
    return allocate(size, AllocationKind_::NonThrowing);
}

void release(void* p_memory) noexcept {
    if (p_memory == nullptr) return;
    ++t_releases;
    --g_live;
    std::free(p_memory);
}

}  // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrGiveNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrGiveNull(size);
}
void operator delete(void* p_memory) noexcept {
    release(p_memory);
}
void operator delete[](void* p_memory) noexcept {
    release(p_memory);
}
void operator delete(void* p_memory, std::size_t) noexcept {
    release(p_memory);
}
void operator delete[](void* p_memory, std::size_t) noexcept {
    release(p_memory);
}
void operator delete(void* p_memory, const std::nothrow_t&) noexcept {
    release(p_memory);
}
void operator delete[](void* p_memory, const std::nothrow_t&) noexcept {
    release(p_memory);
}

AllocationFailure_::AllocationFailure_(unsigned int number, bool andAllAfter) {
    t_plan.m_failing = t_plan.m_count + number;
    t_plan.m_failsAllAfter = andAllAfter;
    t_plan.m_hasStruck = false;
}

AllocationFailure_::~AllocationFailure_() {
    t_plan.m_failing = 0;
}

void setAllocationJudge(AllocationJudge_* p_judge) {
    t_p_judge = p_judge;
}

bool isInsideNew() {
    return t_isInsideNew;
}

bool AllocationFailure_::hasStruck() const {
    return t_plan.m_hasStruck;
}

unsigned long allocationCount() {
    return t_plan.m_count;
}

unsigned long releaseCount() {
    return t_releases;
}

long liveAllocations() {
    return g_live;
}

void inFreshThread(const std::function<void()>& scenario) {
    std::thread(scenario).join();
}
