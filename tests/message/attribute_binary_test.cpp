#include "message/attribute_binary.h"

#include <gtest/gtest.h>

#include <sstream>

#include "message/message_fixture.h"

TEST(VekmsgAttributeBinary, itHasTheTagThatMatchesAny) {
    EXPECT_EQ(VekmsgAttributeBinary_().getTag(), VEKMSGTAG_ANY);
}

TEST(VekmsgAttributeBinary, gettersFailAndTouchNothing) {
    const VekmsgAttributeBinary_ attribute;
    const unsigned char* p_value = text("kept");
    const unsigned char* const p_kept = p_value;
    unsigned int value = 42;
    RecordCapture_ records;

    EXPECT_FALSE(attribute.getValue(p_value));
    EXPECT_FALSE(attribute.getValue(value));

    EXPECT_EQ(p_value, p_kept);
    EXPECT_EQ(value, 42U);
    EXPECT_EQ(records.take(), Records_());
}

TEST(VekmsgAttributeBinary, settersFail) {
    VekmsgAttributeBinary_ attribute;
    RecordCapture_ records;

    EXPECT_FALSE(attribute.setValue(text("value")));
    EXPECT_FALSE(attribute.setValue(1U));
    EXPECT_EQ(records.take(), Records_());
}

TEST(VekmsgAttributeBinary, itPrintsNothing) {
    const VekmsgAttributeBinary_ attribute;
    std::ostringstream stream;

    EXPECT_TRUE(attribute.print(&stream, 3));
    EXPECT_EQ(stream.str(), "");
    EXPECT_FALSE(attribute.print(nullptr, 3));
}
