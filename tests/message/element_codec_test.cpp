#include <gtest/gtest.h>

#include <sstream>

#include "message/message_fixture.h"
#include "support/allocation_failure.h"

namespace {

const char* const kGetUint = "virtual bool VekmsgElementBinary_::getValue(unsigned int&) const";
const char* const kSerialize =
    "unsigned int VekmsgElementBinary_::serialize(unsigned char*, unsigned int) const";
const char* const kDeserialize =
    "unsigned int VekmsgElementBinary_::deserialize(const unsigned char*, unsigned int)";
#ifdef __clang__  // spells out where a nested type belongs
const char* const kDeserializeContent =
    "bool VekmsgElementBinary_::deserialize(const VekmsgElementBinary_::Item_&)";
#else
const char* const kDeserializeContent = "bool VekmsgElementBinary_::deserialize(const Item_&)";
#endif
const char* const kSerializeTtlv =
    "static unsigned int VekMessageBinary_::serializeTtlv(unsigned char*, unsigned int, VekmsgTag_, "
    "VekmsgDataType_, unsigned int, const unsigned char*)";
const char* const kSerializeHeader =
    "static unsigned int VekMessageBinary_::serializeTtlvHeader(unsigned char*, unsigned int, VekmsgTag_, "
    "VekmsgDataType_, unsigned int)";
const char* const kDeserializeHeader =
    "static unsigned int VekMessageBinary_::deserializeTtlvHeader(const unsigned char*, unsigned int, "
    "VekmsgTag_&, VekmsgDataType_&, unsigned int&)";
const char* const kDeserializeTtlv =
    "static unsigned int VekMessageBinary_::deserializeTtlv(const unsigned char*, unsigned int, "
    "VekmsgTag_&, VekmsgDataType_&, unsigned int&, const unsigned char*&)";

const Record_ kEmptyNumber = error(
    kDeserializeContent, "VekmsgElementBinary_::deserialize() tag 5 of UINT type has an invalid length 0");
const Record_ kTooLongText =
    error(kDeserializeContent,
          "VekmsgElementBinary_::deserialize() tag 5 of STRING type has a length 9401 exceeding the limit");

class ElementCodec : public RecordingTest_ {
protected:
    unsigned int read(const Bytes_& bytes) { return deserialize(*m_sp_element, bytes); }
    unsigned int readUint(const Bytes_& value) { return read(element(5, VEKMSG_UINT, value)); }
    unsigned int readString(const std::string& value) {
        return read(element(5, VEKMSG_STRING, bytesOf(value)));
    }

    /// A number without bytes leaves an element that still has the length of its value before.
    void expectEmptyNumberIsNotReadBy(const std::string& length) {
        readUint({});
        EXPECT_EQ(m_records.take(), Records_{kEmptyNumber});
        unsigned int value = 42;

        EXPECT_FALSE(m_sp_element->getValue(value));

        EXPECT_EQ(value, 42U);
        EXPECT_EQ(m_records.take(),
                  Records_{error(kGetUint, "VekmsgElementBinary_::getValue() wrong data length " + length +
                                               " for uint")});
    }

    SP_VekmsgElementBinary_ m_sp_element = newElement(0);
};

/// An element with these sub-elements.
Bytes_ tree(const Bytes_& subElements) {
    return element(5, VEKMSG_COMPLEX, subElements);
}

SP_VekmsgElementBinary_ readTree(const Bytes_& subElements) {
    SP_VekmsgElementBinary_ sp_element = newElement(0);
    EXPECT_NE(deserialize(*sp_element, tree(subElements)), 0U);
    return sp_element;
}

unsigned int countIn(VekmsgElement_& parent) {
    unsigned int count = 0;
    EXPECT_TRUE(parent.querySubelements(VEKMSGTAG_ANY));
    while (parent.getNextSubelement()) ++count;
    return count;
}

}  // namespace

