#ifndef VEKMSG_FOUNDATION_TEXT_OUTPUT_H
#define VEKMSG_FOUNDATION_TEXT_OUTPUT_H

#include <iosfwd>

#include "libcpp/utf8_string.h"

// Output that the stream's own settings (width, fill, base, locale) have no say in and that does not use them
// up: they belong to the application's own output on the same stream.

void writeUnformatted(std::ostream& stream, const char* p_text);
void writeUnformatted(std::ostream& stream, const Utf8Char_* p_text);

/// In decimal.
void writeUnformatted(std::ostream& stream, unsigned int number);

#endif
