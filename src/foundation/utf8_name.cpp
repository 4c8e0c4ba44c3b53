#include "foundation/utf8_name.h"

#include <exception>
#include <new>

#include "foundation/free_list.h"
#include "foundation/text_room.h"

namespace {

/// Holder and string in one block, because sending a message copies a name each time.
class NameHolder_ : public libcpp::smartPointerToDumbTypePointer_<Utf8String_>,
                    public libcpp::FromFreeList_<NameHolder_, 64> {
public:
    NameHolder_(const Utf8Char_* p_text, std::size_t length) : smartPointerToDumbTypePointer_(nullptr) {
        if (length != 0) assignText(m_text, p_text, length);
        m_p_object = &m_text;
    }
    [[gnu::hot]] ~NameHolder_() override {
        m_p_object = nullptr;  // the string is a member: the base must not free it
        keepRoomOf(m_text);
    }

private:
    Utf8String_ m_text;
};

}  // namespace

[[gnu::hot]] bool isUtf8StringAtHand(std::size_t length) {
    return NameHolder_::isAtHand() && isRoomAtHand(length);
}

[[gnu::hot]] SP_Utf8String_ createUtf8String(const Utf8Char_* p_text, std::size_t length) try {
    return SP_Utf8String_::adopt(new (std::nothrow) NameHolder_(p_text, length));
} catch (const std::exception&) {
    return SP_Utf8String_();
}
