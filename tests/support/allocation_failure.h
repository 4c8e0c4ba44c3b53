#ifndef VEKMSG_TESTS_ALLOCATION_FAILURE_H
#define VEKMSG_TESTS_ALLOCATION_FAILURE_H

#include <functional>

/// Makes allocations of this thread fail: the process's `operator new` is replaced by one that counts.
///
/// The library keeps used memory on lists per thread. A scenario that has to meet every allocation therefore
/// runs in a thread of its own, whose lists are empty at first: see `inFreshThread`.
class AllocationFailure_ {
public:
    /// The `number`th allocation from now (1: the next) fails; with `andAllAfter`, so do all later ones.
    explicit AllocationFailure_(unsigned int number, bool andAllAfter = false);
    ~AllocationFailure_();
    AllocationFailure_(const AllocationFailure_&) = delete;
    AllocationFailure_& operator=(const AllocationFailure_&) = delete;

    /// Whether a failure has happened yet.
    bool hasStruck() const;
};

/// What asks for memory: a `new` that throws, one that gives null, or a function of C.
enum class AllocationKind_ { Throwing, NonThrowing, C };

/// Decides itself which allocations of a thread fail.
class AllocationJudge_ {
public:
    /// Asked for each allocation before it is made. It must not allocate.
    virtual bool mustFail(AllocationKind_ kind) noexcept = 0;

protected:
    ~AllocationJudge_() = default;
};

/// From now on `p_judge` is asked for each allocation of this thread; null: none.
void setAllocationJudge(AllocationJudge_* p_judge);

/// Whether this thread is inside `operator new`, which calls malloc, and allocates what it throws. For
/// programs that replace malloc too.
bool isInsideNew();

/// Allocations of this thread since its start.
unsigned long allocationCount();

/// Blocks that this thread has given back to the heap since its start.
unsigned long releaseCount();

/// Blocks of the whole process that are in use now, those on lists of running threads included.
long liveAllocations();

/// Runs `scenario` in a thread that has no used memory on its lists.
void inFreshThread(const std::function<void()>& scenario);

#endif
