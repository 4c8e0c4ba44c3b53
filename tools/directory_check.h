#ifndef VEKMSG_TOOLS_DIRECTORY_CHECK_H
#define VEKMSG_TOOLS_DIRECTORY_CHECK_H

#include <string>
#include <vector>

#include "directory_file.h"

/// Errors and warnings are faults; a note is for who knows what he meant.
enum class Severity_ { Error, Warning, Note };

/// A class of faults. People switch on its name in scripts: it stays what it is.
struct Rule_ {
    const char* m_p_name;
    Severity_ m_severity;
    const char* m_p_summary;
};

struct Finding_ {
    const Rule_* m_p_rule;
    unsigned int m_line;    // both count from 1
    unsigned int m_column;  // in bytes
    std::string m_text;     // what is wrong, in a sentence
    std::string m_hint;     // what to do
};

/// Every rule that there is.
const std::vector<Rule_>& directoryRules();

/// The rule of that name, which there must be.
const Rule_& directoryRule(const std::string& name);

/// What is wrong with a directory file, in the order of its lines. What the library reads from it, and which
/// texts are addresses, the library itself says; found out here are the place, the reason and what else is
/// likely not to be meant. Looks at the folders of local sockets on this machine, and connects to nobody.
std::vector<Finding_> checkDirectory(const std::string& path, const DirectoryFile_& directory);

#endif
