#ifndef VEKMSG_TOOLS_HEX_H
#define VEKMSG_TOOLS_HEX_H

#include <optional>
#include <string>

/// Two small digits for each byte, nothing between them.
std::string hexOf(const std::string& bytes);

/// The bytes of pairs of digits, nothing between them, in either case; nothing when the text is not that.
std::optional<std::string> bytesOfHex(const std::string& text);

/// The bytes of hexadecimal as people copy it out of logs and dumps: blanks, line ends, colons, commas, plus
/// signs, dashes and 0x between groups, and comments from | or # to the end of the line. Nothing when the
/// text is not that.
std::optional<std::string> bytesOfDump(const std::string& text);

#endif
