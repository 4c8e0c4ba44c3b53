#ifndef VEKMSG_TERMINAL_CONNECTION_H
#define VEKMSG_TERMINAL_CONNECTION_H

#include <poll.h>

#include <cstdint>
#include <list>

#include "foundation/free_list.h"
#include "libcpp/basic_buffer.h"
#include "libcpp/utf8_string.h"
#include "transport/socket.h"
#include "vekmsg/tag.h"

class VekmsgConnection_;
using SP_VekmsgConnection_ = SmartPointer_<VekmsgConnection_>;
using BufferQueue_ = std::list<SP_BasicBuffer_, libcpp::FreeListAllocator_<SP_BasicBuffer_>>;

/// One stream to one peer component.
///
/// What travels is cut into blocks: a type and a length, 16 bits each and big-endian, then the payload. The
/// side that opened the stream sends its component name as the first block; nothing is sent back. After that
/// both sides send messages only.
///
///     opened:    IDLE -> SENDING_NAME -----------------------------> RECEIVING_HEADER <-> RECEIVING_PAYLOAD
///     accepted:  IDLE -> RECEIVING_NAME_HEADER -> RECEIVING_NAME --> RECEIVING_HEADER <-> RECEIVING_PAYLOAD
///     any of them -> FAILED, left only by a reconnection or a new socket
///
/// Trouble on the stream shows in the state (see isFunctional), not in results: a false result means that
/// memory is short or that the state makes no sense. Blocks not yet sent and blocks not yet taken survive a
/// failure. An exception that travels up through a connection leaves it FAILED.
///
/// Where one operation is too long for one function, its stages are overloads of it, because a record carries
/// the signature of the function it stands in, and readers know the operation.
class VekmsgConnection_ : public BasicObject_, public libcpp::FromFreeList_<VekmsgConnection_, 16> {
public:
    enum ConnectionState_ : std::uint32_t {
        STATE_IDLE = 0,
        STATE_SENDING_NAME = 1,
        STATE_RECEIVING_NAME_HEADER = 2,
        STATE_RECEIVING_NAME = 3,
        STATE_RECEIVING_HEADER = 4,
        STATE_RECEIVING_PAYLOAD = 5,
        STATE_FAILED = 6
    };

    /// These numbers travel.
    enum EncodingBlockType_ : std::uint32_t {
        NO_ENCODING_BLOCK = 0,
        VEK_COMPONENT_NAME = 1,
        BINARY_ENCODED_MESSAGE = 2
    };

    VekmsgConnection_();
    ~VekmsgConnection_() override;

    void addRef() final { BasicObject_::addRef(); }
    void removeRef() final { BasicObject_::removeRef(); }

    /// Null is refused with a record.
    bool setMyName(SP_Utf8String_ sp_myName);
    SP_Utf8String_ getMyName() const { return m_sp_myName; }

    /// Null on an accepted connection until the peer has named itself.
    bool setPeerName(SP_Utf8String_ sp_peerName);
    SP_Utf8String_ getPeerName() const { return m_sp_peerName; }

    /// Replaces the socket and starts over; queues and names stay. Null is allowed.
    bool setSocket(SP_VekSocket_ sp_socket);
    /// False, with the argument untouched, when there is none.
    bool getSocket(SP_VekSocket_& sp_socket) const;
    /// Null when there is none.
    VekSocket_* socket() const { return m_sp_socket.get(); }

    /// Begins the name handshake on the socket: sends the own name when the peer's is known, else waits for
    /// it.
    bool start();

    /// Closes the socket. Names and queues stay.
    void stop();

    /// Sends the own name once the socket is connected.
    [[gnu::cold]] bool sendMyName();

    /// Asks the socket for as many bytes as make `size` undecoded ones in the buffer; null stands for a fresh
    /// buffer.
    bool startReceiving(SP_BasicBuffer_ sp_buffer, unsigned int size, ConnectionState_ nextState);

    /// Does all that the socket is ready for: connecting, receiving, sending, reconnecting. `hasMessages`
    /// tells whether blocks wait to be taken. False when the connection is of no further use.
    bool processPollEvents(bool& hasMessages);

    /// Whether nothing but data from the peer makes processPollEvents do anything. Blocks may wait to be
    /// taken.
    bool awaitsOnlyData() const {
        return m_sp_socket && m_sp_socket->awaitsOnlyData() && m_sendQueue.empty() && !m_sp_wholeUnit &&
               (m_connectionState == STATE_RECEIVING_HEADER || m_connectionState == STATE_RECEIVING_PAYLOAD);
    }

    /// Whether processPollEvents, called in this spell, would find nothing and do nothing.
    bool isAtRest(std::uint64_t spell) const {
        return m_sp_socket && m_sp_socket->isAtRest(spell) && awaitsOnlyData();
    }

    /// The oldest received block, header in front, or null when there is none even after looking at the
    /// socket.
    bool receiveEncodedMessage(SP_BasicBuffer_& sp_buffer);

    /// Puts a block back to be taken again before all others.
    void putBackReceived(SP_BasicBuffer_ sp_buffer);

    /// Moves all blocks received and not yet taken to the end of `queue`.
    void moveReceivedTo(BufferQueue_& queue) { queue.splice(queue.end(), m_receivedBuffers); }
    bool hasReceived() const { return !m_receivedBuffers.empty(); }

    /// Queues a whole block, header included, and writes what the socket takes.
    bool sendEncodedMessage(SP_BasicBuffer_ sp_buffer);

    bool sendQueuedBuffers();

