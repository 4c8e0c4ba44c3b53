#include "json_text.h"

#include <nlohmann/json.hpp>

namespace {

unsigned int at(const std::string& text, std::size_t position) {
    return position < text.size() ? static_cast<unsigned char>(text[position]) : 0;
}

/// How many bytes the character at `position` has; 0 when it is none.
std::size_t characterSize(const std::string& text, std::size_t position) {
    const unsigned int first = at(text, position);
    if (first < 0x80) return 1;
    const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4) return 0;
    for (std::size_t i = 1; i < size; ++i)
        if ((at(text, position + i) & 0xC0) != 0x80) return 0;
    const unsigned int second = at(text, position + 1);
    const bool isOverlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool isBeyond = (first == 0xED && second > 0x9F) || (first == 0xF4 && second > 0x8F);
    return isOverlong || isBeyond ? 0 : size;
}

/// Writes DEL and the control characters from U+0080 to U+009F as \u00NN. They stand inside strings only.
std::string withoutControls(const std::string& text) {
    static const char s_digits[] = "0123456789abcdef";
    std::string escaped;
    escaped.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned int control = 0;
        if (at(text, i) == 0x7F) control = 0x7F;
        if (at(text, i) == 0xC2 && at(text, i + 1) < 0xA0) control = at(text, ++i);
        if (control == 0) {
            escaped += text[i];
        } else {
            escaped += std::string("\\u00") + s_digits[control >> 4] + s_digits[control & 15];
        }
    }
    return escaped;
}

}  // namespace

std::string jsonText(const Json_& json, JsonStyle_ style) {
    return withoutControls(json.dump(style == JsonStyle_::Pretty ? 2 : -1)) + '\n';
}

bool isUtf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t size = characterSize(text, i);
        if (size == 0) return false;
        i += size;
    }
    return true;
}

Json_ readableText(const std::string& text) {
    std::string readable;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t size = characterSize(text, i);
        readable += size == 0 ? "\xEF\xBF\xBD" : text.substr(i, size);
        i += size == 0 ? 1 : size;
    }
    return readable;
}
