#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <list>
#include <map>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "directory/name_directory.h"
#include "foundation/utf8_name.h"
#include "hostile/hostile_input.h"

namespace {

/// What a directory file says, read with the plainest means.
struct Entries_ {
    explicit Entries_(const std::string& file) {
        std::istringstream lines(file);
        for (std::string line; std::getline(lines, line);) add(line);
    }

    void add(const std::string& line) {
        if (line.size() > 256) return;
        std::string words[2];
        unsigned int word = 0;
        bool isInWord = false;
        for (const char character : line) {
            if (character == '#') break;
            const bool isSeparator = character == ' ' || character == '\t';
            if (isSeparator && isInWord) ++word;
            isInWord = !isSeparator;
            if (word == 2) break;
            if (isInWord) words[word] += character;
        }
        if (words[0].size() < 10) return;
        if (words[1].empty()) {
            m_defaults.push_back(words[0]);
        } else {
            m_named[words[1]].push_back(words[0]);
        }
    }

    std::map<std::string, std::vector<std::string>> m_named;
    std::vector<std::string> m_defaults;
};

/// A file without a place in any folder.
class MemoryFile_ {
public:
    MemoryFile_() : m_descriptor(memfd_create("directory", 0)) {
        if (m_descriptor < 0) throw std::runtime_error("no file in memory");
    }
    ~MemoryFile_() { ::close(m_descriptor); }
    MemoryFile_(const MemoryFile_&) = delete;
    MemoryFile_& operator=(const MemoryFile_&) = delete;

    void fill(const std::string& bytes) {
        if (ftruncate(m_descriptor, 0) != 0 ||
            pwrite(m_descriptor, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
            throw std::runtime_error("no writing into memory");
    }

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

private:
    int m_descriptor;
};

std::string randomFile(Random_& random) {
    static const char* const s_addresses[] = {"local:///run/a.sock", "inettcp://127.0.0.1:7000", "local://ab",
                                              "local://a",           "inetudp://10.0.0.1:9",     "x"};
    std::string file;
    for (unsigned int lines = random.below(8); lines != 0; --lines) {
        file += random.text(random.below(3), " \t") + s_addresses[random.below(6)];
        if (!random.oneIn(4))
            file += random.text(1 + random.below(2), " \t") + random.text(random.below(4), "ab#");
        if (random.oneIn(10)) file += random.text(random.below(300), "ab #\t");
        file += random.oneIn(8) ? "\r\n" : "\n";
    }
    mutate(random, file);
    return file;
}

/// The directory finds what the plain reading finds, in the same order.
class DirectoryCheck_ {
public:
    bool operator()(Random_& random) {
        const std::string bytes = randomFile(random);
        m_file.fill(bytes);
        const Entries_ entries(bytes);
        NameDirectory_ directory;

        EXPECT_TRUE(directory.open(m_file.path().c_str()));

        for (const auto& [name, addresses] : entries.m_named)
            EXPECT_EQ(find(directory, name), addresses) << name;
        EXPECT_EQ(find(directory, "nobody"), std::vector<std::string>());
        SP_StdString_ sp_default;
        EXPECT_TRUE(directory.getFirstDefaultTransportAddress(sp_default));
        EXPECT_EQ(sp_default.isNull(), entries.m_defaults.empty());
        if (!sp_default.isNull() && !entries.m_defaults.empty()) {
            EXPECT_EQ(*sp_default, entries.m_defaults.front());
        }
        return !entries.m_named.empty();
    }

private:
    static std::vector<std::string> find(NameDirectory_& directory, const std::string& name) {
        std::list<SP_StdString_> found;
        EXPECT_TRUE(directory.getTransportAddresses(
            createUtf8String(reinterpret_cast<const Utf8Char_*>(name.data()), name.size()), found));
        std::vector<std::string> addresses;
        for (const SP_StdString_& sp_address : found) addresses.push_back(*sp_address);
        return addresses;
    }

    MemoryFile_ m_file;
};

}  // namespace

TEST(HostileInput, directoryFilesAreReadToTheEntriesThatTheyHold) {
    forEachInput("directory files", checkBy<DirectoryCheck_>);
}
