#ifndef VEKMSG_TESTS_BUFFER_BYTES_H
#define VEKMSG_TESTS_BUFFER_BYTES_H

#include <algorithm>
#include <stdexcept>
#include <string>

#include "libcpp/basic_buffer.h"

/// A buffer of this capacity that holds the bytes behind some room.
inline SP_BasicBuffer_ bufferOf(const std::string& bytes, unsigned int room, unsigned int capacity) {
    SP_BasicBuffer_ sp_buffer(new BasicBuffer_(capacity));
    if (!sp_buffer->setDataArea(room, static_cast<unsigned int>(bytes.size())))
        throw std::runtime_error("no room in a buffer");
    bytes.copy(reinterpret_cast<char*>(sp_buffer->data()), bytes.size());
    return sp_buffer;
}

/// A buffer that has no more capacity than this takes.
inline SP_BasicBuffer_ tightBufferOf(const std::string& bytes, unsigned int room = 0) {
    return bufferOf(bytes, room, room + static_cast<unsigned int>(bytes.size()));
}

/// A buffer that could also be one to receive into.
inline SP_BasicBuffer_ bufferOf(const std::string& bytes) {
    return bufferOf(bytes, 0, std::max(static_cast<unsigned int>(bytes.size()), 9400U));
}

inline std::string bytesOf(const BasicBuffer_& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.dataLength());
}

inline std::string bytesOf(const SP_BasicBuffer_& sp_buffer) {
    return sp_buffer.isNull() ? "no buffer" : bytesOf(*sp_buffer);
}

#endif
