#include "message/element_binary.h"

#include <algorithm>
#include <cstring>

#include "foundation/big_endian.h"
#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "message/message_binary.h"

namespace {

bool isAny(VekmsgTag_ tag) {
    return vekMsgTagCompare(tag, VEKMSGTAG_ANY) == 0;
}

}  // namespace

[[gnu::hot]] VekmsgElementBinary_::~VekmsgElementBinary_() = default;

VekmsgTag_ VekmsgElementBinary_::getTag() const {
    return m_tag;
}

bool VekmsgElementBinary_::setTag(VekmsgTag_ tag) {
    m_tag = tag;
    return true;
}

// Values

unsigned int VekmsgElementBinary_::storedUint() const {
    return load32(m_value);
}

[[gnu::hot]] bool VekmsgElementBinary_::getValue(unsigned int& value) const {
    if (m_type != VEKMSG_UINT) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::getValue() wrong data type %d. Expecting uint", m_type);
        return false;
    }
    if (m_valueLength < 1 || m_valueLength > kUintSize) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::getValue() wrong data length %u for uint", m_valueLength);
        return false;
    }
    value = storedUint();
    return true;
}

bool VekmsgElementBinary_::getValue(bool& value) const {
    unsigned int number = 0;
    if (!getValue(number)) return false;
    value = number != 0;
    return true;
}

[[gnu::hot]] bool VekmsgElementBinary_::getValue(const Utf8Char_*& p_value) const {
    if (m_type != VEKMSG_STRING) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::getValue() wrong data type %d. Expecting string", m_type);
        return false;
    }
    p_value = m_value;
    return true;
}

[[gnu::hot]] bool VekmsgElementBinary_::getValue(const unsigned char*& p_value, unsigned int& length) const {
    if (m_type != VEKMSG_BINARY) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::getValue() wrong data type %d. Expecting binary", m_type);
        return false;
    }
    p_value = m_value;
    length = m_valueLength;
    return true;
}

[[gnu::hot]] bool VekmsgElementBinary_::setValue(unsigned int value) {
    storeUint(value);
    m_type = VEKMSG_UINT;
    return true;
}

bool VekmsgElementBinary_::setValue(bool value) {
    return setValue(value ? 1U : 0U);
}

[[gnu::hot]] bool VekmsgElementBinary_::setValue(const Utf8Char_* p_value) {
    m_type = VEKMSG_UNDEFINED;
    if (p_value == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::setValue() null p_value");
        return false;
    }
    if (!storeText(p_value)) {
        VEKMSG_LOG_WARNING("VekmsgElementBinary_::setValue() string is longer than %d. Truncated",
                           VEKMSG_MAX_VALUE_SIZE);
    }
    m_type = VEKMSG_STRING;
    return true;
}

[[gnu::hot]] bool VekmsgElementBinary_::setValue(const unsigned char* p_value, unsigned int length) {
    m_type = VEKMSG_UNDEFINED;
    if (p_value == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::setValue() null p_value");
        return false;
    }
    if (length > VEKMSG_MAX_VALUE_SIZE) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::setValue() binary length %d is too large. %d max", length,
                         VEKMSG_MAX_VALUE_SIZE);
        return false;
    }
    store(p_value, length);
    m_type = VEKMSG_BINARY;
    return true;
}

// The value may lie in this very storage: getValue() hands out pointers into it.
void VekmsgElementBinary_::store(const unsigned char* p_bytes, unsigned int length) {
    std::memmove(m_value, p_bytes, length);
    m_writtenSize = std::max(m_writtenSize, length);
    m_valueLength = length;
}

void VekmsgElementBinary_::storeUint(unsigned int value) {
    unsigned char bytes[kUintSize];
    store32(bytes, value);
    store(bytes, kUintSize);
}

bool VekmsgElementBinary_::storeText(const Utf8Char_* p_text) {
    const auto length =
        static_cast<unsigned int>(strnlen(reinterpret_cast<const char*>(p_text), VEKMSG_MAX_VALUE_SIZE));
    const bool fits = length < VEKMSG_MAX_VALUE_SIZE;
    const unsigned int kept = fits ? length : VEKMSG_MAX_VALUE_SIZE - 1;
    std::memmove(m_value, p_text, kept);
    std::memset(m_value + kept, 0, std::max(m_writtenSize, kept + 1) - kept);
    m_valueLength = kept + 1;
    m_writtenSize = m_valueLength;
    return fits;
}

