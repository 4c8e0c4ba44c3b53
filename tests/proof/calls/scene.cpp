#include "proof/calls/scene.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <sstream>

#include "proof/calls/witness.h"
#include "support/child_process.h"
#include "support/utf8_text.h"
#include "support/wire_bytes.h"

namespace {

constexpr char kSchema[] = "numbers";

/// Addresses of this process alone in the loopback network, so that its ports are nobody else's.
std::string ownHost() {
    const auto id = static_cast<unsigned int>(getpid());
    return "127." + std::to_string(1 + id / 62500 % 250) + '.' + std::to_string(1 + id / 250 % 250) + '.' +
           std::to_string(1 + id % 250);
}

/// Each scene has ports of its own: behind streams that the library has closed, one stays occupied for a
/// while, and an address must be free even where the library cannot reuse it. They lie below those that the
/// kernel gives away.
unsigned int nextPort() {
    constexpr unsigned int first = 10000;
    constexpr unsigned int last = 31000;
    static unsigned int s_port = first;
    s_port = s_port + 3 < last ? s_port + 3 : first;
    return s_port;
}

std::string shown(const Records_& records) {
    std::ostringstream text;
    for (const Record_& record : records) text << "\n        " << record;
    return records.empty() ? " none" : text.str();
}

/// Most of what is waited for is there after a pass or two.
bool soon(const std::function<bool()>& condition) {
    for (unsigned int i = 0; i < 4; ++i)
        if (condition()) return true;
    return eventually(condition);
}

unsigned int numberIn(const SP_VekMessage_& sp_message) {
    const SP_VekmsgElement_ sp_payload = sp_message->getPayload();
    unsigned int number = 0;
    return !sp_payload.isNull() && sp_payload->getValue(number) ? number : 0;
}

}  // namespace

bool Failure_::isTransient() const {
    return m_error == EINTR || m_error == EAGAIN;
}

std::string Failure_::text() const {
    return "error(" + std::to_string(m_error) + "): " + std::strerror(m_error);
}

std::string Failure_::plainText() const {
    return "error(" + std::to_string(m_error) + ") " + std::strerror(m_error);
}

Scene_::Scene_(Transport_ transport, Verdict_& verdict)
    : m_transport(transport), m_verdict(verdict), m_port(nextPort()) {
    m_calls.concernOnly("libvekmsg.so");
    m_calls.setWitness(noteCall);
    m_calls.stopClock(1000, 0);
    m_listener = std::make_unique<RawListener_>(peer());
    writeDirectory({peer() + " peer"});
}

// Streams are reset, so that a port is free at once for the next case.
Scene_::~Scene_() {
    for (auto* p_stream : {&m_peerStream, &m_guest, &m_visitor})
        if (*p_stream) (*p_stream)->resetOnClose();
}

std::string Scene_::address(const std::string& name) const {
    if (!isTcp()) return m_folder.localAddress(name);
    const unsigned int number = name == "here" ? 0 : name == "peer" ? 1 : 2;
    return "inettcp://" + ownHost() + ':' + std::to_string(m_port + number);
}

void Scene_::writeDirectory(const std::vector<std::string>& lines) {
    std::vector<std::string> all = {m_folder.localAddress("default"), own() + " here"};
    all.insert(all.end(), lines.begin(), lines.end());
    m_folder.writeFile("directory", all);
}

void Scene_::expectRecords(const std::string& step, const Records_& records) {
    const Records_ taken = m_records->take();
    if (taken == records) return;
    m_verdict.expect(false,
                     step + ": expected records:" + shown(records) + "\n      but got:" + shown(taken));
}

bool Scene_::open() {
    m_isOpen = m_terminal.open(utf8("here"), directoryPath().c_str());
    return m_isOpen;
}

void Scene_::close() {
    m_terminal.close();
    m_isOpen = false;
}

Record_ Scene_::listening() const {
    return information(kOpenOwn, "here is listening on " + own());
}

void Scene_::opened() {
    expect(open(), "open succeeds");
    expectRecords("open", {listening()});
}

bool Scene_::pass() {
    SP_VekMessage_ sp_message;
    const bool result = m_terminal.receiveMessage(sp_message);
    if (!sp_message.isNull()) m_received.push_back(numberIn(sp_message));
    return result;
}

bool Scene_::receives(unsigned int number) {
    const bool isHere = soon([&] { return !m_received.empty() || !pass() || !m_received.empty(); });
    const bool isRight = isHere && m_received == std::vector<unsigned int>{number};
    m_received.clear();
    return isRight;
}