TEST_F(ElementCodec, aNumberIsWrittenAsFourBytes) {
    const SP_VekmsgElementBinary_ sp_element = newElement(0x0506, 0x01020304U);

    EXPECT_EQ(encoded(*sp_element), (Bytes_{5, 6, 0, 0, 0, 10, 0, 0, 0, 2, 0, 4, 1, 2, 3, 4}));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, textIsWrittenWithItsNul) {
    const SP_VekmsgElementBinary_ sp_element = newElement(5, text("ab"));

    EXPECT_EQ(encoded(*sp_element), (Bytes_{0, 5, 0, 0, 0, 9, 0, 0, 0, 3, 0, 3, 'a', 'b', 0}));
}

TEST_F(ElementCodec, bytesAreWrittenAsTheyAre) {
    EXPECT_EQ(encoded(*newBinary(5, {0, 7})), (Bytes_{0, 5, 0, 0, 0, 8, 0, 0, 0, 4, 0, 2, 0, 7}));
    EXPECT_EQ(encoded(*newBinary(5, {})), (Bytes_{0, 5, 0, 0, 0, 6, 0, 0, 0, 4, 0, 0}));
}

TEST_F(ElementCodec, subElementsAreWrittenInTagOrderAndEqualTagsInOrderOfAdding) {
    m_sp_element->addSubelements(newElement(5, 51U));
    m_sp_element->addSubelements(newElement(2, 20U));
    m_sp_element->addSubelements(newElement(5, 52U));
    m_sp_element->addSubelements(newElement(1, 10U));

    EXPECT_EQ(encoded(*m_sp_element),
              element(0, VEKMSG_COMPLEX,
                      uintElement(1, 10) + uintElement(2, 20) + uintElement(5, 51) + uintElement(5, 52)));
}

TEST_F(ElementCodec, writingToNowhereIsRefused) {
    EXPECT_EQ(m_sp_element->serialize(nullptr, 100), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerialize, "VekmsgElementBinary_::serialize() null p_endOfFreespace")});
}

TEST_F(ElementCodec, anElementWithoutValueCannotBeWritten) {
    unsigned char freespace[100];
    m_sp_element->setTag(12);

    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U);
    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 100), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerialize, "VekmsgElementBinary_::serialize() invalid type 0 for tag 12")});
}

TEST_F(ElementCodec, aSubElementWithoutValueFailsTheWholeTree) {
    unsigned char freespace[100];
    m_sp_element->addSubelements(newElement(1, 10U));
    m_sp_element->addSubelements(newElement(2));

    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 100), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kSerialize, "VekmsgElementBinary_::serialize() invalid type 0 for tag 2")});
}

TEST_F(ElementCodec, aForeignSubElementFailsTheWholeTree) {
    unsigned char freespace[100];
    m_sp_element->addSubelements(SP_VekmsgElement_(new ForeignElement_(3)));

    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 100), 0U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, theValueTheContentHeaderAndTheOuterHeaderNeedRoom) {
    unsigned char freespace[100];
    m_sp_element->setTag(8);
    m_sp_element->setValue(5U);

    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 3), 0U);
    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 9), 0U);
    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 15), 0U);
    EXPECT_EQ(m_records.take(), (Records_{error(kSerializeTtlv,
                                                "VekMessageBinary_::serializeTlv() freespaceSize 3 is too "
                                                "short for data length 4"),
                                          error(kSerializeHeader,
                                                "VekMessageBinary_::serializeTlvHeader() freespaceSize 5 is "
                                                "too short for TLV header of (0, 2, 4)"),
                                          error(kSerializeHeader,
                                                "VekMessageBinary_::serializeTlvHeader() freespaceSize 5 is "
                                                "too short for TLV header of (8, 0, 10)")}));
    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 16), 16U);
}

TEST_F(ElementCodec, aTreeNeedsRoomForItsHeaders) {
    unsigned char freespace[100];
    m_sp_element->setTag(8);
    m_sp_element->addSubelements(newElement(1, 10U));

    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 21), 0U);
    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 27), 0U);
    EXPECT_EQ(m_records.take(), (Records_{error(kSerializeHeader,
                                                "VekMessageBinary_::serializeTlvHeader() freespaceSize 5 is "
                                                "too short for TLV header of (0, 1, 16)"),
                                          error(kSerializeHeader,
                                                "VekMessageBinary_::serializeTlvHeader() freespaceSize 5 is "
                                                "too short for TLV header of (8, 0, 22)")}));
    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 28), 28U);
}

