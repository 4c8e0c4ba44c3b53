#include "counters.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

// glibc's own names of what is replaced below: asking dlsym for them would allocate.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p_memory, size_t size);
}

namespace {

/// Atomic, because some of the programs have threads.
using Count_ = std::atomic<unsigned long>;

bool g_isCounting = false;
Count_ g_sends;
Count_ g_receives;
Count_ g_accepts;
Count_ g_polls;
Count_ g_others;
Count_ g_allocations;

void add(Count_& count) {
    if (g_isCounting) count.fetch_add(1, std::memory_order_relaxed);
}

template <class Function>
Function* next(const char* p_name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, p_name));
}

}  // namespace

void countCalls(bool isCounting) {
    g_isCounting = isCounting;
}

Counters_ counters() {
    return {g_sends, g_receives, g_accepts, g_polls, g_others, g_allocations};
}

Counters_ operator-(const Counters_& later, const Counters_& earlier) {
    return {later.m_sends - earlier.m_sends,     later.m_receives - earlier.m_receives,
            later.m_accepts - earlier.m_accepts, later.m_polls - earlier.m_polls,
            later.m_others - earlier.m_others,   later.m_allocations - earlier.m_allocations};
}

extern "C" {

ssize_t send(int descriptor, const void* p_bytes, size_t length, int flags) {
    static auto* const s_next = next<decltype(send)>("send");
    add(g_sends);
    return s_next(descriptor, p_bytes, length, flags);
}

ssize_t recv(int descriptor, void* p_bytes, size_t length, int flags) {
    static auto* const s_next = next<decltype(recv)>("recv");
    add(g_receives);
    return s_next(descriptor, p_bytes, length, flags);
}

int accept(int descriptor, struct sockaddr* p_address, socklen_t* p_length) {
    static auto* const s_next = next<decltype(accept)>("accept");
    add(g_accepts);
    return s_next(descriptor, p_address, p_length);
}

int poll(struct pollfd* p_entries, nfds_t count, int timeout) {
    static auto* const s_next = next<decltype(poll)>("poll");
    add(g_polls);
    return s_next(p_entries, count, timeout);
}

int getsockopt(int descriptor, int level, int name, void* p_value, socklen_t* p_length) noexcept {
    static auto* const s_next = next<decltype(getsockopt)>("getsockopt");
    add(g_others);
    return s_next(descriptor, level, name, p_value, p_length);
}

int setsockopt(int descriptor, int level, int name, const void* p_value, socklen_t length) noexcept {
    static auto* const s_next = next<decltype(setsockopt)>("setsockopt");
    add(g_others);
    return s_next(descriptor, level, name, p_value, length);
}

int getpeername(int descriptor, struct sockaddr* p_address, socklen_t* p_length) noexcept {
    static auto* const s_next = next<decltype(getpeername)>("getpeername");
    add(g_others);
    return s_next(descriptor, p_address, p_length);
}

int close(int descriptor) {
    static auto* const s_next = next<decltype(close)>("close");
    add(g_others);
    return s_next(descriptor);
}

void* malloc(size_t size) {
    add(g_allocations);
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    add(g_allocations);
    return __libc_calloc(count, size);
}

void* realloc(void* p_memory, size_t size) {
    add(g_allocations);
    return __libc_realloc(p_memory, size);
}

}  // extern "C"
