#include "session.h"

#include <unistd.h>

#include <algorithm>

#include "arguments.h"
#include "directory_file.h"
#include "exit_code.h"
#include "records.h"

namespace {

constexpr VekmsgTag_ kPingTag = 1;
constexpr VekmsgTag_ kNumberTag = 1;
constexpr VekmsgTag_ kFillTag = 2;
constexpr std::size_t kShortestName = 3;
constexpr unsigned int kMostConnections = 128;
constexpr unsigned int kListeningSliceMs = 1000;
constexpr TimeSpan_ kLongestLinger(300);

/// What a ping carries. Answers to pings that an earlier process of this name sent must not count.
unsigned int marked(unsigned int number) {
    return (static_cast<unsigned int>(getpid()) << 16) ^ number;
}

/// `--as`, looked at, or a name of the session's own.
std::string nameFor(const CommonOptions_& common, const DirectoryFile_& directory) {
    if (common.m_as.empty()) return ownName();
    if (common.m_as.size() < kShortestName)
        throw Failure_(ExitCode_::Usage, "--as " + common.m_as + ": a name has three characters or more");
    if (directory.lists(common.m_as))
        throw Failure_(ExitCode_::Usage, "--as " + common.m_as + ": " + common.directory() +
                                             " lists this name; opening it would take its place");
    return common.m_as;
}

/// What a terminal waits for at this moment.
struct PollEntries_ {
    explicit PollEntries_(VekmsgTerminal_& terminal) {
        if (!terminal.fillPollFdArray(m_entries, m_count))
            throw Failure_(ExitCode_::Refused, "the terminal cannot wait");
    }
    bool hasWriting() const {
        return std::any_of(m_entries, m_entries + m_count,
                           [](const pollfd& entry) { return (entry.events & POLLOUT) != 0; });
    }

    pollfd m_entries[kMostConnections];
    unsigned int m_count = kMostConnections;
};

}  // namespace

std::string ownName() {
    return "vekmsg-" + std::to_string(getpid());
}

Session_::Session_(const CommonOptions_& common, const std::vector<std::string>& peers) {
    const DirectoryFile_ directory(common.directory());
    m_name = nameFor(common, directory);
    for (const std::string& peer : peers) {
        if (!directory.lists(peer))
            throw Failure_(ExitCode_::Directory, peer + " is not listed in " + common.directory());
    }
    open(common.directory());
}

Session_::Session_(const std::string& name, const std::string& directory) : m_name(name) {
    open(directory);
}

// Warnings about the directory are for `check` to explain.
void Session_::open(const std::string& directory) {
    CaughtRecords_ records;
    if (!m_terminal.open(utf8(m_name), directory.c_str()))
        throw Failure_(ExitCode_::Directory,
                       "cannot open a terminal: " + records.last("an address cannot be listened on"));
    m_addresses = PollEntries_(m_terminal).m_count;
    if (m_addresses != 0) m_longestSliceMs = kListeningSliceMs;
}

SP_VekMessage_ Session_::pingRequest(const std::string& destination, unsigned int number, unsigned int size) {
    SP_VekMessage_ sp_message;
    if (!m_terminal.createMessage(sp_message)) return SP_VekMessage_();
    const SP_VekmsgElement_ sp_payload = sp_message->createElement(kPingTag);
    const std::string fill(size, '\0');
    const bool isFilled =
        sp_payload && sp_payload->setSubElementValue(kNumberTag, marked(number)) &&
        (size == 0 || sp_payload->setSubElementValue(
                          kFillTag, reinterpret_cast<const unsigned char*>(fill.data()), size)) &&
        sp_message->setDestination(utf8(destination)) &&
        sp_message->setPayloadSchema(utf8(kPingRequest), VekMessage_::SCHEMA_LITERAL) &&
        sp_message->setPayload(sp_payload);
    return isFilled ? sp_message : SP_VekMessage_();
}

