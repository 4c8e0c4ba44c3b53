#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <set>

#include "hostile/open_terminal.h"
#include "message/message_binary.h"
#include "support/buffer_bytes.h"
#include "support/format_page.h"
#include "support/record_lines.h"
#include "support/utf8_text.h"
#include "support/wire_bytes.h"

namespace {

constexpr char kFailed[] = "W own deserializer failed to handle data from peer";
constexpr char kPing[] = "VEK Pinger Request Format version 1.0";

/// What becomes of bytes that are not as they should be. For a payload, Refused means that there is none for
/// the application.
enum class Outcome_ { Accepted, Skipped, Refused };

struct Case_ {
    const char* m_p_name;
    std::string m_bytes;
    Outcome_ m_outcome;
    Lines_ m_records;  // errors and warnings, all of them and in order

    /// Of a stream that a good message follows, unless it has been refused by then.
    const char* expectedSchemas() const {
        if (m_outcome == Outcome_::Refused) return "";
        return m_outcome == Outcome_::Skipped ? "last " : "first last ";
    }
};

void PrintTo(const Case_& malformed, std::ostream* p_stream) {
    *p_stream << malformed.m_p_name;
}

std::string nameOf(const testing::TestParamInfo<Case_>& info) {
    return info.param.m_p_name;
}

std::string named(const std::string& bytes) {
    return wire::nameBlock("peer") + bytes;
}

std::string goodBlock(const std::string& schema) {
    return wire::messageBlock(wire::header("own", "panel", 3, schema) +
                              wire::element(1, wire::Uint, wire::u32(1)));
}

std::string message(const std::string& bytes) {
    return named(wire::messageBlock(bytes));
}

/// A message whose items in front of the wrong one are good.
std::string header(const std::string& wrong, unsigned int goodItems) {
    const std::string good[] = {wire::item(1, wire::String, wire::text("sensor")),
                                wire::item(2, wire::String, wire::text("panel")),
                                wire::item(3, wire::Uint, wire::u32(3))};
    std::string bytes;
    for (unsigned int i = 0; i < goodItems; ++i) bytes += good[i];
    return message(bytes + wrong);
}

std::string blockHeader(unsigned int type, unsigned int length) {
    return wire::u16(type) + wire::u16(length);
}

/// Streams to "own".
std::vector<Case_> streams() {
    using wire::block;
    using wire::item;
    using wire::text;
    const std::string number = wire::u32(7);
    const std::string filler(9500, 'x');
    const auto skippedBlock = [](unsigned int type, unsigned int length) {
        const std::string numbers = std::to_string(type) + ", length " + std::to_string(length);
        return Lines_{"W Connection own to peer expecting BINARY_ENCODED_MESSAGE but got " + numbers +
                          ". Skipping the block",
                      "W Connection own to peer dropped encoding block type " + std::to_string(type)};
    };
    return {
        {"aMessageBeforeTheName",
         blockHeader(2, 49) + filler.substr(0, 49),
         Outcome_::Refused,
         {"W own is expecting VEK_COMPONENT_NAME. Got 2, length 49"}},
        {"aNameOf9401Bytes",
         blockHeader(1, 9401),
         Outcome_::Refused,
         {"E VekmsgConnection_::processPollEvents() of own is getting VEK_COMPONENT_NAME length 9401"}},
        {"aNameOf9397Bytes",
         blockHeader(1, 9397) + filler,
         Outcome_::Refused,
         {"W VekSocket_::receive() requested data size 9397 is greater than free space 9396",
          "E VekmsgConnection_::extractEncodingPayload() data length 9396 is shorter than the expected "
          "payload 9397"}},
        {"aNameOfNoBytes",
         block(1, ""),
         Outcome_::Refused,
         {"W VekmsgTerminalImpl_::processPollEvents(own) got a null peerName for an unresolved connection"}},
        {"aNameOfANulAlone",
         block(1, text("")),
         Outcome_::Refused,
         {"W VekmsgTerminalImpl_::processPollEvents(own) got a null peerName for an unresolved connection"}},
        {"aNameThatBeginsWithNul",
         block(1, std::string("\0peer", 6)),
         Outcome_::Refused,
         {"W VekmsgTerminalImpl_::processPollEvents(own) got a null peerName for an unresolved connection"}},
        {"aNameOfOneCharacter",
         wire::nameBlock("p") + goodBlock("lost"),
         Outcome_::Refused,
         {"E VekmsgConnection_::extractEncodingHeader() data length 2 is too short for encoding header"}},
        {"aNameOfTwoCharacters",
         wire::nameBlock("pe") + goodBlock("lost"),
         Outcome_::Refused,
         {"E VekmsgConnection_::extractEncodingHeader() data length 3 is too short for encoding header"}},
        {"aNameOfANulWithMoreBehindIt",
         block(1, text("")) + goodBlock("lost"),
         Outcome_::Refused,
         {"E VekmsgConnection_::extractEncodingHeader() data length 1 is too short for encoding header"}},
        {"aNameWithoutNul", block(1, "peerX") + goodBlock("first"), Outcome_::Accepted, {}},
        {"bytesBehindTheNulOfAName",
         block(1, text("peer") + "junk") + goodBlock("first"),
         Outcome_::Accepted,
         {}},
        {"aMessageOf9397Bytes",
         named(blockHeader(2, 9397) + filler),
         Outcome_::Refused,
         {"E connection own to peer received BINARY_ENCODED_MESSAGE of 9397 (too long)"}},
        {"aMessageOf9396Bytes",
         named(wire::messageBlockOfSize(9396, "own", "panel", "first")),
         Outcome_::Accepted,
         {}},
        {"anUnknownBlock", named(block(7, filler.substr(0, 10))), Outcome_::Skipped, skippedBlock(7, 10)},
        {"anUnknownBlockOfNoBytes", named(block(7, "")), Outcome_::Skipped, skippedBlock(7, 0)},
        {"anUnknownBlockOf9396Bytes", named(block(65535, filler.substr(0, 9396))), Outcome_::Skipped,
         skippedBlock(65535, 9396)},
        {"anUnknownBlockOf9397Bytes",
         named(blockHeader(7, 9397) + filler),
         Outcome_::Refused,
         {"E Connection own to peer is expecing BINARY_ENCODED_MESSAGE but got 7 of length 9397. Failed"}},
        {"aSecondName", named(wire::nameBlock("peer")), Outcome_::Skipped, skippedBlock(1, 5)},
        {"aMessageOfNoBytes",
         message(""),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short", kFailed}},
        {"anItemOfFiveBytes",
         message("12345"),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 5 is too short", kFailed}},
        {"anItemLongerThanWhatIsLeft",
         message(wire::u16(1) + wire::u16(3) + wire::u16(10) + "1234"),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserializeTtlv() data length 10 is too large for remaining stream 4",
          kFailed}},
        {"anotherTagThanTheDestinations",
         header(item(9, wire::String, text("x")), 0),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize() Expecting VEKMSGTAG_DESTINATION_NAME got 9", kFailed}},
        {"aDestinationThatIsNoString",
         header(item(1, wire::Binary, text("x")), 0),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize(VEKMSGTAG_DESTINATION_NAME) Expecting VEKMSG_STRING got 4",
          kFailed}},
        {"anotherTagThanTheSources",
         header(item(9, wire::String, text("x")), 1),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize() Expecting VEKMSGTAG_SOURCE_NAME got 9 dest sensor", kFailed}},
        {"aSourceThatIsNoString",
         header(item(2, wire::Binary, text("x")), 1),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize(VEKMSGTAG_SOURCE_NAME) Expecting VEKMSG_STRING got 4 dest sensor",
          kFailed}},
        {"anotherTagThanTheTimeToLives",
         header(item(9, wire::Uint, number), 2),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize() Expecting VEKMSGTAG_TIME_TO_LIVE got 9 dest sensor src panel",
          kFailed}},
        {"aTimeToLiveThatIsNoNumber",
         header(item(3, wire::Binary, number), 2),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) Expecting VEKMSG_UINT got 4 dest sensor "
          "src panel",
          kFailed}},
        {"aTimeToLiveOfTwoBytes",
         header(item(3, wire::Uint, "12"), 2),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) invalid length 2 dest sensor src panel",
          kFailed}},
        {"anotherTagThanTheSchemas",
         header(item(9, wire::String, text("x")), 3),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize() Expecting VEKMSGTAG_SCHEMA_URI got 9 dest sensor src panel",
          kFailed}},
        {"aSchemaThatIsNoString",
         header(item(4, wire::Binary, text("x")), 3),
         Outcome_::Skipped,
         {"E VekMessageBinary_::deserialize(VEKMSGTAG_SCHEMA_URI) Expecting VEKMSG_STRING got 4 dest sensor "
          "src panel",
          kFailed}},
        {"textsWithoutNul",
         message(item(1, wire::String, "own") + item(2, wire::String, "panel") + item(3, wire::Uint, number) +
                 item(4, wire::String, "first")),
         Outcome_::Accepted,
         {}},
        {"bytesBehindTheNulOfTexts",
         message(item(1, wire::String, text("own") + "x") + item(2, wire::String, text("panel") + "x") +
                 item(3, wire::Uint, number) + item(4, wire::String, text("first") + "x")),
         Outcome_::Accepted,
         {}},
        {"noTimeToLiveLeft",
         message(wire::header("other", "panel", 0, "lost")),
         Outcome_::Skipped,
         {"W own can't route a message from peer because TTL = 0, dest other src panel"}},
        {"aDestinationThatCannotBeReached",
         message(wire::header("other", "panel", 3, "lost")),
         Outcome_::Skipped,
         {"W own failed to route a message from peer with dest other, src panel, TTL 3"}},
        {"anEmptyDestination",
         message(wire::header("", "panel", 3, "lost")),
         Outcome_::Skipped,
         {"E VekmsgTerminalImpl_::sendMessage() null destination",
          "W own failed to route a message from peer with dest , src panel, TTL 3"}},
        {"headerItemsThatGrowWhenPassedOn",
         message(item(1, wire::String, "peer") + item(2, wire::String, text("panel")) +
                 item(3, wire::Uint, number) + item(4, wire::String, text("lost"))),
         Outcome_::Skipped,
         {"E Not enough header space 3 left to encode message (panel -> peer) in a block",
          "W own failed to route a message from peer with dest peer, src panel, TTL 7"}},
        {"aPingThatCannotBeAnswered",
         message(wire::header("own", "panel", 3, kPing)),
         Outcome_::Skipped,
         {"W own failed to respond to ping from peer with dest own, src panel"}},
        {"aPingWithoutASource",
         message(wire::header("own", "", 3, kPing)),
         Outcome_::Skipped,
         {"E VekmsgTerminalImpl_::sendMessage() null destination",
          "W own failed to respond to ping from peer with dest own, src "}},
        {"aPingThatComesFromItsDestination",
         message(wire::header("own", "own", 3, kPing)),
         Outcome_::Skipped,
         {"E Can't send a message to itself (own)",
          "W own failed to respond to ping from peer with dest own, src own"}},
        {"noPayload", message(wire::header("own", "panel", 3, "first")), Outcome_::Accepted, {}},
        {"aPayloadThatIsNoElement",
         message(wire::header("own", "panel", 3, "first") + "junk"),
         Outcome_::Accepted,
         {}},
    };
}

