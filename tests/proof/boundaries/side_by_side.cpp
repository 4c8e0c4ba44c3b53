#include "proof/boundaries/side_by_side.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "support/buffer_bytes.h"
#include "support/wire_bytes.h"

namespace {

/// Turns without an end would be a finding, too.
constexpr unsigned int kMostTurns = 1000;

constexpr unsigned int kAlways = ~0U;
constexpr std::size_t kShown = 300;

std::string shown(const std::string& text) {
    std::string result;
    for (const char byte : text.substr(0, kShown)) result += byte < ' ' || byte > '~' ? '.' : byte;
    return text.size() <= kShown ? result : result + "... (" + std::to_string(text.size()) + " bytes)";
}

std::string joined(const Lines_& lines) {
    std::string result;
    for (const std::string& line : lines) result += (result.empty() ? "" : " | ") + line;
    return result;
}

bool isText(const Utf8Char_* p_text, const std::string& expected) {
    return std::strlen(reinterpret_cast<const char*>(p_text)) == expected.size() &&
           std::memcmp(p_text, expected.data(), expected.size()) == 0;
}

bool isSame(const SP_VekmsgElement_& sp_element, const reference::Element_& expected);

bool hasSameChildren(const SP_VekmsgElement_& sp_element, const reference::Element_& expected) {
    if (!sp_element->querySubelements(VEKMSGTAG_ANY)) return false;
    for (const reference::Element_& child : expected.m_children) {
        const SP_VekmsgElement_ sp_child = sp_element->getNextSubelement();
        if (sp_child.isNull() || !isSame(sp_child, child)) return false;
    }
    return sp_element->getNextSubelement().isNull();
}

bool isSame(const SP_VekmsgElement_& sp_element, const reference::Element_& expected) {
    if (sp_element->getTag() != expected.m_tag) return false;
    unsigned int number = 0;
    const unsigned char* p_value = nullptr;
    switch (expected.m_type) {
        case wire::Complex:
            return hasSameChildren(sp_element, expected);
        case wire::Uint:
            return sp_element->getValue(number) && number == expected.m_number;
        case wire::String:
            return sp_element->getValue(p_value) && isText(p_value, expected.m_value);
        default:
            return sp_element->getValue(p_value, number) && number == expected.m_value.size() &&
                   std::memcmp(p_value, expected.m_value.data(), number) == 0;
    }
}

bool isFirstItemWhole(std::string_view bytes) {
    if (bytes.size() < 6) return false;
    const auto high = static_cast<unsigned char>(bytes[4]);
    const auto low = static_cast<unsigned char>(bytes[5]);
    return (static_cast<std::size_t>(high) << 8 | low) <= bytes.size() - 6;
}

const char* yesOrNo(bool is) {
    return is ? "yes" : "no";
}

}  // namespace

SideBySide_::SideBySide_() {
    m_records.take();  // of opening
    m_calls.holdReceived();
    if (!m_station.terminal().createMessage(m_sp_holder)) throw std::runtime_error("no message");
}

std::string SideBySide_::stream(const std::string& bytes, const Pieces_& pieces, End_ end) {
    return check([&] {
        closeLine();
        open(bytes);
        give(pieces, end);
    });
}

std::string SideBySide_::openedStream(const std::string& bytes, const Pieces_& pieces, End_ end) {
    return check([&] {
        closeLine();
        letOpen(bytes);
        give(pieces, end);
    });
}

std::string SideBySide_::block(const std::string& bytes) {
    return check([&] {
        if (!m_isLineOpen || !m_reference->isOpen()) {
            const std::string name = wire::nameBlock("panel");
            open(name);
            admit(wire::sizeOf(name));
            m_isLineOpen = true;
        }
        write(bytes);
        admit(wire::sizeOf(bytes));
        compareEnds();
    });
}

