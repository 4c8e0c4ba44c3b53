#include "message/element_binary.h"

#include <gtest/gtest.h>

#include "message/message_fixture.h"
#include "support/allocation_failure.h"

namespace {

const char* const kGetUint = "virtual bool VekmsgElementBinary_::getValue(unsigned int&) const";
const char* const kGetText = "virtual bool VekmsgElementBinary_::getValue(const Utf8Char_*&) const";
const char* const kGetBinary =
    "virtual bool VekmsgElementBinary_::getValue(const unsigned char*&, unsigned int&) const";
const char* const kSetText = "virtual bool VekmsgElementBinary_::setValue(const Utf8Char_*)";
const char* const kSetBinary =
    "virtual bool VekmsgElementBinary_::setValue(const unsigned char*, unsigned int)";
const char* const kAdd = "virtual bool VekmsgElementBinary_::addSubelements(SP_VekmsgElement_)";
const char* const kFind =
    "virtual SP_VekmsgElement_ VekmsgElementBinary_::findFirstMatchingSubelement(VekmsgTag_) const";
const char* const kQuery = "virtual bool VekmsgElementBinary_::querySubelements(VekmsgTag_)";

const Record_ kNoProbe = error(kFind,
                               "VekmsgElementBinary_::getFirstMatchingSubelement() createElement() returned "
                               "invalid object");

/// Refuses every number.
class Refusing_ : public VekmsgElementBinary_ {
public:
    explicit Refusing_(VekmsgTag_ tag) : VekmsgElementBinary_(tag, nullptr) {}
    using VekmsgElementBinary_::setValue;
    bool setValue(unsigned int) override { return false; }
};

/// Doubles every number that is set and counts how often one is asked for.
class Doubling_ : public VekmsgElementBinary_ {
public:
    Doubling_() : VekmsgElementBinary_(0, nullptr) {}
    using VekmsgElementBinary_::getSubElementValue;
    using VekmsgElementBinary_::getValue;
    using VekmsgElementBinary_::setSubElementValue;
    using VekmsgElementBinary_::setValue;

    bool getValue(unsigned int& value) const override {
        ++m_calls;
        return VekmsgElementBinary_::getValue(value);
    }
    bool setValue(unsigned int value) override { return VekmsgElementBinary_::setValue(2 * value); }
    bool getSubElementValue(VekmsgTag_ tag, unsigned int& value) const override {
        ++m_calls;
        return VekmsgElementBinary_::getSubElementValue(tag, value);
    }
    bool setSubElementValue(VekmsgTag_ tag, unsigned int value) override {
        return VekmsgElementBinary_::setSubElementValue(tag, 2 * value);
    }

    mutable unsigned int m_calls = 0;
};

class VekmsgElementBinary : public RecordingTest_ {
protected:
    /// Adds a sub-element with a value that tells it from others with the same tag.
    void add(VekmsgTag_ tag, unsigned int value) {
        ASSERT_TRUE(m_sp_element->addSubelements(newElement(tag, value)));
    }

    /// The values of the query under way.
    std::vector<unsigned int> queried() {
        std::vector<unsigned int> values;
        for (SP_VekmsgElement_ sp_next = m_sp_element->getNextSubelement(); !sp_next.isNull();
             sp_next = m_sp_element->getNextSubelement())
            values.push_back(uintOf(*sp_next));
        return values;
    }
    std::vector<unsigned int> query(VekmsgTag_ tag) {
        EXPECT_TRUE(m_sp_element->querySubelements(tag));
        return queried();
    }

    /// The element as its receiver has it.
    SP_VekmsgElementBinary_ readAgain() const {
        unsigned char bytes[1000];
        const unsigned int length = m_sp_element->serialize(std::end(bytes), sizeof bytes);
        SP_VekmsgElementBinary_ sp_read = newElement(0);
        EXPECT_EQ(sp_read->deserialize(std::end(bytes) - length, length), length);
        return sp_read;
    }

    void expectNoValue() {
        EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U);
        EXPECT_FALSE(m_sp_element->getValue(m_number));
        EXPECT_EQ(
            m_records.take(),
            Records_{error(kGetUint, "VekmsgElementBinary_::getValue() wrong data type 0. Expecting uint")});
    }

    SP_VekmsgElementBinary_ m_sp_element = newElement(12);
    unsigned int m_number = 4711;
    bool m_flag = false;
    const Utf8Char_* m_p_text = nullptr;
    const unsigned char* m_p_value = nullptr;
    unsigned int m_length = 4711;
};

