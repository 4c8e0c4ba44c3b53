#ifndef VEKMSG_ELEMENT_H
#define VEKMSG_ELEMENT_H

#include <iosfwd>

#include "libcpp/basic_object.h"
#include "libcpp/smart_pointer.h"
#include "libcpp/utf8_string.h"
#include "vekmsg/attribute.h"
#include "vekmsg/tag.h"

class VekmsgElement_;
using SP_VekmsgElement_ = SmartPointer_<VekmsgElement_>;

/// One node of a payload tree: a tag with either one typed value or sub-elements in ascending order of their
/// tags.
///
/// A message makes elements (VekMessage_::createElement). Whoever holds one shares it: a change made through
/// one smart pointer is seen through all, also inside the trees that the element was added to. A tree must
/// not contain itself. Elements of other implementations than the library's own cannot be encoded.
///
/// Operations that return bool fail with false and one record that says why, or none where that is said or
/// memory is short; outputs are then untouched.
class VEKMSG_API VekmsgElement_ : public BasicObject_ {
public:
    virtual VekmsgTag_ getTag() const = 0;

    /// Each fails when the element holds a value of another type. A boolean is an integer other than 0. Text
    /// (ending at its NUL) and bytes stay valid while the element lives and its value is not changed.
    virtual bool getValue(unsigned int& value) const = 0;
    virtual bool getValue(bool& value) const = 0;
    virtual bool getValue(const Utf8Char_*& p_value) const = 0;
    virtual bool getValue(const unsigned char*& p_value, unsigned int& length) const = 0;

    /// Each replaces the element's value and type. Sub-elements are kept but no longer count until another
    /// one is added.
    virtual bool setValue(unsigned int value) = 0;
    virtual bool setValue(bool value) = 0;
    /// Copies at most 9399 characters; longer text is cut with a warning. Null fails and leaves no value.
    virtual bool setValue(const Utf8Char_* p_value) = 0;
    /// Copies `length` bytes. Null, or more than 9400 bytes, fails and leaves no value.
    virtual bool setValue(const unsigned char* p_value, unsigned int length) = 0;

    /// The first sub-element with this tag, or of all for VEKMSGTAG_ANY; null, without a record, when there
    /// is none.
    virtual SP_VekmsgElement_ findFirstMatchingSubelement(VekmsgTag_ tag) const = 0;

    /// Begins a walk over the sub-elements with this tag, or over all for VEKMSGTAG_ANY; finding none is
    /// success. An element has one walk at a time. Fails when the element is not complex: when no sub-element
    /// was ever added, or setValue() was called since.
    virtual bool querySubelements(VekmsgTag_ tag) = 0;
    /// The next sub-element of the walk, in tag order and in order of adding among equal tags; null at its
    /// end.
    virtual SP_VekmsgElement_ getNextSubelement() = 0;
    virtual void endQuerySubelements() = 0;

    /// Adds behind all sub-elements with the same tag and makes this element complex; its own value is lost.
    /// Fails for null and for an element whose tag is VEKMSGTAG_ANY, with nothing changed.
    virtual bool addSubelements(SP_VekmsgElement_ sp_subElement) = 0;

    /// Attributes are not provided: these return null, or true without doing anything.
    virtual SmartPointer_<VekmsgAttribute_> createAttribute(VekmsgTag_ tag) const = 0;
    virtual SmartPointer_<VekmsgAttribute_> getAttribute(VekmsgTag_ tag) const = 0;
    virtual bool setAttribute(SmartPointer_<VekmsgAttribute_> sp_attribute) = 0;

    /// Writes the tree as XML-like text for people, nothing escaped. False, without a record, when the stream
    /// is null.
    virtual bool print(std::ostream* p_stream, unsigned int indent) const = 0;

    /// The value of the first sub-element with this tag. False, without a record, when there is no such
    /// sub-element.
    virtual bool getSubElementValue(VekmsgTag_ tag, unsigned int& value) const = 0;
    virtual bool getSubElementValue(VekmsgTag_ tag, bool& value) const = 0;
    virtual bool getSubElementValue(VekmsgTag_ tag, const Utf8Char_*& p_value) const = 0;
    virtual bool getSubElementValue(VekmsgTag_ tag, const unsigned char*& p_value,
                                    unsigned int& length) const = 0;

    /// Sets the first sub-element with this tag, adding one when there is none. Those that setValue() on this
    /// element has hidden are not found: one is added behind them, all count again, and reading gives the
    /// first. Write a plain number as `2U`: a signed one could be meant as number or as boolean. Fails for
    /// VEKMSGTAG_ANY, and as `setValue` does; the new sub-element then stays, without a value.
    virtual bool setSubElementValue(VekmsgTag_ tag, unsigned int value) = 0;
    virtual bool setSubElementValue(VekmsgTag_ tag, bool value) = 0;
    virtual bool setSubElementValue(VekmsgTag_ tag, const Utf8Char_* p_value) = 0;
    virtual bool setSubElementValue(VekmsgTag_ tag, const unsigned char* p_value, unsigned int length) = 0;

    virtual bool getAttribute(VekmsgTag_ tag, unsigned char*& p_value) const = 0;
    virtual bool getAttribute(VekmsgTag_ tag, unsigned int& value) const = 0;
    virtual bool setAttribute(VekmsgTag_ tag, const unsigned char* p_value) = 0;
    virtual bool setAttribute(VekmsgTag_ tag, unsigned int value) = 0;

    /// Do not change the tag of an element that is part of a tree: the tree would not move it to its new
    /// place.
    virtual bool setTag(VekmsgTag_ tag) = 0;
};

#endif
