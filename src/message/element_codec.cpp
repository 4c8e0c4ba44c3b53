#include <algorithm>
#include <cstring>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "message/element_binary.h"
#include "message/message_binary.h"
#include "message/ttlv_header.h"

namespace {

/// The last four bytes, or as many as there are, as a big-endian number.
unsigned int lowUint(const unsigned char* p_bytes, unsigned int length) {
    unsigned int value = 0;
    for (unsigned int i = length > 4 ? length - 4 : 0; i < length; ++i) value = value << 8 | p_bytes[i];
    return value;
}

/// Whether the bytes begin with an element of which nothing is missing.
bool isWhole(const unsigned char* p_bytes, unsigned int length) {
    if (length < kElementHeaderSize) return false;
    const ElementHeader_ header = loadElementHeader(p_bytes);
    return header.m_outerLength <= length - kTtlvHeaderSize &&
           header.m_length + kTtlvHeaderSize <= header.m_outerLength;
}

}  // namespace

unsigned int VekmsgElementBinary_::valueSize() const {
    return m_type == VEKMSG_UINT ? kUintSize : m_valueLength;
}

inline bool VekmsgElementBinary_::hasPlainValue() const {
    return m_type == VEKMSG_UINT || m_type == VEKMSG_STRING || m_type == VEKMSG_BINARY;
}

/// The value behind both its headers. 0, with nothing written, for any other than a plain value, and when
/// there is no room for all of that.
inline unsigned int VekmsgElementBinary_::serializePlainValue(unsigned char* p_endOfFreespace,
                                                              unsigned int freespaceSize) const {
    if (!hasPlainValue()) return 0;
    const unsigned int length = valueSize();
    const unsigned int size = kElementHeaderSize + length;
    if (freespaceSize < size) return 0;
    unsigned char* p_start = p_endOfFreespace - size;
    storeElementHeader(p_start, m_tag, m_type, length);
    if (m_type == VEKMSG_UINT) {
        std::memcpy(p_start + kElementHeaderSize, m_value, kUintSize);  // a known size is copied in place
    } else {
        std::memcpy(p_start + kElementHeaderSize, m_value, length);
    }
    return size;
}

[[gnu::hot]] unsigned int VekmsgElementBinary_::serialize(unsigned char* p_endOfFreespace,
                                                          unsigned int freespaceSize) const {
    if (p_endOfFreespace == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::serialize() null p_endOfFreespace");
        return 0;
    }
    unsigned int written = serializePlainValue(p_endOfFreespace, freespaceSize);
    if (written != 0) return written;
    if (hasPlainValue()) {
        // What is missing, or that it is only the outer header, the codec of one item finds and says.
        written = VekMessageBinary_::serializeTtlv(p_endOfFreespace, freespaceSize, VEKMSGTAG_ELEMENT_CONTENT,
                                                   m_type, valueSize(), m_value);
    } else if (m_type == VEKMSG_COMPLEX) {
        written = serializeSubElements(p_endOfFreespace, freespaceSize);
    } else {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::serialize() invalid type %d for tag %u", m_type, m_tag);
    }
    if (written == 0) return 0;
    const unsigned int header = VekMessageBinary_::serializeTtlvHeader(
        p_endOfFreespace - written, freespaceSize - written, getTag(), VEKMSG_UNDEFINED, written);
    return header != 0 ? written + header : 0;
}

unsigned int VekmsgElementBinary_::serializeSubElements(unsigned char* p_endOfFreespace,
                                                        unsigned int freespaceSize) const {
    unsigned char* p_end = p_endOfFreespace;
    for (SubElements_::Position_ next = m_subElements.size(); next-- != 0;) {
        const VekmsgElementBinary_* p_child = m_subElements[next];
        if (p_child == nullptr) return 0;  // an element of a foreign class was added
        unsigned int written = p_child->serializePlainValue(p_end, freespaceSize);
        if (written == 0) written = p_child->serialize(p_end, freespaceSize);
        if (written == 0) return 0;
        p_end -= written;
        freespaceSize -= written;
    }
    const auto total = static_cast<unsigned int>(p_endOfFreespace - p_end);
    const unsigned int header = VekMessageBinary_::serializeTtlvHeader(
        p_end, freespaceSize, VEKMSGTAG_ELEMENT_CONTENT, VEKMSG_COMPLEX, total);
    return header != 0 ? total + header : 0;
}

