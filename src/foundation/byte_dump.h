#ifndef VEKMSG_FOUNDATION_BYTE_DUMP_H
#define VEKMSG_FOUNDATION_BYTE_DUMP_H

#include <ostream>

/// Dumps bytes in hexadecimal: `group` bytes without a blank between them, `perLine` bytes a line, each line
/// between `p_prefix` and `p_suffix` (null: nothing). Line ends stand between the lines, not behind the last
/// one; without bytes there is one line with no digits. False, with nothing written, when `p_bytes` is null
/// or a count is 0.
bool printBytestream(std::ostream& stream, const unsigned char* p_bytes, unsigned int length,
                     unsigned int group, unsigned int perLine, const char* p_prefix, const char* p_suffix);

#endif
