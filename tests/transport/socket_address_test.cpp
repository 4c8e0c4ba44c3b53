#include "transport/socket_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "support/allocation_failure.h"
#include "transport/streams.h"

namespace {

using Type_ = VekSocketAddress_::AddressType_;

constexpr char kParse[] = "bool VekSocketAddress_::setRealName(const char*)";
constexpr char kParseType[] = "bool VekSocketAddress_::setRealName(const char*, std::size_t)";
constexpr char kParseEndpoint[] = "bool VekSocketAddress_::setRealName(const char*, const char*)";
constexpr char kFill[] = "bool VekSocketAddress_::fillInNative(VekSockNativeAddr_*) const";

Record_ error(const std::string& signature, const std::string& text) {
    return socketRecord(3, signature, text);
}

/// What the address gives to the operating system.
VekSockNativeAddr_ nativeOf(const VekSocketAddress_& address) {
    VekSockNativeAddr_ native;
    std::memset(&native, 0xEE, sizeof(native));
    EXPECT_TRUE(address.fillInNative(&native));
    return native;
}

unsigned int portOf(const VekSocketAddress_& address) {
    return ntohs(nativeOf(address).m_inet.sin_port);
}

void expectRefused(const std::string& text, const Record_& record) {
    VekSocketAddress_ address = addressOf("local://before");
    RecordCapture_ records;

    EXPECT_FALSE(address.setRealName(text.c_str())) << text;

    EXPECT_EQ(records.take(), Records_{record});
    EXPECT_EQ(address.nativeSize(), 0U) << text;
    EXPECT_TRUE(address.isWildcard()) << text;
    EXPECT_EQ(address.realName(), "local://before") << text;
}

/// Both schemes refuse the same endpoints.
void expectEndpointRefused(const std::string& endpoint, const std::string& reason) {
    for (const char* p_scheme : {"inettcp://", "inetudp://"}) {
        const std::string text = p_scheme + endpoint;
        expectRefused(text, error(kParseEndpoint, "VekSocketAddress_::setRealName(" + text + ") " + reason));
    }
}

void expectInvalidType(const std::string& text) {
    expectRefused(text, error(kParseType, "VekSocketAddress_::setRealName(" + text + ") invalid type"));
}

}  // namespace

TEST(VekSocketAddress, aNewAddressIsUnset) {
    const VekSocketAddress_ address;

    EXPECT_EQ(address.type(), Type_::UNKNOWN);
    EXPECT_EQ(address.realName(), "");
    EXPECT_EQ(address.nativeSize(), 0U);
    EXPECT_TRUE(address.isWildcard());
    EXPECT_STREQ(address.path(), "");
}

TEST(VekSocketAddress, typesHaveTheirNumbers) {
    EXPECT_EQ(Type_::UNKNOWN, 0U);
    EXPECT_EQ(Type_::LOCAL, 1U);
    EXPECT_EQ(Type_::INET_TCP, 2U);
    EXPECT_EQ(Type_::INET_UDP, 3U);
    EXPECT_EQ(sizeof(Type_), 4U);
    EXPECT_EQ(sizeof(VekSockNativeAddr_), 256U);
}

TEST(VekSocketAddress, aLocalTextNamesThePathBehindItsScheme) {
    RecordCapture_ records;
    const VekSocketAddress_ relative = addressOf("local://tmp/comp-a.sock");
    const VekSocketAddress_ absolute = addressOf("local:///tmp/comp-a.sock");

    EXPECT_EQ(relative.type(), Type_::LOCAL);
    EXPECT_EQ(relative.nativeSize(), 110U);
    EXPECT_EQ(relative.realName(), "local://tmp/comp-a.sock");
    EXPECT_STREQ(relative.path(), "tmp/comp-a.sock");
    EXPECT_STREQ(nativeOf(relative).m_local.sun_path, "tmp/comp-a.sock");
    EXPECT_EQ(nativeOf(relative).m_local.sun_family, AF_UNIX);
    EXPECT_STREQ(absolute.path(), "/tmp/comp-a.sock");
    EXPECT_FALSE(absolute.isWildcard());
    EXPECT_EQ(records.take(), Records_{});
}

