// Every value of each 16-bit field that a header has. A field is named by its place in good bytes, and each
// of its values is written there.

#include <string_view>
#include <utility>
#include <vector>

#include "proof/boundaries/boundary_run.h"
#include "proof/boundaries/boundary_samples.h"
#include "support/wire_bytes.h"

namespace {

using End_ = SideBySide_::End_;
using wire::sizeOf;

constexpr unsigned int kValues = 0x10000;

std::string with(std::string bytes, std::size_t place, unsigned int value) {
    return bytes.replace(place, 2, wire::u16(value));
}

/// A block of this type with `length` bytes of `payload`. Of a block longer than any that is read, a few
/// bytes come that must not be looked at.
std::string blockOf(unsigned int type, unsigned int length, const std::string& payload) {
    return wire::u16(type) + wire::u16(length) + payload.substr(0, length <= 9400 ? length : 20);
}

// Block headers

/// `prefix` arrives in a turn of its own if there is one.
std::string streamOf(BoundaryRun_& run, const std::string& prefix, const std::string& rest) {
    SideBySide_::Pieces_ pieces;
    if (!prefix.empty()) pieces.push_back(sizeOf(prefix));
    pieces.push_back(sizeOf(rest));
    return run.reader().stream(prefix + rest, pieces, End_::Later);
}

void proveFirstHeader(BoundaryRun_& run) {
    const std::string great = wire::messageBlock(samples::greatestMessage());
    const std::string tail = great + wire::messageBlock(samples::shortestMessage());
    run.each("types of the first block", kValues, [&](unsigned int type) {
        return streamOf(run, "", blockOf(type, 6, wire::text("panel")) + tail);
    });
    const std::string characters(kValues, 'n');
    const auto named = [&](unsigned int length) {
        std::string payload = characters.substr(0, length);
        if (!payload.empty()) payload.back() = '\0';
        return blockOf(1, length, payload);
    };
    run.each("lengths of the first block", kValues,
             [&](unsigned int length) { return streamOf(run, "", named(length) + tail); });
    run.each("lengths of the first block, others behind it later", kValues,
             [&](unsigned int length) { return streamOf(run, named(length), tail); });
}

void proveLaterHeader(BoundaryRun_& run) {
    const std::string name = wire::nameBlock("panel");
    const std::string greatest = samples::greatestMessage();
    const std::string message = samples::message(wire::element(1, wire::Uint, wire::u32(7)));
    const std::string tail = wire::messageBlock(samples::shortestMessage());
    run.each("types of a later block", kValues, [&](unsigned int type) {
        return streamOf(run, name, blockOf(type, sizeOf(message), message) + tail);
    });
    for (const unsigned int type : {2U, 7U}) {
        const std::string kind = type == 2 ? "message" : "skipped";
        run.each("lengths of a " + kind + " block", kValues, [&](unsigned int length) {
            return streamOf(run, name, blockOf(type, length, greatest) + tail);
        });
        run.each("lengths of a " + kind + " block that comes with the name", kValues,
                 [&](unsigned int length) {
                     return streamOf(run, "", name + blockOf(type, length, greatest) + tail);
                 });
    }
}

/// The component that has opened a stream reads no name.
void proveOpenedHeader(BoundaryRun_& run) {
    const std::string greatest = samples::greatestMessage();
    const std::string message = samples::message(wire::element(1, wire::Uint, wire::u32(7)));
    const std::string tail = wire::messageBlock(samples::shortestMessage());
    const auto check = [&](const std::string& bytes) {
        return run.reader().openedStream(bytes, {sizeOf(bytes)}, End_::Later);
    };
    run.each("types of the first block of an opened stream", kValues,
             [&](unsigned int type) { return check(blockOf(type, sizeOf(message), message) + tail); });
    for (const unsigned int type : {1U, 2U, 7U})
        run.each("lengths of the first block, type " + std::to_string(type) + ", of an opened stream",
                 kValues, [&](unsigned int length) { return check(blockOf(type, length, greatest) + tail); });
}

// Items

const char* const g_fields[] = {"tags", "types", "lengths"};

/// All values of the three fields of the header at `place`.
template <class Check>
void proveHeader(BoundaryRun_& run, const std::string& name, const std::string& bytes, std::size_t place,
                 Check check) {
    for (std::size_t field = 0; field < 3; ++field)
        run.each(g_fields[field] + (" of " + name), kValues,
                 [&](unsigned int value) { return check(with(bytes, place + 2 * field, value)); });
}

/// `source` and `schema` are texts of the message.
void proveHeaderItems(BoundaryRun_& run, const std::string& kind, const std::string& source,
                      const std::string& schema) {
    const std::string payload = wire::element(1, wire::Uint, wire::u32(7));
    const std::string message = wire::header("sensor", source, 3, schema) + payload;
    const std::size_t ofSource = 6 + sizeOf(wire::text("sensor"));
    const std::size_t ofTimeToLive = ofSource + 6 + sizeOf(wire::text(source));
    const std::pair<const char*, std::size_t> items[] = {{"destination", 0},
                                                         {"source", ofSource},
                                                         {"time-to-live", ofTimeToLive},
                                                         {"schema", ofTimeToLive + 6 + 4}};
    for (const auto& [p_name, place] : items)
        proveHeader(run, kind + "'s " + p_name, message, place,
                    [&](const std::string& bytes) { return run.reader().block(wire::messageBlock(bytes)); });
}

/// Lengths that lead far into the message.
void proveGreatestMessage(BoundaryRun_& run) {
    const std::string message = samples::greatestMessage();
    const std::size_t ofSource = 6 + sizeOf(wire::text("sensor"));
    const std::size_t ofTimeToLive = ofSource + 6 + sizeOf(wire::text("panel"));
    for (const std::size_t place : {std::size_t(0), ofSource, ofTimeToLive, ofTimeToLive + 6 + 4})
        run.each("lengths at " + std::to_string(place) + " of the greatest message", kValues,
                 [&](unsigned int value) {
                     return run.reader().block(wire::messageBlock(with(message, place + 4, value)));
                 });
}

// Elements

/// Places of the headers of an element and of those in it, whose bytes are good.
void findElements(std::string_view bytes, std::size_t at, std::vector<std::size_t>& places) {
    places.push_back(at);
    if (bytes[at + 9] != wire::Complex) return;
    const std::size_t end = at + 12 + (static_cast<unsigned char>(bytes[at + 10]) << 8U) +
                            static_cast<unsigned char>(bytes[at + 11]);
    for (std::size_t child = at + 12; child + 12 <= end;) {
        findElements(bytes, child, places);
        child += 6U + (static_cast<unsigned char>(bytes[child + 4]) << 8U) +
                 static_cast<unsigned char>(bytes[child + 5]);
    }
}

void proveElement(BoundaryRun_& run, const samples::Sample_& sample) {
    std::vector<std::size_t> places;
    findElements(sample.m_bytes, 0, places);
    const auto check = [&](const std::string& bytes) { return run.reader().payload(bytes, ""); };
    for (std::size_t number = 0; number < places.size(); ++number) {
        const std::string name = "element " + std::to_string(number + 1) + " of " + sample.m_name;
        proveHeader(run, name, sample.m_bytes, places[number], check);
        proveHeader(run, "the content of " + name, sample.m_bytes, places[number] + 6, check);
    }
}

/// An element whose lengths may have any value: as many bytes follow as they can announce, children of a
/// complex value.
void proveLengths(BoundaryRun_& run, unsigned int type, const char* p_name) {
    const std::string child = wire::element(1, wire::Binary, std::string(985, 'c'));
    std::string children;
    while (children.size() < kValues) children += child;
    const auto bytes = [&](unsigned int outer, unsigned int inner) {
        return wire::u16(10) + wire::u16(0) + wire::u16(outer) + wire::u16(0) + wire::u16(type) +
               wire::u16(inner) + children;
    };
    const std::string all = bytes(kValues - 1, 997);
    run.each(std::string("outer lengths of a roomy ") + p_name, kValues,
             [&](unsigned int value) { return run.reader().payload(with(all, 4, value), ""); });
    run.each(std::string("content lengths of a roomy ") + p_name, kValues,
             [&](unsigned int value) { return run.reader().payload(with(all, 10, value), ""); });
}

void proveElements(BoundaryRun_& run) {
    const samples::Samples_ elements = samples::elements();
    for (const samples::Sample_& sample : elements)
        if (sample.m_bytes.size() < 200) proveElement(run, sample);
    proveLengths(run, wire::Complex, "complex value");
    proveLengths(run, wire::Uint, "uint");
    proveLengths(run, wire::String, "text");
    proveLengths(run, wire::Binary, "binary value");
}

}  // namespace

void proveFields(BoundaryRun_& run) {
    run.beginFigure("values of the fields of block headers");
    proveFirstHeader(run);
    proveLaterHeader(run);
    proveOpenedHeader(run);
    run.beginFigure("values of the fields of a message's header items");
    proveHeaderItems(run, "a message", "panel", "urn:x");
    proveHeaderItems(run, "a ping", "panel", "VEK Pinger Request Format version 1.0");
    proveGreatestMessage(run);
    run.beginFigure("values of the fields of elements");
    proveElements(run);
}
