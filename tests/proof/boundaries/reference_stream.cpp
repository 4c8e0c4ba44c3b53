#include "proof/boundaries/reference_stream.h"

#include <algorithm>
#include <utility>

#include "support/wire_bytes.h"

namespace reference {

namespace {

constexpr unsigned int kBlockHeader = 4;
constexpr unsigned int kLongestBlock = 9396;
constexpr unsigned int kLongestNameAnnounced = 9400;
constexpr unsigned int kLongestSure = 9144;  // of a message that every reader takes

constexpr unsigned int kName = 1;
constexpr unsigned int kMessage = 2;

const std::string g_pingRequest = "VEK Pinger Request Format version 1.0";
const std::string g_pingReply = "VEK Pinger Reply Format version 1.0";

unsigned int number(const std::string& bytes, std::size_t at) {
    return static_cast<unsigned int>(static_cast<unsigned char>(bytes[at])) << 8 |
           static_cast<unsigned char>(bytes[at + 1]);
}

}  // namespace

Stream_::Stream_(const std::string& ownName, const std::string& peerName)
    : m_ownName(ownName),
      m_isResolved(true),
      m_hasName(true),
      m_peerName(peerName),
      m_awaited(Awaited_::Header) {}

Stream_::Turn_ Stream_::receive() {
    Turn_ turn;
    if (m_messages.empty()) {
        if (m_isOpen) look(turn.m_lines);
        // Of an open stream one block a turn; of one that has ended all that arrived whole.
        do {
            if (m_blocks.empty()) break;
            const std::string block = std::move(m_blocks.front());
            m_blocks.pop_front();
            decode(block, turn.m_lines);
            turn.m_hasDecoded = true;
        } while (!m_isOpen);
    }
    if (!m_messages.empty()) {
        turn.m_hasMessage = true;
        turn.m_message = std::move(m_messages.front());
        m_messages.pop_front();
    }
    return turn;
}

void Stream_::look(Lines_& lines) {
    if (!m_isResolved && !resolve(lines)) {
        close();
    } else if (m_isResolved && !readArrived(lines)) {
        lines.push_back(line('D', "Deleting active connection between " + m_ownName + " and " + m_peerName));
        close();
    }
}

/// A look at a stream whose peer has not named itself yet; false when the stream ends with it.
bool Stream_::resolve(Lines_& lines) {
    if (!readArrived(lines)) {
        lines.push_back(line('D', "Deleting unresolved connection at " + m_ownName));
        return false;
    }
    if (m_hasName && m_peerName.empty()) {
        lines.push_back(line('W', "VekmsgTerminalImpl_::processPollEvents(" + m_ownName +
                                      ") got a null peerName for an unresolved connection"));
        return false;
    }
    m_isResolved = m_hasName;
    return true;
}

/// What has come whole is kept if it is known from whom.
void Stream_::close() {
    m_isOpen = false;
    if (m_peerName.empty()) m_blocks.clear();
}

/// A look ends with a part of what is asked for. That nothing more can come shows when nothing more has come.
bool Stream_::readArrived(Lines_& lines) {
    for (;;) {
        // After a name of no bytes nothing more is asked for.
        if (m_awaited == Awaited_::Header && m_wanted == 0) return true;
        const std::size_t arrived = m_input.size();
        if (arrived < m_wanted) {
            const bool isMore = arrived > m_seen;
            m_seen = arrived;
            return isMore || !m_isAtEnd;
        }
        m_seen = std::max<std::size_t>(m_seen, m_wanted);
        if (!readUnit(lines)) return false;
        m_seen -= arrived - m_input.size();
    }
}

bool Stream_::readUnit(Lines_& lines) {
    switch (m_awaited) {
        case Awaited_::NameHeader:
            return readNameHeader(lines);
        case Awaited_::Name:
            return readName(lines);
        case Awaited_::Header:
            return readHeader(lines);
        default:
            return readPayload(lines);
    }
}

bool Stream_::readNameHeader(Lines_& lines) {
    takeHeader();
    const std::string length = std::to_string(m_length);
    if (m_type != kName) {
        lines.push_back(line('W', m_ownName + " is expecting VEK_COMPONENT_NAME. Got " +
                                      std::to_string(m_type) + ", length " + length));
        return false;
    }
    if (m_length > kLongestNameAnnounced) {
        lines.push_back(line('E', "VekmsgConnection_::processPollEvents() of " + m_ownName +
                                      " is getting VEK_COMPONENT_NAME length " + length));
        return false;
    }
    if (m_length > kLongestBlock) {
        lines.push_back(line(
            'W', "VekSocket_::receive() requested data size " + length + " is greater than free space 9396"));
        await(Awaited_::Name, kLongestBlock);
    } else {
        await(Awaited_::Name, m_length);
    }
    return true;
}

bool Stream_::readName(Lines_& lines) {
    if (m_length > kLongestBlock) {
        lines.push_back(line('E',
                             "VekmsgConnection_::extractEncodingPayload() data length 9396 is shorter than "
                             "the expected payload " +
                                 std::to_string(m_length)));
        return false;
    }
    const std::string payload = take(m_length);
    m_hasName = true;
    if (m_length > 1) m_peerName = payload.substr(0, std::min<std::size_t>(payload.find('\0'), m_length - 1));
    await(Awaited_::Header, m_length);
    return true;
}

bool Stream_::readHeader(Lines_& lines) {
    if (m_wanted < kBlockHeader) {
        lines.push_back(line('E', "VekmsgConnection_::extractEncodingHeader() data length " +
                                      std::to_string(m_wanted) + " is too short for encoding header"));
        return false;
    }
    takeHeader();
    const bool isTooLong = m_length > kLongestBlock;
    const std::string length = std::to_string(m_length);
    const std::string partners = "onnection " + m_ownName + " to " + m_peerName;
    if (m_type == kMessage) {
        if (isTooLong)
            lines.push_back(
                line('E', 'c' + partners + " received BINARY_ENCODED_MESSAGE of " + length + " (too long)"));
    } else if (isTooLong) {
        lines.push_back(line('E', 'C' + partners + " is expecing BINARY_ENCODED_MESSAGE but got " +
                                      std::to_string(m_type) + " of length " + length + ". Failed"));
    } else {
        lines.push_back(line('W', 'C' + partners + " expecting BINARY_ENCODED_MESSAGE but got " +
                                      std::to_string(m_type) + ", length " + length +
                                      ". Skipping the block"));
    }
    await(Awaited_::Payload, m_length);
    return !isTooLong;
}

bool Stream_::readPayload(Lines_& lines) {
    const std::string payload = take(m_length);
    if (m_type == kMessage) {
        m_blocks.push_back(payload);
    } else {
        lines.push_back(line('W', "Connection " + m_ownName + " to " + m_peerName +
                                      " dropped encoding block type " + std::to_string(m_type)));
    }
    await(Awaited_::Header, kBlockHeader);
    return true;
}

void Stream_::await(Awaited_ awaited, unsigned int bytes) {
    m_awaited = awaited;
    m_wanted = bytes;
}

std::string Stream_::take(unsigned int bytes) {
    const std::string taken = m_input.substr(0, bytes);
    m_input.erase(0, bytes);
    return taken;
}

void Stream_::takeHeader() {
    m_type = number(m_input, 0);
    m_length = number(m_input, 2);
    m_input.erase(0, kBlockHeader);
}

void Stream_::decode(const std::string& bytes, Lines_& lines) {
    Message_ message;
    if (!readMessage(bytes, message, lines)) {
        lines.push_back(line('W', m_ownName + " deserializer failed to handle data from " + m_peerName));
    } else if (message.m_destination != m_ownName) {
        forward(message, lines);
    } else if (message.m_schema == g_pingRequest) {
        answer(message, lines);
    } else {
        m_messages.push_back(std::move(message));
    }
}

void Stream_::forward(Message_& message, Lines_& lines) {
    const unsigned int timeToLive = message.m_timeToLive;
    if (timeToLive == 0) {
        lines.push_back(line('W', m_ownName + " can't route a message from " + m_peerName +
                                      " because TTL = 0, dest " + message.m_destination + " src " +
                                      message.m_source));
        return;
    }
    message.m_timeToLive = timeToLive - 1;
    if (!send(message, lines))
        lines.push_back(line('W', m_ownName + " failed to route a message from " + m_peerName +
                                      " with dest " + message.m_destination + ", src " + message.m_source +
                                      ", TTL " + std::to_string(timeToLive)));
}

void Stream_::answer(Message_& message, Lines_& lines) {
    message.m_destination.swap(message.m_source);
    message.m_schema = g_pingReply;
    if (!send(message, lines))
        lines.push_back(line('W', m_ownName + " failed to respond to ping from " + m_peerName +
                                      " with dest " + message.m_source + ", src " + message.m_destination));
}

bool Stream_::send(Message_& message, Lines_& lines) {
    if (message.m_destination.empty()) {
        lines.push_back(line('E', "VekmsgTerminalImpl_::sendMessage() null destination"));
        return false;
    }
    if (message.m_destination == m_ownName) {
        lines.push_back(line('E', "Can't send a message to itself (" + m_ownName + ")"));
        return false;
    }
    if (message.m_source.empty()) message.m_source = m_ownName;
    if (!isConnected() || message.m_destination != m_peerName) {
        lines.push_back(line('D', "VekmsgConnection_::start() Can't start without a socket"));
        return false;
    }
    return write(message, lines);
}

/// Header items written anew take the room of those that came and of the block's header; with less than the
/// block's left there is none to send, with not even theirs the message is written into a new place.
bool Stream_::write(const Message_& message, Lines_& lines) {
    const std::string header =
        wire::header(message.m_destination, message.m_source, message.m_timeToLive, message.m_schema);
    const std::string partners = '(' + message.m_source + " -> " + message.m_destination + ')';
    const std::size_t room = message.m_headerSize + kBlockHeader;
    const std::size_t size = header.size() + message.m_payload.size();
    if (header.size() > room && size > kLongestSure) {
        lines.push_back(line('W', "Message " + partners + " size " + std::to_string(size) +
                                      " could be too large for the peer"));
    } else if (header.size() <= room && header.size() > message.m_headerSize) {
        lines.push_back(line('E', "Not enough header space " + std::to_string(room - header.size()) +
                                      " left to encode message " + partners + " in a block"));
        return false;
    }
    m_sent += wire::messageBlock(header + message.m_payload);
    return true;
}

}  // namespace reference
