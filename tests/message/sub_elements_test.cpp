#include "message/sub_elements.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <random>
#include <set>
#include <vector>

#include "message/message_fixture.h"
#include "support/allocation_failure.h"
#include "support/exhausted_heap.h"

namespace {

// Builds that watch memory keep none: what goes is given back to the heap at once.
constexpr bool g_isOn = VEKMSG_FREE_LISTS != 0;

using Multiset_ = std::multiset<SP_VekmsgElementBinary_, libcpp::IsLess_<SP_VekmsgElementBinary_>>;

void add(SubElements_& children, SP_VekmsgElementBinary_ sp_child) {
    children.makeRoom();
    children.add(sp_child.detach());
}

class SubElements : public RecordingTest_ {
protected:
    void add(VekmsgTag_ tag) { ::add(m_children, newElement(tag)); }

    std::vector<VekmsgTag_> tags() const {
        std::vector<VekmsgTag_> found;
        for (const VekmsgElementBinary_* p_child : m_children)
            found.push_back(p_child != nullptr ? p_child->getTag() : VEKMSGTAG_ANY);
        return found;
    }

    SubElements_ m_children;
};

using Tags_ = std::vector<VekmsgTag_>;

class Derived_ : public VekmsgElementBinary_ {
public:
    explicit Derived_(VekmsgTag_ tag) : VekmsgElementBinary_(tag, nullptr) {}
};

/// As an element does that reads numbers with these tags.
void read(SubElements_& children, const Tags_& tags) {
    children.prepareSpares();
    for (const VekmsgTag_ tag : tags) {
        if (!children.hasSpare()) {
            children.makeRoom();
            children.giveSpare(newElement(0).detach());
        }
        children.spare().setTag(tag);
        children.addSpare();
    }
}

/// How many spares the next element that reads children finds.
std::size_t spares() {
    SubElements_ children;
    children.prepareSpares();
    return static_cast<std::size_t>(children.sparesEnd() - children.end());
}

}  // namespace

TEST_F(SubElements, areNoneAtFirst) {
    EXPECT_EQ(m_children.size(), 0U);
    EXPECT_EQ(m_children.lowerBound(newElement(5).get()), 0U);
    EXPECT_EQ(m_children.upperBound(newElement(5).get()), 0U);
}

TEST_F(SubElements, standInTheOrderOfTheirTags) {
    for (const VekmsgTag_ tag : {20U, 40U, 10U, 20U, 30U}) add(tag);
    EXPECT_EQ(tags(), (Tags_{10, 20, 20, 30, 40}));
}

TEST_F(SubElements, theBoundsOfATagEncloseThoseThatHaveIt) {
    for (const VekmsgTag_ tag : {10U, 20U, 20U, 20U, 30U}) add(tag);

    EXPECT_EQ(m_children.lowerBound(newElement(20).get()), 1U);
    EXPECT_EQ(m_children.upperBound(newElement(20).get()), 4U);
    EXPECT_EQ(m_children.lowerBound(newElement(25).get()), 4U);
    EXPECT_EQ(m_children.upperBound(newElement(25).get()), 4U);
    EXPECT_EQ(m_children.upperBound(newElement(30).get()), 5U);
}

TEST_F(SubElements, nullStandsBeforeAllOthers) {
    add(1);
    ::add(m_children, SP_VekmsgElementBinary_());
    ::add(m_children, SP_VekmsgElementBinary_());
    add(1);
    EXPECT_EQ(tags(), (Tags_{VEKMSGTAG_ANY, VEKMSGTAG_ANY, 1, 1}));
    EXPECT_EQ(m_children.lowerBound(newElement(1).get()), 2U);
}

TEST_F(SubElements, anyOrderOfAddingGivesTheOrderOfASortedSet) {
    for (unsigned int seed = 0; seed < 200; ++seed) {
        std::minstd_rand random(seed);
        SubElements_ children;
        Multiset_ expected;
        for (unsigned int i = 0; i < 1 + seed; ++i) {
            const SP_VekmsgElementBinary_ sp_child = newElement(random() % 20 + 1);
            expected.insert(sp_child);
            ::add(children, sp_child);
        }
        ASSERT_EQ(children.size(), expected.size());
        EXPECT_TRUE(std::equal(children.begin(), children.end(), expected.begin(),
                               [](const VekmsgElementBinary_* p_a, const SP_VekmsgElementBinary_& sp_b) {
                                   return p_a == sp_b.get();
                               }))
            << "seed " << seed;
    }
}

