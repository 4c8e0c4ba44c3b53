#ifndef VEKMSG_TESTS_PROOF_FAILING_HEAP_H
#define VEKMSG_TESTS_PROOF_FAILING_HEAP_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "proof/allocations/library_map.h"
#include "support/allocation_failure.h"

/// What fails, from the chosen allocation on.
enum class FailureMode_ { None, One, AllAfter, NonThrowing, Throwing, EveryOther };

/// One point: in which mode, and with which allocation, failing begins; 1 is the first that the library
/// makes. `m_aims` are sites at which all allocations fail in addition.
struct FailurePlan_ {
    static constexpr int kNoSite = -1;
    static constexpr unsigned int kMostAims = 3;

    bool isAimed() const noexcept { return m_aims[0] != kNoSite; }
    bool isAimedAt(int site) const noexcept {
        return std::find(m_aims.begin(), m_aims.end(), site) != m_aims.end();
    }
    /// The first aim goes when there are too many.
    void addAim(int site) noexcept {
        std::rotate(m_aims.begin(), m_aims.end() - 1, m_aims.end());
        m_aims[0] = site;
    }

    FailureMode_ m_mode = FailureMode_::None;
    unsigned int m_number = 0;
    std::array<int, kMostAims> m_aims{kNoSite, kNoSite, kNoSite};
};

/// A place in the library that asks for memory, itself or by way of the libraries beneath it: the innermost
/// return addresses in it, from its start; 0 where there are fewer. One alone would make all users of a
/// container's code one site.
struct AllocationSite_ {
    static constexpr unsigned int kFrames = 3;

    std::array<std::uintptr_t, kFrames> m_frames;
    AllocationKind_ m_kind;
    bool m_isSeenUnfailed;
    unsigned long m_failures;
    unsigned int m_scenario;  // where it was seen first: the scenario, its variant and plan
    bool m_isWarm;
    FailurePlan_ m_plan;
};

/// The process's heap: it gives and takes, keeps account of what the threads under proof hold, and fails the
/// allocations of the library by plan. Replaces malloc and its like; `operator new` is replaced by
/// support/allocation_failure.cpp.
class FailingHeap_ : public AllocationJudge_ {
public:
    static FailingHeap_& get();

    /// Has to be called before anything else.
    void setLibrary(const LibraryMap_& library);

    /// From now on the library's allocations are counted from 1, and fail by `plan`, while an Armed_ lives.
    void begin(const FailurePlan_& plan, unsigned int scenario, bool isWarm);

    /// As begin() said, from construction to destruction, on this thread.
    class Armed_ {
    public:
        Armed_();
        ~Armed_();
        Armed_(const Armed_&) = delete;
        Armed_& operator=(const Armed_&) = delete;
    };

    /// Code of the application that the library calls back: nothing is counted, and nothing fails.
    class Paused_ {
    public:
        Paused_();
        ~Paused_();
        Paused_(const Paused_&) = delete;
        Paused_& operator=(const Paused_&) = delete;

    private:
        bool m_wasArmed;
    };

    /// Keeps account of what this thread allocates, as long as it lives.
    static void watchThisThread();

    /// What is allocated meanwhile outlives the run: no account is kept of it.
    class Unwatched_ {
    public:
        Unwatched_();
        ~Unwatched_();
        Unwatched_(const Unwatched_&) = delete;
        Unwatched_& operator=(const Unwatched_&) = delete;

    private:
        bool m_wasWatched;
    };

    /// Since begin().
    unsigned int allocations() const { return m_allocations; }
    unsigned int failures() const { return m_failures; }

    /// Descriptors that the library had just accepted when a failure struck its accepting code.
    const std::vector<int>& abandoned() const { return m_abandoned; }
    void noteAccepted(int descriptor);

    /// What watched threads allocated and nobody has freed: how many blocks, and the site of one of them.
    unsigned int heldBlocks() const;
    std::string siteOfHeldBlock() const;
    void forgetHeldBlocks();

    /// How often the library asked for a function to be run at the end of a thread, and how often of these
    /// while memory was gone: there the C library ends the process.
    unsigned long threadEnds() const { return m_threadEnds; }
    unsigned long fatalThreadEnds() const { return m_fatalThreadEnds; }
    void noteThreadEnd();

    const std::vector<AllocationSite_>& sites() const { return m_sites; }
    std::string describe(const AllocationSite_& site) const;

    bool mustFail(AllocationKind_ kind) noexcept override;

    /// Asked by malloc: an allocation of what `operator new` is about to throw is not counted, but has no
    /// memory either once all fails.
    bool mustFailInC() noexcept;

    void given(void* p_block) noexcept;
    void taken(const void* p_block) noexcept;

private:
    FailingHeap_();

    int siteHere(AllocationKind_ kind, bool& isAccepting) noexcept;
    bool isPlanned(AllocationKind_ kind) const noexcept;

    LibraryMap_::Range_ m_code{0, 0};
    std::vector<LibraryMap_::Range_> m_accepting;
    const LibraryMap_* m_p_library = nullptr;
    FailurePlan_ m_plan;
    unsigned int m_scenario = 0;
    bool m_isWarm = false;
    unsigned int m_allocations = 0;
    unsigned int m_failures = 0;
    int m_lastAccepted = -1;
    int m_lastSite = FailurePlan_::kNoSite;
    std::vector<int> m_abandoned;
    std::vector<AllocationSite_> m_sites;  // has room from the start
    unsigned long m_threadEnds = 0;
    unsigned long m_fatalThreadEnds = 0;
};

#endif
