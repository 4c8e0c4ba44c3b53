#ifndef VEKMSG_TESTS_API_COMPONENT_FOLDER_H
#define VEKMSG_TESTS_API_COMPONENT_FOLDER_H

#include <unistd.h>

#include <string>
#include <vector>

#include "support/temporary_folder.h"
#include "support/utf8_text.h"

inline std::string text(const Utf8Char_* p_text) {
    return p_text != nullptr ? reinterpret_cast<const char*>(p_text) : "(null)";
}

/// A folder with the sockets of some components and a directory file that lists them: each component `name`
/// listens on the local socket `name`.
class ComponentFolder_ {
public:
    explicit ComponentFolder_(const std::vector<std::string>& names) {
        std::vector<std::string> lines;
        for (const std::string& name : names) lines.push_back(m_folder.localAddress(name) + " " + name);
        m_directory = m_folder.writeFile("names", lines);
    }

    const char* directory() const { return m_directory.c_str(); }
    std::string address(const std::string& name) const { return m_folder.localAddress(name); }
    std::string path(const std::string& name) const { return m_folder.path(name); }
    bool hasSocketFile(const std::string& name) const { return access(path(name).c_str(), F_OK) == 0; }
    const TemporaryFolder_& folder() const { return m_folder; }

private:
    TemporaryFolder_ m_folder;
    std::string m_directory;
};

#endif