bool Scene_::send() {
    SP_VekMessage_ sp_message;
    m_terminal.createMessage(sp_message);
    const SP_VekmsgElement_ sp_element = sp_message->createElement(1);
    sp_element->setValue(++m_number);
    sp_message->setDestination(utf8("peer"));
    sp_message->setPayloadSchema(utf8(kSchema), VekMessage_::SCHEMA_LITERAL);
    sp_message->setPayload(sp_element);
    return m_terminal.sendMessage(sp_message);
}

std::string Scene_::blockOf(const std::string& destination, const std::string& source,
                            unsigned int number) const {
    return wire::messageBlock(wire::header(destination, source, 3, kSchema) +
                              wire::element(1, wire::Uint, wire::u32(number)));
}

void Scene_::reset(std::optional<RawPeer_>& stream, RawPeer_ fresh) {
    stream.reset();
    stream.emplace(std::move(fresh));
}

RawPeer_& Scene_::guest() {
    reset(m_guest, RawPeer_(own()));
    return *m_guest;
}

/// What was written has arrived, so that the next pass finds it.
void Scene_::guestWrites(const std::string& bytes) {
    m_guest->write(bytes);
    if (isTcp()) expect(m_guest->isAcknowledged(), "what the guest writes arrives");
}

void Scene_::guestIsRead() {
    const unsigned int before = m_calls.count(SystemCalls_::Recv);
    const auto isRead = [&] { return !pass() || m_calls.count(SystemCalls_::Recv) != before; };
    expect(soon(isRead) && pass(), "the guest is read");
}

std::string Scene_::nextBlock(const std::string& destination) {
    return blockOf(destination, guestName(), ++m_number);
}

void Scene_::guestArrives(const std::string& name) {
    guest().write(wire::nameBlock(name) + blockOf("here", name, ++m_number));
    expect(receives(m_number), "the guest is heard");
}

bool Scene_::guestGets() {
    const std::string block = blockOf("peer", "here", m_number);
    std::string bytes;
    const bool isHere = soon([&] {
        expect(pass(), "a pass succeeds");
        bytes += m_guest->readArrived();
        return bytes.size() >= block.size() || !m_verdict.isGood();
    });
    return isHere && bytes == block && m_guest->isQuiet();
}

bool Scene_::acceptPeerStream() {
    try {
        reset(m_peerStream, m_listener->accept(0));
    } catch (const std::exception&) {
        return false;  // nobody is waiting
    }
    m_peerBytes.clear();
    m_isStreamNew = true;
    return true;
}

void Scene_::peerTakesStream() {
    expect(soon([&] { return acceptPeerStream(); }), "the peer takes the stream");
}

bool Scene_::peerGets(const std::string& bytes, bool isNew) {
    const bool isHere = soon([&] {
        expect(pass(), "a pass succeeds");
        while (isNew && acceptPeerStream()) continue;
        if (m_peerStream && m_isStreamNew == isNew) m_peerBytes += m_peerStream->readArrived();
        return m_peerBytes.size() >= bytes.size() || !m_verdict.isGood();
    });
    const bool isRight = isHere && m_peerBytes == bytes && m_peerStream->isQuiet();
    m_peerBytes.clear();
    m_isStreamNew = false;
    return isRight;
}

bool Scene_::peerGetsOnNewStream(const std::vector<unsigned int>& numbers) {
    std::string bytes = wire::nameBlock("here");
    for (const unsigned int number : numbers) bytes += blockOf("peer", "here", number);
    return peerGets(bytes, true);
}

bool Scene_::peerGets() {
    return m_peerStream && peerGets(blockOf("peer", "here", m_number), false);
}

void Scene_::established() {
    expect(send(), "a message is taken");
    expect(peerGetsOnNewStream(), "the peer gets it");
    expectNoRecords("establishing");
}

void Scene_::works(bool onOldStream) {
    if (!m_isOpen) opened();
    const std::string name = "visitor" + std::to_string(++m_visitors);
    reset(m_visitor, RawPeer_(own()));
    m_visitor->write(wire::nameBlock(name) + blockOf("here", name, ++m_number));
    expect(receives(m_number), "afterwards a guest is heard");
    expect(send(), "afterwards a message is taken");
    expect(onOldStream ? peerGets() : peerGetsOnNewStream(), "afterwards the peer gets a message");
    expectNoRecords("working afterwards");
}
