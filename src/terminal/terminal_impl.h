#ifndef VEKMSG_TERMINAL_TERMINAL_IMPL_H
#define VEKMSG_TERMINAL_TERMINAL_IMPL_H

#include <poll.h>

#include <list>

#include "directory/name_directory.h"
#include "foundation/free_list.h"
#include "message/message_binary.h"
#include "terminal/active_connections.h"
#include "terminal/connection.h"
#include "terminal/socket_poll.h"
#include "transport/socket.h"
#include "vekmsg/filter.h"
#include "vekmsg/message.h"
#include "vekmsg/terminal.h"

/// A component's endpoint: what is behind the facade and behind a C terminal handle.
///
/// It owns its listening sockets, its connections and the messages received and not yet taken. All work
/// happens inside calls, on the caller's thread; nothing waits but the `poll` of waitForMessage and pollFd.
///
///     accepted connections:  unresolved (peer has not named itself) -> active (one per peer name)
///     own connections:       active from the start
///
/// The terminal_*.cpp files hold: core (open, close, look-up), poll (one pass over all sockets), send,
/// receive, wait. Stages of a long operation are private overloads of it, because a record carries the
/// signature of the function it stands in, and readers know the operation. Nothing is thrown by public
/// operations.
class VekmsgTerminalImpl_ {
public:
    using WaitResult_ = VekmsgTerminal_::WaitResult_;
    using PollResult_ = VekmsgTerminal_::PollResult_;

    VekmsgTerminalImpl_();
    ~VekmsgTerminalImpl_();
    VekmsgTerminalImpl_(const VekmsgTerminalImpl_&) = delete;
    VekmsgTerminalImpl_& operator=(const VekmsgTerminalImpl_&) = delete;

    /// What a failed open has taken so far stays until close().
    bool open(const Utf8Char_* p_componentName, const char* p_directoryPath);

    /// The default transport address and the filters are kept.
    void close();

    /// Always true.
    bool setSendFilter(SP_VekmsgFilter_ sp_filter);
    bool setReceiveFilter(SP_VekmsgFilter_ sp_filter);

    [[gnu::noinline]] bool CreateMessagePrinter(std::ostream* p_ostrm, const char* p_note,
                                                SP_VekmsgFilter_& sp_filter) const;

    /// The usable connection to that peer, or null. One that is of no further use is erased.
    SP_VekmsgConnection_ findActiveConnection(SP_Utf8String_ sp_peerName);

    /// One pass without waiting: accepts, reads, writes, settles and retires connections. `gotData`: there
    /// are blocks for receiveMessage. False on a fault that is not one of a single connection; the rest waits
    /// for the next pass.
    bool processPollEvents(bool& gotData);

    bool fillPollFdArray(pollfd* p_pollFdBuf, unsigned int& count);

    // What processPollEvents is made of, for operations that poll themselves: see quiet_spell.h.

    /// Begins a spell with a poll of its own that does not wait, where this saves more calls than it makes.
    void lookForQuietSockets();

    /// Tells the sockets what a poll has returned for the entries that fillPollFdArray made, in the spell
    /// that has begun. The result is behind the last entry that was one of theirs.
    const pollfd* noteQuietSockets(const pollfd* p_entries, unsigned int count) const;

    /// The pass itself. May throw for want of memory.
    bool makePass(bool& gotData);

    /// Works on a closed terminal too.
    bool createMessage(SP_VekMessage_& sp_message);

    bool sendMessage(SP_VekMessage_ sp_message);
    bool receiveMessage(SP_VekMessage_& sp_message);

    WaitResult_ waitForMessage(unsigned int timeoutMs);

    /// `handles` is an array of pointers ended by null, each of which `accessor` turns into a terminal; a
    /// null from the accessor stands for a closed one.
    static PollResult_ pollFd(pollfd* p_pollFd, unsigned int count, unsigned int timeoutMs,
                              VekmsgTerminalImpl_* (*accessor)(void*), char* handles);

    bool isConnected(const Utf8Char_* p_name) const;

    static constexpr unsigned int kListenBacklog = 20;
    static constexpr unsigned int kLongestPollMs = 1000;
    static constexpr unsigned int kWaitPollEntries = 100;
    static constexpr unsigned int kPollFdEntries = 256;
    static constexpr unsigned int kCallerPollEntries = 128;

protected:
    using Connections_ = std::list<SP_VekmsgConnection_, libcpp::FreeListAllocator_<SP_VekmsgConnection_>>;
    using Messages_ = std::list<SP_VekMessage_, libcpp::FreeListAllocator_<SP_VekMessage_>>;
    using AddressNames_ = std::list<SP_StdString_>;

    /// Blocks that had arrived whole when their connection ended.
    struct KeptBlocks_ {
        SP_Utf8String_ m_sp_peerName;
        BufferQueue_ m_blocks;
    };

    template <class Action>
    void forEachSocket(Action action) const;

    /// Prepares a poll over all sockets of which it can tell that they are quiet. True when a pass would do
    /// nothing unless that poll reported any.
    bool prepareLook();

    /// The part of it that is about the active connections. Whether each of them has an entry.
    bool prepareStreams();

    /// Makes the poll that is prepared, without waiting, where this saves more calls than it makes.
    void look();

    /// Prepares the poll of a wait with the entries that fillPollFdArray makes.
    bool preparePoll();

    /// The places of all active connections but such as are known to be at rest in this spell, with nothing
    /// received.
    Places_ dueConnections(std::uint64_t spell) const {
        const bool isKnown = m_poll.hasBegun(spell) && m_polledChanges == m_activeConnections.changes();
        return isKnown ? m_poll.due() : allConnections();
    }
    unsigned int placeBehind(const SP_VekmsgConnection_& sp_connection) const {
        const auto behind = m_activeConnections.upper_bound(sp_connection);
        return static_cast<unsigned int>(behind - m_activeConnections.begin());
    }
    Places_ allConnections() const { return {0, static_cast<unsigned int>(m_activeConnections.size())}; }

