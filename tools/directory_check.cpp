#include "directory_check.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "address_check.h"
#include "json_text.h"
#include "output.h"

namespace {

using Entry_ = DirectoryFile_::Entry_;

constexpr char kBlanks[] = " \t";
constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
constexpr std::size_t kLongestLine = 256;
constexpr std::size_t kShortestName = 3;

std::vector<std::string> readLines(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

bool endsWith(const std::string& text, char character) {
    return !text.empty() && text.back() == character;
}

std::string lowered(std::string text) {
    for (char& character : text)
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    return text;
}

std::string quoted(const std::string& text) {
    return '"' + printableText(text) + '"';
}

/// Where a character stands that nobody sees or that is none; npos when all is well.
std::size_t oddCharacter(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20 || byte == 0x7F) return i;
    }
    // No-break space, the spaces of U+2000 to U+200F, ideographic space and zero-width no-break space.
    for (const char* p_blank :
         {"\xC2\xA0", "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82", "\xE2\x80\x83", "\xE2\x80\x84",
          "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88", "\xE2\x80\x89", "\xE2\x80\x8A",
          "\xE2\x80\x8B", "\xE2\x80\x8C", "\xE2\x80\x8D", "\xE2\x80\x8E", "\xE2\x80\x8F", "\xE3\x80\x80",
          "\xEF\xBB\xBF"}) {
        const std::size_t found = text.find(p_blank);
        if (found != std::string::npos) return found;
    }
    return isUtf8(text) ? std::string::npos : 0;
}

/// One pass over a file.
class Check_ {
public:
    Check_(std::vector<std::string> lines, const DirectoryFile_& directory)
        : m_lines(std::move(lines)), m_directory(directory) {
        for (const Entry_& entry : directory.entries()) m_entries.emplace(entry.m_line, entry);
    }

    std::vector<Finding_> run() {
        checkLineEnds();
        for (unsigned int number = 1; number <= m_lines.size(); ++number) checkLine(number);
        checkWhole();
        std::stable_sort(m_findings.begin(), m_findings.end(), [](const Finding_& a, const Finding_& b) {
            return a.m_line != b.m_line ? a.m_line < b.m_line : a.m_column < b.m_column;
        });
        return std::move(m_findings);
    }

private:
    void add(const char* p_rule, unsigned int line, std::size_t offset, const std::string& text,
             const std::string& hint) {
        m_findings.push_back(
            {&directoryRule(p_rule), line, static_cast<unsigned int>(offset) + 1, text, hint});
    }

    const std::string& lineOf(unsigned int number) const { return m_lines[number - 1]; }

    void checkLineEnds() {
        unsigned int first = 0;
        unsigned int count = 0;
        for (unsigned int number = 1; number <= m_lines.size(); ++number) {
            const std::string& line = lineOf(number);
            const std::size_t begin = line.find_first_not_of(kBlanks);
            if (!endsWith(line, '\r') || line[begin] == '#') continue;
            if (count++ == 0) first = number;
        }
        if (count == 0) return;
        add("carriage-return", first, lineOf(first).size() - 1,
            counted(count, "line") +
                " with a carriage return at the end, which becomes part of the last word",
            "end lines with LF alone: sed -i 's/\\r$//' FILE");
    }

    void checkLine(unsigned int number) {
        const std::string& line = lineOf(number);
        if (line.size() > kLongestLine) {
            add("line-too-long", number, kLongestLine,
                "the line has " + std::to_string(line.size()) + " characters; one of more than " +
                    std::to_string(kLongestLine) + " is ignored",
                "shorten it, or move the comment to lines of its own");
        } else if (number == 1 && line.compare(0, 3, kByteOrderMark) == 0) {
            add("byte-order-mark", number, 0,
                "the file begins with a byte order mark, which spoils its first line",
                "save the file as UTF-8 without a byte order mark");
        } else if (m_entries.count(number) != 0) {
            checkEntry(m_entries.at(number));
        } else {
            checkIgnored(number);
        }
    }

    /// A line that makes no entry: blank, a comment, or one whose first word is too short.
    void checkIgnored(unsigned int number) {
        const std::string& line = lineOf(number);
        const std::size_t begin = line.find_first_not_of(kBlanks);
        if (begin == std::string::npos || line[begin] == '#' || line[begin] == '\r') return;
        const std::size_t end = std::min(line.find_first_of(" \t#\r", begin), line.size());
        if (line.find("://", end) != std::string::npos) return addSwapped(number, begin);
        add("address-too-short", number, begin,
            "the line is ignored: " + quoted(line.substr(begin, end - begin)) +
                " is shorter than any address, which has 10 characters",
            "begin comments with #, and entries with an address such as local:///run/kitchen");
    }