// What a query is: two iterators of a sorted set, which stay where they are while others are added.
TEST_F(SubElements, aQueryGoesOnAsIteratorsOfASortedSetWould) {
    for (unsigned int seed = 0; seed < 500; ++seed) {
        std::minstd_rand random(seed);
        SubElements_ children;
        Multiset_ expected;
        auto cursor = expected.end();
        auto end = expected.end();
        for (unsigned int step = 0; step < 80; ++step) {
            const SP_VekmsgElementBinary_ sp_one = newElement(random() % 10 + 1);
            switch (random() % 5) {
                case 0:
                    cursor = expected.lower_bound(sp_one);
                    end = expected.upper_bound(sp_one);
                    children.startQuery(children.lowerBound(sp_one.get()), children.upperBound(sp_one.get()));
                    break;
                case 1:
                    cursor = expected.begin();
                    end = expected.end();
                    children.startQuery(0, children.size());
                    break;
                case 2:
                    expected.insert(sp_one);
                    ::add(children, sp_one);
                    break;
                case 3:
                    if (random() % 8 != 0) break;
                    cursor = end;
                    children.endQuery();
                    break;
                default:
                    ASSERT_EQ(children.hasNext(), cursor != end) << "seed " << seed << " step " << step;
                    if (cursor == end) break;
                    ASSERT_EQ(children.next(), cursor->get()) << "seed " << seed << " step " << step;
                    ++cursor;
            }
        }
    }
}

TEST_F(SubElements, withoutAnyAQueryHasNothing) {
    m_children.startQuery(0, 0);
    EXPECT_FALSE(m_children.hasNext());
    m_children.endQuery();
    EXPECT_FALSE(m_children.hasNext());
}

TEST_F(SubElements, anElementGoesWithTheLastThatSharesIt) {
    const long before = liveAllocations();
    inFreshThread([] {
        SP_VekmsgElementBinary_ sp_child = newElement(1);
        SubElements_ children;
        ::add(children, sp_child);
        ::add(children, sp_child);
        sp_child.reset();
        EXPECT_EQ(children[0], children[1]);
        EXPECT_EQ(children[0]->getTag(), 1U);
    });
    EXPECT_EQ(liveAllocations(), before);
}

TEST_F(SubElements, withoutMemoryNothingIsAdded) {
    inFreshThread([&] {
        add(10);
        for (unsigned int i = 1; i < 16; ++i) add(20);  // no room for more
        const AllocationFailure_ failure(1);
        EXPECT_THROW(m_children.makeRoom(), std::bad_alloc);
        EXPECT_TRUE(failure.hasStruck());
    });
    EXPECT_EQ(m_children.size(), 16U);
    const SP_VekmsgElementBinary_ sp_more = newElement(5);
    ::add(m_children, sp_more);
    EXPECT_EQ(m_children[0], sp_more.get());
}

TEST_F(SubElements, theNextOneIsGuessedWhenItIsTheFirstWithItsTag) {
    EXPECT_EQ(m_children.guess(10), nullptr);
    read(m_children, {10, 20, 20, 30});

    EXPECT_EQ(m_children.guess(20), nullptr);
    EXPECT_EQ(m_children.guess(10), m_children[0]);
    EXPECT_EQ(m_children.guess(10), nullptr);
    EXPECT_EQ(m_children.guess(20), m_children[1]);
    EXPECT_EQ(m_children.guess(20), nullptr);  // the second with this tag
    EXPECT_EQ(m_children.guess(30), nullptr);
    m_children.noteFound(2);
    EXPECT_EQ(m_children.guess(30), m_children[3]);
    EXPECT_EQ(m_children.guess(40), nullptr);
}

TEST_F(SubElements, noneIsGuessedOnceSomebodyElseMayHaveChangedATag) {
    read(m_children, {10, 20});
    EXPECT_EQ(m_children.guess(10), m_children[0]);
    m_children.noteHeld();
    EXPECT_EQ(m_children.guess(20), nullptr);
}

TEST_F(SubElements, noneIsGuessedOnceOneWasAdded) {
    read(m_children, {10, 20});
    add(30);
    EXPECT_EQ(m_children.guess(10), nullptr);
}

TEST_F(SubElements, guessingGoesOnAfterALook) {
    { const SubElements_::Looking_ atNone(m_children); }
    read(m_children, {10, 20});
    {
        const SubElements_::Looking_ looking(m_children);
        m_children.noteHeld();
        EXPECT_EQ(m_children.guess(10), nullptr);
    }
    EXPECT_EQ(m_children.guess(10), m_children[0]);
    m_children.noteHeld();
    { const SubElements_::Looking_ looking(m_children); }
    EXPECT_EQ(m_children.guess(20), nullptr);
}

TEST_F(SubElements, theLastTagIsThatOfTheLastChild) {
    EXPECT_EQ(m_children.lastTag(), VEKMSGTAG_ANY);
    ::add(m_children, SP_VekmsgElementBinary_());
    EXPECT_EQ(m_children.lastTag(), VEKMSGTAG_ANY);
    add(20);
    add(10);
    EXPECT_EQ(m_children.lastTag(), 20U);
}

TEST_F(SubElements, thoseThatNobodyElseHoldsAreTheSparesOfTheNext) {
    inFreshThread([] {
        std::vector<VekmsgElementBinary_*> first;
        {
            SubElements_ children;
            read(children, {30, 10, 20});
            first.assign(children.begin(), children.end());
        }
        SubElements_ children;
        children.prepareSpares();

        EXPECT_EQ(children.size(), 0U);
        const std::vector<VekmsgElementBinary_*> spares(children.end(), children.sparesEnd());
        EXPECT_EQ(spares, g_isOn ? first : std::vector<VekmsgElementBinary_*>());
    });
}

