#include <dirent.h>
#include <fcntl.h>
#include <fenv.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <signal.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/record_capture.h"
#include "support/station.h"
#include "support/temporary_folder.h"

// What the finished library leaves as it found it in the process that uses it.

extern char** environ;

namespace {

using Lines_ = std::vector<std::string>;

std::string hexadecimal(const void* p_bytes, std::size_t size) {
    std::string digits;
    for (std::size_t i = 0; i < size; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof(pair), "%02x", static_cast<const unsigned char*>(p_bytes)[i]);
        digits += pair;
    }
    return digits;
}

/// The part of a set that the kernel fills in.
std::string textOf(const sigset_t& set) {
    return hexadecimal(&set, _NSIG / 8);
}

Lines_ signals() {
    Lines_ lines;
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) != 0) continue;
        lines.push_back(std::to_string(number) + " flags " + std::to_string(action.sa_flags) + " handler " +
                        hexadecimal(&action.sa_handler, sizeof(action.sa_handler)) + " mask " +
                        textOf(action.sa_mask));
    }
    sigset_t blocked = {};
    sigset_t pending = {};
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    sigpending(&pending);
    lines.push_back("blocked " + textOf(blocked));
    lines.push_back("pending " + textOf(pending));
    stack_t alternate = {};
    sigaltstack(nullptr, &alternate);
    lines.push_back("alternate stack " + std::to_string(alternate.ss_flags));
    return lines;
}

Lines_ timers() {
    Lines_ lines;
    for (const auto which : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
        struct itimerval value = {};
        getitimer(which, &value);
        lines.push_back(std::to_string(value.it_interval.tv_sec) + ' ' +
                        std::to_string(value.it_value.tv_sec + value.it_value.tv_usec));
    }
    return lines;
}

/// The mask for new files, and every identity and count that the kernel keeps for the process.
Lines_ kernelStatus() {
    static const char* const s_kept[] = {"Umask",  "Uid",        "Gid",     "Groups", "Threads",
                                         "ShdPnd", "SigBlk",     "SigIgn",  "SigCgt", "CapInh",
                                         "CapEff", "NoNewPrivs", "Seccomp:"};
    std::ifstream status("/proc/self/status");
    Lines_ lines;
    for (std::string line; std::getline(status, line);)
        for (const char* p_kept : s_kept)
            if (line.rfind(p_kept, 0) == 0) lines.push_back(line);
    return lines;
}

Lines_ locales() {
    const struct lconv* p_conventions = localeconv();
    return {setlocale(LC_ALL, nullptr), std::locale().name(), p_conventions->decimal_point,
            std::to_string(fegetround()), std::to_string(fetestexcept(FE_ALL_EXCEPT))};
}

Lines_ folders() {
    char path[4096] = {};
    return {getcwd(path, sizeof(path)) != nullptr ? path : "?"};
}

Lines_ environment() {
    Lines_ lines{hexadecimal(&environ, sizeof(environ))};
    for (char** p_entry = environ; *p_entry != nullptr; ++p_entry) lines.emplace_back(*p_entry);
    return lines;
}

Lines_ limits() {
    Lines_ lines{std::to_string(getpriority(PRIO_PROCESS, 0))};
    for (int resource = 0; resource < RLIMIT_NLIMITS; ++resource) {
        struct rlimit limit = {};
        getrlimit(static_cast<__rlimit_resource>(resource), &limit);
        lines.push_back(std::to_string(limit.rlim_cur) + ' ' + std::to_string(limit.rlim_max));
    }
    return lines;
}

/// Every open descriptor with its file, its flags and its place.
Lines_ descriptors() {
    Lines_ lines;
    DIR* p_folder = opendir("/proc/self/fd");
    while (const dirent* p_entry = readdir(p_folder)) {
        const int descriptor = std::atoi(p_entry->d_name);
        if (p_entry->d_name[0] == '.' || descriptor == dirfd(p_folder)) continue;
        char target[512] = {};
        const std::string link = std::string("/proc/self/fd/") + p_entry->d_name;
        if (readlink(link.c_str(), target, sizeof(target) - 1) < 0) continue;
        lines.push_back(std::to_string(descriptor) + ' ' + target + ' ' +
                        std::to_string(fcntl(descriptor, F_GETFL)) + ' ' +
                        std::to_string(fcntl(descriptor, F_GETFD)));
    }
    closedir(p_folder);
    return lines;
}

