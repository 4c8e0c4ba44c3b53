#include <algorithm>
#include <map>
#include <regex>

#include "tools/command.h"
#include "tools/component.h"
#include "vekmsg/version.h"

namespace {

constexpr std::size_t kScreenLines = 24;
constexpr std::size_t kScreenColumns = 80;

/// The verbs as the command's own help lists them.
Words_ verbs() {
    Words_ verbs;
    bool isList = false;
    for (const std::string& line : linesOf(vekmsg({"--help"}).m_output)) {
        if (line.empty() || line == "Options of every verb:") {
            if (!verbs.empty()) break;
            isList = true;
        } else if (isList && line.compare(0, 2, "  ") == 0 && line[2] != ' ' && line[2] != '-') {
            verbs.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
    }
    return verbs;
}

Words_ examplesOf(const std::string& verb) {
    Words_ examples;
    bool isExample = false;
    for (const std::string& line : linesOf(vekmsg({verb, "--help"}).m_output)) {
        if (isExample) examples.push_back(line.substr(2));
        isExample = isExample || line == "Examples:";
    }
    return examples;
}

std::string shell(const std::string& line, const std::string& folder) {
    How_ how;
    how.m_isShell = true;
    how.m_folder = folder;
    const Ran_ ran = vekmsg({line}, how);
    return ran.m_exitCode == 0 ? "" : std::to_string(ran.m_exitCode) + ": " + ran.m_output + ran.m_errors;
}

/// Sends messages to a component that is there now and then.
int sendForEver(const std::string& destination, const std::string& directory) {
    vekmsg_log_set_threshold(-1);
    Station_ station("postman", directory);
    for (;;) {
        station.send(destination, "news", 7);
        station.terminal().waitForMessage(20);
    }
}

}  // namespace

TEST(CommandLine, theVersionIsTheLibrarys) {
    const Ran_ ran = vekmsg({"--version"});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output, "vekmsg " + std::to_string(VEKMSG_VERSION_MAJOR) + '.' +
                                std::to_string(VEKMSG_VERSION_MINOR) + '.' +
                                std::to_string(VEKMSG_VERSION_PATCH) + '\n');
    EXPECT_EQ(ran.m_errors, "");
}

TEST(CommandLine, theHelpNamesEveryExitCode) {
    const Ran_ ran = vekmsg({"-h"});

    EXPECT_EQ(ran.m_exitCode, 0);
    for (const char* p_code : {"0 done", "1 the other side", "2 usage", "3 directory", "4 not reachable",
                               "5 timed out", "6 bad data", "130 and 143"})
        EXPECT_NE(ran.m_output.find(p_code), std::string::npos) << p_code;
    EXPECT_FALSE(verbs().empty());
}

TEST(CommandLine, theHelpOfEachVerbFitsAScreen) {
    for (const std::string& verb : verbs()) {
        const Ran_ ran = vekmsg({verb, "--help"});

        EXPECT_EQ(ran.m_exitCode, 0) << verb;
        const auto lines = linesOf(ran.m_output);
        EXPECT_LE(lines.size(), kScreenLines) << ran.m_output;
        for (const std::string& line : lines) EXPECT_LE(line.size(), kScreenColumns) << line;
    }
}

TEST(CommandLine, theHelpOfEachVerbShowsTwoExamplesThatWork) {
    const TemporaryFolder_ folder;
    const std::string directory = folder.writeFile(
        "shop.directory",
        {folder.localAddress("kitchen.sock") + " kitchen", folder.localAddress("default.sock")});
    const Component_ kitchen("kitchen", directory, [](Station_& station, const SP_VekMessage_& sp_message) {
        sp_message->swapSourceDestination();
        station.terminal().sendMessage(sp_message);
    });
    const std::string cellar =
        folder.writeFile("cellar.directory", {folder.localAddress("cellar.sock") + " cellar"});
    const ChildProcess_ postman([&] { return sendForEver("cellar", cellar); });
    for (const std::string& verb : verbs()) {
        const Words_ examples = examplesOf(verb);
        EXPECT_EQ(examples.size(), 2U) << verb;
        for (const std::string& example : examples) {
            EXPECT_NE(example.find("vekmsg " + verb), std::string::npos) << example;
            EXPECT_EQ(shell(example, folder.path("")), "") << example;
        }
    }
}

TEST(CommandLine, whatIsNotUnderstoodIsAFaultOfUsage) {
    const std::map<std::string, Words_> faults = {
        {"The following argument was not expected: nothing. See vekmsg --help", {"nothing"}},
        {"The following argument was not expected: --wrong. See vekmsg list --help", {"list", "--wrong"}},
        {"'5x' is no time: write 500ms, 2s or 1.5min", {"list", "--timeout", "5x"}},
        {"'min' is no time: write 500ms, 2s or 1.5min", {"list", "--timeout", "min"}},
        {"'1.2.3s' is no time: write 500ms, 2s or 1.5min", {"list", "--timeout=1.2.3s"}},
        {"'99999min' is no time: write 500ms, 2s or 1.5min", {"list", "--timeout=99999min"}},
    };
    for (const auto& [reason, words] : faults) {
        const Ran_ ran = vekmsg(words);
        EXPECT_EQ(ran.m_exitCode, 2) << reason;
        EXPECT_EQ(ran.m_output, "") << reason;
        EXPECT_EQ(ran.m_errors, "vekmsg: " + reason + '\n');
    }
    EXPECT_EQ(vekmsg({"list", "--json=other"}).m_exitCode, 2);
    EXPECT_EQ(vekmsg({"list", "-D"}).m_exitCode, 2);
}

TEST(CommandLine, optionsOfEveryVerbStandBeforeOrBehindIt) {
    const TemporaryFolder_ folder;
    const std::string directory = folder.writeFile("shop.directory", {"local:///tmp/kitchen kitchen"});

    EXPECT_EQ(vekmsg({"-D", directory, "--json", "list"}).m_output,
              vekmsg({"list", "--json", "--directory=" + directory}).m_output);
}

TEST(Manual, namesEveryVerbAndOption) {
    const std::string manual = readFile(VEKMSG_TOOLS_FOLDER "/man/vekmsg.1.scd");
    static const std::regex s_option("^  (-[-a-zA-Z]+)(?:,(-[-a-zA-Z]+))?");
    unsigned int options = 0;
    Words_ helps = {vekmsg({"--help"}).m_output};
    for (const std::string& verb : verbs()) {
        EXPECT_NE(manual.find("\n*" + verb + "*"), std::string::npos) << verb;
        helps.push_back(vekmsg({verb, "--help"}).m_output);
    }
    for (const std::string& help : helps) {
        for (const std::string& line : linesOf(help)) {
            std::smatch parts;
            if (!std::regex_search(line, parts, s_option)) continue;
            // Either of its two names will do.
            const bool isNamed = manual.find('*' + parts[1].str()) != std::string::npos ||
                                 (parts[2].matched && manual.find('*' + parts[2].str()) != std::string::npos);
            EXPECT_TRUE(isNamed) << line;
            ++options;
        }
    }
    EXPECT_GT(options, 30U);
}
