#ifndef VEKMSG_TOOLS_PROBE_H
#define VEKMSG_TOOLS_PROBE_H

#include <chrono>
#include <string>

#include "directory_file.h"
#include "json_text.h"
#include "output.h"
#include "time_span.h"

/// What became of asking one entry of a directory, alone, whether its component answers there.
struct Probe_ {
    enum State_ {
        Answers,
        NotAsked,      // a default address: nothing is routed to it
        NotServed,     // the library takes no such address
        NotReachable,  // nobody listens
        NoAnswer,      // somebody listens and does not answer in time
    };
    State_ m_state;
    std::chrono::nanoseconds m_time;  // of an answer
};

Probe_ probe(const DirectoryFile_::Entry_& entry, TimeSpan_ limit);

/// Throws a Failure_ when the directory does not list that name or, unless it is to be taken over, when
/// somebody listens at one of its addresses: opening it would take over the socket files.
void refuseWhereServed(const std::string& path, const std::string& name, bool isTakingOver);

/// For people: "answers (0.250 ms)", "not reachable" ... and the colour that it deserves.
std::string textOf(const Probe_& probe);
Colour_ colourOf(const Probe_& probe);

/// For programs: "answers", "not-asked", "not-served", "not-reachable", "no-answer".
const char* wordOf(const Probe_& probe);

/// How long one address may take to answer, where nobody says otherwise.
constexpr TimeSpan_ kProbePatience(1000);

/// An entry for people and for programs, and what a probe of it puts there.
std::string nameText(const DirectoryFile_::Entry_& entry);
Json_ jsonOf(const DirectoryFile_::Entry_& entry);
void putInto(Json_& json, const Probe_& probe);

/// Whether a caller has to be told: an answer is missing.
bool isFault(const Probe_& probe);

#endif
