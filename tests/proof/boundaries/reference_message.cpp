#include "proof/boundaries/reference_message.h"

#include <algorithm>
#include <utility>

#include "support/wire_bytes.h"

namespace reference {

namespace {

constexpr unsigned int kItemHeader = 6;
constexpr unsigned int kLongestValue = 9400;
constexpr unsigned int kLongestRecord = 2047;

const std::string g_ofElement = "VekmsgElementBinary_::deserialize() ";
const std::string g_ofMessage = "VekMessageBinary_::deserialize";

using wire::sizeOf;

unsigned int number(std::string_view bytes) {
    unsigned int value = 0;
    for (const char byte : bytes) value = value << 8 | static_cast<unsigned char>(byte);
    return value;
}

std::string toText(unsigned int value) {
    return std::to_string(value);
}

std::string upToNul(std::string_view bytes) {
    return std::string(bytes.substr(0, bytes.find('\0')));
}

void complain(Lines_& lines, const std::string& text) {
    lines.push_back(line('E', text));
}

void warn(Lines_& lines, const std::string& text) {
    lines.push_back(line('W', text));
}

struct Item_ {
    unsigned int m_tag = 0;
    unsigned int m_type = 0;
    unsigned int m_length = 0;
    std::string_view m_value;
};

bool readItemHeader(std::string_view bytes, Item_& item, Lines_& lines) {
    if (bytes.size() < kItemHeader) {
        complain(lines,
                 g_ofMessage + "TtlvHeader() bytestreamLength " + toText(sizeOf(bytes)) + " is too short");
        return false;
    }
    item.m_tag = number(bytes.substr(0, 2));
    item.m_type = number(bytes.substr(2, 2));
    item.m_length = number(bytes.substr(4, 2));
    return true;
}

bool readItem(std::string_view bytes, Item_& item, Lines_& lines) {
    if (!readItemHeader(bytes, item, lines)) return false;
    const std::string_view rest = bytes.substr(kItemHeader);
    if (item.m_length > rest.size()) {
        complain(lines, g_ofMessage + "Ttlv() data length " + toText(item.m_length) +
                            " is too large for remaining stream " + toText(sizeOf(rest)));
        return false;
    }
    item.m_value = rest.substr(0, item.m_length);
    return true;
}

bool readComplex(std::string_view value, Element_& element, Lines_& lines) {
    do {
        Element_ child;
        const unsigned int used = readElement(value, child, lines);
        if (used == 0) return false;
        element.m_children.push_back(std::move(child));
        value.remove_prefix(used);
    } while (value.size() >= kItemHeader);
    if (!value.empty())
        warn(lines,
             "Tag " + toText(element.m_tag) + " has unused data of " + toText(sizeOf(value)) + " bytes");
    std::stable_sort(element.m_children.begin(), element.m_children.end(),
                     [](const Element_& a, const Element_& b) { return a.m_tag < b.m_tag; });
    return true;
}

bool readUint(std::string_view value, Element_& element, Lines_& lines) {
    const std::string tag = "tag " + toText(element.m_tag);
    if (value.empty()) {
        complain(lines, g_ofElement + tag + " of UINT type has an invalid length 0");
        return false;
    }
    if (value.size() > 4) {
        warn(lines, tag + " of UINT type has length " + toText(sizeOf(value)));
        value.remove_prefix(value.size() - 4);
    }
    element.m_number = number(value);
    return true;
}

bool isWithinLimit(std::string_view value, const Element_& element, const char* p_type, Lines_& lines) {
    if (value.size() <= kLongestValue) return true;
    complain(lines, g_ofElement + "tag " + toText(element.m_tag) + " of " + p_type + " type has a length " +
                        toText(sizeOf(value)) + " exceeding the limit");
    return false;
}

bool readText(std::string_view value, Element_& element, Lines_& lines) {
    if (!isWithinLimit(value, element, "STRING", lines)) return false;
    element.m_value = upToNul(value.substr(0, kLongestValue - 1));
    return true;
}

bool readBytes(std::string_view value, Element_& element, Lines_& lines) {
    if (!isWithinLimit(value, element, "BINARY", lines)) return false;
    element.m_value = value;
    return true;
}

bool readContent(const Item_& content, Element_& element, Lines_& lines) {
    if (content.m_tag != 0) {
        complain(lines, g_ofElement + "for element " + toText(element.m_tag) +
                            ", expecting VEKMSGTAG_ELEMENT_CONTENT, got " + toText(content.m_tag));
        return false;
    }
    element.m_type = content.m_type;
    switch (content.m_type) {
        case wire::Complex:
            return readComplex(content.m_value, element, lines);
        case wire::Uint:
            return readUint(content.m_value, element, lines);
        case wire::String:
            return readText(content.m_value, element, lines);
        case wire::Binary:
            return readBytes(content.m_value, element, lines);
        default:
            complain(lines, g_ofElement + "tag " + toText(element.m_tag) + " has invalid data type " +
                                toText(content.m_type));
            return false;
    }
}

/// One of the four items of a message's header.
struct Expected_ {
    const char* m_p_name;
    unsigned int m_tag;
    unsigned int m_type;
};

const Expected_ g_expected[] = {{"DESTINATION_NAME", 1, wire::String},
                                {"SOURCE_NAME", 2, wire::String},
                                {"TIME_TO_LIVE", 3, wire::Uint},
                                {"SCHEMA_URI", 4, wire::String}};

/// `known` is what earlier items have told.
bool isExpected(const Expected_& expected, const Item_& item, const std::string& known, Lines_& lines) {
    const std::string name = std::string("VEKMSGTAG_") + expected.m_p_name;
    if (item.m_tag != expected.m_tag) {
        complain(lines, g_ofMessage + "() Expecting " + name + " got " + toText(item.m_tag) + known);
    } else if (item.m_type != expected.m_type) {
        complain(lines, g_ofMessage + "(" + name + ") Expecting VEKMSG_" +
                            (expected.m_type == wire::Uint ? "UINT" : "STRING") + " got " +
                            toText(item.m_type) + known);
    } else if (item.m_type == wire::Uint && item.m_length != 4) {
        complain(lines, g_ofMessage + "(" + name + ") invalid length " + toText(item.m_length) + known);
    } else {
        return true;
    }
    return false;
}

}  // namespace

std::string line(char severity, const std::string& text) {
    return std::string(1, severity) + ' ' + text.substr(0, kLongestRecord);
}

unsigned int readElement(std::string_view bytes, Element_& element, Lines_& lines) {
    Item_ outer;
    if (!readItemHeader(bytes, outer, lines)) return 0;
    element.m_tag = outer.m_tag;
    const std::string_view rest = bytes.substr(kItemHeader);
    if (outer.m_length > rest.size()) {
        complain(lines, g_ofElement + "tag " + toText(outer.m_tag) + " length " + toText(outer.m_length) +
                            " is larger than allowed length " + toText(sizeOf(rest)));
        return 0;
    }
    Item_ content;
    if (!readItem(rest.substr(0, outer.m_length), content, lines)) return 0;
    return readContent(content, element, lines) ? 2 * kItemHeader + content.m_length : 0;
}

bool readPayload(std::string_view bytes, Element_& element, Lines_& lines) {
    const unsigned int used = readElement(bytes, element, lines);
    if (used != 0 && used != bytes.size())
        warn(lines, "VekMessageBinary_::getPayload(): used " + toText(used) + " bytes out of " +
                        toText(sizeOf(bytes)));
    return used != 0;
}

bool readMessage(std::string_view bytes, Message_& message, Lines_& lines) {
    const std::size_t size = bytes.size();
    std::string known;
    for (const Expected_& expected : g_expected) {
        Item_ item;
        if (!readItem(bytes, item, lines) || !isExpected(expected, item, known, lines)) return false;
        bytes.remove_prefix(kItemHeader + item.m_length);
        switch (expected.m_tag) {
            case 1:
                message.m_destination = upToNul(item.m_value);
                known = " dest " + message.m_destination;
                break;
            case 2:
                message.m_source = upToNul(item.m_value);
                known += " src " + message.m_source;
                break;
            case 3:
                message.m_timeToLive = number(item.m_value);
                break;
            default:
                message.m_schema = upToNul(item.m_value);
                break;
        }
    }
    message.m_payload = bytes;
    message.m_headerSize = static_cast<unsigned int>(size - bytes.size());
    return true;
}

}  // namespace reference
