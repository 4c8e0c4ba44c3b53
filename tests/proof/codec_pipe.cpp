// Does with the library's public interface what wire_cases.py asks for on standard input, and answers on
// standard output with what came of it: what was decoded, what was written, and all records.
//
//     batch    := length:32 case*                 of the cases together; the answer to a batch has the same
//     form case     := kind:8 length:32 body answer   := length:32 body
//
//     text     := length:32 byte*
//     tree     := tag:32 type:8 value             the value of an element without one is empty
//     value    := count:32 tree*                  type 1
//               | number:32                       type 2
//               | text                            types 3 and 4
//     optional := 0:8 | 1:8 what-it-is
//     fields   := destination:text source:text time-to-live:32 schema:text
//     records  := count:32 (severity:8 text)*
//     arrived  := count:32 (peer:8 text)*         the bytes that peers got, in the order of their names in
//     `K`

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/buffer_bytes.h"
#include "support/raw_peer.h"
#include "support/station.h"
#include "support/temporary_folder.h"
#include "support/wire_bytes.h"
#include "vekmsg/log.h"
#include "vekmsg/vekmsg.h"

namespace {

/// Takes numbers and texts off the front of a case.
class Input_ {
public:
    explicit Input_(std::string bytes) : m_bytes(std::move(bytes)) {}

    bool isAtEnd() const { return m_position == m_bytes.size(); }
    unsigned int u8() { return static_cast<unsigned char>(taken(1)[0]); }
    unsigned int u32() {
        unsigned int number = 0;
        for (const char byte : taken(4)) number = number << 8 | static_cast<unsigned char>(byte);
        return number;
    }
    std::string text() { return taken(u32()); }
    std::string rest() { return taken(m_bytes.size() - m_position); }

private:
    std::string taken(std::size_t size) {
        if (size > m_bytes.size() - m_position) throw std::runtime_error("a case is cut short");
        m_position += size;
        return m_bytes.substr(m_position - size, size);
    }

    const std::string m_bytes;
    std::size_t m_position = 0;
};

class Output_ {
public:
    void u8(unsigned int number) { m_bytes += static_cast<char>(number); }
    void u32(unsigned int number) { m_bytes += wire::u32(number); }
    void text(const std::string& text) {
        u32(static_cast<unsigned int>(text.size()));
        m_bytes += text;
    }
    void append(const std::string& bytes) { m_bytes += bytes; }
    const std::string& bytes() const { return m_bytes; }

private:
    std::string m_bytes;
};

/// Counts and keeps the records of a case.
class Records_ {
public:
    Records_() {
        vekmsg_log_set_sink(add, this);
        listen();
    }
    ~Records_() { vekmsg_log_set_sink(nullptr, nullptr); }
    Records_(const Records_&) = delete;
    Records_& operator=(const Records_&) = delete;

    void listen() { vekmsg_log_set_threshold(7); }
    void ignore() { vekmsg_log_set_threshold(-1); }

    void moveTo(Output_& output) {
        output.u32(m_count);
        output.append(m_records.bytes());
        m_count = 0;
        m_records = Output_();
    }

private:
    static void add(void* context, int severity, const LogSite*, const char* text) {
        auto* p_records = static_cast<Records_*>(context);
        ++p_records->m_count;
        p_records->m_records.u8(static_cast<unsigned int>(severity));
        p_records->m_records.text(text);
    }