using Numbers_ = std::vector<unsigned int>;

}  // namespace

TEST_F(VekmsgElementBinary, aNewElementHasItsTagAndNoValue) {
    EXPECT_EQ(m_sp_element->getTag(), 12U);
    EXPECT_TRUE(m_sp_element->getNextSubelement().isNull());
    expectNoValue();
}

TEST_F(VekmsgElementBinary, theTagCanBeChanged) {
    EXPECT_TRUE(m_sp_element->setTag(13));
    EXPECT_EQ(m_sp_element->getTag(), 13U);
}

TEST_F(VekmsgElementBinary, elementsAreOrderedByTag) {
    const SP_VekmsgElementBinary_ sp_greater = newElement(13);

    EXPECT_TRUE(m_sp_element->isLess(sp_greater.get()));
    EXPECT_FALSE(sp_greater->isLess(m_sp_element.get()));
    EXPECT_FALSE(m_sp_element->isLess(m_sp_element.get()));
    EXPECT_FALSE(m_sp_element->isLess(nullptr));
}

TEST_F(VekmsgElementBinary, aNumberIsStored) {
    EXPECT_TRUE(m_sp_element->setValue(0xFEDCBA98U));

    EXPECT_TRUE(m_sp_element->getValue(m_number));
    EXPECT_EQ(m_number, 0xFEDCBA98U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, aBooleanIsANumber) {
    EXPECT_TRUE(m_sp_element->setValue(true));
    EXPECT_EQ(uintOf(*m_sp_element), 1U);
    EXPECT_TRUE(m_sp_element->getValue(m_flag));
    EXPECT_TRUE(m_flag);

    EXPECT_TRUE(m_sp_element->setValue(false));
    EXPECT_EQ(uintOf(*m_sp_element), 0U);
    EXPECT_TRUE(m_sp_element->getValue(m_flag));
    EXPECT_FALSE(m_flag);
}

TEST_F(VekmsgElementBinary, everyNumberButZeroIsTrue) {
    m_sp_element->setValue(0x80000000U);

    EXPECT_TRUE(m_sp_element->getValue(m_flag));
    EXPECT_TRUE(m_flag);
}

TEST_F(VekmsgElementBinary, booleansPassThroughTheOperationsForNumbers) {
    const SmartPointer_<Doubling_> sp_element(new Doubling_);

    EXPECT_TRUE(sp_element->setValue(true));
    EXPECT_TRUE(sp_element->getValue(m_flag));
    EXPECT_EQ(sp_element->m_calls, 1U);
    EXPECT_EQ(uintOf(*sp_element), 2U);

    EXPECT_TRUE(sp_element->setSubElementValue(3, true));
    sp_element->m_calls = 0;
    EXPECT_TRUE(sp_element->getSubElementValue(3, m_flag));
    EXPECT_EQ(sp_element->m_calls, 1U);
    EXPECT_EQ(uintOf(*sp_element->findFirstMatchingSubelement(3)), 2U);
}

TEST_F(VekmsgElementBinary, textIsStored) {
    EXPECT_TRUE(m_sp_element->setValue(text("gr\xC3\xBC\xC3\x9F")));

    EXPECT_TRUE(m_sp_element->getValue(m_p_text));
    EXPECT_EQ(plain(m_p_text), "gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, textOf9399CharactersIsKeptWhole) {
    const std::string longest(9399, 'x');

    EXPECT_TRUE(m_sp_element->setValue(text(longest)));

    EXPECT_EQ(textOf(*m_sp_element), longest);
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U + 9400);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, longerTextIsCutTo9399CharactersWithAWarning) {
    for (const unsigned int length : {9400U, 9401U, 20000U}) {
        EXPECT_TRUE(m_sp_element->setValue(text(std::string(length, 'x'))));

        EXPECT_EQ(textOf(*m_sp_element), std::string(9399, 'x'));
        EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U + 9400);
        EXPECT_EQ(m_records.take(),
                  Records_{warning(kSetText,
                                   "VekmsgElementBinary_::setValue() string is longer than 9400. "
                                   "Truncated")});
    }
}

TEST_F(VekmsgElementBinary, nullTextIsRefusedAndLeavesNoValue) {
    m_sp_element->setValue(5U);

    EXPECT_FALSE(m_sp_element->setValue(static_cast<const Utf8Char_*>(nullptr)));

    EXPECT_EQ(m_records.take(), Records_{error(kSetText, "VekmsgElementBinary_::setValue() null p_value")});
    expectNoValue();
}