[[gnu::hot]] unsigned int VekmsgElementBinary_::getMaxSerializationSize() const {
    if (hasPlainValue()) return kElementHeaderSize + valueSize();
    unsigned int size = kElementHeaderSize;
    if (m_type == VEKMSG_COMPLEX) {
        for (const VekmsgElementBinary_* p_child : m_subElements)
            if (p_child != nullptr) size += p_child->getMaxSerializationSize();
    }
    return size;
}

[[gnu::hot]] unsigned int VekmsgElementBinary_::deserialize(const unsigned char* p_bytestream,
                                                            unsigned int bytestreamLength) try {
    m_type = VEKMSG_UNDEFINED;
    setTag(VEKMSGTAG_ANY);
    if (p_bytestream == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgElementBinary_::deserialize() null p_bytestream");
        return 0;
    }
    if (!isWhole(p_bytestream, bytestreamLength)) {
        Item_ item;
        // What is missing, or that it is the content item, the codec of one item finds and says.
        const unsigned int headerSize = VekMessageBinary_::deserializeTtlvHeader(
            p_bytestream, bytestreamLength, item.m_tag, item.m_type, item.m_length);
        if (headerSize == 0) return 0;
        setTag(item.m_tag);
        if (item.m_length > bytestreamLength - headerSize) {
            VEKMSG_LOG_ERROR(
                "VekmsgElementBinary_::deserialize() tag %u length %u is larger than allowed length %u",
                m_tag, item.m_length, bytestreamLength - headerSize);
            return 0;
        }
        return VekMessageBinary_::deserializeTtlv(p_bytestream + headerSize, item.m_length, item.m_tag,
                                                  item.m_type, item.m_length, item.m_p_value);
    }
    const ElementHeader_ header = loadElementHeader(p_bytestream);
    const unsigned char* p_value = p_bytestream + kElementHeaderSize;
    setTag(header.m_tag);
    m_type = header.m_type;
    if (storePlainValue(header, p_value, header.m_length)) {  // what an earlier value left behind it stays
        m_writtenSize = std::max(m_writtenSize, m_valueLength);
    } else if (!deserialize({header.m_contentTag, header.m_type, header.m_length, p_value})) {
        fillRefusedValue();
        return 0;
    }
    // Not the outer length: what it announces beyond the content item is read as the next sibling.
    return kElementHeaderSize + header.m_length;
}
VEKMSG_RETURN_ON_EXCEPTION(0)

/// Copies what is short by a known size, in place, though that may be more than it is: what lies behind the
/// written part of a storage counts as zero whatever it is.
inline void VekmsgElementBinary_::copyValue(const unsigned char* p_bytes, unsigned int length,
                                            unsigned int available) {
    constexpr unsigned int kShort = 32;
    if (length <= kShort && available >= kShort) {
        std::memcpy(m_value, p_bytes, kShort);
    } else {
        std::memcpy(m_value, p_bytes, length);
    }
    m_valueLength = length;
}

inline bool VekmsgElementBinary_::storePlainValue(const ElementHeader_& header, const unsigned char* p_value,
                                                  unsigned int available) {
    if (header.m_contentTag != VEKMSGTAG_ELEMENT_CONTENT || header.m_length > VEKMSG_MAX_VALUE_SIZE)
        return false;
    switch (header.m_type) {
        case VEKMSG_UINT:
            if (header.m_length != kUintSize) return false;
            std::memcpy(m_value, p_value, kUintSize);
            m_valueLength = kUintSize;
            return true;
        case VEKMSG_STRING: {
            const auto* p_end = static_cast<const unsigned char*>(std::memchr(p_value, 0, header.m_length));
            if (p_end == nullptr) return false;
            copyValue(p_value, static_cast<unsigned int>(p_end - p_value) + 1, available);
            return true;
        }
        case VEKMSG_BINARY:
            copyValue(p_value, header.m_length, available);
            return true;
        default:
            return false;
    }
}