std::string SideBySide_::payload(std::string_view bytes, std::string_view behind) {
    return check([&] {
        std::string all(bytes);
        all += behind;
        const SP_BasicBuffer_ sp_buffer = tightBufferOf(all);
        sp_buffer->setDataArea(0, wire::sizeOf(bytes));
        m_sp_holder->setRawPayload(sp_buffer);
        comparePayload(m_sp_holder, bytes);
        m_sp_holder->setRawPayload(SP_BasicBuffer_());
    });
}

template <class Steps>
std::string SideBySide_::check(Steps steps) {
    m_difference.clear();
    try {
        steps();
    } catch (const std::exception& trouble) {
        if (m_difference.empty()) m_difference = trouble.what();
    }
    if (!m_difference.empty()) recover();
    return m_difference;
}

/// Nothing is let in yet, and but for the next peer nobody comes: the kernel need not be asked each time.
void SideBySide_::begin() {
    m_calls.holdReceived();
    m_calls.fail(SystemCalls_::Accept, EAGAIN, 1, kAlways);
    ++m_compared.m_streams;
}

/// Begins a stream that holds these bytes.
void SideBySide_::open(const std::string& bytes) {
    begin();
    m_peer = RawPeer_(m_address);
    m_reference.emplace(ownName());
    write(bytes);
}

/// The same from the other side: a message to be sent makes the library open a stream.
void SideBySide_::letOpen(const std::string& bytes) {
    begin();
    if (!m_station.send("callee", "opening", 1)) throw std::runtime_error("nothing is sent");
    m_peer = m_callee.accept();
    const std::string name = m_peer.readBlock();
    if (name != wire::nameBlock(ownName())) differ("name", wire::nameBlock(ownName()), name);
    m_peer.readBlock();
    m_reference.emplace(ownName(), "callee");
    write(bytes);
}

void SideBySide_::write(const std::string& bytes) {
    m_peer.write(bytes);
    m_bytes = bytes;
    m_arrived = 0;
}

void SideBySide_::give(const Pieces_& pieces, End_ end) {
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i + 1 == pieces.size() && end == End_::AtOnce) this->end();
        admit(pieces[i]);
    }
    compareEnds();
    if (end == End_::Later && m_reference->isOpen()) {
        this->end();
        settle();
    }
    m_peer.close();
}

void SideBySide_::closeLine() {
    if (m_isLineOpen && m_reference->isOpen()) {
        end();
        settle();
    }
    m_isLineOpen = false;
}

void SideBySide_::admit(unsigned int size) {
    m_calls.admit(size);
    m_reference->arrive(std::string_view(m_bytes).substr(m_arrived, size));
    m_arrived += size;
    ++m_compared.m_pieces;
    settle();
    if (m_reference->isOpen() && m_calls.admitted() != 0)
        throw std::runtime_error("bytes of a piece are not received");
}

void SideBySide_::settle() {
    for (unsigned int turns = 0; turn(); ++turns)
        if (turns == kMostTurns) throw std::runtime_error("the terminal is never quiet");
}

void SideBySide_::end() {
    m_peer.finish();
    m_calls.admitEnd();
    m_reference->arriveEnd();
}

/// Both readers' next turn; false when nothing has happened in it. Throws at a difference.
bool SideBySide_::turn() {
    const unsigned int admitted = m_calls.admitted();
    const SP_VekMessage_ sp_message = m_station.receive();
    const Lines_ lines = takeLines(m_records);
    const reference::Stream_::Turn_ expected = m_reference->receive();
    m_compared.m_records += lines.size();
    compareLines("records", expected.m_lines, lines);
    if (sp_message.isNull() == expected.m_hasMessage) {
        differ("a message", yesOrNo(expected.m_hasMessage), yesOrNo(!sp_message.isNull()));
    } else if (expected.m_hasMessage) {
        compareMessage(sp_message, expected.m_message);
    }
    const bool isConnected = m_station.isConnected(m_reference->peerName());
    if (isConnected != m_reference->isConnected())
        differ("connected", yesOrNo(m_reference->isConnected()), yesOrNo(isConnected));
    if (!m_difference.empty()) throw std::runtime_error(m_difference);
    return expected.m_hasDecoded || expected.m_hasMessage || !lines.empty() || m_calls.admitted() != admitted;
}

