#include "support/system_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace {

enum class Way_ { Through, Fail, Answer, Shorten, PendingError };

struct Plan_ {
    Way_ m_way;
    unsigned int m_skipped;
    unsigned int m_times;
    long m_value;
    unsigned int m_count;
};

/// What receives may take.
struct Gate_ {
    bool m_isHeld;
    bool m_isEndAdmitted;
    unsigned int m_admitted;
};

Plan_ g_plans[SystemCalls_::NumberOfCalls];
Gate_ g_gate;
unsigned int g_clockOffset;
bool g_isClockStopped;
struct timespec g_stoppedClock;

/// Counts the call and tells what has to become of it.
Way_ nextWay(SystemCalls_::Call_ call) {
    Plan_& plan = g_plans[call];
    ++plan.m_count;
    if (plan.m_way == Way_::Through) return Way_::Through;
    if (plan.m_skipped != 0) {
        --plan.m_skipped;
        return Way_::Through;
    }
    if (plan.m_times == 0) return Way_::Through;
    --plan.m_times;
    return plan.m_way;
}

template <class Function>
Function* next(const char* p_name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, p_name));
}

/// Lets the call through or does what the plan says instead.
template <class Through>
auto carryOut(SystemCalls_::Call_ call, Through through) -> decltype(through()) {
    switch (nextWay(call)) {
        case Way_::Fail:
            errno = static_cast<int>(g_plans[call].m_value);
            return -1;
        case Way_::Answer:
            return static_cast<decltype(through())>(g_plans[call].m_value);
        default:
            return through();
    }
}

void plan(SystemCalls_::Call_ call, Way_ way, long value, unsigned int skipped, unsigned int times) {
    g_plans[call] = Plan_{way, skipped, times, value, g_plans[call].m_count};
}

/// A receive that goes through, but gets only what was let in.
template <class Through>
ssize_t receiveAdmitted(size_t length, Through through) {
    if (g_gate.m_isHeld && g_gate.m_admitted == 0 && !g_gate.m_isEndAdmitted) {
        errno = EAGAIN;
        return -1;
    }
    if (!g_gate.m_isHeld || g_gate.m_admitted == 0) return through(length);
    const ssize_t received = through(std::min<size_t>(length, g_gate.m_admitted));
    if (received > 0) g_gate.m_admitted -= static_cast<unsigned int>(received);
    return received;
}

int forwardFcntl(const char* p_name, int descriptor, int command, long argument) {
    return carryOut(SystemCalls_::Fcntl,
                    [=] { return next<int(int, int, ...)>(p_name)(descriptor, command, argument); });
}

}  // namespace

SystemCalls_::SystemCalls_() {
    std::memset(g_plans, 0, sizeof(g_plans));
    g_gate = Gate_();
    g_clockOffset = 0;
    g_isClockStopped = false;
}

SystemCalls_::~SystemCalls_() {
    std::memset(g_plans, 0, sizeof(g_plans));
    g_gate = Gate_();
    g_clockOffset = 0;
    g_isClockStopped = false;
}

void SystemCalls_::fail(Call_ call, int error, unsigned int skipped, unsigned int times) {
    plan(call, Way_::Fail, error, skipped, times);
}

void SystemCalls_::answer(Call_ call, long result, unsigned int skipped, unsigned int times) {
    plan(call, Way_::Answer, result, skipped, times);
}

void SystemCalls_::shorten(Call_ call, unsigned int bytes, unsigned int skipped, unsigned int times) {
    plan(call, Way_::Shorten, static_cast<long>(bytes), skipped, times);
}

void SystemCalls_::holdReceived() {
    g_gate = Gate_();
    g_gate.m_isHeld = true;
}

void SystemCalls_::admit(unsigned int bytes) {
    g_gate.m_admitted += bytes;
}

void SystemCalls_::admitEnd() {
    g_gate.m_isEndAdmitted = true;
}

unsigned int SystemCalls_::admitted() const {
    return g_gate.m_admitted;
}

void SystemCalls_::setPendingError(int error, unsigned int times) {
    plan(Getsockopt, Way_::PendingError, error, 0, times);
}

unsigned int SystemCalls_::count(Call_ call) const {
    return g_plans[call].m_count;
}

void SystemCalls_::advanceClock(unsigned int seconds) {
    g_clockOffset += seconds;
}

void SystemCalls_::stopClock(unsigned int seconds, unsigned int nanoseconds) {
    g_isClockStopped = true;
    g_stoppedClock.tv_sec = static_cast<time_t>(seconds);
    g_stoppedClock.tv_nsec = static_cast<long>(nanoseconds);
}

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    return carryOut(SystemCalls_::Socket,
                    [=] { return next<decltype(socket)>("socket")(domain, type, protocol); });
}

int fcntl(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return forwardFcntl("fcntl", descriptor, command, argument);
}

int fcntl64(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return forwardFcntl("fcntl64", descriptor, command, argument);
}

