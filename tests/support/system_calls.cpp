#include "support/system_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace {

enum class Way_ { Through, Fail, Answer, FailAfterwards, AnswerAfterwards, Shorten, PendingError };

struct Step_ {
    Way_ m_way;
    unsigned int m_skipped;
    unsigned int m_times;
    long m_value;
};

struct Plan_ {
    unsigned int m_count;
    unsigned int m_steps;
    Step_ m_step[4];
};

/// What receives may take.
struct Gate_ {
    bool m_isHeld;
    bool m_isEndAdmitted;
    unsigned int m_admitted;
};

struct State_ {
    Plan_ m_plans[SystemCalls_::NumberOfCalls];
    Gate_ m_gate;
    int m_accessMode;
    unsigned int m_clockOffset;
    bool m_isClockStopped;
    struct timespec m_stoppedClock;
    bool m_isOfOneLibrary;
    const char* m_p_library[2];  // its code
    const char* m_p_streams[2];  // that of the standard library, which reads files for it
    SystemCalls_::Witness_ m_witness;
    bool m_isThen;  // the next plan is put behind the present one
};
State_ g_state;

constexpr Step_ kThrough = {Way_::Through, 0, 0, 0};

bool isIn(const char* const (&range)[2], const void* p_place) {
    return p_place >= range[0] && p_place < range[1];
}

bool isConcerned(SystemCalls_::Call_ call, const void* p_place) {
    if (!g_state.m_isOfOneLibrary || isIn(g_state.m_p_library, p_place)) return true;
    return call >= SystemCalls_::Read && isIn(g_state.m_p_streams, p_place);
}

/// Takes the next call off the plan.
Step_ takeStep(Plan_& plan) {
    while (plan.m_steps != 0) {
        Step_& first = plan.m_step[0];
        if (first.m_skipped != 0) {
            --first.m_skipped;
            return kThrough;
        }
        if (first.m_times != 0) {
            --first.m_times;
            return first;
        }
        --plan.m_steps;
        std::copy(plan.m_step + 1, plan.m_step + 1 + plan.m_steps, plan.m_step);
    }
    return kThrough;
}

/// Counts the call and tells what has to become of it.
Step_ nextStep(SystemCalls_::Call_ call, const void* p_place) {
    if (!isConcerned(call, p_place)) return kThrough;
    Plan_& plan = g_state.m_plans[call];
    ++plan.m_count;
    const Step_ step = takeStep(plan);
    if (g_state.m_witness != nullptr) g_state.m_witness(call, p_place, step.m_way != Way_::Through);
    return step;
}

template <class Function>
Function* next(const char* p_name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, p_name));
}

/// Lets the call through or does what the plan says instead.
template <class Through>
auto carryOut(SystemCalls_::Call_ call, const void* p_place, Through through) -> decltype(through()) {
    using Result_ = decltype(through());
    const Step_ step = nextStep(call, p_place);
    switch (step.m_way) {
        case Way_::FailAfterwards:
            through();
            [[fallthrough]];
        case Way_::Fail:
            errno = static_cast<int>(step.m_value);
            return -1;
        case Way_::AnswerAfterwards:
            through();
            [[fallthrough]];
        case Way_::Answer:
            return static_cast<Result_>(step.m_value);
        default:
            return through();
    }
}

/// The same for a call that moves bytes.
template <class Through>
ssize_t carryOut(SystemCalls_::Call_ call, const void* p_place, size_t length, Through through) {
    const Step_ step = nextStep(call, p_place);
    switch (step.m_way) {
        case Way_::Fail:
            errno = static_cast<int>(step.m_value);
            return -1;
        case Way_::Answer:
            return static_cast<ssize_t>(step.m_value);
        case Way_::Shorten:
            return through(std::min(length, static_cast<size_t>(step.m_value)));
        default:
            return through(length);
    }
}

void plan(SystemCalls_::Call_ call, const Step_& step) {
    Plan_& plan = g_state.m_plans[call];
    if (!g_state.m_isThen) plan.m_steps = 0;
    g_state.m_isThen = false;
    if (plan.m_steps == sizeof(plan.m_step) / sizeof(step)) throw std::runtime_error("too long a plan");
    plan.m_step[plan.m_steps++] = step;
}

/// A receive that goes through, but gets only what was let in.
template <class Through>
ssize_t receiveAdmitted(size_t length, Through through) {
    Gate_& gate = g_state.m_gate;
    if (gate.m_isHeld && gate.m_admitted == 0 && !gate.m_isEndAdmitted) {
        errno = EAGAIN;
        return -1;
    }
    if (!gate.m_isHeld || gate.m_admitted == 0) return through(length);
    const ssize_t received = through(std::min<size_t>(length, gate.m_admitted));
    if (received > 0) gate.m_admitted -= static_cast<unsigned int>(received);
    return received;
}

