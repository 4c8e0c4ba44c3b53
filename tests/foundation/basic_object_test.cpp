#include "libcpp/basic_object.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "foundation/shared_probe.h"

TEST(BasicObject, theFirstOwnerIsAlsoTheLastWhenItLetsGo) {
    int destructions = 0;
    BasicObject_* p_object = new SharedProbe_(destructions);
    p_object->addRef();
    EXPECT_EQ(destructions, 0);

    p_object->removeRef();

    EXPECT_EQ(destructions, 1);
}

TEST(BasicObject, itLivesWhileOneOfSeveralOwnersIsLeft) {
    int destructions = 0;
    BasicObject_* p_object = new SharedProbe_(destructions);
    p_object->addRef();
    p_object->addRef();
    p_object->addRef();

    p_object->removeRef();
    p_object->removeRef();
    EXPECT_EQ(destructions, 0);

    p_object->removeRef();
    EXPECT_EQ(destructions, 1);
}

TEST(BasicObject, aCopyHasNoOwners) {
    int destructions = 0;
    auto* p_original = new SharedProbe_(destructions);
    p_original->addRef();
    p_original->addRef();
    auto* p_copy = new SharedProbe_(*p_original);

    p_copy->addRef();
    p_copy->removeRef();

    EXPECT_EQ(destructions, 1);
    p_original->removeRef();
    EXPECT_EQ(destructions, 1);
    p_original->removeRef();
    EXPECT_EQ(destructions, 2);
}

TEST(BasicObject, assigningKeepsTheOwnersOfBoth) {
    int destructions = 0;
    auto* p_first = new SharedProbe_(destructions);
    auto* p_second = new SharedProbe_(destructions);
    p_first->addRef();
    p_first->addRef();
    p_second->addRef();

    *p_first = *p_second;

    p_second->removeRef();
    EXPECT_EQ(destructions, 1);
    p_first->removeRef();
    EXPECT_EQ(destructions, 1);
    p_first->removeRef();
    EXPECT_EQ(destructions, 2);
}

// So many owners need more memory than there is; should the count ever pass its end, the object stays.
TEST(BasicObject, aCountBeyond32BitsBeginsAgainAndLeavesTheObject) {
    int destructions = 0;
    BasicObject_* p_object = new SharedProbe_(destructions);
    const std::uint32_t highest = 0xFFFFFFFFU;
    std::memcpy(reinterpret_cast<unsigned char*>(p_object) + sizeof(void*), &highest, sizeof(highest));

    p_object->addRef();
    p_object->removeRef();
    EXPECT_EQ(destructions, 0);

    const std::uint32_t one = 1;
    std::memcpy(reinterpret_cast<unsigned char*>(p_object) + sizeof(void*), &one, sizeof(one));
    p_object->removeRef();
    EXPECT_EQ(destructions, 1);
}
