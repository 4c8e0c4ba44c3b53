#ifndef VEKMSG_TESTS_API_PUBLIC_RECORDS_H
#define VEKMSG_TESTS_API_PUBLIC_RECORDS_H

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "support/allocation_failure.h"
#include "support/record_capture.h"
#include "support/record_notes.h"
#include "support/terminal_records.h"
#include "support/utf8_text.h"
#include "vekmsg/vekmsg.h"

/// States what a public call returns and which records it writes, complete and in order. The proof of the
/// records counts the entries, spelled as exports.txt and the public headers do, and the ways in which each
/// was called.
class PublicRecords_ : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(m_records.take(), Records_()) << "left by what came last"; }

    /// `isAsExpected` is the call itself, compared with what it has to return. What came before must have
    /// written nothing, or have been dropped.
    void call(const char* p_entry, const char* p_way, bool isAsExpected, const Records_& records = {}) {
        const Records_ written = m_records.take();
        EXPECT_TRUE(isAsExpected) << p_entry << ": " << p_way;
        EXPECT_EQ(written, records) << p_entry << ": " << p_way;
        if (isAsExpected && written == records) noteCall(p_entry, p_way);
    }

    /// For what returns nothing.
    void callOf(const char* p_entry, const char* p_way, const std::function<void()>& call,
                const Records_& records = {}) {
        call();
        this->call(p_entry, p_way, true, records);
    }

    /// `act` in a thread without used memory, its `number`th allocation failing.
    static bool withoutMemory(const std::function<bool()>& act, unsigned int number = 1) {
        bool result = false;
        inFreshThread([&] {
            const AllocationFailure_ failure(number);
            result = act() && failure.hasStruck();
        });
        return result;
    }

    void drop() { m_records.take(); }

    RecordCapture_ m_records;
};

// What messages and elements write, from C++ and from C.

inline Record_ ofMessage(const std::string& signature, const std::string& text) {
    return messageRecord(3, signature, text);
}

inline const Record_ kNoElement =
    ofMessage("static SP_VekmsgElement_ VekMessageBinary_::createElement(NoMemory_)",
              "VekMessageBinary_::createElement() Can't create vekMessageBinary_");
inline const Record_ kNoDestination =
    ofMessage("virtual bool VekMessageBinary_::setDestination(const Utf8Char_*)",
              "VekMessageBinary_::setDestination(): null p_destinationName");
inline const Record_ kNoSource = ofMessage("virtual bool VekMessageBinary_::setSource(const Utf8Char_*)",
                                           "VekMessageBinary_::setSource(): null p_sourceName");
inline const Record_ kNoSchema =
    ofMessage("virtual bool VekMessageBinary_::setPayloadSchema(const Utf8Char_*, VekMessage_::SchemaType_)",
              "VekMessageBinary_::setPayloadSchema(): null p_schema");
inline const Record_ kNoPayloadElement =
    ofMessage("virtual SP_VekmsgElement_ VekMessageBinary_::getPayload()",
              "VekMessageBinary_::getPayload() invalid vekMessageBinary_");
inline const Record_ kShortHeader = ofMessage(
    "static unsigned int VekMessageBinary_::deserializeTtlvHeader(const unsigned char*, unsigned int, "
    "VekmsgTag_&, "
    "VekmsgDataType_&, unsigned int&)",
    "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 3 is too short");
inline const Record_ kPartOfPayload =
    messageRecord(4, "virtual SP_VekmsgElement_ VekMessageBinary_::getPayload()",
                  "VekMessageBinary_::getPayload(): used 16 bytes out of 18");

inline const Record_ kNoUint =
    ofMessage("virtual bool VekmsgElementBinary_::getValue(unsigned int&) const",
              "VekmsgElementBinary_::getValue() wrong data type 3. Expecting uint");
inline const Record_ kNoText =
    ofMessage("virtual bool VekmsgElementBinary_::getValue(const Utf8Char_*&) const",
              "VekmsgElementBinary_::getValue() wrong data type 2. Expecting string");
inline const Record_ kNoBytes =
    ofMessage("virtual bool VekmsgElementBinary_::getValue(const unsigned char*&, unsigned int&) const",
              "VekmsgElementBinary_::getValue() wrong data type 2. Expecting binary");
inline const Record_ kNullText = ofMessage("virtual bool VekmsgElementBinary_::setValue(const Utf8Char_*)",
                                           "VekmsgElementBinary_::setValue() null p_value");
inline const Record_ kCutText =
    messageRecord(4, "virtual bool VekmsgElementBinary_::setValue(const Utf8Char_*)",
                  "VekmsgElementBinary_::setValue() string is longer than 9400. Truncated");
inline const Record_ kNullBytes =
    ofMessage("virtual bool VekmsgElementBinary_::setValue(const unsigned char*, unsigned int)",
              "VekmsgElementBinary_::setValue() null p_value");
