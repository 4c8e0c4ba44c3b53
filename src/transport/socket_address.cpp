#include "transport/socket_address.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"

namespace {

constexpr char kLocalScheme[] = "local://";
constexpr char kTcpScheme[] = "inettcp://";
constexpr char kUdpScheme[] = "inetudp://";
constexpr std::size_t kLocalSchemeLength = sizeof(kLocalScheme) - 1;
constexpr std::size_t kInetSchemeLength = sizeof(kTcpScheme) - 1;
constexpr std::size_t kShortestDotted = sizeof("1.2.3.4") - 1;
constexpr std::size_t kLongestDotted = sizeof("255.255.255.255") - 1;

static_assert(sizeof(VekSockNativeAddr_) == 256, "callers provide this much");
static_assert(sizeof(VekSockNativeAddrUn_) == 110, "2 bytes family, 108 bytes path");
static_assert(sizeof(VekSockNativeAddrIn_) == 16, "no part of a native address is left out");
static_assert(sizeof(kUdpScheme) == sizeof(kTcpScheme), "one length serves both");

bool startsWith(const char* p_text, const char* p_scheme) {
    return std::strncmp(p_text, p_scheme, std::strlen(p_scheme)) == 0;
}

bool convertDotted(const char* p_text, std::size_t length, in_addr& address) {
    char dotted[kLongestDotted + 1] = {};
    std::memcpy(dotted, p_text, length);
    return inet_aton(dotted, &address) != 0;
}

std::uint32_t nativeSizeOf(VekSocketAddress_::AddressType_ type) {
    switch (type) {
        case VekSocketAddress_::LOCAL:
            return sizeof(VekSockNativeAddrUn_);
        case VekSocketAddress_::INET_TCP:
        case VekSocketAddress_::INET_UDP:
            return sizeof(VekSockNativeAddrIn_);
        default:
            return 0;
    }
}

const char* schemeOf(VekSocketAddress_::AddressType_ type) {
    if (type == VekSocketAddress_::LOCAL) return kLocalScheme;
    return type == VekSocketAddress_::INET_TCP ? kTcpScheme : kUdpScheme;
}

std::string inetText(VekSocketAddress_::AddressType_ type, const VekSockNativeAddrIn_& native) {
    return schemeOf(type) + std::string(inet_ntoa(native.sin_addr)) + ":" +
           std::to_string(ntohs(native.sin_port));
}

/// The kernel may give a path that fills its field, without a NUL.
std::string localText(const VekSockNativeAddrUn_& native) {
    return kLocalScheme + std::string(native.sun_path, strnlen(native.sun_path, sizeof(native.sun_path)));
}

}  // namespace

// Each scheme has a site of its own for what is wrong with an address.
#define LOG_ERROR_OF_SCHEME(...)           \
    do {                                   \
        if (m_type == INET_TCP)            \
            VEKMSG_LOG_ERROR(__VA_ARGS__); \
        else                               \
            VEKMSG_LOG_ERROR(__VA_ARGS__); \
    } while (false)

VekSocketAddress_::VekSocketAddress_() {
    forget();
}

VekSocketAddress_::~VekSocketAddress_() = default;

void VekSocketAddress_::forget() {
    std::memset(&m_native, 0, sizeof(m_native));
    m_type = UNKNOWN;
    m_nativeSize = 0;
}

void VekSocketAddress_::setPath(const char* p_path) {
    m_type = LOCAL;
    m_native.m_local.sun_family = AF_UNIX;
    const std::size_t longest = sizeof(m_native.m_local.sun_path) - 1;
    std::memcpy(m_native.m_local.sun_path, p_path, strnlen(p_path, longest));
}

bool VekSocketAddress_::setRealName(const char* p_name) {
    if (p_name == nullptr) {
        VEKMSG_LOG_ERROR("VekSocketAddress_::setRealName() null p_name");
        return false;
    }
    forget();
    if (startsWith(p_name, kLocalScheme)) {
        setPath(p_name + kLocalSchemeLength);
    } else if (!setRealName(p_name, std::strlen(p_name))) {
        return false;
    }
    m_nativeSize = nativeSizeOf(m_type);
    if (updateRealName()) return true;
    m_nativeSize = 0;
    return false;
}

bool VekSocketAddress_::setRealName(const char* p_name, std::size_t length) {
    if (length < kInetSchemeLength) {
        VEKMSG_LOG_ERROR("VekSocketAddress_::setRealName(%s) invalid type", p_name);
        return false;
    }
    if (startsWith(p_name, kTcpScheme)) {
        m_type = INET_TCP;
    } else if (startsWith(p_name, kUdpScheme)) {
        m_type = INET_UDP;
    } else {
        VEKMSG_LOG_ERROR("VekSocketAddress_::setRealName(%s) invalid type", p_name);
        return false;
    }
    m_native.m_inet.sin_family = AF_INET;
    return length == kInetSchemeLength || setRealName(p_name, p_name + kInetSchemeLength);
}

