#ifndef VEKMSG_TESTS_TOOLS_COMMAND_H
#define VEKMSG_TESTS_TOOLS_COMMAND_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/temporary_folder.h"

using Words_ = std::vector<std::string>;

/// What one run of the command left behind.
struct Ran_ {
    int m_exitCode;
    std::string m_output;
    std::string m_errors;
};

/// One run of the real binary, which goes on beside the test. Its input comes from a file, and its output and
/// errors go to files, so that nothing blocks it and a test can look at them while it runs.
class RunningCommand_ {
public:
    /// Settings of a run that few tests need.
    struct How_ {
        std::string m_input;            // what it reads on standard input
        std::string m_folder;           // where it runs; empty: where the test does
        Words_ m_environment;           // "NAME=value", beside what the test has
        unsigned int m_user = 0;        // as whom it runs, when the test is root; 0: as the test
        std::string m_outputFile;       // in place of a file of its own
        bool m_isShell = false;         // the only word is a command line; `vekmsg` is found
        bool m_isClosedOutput = false;  // nobody reads its standard output: a pipe closed at its end
    };

    explicit RunningCommand_(const Words_& words, const How_& how);
    explicit RunningCommand_(const Words_& words) : RunningCommand_(words, How_()) {}

    /// Fails the test when it does not end within the limit.
    Ran_ wait(unsigned int limitMs = 60000);

    /// What it has written up to now.
    std::string output() const;
    std::string errors() const;

    /// Whether its output holds `text` within the limit.
    bool says(const std::string& text, unsigned int limitMs = 30000) const;

    void signal(int number) { m_process->kill(number); }

private:
    TemporaryFolder_ m_folder;
    std::unique_ptr<ChildProcess_> m_process;
};

using How_ = RunningCommand_::How_;

/// Runs the command to its end.
Ran_ vekmsg(const Words_& words, const How_& how = How_());

std::string readFile(const std::string& path);

std::vector<std::string> linesOf(const std::string& text);

/// Whether each line of `text` is JSON as the schema demands; the reason why not is the failure's text.
testing::AssertionResult areValid(const std::string& text, const std::string& schemaFile);

#endif