    unsigned int m_count = 0;
    Output_ m_records;
};

// An element does not tell its type: it is the one whose value it gives. The records of the others are
// ignored.
void renderTree(Output_& output, VekmsgElement_& element) {
    output.u32(element.getTag());
    unsigned int number = 0;
    const Utf8Char_* p_text = nullptr;
    const unsigned char* p_bytes = nullptr;
    if (element.getValue(number)) {
        output.u8(VEKMSG_UINT);
        output.u32(number);
    } else if (element.getValue(p_text)) {
        output.u8(VEKMSG_STRING);
        output.text(plain(p_text));
    } else if (element.getValue(p_bytes, number)) {
        output.u8(VEKMSG_BINARY);
        output.text(std::string(reinterpret_cast<const char*>(p_bytes), number));
    } else if (element.querySubelements(VEKMSGTAG_ANY)) {
        output.u8(VEKMSG_COMPLEX);
        std::vector<SP_VekmsgElement_> children;
        for (SP_VekmsgElement_ sp_child = element.getNextSubelement(); !sp_child.isNull();
             sp_child = element.getNextSubelement())
            children.push_back(sp_child);
        output.u32(static_cast<unsigned int>(children.size()));
        for (const SP_VekmsgElement_& sp_child : children) renderTree(output, *sp_child);
    } else {
        output.u8(VEKMSG_UNDEFINED);
    }
}

SP_VekmsgElement_ builtTree(Input_& input, const VekMessage_& message) {
    SP_VekmsgElement_ sp_element = message.createElement(input.u32());
    switch (input.u8()) {
        case VEKMSG_COMPLEX:
            for (unsigned int count = input.u32(); count != 0; --count)
                sp_element->addSubelements(builtTree(input, message));
            break;
        case VEKMSG_UINT:
            sp_element->setValue(input.u32());
            break;
        case VEKMSG_STRING:
            sp_element->setValue(utf8(input.text()));
            break;
        case VEKMSG_BINARY: {
            const std::string bytes = input.text();
            sp_element->setValue(reinterpret_cast<const unsigned char*>(bytes.data()),
                                 static_cast<unsigned int>(bytes.size()));
            break;
        }
        default:
            break;
    }
    return sp_element;
}

void renderFields(Output_& output, const VekMessage_& message) {
    output.text(plain(message.getDestination()));
    output.text(plain(message.getSource()));
    output.u32(message.getTimeToLive());
    output.text(plain(message.getPayloadSchema()));
}

/// The component "own" and raw peers that are connected to it.
class CodecPipe_ {
public:
    std::string answer(unsigned int kind, const std::string& body);

private:
    void connectPeers(Input_& names, Output_& output);
    void decodeElement(Input_& input, Output_& output);
    void receiveMessage(Input_& input, Output_& output);
    void sendMessage(Input_& input, Output_& output);
    void acceptStream(Input_& input, Output_& output);
    void openStream(Input_& input, Output_& output);
    void readStream(Input_& input, Output_& output, RawPeer_ peer);
    void sendName(Input_& input, Output_& output);

    SP_VekMessage_ newMessage();
    void renderPayload(Output_& output, const SP_VekMessage_& sp_message);
    void renderArrived(Output_& output);
    void renderReceived(Output_& output, unsigned int& count);
    bool isAlone();