TEST_F(VekmsgElementBinary, itsOwnTextCanBeSetAgainFromTheMiddle) {
    m_sp_element->setValue(text("abcdef"));
    m_sp_element->getValue(m_p_text);

    EXPECT_TRUE(m_sp_element->setValue(m_p_text + 2));

    EXPECT_EQ(textOf(*m_sp_element), "cdef");
}

TEST_F(VekmsgElementBinary, bytesAreStored) {
    const Bytes_ value{0, 1, 0, 255};

    EXPECT_TRUE(m_sp_element->setValue(value.data(), 4));

    EXPECT_EQ(binaryOf(*m_sp_element), value);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, noBytesAreAValueToo) {
    EXPECT_TRUE(m_sp_element->setValue(text(""), 0));

    EXPECT_TRUE(m_sp_element->getValue(m_p_value, m_length));
    EXPECT_NE(m_p_value, nullptr);
    EXPECT_EQ(m_length, 0U);
}

TEST_F(VekmsgElementBinary, bytesUpToTheLimitAreAccepted) {
    for (const unsigned int length : {9399U, 9400U}) {
        const Bytes_ value(length, 0xAB);

        EXPECT_TRUE(m_sp_element->setValue(value.data(), length));

        EXPECT_EQ(binaryOf(*m_sp_element), value);
        EXPECT_EQ(m_records.take(), Records_());
    }
}

TEST_F(VekmsgElementBinary, moreBytesAreRefusedAndLeaveNoValue) {
    const Bytes_ value(9401, 0xAB);
    m_sp_element->setValue(5U);

    EXPECT_FALSE(m_sp_element->setValue(value.data(), 9401));

    EXPECT_EQ(m_records.take(),
              Records_{error(kSetBinary,
                             "VekmsgElementBinary_::setValue() binary length 9401 is too large. 9400 max")});
    expectNoValue();
}

TEST_F(VekmsgElementBinary, theGreatestLengthIsRefusedBeforeAnyByteIsRead) {
    const unsigned char one = 1;

    EXPECT_FALSE(m_sp_element->setValue(&one, 0xFFFFFFFFU));

    EXPECT_EQ(m_records.take(),
              Records_{error(kSetBinary,
                             "VekmsgElementBinary_::setValue() binary length -1 is too large. 9400 max")});
    expectNoValue();
}

TEST_F(VekmsgElementBinary, nullBytesAreRefusedAndLeaveNoValue) {
    m_sp_element->setValue(5U);

    EXPECT_FALSE(m_sp_element->setValue(nullptr, 0));

    EXPECT_EQ(m_records.take(), Records_{error(kSetBinary, "VekmsgElementBinary_::setValue() null p_value")});
    expectNoValue();
}

TEST_F(VekmsgElementBinary, aNewValueReplacesTheOldOneAndItsType) {
    m_sp_element->setValue(text("a long text"));
    m_sp_element->setValue(7U);
    EXPECT_EQ(uintOf(*m_sp_element), 7U);

    m_sp_element->setValue(text("short"));
    EXPECT_EQ(textOf(*m_sp_element), "short");
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U + 6);
}

TEST_F(VekmsgElementBinary, aNumberIsNotReadFromText) {
    m_sp_element->setValue(text("5"));

    EXPECT_FALSE(m_sp_element->getValue(m_number));

    EXPECT_EQ(m_number, 4711U);
    EXPECT_EQ(m_records.take(), Records_{error(kGetUint,
                                               "VekmsgElementBinary_::getValue() wrong data type "
                                               "3. Expecting uint")});
}

TEST_F(VekmsgElementBinary, aBooleanFailsAsItsNumberDoes) {
    m_sp_element->setValue(text("5"));
    m_flag = true;

    EXPECT_FALSE(m_sp_element->getValue(m_flag));

    EXPECT_TRUE(m_flag);
    EXPECT_EQ(m_records.take(), Records_{error(kGetUint,
                                               "VekmsgElementBinary_::getValue() wrong data type "
                                               "3. Expecting uint")});
}

TEST_F(VekmsgElementBinary, textIsNotReadFromANumber) {
    m_sp_element->setValue(5U);

    EXPECT_FALSE(m_sp_element->getValue(m_p_text));

    EXPECT_EQ(m_p_text, nullptr);
    EXPECT_EQ(m_records.take(), Records_{error(kGetText,
                                               "VekmsgElementBinary_::getValue() wrong data type "
                                               "2. Expecting string")});
}

