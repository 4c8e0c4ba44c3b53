#ifndef VEKMSG_TESTS_TERMINAL_INSTALLATION_H
#define VEKMSG_TESTS_TERMINAL_INSTALLATION_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/buffer_bytes.h"
#include "support/raw_peer.h"
#include "support/record_capture.h"
#include "support/temporary_folder.h"
#include "support/terminal_records.h"
#include "support/utf8_text.h"
#include "support/wire_bytes.h"
#include "terminal/terminal_impl.h"

using Bytes_ = std::string;

/// A connection whose inside a test can arrange.
class TestConnection_ : public VekmsgConnection_ {
public:
    using VekmsgConnection_::m_connectionState;
    using VekmsgConnection_::m_failureCount;
    using VekmsgConnection_::m_receivedBuffers;
    using VekmsgConnection_::m_sendQueue;
    using VekmsgConnection_::m_sp_myName;
    using VekmsgConnection_::m_sp_peerName;
    using VekmsgConnection_::m_sp_socket;
};
using SP_TestConnection_ = SmartPointer_<TestConnection_>;

/// A terminal whose inside a test can look at and arrange.
class TestTerminal_ : public VekmsgTerminalImpl_ {
public:
    using VekmsgTerminalImpl_::AddressNames_;
    using VekmsgTerminalImpl_::Connecting_;
    using VekmsgTerminalImpl_::Decoded_;
    using VekmsgTerminalImpl_::FirstBlock_;
    using VekmsgTerminalImpl_::KeptBlocks_;
    using VekmsgTerminalImpl_::m_activeConnections;
    using VekmsgTerminalImpl_::m_defaultTransportAddress;
    using VekmsgTerminalImpl_::m_keptBlocks;
    using VekmsgTerminalImpl_::m_listeningSockets;
    using VekmsgTerminalImpl_::m_receivedMessages;
    using VekmsgTerminalImpl_::m_sp_componentName;
    using VekmsgTerminalImpl_::m_sp_receiveFilter;
    using VekmsgTerminalImpl_::m_sp_sendFilter;
    using VekmsgTerminalImpl_::m_unresolvedConnections;
    using VekmsgTerminalImpl_::receiveMessage;
    using VekmsgTerminalImpl_::sendMessage;

    /// The active connection with that peer in whatever state, or null.
    SP_VekmsgConnection_ active(const std::string& peerName) const;

    /// Puts a connection with that peer, which has no socket, among the active ones.
    SP_TestConnection_ addActive(const std::string& peerName);

    bool pass() {
        bool gotData = false;
        return processPollEvents(gotData);
    }
};
using Terminal_ = std::unique_ptr<TestTerminal_>;

/// A filter made of a function.
class FilterOf_ : public VekmsgFilter_ {
public:
    using Process_ = std::function<bool(SP_VekMessage_&)>;
    explicit FilterOf_(const Process_& process) : m_process(process) {}
    bool process(SP_VekMessage_& sp_message) override { return m_process(sp_message); }

private:
    Process_ m_process;
};
SP_VekmsgFilter_ filterOf(const FilterOf_::Process_& process);

std::string text(const Utf8Char_* p_text);
SP_Utf8String_ name(const std::string& text);

using wire::block;
using wire::item;
using wire::nameBlock;

/// A message whose payload is one number.
SP_VekMessage_ messageTo(const std::string& destination, unsigned int number,
                         const std::string& schema = "numbers");
unsigned int numberIn(const SP_VekMessage_& sp_message);

/// The block of such a message as it travels.
Bytes_ messageBlock(const std::string& destination, const std::string& source, unsigned int number,
                    unsigned int timeToLive = 3, const std::string& schema = "numbers");

constexpr char kPingRequest[] = "VEK Pinger Request Format version 1.0";
constexpr char kPingReply[] = "VEK Pinger Reply Format version 1.0";

/// Receives until a message comes; null when none does within some seconds.
SP_VekMessage_ receiveAt(TestTerminal_& terminal);
/// The numbers of all messages that are there now.
std::vector<unsigned int> numbersAt(TestTerminal_& terminal);

/// What a call returned and wrote when one of its allocations failed.
struct Outcome_ {
    bool operator==(const Outcome_& other) const {
        return m_result == other.m_result && m_records == other.m_records;
    }
    bool m_result;
    Records_ m_records;
};
using Outcomes_ = std::vector<Outcome_>;

/// Several terminals, each with a directory file of its own, in one temporary folder. Names of components
/// have three characters or more: shorter ones cannot be heard.
class Installation_ : public testing::Test {
protected:
    std::string local(const std::string& name) const { return m_folder.localAddress(name); }

    /// A directory file for one component.
    std::string directory(const std::string& component, const std::vector<std::string>& lines) const {
        return m_folder.writeFile(component + ".directory", lines);
    }

    /// One line of such a file for each of these components: a local address under its own name.
    std::vector<std::string> locals(const std::vector<std::string>& components) const;

    /// An open terminal, whose records of opening are dropped.
    Terminal_ open(const std::string& component, const std::vector<std::string>& lines);

    /// An open terminal that knows itself and these others by local addresses.
    Terminal_ openLocal(const std::string& component, std::vector<std::string> others = {});

    /// The call that `prepare` makes, once for each of its allocations, with that one failing. Each time in a
    /// thread that has no used memory at hand.
    using Call_ = std::function<bool()>;
    Outcomes_ failEachAllocation(const std::function<Call_()>& prepare);

    TemporaryFolder_ m_folder;
    RecordCapture_ m_records;
};

std::ostream& operator<<(std::ostream& stream, const Outcome_& outcome);

bool contains(const Outcomes_& outcomes, const Outcome_& outcome);

#endif
