#include "proof/boundaries/boundary_samples.h"

#include "support/format_page.h"
#include "support/wire_bytes.h"

namespace samples {

namespace {

constexpr unsigned int kLongestValue = 9400;

std::string number(unsigned int tag) {
    return wire::element(tag, wire::Uint, wire::u32(7));
}

const std::string g_pingRequest = "VEK Pinger Request Format version 1.0";

std::string ping(const std::string& source) {
    return wire::header("sensor", source, 3, g_pingRequest) + number(1);
}

/// A message that grows when its header items are written anew.
std::string withoutNul(const std::string& destination, const std::string& source, const std::string& schema) {
    return wire::item(1, wire::String, destination) + wire::item(2, wire::String, source) +
           wire::item(3, wire::Uint, wire::u32(3)) + wire::item(4, wire::String, schema) + number(1);
}

std::string name(const std::string& characters) {
    return wire::nameBlock(characters);
}

/// A block header that announces more than follows.
std::string announced(unsigned int type, unsigned int length) {
    return wire::u16(type) + wire::u16(length) + std::string(20, 'x');
}

std::string everyType() {
    return wire::element(10, wire::Complex,
                         number(1) + wire::element(2, wire::String, wire::text("text")) +
                             wire::element(3, wire::Binary, "bytes") +
                             wire::element(4, wire::Complex, number(2) + number(1)) +
                             wire::element(1, wire::Binary, ""));
}

std::string greatValues() {
    std::string children;
    for (unsigned int tag = 6; tag != 0; --tag)
        children += wire::element(tag, wire::Binary, std::string(kLongestValue, static_cast<char>(tag)));
    return wire::element(10, wire::Complex, children);
}

}  // namespace

const std::string& ofPage(const std::string& name) {
    static const FormatPage_ s_page(VEKMSG_FORMAT_PAGE);
    return s_page.bytes(name);
}

std::string message(const std::string& payload, const std::string& schema) {
    return wire::header("sensor", "panel", 3, schema) + payload;
}

std::string shortestMessage() {
    return wire::header("sensor", "", 3, "") + wire::element(0, wire::Binary, "");
}

std::string greatestMessage() {
    const std::string start = message("");
    const std::string items = wire::item(2, wire::String, wire::text("panel")) +
                              wire::item(3, wire::Uint, wire::u32(2)) +
                              wire::item(4, wire::String, wire::text("urn:again"));
    std::string filler;
    while (start.size() + 12 + filler.size() < kLongestBlock) filler += items;
    filler.resize(kLongestBlock - 12 - start.size());
    return start + wire::element(1, wire::Binary, filler);
}

Samples_ elements() {
    return {
        {"a uint", number(10)},
        {"a text", wire::element(10, wire::String, wire::text("a text"))},
        {"an empty text", wire::element(10, wire::String, wire::text(""))},
        {"the longest text",
         wire::element(10, wire::String, wire::text(std::string(kLongestValue - 1, 't')))},
        {"bytes", wire::element(10, wire::Binary, "bytes")},
        {"no bytes", wire::element(10, wire::Binary, "")},
        {"the most bytes", wire::element(10, wire::Binary, std::string(kLongestValue, 'b'))},
        {"every type", everyType()},
        {"the worked example", ofPage("message-block").substr(4 + 58)},
        {"a uint of 2 bytes", ofPage("short-uint")},
        {"a uint of 6 bytes", ofPage("long-uint")},
        {"a text without NUL", ofPage("string-without-nul")},
        {"unused data", ofPage("unused-data")},
        {"a nest of 778", wire::nest(778)},
        {"six great values", greatValues()},
    };
}

Samples_ messages() {
    return {
        {"the worked example", ofPage("message-block").substr(4)},
        {"a ping", ofPage("ping-request").substr(4)},
        {"the shortest message", shortestMessage()},
        {"header items alone", message("")},
        {"every type", message(everyType())},
        {"a nest of 778", wire::header("sensor", "", 3, "") + wire::nest(778)},
        {"the greatest message", greatestMessage()},
        {"one for somebody else", wire::header("other", "panel", 3, "urn:x") + number(1)},
        {"one for somebody else at its end", wire::header("other", "panel", 0, "urn:x") + number(1)},
        {"a ping from nobody", ping("")},
        {"a ping from the reader", ping("sensor")},
        {"a ping from somebody else", ping("other")},
        {"a ping with little room", withoutNul("sensor", "panel", g_pingRequest)},
        {"a great one for its own sender",
         wire::header("panel", "", 3, "") + number(1) + std::string(9300, 'x')},
        {"one with little room for its own sender", withoutNul("panel", "who", "urn:x")},
        {"one with no room for its own sender", withoutNul("panel", "", "urn:x")},
        {"one for its own sender", wire::header("panel", "", 3, "urn:x") + number(1)},
    };
}

Samples_ openedStreams() {
    const std::string message = ofPage("message-block");
    const std::string skipped = wire::block(7, "skipped");
    return {
        {"messages and skipped blocks",
         message + skipped + wire::block(2, "") + wire::block(7, "") + message},
        {"a name", name("panel") + message},
        {"the greatest message", wire::messageBlock(greatestMessage()) + message},
        {"a message that is too long", message + announced(2, 9397)},
        {"a skipped block that is too long", message + announced(7, 9397)},
    };
}

Samples_ streams() {
    const std::string message = ofPage("message-block");
    const std::string skipped = wire::block(7, "skipped");
    const std::string empty = wire::block(2, "") + wire::block(7, "");
    const std::string longName(kLongestBlock - 1, 'n');
    const std::string great = wire::messageBlock(greatestMessage());
    return {
        {"the worked example", ofPage("name-block") + message},
        {"a ping", name("panel") + ofPage("ping-request")},
        {"two messages about skipped blocks", name("abc") + message + skipped + empty + message + skipped},
        {"a message that is skipped", name("panel") + wire::messageBlock("junk") + message},
        {"a second name", name("panel") + name("other") + message},
        {"the greatest name", wire::nameBlock(longName) + great + message},
        {"the greatest skipped block",
         name("panel") + wire::block(65535, std::string(kLongestBlock, 's')) + message},
        {"a long name before short messages",
         wire::nameBlock(std::string(400, 'n')) + message + skipped + message + message},
        {"no name", message},
        {"an empty name", wire::block(1, "") + message},
        {"a NUL for a name", wire::block(1, wire::text("")) + message},
        {"a name of one character", name("p") + message},
        {"a name of two characters", name("pa") + message},
        {"a name that begins with NUL", wire::block(1, std::string("\0panel", 7)) + message},
        {"a name that is too long", announced(1, 9401)},
        {"a name that is hardly too long", wire::block(1, std::string(9397, 'n')) + message},
        {"a message that is too long", name("panel") + message + announced(2, 9397)},
        {"a skipped block that is too long", name("panel") + message + announced(7, 9397)},
    };
}

}  // namespace samples