int setsockopt(int descriptor, int level, int name, const void* p_value, socklen_t length) noexcept {
    return carryOut(SystemCalls_::Setsockopt, [=] {
        return next<decltype(setsockopt)>("setsockopt")(descriptor, level, name, p_value, length);
    });
}

int getsockopt(int descriptor, int level, int name, void* p_value, socklen_t* p_length) noexcept {
    const Way_ way = nextWay(SystemCalls_::Getsockopt);
    if (way == Way_::Fail) {
        errno = static_cast<int>(g_plans[SystemCalls_::Getsockopt].m_value);
        return -1;
    }
    if (way == Way_::PendingError) {
        const int error = static_cast<int>(g_plans[SystemCalls_::Getsockopt].m_value);
        std::memcpy(p_value, &error, sizeof(error));
        return 0;
    }
    return next<decltype(getsockopt)>("getsockopt")(descriptor, level, name, p_value, p_length);
}

int bind(int descriptor, const struct sockaddr* p_address, socklen_t length) noexcept {
    return carryOut(SystemCalls_::Bind,
                    [=] { return next<decltype(bind)>("bind")(descriptor, p_address, length); });
}

int listen(int descriptor, int backlog) noexcept {
    return carryOut(SystemCalls_::Listen,
                    [=] { return next<decltype(listen)>("listen")(descriptor, backlog); });
}

int accept(int descriptor, struct sockaddr* p_address, socklen_t* p_length) {
    return carryOut(SystemCalls_::Accept,
                    [=] { return next<decltype(accept)>("accept")(descriptor, p_address, p_length); });
}

int connect(int descriptor, const struct sockaddr* p_address, socklen_t length) {
    return carryOut(SystemCalls_::Connect,
                    [=] { return next<decltype(connect)>("connect")(descriptor, p_address, length); });
}

int getsockname(int descriptor, struct sockaddr* p_address, socklen_t* p_length) noexcept {
    return carryOut(SystemCalls_::Getsockname, [=] {
        return next<decltype(getsockname)>("getsockname")(descriptor, p_address, p_length);
    });
}

int getpeername(int descriptor, struct sockaddr* p_address, socklen_t* p_length) noexcept {
    return carryOut(SystemCalls_::Getpeername, [=] {
        return next<decltype(getpeername)>("getpeername")(descriptor, p_address, p_length);
    });
}

ssize_t send(int descriptor, const void* p_bytes, size_t length, int flags) {
    const Way_ way = nextWay(SystemCalls_::Send);
    const long value = g_plans[SystemCalls_::Send].m_value;
    if (way == Way_::Fail) {
        errno = static_cast<int>(value);
        return -1;
    }
    if (way == Way_::Answer) return static_cast<ssize_t>(value);
    if (way == Way_::Shorten) length = std::min(length, static_cast<size_t>(value));
    return next<decltype(send)>("send")(descriptor, p_bytes, length, flags);
}

ssize_t recv(int descriptor, void* p_bytes, size_t length, int flags) {
    const Way_ way = nextWay(SystemCalls_::Recv);
    const long value = g_plans[SystemCalls_::Recv].m_value;
    if (way == Way_::Fail) {
        errno = static_cast<int>(value);
        return -1;
    }
    if (way == Way_::Answer) return static_cast<ssize_t>(value);
    if (way == Way_::Shorten) length = std::min(length, static_cast<size_t>(value));
    return receiveAdmitted(
        length, [=](size_t size) { return next<decltype(recv)>("recv")(descriptor, p_bytes, size, flags); });
}

int close(int descriptor) {
    return carryOut(SystemCalls_::Close, [=] { return next<decltype(close)>("close")(descriptor); });
}

int access(const char* p_path, int mode) noexcept {
    return carryOut(SystemCalls_::Access, [=] { return next<decltype(access)>("access")(p_path, mode); });
}

int unlink(const char* p_path) noexcept {
    return carryOut(SystemCalls_::Unlink, [=] { return next<decltype(unlink)>("unlink")(p_path); });
}

int chmod(const char* p_path, mode_t mode) noexcept {
    return carryOut(SystemCalls_::Chmod, [=] { return next<decltype(chmod)>("chmod")(p_path, mode); });
}

int poll(struct pollfd* p_entries, nfds_t count, int timeout) {
    return carryOut(SystemCalls_::Poll,
                    [=] { return next<decltype(poll)>("poll")(p_entries, count, timeout); });
}

int clock_gettime(clockid_t clock, struct timespec* p_now) noexcept {
    const int result = carryOut(SystemCalls_::ClockGettime,
                                [=] { return next<decltype(clock_gettime)>("clock_gettime")(clock, p_now); });
    if (result != 0) return result;
    if (g_isClockStopped) *p_now = g_stoppedClock;
    p_now->tv_sec += static_cast<time_t>(g_clockOffset);
    return result;
}

}  // extern "C"
