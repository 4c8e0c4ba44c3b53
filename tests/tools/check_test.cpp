#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "tools/command.h"
#include "tools/component.h"
#include "tools/directory_test.h"

namespace {

namespace fs = std::filesystem;

const fs::path g_directories = VEKMSG_TEST_FOLDER "/directories";

Words_ filesIn(const char* p_folder) {
    Words_ files;
    for (const auto& entry : fs::directory_iterator(g_directories / p_folder)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

/// What the file itself says that is to be found in it: "2:11 host-name".
std::multiset<std::string> expectedIn(const std::string& file) {
    const std::string marker = "# expect: ";
    std::multiset<std::string> expected;
    for (const std::string& line : linesOf(readFile(file))) {
        if (line.compare(0, marker.size(), marker) != 0) continue;
        expected.insert(line.substr(marker.size(), line.find('\r') - marker.size()));
    }
    if (expected.empty()) expected.insert("1:1 no-entries");  // the empty file cannot say it
    return expected;
}

/// What the text form says, put in the same way.
std::multiset<std::string> foundIn(const std::string& file, const std::string& output) {
    static const std::regex s_finding(R"(^:(\d+:\d+): (?:error|warning|note): .* \[([a-z0-9-]+)\]$)");
    std::multiset<std::string> found;
    for (const std::string& line : linesOf(output)) {
        if (line.compare(0, 10, "    hint: ") == 0) continue;
        std::smatch parts;
        const std::string rest = line.compare(0, file.size(), file) == 0 ? line.substr(file.size()) : line;
        if (std::regex_match(rest, parts, s_finding)) {
            found.insert(parts[1].str() + ' ' + parts[2].str());
        } else {
            found.insert("no finding: " + line);
        }
    }
    return found;
}

/// The numbers of the lines that the library passed over, from its records.
std::set<std::string> ignoredLines(const std::string& file) {
    static const std::regex s_record(R"(VEK Directory file line (\d+) is )");
    const std::string records = vekmsg({"list", "-v", "-D", file}).m_errors;
    std::set<std::string> lines;
    for (std::sregex_iterator match(records.begin(), records.end(), s_record), end; match != end; ++match)
        lines.insert((*match)[1]);
    return lines;
}

class CheckVerb : public DirectoryTest_ {};

}  // namespace

TEST(CheckCorpus, everyFaultIsFoundAtItsPlaceAndNothingElse) {
    const Words_ files = filesIn("faulty");
    EXPECT_GE(files.size(), 40U);
    for (const std::string& file : files) {
        const Ran_ ran = vekmsg({"check", "-q", file});
        const auto expected = expectedIn(file);
        const bool isNote = expected == std::multiset<std::string>{"3:1 shared-address"};
        EXPECT_EQ(ran.m_exitCode, isNote ? 0 : 3) << file;
        EXPECT_EQ(foundIn(file, ran.m_output), expected) << file << '\n' << ran.m_output;
        EXPECT_EQ(ran.m_errors, "") << file;
    }
}

TEST(CheckCorpus, goodFilesGoWithoutAWord) {
    const Words_ files = filesIn("good");
    EXPECT_GE(files.size(), 10U);
    for (const std::string& file : files) {
        const Ran_ ran = vekmsg({"check", file});
        EXPECT_EQ(ran.m_exitCode, 0) << file;
        EXPECT_EQ(ran.m_output, "") << file;
        EXPECT_EQ(ran.m_errors, "") << file;
    }
}

TEST(CheckCorpus, everyLineThatTheLibraryIgnoresIsExplained) {
    unsigned int ignored = 0;
    for (const std::string& file : filesIn("faulty")) {
        const std::string output = vekmsg({"check", file}).m_output;
        if (output.find("[carriage-return]") != std::string::npos) continue;  // one finding for all lines
        for (const std::string& line : ignoredLines(file)) {
            EXPECT_NE(output.find(file + ':' + line + ':'), std::string::npos) << file << ':' << line;
            ++ignored;
        }
    }
    EXPECT_GE(ignored, 5U);
}

TEST(CheckCorpus, hasAFileForEveryRule) {
    std::set<std::string> shown = {"folder-not-writable", "not-reachable", "no-answer"};  // tested below
    for (const std::string& file : filesIn("faulty"))
        for (const std::string& finding : expectedIn(file))
            shown.insert(finding.substr(finding.find(' ') + 1));
    const std::string sarif =
        vekmsg({"check", "--format=sarif", g_directories / "good/local.directory"}).m_output;
    static const std::regex s_rule(R"re("id": "([a-z0-9-]+)")re");
    std::set<std::string> rules;
    for (std::sregex_iterator match(sarif.begin(), sarif.end(), s_rule), end; match != end; ++match)
        rules.insert((*match)[1]);
    EXPECT_EQ(shown, rules);
}

TEST_F(CheckVerb, aFaultIsASentenceAndAHintAtItsPlace) {
    const std::string file = directory({"local:///tmp/default", "inettcp://localhost:7400 kitchen"});

    const Ran_ ran = vekmsg({"check", file});

    EXPECT_EQ(ran.m_exitCode, 3);
    EXPECT_EQ(ran.m_output,
              file +
                  ":2:11: error: \"localhost\" is no IPv4 address, and names are not looked up [host-name]\n"
                  "    hint: write the address in numbers: getent ahostsv4 localhost\n");
    EXPECT_EQ(ran.m_errors, "vekmsg: " + file + ": 1 error\n");
}

TEST_F(CheckVerb, theDirectoryOfTheOtherVerbsIsCheckedWhenNoFileIsNamed) {
    const std::string file = directory({"local:///tmp/kitchen kitchen"});

    const Ran_ ran = vekmsg({"check", "-D", file});

    EXPECT_EQ(ran.m_exitCode, 3);
    EXPECT_EQ(foundIn(file, ran.m_output), (std::multiset<std::string>{"1:1 no-default"}));
}

TEST_F(CheckVerb, aFileThatCannotBeReadIsAFaultOfTheDirectory) {
    const Ran_ ran = vekmsg({"check", m_folder.path("missing")});

    EXPECT_EQ(ran.m_exitCode, 3);
    EXPECT_EQ(ran.m_output, "");
    EXPECT_NE(ran.m_errors.find("No such file or directory"), std::string::npos);
}

TEST_F(CheckVerb, anUnknownFormatIsAFaultOfUsage) {
    EXPECT_EQ(vekmsg({"check", "--format=xml", "shop.directory"}).m_exitCode, 2);
}

TEST_F(CheckVerb, aFolderThatTheUserCannotWriteIsFound) {
    const std::string file = directory({"local:///etc/kitchen kitchen", "local:///tmp/default"});
    fs::permissions(m_folder.path(""), fs::perms::all);
    How_ how;
    how.m_user = 65534;

    const Ran_ ran = vekmsg({"check", file}, how);

    EXPECT_EQ(ran.m_exitCode, 3) << ran.m_errors;
    EXPECT_EQ(foundIn(file, ran.m_output), (std::multiset<std::string>{"1:9 folder-not-writable"}));
}

TEST_F(CheckVerb, jsonIsAsTheSchemaDemands) {
    std::string all;
    for (const std::string& file : filesIn("faulty")) {
        const Ran_ ran = vekmsg({"check", "--format=json", file});
        EXPECT_EQ(linesOf(ran.m_output).size(), expectedIn(file).size()) << file;
        all += ran.m_output;
    }
    EXPECT_TRUE(areValid(all, VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json"));
}

TEST_F(CheckVerb, jsonNamesPlaceRuleTextAndHint) {
    const std::string file = directory({"local:///tmp/default", "inetudp://127.0.0.1:7400 kitchen"});

    const Ran_ ran = vekmsg({"check", "--json", file});

    EXPECT_EQ(ran.m_exitCode, 3);
    EXPECT_EQ(ran.m_output,
              "{\"file\":\"" + file +
                  "\",\"line\":2,\"column\":1,\"severity\":\"warning\",\"rule\":\"udp-entry\",\"text\":\"UDP "
                  "addresses are read but not served: they are passed over\",\"hint\":\"write inettcp://, or "
                  "remove the line\"}\n");
}

TEST_F(CheckVerb, sarifSaysWhichRuleAndWhere) {
    const std::string file = directory({"local:///tmp/default", "inetudp://127.0.0.1:7400 kitchen"});

    const Ran_ ran = vekmsg({"check", "--format=sarif", file});

    EXPECT_EQ(ran.m_exitCode, 3);
    for (const char* p_part : {"\"version\": \"2.1.0\"", "\"ruleId\": \"udp-entry\"",
                               "\"level\": \"warning\"", "\"startLine\": 2", "\"startColumn\": 1"})
        EXPECT_NE(ran.m_output.find(p_part), std::string::npos) << p_part;
}

TEST_F(CheckVerb, nagiosGetsOneLineOfStateAndItsOwnExitCodes) {
    const std::string good = directory({"local:///tmp/kitchen kitchen", "local:///tmp/default"});
    const Ran_ ok = vekmsg({"check", "--format=nagios", good});
    EXPECT_EQ(ok.m_exitCode, 0);
    EXPECT_EQ(ok.m_output, "VEKMSG OK - " + good + ": no faults | errors=0 warnings=0\n");

    const std::string dubious = directory({"local:///tmp/kitchen kitchen"});
    const Ran_ warning = vekmsg({"check", "--format=nagios", dubious});
    EXPECT_EQ(warning.m_exitCode, 1);
    EXPECT_EQ(linesOf(warning.m_output).front(),
              "VEKMSG WARNING - " + dubious + ": 1 warning | errors=0 warnings=1");

    const std::string bad = directory({"local:///tmp/kitchen k", "local:///tmp/default"});
    const Ran_ critical = vekmsg({"check", "--format=nagios", bad});
    EXPECT_EQ(critical.m_exitCode, 2);
    EXPECT_EQ(linesOf(critical.m_output).front(),
              "VEKMSG CRITICAL - " + bad + ": 1 error | errors=1 warnings=0");

    const Ran_ unknown = vekmsg({"check", "--format=nagios", m_folder.path("missing")});
    EXPECT_EQ(unknown.m_exitCode, 3);
    EXPECT_EQ(unknown.m_output.compare(0, 17, "VEKMSG UNKNOWN - "), 0);
}

TEST_F(CheckVerb, connectingShowsWhoAnswers) {
    const std::string file =
        directory({address("kitchen") + " kitchen", address("cellar") + " cellar", address("default")});
    const Component_ kitchen("kitchen", file);

    const Ran_ ran = vekmsg({"check", "--connect", "--timeout", "30s", file});

    EXPECT_EQ(ran.m_exitCode, 4);
    const auto lines = linesOf(ran.m_output);
    ASSERT_EQ(lines.size(), 3U) << ran.m_output;
    EXPECT_NE(lines[0].find("  answers ("), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("  not reachable"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("  not asked"), std::string::npos) << lines[2];
}

TEST_F(CheckVerb, connectingTimesOutWhereNobodySaysAWord) {
    const std::string file = directory({address("kitchen") + " kitchen", address("default")});
    const SilentListener_ kitchen("kitchen", file);

    const Ran_ ran = vekmsg({"check", "--connect", "--timeout", "100ms", "--json", file});

    EXPECT_EQ(ran.m_exitCode, 5);
    EXPECT_NE(ran.m_output.find("\"probe\":\"no-answer\""), std::string::npos) << ran.m_output;
    EXPECT_TRUE(areValid(ran.m_output, VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json"));
}

TEST_F(CheckVerb, whoDoesNotAnswerIsCriticalForNagiosAndAResultInSarif) {
    const std::string file = directory({address("kitchen") + " kitchen", address("default")});

    const Ran_ nagios = vekmsg({"check", "--connect", "--format=nagios", file});
    EXPECT_EQ(nagios.m_exitCode, 2);
    EXPECT_EQ(nagios.m_output, "VEKMSG CRITICAL - " + file + ": 1 error | errors=1 warnings=0\n" + file +
                                   ":1:1: kitchen at " + address("kitchen") +
                                   ": not reachable [not-reachable]\n");

    const Ran_ sarif = vekmsg({"check", "--connect", "--format=sarif", file});
    EXPECT_EQ(sarif.m_exitCode, 4);
    EXPECT_NE(sarif.m_output.find("\"ruleId\": \"not-reachable\""), std::string::npos);
}

TEST_F(CheckVerb, aClosedPipeEndsItWithoutAWord) {
    How_ how;
    how.m_isClosedOutput = true;

    const Ran_ ran = vekmsg({"check", directory({"local:///tmp/kitchen kitchen"})}, how);

    EXPECT_EQ(ran.m_exitCode, 141);
    EXPECT_EQ(ran.m_errors, "vekmsg: " + m_folder.path("shop.directory") + ": 1 warning\n");
}