TEST(VekSocketAddress, anInetTextGivesAddressAndPort) {
    RecordCapture_ records;
    const VekSocketAddress_ tcp = addressOf("inettcp://192.168.1.20:7000");
    const VekSocketAddress_ udp = addressOf("inetudp://127.0.0.1:7001");

    EXPECT_EQ(tcp.type(), Type_::INET_TCP);
    EXPECT_EQ(tcp.nativeSize(), 16U);
    EXPECT_EQ(tcp.realName(), "inettcp://192.168.1.20:7000");
    EXPECT_EQ(nativeOf(tcp).m_inet.sin_family, AF_INET);
    EXPECT_EQ(nativeOf(tcp).m_inet.sin_addr.s_addr, htonl(0xC0A80114));
    EXPECT_EQ(portOf(tcp), 7000U);
    EXPECT_EQ(udp.type(), Type_::INET_UDP);
    EXPECT_EQ(udp.nativeSize(), 16U);
    EXPECT_EQ(udp.realName(), "inetudp://127.0.0.1:7001");
    EXPECT_EQ(portOf(udp), 7001U);
    EXPECT_STREQ(tcp.path(), "");
    EXPECT_EQ(records.take(), Records_{});
}

TEST(VekSocketAddress, theEmptyLocalPathIsAWildcard) {
    const VekSocketAddress_ address = addressOf("local://");

    EXPECT_EQ(address.type(), Type_::LOCAL);
    EXPECT_EQ(address.nativeSize(), 110U);
    EXPECT_EQ(address.realName(), "local://");
    EXPECT_TRUE(address.isWildcard());
    EXPECT_STREQ(address.path(), "");
    EXPECT_EQ(nativeOf(address).m_local.sun_family, AF_UNIX);
}

TEST(VekSocketAddress, aQuestionMarkIsAParsedPathAndNoWildcard) {
    const VekSocketAddress_ address = addressOf("local://?");

    EXPECT_EQ(address.realName(), "local://?");
    EXPECT_STREQ(address.path(), "?");
    EXPECT_FALSE(address.isWildcard());
}

TEST(VekSocketAddress, theEmptyInetFormsAreWildcards) {
    const VekSocketAddress_ tcp = addressOf("inettcp://");
    const VekSocketAddress_ udp = addressOf("inetudp://");

    EXPECT_EQ(tcp.type(), Type_::INET_TCP);
    EXPECT_EQ(tcp.realName(), "inettcp://0.0.0.0:0");
    EXPECT_EQ(tcp.nativeSize(), 16U);
    EXPECT_TRUE(tcp.isWildcard());
    EXPECT_EQ(nativeOf(tcp).m_inet.sin_family, AF_INET);
    EXPECT_EQ(udp.type(), Type_::INET_UDP);
    EXPECT_EQ(udp.realName(), "inetudp://0.0.0.0:0");
    EXPECT_TRUE(udp.isWildcard());
}

TEST(VekSocketAddress, aNullTextIsRefusedAndChangesNothing) {
    VekSocketAddress_ address = addressOf("inettcp://1.2.3.4:5");
    RecordCapture_ records;

    EXPECT_FALSE(address.setRealName(nullptr));

    EXPECT_EQ(records.take(), Records_{error(kParse, "VekSocketAddress_::setRealName() null p_name")});
    EXPECT_EQ(address.realName(), "inettcp://1.2.3.4:5");
    EXPECT_EQ(address.nativeSize(), 16U);
}

TEST(VekSocketAddress, aTextWithoutAKnownSchemeHasAnInvalidType) {
    for (const char* p_text :
         {"", "l", "local:/", "local:/a", "inettcp:/", "inetudp:/", "tcp://1.2", "Inettcp://1.2.3.4:5",
          "INETUDP://1.2.3.4:5", "tcp://1.2.3.4:5", "Local:///tmp/a.sock", " local:///tmp/a.sock",
          "inettcp:/1.2.3.4:5", "inetxyz://1.2.3.4:5"})
        expectInvalidType(p_text);
}

