#include "libcpp/utf8_string.h"

#include <gtest/gtest.h>

namespace {

const Utf8Char_* bytes(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

}  // namespace

TEST(Utf8CharTraits, lengthStopsAtTheFirstNul) {
    EXPECT_EQ(Utf8CharTraits_::length(bytes("ab\0cd")), 2U);
    EXPECT_EQ(Utf8CharTraits_::length(bytes("")), 0U);
}

TEST(Utf8CharTraits, bytesCompareAsUnsignedNumbers) {
    EXPECT_TRUE(Utf8CharTraits_::lt(0x7F, 0x80));
    EXPECT_FALSE(Utf8CharTraits_::lt(0x80, 0x7F));
    EXPECT_LT(Utf8CharTraits_::compare(bytes("a\x7F"), bytes("a\x80"), 2), 0);
    EXPECT_GT(Utf8CharTraits_::compare(bytes("a\xFF"), bytes("a\x01"), 2), 0);
    EXPECT_EQ(Utf8CharTraits_::compare(bytes("abX"), bytes("abY"), 2), 0);
    EXPECT_TRUE(Utf8CharTraits_::eq(0x80, 0x80));
    EXPECT_FALSE(Utf8CharTraits_::eq(0x80, 0));
}

TEST(Utf8CharTraits, comparingGoesBeyondANul) {
    EXPECT_NE(Utf8CharTraits_::compare(bytes("a\0b"), bytes("a\0c"), 3), 0);
}

TEST(Utf8CharTraits, nothingIsComparedCopiedMovedFilledOrFoundInNothing) {
    EXPECT_EQ(Utf8CharTraits_::compare(nullptr, nullptr, 0), 0);
    EXPECT_EQ(Utf8CharTraits_::copy(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(Utf8CharTraits_::move(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(Utf8CharTraits_::assign(nullptr, 0, 'x'), nullptr);
    EXPECT_EQ(Utf8CharTraits_::find(nullptr, 0, 'x'), nullptr);
}

TEST(Utf8CharTraits, copyTakesTheBytesAsTheyAre) {
    Utf8Char_ target[4] = {9, 9, 9, 9};

    EXPECT_EQ(Utf8CharTraits_::copy(target, bytes("\xC3\0\xA4"), 3), target);

    EXPECT_EQ(Utf8CharTraits_::compare(target, bytes("\xC3\0\xA4\x09"), 4), 0);
}

TEST(Utf8CharTraits, moveAllowsOverlap) {
    Utf8Char_ text[] = "abcd";

    Utf8CharTraits_::move(text + 1, text, 3);

    EXPECT_EQ(Utf8CharTraits_::compare(text, bytes("aabc"), 4), 0);
}

TEST(Utf8CharTraits, assignFills) {
    Utf8Char_ text[] = "abcd";

    Utf8CharTraits_::assign(text, 3, 0xFE);

    EXPECT_EQ(Utf8CharTraits_::compare(text, bytes("\xFE\xFE\xFE\x64"), 4), 0);
}

TEST(Utf8CharTraits, findGivesTheFirstMatchInsideTheCount) {
    const Utf8Char_* p_text = bytes("abcb");

    EXPECT_EQ(Utf8CharTraits_::find(p_text, 4, 'b'), p_text + 1);
    EXPECT_EQ(Utf8CharTraits_::find(p_text, 1, 'b'), nullptr);
}

TEST(Utf8CharTraits, noByteIsTheEndMark) {
    EXPECT_EQ(Utf8CharTraits_::to_int_type(0xFF), 0xFF);
    EXPECT_EQ(Utf8CharTraits_::to_char_type(0xFF), 0xFF);
    EXPECT_FALSE(Utf8CharTraits_::eq_int_type(Utf8CharTraits_::to_int_type(0xFF), Utf8CharTraits_::eof()));
    EXPECT_NE(Utf8CharTraits_::not_eof(Utf8CharTraits_::eof()), Utf8CharTraits_::eof());
    EXPECT_EQ(Utf8CharTraits_::not_eof(7), 7);
}

TEST(Utf8String, ordersByUnsignedBytesThenByLength) {
    EXPECT_LT(Utf8String_(bytes("z")), Utf8String_(bytes("\xC3\xA4")));
    EXPECT_LT(Utf8String_(bytes("ab")), Utf8String_(bytes("abc")));
    EXPECT_EQ(Utf8String_(bytes("ab")), Utf8String_(bytes("ab")));
}

TEST(Utf8String, keepsNulBytesThatLieInsideItsLength) {
    EXPECT_EQ(Utf8String_(bytes("a\0b"), 3).size(), 3U);
    EXPECT_EQ(Utf8String_(bytes("a\0b")).size(), 1U);
}
