#ifndef VEKMSG_TOOLS_EXIT_CODE_H
#define VEKMSG_TOOLS_EXIT_CODE_H

#include <stdexcept>
#include <string>

/// What the command tells its caller. Scripts rely on the numbers: they never change.
enum class ExitCode_ : int {
    Done = 0,
    Refused = 1,  ///< the other side answered with an error or not as expected; or a result cannot be written
    Usage = 2,
    Directory = 3,  ///< the directory file or another piece of configuration
    NotReachable = 4,
    TimedOut = 5,
    BadData = 6,
    Interrupted = 130,  ///< by SIGINT
    Terminated = 143    ///< by SIGTERM
};

/// Ends the command. The text is written to standard error behind the command's name.
class Failure_ : public std::runtime_error {
public:
    Failure_(ExitCode_ code, const std::string& text) : std::runtime_error(text), m_code(code) {}

    ExitCode_ code() const { return m_code; }

private:
    ExitCode_ m_code;
};

#endif