TEST_F(VekmsgElementBinary, bytesAreNotReadFromASubtree) {
    add(1, 1);

    EXPECT_FALSE(m_sp_element->getValue(m_p_value, m_length));

    EXPECT_EQ(m_p_value, nullptr);
    EXPECT_EQ(m_length, 4711U);
    EXPECT_EQ(m_records.take(), Records_{error(kGetBinary,
                                               "VekmsgElementBinary_::getValue() wrong data "
                                               "type 1. Expecting binary")});
}

TEST_F(VekmsgElementBinary, subElementsStandInTagOrderAndEqualTagsInOrderOfAdding) {
    add(5, 51);
    add(2, 20);
    add(5, 52);
    add(1, 10);

    EXPECT_EQ(query(VEKMSGTAG_ANY), (Numbers_{10, 20, 51, 52}));
    EXPECT_EQ(query(5), (Numbers_{51, 52}));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, aNullSubElementIsRefused) {
    m_sp_element->setValue(5U);

    EXPECT_FALSE(m_sp_element->addSubelements(SP_VekmsgElement_()));

    EXPECT_EQ(m_records.take(),
              Records_{error(kAdd, "VekmsgElementBinary_::addSubelements() null sp_subElement")});
    EXPECT_EQ(uintOf(*m_sp_element), 5U);
}

TEST_F(VekmsgElementBinary, aSubElementWithoutARealTagIsRefused) {
    m_sp_element->setValue(5U);

    EXPECT_FALSE(m_sp_element->addSubelements(newElement(VEKMSGTAG_ANY)));

    EXPECT_EQ(m_records.take(),
              Records_{error(kAdd, "VekmsgElementBinary_::addSubelements() element with tag == ANY")});
    EXPECT_EQ(uintOf(*m_sp_element), 5U);
}

TEST_F(VekmsgElementBinary, addingReplacesTheValue) {
    m_sp_element->setValue(5U);
    add(1, 10);

    EXPECT_FALSE(m_sp_element->getValue(m_number));
    EXPECT_EQ(m_records.take(), Records_{error(kGetUint,
                                               "VekmsgElementBinary_::getValue() wrong data type "
                                               "1. Expecting uint")});
}

TEST_F(VekmsgElementBinary, subElementsOutliveAValueThatHidesThem) {
    add(1, 10);
    m_sp_element->setValue(5U);

    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 16U);
    EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(1).isNull());

    add(2, 20);
    EXPECT_EQ(query(VEKMSGTAG_ANY), (Numbers_{10, 20}));
}

TEST_F(VekmsgElementBinary, anAddedElementStaysShared) {
    const SP_VekmsgElementBinary_ sp_shared = newElement(3, 1U);
    const SP_VekmsgElementBinary_ sp_other = newElement(9);
    m_sp_element->addSubelements(sp_shared);
    m_sp_element->addSubelements(sp_shared);
    sp_other->addSubelements(sp_shared);

    sp_shared->setValue(2U);

    EXPECT_EQ(query(3), (Numbers_{2, 2}));
    EXPECT_EQ(uintOf(*sp_other->findFirstMatchingSubelement(3)), 2U);
}

TEST_F(VekmsgElementBinary, aForeignElementBecomesANullEntry) {
    EXPECT_TRUE(m_sp_element->addSubelements(SP_VekmsgElement_(new ForeignElement_(3))));

    EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(3).isNull());
    EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(VEKMSGTAG_ANY).isNull());
    EXPECT_EQ(m_sp_element->getMaxSerializationSize(), 12U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, theFirstOfEqualTagsIsFound) {
    add(5, 51);
    add(2, 20);
    add(5, 52);

    EXPECT_EQ(uintOf(*m_sp_element->findFirstMatchingSubelement(5)), 51U);
    EXPECT_EQ(uintOf(*m_sp_element->findFirstMatchingSubelement(VEKMSGTAG_ANY)), 20U);
}

