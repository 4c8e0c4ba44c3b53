#include <signal.h>

#include <regex>

#include "tools/command.h"
#include "tools/component.h"

namespace {

constexpr char kSchema[] = VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json";

/// The text with all times replaced.
std::string timeless(const std::string& text) {
    static const std::regex s_time(R"([0-9]+(\.[0-9]+)? m?s\b)");
    static const std::regex s_times(R"([0-9.]+/[0-9.]+/[0-9.]+/[0-9.]+ ms)");
    return std::regex_replace(std::regex_replace(text, s_times, "TIMES"), s_time, "TIME");
}

class PingVerb : public testing::Test {
protected:
    PingVerb() {
        m_directory = m_folder.writeFile(
            "shop.directory", {m_folder.localAddress("kitchen") + " kitchen", m_tcp + " cellar",
                               m_folder.localAddress("relay") + " far", m_folder.localAddress("default")});
    }

    Ran_ ping(const Words_& words) const {
        Words_ all = {"ping", "-D", m_directory};
        all.insert(all.end(), words.begin(), words.end());
        return vekmsg(all);
    }

    TemporaryFolder_ m_folder;
    std::string m_tcp = freeTcpAddress();
    std::string m_directory;
};

class WaitVerb : public PingVerb {};

}  // namespace

TEST_F(PingVerb, eachAnswerIsALineAndTheEndSaysWhatTheyCameTo) {
    const Component_ kitchen("kitchen", m_directory);

    const Ran_ ran = ping({"-c", "3", "-i", "10ms", "-W", "30s", "kitchen"});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(timeless(ran.m_output),
              "PING kitchen: 0 bytes of data\n"
              "kitchen: seq=1 time=TIME\n"
              "kitchen: seq=2 time=TIME\n"
              "kitchen: seq=3 time=TIME\n"
              "--- kitchen ping statistics ---\n"
              "3 sent, 3 received, 0 lost\n"
              "min/avg/max/mdev = TIMES\n");
    EXPECT_EQ(ran.m_errors, "");
}

TEST_F(PingVerb, overTcpAndWithTheMostData) {
    const Component_ cellar("cellar", m_directory);

    const Ran_ ran = ping({"-c", "1", "-W", "30s", "--size=9000", "cellar"});

    EXPECT_EQ(ran.m_exitCode, 0) << ran.m_errors;
    EXPECT_NE(ran.m_output.find("PING cellar: 9000 bytes of data\n"), std::string::npos);
    EXPECT_NE(ran.m_output.find("\n1 sent, 1 received, 0 lost\n"), std::string::npos) << ran.m_output;
}

TEST_F(PingVerb, jsonIsALineForEachPingAndOneForAll) {
    const Component_ kitchen("kitchen", m_directory);

    const Ran_ ran = ping({"-c", "2", "-i", "1ms", "-W", "30s", "--json", "kitchen"});

    EXPECT_EQ(ran.m_exitCode, 0);
    const auto lines = linesOf(ran.m_output);
    ASSERT_EQ(lines.size(), 3U) << ran.m_output;
    EXPECT_EQ(lines[1].find(R"({"ping":"kitchen","sequence":2,"probe":"answers","milliseconds":)"), 0U);
    EXPECT_EQ(lines[2].find(R"({"ping":"kitchen","sent":2,"received":2,"lost":0,"min":)"), 0U);
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
}

TEST_F(PingVerb, whoIsNotThereCannotBeReached) {
    for (const char* p_name : {"kitchen", "cellar"}) {
        const Ran_ ran = ping({"-c", "2", "-i", "1ms", "-W", "30s", p_name});
        EXPECT_EQ(ran.m_exitCode, 4) << p_name;
        EXPECT_NE(ran.m_output.find(": seq=2 not reachable\n"), std::string::npos) << ran.m_output;
        EXPECT_NE(ran.m_output.find("\n2 sent, 0 received, 2 lost\n"), std::string::npos) << ran.m_output;
        EXPECT_EQ(ran.m_errors, "");
    }
}

TEST_F(PingVerb, whoHangsTimesOut) {
    const SilentListener_ kitchen("kitchen", m_directory);

    const Ran_ ran = ping({"-c", "1", "--timeout", "100ms", "--json", "kitchen"});

    EXPECT_EQ(ran.m_exitCode, 5);
    EXPECT_EQ(ran.m_output,
              "{\"ping\":\"kitchen\",\"sequence\":1,\"probe\":\"no-answer\"}\n"
              "{\"ping\":\"kitchen\",\"sent\":1,\"received\":0,\"lost\":1}\n");
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
}

TEST_F(PingVerb, whoIsNotListedIsAFaultOfTheDirectory) {
    const Ran_ ran = ping({"attic"});

    EXPECT_EQ(ran.m_exitCode, 3);
    EXPECT_EQ(ran.m_output, "");
    EXPECT_EQ(ran.m_errors, "vekmsg: attic is not listed in " + m_directory + "\n");
    EXPECT_EQ(vekmsg({"ping", "-D", m_folder.path("missing"), "kitchen"}).m_exitCode, 3);
}