    bool isOpen() const { return !m_sp_componentName.isNull(); }

    // The stages of open: the default address, and one own address. The name is null when there is no
    // default.
    struct DefaultAddress_ {};
    struct OwnAddress_ {};
    void open(DefaultAddress_, SP_StdString_& sp_defaultName);
    bool open(OwnAddress_, const std::string& addressName, const SP_StdString_& sp_defaultName);

    // The stages of a pass: one listening socket, one unresolved connection, two connections to the same
    // peer, one active connection. False ends the pass.
    struct Accepting_ {};
    struct Resolving_ {};
    struct Settling_ {};
    struct Serving_ {};
    [[gnu::cold]] bool processPollEvents(Accepting_, VekSocket_& listeningSocket);
    [[gnu::cold]] void processPollEvents(Resolving_, Connections_::iterator unresolved);
    void processPollEvents(Settling_, VekmsgConnection_& old, VekmsgConnection_& accepted);
    bool processPollEvents(Serving_, VekmsgConnection_& active, bool& gotData);

    /// What findActiveConnection would give, where that is known and neither the copy of the name nor the
    /// probe could fail for want of memory; else null.
    VekmsgConnection_* findAtOnce(const Utf8Char_* p_name) const;

    // The stages of sending: finding the connection or making it, making it, connecting a socket to the first
    // address that takes it, the next usable address of the list, and handing the framed message to the
    // connection.
    struct Finding_ {};
    struct Opening_ {};
    struct Connecting_ {};
    struct Selecting_ {};
    struct Handing_ {};
    bool sendMessage(Finding_, const Utf8Char_* p_destination, SP_VekmsgConnection_& sp_connection);
    [[gnu::cold]] bool sendMessage(Opening_, const SP_Utf8String_& sp_destination,
                                   SP_VekmsgConnection_& sp_connection);
    [[gnu::cold]] bool sendMessage(Connecting_, const Utf8String_& destination, AddressNames_& addressNames,
                                   VekSocketAddress_& address, SP_VekSocket_& sp_socket);
    [[gnu::cold]] bool sendMessage(Selecting_, const Utf8String_& destination, AddressNames_& addressNames,
                                   VekSocketAddress_& address);
    bool sendMessage(Handing_, VekMessageBinary_& message, VekmsgConnection_& connection);

    // The stages of receiving: all blocks of a buffer (what is left undecoded on failure stays in it), its
    // first block, one message, a message in transit, a ping.
    struct Blocks_ {};
    struct FirstBlock_ {};
    struct Dispatching_ {};
    struct Forwarding_ {};
    struct Pinging_ {};
    enum class Decoded_ { Message, Dropped, Failed };
    bool receiveMessage(Blocks_, SP_BasicBuffer_& sp_buffer, const SP_Utf8String_& sp_peerName);
    Decoded_ receiveMessage(FirstBlock_, SP_BasicBuffer_& sp_buffer, SP_BasicBuffer_& sp_rest,
                            const SP_Utf8String_& sp_peerName, SP_VekMessage_& sp_message);
    void receiveMessage(Dispatching_, SP_VekMessage_&& sp_message, const SP_Utf8String_& sp_peerName);
    [[gnu::noinline]] void receiveMessage(Forwarding_, const SP_VekMessage_& sp_message,
                                          const SP_Utf8String_& sp_peerName);
    [[gnu::cold]] void receiveMessage(Pinging_, const SP_VekMessage_& sp_message,
                                      const SP_Utf8String_& sp_peerName);
    [[gnu::cold]] bool receiveKeptBlocks();
    bool receiveFromConnections();
    bool takeReceivedMessage(SP_VekMessage_& sp_message);

    /// Holds the filter, which must not be null, itself, because a filter may replace filters. One that
    /// throws refuses.
    [[gnu::noinline]] static bool passesFilter(SP_VekmsgFilter_ sp_filter, SP_VekMessage_& sp_message);

    /// Saves what a connection has received whole before it goes.
    [[gnu::cold]] void keepReceivedBlocks(VekmsgConnection_& connection);

    /// What a refusing filter has left of a buffer comes first in the next call.
    [[gnu::cold]] void putBack(const SP_BasicBuffer_& sp_buffer, const SP_VekmsgConnection_& sp_connection);
    [[gnu::cold]] void keepFirst(const SP_BasicBuffer_& sp_buffer, const SP_Utf8String_& sp_peerName);

    /// Stops and erases a connection, but not what it has received. The result is the one behind.
    [[gnu::cold]] ActiveConnections_::iterator retire(ActiveConnections_::iterator active);

    // Tests derive a class from this one to set up states that the outside cannot bring about.
    SP_Utf8String_ m_sp_componentName;  // null: not open
    std::list<SP_VekSocket_> m_listeningSockets;
    Connections_ m_unresolvedConnections;
    ActiveConnections_ m_activeConnections;
    Messages_ m_receivedMessages;
    VekSocketAddress_ m_defaultTransportAddress;  // of type UNKNOWN when there is none
    NameDirectory_ m_nameDirectory;
    SP_VekmsgFilter_ m_sp_sendFilter;
    SP_VekmsgFilter_ m_sp_receiveFilter;
    std::list<KeptBlocks_> m_keptBlocks;  // oldest first

    // Of the present call. Not on the stack, where 4 KB would stand between a caller and those it calls.
    SocketPoll_ m_poll;
    unsigned int m_polledChanges = 0;  // of the active connections, when that was prepared
};

#endif