bool VekmsgElementBinary_::deserialize(const Item_& content) {
    if (content.m_tag != VEKMSGTAG_ELEMENT_CONTENT) {
        VEKMSG_LOG_ERROR(
            "VekmsgElementBinary_::deserialize() for element %u, expecting VEKMSGTAG_ELEMENT_CONTENT, got %d",
            m_tag, content.m_tag);
        return false;
    }
    switch (content.m_type) {
        case VEKMSG_COMPLEX:
            return deserialize(content, m_subElements);
        case VEKMSG_UINT:
            if (content.m_length == 0) {
                VEKMSG_LOG_ERROR(
                    "VekmsgElementBinary_::deserialize() tag %u of UINT type has an invalid length %u", m_tag,
                    content.m_length);
                return false;
            }
            if (content.m_length > kUintSize)
                VEKMSG_LOG_WARNING("tag %u of UINT type has length %u", m_tag, content.m_length);
            storeUint(lowUint(content.m_p_value, content.m_length));
            return true;
        case VEKMSG_STRING:
            if (content.m_length <= VEKMSG_MAX_VALUE_SIZE) {  // there is no NUL
                store(content.m_p_value, content.m_length);
                closeText();
                return true;
            }
            VEKMSG_LOG_ERROR(
                "VekmsgElementBinary_::deserialize() tag %u of STRING type has a length %u exceeding the "
                "limit",
                m_tag, content.m_length);
            return false;
        case VEKMSG_BINARY:
            VEKMSG_LOG_ERROR(
                "VekmsgElementBinary_::deserialize() tag %u of BINARY type has a length %u exceeding the "
                "limit",
                m_tag, content.m_length);
            return false;
        default:
            VEKMSG_LOG_ERROR("VekmsgElementBinary_::deserialize() tag %u has invalid data type %d", m_tag,
                             content.m_type);
            return false;
    }
}

// Empty content is not tested for: its first sub-element fails for want of a header.
bool VekmsgElementBinary_::deserialize(const Item_& content, SubElements_& subElements) {
    const unsigned char* p_rest = content.m_p_value;
    unsigned int remaining = content.m_length;
    subElements.prepareSpares();
    do {
        if (!subElements.hasSpare() && !createSpare(subElements)) {
            VEKMSG_LOG_ERROR("VekmsgElementBinary_::deserialize() createElement() returned invalid object");
            return false;
        }
        unsigned int consumed = deserializePlainValues(p_rest, remaining, subElements);
        if (consumed == 0) consumed = deserializeSubElement(p_rest, remaining, subElements);
        if (consumed == 0) return false;
        p_rest += consumed;
        remaining -= consumed;
    } while (remaining >= VekMessageBinary_::getTtlvHeaderSize());
    if (remaining != 0) VEKMSG_LOG_WARNING("Tag %u has unused data of %u bytes", m_tag, remaining);
    return true;
}

// From one to the next only local variables change. Each element lies in pages of its own, and who loads what
// has just been stored waits until every earlier store has found its page.
inline unsigned int VekmsgElementBinary_::deserializePlainValues(const unsigned char* p_bytestream,
                                                                 unsigned int bytestreamLength,
                                                                 SubElements_& subElements) const {
    unsigned int consumed = 0;
    VekmsgTag_ lastTag = subElements.lastTag();
    VekmsgElementBinary_* const* p_spare = subElements.end();
    for (VekmsgElementBinary_* const* p_end = subElements.sparesEnd(); p_spare != p_end; ++p_spare) {
        const unsigned char* p_element = p_bytestream + consumed;
        const unsigned int remaining = bytestreamLength - consumed;
        if (!isWhole(p_element, remaining)) break;
        const ElementHeader_ header = loadElementHeader(p_element);
        if (vekMsgTagCompare(header.m_tag, lastTag) < 0) break;
        if (!(*p_spare)->renew(header, p_element + kElementHeaderSize, remaining - kElementHeaderSize)) break;
        (*p_spare)->m_p_message = m_p_message;
        lastTag = header.m_tag;
        consumed += kElementHeaderSize + header.m_length;
    }
    subElements.addSparesUpTo(p_spare);
    return consumed;
}

inline bool VekmsgElementBinary_::renew(const ElementHeader_& header, const unsigned char* p_value,
                                        unsigned int available) {
    if (!storePlainValue(header, p_value, available)) return false;
    m_writtenSize = m_valueLength;
    m_tag = header.m_tag;
    m_type = header.m_type;
    return true;
}

inline unsigned int VekmsgElementBinary_::deserializeSubElement(const unsigned char* p_bytestream,
                                                                unsigned int bytestreamLength,
                                                                SubElements_& subElements) const {
    VekmsgElementBinary_& spare = subElements.spare();
    subElements.unseal();
    spare.m_p_message = m_p_message;
    spare.m_valueLength = 0;
    spare.m_writtenSize = 0;
    spare.m_subElements.clear();
    const unsigned int consumed = spare.deserialize(p_bytestream, bytestreamLength);
    if (consumed != 0) {
        subElements.addSpare();
    } else {
        spare.m_subElements.clear();  // of what was read so far
    }
    return consumed;
}

bool VekmsgElementBinary_::createSpare(SubElements_& subElements) const {
    subElements.makeRoom();
    SP_VekmsgElementBinary_ sp_spare = createSibling(VEKMSGTAG_ANY);
    if (sp_spare.isNull()) return false;
    subElements.giveSpare(sp_spare.detach());
    return true;
}
