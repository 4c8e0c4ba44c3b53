#include "foundation/byte_dump.h"

#include <algorithm>
#include <string>

#include "foundation/text_output.h"

namespace {

std::string hexadecimal(const unsigned char* p_bytes, unsigned int length, unsigned int group) {
    static const char s_digits[] = "0123456789abcdef";
    std::string digits;
    for (unsigned int i = 0; i < length; ++i) {
        if (i != 0 && i % group == 0) digits += ' ';
        digits += s_digits[p_bytes[i] >> 4];
        digits += s_digits[p_bytes[i] & 15];
    }
    return digits;
}

}  // namespace

bool printBytestream(std::ostream& stream, const unsigned char* p_bytes, unsigned int length,
                     unsigned int group, unsigned int perLine, const char* p_prefix, const char* p_suffix) {
    if (p_bytes == nullptr || group == 0 || perLine == 0) return false;
    unsigned int printed = 0;
    do {
        const unsigned int count = std::min(perLine, length - printed);
        std::string line = printed != 0 ? "\n" : "";
        if (p_prefix != nullptr) line += p_prefix;
        line += hexadecimal(p_bytes + printed, count, group);
        if (p_suffix != nullptr) line += p_suffix;
        writeUnformatted(stream, line.c_str());
        printed += count;
    } while (printed < length);
    return true;
}
