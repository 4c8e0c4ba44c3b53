#ifndef VEKMSG_FOUNDATION_UTF8_NAME_H
#define VEKMSG_FOUNDATION_UTF8_NAME_H

#include <cstddef>
#include <cstring>

#include "libcpp/utf8_string.h"

/// A new shared string with `length` bytes of `p_text`. Null when memory is short; nothing is thrown.
SP_Utf8String_ createUtf8String(const Utf8Char_* p_text, std::size_t length);

/// The same for text that ends at its NUL.
inline SP_Utf8String_ createUtf8String(const Utf8Char_* p_text) {
    return createUtf8String(p_text, Utf8CharTraits_::length(p_text));
}

/// A new, empty shared string.
inline SP_Utf8String_ createUtf8String() {
    return createUtf8String(nullptr, 0);
}

/// Whether a string of this length can be made without asking the heap.
bool isUtf8StringAtHand(std::size_t length);

/// Whether two texts that end at their NUL are the same. Most that are not differ at once.
inline bool isSameText(const char* p_a, const char* p_b) {
    return *p_a == *p_b && std::strcmp(p_a, p_b) == 0;
}

#endif
