#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// A folder knows those before it and itself.
const std::vector<std::string> g_folders = {"foundation", "message",  "transport",
                                            "directory",  "terminal", "api"};

std::size_t rank(const std::string& folder) {
    return static_cast<std::size_t>(std::find(g_folders.begin(), g_folders.end(), folder) -
                                    g_folders.begin());
}

/// Public headers may be included from everywhere; of the inside only what stands above.
bool mayInclude(const std::string& folder, const std::string& included) {
    const std::string first = included.substr(0, included.find('/'));
    if (first == "libcpp" || first == "vekmsg") return true;
    return rank(first) <= rank(folder) && rank(first) < g_folders.size();
}

std::vector<fs::path> sourcesIn(const fs::path& folder) {
    std::vector<fs::path> sources;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const std::string extension = entry.path().extension().string();
        if (extension == ".h" || extension == ".cpp") sources.push_back(entry.path());
    }
    return sources;
}

/// What stands between the quotes of an include line; empty for every other line.
std::string quotedInclude(const std::string& line) {
    const std::string directive = "#include \"";
    if (line.compare(0, directive.size(), directive) != 0) return "";
    return line.substr(directive.size(), line.find('"', directive.size()) - directive.size());
}

std::vector<std::string> quotedIncludes(const fs::path& source) {
    std::ifstream stream(source);
    std::vector<std::string> includes;
    for (std::string line; std::getline(stream, line);)
        if (!quotedInclude(line).empty()) includes.push_back(quotedInclude(line));
    return includes;
}

const fs::path g_root = VEKMSG_SOURCE_FOLDER;

}  // namespace

TEST(SourceTree, theRuleTellsUpwardFromDownward) {
    EXPECT_TRUE(mayInclude("message", "foundation/log_record.h"));
    EXPECT_TRUE(mayInclude("message", "message/ttlv.h"));
    EXPECT_TRUE(mayInclude("foundation", "libcpp/basic_buffer.h"));
    EXPECT_FALSE(mayInclude("foundation", "message/ttlv.h"));
    EXPECT_FALSE(mayInclude("directory", "terminal/connection.h"));
    EXPECT_FALSE(mayInclude("api", "neighbour.h"));
}

TEST(SourceTree, includesAreReadFromTheirLines) {
    EXPECT_EQ(quotedInclude("#include \"foundation/log_record.h\"  // for records"),
              "foundation/log_record.h");
    EXPECT_EQ(quotedInclude("#include <string>"), "");
    EXPECT_EQ(quotedInclude("// text"), "");
}

TEST(SourceTree, noFolderIncludesFromOneBelowIt) {
    unsigned int seen = 0;
    for (const std::string& folder : g_folders) {
        ASSERT_TRUE(fs::is_directory(g_root / "src" / folder)) << folder;
        for (const fs::path& source : sourcesIn(g_root / "src" / folder)) {
            for (const std::string& included : quotedIncludes(source)) {
                EXPECT_TRUE(mayInclude(folder, included)) << source << " includes " << included;
                ++seen;
            }
        }
    }
    EXPECT_GT(seen, 20U);
}

TEST(SourceTree, everySourceBelongsToAFolderOfTheList) {
    for (const auto& entry : fs::directory_iterator(g_root / "src")) {
        if (!entry.is_directory()) continue;
        EXPECT_LT(rank(entry.path().filename().string()), g_folders.size()) << entry.path();
    }
    EXPECT_FALSE(sourcesIn(g_root / "src").empty());
}

TEST(SourceTree, theSupportLayersHeadersKnowNoMessages) {
    unsigned int seen = 0;
    for (const fs::path& source : sourcesIn(g_root / "include" / "libcpp")) {
        for (const std::string& included : quotedIncludes(source)) {
            EXPECT_EQ(included.rfind("libcpp/", 0), 0U) << source << " includes " << included;
            ++seen;
        }
    }
    EXPECT_GT(seen, 0U);
}

TEST(SourceTree, publicHeadersIncludePublicHeadersAlone) {
    unsigned int seen = 0;
    for (const fs::path& source : sourcesIn(g_root / "include")) {
        for (const std::string& included : quotedIncludes(source)) {
            EXPECT_TRUE(fs::exists(g_root / "include" / included)) << source << " includes " << included;
            ++seen;
        }
    }
    EXPECT_GT(seen, 20U);
}
