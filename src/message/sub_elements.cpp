#include "message/sub_elements.h"

#include <algorithm>

#include "message/element_binary.h"

void SubElements_::release() {
    const VekmsgElementBinary_::List_<>::OfThisThread_ memory;
    for (VekmsgElementBinary_* p_element : m_p_family->m_elements)
        if (p_element != nullptr && p_element->removeRefOnly()) memory.give(p_element);
    delete m_p_family;
}

// All these sizes are on the free lists.
void SubElements_::grow() {
    if (m_p_family == nullptr) m_p_family = new Family_;
    m_p_family->m_elements.reserve(std::max(2 * m_p_family->m_elements.size(), Allocator_::kSmallestArray));
}

void SubElements_::addInside(VekmsgElementBinary_* p_element) {
    const Position_ position = upperBound(p_element);
    auto& elements = m_p_family->m_elements;
    elements.insert(elements.begin() + static_cast<std::ptrdiff_t>(position), p_element);
    keepQuery(position);
}

SubElements_::Position_ SubElements_::lowerBound(const VekmsgElementBinary_* p_probe) const {
    return static_cast<Position_>(std::lower_bound(begin(), end(), p_probe, isLess) - begin());
}

SubElements_::Position_ SubElements_::upperBound(const VekmsgElementBinary_* p_probe) const {
    return static_cast<Position_>(std::upper_bound(begin(), end(), p_probe, isLess) - begin());
}
