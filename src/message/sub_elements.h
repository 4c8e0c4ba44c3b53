#ifndef VEKMSG_MESSAGE_SUB_ELEMENTS_H
#define VEKMSG_MESSAGE_SUB_ELEMENTS_H

#include <cstddef>
#include <vector>

#include "foundation/free_list.h"
#include "libcpp/smart_pointer.h"

class VekmsgElementBinary_;

/// The children of an element, in the order of their tags and among equal tags in the order of adding; one
/// of a foreign class is there as null, before all others. None is ever taken out.
///
/// Children mostly come in the order of their tags and are walked over far more often than searched, so they
/// stand in one array.
class SubElements_ {
public:
    using Position_ = std::size_t;

    SubElements_() = default;
    SubElements_(const SubElements_&) = delete;
    SubElements_& operator=(const SubElements_&) = delete;
    ~SubElements_() {
        if (!m_elements.empty()) release();
    }

    /// Returns where the element stands now: those from there on have moved by one. Throws, with nothing
    /// changed, when memory is short.
    Position_ insert(SmartPointer_<VekmsgElementBinary_> sp_element);

    /// The first that is not less.
    Position_ lowerBound(const VekmsgElementBinary_* p_probe) const;
    /// The first that is greater.
    Position_ upperBound(const VekmsgElementBinary_* p_probe) const;

    std::size_t size() const { return m_elements.size(); }
    VekmsgElementBinary_* operator[](Position_ position) const { return m_elements[position]; }

    auto begin() const { return m_elements.begin(); }
    auto end() const { return m_elements.end(); }

private:
    using Allocator_ = libcpp::FreeListAllocator_<VekmsgElementBinary_*>;

    // Out of line, apart from what most elements are: a value, or the next in the order of tags.
    [[gnu::noinline]] void release();
    [[gnu::noinline]] void grow();
    [[gnu::noinline]] Position_ insertInside(VekmsgElementBinary_* p_element);

    // Each with a reference; plain pointers move as bytes.
    std::vector<VekmsgElementBinary_*, Allocator_> m_elements;
};

#endif
