#ifndef VEKMSG_TESTS_OPEN_TERMINAL_H
#define VEKMSG_TESTS_OPEN_TERMINAL_H

#include <string>
#include <vector>

#include "support/raw_peer.h"
#include "support/station.h"
#include "support/temporary_folder.h"

/// A component "own" that anybody can reach, and a good peer of it. Whatever a hostile peer does to "own",
/// the two go on to exchange numbered messages.
class OpenTerminal_ {
public:
    OpenTerminal_();

    const std::string& localAddress() const { return m_localAddress; }
    const std::string& tcpAddress() const { return m_tcpAddress; }
    Station_& own() { return m_own; }

    /// Sends the next number to "own" and awaits its reply. Messages of others that "own" receives meanwhile
    /// are kept for takeReceived().
    void exchange();

    /// Lets "own" work until it has closed its end of the stream; false when it does not.
    bool closes(RawPeer_& hostile, unsigned int tries = 1000);

    /// Lets "own" work until it has no more connections than the good one.
    bool isAloneAgain();

    /// Messages that "own" got from others, as "schema/number".
    std::vector<std::string> takeReceived();

    /// The same messages, whole.
    const std::vector<SP_VekMessage_>& received() const { return m_received; }

    static const char* goodName() { return "undisturbed"; }

private:
    void serveOwn();
    void serveGood();

    TemporaryFolder_ m_folder;
    const std::string m_localAddress = m_folder.localAddress("own");
    const std::string m_tcpAddress = freeTcpAddress();
    const std::string m_directory =
        m_folder.writeFile("directory", {m_localAddress + " own", m_tcpAddress + " own"});
    Station_ m_own{"own", m_directory};
    Station_ m_good{goodName(), m_directory};
    unsigned int m_sent = 0;
    unsigned int m_seen = 0;     // the last number that "own" got from its good peer
    unsigned int m_replied = 0;  // the last number that came back
    std::vector<SP_VekMessage_> m_received;
};

#endif
