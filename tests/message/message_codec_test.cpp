#include <gtest/gtest.h>

#include <cstring>

#include "foundation/free_list.h"
#include "message/message_fixture.h"
#include "support/allocation_failure.h"

namespace {

const char* const kSerialize = "unsigned int VekMessageBinary_::serialize(libcpp::SP_BasicBuffer_&)";
const char* const kSerializeBuffer =
    "bool VekMessageBinary_::serialize(unsigned int, libcpp::SP_BasicBuffer_&) const";
const char* const kSerializeTree =
    "unsigned int VekMessageBinary_::serialize(unsigned int, libcpp::BasicBuffer_&) const";
const char* const kDeserialize = "unsigned int VekMessageBinary_::deserialize(libcpp::SP_BasicBuffer_)";
const char* const kDeserializeHeader =
    "unsigned int VekMessageBinary_::deserialize(const unsigned char*, unsigned int)";
const char* const kElementSerialize =
    "unsigned int VekmsgElementBinary_::serialize(unsigned char*, unsigned int) const";
const char* const kTtlv =
    "static unsigned int VekMessageBinary_::deserializeTtlv(const unsigned char*, unsigned int, "
    "VekmsgTag_&, VekmsgDataType_&, unsigned int&, const unsigned char*&)";
const char* const kTtlvHeader =
    "static unsigned int VekMessageBinary_::deserializeTtlvHeader(const unsigned char*, unsigned int, "
    "VekmsgTag_&, VekmsgDataType_&, unsigned int&)";

const Record_ kNullPayload = error(kSerialize, "VekMessageBinary_::serialize() null payload");

Record_ tooShort(unsigned int length) {
    return error(kTtlvHeader, "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength " +
                                  std::to_string(length) + " is too short");
}

/// A root element that has its message serialised while the root is being read.
class Meddler_ : public VekmsgElementBinary_ {
public:
    Meddler_(VekMessageBinary_* p_message) : VekmsgElementBinary_(0, p_message), m_p_owner(p_message) {}
    bool setTag(VekmsgTag_ tag) override {
        SP_BasicBuffer_ sp_buffer;
        EXPECT_EQ(m_p_owner->serialize(sp_buffer), 0U);
        return VekmsgElementBinary_::setTag(tag);
    }

private:
    VekMessageBinary_* m_p_owner;
};

class MeddlingMessage_ : public VekMessageBinary_ {
public:
    SP_VekmsgElement_ createElement(VekmsgTag_) const override {
        return SP_VekmsgElement_(new Meddler_(const_cast<MeddlingMessage_*>(this)));
    }
};

/// A buffer that claims more than it has, because not every machine could give so much.
class ClaimingBuffer_ : public BasicBuffer_ {
public:
    ClaimingBuffer_(unsigned int headerRoom, unsigned int dataLength) : BasicBuffer_(1) {
        m_capacity = headerRoom + dataLength;
        m_dataOffset = headerRoom;
        m_dataLength = dataLength;
    }
};

class MessageCodec : public RecordingTest_ {
protected:
    MessageCodec() {
        m_sp_message->setDestination(text("a"));
        m_sp_message->setSource(text("b"));
    }

    unsigned int serialize() { return m_sp_message->serialize(m_sp_buffer); }
    unsigned int receive(const Bytes_& bytes) { return m_sp_message->deserialize(bufferOf(bytes)); }

    /// Makes the whole message have this size.
    void fillTo(unsigned int size) {
        const SP_VekmsgElementBinary_ sp_root = newElement(0);
        unsigned int rest = size - kEmpty - 12;
        while (rest > 9412) {
            sp_root->addSubelements(newBinary(1, Bytes_(9000, 1)));
            rest -= 9012;
        }
        sp_root->addSubelements(newBinary(1, Bytes_(rest - 12, 1)));
        m_sp_message->setPayload(sp_root);
        ASSERT_EQ(m_sp_message->getMaxSerializationSize(), size);
    }

    static constexpr unsigned int kEmpty = 24 + 4 + 2 + 2 + 1;  // the message without its payload

    SP_VekMessageBinary_ m_sp_message{new VekMessageBinary_};
    SP_BasicBuffer_ m_sp_buffer;
};

}  // namespace

