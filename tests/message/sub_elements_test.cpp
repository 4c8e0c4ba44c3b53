#include "message/sub_elements.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <random>
#include <set>
#include <vector>

#include "message/message_fixture.h"
#include "support/allocation_failure.h"

namespace {

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
    add(10);
    for (unsigned int i = 1; i < 16; ++i) add(20);  // no room for more
    const SP_VekmsgElementBinary_ sp_more = newElement(5);
    {
        const AllocationFailure_ failure(1);
        EXPECT_THROW(m_children.makeRoom(), std::bad_alloc);
        EXPECT_TRUE(failure.hasStruck());
    }
    EXPECT_EQ(m_children.size(), 16U);
    ::add(m_children, sp_more);
    EXPECT_EQ(m_children[0], sp_more.get());
}
