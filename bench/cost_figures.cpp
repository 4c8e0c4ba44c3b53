// What does the library cost besides time? Memory that becomes resident for a terminal, for an idle
// connection and for a queued message, and the time from the start of a process to its first message
// delivered. Each figure is taken in a process of its own, through the public interface. The result is one
// line of JSON.
//
//     cost_figures             all figures
//     cost_figures --first F   opens a terminal with directory file F, sends one message and ends

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "vekmsg/c_binding.h"
#include "vekmsg/vekmsg.h"

namespace {

constexpr VekmsgTag_ kPayloadTag = 5;
constexpr unsigned int kWaitTime = 1000;  // milliseconds
constexpr unsigned int kTimeLimit = 60;   // seconds
constexpr unsigned int kTerminals = 64;
constexpr unsigned int kQueued = 2000;
constexpr unsigned int kQueuedBefore = 1000;  // fill the kernel's buffers
constexpr unsigned int kStarts = 21;
constexpr std::size_t kMessageSize = 64;
constexpr int kErrorsOnly = 3;

using Terminal_ = std::unique_ptr<VekmsgTerminal_>;

[[noreturn]] void fail(const char* p_what) {
    std::fprintf(stderr, "cost_figures: %s failed\n", p_what);
    std::exit(1);
}

const Utf8Char_* utf8(const std::string& text) {
    return reinterpret_cast<const Utf8Char_*>(text.c_str());
}

std::string nameOf(unsigned int number) {
    return "component" + std::to_string(number);
}

/// A folder for sockets with a directory file that lists the hub and all components.
class Installation_ {
public:
    Installation_() {
        char path[] = "/tmp/vekmsg-bench-XXXXXX";
        if (mkdtemp(path) == nullptr) fail("making a folder");
        m_folder = path;
        std::ofstream file(directory());
        file << "local://" << m_folder << "/hub hub\n";
        for (unsigned int i = 0; i < kTerminals; ++i)
            file << "local://" << m_folder << '/' << nameOf(i) << ' ' << nameOf(i) << '\n';
    }
    ~Installation_() {
        std::error_code ignored;
        if (getpid() == m_owner) std::filesystem::remove_all(m_folder, ignored);
    }
    std::string directory() const { return m_folder + "/directory"; }
    Terminal_ open(const std::string& name) const {
        Terminal_ terminal(createVekmsgTerminal());
        if (!terminal->open(utf8(name), directory().c_str())) fail("opening a terminal");
        return terminal;
    }

private:
    pid_t m_owner = getpid();
    std::string m_folder;
};

bool trySend(VekmsgTerminal_& terminal, const std::string& to) {
    const unsigned char bytes[kMessageSize] = {1};
    SP_VekMessage_ sp_message;
    if (!terminal.createMessage(sp_message)) fail("making a message");
    const SP_VekmsgElement_ sp_payload = sp_message->createElement(kPayloadTag);
    sp_message->setDestination(utf8(to));
    return sp_payload->setValue(bytes, sizeof(bytes)) && sp_message->setPayload(sp_payload) &&
           terminal.sendMessage(sp_message);
}

void send(VekmsgTerminal_& terminal, const std::string& to) {
    if (!trySend(terminal, to)) fail("sending");
}

void receive(VekmsgTerminal_& terminal, unsigned int count) {
    for (unsigned int taken = 0; taken < count;) {
        SP_VekMessage_ sp_message;
        if (terminal.waitForMessage(kWaitTime) == VekmsgTerminal_::WAIT_ERROR) fail("waiting");
        if (!terminal.receiveMessage(sp_message)) fail("receiving");
        if (sp_message) ++taken;
    }
}

/// Of memory that belongs to this process alone: pages shared with others cost nothing more.
double privatePages() {
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    double kilobytes = 0;
    while (file >> word) {
        if (word != "Private_Dirty:" && word != "Private_Clean:") continue;
        double value = 0;
        file >> value;
        kilobytes += value;
    }
    return kilobytes * 1024 / static_cast<double>(sysconf(_SC_PAGESIZE));
}

/// Runs `work` in a child and gives what it returns: no figure sees the memory of another.
template <class Work>
double inChild(const Work& work) {
    int ends[2];
    double result = 0;
    if (pipe(ends) != 0) fail("making a pipe");
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(kTimeLimit);
        result = work();
        _exit(write(ends[1], &result, sizeof(result)) == sizeof(result) ? 0 : 1);
    }
    close(ends[1]);
    if (read(ends[0], &result, sizeof(result)) != sizeof(result)) fail("a measurement");
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return result;
}

