#include "directory/name_directory.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <new>

#include "foundation/log_record.h"
#include "foundation/utf8_name.h"

namespace {

constexpr char kDefaultPath[] = "/etc/vek.names.directory";
constexpr std::size_t kLongestLine = 256;
constexpr std::size_t kShortestAddress = 10;

constexpr char kSeparators[] = " \t";
constexpr char kEndsOfToken[] = " \t#";

/// Null when memory is short.
SP_StdString_ createStdString(const std::string& text, std::size_t begin, std::size_t end) try {
    return SP_StdString_(new (std::nothrow) std::string(text, begin, end - begin));
} catch (const std::exception&) {
    return SP_StdString_();
}

std::size_t endOfToken(const std::string& line, std::size_t begin) {
    return std::min(line.find_first_of(kEndsOfToken, begin), line.size());
}

}  // namespace

NameDirectory_::NameDirectory_() = default;

NameDirectory_::~NameDirectory_() = default;

bool NameDirectory_::open(const char* p_path) {
    if (p_path == nullptr) p_path = kDefaultPath;
    m_addressesByName.clear();
    std::ifstream file(p_path);
    if (!file.is_open()) {
        VEKMSG_LOG_ERROR("NameDirectory_::open(): can't open directory file %s.", p_path);
        return false;
    }
    unsigned int lineNumber = 0;
    SP_StdString_ sp_address;
    SP_Utf8String_ sp_componentName;
    while (getEntry(&file, lineNumber, sp_address, sp_componentName) && sp_address) {
        if (sp_componentName->empty()) {
            m_defaultAddresses.push_back(sp_address);
        } else {
            m_addressesByName.emplace(sp_componentName, sp_address);
        }
    }
    return true;
}

bool NameDirectory_::getEntry(std::ifstream* p_file, unsigned int& lineNumber, SP_StdString_& sp_address,
                              SP_Utf8String_& sp_componentName) {
    sp_address.reset();
    if (!getEntry(nullptr, 0, sp_componentName)) return false;
    std::string line;
    while (p_file != nullptr && p_file->good()) {
        std::getline(*p_file, line);
        if (p_file->bad()) break;  // a folder opens as a file and fails here
        ++lineNumber;
        if (!getEntry(line, lineNumber, sp_address, sp_componentName)) return false;
        if (sp_address || p_file->eof()) return true;
    }
    VEKMSG_LOG_ERROR("NameDirectory_::getEntry(): bad file");
    return false;
}

/// `sp_address` stays null when the line makes no entry.
bool NameDirectory_::getEntry(const std::string& line, unsigned int lineNumber, SP_StdString_& sp_address,
                              SP_Utf8String_& sp_componentName) {
    if (line.size() > kLongestLine) {
        VEKMSG_LOG_WARNING("VEK Directory file line %u is too long (%u). Ignored", lineNumber,
                           static_cast<unsigned int>(line.size()));
        return true;
    }
    const std::size_t begin = line.find_first_not_of(kSeparators);
    if (begin == std::string::npos || line[begin] == '#') return true;
    const std::size_t end = endOfToken(line, begin);
    if (end - begin < kShortestAddress) {
        VEKMSG_LOG_WARNING("VEK Directory file line %u is invalid. Ignored %s", lineNumber, line.c_str());
        return true;
    }
    sp_address = createStdString(line, begin, end);
    if (!sp_address) {
        VEKMSG_LOG_ERROR("NameDirectory_::getEntry() can't create std::string");
        return false;
    }
    const std::size_t nameBegin = std::min(line.find_first_not_of(kSeparators, end), line.size());
    const std::size_t nameEnd = endOfToken(line, nameBegin);
    return nameBegin == nameEnd || getEntry(&line[nameBegin], nameEnd - nameBegin, sp_componentName);
}

bool NameDirectory_::getEntry(const char* p_name, std::size_t length, SP_Utf8String_& sp_componentName) {
    sp_componentName = createUtf8String(reinterpret_cast<const Utf8Char_*>(p_name), length);
    if (sp_componentName) return true;
    VEKMSG_LOG_ERROR("NameDirectory_::getEntry() can't create Utf8String_");
    return false;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface is fixed
bool NameDirectory_::getTransportAddresses(SP_Utf8String_ sp_componentName,
                                           std::list<SP_StdString_>& addresses) {
    addresses.clear();
    if (sp_componentName.isNull()) {
        VEKMSG_LOG_ERROR("NameDirectory_::getTransportAddresses(): null sp_componentName");
        return false;
    }
    const auto range = m_addressesByName.equal_range(sp_componentName);
    for (auto entry = range.first; entry != range.second; ++entry) addresses.push_back(entry->second);
    return true;
}

bool NameDirectory_::getFirstDefaultTransportAddress(SP_StdString_& sp_address) const {
    sp_address = m_defaultAddresses.empty() ? SP_StdString_() : m_defaultAddresses.front();
    return true;
}

void NameDirectory_::close() {
    m_addressesByName.clear();
}