TEST_F(ElementCodec, everyTypeIsReadBackAsItWasWritten) {
    const SP_VekmsgElementBinary_ sp_tree = newElement(0xFFFE);
    sp_tree->addSubelements(newElement(1, 0xFFFFFFFFU));
    sp_tree->addSubelements(newElement(2, text("two")));
    sp_tree->addSubelements(newBinary(3, Bytes_(9400, 3)));
    sp_tree->addSubelements(newElement(4));
    sp_tree->findFirstMatchingSubelement(4)->setSubElementValue(5, true);
    const Bytes_ bytes = encoded(*sp_tree);

    EXPECT_EQ(read(bytes), bytes.size());

    EXPECT_EQ(m_sp_element->getTag(), 0xFFFEU);
    EXPECT_EQ(encoded(*m_sp_element), bytes);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, readingFromNowhereIsRefused) {
    m_sp_element->setValue(5U);

    EXPECT_EQ(m_sp_element->deserialize(nullptr, 100), 0U);

    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserialize, "VekmsgElementBinary_::deserialize() null p_bytestream")});
    EXPECT_EQ(m_sp_element->getTag(), VEKMSGTAG_ANY);
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U);
}

TEST_F(ElementCodec, anOuterHeaderThatIsNotWholeIsRefused) {
    EXPECT_EQ(read({0, 5, 0, 0, 0}), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserializeHeader,
                             "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 5 is too short")});
    EXPECT_EQ(m_sp_element->getTag(), VEKMSGTAG_ANY);
}

TEST_F(ElementCodec, anOuterLengthBeyondTheStreamIsRefused) {
    Bytes_ bytes = uintElement(5, 7);
    bytes.pop_back();

    EXPECT_EQ(read(bytes), 0U);

    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserialize,
                             "VekmsgElementBinary_::deserialize() tag 5 length 10 is larger "
                             "than allowed length 9")});
    EXPECT_EQ(m_sp_element->getTag(), 5U);
}

TEST_F(ElementCodec, aContentItemBeyondTheOuterLengthIsRefused) {
    EXPECT_EQ(read(item(5, 0, {0, 0, 0, 2, 0, 4, 0, 0, 7}) + Bytes_{0, 0}), 0U);
    EXPECT_EQ(m_records.take(), Records_{error(kDeserializeTtlv,
                                               "VekMessageBinary_::deserializeTtlv() data length 4 is too "
                                               "large for remaining stream 3")});
}

TEST_F(ElementCodec, anOuterItemWithoutAContentItemIsRefused) {
    EXPECT_EQ(read(item(5, 0, {}) + uintElement(6, 6)), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserializeHeader,
                             "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short")});
}

TEST_F(ElementCodec, aContentItemWithATagIsRefused) {
    EXPECT_EQ(read(item(5, 0, item(9, VEKMSG_UINT, {0, 0, 0, 7}))), 0U);
    EXPECT_EQ(m_records.take(), Records_{error(kDeserializeContent,
                                               "VekmsgElementBinary_::deserialize() for element 5, "
                                               "expecting VEKMSGTAG_ELEMENT_CONTENT, got 9")});
}