bool isPlanned(SystemCalls_::Call_ call) {
    const Plan_& plan = g_state.m_plans[call];
    return std::any_of(plan.m_step, plan.m_step + plan.m_steps,
                       [](const Step_& step) { return step.m_times != 0; });
}

/// What the plans are going to do shows as the events that announce it.
short plannedEvents(const pollfd& entry) {
    int isListening = 0;
    socklen_t length = sizeof(isListening);
    if (next<decltype(getsockopt)>("getsockopt")(entry.fd, SOL_SOCKET, SO_ACCEPTCONN, &isListening,
                                                 &length) != 0)
        return 0;
    const bool isReadable = isPlanned(isListening != 0 ? SystemCalls_::Accept : SystemCalls_::Recv);
    const int events = (isReadable ? POLLIN : 0) | (isPlanned(SystemCalls_::Getsockopt) ? POLLOUT : 0);
    return static_cast<short>(events & entry.events);
}

int pollWithPlans(struct pollfd* p_entries, nfds_t count, int timeout) {
    const bool isAnyPlanned = isPlanned(SystemCalls_::Accept) || isPlanned(SystemCalls_::Recv) ||
                              isPlanned(SystemCalls_::Getsockopt);
    if (isAnyPlanned)
        for (nfds_t i = 0; i < count; ++i)
            if (plannedEvents(p_entries[i]) != 0) timeout = 0;
    const int result = next<decltype(poll)>("poll")(p_entries, count, timeout);
    if (!isAnyPlanned || result < 0) return result;
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
        p_entries[i].revents = static_cast<short>(p_entries[i].revents | plannedEvents(p_entries[i]));
        if (p_entries[i].revents != 0) ++ready;
    }
    return ready;
}

/// A look asks for nothing but what would make a socket do something; waits ask for errors by name.
bool isLook(const struct pollfd* p_entries, nfds_t count, int timeout) {
    return timeout == 0 && count != 0 && std::all_of(p_entries, p_entries + count, [](const pollfd& entry) {
               return entry.events == (POLLIN | POLLPRI) || entry.events == POLLOUT;
           });
}

// Apart from `poll` itself, whose declaration says that it does not read the entries.
int forwardPoll(const void* p_place, struct pollfd* p_entries, nfds_t count, int timeout) {
    return carryOut(isLook(p_entries, count, timeout) ? SystemCalls_::Look : SystemCalls_::Poll, p_place,
                    [=] { return pollWithPlans(p_entries, count, timeout); });
}

int forwardFcntl(const char* p_name, const void* p_place, int descriptor, int command, long argument) {
    return carryOut(SystemCalls_::Fcntl, p_place,
                    [=] { return next<int(int, int, ...)>(p_name)(descriptor, command, argument); });
}

FILE* forwardFopen(const char* p_name, const void* p_place, const char* p_path, const char* p_mode) {
    const Step_ step = nextStep(SystemCalls_::Fopen, p_place);
    if (step.m_way != Way_::Fail) return next<decltype(fopen)>(p_name)(p_path, p_mode);
    errno = static_cast<int>(step.m_value);
    return nullptr;
}

struct Search_ {
    const char* m_p_name;
    const char** m_p_range;
};

/// Finds the code of the first loaded library whose file name begins with that of the search.
int findCode(struct dl_phdr_info* p_info, size_t, void* p_context) {
    const auto* p_search = static_cast<const Search_*>(p_context);
    const char* p_slash = std::strrchr(p_info->dlpi_name, '/');
    const char* p_name = p_slash != nullptr ? p_slash + 1 : p_info->dlpi_name;
    if (std::strncmp(p_name, p_search->m_p_name, std::strlen(p_search->m_p_name)) != 0) return 0;
    for (unsigned int i = 0; i < p_info->dlpi_phnum; ++i) {
        const auto& segment = p_info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
        p_search->m_p_range[0] = reinterpret_cast<const char*>(p_info->dlpi_addr + segment.p_vaddr);
        p_search->m_p_range[1] = p_search->m_p_range[0] + segment.p_memsz;
        return 1;
    }
    return 0;
}

void findCode(const char* p_name, const char* (&range)[2]) {
    Search_ search = {p_name, range};
    if (dl_iterate_phdr(findCode, &search) == 0)
        throw std::runtime_error(std::string(p_name) + " is not loaded");
}

}  // namespace

