#include "transfer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>

#include "counters.h"

namespace {

constexpr unsigned long kWindow = 256;
constexpr unsigned long kCredit = 64;
constexpr unsigned long kWarmUp = 500;
constexpr unsigned int kTimeLimit = 120;  // seconds
constexpr unsigned int kNumberShift = 48;
constexpr std::size_t kMaximumFanInSize = 1024;

const std::map<std::string, Mode_> kModes = {
    {"rtt", Mode_::RoundTrip}, {"stream", Mode_::Stream}, {"burst", Mode_::Burst}, {"fanin", Mode_::FanIn}};

void check(const Options_& options) {
    if (options.m_size < sizeof(std::uint64_t) || options.m_size > 9000)
        refuse("a size that is not 8 to 9000");
    if (options.m_peers < 1 || options.m_peers > 100 || options.m_batch < 1 || options.m_batch > kWindow)
        refuse("a number of peers or messages");
    // A sender of many must not wait for another one's reply while its own message is partly written.
    if (options.m_mode == Mode_::FanIn && options.m_peers > 1 && options.m_size > kMaximumFanInSize)
        refuse("a fan-in of messages beyond 1024 bytes");
    const bool isMany = options.m_mode == Mode_::FanIn || options.m_mode == Mode_::RoundTrip;
    if (options.m_peers > 1 && !isMany) refuse("several peers in this mode");
}

Options_ parse(int argc, char** argv) {
    Options_ options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--counted") {
            options.m_isCounted = true;
            continue;
        }
        if (i + 1 == argc) fail("an option without its value");
        const std::string value = argv[++i];
        if (name == "--transport" && (value == "unix" || value == "tcp")) {
            options.m_isTcp = value == "tcp";
        } else if (name == "--mode" && kModes.count(value) == 1) {
            options.m_mode = kModes.at(value);
        } else if (name == "--size") {
            options.m_size = std::stoul(value);
        } else if (name == "--count") {
            options.m_count = std::stoul(value);
        } else if (name == "--peers") {
            options.m_peers = static_cast<unsigned int>(std::stoul(value));
        } else if (name == "--batch") {
            options.m_batch = static_cast<unsigned int>(std::stoul(value));
        } else if (name == "--polls") {
            std::size_t comma = 0;
            options.m_senderPolls = static_cast<unsigned int>(std::stoul(value, &comma));
            if (comma + 1 >= value.size()) fail("--polls with two numbers");
            options.m_receiverPolls = static_cast<unsigned int>(std::stoul(value.substr(comma + 1)));
        } else if (name == "--cores" && (value == "one" || value == "two" || value == "free")) {
            options.m_cores = value;
        } else if (name == "--variant") {
            options.m_variant = value;
        } else {
            fail("an unknown option");
        }
    }
    check(options);
    options.m_count = (options.m_count + kCredit - 1) / kCredit * kCredit;
    return options;
}

cpu_set_t allowedCores() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) fail("asking for the cores");
    return allowed;
}

/// "one": all processes share the first core that this one may use. "two": the receiver takes the second.
void chooseCore(const std::string& cores, int own) {
    static const cpu_set_t s_allowed = allowedCores();
    if (cores == "free") return;
    int wanted = cores == "one" ? 0 : own;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (!CPU_ISSET(core, &s_allowed) || wanted-- != 0) continue;
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(core, &set);
        if (sched_setaffinity(0, sizeof(set), &set) != 0) fail("choosing a core");
        return;
    }
    refuse("two cores");
}

sockaddr_in loopback(const std::string& port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoul(port)));
    return address;
}

