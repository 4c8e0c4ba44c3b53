#include "demo.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#ifndef VEKMSG_DEMO_SAMPLE  // a test builds a sensor that measures something else, to see the demo fail
#define VEKMSG_DEMO_SAMPLE 2150
#endif

namespace demo {

namespace {

enum Tag_ : VekmsgTag_ {
    TAG_REQUEST = 100,
    TAG_QUANTITY,
    TAG_SAMPLES,
    TAG_IS_CALIBRATED,
    TAG_KEY,
    TAG_RANGE,
    TAG_LOW,
    TAG_HIGH,
    TAG_READING = 200,
    TAG_UNIT,
    TAG_SERIAL,
    TAG_SAMPLE,
    TAG_TEXT = 300,
    TAG_RECEIPT = 400,
    TAG_SOURCE,
    TAG_TIME_TO_LIVE
};

constexpr unsigned char KEY[] = {0xC0, 0xFF, 0x00, 0x11};
constexpr unsigned char SERIAL[] = {'V', 'K', 0, 1, 2, 3, 4, 5, 6, 7, 0xFE, 0xFF};
constexpr unsigned int SAMPLES[] = {VEKMSG_DEMO_SAMPLE, 2151, 4294967295U};

/// What a look at a sub-element gave; says so when there is none with this tag and type.
bool isFound(bool found, VekmsgTag_ tag) {
    if (!found) std::cerr << "mismatch: nothing fitting under tag " << tag << std::endl;
    return found;
}

bool holds(const VekmsgElement_& element, VekmsgTag_ tag, unsigned int expected) {
    unsigned int actual = 0;
    return isFound(element.getSubElementValue(tag, actual), tag) && isEqual("a number", actual, expected);
}

bool holds(const VekmsgElement_& element, VekmsgTag_ tag, bool expected) {
    bool actual = !expected;
    return isFound(element.getSubElementValue(tag, actual), tag) && isEqual("a boolean", actual, expected);
}

bool holds(const VekmsgElement_& element, VekmsgTag_ tag, const char* p_expected) {
    const Utf8Char_* p_actual = nullptr;
    return isFound(element.getSubElementValue(tag, p_actual), tag) && isEqual("a text", p_actual, p_expected);
}

template <unsigned int length>
bool holds(const VekmsgElement_& element, VekmsgTag_ tag, const unsigned char (&expected)[length]) {
    const unsigned char* p_actual = nullptr;
    unsigned int actualLength = 0;
    return isFound(element.getSubElementValue(tag, p_actual, actualLength), tag) &&
           isEqual("a length", actualLength, length) &&
           isEqual("bytes (0: equal)", std::memcmp(p_actual, expected, length) != 0, 0);
}

bool hasSubElements(const SP_VekmsgElement_& sp_element, unsigned int expected) {
    unsigned int actual = 0;
    if (!sp_element->querySubelements(VEKMSGTAG_ANY)) return false;
    while (sp_element->getNextSubelement()) ++actual;
    sp_element->endQuerySubelements();
    return isEqual("the number of sub-elements", actual, expected);
}

/// The payload, if its root has this tag; null otherwise.
SP_VekmsgElement_ root(VekMessage_& message, VekmsgTag_ tag) {
    const SP_VekmsgElement_ sp_root = message.getPayload();
    return sp_root && isEqual("the root's tag", sp_root->getTag(), tag) ? sp_root : SP_VekmsgElement_();
}

bool addSamples(const VekMessage_& message, VekmsgElement_& reading) {
    for (const unsigned int sample : SAMPLES) {
        const SP_VekmsgElement_ sp_sample = message.createElement(TAG_SAMPLE);
        if (!sp_sample || !sp_sample->setValue(sample) || !reading.addSubelements(sp_sample)) return false;
    }
    return true;
}

bool hasSamples(VekmsgElement_& reading) {
    if (!reading.querySubelements(TAG_SAMPLE)) return false;
    for (const unsigned int expected : SAMPLES) {
        const SP_VekmsgElement_ sp_sample = reading.getNextSubelement();
        unsigned int actual = 0;
        if (!sp_sample || !sp_sample->getValue(actual) || !isEqual("a sample", actual, expected))
            return false;
    }
    return true;
}

}  // namespace

bool isEqual(const char* p_what, unsigned int actual, unsigned int expected) {
    if (actual == expected) return true;
    std::cerr << "mismatch: " << p_what << " is " << actual << " and not " << expected << std::endl;
    return false;
}

bool isEqual(const char* p_what, const Utf8Char_* p_actual, const char* p_expected) {
    const char* p_text = p_actual != nullptr ? reinterpret_cast<const char*>(p_actual) : "";
    if (std::strcmp(p_text, p_expected) == 0) return true;
    std::cerr << "mismatch: " << p_what << " is \"" << p_text << "\" and not \"" << p_expected << '"'
              << std::endl;
    return false;
}

bool isFramed(const VekMessage_& message, const Frame_& expected) {
    return isEqual("the source", message.getSource(), expected.m_p_source) &&
           isEqual("the destination", message.getDestination(), expected.m_p_destination) &&
           isEqual("the schema", message.getPayloadSchema(), expected.m_p_schema) &&
           isEqual("the time-to-live", message.getTimeToLive(), expected.m_timeToLive);
}

bool hasSchema(const VekMessage_& message, const char* p_schema) {
    return std::strcmp(reinterpret_cast<const char*>(message.getPayloadSchema()), p_schema) == 0;
}

bool fillRequest(VekMessage_& message) {
    const SP_VekmsgElement_ sp_root = message.createElement(TAG_REQUEST);
    const SP_VekmsgElement_ sp_range = message.createElement(TAG_RANGE);
    return sp_root && sp_range && sp_range->setSubElementValue(TAG_LOW, 0U) &&
           sp_range->setSubElementValue(TAG_HIGH, 40U) && sp_root->addSubelements(sp_range) &&
           sp_root->setSubElementValue(TAG_QUANTITY, utf8("temperature °C")) &&
           sp_root->setSubElementValue(TAG_SAMPLES, 3U) &&
           sp_root->setSubElementValue(TAG_IS_CALIBRATED, true) &&
           sp_root->setSubElementValue(TAG_KEY, KEY, sizeof(KEY)) && message.setPayload(sp_root) &&
           message.setPayloadSchema(utf8(REQUEST_SCHEMA), VekMessage_::SCHEMA_LITERAL);
}

bool isRequest(VekMessage_& message) {
    const SP_VekmsgElement_ sp_root = root(message, TAG_REQUEST);
    if (!sp_root || !hasSubElements(sp_root, 5)) return false;
    const SP_VekmsgElement_ sp_range = sp_root->findFirstMatchingSubelement(TAG_RANGE);
    return sp_range && hasSubElements(sp_range, 2) && holds(*sp_range, TAG_LOW, 0U) &&
           holds(*sp_range, TAG_HIGH, 40U) && holds(*sp_root, TAG_QUANTITY, "temperature °C") &&
           holds(*sp_root, TAG_SAMPLES, 3U) && holds(*sp_root, TAG_IS_CALIBRATED, true) &&
           holds(*sp_root, TAG_KEY, KEY);
}

bool fillReading(VekMessage_& message) {
    const SP_VekmsgElement_ sp_root = message.createElement(TAG_READING);
    return sp_root && sp_root->setSubElementValue(TAG_UNIT, utf8("1/100 °C")) &&
           sp_root->setSubElementValue(TAG_IS_CALIBRATED, false) &&
           sp_root->setSubElementValue(TAG_SERIAL, SERIAL, sizeof(SERIAL)) && addSamples(message, *sp_root) &&
           message.setPayload(sp_root) &&
           message.setPayloadSchema(utf8(READING_SCHEMA), VekMessage_::SCHEMA_LITERAL);
}

bool isReading(VekMessage_& message) {
    const SP_VekmsgElement_ sp_root = root(message, TAG_READING);
    return sp_root && hasSubElements(sp_root, 6) && holds(*sp_root, TAG_UNIT, "1/100 °C") &&
           holds(*sp_root, TAG_IS_CALIBRATED, false) && holds(*sp_root, TAG_SERIAL, SERIAL) &&
           hasSamples(*sp_root);
}

bool fillText(VekMessage_& message, const char* p_text) {
    const SP_VekmsgElement_ sp_root = message.createElement(TAG_TEXT);
    return sp_root && sp_root->setValue(utf8(p_text)) && message.setPayload(sp_root);
}

bool isText(VekMessage_& message, const char* p_text) {
    const SP_VekmsgElement_ sp_root = root(message, TAG_TEXT);
    const Utf8Char_* p_actual = nullptr;
    return sp_root && sp_root->getValue(p_actual) && isEqual("the text", p_actual, p_text);
}

bool fillReceipt(VekMessage_& message, const Frame_& arrived) {
    const SP_VekmsgElement_ sp_root = message.createElement(TAG_RECEIPT);
    return sp_root && sp_root->setSubElementValue(TAG_SOURCE, utf8(arrived.m_p_source)) &&
           sp_root->setSubElementValue(TAG_TIME_TO_LIVE, arrived.m_timeToLive) &&
           message.setPayload(sp_root) &&
           message.setPayloadSchema(utf8(RECEIPT_SCHEMA), VekMessage_::SCHEMA_LITERAL);
}

bool isReceipt(VekMessage_& message, const Frame_& arrived) {
    const SP_VekmsgElement_ sp_root = root(message, TAG_RECEIPT);
    return sp_root && hasSubElements(sp_root, 2) && holds(*sp_root, TAG_SOURCE, arrived.m_p_source) &&
           holds(*sp_root, TAG_TIME_TO_LIVE, arrived.m_timeToLive);
}

bool printMessages(VekmsgTerminal_& terminal) {
    SP_VekmsgFilter_ sp_received;
    SP_VekmsgFilter_ sp_sent;
    return terminal.CreateMessagePrinter(&std::cout, "received", sp_received) &&
           terminal.CreateMessagePrinter(&std::cout, "sends", sp_sent) &&
           terminal.setReceiveFilter(sp_received) && terminal.setSendFilter(sp_sent);
}

VekmsgTerminal_* openTerminal(const char* p_name, const char* p_directoryPath) {
    std::unique_ptr<VekmsgTerminal_> terminal(createVekmsgTerminal());
    const bool isOpen =
        terminal != nullptr && terminal->open(utf8(p_name), p_directoryPath) && printMessages(*terminal);
    return isOpen ? terminal.release() : nullptr;
}

int watchForTermination() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    return sigprocmask(SIG_BLOCK, &signals, nullptr) == 0 ? signalfd(-1, &signals, SFD_CLOEXEC) : -1;
}

bool announce(const char* p_path, const char* p_line) {
    std::ofstream pipe(p_path);
    pipe << p_line << std::endl;
    return pipe.good();
}

bool serve(VekmsgTerminal_& terminal, int termination, Handler_ handler) {
    for (;;) {
        pollfd entry = {termination, POLLIN, 0};
        const int ready = VekmsgTerminal_::pollFd(&entry, 1, 1000, &terminal, nullptr);
        if (ready == VekmsgTerminal_::POLL_ERROR) return false;
        SP_VekMessage_ sp_message;
        while (terminal.receiveMessage(sp_message) && sp_message)
            if (!handler(terminal, sp_message)) return false;
        if (ready > 0) return true;
    }
}

}  // namespace demo