TEST_F(ElementCodec, theTypeOfTheOuterHeaderDoesNotCount) {
    EXPECT_EQ(read(item(5, 77, item(0, VEKMSG_UINT, {0, 0, 0, 7}))), 16U);
    EXPECT_EQ(uintOf(*m_sp_element), 7U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, aShortNumberIsRightAligned) {
    EXPECT_EQ(readUint({1, 2}), 14U);
    EXPECT_EQ(uintOf(*m_sp_element), 258U);
    EXPECT_EQ(encoded(*m_sp_element), element(5, VEKMSG_UINT, {0, 0, 1, 2}));

    EXPECT_EQ(readUint({9}), 13U);
    EXPECT_EQ(uintOf(*m_sp_element), 9U);

    EXPECT_EQ(readUint({1, 2, 3}), 15U);
    EXPECT_EQ(uintOf(*m_sp_element), 0x010203U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, aLongNumberLosesItsFirstBytesWithAWarning) {
    EXPECT_EQ(readUint({0, 0, 0, 0, 0, 7}), 18U);

    EXPECT_EQ(uintOf(*m_sp_element), 7U);
    EXPECT_EQ(m_records.take(), Records_{warning(kDeserializeContent, "tag 5 of UINT type has length 6")});
}

TEST_F(ElementCodec, aNumberWithoutBytesIsRefused) {
    EXPECT_EQ(readUint({}), 0U);
    EXPECT_EQ(m_records.take(), Records_{kEmptyNumber});
}

TEST_F(ElementCodec, aRefusedNumberHasNoLengthToReadItBy) {
    expectEmptyNumberIsNotReadBy("0");
}

TEST_F(ElementCodec, aRefusedNumberBehindALongerValueCannotBeRead) {
    m_sp_element = newBinary(1, {1, 2, 3, 4, 5});

    expectEmptyNumberIsNotReadBy("5");
}

TEST_F(ElementCodec, aRefusedNumberIsReadFromWhatTheStorageHolds) {
    m_sp_element = newBinary(1, {1, 2});
    readUint({});

    EXPECT_EQ(uintOf(*m_sp_element), 0x01020000U);
    EXPECT_EQ(m_records.take(), Records_{kEmptyNumber});
}

TEST_F(ElementCodec, receivedTextEndsAtItsFirstNul) {
    EXPECT_EQ(readString(std::string("ab\0cd\0", 6)), 18U);

    EXPECT_EQ(textOf(*m_sp_element), "ab");
    EXPECT_EQ(encoded(*m_sp_element), element(5, VEKMSG_STRING, {'a', 'b', 0}));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, receivedTextWithoutNulShowsNoOldMemory) {
    newBinary(1, Bytes_(9400, 'x'));  // released at once: its memory is likely to be used again
    const SP_VekmsgElementBinary_ sp_fresh = newElement(0);

    EXPECT_EQ(deserialize(*sp_fresh, element(5, VEKMSG_STRING, {'a', 'b'})), 14U);
    EXPECT_EQ(textOf(*sp_fresh), "ab");

    EXPECT_EQ(deserialize(*sp_fresh, element(5, VEKMSG_STRING, bytesOf("abcdefgh"))), 20U);
    EXPECT_EQ(textOf(*sp_fresh), "abcdefgh");
    EXPECT_EQ(encoded(*sp_fresh), element(5, VEKMSG_STRING, bytesOf(std::string("abcdefgh\0", 9))));
}

TEST_F(ElementCodec, receivedTextWithoutNulGoesOnInWhatTheElementHeldBefore) {
    m_sp_element->setValue(text("abcdef"));

    EXPECT_EQ(readString("XY"), 14U);

    EXPECT_EQ(textOf(*m_sp_element), "XYcdef");
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U + 7);
}

TEST_F(ElementCodec, receivedTextWithoutNulEndsAtTheLastByteOfTheStorage) {
    m_sp_element = newBinary(1, Bytes_(9400, 'x'));

    EXPECT_EQ(readString("ab"), 14U);

    EXPECT_EQ(textOf(*m_sp_element), "ab" + std::string(9397, 'x'));
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U + 9400);
}

TEST_F(ElementCodec, textThatIsSetClearsWhatTheElementHeldBefore) {
    m_sp_element = newBinary(1, Bytes_(9400, 'x'));
    m_sp_element->setValue(text("12345"));

    EXPECT_EQ(readString("ab"), 14U);
    EXPECT_EQ(textOf(*m_sp_element), "ab345");

    EXPECT_EQ(readString("abcdefg"), 19U);
    EXPECT_EQ(textOf(*m_sp_element), "abcdefg");
}

TEST_F(ElementCodec, aLongestTextWithoutNulKeeps9399Characters) {
    EXPECT_EQ(readString(std::string(9400, 'x')), 12U + 9400);

    EXPECT_EQ(textOf(*m_sp_element), std::string(9399, 'x'));
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U + 9400);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, receivedTextBeyondTheLimitIsRefused) {
    EXPECT_EQ(readString(std::string(9401, 'x')), 0U);
    EXPECT_EQ(m_records.take(), Records_{kTooLongText});
}

