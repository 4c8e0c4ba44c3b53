// Blocks in a receive buffer: written, read, taken out and discarded.

#include <cstring>

#include "support/allocation_failure.h"
#include "terminal/connections.h"

namespace {

constexpr char kExtractHeader[] = "bool VekmsgConnection_::extractEncodingHeader(libcpp::SP_BasicBuffer_)";
constexpr char kExtractPayload[] =
    "bool VekmsgConnection_::extractEncodingPayload(libcpp::SP_BasicBuffer_, unsigned char*&)";
constexpr char kDiscard[] = "bool VekmsgConnection_::discardAllDecodedPayload(libcpp::SP_BasicBuffer_&)";

using Type_ = VekmsgConnection_::EncodingBlockType_;

std::string headerOf(unsigned int type, unsigned int length) {
    unsigned char header[] = {'x', 'x', 'x', 'x', 'x'};
    VekmsgConnection_::writeEncodingBlockHeader(header, static_cast<Type_>(type), length);
    EXPECT_EQ(header[4], 'x');
    return std::string(reinterpret_cast<const char*>(header), 4);
}

class EncodingBlock : public ::testing::Test {
protected:
    EncodingBlock() { m_connection.m_connectionState = VekmsgConnection_::STATE_RECEIVING_HEADER; }

    void expectHeaderRefused(const std::string& bytes, unsigned int offset, const std::string& text) {
        m_connection.m_decodeOffset = offset;
        m_connection.m_blockType = VekmsgConnection_::BINARY_ENCODED_MESSAGE;
        m_connection.m_blockLength = 77;

        EXPECT_TRUE(m_connection.extractEncodingHeader(bufferOf(bytes)));

        EXPECT_EQ(m_connection.state(), VekmsgConnection_::STATE_FAILED);
        EXPECT_EQ(m_connection.m_decodeOffset, offset);
        EXPECT_EQ(m_connection.m_blockType, VekmsgConnection_::BINARY_ENCODED_MESSAGE);
        EXPECT_EQ(m_connection.m_blockLength, 77U);
        EXPECT_EQ(m_records.take(), (Records_{connectionRecord(3, kExtractHeader, text)}));
    }

    void expectPayloadRefused(const std::string& bytes, unsigned int offset, unsigned int length,
                              const std::string& text) {
        unsigned char byte = 0;
        unsigned char* p_payload = &byte;
        m_connection.m_decodeOffset = offset;
        m_connection.m_blockLength = length;

        EXPECT_TRUE(m_connection.extractEncodingPayload(bufferOf(bytes), p_payload));

        EXPECT_EQ(p_payload, nullptr);
        EXPECT_EQ(m_connection.state(), VekmsgConnection_::STATE_FAILED);
        EXPECT_EQ(m_connection.m_decodeOffset, offset);
        EXPECT_EQ(m_records.take(), (Records_{connectionRecord(3, kExtractPayload, text)}));
    }

    RecordCapture_ m_records;
    BareConnection_ m_connection;
};

}  // namespace

TEST_F(EncodingBlock, typesHaveTheirNumbers) {
    EXPECT_EQ(VekmsgConnection_::NO_ENCODING_BLOCK, 0U);
    EXPECT_EQ(VekmsgConnection_::VEK_COMPONENT_NAME, 1U);
    EXPECT_EQ(VekmsgConnection_::BINARY_ENCODED_MESSAGE, 2U);
    EXPECT_EQ(sizeof(Type_), 4U);
}

TEST_F(EncodingBlock, aHeaderIsTypeAndLengthInFourBytesBigEndian) {
    EXPECT_EQ(VekmsgConnection_::getEncodingBlockHeaderSize(), 4U);
    EXPECT_EQ(headerOf(2, 0x1234), std::string("\x00\x02\x12\x34", 4));
    EXPECT_EQ(headerOf(0x0102, 0), std::string("\x01\x02\x00\x00", 4));
    EXPECT_EQ(headerOf(0xFFFF, 0xFFFF), "\xFF\xFF\xFF\xFF");
}

TEST_F(EncodingBlock, onlyTheLow16BitsOfTypeAndLengthAreWritten) {
    EXPECT_EQ(headerOf(2, 70000), headerOf(2, 4464));
    EXPECT_EQ(headerOf(0x10002, 0x12340005), headerOf(2, 5));
}

