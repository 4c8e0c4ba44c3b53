#include "message/sub_elements.h"

#include <algorithm>

#include "message/element_binary.h"

namespace {

bool isLess(const VekmsgElementBinary_* p_a, const VekmsgElementBinary_* p_b) {
    return p_a != nullptr ? p_a->isLess(p_b) : p_b != nullptr;
}

}  // namespace

SubElements_::~SubElements_() {
    for (VekmsgElementBinary_* p_element : m_elements)
        if (p_element != nullptr) p_element->removeRef();
}

SubElements_::Position_ SubElements_::insert(SP_VekmsgElementBinary_ sp_element) {
    // From there on the room doubles: all these sizes are on the free lists.
    if (m_elements.capacity() == 0) m_elements.reserve(Allocator_::kSmallestArray);
    const Position_ position = positionFor(sp_element.get());
    m_elements.insert(m_elements.begin() + static_cast<std::ptrdiff_t>(position), sp_element.get());
    sp_element.detach();
    return position;
}

SubElements_::Position_ SubElements_::positionFor(const VekmsgElementBinary_* p_element) const {
    if (m_elements.empty() || !isLess(p_element, m_elements.back())) return m_elements.size();
    return upperBound(p_element);
}

SubElements_::Position_ SubElements_::lowerBound(const VekmsgElementBinary_* p_probe) const {
    return static_cast<Position_>(std::lower_bound(begin(), end(), p_probe, isLess) - begin());
}

SubElements_::Position_ SubElements_::upperBound(const VekmsgElementBinary_* p_probe) const {
    return static_cast<Position_>(std::upper_bound(begin(), end(), p_probe, isLess) - begin());
}
