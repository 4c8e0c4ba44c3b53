#include "message/sub_elements.h"

#include <algorithm>

#include "message/element_binary.h"

namespace {

bool isLess(const VekmsgElementBinary_* p_a, const VekmsgElementBinary_* p_b) {
    return p_a != nullptr ? p_a->isLess(p_b) : p_b != nullptr;
}

}  // namespace

void SubElements_::release() {
    for (VekmsgElementBinary_* p_element : m_elements)
        if (p_element != nullptr) p_element->removeRef();
}

SubElements_::Position_ SubElements_::insert(SP_VekmsgElementBinary_ sp_element) {
    if (m_elements.size() == m_elements.capacity()) grow();
    VekmsgElementBinary_* p_element = sp_element.detach();
    if (!m_elements.empty() && isLess(p_element, m_elements.back())) return insertInside(p_element);
    m_elements.push_back(p_element);
    return m_elements.size() - 1;
}

SubElements_::Position_ SubElements_::insertInside(VekmsgElementBinary_* p_element) {
    const Position_ position = upperBound(p_element);
    m_elements.insert(m_elements.begin() + static_cast<std::ptrdiff_t>(position), p_element);
    return position;
}

// All these sizes are on the free lists.
void SubElements_::grow() {
    m_elements.reserve(std::max(2 * m_elements.size(), Allocator_::kSmallestArray));
}

SubElements_::Position_ SubElements_::lowerBound(const VekmsgElementBinary_* p_probe) const {
    return static_cast<Position_>(std::lower_bound(begin(), end(), p_probe, isLess) - begin());
}

SubElements_::Position_ SubElements_::upperBound(const VekmsgElementBinary_* p_probe) const {
    return static_cast<Position_>(std::upper_bound(begin(), end(), p_probe, isLess) - begin());
}