TEST_F(VekmsgElementBinary, aTagThatIsNotThereIsNotFound) {
    add(5, 51);
    add(2, 20);

    for (const VekmsgTag_ tag : {0U, 3U, 6U})
        EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(tag).isNull());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, whatWasAskedBeforeDoesNotChangeWhatIsFound) {
    add(5, 51);
    add(7, 71);
    m_sp_element = readAgain();
    m_sp_element->findFirstMatchingSubelement(5)->setTag(9);  // not where a search for 9, or for 7, comes by

    EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(7).isNull());
    EXPECT_FALSE(m_sp_element->getSubElementValue(7, m_number));
    EXPECT_FALSE(m_sp_element->getSubElementValue(9, m_number));
}

TEST_F(VekmsgElementBinary, whatWasAskedBeforeDoesNotChangeWhatIsFoundOfTagsWithoutAnOrder) {
    const VekmsgTag_ tags[] = {0xC0000000, 0, 0x30000000, 0xF0000000, 0x90000000};
    for (const VekmsgTag_ tag : tags) add(tag, 1);

    for (const VekmsgTag_ tag : tags) {
        const bool isFound = !m_sp_element->findFirstMatchingSubelement(tag).isNull();
        for (const VekmsgTag_ before : tags) {
            m_sp_element->getSubElementValue(before, m_number);
            EXPECT_EQ(m_sp_element->getSubElementValue(tag, m_number), isFound) << before << ", " << tag;
        }
    }
}

TEST_F(VekmsgElementBinary, aValueElementFindsNothingWithoutARecord) {
    m_sp_element->setValue(5U);

    EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(1).isNull());
    EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(VEKMSGTAG_ANY).isNull());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, nothingIsFoundWhereNoSubElementCouldBeRead) {
    EXPECT_EQ(deserialize(*m_sp_element, element(12, VEKMSG_COMPLEX, {})), 0U);
    EXPECT_EQ(m_records.take().size(), 1U);

    EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(VEKMSGTAG_ANY).isNull());
    EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(1).isNull());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, aValueElementCannotBeQueried) {
    m_sp_element->setValue(5U);

    EXPECT_FALSE(m_sp_element->querySubelements(VEKMSGTAG_ANY));
    EXPECT_EQ(
        m_records.take(),
        Records_{error(kQuery, "VekmsgElementBinary_::querySubelements() no subelements for simple type")});
}

TEST_F(VekmsgElementBinary, aQueryMayFindNothing) {
    add(5, 51);

    EXPECT_EQ(query(4), Numbers_());
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, aNewQueryReplacesTheOldOne) {
    add(1, 10);
    add(2, 20);
    m_sp_element->querySubelements(VEKMSGTAG_ANY);
    m_sp_element->getNextSubelement();

    EXPECT_EQ(query(1), Numbers_{10});
}

TEST_F(VekmsgElementBinary, anEndedQueryYieldsNothing) {
    add(1, 10);
    m_sp_element->querySubelements(VEKMSGTAG_ANY);

    m_sp_element->endQuerySubelements();

    EXPECT_EQ(queried(), Numbers_());
}

TEST_F(VekmsgElementBinary, aQueryStaysValidWhileSubElementsAreAdded) {
    add(1, 10);
    add(3, 30);
    m_sp_element->querySubelements(1);

    add(1, 11);
    add(2, 20);

    // Its end is the tag-3 entry, so that what was added in front of that is seen.
    EXPECT_EQ(queried(), (Numbers_{10, 11, 20}));
}

TEST_F(VekmsgElementBinary, valuesOfSubElementsAreRead) {
    m_sp_element->addSubelements(newElement(1, 7U));
    m_sp_element->addSubelements(newElement(2, text("two")));
    m_sp_element->addSubelements(newBinary(3, {3, 4}));

    EXPECT_TRUE(m_sp_element->getSubElementValue(1, m_number));
    EXPECT_EQ(m_number, 7U);
    EXPECT_TRUE(m_sp_element->getSubElementValue(1, m_flag));
    EXPECT_TRUE(m_flag);
    EXPECT_TRUE(m_sp_element->getSubElementValue(2, m_p_text));
    EXPECT_EQ(plain(m_p_text), "two");
    EXPECT_TRUE(m_sp_element->getSubElementValue(3, m_p_value, m_length));
    EXPECT_EQ(Bytes_(m_p_value, m_p_value + m_length), (Bytes_{3, 4}));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, theValueOfAMissingSubElementFailsWithoutARecord) {
    add(1, 7);
    m_flag = true;

    EXPECT_FALSE(m_sp_element->getSubElementValue(2, m_number));
    EXPECT_FALSE(m_sp_element->getSubElementValue(2, m_flag));
    EXPECT_FALSE(m_sp_element->getSubElementValue(2, m_p_text));
    EXPECT_FALSE(m_sp_element->getSubElementValue(2, m_p_value, m_length));

    EXPECT_EQ(m_number, 4711U);
    EXPECT_TRUE(m_flag);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, theValueOfASubElementOfAnotherTypeFailsAsThereDescribed) {
    m_sp_element->addSubelements(newElement(2, text("two")));
    m_flag = true;

    EXPECT_FALSE(m_sp_element->getSubElementValue(2, m_flag));

    EXPECT_TRUE(m_flag);
    EXPECT_EQ(m_records.take(), Records_{error(kGetUint,
                                               "VekmsgElementBinary_::getValue() wrong data type "
                                               "3. Expecting uint")});
}

