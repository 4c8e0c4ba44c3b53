#ifndef VEKMSG_TOOLS_COMMAND_LINE_H
#define VEKMSG_TOOLS_COMMAND_LINE_H

#include <string>
#include <vector>

#include "verb.h"

/// A command line, taken apart.
struct Command_ {
    Verb_* m_p_verb = nullptr;  // null: only m_text is asked for
    CommonOptions_ m_common;
    std::string m_text;  // help or version
};

/// Reads a command line for one of these verbs, of which the first is meant when none is named. Throws a
/// Failure_ of usage.
Command_ readCommandLine(int argc, char** argv, const std::vector<UniqueVerb_>& verbs);

#endif
