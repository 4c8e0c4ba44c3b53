#ifndef VEKMSG_TESTS_TOOLS_COMPONENT_H
#define VEKMSG_TESTS_TOOLS_COMPONENT_H

#include <functional>
#include <memory>
#include <string>

#include "support/child_process.h"
#include "support/station.h"

/// A component in a process of its own that works on its terminal for as long as the object lives: pings are
/// answered and messages for others passed on, as in any program. What it receives goes to `handle`.
class Component_ {
public:
    using Handle_ = std::function<void(Station_&, const SP_VekMessage_&)>;

    /// Throws when the component does not listen within the limit.
    Component_(const std::string& name, const std::string& directory, const Handle_& handle = nullptr);

private:
    std::unique_ptr<ChildProcess_> m_process;
};

/// Somebody who takes connections at an address and never says a word, like a program that hangs.
class SilentListener_ {
public:
    explicit SilentListener_(const std::string& name, const std::string& directory);

private:
    Station_ m_station;
};

#endif
