#include "foundation/text_output.h"

#include <charconv>
#include <cstring>
#include <ostream>

void writeUnformatted(std::ostream& stream, const char* p_text) {
    stream.write(p_text, static_cast<std::streamsize>(std::strlen(p_text)));
}

void writeUnformatted(std::ostream& stream, const Utf8Char_* p_text) {
    writeUnformatted(stream, reinterpret_cast<const char*>(p_text));
}

void writeUnformatted(std::ostream& stream, unsigned int number) {
    char digits[10] = {};
    stream.write(digits, std::to_chars(digits, digits + sizeof(digits), number).ptr - digits);
}