TEST_F(MessageCodec, theSmallestNumberMessageHas49Bytes) {
    m_sp_message->setPayload(newElement(5, 7U));

    EXPECT_EQ(m_sp_message->getMaxSerializationSize(), 49U);
    EXPECT_EQ(serialize(), 49U);

    EXPECT_EQ(dataOf(m_sp_buffer),
              (Bytes_{0, 1, 0, 3, 0, 2, 'a', 0, 0, 2, 0, 3, 0, 2,  'b', 0, 0, 3, 0, 2, 0, 4, 0, 0, 0,
                      3, 0, 4, 0, 3, 0, 1,   0, 0, 5, 0, 0, 0, 10, 0,   0, 0, 2, 0, 4, 0, 0, 0, 7}));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(MessageCodec, aMessageCanBeWrittenAgain) {
    m_sp_message->setPayload(newElement(5, 7U));
    serialize();
    const Bytes_ first = dataOf(m_sp_buffer);
    m_sp_buffer.reset();

    EXPECT_EQ(serialize(), 49U);

    EXPECT_EQ(dataOf(m_sp_buffer), first);
}

TEST_F(MessageCodec, aSmallMessageGetsABufferOf1024Bytes) {
    for (const unsigned int size : {100U, 767U, 768U}) {
        m_sp_buffer.reset();
        fillTo(size);

        EXPECT_EQ(serialize(), size);

        EXPECT_EQ(m_sp_buffer->capacity(), 1024U);
        EXPECT_EQ(m_sp_buffer->trailerRoom(), 0U);
        EXPECT_EQ(m_sp_buffer->headerRoom(), 1024 - size);
    }
}

TEST_F(MessageCodec, aNewBufferLeaves256BytesInFrontOfTheMessage) {
    fillTo(769);

    EXPECT_EQ(serialize(), 769U);

    EXPECT_EQ(m_sp_buffer->capacity(), 1025U);
    EXPECT_EQ(m_sp_buffer->headerRoom(), 256U);
}

TEST_F(MessageCodec, aMessageOf9144BytesIsNotTooLargeForThePeer) {
    fillTo(9144);

    EXPECT_EQ(serialize(), 9144U);
    EXPECT_EQ(m_sp_buffer->capacity(), 9400U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(MessageCodec, aMessageOf9145BytesIsWrittenWithAWarning) {
    fillTo(9145);

    EXPECT_EQ(serialize(), 9145U);
    EXPECT_EQ(m_sp_buffer->capacity(), 9401U);
    EXPECT_EQ(
        m_records.take(),
        Records_{warning(kSerializeBuffer, "Message (b -> a) size 9145 could be too large for the peer")});
}

TEST_F(MessageCodec, aMessageOf65280BytesIsTheLargest) {
    fillTo(65280);

    EXPECT_EQ(serialize(), 65280U);
    EXPECT_EQ(
        m_records.take(),
        Records_{warning(kSerializeBuffer, "Message (b -> a) size 65280 could be too large for the peer")});
}

TEST_F(MessageCodec, aMessageOf65281BytesExceedsTheEncodingLimit) {
    fillTo(65281);

    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeBuffer, "Message (b -> a) size 65281 exceeds the encoding limit")});
    EXPECT_TRUE(m_sp_buffer.isNull());
}

TEST_F(MessageCodec, aSizeThatWrapsIsRefusedByTheLastCheck) {
    // Elements shared by twos, so that few elements have a size just below 2^32.
    std::vector<SP_VekmsgElementBinary_> doubled{newBinary(1, Bytes_(9400, 1))};
    while (doubled.size() < 19) {
        const SP_VekmsgElementBinary_ sp_pair = newElement(1);
        sp_pair->addSubelements(doubled.back());
        sp_pair->addSubelements(doubled.back());
        doubled.push_back(sp_pair);
    }
    const SP_VekmsgElementBinary_ sp_root = newElement(1);
    unsigned int rest = 0xFFFFFF80U - kEmpty - 12;
    for (std::size_t i = doubled.size(); i-- != 0;) {
        const unsigned int size = doubled[i]->getMaxSerializationSize();
        for (; rest >= size; rest -= size) sp_root->addSubelements(doubled[i]);
    }
    if (rest >= 12) sp_root->addSubelements(newBinary(1, Bytes_(rest - 12, 1)));
    m_sp_message->setPayload(sp_root);
    const unsigned int size = m_sp_message->getMaxSerializationSize();
    ASSERT_GE(size, 0xFFFFFF00U);

    EXPECT_EQ(serialize(), 0U);

    EXPECT_EQ(
        m_records.take(),
        Records_{error(kSerializeBuffer, "Message (b -> a) size " + std::to_string(size) + " exceeds 1024")});
}

TEST_F(MessageCodec, aRawPayloadWithWhichTheSizeWouldWrapIsRefused) {
    const SP_BasicBuffer_ sp_rawPayload(new ClaimingBuffer_(0, 0xFFFFFFF0U));
    m_sp_message->setRawPayload(sp_rawPayload);
    EXPECT_EQ(m_sp_message->getMaxSerializationSize(), 0xFFFFFFFFU);

    EXPECT_EQ(serialize(), 0U);

    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeBuffer, "Message (b -> a) size 4294967295 exceeds 1024")});
    EXPECT_TRUE(m_sp_message->getRawPayload() == sp_rawPayload);
}