const char* SystemCalls_::name(Call_ call) {
    static const char* const s_names[] = {
        "socket",      "fcntl",       "setsockopt",    "getsockopt", "bind",  "listen", "accept", "connect",
        "getsockname", "getpeername", "send",          "recv",       "close", "access", "unlink", "chmod",
        "poll",        "look",        "clock_gettime", "write",      "read",  "fopen",  "fclose"};
    static_assert(sizeof(s_names) / sizeof(s_names[0]) == NumberOfCalls, "each call has a name");
    return s_names[call];
}

SystemCalls_::SystemCalls_() {
    std::memset(&g_state, 0, sizeof(g_state));
}

SystemCalls_::~SystemCalls_() {
    std::memset(&g_state, 0, sizeof(g_state));
}

SystemCalls_& SystemCalls_::then() {
    g_state.m_isThen = true;
    return *this;
}

void SystemCalls_::fail(Call_ call, int error, unsigned int skipped, unsigned int times) {
    plan(call, Step_{Way_::Fail, skipped, times, error});
}

void SystemCalls_::answer(Call_ call, long result, unsigned int skipped, unsigned int times) {
    plan(call, Step_{Way_::Answer, skipped, times, result});
}

void SystemCalls_::failAfterwards(Call_ call, int error, unsigned int skipped, unsigned int times) {
    plan(call, Step_{Way_::FailAfterwards, skipped, times, error});
}

void SystemCalls_::answerAfterwards(Call_ call, long result, unsigned int skipped, unsigned int times) {
    plan(call, Step_{Way_::AnswerAfterwards, skipped, times, result});
}

void SystemCalls_::shorten(Call_ call, unsigned int bytes, unsigned int skipped, unsigned int times) {
    plan(call, Step_{Way_::Shorten, skipped, times, static_cast<long>(bytes)});
}

void SystemCalls_::holdReceived() {
    g_state.m_gate = Gate_();
    g_state.m_gate.m_isHeld = true;
}

void SystemCalls_::admit(unsigned int bytes) {
    g_state.m_gate.m_admitted += bytes;
}

void SystemCalls_::admitEnd() {
    g_state.m_gate.m_isEndAdmitted = true;
}

unsigned int SystemCalls_::admitted() const {
    return g_state.m_gate.m_admitted;
}

void SystemCalls_::setPendingError(int error, unsigned int times) {
    plan(Getsockopt, Step_{Way_::PendingError, 0, times, error});
}

bool SystemCalls_::isCarriedOut() const {
    return std::all_of(std::begin(g_state.m_plans), std::end(g_state.m_plans), [](const Plan_& plan) {
        return std::all_of(plan.m_step, plan.m_step + plan.m_steps,
                           [](const Step_& step) { return step.m_times == 0; });
    });
}

unsigned int SystemCalls_::count(Call_ call) const {
    return g_state.m_plans[call].m_count;
}

int SystemCalls_::accessMode() const {
    return g_state.m_accessMode;
}

void SystemCalls_::concernOnly(const std::string& library) {
    findCode(library.c_str(), g_state.m_p_library);
    findCode("libstdc++.so", g_state.m_p_streams);
    g_state.m_isOfOneLibrary = true;
}

void SystemCalls_::setWitness(Witness_ witness) {
    g_state.m_witness = witness;
}

void SystemCalls_::advanceClock(unsigned int seconds) {
    g_state.m_clockOffset += seconds;
}

void SystemCalls_::stopClock(unsigned int seconds, unsigned int nanoseconds) {
    g_state.m_isClockStopped = true;
    g_state.m_stoppedClock.tv_sec = static_cast<time_t>(seconds);
    g_state.m_stoppedClock.tv_nsec = static_cast<long>(nanoseconds);
}

// Where the call that is being taken over returns to. It has to be asked for in the definition itself.
#define PLACE __builtin_return_address(0)

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    return carryOut(SystemCalls_::Socket, PLACE,
                    [=] { return next<decltype(socket)>("socket")(domain, type, protocol); });
}

int fcntl(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return forwardFcntl("fcntl", PLACE, descriptor, command, argument);
}

int fcntl64(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return forwardFcntl("fcntl64", PLACE, descriptor, command, argument);
}

int setsockopt(int descriptor, int level, int name, const void* p_value, socklen_t length) noexcept {
    return carryOut(SystemCalls_::Setsockopt, PLACE, [=] {
        return next<decltype(setsockopt)>("setsockopt")(descriptor, level, name, p_value, length);
    });
}

int getsockopt(int descriptor, int level, int name, void* p_value, socklen_t* p_length) noexcept {
    const Step_ step = nextStep(SystemCalls_::Getsockopt, PLACE);
    const int error = static_cast<int>(step.m_value);
    if (step.m_way == Way_::Fail) {
        errno = error;
        return -1;
    }
    if (step.m_way == Way_::PendingError) {
        std::memcpy(p_value, &error, sizeof(error));
        return 0;
    }
    return next<decltype(getsockopt)>("getsockopt")(descriptor, level, name, p_value, p_length);
}

