#ifndef VEKMSG_TOOLS_SIGNALS_H
#define VEKMSG_TOOLS_SIGNALS_H

#include <initializer_list>

#include "exit_code.h"

/// Signals as a descriptor to wait for, so that a verb can end in order. Blocked from the start to the end of
/// the process: one that comes while the verb is ending has been taken note of already.
class Signals_ {
public:
    /// SIGINT, SIGTERM and these.
    explicit Signals_(std::initializer_list<int> others = {});
    ~Signals_();
    Signals_(const Signals_&) = delete;
    Signals_& operator=(const Signals_&) = delete;

    int descriptor() const { return m_descriptor; }

    /// The next signal that has come, or 0. Those that end the command are remembered.
    int take();

    /// Whether SIGINT or SIGTERM has come by now.
    bool isEnding();

    /// What to end with: that of the signal that came, or else `otherwise`.
    ExitCode_ resultOr(ExitCode_ otherwise) const;

private:
    int m_descriptor;
    int m_ending = 0;
};

#endif
