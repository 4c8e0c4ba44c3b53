#ifndef VEKMSG_TESTS_CHILD_PROCESS_H
#define VEKMSG_TESTS_CHILD_PROCESS_H

#include <sys/types.h>

#include <functional>

/// A real second process that runs `body` and exits with its result. It is killed if it still runs when the
/// object goes, so that no test leaves a process behind.
class ChildProcess_ {
public:
    explicit ChildProcess_(const std::function<int()>& body);
    ~ChildProcess_();
    ChildProcess_(const ChildProcess_&) = delete;
    ChildProcess_& operator=(const ChildProcess_&) = delete;

    /// The exit code; 128 + the number of the signal that ended it; -1 when it still runs after `limitMs`.
    int wait(unsigned int limitMs = 30000);

    void kill(int signal);
    pid_t id() const { return m_id; }

private:
    pid_t m_id;
    bool m_isEnded = false;
    int m_result = -1;
};

/// Ends this process at once: nothing is destroyed, but output and the counts of a coverage build are
/// written.
[[noreturn]] void endProcess(int result);

/// Asks `condition` every few milliseconds until it holds; false when it does not within the limit.
bool eventually(const std::function<bool()>& condition, unsigned int limitMs = 10000);

#endif
