#ifndef VEKMSG_TESTS_FORMAT_PAGE_H
#define VEKMSG_TESTS_FORMAT_PAGE_H

#include <map>
#include <set>
#include <string>

/// The page that says what travels, read from the source tree.
class FormatPage_ {
public:
    explicit FormatPage_(const std::string& path);

    /// The bytes of the block that the page calls `name`, or throws.
    const std::string& bytes(const std::string& name) const;

    /// The records that the page's tables show, as "E text" or "W text".
    const std::set<std::string>& records() const { return m_records; }

    std::size_t blockCount() const { return m_blocks.size(); }

private:
    void readBytes(const std::string& line, std::string& bytes) const;
    void readRecords(const std::string& line);

    std::map<std::string, std::string> m_blocks;
    std::set<std::string> m_records;
};

#endif
