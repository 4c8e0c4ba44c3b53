#include "message_json.h"

#include <nlohmann/json.hpp>
#include <set>

#include "codec.h"
#include "exit_code.h"
#include "hex.h"
#include "records.h"
#include "session.h"

namespace {

constexpr unsigned int kMostUint16 = 0xFFFF;
constexpr unsigned int kMostUint32 = 0xFFFFFFFF;
constexpr std::size_t kLongestText = VEKMSG_MAX_VALUE_SIZE - 1;
constexpr unsigned int kDeepest = 5500;  // no payload that can be sent has as many levels

// To JSON

Json_ textJson(const std::string& text) {
    if (isUtf8(text)) return text;
    return Json_{{"bytes", hexOf(text)}};
}

/// The types of elements are not to be asked for, only their values. Requires NoRecords_.
Json_ elementJson(VekmsgElement_& element) {
    Json_ json;
    json["tag"] = element.getTag();
    const Utf8Char_* p_text = nullptr;
    const unsigned char* p_bytes = nullptr;
    unsigned int number = 0;
    unsigned int length = 0;
    if (element.findFirstMatchingSubelement(VEKMSGTAG_ANY)) {
        Json_& elements = json["elements"] = Json_::array();
        if (!element.querySubelements(VEKMSGTAG_ANY)) return json;
        while (const SP_VekmsgElement_ sp_child = element.getNextSubelement())
            elements.push_back(elementJson(*sp_child));
        element.endQuerySubelements();
    } else if (element.getValue(number)) {
        json["uint"] = number;
    } else if (element.getValue(p_text)) {
        json["string"] = textJson(plain(p_text));
    } else if (element.getValue(p_bytes, length)) {
        json["binary"] = hexOf(std::string(reinterpret_cast<const char*>(p_bytes), length));
    }
    return json;
}

/// The text of a name block: up to its first NUL, the last byte counting as one.
std::string nameOf(const std::string& payload) {
    const std::string name = payload.substr(0, payload.empty() ? 0 : payload.size() - 1);
    return name.substr(0, name.find('\0'));
}

// From JSON

[[noreturn]] void fail(const std::string& place, const std::string& reason) {
    throw Failure_(ExitCode_::BadData, (place.empty() ? "the document" : place) + ' ' + reason);
}

/// A place in a document, "/payload/elements/2". A chain of such on the stack: as a text for each of
/// thousands of levels it would take hundreds of megabytes.
struct Place_ {
    std::string text() const {
        if (m_p_outer == nullptr) return "";
        return m_p_outer->text() + '/' + (m_p_name != nullptr ? m_p_name : std::to_string(m_index));
    }
    std::string text(const std::string& member) const { return text() + '/' + member; }

    const Place_* m_p_outer = nullptr;  // null: the document
    const char* m_p_name = nullptr;     // of a member; null: an index
    std::size_t m_index = 0;
};

const Place_ g_document;

/// An object being read, which knows its place in the document: "/payload/elements/2".
class Object_ {
public:
    /// `place` is borrowed.
    Object_(const Json_& json, const Place_& place, const std::set<std::string>& members)
        : m_json(json), m_place(place) {
        if (!json.is_object()) fail(place.text(), "is no object");
        for (const auto& member : json.items())
            if (members.count(member.key()) == 0) fail(placeOf(member.key()), "is not known here");
    }

    bool has(const char* p_name) const { return m_json.contains(p_name); }

    const Json_& at(const char* p_name) const {
        if (!has(p_name)) fail(placeOf(p_name), "is missing");
        return m_json[p_name];
    }

    std::string placeOf(const std::string& name) const { return m_place.text(name); }
    const Place_& place() const { return m_place; }

    unsigned int number(const char* p_name, unsigned int most) const {
        const Json_& value = at(p_name);
        if (!value.is_number_unsigned() || value.get<std::uint64_t>() > most)
            fail(placeOf(p_name), "is no whole number from 0 to " + std::to_string(most));
        return value.get<unsigned int>();
    }

    std::string hex(const char* p_name) const {
        const Json_& value = at(p_name);
        const auto bytes = value.is_string() ? bytesOfHex(value.get<std::string>()) : std::nullopt;
        if (!bytes) fail(placeOf(p_name), "is no text of hexadecimal digits, two for each byte");
        return *bytes;
    }

