#include "vekmsg/tag.h"

#include <gtest/gtest.h>

#include <limits>

TEST(VekMsgTagCompare, tagsOfSixteenBitsComeInNumericalOrder) {
    EXPECT_LT(vekMsgTagCompare(0, 65535), 0);
    EXPECT_GT(vekMsgTagCompare(65535, 0), 0);
    EXPECT_EQ(vekMsgTagCompare(5, 2), 3);
    EXPECT_EQ(vekMsgTagCompare(7, 7), 0);
}

TEST(VekMsgTagCompare, theDifferenceIsTakenAsASignedNumber) {
    EXPECT_EQ(vekMsgTagCompare(VEKMSGTAG_ANY, 0), -1);
    EXPECT_EQ(vekMsgTagCompare(0, VEKMSGTAG_ANY), 1);
    EXPECT_EQ(vekMsgTagCompare(0x80000000U, 0), std::numeric_limits<int>::min());
    EXPECT_EQ(vekMsgTagCompare(VEKMSGTAG_ANY, VEKMSGTAG_ANY), 0);
}