TEST(VekSocketAddress, aRefusedTextCanLeaveTheTypeOfItsScheme) {
    VekSocketAddress_ tcp;
    VekSocketAddress_ udp;
    VekSocketAddress_ none = addressOf("inettcp://1.2.3.4:5");
    RecordCapture_ records;

    EXPECT_FALSE(tcp.setRealName("inettcp://nothing"));
    EXPECT_FALSE(udp.setRealName("inetudp://nothing"));
    EXPECT_FALSE(none.setRealName("nothing of the kind"));

    EXPECT_EQ(tcp.type(), Type_::INET_TCP);
    EXPECT_EQ(udp.type(), Type_::INET_UDP);
    EXPECT_EQ(none.type(), Type_::UNKNOWN);
    EXPECT_EQ(
        records.take(),
        (Records_{error(kParseEndpoint, "VekSocketAddress_::setRealName(inettcp://nothing) invalid port"),
                  error(kParseEndpoint, "VekSocketAddress_::setRealName(inetudp://nothing) invalid port"),
                  error(kParseType, "VekSocketAddress_::setRealName(nothing of the kind) invalid type")}));
}

TEST(VekSocketAddress, aMissingPortIsRefused) {
    for (const char* p_endpoint : {"10.0.0.1", "10.0.0.1:", "?", ":", "some.host.name"})
        expectEndpointRefused(p_endpoint, "invalid port");
}

TEST(VekSocketAddress, anAddressPartOfImpossibleLengthIsRefused) {
    expectEndpointRefused(":7000", "invalid address length 0");
    expectEndpointRefused("::7000", "invalid address length 0");
    expectEndpointRefused("1.2.34:7000", "invalid address length 6");
    expectEndpointRefused("255.255.255.2555:7000", "invalid address length 16");
    expectEndpointRefused("router.example.org:7000", "invalid address length 18");
}

TEST(VekSocketAddress, anAddressPartThatIsNoDottedAddressIsRefused) {
    for (const char* p_endpoint :
         {"10.0.0.256:1", "localhost:7000", "1.2.3.4.5:1", "1.2.3.x:1", "-1.2.3.4:1"})
        expectEndpointRefused(p_endpoint, "invalid address");
}

TEST(VekSocketAddress, theShortestAndLongestAddressPartsAreAccepted) {
    EXPECT_EQ(addressOf("inettcp://1.2.3.4:5").realName(), "inettcp://1.2.3.4:5");
    EXPECT_EQ(addressOf("inettcp://255.255.255.255:65535").realName(), "inettcp://255.255.255.255:65535");
}

TEST(VekSocketAddress, aPortWrapsAndWhatFollowsItsDigitsIsIgnored) {
    const struct {
        const char* m_p_text;
        unsigned int m_port;
    } cases[] = {{"0", 0},
                 {"1", 1},
                 {"65535", 65535},
                 {"65536", 0},
                 {"70000", 4464},
                 {"7000x", 7000},
                 {"abc", 0},
                 {"-1", 65535},
                 {"+8", 8},
                 {" 9", 9},
                 {"0x10", 0},
                 {"7:8", 7},
                 {"007", 7},
                 {"80 and more", 80},
                 {"99999999999999999999999999", 65535}};
    RecordCapture_ records;
    for (const auto& each : cases) {
        const VekSocketAddress_ tcp = addressOf(std::string("inettcp://10.0.0.1:") + each.m_p_text);
        const VekSocketAddress_ udp = addressOf(std::string("inetudp://10.0.0.1:") + each.m_p_text);

        EXPECT_EQ(portOf(tcp), each.m_port) << each.m_p_text;
        EXPECT_EQ(tcp.realName(), "inettcp://10.0.0.1:" + std::to_string(each.m_port));
        EXPECT_EQ(udp.realName(), "inetudp://10.0.0.1:" + std::to_string(each.m_port));
    }
    EXPECT_EQ(records.take(), Records_{});
}

TEST(VekSocketAddress, aPortThatNoLongHoldsIsThatOfTheGreatestLong) {
    const std::string greatest = std::to_string(std::numeric_limits<long>::max());

    EXPECT_EQ(portOf(addressOf("inettcp://10.0.0.1:" + greatest)), 65535U);
    EXPECT_EQ(portOf(addressOf("inettcp://10.0.0.1:" + greatest + "0")), 65535U);
    // 2^32, which a long of 32 bits does not hold.
    EXPECT_EQ(portOf(addressOf("inettcp://10.0.0.1:4294967296")), sizeof(long) == 4 ? 65535U : 0U);
}