TEST_F(VekmsgElementBinary, textAndBytesOfASubElementFailAsThereDescribed) {
    m_sp_element->addSubelements(newElement(3, 3U));

    EXPECT_FALSE(m_sp_element->getSubElementValue(3, m_p_text));
    EXPECT_FALSE(m_sp_element->getSubElementValue(3, m_p_value, m_length));

    EXPECT_EQ(m_p_text, nullptr);
    EXPECT_EQ(m_p_value, nullptr);
    EXPECT_EQ(m_length, 4711U);
    EXPECT_EQ(
        m_records.take(),
        (Records_{
            error(kGetText, "VekmsgElementBinary_::getValue() wrong data type 2. Expecting string"),
            error(kGetBinary, "VekmsgElementBinary_::getValue() wrong data type 2. Expecting binary")}));
}

TEST_F(VekmsgElementBinary, settingASubElementAddsItWhenThereIsNone) {
    EXPECT_TRUE(m_sp_element->setSubElementValue(4, 40U));
    EXPECT_TRUE(m_sp_element->setSubElementValue(3, true));
    EXPECT_TRUE(m_sp_element->setSubElementValue(2, text("two")));
    EXPECT_TRUE(m_sp_element->setSubElementValue(1, Bytes_{1, 2}.data(), 2));

    EXPECT_EQ(uintOf(*m_sp_element->findFirstMatchingSubelement(4)), 40U);
    EXPECT_EQ(uintOf(*m_sp_element->findFirstMatchingSubelement(3)), 1U);
    EXPECT_EQ(textOf(*m_sp_element->findFirstMatchingSubelement(2)), "two");
    EXPECT_EQ(binaryOf(*m_sp_element->findFirstMatchingSubelement(1)), (Bytes_{1, 2}));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, settingASubElementReusesTheFirstWithThatTag) {
    add(5, 51);
    add(5, 52);

    EXPECT_TRUE(m_sp_element->setSubElementValue(5, 50U));

    EXPECT_EQ(query(5), (Numbers_{50, 52}));
}

TEST_F(VekmsgElementBinary, noSubElementIsSetForTheTagAny) {
    const char* const p_text = "VekmsgElementBinary_::setSubElementValue() Can't set with tag == ANY";
    const Record_ uintRecord =
        error("virtual bool VekmsgElementBinary_::setSubElementValue(VekmsgTag_, unsigned int)", p_text);

    EXPECT_FALSE(m_sp_element->setSubElementValue(VEKMSGTAG_ANY, 1U));
    EXPECT_FALSE(m_sp_element->setSubElementValue(VEKMSGTAG_ANY, true));
    EXPECT_FALSE(m_sp_element->setSubElementValue(VEKMSGTAG_ANY, text("x")));
    EXPECT_FALSE(m_sp_element->setSubElementValue(VEKMSGTAG_ANY, text("x"), 1));

    EXPECT_EQ(
        m_records.take(),
        (Records_{
            uintRecord, uintRecord,
            error("virtual bool VekmsgElementBinary_::setSubElementValue(VekmsgTag_, const Utf8Char_*)",
                  p_text),
            error("virtual bool VekmsgElementBinary_::setSubElementValue(VekmsgTag_, const unsigned char*, "
                  "unsigned int)",
                  p_text)}));
    expectNoValue();
}

TEST_F(VekmsgElementBinary, aFailingValueLeavesANewSubElementWithoutValue) {
    EXPECT_FALSE(m_sp_element->setSubElementValue(7, static_cast<const Utf8Char_*>(nullptr)));

    EXPECT_EQ(m_records.take(), Records_{error(kSetText, "VekmsgElementBinary_::setValue() null p_value")});
    const SP_VekmsgElementBinary_ sp_created = m_sp_element->findFirstMatchingSubelement(7);
    ASSERT_FALSE(sp_created.isNull());
    EXPECT_EQ(sp_created->getMaxSerializationSize(), 12U);
}

