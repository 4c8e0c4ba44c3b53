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

#endif
