#ifndef VEKMSG_TOOLS_DIRECTORY_FILE_H
#define VEKMSG_TOOLS_DIRECTORY_FILE_H

#include <string>
#include <vector>

/// Where the library looks when a program names no directory.
constexpr char kSystemDirectory[] = "/etc/vek.names.directory";

/// A directory file as the library reads it.
class DirectoryFile_ {
public:
    struct Entry_ {
        unsigned int m_line;
        std::string m_address;
        std::string m_name;  // empty: a default address
    };

    /// Throws a Failure_ when the file cannot be read.
    explicit DirectoryFile_(const std::string& path);

    const std::vector<Entry_>& entries() const { return m_entries; }
    bool lists(const std::string& name) const;

    /// What the library wrote about the lines that it passed over, in their order.
    const std::vector<std::string>& records() const { return m_records; }

private:
    std::vector<Entry_> m_entries;
    std::vector<std::string> m_records;
};

#endif
