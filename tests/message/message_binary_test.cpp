#include "message/message_binary.h"

#include <gtest/gtest.h>

#include <new>

#include "message/message_fixture.h"
#include "support/allocation_failure.h"

namespace {

const char* const kGetPayload = "virtual SP_VekmsgElement_ VekMessageBinary_::getPayload()";
class VekMessageBinary : public RecordingTest_ {
protected:
    SP_VekMessageBinary_ m_sp_message{new VekMessageBinary_};
};

/// Makes elements of a class that the library does not know.
class ForeignFactory_ : public VekMessageBinary_ {
public:
    SP_VekmsgElement_ createElement(VekmsgTag_ tag) const override {
        return SP_VekmsgElement_(new ForeignElement_(tag));
    }
};

class ThrowingFactory_ : public VekMessageBinary_ {
public:
    SP_VekmsgElement_ createElement(VekmsgTag_) const override { throw std::bad_alloc(); }
};

}  // namespace

TEST_F(VekMessageBinary, aNewMessageHasItsDefaults) {
    EXPECT_EQ(plain(m_sp_message->getDestination()), "");
    EXPECT_EQ(plain(m_sp_message->getSource()), "");
    EXPECT_EQ(m_sp_message->getTimeToLive(), 3U);
    EXPECT_EQ(plain(m_sp_message->getPayloadSchema()), "");
    EXPECT_EQ(m_sp_message->getPayloadSchemaType(), VekMessage_::SCHEMA_LITERAL);
    EXPECT_FALSE(m_sp_message->hasGoodPayload());
    EXPECT_TRUE(m_sp_message->getPayload().isNull());
    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekMessageBinary, fieldsKeepWhatIsSet) {
    EXPECT_TRUE(m_sp_message->setDestination(text("panel")));
    EXPECT_TRUE(m_sp_message->setSource(text("sensor")));
    EXPECT_TRUE(m_sp_message->setTimeToLive(0xFFFFFFFFU));
    EXPECT_TRUE(m_sp_message->setPayloadSchema(text("urn:x"), VekMessage_::SCHEMA_URI));

    EXPECT_EQ(plain(m_sp_message->getDestination()), "panel");
    EXPECT_EQ(plain(m_sp_message->getSource()), "sensor");
    EXPECT_EQ(m_sp_message->getTimeToLive(), 0xFFFFFFFFU);
    EXPECT_EQ(plain(m_sp_message->getPayloadSchema()), "urn:x");
    EXPECT_EQ(m_sp_message->getPayloadSchemaType(), VekMessage_::SCHEMA_URI);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekMessageBinary, theNamesCanBeSwapped) {
    m_sp_message->setDestination(text("panel"));
    m_sp_message->setSource(text("sensor"));

    EXPECT_TRUE(m_sp_message->swapSourceDestination());

    EXPECT_EQ(plain(m_sp_message->getDestination()), "sensor");
    EXPECT_EQ(plain(m_sp_message->getSource()), "panel");
}

TEST_F(VekMessageBinary, aNullDestinationIsRefused) {
    m_sp_message->setDestination(text("kept"));

    EXPECT_FALSE(m_sp_message->setDestination(nullptr));

    EXPECT_EQ(plain(m_sp_message->getDestination()), "kept");
    EXPECT_EQ(m_records.take(),
              Records_{error("virtual bool VekMessageBinary_::setDestination(const Utf8Char_*)",
                             "VekMessageBinary_::setDestination(): null p_destinationName")});
}

TEST_F(VekMessageBinary, aNullSourceIsRefused) {
    m_sp_message->setSource(text("kept"));

    EXPECT_FALSE(m_sp_message->setSource(nullptr));

    EXPECT_EQ(plain(m_sp_message->getSource()), "kept");
    EXPECT_EQ(m_records.take(), Records_{error("virtual bool VekMessageBinary_::setSource(const Utf8Char_*)",
                                               "VekMessageBinary_::setSource(): null p_sourceName")});
}

TEST_F(VekMessageBinary, aNullSchemaIsRefused) {
    m_sp_message->setPayloadSchema(text("kept"), VekMessage_::SCHEMA_LITERAL);

    EXPECT_FALSE(m_sp_message->setPayloadSchema(nullptr, VekMessage_::SCHEMA_URI));

    EXPECT_EQ(plain(m_sp_message->getPayloadSchema()), "kept");
    EXPECT_EQ(m_sp_message->getPayloadSchemaType(), VekMessage_::SCHEMA_LITERAL);
    EXPECT_EQ(m_records.take(),
              Records_{error("virtual bool VekMessageBinary_::setPayloadSchema(const Utf8Char_*, "
                             "VekMessage_::SchemaType_)",
                             "VekMessageBinary_::setPayloadSchema(): null p_schema")});
}

