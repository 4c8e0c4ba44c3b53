#include "byte_walk.h"

#include <algorithm>

#include "foundation/big_endian.h"
#include "hex.h"
#include "vekmsg/tag.h"

namespace {

constexpr std::size_t kItemHeader = 6;
constexpr std::size_t kTypeOffset = 2;
constexpr std::size_t kLengthOffset = 4;
constexpr std::size_t kTimeToLiveSize = 4;

std::string number(std::size_t value) {
    return std::to_string(value);
}

std::string announces(std::size_t length, std::size_t left) {
    return " announces " + number(length) + " bytes, and " + number(left) + " are left";
}

}  // namespace

std::size_t ByteWalk_::Item_::value() const {
    return m_offset + kItemHeader;
}

bool ByteWalk_::stop(std::size_t offset, const std::string& reason) {
    m_stop = Stop_{offset, reason, m_understood};
    return false;
}

void ByteWalk_::understood(const std::string& what) {
    if (!m_understood.empty()) m_understood += ", ";
    m_understood += what;
}

bool ByteWalk_::readItem(std::size_t offset, std::size_t end, const std::string& what, Item_& item) {
    const std::size_t left = end - offset;
    if (left < kItemHeader)
        return stop(offset, what + " needs a header of 6 bytes, and " + number(left) + " are left");
    const auto* p_header = reinterpret_cast<const unsigned char*>(m_bytes.data()) + offset;
    item = {offset, load16(p_header), load16(p_header + kTypeOffset), load16(p_header + kLengthOffset)};
    if (item.m_length > left - kItemHeader)
        return stop(offset + kLengthOffset, what + announces(item.m_length, left - kItemHeader));
    return true;
}

bool ByteWalk_::readHeaderItem(const char* p_name, unsigned int tag, unsigned int type, std::size_t& offset) {
    Item_ item;
    if (!readItem(offset, m_bytes.size(), std::string("the ") + p_name, item)) return false;
    if (item.m_tag != tag)
        return stop(offset, "the " + std::string(p_name) + " has tag " + number(tag) + ", and not " +
                                number(item.m_tag));
    if (item.m_type != type)
        return stop(offset + kTypeOffset, "the " + std::string(p_name) + " has type " + number(type) +
                                              ", and not " + number(item.m_type));
    if (type == VEKMSG_UINT && item.m_length != kTimeToLiveSize)
        return stop(offset + kLengthOffset,
                    "the " + std::string(p_name) + " has 4 bytes, and not " + number(item.m_length));
    understood(p_name);
    offset = item.end();
    return true;
}

bool ByteWalk_::readElement(std::size_t& offset, std::size_t end, unsigned int depth) {
    Item_ outer;
    Item_ content;
    if (!readItem(offset, end, depth == 0 ? "the element" : "a sub-element", outer)) return false;
    const std::string own = "element " + number(outer.m_tag);
    if (!readItem(outer.value(), outer.end(), "the content of " + own, content)) return false;
    if (content.m_tag != VEKMSGTAG_ELEMENT_CONTENT)
        return stop(content.m_offset,
                    "the content of " + own + " has tag 0, and not " + number(content.m_tag));
    const std::size_t outside = m_path.size();
    m_path += (m_path.empty() ? "" : " > ") + own;
    if (!readValue(content, outer.m_tag, depth)) return false;
    m_path.resize(outside);
    offset = content.end();
    return true;
}

bool ByteWalk_::readValue(const Item_& content, unsigned int tag, unsigned int depth) {
    const std::string own = "element " + number(tag);
    const std::size_t length = content.m_offset + kLengthOffset;
    switch (content.m_type) {
        case VEKMSG_COMPLEX: {
            std::size_t offset = content.value();
            understood(m_path);
            do {
                if (!readElement(offset, content.end(), depth + 1)) return false;
            } while (content.end() - offset >= kItemHeader);
            return true;
        }
        case VEKMSG_UINT:
            if (content.m_length == 0) return stop(length, own + " is a number of no bytes");
            break;
        case VEKMSG_STRING:
        case VEKMSG_BINARY:
            if (content.m_length > VEKMSG_MAX_VALUE_SIZE)
                return stop(length,
                            own + " has a value of " + number(content.m_length) + " bytes, more than 9400");
            break;
        default:
            return stop(content.m_offset + kTypeOffset,
                        own + " has type " + number(content.m_type) + ", which there is not");
    }
    understood(m_path);
    return true;
}

std::optional<ByteWalk_::Stop_> ByteWalk_::walkItem(std::size_t offset) {
    Item_ item;
    readItem(offset, m_bytes.size(), "the item", item);
    return m_stop;
}

std::optional<ByteWalk_::Stop_> ByteWalk_::walkElement(std::size_t offset) {
    readElement(offset, m_bytes.size(), 0);
    return m_stop;
}

std::optional<ByteWalk_::Stop_> ByteWalk_::walkMessage(std::size_t offset) {
    if (readHeaderItem("destination", VEKMSGTAG_DESTINATION_NAME, VEKMSG_STRING, offset) &&
        readHeaderItem("source", VEKMSGTAG_SOURCE_NAME, VEKMSG_STRING, offset) &&
        readHeaderItem("time-to-live", VEKMSGTAG_TIME_TO_LIVE, VEKMSG_UINT, offset) &&
        readHeaderItem("schema", VEKMSGTAG_SCHEMA_URI, VEKMSG_STRING, offset) && offset != m_bytes.size())
        readElement(offset, m_bytes.size(), 0);
    return m_stop;
}

std::string bytesAround(const std::string& bytes, std::size_t offset) {
    constexpr std::size_t kShown = 8;
    const std::size_t begin = offset > kShown ? offset - kShown : 0;
    const std::size_t end = std::min(bytes.size(), offset + kShown);
    std::string text = begin == 0 ? "" : "... ";
    for (std::size_t i = begin; i < end; ++i) {
        const std::string byte = hexOf(bytes.substr(i, 1));
        text += (i == begin ? "" : " ") + (i == offset ? '>' + byte + '<' : byte);
    }
    if (offset >= bytes.size()) text += " ><";
    return end < bytes.size() ? text + " ..." : text;
}
