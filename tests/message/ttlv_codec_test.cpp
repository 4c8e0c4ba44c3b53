#include <gtest/gtest.h>

#include "message/message_fixture.h"

namespace {

const char* const kSerializeHeader =
    "static unsigned int VekMessageBinary_::serializeTtlvHeader(unsigned char*, unsigned int, VekmsgTag_, "
    "VekmsgDataType_, unsigned int)";
const char* const kSerialize =
    "static unsigned int VekMessageBinary_::serializeTtlv(unsigned char*, unsigned int, VekmsgTag_, "
    "VekmsgDataType_, unsigned int, const unsigned char*)";
const char* const kDeserializeHeader =
    "static unsigned int VekMessageBinary_::deserializeTtlvHeader(const unsigned char*, unsigned int, "
    "VekmsgTag_&, VekmsgDataType_&, unsigned int&)";
const char* const kDeserialize =
    "static unsigned int VekMessageBinary_::deserializeTtlv(const unsigned char*, unsigned int, "
    "VekmsgTag_&, VekmsgDataType_&, unsigned int&, const unsigned char*&)";

/// 16 bytes of free space in which untouched bytes can be told, and the outputs of reading.
class TtlvCodec : public RecordingTest_ {
protected:
    unsigned int writeHeader(unsigned int freespaceSize, VekmsgTag_ tag, VekmsgDataType_ type,
                             unsigned int length) {
        return VekMessageBinary_::serializeTtlvHeader(end(), freespaceSize, tag, type, length);
    }
    unsigned int write(unsigned int freespaceSize, VekmsgTag_ tag, VekmsgDataType_ type,
                       const Bytes_& value) {
        static const unsigned char s_nothing = 0;
        return VekMessageBinary_::serializeTtlv(end(), freespaceSize, tag, type,
                                                static_cast<unsigned int>(value.size()),
                                                value.empty() ? &s_nothing : value.data());
    }
    unsigned int readHeader(const Bytes_& bytes) {
        return VekMessageBinary_::deserializeTtlvHeader(bytes.data(), static_cast<unsigned int>(bytes.size()),
                                                        m_tag, m_type, m_length);
    }
    unsigned int read(const Bytes_& bytes) {
        return VekMessageBinary_::deserializeTtlv(bytes.data(), static_cast<unsigned int>(bytes.size()),
                                                  m_tag, m_type, m_length, m_p_value);
    }
    unsigned char* end() { return m_freespace.data() + m_freespace.size(); }
    Bytes_ last(std::size_t count) const {
        return Bytes_(m_freespace.end() - long(count), m_freespace.end());
    }

    void expectReset() const {
        EXPECT_EQ(m_tag, VEKMSGTAG_ANY);
        EXPECT_EQ(m_type, VEKMSG_UNDEFINED);
        EXPECT_EQ(m_length, 0U);
    }

    Bytes_ m_freespace = Bytes_(16, 0xEE);
    VekmsgTag_ m_tag = 99;
    VekmsgDataType_ m_type = VEKMSG_BINARY;
    unsigned int m_length = 99;
    const unsigned char* m_p_value = text("junk");
};

}  // namespace

TEST_F(TtlvCodec, theHeaderIsSixBytes) {
    EXPECT_EQ(VekMessageBinary_::getTtlvHeaderSize(), 6U);
}

TEST_F(TtlvCodec, aHeaderIsWrittenDirectlyBeforeTheEnd) {
    EXPECT_EQ(writeHeader(6, 0x0102, VEKMSG_STRING, 0x0304), 6U);

    EXPECT_EQ(last(7), (Bytes_{0xEE, 1, 2, 0, 3, 3, 4}));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TtlvCodec, anItemIsWrittenDirectlyBeforeTheEnd) {
    EXPECT_EQ(write(9, 5, VEKMSG_BINARY, {10, 11, 12}), 9U);

    EXPECT_EQ(last(10), (Bytes_{0xEE, 0, 5, 0, 4, 0, 3, 10, 11, 12}));
}

