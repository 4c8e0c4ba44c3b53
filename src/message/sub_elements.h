#ifndef VEKMSG_MESSAGE_SUB_ELEMENTS_H
#define VEKMSG_MESSAGE_SUB_ELEMENTS_H

#include <cstddef>
#include <vector>

#include "foundation/free_list.h"

class VekmsgElementBinary_;

/// The children of an element, in the order of their tags and among equal tags in the order of adding; one
/// of a foreign class is there as null, before all others. None is ever taken out. And the query over them.
///
/// Children mostly come in the order of their tags and are walked over far more often than searched, so they
/// stand in one array. Most elements have a value and no children: to those this is one pointer, null.
class SubElements_ {
public:
    using Position_ = std::size_t;

    SubElements_() = default;
    SubElements_(const SubElements_&) = delete;
    SubElements_& operator=(const SubElements_&) = delete;
    ~SubElements_() {
        if (m_p_family != nullptr) release();
    }

    /// Room for one more. Throws, with nothing changed, when memory is short.
    void makeRoom() {
        if (m_p_family == nullptr || m_p_family->isFull()) grow();
    }

    /// Takes over a reference. Requires room. A query that is under way goes on where it is.
    void add(VekmsgElementBinary_* p_element);

    /// The first that is not less.
    Position_ lowerBound(const VekmsgElementBinary_* p_probe) const;
    /// The first that is greater.
    Position_ upperBound(const VekmsgElementBinary_* p_probe) const;

    std::size_t size() const { return m_p_family != nullptr ? m_p_family->m_elements.size() : 0; }
    VekmsgElementBinary_* operator[](Position_ position) const { return m_p_family->m_elements[position]; }

    VekmsgElementBinary_* const* begin() const {
        return m_p_family != nullptr ? m_p_family->m_elements.data() : nullptr;
    }
    VekmsgElementBinary_* const* end() const { return begin() + size(); }

    /// Has `next` give those in front of `end` from `begin` on.
    void startQuery(Position_ begin, Position_ end) {
        if (m_p_family == nullptr) return;
        m_p_family->m_cursor = begin;
        m_p_family->m_queryEnd = end;
    }
    void endQuery() {
        if (m_p_family != nullptr) m_p_family->m_cursor = m_p_family->m_queryEnd;
    }
    bool hasNext() const { return m_p_family != nullptr && m_p_family->m_cursor != m_p_family->m_queryEnd; }
    /// Requires that there is one.
    VekmsgElementBinary_* next() { return m_p_family->m_elements[m_p_family->m_cursor++]; }

private:
    using Allocator_ = libcpp::FreeListAllocator_<VekmsgElementBinary_*>;

    /// What there is once there is a child.
    struct Family_ : libcpp::FromFreeList_<Family_, 32> {
        // Each with a reference; plain pointers move as bytes.
        std::vector<VekmsgElementBinary_*, Allocator_> m_elements;
        Position_ m_cursor = 0;
        Position_ m_queryEnd = 0;

        bool isFull() const { return m_elements.size() == m_elements.capacity(); }
    };

    static bool isLess(const VekmsgElementBinary_* p_a, const VekmsgElementBinary_* p_b);

    /// An element has come to stand there.
    void keepQuery(Position_ position) {
        if (position <= m_p_family->m_cursor) ++m_p_family->m_cursor;
        if (position <= m_p_family->m_queryEnd) ++m_p_family->m_queryEnd;
    }

    // Out of line, apart from what most elements are: a value, or the next in the order of tags.
    [[gnu::noinline]] void release();
    [[gnu::noinline]] void grow();
    [[gnu::noinline]] void addInside(VekmsgElementBinary_* p_element);

    Family_* m_p_family = nullptr;
};

#endif
