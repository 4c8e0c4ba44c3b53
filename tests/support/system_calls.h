#ifndef VEKMSG_TESTS_SYSTEM_CALLS_H
#define VEKMSG_TESTS_SYSTEM_CALLS_H

/// Makes chosen system calls of the process fail, fall short or be counted, and moves the clock.
///
/// The test program holds strong definitions of these calls, which the library's calls reach whether it is
/// linked statically or as the finished shared library. Everything is back to normal when the object goes.
class SystemCalls_ {
public:
    enum Call_ {
        Socket,
        Fcntl,
        Setsockopt,
        Getsockopt,
        Bind,
        Listen,
        Accept,
        Connect,
        Getsockname,
        Getpeername,
        Send,
        Recv,
        Close,
        Access,
        Unlink,
        Chmod,
        Poll,
        ClockGettime,
        NumberOfCalls
    };

    SystemCalls_();
    ~SystemCalls_();
    SystemCalls_(const SystemCalls_&) = delete;
    SystemCalls_& operator=(const SystemCalls_&) = delete;

    /// After `skipped` calls that go through, `times` calls fail with `error`.
    void fail(Call_ call, int error, unsigned int skipped = 0, unsigned int times = 1);

    /// After `skipped` calls that go through, `times` calls do nothing and return `result`.
    void answer(Call_ call, long result, unsigned int skipped = 0, unsigned int times = 1);

    /// After `skipped` calls, `times` sends or receives move at most `bytes` bytes. For Send and Recv.
    void shorten(Call_ call, unsigned int bytes, unsigned int skipped = 0, unsigned int times = 1);

    /// From now on receives get no more than admit() lets in, and EAGAIN when that is used up. For Recv.
    void holdReceived();

    /// Lets `bytes` more in.
    void admit(unsigned int bytes);

    /// Lets the end of the stream show behind what was let in.
    void admitEnd();

    /// Bytes that were let in and not received yet.
    unsigned int admitted() const;

    /// SO_ERROR, asked `times` times, answers `error`.
    void setPendingError(int error, unsigned int times = 1);

    /// Calls since this object was made.
    unsigned int count(Call_ call) const;

    /// Moves every clock forward.
    void advanceClock(unsigned int seconds);

    /// Makes every clock show this time and stand still.
    void stopClock(unsigned int seconds, unsigned int nanoseconds);
};

#endif
