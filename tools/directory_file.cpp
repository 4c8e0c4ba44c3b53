#include "directory_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "directory/name_directory.h"
#include "exit_code.h"
#include "records.h"

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw Failure_(ExitCode_::Directory, "cannot read the directory file " + path + ": " + reason);
}

}  // namespace

DirectoryFile_::DirectoryFile_(const std::string& path) {
    CaughtRecords_ records;
    std::ifstream file(path);
    if (!file.is_open()) fail(path, std::strerror(errno));
    unsigned int lineNumber = 0;
    SP_StdString_ sp_address;
    SP_Utf8String_ sp_name;
    while (NameDirectory_::getEntry(&file, lineNumber, sp_address, sp_name) && sp_address)
        m_entries.push_back({lineNumber, *sp_address, std::string(sp_name->begin(), sp_name->end())});
    if (file.bad()) fail(path, "it is a folder, or reading fails");
    m_records = records.take();
}

bool DirectoryFile_::lists(const std::string& name) const {
    return std::any_of(m_entries.begin(), m_entries.end(),
                       [&name](const Entry_& entry) { return entry.m_name == name; });
}
