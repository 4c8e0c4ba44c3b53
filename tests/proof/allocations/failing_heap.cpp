#include "proof/allocations/failing_heap.h"

#include <sys/socket.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <sstream>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* p_block, std::size_t size);
void __libc_free(void* p_block);
int __cxa_thread_atexit_impl(void (*function)(void*), void* p_object, void* p_library);
}

namespace {

constexpr std::size_t kMostSites = 4096;
constexpr std::size_t kMostAbandoned = 64;

thread_local bool t_isArmed = false;
thread_local bool t_isWatched = false;

/// The blocks that watched threads hold, by address, with the site that asked for each. It has a lock of its
/// own because a thread under proof and the one that waits for it both come here.
class Account_ {
public:
    void add(const void* p_block, int site) noexcept {
        const Lock_ lock(m_isLocked);
        if (m_count + 1 >= kPlaces) return;
        std::size_t place = placeOf(p_block);
        while (m_entries[place].m_p_block != nullptr) place = (place + 1) % kPlaces;
        m_entries[place] = {p_block, site};
        ++m_count;
    }

    void remove(const void* p_block) noexcept {
        const Lock_ lock(m_isLocked);
        if (m_count == 0) return;
        std::size_t place = placeOf(p_block);
        while (m_entries[place].m_p_block != p_block) {
            if (m_entries[place].m_p_block == nullptr) return;
            place = (place + 1) % kPlaces;
        }
        close(place);
        --m_count;
    }

    void clear() noexcept {
        const Lock_ lock(m_isLocked);
        for (Entry_& entry : m_entries) entry.m_p_block = nullptr;
        m_count = 0;
    }

    std::size_t count() const noexcept { return m_count; }

    /// Of one of them, or kNoSite.
    int aSite() const noexcept {
        for (const Entry_& entry : m_entries)
            if (entry.m_p_block != nullptr) return entry.m_site;
        return FailurePlan_::kNoSite;
    }

private:
    static constexpr std::size_t kPlaces = 1U << 15;

    struct Entry_ {
        const void* m_p_block;
        int m_site;
    };

    class Lock_ {
    public:
        explicit Lock_(std::atomic_flag& flag) : m_flag(flag) {
            while (m_flag.test_and_set(std::memory_order_acquire)) {
            }
        }
        ~Lock_() { m_flag.clear(std::memory_order_release); }

    private:
        std::atomic_flag& m_flag;
    };

    static std::size_t placeOf(const void* p_block) noexcept {
        return reinterpret_cast<std::uintptr_t>(p_block) / 16 % kPlaces;
    }

    /// Empties a place and moves up what was put behind it for want of its own.
    void close(std::size_t place) noexcept {
        for (std::size_t next = (place + 1) % kPlaces; m_entries[next].m_p_block != nullptr;
             next = (next + 1) % kPlaces) {
            const std::size_t distance = (next + kPlaces - placeOf(m_entries[next].m_p_block)) % kPlaces;
            if (distance < (next + kPlaces - place) % kPlaces) continue;
            m_entries[place] = m_entries[next];
            place = next;
        }
        m_entries[place].m_p_block = nullptr;
    }

    Entry_ m_entries[kPlaces];
    std::size_t m_count;
    std::atomic_flag m_isLocked;
};

Account_ g_account;  // zero from the start: the heap is used before anything is constructed

struct Walk_ {
    const LibraryMap_::Range_& m_code;
    const std::vector<LibraryMap_::Range_>& m_accepting;
    std::uintptr_t m_base;
    std::array<std::uintptr_t, AllocationSite_::kFrames> m_frames{};
    unsigned int m_count = 0;
    bool m_isAccepting = false;
};

_Unwind_Reason_Code step(_Unwind_Context* p_context, void* p_walk) {
    auto& walk = *static_cast<Walk_*>(p_walk);
    const std::uintptr_t address = _Unwind_GetIP(p_context);
    if (!walk.m_code.has(address)) return _URC_NO_REASON;
    if (walk.m_count < walk.m_frames.size()) walk.m_frames[walk.m_count++] = address - walk.m_base;
    for (const LibraryMap_::Range_& range : walk.m_accepting)
        walk.m_isAccepting = walk.m_isAccepting || range.has(address);
    return _URC_NO_REASON;
}

const char* nameOf(AllocationKind_ kind) {
    switch (kind) {
        case AllocationKind_::Throwing:
            return "throwing";
        case AllocationKind_::NonThrowing:
            return "non-throwing";
        default:
            return "malloc";
    }
}

}  // namespace