inline const Record_ kLongBytes =
    ofMessage("virtual bool VekmsgElementBinary_::setValue(const unsigned char*, unsigned int)",
              "VekmsgElementBinary_::setValue() binary length 9401 is too large. 9400 max");
inline const Record_ kNoProbe =
    ofMessage("virtual SP_VekmsgElement_ VekmsgElementBinary_::findFirstMatchingSubelement(VekmsgTag_) const",
              "VekmsgElementBinary_::getFirstMatchingSubelement() createElement() returned invalid object");
inline const Record_ kNoSubelements =
    ofMessage("virtual bool VekmsgElementBinary_::querySubelements(VekmsgTag_)",
              "VekmsgElementBinary_::querySubelements() no subelements for simple type");
inline const Record_ kNoQueryProbe =
    ofMessage("virtual bool VekmsgElementBinary_::querySubelements(VekmsgTag_)",
              "VekmsgElementBinary_::querySubelements() createElement() returned invalid object");
inline const Record_ kNullSubelement =
    ofMessage("virtual bool VekmsgElementBinary_::addSubelements(SP_VekmsgElement_)",
              "VekmsgElementBinary_::addSubelements() null sp_subElement");
inline const Record_ kAnySubelement =
    ofMessage("virtual bool VekmsgElementBinary_::addSubelements(SP_VekmsgElement_)",
              "VekmsgElementBinary_::addSubelements() element with tag == ANY");

/// Of setSubElementValue with that type.
inline Record_ anyTag(const std::string& parameters) {
    return ofMessage("virtual bool VekmsgElementBinary_::setSubElementValue(VekmsgTag_, " + parameters + ")",
                     "VekmsgElementBinary_::setSubElementValue() Can't set with tag == ANY");
}
inline const Record_ kAnyUint = anyTag("unsigned int");
inline const Record_ kAnyText = anyTag("const Utf8Char_*");
inline const Record_ kAnyBytes = anyTag("const unsigned char*, unsigned int");

// What terminals write, from C++ and from C.

inline const Record_ kNoDefaultAddress = warning(kOpenDefault, "No default transport address will be used");
inline const Record_ kNullName = error(kOpen, "VekmsgTerminalImpl_::open() null p_componentName");
inline const Record_ kEmptyName = error(kOpen, "VekmsgTerminalImpl_::open() null component name string");
inline const Record_ kNoMessage =
    error(kCreate, "VekmsgTerminalImpl_::createMessage() Can't create vekMessageBinary_");
inline const Record_ kNullMessage = error(kSend, "VekmsgTerminalImpl_::sendMessage() null sp_message");
inline const Record_ kNullDestination = error(kSend, "VekmsgTerminalImpl_::sendMessage() null destination");
inline const Record_ kToItself = error(kSend, "Can't send a message to itself (alpha)");
inline const Record_ kNoSocket =
    debug(kConnectionStart, "VekmsgConnection_::start() Can't start without a socket");
inline const Record_ kUnable =
    error(kSendConnecting, "VekmsgTerminalImpl_::sendMessage() Unable to send to any gamma address");
inline const Record_ kNullPayload =
    ofMessage("unsigned int VekMessageBinary_::serialize(libcpp::SP_BasicBuffer_&)",
              "VekMessageBinary_::serialize() null payload");
inline const Record_ kTooManyEntries = error(kPollFd, "VekmsgTerminalImpl_::pollFd() pollfd count 129 > 128");
inline const Record_ kPollFdFails = error(
    kPollFd,
    "VekmsgTerminal_::pollFd(1) poll() for multiple terminal failed with error(12) Cannot allocate memory");
inline const Record_ kWaitFails = error(
    kWait,
    "VekmsgTerminalImpl_::waitForMessage(1) poll() for alpha failed with error(12) Cannot allocate memory");

inline Record_ listening(const std::string& address) {
    return information(kOpenOwn, "alpha is listening on " + address);
}
inline Record_ noDirectory(const std::string& path) {
    return directoryRecord(3, "bool NameDirectory_::open(const char*)",
                           "NameDirectory_::open(): can't open directory file " + path + ".");
}
inline Record_ noConnection(const std::string& address) {
    return socketRecord(
        7, "bool VekSocket_::connect()",
        "VekSocket_::connect(" + address + ") failed with error(2): No such file or directory");
}
inline Record_ noBind(const std::string& address) {
    return socketRecord(
        7, "bool VekSocket_::initialize(VekSockNativeAddr_&)",
        "VekSocket_::initialize() bind(" + address + ") failed with error(2): No such file or directory");
}
inline Record_ noAccept(const std::string& address) {
    return socketRecord(
        3, "bool VekSocket_::accept(SP_VekSocket_&)",
        "VekSocket_::accept() accept(" + address + ") failed with error(24): Too many open files");
}

#endif