bool Session_::isPingReply(VekMessage_& message, unsigned int number) {
    if (plain(message.getPayloadSchema()) != kPingReply) return false;
    CaughtRecords_ records;  // a reply that is no element is nothing to talk about
    const SP_VekmsgElement_ sp_payload = message.getPayload();
    unsigned int found = 0;
    return sp_payload && sp_payload->getSubElementValue(kNumberTag, found) && found == marked(number);
}

// A terminal without an address listens nowhere: its descriptors are those of its connections.
bool Session_::hasConnection() {
    return PollEntries_(m_terminal).m_count != 0;
}

bool Session_::hasUnwritten() {
    return PollEntries_(m_terminal).hasWriting();
}

void Session_::waitForEvents(unsigned int ms) {
    pollfd entry = {m_p_signals == nullptr ? -1 : m_p_signals->descriptor(), POLLIN, 0};
    if (VekmsgTerminal_::pollFd(&entry, 1, ms, &m_terminal, nullptr) == VekmsgTerminal_::POLL_ERROR)
        throw Failure_(ExitCode_::Refused, "the terminal cannot wait");
}

SP_VekMessage_ Session_::receive(const Deadline_& deadline) {
    for (;;) {
        SP_VekMessage_ sp_message;
        if (!m_terminal.receiveMessage(sp_message))
            throw Failure_(ExitCode_::Refused, "the terminal cannot receive");
        if (sp_message || deadline.isOver() || isEnding() || !hasConnection()) return sp_message;
        waitForEvents(std::min(deadline.leftMs(), m_longestSliceMs));
    }
}

void Session_::workOnce(const Deadline_& deadline) {
    SP_VekMessage_ sp_message;
    if (!m_terminal.receiveMessage(sp_message))
        throw Failure_(ExitCode_::Refused, "the terminal cannot receive");
    // Not the terminal's own wait, which ends for messages and not for room to write.
    PollEntries_ entries(m_terminal);
    if (entries.hasWriting())
        poll(entries.m_entries, entries.m_count,
             static_cast<int>(std::min(deadline.leftMs(), m_longestSliceMs)));
}

void Session_::work(const Deadline_& deadline) {
    for (;;) {
        while (receive(deadline)) {
        }
        if (deadline.isOver() || isEnding()) return;
        waitForEvents(std::min(deadline.leftMs(), m_longestSliceMs));
    }
}

void Session_::linger(TimeSpan_ quiet) {
    const Deadline_ deadline(kLongestLinger);
    while (!deadline.isOver() && !isEnding()) {
        SP_VekMessage_ sp_message;
        if (!m_terminal.receiveMessage(sp_message) || sp_message) return;
        PollEntries_ entries(m_terminal);
        const bool isAlone = entries.m_count == m_addresses;
        const unsigned int ms = std::min(deadline.leftMs(), static_cast<unsigned int>(quiet.count()));
        if (isAlone || poll(entries.m_entries, entries.m_count, static_cast<int>(ms)) <= 0) return;
    }
}

Session_::PingReply_ Session_::ping(const std::string& destination, TimeSpan_ limit, unsigned int size) {
    const unsigned int number = ++m_pings;
    const auto start = std::chrono::steady_clock::now();
    const Deadline_ deadline(limit);
    {
        CaughtRecords_ records;
        const SP_VekMessage_ sp_request = pingRequest(destination, number, size);
        if (!sp_request || !m_terminal.sendMessage(sp_request))
            return {PingReply_::NotReachable, {}, records.last("nobody listens there")};
    }
    while (const SP_VekMessage_ sp_message = receive(deadline)) {
        if (isPingReply(*sp_message, number))
            return {PingReply_::Answered, std::chrono::steady_clock::now() - start, ""};
    }
    const bool isConnected = m_terminal.isConnected(utf8(destination));
    return {isConnected ? PingReply_::NoAnswer : PingReply_::NotReachable, {}, "no connection comes about"};
}
