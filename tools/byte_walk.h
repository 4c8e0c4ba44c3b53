#ifndef VEKMSG_TOOLS_BYTE_WALK_H
#define VEKMSG_TOOLS_BYTE_WALK_H

#include <cstddef>
#include <optional>
#include <string>

/// Finds out where bytes that the library refuses stop making sense. Whether they do the library alone
/// decides; its reader keeps no offsets, so this one walks the same items again and says how far it came.
class ByteWalk_ {
public:
    struct Stop_ {
        std::size_t m_offset;      // of the number or item that cannot be
        std::string m_reason;      // in a sentence
        std::string m_understood;  // what lies in front of it: "destination, source, element 10 > element 3"
    };

    explicit ByteWalk_(const std::string& bytes) : m_bytes(bytes) {}

    /// Each gives where it stopped, or nothing when the bytes can be read. What lies behind the end of the
    /// thing that was asked for does not count.
    std::optional<Stop_> walkItem(std::size_t offset);
    std::optional<Stop_> walkElement(std::size_t offset);
    std::optional<Stop_> walkMessage(std::size_t offset);

private:
    struct Item_ {
        std::size_t m_offset;
        unsigned int m_tag;
        unsigned int m_type;
        std::size_t m_length;
        std::size_t value() const;
        std::size_t end() const { return value() + m_length; }
    };

    bool readItem(std::size_t offset, std::size_t end, const std::string& what, Item_& item);
    bool readHeaderItem(const char* p_name, unsigned int tag, unsigned int type, std::size_t& offset);
    bool readElement(std::size_t& offset, std::size_t end, unsigned int depth);
    bool readValue(const Item_& content, unsigned int tag, unsigned int depth);
    bool stop(std::size_t offset, const std::string& reason);
    void understood(const std::string& what);

    const std::string& m_bytes;
    std::string m_path;  // of the element that is being read: "element 10 > element 3"
    std::string m_understood;
    std::optional<Stop_> m_stop;
};

/// The bytes around an offset as hexadecimal, the one at the offset marked: "00 0a >00< 00".
std::string bytesAround(const std::string& bytes, std::size_t offset);

#endif