TEST_F(MessageCodec, aRawPayloadOfTwoGigabytesIsRefusedWhateverTheRoom) {
    m_sp_message->setRawPayload(SP_BasicBuffer_(new ClaimingBuffer_(0, 0x80000000U)));
    m_sp_buffer = new ClaimingBuffer_(0x90000000U, 0);

    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_sp_buffer->dataLength(), 0U);
}

TEST_F(MessageCodec, withoutPayloadTheSizeIsThatOfTheHeader) {
    EXPECT_EQ(m_sp_message->getMaxSerializationSize(), kEmpty);
}

TEST_F(MessageCodec, aMessageWithoutPayloadCannotBeWritten) {
    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_records.take(), Records_{kNullPayload});
}

TEST_F(MessageCodec, aMessageWithBothPayloadsCannotBeWritten) {
    // While the root is being read, both are set.
    const SP_VekMessageBinary_ sp_message(new MeddlingMessage_);
    sp_message->setRawPayload(bufferOf(uintElement(5, 7)));

    EXPECT_FALSE(sp_message->getPayload().isNull());

    const Record_ dual = error(kSerialize, "VekMessageBinary_::serialize() dual payloads");
    EXPECT_EQ(m_records.take(), (Records_{dual, dual}));
}

TEST_F(MessageCodec, aTreeWithoutValueCannotBeWritten) {
    m_sp_message->setPayload(newElement(5));

    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(
        m_records.take(),
        (Records_{error(kElementSerialize, "VekmsgElementBinary_::serialize() invalid type 0 for tag 5"),
                  error(kSerializeTree,
                        "Serialization of Message (b -> a) of 45 bytes failed. Free "
                        "space 1024")}));
}

TEST_F(MessageCodec, aForeignPayloadCannotBeWrittenAndCountsAsNothing) {
    m_sp_message->setPayload(SP_VekmsgElement_(new ForeignElement_(5)));

    EXPECT_EQ(m_sp_message->getMaxSerializationSize(), kEmpty);
    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeTree, "VekMessageBinary_::serialize() invalid vekMessageBinary_")});
}

TEST_F(MessageCodec, aTreeIsWrittenInFrontOfWhatAGivenBufferHolds) {
    m_sp_message->setPayload(newElement(5, 7U));
    m_sp_buffer = bufferOf(bytesOf("behind"), 9500);

    EXPECT_EQ(serialize(), 49U);

    EXPECT_EQ(dataOf(m_sp_buffer), header("a", "b", 3, "") + uintElement(5, 7) + bytesOf("behind"));
}

TEST_F(MessageCodec, aGivenBufferMayBeFilledToItsStart) {
    m_sp_message->setPayload(newElement(5, 7U));
    m_sp_buffer = new BasicBuffer_(49);
    m_sp_buffer->setDataArea(49, 0);

    EXPECT_EQ(serialize(), 49U);
    EXPECT_EQ(m_sp_buffer->headerRoom(), 0U);
}

TEST_F(MessageCodec, aGivenBufferWithoutRoomIsRefused) {
    m_sp_message->setPayload(newElement(5, 7U));
    m_sp_buffer = new BasicBuffer_(49);
    m_sp_buffer->setDataArea(48, 0);

    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerialize, "Not enough header space 48. Message (b -> a) needs 49")});
}

TEST_F(MessageCodec, aRawPayloadIsCopiedIntoAGivenBufferAndKept) {
    const SP_BasicBuffer_ sp_raw = bufferOf(uintElement(5, 7), 9500);
    m_sp_message->setRawPayload(sp_raw);
    m_sp_buffer = bufferOf(bytesOf("behind"), 9500);

    EXPECT_EQ(serialize(), 49U);

    EXPECT_EQ(dataOf(m_sp_buffer), header("a", "b", 3, "") + uintElement(5, 7) + bytesOf("behind"));
    EXPECT_EQ(m_sp_message->getRawPayload(), sp_raw);
    EXPECT_EQ(dataOf(sp_raw), uintElement(5, 7));
}

TEST_F(MessageCodec, aRawPayloadMayLieInTheGivenBuffer) {
    m_sp_buffer = bufferOf(uintElement(5, 7), 9500);
    m_sp_message->setRawPayload(m_sp_buffer);

    EXPECT_EQ(serialize(), 49U);
    EXPECT_EQ(dataOf(m_sp_buffer), header("a", "b", 3, "") + uintElement(5, 7) + uintElement(5, 7));
}

TEST_F(MessageCodec, aRawPayloadWithRoomInFrontGivesItsBufferAway) {
    const SP_BasicBuffer_ sp_raw(new BasicBuffer_(kEmpty + 16));
    sp_raw->setDataArea(kEmpty, 16);
    std::memcpy(sp_raw->data(), uintElement(5, 7).data(), 16);
    m_sp_message->setRawPayload(sp_raw);

    EXPECT_EQ(serialize(), 49U);

    EXPECT_EQ(m_sp_buffer, sp_raw);
    EXPECT_EQ(dataOf(m_sp_buffer), header("a", "b", 3, "") + uintElement(5, 7));
    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());
    EXPECT_EQ(m_records.take(), Records_());

    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_records.take(), Records_{kNullPayload});
}

