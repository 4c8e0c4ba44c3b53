#include "foundation/quiet_spell.h"

#include <gtest/gtest.h>

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
    beginQuietSpell();
    const std::uint64_t first = quietSpell();
    beginQuietSpell();
    const std::uint64_t second = quietSpell();

    EXPECT_NE(first, kNoQuietSpell);
    EXPECT_NE(second, kNoQuietSpell);
    EXPECT_NE(first, second);
}

TEST_F(QuietSpell, thoseOfAnotherThreadHaveOtherNumbersAndEndWithoutThisOne) {
    beginQuietSpell();
    const std::uint64_t ours = quietSpell();
    std::uint64_t theirs = ours;
    std::thread([&] {
        beginQuietSpell();
        theirs = quietSpell();
        endQuietSpell();
    }).join();

    EXPECT_NE(theirs, ours);
    EXPECT_EQ(quietSpell(), ours);
}

TEST_F(QuietSpell, endsOnce) {
    beginQuietSpell();
    endQuietSpell();
    EXPECT_EQ(quietSpell(), kNoQuietSpell);
    endQuietSpell();
    EXPECT_EQ(quietSpell(), kNoQuietSpell);
}

TEST_F(QuietSpell, endsWithTheCallThatItIsOf) {
    {
        const QuietSpellEnd_ end;
        beginQuietSpell();
        EXPECT_NE(quietSpell(), kNoQuietSpell);
    }
    EXPECT_EQ(quietSpell(), kNoQuietSpell);
}

TEST_F(QuietSpell, endsWhenASinkHasRun) {
    static LogSite s_site = {0, "$fmt", "module.cpp", "void f()", 1, {}};
    const RecordCapture_ records;
    beginQuietSpell();

    log_dispatch(kLogError, &s_site, 1, "fmt", "text", nullptr, nullptr);

    EXPECT_EQ(quietSpell(), kNoQuietSpell);
}
