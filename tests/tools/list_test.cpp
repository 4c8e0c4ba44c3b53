#include <signal.h>

#include "tools/command.h"
#include "tools/component.h"
#include "tools/directory_test.h"

namespace {

class ListVerb : public DirectoryTest_ {};

}  // namespace

TEST_F(ListVerb, theEntriesAreShownInTheirOrder) {
    const std::string file =
        directory({"# comment", "local:///tmp/kitchen kitchen # the kitchen",
                   "inettcp://127.0.0.1:7400\tshop", "local:///tmp/default", "local:///tmp/other"});

    const Ran_ ran = vekmsg({"list", "-D", file});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output,
              "kitchen              local:///tmp/kitchen\n"
              "shop                 inettcp://127.0.0.1:7400\n"
              "(default)            local:///tmp/default\n"
              "(default, not used)  local:///tmp/other\n");
    EXPECT_EQ(ran.m_errors, "");
}

TEST_F(ListVerb, isTheVerbWhenNoneIsNamed) {
    const std::string file = directory({"local:///tmp/kitchen kitchen"});

    const Ran_ ran = vekmsg({"-D", file});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output, "kitchen  local:///tmp/kitchen\n");
}

TEST_F(ListVerb, jsonHasOneEntryALine) {
    const std::string file = directory({"local:///tmp/kitchen kitchen", "local:///tmp/default"});

    const Ran_ ran = vekmsg({"list", "-D", file, "--json"});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output,
              "{\"line\":1,\"name\":\"kitchen\",\"address\":\"local:///tmp/kitchen\"}\n"
              "{\"line\":2,\"name\":null,\"address\":\"local:///tmp/default\",\"isUsedDefault\":true}\n");
    EXPECT_TRUE(areValid(ran.m_output, VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json"));
    EXPECT_EQ(vekmsg({"list", "-D", file, "-j"}).m_output, ran.m_output);  // a file is no terminal
    EXPECT_EQ(vekmsg({"list", "-D", file, "--json=pretty"}).m_output.substr(0, 14), "{\n  \"line\": 1,");
}

TEST_F(ListVerb, jsonStandsWhateverBytesTheFileHas) {
    const std::string file =
        directory({"local:///tmp/\xFFkitchen kit\x01\x7F\xC2\x9B"
                   "chen"});

    const Ran_ ran = vekmsg({"list", "-D", file, "--json"});

    EXPECT_EQ(ran.m_output,
              "{\"line\":1,\"name\":\"kit\\u0001\\u007f\\u009bchen\","
              "\"address\":\"local:///tmp/\xEF\xBF\xBDkitchen\"}\n");
}

TEST_F(ListVerb, controlBytesOfTheFileDoNotReachTheTerminal) {
    const std::string file = directory({"local:///tmp/kitchen kit\x1B[2Jchen"});

    EXPECT_EQ(vekmsg({"list", "-D", file}).m_output, "kit\\x1b[2Jchen  local:///tmp/kitchen\n");
}

TEST_F(ListVerb, ignoredLinesAreANoteThatCanBeSilenced) {
    const std::string file = directory({"too short", "local:///tmp/kitchen kitchen"});

    const Ran_ ran = vekmsg({"list", "-D", file});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output, "kitchen  local:///tmp/kitchen\n");
    EXPECT_EQ(ran.m_errors, "vekmsg: 1 record about " + file + ": see vekmsg check\n");
    EXPECT_EQ(vekmsg({"list", "-D", file, "-q"}).m_errors, "");
}

TEST_F(ListVerb, verboseShowsTheLibrarysRecords) {
    const std::string file = directory({"too short", "local:///tmp/kitchen kitchen"});

    EXPECT_NE(vekmsg({"list", "-D", file, "-v"})
                  .m_errors.find("vekmsg: warning: name_directory.cpp: VEK Directory file line 1 is invalid"),
              std::string::npos);
}

