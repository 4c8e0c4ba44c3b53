#include "foundation/free_list.h"

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/allocation_failure.h"
#include "support/exhausted_heap.h"

namespace {

// Builds that watch memory have the lists off: each block then comes from the heap and goes back to it at
// once.
constexpr bool g_isOn = VEKMSG_FREE_LISTS != 0;

// Sizes that nothing else uses, so that each test has a list of its own.
using Pair_ = libcpp::FreeList_<1001, 2>;

std::vector<void*> takeBlocks(unsigned int count) {
    std::vector<void*> blocks(count);
    for (void*& p_block : blocks) p_block = Pair_::take();
    return blocks;
}

unsigned long allocationsOf(const std::function<void()>& action) {
    const unsigned long before = allocationCount();
    action();
    return allocationCount() - before;
}

unsigned long releasesOf(const std::function<void()>& action) {
    const unsigned long before = releaseCount();
    action();
    return releaseCount() - before;
}

struct AtThreadEnd_ {
    std::function<void()> m_action;
    ~AtThreadEnd_() {
        if (m_action) m_action();
    }
};

// Objects of a thread go in the reverse order of their making. Asked for before the first block is given,
// this one acts after the thread's lists are drained.
void afterDrain(std::function<void()> action) {
    static thread_local AtThreadEnd_ t_atThreadEnd;
    t_atThreadEnd.m_action = std::move(action);
}

// Asked for after a block was given, this one acts before the lists are drained.
void beforeDrain(std::function<void()> action) {
    static thread_local AtThreadEnd_ t_atThreadEnd;
    t_atThreadEnd.m_action = std::move(action);
}

struct Node_ : libcpp::FromFreeList_<Node_, 4> {
    explicit Node_(bool throws = false) {
        if (throws) throw std::runtime_error("no node");
    }
    unsigned char m_bytes[1013] = {};
};

struct WideNode_ : Node_ {
    unsigned char m_more[100] = {};
};

}  // namespace

TEST(FreeList, aReturnedBlockIsTakenAgainWithoutTheHeap) {
    inFreshThread([] {
        void* p_block = Pair_::take();
        Pair_::give(p_block);

        void* p_again = nullptr;
        EXPECT_EQ(allocationsOf([&] { p_again = Pair_::take(); }), g_isOn ? 0U : 1U);

        if (g_isOn) {
            EXPECT_EQ(p_again, p_block);
        }
        Pair_::give(p_again);
    });
}

TEST(FreeList, blocksTakenTogetherAreDifferent) {
    inFreshThread([] {
        for (int round = 0; round < 2; ++round) {
            const std::vector<void*> blocks = takeBlocks(3);
            EXPECT_NE(blocks[0], blocks[1]);
            EXPECT_NE(blocks[1], blocks[2]);
            EXPECT_NE(blocks[0], blocks[2]);
            for (void* p_block : blocks) Pair_::give(p_block);
        }
    });
}

TEST(FreeList, blocksBeyondTheBoundGoBackToTheHeap) {
    inFreshThread([] {
        const std::vector<void*> blocks = takeBlocks(5);

        const unsigned long releases = releasesOf([&] {
            for (void* p_block : blocks) Pair_::give(p_block);
        });

        EXPECT_EQ(releases, g_isOn ? 3U : 5U);
    });
}

TEST(FreeList, afterTheBoundWasReachedItFillsAgain) {
    inFreshThread([] {
        for (int round = 0; round < 3; ++round) {
            for (void* p_block : takeBlocks(4)) Pair_::give(p_block);
        }

        const unsigned long allocations = allocationsOf([] {
            void* p_first = Pair_::take();
            void* p_second = Pair_::take();
            Pair_::give(p_first);
            Pair_::give(p_second);
        });

        EXPECT_EQ(allocations, g_isOn ? 0U : 2U);
    });
}

TEST(FreeList, nullIsIgnored) {
    inFreshThread([] {
        EXPECT_EQ(releasesOf([] { Pair_::give(nullptr); }), 0U);
        EXPECT_EQ(allocationsOf([] { Pair_::give(Pair_::take()); }), 1U);
    });
}

TEST(FreeList, withoutMemoryABlockIsNull) {
    inFreshThread([] {
        const AllocationFailure_ failure(1);
        EXPECT_EQ(Pair_::take(), nullptr);
    });
}

// The C library would end the process where it cannot note that the list goes with the thread.
TEST(FreeList, withoutMemoryForItsEndAListKeepsNothingYet) {
    if (!ExhaustedHeap_::kIsPossible) GTEST_SKIP() << ExhaustedHeap_::kWhyNot;
    inFreshThread([] {
        const std::vector<void*> blocks = takeBlocks(2);
        unsigned long releases = 0;
        {
            const ExhaustedHeap_ exhausted;
            const unsigned long before = releaseCount();
            Pair_::give(blocks[0]);
            releases = releaseCount() - before;
        }
        EXPECT_EQ(releases, 1U);

        Pair_::give(blocks[1]);
        EXPECT_EQ(allocationsOf([] { Pair_::give(Pair_::take()); }), g_isOn ? 0U : 1U);
    });
}

TEST(FreeList, eachThreadHasItsOwn) {
    inFreshThread([] {
        Pair_::give(Pair_::take());
        inFreshThread([] {
            void* p_block = nullptr;
            EXPECT_EQ(allocationsOf([&] { p_block = Pair_::take(); }), 1U);
            Pair_::give(p_block);
        });
    });
}

TEST(FreeList, aBlockMayBeReturnedByAnotherThread) {
    void* p_block = Pair_::take();

    inFreshThread([p_block] {
        Pair_::give(p_block);
        EXPECT_EQ(allocationsOf([] { Pair_::give(Pair_::take()); }), g_isOn ? 0U : 1U);
    });
}