    void addSwapped(unsigned int number, std::size_t offset) {
        add("columns-swapped", number, offset, "the name comes first and the address second",
            "write the address, blanks, and then the name");
    }

    void checkEntry(const Entry_& read) {
        Entry_ entry = read;
        // The carriage return has a finding of its own; what it spoils is not looked at again.
        if (endsWith(entry.m_name, '\r')) entry.m_name.pop_back();
        if (endsWith(entry.m_address, '\r')) entry.m_address.pop_back();
        const std::string& line = lineOf(entry.m_line);
        const std::size_t address = line.find(entry.m_address);
        const std::size_t behindAddress = address + entry.m_address.size();
        const std::size_t name = line.find_first_not_of(kBlanks, behindAddress);
        if (entry.m_name.find("://") != std::string::npos) return addSwapped(entry.m_line, address);
        if (behindAddress < line.size() && line[behindAddress] == '#')
            add("hash-in-word", entry.m_line, behindAddress,
                "the address ends at #, and what follows is a comment, without a name",
                "put a blank in front of a comment, and no # into an address");
        checkAddress(entry, address);
        if (!entry.m_name.empty()) checkName(entry, name);
    }

    void checkAddress(const Entry_& entry, std::size_t offset) {
        const std::size_t odd = oddCharacter(entry.m_address);
        if (odd != std::string::npos) return addOdd(entry.m_line, offset + odd);
        for (const AddressFault_& fault : checkAddressText(entry.m_address))
            add(fault.m_p_rule, entry.m_line, offset + fault.m_offset, fault.m_text, fault.m_hint);
    }

    void addOdd(unsigned int line, std::size_t offset) {
        add("odd-character", line, offset, "a control character, an odd blank or a byte that is no UTF-8",
            "type the word anew; only blanks and tabs separate words");
    }

    void checkName(const Entry_& entry, std::size_t offset) {
        const std::string& line = lineOf(entry.m_line);
        const std::size_t end = offset + entry.m_name.size();
        const std::size_t odd = oddCharacter(entry.m_name);
        if (odd != std::string::npos) addOdd(entry.m_line, offset + odd);
        if (entry.m_name.size() < kShortestName)
            add("name-too-short", entry.m_line, offset,
                "a component named " + quoted(entry.m_name) + " cannot deliver: peers drop its connections",
                "give it a name of three characters or more");
        if (end < line.size() && line[end] == '#')
            add("hash-in-word", entry.m_line, end, "the name ends at #, and what follows is a comment",
                "put a blank in front of a comment, and no # into a name");
        const std::size_t extra = line.find_first_not_of(" \t\r", end);
        if (extra != std::string::npos && line[extra] != '#')
            add("extra-text", entry.m_line, extra, "what follows the name does not count",
                "an entry has one address and one name; begin comments with #");
    }

    void checkWhole() {
        const std::vector<std::string>& records = m_directory.records();
        if (std::find(records.begin(), records.end(), "NameDirectory_::getEntry(): bad file") !=
            records.end())
            add("no-final-newline", static_cast<unsigned int>(m_lines.size()), m_lines.back().size(),
                "the last entry has no line end, so that every open writes the error \"bad file\"",
                "end the last line with a line feed");
        checkDefaults();
        checkPairs();
        if (m_directory.entries().empty())
            add("no-entries", 1, 0, "there is no entry that the library could use",
                "write lines such as: local:///run/kitchen kitchen");
    }

    std::size_t columnOf(const Entry_& entry) const { return lineOf(entry.m_line).find(entry.m_address); }

    void checkDefaults() {
        unsigned int first = 0;
        for (const Entry_& entry : m_directory.entries()) {
            if (!entry.m_name.empty()) continue;
            if (first != 0) {
                add("several-defaults", entry.m_line, columnOf(entry),
                    "the default address of line " + std::to_string(first) + " is used, and never this one",
                    "keep one address without a name, or give this one a name");
            } else {
                first = entry.m_line;
            }
        }
        if (first == 0 && !m_directory.entries().empty())
            add("no-default", 1, 0, "there is no default address, so that every open writes a warning",
                "add a line with an address and no name, which nobody else uses");
    }

    /// What only shows when two entries are compared.
    void checkPairs() {
        const std::vector<Entry_>& entries = m_directory.entries();
        for (std::size_t later = 1; later < entries.size(); ++later) {
            const auto begin = entries.begin();
            const auto end = begin + static_cast<std::ptrdiff_t>(later);
            const auto same = std::find_if(begin, end, [&](const Entry_& earlier) {
                return isSameAddress(earlier.m_address, entries[later].m_address);
            });
            if (same != end) addSame(*same, entries[later]);
            const auto similar = std::find_if(begin, end, [&](const Entry_& earlier) {
                return earlier.m_name != entries[later].m_name &&
                       lowered(earlier.m_name) == lowered(entries[later].m_name);
            });
            if (similar != end) addSimilar(*similar, entries[later]);
        }
    }