void VekmsgElementBinary_::closeText() {
    if (m_writtenSize == VEKMSG_MAX_VALUE_SIZE) m_value[VEKMSG_MAX_VALUE_SIZE - 1] = 0;
    const auto* p_end = static_cast<const unsigned char*>(std::memchr(m_value, 0, m_writtenSize));
    if (p_end == nullptr) {
        p_end = m_value + m_writtenSize;
        m_value[m_writtenSize++] = 0;
    }
    m_valueLength = static_cast<unsigned int>(p_end - m_value) + 1;
}

void VekmsgElementBinary_::fillRefusedValue() {
    if (m_type == VEKMSG_STRING) closeText();
    if (m_writtenSize >= kUintSize) return;
    std::memset(m_value + m_writtenSize, 0, kUintSize - m_writtenSize);
    m_writtenSize = kUintSize;
}

// Sub-elements

// What the message's helper makes is of this class, so the cast needs no check at run time.
SP_VekmsgElementBinary_ VekmsgElementBinary_::createSibling(VekmsgTag_ tag) const {
    SP_VekmsgElement_ sp_element = VekMessageBinary_::createElement(tag, m_p_message);
    return SP_VekmsgElementBinary_::adopt(static_cast<VekmsgElementBinary_*>(sp_element.detach()));
}

bool VekmsgElementBinary_::addSubelements(SP_VekmsgElement_ sp_subElement) try {
    if (sp_subElement.isNull()) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::addSubelements() null sp_subElement");
        return false;
    }
    if (isAny(sp_subElement->getTag())) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::addSubelements() element with tag == ANY");
        return false;
    }
    SP_VekmsgElementBinary_ sp_element = sp_subElement;
    m_subElements.makeRoom();
    m_subElements.add(sp_element.detach());
    m_type = VEKMSG_COMPLEX;
    return true;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

SP_VekmsgElement_ VekmsgElementBinary_::handOut(VekmsgElementBinary_* p_subElement) const {
    m_subElements.noteHeld();
    return SP_VekmsgElement_(p_subElement);
}

SP_VekmsgElement_ VekmsgElementBinary_::findFirstMatchingSubelement(VekmsgTag_ tag) const {
    if (m_type != VEKMSG_COMPLEX) return SP_VekmsgElement_();
    if (isAny(tag)) return m_subElements.size() != 0 ? handOut(m_subElements[0]) : SP_VekmsgElement_();
    if (VekmsgElementBinary_* p_guess = findAtOnce(tag)) return handOut(p_guess);
    const SP_VekmsgElementBinary_ sp_probe = createSibling(tag);
    if (sp_probe.isNull()) {
        VEKMSG_LOG_ERROR(
            "VekmsgElementBinary_::getFirstMatchingSubelement() createElement() returned invalid object");
        return SP_VekmsgElement_();
    }
    const SubElements_::Position_ found = m_subElements.lowerBound(sp_probe.get());
    if (found == m_subElements.size() || sp_probe->isLess(m_subElements[found])) return SP_VekmsgElement_();
    m_subElements.noteFound(found);
    return handOut(m_subElements[found]);
}

bool VekmsgElementBinary_::querySubelements(VekmsgTag_ tag) {
    if (m_type != VEKMSG_COMPLEX) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::querySubelements() no subelements for simple type");
        return false;
    }
    if (isAny(tag)) {
        m_subElements.startQuery(0, m_subElements.size());
        return true;
    }
    const SP_VekmsgElementBinary_ sp_probe = createSibling(tag);
    if (sp_probe.isNull()) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::querySubelements() createElement() returned invalid object");
        return false;
    }
    m_subElements.startQuery(m_subElements.lowerBound(sp_probe.get()),
                             m_subElements.upperBound(sp_probe.get()));
    return true;
}

SP_VekmsgElement_ VekmsgElementBinary_::getNextSubelement() {
    return m_subElements.hasNext() ? handOut(m_subElements.next()) : SP_VekmsgElement_();
}

void VekmsgElementBinary_::endQuerySubelements() {
    m_subElements.endQuery();
}

inline VekmsgElementBinary_* VekmsgElementBinary_::findAtOnce(VekmsgTag_ tag) const {
    return m_type == VEKMSG_COMPLEX && isAtHand() ? m_subElements.guess(tag) : nullptr;
}