/// The standard streams, of C and of C++: buffers, contents and formatting.
Lines_ standardStreams() {
    Lines_ lines;
    for (FILE* p_file : {stdin, stdout, stderr}) {
        lines.push_back(std::to_string(fileno(p_file)) + ' ' + std::to_string(__fbufsize(p_file)) + ' ' +
                        std::to_string(__flbf(p_file)) + ' ' + std::to_string(__fpending(p_file)) + ' ' +
                        std::to_string(__freading(p_file)) + ' ' + std::to_string(ferror(p_file)));
    }
    for (std::ostream* p_stream : {&std::cout, &std::cerr, &std::clog}) {
        const void* const p_buffer = p_stream->rdbuf();
        lines.push_back(hexadecimal(&p_buffer, sizeof(p_buffer)) + ' ' + std::to_string(p_stream->flags()) +
                        ' ' + std::to_string(p_stream->width()) + ' ' +
                        std::to_string(p_stream->precision()) + ' ' + p_stream->fill() + ' ' +
                        std::to_string(p_stream->rdstate()) + ' ' + p_stream->getloc().name());
    }
    return lines;
}

/// What the language calls when it does not know any further.
Lines_ handlers() {
    const std::terminate_handler terminate = std::get_terminate();
    const std::new_handler newHandler = std::get_new_handler();
    return {hexadecimal(&terminate, sizeof(terminate)), hexadecimal(&newHandler, sizeof(newHandler))};
}

std::size_t threads() {
    std::size_t count = 0;
    DIR* p_folder = opendir("/proc/self/task");
    while (const dirent* p_entry = readdir(p_folder)) count += p_entry->d_name[0] != '.' ? 1 : 0;
    closedir(p_folder);
    return count;
}

/// All that terminals do in their lives: open, send, receive, answer, ping, poll, print, fail, close.
class Life_ {
public:
    Life_() {
        const std::string tcp = freeTcpAddress();
        m_directory = m_folder.writeFile(
            "names", {"# components", "short x", m_folder.localAddress("alpha") + " alpha", tcp + " beta",
                      m_folder.localAddress("away") + " away", m_folder.localAddress("default")});
    }

    void live() {
        {
            Station_ alpha("alpha", m_directory);
            Station_ beta("beta", m_directory);
            exchange(alpha, beta);
            fail(alpha, beta);
            m_threads = threads();
        }
        VekmsgTerminal_ nobody;
        EXPECT_FALSE(nobody.open(utf8("alpha"), m_folder.path("missing").c_str()));
        EXPECT_FALSE(m_records.take().empty());
    }

    std::size_t threadsMeanwhile() const { return m_threads; }

private:
    void exchange(Station_& alpha, Station_& beta) {
        std::ostringstream printed;
        SP_VekmsgFilter_ sp_printer;
        ASSERT_TRUE(beta.terminal().CreateMessagePrinter(&printed, "note", sp_printer));
        beta.terminal().setReceiveFilter(sp_printer);
        ASSERT_TRUE(alpha.send("beta", "request", 1));
        ASSERT_EQ(await(beta, alpha), 1);
        ASSERT_TRUE(beta.send("alpha", "reply", 2));
        ASSERT_EQ(await(alpha, beta), 2);
        ASSERT_TRUE(alpha.send("beta", "VEK Pinger Request Format version 1.0", 3));
        ASSERT_EQ(await(alpha, beta), 3);
        EXPECT_NE(printed.str().find("<!-- beta  note -->"), std::string::npos);
        pollfd entries[8];
        unsigned int count = 8;
        EXPECT_TRUE(alpha.terminal().fillPollFdArray(entries, count));
        VekmsgTerminal_::pollFd(nullptr, 0, 1, &alpha.terminal(), &beta.terminal(),
                                static_cast<void*>(nullptr));
    }

    /// A destination that is not listed, one that is away, a peer that leaves with messages under way to it,
    /// a message that is too large.
    void fail(Station_& alpha, Station_& beta) {
        EXPECT_FALSE(alpha.send("unknown", "request", 4));
        EXPECT_FALSE(alpha.send("away", "request", 5));
        EXPECT_FALSE(alpha.terminal().sendMessage(SP_VekMessage_()));
        beta.terminal().close();
        for (unsigned int number = 0; number < 20; ++number) alpha.send("beta", "request", number);
        alpha.workUntil([&] { return !alpha.isConnected("beta"); });
        EXPECT_FALSE(alpha.isConnected("beta"));
    }

    static long await(Station_& receiver, Station_& other) {
        SP_VekMessage_ sp_message;
        receiver.workUntil([&] {
            other.receive();
            sp_message = receiver.receive();
            return !sp_message.isNull();
        });
        return sp_message.isNull() ? -1 : Station_::numberIn(sp_message);
    }

    TemporaryFolder_ m_folder;
    RecordCapture_ m_records;
    std::string m_directory;
    std::size_t m_threads = 0;
};