/// Elements with tag 10, as the payload of a message.
std::vector<Case_> payloads() {
    using wire::element;
    using wire::item;
    const std::string child = element(1, wire::Uint, wire::u32(7));
    const std::string longer =
        wire::u16(1) + wire::u16(0) + wire::u16(10 + 16) + item(0, wire::Uint, wire::u32(7)) + child;
    const auto outer = [](unsigned int length, const std::string& value) {
        return wire::u16(10) + wire::u16(0) + wire::u16(length) + value;
    };
    return {
        {"anOuterTypeThatIsNot0", item(10, 7, item(0, wire::Uint, wire::u32(7))), Outcome_::Accepted, {}},
        {"anOuterLengthThatExceedsWhatIsLeft",
         outer(17, std::string(16, 'x')),
         Outcome_::Refused,
         {"E VekmsgElementBinary_::deserialize() tag 10 length 17 is larger than allowed length 16"}},
        {"anOuterLengthOf5",
         outer(5, "12345"),
         Outcome_::Refused,
         {"E VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 5 is too short"}},
        {"aContentThatExceedsTheOuterValue",
         outer(10, wire::u16(0) + wire::u16(2) + wire::u16(5) + "1234"),
         Outcome_::Refused,
         {"E VekMessageBinary_::deserializeTtlv() data length 5 is too large for remaining stream 4"}},
        {"anOuterValueLongerThanTheContent", element(10, wire::Complex, longer), Outcome_::Accepted, {}},
        {"aContentTagThatIsNot0",
         item(10, 0, item(9, wire::Uint, wire::u32(7))),
         Outcome_::Refused,
         {"E VekmsgElementBinary_::deserialize() for element 10, expecting VEKMSGTAG_ELEMENT_CONTENT, got "
          "9"}},
        {"anUnknownContentType",
         element(10, 9, "1234"),
         Outcome_::Refused,
         {"E VekmsgElementBinary_::deserialize() tag 10 has invalid data type 9"}},
        {"theContentType0",
         element(10, 0, "1234"),
         Outcome_::Refused,
         {"E VekmsgElementBinary_::deserialize() tag 10 has invalid data type 0"}},
        {"aUintOfNoBytes",
         element(10, wire::Uint, ""),
         Outcome_::Refused,
         {"E VekmsgElementBinary_::deserialize() tag 10 of UINT type has an invalid length 0"}},
        {"aUintOf3Bytes", element(10, wire::Uint, "123"), Outcome_::Accepted, {}},
        {"aUintOf6Bytes",
         element(10, wire::Uint, "123456"),
         Outcome_::Accepted,
         {"W tag 10 of UINT type has length 6"}},
        {"aStringOf9401Bytes",
         element(10, wire::String, std::string(9401, 'x')),
         Outcome_::Refused,
         {"E VekmsgElementBinary_::deserialize() tag 10 of STRING type has a length 9401 exceeding the "
          "limit"}},
        {"aStringOf9400BytesWithoutNul",
         element(10, wire::String, std::string(9400, 'x')),
         Outcome_::Accepted,
         {}},
        {"aStringOfNoBytes", element(10, wire::String, ""), Outcome_::Accepted, {}},
        {"bytesBehindTheNulOfAString",
         element(10, wire::String, wire::text("abc") + "def"),
         Outcome_::Accepted,
         {}},
        {"aBinaryOf9401Bytes",
         element(10, wire::Binary, std::string(9401, 'x')),
         Outcome_::Refused,
         {"E VekmsgElementBinary_::deserialize() tag 10 of BINARY type has a length 9401 exceeding the "
          "limit"}},
        {"noBytes",
         "",
         Outcome_::Refused,
         {"E VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short"}},
        {"aComplexValueOf5Bytes",
         element(10, wire::Complex, "12345"),
         Outcome_::Refused,
         {"E VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 5 is too short"}},
        {"aComplexValueOfNoBytes",
         element(10, wire::Complex, ""),
         Outcome_::Refused,
         {"E VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short"}},
        {"threeBytesBehindTheLastChild",
         element(10, wire::Complex, child + "123"),
         Outcome_::Accepted,
         {"W Tag 10 has unused data of 3 bytes"}},
        {"sixBytesBehindTheLastChild",
         element(10, wire::Complex, child + std::string(6, '\0')),
         Outcome_::Refused,
         {"E VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short"}},
        {"fourBytesBehindThePayload",
         element(10, wire::Uint, wire::u32(7)) + "1234",
         Outcome_::Accepted,
         {"W VekMessageBinary_::getPayload(): used 16 bytes out of 20"}},
    };
}

