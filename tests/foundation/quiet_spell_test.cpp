#include "foundation/quiet_spell.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "foundation/log_record.h"
#include "support/record_capture.h"

namespace {

class QuietSpell : public testing::Test {
protected:
    ~QuietSpell() override { endQuietSpell(); }
};

}  // namespace

TEST_F(QuietSpell, thereIsNoneBeforeOneBegins) {
    std::uint64_t seen = 1;
    std::thread([&] { seen = quietSpell(); }).join();

    EXPECT_EQ(seen, kNoQuietSpell);
}

TEST_F(QuietSpell, eachHasANumberOfItsOwn) {
    beginQuietSpell(takeQuietSpell());
    const std::uint64_t first = quietSpell();
    beginQuietSpell(takeQuietSpell());
    const std::uint64_t second = quietSpell();

    EXPECT_NE(first, kNoQuietSpell);
    EXPECT_NE(second, kNoQuietSpell);
    EXPECT_NE(first, second);
}

TEST_F(QuietSpell, thoseOfAnotherThreadHaveOtherNumbersAndEndWithoutThisOne) {
    beginQuietSpell(takeQuietSpell());
    const std::uint64_t ours = quietSpell();
    std::uint64_t theirs = ours;
    std::thread([&] {
        beginQuietSpell(takeQuietSpell());
        theirs = quietSpell();
        endQuietSpell();
    }).join();

    EXPECT_NE(theirs, ours);
    EXPECT_EQ(quietSpell(), ours);
}

TEST_F(QuietSpell, noneOfManyInTurnHasTheNumberOfAnother) {
    constexpr unsigned int kEach = 100000;  // more than a thread takes at a time
    std::set<std::uint64_t> numbers;
    for (unsigned int i = 0; i < 3 * kEach; ++i) {
        if (i == kEach) {
            std::thread([&] {
                beginQuietSpell(takeQuietSpell());
                numbers.insert(quietSpell());
            }).join();
        }
        beginQuietSpell(takeQuietSpell());
        numbers.insert(quietSpell());
    }

    EXPECT_EQ(numbers.size(), 3U * kEach + 1);
    EXPECT_EQ(numbers.count(kNoQuietSpell), 0U);
}

TEST_F(QuietSpell, endsOnce) {
    beginQuietSpell(takeQuietSpell());
    endQuietSpell();
    EXPECT_EQ(quietSpell(), kNoQuietSpell);
    endQuietSpell();
    EXPECT_EQ(quietSpell(), kNoQuietSpell);
}

TEST_F(QuietSpell, endsWithTheCallThatItIsOf) {
    {
        const QuietSpellEnd_ end;
        beginQuietSpell(takeQuietSpell());
        EXPECT_NE(quietSpell(), kNoQuietSpell);
    }
    EXPECT_EQ(quietSpell(), kNoQuietSpell);
}

TEST_F(QuietSpell, endsWhenASinkHasRun) {
    static LogSite s_site = {0, "$fmt", "module.cpp", "void f()", 1, {}};
    const RecordCapture_ records;
    beginQuietSpell(takeQuietSpell());

    log_dispatch(kLogError, &s_site, 1, "fmt", "text", nullptr, nullptr);

    EXPECT_EQ(quietSpell(), kNoQuietSpell);
}