TEST_F(MessageCodec, aRawPayloadWithoutRoomInFrontIsCopiedAndKept) {
    const SP_BasicBuffer_ sp_raw(new BasicBuffer_(kEmpty + 16));
    sp_raw->setDataArea(kEmpty - 1, 16);
    std::memcpy(sp_raw->data(), uintElement(5, 7).data(), 16);
    m_sp_message->setRawPayload(sp_raw);

    EXPECT_EQ(serialize(), 49U);

    EXPECT_NE(m_sp_buffer, sp_raw);
    EXPECT_EQ(m_sp_message->getRawPayload(), sp_raw);
    EXPECT_EQ(dataOf(m_sp_buffer), header("a", "b", 3, "") + uintElement(5, 7));
}

TEST_F(MessageCodec, anEmptyRawPayloadIsWrittenAsNothing) {
    m_sp_message->setRawPayload(SP_BasicBuffer_(new BasicBuffer_(0)));

    EXPECT_EQ(serialize(), kEmpty);
    EXPECT_EQ(dataOf(m_sp_buffer), header("a", "b", 3, ""));
}

TEST_F(MessageCodec, theRawPayloadsBufferIsReusedUpTo65535Bytes) {
    m_sp_message->setRawPayload(bufferOf(Bytes_(65535 - kEmpty, 1), 300));

    EXPECT_EQ(serialize(), 65535U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(MessageCodec, aLargerRawPayloadExceedsTheEncodingLimitAndIsKept) {
    m_sp_message->setRawPayload(bufferOf(Bytes_(65536 - kEmpty, 1), 300));

    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeBuffer, "Message (b -> a) size 65536 exceeds the encoding limit")});
    EXPECT_FALSE(m_sp_message->getRawPayload().isNull());
}

TEST_F(MessageCodec, writingWithoutMemoryForTheBufferFails) {
    m_sp_message->setPayload(newElement(5, 7U));
    inFreshThread([&] {
        const AllocationFailure_ failure(1);
        EXPECT_EQ(serialize(), 0U);
    });
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeBuffer, "VekMessageBinary_::serialize() Can't create basicBuffer_")});

    inFreshThread([&] {
        const AllocationFailure_ failure(2);
        EXPECT_EQ(serialize(), 0U);
    });
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeBuffer, "VekMessageBinary_::serialize() can't allocate basicBuffer")});
    m_sp_buffer.reset();
    EXPECT_EQ(serialize(), 49U);
}

TEST_F(MessageCodec, writingAsksOnlyForTheBuffer) {
    m_sp_message->setPayload(newElement(5));
    m_sp_message->getPayload()->setSubElementValue(1, text("one"));
    m_sp_message->getPayload()->setSubElementValue(2, 20U);
    inFreshThread([&] {
        const unsigned long allocations = allocationCount();
        EXPECT_NE(serialize(), 0U);
        EXPECT_EQ(allocationCount(), allocations + 2);  // the object and its storage
    });
}

TEST_F(MessageCodec, aMessageIsReadBackAsItWasWritten) {
    m_sp_message->setPayload(newElement(5, text("value")));
    m_sp_message->setPayloadSchema(text("urn:schema"), VekMessage_::SCHEMA_URI);
    m_sp_message->setTimeToLive(0x01020304);
    const unsigned int size = serialize();
    const SP_VekMessageBinary_ sp_received(new VekMessageBinary_);

    EXPECT_EQ(sp_received->deserialize(m_sp_buffer), size);

    EXPECT_EQ(plain(sp_received->getDestination()), "a");
    EXPECT_EQ(plain(sp_received->getSource()), "b");
    EXPECT_EQ(sp_received->getTimeToLive(), 0x01020304U);
    EXPECT_EQ(plain(sp_received->getPayloadSchema()), "urn:schema");
    EXPECT_EQ(sp_received->getRawPayload(), m_sp_buffer);
    EXPECT_EQ(dataOf(m_sp_buffer), encoded(*newElement(5, text("value"))));
    EXPECT_TRUE(sp_received->hasGoodPayload());
    EXPECT_EQ(textOf(*sp_received->getPayload()), "value");
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(MessageCodec, theSchemaTypeDoesNotTravel) {
    EXPECT_NE(receive(header("x", "y", 1, "s")), 0U);
    EXPECT_EQ(m_sp_message->getPayloadSchemaType(), VekMessage_::SCHEMA_LITERAL);

    m_sp_message->setPayloadSchema(text("urn:s"), VekMessage_::SCHEMA_URI);
    EXPECT_NE(receive(header("x", "y", 1, "s")), 0U);
    EXPECT_EQ(m_sp_message->getPayloadSchemaType(), VekMessage_::SCHEMA_URI);
}

TEST_F(MessageCodec, aReceivedMessageIsForwardedInItsOwnBuffer) {
    const SP_BasicBuffer_ sp_received = bufferOf(header("x", "y", 3, "s") + uintElement(5, 7), 9500);
    m_sp_message->deserialize(sp_received);
    m_sp_message->setTimeToLive(2);

    EXPECT_EQ(serialize(), 50U);

    EXPECT_EQ(m_sp_buffer, sp_received);
    EXPECT_EQ(dataOf(m_sp_buffer), header("x", "y", 2, "s") + uintElement(5, 7));
    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());
}