void expectUntouched(Lines_ (*state)()) {
    const Lines_ before = state();
    { Life_().live(); }
    const Lines_ after = state();

    ASSERT_FALSE(before.empty());
    EXPECT_EQ(after, before);
}

/// What a process that runs `body` writes on a standard stream, and how it ends.
std::string outputOf(int stream, const std::function<int()>& body, int& result) {
    const TemporaryFolder_ folder;
    const std::string path = folder.path("output");
    ChildProcess_ child([&] {
        const int file = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
        dup2(file, stream);
        return body();
    });
    result = child.wait();
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

TEST(HostProcess, keepsItsSignals) {
    expectUntouched(signals);
}

TEST(HostProcess, keepsItsTimers) {
    expectUntouched(timers);
}

TEST(HostProcess, keepsItsFileMaskAndIdentity) {
    const mode_t mask = umask(0027);  // an unusual one
    expectUntouched(kernelStatus);
    EXPECT_EQ(umask(mask), 0027U);
}

TEST(HostProcess, keepsItsLocale) {
    expectUntouched(locales);
}

TEST(HostProcess, keepsItsFolder) {
    expectUntouched(folders);
}

TEST(HostProcess, keepsItsEnvironment) {
    expectUntouched(environment);
}

TEST(HostProcess, keepsItsLimitsAndPriority) {
    expectUntouched(limits);
}

TEST(HostProcess, keepsItsDescriptors) {
    expectUntouched(descriptors);
}

TEST(HostProcess, keepsItsStandardStreams) {
    expectUntouched(standardStreams);
}

TEST(HostProcess, keepsItsHandlersOfLastResort) {
    expectUntouched(handlers);
}

TEST(HostProcess, getsNoThread) {
    Life_ life;
    life.live();

    EXPECT_EQ(life.threadsMeanwhile(), 1U);
    EXPECT_EQ(threads(), 1U);
}

TEST(HostProcess, isNotEndedByAPeerThatWent) {
    ChildProcess_ child([] {
        signal(SIGPIPE, SIG_DFL);
        Life_().live();
        return 5;
    });

    EXPECT_EQ(child.wait(), 5);
}

TEST(HostProcess, getsNothingOnStandardOutput) {
    int result = 0;
    const std::string output = outputOf(
        STDOUT_FILENO,
        [] {
            Life_().live();
            return testing::Test::HasFailure() ? 1 : 0;
        },
        result);

    EXPECT_EQ(output, "");
    EXPECT_EQ(result, 0);
}

TEST(HostProcess, getsRecordsAndNothingElseOnStandardError) {
    int result = 0;
    const std::string output = outputOf(
        STDERR_FILENO,
        [] {
            VekmsgTerminal_ terminal;
            return terminal.isConnected(utf8("anybody")) ? 1 : 0;
        },
        result);

    EXPECT_EQ(output.find("vekmsg error: VekmsgTerminal_::isConnected() not open yet [vekmsg.cpp:"), 0U);
    EXPECT_EQ(output.find('\n'), output.size() - 1);
    EXPECT_EQ(result, 0);
}

TEST(HostProcess, keepsErrnoWhenARecordIsWritten) {
    const RecordCapture_ records;
    const VekmsgTerminal_ terminal;
    errno = ENOTSUP;

    EXPECT_FALSE(terminal.isConnected(utf8("anybody")));

    EXPECT_EQ(errno, ENOTSUP);
}

TEST(HostProcess, mayExitWithATerminalOpen) {
    const TemporaryFolder_ folder;
    const std::string directory =
        folder.writeFile("names", {folder.localAddress("alpha") + " alpha", folder.localAddress("default")});
    ChildProcess_ child([&]() -> int {
        auto* p_terminal = createVekmsgTerminal();
        std::exit(p_terminal->open(utf8("alpha"), directory.c_str()) ? 6 : 1);
    });

    EXPECT_EQ(child.wait(), 6);
}

TEST(HostProcess, mayLeaveATerminalToTheEndOfTheProgram) {
    const TemporaryFolder_ folder;
    const std::string directory =
        folder.writeFile("names", {folder.localAddress("alpha") + " alpha", folder.localAddress("default")});
    ChildProcess_ child([&]() -> int {
        static VekmsgTerminal_ s_terminal;
        const bool isOpen = s_terminal.open(utf8("alpha"), directory.c_str());
        SP_VekMessage_ sp_message;
        s_terminal.createMessage(sp_message);
        static SP_VekMessage_ s_sp_message = sp_message;
        std::exit(isOpen && access(folder.path("alpha").c_str(), F_OK) == 0 ? 7 : 1);
    });

    EXPECT_EQ(child.wait(), 7);
    EXPECT_NE(access(folder.path("alpha").c_str(), F_OK), 0);
}