Lines_ takeComplaints(RecordCapture_& records) {
    Lines_ complaints;
    for (const std::string& line : takeLines(records))
        if (line[0] == 'E' || line[0] == 'W') complaints.push_back(line);
    return complaints;
}

std::string schemasOf(const std::vector<SP_VekMessage_>& messages) {
    std::string schemas;
    for (const SP_VekMessage_& sp_message : messages) schemas += plain(sp_message->getPayloadSchema()) + ' ';
    return schemas;
}

/// A message with this payload, larger perhaps than what a block could carry.
SP_VekMessageBinary_ messageWith(const std::string& payload) {
    const std::string bytes = wire::header("own", "panel", 3, "first") + payload;
    SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
    EXPECT_EQ(sp_message->deserialize(tightBufferOf(bytes)), bytes.size());
    return sp_message;
}

/// A message that an application wants to have written. Refused means that it is not.
struct Writing_ {
    const char* m_p_name;
    std::function<SP_VekmsgElement_(const VekMessage_&)> m_payload;
    Outcome_ m_outcome;
    Lines_ m_records;
};

void PrintTo(const Writing_& writing, std::ostream* p_stream) {
    *p_stream << writing.m_p_name;
}

std::string nameOfWriting(const testing::TestParamInfo<Writing_>& info) {
    return info.param.m_p_name;
}

