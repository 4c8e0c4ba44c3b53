#ifndef VEKMSG_MESSAGE_TTLV_HEADER_H
#define VEKMSG_MESSAGE_TTLV_HEADER_H

#include "foundation/big_endian.h"
#include "vekmsg/tag.h"

constexpr unsigned int kTtlvHeaderSize = 6;

/// Stores what stands in front of every value.
inline void storeTtlvHeader(unsigned char* p_bytes, VekmsgTag_ tag, VekmsgDataType_ type,
                            unsigned int length) {
    store16(p_bytes, tag);
    store16(p_bytes + 2, type);
    store16(p_bytes + 4, length);
}

constexpr unsigned int kElementHeaderSize = 2 * kTtlvHeaderSize;

/// Stores the outer header of an element and that of its content item, which stand together, at one stroke.
inline void storeElementHeader(unsigned char* p_bytes, VekmsgTag_ tag, VekmsgDataType_ type,
                               unsigned int length) {
    const std::uint64_t outerLength = (length + kTtlvHeaderSize) & 0xffff;
    store64(p_bytes, static_cast<std::uint64_t>(tag) << 48 | outerLength << 16 | VEKMSGTAG_ELEMENT_CONTENT);
    store32(p_bytes + 8, static_cast<unsigned int>(type) << 16 | (length & 0xffff));
}

/// What two such headers hold.
struct ElementHeader_ {
    VekmsgTag_ m_tag;
    unsigned int m_outerLength;
    VekmsgTag_ m_contentTag;
    VekmsgDataType_ m_type;
    unsigned int m_length;
};

inline ElementHeader_ loadElementHeader(const unsigned char* p_bytes) {
    const std::uint64_t outer = load64(p_bytes);
    const unsigned int content = load32(p_bytes + 8);
    return {static_cast<VekmsgTag_>(outer >> 48), static_cast<unsigned int>(outer >> 16) & 0xffff,
            static_cast<VekmsgTag_>(outer & 0xffff), static_cast<VekmsgDataType_>(content >> 16),
            content & 0xffff};
}

#endif
