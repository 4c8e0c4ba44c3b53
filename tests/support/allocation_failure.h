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

/// Allocations of this thread since its start.
unsigned long allocationCount();

/// Blocks that this thread has given back to the heap since its start.
unsigned long releaseCount();

/// Blocks of the whole process that are in use now, those on lists of running threads included.
long liveAllocations();

/// Runs `scenario` in a thread that has no used memory on its lists.
void inFreshThread(const std::function<void()>& scenario);

#endif
