#ifndef VEKMSG_MESSAGE_SUB_ELEMENTS_H
#define VEKMSG_MESSAGE_SUB_ELEMENTS_H

#include <cstddef>
#include <vector>

#include "vekmsg/tag.h"

class VekmsgElementBinary_;

/// The children of an element, in the order of their tags and among equal tags in the order of adding; one
/// of a foreign class is there as null, before all others. None is ever taken out. And the query over them.
///
/// Children mostly come in the order of their tags and are walked over far more often than searched, so they
/// stand in one array. Most elements have a value and no children: to those this is one pointer, null.
///
/// A message is mostly built as the one before it. So when an element goes that was read, those of its
/// children that nobody else holds stay together as spares, and the next one of this thread that is read
/// starts with them. For the bounds see `KeptFamilies_`.
class SubElements_ {
    struct Family_;

public:
    using Position_ = std::size_t;

    SubElements_() = default;
    SubElements_(const SubElements_&) = delete;
    SubElements_& operator=(const SubElements_&) = delete;
    ~SubElements_() { clear(); }

    /// Lets go of all children.
    void clear() {
        if (m_p_family != nullptr) release();
    }

    /// Room for one more. Throws, with nothing changed that can be seen, when memory is short.
    void makeRoom() {
        if (m_p_family == nullptr || m_p_family->hasSpare() || m_p_family->isFull()) growRoom();
    }

    /// Takes over a reference. Requires room. A query that is under way goes on where it is.
    void add(VekmsgElementBinary_* p_element);

    // For reading many children one after another: each is read into a spare, which then becomes a child. A
    // spare is an element of the exact class that nobody else holds and whose children nobody can see; else
    // it is as it was left.

    /// To be called first; `add` may not come in between. Ends a query. Throws when memory is short.
    void prepareSpares() {
        if (m_p_family == nullptr) startFamily(true);
        endQuery();
    }
    bool hasSpare() const { return m_p_family->hasSpare(); }
    /// The first. Requires one.
    VekmsgElementBinary_& spare() const { return *m_p_family->m_elements[m_p_family->m_size]; }
    /// Where the spares end, which begin at `end()`.
    VekmsgElementBinary_* const* sparesEnd() const { return begin() + m_p_family->m_total; }

    /// Takes over a reference. Requires that there is no spare, and room.
    void giveSpare(VekmsgElementBinary_* p_element) {
        m_p_family->m_elements[m_p_family->m_total++] = p_element;
    }

    /// Makes the first spare a child.
    void addSpare();
    /// Makes children of those before this place. Requires that they are plain values, without children, in
    /// the order of tags, and that the first is not less than `lastTag`.
    void addSparesUpTo(VekmsgElementBinary_* const* p_place) {
        m_p_family->m_size = static_cast<Position_>(p_place - begin());
    }
    /// Of the last child. VEKMSGTAG_ANY, than which no tag from the wire is less, when there is none.
    VekmsgTag_ lastTag() const;

    /// To be called before a child or spare has children. Requires one.
    void unseal() const { m_p_family->m_isSealed = false; }
    /// To be called before somebody else may hold a child. Requires one.
    void noteHeld() const { m_p_family->m_isSealed = m_p_family->m_hasOwnTags = false; }

    /// Around what holds a child and changes nothing of it, and lets go of it again.
    class Looking_ {
    public:
        explicit Looking_(const SubElements_& children)
            : m_p_family(children.m_p_family),
              m_hadOwnTags(m_p_family != nullptr && m_p_family->m_hasOwnTags) {}
        Looking_(const Looking_&) = delete;
        Looking_& operator=(const Looking_&) = delete;
        ~Looking_() {
            if (m_p_family != nullptr) m_p_family->m_hasOwnTags = m_hadOwnTags;
        }

    private:
        Family_* m_p_family;
        bool m_hadOwnTags;
    };

    /// The first that is not less.
    Position_ lowerBound(const VekmsgElementBinary_* p_probe) const;
    /// The first that is greater.
    Position_ upperBound(const VekmsgElementBinary_* p_probe) const;

    /// What a search for the tag would find, if it stands behind the one found before, as it does for who
    /// asks in the order of tags. Null where that is not so, or not known.
    VekmsgElementBinary_* guess(VekmsgTag_ tag) const;
    /// Requires that there is such a position.
    void noteFound(Position_ position) const { m_p_family->m_guess = position + 1; }

    std::size_t size() const { return m_p_family != nullptr ? m_p_family->m_size : 0; }
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
    friend class KeptFamilies_;

    /// What there is once there is a child.
    struct Family_ {
        // First the children, then the spares, each with a reference; then room.
        std::vector<VekmsgElementBinary_*> m_elements;
        Position_ m_size = 0;   // of the children
        Position_ m_total = 0;  // with the spares
        Position_ m_cursor = 0;
        Position_ m_queryEnd = 0;
        Position_ m_guess = 0;

        bool m_isRead = false;  // else its children are added, and their memory goes to the next ones made

        // Whether nobody else has ever held one of the children and none has children: then all can be spares
        // without a look at any.
        bool m_isSealed = true;

        // Whether nobody else has ever held one of the children: each still has the tag that it was read
        // with, of 16 bits, and so the order is a whole one. What stands side by side then tells what a
        // search finds.
        bool m_hasOwnTags = true;

        Family_* m_p_next = nullptr;  // of those kept

        Family_() = default;
        Family_(const Family_&) = delete;
        Family_& operator=(const Family_&) = delete;
        ~Family_();

        bool hasSpare() const { return m_size != m_total; }
        bool isFull() const { return m_total == m_elements.size(); }
        void dropSpare();
        void makeSpares();
        void letGo();
    };

    static bool isLess(const VekmsgElementBinary_* p_a, const VekmsgElementBinary_* p_b);

    // Out of line, apart from what most elements are: a value, or the next in the order of tags.
    [[gnu::noinline]] void release();
    [[gnu::noinline]] void startFamily(bool isRead);
    [[gnu::noinline]] void growRoom();
    [[gnu::noinline]] void addInside();

    Family_* m_p_family = nullptr;
};

#endif
