#ifndef VEKMSG_MESSAGE_ELEMENT_BINARY_H
#define VEKMSG_MESSAGE_ELEMENT_BINARY_H

#include <typeinfo>

#include "foundation/free_list.h"
#include "message/sub_elements.h"
#include "vekmsg/element.h"

struct ElementHeader_;
class VekMessageBinary_;
class VekmsgElementBinary_;
using SP_VekmsgElementBinary_ = SmartPointer_<VekmsgElementBinary_>;

/// The library's element: a value in storage of its own or sub-elements, with its encoded form.
///
///     outer header   tag, type 0, length of the content item
///     content item   tag 0, real type, length, then the value or the sub-elements one after another
///
/// Trees get deep (a received block holds about 780 levels, an application's raw payload about 5460) and are
/// read, written, printed and destroyed by recursion: keep the stack frames of those operations small.
class VekmsgElementBinary_ : public VekmsgElement_, public libcpp::FromFreeList_<VekmsgElementBinary_, 128> {
public:
    /// `p_message` is only remembered, never dereferenced: an element may outlive the message that made it.
    // cppcheck-suppress uninitMemberVar
    VekmsgElementBinary_(VekmsgTag_ tag, const VekMessageBinary_* p_message)
        : m_tag(tag), m_p_message(p_message) {}
    ~VekmsgElementBinary_() override;

    /// `removeRef` for many in a row. True when the element was destroyed and its memory is left to the
    /// caller; one of a derived class takes its memory with it.
    bool removeRefOnly() {
        if (!isOfThisClass()) {
            removeRef();
            return false;
        }
        if (!dropRef()) return false;
        VekmsgElementBinary_::~VekmsgElementBinary_();
        return true;
    }

    /// Lets go of the sub-elements, so that the element can be read into again. False, with nothing changed,
    /// where somebody besides the caller holds it, or it is of a derived class.
    bool becomeSpare() {
        if (!isHeldOnce() || !isOfThisClass()) return false;
        m_subElements.clear();
        return true;
    }

    VekmsgTag_ getTag() const override;
    bool getValue(unsigned int& value) const override;
    bool getValue(bool& value) const override;
    bool getValue(const Utf8Char_*& p_value) const override;
    bool getValue(const unsigned char*& p_value, unsigned int& length) const override;
    bool setValue(unsigned int value) override;
    bool setValue(bool value) override;
    bool setValue(const Utf8Char_* p_value) override;
    bool setValue(const unsigned char* p_value, unsigned int length) override;
    SP_VekmsgElement_ findFirstMatchingSubelement(VekmsgTag_ tag) const override;
    bool querySubelements(VekmsgTag_ tag) override;
    SP_VekmsgElement_ getNextSubelement() override;
    void endQuerySubelements() override;
    bool addSubelements(SP_VekmsgElement_ sp_subElement) override;
    SmartPointer_<VekmsgAttribute_> createAttribute(VekmsgTag_ tag) const override;
    SmartPointer_<VekmsgAttribute_> getAttribute(VekmsgTag_ tag) const override;
    bool setAttribute(SmartPointer_<VekmsgAttribute_> sp_attribute) override;
    bool print(std::ostream* p_stream, unsigned int indent) const override;
    bool getSubElementValue(VekmsgTag_ tag, unsigned int& value) const override;
    bool getSubElementValue(VekmsgTag_ tag, bool& value) const override;
    bool getSubElementValue(VekmsgTag_ tag, const Utf8Char_*& p_value) const override;
    bool getSubElementValue(VekmsgTag_ tag, const unsigned char*& p_value,
                            unsigned int& length) const override;
    bool setSubElementValue(VekmsgTag_ tag, unsigned int value) override;
    bool setSubElementValue(VekmsgTag_ tag, bool value) override;
    bool setSubElementValue(VekmsgTag_ tag, const Utf8Char_* p_value) override;
    bool setSubElementValue(VekmsgTag_ tag, const unsigned char* p_value, unsigned int length) override;
    bool getAttribute(VekmsgTag_ tag, unsigned char*& p_value) const override;
    bool getAttribute(VekmsgTag_ tag, unsigned int& value) const override;
    bool setAttribute(VekmsgTag_ tag, const unsigned char* p_value) override;
    bool setAttribute(VekmsgTag_ tag, unsigned int value) override;
    bool setTag(VekmsgTag_ tag) override;

    /// By tag; false when `p_other` is null.
    bool isLess(const VekmsgElementBinary_* p_other) const {
        return p_other != nullptr && vekMsgTagCompare(m_tag, p_other->m_tag) < 0;
    }

    /// Writes the element so that it ends directly before `p_endOfFreespace`. The bytes written, or 0 with a
    /// record; the free space is then undefined.
    unsigned int serialize(unsigned char* p_endOfFreespace, unsigned int freespaceSize) const;

    /// What `serialize` needs, exactly.
    unsigned int getMaxSerializationSize() const;

    /// Reads one element into this fresh one. The bytes consumed (bytes that an outer length announces beyond
    /// the content item are left to the caller), or 0 with a record; the element is then partly filled.
    unsigned int deserialize(const unsigned char* p_bytestream, unsigned int bytestreamLength);

private:
    static constexpr unsigned int kUintSize = 4;

    struct Item_ {
        VekmsgTag_ m_tag;
        VekmsgDataType_ m_type;
        unsigned int m_length;
        const unsigned char* m_p_value;
    };

    friend class SubElements_;

    bool isOfThisClass() const { return &typeid(*this) == &typeid(VekmsgElementBinary_); }

    unsigned int storedUint() const;
    void storeUint(unsigned int value);
    void store(const unsigned char* p_bytes, unsigned int length);

