#ifndef VEKMSG_TOOLS_TIME_SPAN_H
#define VEKMSG_TOOLS_TIME_SPAN_H

#include <chrono>
#include <string>

/// Times on the command line: a number, which may have decimals, and its unit (ms, s, min). Without a unit it
/// counts seconds.
using TimeSpan_ = std::chrono::milliseconds;

/// Throws a Failure_ of usage when the text is no time or more than 24 days, which poll() could not wait for.
TimeSpan_ timeSpanOf(const std::string& text);

/// "0.250 ms", "12.3 ms", "1.5 s": for people, with three digits that count.
std::string timeText(std::chrono::nanoseconds time);

/// A point in time until which something may take.
class Deadline_ {
public:
    explicit Deadline_(TimeSpan_ span) : m_end(std::chrono::steady_clock::now() + span) {}

    bool isOver() const { return std::chrono::steady_clock::now() >= m_end; }

    /// Milliseconds that are left, rounded up so that a wait for them ends behind the deadline; 0 when it is
    /// over.
    unsigned int leftMs() const;

private:
    std::chrono::steady_clock::time_point m_end;
};

#endif
