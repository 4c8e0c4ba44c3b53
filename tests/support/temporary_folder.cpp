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

std::string freeTcpAddress() {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (descriptor < 0 || bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("no free TCP port");
    close(descriptor);
    return "inettcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}
