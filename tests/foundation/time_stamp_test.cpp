#include "libcpp/time_stamp.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <type_traits>

#include "support/system_calls.h"

TEST(TimeStamp, anUnsetOneHasNoAge) {
    const TimeStamp_ stamp;
    unsigned int seconds = 77;

    EXPECT_FALSE(stamp.getAgeInSec(seconds));

    EXPECT_EQ(seconds, 77U);
}

TEST(TimeStamp, aFreshOneIsNoSecondOld) {
    SystemCalls_ calls;
    calls.stopClock(1000, 0);
    TimeStamp_ stamp;
    unsigned int seconds = 77;
    ASSERT_TRUE(stamp.imprint());

    EXPECT_TRUE(stamp.getAgeInSec(seconds));

    EXPECT_EQ(seconds, 0U);
}

TEST(TimeStamp, itsAgeIsInWholeSecondsRoundedDown) {
    SystemCalls_ calls;
    calls.stopClock(1000, 999999999);
    TimeStamp_ stamp;
    ASSERT_TRUE(stamp.imprint());
    unsigned int seconds = 77;

    calls.stopClock(1002, 999999998);
    EXPECT_TRUE(stamp.getAgeInSec(seconds));
    EXPECT_EQ(seconds, 1U);

    calls.stopClock(1002, 999999999);
    EXPECT_TRUE(stamp.getAgeInSec(seconds));
    EXPECT_EQ(seconds, 2U);
}

TEST(TimeStamp, itsAgeIsWhatTheClockMovedOn) {
    SystemCalls_ calls;
    TimeStamp_ fresh;
    TimeStamp_ moved;
    ASSERT_TRUE(moved.imprint());
    calls.advanceClock(100000);
    ASSERT_TRUE(fresh.imprint());
    unsigned int freshAge = 0;
    unsigned int movedAge = 0;

    ASSERT_TRUE(moved.getAgeInSec(movedAge));
    ASSERT_TRUE(fresh.getAgeInSec(freshAge));

    EXPECT_GE(movedAge, 100000U);
    EXPECT_LT(freshAge, 100000U);
}

TEST(TimeStamp, aNewImprintMakesItYoungAgain) {
    SystemCalls_ calls;
    TimeStamp_ stamp;
    ASSERT_TRUE(stamp.imprint());
    calls.advanceClock(100000);
    unsigned int seconds = 0;

    ASSERT_TRUE(stamp.imprint());

    ASSERT_TRUE(stamp.getAgeInSec(seconds));
    EXPECT_LT(seconds, 100000U);
}

TEST(TimeStamp, imprintFailsWithoutAClock) {
    SystemCalls_ calls;
    TimeStamp_ stamp;
    calls.fail(SystemCalls_::ClockGettime, EINVAL);

    const bool isImprinted = stamp.imprint();

    EXPECT_FALSE(isImprinted);
    unsigned int seconds = 0;
    EXPECT_FALSE(stamp.getAgeInSec(seconds));
}

TEST(TimeStamp, aFailedImprintKeepsTheOldTime) {
    SystemCalls_ calls;
    TimeStamp_ stamp;
    ASSERT_TRUE(stamp.imprint());
    calls.advanceClock(100000);
    calls.fail(SystemCalls_::ClockGettime, EINVAL);
    unsigned int seconds = 0;

    const bool isImprinted = stamp.imprint();

    EXPECT_FALSE(isImprinted);
    ASSERT_TRUE(stamp.getAgeInSec(seconds));
    EXPECT_GE(seconds, 100000U);
}

TEST(TimeStamp, itsAgeFailsWithoutAClock) {
    SystemCalls_ calls;
    TimeStamp_ stamp;
    ASSERT_TRUE(stamp.imprint());
    calls.fail(SystemCalls_::ClockGettime, EINVAL);
    unsigned int seconds = 77;

    const bool hasAge = stamp.getAgeInSec(seconds);

    EXPECT_FALSE(hasAge);
    EXPECT_EQ(seconds, 77U);
}

TEST(TimeStamp, aCopyKeepsTheTime) {
    SystemCalls_ calls;
    TimeStamp_ stamp;
    ASSERT_TRUE(stamp.imprint());
    calls.advanceClock(100000);

    const TimeStamp_ copy(stamp);

    unsigned int seconds = 0;
    ASSERT_TRUE(copy.getAgeInSec(seconds));
    EXPECT_GE(seconds, 100000U);
}

TEST(TimeStamp, itHasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<TimeStamp_>::value);
}

TEST(TimeStamp, itsAgeIsCountedIn32Bits) {
    SystemCalls_ calls;
    calls.stopClock(0, 0);
    TimeStamp_ stamp;
    ASSERT_TRUE(stamp.imprint());
    unsigned int seconds = 77;
    calls.stopClock(2147483647, 999999999);  // as far as a clock of 32 bits goes
    EXPECT_TRUE(stamp.getAgeInSec(seconds));
    EXPECT_EQ(seconds, 2147483647U);

    if (sizeof(time_t) == 4) return;
    calls.stopClock(4294967295U, 0);
    EXPECT_TRUE(stamp.getAgeInSec(seconds));
    EXPECT_EQ(seconds, 4294967295U);
    calls.advanceClock(1);
    EXPECT_TRUE(stamp.getAgeInSec(seconds));
    EXPECT_EQ(seconds, 0U);
}
