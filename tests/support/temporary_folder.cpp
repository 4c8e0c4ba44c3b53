#include "support/temporary_folder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

TemporaryFolder_::TemporaryFolder_() {
    char pattern[] = "/tmp/vekmsg-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("no temporary folder");
    m_path = pattern;
}

TemporaryFolder_::~TemporaryFolder_() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TemporaryFolder_::path(const std::string& name) const {
    return m_path + "/" + name;
}

std::string TemporaryFolder_::localAddress(const std::string& name) const {
    return "local://" + path(name);
}

std::string TemporaryFolder_::writeFile(const std::string& name,
                                        const std::vector<std::string>& lines) const {
    const std::string file = path(name);
    std::ofstream stream(file, std::ios::binary);
    for (const std::string& line : lines) stream << line << '\n';
    return file;
}

namespace {

// Below the ports that the system gives to outgoing streams: one of those could take a port that a test has
// been promised and does not use yet, or connect to itself on it. Tests that run side by side have other
// process ids and so begin at other ports.
constexpr unsigned int kFirstPort = 10000;
constexpr unsigned int kPorts = 10000;
constexpr unsigned int kPortsOfProcess = 50;

bool isFree(unsigned int port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    const bool isBound =
        descriptor >= 0 && bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    if (descriptor >= 0) close(descriptor);
    return isBound;
}

}  // namespace

std::string freeTcpAddress() {
    static unsigned int s_taken = 0;
    const unsigned int start =
        static_cast<unsigned int>(getpid()) % (kPorts / kPortsOfProcess) * kPortsOfProcess;
    for (unsigned int tried = 0; tried < kPorts; ++tried) {
        const unsigned int port = kFirstPort + (start + s_taken++) % kPorts;
        if (isFree(port)) return "inettcp://127.0.0.1:" + std::to_string(port);
    }
    throw std::runtime_error("no free TCP port");
}
