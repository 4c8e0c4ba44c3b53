#ifndef VEKMSG_TAG_H
#define VEKMSG_TAG_H

#include <cstdint>

#include "libcpp/export.h"

/// Names an element inside its parent. Applications define their own; the low 16 bits travel, so use 0 to
/// 65535.
typedef std::uint32_t VekmsgTag_;

constexpr VekmsgTag_ VEKMSGTAG_ELEMENT_CONTENT = 0;   ///< the inner item of every element on the wire
constexpr VekmsgTag_ VEKMSGTAG_DESTINATION_NAME = 1;  ///< message header items, known by their position
constexpr VekmsgTag_ VEKMSGTAG_SOURCE_NAME = 2;
constexpr VekmsgTag_ VEKMSGTAG_TIME_TO_LIVE = 3;
constexpr VekmsgTag_ VEKMSGTAG_SCHEMA_URI = 4;
constexpr VekmsgTag_ VEKMSGTAG_ANY =
    0xFFFFFFFFU;  ///< matches every tag in queries; never the tag of a real element

/// What an element holds.
enum VekmsgDataType_ : std::uint32_t {
    VEKMSG_UNDEFINED = 0,  ///< no value was set yet
    VEKMSG_COMPLEX = 1,    ///< sub-elements
    VEKMSG_UINT = 2,       ///< a 32-bit unsigned integer, or a boolean as 1 or 0
    VEKMSG_STRING = 3,     ///< UTF-8 text
    VEKMSG_BINARY = 4      ///< bytes
};

/// Bytes that the value of one element holds at the most; a string has 9399 characters and its NUL.
constexpr unsigned int VEKMSG_MAX_VALUE_SIZE = 9400;

/// The order of tags: a - b in 32 bits, taken as a signed number. Tags of 16 bits come in their numerical
/// order.
VEKMSG_API int vekMsgTagCompare(unsigned int a, unsigned int b);

#endif
