#include "hex.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace {

int digitOf(char character) {
    static const char s_digits[] = "0123456789abcdef";
    const int lower = std::tolower(static_cast<unsigned char>(character));
    const char* p_found = lower == 0 ? nullptr : std::strchr(s_digits, lower);
    return p_found == nullptr ? -1 : static_cast<int>(p_found - s_digits);
}

}  // namespace

std::string hexOf(const std::string& bytes) {
    static const char s_digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        text += s_digits[byte >> 4];
        text += s_digits[byte & 15];
    }
    return text;
}

std::optional<std::string> bytesOfHex(const std::string& text) {
    if (text.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digitOf(text[i]);
        const int low = digitOf(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}

std::optional<std::string> bytesOfDump(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == '|' || text[i] == '#') {
            i = std::min(text.find('\n', i), text.size());
        } else if (std::strchr(" \t\r\n:,+-", text[i]) != nullptr && text[i] != '\0') {
            ++i;
        } else {
            const std::size_t end = std::min(text.find_first_of(" \t\r\n:,+-|#", i), text.size());
            const bool isMarked = text.compare(i, 2, "0x") == 0 || text.compare(i, 2, "0X") == 0;
            const auto group = bytesOfHex(text.substr(i + (isMarked ? 2 : 0), end - i - (isMarked ? 2 : 0)));
            if (!group || (isMarked && group->empty())) return std::nullopt;
            bytes += *group;
            i = end;
        }
    }
    return bytes;
}
