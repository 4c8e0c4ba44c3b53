#ifndef VEKMSG_TESTS_CONNECTIONS_H
#define VEKMSG_TESTS_CONNECTIONS_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/buffer_bytes.h"
#include "support/raw_peer.h"
#include "support/record_capture.h"
#include "support/system_calls.h"
#include "support/temporary_folder.h"
#include "support/wire_bytes.h"
#include "terminal/connection.h"

// Compilers spell the types that are nested in the class of a function with or without that class.
#ifdef __clang__
#define OF_CONNECTION "VekmsgConnection_::"
#else
#define OF_CONNECTION
#endif

/// A connection with its inside laid open.
class BareConnection_ : public VekmsgConnection_ {
public:
    using VekmsgConnection_::m_blockLength;
    using VekmsgConnection_::m_blockType;
    using VekmsgConnection_::m_connectionState;
    using VekmsgConnection_::m_decodeOffset;
    using VekmsgConnection_::m_failureCount;
    using VekmsgConnection_::m_maxFailureRetryCount;
    using VekmsgConnection_::m_receivedBuffers;
    using VekmsgConnection_::m_sendQueue;
    using VekmsgConnection_::m_sp_myName;
    using VekmsgConnection_::m_sp_peerName;
    using VekmsgConnection_::m_sp_socket;
    using VekmsgConnection_::m_sp_wholeUnit;
};
using SP_BareConnection_ = SmartPointer_<BareConnection_>;

using wire::block;
using wire::nameBlock;

std::vector<std::string> bytesOf(const BufferQueue_& queue);
SP_Utf8String_ nameOf(const std::string& text);

/// A smart pointer that points to a holder without a string.
SP_Utf8String_ emptyHolder();

// Records.

Record_ connectionRecord(int severity, const std::string& signature, const std::string& text);
Record_ socketRecord(int severity, const std::string& signature, const std::string& text);

/// Waits, up to a limit, until the descriptor has something to read, or `wanted` bytes of it.
void awaitBytes(int descriptor, std::size_t wanted);
void awaitReadable(int descriptor);
void awaitWritable(int descriptor);
std::size_t unreadBytes(int descriptor);

/// A connection of the component "here" to the component "abc", whose name makes the receive that follows it
/// ask for just one header; and the far end of its stream.
class ConnectionTest_ : public ::testing::Test {
protected:
    using Type_ = VekSocketAddress_::AddressType_;

    ConnectionTest_();

    /// The peer opened the stream; the connection waits for its name.
    void openAccepted(Type_ type = Type_::LOCAL);

    /// The peer has named itself.
    void openEstablished(Type_ type = Type_::LOCAL);

    /// We open the stream; nothing is started. A TCP stream is still connecting, a local one is connected.
    void openOutgoing(Type_ type = Type_::LOCAL);

    /// We opened the stream; our name is sent, and read by the peer.
    void openNamed(Type_ type = Type_::LOCAL);

    /// The peer writes, the bytes arrive, and the connection takes one turn.
    bool deliver(const std::string& bytes);

    /// One turn; the result is that of processPollEvents.
    bool turn();

    /// Runs a scenario in which memory is short: nothing is left over from earlier ones that could be used.
    void afresh(const std::function<void()>& scenario);

    VekSocket_& socket() { return *m_sp_connection->m_sp_socket; }
    std::vector<std::string> received() const { return bytesOf(m_sp_connection->m_receivedBuffers); }
    VekSocket_& listener(Type_ type);

    RecordCapture_ m_records;
    SystemCalls_ m_calls;
    TemporaryFolder_ m_folder;
    VekSocket_ m_localListener;
    VekSocket_ m_tcpListener;
    SP_BareConnection_ m_sp_connection;
    RawPeer_ m_peer;
    bool m_hasMessages = false;
};

#endif
