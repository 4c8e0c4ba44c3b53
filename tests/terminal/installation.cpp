#include "terminal/installation.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "foundation/utf8_name.h"
#include "support/allocation_failure.h"
#include "support/child_process.h"

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

std::string text(const Utf8Char_* p_text) {
    return reinterpret_cast<const char*>(p_text);
}

SP_Utf8String_ name(const std::string& text) {
    return createUtf8String(utf8(text), text.size());
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
    return wire::messageBlock(bytesOf(sp_buffer));
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
