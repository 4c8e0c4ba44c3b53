#include "address_check.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "output.h"
#include "records.h"
#include "transport/socket_address.h"

namespace {

using Faults_ = std::vector<AddressFault_>;

constexpr char kTcp[] = "inettcp://";
constexpr char kUdp[] = "inetudp://";
constexpr char kLocal[] = "local://";
constexpr std::size_t kInetLength = sizeof(kTcp) - 1;
constexpr std::size_t kLocalLength = sizeof(kLocal) - 1;
constexpr std::size_t kLongestPath = sizeof(sockaddr_un::sun_path) - 1;
constexpr unsigned long kMostPorts = 65535;

constexpr char kDigits[] = "0123456789";

bool startsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

bool isReadable(const std::string& text, VekSocketAddress_& address) {
    CaughtRecords_ records;
    return address.setRealName(text.c_str());
}

/// What was probably meant by an address of an unknown kind.
std::string schemeHint(const std::string& text) {
    const std::size_t colon = text.find(':');
    std::string scheme = text.substr(0, colon);
    for (char& character : scheme)
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    if (text[0] == '/') return "write local://" + printableText(text);
    if (scheme == "local" || scheme == "inettcp" || scheme == "inetudp")
        return "write " + scheme + "://, in lower case and with two slashes";
    if (scheme == "tcp") return "write inettcp:// for TCP";
    if (scheme == "unix" || scheme == "ipc" || scheme == "file") return "write local:// for a local socket";
    if (colon != std::string::npos && text.find_first_not_of("0123456789.:") == std::string::npos)
        return "write inettcp://" + text;
    return "an address begins with local:// or inettcp://";
}

/// The part of an IPv4 address text in front of its port.
std::string hostOf(const std::string& text) {
    return text.substr(kInetLength, text.find(':', kInetLength) - kInetLength);
}

bool isHostName(const std::string& host) {
    return std::any_of(host.begin(), host.end(),
                       [](unsigned char character) { return std::isalpha(character); });
}

/// A text that the library refuses.
AddressFault_ refusal(const std::string& text) {
    if (!startsWith(text, kTcp) && !startsWith(text, kUdp))
        return {"unknown-scheme", 0, "the library knows no addresses of this kind", schemeHint(text)};
    const std::size_t colon = text.find(':', kInetLength);
    if (colon == std::string::npos || colon + 1 == text.size())
        return {"port-missing", std::min(colon, text.size()), "the address has no port",
                "write it as inettcp://192.168.1.20:7400"};
    const std::string host = hostOf(text);
    if (text[kInetLength] == '[' || text.find("::", kInetLength) != std::string::npos)
        return {"bad-address", kInetLength, "IPv6 is not served",
                "write an IPv4 address: inettcp://192.168.1.20:7400"};
    if (isHostName(host))
        return {"host-name", kInetLength, "\"" + host + "\" is no IPv4 address, and names are not looked up",
                "write the address in numbers: getent ahostsv4 " + host};
    return {"bad-address", kInetLength, "\"" + host + "\" is no IPv4 address",
            "write four numbers from 0 to 255 with dots between them"};
}

void checkPort(const std::string& text, Faults_& faults) {
    const std::size_t begin = text.find(':', kInetLength) + 1;
    const std::size_t end = std::min(text.find_first_not_of(kDigits, begin), text.size());
    const std::string digits = text.substr(begin, end - begin);
    if (digits.empty()) {
        const bool isSigned = text[begin] == '-' || text[begin] == '+';
        const bool isNumber = isSigned && begin + 1 < text.size() &&
                              text.find_first_not_of(kDigits, begin + 1) == std::string::npos;
        faults.push_back({isNumber ? "port-out-of-range" : "port-not-a-number", begin,
                          isNumber ? "a port has no sign" : "the port is no number, and counts as 0",
                          "write a port from 1 to 65535"});
        return;
    }
    if (end != text.size())
        faults.push_back({"port-trailing-text", end, "what follows the port " + digits + " is ignored",
                          "put a blank in front of the name"});
    const std::size_t significant = std::min(digits.find_first_not_of('0'), digits.size());
    const bool isTooLong = digits.size() - significant > 5;
    const unsigned long port = isTooLong ? kMostPorts + 1 : std::stoul(digits);
    if (port == 0 || port > kMostPorts)
        faults.push_back({"port-out-of-range", begin,
                          port == 0 ? "port 0 is no port to connect to"
                                    : "there are no ports above 65535; the number wraps to another port",
                          "write a port from 1 to 65535"});
}

void checkInet(const std::string& text, const VekSocketAddress_& address, Faults_& faults) {
    VekSockNativeAddr_ native = {};
    if (!address.fillInNative(&native)) return;
    const std::uint32_t number = ntohl(native.m_inet.sin_addr.s_addr);
    const std::string host = hostOf(text);
    const std::string plain = inet_ntoa(native.m_inet.sin_addr);
    if (host != plain)
        faults.push_back({"odd-address", kInetLength, "\"" + host + "\" is read as " + plain,
                          "write four decimal numbers without leading zeros"});
    if (number == INADDR_ANY)
        faults.push_back({"any-address", kInetLength, "every component would connect to its own host",
                          "write the address at which others reach the host"});
    if (IN_MULTICAST(number) || number == INADDR_BROADCAST)
        faults.push_back({"group-address", kInetLength, "nobody can connect to a group of hosts",
                          "write the address of one host"});
    checkPort(text, faults);
    if (address.type() == VekSocketAddress_::INET_UDP)
        faults.push_back({"udp-entry", 0, "UDP addresses are read but not served: they are passed over",
                          "write inettcp://, or remove the line"});
}

void checkFolder(const std::string& path, Faults_& faults) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
    struct stat status = {};
    if (stat(folder.c_str(), &status) != 0) {
        faults.push_back({"folder-missing", kLocalLength,
                          "the folder " + folder + " does not exist here, so that nobody can listen",
                          "create it before components start, or mind that /run is empty after a boot"});
    } else if (!S_ISDIR(status.st_mode)) {
        faults.push_back({"folder-not-a-folder", kLocalLength, folder + " is a file and no folder",
                          "choose a path inside a folder"});
    } else if (access(folder.c_str(), W_OK | X_OK) != 0) {
        faults.push_back({"folder-not-writable", kLocalLength,
                          "you cannot create a socket in the folder " + folder,
                          "let the user of the component own it, or check as that user"});
    }
}