TEST(FreeList, heldBlocksGoBackWhenTheThreadEnds) {
    unsigned long releases = 0;
    unsigned long releasesBefore = 0;
    inFreshThread([&] {
        afterDrain([&] { releases = releaseCount() - releasesBefore; });
        for (void* p_block : takeBlocks(2)) Pair_::give(p_block);
        beforeDrain([&] { releasesBefore = releaseCount(); });
    });

    EXPECT_EQ(releases, g_isOn ? 2U : 0U);
}

TEST(FreeList, aBlockReturnedAfterTheDrainGoesToTheHeap) {
    unsigned long releases = 0;
    inFreshThread([&] {
        afterDrain(
            [&releases, p_late = Pair_::take()] { releases = releasesOf([&] { Pair_::give(p_late); }); });
        Pair_::give(Pair_::take());
    });

    EXPECT_EQ(releases, 1U);
}

TEST(FreeList, aBlockTakenAfterTheDrainComesFromTheHeap) {
    unsigned long allocations = 0;
    unsigned long releases = 0;
    inFreshThread([&] {
        afterDrain([&] {
            void* p_late = nullptr;
            allocations = allocationsOf([&] { p_late = Pair_::take(); });
            releases = releasesOf([&] { Pair_::give(p_late); });
        });
        Pair_::give(Pair_::take());
    });

    EXPECT_EQ(allocations, 1U);
    EXPECT_EQ(releases, 1U);
}

TEST(FreeListAllocator, nodesOfAContainerAreTakenAgain) {
    inFreshThread([] {
        std::list<Node_, libcpp::FreeListAllocator_<Node_>> list;
        list.emplace_back();
        list.pop_back();

        EXPECT_EQ(allocationsOf([&] { list.emplace_back(); }), g_isOn ? 0U : 1U);
    });
}

TEST(FreeListAllocator, withoutMemoryItThrowsAsContainersExpect) {
    inFreshThread([] {
        libcpp::FreeListAllocator_<Node_> allocator;
        const AllocationFailure_ failure(1);
        EXPECT_THROW(allocator.allocate(1), std::bad_alloc);
    });
}

TEST(FreeListAllocator, arraysComeFromTheHeap) {
    inFreshThread([] {
        libcpp::FreeListAllocator_<int> allocator;
        for (const std::size_t count : {2U, 16U, 256U}) {
            int* p_numbers = nullptr;

            EXPECT_EQ(allocationsOf([&] { p_numbers = allocator.allocate(count); }), 1U) << count;

            EXPECT_EQ(releasesOf([&] { allocator.deallocate(p_numbers, count); }), 1U) << count;
        }
    });
}

TEST(FreeListAllocator, anArrayWithoutMemoryThrows) {
    inFreshThread([] {
        libcpp::FreeListAllocator_<int> allocator;
        const AllocationFailure_ failure(1);
        int* volatile p_numbers = nullptr;  // compilers leave out an allocation that nobody looks at
        EXPECT_THROW(p_numbers = allocator.allocate(16), std::bad_alloc);
        EXPECT_EQ(p_numbers, nullptr);
        EXPECT_THROW(allocator.allocate(static_cast<std::size_t>(-1) / 2), std::bad_alloc);
    });
}

TEST(FreeListAllocator, allAreEqual) {
    EXPECT_TRUE(libcpp::FreeListAllocator_<int>() == libcpp::FreeListAllocator_<char>());
    EXPECT_FALSE(libcpp::FreeListAllocator_<int>() != libcpp::FreeListAllocator_<char>());
}

TEST(FromFreeList, objectsComeBackFromTheList) {
    inFreshThread([] {
        delete new (std::nothrow) Node_;

        EXPECT_EQ(allocationsOf([] { delete new (std::nothrow) Node_; }), g_isOn ? 0U : 1U);
        EXPECT_EQ(allocationsOf([] { delete new Node_; }), g_isOn ? 0U : 1U);
    });
}

TEST(FromFreeList, withoutMemoryTheCreationFails) {
    inFreshThread([] {
        {
            const AllocationFailure_ failure(1);
            EXPECT_EQ(new (std::nothrow) Node_, nullptr);
        }
        const AllocationFailure_ failure(1);
        EXPECT_THROW(new Node_, std::bad_alloc);
    });
}

TEST(FromFreeList, aDerivedClassOfAnotherSizeUsesTheHeap) {
    inFreshThread([] {
        WideNode_* p_node = nullptr;

        EXPECT_EQ(allocationsOf([&] { p_node = new (std::nothrow) WideNode_; }), 1U);

        EXPECT_EQ(releasesOf([&] { delete p_node; }), 1U);
    });
}

TEST(FromFreeList, aThrowingConstructorLeaksNothing) {
    inFreshThread([] {
        for (int i = 0; i < 3; ++i) {
            EXPECT_THROW(new (std::nothrow) Node_(true), std::runtime_error);
            EXPECT_THROW(new Node_(true), std::runtime_error);
        }
        EXPECT_LE(allocationsOf([] { delete new (std::nothrow) Node_; }), 1U);
    });
}

TEST(FreeList, itHasOneWhileABlockWaits) {
    inFreshThread([] {
        EXPECT_FALSE(Pair_::hasOne());
        void* p_block = Pair_::take();
        EXPECT_FALSE(Pair_::hasOne());
        Pair_::give(p_block);
        EXPECT_EQ(Pair_::hasOne(), g_isOn);
        p_block = Pair_::take();
        EXPECT_FALSE(Pair_::hasOne());
        Pair_::give(p_block);
    });
}
