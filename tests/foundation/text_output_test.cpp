#include "foundation/text_output.h"

#include <gtest/gtest.h>

#include <climits>
#include <iomanip>
#include <locale>
#include <sstream>
#include <string>

namespace {

/// Groups digits as no plain number has them.
class GroupedDigits_ : public std::numpunct<char> {
    char do_thousands_sep() const override { return '\''; }
    std::string do_grouping() const override { return "\3"; }
};

}  // namespace

TEST(TextOutput, textIsWrittenUpToItsNul) {
    std::ostringstream stream;

    writeUnformatted(stream, "plain ");
    writeUnformatted(stream, reinterpret_cast<const Utf8Char_*>("n\xC3\xA4me\0hidden"));
    writeUnformatted(stream, "");

    EXPECT_EQ(stream.str(), "plain n\xC3\xA4me");
}

TEST(TextOutput, numbersAreDecimal) {
    std::ostringstream stream;

    writeUnformatted(stream, 0U);
    writeUnformatted(stream, " ");
    writeUnformatted(stream, UINT_MAX);

    EXPECT_EQ(stream.str(), "0 4294967295");
}

TEST(TextOutput, theStreamsSettingsHaveNoSay) {
    std::ostringstream stream;
    stream.imbue(std::locale(std::locale::classic(), new GroupedDigits_));
    stream << std::hex << std::showbase << std::setfill('*') << std::setw(30);

    writeUnformatted(stream, "n=");
    writeUnformatted(stream, 1234567U);

    EXPECT_EQ(stream.str(), "n=1234567");
}

TEST(TextOutput, theStreamsSettingsAreNotUsedUp) {
    std::ostringstream stream;
    stream << std::setfill('*') << std::setw(4);
    writeUnformatted(stream, "a");
    writeUnformatted(stream, 1U);

    stream << "b";

    EXPECT_EQ(stream.str(), "a1***b");
}
