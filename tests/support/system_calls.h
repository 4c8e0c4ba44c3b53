#ifndef VEKMSG_TESTS_SYSTEM_CALLS_H
#define VEKMSG_TESTS_SYSTEM_CALLS_H

#include <string>

/// Makes chosen system calls of the process fail, fall short or be counted, and moves the clock.
///
/// The test program holds strong definitions of these calls, which the library's calls reach whether it is
/// linked statically or as the finished shared library. Everything is back to normal when the object goes.
///
/// A plan says what becomes of the next calls of one kind. A new plan replaces the present one of its kind,
/// except behind `then()`.
///
/// As with the kernel's own failures, a poll shows what is going to happen: while a plan for accept, recv or
/// the pending error is not used up, every socket that it may concern is ready.
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
        Poll,  // that of a wait
        Look,  // the poll by which the library learns, without waiting, which sockets are quiet
        ClockGettime,
        Write,
        Read,
        Fopen,
        Fclose,
        NumberOfCalls
    };

    /// The name of the function, "socket".
    static const char* name(Call_ call);

    SystemCalls_();
    ~SystemCalls_();
    SystemCalls_(const SystemCalls_&) = delete;
    SystemCalls_& operator=(const SystemCalls_&) = delete;

    /// After `skipped` calls that go through, `times` calls fail with `error`.
    void fail(Call_ call, int error, unsigned int skipped = 0, unsigned int times = 1);

    /// After `skipped` calls that go through, `times` calls do nothing and return `result`.
    void answer(Call_ call, long result, unsigned int skipped = 0, unsigned int times = 1);

    /// The same two, but the calls are made all the same and their results replaced. `close` frees the
    /// descriptor even where it reports an error.
    void failAfterwards(Call_ call, int error, unsigned int skipped = 0, unsigned int times = 1);
    void answerAfterwards(Call_ call, long result, unsigned int skipped = 0, unsigned int times = 1);

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

    /// The next plan is carried out behind the present one of its kind: `calls.then().fail(...)`.
    SystemCalls_& then();

    /// Whether nothing planned is left.
    bool isCarriedOut() const;

    /// Calls since this object was made.
    unsigned int count(Call_ call) const;

    /// What the last `access` asked for.
    int accessMode() const;

    /// From now on only what this loaded library calls ("libvekmsg.so") is planned, counted and witnessed,
    /// and only its clock is moved. The calls that the standard library makes to read files count as its own.
    void concernOnly(const std::string& library);

    /// Is told of each call before it is made: where it returns to, and whether a plan strikes it.
    using Witness_ = void (*)(Call_ call, const void* p_place, bool isStruck);
    void setWitness(Witness_ witness);

    /// Moves every clock forward.
    void advanceClock(unsigned int seconds);

    /// Makes every clock show this time and stand still.
    void stopClock(unsigned int seconds, unsigned int nanoseconds);
};

#endif
