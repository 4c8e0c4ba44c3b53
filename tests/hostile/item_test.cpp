#include <gtest/gtest.h>

#include "hostile/hostile_input.h"
#include "message/message_binary.h"
#include "support/wire_bytes.h"

namespace {

std::string randomItem(Random_& random) {
    std::string bytes = wire::item(random.below(65536), random.below(6), random.bytes(random.below(60)));
    mutate(random, bytes);
    return bytes;
}

/// Reads one item, and writes what was accepted to the same bytes again.
class ItemCheck_ {
public:
    bool operator()(Random_& random) {
        const std::string bytes = random.oneIn(4) ? random.bytes(random.below(20)) : randomItem(random);
        const auto size = static_cast<unsigned int>(bytes.size());
        const unsigned char* p_bytes = m_input.place(bytes);
        VekmsgTag_ tag = 0;
        VekmsgDataType_ type = VEKMSG_UNDEFINED;
        unsigned int length = 0;
        const unsigned char* p_value = nullptr;

        const unsigned int used =
            VekMessageBinary_::deserializeTtlv(p_bytes, size, tag, type, length, p_value);

        EXPECT_EQ(used != 0, VekMessageBinary_::isValidTtlv(p_bytes, size));
        if (used == 0) {
            EXPECT_EQ(p_value, nullptr);
            return false;
        }
        EXPECT_EQ(used, 6 + length);
        EXPECT_LE(used, size);
        EXPECT_EQ(p_value, p_bytes + 6);
        unsigned char* p_room = m_output.room(used);
        EXPECT_EQ(VekMessageBinary_::serializeTtlv(p_room + used, used, tag, type, length, p_value), used);
        EXPECT_EQ(std::string(p_room, p_room + used), bytes.substr(0, used));
        EXPECT_EQ(VekMessageBinary_::serializeTtlv(p_room + used, used - 1, tag, type, length, p_value), 0U);
        return true;
    }

private:
    GuardedBytes_ m_input;
    GuardedBytes_ m_output;
};

}  // namespace

TEST(HostileInput, itemsAreReadWithinTheirBoundsAndWrittenTheSameAgain) {
    forEachInput("items", checkBy<ItemCheck_>);
}