TEST_F(MessageCodec, readingReplacesThePayload) {
    m_sp_message->setPayload(newElement(5, 7U));

    EXPECT_NE(receive(header("x", "y", 1, "s") + uintElement(6, 8)), 0U);

    EXPECT_EQ(m_sp_message->getPayload()->getTag(), 6U);
}

TEST_F(MessageCodec, readingNullIsRefusedAndChangesNothing) {
    m_sp_message->setPayload(newElement(5, 7U));

    EXPECT_EQ(m_sp_message->deserialize(SP_BasicBuffer_()), 0U);

    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserialize, "VekMessageBinary_::deserialize() null sp_buffer")});
    EXPECT_TRUE(m_sp_message->hasGoodPayload());
}

TEST_F(MessageCodec, aFailedReadLeavesNoPayload) {
    m_sp_message->setPayload(newElement(5, 7U));

    EXPECT_EQ(receive({1, 2, 3}), 0U);

    EXPECT_FALSE(m_sp_message->hasGoodPayload());
    EXPECT_EQ(m_records.take(), Records_{tooShort(3)});
}

TEST_F(MessageCodec, aFailedReadLeavesNoRawPayload) {
    m_sp_message->setRawPayload(bufferOf(uintElement(5, 7)));

    EXPECT_EQ(receive({1, 2, 3}), 0U);

    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());
    EXPECT_EQ(m_records.take(), Records_{tooShort(3)});
}

TEST_F(MessageCodec, aBufferWithoutStorageIsRefused) {
    EXPECT_EQ(m_sp_message->deserialize(SP_BasicBuffer_(new BasicBuffer_(0))), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kTtlv, "VekMessageBinary_::deserializeTtlv() null p_bytestream")});
}

TEST_F(MessageCodec, fourHeaderItemsAloneAreAMessageWithoutGoodPayload) {
    const Bytes_ bytes = header("x", "y", 1, "s");

    EXPECT_EQ(receive(bytes), bytes.size());

    EXPECT_FALSE(m_sp_message->getRawPayload().isNull());
    EXPECT_FALSE(m_sp_message->hasGoodPayload());
    EXPECT_TRUE(m_sp_message->getPayload().isNull());
    EXPECT_EQ(m_records.take(), Records_{tooShort(0)});
}

TEST_F(MessageCodec, headerTextsEndAtTheirFirstNulAndWithinTheirItem) {
    const Bytes_ bytes = item(1, VEKMSG_STRING, bytesOf(std::string("de\0st\0", 6))) +
                         item(2, VEKMSG_STRING, bytesOf("source")) + item(3, VEKMSG_UINT, {0, 0, 0, 1}) +
                         item(4, VEKMSG_STRING, {});
    m_sp_message->setPayloadSchema(text("old"), VekMessage_::SCHEMA_LITERAL);

    EXPECT_EQ(receive(bytes), bytes.size());

    EXPECT_EQ(plain(m_sp_message->getDestination()), "de");
    EXPECT_EQ(plain(m_sp_message->getSource()), "source");
    EXPECT_EQ(plain(m_sp_message->getPayloadSchema()), "");
    EXPECT_EQ(m_records.take(), Records_());
}