    /// Fills one entry or, when there is nothing to wait for, none.
    bool fillPollFd(pollfd* p_pollFd, pollfd*& p_next);

    /// Whether the handshake is done and the stream has not failed.
    bool isFunctional() const;

    /// Whether the own name is still to be sent, so that blocks queued now will follow it.
    bool isStarting() const;

    bool isConnected() const;

    /// Whether its peer has this name.
    bool hasPeer(const Utf8Char_* p_name) const { return m_sp_peerName && *m_sp_peerName == p_name; }

    /// By peer name, null first.
    bool isLess(const VekmsgConnection_* p_connection) const;

    ConnectionState_ state() const { return m_connectionState; }

    // Reconnection, and what is needed when two connections to the same peer meet.

    /// How often a failed socket may be replaced: 4 times for TCP, once for UDP, never for local sockets.
    bool setMaxFailureRetryCount(VekSocketAddress_::AddressType_ type);

    /// Puts a new, connecting socket in place of the failed one, if the budget allows. Each attempt counts.
    [[gnu::cold]] bool reconnectFailedSocket();

    /// Takes over both queues of the other connection, behind the own ones.
    bool mergeQueues(VekmsgConnection_* p_connection);

    /// Exchanges sockets with all that belongs to them; names and queues stay.
    bool swapSockets(VekmsgConnection_* p_connection);

    // Encoding blocks.

    static unsigned int getEncodingBlockHeaderSize() { return 4; }

    /// Stores the low 16 bits of both numbers in the 4 bytes at `p_header`.
    static void writeEncodingBlockHeader(unsigned char* p_header, EncodingBlockType_ type,
                                         unsigned int length);

    /// Returns 4, the bytes consumed.
    static unsigned int readEncodingBlockHeader(const unsigned char* p_header, EncodingBlockType_& type,
                                                unsigned int& length);

    /// Decodes the block header at the decode offset. Always true; a buffer that is too short fails the
    /// connection.
    bool extractEncodingHeader(SP_BasicBuffer_ sp_buffer);

    /// Decodes the payload at the decode offset: `p_payload` points into the buffer, or is null after a
    /// failure, which shows in the state alone.
    bool extractEncodingPayload(SP_BasicBuffer_ sp_buffer, unsigned char*& p_payload);

    /// Makes room for the next block: the same buffer emptied, or a fresh one with the undecoded bytes.
    /// False, with nothing changed, when there is no memory for it.
    bool discardAllDecodedPayload(SP_BasicBuffer_& sp_buffer);

    /// The capacity of every buffer that receives or builds blocks.
    static constexpr unsigned int kBlockBufferSize = VEKMSG_MAX_VALUE_SIZE;

    /// The longest message that fits into such a buffer behind its header.
    static constexpr unsigned int kLongestMessage = kBlockBufferSize - 4;

    /// Blocks begun in one call, and blocks waiting to be taken, at the most: a fast peer must not fill the
    /// memory or keep the caller in one pass.
    static constexpr unsigned int kBlocksPerCall = 256;

protected:
    // The stages of processPollEvents: one received unit, by the state that was waiting for it.
    struct NameHeader_ {};
    struct Name_ {};
    struct Header_ {};
    struct Payload_ {};
    bool processPollEvents(SP_BasicBuffer_& sp_buffer);
    [[gnu::cold]] bool processPollEvents(NameHeader_, SP_BasicBuffer_& sp_buffer);
    [[gnu::cold]] bool processPollEvents(Name_, SP_BasicBuffer_& sp_buffer);
    bool processPollEvents(Header_, SP_BasicBuffer_& sp_buffer);
    bool processPollEvents(Payload_, SP_BasicBuffer_& sp_buffer);

    /// The next received unit, or null when the socket has none ready. False when the pass is over.
    bool takeUnit(SP_BasicBuffer_& sp_buffer, bool& isLastCheck);
    bool mustNotBeginBlock() const;

    /// Whether a block that is handed to the socket may be written. One that is not taken stays with the
    /// caller; where that is for good, the connection has failed.
    bool canWrite() const;
    bool takes(const SP_BasicBuffer_& sp_buffer);

    bool queueReceivedBlock(SP_BasicBuffer_& sp_buffer);

    /// Goes on in a buffer that already holds the next unit whole, else asks the socket for what is missing.
    /// The buffer is the caller's no longer.
    void receiveUnit(SP_BasicBuffer_& sp_buffer, unsigned int size, ConnectionState_ nextState);
    bool isWholeUnitIn(const BasicBuffer_& buffer, unsigned int size, ConnectionState_ nextState) const;
    bool hasPartnersAndBudget() const;

    // Tests derive a class from this one to set up states that the outside cannot bring about.
    SP_Utf8String_ m_sp_myName;
    SP_Utf8String_ m_sp_peerName;
    SP_VekSocket_ m_sp_socket;
    ConnectionState_ m_connectionState = STATE_IDLE;
    EncodingBlockType_ m_blockType = NO_ENCODING_BLOCK;
    unsigned int m_blockLength = 0;
    unsigned int m_decodeOffset = 0;  // bytes at the front of the receive buffer's data that are decoded
    BufferQueue_ m_receivedBuffers;
    BufferQueue_ m_sendQueue;
    unsigned int m_maxFailureRetryCount = 1;
    unsigned int m_failureCount = 0;

    // A receive buffer in which the next unit is whole already: taken up before the socket is asked again,
    // because a receive of no bytes would never complete.
    SP_BasicBuffer_ m_sp_wholeUnit;
    unsigned int m_blocksInCall = 0;  // queued or skipped in the present call of processPollEvents
};

#endif