TEST(VekSocketAddress, aLongPathIsCutTo107Characters) {
    const std::string path = "/" + std::string(199, 'p');
    RecordCapture_ records;

    const VekSocketAddress_ address = addressOf("local://" + path);

    EXPECT_EQ(address.realName(), "local://" + path.substr(0, 107));
    EXPECT_EQ(address.path(), path.substr(0, 107));
    EXPECT_EQ(nativeOf(address).m_local.sun_path[107], '\0');
    EXPECT_EQ(records.take(), Records_{});
}

TEST(VekSocketAddress, aPathOf107CharactersStaysWhole) {
    const std::string path(107, 'p');

    EXPECT_EQ(addressOf("local://" + path.substr(1)).path(), path.substr(1));
    EXPECT_EQ(addressOf("local://" + path).path(), path);
    EXPECT_EQ(addressOf("local://" + path + "q").path(), path);
}

TEST(VekSocketAddress, anAddressCanBeSetFromItsOwnText) {
    VekSocketAddress_ address = addressOf("local:///a/path/that/needs/memory/of/its/own");

    EXPECT_TRUE(address.setRealName(address.realName().c_str()));

    EXPECT_EQ(address.realName(), "local:///a/path/that/needs/memory/of/its/own");
}

TEST(VekSocketAddress, aShorterPathLeavesNothingOfTheLongerOne) {
    VekSocketAddress_ address = addressOf("local:///a/long/path");

    EXPECT_TRUE(address.setRealName("local:///b"));

    const VekSockNativeAddr_ native = nativeOf(address);
    EXPECT_EQ(std::string(native.m_local.sun_path, 108), "/b" + std::string(106, '\0'));
}

TEST(VekSocketAddress, updatingAnUnsetAddressEmptiesTheText) {
    VekSocketAddress_ address = addressOf("local:///tmp/a");
    RecordCapture_ records;
    EXPECT_FALSE(address.setRealName("nothing of the kind"));
    records.take();

    EXPECT_FALSE(address.updateRealName());

    EXPECT_EQ(records.take(), Records_{error("bool VekSocketAddress_::updateRealName()",
                                             "VekSocketAddress_::updateRealName() invalid type 0")});
    EXPECT_EQ(address.realName(), "");
}

TEST(VekSocketAddress, wildcardsOfEachTypeHaveTheirPlaceholderText) {
    const struct {
        Type_ m_type;
        const char* m_p_text;
        unsigned int m_size;
    } cases[] = {{Type_::LOCAL, "local://?", 110},
                 {Type_::INET_TCP, "inettcp://?", 16},
                 {Type_::INET_UDP, "inetudp://?", 16}};
    for (const auto& each : cases) {
        VekSocketAddress_ address = addressOf("local:///before");

        EXPECT_TRUE(address.initializeAsWildcard(each.m_type));

        EXPECT_EQ(address.type(), each.m_type);
        EXPECT_EQ(address.realName(), each.m_p_text);
        EXPECT_EQ(address.nativeSize(), each.m_size);
        EXPECT_TRUE(address.isWildcard());
        EXPECT_EQ(nativeOf(address).m_any.sa_family, 0);
    }
}

TEST(VekSocketAddress, aWildcardOfNoTypeIsUnset) {
    for (const auto type : {Type_::UNKNOWN, static_cast<Type_>(4), static_cast<Type_>(0xFFFFFFFF)}) {
        VekSocketAddress_ address = addressOf("inettcp://1.2.3.4:5");

        EXPECT_TRUE(address.initializeAsWildcard(type));

        EXPECT_EQ(address.type(), Type_::UNKNOWN);
        EXPECT_EQ(address.realName(), "");
        EXPECT_EQ(address.nativeSize(), 0U);
        EXPECT_TRUE(address.isWildcard());
    }
}