TEST_F(ElementCodec, refusedTextOfAFreshElementIsEmpty) {
    newBinary(1, Bytes_(9400, 'x'));
    const SP_VekmsgElementBinary_ sp_fresh = newElement(0);
    deserialize(*sp_fresh, element(5, VEKMSG_STRING, Bytes_(9401, 'x')));

    EXPECT_EQ(textOf(*sp_fresh), "");
    EXPECT_EQ(m_records.take(), Records_{kTooLongText});
}

TEST_F(ElementCodec, refusedTextIsWhatTheStorageHoldsAndEndsInIt) {
    m_sp_element = newBinary(1, bytesOf("xxxxx"));
    EXPECT_EQ(readString(std::string(9401, 'y')), 0U);
    EXPECT_EQ(textOf(*m_sp_element), "xxxxx");
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U + 6);

    m_sp_element = newBinary(1, Bytes_(9400, 'x'));
    EXPECT_EQ(readString(std::string(9401, 'y')), 0U);
    EXPECT_EQ(textOf(*m_sp_element), std::string(9399, 'x'));
    EXPECT_EQ(m_records.take(), (Records_{kTooLongText, kTooLongText}));
}

TEST_F(ElementCodec, receivedTextMayBeEmpty) {
    EXPECT_EQ(readString(""), 12U);
    EXPECT_EQ(textOf(*m_sp_element), "");
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 13U);
}

TEST_F(ElementCodec, receivedBytesUpToTheLimitAreAccepted) {
    EXPECT_EQ(read(element(5, VEKMSG_BINARY, Bytes_(9400, 9))), 12U + 9400);
    EXPECT_EQ(binaryOf(*m_sp_element), Bytes_(9400, 9));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, receivedBytesBeyondTheLimitAreRefused) {
    EXPECT_EQ(read(element(5, VEKMSG_BINARY, Bytes_(9401, 9))), 0U);
    EXPECT_EQ(m_records.take(), Records_{error(kDeserializeContent,
                                               "VekmsgElementBinary_::deserialize() tag 5 of BINARY type "
                                               "has a length 9401 exceeding the limit")});
}

TEST_F(ElementCodec, anUnknownTypeIsRefused) {
    EXPECT_EQ(read(element(5, 77, {1})), 0U);
    EXPECT_EQ(read(element(5, VEKMSG_UNDEFINED, {})), 0U);
    EXPECT_EQ(m_records.take(),
              (Records_{error(kDeserializeContent,
                              "VekmsgElementBinary_::deserialize() tag 5 has invalid data type 77"),
                        error(kDeserializeContent,
                              "VekmsgElementBinary_::deserialize() tag 5 has invalid data type 0")}));
}

TEST_F(ElementCodec, complexContentWithoutBytesFailsInItsFirstHeader) {
    EXPECT_EQ(read(element(5, VEKMSG_COMPLEX, {})), 0U);
    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserializeHeader,
                             "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short")});
}

TEST_F(ElementCodec, aFewBytesBehindTheSubElementsAreSkippedWithAWarning) {
    EXPECT_EQ(read(element(5, VEKMSG_COMPLEX, uintElement(1, 10) + Bytes_{1, 2, 3})), 12U + 16 + 3);

    EXPECT_EQ(m_records.take(),
              Records_{warning(kDeserializeSubElements, "Tag 5 has unused data of 3 bytes")});
    EXPECT_EQ(encoded(*m_sp_element), element(5, VEKMSG_COMPLEX, uintElement(1, 10)));
}

TEST_F(ElementCodec, sixBytesBehindTheSubElementsAreReadAsAnother) {
    EXPECT_EQ(read(element(5, VEKMSG_COMPLEX, uintElement(1, 10) + Bytes_{1, 2, 3, 4, 5, 6})), 0U);
    EXPECT_EQ(m_records.take(), Records_{error(kDeserialize,
                                               "VekmsgElementBinary_::deserialize() tag 258 length 1286 is "
                                               "larger than allowed length 0")});
}

