// Terminal descriptors in the application's own poll set: one loop waits for messages, for a timer and for
// lines on standard input. As the component "receiver" it answers every message with its own text; the line
// "quit" ends it.
//
//     event_loop DIRECTORY

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <vekmsg/vekmsg.h>

#include <cerrno>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

namespace {

constexpr unsigned int TERMINAL_ENTRIES = 64;  // room for listening sockets and connections
constexpr int LONGEST_POLL_MS = 1000;          // the library watches its own time limits when it is called

const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

int startTimer() {
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    const itimerspec everyTenth = {{0, 100000000}, {0, 100000000}};
    return timer >= 0 && timerfd_settime(timer, 0, &everyTenth, nullptr) == 0 ? timer : -1;
}

void tick(int timer, bool& hasTicked) {
    std::uint64_t expirations = 0;
    if (read(timer, &expirations, sizeof(expirations)) < 0 || hasTicked) return;
    hasTicked = true;
    std::cout << "the timer runs" << std::endl;
}

// True when the line "quit" or the end of the input was seen.
bool readCommands(std::string& pending) {
    char bytes[256];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof(bytes));
    if (count <= 0) return true;
    pending.append(bytes, static_cast<std::size_t>(count));
    return pending.find("quit\n") != std::string::npos;
}

bool answer(VekmsgTerminal_& terminal, const SP_VekMessage_& sp_message) {
    std::cout << "a message from " << sp_message->getSource() << std::endl;
    return sp_message->swapSourceDestination() && terminal.sendMessage(sp_message);
}

// [drain]
// To be called after every poll, whatever it said: this is where the terminal reads, writes, connects and
// watches its time limits.
bool receiveAll(VekmsgTerminal_& terminal) {
    for (;;) {
        SP_VekMessage_ sp_message;
        if (!terminal.receiveMessage(sp_message)) return false;
        if (!sp_message) return true;
        answer(terminal, sp_message);
    }
}
// [/drain]

// [loop]
bool run(VekmsgTerminal_& terminal, int timer) {
    std::string commands;
    bool hasTicked = false;
    for (;;) {
        if (!receiveAll(terminal)) return false;

        // The terminal's descriptors change with its connections: ask for them before each poll.
        pollfd entries[2 + TERMINAL_ENTRIES] = {{STDIN_FILENO, POLLIN, 0}, {timer, POLLIN, 0}};
        unsigned int count = TERMINAL_ENTRIES;
        if (!terminal.fillPollFdArray(entries + 2, count)) return false;
        if (poll(entries, 2 + count, LONGEST_POLL_MS) < 0 && errno != EINTR) return false;

        if (entries[1].revents != 0) tick(timer, hasTicked);
        if (entries[0].revents != 0 && readCommands(commands)) return true;
    }
}
// [/loop]

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const int timer = startTimer();
    const std::unique_ptr<VekmsgTerminal_> terminal(createVekmsgTerminal());
    if (timer < 0 || terminal == nullptr || !terminal->open(utf8("receiver"), argv[1])) return 1;
    std::cout << "receiver is listening" << std::endl;

    const bool isDone = run(*terminal, timer);
    close(timer);
    return isDone ? 0 : 1;
}