TEST(VekSocketAddress, anAddressOrAPortMakesAnInetAddressSpecific) {
    EXPECT_TRUE(addressOf("inettcp://0.0.0.0:0").isWildcard());
    EXPECT_FALSE(addressOf("inettcp://0.0.0.0:1").isWildcard());
    EXPECT_FALSE(addressOf("inettcp://1.2.3.4:0").isWildcard());
    EXPECT_TRUE(addressOf("inetudp://0.0.0.0:0").isWildcard());
    EXPECT_FALSE(addressOf("inetudp://0.0.0.0:1").isWildcard());
    EXPECT_FALSE(addressOf("inetudp://1.2.3.4:0").isWildcard());
}

TEST(VekSocketAddress, addressesAreEqualWhenTheirNativeFormsAre) {
    EXPECT_TRUE(addressOf("inettcp://1.2.3.4:5").isEqual(addressOf("inettcp://1.2.3.4:5")));
    EXPECT_FALSE(addressOf("inettcp://1.2.3.4:5").isEqual(addressOf("inettcp://1.2.3.4:6")));
    EXPECT_FALSE(addressOf("inettcp://1.2.3.4:5").isEqual(addressOf("inettcp://1.2.3.5:5")));
    EXPECT_TRUE(addressOf("inetudp://1.2.3.4:5").isEqual(addressOf("inetudp://1.2.3.4:5")));
    EXPECT_FALSE(addressOf("inetudp://1.2.3.4:5").isEqual(addressOf("inetudp://1.2.3.4:6")));
    EXPECT_TRUE(addressOf("local:///a").isEqual(addressOf("local:///a")));
    EXPECT_FALSE(addressOf("local:///a").isEqual(addressOf("local:///A")));
    EXPECT_FALSE(addressOf("local:///a").isEqual(addressOf("local:///ab")));
}

TEST(VekSocketAddress, addressesOfDifferentTypesAreNotEqual) {
    EXPECT_FALSE(addressOf("inettcp://1.2.3.4:5").isEqual(addressOf("inetudp://1.2.3.4:5")));
    EXPECT_FALSE(addressOf("inettcp://1.2.3.4:5").isEqual(addressOf("local:///a")));
}

TEST(VekSocketAddress, unsetAddressesEqualNothing) {
    const VekSocketAddress_ unset;

    EXPECT_FALSE(unset.isEqual(VekSocketAddress_()));
    EXPECT_FALSE(unset.isEqual(unset));
    EXPECT_FALSE(unset.isEqual(addressOf("local://")));
}

TEST(VekSocketAddress, textsAreNotCompared) {
    EXPECT_TRUE(addressOf("inettcp://").isEqual(wildcardOf(Type_::INET_TCP)));
    EXPECT_TRUE(addressOf("local://").isEqual(wildcardOf(Type_::LOCAL)));
}

TEST(VekSocketAddress, anAddressWhoseTextWasRefusedIsNotEqualToAWildcardOfItsType) {
    RecordCapture_ records;
    VekSocketAddress_ refused;
    EXPECT_FALSE(refused.setRealName("inettcp://nothing"));

    EXPECT_FALSE(refused.isEqual(wildcardOf(Type_::INET_TCP)));
    EXPECT_EQ(
        records.take(),
        Records_{error(kParseEndpoint, "VekSocketAddress_::setRealName(inettcp://nothing) invalid port")});
}

TEST(VekSocketAddress, exactlyTheNativeBytesAreFilledIn) {
    const VekSockNativeAddr_ local = nativeOf(addressOf("local:///tmp/a"));
    const VekSockNativeAddr_ inet = nativeOf(addressOf("inettcp://1.2.3.4:5"));

    EXPECT_EQ(local.m_bytes[109], 0);
    EXPECT_EQ(local.m_bytes[110], 0xEE);
    EXPECT_EQ(inet.m_bytes[15], 0);
    EXPECT_EQ(inet.m_bytes[16], 0xEE);
}

