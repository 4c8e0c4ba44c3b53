#ifndef LIBCPP_UTF8_STRING_H
#define LIBCPP_UTF8_STRING_H

#include <cstddef>
#include <cstring>
#include <ios>
#include <string>

#include "libcpp/smart_pointer.h"

/// One byte of UTF-8 text. The library copies and compares such bytes; it never decodes them.
typedef unsigned char Utf8Char_;

/// Character traits of UTF-8 bytes: text ends at the first NUL, bytes compare as unsigned numbers.
struct Utf8CharTraits_ {
    using char_type = Utf8Char_;
    using int_type = int;
    using off_type = std::streamoff;
    using pos_type = std::streampos;
    using state_type = std::mbstate_t;

    static void assign(char_type& to, const char_type& from) noexcept { to = from; }
    static char_type* assign(char_type* p_to, std::size_t count, char_type value) {
        if (count != 0) std::memset(p_to, value, count);
        return p_to;
    }
    static bool eq(char_type a, char_type b) noexcept { return a == b; }
    static bool lt(char_type a, char_type b) noexcept { return a < b; }
    static int compare(const char_type* p_a, const char_type* p_b, std::size_t count) {
        return count == 0 ? 0 : std::memcmp(p_a, p_b, count);
    }
    static std::size_t length(const char_type* p_text) {
        return std::strlen(reinterpret_cast<const char*>(p_text));
    }
    static const char_type* find(const char_type* p_text, std::size_t count, const char_type& value) {
        return count == 0 ? nullptr : static_cast<const char_type*>(std::memchr(p_text, value, count));
    }
    static char_type* move(char_type* p_to, const char_type* p_from, std::size_t count) {
        if (count != 0) std::memmove(p_to, p_from, count);
        return p_to;
    }
    static char_type* copy(char_type* p_to, const char_type* p_from, std::size_t count) {
        if (count != 0) std::memcpy(p_to, p_from, count);
        return p_to;
    }
    static int_type eof() noexcept { return -1; }
    static int_type not_eof(int_type value) noexcept { return value == eof() ? 0 : value; }
    static char_type to_char_type(int_type value) noexcept { return static_cast<char_type>(value); }
    static int_type to_int_type(char_type value) noexcept { return value; }
    static bool eq_int_type(int_type a, int_type b) noexcept { return a == b; }
};

using Utf8String_ = std::basic_string<Utf8Char_, Utf8CharTraits_>;
using SP_Utf8String_ = SmartPointer_<Utf8String_>;

#endif