/// All are found before the first is given back, so that no two are the same.
std::vector<std::string> freePorts(std::size_t count) {
    std::vector<std::string> ports;
    std::vector<int> descriptors;
    for (std::size_t i = 0; i < count; ++i) {
        descriptors.push_back(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address = loopback("0");
        socklen_t length = sizeof(address);
        if (bind(descriptors.back(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            getsockname(descriptors.back(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
            fail("finding a free port");
        ports.push_back(std::to_string(ntohs(address.sin_port)));
    }
    for (const int descriptor : descriptors) close(descriptor);
    return ports;
}

/// The folder of the socket files, removed when the process that made it ends.
class Folder_ {
public:
    Folder_() {
        char path[] = "/tmp/vekmsg-bench-XXXXXX";
        if (mkdtemp(path) == nullptr) fail("making a folder");
        m_path = path;
    }
    ~Folder_() {
        std::error_code ignored;
        if (getpid() == m_owner) std::filesystem::remove_all(m_path, ignored);
    }
    const std::string& path() const { return m_path; }

private:
    pid_t m_owner = getpid();
    std::string m_path;
};

Meeting_ makeMeeting(const Options_& options) {
    static const Folder_ s_folder;
    std::vector<std::string> ports = freePorts(options.m_peers + 2);
    Meeting_ meeting{s_folder.path(), ports[0], ports[1], {}};
    meeting.m_senderPorts.assign(ports.begin() + 2, ports.end());
    return meeting;
}

/// Data segments that the TCP sockets of this process have sent: whether small messages were joined.
unsigned long segmentsSent() {
    unsigned long segments = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        tcp_info info = {};
        socklen_t length = sizeof(info);
        if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) == 0)
            segments += info.tcpi_data_segs_out;
    }
    return segments;
}

/// The messages between one side and those at the other end, numbered for each of them.
class Messages_ {
public:
    Messages_(std::size_t size, unsigned int peers)
        : m_bytes(size, 0x5A), m_received(size + 1), m_sent(peers), m_taken(peers) {}

    void send(Side_& side, unsigned int number) {
        const std::uint64_t mark = std::uint64_t{number} << kNumberShift | m_sent[number]++;
        std::memcpy(m_bytes.data(), &mark, sizeof(mark));
        side.send(number, m_bytes.data(), m_bytes.size());
    }
    /// Gives the number of the sender at the other end, or this sender's own.
    unsigned int receive(Side_& side) {
        if (side.receive(m_received.data(), m_received.size()) != m_bytes.size())
            fail("the length of a message");
        const unsigned int number = senderOf(m_received.data());
        std::uint64_t mark = 0;
        std::memcpy(&mark, m_received.data(), sizeof(mark));
        if (number >= m_taken.size() || mark != (std::uint64_t{number} << kNumberShift | m_taken[number]++))
            fail("the sequence of messages");
        return number;
    }

private:
    std::vector<unsigned char> m_bytes;
    std::vector<unsigned char> m_received;
    std::vector<std::uint64_t> m_sent;
    std::vector<std::uint64_t> m_taken;
};

/// The measuring process: all senders.
class Senders_ {
public:
    Senders_(const Options_& options, const Meeting_& meeting)
        : m_options(options), m_messages(options.m_size, options.m_peers) {
        for (unsigned int number = 0; number < options.m_peers; ++number) {
            m_sides.push_back(g_program.m_p_makeSender(options, meeting, number));
            roundTrips(number, kWarmUp / options.m_peers);
        }
    }
    void run() {
        switch (m_options.m_mode) {
            case Mode_::RoundTrip:
                roundTrips(0, m_options.m_count);
                break;
            case Mode_::Burst:
                bursts();
                break;
            case Mode_::Stream:
            case Mode_::FanIn:
                stream();
                break;
        }
    }

private:
    void roundTrips(unsigned int number, unsigned long count) {
        for (unsigned long i = 0; i < count; ++i) {
            m_messages.send(*m_sides[number], number);
            m_messages.receive(*m_sides[number]);
        }
    }
    void bursts() {
        for (unsigned long i = 0; i < m_options.m_count; ++i) {
            for (unsigned int k = 0; k < m_options.m_batch; ++k) m_messages.send(*m_sides[0], 0);
            m_messages.receive(*m_sides[0]);
        }
    }
    void stream() {
        const unsigned int peers = m_options.m_peers;
        unsigned long confirmed = 0;
        const auto takeReply = [&] {
            m_messages.receive(*m_sides[confirmed / kCredit % peers]);
            confirmed += kCredit;
        };
        for (unsigned long sent = 0; sent < m_options.m_count; ++sent) {
            while (sent - confirmed >= kWindow) takeReply();
            const auto number = static_cast<unsigned int>(sent % peers);
            m_messages.send(*m_sides[number], number);
        }
        while (confirmed < m_options.m_count) takeReply();
    }

    const Options_& m_options;
    Messages_ m_messages;
    std::vector<std::unique_ptr<Side_>> m_sides;
};

class Receiver_ {
public:
    Receiver_(const Options_& options, const Meeting_& meeting)
        : m_options(options),
          m_messages(options.m_size, options.m_peers),
          m_sp_side(g_program.m_p_makeReceiver(options, meeting)) {}

    void warmUp() { answer(kWarmUp / m_options.m_peers * m_options.m_peers, 1); }

    void run() {
        switch (m_options.m_mode) {
            case Mode_::RoundTrip:
                answer(m_options.m_count, 1);
                break;
            case Mode_::Burst:
                answer(m_options.m_count, m_options.m_batch);
                break;
            case Mode_::Stream:
            case Mode_::FanIn:
                absorb();
                break;
        }
    }

private:
    void answer(unsigned long count, unsigned int batch) {
        for (unsigned long i = 0; i < count; ++i) {
            unsigned int number = 0;
            for (unsigned int k = 0; k < batch; ++k) number = m_messages.receive(*m_sp_side);
            m_messages.send(*m_sp_side, number);
        }
    }
    void absorb() {
        for (unsigned long i = 0; i < m_options.m_count; ++i) {
            m_messages.receive(*m_sp_side);
            if ((i + 1) % kCredit == 0)
                m_messages.send(*m_sp_side, static_cast<unsigned int>(i / kCredit % m_options.m_peers));
        }
    }

    const Options_& m_options;
    Messages_ m_messages;
    std::unique_ptr<Side_> m_sp_side;
};

struct Report_ {
    double m_seconds;
    double m_cpuSeconds;
    unsigned long m_segments;
    Counters_ m_counters;
};

/// Of all threads of a process. What else runs on the machine adds little to it.
double cpuSeconds(pid_t process) {
    clockid_t clock = 0;
    timespec time = {};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0)
        fail("asking for the processor time");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

template <class End>
Report_ measure(End& end, const Options_& options) {
    const unsigned long segments = options.m_isTcp ? segmentsSent() : 0;
    const Counters_ before = counters();
    countCalls(options.m_isCounted);
    const double cpu = cpuSeconds(getpid());
    const auto start = std::chrono::steady_clock::now();
    end.run();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    const double cpuSpent = cpuSeconds(getpid()) - cpu;
    countCalls(false);
    return {elapsed.count(), cpuSpent, options.m_isTcp ? segmentsSent() - segments : 0, counters() - before};
}

/// Stays until the sender has finished: it must not see this side close while it still reads.
[[noreturn]] void beReceiver(const Options_& options, const Meeting_& meeting, int readyPipe, int reportPipe,
                             int finishedPipe) {
    Receiver_ receiver(options, meeting);
    if (write(readyPipe, "r", 1) != 1) fail("saying that the receiver is ready");
    receiver.warmUp();
    const Report_ report = measure(receiver, options);
    char sign = 0;
    if (write(reportPipe, &report, sizeof(report)) != sizeof(report) || read(finishedPipe, &sign, 1) != 0)
        fail("reporting");
    _exit(0);
}

void print(const Options_& options, const char* p_name, const Report_& report) {
    const auto count = static_cast<double>(options.m_count);
    const auto perUnit = [count](unsigned long total) { return static_cast<double>(total) / count; };
    const Counters_& counted = report.m_counters;
    std::printf(",\"%s\":{\"cpuNanoseconds\":%.1f,\"segments\":%.3f", p_name,
                report.m_cpuSeconds / count * 1e9, perUnit(report.m_segments));
    if (options.m_isCounted)
        std::printf(
            ",\"send\":%.3f,\"recv\":%.3f,\"accept\":%.3f,\"poll\":%.3f,\"other\":%.3f,\"allocations\":%.3f",
            perUnit(counted.m_sends), perUnit(counted.m_receives), perUnit(counted.m_accepts),
            perUnit(counted.m_polls), perUnit(counted.m_others), perUnit(counted.m_allocations));
    std::printf("}");
}

}  // namespace

unsigned int senderOf(const unsigned char* p_bytes) {
    std::uint64_t mark = 0;
    std::memcpy(&mark, p_bytes, sizeof(mark));
    return static_cast<unsigned int>(mark >> kNumberShift);
}

void fail(const char* p_what) {
    std::fprintf(stderr, "%s: %s failed\n", g_program.m_p_name, p_what);
    std::exit(1);
}

void refuse(const char* p_what) {
    std::fprintf(stderr, "%s: not available: %s\n", g_program.m_p_name, p_what);
    std::exit(4);
}

Address_ makeAddress(const Options_& options, const Meeting_& meeting, const std::string& name,
                     const std::string& port) {
    Address_ address;
    if (options.m_isTcp) {
        reinterpret_cast<sockaddr_in&>(address.m_bytes) = loopback(port);
        address.m_length = sizeof(sockaddr_in);
    } else {
        auto& local = reinterpret_cast<sockaddr_un&>(address.m_bytes);
        local.sun_family = AF_UNIX;
        std::strncpy(local.sun_path, (meeting.m_folder + "/" + name).c_str(), sizeof(local.sun_path) - 1);
        address.m_length = sizeof(local);
    }
    return address;
}

bool isBrokerListening(const Options_& options, const Meeting_& meeting) {
    const Address_ address = makeAddress(options, meeting, "broker", meeting.m_brokerPort);
    const int descriptor = socket(address.m_bytes.ss_family, SOCK_STREAM, 0);
    const bool isListening = connect(descriptor, address.get(), address.m_length) == 0;
    close(descriptor);
    return isListening;
}

pid_t startBroker(const std::vector<std::string>& command,
                  bool (*p_isReady)(const Options_&, const Meeting_&), const Options_& options,
                  const Meeting_& meeting) {
    std::vector<char*> arguments;
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const pid_t broker = fork();
    if (broker == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int log = open((meeting.m_folder + "/broker.log").c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(log, STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    for (int i = 0; i < 1000; ++i) {
        if (waitpid(broker, nullptr, WNOHANG) != 0) fail("starting the broker");
        if (p_isReady(options, meeting)) return broker;
        usleep(10000);
    }
    fail("waiting for the broker");
}

int main(int argc, char** argv) {
    const Options_ options = parse(argc, argv);
    chooseCore(options.m_cores, 0);
    const Meeting_ meeting = makeMeeting(options);
    const pid_t broker =
        g_program.m_p_startBroker != nullptr ? g_program.m_p_startBroker(options, meeting) : 0;
    int ready[2];
    int reports[2];
    int finished[2];
    if (pipe(ready) != 0 || pipe(reports) != 0 || pipe(finished) != 0) fail("making pipes");
    alarm(kTimeLimit);

    const pid_t receiver = fork();
    if (receiver == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        chooseCore(options.m_cores, 1);
        close(finished[1]);
        beReceiver(options, meeting, ready[1], reports[1], finished[0]);
    }
    char sign = 0;
    close(ready[1]);
    close(reports[1]);
    double brokerSeconds = 0;
    Report_ sent = {};
    Report_ received = {};
    if (read(ready[0], &sign, 1) == 1) {
        Senders_ senders(options, meeting);
        const double brokerBefore = broker != 0 ? cpuSeconds(broker) : 0;
        sent = measure(senders, options);
        if (broker != 0) brokerSeconds = cpuSeconds(broker) - brokerBefore;
        if (read(reports[0], &received, sizeof(received)) != sizeof(received)) fail("the receiver");
        close(finished[1]);
        waitpid(receiver, nullptr, 0);
    } else {
        int status = 0;
        waitpid(receiver, &status, 0);
        std::exit(WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1);
    }
    if (broker != 0) {
        kill(broker, SIGTERM);
        waitpid(broker, nullptr, 0);
    }
    const auto count = static_cast<double>(options.m_count);
    const double cpu = sent.m_cpuSeconds + received.m_cpuSeconds + brokerSeconds;
    std::printf("{\"program\":\"%s\",\"nanoseconds\":%.1f,\"cpuNanoseconds\":%.1f", g_program.m_p_name,
                sent.m_seconds / count * 1e9, cpu / count * 1e9);
    print(options, "sender", sent);
    print(options, "receiver", received);
    std::printf("}\n");
    return 0;
}