TEST_F(ElementCodec, whatAnOuterLengthAnnouncesBeyondItsContentIsLeftToTheCaller) {
    const Bytes_ content = item(0, VEKMSG_UINT, {0, 0, 0, 7});

    EXPECT_EQ(read(item(5, 0, content + Bytes_(20, 0xEE))), 16U);
    EXPECT_EQ(m_records.take(), Records_());

    // Inside a tree those bytes are the next sibling.
    EXPECT_EQ(read(element(5, VEKMSG_COMPLEX, item(1, 0, content + uintElement(2, 20)))), 12U + 16 + 16);
    EXPECT_EQ(encoded(*m_sp_element), element(5, VEKMSG_COMPLEX, uintElement(1, 7) + uintElement(2, 20)));
}

TEST_F(ElementCodec, receivedSubElementsAreSortedByTag) {
    EXPECT_EQ(read(element(5, VEKMSG_COMPLEX, uintElement(3, 30) + uintElement(1, 10) + uintElement(3, 31))),
              12U + 3 * 16);
    EXPECT_EQ(encoded(*m_sp_element),
              element(5, VEKMSG_COMPLEX, uintElement(1, 10) + uintElement(3, 30) + uintElement(3, 31)));
}

// What is read next is read into elements that were read before.
TEST_F(ElementCodec, whatWasReadBeforeLeavesNothingBehind) {
    const Bytes_ first = element(5, VEKMSG_COMPLEX,
                                 element(1, VEKMSG_STRING, bytesOf("a long text") + Bytes_{0}) +
                                     element(2, VEKMSG_COMPLEX, uintElement(1, 1)) +
                                     element(3, VEKMSG_BINARY, {1, 2, 3}) + uintElement(4, 40));
    const Bytes_ second =
        element(6, VEKMSG_COMPLEX,
                element(1, VEKMSG_BINARY, {9}) + uintElement(2, 20) + element(3, VEKMSG_STRING, {'b', 0}) +
                    element(4, VEKMSG_COMPLEX, uintElement(7, 70)));
    for (const Bytes_& bytes : {first, second, first, second, second}) {
        const SP_VekmsgElementBinary_ sp_element = newElement(0);
        EXPECT_EQ(deserialize(*sp_element, bytes), bytes.size());
        EXPECT_EQ(encoded(*sp_element), bytes);
    }
}

TEST_F(ElementCodec, openTextReadWhereTextWasEndsWithItsOwnBytes) {
    for (const std::string read : {"a long text", "b"}) {
        const SP_VekmsgElementBinary_ sp_element = newElement(0);
        deserialize(*sp_element, element(5, VEKMSG_COMPLEX, element(1, VEKMSG_STRING, bytesOf(read))));
        EXPECT_EQ(textOf(*sp_element->findFirstMatchingSubelement(1)), read);
    }
}

TEST_F(ElementCodec, aShorterValueReadOverALongerOneLeavesTheRestOfThat) {
    readString(std::string("abcdefghij") + '\0');
    read(element(5, VEKMSG_BINARY, {1, 2}) + Bytes_(40, 'x'));
    readString("z");
    EXPECT_EQ(textOf(*m_sp_element), "z\2cdefghij");
}

TEST_F(ElementCodec, aSubElementThatIsHeldStaysAsItIsWhenTheNextTreeIsRead) {
    read(element(5, VEKMSG_COMPLEX, uintElement(1, 10) + uintElement(2, 20)));
    const SP_VekmsgElement_ sp_held = m_sp_element->findFirstMatchingSubelement(2);
    m_sp_element = newElement(0);

    read(element(5, VEKMSG_COMPLEX, uintElement(3, 30) + uintElement(4, 40)));

    EXPECT_EQ(sp_held->getTag(), 2U);
    EXPECT_EQ(uintOf(*sp_held), 20U);
}

TEST_F(ElementCodec, aRefusedTreeLeavesNothingToTheNext) {
    const Bytes_ good = element(5, VEKMSG_COMPLEX, uintElement(1, 10) + uintElement(2, 20));
    for (int i = 0; i < 3; ++i) {
        const SP_VekmsgElementBinary_ sp_refused = newElement(0);
        EXPECT_EQ(deserialize(
                      *sp_refused,
                      element(5, VEKMSG_COMPLEX,
                              uintElement(1, 1) + element(2, VEKMSG_COMPLEX,
                                                          uintElement(3, 3) + element(4, VEKMSG_UINT, {})))),
                  0U);
        EXPECT_EQ(m_records.take().size(), 1U);
        const SP_VekmsgElementBinary_ sp_read = newElement(0);
        EXPECT_EQ(deserialize(*sp_read, good), good.size());
        EXPECT_EQ(encoded(*sp_read), good);
    }
}

