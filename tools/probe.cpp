#include "probe.h"

#include <sys/mman.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "exit_code.h"
#include "records.h"
#include "session.h"
#include "transport/socket_address.h"

namespace {

/// A directory of one entry, in memory alone. A terminal connects to the first address of a name that takes
/// it, so that each has to be asked by itself.
class OneEntryDirectory_ {
public:
    explicit OneEntryDirectory_(const DirectoryFile_::Entry_& entry)
        : m_descriptor(memfd_create("vekmsg", MFD_CLOEXEC)) {
        const std::string line = entry.m_address + ' ' + entry.m_name + '\n';
        if (m_descriptor < 0 ||
            write(m_descriptor, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            throw Failure_(ExitCode_::Refused, "no memory for a directory of one entry");
    }
    ~OneEntryDirectory_() {
        if (m_descriptor >= 0) close(m_descriptor);
    }
    OneEntryDirectory_(const OneEntryDirectory_&) = delete;
    OneEntryDirectory_& operator=(const OneEntryDirectory_&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

private:
    int m_descriptor;
};

constexpr TimeSpan_ kPresencePatience(500);  // who takes a connection need not answer to be there

bool isServed(const std::string& text) {
    VekSocketAddress_ address;
    CaughtRecords_ records;
    return address.setRealName(text.c_str()) && !address.isWildcard() &&
           address.type() != VekSocketAddress_::INET_UDP;
}

}  // namespace

Probe_ probe(const DirectoryFile_::Entry_& entry, TimeSpan_ limit) {
    if (!isServed(entry.m_address)) return {Probe_::NotServed, {}};
    if (entry.m_name.empty()) return {Probe_::NotAsked, {}};
    CaughtRecords_ records;  // the state says it all
    const OneEntryDirectory_ directory(entry);
    Session_ session(ownName(), directory.path());
    const Session_::PingReply_ reply = session.ping(entry.m_name, limit);
    if (reply.m_state == Session_::PingReply_::Answered) return {Probe_::Answers, reply.m_time};
    return {reply.m_state == Session_::PingReply_::NoAnswer ? Probe_::NoAnswer : Probe_::NotReachable, {}};
}

void refuseWhereServed(const std::string& path, const std::string& name, bool isTakingOver) {
    const DirectoryFile_ directory(path);
    if (!directory.lists(name)) throw Failure_(ExitCode_::Directory, name + " is not listed in " + path);
    if (isTakingOver) return;
    for (const DirectoryFile_::Entry_& entry : directory.entries()) {
        if (entry.m_name != name) continue;
        const Probe_::State_ state = probe(entry, kPresencePatience).m_state;
        if (state == Probe_::Answers || state == Probe_::NoAnswer)
            throw Failure_(ExitCode_::Refused, "somebody serves " + name + " at " + entry.m_address +
                                                   "; --take-over pushes it aside");
    }
}

std::string textOf(const Probe_& probe) {
    switch (probe.m_state) {
        case Probe_::Answers:
            return "answers (" + timeText(probe.m_time) + ')';
        case Probe_::NotAsked:
            return "not asked";
        case Probe_::NotServed:
            return "not served";
        case Probe_::NotReachable:
            return "not reachable";
        default:
            return "no answer";
    }
}

Colour_ colourOf(const Probe_& probe) {
    if (probe.m_state == Probe_::Answers) return Colour_::Green;
    return isFault(probe) ? Colour_::Red : Colour_::None;
}

const char* wordOf(const Probe_& probe) {
    switch (probe.m_state) {
        case Probe_::Answers:
            return "answers";
        case Probe_::NotAsked:
            return "not-asked";
        case Probe_::NotServed:
            return "not-served";
        case Probe_::NotReachable:
            return "not-reachable";
        default:
            return "no-answer";
    }
}

std::string nameText(const DirectoryFile_::Entry_& entry) {
    return entry.m_name.empty() ? "(default)" : printableText(entry.m_name);
}

Json_ jsonOf(const DirectoryFile_::Entry_& entry) {
    Json_ json;
    json["line"] = entry.m_line;
    json["name"] = entry.m_name.empty() ? Json_() : readableText(entry.m_name);
    json["address"] = readableText(entry.m_address);
    return json;
}

void putInto(Json_& json, const Probe_& probe) {
    json["probe"] = wordOf(probe);
    if (probe.m_state == Probe_::Answers)
        json["milliseconds"] = static_cast<double>(probe.m_time.count()) / 1e6;
}

bool isFault(const Probe_& probe) {
    return probe.m_state != Probe_::Answers && probe.m_state != Probe_::NotAsked;
}
