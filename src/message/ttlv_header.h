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

#endif