TEST(VekSocketAddress, fillingInNothingIsRefusedWhateverTheAddress) {
    VekSocketAddress_ refused;
    RecordCapture_ records;
    EXPECT_FALSE(refused.setRealName("inettcp://nothing"));
    records.take();

    for (const VekSocketAddress_& address : {addressOf("local:///tmp/a"), VekSocketAddress_(), refused}) {
        EXPECT_FALSE(address.fillInNative(nullptr));

        EXPECT_EQ(records.take(), Records_{error(kFill, "VekSocketAddress_::fillInNative() null p_addr")});
    }
}

TEST(VekSocketAddress, anUnsetAddressFillsInNothing) {
    VekSockNativeAddr_ native;
    std::memset(&native, 0xEE, sizeof(native));
    RecordCapture_ records;

    EXPECT_FALSE(VekSocketAddress_().fillInNative(&native));

    EXPECT_EQ(records.take(), Records_{error(kFill, "VekSocketAddress_::fillInNative() unknown type 0")});
    EXPECT_EQ(native.m_bytes[0], 0xEE);
}

TEST(VekSocketAddress, anInetAddressWhoseTextWasRefusedFillsInNothing) {
    VekSocketAddress_ tcp;
    VekSocketAddress_ udp;
    VekSockNativeAddr_ native;
    RecordCapture_ records;
    EXPECT_FALSE(tcp.setRealName("inettcp://nothing"));
    EXPECT_FALSE(udp.setRealName("inetudp://nothing"));
    records.take();

    EXPECT_FALSE(tcp.fillInNative(&native));
    EXPECT_FALSE(udp.fillInNative(&native));

    EXPECT_EQ(
        records.take(),
        (Records_{
            error(kFill, "VekSocketAddress_::fillInNative(INET_TCP) wrong native size 0. Expecting 16"),
            error(kFill, "VekSocketAddress_::fillInNative(INET_UDP) wrong native size 0. Expecting 16")}));
}

TEST(VekSocketAddress, aLocalAddressWithoutMemoryForItsTextFillsInNothing) {
    VekSocketAddress_ address;
    VekSockNativeAddr_ native;
    RecordCapture_ records;
    bool isSet = true;
    {
        AllocationFailure_ failure(1);
        isSet = address.setRealName("local:///a/path/that/needs/memory/of/its/own");
    }

    EXPECT_FALSE(isSet);
    EXPECT_EQ(address.type(), Type_::LOCAL);
    EXPECT_EQ(records.take(), Records_{});
    EXPECT_FALSE(address.fillInNative(&native));
    EXPECT_EQ(
        records.take(),
        Records_{error(kFill, "VekSocketAddress_::fillInNative(LOCAL) wrong native size 0. Expecting 110")});
}

TEST(VekSocketAddress, whenMemoryIsShortTheOldTextStays) {
    for (const char* p_text : {"local:///a/path/that/needs/memory/of/its/own",
                               "inettcp://192.168.100.200:65000", "inetudp://192.168.100.200:65000"}) {
        unsigned int number = 1;
        for (bool hasStruck = true; hasStruck && number < 20; ++number) {
            VekSocketAddress_ address = addressOf("local:///before");
            RecordCapture_ records;
            bool isSet = false;
            {
                AllocationFailure_ failure(number);
                isSet = address.setRealName(p_text);
                hasStruck = failure.hasStruck();
            }
            EXPECT_EQ(isSet, !hasStruck);
            EXPECT_EQ(address.realName(), hasStruck ? "local:///before" : p_text);
            EXPECT_EQ(address.isWildcard(), hasStruck);
            EXPECT_EQ(records.take(), Records_{});
        }
        EXPECT_GT(number, 2U);
    }
}

TEST(VekSocketAddress, aWildcardNeedsNoMemory) {
    const unsigned long before = allocationCount();

    for (const auto type : {Type_::LOCAL, Type_::INET_TCP, Type_::INET_UDP}) wildcardOf(type);

    EXPECT_EQ(allocationCount(), before);
}

TEST(VekSocketAddress, aNativeLocalAddressIsTakenOver) {
    sockaddr_un native = {};
    native.sun_family = AF_UNIX;
    std::strcpy(native.sun_path, "/tmp/peer");
    VekSocketAddress_ address;
    RecordCapture_ records;

    EXPECT_TRUE(address.extractFromNative(&native));

    EXPECT_EQ(address.realName(), "local:///tmp/peer");
    EXPECT_TRUE(address.isEqual(addressOf("local:///tmp/peer")));
    EXPECT_EQ(records.take(), Records_{});
}

