#ifndef VEKMSG_FOUNDATION_TEXT_ROOM_H
#define VEKMSG_FOUNDATION_TEXT_ROOM_H

#include <cstddef>

#include "libcpp/utf8_string.h"

// Names and schemas are too long for the room inside a string, and every message brings some. Their room goes
// from message to message instead of to the heap and back: each thread keeps some, and gives it back when it
// ends.

/// Makes `text` a copy of `length` bytes, in room that this thread has used before where `text` has too
/// little. Throws, with `text` as it was, when memory is short. The bytes may lie in `text`.
void assignText(Utf8String_& text, const Utf8Char_* p_bytes, std::size_t length);

constexpr std::size_t kRoomInsideText = 15;

/// Whether assignText to an empty text asks nothing of the heap, for more than lies inside a string.
bool isKeptRoomEnough(std::size_t length) noexcept;

/// The same for any length.
inline bool isRoomAtHand(std::size_t length) noexcept {
    return length <= kRoomInsideText || isKeptRoomEnough(length);
}

/// What keepRoomOf does with room that is not inside the string.
void keepRoom(Utf8String_& text) noexcept;

/// Takes the room of a text that is about to go, if it is more than lies inside a string and not very much.
inline void keepRoomOf(Utf8String_& text) noexcept {
    if (text.capacity() > kRoomInsideText) keepRoom(text);
}

#endif