TEST_F(TtlvCodec, onlyTheLowSixteenBitsAreWritten) {
    EXPECT_EQ(writeHeader(16, 0x12345, static_cast<VekmsgDataType_>(0x20003), 0x1ABCD), 6U);

    EXPECT_EQ(last(6), (Bytes_{0x23, 0x45, 0, 3, 0xAB, 0xCD}));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TtlvCodec, theTagAnyReadsBackAs65535) {
    writeHeader(16, VEKMSGTAG_ANY, VEKMSG_UINT, 4);

    EXPECT_EQ(readHeader(last(6)), 6U);

    EXPECT_EQ(m_tag, 65535U);
    EXPECT_NE(m_tag, VEKMSGTAG_ANY);
}

TEST_F(TtlvCodec, anItemWithoutValueIsSixBytes) {
    EXPECT_EQ(write(6, 9, VEKMSG_BINARY, {}), 6U);
    const Bytes_ bytes = last(6);

    EXPECT_EQ(read(bytes), 6U);

    EXPECT_EQ(m_length, 0U);
    EXPECT_EQ(m_p_value, bytes.data() + 6);
}

TEST_F(TtlvCodec, writingAHeaderToNowhereIsRefused) {
    EXPECT_EQ(VekMessageBinary_::serializeTtlvHeader(nullptr, 16, 1, VEKMSG_UINT, 4), 0U);
    EXPECT_EQ(
        m_records.take(),
        Records_{error(kSerializeHeader, "VekMessageBinary_::serializeTlvHeader() null p_endOfFreespace")});
}

TEST_F(TtlvCodec, aHeaderNeedsSixBytes) {
    EXPECT_EQ(writeHeader(5, VEKMSGTAG_ANY, VEKMSG_UINT, 4), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeHeader,
                             "VekMessageBinary_::serializeTlvHeader() freespaceSize 5 is too short for TLV "
                             "header of (4294967295, 2, 4)")});
    EXPECT_EQ(m_freespace, Bytes_(16, 0xEE));
}

TEST_F(TtlvCodec, writingAnItemToNowhereIsRefused) {
    EXPECT_EQ(VekMessageBinary_::serializeTtlv(nullptr, 16, 1, VEKMSG_UINT, 4, nullptr), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerialize, "VekMessageBinary_::serializeTlv() null p_endOfFreespace")});
}

TEST_F(TtlvCodec, writingANullValueIsRefused) {
    EXPECT_EQ(VekMessageBinary_::serializeTtlv(end(), 3, 1, VEKMSG_UINT, 4, nullptr), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerialize, "VekMessageBinary_::serializeTlv() null p_value")});
}

TEST_F(TtlvCodec, aValueThatDoesNotFitIsRefused) {
    EXPECT_EQ(write(3, 1, VEKMSG_UINT, {0, 0, 0, 1}), 0U);
    EXPECT_EQ(
        m_records.take(),
        Records_{error(kSerialize,
                       "VekMessageBinary_::serializeTlv() freespaceSize 3 is too short for data length 4")});
    EXPECT_EQ(m_freespace, Bytes_(16, 0xEE));
}

TEST_F(TtlvCodec, fiveBytesBesideTheValueFailInTheHeaderAfterTheValueWasCopied) {
    EXPECT_EQ(write(4 + 5, 1, VEKMSG_UINT, {1, 2, 3, 4}), 0U);

    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeHeader,
                             "VekMessageBinary_::serializeTlvHeader() freespaceSize 5 is too short for TLV "
                             "header of (1, 2, 4)")});
    EXPECT_EQ(last(5), (Bytes_{0xEE, 1, 2, 3, 4}));
}