TEST_F(VekmsgElementBinary, aValueThatTheSubElementRefusesIsNotSet) {
    m_sp_element->addSubelements(SP_VekmsgElement_(new Refusing_(6)));
    EXPECT_FALSE(m_sp_element->setSubElementValue(6, 60U));
    EXPECT_EQ(m_records.take(), Records_());

    EXPECT_FALSE(m_sp_element->setSubElementValue(7, static_cast<const unsigned char*>(nullptr), 1));
    EXPECT_EQ(m_records.take(), Records_{error(kSetBinary, "VekmsgElementBinary_::setValue() null p_value")});
}

TEST_F(VekmsgElementBinary, anElementOutlivesItsMessage) {
    SP_VekmsgElement_ sp_element;
    {
        const SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
        sp_element = sp_message->createElement(1);
    }

    EXPECT_TRUE(sp_element->setSubElementValue(2, 20U));
    EXPECT_TRUE(sp_element->querySubelements(2));
    EXPECT_EQ(uintOf(*sp_element->findFirstMatchingSubelement(2)), 20U);
}

TEST_F(VekmsgElementBinary, attributesAreNotProvided) {
    unsigned char* p_value = nullptr;

    EXPECT_EQ(m_sp_element->createAttribute(1).get(), nullptr);
    EXPECT_EQ(m_sp_element->getAttribute(1).get(), nullptr);
    EXPECT_TRUE(m_sp_element->setAttribute(SmartPointer_<VekmsgAttribute_>()));
    EXPECT_TRUE(m_sp_element->getAttribute(1, p_value));
    EXPECT_TRUE(m_sp_element->getAttribute(1, m_number));
    EXPECT_TRUE(m_sp_element->setAttribute(1, text("x")));
    EXPECT_TRUE(m_sp_element->setAttribute(1, 5U));

    EXPECT_EQ(p_value, nullptr);
    EXPECT_EQ(m_number, 4711U);
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(VekmsgElementBinary, withoutMemoryForAProbeNoValueIsReadInTheOrderOfTagsEither) {
    add(1, 10);
    add(2, 20);
    m_sp_element = readAgain();
    inFreshThread([&] {
        const AllocationFailure_ failure(1);
        EXPECT_FALSE(m_sp_element->getSubElementValue(1, m_number));
    });
    EXPECT_EQ(m_records.take(), (Records_{kCantCreate, kNoProbe}));

    EXPECT_TRUE(m_sp_element->getSubElementValue(1, m_number));
    inFreshThread([&] {
        const AllocationFailure_ failure(1);
        EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(2).isNull());
    });
    EXPECT_EQ(m_records.take(), (Records_{kCantCreate, kNoProbe}));
    EXPECT_EQ(m_number, 10U);
}

TEST_F(VekmsgElementBinary, anyTagIsTheFirstSubElementWhateverTheOthersAreCalled) {
    for (const VekmsgTag_ tag : {1U, 2U, 3U}) add(tag, 10 * tag);
    m_sp_element = readAgain();
    m_sp_element->findFirstMatchingSubelement(3)->setTag(VEKMSGTAG_ANY);

    EXPECT_FALSE(m_sp_element->findFirstMatchingSubelement(2).isNull());
    EXPECT_TRUE(m_sp_element->getSubElementValue(VEKMSGTAG_ANY, m_number));
    EXPECT_EQ(m_number, 10U);
}

TEST_F(VekmsgElementBinary, ofEqualTagsTheFirstIsReadHoweverOftenOneAsks) {
    add(1, 11);
    add(5, 51);
    add(5, 52);
    add(6, 61);
    m_sp_element = readAgain();
    const auto valueOf = [&](VekmsgTag_ tag) {
        unsigned int value = 0;
        return m_sp_element->getSubElementValue(tag, value) ? value : 0;
    };

    EXPECT_EQ(valueOf(1), 11U);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(valueOf(5), 51U);
    EXPECT_EQ(valueOf(6), 61U);
    EXPECT_EQ(valueOf(1), 11U);
    EXPECT_EQ(valueOf(5), 51U);
}

