#include <signal.h>

#include <filesystem>
#include <map>
#include <regex>

#include "tools/command.h"
#include "tools/component.h"

namespace {

/// Runs a command line of the shell with `vekmsg` in it.
Ran_ shell(const std::string& line, const Words_& environment = {}) {
    How_ how;
    how.m_isShell = true;
    how.m_environment = environment;
    return vekmsg({line}, how);
}

/// The same with a terminal as its standard output: "\r\n" ends lines there. Errors go to a file.
Ran_ onTerminal(const std::string& line, const Words_& environment) {
    return shell("exec script -qec '" + line + "' /dev/null", environment);
}

/// What a person has who wants colour.
const Words_ kColour = {"TERM=xterm", "NO_COLOR="};

std::string without(const std::string& pattern, const std::string& text) {
    return std::regex_replace(text, std::regex(pattern), "");
}

/// On a terminal, and with a pipe as its standard output.
class OnATerminal : public testing::Test {
protected:
    OnATerminal() {
        m_directory = m_folder.writeFile(
            "shop.directory", {m_folder.localAddress("kitchen") + " kitchen", "inettcp://host:99999 ab",
                               m_folder.localAddress("default")});
    }

    std::string line(const std::string& verb, const std::string& options) const {
        return "vekmsg " + verb + " -q -D " + m_directory + ' ' + options;
    }

    TemporaryFolder_ m_folder;
    std::string m_directory;
};

/// With a reader that leaves after the first line.
class InAPipe : public testing::Test {
protected:
    InAPipe() {
        m_directory = m_folder.writeFile("shop.directory", {m_folder.localAddress("kitchen") + " kitchen",
                                                            m_folder.localAddress("attic") + " attic"});
        // Nobody is in the attic.
        m_guests = m_folder.writeFile("guest.directory", {m_folder.localAddress("kitchen") + " kitchen",
                                                          m_folder.localAddress("kitchen") + " attic"});
    }

    static std::string line(const std::string& words) {
        return "{ vekmsg " + words + "; echo ended with $? >&2; } | head -n 1";
    }

    /// A command that receives as the kitchen. It gets messages until it has ended.
    Ran_ runKitchen(const std::string& verb, const std::string& destination) const {
        How_ how;
        how.m_isShell = true;
        RunningCommand_ kitchen({line(verb + " -D " + m_directory + " kitchen")}, how);
        EXPECT_EQ(vekmsg({"wait", "-q", "-D", m_directory, "--timeout=60s", "kitchen"}).m_exitCode, 0);
        vekmsg_log_set_threshold(-1);
        Station_ guest("guest", m_guests);
        EXPECT_TRUE(eventually(
            [&] {
                for (unsigned int i = 0; i < 20; ++i) guest.send(destination, "order", i);
                guest.terminal().waitForMessage(10);
                return kitchen.errors().find("ended with") != std::string::npos;
            },
            30000));
        return kitchen.wait();
    }

    TemporaryFolder_ m_folder;
    std::string m_directory;
    std::string m_guests;
};

}  // namespace

TEST_F(OnATerminal, faultsHaveColourAndTheTextIsTheSame) {
    const std::map<std::string, std::string> lines = {
        {line("list", "--probe"), "\033[31mnot reachable\033[0m\r\n"},
        {line("ping", "-c 1 kitchen"), "\033[31mnot reachable\033[0m\r\n"},
        {line("check", ""), ": \033[31merror\033[0m: "},
        {line("check", ""), ": \033[33mwarning\033[0m: "}};
    for (const auto& [words, coloured] : lines) {
        const Ran_ piped = shell(words + " | cat", kColour);
        const Ran_ shown = onTerminal(words, kColour);

        EXPECT_NE(shown.m_output.find(coloured), std::string::npos) << words << '\n' << shown.m_output;
        EXPECT_EQ(piped.m_output.find('\033'), std::string::npos) << piped.m_output;
        EXPECT_EQ(without("\033\\[[0-9]+m|\r", shown.m_output), piped.m_output) << words;
    }
}