namespace {

/// A header in which one item is bad.
struct BadHeader_ {
    const char* m_name;
    unsigned int m_goodItems;  // in front of the bad one
    Bytes_ m_badItem;
    const char* m_text;
};

const Bytes_ kItems[] = {item(1, VEKMSG_STRING, {'x', 0}), item(2, VEKMSG_STRING, {'y', 0}),
                         item(3, VEKMSG_UINT, {0, 0, 0, 9}), item(4, VEKMSG_STRING, {'s', 0})};

const BadHeader_ kBadHeaders[] = {
    {"destinationTag", 0, item(9, VEKMSG_STRING, {'x', 0}),
     "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_DESTINATION_NAME got 9"},
    {"destinationType", 0, item(1, VEKMSG_BINARY, {'x', 0}),
     "VekMessageBinary_::deserialize(VEKMSGTAG_DESTINATION_NAME) Expecting VEKMSG_STRING got 4"},
    {"destinationTagBeforeItsType", 0, item(9, VEKMSG_BINARY, {'x', 0}),
     "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_DESTINATION_NAME got 9"},
    {"sourceTag", 1, item(9, VEKMSG_STRING, {'y', 0}),
     "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_SOURCE_NAME got 9 dest x"},
    {"sourceType", 1, item(2, VEKMSG_BINARY, {'y', 0}),
     "VekMessageBinary_::deserialize(VEKMSGTAG_SOURCE_NAME) Expecting VEKMSG_STRING got 4 dest x"},
    {"sourceTagBeforeItsType", 1, item(9, VEKMSG_BINARY, {'y', 0}),
     "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_SOURCE_NAME got 9 dest x"},
    {"timeToLiveTag", 2, item(9, VEKMSG_UINT, {0, 0, 0, 9}),
     "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_TIME_TO_LIVE got 9 dest x src y"},
    {"timeToLiveType", 2, item(3, VEKMSG_BINARY, {0, 0, 0, 9}),
     "VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) Expecting VEKMSG_UINT got 4 dest x src y"},
    {"timeToLiveTagBeforeItsType", 2, item(9, VEKMSG_BINARY, {0, 0, 0, 9}),
     "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_TIME_TO_LIVE got 9 dest x src y"},
    {"timeToLiveOfTwoBytes", 2, item(3, VEKMSG_UINT, {0, 9}),
     "VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) invalid length 2 dest x src y"},
    {"timeToLiveOfFiveBytes", 2, item(3, VEKMSG_UINT, {0, 0, 0, 0, 9}),
     "VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) invalid length 5 dest x src y"},
    {"timeToLiveTypeBeforeItsLength", 2, item(3, VEKMSG_BINARY, {0, 9}),
     "VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) Expecting VEKMSG_UINT got 4 dest x src y"},
    {"schemaTag", 3, item(9, VEKMSG_STRING, {'s', 0}),
     "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_SCHEMA_URI got 9 dest x src y"},
    {"schemaType", 3, item(4, VEKMSG_BINARY, {'s', 0}),
     "VekMessageBinary_::deserialize(VEKMSGTAG_SCHEMA_URI) Expecting VEKMSG_STRING got 4 dest x src y"},
    {"schemaTagBeforeItsType", 3, item(9, VEKMSG_BINARY, {'s', 0}),
     "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_SCHEMA_URI got 9 dest x src y"}};

class BadHeader : public testing::TestWithParam<BadHeader_> {
protected:
    BadHeader() {
        m_sp_message->setDestination(text("a"));
        m_sp_message->setSource(text("b"));
        m_sp_message->setPayloadSchema(text("old"), VekMessage_::SCHEMA_LITERAL);
    }

    bool hasRead(unsigned int number) const { return number < GetParam().m_goodItems; }

    unsigned int receive() {
        Bytes_ bytes;
        for (unsigned int i = 0; i < 4; ++i)
            bytes = bytes + (i == GetParam().m_goodItems ? GetParam().m_badItem : kItems[i]);
        return m_sp_message->deserialize(bufferOf(bytes + uintElement(5, 7)));
    }

    SP_VekMessageBinary_ m_sp_message{new VekMessageBinary_};
    RecordCapture_ m_records;
};

}  // namespace

TEST_P(BadHeader, isRefusedWithWhatWasExpected) {
    EXPECT_EQ(receive(), 0U);

    EXPECT_EQ(m_records.take(), Records_{error(kDeserializeHeader, GetParam().m_text)});
    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());
}

TEST_P(BadHeader, changesWhatStandsBeforeTheBadItemAndNothingElse) {
    EXPECT_EQ(receive(), 0U);

    EXPECT_EQ(plain(m_sp_message->getDestination()), hasRead(0) ? "x" : "a");
    EXPECT_EQ(plain(m_sp_message->getSource()), hasRead(1) ? "y" : "b");
    EXPECT_EQ(m_sp_message->getTimeToLive(), hasRead(2) ? 9U : 3U);
    EXPECT_EQ(plain(m_sp_message->getPayloadSchema()), "old");
}

INSTANTIATE_TEST_SUITE_P(MessageCodec, BadHeader, testing::ValuesIn(kBadHeaders),
                         [](const testing::TestParamInfo<BadHeader_>& info) { return info.param.m_name; });

TEST_F(MessageCodec, aMessageCutAnywhereIsRefusedOrHasNoTree) {
    const Bytes_ head = header("destination", "source", 3, "schema");
    const Bytes_ bytes = head + element(5, VEKMSG_COMPLEX, uintElement(1, 10) + uintElement(2, 20));

    for (std::size_t length = 0; length < bytes.size(); ++length) {
        const Bytes_ cut(bytes.begin(), bytes.begin() + static_cast<long>(length));
        EXPECT_EQ(receive(cut), length < head.size() ? 0 : length);
        EXPECT_EQ(m_records.take().size(), length < head.size() ? 1U : 0U) << length;
        EXPECT_TRUE(m_sp_message->getPayload().isNull());
        EXPECT_EQ(m_records.take().size(), length < head.size() ? 0U : 1U) << length;
    }
    EXPECT_EQ(receive(bytes), bytes.size());
    EXPECT_FALSE(m_sp_message->getPayload().isNull());
}

