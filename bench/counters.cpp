#include "counters.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <new>

namespace {

Counters_ g_counters;

template <class Function>
Function* next(const char* p_name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, p_name));
}

void* allocate(std::size_t size) noexcept {
    ++g_counters.m_allocations;
    return std::malloc(size != 0 ? size : 1);
}

}  // namespace

Counters_ counters() {
    return g_counters;
}

extern "C" {

ssize_t send(int descriptor, const void* p_bytes, size_t length, int flags) {
    static auto* const s_next = next<decltype(send)>("send");
    ++g_counters.m_sends;
    return s_next(descriptor, p_bytes, length, flags);
}

ssize_t recv(int descriptor, void* p_bytes, size_t length, int flags) {
    static auto* const s_next = next<decltype(recv)>("recv");
    ++g_counters.m_receives;
    return s_next(descriptor, p_bytes, length, flags);
}

int accept(int descriptor, struct sockaddr* p_address, socklen_t* p_length) {
    static auto* const s_next = next<decltype(accept)>("accept");
    ++g_counters.m_accepts;
    return s_next(descriptor, p_address, p_length);
}

int poll(struct pollfd* p_entries, nfds_t count, int timeout) {
    static auto* const s_next = next<decltype(poll)>("poll");
    ++g_counters.m_polls;
    return s_next(p_entries, count, timeout);
}

}  // extern "C"

void* operator new(std::size_t size) {
    void* p_memory = allocate(size);
    if (p_memory == nullptr) throw std::bad_alloc();
    return p_memory;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* p_memory) noexcept {
    std::free(p_memory);
}
void operator delete(void* p_memory, std::size_t) noexcept {
    std::free(p_memory);
}
