#include "support/child_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <thread>

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
    std::fflush(nullptr);
    _exit(result);
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
