#include "foundation/thread_end.h"

#include <gtest/gtest.h>

#include "support/exhausted_heap.h"

TEST(ThreadEnd, canBeNotedWhereThereIsMemory) {
    EXPECT_TRUE(canNoteThreadEnd());
}

#if VEKMSG_CAN_EXHAUST_HEAP
TEST(ThreadEnd, cannotBeNotedWithoutMemory) {
    bool canNote = true;
    {
        const ExhaustedHeap_ exhausted;
        canNote = canNoteThreadEnd();
    }
    EXPECT_FALSE(canNote);
    EXPECT_TRUE(canNoteThreadEnd());
}
#endif