void checkLocal(const std::string& path, Faults_& faults) {
    if (path.size() > kLongestPath) {
        faults.push_back({"path-too-long", kLocalLength + kLongestPath,
                          "the path has " + std::to_string(path.size()) + " bytes and is cut to " +
                              std::to_string(kLongestPath),
                          "choose a shorter one"});
        return;
    }
    if (path[0] != '/') {
        faults.push_back({"path-relative", kLocalLength, "the path depends on where each program was started",
                          "write an absolute path, with three slashes: local:///run/kitchen"});
        return;
    }
    struct stat status = {};
    const bool isThere = stat(path.c_str(), &status) == 0;
    if (path.back() == '/' || (isThere && S_ISDIR(status.st_mode))) {
        faults.push_back({"path-is-folder", kLocalLength, "the path is that of a folder",
                          "add the name of the socket file"});
    } else if (isThere && !S_ISSOCK(status.st_mode)) {
        faults.push_back({"path-not-a-socket", kLocalLength,
                          "a file that is no socket lies there, and opening the terminal removes it",
                          "choose a path where nothing else is kept"});
    } else {
        checkFolder(path, faults);
    }
}

}  // namespace

std::vector<AddressFault_> checkAddressText(const std::string& text) {
    VekSocketAddress_ address;
    if (!isReadable(text, address)) return {refusal(text)};
    Faults_ faults;
    if (address.isWildcard()) {
        faults.push_back(
            {"wildcard", 0, "the address names no endpoint", "write the endpoint, with its port"});
    } else if (address.type() == VekSocketAddress_::LOCAL) {
        checkLocal(text.substr(kLocalLength), faults);
    } else {
        checkInet(text, address, faults);
    }
    return faults;
}

bool isSameAddress(const std::string& a, const std::string& b) {
    VekSocketAddress_ first;
    VekSocketAddress_ second;
    return isReadable(a, first) && isReadable(b, second) && first.isEqual(second);
}