TEST_F(MessageCodec, aMessageWithAnyOneByteChangedIsReadOrRefusedWithAnError) {
    const Bytes_ bytes = header("dest", "src", 3, "s") + element(5, VEKMSG_COMPLEX, uintElement(1, 10));
    for (std::size_t place = 0; place < bytes.size(); ++place) {
        for (unsigned int value = 0; value < 256; ++value) {
            Bytes_ changed = bytes;
            changed[place] = static_cast<unsigned char>(value);
            const bool isRead = receive(changed) != 0 && !m_sp_message->getPayload().isNull();
            bool hasError = false;
            for (const Record_& record : m_records.take()) hasError = hasError || record.m_severity == 3;
            ASSERT_NE(isRead, hasError) << place << ' ' << value;
        }
    }
}

TEST_F(MessageCodec, readingSurvivesEveryFailedAllocation) {
    const std::string longText(1000, 'n');
    const Bytes_ bytes = header(longText, longText, 1, longText) + uintElement(5, 7);
    const unsigned int failures = failEachAllocation([&](unsigned int number) {
        const SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
        const SP_BasicBuffer_ sp_buffer = bufferOf(bytes);
        unsigned int consumed;
        bool hasStruck;
        {
            const AllocationFailure_ failure(number);
            consumed = sp_message->deserialize(sp_buffer);
            hasStruck = failure.hasStruck();
        }
        EXPECT_EQ(consumed, hasStruck ? 0U : bytes.size());
        if (hasStruck) {
            EXPECT_EQ(sp_message->deserialize(sp_buffer), bytes.size());
        }
        EXPECT_EQ(plain(sp_message->getPayloadSchema()), longText);
        return hasStruck;
    });

    EXPECT_EQ(failures, 3U);  // the texts
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(MessageCodec, theDeepestRawPayloadFitsOnAUsualStack) {
    const Bytes_ bytes = nestedElements(5437);  // with the shortest header, the most that can be sent
    m_sp_message->setDestination(text(""));
    m_sp_message->setSource(text(""));
    onUsualStack([&] {
        m_sp_message->setRawPayload(bufferOf(bytes, 400));
        EXPECT_FALSE(m_sp_message->getPayload().isNull());
        EXPECT_EQ(serialize(), 31 + bytes.size());
        m_sp_message->setPayload(SP_VekmsgElement_());
    });
    EXPECT_EQ(dataOf(m_sp_buffer), header("", "", 3, "") + bytes);
    EXPECT_EQ(
        m_records.take(),
        Records_{warning(kSerializeBuffer, "Message ( -> ) size 65275 could be too large for the peer")});
}

TEST(MessageMemory, longNamesAreCopiedWithoutTheHeapOnceOthersHaveGone) {
    const auto exchange = [] {
        SP_VekMessageBinary_ sp_sent(new (std::nothrow) VekMessageBinary_);
        sp_sent->setDestination(text("installation.kitchen.temperature-controller"));
        sp_sent->setSource(text("installation.panel.north-wing"));
        sp_sent->setPayloadSchema(text("urn:example:installation:temperature:request:1"),
                                  VekMessage_::SCHEMA_URI);
        const SP_VekmsgElement_ sp_root = sp_sent->createElement(5);
        sp_root->setSubElementValue(6, 7U);
        sp_sent->setPayload(sp_root);
        SP_BasicBuffer_ sp_buffer;
        ASSERT_NE(sp_sent->serialize(sp_buffer), 0U);
        SP_VekMessageBinary_ sp_received(new (std::nothrow) VekMessageBinary_);
        ASSERT_NE(sp_received->deserialize(sp_buffer), 0U);
        ASSERT_FALSE(sp_received->getPayload().isNull());
    };
    inFreshThread([&] {
        for (int i = 0; i < 4; ++i) exchange();
        const unsigned long before = allocationCount();

        for (int i = 0; i < 100; ++i) exchange();

        if (VEKMSG_FREE_LISTS)
            EXPECT_EQ(allocationCount(), before);
        else
            EXPECT_GT(allocationCount(), before);
    });
}

TEST_F(MessageCodec, aTimeToLiveOf32BitsTravels) {
    m_sp_message->setPayload(newElement(1, 1U));
    for (const unsigned int timeToLive : {0U, 1U, 0xFFFFFFFFU}) {
        m_sp_message->setTimeToLive(timeToLive);
        m_sp_buffer.reset();
        ASSERT_NE(serialize(), 0U);
        const SP_VekMessageBinary_ sp_received(new VekMessageBinary_);

        EXPECT_NE(sp_received->deserialize(m_sp_buffer), 0U);

        EXPECT_EQ(sp_received->getTimeToLive(), timeToLive);
    }
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(MessageCodec, aTreeHasAsManySubElementsAsTheMessageHasRoomFor) {
    constexpr unsigned int kMost = (65280 - kEmpty - 12) / 12;
    const SP_VekmsgElementBinary_ sp_root = newElement(0);
    const SP_VekmsgElementBinary_ sp_child = newBinary(1, Bytes_());
    for (unsigned int i = 0; i < kMost; ++i) sp_root->addSubelements(sp_child);
    m_sp_message->setPayload(sp_root);
    const unsigned int size = serialize();
    EXPECT_EQ(size, kEmpty + 12 + 12 * kMost);
    EXPECT_EQ(
        m_records.take(),
        Records_{warning(kSerializeBuffer, "Message (b -> a) size 65277 could be too large for the peer")});
    const SP_VekMessageBinary_ sp_received(new VekMessageBinary_);
    EXPECT_EQ(sp_received->deserialize(m_sp_buffer), size);
    const SP_VekmsgElement_ sp_read = sp_received->getPayload();
    ASSERT_FALSE(sp_read.isNull());
    EXPECT_TRUE(sp_read->querySubelements(VEKMSGTAG_ANY));
    unsigned int count = 0;
    while (!sp_read->getNextSubelement().isNull()) ++count;
    EXPECT_EQ(count, kMost);

    sp_root->addSubelements(sp_child);
    m_sp_buffer.reset();
    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeBuffer, "Message (b -> a) size 65289 exceeds the encoding limit")});
}

