#ifndef VEKMSG_TESTS_WIRE_BYTES_H
#define VEKMSG_TESTS_WIRE_BYTES_H

#include <string>
#include <string_view>

/// What travels, put together without the library's own code.
namespace wire {

enum Type_ : unsigned int { Outer = 0, Complex = 1, Uint = 2, String = 3, Binary = 4 };

inline unsigned int sizeOf(std::string_view bytes) {
    return static_cast<unsigned int>(bytes.size());
}

inline std::string u16(unsigned int number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

inline std::string u32(unsigned int number) {
    return u16(number >> 16) + u16(number);
}

/// Text as it travels, with its NUL.
inline std::string text(const std::string& characters) {
    return characters + '\0';
}

inline std::string block(unsigned int type, const std::string& payload) {
    return u16(type) + u16(sizeOf(payload)) + payload;
}

inline std::string nameBlock(const std::string& name) {
    return block(1, text(name));
}

inline std::string item(unsigned int tag, unsigned int type, const std::string& value) {
    return u16(tag) + u16(type) + u16(sizeOf(value)) + value;
}

inline std::string element(unsigned int tag, unsigned int type, const std::string& value) {
    return item(tag, Outer, item(0, type, value));
}

inline std::string header(const std::string& destination, const std::string& source, unsigned int timeToLive,
                          const std::string& schema) {
    return item(1, String, text(destination)) + item(2, String, text(source)) +
           item(3, Uint, u32(timeToLive)) + item(4, String, text(schema));
}

inline std::string messageBlock(const std::string& message) {
    return block(2, message);
}

/// A block with a message of exactly `size` bytes, filled up with a binary payload.
inline std::string messageBlockOfSize(std::size_t size, const std::string& destination,
                                      const std::string& source, const std::string& schema) {
    const std::string start = header(destination, source, 3, schema);
    return messageBlock(start + element(1, Binary, std::string(size - start.size() - 12, 'x')));
}

/// Complex elements one in the other around a uint.
inline std::string nest(unsigned int depth) {
    std::string inner = element(1, Uint, u32(7));
    for (unsigned int i = 0; i < depth; ++i) inner = element(1, Complex, inner);
    return inner;
}

}  // namespace wire

#endif
