#include "proof/calls/short_counts.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/utf8_text.h"
#include "support/wire_bytes.h"

namespace {

using Calls_ = SystemCalls_;

constexpr char kSchema[] = "numbers";
constexpr unsigned int kElementOverhead = 12;
constexpr unsigned int kPasses = 16;  // more than any run needs, byte by byte apart

/// Bytes that differ from place to place and from message to message.
std::string pattern(std::size_t size, unsigned int seed) {
    std::string bytes(size, '\0');
    unsigned int state = seed * 2654435761U + 1;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

/// A message of `size` bytes in its parts.
struct Message_ {
    Message_(unsigned int size, const std::string& destination, const std::string& source, unsigned int seed)
        : m_header(wire::header(destination, source, 3, kSchema)),
          m_value(pattern(size - m_header.size() - kElementOverhead, seed)),
          m_payload(wire::element(1, wire::Binary, m_value)) {}

    std::string block() const { return wire::messageBlock(m_header + m_payload); }

    std::string m_header;
    std::string m_value;
    std::string m_payload;
};

/// The encoded payload of a message with room for all that is put in front of it.
SP_BasicBuffer_ payloadOf(const std::string& encoded) {
    constexpr unsigned int room = 256;
    const auto size = static_cast<unsigned int>(encoded.size());
    SP_BasicBuffer_ sp_buffer(new BasicBuffer_(room + size));
    sp_buffer->setDataArea(room, size);
    std::memcpy(sp_buffer->data(), encoded.data(), size);
    return sp_buffer;
}

}  // namespace

std::string ShortCounts_::name() const {
    return std::string(m_way == Way_::Received ? "received" : "sent") + " blocks of " +
           std::to_string(blockSize()) + " bytes";
}

void ShortCounts_::begin(Scene_& scene) const {
    scene.opened();
    if (m_way == Way_::Received) {
        scene.guestArrives();
    } else {
        scene.established();
    }
}

unsigned long ShortCounts_::play(Scene_& scene, unsigned int first, unsigned int last,
                                 unsigned int stride) const {
    unsigned long runs = 0;
    begin(scene);
    for (unsigned int count = first; count < last; count += stride) {
        for (const bool wouldBlock : {false, true}) {
            plan(scene, count, wouldBlock);
            ++runs;
            if (moves(scene, 2 * count + (wouldBlock ? 1 : 0), kPasses)) continue;
            scene.expect(false, "a first call that moves " + std::to_string(count) + " bytes" +
                                    (wouldBlock ? ", then one that would block" : ""));
            return runs;
        }
    }
    scene.expectNoRecords("short counts");
    return runs;
}

// A block is received as a header and a payload, and sent as one.
void ShortCounts_::plan(Scene_& scene, unsigned int count, bool wouldBlock) const {
    constexpr unsigned int headerSize = 4;
    const Calls_::Call_ call = m_way == Way_::Received ? Calls_::Recv : Calls_::Send;
    unsigned int whole = 0;  // calls before the short one
    if (m_way == Way_::Received && count >= headerSize) {
        whole = 1;
        count -= headerSize;
    }
    if (count == 0) {
        scene.calls().fail(call, EAGAIN, whole);
        return;
    }
    scene.calls().shorten(call, count, whole);
    if (wouldBlock) scene.calls().then().fail(call, EAGAIN);
}

bool ShortCounts_::moves(Scene_& scene, unsigned int seed, unsigned int passes) const {
    const bool isMoved = m_way == Way_::Received ? receives(scene, seed, passes) : sends(scene, seed, passes);
    return isMoved && scene.calls().isCarriedOut();
}

bool ShortCounts_::receives(Scene_& scene, unsigned int seed, unsigned int passes) const {
    const Message_ message(m_messageSize, "here", scene.guestName(), seed);
    scene.guestStream().write(message.block());
    SP_VekMessage_ sp_message;
    for (unsigned int i = 0; i < passes && sp_message.isNull(); ++i)
        if (!scene.terminal().receiveMessage(sp_message)) return false;
    if (sp_message.isNull()) return false;
    const SP_VekmsgElement_ sp_payload = sp_message->getPayload();
    const unsigned char* p_value = nullptr;
    unsigned int length = 0;
    if (sp_payload.isNull() || !sp_payload->getValue(p_value, length)) return false;
    const bool isEqual = message.m_value == std::string(reinterpret_cast<const char*>(p_value), length);
    return isEqual && scene.terminal().receiveMessage(sp_message) && sp_message.isNull();
}

bool ShortCounts_::sends(Scene_& scene, unsigned int seed, unsigned int passes) const {
    const Message_ message(m_messageSize, "peer", "here", seed);
    SP_VekMessage_ sp_message;
    scene.terminal().createMessage(sp_message);
    sp_message->setDestination(utf8("peer"));
    sp_message->setPayloadSchema(utf8(kSchema), VekMessage_::SCHEMA_LITERAL);
    sp_message->setRawPayload(payloadOf(message.m_payload));
    if (!scene.terminal().sendMessage(sp_message)) return false;
    const std::string block = message.block();
    std::string arrived = scene.peerStream().readArrived();
    for (unsigned int i = 0; i < passes && arrived.size() < block.size(); ++i) {
        if (!scene.pass()) return false;
        arrived += scene.peerStream().readArrived();
    }
    return arrived == block && scene.pass() && scene.peerStream().isQuiet();
}

void ShortCounts_::crawl(Scene_& scene) const {
    begin(scene);
    scene.calls().shorten(m_way == Way_::Received ? Calls_::Recv : Calls_::Send, 1, 0, blockSize());
    scene.expect(moves(scene, 1, blockSize() + kPasses), "a block moves byte by byte");
    scene.expectNoRecords("byte by byte");
}

std::vector<ShortCounts_> shortCounts() {
    constexpr unsigned int longestReceived = 9396;
    constexpr unsigned int longestSent = 65535;
    return {{ShortCounts_::Way_::Received, longestReceived},
            {ShortCounts_::Way_::Sent, longestReceived},
            {ShortCounts_::Way_::Sent, longestSent}};
}
