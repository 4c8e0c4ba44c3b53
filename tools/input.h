#ifndef VEKMSG_TOOLS_INPUT_H
#define VEKMSG_TOOLS_INPUT_H

#include <string>

/// All of a file, or of standard input for "" and "-". Throws a Failure_ of bad data when it cannot be read.
std::string readInput(const std::string& path);

#endif
