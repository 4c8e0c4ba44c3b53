#include "transfer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "counters.h"

namespace {

constexpr unsigned long kWindow = 256;
constexpr unsigned long kCredit = 64;
constexpr unsigned long kWarmUp = 500;

Options_ parse(int argc, char** argv) {
    Options_ options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--blocking") {
            options.m_isBlocking = true;
            continue;
        }
        if (i + 1 == argc) fail("an option without its value");
        const std::string value = argv[++i];
        if (name == "--transport") {
            options.m_isTcp = value == "tcp";
        } else if (name == "--mode") {
            options.m_isStream = value == "stream";
        } else if (name == "--size") {
            options.m_size = std::stoul(value);
        } else if (name == "--count") {
            options.m_count = std::stoul(value);
        } else if (name == "--cores") {
            options.m_cores = value;
        } else {
            fail("an unknown option");
        }
    }
    if (options.m_size < sizeof(std::uint64_t) || options.m_size > 9000) fail("a size that is not 8 to 9000");
    return options;
}

/// "one": both processes share core 0. "two": one core each.
void chooseCore(const std::string& cores, int own) {
    if (cores == "free") return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cores == "one" ? 0 : own, &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0) fail("choosing a core");
}

std::string freePort() {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        fail("finding a free port");
    close(descriptor);
    return std::to_string(ntohs(address.sin_port));
}

/// Messages with a sequence number in front, and the check of those that come in.
class Exchange_ {
public:
    Exchange_(Side_& side, std::size_t size) : m_side(side), m_bytes(size, 0x5A), m_received(size + 1) {}

    void send() {
        std::memcpy(m_bytes.data(), &m_sent, sizeof(m_sent));
        ++m_sent;
        m_side.send(m_bytes.data(), m_bytes.size());
    }
    void receive() {
        if (m_side.receive(m_received.data(), m_received.size()) != m_bytes.size())
            fail("a message of another size");
        std::uint64_t number = 0;
        std::memcpy(&number, m_received.data(), sizeof(number));
        if (number != m_taken) fail("a message out of sequence");
        ++m_taken;
    }
    void roundTrips(unsigned long count) {
        for (unsigned long i = 0; i < count; ++i) {
            send();
            receive();
        }
    }
    void echo(unsigned long count) {
        for (unsigned long i = 0; i < count; ++i) {
            receive();
            send();
        }
    }
    void stream(unsigned long count) {
        unsigned long confirmed = 0;
        for (unsigned long sent = 0; sent < count; ++sent) {
            while (sent - confirmed >= kWindow) {
                receive();
                confirmed += kCredit;
            }
            send();
        }
        for (; confirmed < count; confirmed += kCredit) receive();
    }
    void absorb(unsigned long count) {
        for (unsigned long i = 1; i <= count; ++i) {
            receive();
            if (i % kCredit == 0) send();
        }
    }

private:
    Side_& m_side;
    std::vector<unsigned char> m_bytes;
    std::vector<unsigned char> m_received;
    std::uint64_t m_sent = 0;
    std::uint64_t m_taken = 0;
};

struct Report_ {
    double m_seconds;
    Counters_ m_counters;
};

Report_ difference(const Counters_& before, double seconds) {
    const Counters_ now = counters();
    return Report_{
        seconds,
        {now.m_sends - before.m_sends, now.m_receives - before.m_receives, now.m_accepts - before.m_accepts,
         now.m_polls - before.m_polls, now.m_allocations - before.m_allocations}};
}

Report_ runSender(const Options_& options, const Meeting_& meeting) {
    const std::unique_ptr<Side_> side(makeSender(options, meeting));
    Exchange_ exchange(*side, options.m_size);
    exchange.roundTrips(kWarmUp);
    const Counters_ before = counters();
    const auto start = std::chrono::steady_clock::now();
    if (options.m_isStream) {
        exchange.stream(options.m_count);
    } else {
        exchange.roundTrips(options.m_count);
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    return difference(before, elapsed.count());
}

/// Stays until the sender has finished: it must not see this side close while it still reads.
void runReceiver(const Options_& options, const Meeting_& meeting, int readyPipe, int reportPipe,
                 int finishedPipe) {
    const std::unique_ptr<Side_> side(makeReceiver(options, meeting));
    if (write(readyPipe, "r", 1) != 1) fail("saying that the receiver is ready");
    Exchange_ exchange(*side, options.m_size);
    exchange.echo(kWarmUp);
    const Counters_ before = counters();
    if (options.m_isStream) {
        exchange.absorb(options.m_count);
    } else {
        exchange.echo(options.m_count);
    }
    const Report_ report = difference(before, 0);
    char sign = 0;
    if (write(reportPipe, &report, sizeof(report)) != sizeof(report) || read(finishedPipe, &sign, 1) != 0)
        fail("reporting");
}

void printCounters(const char* p_name, const Counters_& counted, double count) {
    std::printf(",\"%s\":{\"send\":%.3f,\"recv\":%.3f,\"accept\":%.3f,\"poll\":%.3f,\"allocations\":%.3f}",
                p_name, static_cast<double>(counted.m_sends) / count,
                static_cast<double>(counted.m_receives) / count,
                static_cast<double>(counted.m_accepts) / count, static_cast<double>(counted.m_polls) / count,
                static_cast<double>(counted.m_allocations) / count);
}

}  // namespace

void fail(const char* p_what) {
    std::fprintf(stderr, "%s: %s failed\n", g_p_programName, p_what);
    std::exit(1);
}

int main(int argc, char** argv) {
    Options_ options = parse(argc, argv);
    options.m_count = (options.m_count + kCredit - 1) / kCredit * kCredit;
    char folder[] = "/tmp/vekmsg-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr) fail("making a folder");
    const Meeting_ meeting{folder, freePort(), freePort()};
    int ready[2];
    int reports[2];
    int finished[2];
    if (pipe(ready) != 0 || pipe(reports) != 0 || pipe(finished) != 0) fail("making pipes");

    const pid_t receiver = fork();
    if (receiver == 0) {
        chooseCore(options.m_cores, 1);
        alarm(120);
        close(finished[1]);
        runReceiver(options, meeting, ready[1], reports[1], finished[0]);
        _exit(0);
    }
    chooseCore(options.m_cores, 0);
    alarm(120);
    char sign = 0;
    close(ready[1]);
    if (read(ready[0], &sign, 1) != 1) fail("starting the receiver");
    const Report_ sent = runSender(options, meeting);
    Report_ received = {};
    if (read(reports[0], &received, sizeof(received)) != sizeof(received)) fail("the receiver");
    close(finished[1]);
    waitpid(receiver, nullptr, 0);
    std::filesystem::remove_all(folder);

    const auto count = static_cast<double>(options.m_count);
    std::printf(
        "{\"program\":\"%s\",\"transport\":\"%s\",\"mode\":\"%s\",\"cores\":\"%s\",\"size\":%zu,\"count\":%"
        "lu,"
        "\"seconds\":%.6f,\"nanosecondsPerMessage\":%.1f",
        g_p_programName, options.m_isTcp ? "tcp" : "unix", options.m_isStream ? "stream" : "rtt",
        options.m_cores.c_str(), options.m_size, options.m_count, sent.m_seconds,
        sent.m_seconds / count * 1e9);
    printCounters("sender", sent.m_counters, count);
    printCounters("receiver", received.m_counters, count);
    std::printf("}\n");
    return 0;
}
