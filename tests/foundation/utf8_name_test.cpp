#include "foundation/utf8_name.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <string>

#include "foundation/free_list.h"
#include "support/allocation_failure.h"

namespace {

const Utf8Char_* bytes(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

// Longer than what a string keeps inside itself.
const char g_longName[] = "a component whose name does not fit into the string object";

}  // namespace

TEST(Utf8Name, textIsCopiedUpToItsNul) {
    std::string text = "sensor";

    const SP_Utf8String_ sp_name = createUtf8String(bytes(text.c_str()));
    text = "changed";

    ASSERT_TRUE(sp_name);
    EXPECT_EQ(*sp_name, Utf8String_(bytes("sensor")));
}

TEST(Utf8Name, aGivenLengthIsKeptWithTheNulBytesInIt) {
    const SP_Utf8String_ sp_name = createUtf8String(bytes("a\0b"), 3);

    ASSERT_TRUE(sp_name);
    EXPECT_EQ(*sp_name, Utf8String_(bytes("a\0b"), 3));
}

TEST(Utf8Name, withoutTextItIsEmpty) {
    const SP_Utf8String_ sp_name = createUtf8String();

    ASSERT_TRUE(sp_name);
    EXPECT_TRUE(sp_name->empty());
}

TEST(Utf8Name, itIsSharedByItsOwners) {
    SP_Utf8String_ sp_first = createUtf8String(bytes(g_longName));
    const SP_Utf8String_ sp_second = sp_first;

    sp_first.reset();

    EXPECT_EQ(*sp_second, Utf8String_(bytes(g_longName)));
}

TEST(Utf8Name, assigningItsOwnStringKeepsIt) {
    SP_Utf8String_ sp_name = createUtf8String(bytes(g_longName));

    sp_name = sp_name.get();

    EXPECT_EQ(*sp_name, Utf8String_(bytes(g_longName)));
}

TEST(Utf8Name, anotherStringTakesItsPlace) {
    SP_Utf8String_ sp_name = createUtf8String(bytes(g_longName));

    sp_name = new Utf8String_(bytes("other"));

    EXPECT_EQ(*sp_name, Utf8String_(bytes("other")));
}

TEST(Utf8Name, aShortNameTakesOneAllocation) {
    inFreshThread([] {
        const unsigned long before = allocationCount();
        const SP_Utf8String_ sp_name = createUtf8String(bytes("sensor"));
        EXPECT_EQ(allocationCount() - before, 1U);
    });
}

TEST(Utf8Name, withoutMemoryItIsNullWhicheverAllocationFails) {
    for (const unsigned int number : {1U, 2U}) {
        inFreshThread([number] {
            const AllocationFailure_ failure(number);
            EXPECT_TRUE(createUtf8String(bytes(g_longName)).isNull());
            EXPECT_TRUE(failure.hasStruck());
        });
    }
}

TEST(Utf8Name, aLengthThatNoStringCanHaveGivesNull) {
    EXPECT_TRUE(createUtf8String(bytes("text"), std::numeric_limits<std::size_t>::max() / 2 + 1).isNull());
}

TEST(SameText, isTheSameUpToItsEnd) {
    EXPECT_TRUE(isSameText("", ""));
    EXPECT_TRUE(isSameText("anna", "anna"));
    for (const char* p_other : {"", "a", "anne", "annabel", "bert"}) {
        EXPECT_FALSE(isSameText("anna", p_other)) << p_other;
        EXPECT_FALSE(isSameText(p_other, "anna")) << p_other;
    }
}

TEST(Utf8Name, aStringIsAtHandExactlyWhenItsMakingAsksForNoMemory) {
    const std::size_t lengths[] = {0, 1, 15, 16, 17, 100, 511, 512, 513, 1000};
    const std::string text(1000, 'x');
    unsigned int atHand = 0;
    for (const std::size_t used : lengths) {
        for (const std::size_t length : lengths) {
            bool isExpected = false;
            bool isMade = false;
            inFreshThread([&] {
                createUtf8String(bytes(text.c_str()), used);  // what it leaves in the thread
                isExpected = isUtf8StringAtHand(length);
                const AllocationFailure_ failure(1);
                isMade = static_cast<bool>(createUtf8String(bytes(text.c_str()), length));
            });
            EXPECT_EQ(isExpected, isMade) << used << ", " << length;
            atHand += isExpected;
        }
    }
    EXPECT_EQ(atHand != 0, VEKMSG_FREE_LISTS != 0);
}

TEST(Utf8Name, aThreadHasNoStringAtHandAtFirst) {
    bool isAtHand = true;
    inFreshThread([&] { isAtHand = isUtf8StringAtHand(1); });
    EXPECT_FALSE(isAtHand);
}