TEST_F(VekMessageBinary, aNewElementIsNotPartOfTheMessage) {
    const SP_VekmsgElement_ sp_element = m_sp_message->createElement(7);

    ASSERT_FALSE(sp_element.isNull());
    EXPECT_EQ(sp_element->getTag(), 7U);
    EXPECT_FALSE(m_sp_message->hasGoodPayload());
}

TEST_F(VekMessageBinary, treeAndRawPayloadReplaceEachOther) {
    const SP_VekmsgElement_ sp_tree = newElement(1, 10U);
    const SP_BasicBuffer_ sp_raw = bufferOf(uintElement(2, 20));

    EXPECT_TRUE(m_sp_message->setPayload(sp_tree));
    EXPECT_EQ(m_sp_message->getPayload(), sp_tree);
    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());

    EXPECT_TRUE(m_sp_message->setRawPayload(sp_raw));
    EXPECT_EQ(m_sp_message->getRawPayload(), sp_raw);
    EXPECT_NE(m_sp_message->getPayload(), sp_tree);

    EXPECT_TRUE(m_sp_message->setRawPayload(sp_raw));
    EXPECT_TRUE(m_sp_message->setPayload(sp_tree));
    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());
}

TEST_F(VekMessageBinary, nullTakesThePayloadAway) {
    m_sp_message->setRawPayload(bufferOf(uintElement(2, 20)));
    EXPECT_TRUE(m_sp_message->setPayload(SP_VekmsgElement_()));
    EXPECT_FALSE(m_sp_message->hasGoodPayload());

    m_sp_message->setPayload(newElement(1, 10U));
    EXPECT_TRUE(m_sp_message->setRawPayload(SP_BasicBuffer_()));
    EXPECT_FALSE(m_sp_message->hasGoodPayload());
    EXPECT_TRUE(m_sp_message->getPayload().isNull());
}

TEST_F(VekMessageBinary, aTreeIsAGoodPayloadWhateverItHolds) {
    m_sp_message->setPayload(newElement(1));

    EXPECT_TRUE(m_sp_message->hasGoodPayload());
}

TEST_F(VekMessageBinary, aRawPayloadIsGoodWhenItsFirstItemIsWhole) {
    m_sp_message->setRawPayload(bufferOf({0, 1, 0, 0, 0, 2, 99, 99}));
    EXPECT_TRUE(m_sp_message->hasGoodPayload());

    m_sp_message->setRawPayload(bufferOf({0, 1, 0, 0, 0, 3, 99, 99}));
    EXPECT_FALSE(m_sp_message->hasGoodPayload());

    m_sp_message->setRawPayload(bufferOf({}));
    EXPECT_FALSE(m_sp_message->hasGoodPayload());

    m_sp_message->setRawPayload(SP_BasicBuffer_(new BasicBuffer_(0)));
    EXPECT_FALSE(m_sp_message->hasGoodPayload());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekMessageBinary, aRawPayloadIsDecodedWhenItsTreeIsAskedFor) {
    m_sp_message->setRawPayload(bufferOf(uintElement(2, 20)));

    const SP_VekmsgElement_ sp_tree = m_sp_message->getPayload();

    ASSERT_FALSE(sp_tree.isNull());
    EXPECT_EQ(sp_tree->getTag(), 2U);
    EXPECT_EQ(uintOf(*sp_tree), 20U);
    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());
    EXPECT_EQ(m_sp_message->getPayload(), sp_tree);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekMessageBinary, bytesBehindTheTreeAreDroppedWithAWarning) {
    m_sp_message->setRawPayload(bufferOf(uintElement(2, 20) + Bytes_{1, 2, 3}));

    EXPECT_FALSE(m_sp_message->getPayload().isNull());

    EXPECT_TRUE(m_sp_message->getRawPayload().isNull());
    EXPECT_EQ(m_records.take(),
              Records_{warning(kGetPayload, "VekMessageBinary_::getPayload(): used 16 bytes out of 19")});
}

TEST_F(VekMessageBinary, anUndecodableRawPayloadIsKeptAndTriedAgain) {
    const SP_BasicBuffer_ sp_raw = bufferOf({0, 2, 0});
    m_sp_message->setRawPayload(sp_raw);
    const Record_ expected = error(
        "static unsigned int VekMessageBinary_::deserializeTtlvHeader(const unsigned char*, unsigned "
        "int, VekmsgTag_&, VekmsgDataType_&, unsigned int&)",
        "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 3 is too short");

    EXPECT_TRUE(m_sp_message->getPayload().isNull());
    EXPECT_EQ(m_sp_message->getRawPayload(), sp_raw);
    EXPECT_TRUE(m_sp_message->getPayload().isNull());

    EXPECT_EQ(m_records.take(), (Records_{expected, expected}));
    EXPECT_FALSE(m_sp_message->hasGoodPayload());
}