FailingHeap_::FailingHeap_() {
    m_sites.reserve(kMostSites);
    m_abandoned.reserve(kMostAbandoned);
}

FailingHeap_& FailingHeap_::get() {
    static FailingHeap_ s_heap;
    return s_heap;
}

void FailingHeap_::setLibrary(const LibraryMap_& library) {
    m_p_library = &library;
    m_code = library.code();
    m_accepting = library.functionsWith("VekSocket_6acceptE");
}

void FailingHeap_::begin(const FailurePlan_& plan, unsigned int scenario, bool isWarm) {
    m_plan = plan;
    m_scenario = scenario;
    m_isWarm = isWarm;
    m_allocations = 0;
    m_failures = 0;
    m_lastAccepted = -1;
    m_abandoned.clear();
}

FailingHeap_::Armed_::Armed_() {
    setAllocationJudge(&get());
    t_isArmed = true;
}

FailingHeap_::Armed_::~Armed_() {
    t_isArmed = false;
    setAllocationJudge(nullptr);
    get().m_lastSite = FailurePlan_::kNoSite;
}

FailingHeap_::Paused_::Paused_() : m_wasArmed(t_isArmed) {
    t_isArmed = false;
}

FailingHeap_::Paused_::~Paused_() {
    t_isArmed = m_wasArmed;
}

FailingHeap_::Unwatched_::Unwatched_() : m_wasWatched(t_isWatched) {
    t_isWatched = false;
}

FailingHeap_::Unwatched_::~Unwatched_() {
    t_isWatched = m_wasWatched;
}

void FailingHeap_::watchThisThread() {
    t_isWatched = true;
}

void FailingHeap_::noteAccepted(int descriptor) {
    if (t_isArmed) m_lastAccepted = descriptor;
}

unsigned int FailingHeap_::heldBlocks() const {
    return static_cast<unsigned int>(g_account.count());
}

std::string FailingHeap_::siteOfHeldBlock() const {
    const int site = g_account.aSite();
    return site == FailurePlan_::kNoSite ? "outside of what is proved" : describe(m_sites.at(site));
}

void FailingHeap_::forgetHeldBlocks() {
    g_account.clear();
}

void FailingHeap_::noteThreadEnd() {
    if (!t_isArmed) return;
    ++m_threadEnds;
    if (m_plan.m_mode == FailureMode_::AllAfter && m_failures != 0) ++m_fatalThreadEnds;
}

std::string FailingHeap_::describe(const AllocationSite_& site) const {
    std::ostringstream text;
    text << nameOf(site.m_kind);
    const char* p_separator = ": ";
    for (const std::uintptr_t frame : site.m_frames) {
        if (frame == 0) break;
        text << p_separator << m_p_library->nameAt(frame) << " (0x" << std::hex << frame << ")";
        p_separator = " < ";
    }
    return text.str();
}

int FailingHeap_::siteHere(AllocationKind_ kind, bool& isAccepting) noexcept {
    Walk_ walk{m_code, m_accepting, m_p_library->base()};
    _Unwind_Backtrace(step, &walk);
    isAccepting = walk.m_isAccepting;
    if (walk.m_count == 0) return FailurePlan_::kNoSite;  // the application's own
    // Memory taken on trial is the same wherever a thread happens to keep something for the first time.
    if (kind == AllocationKind_::C) std::fill(walk.m_frames.begin() + 1, walk.m_frames.end(), 0);
    for (std::size_t i = 0; i < m_sites.size(); ++i)
        if (m_sites[i].m_kind == kind && m_sites[i].m_frames == walk.m_frames) return static_cast<int>(i);
    if (m_sites.size() == kMostSites) std::abort();
    m_sites.push_back({walk.m_frames, kind, false, 0, m_scenario, m_isWarm, m_plan});
    return static_cast<int>(m_sites.size() - 1);
}