bool VekSocketAddress_::setRealName(const char* p_name, const char* p_endpoint) {
    const char* p_colon = std::strchr(p_endpoint, ':');
    if (p_colon == nullptr || p_colon[1] == '\0') {
        LOG_ERROR_OF_SCHEME("VekSocketAddress_::setRealName(%s) invalid port", p_name);
        return false;
    }
    const auto length = static_cast<std::size_t>(p_colon - p_endpoint);
    if (length < kShortestDotted || length > kLongestDotted) {
        LOG_ERROR_OF_SCHEME("VekSocketAddress_::setRealName(%s) invalid address length %u", p_name,
                            static_cast<unsigned int>(length));
        return false;
    }
    if (!convertDotted(p_endpoint, length, m_native.m_inet.sin_addr)) {
        LOG_ERROR_OF_SCHEME("VekSocketAddress_::setRealName(%s) invalid address", p_name);
        return false;
    }
    m_native.m_inet.sin_port = htons(static_cast<std::uint16_t>(std::strtol(p_colon + 1, nullptr, 10)));
    return true;
}

bool VekSocketAddress_::updateRealName() try {
    switch (m_type) {
        case LOCAL:
            m_realName = localText(m_native.m_local);
            return true;
        case INET_TCP:
        case INET_UDP:
            m_realName = inetText(m_type, m_native.m_inet);
            return true;
        default:
            m_realName.clear();
            VEKMSG_LOG_ERROR("VekSocketAddress_::updateRealName() invalid type %d", static_cast<int>(m_type));
            return false;
    }
}
VEKMSG_RETURN_ON_EXCEPTION(false)

// The texts are short enough to need no memory.
bool VekSocketAddress_::initializeAsWildcard(AddressType_ type) {
    forget();
    m_realName.clear();
    m_nativeSize = nativeSizeOf(type);
    if (m_nativeSize == 0) return true;
    m_type = type;
    m_realName = schemeOf(type);
    m_realName += '?';
    return true;
}

bool VekSocketAddress_::isWildcard() const {
    if (m_nativeSize == 0) return true;
    if (m_type == LOCAL) return m_native.m_local.sun_path[0] == '\0';
    return m_native.m_inet.sin_addr.s_addr == 0 && m_native.m_inet.sin_port == 0;
}

bool VekSocketAddress_::isEqual(const VekSocketAddress_& other) const {
    if (m_nativeSize != other.m_nativeSize || m_type != other.m_type) return false;
    const VekSockNativeAddr_& theirs = other.m_native;
    switch (m_type) {
        case LOCAL:
            return std::strncmp(m_native.m_local.sun_path, theirs.m_local.sun_path,
                                sizeof(theirs.m_local.sun_path)) == 0;
        case INET_TCP:
        case INET_UDP:
            return m_native.m_inet.sin_addr.s_addr == theirs.m_inet.sin_addr.s_addr &&
                   m_native.m_inet.sin_port == theirs.m_inet.sin_port;
        default:
            return false;
    }
}

bool VekSocketAddress_::fillInNative(VekSockNativeAddr_* p_addr) const {
    if (p_addr == nullptr) {
        VEKMSG_LOG_ERROR("VekSocketAddress_::fillInNative() null p_addr");
        return false;
    }
    const int size = static_cast<int>(m_nativeSize);
    const int expected = static_cast<int>(nativeSizeOf(m_type));
    if (expected != 0 && size == expected) {
        std::memcpy(p_addr, &m_native, m_nativeSize);
        return true;
    }
    switch (m_type) {
        case LOCAL:
            VEKMSG_LOG_ERROR("VekSocketAddress_::fillInNative(LOCAL) wrong native size %d. Expecting %d",
                             size, expected);
            return false;
        case INET_TCP:
            VEKMSG_LOG_ERROR("VekSocketAddress_::fillInNative(INET_TCP) wrong native size %d. Expecting %d",
                             size, expected);
            return false;
        case INET_UDP:
            VEKMSG_LOG_ERROR("VekSocketAddress_::fillInNative(INET_UDP) wrong native size %d. Expecting %d",
                             size, expected);
            return false;
        default:
            VEKMSG_LOG_ERROR("VekSocketAddress_::fillInNative() unknown type %d", static_cast<int>(m_type));
            return false;
    }
}

bool VekSocketAddress_::extractFromNative(const sockaddr_un* p_udsAddr) {
    if (p_udsAddr == nullptr) {
        VEKMSG_LOG_ERROR("VekSocketAddress_::extractFromNative() null p_udsAddr");
        return false;
    }
    m_type = LOCAL;
    m_nativeSize = nativeSizeOf(m_type);
    std::memcpy(&m_native, p_udsAddr, m_nativeSize);
    return updateRealName();
}

bool VekSocketAddress_::extractFromNative(const sockaddr_in* p_inetAddr, bool isUdp) {
    if (p_inetAddr == nullptr) {
        VEKMSG_LOG_ERROR("VekSocketAddress_::extractFromNative() null p_inetAddr");
        return false;
    }
    m_type = isUdp ? INET_UDP : INET_TCP;
    m_nativeSize = nativeSizeOf(m_type);
    std::memcpy(&m_native, p_inetAddr, m_nativeSize);
    return updateRealName();
}

const char* VekSocketAddress_::path() const {
    return m_type == LOCAL && m_realName.size() > kLocalSchemeLength ? m_realName.c_str() + kLocalSchemeLength
                                                                     : "";
}
