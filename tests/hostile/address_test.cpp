#include <gtest/gtest.h>

#include <cstring>

#include "hostile/hostile_input.h"
#include "transport/socket_address.h"

namespace {

std::string randomAddress(Random_& random) {
    static const char* const s_schemes[] = {"local://", "inettcp://", "inetudp://", "tcp://", ""};
    std::string text = s_schemes[random.below(5)];
    if (random.oneIn(3)) {
        text += random.text(random.below(random.oneIn(10) ? 300 : 30), "/abc.-?");
    } else {
        for (int i = 0; i < 4; ++i)
            text += std::to_string(random.below(random.oneIn(6) ? 400 : 256)) + (i < 3 ? "." : ":");
        text += random.oneIn(4) ? random.text(random.below(9), "0123456789-x ")
                                : std::to_string(random.below(80000));
    }
    for (unsigned int times = random.below(3); times != 0; --times) mutate(random, text);
    return text;
}

/// The text that an accepted address gives itself names the same address; a refused one is none.
bool checkAddress(Random_& random) {
    const std::string text = randomAddress(random);
    VekSocketAddress_ address;
    VekSockNativeAddr_ native;
    if (!address.setRealName(text.c_str())) {
        EXPECT_TRUE(address.isWildcard());
        EXPECT_EQ(address.nativeSize(), 0U);
        EXPECT_FALSE(address.fillInNative(&native));
        return false;
    }
    EXPECT_TRUE(address.fillInNative(&native));
    EXPECT_EQ(address.nativeSize(), address.type() == VekSocketAddress_::LOCAL ? 110U : 16U);
    EXPECT_LE(address.realName().size(), 8U + 107U);
    VekSocketAddress_ again;
    EXPECT_TRUE(again.setRealName(address.realName().c_str())) << address.realName();
    EXPECT_TRUE(again.isEqual(address)) << text;
    EXPECT_EQ(again.realName(), address.realName());
    EXPECT_EQ(again.isWildcard(), address.isWildcard());
    VekSocketAddress_ taken;
    EXPECT_TRUE(address.type() == VekSocketAddress_::LOCAL
                    ? taken.extractFromNative(&native.m_local)
                    : taken.extractFromNative(&native.m_inet, address.type() == VekSocketAddress_::INET_UDP));
    EXPECT_TRUE(taken.isEqual(address)) << text;
    return true;
}

}  // namespace

TEST(HostileInput, addressTextsAreRefusedOrNameOneAddress) {
    forEachInput("address texts", [] { return checkAddress; });
}
