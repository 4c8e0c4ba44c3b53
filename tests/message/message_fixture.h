#ifndef VEKMSG_TESTS_MESSAGE_FIXTURE_H
#define VEKMSG_TESTS_MESSAGE_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "message/message_binary.h"
#include "support/record_capture.h"
#include "support/utf8_text.h"

using Bytes_ = std::vector<unsigned char>;

inline const Utf8Char_* text(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}
inline const Utf8Char_* text(const std::string& text) {
    return reinterpret_cast<const Utf8Char_*>(text.c_str());
}

// Encoded forms, built by hand.
Bytes_ operator+(const Bytes_& a, const Bytes_& b);
Bytes_ bytesOf(const std::string& text);
Bytes_ item(unsigned int tag, unsigned int type, const Bytes_& value);
Bytes_ element(unsigned int tag, unsigned int type, const Bytes_& value);
Bytes_ uintElement(unsigned int tag, unsigned char value);

/// So many elements inside one another; the innermost holds an empty byte string.
Bytes_ nestedElements(unsigned int levels);

/// A message up to its payload.
Bytes_ header(const std::string& destination, const std::string& source, unsigned int timeToLive,
              const std::string& schema);

/// A buffer with these data bytes at the very end of its storage, behind this room.
SP_BasicBuffer_ bufferOf(const Bytes_& bytes, unsigned int headerRoom = 0);
Bytes_ dataOf(const SP_BasicBuffer_& sp_buffer);

/// An element without a living message.
SP_VekmsgElementBinary_ newElement(VekmsgTag_ tag);
template <class Value>
SP_VekmsgElementBinary_ newElement(VekmsgTag_ tag, Value value) {
    SP_VekmsgElementBinary_ sp_element = newElement(tag);
    sp_element->setValue(value);
    return sp_element;
}
SP_VekmsgElementBinary_ newBinary(VekmsgTag_ tag, const Bytes_& value);

/// What the element writes.
Bytes_ encoded(const VekmsgElementBinary_& element);

/// Reads from a heap block of exactly this size, so that a sanitizer sees a step beyond it.
unsigned int deserialize(VekmsgElementBinary_& element, const Bytes_& bytes);

std::string textOf(const VekmsgElement_& element);
unsigned int uintOf(const VekmsgElement_& element);
Bytes_ binaryOf(const VekmsgElement_& element);

Record_ error(const std::string& signature, const std::string& text);
Record_ warning(const std::string& signature, const std::string& text);

/// What every element that finds no memory writes first.
extern const Record_ kCantCreate;

/// The signature of the stage that reads sub-elements.
extern const char* const kDeserializeSubElements;

/// Captures the records of a test, which fails when it leaves some unasked for.
class RecordingTest_ : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(m_records.take(), Records_()); }

    RecordCapture_ m_records;
};

/// Runs `body` on a stack of 8 MiB, which is what a program's main thread usually has.
void onUsualStack(const std::function<void()>& body);

/// Runs `scenario` in fresh threads with the number of the allocation to fail: 1, 2, ... until it returns
/// false, which says that its act needed fewer. The number of failures there were.
unsigned int failEachAllocation(const std::function<bool(unsigned int number)>& scenario);

/// An element of somebody else's making.
class ForeignElement_ : public VekmsgElement_ {
public:
    explicit ForeignElement_(VekmsgTag_ tag) : m_tag(tag) {}

    VekmsgTag_ getTag() const override { return m_tag; }
    bool getValue(unsigned int&) const override { return false; }
    bool getValue(bool&) const override { return false; }
    bool getValue(const Utf8Char_*&) const override { return false; }
    bool getValue(const unsigned char*&, unsigned int&) const override { return false; }
    bool setValue(unsigned int) override { return false; }
    bool setValue(bool) override { return false; }
    bool setValue(const Utf8Char_*) override { return false; }
    bool setValue(const unsigned char*, unsigned int) override { return false; }
    SP_VekmsgElement_ findFirstMatchingSubelement(VekmsgTag_) const override { return SP_VekmsgElement_(); }
    bool querySubelements(VekmsgTag_) override { return false; }
    SP_VekmsgElement_ getNextSubelement() override { return SP_VekmsgElement_(); }
    void endQuerySubelements() override {}
    bool addSubelements(SP_VekmsgElement_) override { return false; }
    SmartPointer_<VekmsgAttribute_> createAttribute(VekmsgTag_) const override { return nullptr; }
    SmartPointer_<VekmsgAttribute_> getAttribute(VekmsgTag_) const override { return nullptr; }
    bool setAttribute(SmartPointer_<VekmsgAttribute_>) override { return false; }
    bool print(std::ostream*, unsigned int) const override { return false; }
    bool getSubElementValue(VekmsgTag_, unsigned int&) const override { return false; }
    bool getSubElementValue(VekmsgTag_, bool&) const override { return false; }
    bool getSubElementValue(VekmsgTag_, const Utf8Char_*&) const override { return false; }
    bool getSubElementValue(VekmsgTag_, const unsigned char*&, unsigned int&) const override { return false; }
    bool setSubElementValue(VekmsgTag_, unsigned int) override { return false; }
    bool setSubElementValue(VekmsgTag_, bool) override { return false; }
    bool setSubElementValue(VekmsgTag_, const Utf8Char_*) override { return false; }
    bool setSubElementValue(VekmsgTag_, const unsigned char*, unsigned int) override { return false; }
    bool getAttribute(VekmsgTag_, unsigned char*&) const override { return false; }
    bool getAttribute(VekmsgTag_, unsigned int&) const override { return false; }
    bool setAttribute(VekmsgTag_, const unsigned char*) override { return false; }
    bool setAttribute(VekmsgTag_, unsigned int) override { return false; }
    bool setTag(VekmsgTag_) override { return false; }

private:
    VekmsgTag_ m_tag;
};

#endif
