#include <signal.h>

#include <filesystem>
#include <fstream>

#include "tools/command.h"

namespace {

constexpr char kBuilt[] = "    build/demo/tools/vekmsg ";

/// The command lines of the README, with the verb of each.
std::string lineOf(const std::string& verb) {
    const std::string start = kBuilt + verb + ' ';
    for (const std::string& line : linesOf(readFile(VEKMSG_SOURCE_FOLDER "/README.md")))
        if (line.compare(0, start.size(), start) == 0)
            return "exec vekmsg " + line.substr(sizeof(kBuilt) - 1);
    return "false no line with " + verb;
}

}  // namespace

TEST(Readme, theFirstMessageTypedByHandArrives) {
    // The same directory file, with a folder that no other test run uses.
    const TemporaryFolder_ folder;
    const std::string common = "/tmp/vekmsg-hello";
    std::string directory = readFile(VEKMSG_SOURCE_FOLDER "/examples/hello.directory");
    for (std::size_t at = directory.find(common); at != std::string::npos; at = directory.find(common))
        directory.replace(at, common.size(), folder.path("sockets"));
    std::filesystem::create_directory(folder.path("sockets"));
    std::filesystem::create_directory(folder.path("examples"));
    std::ofstream(folder.path("examples/hello.directory")) << directory;
    How_ how;
    how.m_isShell = true;
    how.m_folder = folder.path("");
    RunningCommand_ listening({lineOf("listen")}, how);
    const Ran_ waited = vekmsg({"wait", "-q", "-D", folder.path("examples/hello.directory"), "receiver"});
    EXPECT_EQ(waited.m_exitCode, 0) << waited.m_errors;

    const Ran_ sent = vekmsg({lineOf("send")}, how);

    EXPECT_EQ(sent.m_exitCode, 0) << sent.m_errors;
    EXPECT_TRUE(listening.says("\t\tHello\n")) << listening.output();
    listening.signal(SIGTERM);
    EXPECT_EQ(listening.wait().m_exitCode, 143);
}
