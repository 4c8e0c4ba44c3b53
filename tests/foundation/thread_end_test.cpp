#include "foundation/thread_end.h"

#include <gtest/gtest.h>

#include "support/exhausted_heap.h"

TEST(ThreadEnd, canBeNotedWhereThereIsMemory) {
    EXPECT_TRUE(canNoteThreadEnd());
}

TEST(ThreadEnd, cannotBeNotedWithoutMemory) {
    if (!ExhaustedHeap_::kIsPossible) GTEST_SKIP() << ExhaustedHeap_::kWhyNot;
    bool canNote = true;
    {
        const ExhaustedHeap_ exhausted;
        canNote = canNoteThreadEnd();
    }
    EXPECT_FALSE(canNote);
    EXPECT_TRUE(canNoteThreadEnd());
}