TEST_F(OnATerminal, whoAnswersIsGreen) {
    const Component_ kitchen("kitchen", m_directory);

    const Ran_ ran = onTerminal(line("list", "--probe --timeout=30s"), kColour);

    EXPECT_NE(ran.m_output.find("\033[32manswers ("), std::string::npos) << ran.m_output;
}

TEST_F(OnATerminal, noColourIsThereForWhoRefusesItOrCannotShowIt) {
    for (const Words_& environment : {Words_{"TERM=xterm", "NO_COLOR=1"}, Words_{"TERM=dumb", "NO_COLOR="}}) {
        for (const std::string& words :
             {line("list", "--probe"), line("ping", "-c 1 kitchen"), line("check", "")}) {
            const Ran_ ran = onTerminal(words, environment);
            EXPECT_FALSE(ran.m_output.empty()) << words;
            EXPECT_EQ(ran.m_output.find('\033'), std::string::npos) << ran.m_output;
        }
    }
}

TEST_F(OnATerminal, jsonIsWrittenForEyesThereAndShortElsewhere) {
    const std::string pretty = shell(line("list", "--json=pretty")).m_output;
    const std::string brief = shell(line("list", "--json=short")).m_output;
    ASSERT_NE(pretty, brief);

    EXPECT_EQ(without("\r", onTerminal(line("list", "-j"), kColour).m_output), pretty);
    EXPECT_EQ(shell(line("list", "-j") + " | cat").m_output, brief);
    EXPECT_EQ(without("\r", onTerminal(line("list", "--json=short"), kColour).m_output), brief);
    EXPECT_EQ(onTerminal(line("list", "--probe -j"), kColour).m_output.find('\033'), std::string::npos);
}

TEST_F(OnATerminal, bytesAreNotWrittenThere) {
    const std::string line = "echo \"{\\\"tag\\\":5,\\\"uint\\\":7}\" | vekmsg encode --to=binary";

    const Ran_ ran = onTerminal(line, kColour);

    EXPECT_EQ(ran.m_exitCode, 2) << ran.m_output;
    EXPECT_EQ(shell(line + " | cat").m_output.size(), 16U);
}

TEST_F(InAPipe, listingEndsWithItsReader) {
    std::string text;
    for (unsigned int i = 0; i < 20000; ++i)
        text += "local:///tmp/kitchen" + std::to_string(i) + " kitchen" + std::to_string(i) + '\n';
    const std::string many = m_folder.writeFile("many.directory", {text});

    const Ran_ ran = shell(line("list -q -D " + many));

    EXPECT_EQ(linesOf(ran.m_output).size(), 1U);
    EXPECT_EQ(ran.m_output.find("kitchen0 "), 0U) << ran.m_output;
    EXPECT_EQ(ran.m_errors, "ended with 141\n");
}

TEST_F(InAPipe, listeningEndsWithItsReaderAndNoSocketFileIsLeft) {
    const Ran_ ran = runKitchen("listen -q -F \"%s %p\"", "kitchen");

    EXPECT_EQ(ran.m_output, "guest {\"tag\":1,\"uint\":0}\n");
    EXPECT_EQ(ran.m_errors, "ended with 141\n");
    EXPECT_FALSE(std::filesystem::exists(m_folder.path("kitchen")));
}

TEST_F(InAPipe, relayingEndsWithItsReaderAndNoSocketFileIsLeft) {
    for (const char* p_verb : {"relay -v", "relay -v --json"}) {
        const Ran_ ran = runKitchen(p_verb, "attic");

        EXPECT_EQ(linesOf(ran.m_output).size(), 1U) << ran.m_output;
        EXPECT_NE(ran.m_output.find("dropped"), std::string::npos) << ran.m_output;
        EXPECT_NE(ran.m_errors.find("\nended with 141\n"), std::string::npos) << ran.m_errors;
        EXPECT_FALSE(std::filesystem::exists(m_folder.path("kitchen")));
    }
}
