#include "foundation/text_room.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "foundation/free_list.h"
#include "support/allocation_failure.h"
#include "support/exhausted_heap.h"

namespace {

constexpr bool g_isOn = VEKMSG_FREE_LISTS != 0;

const Utf8Char_* utf8(const std::string& text) {
    return reinterpret_cast<const Utf8Char_*>(text.c_str());
}

void assign(Utf8String_& text, const std::string& value) {
    assignText(text, utf8(value), value.size());
}

std::string value(const Utf8String_& text) {
    return std::string(text.begin(), text.end());
}

const std::string g_long(40, 'l');
const std::string g_longer(400, 'm');
const std::string g_tooLong(600, 't');

/// Leaves room for `text` behind.
void useRoomFor(const std::string& text) {
    Utf8String_ used;
    assign(used, text);
    keepRoomOf(used);
}

unsigned long allocationsOfAssigning(const std::string& text) {
    Utf8String_ assigned;
    const unsigned long before = allocationCount();
    assign(assigned, text);
    return allocationCount() - before;
}

}  // namespace

TEST(TextRoom, aTextIsCopied) {
    inFreshThread([] {
        Utf8String_ text;
        for (const std::string& copied : {std::string("short"), g_long, std::string(), g_longer, g_tooLong}) {
            assign(text, copied);
            EXPECT_EQ(value(text), copied);
        }
    });
}

TEST(TextRoom, onlyTheGivenLengthIsCopied) {
    Utf8String_ text;
    assignText(text, utf8(g_long), 20);
    EXPECT_EQ(value(text), g_long.substr(0, 20));
}

TEST(TextRoom, roomThatWasUsedServesTheNextText) {
    inFreshThread([] {
        useRoomFor(g_long);
        EXPECT_EQ(allocationsOfAssigning(g_long), g_isOn ? 0U : 1U);
    });
}

// The C library would end the process where it cannot note that the rooms go with the thread.
TEST(TextRoom, withoutMemoryForTheirEndNoRoomIsKeptYet) {
    if (!ExhaustedHeap_::kIsPossible) GTEST_SKIP() << ExhaustedHeap_::kWhyNot;
    inFreshThread([] {
        Utf8String_ used;
        assign(used, g_long);
        {
            const ExhaustedHeap_ exhausted;
            keepRoomOf(used);
        }
        EXPECT_EQ(value(used), g_long);

        keepRoomOf(used);
        EXPECT_EQ(allocationsOfAssigning(g_long), g_isOn ? 0U : 1U);
    });
}

TEST(TextRoom, roomThatIsTooSmallGrowsAndIsKeptSo) {
    inFreshThread([] {
        useRoomFor(g_long);
        useRoomFor(g_longer);
        EXPECT_EQ(allocationsOfAssigning(g_longer), g_isOn ? 0U : 1U);
    });
}

TEST(TextRoom, beyond64RoomsTheirMemoryGoes) {
    inFreshThread([] {
        Utf8String_ texts[65];
        for (Utf8String_& text : texts) assign(text, g_long);
        const unsigned long before = releaseCount();
        for (Utf8String_& text : texts) {
            Utf8String_ going;
            going.swap(text);
            keepRoomOf(going);
        }
        EXPECT_EQ(releaseCount() - before, g_isOn ? 1U : 65U);
    });
}

TEST(TextRoom, theRoomOfAGrowingTextIsKept) {
    inFreshThread([] {
        Utf8String_ text;
        assign(text, g_long);
        assign(text, g_longer);
        EXPECT_EQ(allocationsOfAssigning(g_long), g_isOn ? 0U : 1U);
    });
}

TEST(TextRoom, veryLongTextsTakeAndLeaveNoRoom) {
    inFreshThread([] {
        useRoomFor(g_long);
        useRoomFor(g_tooLong);
        EXPECT_EQ(allocationsOfAssigning(g_tooLong), 1U);
        EXPECT_EQ(allocationsOfAssigning(g_long), g_isOn ? 0U : 1U);
    });
}

TEST(TextRoom, theBytesMayLieInTheTextItself) {
    inFreshThread([] {
        useRoomFor(g_longer);
        Utf8String_ text;
        assign(text, "0123456789abcdefghijklmnopqrstuvwxyz");
        assignText(text, text.c_str() + 10, 26);
        EXPECT_EQ(value(text), "abcdefghijklmnopqrstuvwxyz");
    });
}

TEST(TextRoom, withoutMemoryTheTextStaysAsItWas) {
    inFreshThread([] {
        Utf8String_ text;
        assign(text, "before");
        {
            AllocationFailure_ failure(1);
            EXPECT_THROW(assign(text, g_long), std::bad_alloc);
        }
        EXPECT_EQ(value(text), "before");
    });
}

TEST(TextRoom, aThreadGivesItsRoomsBackAtItsEnd) {
    const long before = liveAllocations();
    inFreshThread([] {
        for (int i = 0; i < 100; ++i) useRoomFor(g_long);
    });
    EXPECT_EQ(liveAllocations(), before);
}

namespace {

/// Goes when its thread ends, after the rooms of the thread if it was made before them.
struct LateText_ {
    Utf8String_ m_text;
    ~LateText_() {
        assign(m_text, g_longer);
        keepRoomOf(m_text);
    }
};

}  // namespace

TEST(TextRoom, textsMayGoAfterTheRoomsOfTheirThread) {
    const long before = liveAllocations();
    inFreshThread([] {
        static thread_local LateText_ t_late;
        t_late.m_text.clear();
        useRoomFor(g_long);
    });
    EXPECT_EQ(liveAllocations(), before);
}

TEST(TextRoom, aTextOf512BytesLeavesItsRoomAndALongerOneDoesNot) {
    for (const std::size_t length : {511U, 512U, 513U}) {
        inFreshThread([length] {
            Utf8String_ used;
            used.reserve(length);
            assign(used, std::string(length, 'u'));
            ASSERT_EQ(used.capacity(), length);
            keepRoomOf(used);
            EXPECT_EQ(allocationsOfAssigning(g_longer), g_isOn && length <= 512 ? 0U : 1U) << length;
        });
    }
}

TEST(TextRoom, aThreadKeepsSixtyFourRooms) {
    for (const unsigned int kept : {63U, 64U, 65U}) {
        inFreshThread([kept] {
            std::vector<Utf8String_> texts(kept);
            for (Utf8String_& text : texts) assign(text, g_long);
            for (Utf8String_& text : texts) keepRoomOf(text);
            texts = std::vector<Utf8String_>(kept);
            const unsigned long before = allocationCount();

            for (Utf8String_& text : texts) assign(text, g_long);

            EXPECT_EQ(allocationCount() - before, g_isOn ? kept - std::min(kept, 64U) : kept);
        });
    }
}
