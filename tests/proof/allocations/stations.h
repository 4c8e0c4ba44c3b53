#ifndef VEKMSG_TESTS_PROOF_STATIONS_H
#define VEKMSG_TESTS_PROOF_STATIONS_H

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "proof/allocations/long_texts.h"
#include "proof/allocations/scenario.h"
#include "support/raw_peer.h"
#include "support/station.h"
#include "support/temporary_folder.h"
#include "support/wire_bytes.h"
#include "vekmsg/vekmsg.h"

/// Alpha, beta and gamma in one thread, on local sockets of a folder of their own. Beta's own directory lists
/// gamma at the address of alpha, which so becomes its relay.
class Stations_ {
public:
    Stations_();

    /// Opens alpha and beta.
    void prepare();

    /// What alpha and beta send each other arrives, also after both have been closed and opened again.
    void proveUse(Run_& run);

    // Arranging: with memory.

    void openGamma();

    /// Alpha and beta are connected; alpha opened the stream.
    void connect();

    /// Sends from one to the other and receives there.
    void exchange(Station_& from, Station_& to, const char* p_to);

    /// A stream to alpha of which the peer has said its name.
    RawPeer_ peerOfAlpha(const std::string& name) const;

    // Acting: calls under proof.

    static bool send(Run_& run, Station_& from, const SP_VekMessage_& sp_message);

    /// One receiveMessage. What it gives is whole, and is noted in `m_numbers` for the receiver.
    SP_VekMessage_ receive(Run_& run, Station_& at);

    /// Rounds of receiving at all stations given, until nothing more can come.
    void settle(Run_& run, const std::vector<Station_*>& stations, unsigned int rounds = 6);

    /// Whether messages with just these numbers, each once, have been received.
    bool hasReceived(const std::multiset<long>& numbers) const { return m_numbers == numbers; }

    const char* directory() const { return m_directory.c_str(); }
    std::string writeDirectory(const std::vector<std::string>& lines) {
        return m_folder.writeFile("own", lines);
    }
    std::string local(const std::string& name) const { return m_folder.localAddress(name); }

    /// A loopback address that no other process uses.
    static std::string tcp(unsigned int number);

    TemporaryFolder_ m_folder;
    std::string m_directory;
    std::string m_directoryOfBeta;
    std::unique_ptr<Station_> m_p_alpha;
    std::unique_ptr<Station_> m_p_beta;
    std::unique_ptr<Station_> m_p_gamma;
    std::vector<SP_VekMessage_> m_messages;  // ready to be sent
    std::vector<RawPeer_> m_peers;
    std::unique_ptr<RawListener_> m_p_listener;
    VekmsgTerminal_ m_terminal;  // closed at first
    SP_VekmsgFilter_ m_sp_filter;
    std::multiset<long> m_numbers;  // of the messages received

private:
    static bool arrives(Station_& from, Station_& to, const char* p_to, unsigned int number);
};

#endif
