#include "element_text.h"

#include <algorithm>

#include "codec.h"
#include "exit_code.h"
#include "hex.h"
#include "session.h"

namespace {

constexpr unsigned long kMostUint = 0xFFFFFFFFUL;
constexpr unsigned long kMostTag = 0xFFFF;
constexpr unsigned int kDeepest = 1000;  // more than one block holds

/// Walks over a text from element to element.
class Reader_ {
public:
    explicit Reader_(const std::string& text) : m_text(text) {}

    std::vector<SP_VekmsgElement_> readAll() {
        std::vector<SP_VekmsgElement_> elements;
        for (skipBlanks(); !isAtEnd(); skipBlanks()) elements.push_back(readElement(0));
        if (elements.empty()) fail("there is no element");
        return elements;
    }

private:
    [[noreturn]] void fail(const std::string& reason) const {
        throw Failure_(ExitCode_::BadData, "'" + m_text + "', character " + std::to_string(m_position + 1) +
                                               ": " + reason + " (5:u=7 6:s=text 7:b=00ff 8:c{...})");
    }

    bool isAtEnd() const { return m_position == m_text.size(); }
    char current() const { return isAtEnd() ? '\0' : m_text[m_position]; }

    void skipBlanks() {
        m_position = std::min(m_text.find_first_not_of(" \t\r\n", m_position), m_text.size());
    }

    void expect(char character) {
        if (current() != character || isAtEnd()) fail(std::string("'") + character + "' is missing");
        ++m_position;
    }

    /// What stands before the next blank or closing brace.
    std::string word() {
        const std::size_t end = std::min(m_text.find_first_of(" \t\r\n}", m_position), m_text.size());
        std::string word = m_text.substr(m_position, end - m_position);
        m_position = end;
        return word;
    }

    unsigned int number(const std::string& digits, unsigned long most, const char* p_what) const {
        const bool isHex = digits.compare(0, 2, "0x") == 0;
        const std::string plain = digits.substr(isHex ? 2 : 0);
        const char* p_allowed = isHex ? "0123456789abcdefABCDEF" : "0123456789";
        const bool isNumber =
            !plain.empty() && plain.size() <= 10 && plain.find_first_not_of(p_allowed) == std::string::npos;
        const unsigned long long value = isNumber ? std::stoull(plain, nullptr, isHex ? 16 : 10) : 0;
        if (!isNumber || value > most)
            fail(std::string(p_what) + " is a number from 0 to " + std::to_string(most));
        return static_cast<unsigned int>(value);
    }

    SP_VekmsgElement_ readElement(unsigned int depth) {
        if (depth > kDeepest) fail("elements lie too deep");
        const std::size_t colon = m_text.find_first_not_of("0123456789abcdefxABCDEF", m_position);
        const std::size_t end = std::min(colon, m_text.size());
        const unsigned int tag = number(m_text.substr(m_position, end - m_position), kMostTag, "a tag");
        m_position = end;
        expect(':');
        const char type = current();
        if (std::string("usbc").find(type) == std::string::npos || isAtEnd()) fail("a type is u, s, b or c");
        ++m_position;
        const SP_VekmsgElement_ sp_element = createMessage()->createElement(tag);
        if (type == 'c') {
            readChildren(*sp_element, depth);
        } else {
            expect('=');
            readValue(type, *sp_element);
        }
        return sp_element;
    }

    void readChildren(VekmsgElement_& element, unsigned int depth) {
        expect('{');
        skipBlanks();
        if (current() == '}') fail("braces hold one element at least");
        while (current() != '}') {
            if (isAtEnd()) fail("'}' is missing");
            element.addSubelements(readElement(depth + 1));
            skipBlanks();
        }
        ++m_position;
    }

    void readValue(char type, VekmsgElement_& element) {
        if (type == 'u') {
            element.setValue(number(word(), kMostUint, "a value"));
        } else if (type == 's') {
            const std::string text = current() == '"' ? quoted() : word();
            if (text.size() >= VEKMSG_MAX_VALUE_SIZE) fail("a text has 9399 bytes at the most");
            element.setValue(utf8(text));
        } else {
            const auto bytes = bytesOfHex(word());
            if (!bytes) fail("bytes have two hexadecimal digits each");
            if (bytes->size() > VEKMSG_MAX_VALUE_SIZE) fail("there are 9400 bytes at the most");
            element.setValue(reinterpret_cast<const unsigned char*>(bytes->data()),
                             static_cast<unsigned int>(bytes->size()));
        }
    }

    std::string quoted() {
        std::string text;
        for (++m_position; current() != '"'; ++m_position) {
            if (isAtEnd()) fail("'\"' is missing");
            if (current() == '\\') {
                ++m_position;
                if (current() != '"' && current() != '\\' && current() != 'n')
                    fail("only \\\", \\\\ and \\n are known");
                text += current() == 'n' ? '\n' : current();
            } else {
                text += current();
            }
        }
        ++m_position;
        if (!isAtEnd() && std::string(" \t\r\n}").find(current()) == std::string::npos)
            fail("a blank is missing behind the text");
        return text;
    }

    const std::string& m_text;
    std::size_t m_position = 0;
};

}  // namespace

std::vector<SP_VekmsgElement_> elementsOfText(const std::string& text) {
    return Reader_(text).readAll();
}

SP_VekmsgElement_ payloadOf(const std::vector<SP_VekmsgElement_>& elements, VekmsgTag_ root) {
    if (elements.size() == 1) return elements.front();
    const SP_VekmsgElement_ sp_root = createMessage()->createElement(root);
    for (const SP_VekmsgElement_& sp_element : elements) sp_root->addSubelements(sp_element);
    return sp_root;
}