    /// False when the text had to be cut.
    bool storeText(const Utf8Char_* p_text);

    /// Ends the text in the storage at its first zero byte, which may be the first one never written.
    void closeText();

    /// When a value of the type from the wire is refused, what the storage holds stands for it: as much as
    /// the type reads is made to be written.
    void fillRefusedValue();

    /// The encoded size of a value that is not complex.
    unsigned int valueSize() const;

    /// A new element of the same message; null with a record when memory is short.
    SP_VekmsgElementBinary_ createSibling(VekmsgTag_ tag) const;

    /// What a search would find, where that is known and no probe could fail for want of memory; else null.
    VekmsgElementBinary_* findAtOnce(VekmsgTag_ tag) const;

    /// For the application to hold, and to change.
    SP_VekmsgElement_ handOut(VekmsgElementBinary_* p_subElement) const;

    /// Null when there was no such sub-element and none could be added.
    SP_VekmsgElement_ findOrAddSubElement(VekmsgTag_ tag);

    bool hasPlainValue() const;
    unsigned int serializePlainValue(unsigned char* p_endOfFreespace, unsigned int freespaceSize) const;

    // Out of line, so that writing a value, which is most of all writing, needs next to no stack frame.
    [[gnu::noinline]] unsigned int serializeSubElements(unsigned char* p_endOfFreespace,
                                                        unsigned int freespaceSize) const;

    /// Stores a value from the wire of which nothing has to be said, as nearly all are, in few steps; text up
    /// to its NUL. `available` bytes can be read, and may come to stand behind the value. False, with nothing
    /// changed, for any other. What was written is left for the caller to note.
    bool storePlainValue(const ElementHeader_& header, const unsigned char* p_value, unsigned int available);
    void copyValue(const unsigned char* p_bytes, unsigned int length, unsigned int available);

    /// Makes this a new element with such a value, but for the message. False, with nothing changed, for any
    /// other.
    bool renew(const ElementHeader_& header, const unsigned char* p_value, unsigned int available);

    // The stages of reading: a content item that is no plain value, and the sub-elements in it.
    bool deserialize(const Item_& content);
    bool deserialize(const Item_& content, SubElements_& subElements);

    /// Reads sub-elements, as many as are plain values in the order of tags and there are spares for. The
    /// bytes consumed, which may be none.
    unsigned int deserializePlainValues(const unsigned char* p_bytestream, unsigned int bytestreamLength,
                                        SubElements_& subElements) const;

    /// Reads one sub-element of any kind. Requires a spare. The bytes consumed, or 0 with a record.
    unsigned int deserializeSubElement(const unsigned char* p_bytestream, unsigned int bytestreamLength,
                                       SubElements_& subElements) const;

    /// A spare where there is none. False with a record when memory is short, or throws.
    [[gnu::noinline]] bool createSpare(SubElements_& subElements) const;

    /// Asks the first sub-element with the tag for its value.
    template <class... Value>
    bool readSubElement(VekmsgTag_ tag, Value&... value) const;
    template <class... Value>
    [[gnu::noinline]] bool readFoundSubElement(VekmsgTag_ tag, Value&... value) const;

    bool printElement(std::ostream& stream, unsigned int indent) const;
    bool printValue(std::ostream& stream, unsigned int indent) const;
    bool printSubElements(std::ostream& stream, unsigned int indent) const;

    // The smaller ones where they leave no gap: with what is before them they are one line of the cache.
    VekmsgTag_ m_tag;
    const VekMessageBinary_* m_p_message;
    SubElements_ m_subElements;
    VekmsgDataType_ m_type = VEKMSG_UNDEFINED;
    unsigned int m_valueLength = 0;
    unsigned int m_writtenSize = 0;  // up to here this element wrote into m_value; m_valueLength is within

    // Never cleared; bytes from m_writtenSize on count as zero. Last, so that a short value lies next to all
    // the rest.
    unsigned char m_value[VEKMSG_MAX_VALUE_SIZE];
};

inline bool SubElements_::isLess(const VekmsgElementBinary_* p_a, const VekmsgElementBinary_* p_b) {
    return p_a != nullptr ? p_a->isLess(p_b) : p_b != nullptr;
}

inline void SubElements_::add(VekmsgElementBinary_* p_element) {
    Family_& family = *m_p_family;
    VekmsgElementBinary_*& p_place = family.m_elements[family.m_size];
    family.m_elements[family.m_total++] = p_place;  // a spare, if there are any
    p_place = p_element;
    noteHeld();
    const bool isQueriedToTheEnd = hasNext() && family.m_queryEnd == family.m_size;
    addSpare();
    if (isQueriedToTheEnd) family.m_queryEnd = family.m_size;
}

inline void SubElements_::addSpare() {
    if (m_p_family->m_size != 0 && isLess(*end(), end()[-1])) return addInside();
    ++m_p_family->m_size;
}

inline VekmsgTag_ SubElements_::lastTag() const {
    return size() != 0 && end()[-1] != nullptr ? end()[-1]->m_tag : VEKMSGTAG_ANY;
}

inline VekmsgElementBinary_* SubElements_::guess(VekmsgTag_ tag) const {
    if (m_p_family == nullptr || !m_p_family->m_hasOwnTags) return nullptr;
    if (m_p_family->m_guess >= m_p_family->m_size) return nullptr;
    VekmsgElementBinary_* const* p_place = begin() + m_p_family->m_guess;
    if (p_place[0]->m_tag != tag || (m_p_family->m_guess != 0 && p_place[-1]->m_tag == tag)) return nullptr;
    ++m_p_family->m_guess;
    return *p_place;
}

#endif