bool FailingHeap_::isPlanned(AllocationKind_ kind) const noexcept {
    if (m_plan.m_mode == FailureMode_::None || m_allocations < m_plan.m_number) return false;
    switch (m_plan.m_mode) {
        case FailureMode_::One:
            return m_allocations == m_plan.m_number;
        case FailureMode_::NonThrowing:
            return kind != AllocationKind_::Throwing;
        case FailureMode_::Throwing:
            return kind == AllocationKind_::Throwing;
        case FailureMode_::EveryOther:
            return (m_allocations - m_plan.m_number) % 2 == 0;
        default:
            return true;
    }
}

bool FailingHeap_::mustFail(AllocationKind_ kind) noexcept {
    m_lastSite = FailurePlan_::kNoSite;
    if (!t_isArmed) return false;
    const Paused_ paused;
    bool isAccepting = false;
    const int site = siteHere(kind, isAccepting);
    m_lastSite = site;
    if (site == FailurePlan_::kNoSite) return false;
    ++m_allocations;
    m_sites[site].m_isSeenUnfailed = m_sites[site].m_isSeenUnfailed || m_plan.m_mode == FailureMode_::None;
    if (!isPlanned(kind) && !m_plan.isAimedAt(site)) return false;
    ++m_failures;
    ++m_sites[site].m_failures;
    if (isAccepting && m_abandoned.size() < kMostAbandoned) m_abandoned.push_back(m_lastAccepted);
    return true;
}

bool FailingHeap_::mustFailInC() noexcept {
    if (isInsideNew())
        return t_isArmed && m_lastSite != FailurePlan_::kNoSite && m_failures != 0 &&
               m_plan.m_mode == FailureMode_::AllAfter;
    return mustFail(AllocationKind_::C);
}

void FailingHeap_::given(void* p_block) noexcept {
    if (t_isWatched && p_block != nullptr) g_account.add(p_block, m_lastSite);
}

void FailingHeap_::taken(const void* p_block) noexcept {
    if (p_block != nullptr) g_account.remove(p_block);
}

// What is replaced. Before a thread is watched or armed these only pass on: the heap works from the first
// moment of the process.

extern "C" {

void* malloc(std::size_t size) noexcept {
    if (!t_isArmed && !t_isWatched) return __libc_malloc(size);
    FailingHeap_& heap = FailingHeap_::get();
    if (heap.mustFailInC()) {
        errno = ENOMEM;
        return nullptr;
    }
    void* p_block = __libc_malloc(size);
    heap.given(p_block);
    return p_block;
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    if (!t_isArmed && !t_isWatched) return __libc_calloc(count, size);
    FailingHeap_& heap = FailingHeap_::get();
    if (heap.mustFailInC()) {
        errno = ENOMEM;
        return nullptr;
    }
    void* p_block = __libc_calloc(count, size);
    heap.given(p_block);
    return p_block;
}

void* realloc(void* p_block, std::size_t size) noexcept {
    if (!t_isArmed && !t_isWatched && g_account.count() == 0) return __libc_realloc(p_block, size);
    FailingHeap_& heap = FailingHeap_::get();
    if (heap.mustFailInC()) {
        errno = ENOMEM;
        return nullptr;
    }
    heap.taken(p_block);
    void* p_moved = __libc_realloc(p_block, size);
    heap.given(p_moved);
    return p_moved;
}

void free(void* p_block) noexcept {
    if (p_block != nullptr && g_account.count() != 0) g_account.remove(p_block);
    __libc_free(p_block);
}

/// glibc ends the process itself when it finds no memory to note what runs at a thread's end, so that this
/// never fails here; it is counted, and it must not come when memory is gone.
int __cxa_thread_atexit(void (*function)(void*), void* p_object, void* p_library) noexcept {
    FailingHeap_::get().noteThreadEnd();
    const FailingHeap_::Paused_ paused;
    return __cxa_thread_atexit_impl(function, p_object, p_library);
}

int accept(int listener, sockaddr* p_address, socklen_t* p_length) {
    const int descriptor = accept4(listener, p_address, p_length, 0);
    FailingHeap_::get().noteAccepted(descriptor);
    return descriptor;
}

}  // extern "C"