TEST_F(ElementCodec, moreSubElementsThanAThreadKeepsAreReadAgain) {
    Bytes_ content;
    for (unsigned char i = 0; i < 200; ++i) content = content + uintElement(i + 1U, i);
    const Bytes_ bytes = element(5, VEKMSG_COMPLEX, content);
    for (int i = 0; i < 2; ++i) {
        const SP_VekmsgElementBinary_ sp_element = newElement(0);
        EXPECT_EQ(deserialize(*sp_element, bytes), bytes.size());
        EXPECT_EQ(encoded(*sp_element), bytes);
    }
}

TEST_F(ElementCodec, aTreeCutAnywhereIsRefusedWithARecord) {
    const Bytes_ bytes =
        element(5, VEKMSG_COMPLEX,
                uintElement(1, 10) + element(2, VEKMSG_STRING, {'a', 0}) +
                    element(3, VEKMSG_COMPLEX, element(4, VEKMSG_BINARY, {1, 2, 3}) + uintElement(5, 50)));

    for (std::size_t length = 0; length < bytes.size(); ++length) {
        EXPECT_EQ(deserialize(*newElement(0), Bytes_(bytes.begin(), bytes.begin() + long(length))), 0U);
        EXPECT_EQ(m_records.take().size(), 1U) << length;
    }
    EXPECT_EQ(read(bytes), bytes.size());
}

TEST_F(ElementCodec, aTreeWithAnyOneByteChangedIsReadAndWrittenOrRefusedWithAnError) {
    const Bytes_ bytes = element(5, VEKMSG_COMPLEX,
                                 uintElement(1, 10) + element(2, VEKMSG_STRING, {'a', 'b', 0}) +
                                     element(3, VEKMSG_COMPLEX, element(4, VEKMSG_BINARY, {1, 2, 3})));
    for (std::size_t place = 0; place < bytes.size(); ++place) {
        for (unsigned int value = 0; value < 256; ++value) {
            Bytes_ changed = bytes;
            changed[place] = static_cast<unsigned char>(value);
            const SP_VekmsgElementBinary_ sp_element = newElement(0);
            const bool isRead = deserialize(*sp_element, changed) != 0;
            bool hasError = false;
            for (const Record_& record : m_records.take()) hasError = hasError || record.m_severity == 3;
            ASSERT_NE(isRead, hasError) << place << ' ' << value;
            if (isRead) encoded(*sp_element);
            std::ostringstream stream;
            ASSERT_TRUE(sp_element->print(&stream, 0));
        }
    }
}