TEST_F(VekmsgElementBinary, aValueIsReadUnderTheTagThatItsElementHasNow) {
    add(1, 11);
    add(5, 51);
    EXPECT_TRUE(m_sp_element->getSubElementValue(1, m_number));
    m_sp_element->findFirstMatchingSubelement(5)->setTag(6);

    EXPECT_FALSE(m_sp_element->getSubElementValue(5, m_number));
    EXPECT_TRUE(m_sp_element->getSubElementValue(6, m_number));
    EXPECT_EQ(m_number, 51U);
}

TEST_F(VekmsgElementBinary, aValueIsFoundWhereSubElementsCameInBetween) {
    add(1, 11);
    add(5, 51);
    EXPECT_TRUE(m_sp_element->getSubElementValue(1, m_number));
    add(3, 31);
    add(0, 1);

    EXPECT_TRUE(m_sp_element->getSubElementValue(5, m_number));
    EXPECT_EQ(m_number, 51U);
    EXPECT_TRUE(m_sp_element->getSubElementValue(3, m_number));
    EXPECT_EQ(m_number, 31U);
}

TEST_F(VekmsgElementBinary, withAValueOfItsOwnNoSubElementIsRead) {
    add(1, 11);
    m_sp_element->setValue(5U);
    EXPECT_FALSE(m_sp_element->getSubElementValue(1, m_number));
    EXPECT_EQ(m_number, 4711U);
}

TEST_F(VekmsgElementBinary, aSearchWithoutMemoryForItsProbeFindsNothing) {
    inFreshThread([&] {
        add(4, 41);
        add(5, 51);
        const AllocationFailure_ failure(1);
        EXPECT_TRUE(m_sp_element->findFirstMatchingSubelement(5).isNull());
    });

    EXPECT_EQ(m_records.take(), (Records_{kCantCreate, kNoProbe}));
    EXPECT_EQ(uintOf(*m_sp_element->findFirstMatchingSubelement(5)), 51U);
}

TEST_F(VekmsgElementBinary, aQueryWithoutMemoryForItsProbeFails) {
    inFreshThread([&] {
        add(5, 51);
        const AllocationFailure_ failure(1);
        EXPECT_FALSE(m_sp_element->querySubelements(5));
    });

    EXPECT_EQ(m_records.take(), (Records_{kCantCreate, error(kQuery,
                                                             "VekmsgElementBinary_::querySubelements() "
                                                             "createElement() returned invalid object")}));
    EXPECT_EQ(query(5), Numbers_{51});
}

TEST_F(VekmsgElementBinary, addingWithoutMemoryChangesNothing) {
    inFreshThread([&] {
        const SP_VekmsgElementBinary_ sp_child = newElement(5, 51U);
        m_sp_element->setValue(7U);
        const AllocationFailure_ failure(1);
        EXPECT_FALSE(m_sp_element->addSubelements(sp_child));
        EXPECT_TRUE(failure.hasStruck());
    });

    EXPECT_EQ(m_records.take(), Records_());
    EXPECT_EQ(uintOf(*m_sp_element), 7U);
    add(5, 51);
    EXPECT_EQ(query(5), Numbers_{51});
}

TEST_F(VekmsgElementBinary, settingASubElementSurvivesEveryFailedAllocation) {
    const unsigned int failures = failEachAllocation([&](unsigned int number) {
        const SP_VekmsgElementBinary_ sp_element = newElement(1);
        bool hasStruck;
        bool isSet;
        {
            const AllocationFailure_ failure(number);
            isSet = sp_element->setSubElementValue(2, 20U);
            hasStruck = failure.hasStruck();
        }
        EXPECT_NE(isSet, hasStruck);
        EXPECT_TRUE(sp_element->setSubElementValue(2, 21U));
        EXPECT_EQ(uintOf(*sp_element->findFirstMatchingSubelement(2)), 21U);
        return hasStruck;
    });

    EXPECT_EQ(failures, 3U);  // the sub-element, and the two blocks of its place in the tree
    EXPECT_EQ(m_records.take(), Records_{kCantCreate});
}

TEST_F(VekmsgElementBinary, aFailedProbeMakesSettingAddASecondSubElement) {
    inFreshThread([&] {
        add(4, 41);
        add(5, 51);
        const AllocationFailure_ failure(1);
        EXPECT_TRUE(m_sp_element->setSubElementValue(5, 52U));
    });

    EXPECT_EQ(m_records.take(), (Records_{kCantCreate, kNoProbe}));
    EXPECT_EQ(query(5), (Numbers_{51, 52}));
}
