#include "support/child_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <thread>

// The counts of a build that measures coverage; there is no such function in others.
extern "C" __attribute__((weak)) int __llvm_profile_write_file();

ChildProcess_::ChildProcess_(const std::function<int()>& body) {
    std::fflush(nullptr);
    m_id = fork();
    if (m_id < 0) throw std::runtime_error("no second process");
    if (m_id != 0) return;
    int result = 99;
    try {
        result = body();
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "child process: %s\n", exception.what());
    }
    endProcess(result);
}

ChildProcess_::~ChildProcess_() {
    if (m_isEnded) return;
    kill(SIGKILL);
    waitpid(m_id, nullptr, 0);
}

int ChildProcess_::wait(unsigned int limitMs) {
    int status = 0;
    if (!m_isEnded && eventually([&] { return waitpid(m_id, &status, WNOHANG) == m_id; }, limitMs)) {
        m_isEnded = true;
        m_result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return m_result;
}

void ChildProcess_::kill(int signal) {
    ::kill(m_id, signal);
}

bool eventually(const std::function<bool()>& condition, unsigned int limitMs) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void endProcess(int result) {
    std::fflush(nullptr);
    if (__llvm_profile_write_file != nullptr) __llvm_profile_write_file();
    _exit(result);
}