TEST_F(VekMessageBinary, aRawPayloadWithoutStorageCannotBeDecoded) {
    m_sp_message->setRawPayload(SP_BasicBuffer_(new BasicBuffer_(0)));

    EXPECT_TRUE(m_sp_message->getPayload().isNull());
    EXPECT_EQ(
        m_records.take(),
        Records_{error("unsigned int VekmsgElementBinary_::deserialize(const unsigned char*, unsigned int)",
                       "VekmsgElementBinary_::deserialize() null p_bytestream")});
}

TEST_F(VekMessageBinary, aForeignRootIsRefusedAndTheBytesAreKept) {
    const SP_VekMessageBinary_ sp_message(new ForeignFactory_);
    const SP_BasicBuffer_ sp_raw = bufferOf(uintElement(2, 20));
    sp_message->setRawPayload(sp_raw);

    EXPECT_TRUE(sp_message->getPayload().isNull());

    EXPECT_EQ(sp_message->getRawPayload(), sp_raw);
    EXPECT_EQ(m_records.take(),
              Records_{error(kGetPayload, "VekMessageBinary_::getPayload() invalid vekMessageBinary_")});
}

TEST_F(VekMessageBinary, noExceptionOfAnOwnFactoryLeavesDecoding) {
    const SP_VekMessageBinary_ sp_message(new ThrowingFactory_);
    const SP_BasicBuffer_ sp_raw = bufferOf(uintElement(2, 20));
    sp_message->setRawPayload(sp_raw);

    EXPECT_TRUE(sp_message->getPayload().isNull());

    EXPECT_EQ(sp_message->getRawPayload(), sp_raw);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekMessageBinary, anElementIsNullWithoutMemory) {
    inFreshThread([&] {
        const AllocationFailure_ failure(1);
        EXPECT_TRUE(m_sp_message->createElement(7).isNull());
    });
    EXPECT_EQ(m_records.take(), Records_{kCantCreate});
}

TEST_F(VekMessageBinary, aLongNameWithoutMemoryIsRefusedAndTheOldOneKept) {
    const std::string longName(1000, 'n');
    m_sp_message->setDestination(text("destination"));
    m_sp_message->setSource(text("source"));
    m_sp_message->setPayloadSchema(text("schema"), VekMessage_::SCHEMA_LITERAL);
    const AllocationFailure_ failure(1, true);

    EXPECT_FALSE(m_sp_message->setDestination(text(longName)));
    EXPECT_FALSE(m_sp_message->setSource(text(longName)));
    EXPECT_FALSE(m_sp_message->setPayloadSchema(text(longName), VekMessage_::SCHEMA_URI));

    EXPECT_STREQ(reinterpret_cast<const char*>(m_sp_message->getDestination()), "destination");
    EXPECT_STREQ(reinterpret_cast<const char*>(m_sp_message->getSource()), "source");
    EXPECT_STREQ(reinterpret_cast<const char*>(m_sp_message->getPayloadSchema()), "schema");
    EXPECT_EQ(m_sp_message->getPayloadSchemaType(), VekMessage_::SCHEMA_LITERAL);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekMessageBinary, decodingSurvivesEveryFailedAllocation) {
    const Bytes_ tree = element(2, VEKMSG_COMPLEX, uintElement(3, 30));
    const unsigned int failures = failEachAllocation([&](unsigned int number) {
        const SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
        const SP_BasicBuffer_ sp_raw = bufferOf(tree);
        sp_message->setRawPayload(sp_raw);
        bool isDecoded;
        bool hasStruck;
        {
            const AllocationFailure_ failure(number);
            isDecoded = !sp_message->getPayload().isNull();
            hasStruck = failure.hasStruck();
        }
        EXPECT_NE(isDecoded, hasStruck);
        EXPECT_EQ(sp_message->getRawPayload().isNull(), isDecoded);
        EXPECT_FALSE(sp_message->getPayload().isNull());
        return hasStruck;
    });

    EXPECT_EQ(failures, 4U);  // the root, its sub-element, and the two blocks of that one's place
    EXPECT_EQ(m_records.take(),
              (Records_{kCantCreate,
                        error(kGetPayload, "VekMessageBinary_::getPayload() invalid vekMessageBinary_"),
                        kCantCreate,
                        error(kDeserializeSubElements,
                              "VekmsgElementBinary_::deserialize() createElement() returned invalid "
                              "object")}));
}
