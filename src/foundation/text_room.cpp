#include "foundation/text_room.h"

#include "foundation/free_list.h"

namespace {

constexpr unsigned int kMostKept = VEKMSG_FREE_LISTS ? 64 : 0;
constexpr std::size_t kLongestKept = 512;

thread_local bool t_isOver = false;  // trivial: messages may go after the rooms of their thread

struct Rooms_ {
    Utf8String_ m_texts[kMostKept + 1];
    unsigned int m_count = 0;

    ~Rooms_() { t_isOver = true; }
};

Rooms_& rooms() {
    static thread_local Rooms_ t_rooms;
    return t_rooms;
}

/// The latest room, which need not be enough: it then grows and is kept at its new size.
Utf8String_ takeRoom(std::size_t length) noexcept {
    Utf8String_ room;
    if (length <= kLongestKept && !t_isOver && rooms().m_count != 0)
        room.swap(rooms().m_texts[--rooms().m_count]);
    return room;
}

}  // namespace

void assignText(Utf8String_& text, const Utf8Char_* p_bytes, std::size_t length) {
    if (length <= text.capacity()) {
        text.assign(p_bytes, length);
        return;
    }
    Utf8String_ room = takeRoom(length);
    room.assign(p_bytes, length);
    text.swap(room);
    keepRoomOf(room);
}

void keepRoomOf(Utf8String_& text) noexcept {
    static const std::size_t s_ownRoom = Utf8String_().capacity();
    if (text.capacity() <= s_ownRoom || text.capacity() > kLongestKept || t_isOver) return;
    Rooms_& kept = rooms();
    if (kept.m_count == kMostKept) return;
    kept.m_texts[kept.m_count++].swap(text);
}
