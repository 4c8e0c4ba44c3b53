#ifndef VEKMSG_TESTS_REFERENCE_STREAM_H
#define VEKMSG_TESTS_REFERENCE_STREAM_H

#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "proof/boundaries/reference_message.h"

namespace reference {

/// What a component does with one stream, from docs/wire-format.md alone, turn by turn: a turn is a call of
/// receiveMessage(), which looks at the stream once, decodes a block and gives out a message.
///
/// The component knows nobody else: what is not for itself can only go back to where it came from.
class Stream_ {
public:
    struct Turn_ {
        Lines_ m_lines;
        bool m_hasDecoded = false;  // a block, whatever has become of it
        bool m_hasMessage = false;
        Message_ m_message;
    };

    /// A stream that it has accepted.
    explicit Stream_(const std::string& ownName) : m_ownName(ownName) {}

    /// A stream that it has opened to a component.
    Stream_(const std::string& ownName, const std::string& peerName);

    void arrive(std::string_view bytes) { m_input += bytes; }
    void arriveEnd() { m_isAtEnd = true; }

    Turn_ receive();

    /// Whether the reader has kept its end open.
    bool isOpen() const { return m_isOpen; }

    /// Whether it is a connection with a component of a known name.
    bool isConnected() const { return m_isOpen && m_isResolved; }
    const std::string& peerName() const { return m_peerName; }

    /// The bytes that have been written to the peer since the last time.
    std::string takeSent() { return std::exchange(m_sent, std::string()); }

private:
    enum class Awaited_ { NameHeader, Name, Header, Payload };

    void look(Lines_& lines);
    bool resolve(Lines_& lines);
    void close();
    bool readArrived(Lines_& lines);
    bool readUnit(Lines_& lines);
    bool readNameHeader(Lines_& lines);
    bool readName(Lines_& lines);
    bool readHeader(Lines_& lines);
    bool readPayload(Lines_& lines);
    void await(Awaited_ awaited, unsigned int bytes);
    std::string take(unsigned int bytes);
    void takeHeader();

    void decode(const std::string& bytes, Lines_& lines);
    void forward(Message_& message, Lines_& lines);
    void answer(Message_& message, Lines_& lines);
    bool send(Message_& message, Lines_& lines);
    bool write(const Message_& message, Lines_& lines);

    const std::string m_ownName;
    std::string m_input;
    bool m_isAtEnd = false;
    bool m_isOpen = true;
    bool m_isResolved = false;
    bool m_hasName = false;
    std::string m_peerName;
    Awaited_ m_awaited = Awaited_::NameHeader;
    unsigned int m_wanted = 4;  // bytes that are asked for before anything else happens
    std::size_t m_seen = 0;     // bytes that have been taken off the stream and not used yet
    unsigned int m_type = 0;
    unsigned int m_length = 0;
    std::deque<std::string> m_blocks;
    std::deque<Message_> m_messages;
    std::string m_sent;
};

}  // namespace reference

#endif
