#ifndef VEKMSG_FOUNDATION_THREAD_ACCESS_H
#define VEKMSG_FOUNDATION_THREAD_ACCESS_H

/// Marks the functions that return a thread-local variable; nothing else names such a variable.
///
/// Where a shared library has it, its address is asked of the loader, by a call that costs more than a free
/// list saves. Descriptors (the compiler's `-mtls-dialect=gnu2`) make two instructions of it. But for a
/// library that came by dlopen some loaders spoil vector registers at that point, which the compiler believes
/// to be kept. So each access stands in a function of which its callers know nothing, and which has no such
/// register in use. Where the variable needs no construction, `gnu::const` tells them that the address stays
/// the same, so that a loop asks once; a variable that is constructed, or destroyed, must not be reached
/// early.
#if defined(__GNUC__) && !defined(__clang__)
#define VEKMSG_THREAD_ACCESS __attribute__((noipa))
#else
#define VEKMSG_THREAD_ACCESS __attribute__((noinline))
#endif

/// The address of the thread that loaded the library.
extern const void* g_p_loadingThread;

/// Whether this is that thread, or one that stands at its address since it has ended (the lists are closed
/// then, and the other one gets its memory from the heap). It is usually the only one that uses the library,
/// and what every message asks for many times is not thread-local for it but ordinary memory, which it
/// reaches without a call: where the kernel has had the caches in between, calls to addresses that are read
/// from memory are what costs most.
inline bool isLoadingThread() noexcept {
    return __builtin_expect(g_p_loadingThread == __builtin_thread_pointer(), 1);
}

#endif
