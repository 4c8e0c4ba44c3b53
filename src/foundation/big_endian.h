#ifndef VEKMSG_FOUNDATION_BIG_ENDIAN_H
#define VEKMSG_FOUNDATION_BIG_ENDIAN_H

#include <endian.h>

#include <cstdint>
#include <cstring>

// Numbers as they travel: the most significant byte first.

/// Stores the low 16 bits.
inline void store16(unsigned char* p_bytes, unsigned int value) {
    p_bytes[0] = static_cast<unsigned char>(value >> 8);
    p_bytes[1] = static_cast<unsigned char>(value);
}

inline unsigned int load16(const unsigned char* p_bytes) {
    return static_cast<unsigned int>(p_bytes[0]) << 8 | p_bytes[1];
}

inline void store32(unsigned char* p_bytes, unsigned int value) {
    store16(p_bytes, value >> 16);
    store16(p_bytes + 2, value);
}

inline unsigned int load32(const unsigned char* p_bytes) {
    return load16(p_bytes) << 16 | load16(p_bytes + 2);
}

inline void store64(unsigned char* p_bytes, std::uint64_t value) {
    value = htobe64(value);
    std::memcpy(p_bytes, &value, sizeof value);
}

inline std::uint64_t load64(const unsigned char* p_bytes) {
    std::uint64_t value = 0;
    std::memcpy(&value, p_bytes, sizeof value);
    return be64toh(value);
}

#endif