TEST_F(EncodingBlock, aHeaderIsReadZeroExtended) {
    const struct {
        std::string m_bytes;
        unsigned int m_type;
        unsigned int m_length;
    } cases[] = {{std::string("\x00\x01\x00\x0A", 4), 1, 10},
                 {std::string("\x00\x00\x00\x00", 4), 0, 0},
                 {"\xFF\xFE\xFD\xFC", 0xFFFE, 0xFDFC}};
    for (const auto& each : cases) {
        auto type = static_cast<Type_>(0xAAAAAAAA);
        unsigned int length = 0xAAAAAAAA;

        EXPECT_EQ(VekmsgConnection_::readEncodingBlockHeader(
                      reinterpret_cast<const unsigned char*>(each.m_bytes.data()), type, length),
                  4U);

        EXPECT_EQ(type, each.m_type);
        EXPECT_EQ(length, each.m_length);
    }
}

TEST_F(EncodingBlock, aHeaderIsExtractedAtTheDecodeOffset) {
    m_connection.m_decodeOffset = 3;

    EXPECT_TRUE(m_connection.extractEncodingHeader(bufferOf("xyz" + block(7, "ab"))));

    EXPECT_EQ(m_connection.m_blockType, 7U);
    EXPECT_EQ(m_connection.m_blockLength, 2U);
    EXPECT_EQ(m_connection.m_decodeOffset, 7U);
    EXPECT_EQ(m_connection.state(), VekmsgConnection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, fourUndecodedBytesAreEnoughForAHeader) {
    EXPECT_TRUE(m_connection.extractEncodingHeader(bufferOf(headerOf(2, 9))));

    EXPECT_EQ(m_connection.m_decodeOffset, 4U);
    EXPECT_EQ(m_connection.state(), VekmsgConnection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, fewerThanFourUndecodedBytesFailTheConnection) {
    for (unsigned int left = 0; left < 4; ++left) {
        for (unsigned int offset : {0U, 5U}) {
            expectHeaderRefused(std::string(offset + left, '\0'), offset,
                                "VekmsgConnection_::extractEncodingHeader() data length " +
                                    std::to_string(left) + " is too short for encoding header");
        }
    }
}

TEST_F(EncodingBlock, aHeaderBehindTheDataFailsTheConnection) {
    expectHeaderRefused("12345", 6,
                        "VekmsgConnection_::extractEncodingHeader() data length 5 is shorter than decode "
                        "offset 6");
}

TEST_F(EncodingBlock, aPayloadIsAPointerIntoTheBuffer) {
    const SP_BasicBuffer_ sp_buffer = bufferOf("xyzabcde");
    unsigned char* p_payload = nullptr;
    m_connection.m_decodeOffset = 3;
    m_connection.m_blockLength = 4;

    EXPECT_TRUE(m_connection.extractEncodingPayload(sp_buffer, p_payload));

    EXPECT_EQ(p_payload, sp_buffer->data() + 3);
    EXPECT_EQ(m_connection.m_decodeOffset, 7U);
    EXPECT_EQ(m_connection.state(), VekmsgConnection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, anEmptyPayloadIsAPointerToThePresentPosition) {
    const SP_BasicBuffer_ sp_buffer = bufferOf("wxyz");
    unsigned char* p_payload = nullptr;
    m_connection.m_decodeOffset = 4;
    m_connection.m_blockLength = 0;

    EXPECT_TRUE(m_connection.extractEncodingPayload(sp_buffer, p_payload));

    EXPECT_EQ(p_payload, sp_buffer->data() + 4);
    EXPECT_EQ(m_connection.m_decodeOffset, 4U);
    EXPECT_EQ(m_connection.state(), VekmsgConnection_::STATE_RECEIVING_HEADER);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, aPayloadThatIsNotWholeFailsTheConnection) {
    expectPayloadRefused("xyzab", 3, 3,
                         "VekmsgConnection_::extractEncodingPayload() data length 2 is shorter than the "
                         "expected payload 3");
    expectPayloadRefused("xyz", 3, 65535,
                         "VekmsgConnection_::extractEncodingPayload() data length 0 is shorter than the "
                         "expected payload 65535");
}

TEST_F(EncodingBlock, aPayloadBehindTheDataFailsTheConnection) {
    expectPayloadRefused("xyz", 4, 0,
                         "VekmsgConnection_::extractEncodingPayload() data length 3 is shorter than decode "
                         "offset 4");
}

TEST_F(EncodingBlock, discardingWithoutABufferMakesAnEmptyOneOf9400Bytes) {
    SP_BasicBuffer_ sp_buffer;
    m_connection.m_decodeOffset = 12;

    EXPECT_TRUE(m_connection.discardAllDecodedPayload(sp_buffer));

    ASSERT_TRUE(sp_buffer);
    EXPECT_EQ(sp_buffer->capacity(), 9400U);
    EXPECT_EQ(sp_buffer->dataOffset(), 0U);
    EXPECT_EQ(sp_buffer->dataLength(), 0U);
    EXPECT_EQ(m_connection.m_decodeOffset, 0U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, aBufferThatIsDecodedWholeIsEmptiedAndKept) {
    for (unsigned int offset : {6U, 7U}) {
        const SP_BasicBuffer_ sp_before = bufferOf("..123456");
        ASSERT_TRUE(sp_before->extendDataIntoHeader(-2));
        SP_BasicBuffer_ sp_buffer = sp_before;
        m_connection.m_decodeOffset = offset;

        EXPECT_TRUE(m_connection.discardAllDecodedPayload(sp_buffer));

        EXPECT_EQ(sp_buffer, sp_before);
        EXPECT_EQ(sp_buffer->dataOffset(), 0U);
        EXPECT_EQ(sp_buffer->dataLength(), 0U);
        EXPECT_EQ(m_connection.m_decodeOffset, 0U);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, sixUndecodedBytesMoveToANewBufferAndNothingElse) {
    const SP_BasicBuffer_ sp_before = bufferOf("12345abcdef");
    SP_BasicBuffer_ sp_buffer = sp_before;
    m_connection.m_decodeOffset = 5;

    EXPECT_TRUE(m_connection.discardAllDecodedPayload(sp_buffer));

    EXPECT_NE(sp_buffer, sp_before);
    EXPECT_EQ(bytesOf(sp_buffer), "abcdef");
    EXPECT_EQ(sp_buffer->capacity(), 9400U);
    EXPECT_EQ(sp_buffer->dataOffset(), 0U);
    EXPECT_EQ(m_connection.m_decodeOffset, 0U);
    EXPECT_EQ(bytesOf(sp_before), "12345abcdef");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, undecodedBytesThatFillTheNewBufferMoveToo) {
    SP_BasicBuffer_ sp_buffer = bufferOf("x" + std::string(9400, 'y'));
    m_connection.m_decodeOffset = 1;

    EXPECT_TRUE(m_connection.discardAllDecodedPayload(sp_buffer));

    EXPECT_EQ(bytesOf(sp_buffer), std::string(9400, 'y'));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, undecodedBytesThatDoNotFitStayWhereTheyAre) {
    const SP_BasicBuffer_ sp_before = bufferOf("x" + std::string(9401, 'y'));
    SP_BasicBuffer_ sp_buffer = sp_before;
    m_connection.m_decodeOffset = 1;

    EXPECT_FALSE(m_connection.discardAllDecodedPayload(sp_buffer));

    EXPECT_EQ(sp_buffer, sp_before);
    EXPECT_EQ(m_connection.m_decodeOffset, 1U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(EncodingBlock, discardingWithoutMemoryChangesNothing) {
    const char* texts[] = {"VekmsgConnection_::discardAllDecodedPayload() Can't create basicBuffer_",
                           "VekmsgConnection_::discardAllDecodedPayload() can't allocate basicBuffer"};
    for (unsigned int number : {1U, 2U}) {
        inFreshThread([&] {
            const SP_BasicBuffer_ sp_before = bufferOf("12345abcdef");
            SP_BasicBuffer_ sp_buffer = sp_before;
            m_connection.m_decodeOffset = 5;
            {
                AllocationFailure_ failure(number);
                EXPECT_FALSE(m_connection.discardAllDecodedPayload(sp_buffer));
            }
            EXPECT_EQ(sp_buffer, sp_before);
            EXPECT_EQ(bytesOf(sp_buffer), "12345abcdef");
            EXPECT_EQ(m_connection.m_decodeOffset, 5U);
            EXPECT_EQ(m_connection.state(), VekmsgConnection_::STATE_RECEIVING_HEADER);
            EXPECT_EQ(m_records.take(), (Records_{connectionRecord(3, kDiscard, texts[number - 1])}));
        });
    }
}
