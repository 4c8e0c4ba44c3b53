#include "support/format_page.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

FormatPage_::FormatPage_(const std::string& path) {
    std::ifstream page(path);
    if (!page) throw std::runtime_error("no page " + path);
    const std::string opening = "```hex ";
    std::string* p_bytes = nullptr;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind(opening, 0) == 0) {
            p_bytes = &m_blocks[line.substr(opening.size())];
        } else if (line == "```") {
            p_bytes = nullptr;
        } else if (p_bytes != nullptr) {
            readBytes(line, *p_bytes);
        } else if (line.rfind("| ", 0) == 0) {
            readRecords(line);
        }
    }
}

const std::string& FormatPage_::bytes(const std::string& name) const {
    return m_blocks.at(name);
}

/// What stands in front of the bar.
void FormatPage_::readBytes(const std::string& line, std::string& bytes) const {
    std::istringstream words(line.substr(0, line.find('|')));
    for (std::string word; words >> word;) bytes += static_cast<char>(std::stoi(word, nullptr, 16));
}

/// A letter and a text in backticks.
void FormatPage_::readRecords(const std::string& line) {
    for (std::size_t at = line.find('`'); at != std::string::npos; at = line.find('`', at)) {
        const std::size_t end = line.find('`', at + 1);
        if (at >= 3 && line[at - 1] == ' ' && line[at - 3] == ' ' &&
            (line[at - 2] == 'E' || line[at - 2] == 'W'))
            m_records.insert(line.substr(at - 2, 2) + line.substr(at + 1, end - at - 1));
        at = end + 1;
    }
}