TEST_F(SubElements, ofThoseHandedOutOnlyTheOnesGivenBackBecomeSpares) {
    inFreshThread([] {
        SP_VekmsgElementBinary_ sp_held;
        SP_VekmsgElementBinary_ sp_derived(new (std::nothrow) Derived_(30));
        {
            SubElements_ children;
            read(children, {10, 20});
            children.unseal();
            sp_held = SP_VekmsgElementBinary_(children[1]);
            ::add(children, sp_derived);
            ::add(children, SP_VekmsgElementBinary_());
            sp_derived.reset();
        }
        EXPECT_EQ(sp_held->getTag(), 20U);
        EXPECT_EQ(spares(), g_isOn ? 1U : 0U);
    });
}

TEST_F(SubElements, aSpareHasNoChildren) {
    inFreshThread([] {
        {
            SubElements_ children;
            read(children, {10});
            children.unseal();
            children[0]->setSubElementValue(1, 1U);
        }
        SubElements_ children;
        read(children, {10});
        EXPECT_TRUE(children[0]->findFirstMatchingSubelement(1).isNull());
    });
}

TEST_F(SubElements, areReadIntoSparesInTheOrderOfTheirTags) {
    for (int i = 0; i < 2; ++i) {
        SubElements_ children;
        read(children, {20, 10, 30, 20});
        Tags_ found;
        for (const VekmsgElementBinary_* p_child : children) found.push_back(p_child->getTag());
        EXPECT_EQ(found, (Tags_{10, 20, 20, 30}));
    }
}

TEST_F(SubElements, areReadToThoseThatWereAddedAndEndAQuery) {
    add(20);
    m_children.startQuery(0, 1);

    read(m_children, {10, 30});

    EXPECT_EQ(tags(), (Tags_{10, 20, 30}));
    EXPECT_FALSE(m_children.hasNext());
}

TEST_F(SubElements, addedOnesStandBeforeTheSpares) {
    inFreshThread([] {
        {
            SubElements_ children;
            read(children, {1, 2, 3});
        }
        const SP_VekmsgElementBinary_ sp_second = newElement(20);
        const SP_VekmsgElementBinary_ sp_first = newElement(10);
        SubElements_ children;
        ::add(children, sp_second);
        ::add(children, sp_first);

        EXPECT_EQ(children.size(), 2U);
        EXPECT_EQ(children[0], sp_first.get());
        EXPECT_EQ(children[1], sp_second.get());
        // Each gave the memory of a spare back, for the next that is made.
        EXPECT_EQ(children.sparesEnd() - children.end(), g_isOn ? 1 : 0);
    });
}

TEST_F(SubElements, aThreadKeepsOneHundredAndTwentyEightSpares) {
    for (const std::size_t rest : {28U, 29U}) {
        inFreshThread([rest] {
            SubElements_ many;
            SubElements_ few;
            read(many, Tags_(100, 1));
            read(few, Tags_(rest, 1));
            many.clear();
            few.clear();
            EXPECT_EQ(spares(), !g_isOn ? 0U : rest == 28 ? 28U : 100U);
        });
    }
}

TEST_F(SubElements, aFamilyWithRoomForMoreThanThatIsNotKept) {
    for (const std::size_t count : {128U, 129U}) {
        inFreshThread([count] {
            SubElements_ children;
            read(children, Tags_(count, 1));
            children.unseal();
            const SP_VekmsgElementBinary_ sp_held(children[0]);
            children.clear();
            EXPECT_EQ(spares(), g_isOn && count == 128 ? 127U : 0U);
        });
    }
}

TEST_F(SubElements, sparesGoWhenTheThreadEnds) {
    const long before = liveAllocations();
    inFreshThread([] {
        SubElements_ children;
        read(children, {10, 20});
        children.clear();
    });
    EXPECT_EQ(liveAllocations(), before);
}

TEST_F(SubElements, whatGoesAfterTheSparesOfTheThreadGoesToTheHeap) {
    const long before = liveAllocations();
    inFreshThread([] {
        static thread_local SubElements_ t_late;
        read(t_late, {10, 20});
        SubElements_ children;
        read(children, {10});
        children.clear();
    });
    EXPECT_EQ(liveAllocations(), before);
}

TEST_F(SubElements, withoutMemoryForTheNoteOfTheThreadsEndNoneAreKept) {
    if (!ExhaustedHeap_::kIsPossible) GTEST_SKIP() << ExhaustedHeap_::kWhyNot;
    inFreshThread([] {
        SubElements_ children;
        read(children, {10});
        {
            const ExhaustedHeap_ exhausted;
            children.clear();
        }
        EXPECT_EQ(spares(), 0U);
    });
}
