#include "tools/command.h"

namespace {

// Calls the function as the shell does at a TAB behind the last word, and prints what it offers.
constexpr char kAtTab[] = R"sh(
at_tab() {
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
    _vekmsg vekmsg "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
    echo "${COMPREPLY[@]}"
}
)sh";

class CompletionVerb : public testing::TestWithParam<const char*> {
protected:
    CompletionVerb() {
        m_directory = m_folder.writeFile("shop.directory",
                                         {"local:///tmp/kitchen kitchen", "local:///tmp/cellar cellar",
                                          "inettcp://127.0.0.1:7400 kitchen", "local:///tmp/default"});
    }

    /// What the shell offers behind these words, the last of which may be the beginning of one.
    std::string offers(const std::string& words) const {
        // zsh runs such functions as a POSIX shell would. It begins programs with signals held back, for
        // which the leak check of an instrumented one has been seen to wait for ever.
        const bool isZsh = std::string(GetParam()) == "zsh";
        const std::string start =
            isZsh ? "ASAN_OPTIONS=detect_leaks=0 zsh -fc 'emulate sh; setopt kshglob noshglob braceexpand\n"
                    "complete() { :; }\nautoload() { :; }\nbashcompinit() { :; }\n"
                  : "bash -c '";
        How_ how;
        how.m_isShell = true;
        const Words_ command = {start + "eval \"$(vekmsg completion " + GetParam() + ")\"\n" + kAtTab +
                                "at_tab " + words + "'"};
        const Ran_ ran = vekmsg(command, how);
        EXPECT_EQ(ran.m_errors, "");
        return ran.m_output;
    }

    TemporaryFolder_ m_folder;
    std::string m_directory;
};

}  // namespace

TEST_P(CompletionVerb, verbsAreOffered) {
    EXPECT_EQ(offers("vekmsg li"), "list listen\n");
    EXPECT_EQ(offers("vekmsg -q pi"), "ping\n");
    EXPECT_EQ(offers("vekmsg x"), "\n");
}

TEST_P(CompletionVerb, namesOfTheDirectoryAreOffered) {
    EXPECT_EQ(offers("vekmsg -D " + m_directory + " ping \"\""), "cellar kitchen\n");
    EXPECT_EQ(offers("vekmsg send -D " + m_directory + " k"), "kitchen\n");
    EXPECT_EQ(offers("vekmsg -D " + m_folder.path("missing") + " ping \"\""), "\n");
}

TEST_P(CompletionVerb, optionsOfTheVerbAndOfEveryVerbAreOffered) {
    EXPECT_EQ(offers("vekmsg list --p"), "--probe\n");
    EXPECT_EQ(offers("vekmsg list --d"), "--directory\n");
    EXPECT_EQ(offers("vekmsg ping --p"), "\n");
}

TEST_P(CompletionVerb, filesAreLeftToTheShell) {
    EXPECT_EQ(offers("vekmsg list -D \"\""), "\n");
}

INSTANTIATE_TEST_SUITE_P(Shells, CompletionVerb, testing::Values("bash", "zsh"));

TEST(Completion, anUnknownShellIsAFaultOfUsage) {
    EXPECT_EQ(vekmsg({"completion", "fish"}).m_exitCode, 2);
    EXPECT_EQ(vekmsg({"completion"}).m_exitCode, 2);
}
