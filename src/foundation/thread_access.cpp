#include "foundation/thread_access.h"

const void* g_p_loadingThread = nullptr;

// Before all that a program initialises, so that a thread does not change its place once it has used it.
[[gnu::constructor(101)]] static void noteLoadingThread() {
    g_p_loadingThread = __builtin_thread_pointer();
}
