#ifndef VEKMSG_TOOLS_SESSION_H
#define VEKMSG_TOOLS_SESSION_H

#include <chrono>
#include <string>
#include <vector>

#include "signals.h"
#include "time_span.h"
#include "vekmsg/vekmsg.h"

struct CommonOptions_;

inline const Utf8Char_* utf8(const std::string& text) {
    return reinterpret_cast<const Utf8Char_*>(text.c_str());
}
inline std::string plain(const Utf8Char_* p_text) {
    return reinterpret_cast<const char*>(p_text);
}

/// The texts by which pings are known.
constexpr char kPingRequest[] = "VEK Pinger Request Format version 1.0";
constexpr char kPingReply[] = "VEK Pinger Reply Format version 1.0";

/// An open terminal under a name that the directory does not list.
///
/// Opening a listed name takes over its socket files, so verbs that only ask do not: their terminal has no
/// address, reaches out, and is answered on its own connections. Through a relay nothing comes back.
class Session_ {
public:
    /// Opens under `--as` or a name made of the process id, to talk to `peers`. Throws a Failure_, also for
    /// an own name that the directory lists or that is too short to be answered, and for a peer that the
    /// directory does not list.
    Session_(const CommonOptions_& common, const std::vector<std::string>& peers);

    /// Opens with this directory, whoever it lists.
    Session_(const std::string& name, const std::string& directory);

    /// From now on waits end when a signal has come that ends the command.
    void watch(Signals_& signals) { m_p_signals = &signals; }
    bool isEnding() const { return m_p_signals != nullptr && m_p_signals->isEnding(); }

    VekmsgTerminal_& terminal() { return m_terminal; }
    const std::string& name() const { return m_name; }

    struct PingReply_ {
        enum State_ {
            Answered,
            NotReachable,  // nobody listens, or connecting was not finished in time
            NoAnswer,      // connected, and no more
        };
        State_ m_state;
        std::chrono::nanoseconds m_time;  // of an answer
        std::string m_reason;             // of NotReachable
    };

    /// Sends one ping with `size` bytes to fill it up, and waits for its answer. Other messages that come
    /// meanwhile are dropped.
    PingReply_ ping(const std::string& destination, TimeSpan_ limit, unsigned int size = 0);

    /// A ping that carries `number` and bytes to fill it up, not yet sent.
    SP_VekMessage_ pingRequest(const std::string& destination, unsigned int number, unsigned int size);

    /// Whether this is the answer to the ping with that number.
    static bool isPingReply(VekMessage_& message, unsigned int number);

    /// Whether there is any connection, be it one that is still being made.
    bool hasConnection();

    /// Whether something waits to be written, or a connection is still being made.
    bool hasUnwritten();

    /// The next message; null when the deadline is over, when a signal ends the command, or when no
    /// connection is left on which a message could come. Throws a Failure_ when the terminal fails.
    SP_VekMessage_ receive(const Deadline_& deadline);

    /// Waits for messages, or for a signal.
    void waitForEvents(unsigned int ms);

    /// Works on the terminal once, waiting a little for something to do. Drops what comes.
    void workOnce(const Deadline_& deadline);

    /// For who ends behind the last message: goes on until nothing came for the time given, and 300 ms at
    /// most, so that a ping that proves its delivery is answered. Ends at once when nobody is connected, and
    /// when another message comes: it is dropped, and a ping behind it should not say otherwise.
    void linger(TimeSpan_ quiet);

    /// Works on the terminal until the deadline, and drops what comes, unless a signal ends the command.
    void work(const Deadline_& deadline);

private:
    void open(const std::string& directory);

    Signals_* m_p_signals = nullptr;
    VekmsgTerminal_ m_terminal;
    std::string m_name;
    unsigned int m_pings = 0;
    unsigned int m_addresses = 0;         // listened on
    unsigned int m_longestSliceMs = 100;  // so that a connection that ends is noticed soon
};

/// The name that a session opens under where nobody chose one: it differs from that of every other process.
std::string ownName();

#endif
