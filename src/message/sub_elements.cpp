#include "message/sub_elements.h"

#include <algorithm>
#include <utility>

#include "foundation/free_list.h"
#include "foundation/thread_access.h"
#include "foundation/thread_end.h"
#include "message/element_binary.h"

namespace {

constexpr std::size_t kSmallestRoom = 16;

}  // namespace

/// The families that wait in this thread for an element that gets children: those with spares, which are for
/// reading, and the others. They go when the thread ends.
class KeptFamilies_ {
    using Family_ = SubElements_::Family_;

public:
    /// The latest of its kind, else of the other kind, else null.
    static Family_* take(bool hasSpares) {
        KeptFamilies_& kept = ofThread();
        Family_*& p_first = kept.m_p_first[kept.m_p_first[hasSpares] != nullptr ? hasSpares : !hasSpares];
        Family_* p_family = p_first;
        if (p_family == nullptr) return nullptr;
        p_first = p_family->m_p_next;
        --kept.m_families;
        kept.m_spares -= p_family->m_total;
        return p_family;
    }

    /// False when that would be too many; the family is then the caller's to destroy.
    static bool keep(Family_* p_family) {
        KeptFamilies_& kept = ofThread();
        if (kept.m_phase != Phase_::Open && !kept.open()) return false;
        if (kept.m_families == kMostFamilies || kept.m_spares + p_family->m_total > kMostSpares ||
            p_family->m_elements.size() > kMostRoom)
            return false;
        p_family->m_p_next = std::exchange(kept.m_p_first[p_family->hasSpare()], p_family);
        ++kept.m_families;
        kept.m_spares += p_family->m_total;
        return true;
    }

private:
    static constexpr unsigned int kMostFamilies = 32;
    static constexpr std::size_t kMostSpares = 128;
    static constexpr std::size_t kMostRoom = 128;

    enum class Phase_ : unsigned char { Unused, Open, Over };

    struct Drain_ {
        KeptFamilies_* m_p_kept = nullptr;
        ~Drain_() {
            m_p_kept->m_phase = Phase_::Over;
            while (const Family_* p_family = take(true)) delete p_family;
        }
    };

    [[gnu::cold]] bool open() {
        if (!VEKMSG_FREE_LISTS || m_phase == Phase_::Over || !canNoteThreadEnd()) return false;
        drain().m_p_kept = this;
        m_phase = Phase_::Open;
        return true;
    }

    // Trivial on purpose: elements may go after the families of their thread.
    static KeptFamilies_& ofThread() noexcept { return isLoadingThread() ? s_kept : ofOtherThread(); }

    [[gnu::const]] VEKMSG_THREAD_ACCESS static KeptFamilies_& ofOtherThread() noexcept {
        static thread_local KeptFamilies_ t_kept;
        return t_kept;
    }

    VEKMSG_THREAD_ACCESS static Drain_& drain() noexcept {
        static thread_local Drain_ t_drain;
        return t_drain;
    }

    Family_* m_p_first[2] = {};  // without spares, with spares
    std::size_t m_spares = 0;
    unsigned int m_families = 0;
    Phase_ m_phase = Phase_::Unused;

    static KeptFamilies_ s_kept;
};

KeptFamilies_ KeptFamilies_::s_kept;

SubElements_::Family_::~Family_() {
    letGo();
}

void SubElements_::Family_::letGo() {
    const VekmsgElementBinary_::List_<>::OfThisThread_ memory;
    for (Position_ position = 0; position < m_total; ++position) {
        VekmsgElementBinary_* p_element = m_elements[position];
        if (p_element != nullptr && p_element->removeRefOnly()) memory.give(p_element);
    }
    m_total = 0;
}

/// Of the children that nobody else holds. Lets go of the others.
void SubElements_::Family_::makeSpares() {
    Position_ spares = 0;
    for (Position_ position = 0; position < m_total; ++position) {
        VekmsgElementBinary_* p_element = m_elements[position];
        if (p_element == nullptr) continue;
        if (p_element->becomeSpare()) {
            m_elements[spares++] = p_element;
        } else {
            p_element->removeRef();
        }
    }
    m_total = spares;
}

/// Gives the memory of one spare back, which is where elements that are added come from.
void SubElements_::Family_::dropSpare() {
    VekmsgElementBinary_* p_element = m_elements[m_size];
    m_elements[m_size] = m_elements[--m_total];
    p_element->removeRef();
}

void SubElements_::release() {
    Family_* p_family = std::exchange(m_p_family, nullptr);
    if (!p_family->m_isRead) {
        p_family->letGo();
    } else if (!p_family->m_isSealed) {
        p_family->makeSpares();
    }
    p_family->m_size = 0;
    if (!KeptFamilies_::keep(p_family)) delete p_family;
}

void SubElements_::startFamily(bool isRead) {
    Family_* p_kept = KeptFamilies_::take(isRead);
    m_p_family = p_kept != nullptr ? p_kept : new Family_;
    m_p_family->m_isRead = isRead;
    m_p_family->m_isSealed = m_p_family->m_hasOwnTags = true;
    m_p_family->m_cursor = m_p_family->m_queryEnd = m_p_family->m_guess = 0;
}

void SubElements_::growRoom() {
    if (m_p_family == nullptr) startFamily(false);
    if (m_p_family->hasSpare()) m_p_family->dropSpare();
    auto& elements = m_p_family->m_elements;
    if (m_p_family->isFull()) elements.resize(std::max(2 * elements.size(), kSmallestRoom));
}

void SubElements_::addInside() {
    Family_& family = *m_p_family;
    const auto begin = family.m_elements.begin();
    const auto spare = begin + static_cast<std::ptrdiff_t>(family.m_size);
    const Position_ position = upperBound(*spare);
    std::rotate(begin + static_cast<std::ptrdiff_t>(position), spare, spare + 1);
    ++family.m_size;
    if (position <= family.m_cursor) ++family.m_cursor;
    if (position <= family.m_queryEnd) ++family.m_queryEnd;
}

SubElements_::Position_ SubElements_::lowerBound(const VekmsgElementBinary_* p_probe) const {
    return static_cast<Position_>(std::lower_bound(begin(), end(), p_probe, isLess) - begin());
}

SubElements_::Position_ SubElements_::upperBound(const VekmsgElementBinary_* p_probe) const {
    return static_cast<Position_>(std::upper_bound(begin(), end(), p_probe, isLess) - begin());
}
