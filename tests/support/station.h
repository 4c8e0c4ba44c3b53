#ifndef VEKMSG_TESTS_STATION_H
#define VEKMSG_TESTS_STATION_H

#include <functional>
#include <stdexcept>
#include <string>

#include "support/utf8_text.h"
#include "vekmsg/vekmsg.h"

/// An open terminal, with the calls that tests make again and again.
class Station_ {
public:
    Station_(const std::string& name, const std::string& directory) {
        if (!m_terminal.open(utf8(name), directory.c_str())) throw std::runtime_error("no terminal " + name);
    }
    ~Station_() { m_terminal.close(); }
    Station_(const Station_&) = delete;
    Station_& operator=(const Station_&) = delete;

    VekmsgTerminal_& terminal() { return m_terminal; }

    /// A message with `number` under tag 1 as its payload.
    SP_VekMessage_ message(const std::string& destination, const std::string& schema, unsigned int number) {
        SP_VekMessage_ sp_message;
        if (!m_terminal.createMessage(sp_message)) throw std::runtime_error("no message");
        const SP_VekmsgElement_ sp_element = sp_message->createElement(1);
        sp_element->setValue(number);
        sp_message->setDestination(utf8(destination));
        sp_message->setPayloadSchema(utf8(schema), VekMessage_::SCHEMA_LITERAL);
        sp_message->setPayload(sp_element);
        return sp_message;
    }

    bool send(const std::string& destination, const std::string& schema, unsigned int number) {
        return m_terminal.sendMessage(message(destination, schema, number));
    }

    /// The next message, or null when there is none now.
    SP_VekMessage_ receive() {
        SP_VekMessage_ sp_message;
        if (!m_terminal.receiveMessage(sp_message)) throw std::runtime_error("receiveMessage failed");
        return sp_message;
    }

    /// Waits for the next message; null when none has come after `slices` waits of 10 ms.
    SP_VekMessage_ await(unsigned int slices = 1000) {
        for (unsigned int i = 0; i < slices; ++i) {
            const SP_VekMessage_ sp_message = receive();
            if (!sp_message.isNull()) return sp_message;
            m_terminal.waitForMessage(10);
        }
        return SP_VekMessage_();
    }

    /// Works until `condition` holds; false when it does not after `slices` waits of 10 ms. Messages that
    /// come meanwhile stay with the terminal.
    bool workUntil(const std::function<bool()>& condition, unsigned int slices = 1000) {
        for (unsigned int i = 0; i < slices; ++i) {
            if (condition()) return true;
            m_terminal.waitForMessage(10);
        }
        return false;
    }

    bool isConnected(const std::string& name) const { return m_terminal.isConnected(utf8(name)); }

    /// The number in the payload, or -1.
    static long numberIn(const SP_VekMessage_& sp_message) {
        const SP_VekmsgElement_ sp_payload = sp_message->getPayload();
        unsigned int number = 0;
        return !sp_payload.isNull() && sp_payload->getValue(number) ? static_cast<long>(number) : -1;
    }

private:
    VekmsgTerminal_ m_terminal;
};

#endif
