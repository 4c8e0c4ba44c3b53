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

class SubElements : public RecordingTest_ {
protected:
    /// Adds one and returns where it stands.
    SubElements_::Position_ add(VekmsgTag_ tag) { return m_children.insert(newElement(tag)); }

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

TEST_F(SubElements, insertingTellsWhereTheNewOneStands) {
    EXPECT_EQ(add(20), 0U);
    EXPECT_EQ(add(40), 1U);
    EXPECT_EQ(add(10), 0U);
    EXPECT_EQ(add(20), 2U);
    EXPECT_EQ(add(30), 3U);
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
    EXPECT_EQ(m_children.insert(SP_VekmsgElementBinary_()), 0U);
    EXPECT_EQ(m_children.insert(SP_VekmsgElementBinary_()), 1U);
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
            const auto place = expected.insert(sp_child);
            EXPECT_EQ(children.insert(sp_child),
                      static_cast<std::size_t>(std::distance(expected.begin(), place)));
        }
        ASSERT_EQ(children.size(), expected.size());
        EXPECT_TRUE(std::equal(children.begin(), children.end(), expected.begin(),
                               [](const VekmsgElementBinary_* p_a, const SP_VekmsgElementBinary_& sp_b) {
                                   return p_a == sp_b.get();
                               }))
            << "seed " << seed;
    }
}

TEST_F(SubElements, anElementGoesWithTheLastThatSharesIt) {
    const long before = liveAllocations();
    inFreshThread([] {
        SP_VekmsgElementBinary_ sp_child = newElement(1);
        SubElements_ children;
        children.insert(sp_child);
        children.insert(sp_child);
        sp_child.reset();
        EXPECT_EQ(children[0], children[1]);
        EXPECT_EQ(children[0]->getTag(), 1U);
    });
    EXPECT_EQ(liveAllocations(), before);
}

TEST_F(SubElements, withoutMemoryNothingIsAdded) {
    add(10);
    for (unsigned int i = 1; i < 8; ++i) add(20);  // no room for more
    const SP_VekmsgElementBinary_ sp_more = newElement(5);
    {
        const AllocationFailure_ failure(1);
        EXPECT_THROW(m_children.insert(sp_more), std::bad_alloc);
        EXPECT_TRUE(failure.hasStruck());
    }
    EXPECT_EQ(m_children.size(), 8U);
    EXPECT_EQ(m_children.insert(sp_more), 0U);
}