template <class... Value>
inline bool VekmsgElementBinary_::readSubElement(VekmsgTag_ tag, Value&... value) const {
    const VekmsgElementBinary_* p_guess = findAtOnce(tag);
    return p_guess != nullptr ? p_guess->getValue(value...) : readFoundSubElement(tag, value...);
}

template <class... Value>
bool VekmsgElementBinary_::readFoundSubElement(VekmsgTag_ tag, Value&... value) const {
    const SubElements_::Looking_ looking(m_subElements);
    const SP_VekmsgElement_ sp_subElement = findFirstMatchingSubelement(tag);
    return !sp_subElement.isNull() && sp_subElement->getValue(value...);
}

bool VekmsgElementBinary_::getSubElementValue(VekmsgTag_ tag, unsigned int& value) const {
    return readSubElement(tag, value);
}

bool VekmsgElementBinary_::getSubElementValue(VekmsgTag_ tag, bool& value) const {
    unsigned int number = 0;
    if (!getSubElementValue(tag, number)) return false;
    value = number != 0;
    return true;
}

bool VekmsgElementBinary_::getSubElementValue(VekmsgTag_ tag, const Utf8Char_*& p_value) const {
    return readSubElement(tag, p_value);
}

bool VekmsgElementBinary_::getSubElementValue(VekmsgTag_ tag, const unsigned char*& p_value,
                                              unsigned int& length) const {
    return readSubElement(tag, p_value, length);
}

SP_VekmsgElement_ VekmsgElementBinary_::findOrAddSubElement(VekmsgTag_ tag) {
    SP_VekmsgElement_ sp_subElement = findFirstMatchingSubelement(tag);
    if (!sp_subElement.isNull()) return sp_subElement;
    sp_subElement = VekMessageBinary_::createElement(tag, m_p_message);
    if (sp_subElement.isNull() || !addSubelements(sp_subElement)) return SP_VekmsgElement_();
    return sp_subElement;
}

bool VekmsgElementBinary_::setSubElementValue(VekmsgTag_ tag, unsigned int value) {
    if (isAny(tag)) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::setSubElementValue() Can't set with tag == ANY");
        return false;
    }
    const SP_VekmsgElement_ sp_subElement = findOrAddSubElement(tag);
    return !sp_subElement.isNull() && sp_subElement->setValue(value);
}

bool VekmsgElementBinary_::setSubElementValue(VekmsgTag_ tag, bool value) {
    return setSubElementValue(tag, value ? 1U : 0U);
}

bool VekmsgElementBinary_::setSubElementValue(VekmsgTag_ tag, const Utf8Char_* p_value) {
    if (isAny(tag)) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::setSubElementValue() Can't set with tag == ANY");
        return false;
    }
    const SP_VekmsgElement_ sp_subElement = findOrAddSubElement(tag);
    return !sp_subElement.isNull() && sp_subElement->setValue(p_value);
}

bool VekmsgElementBinary_::setSubElementValue(VekmsgTag_ tag, const unsigned char* p_value,
                                              unsigned int length) {
    if (isAny(tag)) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::setSubElementValue() Can't set with tag == ANY");
        return false;
    }
    const SP_VekmsgElement_ sp_subElement = findOrAddSubElement(tag);
    return !sp_subElement.isNull() && sp_subElement->setValue(p_value, length);
}

// Attributes are not provided.

SmartPointer_<VekmsgAttribute_> VekmsgElementBinary_::createAttribute(VekmsgTag_) const {
    return SmartPointer_<VekmsgAttribute_>();
}

SmartPointer_<VekmsgAttribute_> VekmsgElementBinary_::getAttribute(VekmsgTag_) const {
    return SmartPointer_<VekmsgAttribute_>();
}

bool VekmsgElementBinary_::setAttribute(SmartPointer_<VekmsgAttribute_>) {
    return true;
}

bool VekmsgElementBinary_::getAttribute(VekmsgTag_, unsigned char*&) const {
    return true;
}

bool VekmsgElementBinary_::getAttribute(VekmsgTag_, unsigned int&) const {
    return true;
}

bool VekmsgElementBinary_::setAttribute(VekmsgTag_, const unsigned char*) {
    return true;
}

bool VekmsgElementBinary_::setAttribute(VekmsgTag_, unsigned int) {
    return true;
}