int bind(int descriptor, const struct sockaddr* p_address, socklen_t length) noexcept {
    return carryOut(SystemCalls_::Bind, PLACE,
                    [=] { return next<decltype(bind)>("bind")(descriptor, p_address, length); });
}

int listen(int descriptor, int backlog) noexcept {
    return carryOut(SystemCalls_::Listen, PLACE,
                    [=] { return next<decltype(listen)>("listen")(descriptor, backlog); });
}

int accept(int descriptor, struct sockaddr* p_address, socklen_t* p_length) {
    return carryOut(SystemCalls_::Accept, PLACE,
                    [=] { return next<decltype(accept)>("accept")(descriptor, p_address, p_length); });
}

int connect(int descriptor, const struct sockaddr* p_address, socklen_t length) {
    return carryOut(SystemCalls_::Connect, PLACE,
                    [=] { return next<decltype(connect)>("connect")(descriptor, p_address, length); });
}

int getsockname(int descriptor, struct sockaddr* p_address, socklen_t* p_length) noexcept {
    return carryOut(SystemCalls_::Getsockname, PLACE, [=] {
        return next<decltype(getsockname)>("getsockname")(descriptor, p_address, p_length);
    });
}

int getpeername(int descriptor, struct sockaddr* p_address, socklen_t* p_length) noexcept {
    return carryOut(SystemCalls_::Getpeername, PLACE, [=] {
        return next<decltype(getpeername)>("getpeername")(descriptor, p_address, p_length);
    });
}

ssize_t send(int descriptor, const void* p_bytes, size_t length, int flags) {
    return carryOut(SystemCalls_::Send, PLACE, length, [=](size_t part) {
        return next<decltype(send)>("send")(descriptor, p_bytes, part, flags);
    });
}

ssize_t recv(int descriptor, void* p_bytes, size_t length, int flags) {
    return carryOut(SystemCalls_::Recv, PLACE, length, [=](size_t part) {
        return receiveAdmitted(part, [=](size_t size) {
            return next<decltype(recv)>("recv")(descriptor, p_bytes, size, flags);
        });
    });
}

ssize_t write(int descriptor, const void* p_bytes, size_t length) {
    return carryOut(SystemCalls_::Write, PLACE, length,
                    [=](size_t part) { return next<decltype(write)>("write")(descriptor, p_bytes, part); });
}

ssize_t read(int descriptor, void* p_bytes, size_t length) {
    return carryOut(SystemCalls_::Read, PLACE, length,
                    [=](size_t part) { return next<decltype(read)>("read")(descriptor, p_bytes, part); });
}

FILE* fopen(const char* p_path, const char* p_mode) {
    return forwardFopen("fopen", PLACE, p_path, p_mode);
}

FILE* fopen64(const char* p_path, const char* p_mode) {
    return forwardFopen("fopen64", PLACE, p_path, p_mode);
}

int fclose(FILE* p_file) {
    return carryOut(SystemCalls_::Fclose, PLACE, [=] { return next<decltype(fclose)>("fclose")(p_file); });
}

int close(int descriptor) {
    return carryOut(SystemCalls_::Close, PLACE, [=] { return next<decltype(close)>("close")(descriptor); });
}

int access(const char* p_path, int mode) noexcept {
    if (isConcerned(SystemCalls_::Access, PLACE)) g_state.m_accessMode = mode;
    return carryOut(SystemCalls_::Access, PLACE,
                    [=] { return next<decltype(access)>("access")(p_path, mode); });
}

int unlink(const char* p_path) noexcept {
    return carryOut(SystemCalls_::Unlink, PLACE, [=] { return next<decltype(unlink)>("unlink")(p_path); });
}

int chmod(const char* p_path, mode_t mode) noexcept {
    return carryOut(SystemCalls_::Chmod, PLACE, [=] { return next<decltype(chmod)>("chmod")(p_path, mode); });
}

int poll(struct pollfd* p_entries, nfds_t count, int timeout) {
    return forwardPoll(PLACE, p_entries, count, timeout);
}

int clock_gettime(clockid_t clock, struct timespec* p_now) noexcept {
    const int result = carryOut(SystemCalls_::ClockGettime, PLACE,
                                [=] { return next<decltype(clock_gettime)>("clock_gettime")(clock, p_now); });
    if (result != 0 || !isConcerned(SystemCalls_::ClockGettime, PLACE)) return result;
    if (g_state.m_isClockStopped) *p_now = g_state.m_stoppedClock;
    p_now->tv_sec += static_cast<time_t>(g_state.m_clockOffset);
    return result;
}

}  // extern "C"
