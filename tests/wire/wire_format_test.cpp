#include <gtest/gtest.h>

#include "message/message_binary.h"
#include "support/buffer_bytes.h"
#include "support/format_page.h"
#include "support/raw_peer.h"
#include "support/record_lines.h"
#include "support/station.h"
#include "support/temporary_folder.h"
#include "terminal/connection.h"

namespace {

constexpr unsigned int kHeaderRoom = 64;

const FormatPage_& page() {
    static const FormatPage_ s_page(VEKMSG_FORMAT_PAGE);
    return s_page;
}

/// A block of the page without its four header bytes.
std::string messageOf(const std::string& blockName) {
    return page().bytes(blockName).substr(4);
}

std::string encoded(const SP_VekMessage_& sp_message) {
    SP_VekMessageBinary_ sp_binary = sp_message;
    SP_BasicBuffer_ sp_buffer;
    return sp_binary->serialize(sp_buffer) != 0 ? bytesOf(*sp_buffer) : std::string();
}

SP_VekMessageBinary_ decoded(const std::string& bytes) {
    SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
    EXPECT_EQ(sp_message->deserialize(tightBufferOf(bytes, kHeaderRoom)), bytes.size());
    return sp_message;
}

/// The payload of the worked example, as an application builds it.
SP_VekmsgElement_ examplePayload(const VekMessage_& message) {
    const unsigned char bytes[] = {0x00, 0xff, 0x10};
    const SP_VekmsgElement_ sp_inner = message.createElement(4);
    sp_inner->setSubElementValue(1, true);
    const SP_VekmsgElement_ sp_root = message.createElement(10);
    sp_root->addSubelements(sp_inner);
    sp_root->setSubElementValue(3, bytes, sizeof(bytes));
    sp_root->setSubElementValue(2, utf8("room 4"));
    sp_root->setSubElementValue(1, 258U);
    return sp_root;
}

SP_VekMessage_ exampleMessage() {
    SP_VekMessage_ sp_message(new VekMessageBinary_);
    sp_message->setDestination(utf8("sensor"));
    sp_message->setSource(utf8("panel"));
    sp_message->setPayloadSchema(utf8("urn:demo:reading"), VekMessage_::SCHEMA_URI);
    sp_message->setPayload(examplePayload(*sp_message));
    return sp_message;
}

void expectExampleHeader(const VekMessage_& message) {
    EXPECT_EQ(plain(message.getDestination()), "sensor");
    EXPECT_EQ(plain(message.getSource()), "panel");
    EXPECT_EQ(message.getTimeToLive(), 3U);
    EXPECT_EQ(plain(message.getPayloadSchema()), "urn:demo:reading");
    EXPECT_EQ(message.getPayloadSchemaType(), VekMessage_::SCHEMA_LITERAL);
}

void expectExamplePayload(VekMessage_& message) {
    const SP_VekmsgElement_ sp_root = message.getPayload();
    ASSERT_FALSE(sp_root.isNull());
    EXPECT_EQ(sp_root->getTag(), 10U);
    unsigned int number = 0;
    EXPECT_TRUE(sp_root->getSubElementValue(1, number));
    EXPECT_EQ(number, 258U);
    const Utf8Char_* p_text = nullptr;
    ASSERT_TRUE(sp_root->getSubElementValue(2, p_text));
    EXPECT_EQ(plain(p_text), "room 4");
    const unsigned char* p_bytes = nullptr;
    unsigned int length = 0;
    ASSERT_TRUE(sp_root->getSubElementValue(3, p_bytes, length));
    EXPECT_EQ(std::string(p_bytes, p_bytes + length), std::string("\0\xff\x10", 3));
    const SP_VekmsgElement_ sp_inner = sp_root->findFirstMatchingSubelement(4);
    ASSERT_FALSE(sp_inner.isNull());
    bool isTrue = false;
    EXPECT_TRUE(sp_inner->getSubElementValue(1, isTrue));
    EXPECT_TRUE(isTrue);
}

/// Reads one element of the page whole.
SP_VekmsgElement_ elementOf(const std::string& blockName) {
    const std::string& bytes = page().bytes(blockName);
    SP_VekmsgElementBinary_ sp_element(new VekmsgElementBinary_(VEKMSGTAG_ANY, nullptr));
    EXPECT_EQ(sp_element->deserialize(reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<unsigned int>(bytes.size())),
              bytes.size());
    return sp_element;
}

/// "panel" reaches out to "sensor", which is a bare listener or a bare stream in the test's hands.
class WireFormatOnASocket : public testing::TestWithParam<const char*> {
protected:
    std::string sensorAddress() {
        return GetParam() == std::string("local") ? m_folder.localAddress("sensor") : freeTcpAddress();
    }