SP_VekmsgElement_ binaryElement(const VekMessage_& message, VekmsgTag_ tag, std::size_t size) {
    const std::vector<unsigned char> bytes(size);
    SP_VekmsgElement_ sp_element = message.createElement(tag);
    sp_element->setValue(bytes.data(), static_cast<unsigned int>(size));
    return sp_element;
}

SP_VekMessageBinary_ messageToWrite() {
    SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
    sp_message->setDestination(utf8("sensor"));
    sp_message->setSource(utf8("panel"));
    return sp_message;
}

/// A payload with which the message takes `size` bytes.
std::function<SP_VekmsgElement_(const VekMessage_&)> sized(std::size_t size) {
    return [size](const VekMessage_& message) {
        std::size_t left = size - wire::header("sensor", "panel", 3, "").size();
        SP_VekmsgElement_ sp_element = message.createElement(10);
        for (left -= 12; left > 9012 + 12; left -= 9012)
            sp_element->addSubelements(binaryElement(message, 1, 9000));
        sp_element->addSubelements(binaryElement(message, 1, left - 12));
        return sp_element;
    };
}

std::vector<Writing_> writings() {
    const Lines_ hasNoValue = {
        "E VekmsgElementBinary_::serialize() invalid type 0 for tag 10",
        "E Serialization of Message (panel -> sensor) of 54 bytes failed. Free space 1024"};
    return {
        {"aStringOf9400Characters",
         [](const VekMessage_& message) {
             SP_VekmsgElement_ sp_element = message.createElement(10);
             sp_element->setValue(utf8(std::string(9400, 'x')));
             return sp_element;
         },
         Outcome_::Accepted,
         {"W VekmsgElementBinary_::setValue() string is longer than 9400. Truncated",
          "W Message (panel -> sensor) size 9454 could be too large for the peer"}},
        {"aBinaryOf9401Bytes",
         [](const VekMessage_& message) { return binaryElement(message, 10, 9401); },
         Outcome_::Refused,
         {"E VekmsgElementBinary_::setValue() binary length 9401 is too large. 9400 max", hasNoValue[0],
          hasNoValue[1]}},
        {"anElementWithoutAValue", [](const VekMessage_& message) { return message.createElement(10); },
         Outcome_::Refused, hasNoValue},
        {"aMessageOf9144Bytes", sized(9144), Outcome_::Accepted, {}},
        {"aMessageOf9145Bytes",
         sized(9145),
         Outcome_::Accepted,
         {"W Message (panel -> sensor) size 9145 could be too large for the peer"}},
        {"aMessageOf65280Bytes",
         sized(65280),
         Outcome_::Accepted,
         {"W Message (panel -> sensor) size 65280 could be too large for the peer"}},
        {"aMessageOf65281Bytes",
         sized(65281),
         Outcome_::Refused,
         {"E Message (panel -> sensor) size 65281 exceeds the encoding limit"}},
    };
}

