#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "exit_code.h"

namespace {

constexpr std::size_t kGathered = 65536;

const char* sequenceOf(Colour_ colour) {
    switch (colour) {
        case Colour_::Bold:
            return "\033[1m";
        case Colour_::Red:
            return "\033[31m";
        case Colour_::Yellow:
            return "\033[33m";
        case Colour_::Green:
            return "\033[32m";
        default:
            return "";
    }
}

/// Characters, which are fewer than bytes: those that continue one do not count.
std::size_t widthOf(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
    }));
}

bool mayColour() {
    const char* p_refusal = std::getenv("NO_COLOR");
    const char* p_terminal = std::getenv("TERM");
    return (p_refusal == nullptr || *p_refusal == '\0') && p_terminal != nullptr &&
           std::strcmp(p_terminal, "dumb") != 0;
}

}  // namespace

Output_::Output_() : m_isTerminal(isatty(STDOUT_FILENO) != 0), m_isColoured(m_isTerminal && mayColour()) {}

// What is still here when an exception passes was not asked for any more.
Output_::~Output_() = default;

void Output_::write(const std::string& text) {
    m_waiting += text;
    const bool isLine = !text.empty() && text.back() == '\n';
    if (m_waiting.size() >= kGathered || (m_isFollowing && isLine)) flush();
}

void Output_::flush() {
    std::size_t written = 0;
    while (written < m_waiting.size()) {
        const ssize_t count = ::write(STDOUT_FILENO, m_waiting.data() + written, m_waiting.size() - written);
        if (count >= 0) {
            written += static_cast<std::size_t>(count);
            continue;
        }
        if (errno == EINTR) continue;
        m_waiting.clear();
        if (errno == EPIPE) throw OutputClosed_();
        throw Failure_(ExitCode_::Refused, std::string("cannot write the result: ") + std::strerror(errno));
    }
    m_waiting.clear();
}

std::string Output_::coloured(Colour_ colour, const std::string& text) const {
    if (!m_isColoured || colour == Colour_::None) return text;
    return sequenceOf(colour) + text + "\033[0m";
}

std::string printableText(const std::string& text) {
    static const char s_digits[] = "0123456789abcdef";
    std::string printable;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte != 0x7F) {
            printable += character;
        } else {
            printable += {'\\', 'x', s_digits[byte >> 4], s_digits[byte & 15]};
        }
    }
    return printable;
}

void note(const std::string& text) {
    const std::string line = "vekmsg: " + printableText(text) + '\n';
    const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    static_cast<void>(ignored);  // there is nowhere left to complain
}

std::string counted(std::size_t count, const std::string& noun) {
    return std::to_string(count) + ' ' + noun + (count == 1 ? "" : "s");
}

void Table_::add(Row_ cells) {
    m_rows.emplace_back(cells);
}

void Table_::writeTo(Output_& output) const {
    std::vector<std::size_t> widths;
    for (const auto& row : m_rows) {
        widths.resize(std::max(widths.size(), row.size()), 0);
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
    }
    for (const auto& row : m_rows) {
        std::string text;
        for (std::size_t i = 0; i < row.size(); ++i) {
            text += row[i];
            text.append(widths[i] + 2 - widthOf(row[i]), ' ');
        }
        text.erase(text.find_last_not_of(' ') + 1);
        output.line(text);
    }
}