TEST(VekSocketAddress, aNativeLocalAddressReplacesEveryByteOfALongerOne) {
    sockaddr_un native = {};
    native.sun_family = AF_UNIX;
    std::memset(native.sun_path, 'q', sizeof(native.sun_path));
    std::strcpy(native.sun_path, "/tmp/peer");  // what follows the NUL is taken over as well
    VekSocketAddress_ address = addressOf("local:///" + std::string(106, 'p'));

    EXPECT_TRUE(address.extractFromNative(&native));

    EXPECT_EQ(address.realName(), "local:///tmp/peer");
    EXPECT_EQ(std::memcmp(nativeOf(address).m_bytes, &native, sizeof(native)), 0);
}

TEST(VekSocketAddress, anUnnamedNativeLocalAddressIsAWildcard) {
    sockaddr_un native = {};
    native.sun_family = AF_UNIX;
    VekSocketAddress_ address;

    EXPECT_TRUE(address.extractFromNative(&native));

    EXPECT_EQ(address.realName(), "local://");
    EXPECT_TRUE(address.isWildcard());
}

TEST(VekSocketAddress, aNativePathThatFillsItsFieldNeedsNoNul) {
    sockaddr_un native = {};
    native.sun_family = AF_UNIX;
    std::memset(native.sun_path, 'p', sizeof(native.sun_path));
    VekSocketAddress_ address;

    EXPECT_TRUE(address.extractFromNative(&native));

    EXPECT_EQ(address.realName(), "local://" + std::string(108, 'p'));
    EXPECT_TRUE(address.isEqual(address));
}

TEST(VekSocketAddress, aNativeInetAddressIsTakenOver) {
    sockaddr_in native = {};
    native.sin_family = AF_INET;
    native.sin_addr.s_addr = htonl(0x7F000001);
    native.sin_port = htons(7000);
    VekSocketAddress_ tcp = addressOf("local:///tmp/before");
    VekSocketAddress_ udp;
    RecordCapture_ records;

    EXPECT_TRUE(tcp.extractFromNative(&native, false));
    EXPECT_TRUE(udp.extractFromNative(&native, true));

    EXPECT_EQ(tcp.realName(), "inettcp://127.0.0.1:7000");
    EXPECT_TRUE(tcp.isEqual(addressOf("inettcp://127.0.0.1:7000")));
    EXPECT_EQ(udp.realName(), "inetudp://127.0.0.1:7000");
    EXPECT_TRUE(udp.isEqual(addressOf("inetudp://127.0.0.1:7000")));
    EXPECT_EQ(records.take(), Records_{});
}

TEST(VekSocketAddress, aNullNativeAddressIsRefused) {
    VekSocketAddress_ address = addressOf("inettcp://1.2.3.4:5");
    RecordCapture_ records;

    EXPECT_FALSE(address.extractFromNative(nullptr));
    EXPECT_FALSE(address.extractFromNative(nullptr, false));

    EXPECT_EQ(records.take(),
              (Records_{error("bool VekSocketAddress_::extractFromNative(const sockaddr_un*)",
                              "VekSocketAddress_::extractFromNative() null p_udsAddr"),
                        error("bool VekSocketAddress_::extractFromNative(const sockaddr_in*, bool)",
                              "VekSocketAddress_::extractFromNative() null p_inetAddr")}));
    EXPECT_EQ(address.realName(), "inettcp://1.2.3.4:5");
}

TEST(VekSocketAddress, aCopyIsAnAddressOfItsOwn) {
    const VekSocketAddress_ original = addressOf("local:///tmp/original");
    VekSocketAddress_ copy(original);
    VekSocketAddress_ assigned;
    assigned = original;

    EXPECT_TRUE(copy.isEqual(original));
    EXPECT_TRUE(assigned.isEqual(original));
    EXPECT_EQ(assigned.realName(), "local:///tmp/original");

    copy.initializeAsWildcard(Type_::UNKNOWN);
    EXPECT_EQ(original.realName(), "local:///tmp/original");
}
