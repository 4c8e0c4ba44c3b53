#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "output.h"

void tellServiceManager(const std::string& state) {
    const char* p_path = std::getenv("NOTIFY_SOCKET");
    if (p_path == nullptr) return;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(p_path);
    if ((*p_path != '/' && *p_path != '@') || length >= sizeof(address.sun_path))
        return note(std::string("NOTIFY_SOCKET is no address: ") + p_path);
    std::memcpy(address.sun_path, p_path, length);
    if (*p_path == '@') address.sun_path[0] = '\0';  // a name that is no file
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    const ssize_t sent = sendto(descriptor, state.data(), state.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), size);
    if (sent < 0) note(std::string("cannot tell ") + p_path + " that " + state + ": " + std::strerror(errno));
    if (descriptor >= 0) close(descriptor);
}