TEST_F(MessageCodec, aSchemaMayFillTheMessage) {
    constexpr unsigned int kMost = 65280 - kEmpty - 12;
    m_sp_message->setPayload(newBinary(1, Bytes_()));
    const std::string longest(kMost, 's');
    m_sp_message->setPayloadSchema(text(longest), VekMessage_::SCHEMA_LITERAL);
    EXPECT_EQ(serialize(), 65280U);
    const SP_VekMessageBinary_ sp_received(new VekMessageBinary_);
    EXPECT_EQ(sp_received->deserialize(m_sp_buffer), 65280U);
    EXPECT_EQ(plain(sp_received->getPayloadSchema()), longest);
    EXPECT_EQ(
        m_records.take(),
        Records_{warning(kSerializeBuffer, "Message (b -> a) size 65280 could be too large for the peer")});

    m_sp_message->setPayloadSchema(text(longest + "s"), VekMessage_::SCHEMA_LITERAL);
    m_sp_buffer.reset();
    EXPECT_EQ(serialize(), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeBuffer, "Message (b -> a) size 65281 exceeds the encoding limit")});
}

TEST_F(MessageCodec, namesMayFillTheMessage) {
    constexpr unsigned int kMost =
        65280 - kEmpty - 12 + 2;  // the names of the fixture have one character each
    m_sp_message->setPayload(newBinary(1, Bytes_()));
    const std::string source(kMost / 2, 's');
    const std::string destination(kMost - source.size(), 'd');
    m_sp_message->setSource(text(source));
    m_sp_message->setDestination(text(destination));
    EXPECT_EQ(serialize(), 65280U);
    const SP_VekMessageBinary_ sp_received(new VekMessageBinary_);
    EXPECT_EQ(sp_received->deserialize(m_sp_buffer), 65280U);
    EXPECT_EQ(plain(sp_received->getSource()), source);
    EXPECT_EQ(plain(sp_received->getDestination()), destination);

    m_sp_message->setDestination(text(destination + "d"));
    m_sp_buffer.reset();
    EXPECT_EQ(serialize(), 0U);
    const Records_ records = m_records.take();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].m_severity, 4);
    EXPECT_EQ(records[1].m_severity, 3);
    EXPECT_EQ(records[1].m_text.size(), 2047U);  // the names alone are longer than a record
}

TEST_F(MessageCodec, aTreeDeeperThanAMessageIsRefusedAndGoesOnAUsualStack) {
    constexpr unsigned int kLevels = 6000;
    onUsualStack([&] {
        SP_VekmsgElementBinary_ sp_element = newBinary(1, Bytes_());
        for (unsigned int level = 1; level < kLevels; ++level) {
            const SP_VekmsgElementBinary_ sp_parent = newElement(1);
            sp_parent->addSubelements(sp_element);
            sp_element = sp_parent;
        }
        m_sp_message->setPayload(sp_element);
        EXPECT_EQ(serialize(), 0U);
        m_sp_message->setPayload(SP_VekmsgElement_());
    });
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerializeBuffer, "Message (b -> a) size 72033 exceeds the encoding limit")});
}
