#ifndef VEKMSG_TESTS_PROOF_SCENE_H
#define VEKMSG_TESTS_PROOF_SCENE_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "proof/calls/verdict.h"
#include "support/raw_peer.h"
#include "support/record_capture.h"
#include "support/system_calls.h"
#include "support/temporary_folder.h"
#include "support/terminal_records.h"
#include "vekmsg/vekmsg.h"

enum class Transport_ { Local, Tcp };

/// What a plan makes of a call: it fails with `m_error`, `m_times` in a row.
struct Failure_ {
    int m_error;
    unsigned int m_times;

    bool isTransient() const;       // EINTR or EAGAIN
    std::string text() const;       // "error(4): Interrupted system call"
    std::string plainText() const;  // "error(4) Interrupted system call"
};

/// The component "here" with a terminal of the finished library, and around it raw streams that know nothing
/// of the library: the component "peer", which "here" may send to at one or at two addresses, and guests that
/// come to "here" by themselves.
///
/// Only what the library calls is planned. Its clock stands still until a case moves it.
class Scene_ {
public:
    Scene_(Transport_ transport, Verdict_& verdict);
    ~Scene_();

    SystemCalls_& calls() { return m_calls; }
    VekmsgTerminal_& terminal() { return m_terminal; }
    bool isTcp() const { return m_transport == Transport_::Tcp; }

    std::string own() const { return address("here"); }
    std::string ownPath() const { return m_folder.path("here"); }
    std::string peer() const { return address("peer"); }
    std::string secondPeer() const { return address("peer-2"); }
    std::string wildcard() const { return isTcp() ? "inettcp://?" : "local://?"; }

    /// Writes the directory file anew, with these lines besides that of "here" and the default address.
    void writeDirectory(const std::vector<std::string>& lines);
    std::string directoryPath() const { return m_folder.path("directory"); }

    // What the case states. Each fault names the step.

    void expect(bool holds, const std::string& what) { m_verdict.expect(holds, what); }
    void expectRecords(const std::string& step, const Records_& records);
    void expectNoRecords(const std::string& step) { expectRecords(step, {}); }

    /// Runs `action` while records go where they go without a test.
    template <class Action>
    void withoutCapture(Action action) {
        m_records.reset();
        action();
        m_records.emplace();
    }

    // The terminal.

    bool open();
    void close();

    /// Opens with success and exactly the record that says so.
    void opened();
    Record_ listening() const;

    /// One receiveMessage; what it gives is kept.
    bool pass();

    /// Passes until `number` has been received; false when it has not within the limit.
    bool receives(unsigned int number);

    /// Sends the next message to "peer".
    bool send();

    // Guests.

    /// A stream to "here", with nothing on it yet.
    RawPeer_& guest();
    RawPeer_& guestStream() { return *m_guest; }
    std::string guestName() const { return "guest"; }
    std::string guestAddress() const { return isTcp() ? m_guest->address() : "local://"; }
    void guestWrites(const std::string& bytes);

    /// Passes until the library has looked at the guest's stream, and once more.
    void guestIsRead();
    void guestLeaves() { m_guest.reset(); }

    /// The next message for "here", or for another component, as a block.
    std::string nextBlock(const std::string& destination = "here");
    unsigned int lastNumber() const { return m_number; }

    /// A guest has named itself, and its first message has been received.
    void guestArrives(const std::string& name = "guest");

    /// Whether a guest that calls itself "peer" gets the last message sent.
    bool guestGets();

    // The peer.

    RawPeer_& peerStream() { return *m_peerStream; }

    /// The peer takes the stream that is being connected, which stands from then on.
    void peerTakesStream();

    /// Whether the peer gets the last message sent, or these, whole, once and alone: on a stream of its own
    /// after the name, or on the one that it has.
    bool peerGetsOnNewStream() { return peerGetsOnNewStream({m_number}); }
    bool peerGetsOnNewStream(const std::vector<unsigned int>& numbers);
    bool peerGets();

    /// The peer has a stream, on which a message has arrived.
    void established();

    /// What follows all: a guest is heard and the peer gets a message, without a record. The terminal is
    /// opened if it is not open.
    void works(bool onOldStream = false);

    /// Descriptors that stay open because the accept path leaves them so.
    void leavesDescriptor() { ++m_left; }
    unsigned int leftDescriptors() const { return m_left; }

private:
    std::string address(const std::string& name) const;
    std::string blockOf(const std::string& destination, const std::string& source, unsigned int number) const;
    bool peerGets(const std::string& bytes, bool isNew);
    bool acceptPeerStream();
    void reset(std::optional<RawPeer_>& stream, RawPeer_ fresh);

    Transport_ m_transport;
    Verdict_& m_verdict;
    unsigned int m_port;
    TemporaryFolder_ m_folder;
    std::optional<RecordCapture_> m_records{std::in_place};
    SystemCalls_ m_calls;
    std::unique_ptr<RawListener_> m_listener;
    std::optional<RawPeer_> m_peerStream;
    std::optional<RawPeer_> m_guest;
    std::optional<RawPeer_> m_visitor;
    VekmsgTerminal_ m_terminal;
    bool m_isOpen = false;
    bool m_isStreamNew = false;  // nothing has been looked for on the peer's stream yet
    unsigned int m_number = 0;
    unsigned int m_visitors = 0;
    unsigned int m_left = 0;
    std::vector<unsigned int> m_received;
    std::string m_peerBytes;
};

#endif