TEST_F(PingVerb, anOwnNameThatCannotBeAnsweredOrIsTakenIsRefused) {
    EXPECT_EQ(ping({"--as", "me", "kitchen"}).m_errors,
              "vekmsg: --as me: a name has three characters or more\n");
    const Ran_ taken = ping({"--as", "cellar", "kitchen"});
    EXPECT_EQ(taken.m_exitCode, 2);
    EXPECT_EQ(taken.m_errors,
              "vekmsg: --as cellar: " + m_directory + " lists this name; opening it would take its place\n");
}

TEST_F(PingVerb, wrongNumbersAreAFaultOfUsage) {
    for (const Words_& words : {Words_{"-c", "-1", "kitchen"}, Words_{"-c", "x", "kitchen"},
                                Words_{"--size", "9001", "kitchen"}, Words_{"-i", "1h", "kitchen"}, Words_{}})
        EXPECT_EQ(ping(words).m_exitCode, 2);
}

TEST_F(PingVerb, aSignalEndsItWithTheStatistics) {
    const Component_ kitchen("kitchen", m_directory);
    for (const int number : {SIGINT, SIGTERM}) {
        RunningCommand_ running({"ping", "-D", m_directory, "-c0", "-i", "20min", "-W", "30s", "kitchen"});
        EXPECT_TRUE(running.says("seq=1 time="));

        running.signal(number);

        const Ran_ ran = running.wait();
        EXPECT_EQ(ran.m_exitCode, 128 + number);
        EXPECT_NE(ran.m_output.find("\n1 sent, 1 received, 0 lost\n"), std::string::npos) << ran.m_output;
    }
}

TEST_F(PingVerb, eachLineLeavesAtOnceAndAClosedPipeEndsIt) {
    const Component_ kitchen("kitchen", m_directory);
    How_ how;
    how.m_isShell = true;
    const std::string command = "vekmsg ping -D " + m_directory + " -c0 -i 1ms -W 30s kitchen | head -n 2";

    const Ran_ ran = vekmsg({command}, how);

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(linesOf(ran.m_output).size(), 2U);
    EXPECT_EQ(ran.m_errors, "");
}

TEST_F(WaitVerb, itEndsWhenAllHaveAnswered) {
    const Component_ kitchen("kitchen", m_directory);
    RunningCommand_ running({"wait", "-D", m_directory, "--timeout", "60s", "kitchen", "cellar"});
    EXPECT_TRUE(running.says("kitchen answers after "));
    const Component_ cellar("cellar", m_directory);

    const Ran_ ran = running.wait();

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(timeless(ran.m_output), "kitchen answers after TIME\ncellar answers after TIME\n");
    EXPECT_EQ(ran.m_errors, "");
}

TEST_F(WaitVerb, jsonIsALineForEachAnswer) {
    const Component_ kitchen("kitchen", m_directory);

    const Ran_ ran = vekmsg({"wait", "-D", m_directory, "--json", "kitchen"});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
    EXPECT_EQ(vekmsg({"wait", "-D", m_directory, "-q", "kitchen"}).m_output, "");
}

TEST_F(WaitVerb, whoIsMissingIsNamedWhenTheTimeIsOver) {
    const SilentListener_ kitchen("kitchen", m_directory);

    const Ran_ hanging = vekmsg({"wait", "-D", m_directory, "--timeout", "300ms", "kitchen"});
    EXPECT_EQ(hanging.m_exitCode, 5);
    EXPECT_EQ(hanging.m_errors, "vekmsg: kitchen does not answer\n");

    const Ran_ absent = vekmsg({"wait", "-D", m_directory, "--timeout", "300ms", "kitchen", "cellar"});
    EXPECT_EQ(absent.m_exitCode, 4);
    EXPECT_EQ(absent.m_errors, "vekmsg: cellar cannot be reached\nvekmsg: kitchen does not answer\n");
}

TEST_F(WaitVerb, nobodyToWaitForIsAFaultOfUsageAndSomebodyUnlistedOneOfTheDirectory) {
    EXPECT_EQ(vekmsg({"wait", "-D", m_directory}).m_exitCode, 2);
    EXPECT_EQ(vekmsg({"wait", "-D", m_directory, "attic"}).m_exitCode, 3);
}

TEST_F(WaitVerb, aSignalEndsIt) {
    const Component_ kitchen("kitchen", m_directory);
    RunningCommand_ running({"wait", "-D", m_directory, "--timeout", "60s", "kitchen", "cellar"});
    EXPECT_TRUE(running.says("kitchen answers after "));

    running.signal(SIGINT);

    EXPECT_EQ(running.wait().m_exitCode, 130);
}

TEST_F(WaitVerb, aClosedPipeEndsItWithoutAWord) {
    const Component_ kitchen("kitchen", m_directory);
    How_ how;
    how.m_isClosedOutput = true;

    const Ran_ ran = vekmsg({"wait", "-D", m_directory, "kitchen"}, how);

    EXPECT_EQ(ran.m_exitCode, 141);
    EXPECT_EQ(ran.m_errors, "");
}
