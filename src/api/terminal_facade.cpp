// The public terminal: guards every operation against use before open, and forwards. It decides nothing else.

#include <cstdarg>
#include <utility>

#include "api/terminal_handles.h"
#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/utf8_name.h"
#include "terminal/terminal_impl.h"
#include "vekmsg/terminal.h"

namespace {

VekmsgTerminalImpl_* implementationOf(void* p_terminal) {
    return static_cast<VekmsgTerminalImpl_*>(VekmsgTerminal_::getImplementation(p_terminal));
}

}  // namespace

VekmsgTerminal_* createVekmsgTerminal() {
    return new (std::nothrow) VekmsgTerminal_;
}

VekmsgTerminal_::~VekmsgTerminal_() {
    VekmsgTerminal_::close();
}

void* VekmsgTerminal_::getImplementation(void* p_terminal) {
    return p_terminal != nullptr ? static_cast<VekmsgTerminal_*>(p_terminal)->m_p_implementation : nullptr;
}

bool VekmsgTerminal_::open(const unsigned char* p_componentName, const char* p_directoryPath) {
    if (m_p_implementation == nullptr) m_p_implementation = new (std::nothrow) VekmsgTerminalImpl_;
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::open() can't create vekmsgTerminalImpl_");
        return false;
    }
    return m_p_implementation->open(p_componentName, p_directoryPath);
}

void VekmsgTerminal_::close() {
    if (m_p_implementation == nullptr) return;
    m_p_implementation->close();
    delete m_p_implementation;
    m_p_implementation = nullptr;
}

[[gnu::hot]] bool VekmsgTerminal_::createMessage(SmartPointer_<VekMessage_>& sp_message) {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::createMessage() not open yet");
        return false;
    }
    return m_p_implementation->createMessage(sp_message);
}

[[gnu::hot]] bool VekmsgTerminal_::sendMessage(SmartPointer_<VekMessage_> sp_message) {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::sendMessage() not open yet");
        return false;
    }
    return m_p_implementation->sendMessage(std::move(sp_message));
}

[[gnu::hot]] bool VekmsgTerminal_::receiveMessage(SmartPointer_<VekMessage_>& sp_message) {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::receiveMessage() not open yet");
        return false;
    }
    return m_p_implementation->receiveMessage(sp_message);
}

bool VekmsgTerminal_::isConnected(const unsigned char* p_componentName) const {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::isConnected() not open yet");
        return false;
    }
    return m_p_implementation->isConnected(p_componentName);
}

[[gnu::hot]] VekmsgTerminal_::WaitResult_ VekmsgTerminal_::waitForMessage(unsigned int timeout) {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::waitForMessage() not open yet");
        return WAIT_ERROR;
    }
    return m_p_implementation->waitForMessage(timeout);
}

bool VekmsgTerminal_::fillPollFdArray(pollfd* p_pollFd, unsigned int& count) {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::fillPollFdArray() not open yet");
        return false;
    }
    return m_p_implementation->fillPollFdArray(p_pollFd, count);
}

bool VekmsgTerminal_::setSendFilter(SmartPointer_<VekmsgFilter_> sp_filter) {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::setSendFilter() not open yet");
        return false;
    }
    return m_p_implementation->setSendFilter(std::move(sp_filter));
}

bool VekmsgTerminal_::setReceiveFilter(SmartPointer_<VekmsgFilter_> sp_filter) {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::setReceiveFilter() not open yet");
        return false;
    }
    return m_p_implementation->setReceiveFilter(std::move(sp_filter));
}

bool VekmsgTerminal_::CreateMessagePrinter(std::ostream* p_ostrm, const char* p_note,
                                           SmartPointer_<VekmsgFilter_>& sp_filter) {
    if (m_p_implementation == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::CreateMessagePrinter() not open yet");
        return false;
    }
    return m_p_implementation->CreateMessagePrinter(p_ostrm, p_note, sp_filter);
}

bool VekmsgTerminal_::sendRawPayload(const unsigned char* p_destination, const unsigned char* p_schema,
                                     SmartPointer_<BasicBuffer_> sp_payload) try {
    SP_VekMessage_ sp_message;
    if (!createMessage(sp_message) || !sp_message->setDestination(p_destination) ||
        !sp_message->setPayloadSchema(p_schema, VekMessage_::SCHEMA_LITERAL))
        return false;
    // A plain buffer is no element: the cast finds none, and the message goes without a payload.
    sp_message->setPayload(SP_VekmsgElement_(sp_payload));
    return sendMessage(sp_message);
}
VEKMSG_RETURN_ON_EXCEPTION(false)

bool VekmsgTerminal_::receiveRawPayload(SmartPointer_<Utf8String_>& sp_source,
                                        SmartPointer_<Utf8String_>& sp_schema,
                                        SmartPointer_<BasicBuffer_>& sp_payload) try {
    sp_source = createUtf8String();
    sp_schema = createUtf8String();
    if (!sp_source || !sp_schema) {
        VEKMSG_LOG_ERROR("VekmsgTerminal_::receiveRawPayload() can't create Utf8String_");
        return false;
    }
    SP_VekMessage_ sp_message;
    if (!receiveMessage(sp_message)) return false;
    if (!sp_message) return true;
    // A filter may have put a message of another class in place, without these texts.
    if (const Utf8Char_* p_source = sp_message->getSource()) *sp_source = p_source;
    if (const Utf8Char_* p_schema = sp_message->getPayloadSchema()) *sp_schema = p_schema;
    sp_payload = sp_message->getRawPayload();
    return true;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

VekmsgTerminal_::PollResult_ VekmsgTerminal_::pollFd(pollfd* p_pollFd, unsigned int count,
                                                     unsigned int timeout, ...) {
    va_list terminals;
    va_start(terminals, timeout);
    const PollResult_ result = pollTerminals(p_pollFd, count, timeout, implementationOf, terminals);
    va_end(terminals);
    return result;
}
