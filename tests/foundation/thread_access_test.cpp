#include "foundation/thread_access.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

const bool g_wasKnownBefore = isLoadingThread();

}  // namespace

TEST(ThreadAccess, theThreadThatLoadedTheLibraryIsKnownBeforeAProgramInitialises) {
    EXPECT_TRUE(g_wasKnownBefore);
    EXPECT_TRUE(isLoadingThread());
}

TEST(ThreadAccess, noThreadBesideItIsTheOneThatLoadedTheLibrary) {
    bool isLoading = true;
    std::thread([&] { isLoading = isLoadingThread(); }).join();

    EXPECT_FALSE(isLoading);
}
