#ifndef VEKMSG_TERMINAL_H
#define VEKMSG_TERMINAL_H

#include <poll.h>

#include <cstdint>
#include <iosfwd>

#include "libcpp/basic_buffer.h"
#include "libcpp/utf8_string.h"
#include "vekmsg/filter.h"
#include "vekmsg/message.h"

class VekmsgTerminalImpl_;

/// A component's endpoint: opened under the component's name, it sends messages to other components, receives
/// those addressed to it, forwards those addressed to others while their time-to-live lasts, and answers
/// pings.
///
/// The library has no threads. A terminal works only inside the calls made on it, so an application has to
/// receive, wait or poll regularly, also one that only sends. A terminal and all its messages belong to one
/// thread at a time.
///
/// Operations that return bool fail with false and a record that says why: at debug level, which the default
/// threshold leaves out, where a peer is away or an address is taken. A filter that refuses and a lack of
/// memory may leave none. Nothing is thrown. Every operation but open and close fails on a closed terminal;
/// after an open() that failed some of them succeed until close(). Deleting a terminal closes it.
class VEKMSG_API VekmsgTerminal_ {
public:
    enum WaitResult_ : std::uint32_t { WAIT_ERROR = 0, WAIT_TIMEOUT = 1, WAIT_MESSAGE = 2 };

    /// A positive value counts the caller's descriptors that are ready.
    enum PollResult_ : std::int32_t { POLL_ERROR = -2, POLL_TIMEOUT = -1, POLL_MESSAGE = 0 };

    VekmsgTerminal_() noexcept = default;
    VekmsgTerminal_(const VekmsgTerminal_&) = delete;
    VekmsgTerminal_& operator=(const VekmsgTerminal_&) = delete;

    /// Reads the name directory (null: /etc/vek.names.directory) and listens on the addresses that it lists
    /// for `componentName`. A file of any kind at a local one (but no folder) is deleted without a record,
    /// also the socket of a process that still listens there: let one process at a time use a name, and check
    /// the paths. A name that is not listed may open: it has no address, reaches out, and is answered on its
    /// own connections. Fails for a null or empty name, a directory file that cannot be opened, or an address
    /// that cannot be listened on; close() then releases what was taken. A directory file that cannot be
    /// read, such as a folder, ends there, with the error record "bad file".
    ///
    /// Close an open terminal first: it keeps its listening sockets, so that a TCP address that it holds
    /// already fails the call. Success ends all connections but those whose peer has not named itself yet,
    /// with all that is queued on them in either direction. Failure ends none, and may leave the new name and
    /// directory in force.
    virtual bool open(const unsigned char* componentName, const char* directoryPath);

    /// Ends all connections at once, with whatever is still queued on them. Harmless on a closed terminal,
    /// which can be opened again.
    virtual void close();

    /// A new message with time-to-live 3 and nothing else. Null when memory is short.
    virtual bool createMessage(SmartPointer_<VekMessage_>& sp_message);

    /// Hands a message to the connection with its destination, made now if there is none. True means taken
    /// over, not arrived: what cannot be written at once is written during later calls. An empty source
    /// becomes this component. Fails for a destination that is empty, this component itself, or not reachable
    /// by any of its listed addresses, for a payload that is missing or cannot be encoded, and when a send
    /// filter refuses.
    virtual bool sendMessage(SmartPointer_<VekMessage_> sp_message);

    /// Gives the next message for this component, or null when there is none now, without waiting. Does no
    /// work while received messages are queued; else each connection reads and writes, and each listening
    /// socket accepts one peer. Fails on an internal fault, with `sp_message` null, or when a receive filter
    /// refuses a message.
    virtual bool receiveMessage(SmartPointer_<VekMessage_>& sp_message);

    /// Whether there is an established connection with that component. One is made by sending, not by asking.
    virtual bool isConnected(const unsigned char* componentName) const;

    /// Works until receiveMessage() has something to do or `timeout` milliseconds have passed without any
    /// event. Time spent on events is not charged, nor is a poll that a signal interrupts: a busy peer or a
    /// periodic signal may prolong the wait without bound.
    virtual WaitResult_ waitForMessage(unsigned int timeout);

    /// Describes the terminal's descriptors for a poll() of the caller's own. `count` is the capacity of the
    /// array on entry, at least 3, and the number of entries on success. Fails when they do not fit. Ask
    /// before every poll, because connections come and go. Poll for a second at the longest and call
    /// receiveMessage() after it in any case: connects and writes have limits that only its work sees.
    virtual bool fillPollFdArray(pollfd* p_pollFd, unsigned int& count);

    /// Each replaces the filter and shares it; null removes it. Closing the terminal removes both.
    virtual bool setSendFilter(SmartPointer_<VekmsgFilter_> sp_filter);
    virtual bool setReceiveFilter(SmartPointer_<VekmsgFilter_> sp_filter);

    /// Makes a filter that writes each message as XML to `p_ostrm`, under a comment with the component's name
    /// and `p_note` (null: none). The stream must outlive the filter. The filter still has to be set.
    virtual bool CreateMessagePrinter(std::ostream* p_ostrm, const char* p_note,
                                      SmartPointer_<VekmsgFilter_>& sp_filter);

    virtual ~VekmsgTerminal_();

    /// Sends a message with this literal schema. The buffer is not an element, so that no payload is found
    /// and the call fails for want of one, unless a send filter adds one or swallows the message; a message
    /// with setRawPayload() sends encoded bytes.
    virtual bool sendRawPayload(const unsigned char* destination, const unsigned char* schema,
                                SmartPointer_<BasicBuffer_> sp_payload);

    /// Receives a message as its parts. Without a message the texts are empty and `sp_payload` stays as it
    /// was.
    virtual bool receiveRawPayload(SmartPointer_<Utf8String_>& sp_source,
                                   SmartPointer_<Utf8String_>& sp_schema,
                                   SmartPointer_<BasicBuffer_>& sp_payload);

    /// Waits on the caller's `count` descriptors (at most 128) and on several terminals at once, until
    /// `timeout` milliseconds have passed without any event; time is charged as by waitForMessage(). All
    /// descriptors together may be 256. The terminals follow as VekmsgTerminal_ pointers, ended by a null
    /// pointer; closed ones do not count. The returned events of the caller's entries are filled in when at
    /// least one of them is ready. POLL_MESSAGE tells nothing of them: they are not looked at when a terminal
    /// has something already. Receive on each terminal until it gives null before waiting again: one
    /// receiveMessage() may have taken messages of several peers off their streams, and those that it has not
    /// given out yet do not end this wait.
    static PollResult_ pollFd(pollfd* p_pollFd, unsigned int count, unsigned int timeout, ...);

    /// The inner object of a terminal, null before open(), even one that fails, and after close().
    static void* getImplementation(void* terminal);

private:
    VekmsgTerminalImpl_* m_p_implementation = nullptr;
};

/// A new, closed terminal, which the caller deletes. Null when memory is short.
VEKMSG_API VekmsgTerminal_* createVekmsgTerminal();

#endif