class UnusualWriting : public testing::TestWithParam<Writing_> {};
class MalformedStream : public testing::TestWithParam<Case_> {};
class MalformedPayload : public testing::TestWithParam<Case_> {};

INSTANTIATE_TEST_SUITE_P(Forms, MalformedStream, testing::ValuesIn(streams()), nameOf);
INSTANTIATE_TEST_SUITE_P(Forms, MalformedPayload, testing::ValuesIn(payloads()), nameOf);
INSTANTIATE_TEST_SUITE_P(Forms, UnusualWriting, testing::ValuesIn(writings()), nameOfWriting);

}  // namespace

TEST_P(MalformedStream, hasTheOutcomeAndTheRecordsOfTheFormatPage) {
    RecordCapture_ records;
    OpenTerminal_ terminal;
    records.take();
    const Outcome_ outcome = GetParam().m_outcome;
    RawPeer_ peer(terminal.localAddress());
    const std::string bytes =
        GetParam().m_bytes + (outcome == Outcome_::Refused ? std::string() : goodBlock("last"));

    peer.write(bytes);
    for (int i = 0; i < 3; ++i) terminal.exchange();

    const std::string schemas = schemasOf(terminal.received());
    EXPECT_EQ(terminal.closes(peer, outcome == Outcome_::Refused ? 1000 : 5), outcome == Outcome_::Refused);
    EXPECT_EQ(terminal.own().isConnected("peer"), outcome != Outcome_::Refused);
    EXPECT_EQ(schemas, GetParam().expectedSchemas());
    EXPECT_EQ(takeComplaints(records), GetParam().m_records);
}