TEST_F(ListVerb, aMissingFileIsAFaultOfTheDirectory) {
    const Ran_ ran = vekmsg({"list", "-D", m_folder.path("missing")});

    EXPECT_EQ(ran.m_exitCode, 3);
    EXPECT_EQ(ran.m_output, "");
    EXPECT_EQ(ran.m_errors, "vekmsg: cannot read the directory file " + m_folder.path("missing") +
                                ": No such file or directory\n");
}

TEST_F(ListVerb, aFolderIsNoDirectoryFile) {
    EXPECT_EQ(vekmsg({"list", "-D", "/tmp"}).m_exitCode, 3);
}

TEST_F(ListVerb, probingTellsWhoAnswers) {
    const std::string file =
        directory({address("kitchen") + " kitchen", address("nobody") + " nobody", address("default")});
    const Component_ kitchen("kitchen", file);

    const Ran_ ran = vekmsg({"list", "-D", file, "--probe", "--timeout", "30s"});

    EXPECT_EQ(ran.m_exitCode, 4);
    const auto lines = linesOf(ran.m_output);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_NE(lines[0].find("  answers ("), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("  not reachable"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("  not asked"), std::string::npos) << lines[2];
    EXPECT_EQ(ran.m_errors, "");
}

TEST_F(ListVerb, everyAddressIsProbedByItself) {
    const std::string tcp = freeTcpAddress();
    const std::string file = directory({address("kitchen") + " kitchen", tcp + " kitchen",
                                        freeTcpAddress() + " kitchen", "inetudp://127.0.0.1:7400 kitchen"});
    const Component_ kitchen("kitchen",
                             m_folder.writeFile("own", {address("kitchen") + " kitchen", tcp + " kitchen"}));

    const Ran_ ran = vekmsg({"list", "-D", file, "--probe", "--timeout", "30s", "--json"});

    EXPECT_EQ(ran.m_exitCode, 4);
    const auto lines = linesOf(ran.m_output);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_NE(lines[0].find("\"probe\":\"answers\",\"milliseconds\":"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("\"probe\":\"answers\",\"milliseconds\":"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("\"probe\":\"not-reachable\"}"), std::string::npos) << lines[2];
    EXPECT_NE(lines[3].find("\"probe\":\"not-served\"}"), std::string::npos) << lines[3];
    EXPECT_TRUE(areValid(ran.m_output, VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json"));
}

TEST_F(ListVerb, whoListensAndKeepsSilentTimesOut) {
    const std::string file = directory({address("kitchen") + " kitchen"});
    const SilentListener_ kitchen("kitchen", file);

    const Ran_ ran = vekmsg({"list", "-D", file, "--probe", "--timeout", "100ms"});

    EXPECT_EQ(ran.m_exitCode, 5);
    EXPECT_NE(ran.m_output.find("  no answer\n"), std::string::npos) << ran.m_output;
}

TEST_F(ListVerb, probingLeavesTheSocketFilesAlone) {
    const std::string file = directory({address("kitchen") + " kitchen"});
    const Component_ kitchen("kitchen", file);

    EXPECT_EQ(vekmsg({"list", "-D", file, "--probe", "--timeout", "30s"}).m_exitCode, 0);
    EXPECT_EQ(vekmsg({"list", "-D", file, "--probe", "--timeout", "30s"}).m_exitCode, 0);
}

TEST_F(ListVerb, aClosedPipeEndsItWithoutAWord) {
    How_ how;
    how.m_isClosedOutput = true;

    const Ran_ ran = vekmsg({"list", "-D", directory({"local:///tmp/kitchen kitchen"})}, how);

    EXPECT_EQ(ran.m_exitCode, 128 + SIGPIPE);
    EXPECT_EQ(ran.m_errors, "");
}

TEST_F(ListVerb, aFullDiskIsToldOf) {
    How_ how;
    how.m_outputFile = "/dev/full";

    const Ran_ ran = vekmsg({"list", "-D", directory({"local:///tmp/kitchen kitchen"})}, how);

    EXPECT_EQ(ran.m_exitCode, 1);
    EXPECT_EQ(ran.m_errors, "vekmsg: cannot write the result: No space left on device\n");
}