    /// A text, or its bytes.
    std::string text(const char* p_name) const {
        const Json_& value = at(p_name);
        std::string text;
        if (value.is_string()) {
            text = value.get<std::string>();
        } else if (value.is_object()) {
            text = Object_(value, Place_{&m_place, p_name}, {"bytes"}).hex("bytes");
        } else {
            fail(placeOf(p_name), "is neither a text nor its bytes");
        }
        if (text.find('\0') != std::string::npos) fail(placeOf(p_name), "has a NUL, at which texts end");
        return text;
    }

private:
    const Json_& m_json;
    const Place_& m_place;
};

SP_VekmsgElement_ readElement(const Json_& json, const Place_& place, unsigned int depth, bool isRoot);

void readElements(const Object_& object, unsigned int depth, VekmsgElement_& element) {
    const Json_& children = object.at("elements");
    if (!children.is_array() || children.empty()) fail(object.placeOf("elements"), "is no array of elements");
    const Place_ elements{&object.place(), "elements"};
    for (std::size_t i = 0; i < children.size(); ++i)
        element.addSubelements(readElement(children[i], Place_{&elements, nullptr, i}, depth + 1, false));
}

void readValue(const Object_& object, VekmsgElement_& element) {
    if (object.has("uint")) {
        element.setValue(object.number("uint", kMostUint32));
    } else if (object.has("string")) {
        const std::string text = object.text("string");
        if (text.size() > kLongestText) fail(object.placeOf("string"), "has more than 9399 bytes");
        element.setValue(utf8(text));
    } else {
        const std::string bytes = object.hex("binary");
        if (bytes.size() > VEKMSG_MAX_VALUE_SIZE) fail(object.placeOf("binary"), "has more than 9400 bytes");
        element.setValue(reinterpret_cast<const unsigned char*>(bytes.data()),
                         static_cast<unsigned int>(bytes.size()));
    }
}

const std::set<std::string> g_elementMembers = {"tag", "uint", "string", "binary", "elements"};
const std::set<std::string> g_rootMembers = {"tag", "uint", "string", "binary", "elements", "encoded"};

SP_VekmsgElement_ readElement(const Json_& json, const Place_& place, unsigned int depth, bool isRoot) {
    if (depth > kDeepest) fail("an element", "lies too deep");
    const Object_ object(json, place, isRoot ? g_rootMembers : g_elementMembers);
    unsigned int values = 0;
    for (const char* p_value : {"uint", "string", "binary", "elements"})
        values += object.has(p_value) ? 1 : 0;
    if (values != 1) fail(place.text(), "has not one of uint, string, binary and elements");
    const SP_VekmsgElement_ sp_element = createMessage()->createElement(object.number("tag", kMostUint16));
    if (object.has("elements")) {
        readElements(object, depth, *sp_element);
    } else {
        readValue(object, *sp_element);
    }
    return sp_element;
}

/// The given bytes, which have to mean the same as what stands beside them.
std::string checkedBytes(const std::string& given, const std::string& place,
                         const SP_VekmsgElement_& sp_element) {
    const NoRecords_ silence;
    const SP_VekmsgElement_ sp_given = decodeElement(given);
    if (!sp_given || encodeElement(*sp_given) != encodeElement(*sp_element))
        fail(place, "means something else than what stands beside it; remove one of the two");
    return given;
}

std::string elementBytes(const Json_& json) {
    const SP_VekmsgElement_ sp_element = readElement(json, g_document, 0, true);
    if (!json.contains("encoded")) return encodeElement(*sp_element);
    return checkedBytes(Object_(json, g_document, g_rootMembers).hex("encoded"), "/encoded", sp_element);
}

Object_ messageObject(const Json_& json, const Place_& place) {
    return Object_(
        json, place,
        {"destination", "source", "timeToLive", "schema", "payload", "payloadBytes", "headerBytes"});
}

SP_VekMessage_ readHeader(const Object_& object) {
    const SP_VekMessage_ sp_message = createMessage();
    sp_message->setDestination(utf8(object.text("destination")));
    sp_message->setSource(utf8(object.text("source")));
    sp_message->setTimeToLive(object.number("timeToLive", kMostUint32));
    sp_message->setPayloadSchema(utf8(object.text("schema")), VekMessage_::SCHEMA_LITERAL);
    return sp_message;
}

/// The payload's bytes.
std::string readPayload(const Object_& object) {
    const Json_& payload = object.at("payload");
    if (payload.is_null()) return object.has("payloadBytes") ? object.hex("payloadBytes") : "";
    const SP_VekmsgElement_ sp_element = readElement(payload, Place_{&object.place(), "payload"}, 0, false);
    if (!object.has("payloadBytes")) return encodeElement(*sp_element);
    return checkedBytes(object.hex("payloadBytes"), object.placeOf("payloadBytes"), sp_element);
}

std::string readHeaderBytes(const Object_& object) {
    const std::string canonical = encodeHeader(*readHeader(object));
    if (!object.has("headerBytes")) return canonical;
    const NoRecords_ silence;
    const std::string given = object.hex("headerBytes");
    const SP_VekMessage_ sp_given = decodeMessage(given);
    if (!sp_given || encodeHeader(*sp_given) != canonical || !rawPayloadOf(*sp_given).empty())
        fail(object.placeOf("headerBytes"),
             "means something else than what stands beside it; remove one of the two");
    return given;
}

std::string messageBytes(const Json_& json, const Place_& place) {
    const Object_ object = messageObject(json, place);
    const std::string header = readHeaderBytes(object);
    return header + readPayload(object);
}

std::string uint16Bytes(std::size_t number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

/// A length that has to fit 16 bits, and what it is the length of.
std::string withLength(const std::string& bytes, const std::string& place) {
    if (bytes.size() > kMostUint16) fail(place, "has more than 65535 bytes");
    return uint16Bytes(bytes.size()) + bytes;
}

std::string itemBytes(const Json_& json) {
    const Object_ object(json, g_document, {"tag", "type", "value"});
    const std::string tag = uint16Bytes(object.number("tag", kMostUint16));
    const std::string type = uint16Bytes(object.number("type", kMostUint16));
    return tag + type + withLength(object.hex("value"), "/value");
}

std::string nameBytes(const Object_& object) {
    const std::string name = object.text("name");
    if (!object.has("bytes")) return name + '\0';
    const std::string given = object.hex("bytes");
    if (nameOf(given) != name)
        fail("/bytes", "means something else than what stands beside it; remove one of the two");
    return given;
}

std::string blockBytes(const Json_& json) {
    const Object_ object(json, g_document, {"block", "name", "message", "bytes"});
    const unsigned int type = object.number("block", kMostUint16);
    if (object.has("name") && type != kNameBlock) fail("/name", "belongs into a block of type 1");
    if (object.has("message") && (type != kMessageBlock || object.has("bytes")))
        fail("/message", "belongs into a block of type 2, without bytes beside it");
    const std::string payload = type == kNameBlock ? nameBytes(object)
                                : object.has("message")
                                    ? messageBytes(object.at("message"), Place_{&g_document, "message"})
                                    : object.hex("bytes");
    return uint16Bytes(type) + withLength(payload, "");
}

/// Where a document ends that begins at `begin`: behind its closing brace, or at the end of the text.
std::size_t endOfDocument(const std::string& text, std::size_t begin) {
    unsigned int depth = 0;
    bool isString = false;
    for (std::size_t i = begin; i < text.size(); ++i) {
        if (isString) {
            if (text[i] == '\\')
                ++i;
            else
                isString = text[i] != '"';
        } else if (text[i] == '"') {
            isString = true;
        } else if (text[i] == '{' || text[i] == '[') {
            ++depth;
        } else if ((text[i] == '}' || text[i] == ']') && --depth == 0) {
            return i + 1;
        } else if (depth == 0) {
            return text.find('\n', i);
        }
    }
    return text.size();
}

Json_ parseDocument(const std::string& text) {
    // JSON leaves open which of two members of one name counts. Neither: people would expect the other one.
    std::vector<std::set<std::string>> names;
    const auto watch = [&names](int, Json_::parse_event_t event, Json_& value) {
        if (event == Json_::parse_event_t::object_start) names.emplace_back();
        if (event == Json_::parse_event_t::object_end) names.pop_back();
        if (event == Json_::parse_event_t::key && !names.back().insert(value.get<std::string>()).second)
            fail("", "has two members " + value.get<std::string>());
        return true;
    };
    try {
        return Json_::parse(text, watch);
    } catch (const Json_::exception& exception) {
        const std::string reason = exception.what();
        fail("", "is no JSON: " + reason.substr(reason.find("] ") + 2));
    }
}

}  // namespace

Json_ jsonOf(VekMessage_& message, const std::string& headerBytes) {
    const bool isEncoded = !message.getRawPayload().isNull();
    const std::string payloadBytes = rawPayloadOf(message);
    const SP_VekmsgElement_ sp_payload = message.getPayload();
    const NoRecords_ silence;
    Json_ json;
    json["destination"] = textJson(plain(message.getDestination()));
    json["source"] = textJson(plain(message.getSource()));
    json["timeToLive"] = message.getTimeToLive();
    json["schema"] = textJson(plain(message.getPayloadSchema()));
    json["payload"] = sp_payload ? elementJson(*sp_payload) : Json_();
    if (isEncoded && (!sp_payload || encodeElement(*sp_payload) != payloadBytes))
        json["payloadBytes"] = hexOf(payloadBytes);
    if (!headerBytes.empty() && headerBytes != encodeHeader(message))
        json["headerBytes"] = hexOf(headerBytes);
    return json;
}

Json_ jsonOf(const SP_VekmsgElement_& sp_element, const std::string& bytes) {
    if (!sp_element) return Json_{{"bytes", hexOf(bytes)}};
    const NoRecords_ silence;
    Json_ json = elementJson(*sp_element);
    if (encodeElement(*sp_element) != bytes) json["encoded"] = hexOf(bytes);
    return json;
}

Json_ itemJson(unsigned int tag, unsigned int type, const std::string& value) {
    Json_ json;
    json["tag"] = tag;
    json["type"] = type;
    json["value"] = hexOf(value);
    return json;
}

Json_ nameBlockJson(const std::string& payload) {
    Json_ json;
    json["block"] = kNameBlock;
    json["name"] = textJson(nameOf(payload));
    if (nameOf(payload) + '\0' != payload) json["bytes"] = hexOf(payload);
    return json;
}

Json_ messageBlockJson(const Json_& message) {
    Json_ json;
    json["block"] = kMessageBlock;
    json["message"] = message;
    return json;
}

Json_ blockJson(unsigned int type, const std::string& payload) {
    Json_ json;
    json["block"] = type;
    json["bytes"] = hexOf(payload);
    return json;
}

std::vector<Json_> parseDocuments(const std::string& text) {
    std::vector<Json_> documents;
    for (std::size_t begin = 0;;) {
        begin = text.find_first_not_of(" \t\r\n", begin);
        if (begin == std::string::npos) return documents;
        const std::size_t end = std::min(endOfDocument(text, begin), text.size());
        try {
            documents.push_back(parseDocument(text.substr(begin, end - begin)));
        } catch (const Failure_& failure) {
            throw Failure_(failure.code(),
                           "document " + std::to_string(documents.size() + 1) + ": " + failure.what());
        }
        begin = end;
    }
}

SP_VekMessage_ messageOf(const Json_& json) {
    const Object_ object = messageObject(json, g_document);
    const SP_VekMessage_ sp_message = readHeader(object);
    readHeaderBytes(object);
    const std::string payload = readPayload(object);
    if (payload.empty()) fail("/payload", "is missing");
    sp_message->setRawPayload(bufferOf(payload));
    return sp_message;
}

SP_VekmsgElement_ elementOf(const Json_& json) {
    return readElement(json, g_document, 0, false);
}

std::string bytesOf(const Json_& json) {
    if (!json.is_object()) fail("", "is no object");
    if (json.contains("block")) return blockBytes(json);
    if (json.contains("destination")) return messageBytes(json, g_document);
    if (json.contains("type")) return itemBytes(json);
    if (json.contains("tag")) return elementBytes(json);
    return Object_(json, g_document, {"bytes"}).hex("bytes");
}
