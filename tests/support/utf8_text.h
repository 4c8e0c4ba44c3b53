#ifndef VEKMSG_TESTS_UTF8_TEXT_H
#define VEKMSG_TESTS_UTF8_TEXT_H

#include <string>

#include "libcpp/utf8_string.h"

inline const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}
inline const Utf8Char_* utf8(const std::string& text) {
    return utf8(text.c_str());
}

inline std::string plain(const Utf8Char_* p_text) {
    return reinterpret_cast<const char*>(p_text);
}

#endif
