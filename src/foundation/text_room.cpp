#include "foundation/text_room.h"

#include "foundation/free_list.h"
#include "foundation/thread_access.h"
#include "foundation/thread_end.h"

namespace {

constexpr unsigned int kMostKept = VEKMSG_FREE_LISTS ? 64 : 0;
constexpr std::size_t kLongestKept = 512;

struct Rooms_ {
    Utf8String_ m_texts[kMostKept + 1];
    unsigned int m_count = 0;

    ~Rooms_();
};

enum class Phase_ : unsigned char { Unused, Open, Over };

VEKMSG_THREAD_ACCESS Phase_& threadPhase() noexcept {
    // Trivial on purpose: messages may go after the rooms of their thread.
    static thread_local Phase_ t_phase = Phase_::Unused;
    return t_phase;
}

Rooms_::~Rooms_() {
    threadPhase() = Phase_::Over;
}

VEKMSG_THREAD_ACCESS Rooms_& threadRooms() noexcept {
    static thread_local Rooms_ t_rooms;
    return t_rooms;
}

/// Null before the first room of the thread is kept, without memory for keeping any, and at the thread's end.
Rooms_* rooms(bool isKeeping) noexcept {
    Phase_& phase = threadPhase();
    if (phase == Phase_::Unused && isKeeping && kMostKept != 0 && canNoteThreadEnd()) phase = Phase_::Open;
    return phase == Phase_::Open ? &threadRooms() : nullptr;
}

/// The latest room, which need not be enough: it then grows and is kept at its new size.
Utf8String_ takeRoom(std::size_t length) noexcept {
    Utf8String_ room;
    Rooms_* p_kept = length <= kLongestKept ? rooms(false) : nullptr;
    if (p_kept != nullptr && p_kept->m_count != 0) room.swap(p_kept->m_texts[--p_kept->m_count]);
    return room;
}

[[gnu::noinline]] void replaceText(Utf8String_& text, const Utf8Char_* p_bytes, std::size_t length) {
    if (length <= text.capacity()) {
        text.assign(p_bytes, length);
        return;
    }
    Utf8String_ room = takeRoom(length);
    room.assign(p_bytes, length);
    text.swap(room);
    keepRoomOf(room);
}

}  // namespace

// Not inlined: a message has three texts, and is written and read.
[[gnu::hot, gnu::noinline]] void assignText(Utf8String_& text, const Utf8Char_* p_bytes, std::size_t length) {
    if (text.empty() && length <= text.capacity()) {
        text.append(p_bytes, length);  // a new message's; what is appended cannot overlap, which is faster
    } else {
        replaceText(text, p_bytes, length);
    }
}

bool isKeptRoomEnough(std::size_t length) noexcept {
    const Rooms_* p_kept = rooms(false);
    return p_kept != nullptr && p_kept->m_count != 0 &&
           p_kept->m_texts[p_kept->m_count - 1].capacity() >= length;
}

void keepRoom(Utf8String_& text) noexcept {
    if (text.capacity() > kLongestKept) return;
    Rooms_* p_kept = rooms(true);
    if (p_kept == nullptr || p_kept->m_count == kMostKept) return;
    p_kept->m_texts[p_kept->m_count++].swap(text);
}
