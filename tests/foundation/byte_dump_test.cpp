#include "foundation/byte_dump.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

namespace {

const unsigned char g_bytes[] = {0x00, 0x01, 0x2A, 0x7F, 0x80, 0xFF};

struct Dump_ {
    bool m_isGood;
    std::string m_text;
};

Dump_ dump(unsigned int length, unsigned int group, unsigned int perLine, const char* p_prefix,
           const char* p_suffix) {
    std::ostringstream stream;
    const bool isGood = printBytestream(stream, g_bytes, length, group, perLine, p_prefix, p_suffix);
    return Dump_{isGood, stream.str()};
}

}  // namespace

TEST(PrintBytestream, separatesGroupsByABlank) {
    const Dump_ single = dump(6, 1, 16, nullptr, nullptr);
    const Dump_ pairs = dump(5, 2, 16, nullptr, nullptr);

    EXPECT_TRUE(single.m_isGood);
    EXPECT_EQ(single.m_text, "00 01 2a 7f 80 ff");
    EXPECT_TRUE(pairs.m_isGood);
    EXPECT_EQ(pairs.m_text, "0001 2a7f 80");
}

TEST(PrintBytestream, everyLineStandsBetweenPrefixAndSuffix) {
    EXPECT_EQ(dump(6, 1, 4, "+++\t", "|").m_text, "+++\t00 01 2a 7f|\n+++\t80 ff|");
}

TEST(PrintBytestream, aFullLastLineHasNoneBehindIt) {
    EXPECT_EQ(dump(4, 1, 2, "+++\t", nullptr).m_text, "+++\t00 01\n+++\t2a 7f");
}

TEST(PrintBytestream, withoutBytesThereIsOneLineWithoutDigits) {
    const Dump_ none = dump(0, 1, 16, "+++\t", "|");

    EXPECT_TRUE(none.m_isGood);
    EXPECT_EQ(none.m_text, "+++\t|");
}

TEST(PrintBytestream, nullBytesAndCountsOfZeroAreRefused) {
    std::ostringstream stream;

    EXPECT_FALSE(printBytestream(stream, nullptr, 1, 1, 16, "+++\t", nullptr));
    EXPECT_FALSE(printBytestream(stream, g_bytes, 1, 0, 16, "+++\t", nullptr));
    EXPECT_FALSE(printBytestream(stream, g_bytes, 1, 1, 0, "+++\t", nullptr));

    EXPECT_EQ(stream.str(), "");
}

TEST(PrintBytestream, theStreamsFormattingHasNoSayAndStaysAsItWas) {
    std::ostringstream stream;
    stream << std::setfill('*') << std::uppercase << std::oct << std::setw(40);

    printBytestream(stream, g_bytes, 6, 1, 16, nullptr, nullptr);

    EXPECT_EQ(stream.str(), "00 01 2a 7f 80 ff");
    EXPECT_EQ(stream.width(), 40);
}

TEST(PrintBytestream, groupsBeginAnewOnEachLine) {
    EXPECT_EQ(dump(6, 2, 3, nullptr, nullptr).m_text, "0001 2a\n7f80 ff");
}