TEST_P(MalformedPayload, hasTheOutcomeAndTheRecordsOfTheFormatPage) {
    RecordCapture_ records;
    const SP_VekMessageBinary_ sp_message = messageWith(GetParam().m_bytes);
    const bool isAccepted = GetParam().m_outcome == Outcome_::Accepted;

    EXPECT_EQ(sp_message->getPayload().isNull(), !isAccepted);

    EXPECT_EQ(sp_message->getRawPayload().isNull(), isAccepted);
    EXPECT_EQ(takeLines(records), GetParam().m_records);
}

TEST_P(UnusualWriting, hasTheOutcomeAndTheRecordsOfTheFormatPage) {
    RecordCapture_ records;
    const SP_VekMessageBinary_ sp_message = messageToWrite();
    sp_message->setPayload(GetParam().m_payload(*sp_message));
    SP_BasicBuffer_ sp_buffer;

    EXPECT_EQ(sp_message->serialize(sp_buffer) != 0, GetParam().m_outcome == Outcome_::Accepted);

    EXPECT_EQ(takeLines(records), GetParam().m_records);
}

TEST(MalformedStreams, everyRecordOfTheFormatPageIsAmongTheseTests) {
    std::set<std::string> tested;
    for (const auto& cases : {streams(), payloads()})
        for (const Case_& malformed : cases)
            tested.insert(malformed.m_records.begin(), malformed.m_records.end());
    for (const Writing_& writing : writings())
        tested.insert(writing.m_records.begin(), writing.m_records.end());
    const FormatPage_ page(VEKMSG_FORMAT_PAGE);

    EXPECT_GE(page.records().size(), 30U);
    for (const std::string& record : page.records()) EXPECT_EQ(tested.count(record), 1U) << record;
}
