// From received blocks to messages: delivered, answered, forwarded or dropped.

#include <utility>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/quiet_spell.h"
#include "foundation/utf8_name.h"
#include "terminal/terminal_impl.h"

namespace {

// Both texts travel: every component recognises the one and sends the other.
constexpr char kPingRequest[] = "VEK Pinger Request Format version 1.0";
constexpr char kPingReply[] = "VEK Pinger Reply Format version 1.0";

/// Cuts the buffer, which has more, to its first `length` data bytes. The bytes behind them, or null without
/// memory for a copy: they are lost then.
SP_BasicBuffer_ splitBehind(BasicBuffer_& buffer, unsigned int length) {
    SP_BasicBuffer_ sp_rest = buffer.copy();
    if (sp_rest) sp_rest->extendDataIntoHeader(-static_cast<int>(length));
    buffer.setDataArea(buffer.dataOffset(), length);
    return sp_rest;
}

}  // namespace

[[gnu::hot]] bool VekmsgTerminalImpl_::receiveMessage(SP_VekMessage_& sp_message) try {
    sp_message.reset();
    if (!isOpen()) return true;
    if (takeReceivedMessage(sp_message)) return true;
    const QuietSpellEnd_ end;
    lookForQuietSockets();
    bool gotData = false;
    if (!makePass(gotData)) return false;
    if (!gotData) return true;
    if (!m_keptBlocks.empty() && !receiveKeptBlocks()) return false;
    if (!receiveFromConnections()) return false;
    takeReceivedMessage(sp_message);
    return true;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

[[gnu::hot]] bool VekmsgTerminalImpl_::takeReceivedMessage(SP_VekMessage_& sp_message) {
    if (m_receivedMessages.empty()) return false;
    sp_message.swap(m_receivedMessages.front());
    m_receivedMessages.pop_front();
    return true;
}

bool VekmsgTerminalImpl_::receiveKeptBlocks() {
    while (!m_keptBlocks.empty()) {
        KeptBlocks_& oldest = m_keptBlocks.front();
        const SP_Utf8String_ sp_peerName = oldest.m_sp_peerName;
        SP_BasicBuffer_ sp_buffer = oldest.m_blocks.front();
        oldest.m_blocks.pop_front();
        if (oldest.m_blocks.empty()) m_keptBlocks.pop_front();  // before a filter may come back here
        if (receiveMessage(Blocks_(), sp_buffer, sp_peerName)) continue;
        if (sp_buffer) keepFirst(sp_buffer, sp_peerName);
        return false;
    }
    return true;
}

void VekmsgTerminalImpl_::keepFirst(const SP_BasicBuffer_& sp_buffer, const SP_Utf8String_& sp_peerName) {
    m_keptBlocks.push_front(KeptBlocks_{sp_peerName, BufferQueue_(1, sp_buffer)});
}

// Filters, replies and forwarding may insert and erase connections while one is served. So the walk holds on
// to that one and goes on by name.
[[gnu::hot]] bool VekmsgTerminalImpl_::receiveFromConnections() {
    const std::uint64_t spell = quietSpell();
    auto [place, end] = dueConnections(spell);
    while (place < end) {
        const SP_VekmsgConnection_ sp_connection = m_activeConnections[place];
        const unsigned int changes = m_activeConnections.changes();
        SP_BasicBuffer_ sp_buffer;
        if (!sp_connection->receiveEncodedMessage(sp_buffer)) {
            retire(m_activeConnections.begin() + place);
        } else if (!receiveMessage(Blocks_(), sp_buffer, sp_connection->getPeerName())) {
            if (sp_buffer) putBack(sp_buffer, sp_connection);
            return false;
        }
        ++place;
        const bool isGood = m_activeConnections.changes() == changes;
        if (isGood && quietSpell() == spell) continue;
        if (!isGood) place = placeBehind(sp_connection);
        end = allConnections().m_end;
    }
    return true;
}

// A connection that the refusing filter has made end would take the rest of the buffer with it.
void VekmsgTerminalImpl_::putBack(const SP_BasicBuffer_& sp_buffer,
                                  const SP_VekmsgConnection_& sp_connection) {
    const auto found = m_activeConnections.find(sp_connection);
    if (found != m_activeConnections.end() && *found == sp_connection) {
        sp_connection->putBackReceived(sp_buffer);
    } else {
        keepFirst(sp_buffer, sp_connection->getPeerName());
    }
}

[[gnu::hot]] bool VekmsgTerminalImpl_::receiveMessage(Blocks_, SP_BasicBuffer_& sp_buffer,
                                                      const SP_Utf8String_& sp_peerName) {
    while (sp_buffer) {
        SP_BasicBuffer_ sp_rest;
        SP_VekMessage_ sp_message;
        const Decoded_ decoded = receiveMessage(FirstBlock_(), sp_buffer, sp_rest, sp_peerName, sp_message);
        if (decoded == Decoded_::Failed) return false;
        sp_buffer.reset();
        if (decoded == Decoded_::Dropped) return true;
        sp_buffer.swap(sp_rest);
        if (m_sp_receiveFilter && !passesFilter(m_sp_receiveFilter, sp_message)) return false;
        if (sp_message) receiveMessage(Dispatching_(), std::move(sp_message), sp_peerName);
    }
    return true;
}

[[gnu::hot]] VekmsgTerminalImpl_::Decoded_ VekmsgTerminalImpl_::receiveMessage(
    FirstBlock_, SP_BasicBuffer_& sp_buffer, SP_BasicBuffer_& sp_rest, const SP_Utf8String_& sp_peerName,
    SP_VekMessage_& sp_message) {
    if (!createMessage(sp_message)) return Decoded_::Failed;
    auto* p_impMessage = libcpp::castTo<VekMessageBinary_>(sp_message.get());
    if (p_impMessage == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::receiveMessage() invalid sp_impMessage");
        return Decoded_::Failed;
    }
    const unsigned int headerSize = VekmsgConnection_::getEncodingBlockHeaderSize();
    if (sp_buffer->dataLength() < headerSize) {
        VEKMSG_LOG_WARNING("VekmsgTerminalImpl_::receiveMessage(%s) invalid data length %d from %s",
                           printable(m_sp_componentName), sp_buffer->dataLength(), printable(sp_peerName));
        return Decoded_::Dropped;
    }
    VekmsgConnection_::EncodingBlockType_ type = VekmsgConnection_::NO_ENCODING_BLOCK;
    unsigned int length = 0;
    VekmsgConnection_::readEncodingBlockHeader(sp_buffer->data(), type, length);
    sp_buffer->extendDataIntoHeader(-static_cast<int>(headerSize));
    if (sp_buffer->dataLength() < length) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::receiveMessage(%s) encoding block length %d > data %d from %s",
                         printable(m_sp_componentName), length, sp_buffer->dataLength(),
                         printable(sp_peerName));
        return Decoded_::Dropped;
    }
    if (sp_buffer->dataLength() > length) sp_rest = splitBehind(*sp_buffer, length);
    const unsigned int used = p_impMessage->deserialize(sp_buffer);
    if (used == 0) {
        VEKMSG_LOG_WARNING("%s deserializer failed to handle data from %s", printable(m_sp_componentName),
                           printable(sp_peerName));
        return Decoded_::Dropped;
    }
    if (used != length)
        VEKMSG_LOG_WARNING("%s message deserializer used %u out of %u data from %s",
                           printable(m_sp_componentName), used, length, printable(sp_peerName));
    return Decoded_::Message;
}