void SideBySide_::compareMessage(const SP_VekMessage_& sp_message, const reference::Message_& expected) {
    if (!isText(sp_message->getDestination(), expected.m_destination))
        differ("destination", expected.m_destination, plain(sp_message->getDestination()));
    if (!isText(sp_message->getSource(), expected.m_source))
        differ("source", expected.m_source, plain(sp_message->getSource()));
    if (!isText(sp_message->getPayloadSchema(), expected.m_schema))
        differ("schema", expected.m_schema, plain(sp_message->getPayloadSchema()));
    if (sp_message->getTimeToLive() != expected.m_timeToLive)
        differ("time-to-live", std::to_string(expected.m_timeToLive),
               std::to_string(sp_message->getTimeToLive()));
    comparePayload(sp_message, expected.m_payload);
}

void SideBySide_::comparePayload(const SP_VekMessage_& sp_message, std::string_view bytes) {
    const std::string expectedBytes(bytes);
    if (bytesOf(sp_message->getRawPayload()) != expectedBytes)
        differ("payload bytes", expectedBytes, bytesOf(sp_message->getRawPayload()));
    if (sp_message->hasGoodPayload() != isFirstItemWhole(bytes))
        differ("good payload", yesOrNo(isFirstItemWhole(bytes)), yesOrNo(sp_message->hasGoodPayload()));

    reference::Element_ expected;
    Lines_ expectedLines;
    const bool isAccepted = reference::readPayload(bytes, expected, expectedLines);
    const SP_VekmsgElement_ sp_element = sp_message->getPayload();
    const Lines_ lines = takeLines(m_records);
    ++m_compared.m_messages;
    m_compared.m_records += lines.size();
    compareLines("records of the payload", expectedLines, lines);
    if (sp_element.isNull() == isAccepted) {
        differ("payload accepted", yesOrNo(isAccepted), yesOrNo(!sp_element.isNull()));
    } else if (isAccepted) {
        if (!isSame(sp_element, expected)) differ("payload", "the page's elements", "others");
        if (!sp_message->getRawPayload().isNull()) differ("raw payload after decoding", "none", "one");
    } else if (bytesOf(sp_message->getRawPayload()) != expectedBytes) {
        differ("payload bytes after a refusal", expectedBytes, bytesOf(sp_message->getRawPayload()));
    }
    compareLines("records of the values", Lines_(), takeLines(m_records));
}

/// What the peer has seen of the stream.
void SideBySide_::compareEnds() {
    const std::string sent = m_reference->takeSent();
    const std::string received = m_peer.read(sent.size(), 0);
    if (received != sent) differ("sent", sent, received);
    const bool isClosed = m_peer.isAtEnd(0);
    if (isClosed == m_reference->isOpen())
        differ("closed", yesOrNo(!m_reference->isOpen()), yesOrNo(isClosed));
    if (!m_peer.isQuiet() && !isClosed) differ("sent", "no more", m_peer.readArrived());
}

void SideBySide_::differ(const std::string& what, const std::string& expected, const std::string& found) {
    if (m_difference.empty())
        m_difference = what + ": expected <" + shown(expected) + ">, found <" + shown(found) + ">";
}

void SideBySide_::compareLines(const std::string& what, const Lines_& expected, const Lines_& found) {
    if (expected != found) differ(what, joined(expected), joined(found));
}

/// Ends whatever is open at the library's end.
void SideBySide_::recover() {
    m_isLineOpen = false;
    m_peer.close();
    m_calls.admitEnd();
    for (unsigned int turns = 0; turns < kMostTurns; ++turns) {
        m_station.receive();
        if (takeLines(m_records).empty() && turns > 3) break;
    }
    m_sp_holder->setRawPayload(SP_BasicBuffer_());
}
