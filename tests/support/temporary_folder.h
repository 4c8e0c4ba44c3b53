#ifndef VEKMSG_TESTS_TEMPORARY_FOLDER_H
#define VEKMSG_TESTS_TEMPORARY_FOLDER_H

#include <string>
#include <vector>

/// A folder of the test's own, removed with all it holds when the object goes.
class TemporaryFolder_ {
public:
    TemporaryFolder_();
    ~TemporaryFolder_();
    TemporaryFolder_(const TemporaryFolder_&) = delete;
    TemporaryFolder_& operator=(const TemporaryFolder_&) = delete;

    /// The path of `name` inside the folder.
    std::string path(const std::string& name) const;

    /// The address text of a local socket `name` inside the folder.
    std::string localAddress(const std::string& name) const;

    /// Writes a file with these lines, each closed by a line feed, and gives its path.
    std::string writeFile(const std::string& name, const std::vector<std::string>& lines) const;

private:
    std::string m_path;
};

/// The address text of a loopback TCP port that was free a moment ago.
std::string freeTcpAddress();

#endif