TEST_F(TtlvCodec, aHeaderIsReadInThreeParts) {
    EXPECT_EQ(readHeader({0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54}), 6U);

    EXPECT_EQ(m_tag, 0xFEDCU);
    EXPECT_EQ(static_cast<unsigned int>(m_type), 0xBA98U);
    EXPECT_EQ(m_length, 0x7654U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TtlvCodec, readingAHeaderFromNowhereIsRefused) {
    EXPECT_EQ(VekMessageBinary_::deserializeTtlvHeader(nullptr, 6, m_tag, m_type, m_length), 0U);
    EXPECT_EQ(
        m_records.take(),
        Records_{error(kDeserializeHeader, "VekMessageBinary_::deserializeTtlvHeader() null p_bytestream")});
    expectReset();
}

TEST_F(TtlvCodec, aHeaderCannotBeReadFromFiveBytes) {
    EXPECT_EQ(readHeader({0, 1, 0, 3, 0}), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserializeHeader,
                             "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 5 is too short")});
    expectReset();
}

TEST_F(TtlvCodec, aValueIsReadWithoutCopyingIt) {
    const Bytes_ bytes{0, 5, 0, 4, 0, 2, 20, 21, 99};

    EXPECT_EQ(read(bytes), 8U);

    EXPECT_EQ(m_tag, 5U);
    EXPECT_EQ(m_type, VEKMSG_BINARY);
    EXPECT_EQ(m_length, 2U);
    EXPECT_EQ(m_p_value, bytes.data() + 6);
}

TEST_F(TtlvCodec, aValueUpToTheEndConsumesTheWholeStream) {
    EXPECT_EQ(read({0, 5, 0, 4, 0, 2, 20, 21}), 8U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TtlvCodec, readingAnItemFromNowhereIsRefused) {
    EXPECT_EQ(VekMessageBinary_::deserializeTtlv(nullptr, 6, m_tag, m_type, m_length, m_p_value), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserialize, "VekMessageBinary_::deserializeTtlv() null p_bytestream")});
    expectReset();
    EXPECT_EQ(m_p_value, nullptr);
}

TEST_F(TtlvCodec, anItemWithoutAWholeHeaderFailsInTheHeader) {
    EXPECT_EQ(read({0, 5, 0, 4, 0}), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserializeHeader,
                             "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 5 is too short")});
    expectReset();
    EXPECT_EQ(m_p_value, nullptr);
}

TEST_F(TtlvCodec, aLengthBeyondTheStreamIsRefusedButKeepsTheHeadersValues) {
    EXPECT_EQ(read({0, 5, 0, 4, 0, 3, 20, 21}), 0U);

    EXPECT_EQ(m_records.take(),
              Records_{error(
                  kDeserialize,
                  "VekMessageBinary_::deserializeTtlv() data length 3 is too large for remaining stream 2")});
    EXPECT_EQ(m_tag, 5U);
    EXPECT_EQ(m_type, VEKMSG_BINARY);
    EXPECT_EQ(m_length, 3U);
    EXPECT_EQ(m_p_value, nullptr);
}

TEST_F(TtlvCodec, validityLooksAtTheFirstItemOnly) {
    const Bytes_ bytes{0, 5, 0, 4, 0, 2, 20, 21, 0, 0, 0};

    EXPECT_TRUE(VekMessageBinary_::isValidTtlv(bytes.data(), 11));
    EXPECT_TRUE(VekMessageBinary_::isValidTtlv(bytes.data(), 8));
    EXPECT_FALSE(VekMessageBinary_::isValidTtlv(bytes.data(), 7));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TtlvCodec, validityNeedsAWholeHeader) {
    const Bytes_ bytes{0, 5, 0, 4, 0, 0};

    EXPECT_TRUE(VekMessageBinary_::isValidTtlv(bytes.data(), 6));
    EXPECT_FALSE(VekMessageBinary_::isValidTtlv(bytes.data(), 5));
    EXPECT_FALSE(VekMessageBinary_::isValidTtlv(nullptr, 6));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(TtlvCodec, tagsTypesAndLengthsTravelUpTo65535) {
    for (const unsigned int number : {65534U, 65535U, 65536U, 65537U}) {
        writeHeader(16, number, static_cast<VekmsgDataType_>(number), number);

        EXPECT_EQ(readHeader(last(6)), 6U);

        EXPECT_EQ(m_tag, number % 65536);
        EXPECT_EQ(m_type, number % 65536);
        EXPECT_EQ(m_length, number % 65536);
    }
    EXPECT_EQ(m_records.take(), Records_());
}
