#include "foundation/big_endian.h"

#include <gtest/gtest.h>

#include <vector>

using Bytes_ = std::vector<unsigned char>;

TEST(BigEndian, theMostSignificantByteComesFirst) {
    Bytes_ bytes(6);

    store16(bytes.data(), 0xFEDC);
    store32(bytes.data() + 2, 0xBA987654);

    EXPECT_EQ(bytes, (Bytes_{0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54}));
    EXPECT_EQ(load16(bytes.data()), 0xFEDCU);
    EXPECT_EQ(load32(bytes.data() + 2), 0xBA987654U);
}

TEST(BigEndian, eightBytesMakeANumberToo) {
    Bytes_ bytes(9, 0xEE);

    store64(bytes.data() + 1, 0xFEDCBA9876543210);

    EXPECT_EQ(bytes, (Bytes_{0xEE, 0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}));
    EXPECT_EQ(load64(bytes.data() + 1), 0xFEDCBA9876543210U);
}

TEST(BigEndian, onlyTheLowSixteenBitsAreStored) {
    Bytes_ bytes(3, 0xEE);

    store16(bytes.data(), 0x12345678);

    EXPECT_EQ(bytes, (Bytes_{0x56, 0x78, 0xEE}));
}