    TemporaryFolder_ m_folder;
    const std::string m_address = sensorAddress();
    const std::string m_directory = m_folder.writeFile("directory", {m_address + " sensor"});
    RecordCapture_ m_records;
};

INSTANTIATE_TEST_SUITE_P(Transports, WireFormatOnASocket, testing::Values("local", "tcp"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace

TEST(WireFormat, thePageHasTheBlocksThatAreTestedHere) {
    EXPECT_EQ(page().blockCount(), 8U);
    EXPECT_EQ(page().bytes("name-block").size(), 10U);
    EXPECT_EQ(page().bytes("message-block").size(), 152U);
}

TEST(WireFormat, theExampleIsEncodedAsThePageShows) {
    RecordCapture_ records;

    EXPECT_EQ(encoded(exampleMessage()), messageOf("message-block"));

    EXPECT_EQ(takeLines(records), Lines_());
}

TEST(WireFormat, theExampleIsDecodedAndEncodedAgainToTheSameBytes) {
    RecordCapture_ records;
    const SP_VekMessageBinary_ sp_message = decoded(messageOf("message-block"));

    expectExampleHeader(*sp_message);
    expectExamplePayload(*sp_message);

    EXPECT_EQ(encoded(sp_message), messageOf("message-block"));
    EXPECT_EQ(takeLines(records), Lines_());
}

TEST(WireFormat, aMessageThatIsPassedOnKeepsItsBytes) {
    EXPECT_EQ(encoded(decoded(messageOf("message-block"))), messageOf("message-block"));
}

TEST(WireFormat, blockHeadersAreWrittenAndReadAsThePageShows) {
    for (const char* p_name : {"name-block", "message-block", "ping-request", "ping-reply"}) {
        const std::string& bytes = page().bytes(p_name);
        VekmsgConnection_::EncodingBlockType_ type = VekmsgConnection_::NO_ENCODING_BLOCK;
        unsigned int length = 0;
        EXPECT_EQ(VekmsgConnection_::readEncodingBlockHeader(
                      reinterpret_cast<const unsigned char*>(bytes.data()), type, length),
                  4U);
        EXPECT_EQ(type, p_name == std::string("name-block") ? VekmsgConnection_::VEK_COMPONENT_NAME
                                                            : VekmsgConnection_::BINARY_ENCODED_MESSAGE);
        EXPECT_EQ(length, bytes.size() - 4) << p_name;
        unsigned char header[4];
        VekmsgConnection_::writeEncodingBlockHeader(header, type, length);
        EXPECT_EQ(std::string(header, header + 4), bytes.substr(0, 4)) << p_name;
    }
}

TEST(WireFormat, aUintOfTwoBytesReadsAsANumber) {
    RecordCapture_ records;
    unsigned int number = 0;

    EXPECT_TRUE(elementOf("short-uint")->getValue(number));

    EXPECT_EQ(number, 258U);
    EXPECT_EQ(takeLines(records), Lines_());
}

TEST(WireFormat, aUintOfSixBytesReadsAsItsLastFourWithAWarning) {
    RecordCapture_ records;
    unsigned int number = 0;

    EXPECT_TRUE(elementOf("long-uint")->getValue(number));

    EXPECT_EQ(number, 7U);
    EXPECT_EQ(takeLines(records), Lines_{"W tag 10 of UINT type has length 6"});
}

TEST(WireFormat, aStringWithoutNulEndsWithItsItem) {
    RecordCapture_ records;
    const SP_VekmsgElement_ sp_element = elementOf("string-without-nul");
    const Utf8Char_* p_text = nullptr;

    ASSERT_TRUE(sp_element->getValue(p_text));

    EXPECT_EQ(plain(p_text), "ok");
    EXPECT_EQ(takeLines(records), Lines_());
}

TEST(WireFormat, bytesTooFewForAnElementAreDroppedWithAWarning) {
    RecordCapture_ records;
    const SP_VekmsgElement_ sp_element = elementOf("unused-data");

    const Lines_ lines = takeLines(records);
    unsigned int number = 0;
    EXPECT_TRUE(sp_element->getSubElementValue(1, number));
    EXPECT_EQ(number, 7U);
    EXPECT_EQ(lines, Lines_{"W Tag 10 has unused data of 3 bytes"});
}

TEST_P(WireFormatOnASocket, anOpenedStreamBeginsWithTheNameAndTheMessage) {
    RawListener_ listener(m_address);
    Station_ panel("panel", m_directory);
    ASSERT_TRUE(panel.terminal().sendMessage(exampleMessage()));

    RawPeer_ sensor = listener.accept();
    ASSERT_TRUE(panel.workUntil([&] { return panel.isConnected("sensor"); }));

    EXPECT_EQ(sensor.read(10), page().bytes("name-block"));
    EXPECT_EQ(sensor.read(152), page().bytes("message-block"));
}

TEST_P(WireFormatOnASocket, theBytesOfAStreamArriveAsTheMessage) {
    Station_ sensor("sensor", m_directory);
    RawPeer_ panel(m_address);
    m_records.take();
    const std::string bytes = page().bytes("name-block") + page().bytes("message-block");
    panel.write(bytes);

    const SP_VekMessage_ sp_message = sensor.await();

    ASSERT_FALSE(sp_message.isNull());
    expectExampleHeader(*sp_message);
    expectExamplePayload(*sp_message);
    EXPECT_TRUE(sensor.isConnected("panel"));
    EXPECT_EQ(takeLines(m_records), Lines_());
}

TEST_P(WireFormatOnASocket, theAcceptingSideSendsMessagesWithoutAName) {
    Station_ sensor("sensor", m_directory);
    RawPeer_ panel(m_address);
    panel.write(page().bytes("name-block"));
    ASSERT_TRUE(sensor.workUntil([&] { return sensor.isConnected("panel"); }));
    const SP_VekMessage_ sp_message = exampleMessage();
    sp_message->swapSourceDestination();

    ASSERT_TRUE(sensor.terminal().sendMessage(sp_message));

    EXPECT_EQ(panel.read(4), page().bytes("message-block").substr(0, 4));
    EXPECT_EQ(panel.read(148), encoded(sp_message));
}

TEST_P(WireFormatOnASocket, aPingIsAnsweredWithTheBytesOfThePage) {
    Station_ sensor("sensor", m_directory);
    RawPeer_ panel(m_address);
    m_records.take();
    const std::string bytes = page().bytes("name-block") + page().bytes("ping-request");
    panel.write(bytes);

    EXPECT_TRUE(sensor.await(5).isNull());

    EXPECT_EQ(panel.read(97), page().bytes("ping-reply"));
    EXPECT_EQ(takeLines(m_records), Lines_());
}
