#include "foundation/exception_barrier.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <stdexcept>

namespace {

template <class Exception>
bool fail(const Exception& exception) try {
    throw exception;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

int succeed() try { return 7; }
VEKMSG_RETURN_ON_EXCEPTION(-1)

void* failWithNull() try { throw std::bad_alloc(); }
VEKMSG_RETURN_ON_EXCEPTION(nullptr)

struct Work_ {
    std::atomic<bool> m_isUnwound{false};
    std::atomic<bool> m_hasReturned{false};
};

struct Unwound_ {
    std::atomic<bool>& m_flag;
    ~Unwound_() { m_flag = true; }
};

/// Waits, with a limit, at a point where a thread can be cancelled.
bool waitForCancellation(Work_& work) try {
    const Unwound_ unwound{work.m_isUnwound};
    for (int i = 0; i < 3000; ++i) usleep(10000);
    return true;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

void* runWork(void* p_work) {
    auto& work = *static_cast<Work_*>(p_work);
    waitForCancellation(work);
    work.m_hasReturned = true;
    return nullptr;
}

}  // namespace

TEST(ExceptionBarrier, whatWasThrownEndsAsTheFailureValue) {
    EXPECT_FALSE(fail(std::bad_alloc()));
    EXPECT_FALSE(fail(std::length_error("text")));
    EXPECT_FALSE(fail(5));
    EXPECT_EQ(failWithNull(), nullptr);
}

TEST(ExceptionBarrier, aResultPassesUnchanged) {
    EXPECT_EQ(succeed(), 7);
}

TEST(ExceptionBarrier, aCancelledThreadUnwindsThroughItToItsEnd) {
    Work_ work;
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, runWork, &work), 0);

    ASSERT_EQ(pthread_cancel(thread), 0);

    void* p_result = nullptr;
    ASSERT_EQ(pthread_join(thread, &p_result), 0);
    EXPECT_EQ(p_result, PTHREAD_CANCELED);
    EXPECT_TRUE(work.m_isUnwound);
    EXPECT_FALSE(work.m_hasReturned);
}