double pagesPerTerminal(const Installation_& installation) {
    const Terminal_ first = installation.open("hub");
    std::vector<Terminal_> terminals(kTerminals);
    const double before = privatePages();
    for (unsigned int i = 0; i < kTerminals; ++i) terminals[i] = installation.open(nameOf(i));
    return (privatePages() - before) / kTerminals;
}

/// A process that opens `count` terminals, each of which sends the hub one message, and stays. It ends with
/// its parent at the latest.
pid_t startComponents(const Installation_& installation, unsigned int count) {
    const pid_t child = fork();
    if (child != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    vekmsg_log_set_threshold(0);
    std::vector<Terminal_> terminals;
    for (unsigned int i = 0; i < count; ++i) {
        terminals.push_back(installation.open(nameOf(i)));
        // The hub takes in one peer per pass, and the kernel keeps a few waiting.
        while (!trySend(*terminals.back(), "hub")) terminals.back()->waitForMessage(1);
    }
    // The handshakes end in later passes.
    for (;;)
        for (const Terminal_& terminal : terminals) terminal->waitForMessage(1);
}

void end(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

double pagesPerConnection(const Installation_& installation) {
    const Terminal_ hub = installation.open("hub");
    // What the first message costs once is not a connection's.
    const pid_t first = startComponents(installation, 1);
    receive(*hub, 1);
    end(first);
    while (hub->isConnected(utf8(nameOf(0)))) hub->waitForMessage(1);
    const double before = privatePages();
    const pid_t all = startComponents(installation, kTerminals);
    receive(*hub, kTerminals);
    const double pages = (privatePages() - before) / kTerminals;
    end(all);
    return pages;
}

/// The peer is connected and does not read: messages stay with their sender.
double pagesPerQueuedMessage(const Installation_& installation) {
    const Terminal_ hub = installation.open("hub");
    const pid_t peer = startComponents(installation, 1);
    receive(*hub, 1);
    kill(peer, SIGSTOP);
    for (unsigned int i = 0; i < kQueuedBefore; ++i) send(*hub, nameOf(0));
    const double before = privatePages();
    for (unsigned int i = 0; i < kQueued; ++i) send(*hub, nameOf(0));
    const double pages = (privatePages() - before) / kQueued;
    end(peer);
    return pages;
}

double microsecondsToFirstMessage(const Installation_& installation, const char* p_program) {
    const Terminal_ hub = installation.open("hub");
    std::vector<double> times;
    for (unsigned int i = 0; i < kStarts; ++i) {
        const std::string directory = installation.directory();
        const auto start = std::chrono::steady_clock::now();
        const pid_t child = vfork();
        if (child == 0) {
            execl(p_program, p_program, "--first", directory.c_str(), nullptr);
            _exit(127);
        }
        receive(*hub, 1);
        const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
        times.push_back(elapsed.count());
        waitpid(child, nullptr, 0);
    }
    std::nth_element(times.begin(), times.begin() + kStarts / 2, times.end());
    return times[kStarts / 2];
}

int sendFirst(const char* p_directory) {
    const Terminal_ terminal(createVekmsgTerminal());
    if (!terminal->open(utf8(nameOf(0)), p_directory)) fail("opening a terminal");
    send(*terminal, "hub");
    // The message is written when the handshake is over.
    for (int i = 0; i < 10 && !terminal->isConnected(utf8("hub")); ++i) terminal->waitForMessage(1);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    vekmsg_log_set_threshold(kErrorsOnly);
    alarm(kTimeLimit);
    if (argc == 3 && std::strcmp(argv[1], "--first") == 0) return sendFirst(argv[2]);
    const Installation_ installation;
    std::printf("{\"bits\":%zu,\"pageBytes\":%ld", sizeof(void*) * 8, sysconf(_SC_PAGESIZE));
    std::printf(",\"pagesPerTerminal\":%.3f", inChild([&] { return pagesPerTerminal(installation); }));
    std::printf(",\"pagesPerConnection\":%.3f", inChild([&] { return pagesPerConnection(installation); }));
    std::printf(",\"pagesPerQueuedMessage\":%.3f",
                inChild([&] { return pagesPerQueuedMessage(installation); }));
    std::printf(",\"microsecondsToFirstMessage\":%.1f}\n",
                inChild([&] { return microsecondsToFirstMessage(installation, "/proc/self/exe"); }));
    return 0;
}
