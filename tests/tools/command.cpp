#include "tools/command.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

void redirect(const std::string& path, int flags, int target) {
    const int descriptor = open(path.c_str(), flags | O_CLOEXEC, 0666);
    if (descriptor < 0 || dup2(descriptor, target) < 0) throw std::runtime_error("cannot open " + path);
}

void closeOutput() {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) throw std::runtime_error("no pipe");
    close(ends[0]);
    close(ends[1]);
}

/// The sanitizers take several times the stack, which counts for the deepest trees.
void widenStack() {
#ifdef __SANITIZE_ADDRESS__
    const rlimit wide = {256 << 20, RLIM_INFINITY};
    setrlimit(RLIMIT_STACK, &wide);
#endif
}

/// Becomes the command. Signals are as a shell leaves them.
int execute(const Words_& words, const How_& how) {
    std::string program = VEKMSG_COMMAND;
    for (const std::string& setting : how.m_environment) putenv(const_cast<char*>(setting.c_str()));
    if (!how.m_folder.empty() && chdir(how.m_folder.c_str()) != 0) throw std::runtime_error("no folder");
    if (how.m_isShell) {
        const std::string path = program.substr(0, program.rfind('/')) + ':' + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        program = "/bin/sh";
    }
    // Opened before the user changes, who need not be allowed to look into the folder of the build.
    const int file = open(program.c_str(), O_RDONLY | O_CLOEXEC);
    if (how.m_user != 0 && getuid() == 0 && setuid(how.m_user) != 0) throw std::runtime_error("no user");
    std::vector<char*> arguments;
    std::string option = "-c";
    arguments.push_back(program.data());
    if (how.m_isShell) arguments.push_back(option.data());
    Words_ copies = words;
    for (std::string& word : copies) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    widenStack();
    fexecve(file, arguments.data(), environ);
    throw std::runtime_error("cannot run " + program);
}

}  // namespace

RunningCommand_::RunningCommand_(const Words_& words, const How_& how) {
    std::ofstream(m_folder.path("input"), std::ios::binary) << how.m_input;
    const std::string output = how.m_outputFile.empty() ? m_folder.path("output") : how.m_outputFile;
    m_process = std::make_unique<ChildProcess_>([&] {
        redirect(m_folder.path("input"), O_RDONLY, STDIN_FILENO);
        if (how.m_isClosedOutput) {
            closeOutput();
        } else {
            redirect(output, O_WRONLY | O_CREAT, STDOUT_FILENO);
        }
        redirect(m_folder.path("errors"), O_WRONLY | O_CREAT, STDERR_FILENO);
        return execute(words, how);
    });
}

Ran_ RunningCommand_::wait(unsigned int limitMs) {
    const int exitCode = m_process->wait(limitMs);
    EXPECT_NE(exitCode, -1) << "the command still runs";
    return {exitCode, output(), errors()};
}

std::string RunningCommand_::output() const {
    return readFile(m_folder.path("output"));
}

std::string RunningCommand_::errors() const {
    return readFile(m_folder.path("errors"));
}

bool RunningCommand_::says(const std::string& text, unsigned int limitMs) const {
    return eventually([&] { return output().find(text) != std::string::npos; }, limitMs);
}

Ran_ vekmsg(const Words_& words, const How_& how) {
    return RunningCommand_(words, how).wait();
}

std::string readFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

testing::AssertionResult areValid(const std::string& text, const std::string& schemaFile) {
    How_ how;
    how.m_isShell = true;
    how.m_input = text;
    const Ran_ ran = vekmsg({"exec python3 -B " VEKMSG_TEST_FOLDER "/validate.py " + schemaFile}, how);
    if (ran.m_exitCode == 0) return testing::AssertionSuccess();
    return testing::AssertionFailure() << ran.m_output << ran.m_errors;
}
