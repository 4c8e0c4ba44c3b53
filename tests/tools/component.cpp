#include "tools/component.h"

#include <poll.h>
#include <unistd.h>

#include <stdexcept>

namespace {

void serve(Station_& station, const Component_::Handle_& handle) {
    for (;;) {
        const SP_VekMessage_ sp_message = station.receive();
        if (sp_message && handle) handle(station, sp_message);
        if (!sp_message) station.terminal().waitForMessage(1000);
    }
}

}  // namespace

Component_::Component_(const std::string& name, const std::string& directory, const Handle_& handle) {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    m_process = std::make_unique<ChildProcess_>([&] {
        close(ends[0]);
        Station_ station(name, directory);
        if (write(ends[1], "x", 1) != 1) return 1;
        close(ends[1]);
        serve(station, handle);
        return 0;
    });
    close(ends[1]);
    pollfd entry = {ends[0], POLLIN, 0};
    char byte = 0;
    const bool isReady = poll(&entry, 1, 30000) == 1 && read(ends[0], &byte, 1) == 1;
    close(ends[0]);
    if (!isReady) throw std::runtime_error("the component " + name + " does not listen");
}

SilentListener_::SilentListener_(const std::string& name, const std::string& directory)
    : m_station(name, directory) {}