TEST_F(ElementCodec, theDeepestTreesFitOnAUsualStack) {
    for (const unsigned int levels : {780U, 5460U}) {
        const Bytes_ bytes = nestedElements(levels);
        ASSERT_EQ(bytes.size(), 12U * levels);
        onUsualStack([&] {
            const SP_VekmsgElementBinary_ sp_element = newElement(0);
            EXPECT_EQ(deserialize(*sp_element, bytes), bytes.size());
            EXPECT_EQ(sp_element->getMaxSerializationSize(), bytes.size());
            EXPECT_EQ(encoded(*sp_element), bytes);
        });
    }
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(ElementCodec, aReadThatFailsAtTheBottomOfADeepTreeFailsOnce) {
    Bytes_ bytes = nestedElements(5460);
    bytes[bytes.size() - 3] = 77;  // the type of the innermost element
    onUsualStack([&] { EXPECT_EQ(deserialize(*newElement(0), bytes), 0U); });

    EXPECT_EQ(m_records.take(),
              Records_{error(kDeserializeContent,
                             "VekmsgElementBinary_::deserialize() tag 7 has invalid data type 77")});
}

TEST_F(ElementCodec, readingSurvivesEveryFailedAllocation) {
    const Bytes_ bytes =
        element(5, VEKMSG_COMPLEX, uintElement(1, 10) + element(2, VEKMSG_COMPLEX, uintElement(3, 30)));
    const unsigned int failures = failEachAllocation([&](unsigned int number) {
        const SP_VekmsgElementBinary_ sp_element = newElement(0);
        unsigned int consumed;
        bool hasStruck;
        {
            const AllocationFailure_ failure(number);
            consumed = sp_element->deserialize(bytes.data(), static_cast<unsigned int>(bytes.size()));
            hasStruck = failure.hasStruck();
        }
        EXPECT_EQ(consumed, hasStruck ? 0U : bytes.size());
        EXPECT_TRUE(sp_element->setValue(5U));
        EXPECT_EQ(uintOf(*sp_element), 5U);
        return hasStruck;
    });

    EXPECT_EQ(failures, 7U);  // three sub-elements, and two blocks for those of each of two
    const Records_ noChild{
        kCantCreate, error(kDeserializeSubElements,
                           "VekmsgElementBinary_::deserialize() createElement() returned invalid object")};
    Records_ expected;
    for (int i = 0; i < 3; ++i) expected.insert(expected.end(), noChild.begin(), noChild.end());
    EXPECT_EQ(m_records.take(), expected);
}

TEST_F(ElementCodec, writingAsksForNoMemory) {
    unsigned char freespace[100];
    m_sp_element->setSubElementValue(1, text("one"));
    m_sp_element->setSubElementValue(2, 20U);
    const unsigned long allocations = allocationCount();

    EXPECT_EQ(m_sp_element->serialize(freespace + 100, 100), m_sp_element->getMaxSerializationSize());

    EXPECT_EQ(allocationCount(), allocations);
}

TEST_F(ElementCodec, numbersOf32BitsTravel) {
    for (const unsigned int number : {0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
        const SP_VekmsgElementBinary_ sp_read = newElement(0);

        EXPECT_EQ(deserialize(*sp_read, encoded(*newElement(5, number))), 16U);

        EXPECT_EQ(uintOf(*sp_read), number);
    }
    EXPECT_EQ(m_records.take(), Records_());
}

// Elements that serve again

TEST_F(ElementCodec, anElementThatWasAddedAndIsStillHeldIsNotReadInto) {
    const SP_VekmsgElementBinary_ sp_held = newElement(9, 99U);
    {
        const SP_VekmsgElementBinary_ sp_first = readTree(uintElement(1, 1) + uintElement(2, 2));
        ASSERT_TRUE(sp_first->addSubelements(sp_held));
    }
    const SP_VekmsgElementBinary_ sp_next =
        readTree(uintElement(1, 1) + uintElement(2, 2) + uintElement(3, 3) + uintElement(4, 4));

    EXPECT_EQ(countIn(*sp_next), 4U);
    EXPECT_EQ(sp_held->getTag(), 9U);
    EXPECT_EQ(uintOf(*sp_held), 99U);
}

TEST_F(ElementCodec, aValueReadWhereATreeWasHasNoSubElements) {
    readTree(element(1, VEKMSG_COMPLEX, uintElement(7, 7)) + uintElement(2, 2));
    const SP_VekmsgElementBinary_ sp_next = readTree(uintElement(1, 1) + uintElement(2, 2));

    const SP_VekmsgElement_ sp_value = sp_next->findFirstMatchingSubelement(1);
    ASSERT_TRUE(sp_value->addSubelements(newElement(3, 3U)));
    EXPECT_EQ(countIn(*sp_value), 1U);
}

TEST_F(ElementCodec, aValueReadAfterATreeThatCouldNotBeReadHasNoSubElements) {
    const Bytes_ bad = element(6, VEKMSG_COMPLEX, uintElement(1, 1) + Bytes_{0, 2, 0, 0, 0, 99});
    EXPECT_EQ(read(tree(bad)), 0U);
    EXPECT_FALSE(m_records.take().empty());
    EXPECT_NE(read(tree(uintElement(7, 7))), 0U);

    const SP_VekmsgElement_ sp_value = m_sp_element->findFirstMatchingSubelement(7);
    ASSERT_TRUE(sp_value);
    ASSERT_TRUE(sp_value->addSubelements(newElement(3, 3U)));
    EXPECT_EQ(countIn(*sp_value), 1U);
}