    void addSame(const Entry_& earlier, const Entry_& later) {
        const std::string where = " of line " + std::to_string(earlier.m_line);
        if (earlier.m_name.empty() && later.m_name.empty()) return;  // several defaults
        if (earlier.m_name.empty() || later.m_name.empty()) {
            add("own-is-default", later.m_line, columnOf(later),
                "this is the address" + where + " too, and one of them is the default address",
                "give the default address a path or port of its own");
        } else if (earlier.m_name == later.m_name) {
            add("duplicate-entry", later.m_line, columnOf(later), "this repeats the entry" + where,
                "remove one of the two");
        } else {
            add("shared-address", later.m_line, columnOf(later),
                quoted(later.m_name) + " has the address" + where + ", which is that of " +
                    quoted(earlier.m_name),
                "right when one of them forwards for the other; else one overtakes the other's socket");
        }
    }

    void addSimilar(const Entry_& earlier, const Entry_& later) {
        add("similar-names", later.m_line,
            lineOf(later.m_line).find(later.m_name, columnOf(later) + later.m_address.size()),
            quoted(later.m_name) + " and " + quoted(earlier.m_name) + " of line " +
                std::to_string(earlier.m_line) + " are two components: upper and lower case differ",
            "spell a name in one way");
    }

    std::vector<std::string> m_lines;
    const DirectoryFile_& m_directory;
    std::map<unsigned int, Entry_> m_entries;  // by line
    std::vector<Finding_> m_findings;
};

}  // namespace

const std::vector<Rule_>& directoryRules() {
    constexpr Severity_ kError = Severity_::Error;
    constexpr Severity_ kWarning = Severity_::Warning;
    static const std::vector<Rule_> s_rules = {
        {"address-too-short", kError, "A line is ignored because its first word is too short for an address"},
        {"any-address", kWarning, "0.0.0.0 can be listened on, and not connected to from elsewhere"},
        {"bad-address", kError, "A text that is no IPv4 address"},
        {"byte-order-mark", kError, "The file begins with a byte order mark"},
        {"carriage-return", kError, "Lines end with CR LF"},
        {"columns-swapped", kError, "The name stands in front of the address"},
        {"duplicate-entry", kWarning, "An entry stands twice"},
        {"extra-text", kWarning, "Text behind the name"},
        {"folder-missing", kWarning, "The folder of a local socket does not exist"},
        {"folder-not-a-folder", kError, "The folder of a local socket is a file"},
        {"folder-not-writable", kWarning, "The folder of a local socket cannot be written"},
        {"group-address", kError, "A broadcast or multicast address"},
        {"hash-in-word", kWarning, "A word ends at a #"},
        {"host-name", kError, "A host name in place of an IPv4 address"},
        {"line-too-long", kError, "A line is ignored because it is too long"},
        {"name-too-short", kError, "A name of one or two characters"},
        {"no-answer", kError, "With --connect: nobody answers in time"},
        {"no-default", kWarning, "There is no default address"},
        {"no-entries", kError, "There is no entry"},
        {"no-final-newline", kError, "The last entry has no line end"},
        {"not-reachable", kError, "With --connect: nobody listens"},
        {"odd-address", kWarning, "An IPv4 address that is read as another than it looks"},
        {"odd-character", kWarning, "A character that is not seen"},
        {"own-is-default", kWarning, "A component's address is the default address"},
        {"path-is-folder", kError, "The path of a local socket is that of a folder"},
        {"path-not-a-socket", kError, "A file that is no socket lies at the path: opening removes it"},
        {"path-relative", kWarning, "A path that depends on where each program runs"},
        {"path-too-long", kError, "A path that is cut"},
        {"port-missing", kError, "There is no port"},
        {"port-not-a-number", kError, "The port is no number"},
        {"port-out-of-range", kError, "The port is not one of 1 to 65535"},
        {"port-trailing-text", kError, "Text behind the port, which is ignored"},
        {"several-defaults", kWarning, "Default addresses of which only the first counts"},
        {"shared-address", Severity_::Note, "Two components have the same address"},
        {"similar-names", kWarning, "Names that differ in upper and lower case alone"},
        {"udp-entry", kWarning, "A UDP address, which is passed over"},
        {"unknown-scheme", kError, "An address of no known kind"},
        {"wildcard", kError, "An address without an endpoint"},
    };
    return s_rules;
}

const Rule_& directoryRule(const std::string& name) {
    for (const Rule_& rule : directoryRules())
        if (name == rule.m_p_name) return rule;
    throw std::logic_error("no rule " + name);
}

std::vector<Finding_> checkDirectory(const std::string& path, const DirectoryFile_& directory) {
    return Check_(readLines(path), directory).run();
}