[[gnu::hot]] void VekmsgTerminalImpl_::receiveMessage(Dispatching_, SP_VekMessage_&& sp_message,
                                                      const SP_Utf8String_& sp_peerName) {
    const Utf8Char_* p_destination = sp_message->getDestination();
    if (p_destination == nullptr) {
        VEKMSG_LOG_WARNING("%s dropped a message with NULL destination", printable(m_sp_componentName));
        return;
    }
    if (!isSameText(printable(p_destination), printable(m_sp_componentName))) {
        receiveMessage(Forwarding_(), sp_message, sp_peerName);
    } else if (isSameText(printable(sp_message->getPayloadSchema()), kPingRequest)) {
        receiveMessage(Pinging_(), sp_message, sp_peerName);
    } else {
        m_receivedMessages.push_back(std::move(sp_message));
    }
}

void VekmsgTerminalImpl_::receiveMessage(Forwarding_, const SP_VekMessage_& sp_message,
                                         const SP_Utf8String_& sp_peerName) {
    const unsigned int timeToLive = sp_message->getTimeToLive();
    if (timeToLive == 0) {
        VEKMSG_LOG_WARNING("%s can't route a message from %s because TTL = %u, dest %s src %s",
                           printable(m_sp_componentName), printable(sp_peerName), timeToLive,
                           printable(sp_message->getDestination()), printable(sp_message->getSource()));
    } else if (!sp_message->setTimeToLive(timeToLive - 1)) {
        VEKMSG_LOG_WARNING("%s failed to route a message with stuck TTL from %s with dest %s, src %s, TTL %u",
                           printable(m_sp_componentName), printable(sp_peerName),
                           printable(sp_message->getDestination()), printable(sp_message->getSource()),
                           timeToLive);
    } else if (!sendMessage(sp_message)) {
        VEKMSG_LOG_WARNING("%s failed to route a message from %s with dest %s, src %s, TTL %u",
                           printable(m_sp_componentName), printable(sp_peerName),
                           printable(sp_message->getDestination()), printable(sp_message->getSource()),
                           timeToLive);
    }
}

/// The reply is the request turned round: same payload, same time-to-live.
void VekmsgTerminalImpl_::receiveMessage(Pinging_, const SP_VekMessage_& sp_message,
                                         const SP_Utf8String_& sp_peerName) {
    const auto* p_reply = reinterpret_cast<const Utf8Char_*>(kPingReply);
    if (!sp_message->swapSourceDestination()) {
        VEKMSG_LOG_WARNING("%s failed to generate ping response to %s with dest %s, src %s",
                           printable(m_sp_componentName), printable(sp_peerName),
                           printable(sp_message->getDestination()), printable(sp_message->getSource()));
    } else if (!sp_message->setPayloadSchema(p_reply, VekMessage_::SCHEMA_LITERAL)) {
        VEKMSG_LOG_WARNING("%s failed to set ping response uri to %s with dest %s, src %s",
                           printable(m_sp_componentName), printable(sp_peerName),
                           printable(sp_message->getDestination()), printable(sp_message->getSource()));
    } else if (!sendMessage(sp_message)) {
        VEKMSG_LOG_WARNING("%s failed to respond to ping from %s with dest %s, src %s",
                           printable(m_sp_componentName), printable(sp_peerName),
                           printable(sp_message->getSource()), printable(sp_message->getDestination()));
    }
}
