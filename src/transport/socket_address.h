#ifndef VEKMSG_TRANSPORT_SOCKET_ADDRESS_H
#define VEKMSG_TRANSPORT_SOCKET_ADDRESS_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "libcpp/basic_object.h"

using VekSockNativeAddrUn_ = sockaddr_un;
using VekSockNativeAddrIn_ = sockaddr_in;

/// Room for any native address that the library handles; what an address does not use is zero.
union VekSockNativeAddr_ {
    unsigned char m_bytes[256];  // first, so that empty braces make all of it zero
    sockaddr m_any;
    VekSockNativeAddrUn_ m_local;
    VekSockNativeAddrIn_ m_inet;
};

/// One transport endpoint in two forms that agree: the text that people and records use, and the native form
/// that the operating system takes.
///
///     local://PATH        a local stream socket; an absolute path makes three slashes
///     inettcp://A.B.C.D:PORT
///     inetudp://A.B.C.D:PORT
///
/// A wildcard stands for an endpoint that is not known yet. This folder knows nothing of messages, names or
/// terminals.
class VekSocketAddress_ : public BasicObject_ {
public:
    enum AddressType_ : std::uint32_t { UNKNOWN = 0, LOCAL = 1, INET_TCP = 2, INET_UDP = 3 };

    VekSocketAddress_();
    VekSocketAddress_(const VekSocketAddress_&) = default;
    VekSocketAddress_& operator=(const VekSocketAddress_&) = default;
    ~VekSocketAddress_() override;

    /// Takes an address from its text. A path is cut to 107 characters; what follows the digits of a port is
    /// ignored and the port wraps at 65536. False with a record when the text is no address; discard the
    /// object then.
    bool setRealName(const char* p_name);

    /// Makes the text from the native form. False with a record, and an empty text, when there is no type.
    bool updateRealName();

    /// Always true. UNKNOWN resets the address.
    bool initializeAsWildcard(AddressType_ type);

    bool isWildcard() const;

    /// Compares the native forms. Unset addresses equal nothing.
    bool isEqual(const VekSocketAddress_& other) const;

    /// Copies nativeSize() bytes. False with a record when the address has no native form.
    bool fillInNative(VekSockNativeAddr_* p_addr) const;

    /// Takes an address that the kernel gave.
    bool extractFromNative(const sockaddr_un* p_udsAddr);
    bool extractFromNative(const sockaddr_in* p_inetAddr, bool isUdp);

    AddressType_ type() const { return m_type; }
    const std::string& realName() const { return m_realName; }
    unsigned int nativeSize() const { return m_nativeSize; }

    /// The path of a local address, which is what follows the scheme in its text.
    const char* path() const;

private:
    // Stages of setRealName, for IPv4: the scheme, and what follows it.
    bool setRealName(const char* p_name, std::size_t length);
    bool setRealName(const char* p_name, const char* p_endpoint);

    void setPath(const char* p_path);
    void forget();  // all but the text

    AddressType_ m_type = UNKNOWN;
    std::string m_realName;
    VekSockNativeAddr_ m_native;
    std::uint32_t m_nativeSize = 0;
};

#endif
