#ifndef VEKMSG_TESTS_REFERENCE_MESSAGE_H
#define VEKMSG_TESTS_REFERENCE_MESSAGE_H

#include <string>
#include <string_view>
#include <vector>

#include "support/record_lines.h"

/// A second reader of messages, written from docs/wire-format.md alone and without the library's code. What
/// it takes, refuses and records is what the library is held against.
namespace reference {

/// An element and all below it, as an application has to find it.
struct Element_ {
    unsigned int m_tag = 0;
    unsigned int m_type = 0;
    unsigned int m_number = 0;
    std::string m_value;               // text without its NUL, or bytes
    std::vector<Element_> m_children;  // in the order in which an application meets them
};

struct Message_ {
    std::string m_destination;
    std::string m_source;
    unsigned int m_timeToLive = 0;
    std::string m_schema;
    std::string m_payload;          // as it came
    unsigned int m_headerSize = 0;  // of the items as they came
};

/// A record as RecordCapture_ shows it: "E text". A record ends after its 2047th byte.
std::string line(char severity, const std::string& text);

/// The bytes that the element at the front takes, or 0 when it is refused.
unsigned int readElement(std::string_view bytes, Element_& element, Lines_& lines);

/// The element that a payload is; false when it is refused.
bool readPayload(std::string_view bytes, Element_& element, Lines_& lines);

/// False when a header item is not as it should be.
bool readMessage(std::string_view bytes, Message_& message, Lines_& lines);

}  // namespace reference

#endif
