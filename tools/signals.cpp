#include "signals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

Signals_::Signals_(std::initializer_list<int> others) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    for (const int number : others) sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_descriptor < 0) throw Failure_(ExitCode_::Refused, "no descriptor for signals");
}

Signals_::~Signals_() {
    close(m_descriptor);
}

int Signals_::take() {
    signalfd_siginfo information = {};
    if (read(m_descriptor, &information, sizeof(information)) != sizeof(information)) return 0;
    const int number = static_cast<int>(information.ssi_signo);
    if (number == SIGINT || number == SIGTERM) m_ending = number;
    return number;
}

bool Signals_::isEnding() {
    while (m_ending == 0 && take() != 0) {
    }
    return m_ending != 0;
}

ExitCode_ Signals_::resultOr(ExitCode_ otherwise) const {
    if (m_ending == 0) return otherwise;
    return m_ending == SIGINT ? ExitCode_::Interrupted : ExitCode_::Terminated;
}