    TemporaryFolder_ m_folder;
    const std::string m_address = m_folder.localAddress("own");
    const std::string m_listenerAddress = m_folder.localAddress("listener");
    const std::string m_directory =
        m_folder.writeFile("directory", {m_address + " own", m_listenerAddress + " listener"});
    Records_ m_records;
    Station_ m_own{"own", m_directory};
    RawListener_ m_listener{m_listenerAddress};
    std::vector<RawPeer_> m_peers;
};

std::string CodecPipe_::answer(unsigned int kind, const std::string& body) {
    Input_ input(body);
    Output_ output;
    switch (kind) {
        case 'K':
            connectPeers(input, output);
            break;
        case 'E':
            decodeElement(input, output);
            break;
        case 'M':
            receiveMessage(input, output);
            break;
        case 'W':
            sendMessage(input, output);
            break;
        case 'S':
            acceptStream(input, output);
            break;
        case 'O':
            openStream(input, output);
            break;
        case 'N':
            sendName(input, output);
            break;
        default:
            throw std::runtime_error("a case of no kind");
    }
    m_records.moveTo(output);
    return output.bytes();
}

/// K: text*, the names of the peers. The first is the one that messages come from.
void CodecPipe_::connectPeers(Input_& names, Output_&) {
    while (!names.isAtEnd()) {
        const std::string name = names.text();
        m_peers.emplace_back(m_address);
        m_peers.back().write(wire::nameBlock(name));
        if (!m_own.workUntil([&] { return m_own.isConnected(name); })) throw std::runtime_error("no " + name);
    }
}

SP_VekMessage_ CodecPipe_::newMessage() {
    SP_VekMessage_ sp_message;
    if (!m_own.terminal().createMessage(sp_message)) throw std::runtime_error("no message");
    return sp_message;
}

/// Whether the payload looks good, and the optional tree.
void CodecPipe_::renderPayload(Output_& output, const SP_VekMessage_& sp_message) {
    output.u8(sp_message->hasGoodPayload());
    const SP_VekmsgElement_ sp_element = sp_message->getPayload();
    output.u8(!sp_element.isNull());
    if (sp_element.isNull()) return;
    m_records.ignore();
    renderTree(output, *sp_element);
    m_records.listen();
}

/// E: the bytes of a payload. The answer is what renderPayload() gives.
void CodecPipe_::decodeElement(Input_& input, Output_& output) {
    const SP_VekMessage_ sp_message = newMessage();
    sp_message->setRawPayload(
        tightBufferOf(input.rest(), 1));  // some room, so that no bytes have a place, too
    renderPayload(output, sp_message);
}

void CodecPipe_::renderArrived(Output_& output) {
    Output_ arrived;
    unsigned int count = 0;
    for (std::size_t i = 0; i < m_peers.size(); ++i) {
        if (m_peers[i].isQuiet()) continue;
        arrived.u8(static_cast<unsigned int>(i));
        arrived.text(m_peers[i].readArrived());
        ++count;
    }
    output.u32(count);
    output.append(arrived.bytes());
}

/// M: a message, which comes from the first peer and, when it is given to the application, is sent to the
/// second one with its payload decoded. The answer is an optional fields, raw-payload:text, payload and
/// is-sent:8, and arrived.
void CodecPipe_::receiveMessage(Input_& input, Output_& output) {
    m_peers.front().write(wire::block(2, input.rest()));
    const SP_VekMessage_ sp_message = m_own.receive();
    output.u8(!sp_message.isNull());
    if (!sp_message.isNull()) {
        renderFields(output, *sp_message);
        output.text(bytesOf(sp_message->getRawPayload()));
        renderPayload(output, sp_message);
        sp_message->setDestination(utf8("abc"));
        output.u8(m_own.terminal().sendMessage(sp_message));
    }
    renderArrived(output);
}

/// W: fields and tree, a message that is sent. The answer is is-sent:8 and arrived.
void CodecPipe_::sendMessage(Input_& input, Output_& output) {
    const SP_VekMessage_ sp_message = newMessage();
    sp_message->setDestination(utf8(input.text()));
    sp_message->setSource(utf8(input.text()));
    sp_message->setTimeToLive(input.u32());
    sp_message->setPayloadSchema(utf8(input.text()), VekMessage_::SCHEMA_URI);
    sp_message->setPayload(builtTree(input, *sp_message));
    output.u8(m_own.terminal().sendMessage(sp_message));
    renderArrived(output);
}

void CodecPipe_::renderReceived(Output_& output, unsigned int& count) {
    do {
        for (SP_VekMessage_ sp_message = m_own.receive(); !sp_message.isNull();
             sp_message = m_own.receive()) {
            renderFields(output, *sp_message);
            output.text(bytesOf(sp_message->getRawPayload()));
            ++count;
        }
    } while (m_own.terminal().waitForMessage(0) == VekmsgTerminal_::WAIT_MESSAGE);
}

/// Whether the terminal has no connections but those with the peers.
bool CodecPipe_::isAlone() {
    pollfd entries[64];
    unsigned int count = 64;
    return m_own.terminal().fillPollFdArray(entries, count) && count == m_peers.size() + 1;
}

/// S: piece:32 and all bytes of a new connection, which are written in pieces of that size. The answer is
/// count:32 and as many fields with raw-payload:text, then is-closed:8 before the end of the stream is
/// written, and arrived.
void CodecPipe_::acceptStream(Input_& input, Output_& output) {
    readStream(input, output, RawPeer_(m_address));
}

/// O: the same on a connection that the terminal opens by sending something. The answer begins with the name
/// block and the message block as text.
void CodecPipe_::openStream(Input_& input, Output_& output) {
    if (!m_own.send("listener", "", 0)) throw std::runtime_error("nothing sent");
    RawPeer_ peer = m_listener.accept();
    const std::string nameBlock = peer.readBlock();
    output.text(nameBlock + peer.readBlock());
    readStream(input, output, std::move(peer));
}

void CodecPipe_::readStream(Input_& input, Output_& output, RawPeer_ peer) {
    const std::size_t piece = input.u32();
    const std::string stream = input.rest();
    Output_ received;
    unsigned int count = 0;
    renderReceived(received, count);  // accepts it
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        if (!peer.isQuiet()) break;  // refused already: it would not take more
        peer.write(stream.substr(at, piece));
        renderReceived(received, count);
    }
    const bool isClosed = peer.isAtEnd(0);
    peer.close();
    for (int tries = 0; tries < 1000 && !isAlone(); ++tries) renderReceived(received, count);
    if (!isAlone()) throw std::runtime_error("a stream has not ended");
    output.u32(count);
    output.append(received.bytes());
    output.u8(isClosed);
    renderArrived(output);
}

/// N: the name of a component that sends something to a listener. The answer is the first block there as
/// text.
void CodecPipe_::sendName(Input_& input, Output_& output) {
    m_records.ignore();
    Station_ sender(input.rest(), m_directory);
    if (!sender.send("listener", "", 0)) throw std::runtime_error("nothing sent");
    output.text(m_listener.accept().readBlock());
    m_records.listen();
}

std::string readBytes(std::size_t size) {
    std::string bytes(size, '\0');
    bytes.resize(std::fread(&bytes[0], 1, size, stdin));
    return bytes;
}

bool answerBatch(CodecPipe_& pipe) {
    const std::string length = readBytes(4);
    if (length.size() < 4) return false;
    Input_ batch(readBytes(Input_(length).u32()));
    Output_ answers;
    while (!batch.isAtEnd()) {
        const unsigned int kind = batch.u8();
        answers.text(pipe.answer(kind, batch.text()));
    }
    Output_ output;
    output.text(answers.bytes());
    std::fwrite(output.bytes().data(), 1, output.bytes().size(), stdout);
    return std::fflush(stdout) == 0;
}

}  // namespace

int main() {
    CodecPipe_ pipe;
    while (answerBatch(pipe)) {
    }
    return 0;
}
