#include "terminal/installation.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "foundation/utf8_name.h"
#include "support/allocation_failure.h"
#include "support/child_process.h"

namespace {

constexpr int kPatienceMs = 5000;

union Native_ {
    sockaddr m_any;
    sockaddr_un m_local;
    sockaddr_in m_inet;
};

/// Takes "local://PATH" or "inettcp://127.0.0.1:PORT" apart. The size of the native address.
socklen_t fill(Native_& native, const std::string& address) {
    std::memset(&native, 0, sizeof(native));
    const std::string localScheme = "local://";
    if (address.compare(0, localScheme.size(), localScheme) == 0) {
        native.m_local.sun_family = AF_UNIX;
        const std::string path = address.substr(localScheme.size());
        std::memcpy(native.m_local.sun_path, path.c_str(), path.size() + 1);
        return sizeof(native.m_local);
    }
    native.m_inet.sin_family = AF_INET;
    native.m_inet.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    native.m_inet.sin_port =
        htons(static_cast<std::uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
    return sizeof(native.m_inet);
}

bool isReadable(int descriptor, int limitMs) {
    pollfd entry = {descriptor, POLLIN, 0};
    return ::poll(&entry, 1, limitMs) == 1;
}

Bytes_ number16(unsigned int number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

}  // namespace

SP_VekmsgConnection_ TestTerminal_::active(const std::string& peerName) const {
    for (const SP_VekmsgConnection_& sp_connection : m_activeConnections) {
        if (text(sp_connection->getPeerName()->c_str()) == peerName) return sp_connection;
    }
    return SP_VekmsgConnection_();
}

SP_TestConnection_ TestTerminal_::addActive(const std::string& peerName) {
    SP_TestConnection_ sp_connection(new TestConnection_);
    sp_connection->setMyName(m_sp_componentName);
    sp_connection->setPeerName(name(peerName));
    m_activeConnections.insert(sp_connection);
    return sp_connection;
}

SP_VekmsgFilter_ filterOf(const FilterOf_::Process_& process) {
    return SP_VekmsgFilter_(new FilterOf_(process));
}

RawPeer_::RawPeer_(const std::string& address) {
    Native_ native;
    const socklen_t length = fill(native, address);
    m_descriptor = ::socket(native.m_any.sa_family, SOCK_STREAM, 0);
    if (m_descriptor < 0 || ::connect(m_descriptor, &native.m_any, length) != 0)
        throw std::runtime_error("cannot reach " + address);
}

void RawPeer_::write(const Bytes_& bytes) {
    if (::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<long>(bytes.size()))
        throw std::runtime_error("a raw peer cannot write");
}

Bytes_ RawPeer_::read(std::size_t count) {
    Bytes_ bytes;
    std::vector<char> piece(count);
    while (bytes.size() < count && isReadable(m_descriptor, kPatienceMs)) {
        const auto length = ::recv(m_descriptor, piece.data(), count - bytes.size(), 0);
        if (length <= 0) break;
        bytes.append(piece.data(), static_cast<std::size_t>(length));
    }
    return bytes;
}

Bytes_ RawPeer_::readBlock() {
    const Bytes_ header = read(4);
    if (header.size() < 4) return header;
    const auto high = static_cast<unsigned char>(header[2]);
    const auto low = static_cast<unsigned char>(header[3]);
    return header + read(static_cast<std::size_t>(high) << 8 | low);
}

bool RawPeer_::isAtEnd() {
    char byte = 0;
    return isReadable(m_descriptor, kPatienceMs) && ::recv(m_descriptor, &byte, 1, 0) <= 0;
}

bool RawPeer_::isQuiet() {
    return !isReadable(m_descriptor, 0);
}

void RawPeer_::close() {
    if (m_descriptor != -1) ::close(m_descriptor);
    m_descriptor = -1;
}

RawListener_::RawListener_(const std::string& address, int backlog) {
    Native_ native;
    const socklen_t length = fill(native, address);
    const int on = 1;
    m_descriptor = ::socket(native.m_any.sa_family, SOCK_STREAM, 0);
    ::setsockopt(m_descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (m_descriptor < 0 || ::bind(m_descriptor, &native.m_any, length) != 0 ||
        ::listen(m_descriptor, backlog) != 0)
        throw std::runtime_error("cannot listen on " + address);
}

RawListener_::~RawListener_() {
    ::close(m_descriptor);
}

RawPeer_ RawListener_::accept() {
    if (!isReadable(m_descriptor, kPatienceMs)) throw std::runtime_error("nobody connects");
    return RawPeer_(::accept(m_descriptor, nullptr, nullptr));
}

const Utf8Char_* utf8(const std::string& text) {
    return reinterpret_cast<const Utf8Char_*>(text.c_str());
}

std::string text(const Utf8Char_* p_text) {
    return reinterpret_cast<const char*>(p_text);
}

SP_Utf8String_ name(const std::string& text) {
    return createUtf8String(utf8(text), text.size());
}

Bytes_ item(unsigned int tag, unsigned int type, const Bytes_& value) {
    return number16(tag) + number16(type) + number16(static_cast<unsigned int>(value.size())) + value;
}

Bytes_ block(unsigned int type, const Bytes_& payload) {
    return number16(type) + number16(static_cast<unsigned int>(payload.size())) + payload;
}

Bytes_ nameBlock(const std::string& name) {
    return block(1, name + '\0');
}

SP_BasicBuffer_ bufferOf(const Bytes_& bytes) {
    SP_BasicBuffer_ sp_buffer(new BasicBuffer_(VekmsgConnection_::kBlockBufferSize));
    sp_buffer->setDataArea(0, static_cast<unsigned int>(bytes.size()));
    std::memcpy(sp_buffer->data(), bytes.data(), bytes.size());
    return sp_buffer;
}

Bytes_ bytesOf(const SP_BasicBuffer_& sp_buffer) {
    return Bytes_(reinterpret_cast<const char*>(sp_buffer->data()), sp_buffer->dataLength());
}

SP_VekMessage_ messageTo(const std::string& destination, unsigned int number, const std::string& schema) {
    SP_VekMessage_ sp_message(new VekMessageBinary_);
    sp_message->setDestination(utf8(destination));
    sp_message->setPayloadSchema(utf8(schema), VekMessage_::SCHEMA_LITERAL);
    const SP_VekmsgElement_ sp_payload = sp_message->createElement(9);
    sp_payload->setValue(number);
    sp_message->setPayload(sp_payload);
    return sp_message;
}

unsigned int numberIn(const SP_VekMessage_& sp_message) {
    unsigned int number = 0;
    const SP_VekmsgElement_ sp_payload = sp_message ? sp_message->getPayload() : SP_VekmsgElement_();
    if (!sp_payload || !sp_payload->getValue(number)) throw std::runtime_error("no number in the message");
    return number;
}

Bytes_ messageBlock(const std::string& destination, const std::string& source, unsigned int number,
                    unsigned int timeToLive, const std::string& schema) {
    const SP_VekMessageBinary_ sp_message = messageTo(destination, number, schema);
    sp_message->setSource(utf8(source));
    sp_message->setTimeToLive(timeToLive);
    SP_BasicBuffer_ sp_buffer;
    sp_message->serialize(sp_buffer);
    return block(2, bytesOf(sp_buffer));
}

SP_VekMessage_ receiveAt(TestTerminal_& terminal) {
    SP_VekMessage_ sp_message;
    eventually([&] { return terminal.receiveMessage(sp_message) && sp_message; });
    return sp_message;
}

std::vector<unsigned int> numbersAt(TestTerminal_& terminal) {
    std::vector<unsigned int> numbers;
    SP_VekMessage_ sp_message;
    while (terminal.receiveMessage(sp_message) && sp_message) numbers.push_back(numberIn(sp_message));
    return numbers;
}

std::vector<std::string> Installation_::locals(const std::vector<std::string>& components) const {
    std::vector<std::string> lines;
    for (const std::string& component : components) lines.push_back(local(component) + " " + component);
    return lines;
}

Terminal_ Installation_::open(const std::string& component, const std::vector<std::string>& lines) {
    Terminal_ terminal(new TestTerminal_);
    if (!terminal->open(utf8(component), directory(component, lines).c_str()))
        throw std::runtime_error(component + " does not open");
    m_records.take();
    return terminal;
}

Terminal_ Installation_::openLocal(const std::string& component, std::vector<std::string> others) {
    others.insert(others.begin(), component);
    return open(component, locals(others));
}

Outcomes_ Installation_::failEachAllocation(const std::function<Call_()>& prepare) {
    Outcomes_ outcomes;
    bool hasStruck = true;
    for (unsigned int number = 1; hasStruck; ++number) {
        inFreshThread([&] {
            const Call_ call = prepare();
            m_records.take();
            AllocationFailure_ failure(number);
            const bool result = call();
            hasStruck = failure.hasStruck();
            if (hasStruck) outcomes.push_back(Outcome_{result, m_records.take()});
        });
    }
    return outcomes;
}

std::ostream& operator<<(std::ostream& stream, const Outcome_& outcome) {
    return stream << (outcome.m_result ? "true " : "false ") << testing::PrintToString(outcome.m_records);
}

bool contains(const Outcomes_& outcomes, const Outcome_& outcome) {
    return std::find(outcomes.begin(), outcomes.end(), outcome) != outcomes.end();
}
