#include "terminal/connection.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/log_record.h"
#include "foundation/utf8_name.h"

[[gnu::hot]] VekmsgConnection_::VekmsgConnection_() = default;
[[gnu::hot]] VekmsgConnection_::~VekmsgConnection_() = default;

bool VekmsgConnection_::setMyName(SP_Utf8String_ sp_myName) {
    if (!sp_myName) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::setMyName() null sp_myName");
        return false;
    }
    m_sp_myName = std::move(sp_myName);
    return true;
}

bool VekmsgConnection_::setPeerName(SP_Utf8String_ sp_peerName) {
    m_sp_peerName = std::move(sp_peerName);
    return true;
}

bool VekmsgConnection_::setSocket(SP_VekSocket_ sp_socket) {
    m_sp_socket = std::move(sp_socket);
    if (m_sp_socket) m_sp_socket->forgetQuiet();
    m_connectionState = STATE_IDLE;
    m_blockType = NO_ENCODING_BLOCK;
    m_blockLength = 0;
    m_decodeOffset = 0;
    m_sp_wholeUnit.reset();
    return true;
}

bool VekmsgConnection_::getSocket(SP_VekSocket_& sp_socket) const {
    if (!m_sp_socket) return false;
    sp_socket = m_sp_socket;
    return true;
}

bool VekmsgConnection_::start() {
    if (!m_sp_socket) {
        VEKMSG_LOG_DEBUG("VekmsgConnection_::start() Can't start without a socket");
        return false;
    }
    if (!m_sp_myName) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::start() Can't start without myName");
        return false;
    }
    m_blockType = NO_ENCODING_BLOCK;
    m_blockLength = 0;
    if (m_sp_peerName) return sendMyName();
    return startReceiving(SP_BasicBuffer_(), getEncodingBlockHeaderSize(), STATE_RECEIVING_NAME_HEADER);
}

void VekmsgConnection_::stop() {
    if (m_sp_socket) m_sp_socket->cleanUp();
    m_sp_wholeUnit.reset();
    m_connectionState = STATE_IDLE;
}

bool VekmsgConnection_::sendMyName() {
    m_connectionState = STATE_SENDING_NAME;
    if (!m_sp_socket || !m_sp_socket->isConnected()) return true;

    const unsigned int headerSize = getEncodingBlockHeaderSize();
    const auto length =
        static_cast<unsigned int>(std::min<std::size_t>(m_sp_myName->size() + 1, kBlockBufferSize));
    // The longest names need a few bytes more than the usual buffer.
    SP_BasicBuffer_ sp_buffer(new (std::nothrow)
                                  BasicBuffer_(std::max(kBlockBufferSize, headerSize + length)));
    if (!sp_buffer) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::sendMyName() Can't create basicBuffer_");
        return false;
    }
    if (sp_buffer->capacity() == 0) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::sendMyName() can't allocate basicBuffer");
        return false;
    }
    sp_buffer->setDataArea(0, headerSize + length);
    writeEncodingBlockHeader(sp_buffer->data(), VEK_COMPONENT_NAME, length);
    // What follows a NUL inside the name stays here.
    std::strncpy(reinterpret_cast<char*>(sp_buffer->data()) + headerSize, printable(m_sp_myName), length);
    sp_buffer->data()[headerSize + length - 1] = 0;

    switch (m_sp_socket->send(sp_buffer)) {
        case VekSocket_::SEND_OK:
            return startReceiving(SP_BasicBuffer_(), getEncodingBlockHeaderSize(), STATE_RECEIVING_HEADER);
        case VekSocket_::SEND_BUSY:
            VEKMSG_LOG_ERROR("VekmsgConnection_::sendMyName() socket is too busy to send myName");
            break;
        default:
            break;
    }
    m_connectionState = STATE_FAILED;
    return true;
}

[[gnu::hot]] bool VekmsgConnection_::startReceiving(SP_BasicBuffer_ sp_buffer, unsigned int size,
                                                    ConnectionState_ nextState) {
    if (m_connectionState == STATE_FAILED) return true;
    if (!sp_buffer) {
        sp_buffer = new (std::nothrow) BasicBuffer_(kBlockBufferSize);
        if (!sp_buffer) {
            VEKMSG_LOG_ERROR("VekmsgConnection_::startReceiving() Can't create basicBuffer_");
            return false;
        }
        if (sp_buffer->capacity() == 0) {
            VEKMSG_LOG_ERROR("VekmsgConnection_::startReceiving() can't allocate basicBuffer");
            return false;
        }
        m_decodeOffset = 0;
    }
    const unsigned int unread = sp_buffer->dataLength() - m_decodeOffset;
    const unsigned int request = size > unread ? size - unread : 0;
    m_sp_socket->receive(request, std::move(sp_buffer));
    m_connectionState = nextState;
    return true;
}

[[gnu::hot]] bool VekmsgConnection_::processPollEvents(bool& hasMessages) try {
    hasMessages = false;
    if (!m_sp_socket) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::processPollEvents() Can't process without a socket");
        return false;
    }
    m_blocksInCall = 0;
    bool isLastCheck = false;
    SP_BasicBuffer_ sp_buffer;
    while (takeUnit(sp_buffer, isLastCheck)) {
        if (m_connectionState == STATE_SENDING_NAME) {
            if (!sendMyName()) return false;
            if (m_connectionState == STATE_SENDING_NAME) {
                if (sp_buffer)
                    VEKMSG_LOG_WARNING("Received %u bytes of data while connecting %s to %s. Dropped",
                                       sp_buffer->dataLength(), printable(m_sp_myName),
                                       printable(m_sp_peerName));
                return true;
            }
        }
        if (!sp_buffer) break;
        if (!processPollEvents(sp_buffer)) return false;
    }
    // The name is sent by now: this asks for no memory and cannot fail.
    if (!m_sendQueue.empty()) sendQueuedBuffers();
    if (m_connectionState == STATE_FAILED && !m_sendQueue.empty() && !reconnectFailedSocket()) return false;
    hasMessages = hasReceived();
    return m_connectionState != STATE_FAILED && m_connectionState != STATE_IDLE;
} catch (...) {
    m_connectionState = STATE_FAILED;
    throw;
}

bool VekmsgConnection_::takeUnit(SP_BasicBuffer_& sp_buffer, bool& isLastCheck) {
    sp_buffer.reset();
    if (m_connectionState == STATE_FAILED || isLastCheck) return false;
    if (mustNotBeginBlock()) {
        // A pending write goes on only inside a check, so that one is made although no block may begin.
        if (m_sp_wholeUnit || !m_sp_socket->isSendDataPending()) return false;
        isLastCheck = true;
    }
    sp_buffer.swap(m_sp_wholeUnit);
    if (sp_buffer || m_sp_socket->check(sp_buffer)) return true;
    m_connectionState = STATE_FAILED;
    return false;
}

bool VekmsgConnection_::mustNotBeginBlock() const {
    return m_connectionState == STATE_RECEIVING_HEADER &&
           (m_blocksInCall >= kBlocksPerCall || m_receivedBuffers.size() >= kBlocksPerCall);
}

bool VekmsgConnection_::processPollEvents(SP_BasicBuffer_& sp_buffer) {
    switch (m_connectionState) {
        case STATE_RECEIVING_NAME_HEADER:
            return processPollEvents(NameHeader_(), sp_buffer);
        case STATE_RECEIVING_NAME:
            return processPollEvents(Name_(), sp_buffer);
        case STATE_RECEIVING_HEADER:
            return processPollEvents(Header_(), sp_buffer);
        case STATE_RECEIVING_PAYLOAD:
            if (processPollEvents(Payload_(), sp_buffer)) return true;
            // No receive is armed. Should memory be too short to keep the blocks and give the connection up,
            // the next turn has to find it failed, not a stream that is announced and never read.
            m_connectionState = STATE_FAILED;
            return false;
        case STATE_FAILED:
            return true;
        default:
            VEKMSG_LOG_ERROR("VekmsgConnection_::processPollEvents() invalid m_connectionState %d",
                             m_connectionState);
            return false;
    }
}

bool VekmsgConnection_::processPollEvents(NameHeader_, SP_BasicBuffer_& sp_buffer) {
    extractEncodingHeader(sp_buffer);
    if (m_connectionState == STATE_FAILED) return true;
    if (m_blockType != VEK_COMPONENT_NAME) {
        VEKMSG_LOG_WARNING("%s is expecting VEK_COMPONENT_NAME. Got %d, length %u", printable(m_sp_myName),
                           m_blockType, m_blockLength);
        m_connectionState = STATE_FAILED;
        return true;
    }
    if (m_blockLength > kBlockBufferSize) {
        VEKMSG_LOG_ERROR(
            "VekmsgConnection_::processPollEvents() of %s is getting VEK_COMPONENT_NAME length %d",
            printable(m_sp_myName), m_blockLength);
        m_connectionState = STATE_FAILED;
        return true;
    }
    receiveUnit(sp_buffer, m_blockLength, STATE_RECEIVING_NAME);
    return true;
}

bool VekmsgConnection_::processPollEvents(Name_, SP_BasicBuffer_& sp_buffer) {
    unsigned char* p_payload = nullptr;
    extractEncodingPayload(sp_buffer, p_payload);
    if (m_connectionState == STATE_FAILED) return true;
    if (m_blockType != VEK_COMPONENT_NAME) {
        if (!discardAllDecodedPayload(sp_buffer)) return false;
        receiveUnit(sp_buffer, getEncodingBlockHeaderSize(), STATE_RECEIVING_NAME_HEADER);
        return true;
    }
    if (m_blockLength > kBlockBufferSize) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::processPollEvents() of %s got VEK_COMPONENT_NAME length %d",
                         printable(m_sp_myName), m_blockLength);
        return false;
    }
    if (m_blockLength > 1) p_payload[m_blockLength - 1] = 0;
    m_sp_peerName = m_blockLength > 1 ? createUtf8String(p_payload) : createUtf8String();
    if (!m_sp_peerName) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::processPollEvents() can't create Utf8String_");
        return false;
    }
    // The size asked for next is that of the name and not that of a header: peers have always been read like
    // this.
    if (!discardAllDecodedPayload(sp_buffer)) return false;
    receiveUnit(sp_buffer, m_blockLength, STATE_RECEIVING_HEADER);
    return true;
}

[[gnu::hot]] bool VekmsgConnection_::processPollEvents(Header_, SP_BasicBuffer_& sp_buffer) {
    extractEncodingHeader(sp_buffer);
    if (m_connectionState == STATE_FAILED) return true;
    const bool isTooLong = m_blockLength > kLongestMessage;
    if (m_blockType == BINARY_ENCODED_MESSAGE) {
        if (isTooLong)
            VEKMSG_LOG_ERROR("connection %s to %s received BINARY_ENCODED_MESSAGE of %u (too long)",
                             printable(m_sp_myName), printable(m_sp_peerName), m_blockLength);
    } else if (isTooLong) {
        VEKMSG_LOG_ERROR(
            "Connection %s to %s is expecing BINARY_ENCODED_MESSAGE but got %d of length %u. Failed",
            printable(m_sp_myName), printable(m_sp_peerName), m_blockType, m_blockLength);
    } else {
        VEKMSG_LOG_WARNING(
            "Connection %s to %s expecting BINARY_ENCODED_MESSAGE but got %d, length %u. Skipping the block",
            printable(m_sp_myName), printable(m_sp_peerName), m_blockType, m_blockLength);
    }
    if (isTooLong) m_connectionState = STATE_FAILED;
    receiveUnit(sp_buffer, m_blockLength, STATE_RECEIVING_PAYLOAD);
    return true;
}

[[gnu::hot]] bool VekmsgConnection_::processPollEvents(Payload_, SP_BasicBuffer_& sp_buffer) {
    unsigned char* p_payload = nullptr;
    extractEncodingPayload(sp_buffer, p_payload);
    if (m_connectionState == STATE_FAILED) return true;
    ++m_blocksInCall;
    if (m_blockType == BINARY_ENCODED_MESSAGE) {
        if (!queueReceivedBlock(sp_buffer)) return false;
    } else {
        VEKMSG_LOG_WARNING("Connection %s to %s dropped encoding block type %d", printable(m_sp_myName),
                           printable(m_sp_peerName), m_blockType);
        if (!discardAllDecodedPayload(sp_buffer)) return false;
    }
    receiveUnit(sp_buffer, getEncodingBlockHeaderSize(), STATE_RECEIVING_HEADER);
    return true;
}

[[gnu::hot]] bool VekmsgConnection_::queueReceivedBlock(SP_BasicBuffer_& sp_buffer) {
    const unsigned int blockSize = m_decodeOffset;
    if (blockSize == sp_buffer->dataLength()) {
        m_receivedBuffers.push_back(std::move(sp_buffer));
        return discardAllDecodedPayload(sp_buffer);
    }
    // Bytes of the next block follow: they move to a buffer of their own, and the block keeps only itself.
    const SP_BasicBuffer_ sp_block = sp_buffer;
    m_receivedBuffers.push_back(sp_block);
    const bool isMoved = discardAllDecodedPayload(sp_buffer);
    sp_block->setDataArea(sp_block->dataOffset(), blockSize);
    return isMoved;
}

[[gnu::hot]] void VekmsgConnection_::receiveUnit(SP_BasicBuffer_& sp_buffer, unsigned int size,
                                                 ConnectionState_ nextState) {
    if (m_connectionState != STATE_FAILED && isWholeUnitIn(*sp_buffer, size, nextState)) {
        m_sp_wholeUnit = std::move(sp_buffer);
        m_connectionState = nextState;
    } else {
        startReceiving(std::move(sp_buffer), size, nextState);
    }
}

bool VekmsgConnection_::isWholeUnitIn(const BasicBuffer_& buffer, unsigned int size,
                                      ConnectionState_ nextState) const {
    const unsigned int unread = buffer.dataLength() - m_decodeOffset;
    const bool isPayload = nextState == STATE_RECEIVING_NAME || nextState == STATE_RECEIVING_PAYLOAD;
    return unread >= size && (isPayload || unread >= getEncodingBlockHeaderSize());
}

[[gnu::hot]] bool VekmsgConnection_::receiveEncodedMessage(SP_BasicBuffer_& sp_buffer) {
    sp_buffer.reset();
    bool hasMessages = hasReceived();
    if (!hasMessages && !processPollEvents(hasMessages)) return false;
    if (!hasReceived()) return true;
    sp_buffer.swap(m_receivedBuffers.front());
    m_receivedBuffers.pop_front();
    return true;
}

void VekmsgConnection_::putBackReceived(SP_BasicBuffer_ sp_buffer) try {
    m_receivedBuffers.push_front(std::move(sp_buffer));
} catch (...) {
    m_connectionState = STATE_FAILED;
    throw;
}

[[gnu::hot]] bool VekmsgConnection_::sendEncodedMessage(SP_BasicBuffer_ sp_buffer) try {
    const bool isNext = m_sendQueue.empty() && m_connectionState != STATE_SENDING_NAME && canWrite();
    if (isNext && takes(sp_buffer)) return true;
    m_sendQueue.push_back(std::move(sp_buffer));
    if (!sendQueuedBuffers()) return false;
    return m_connectionState != STATE_FAILED || reconnectFailedSocket();
} catch (...) {
    m_connectionState = STATE_FAILED;
    throw;
}

[[gnu::hot]] bool VekmsgConnection_::sendQueuedBuffers() {
    if (m_connectionState == STATE_SENDING_NAME) {
        if (!sendMyName()) return false;
        if (m_connectionState == STATE_SENDING_NAME) return true;
    }
    if (!canWrite()) return true;
    while (!m_sendQueue.empty() && takes(m_sendQueue.front())) m_sendQueue.pop_front();
    return true;
}

bool VekmsgConnection_::canWrite() const {
    return m_connectionState != STATE_FAILED && m_sp_socket && !m_sp_socket->isSendDataPending();
}

[[gnu::hot]] bool VekmsgConnection_::takes(const SP_BasicBuffer_& sp_buffer) {
    const VekSocket_::SendResult_ result = m_sp_socket->send(sp_buffer);
    if (result == VekSocket_::SEND_FAILED) m_connectionState = STATE_FAILED;
    return result == VekSocket_::SEND_OK;
}

bool VekmsgConnection_::fillPollFd(pollfd* p_pollFd, pollfd*& p_next) {
    p_next = p_pollFd;
    if (!m_sp_socket || m_connectionState == STATE_IDLE || m_connectionState == STATE_FAILED) return true;
    // With a unit in hand there is work that no event will announce: a writable socket ends the wait at once.
    const bool wantWrite = !m_sendQueue.empty() || m_sp_wholeUnit;
    if (!m_sp_socket->fillPollFd(wantWrite, p_pollFd, p_next)) m_connectionState = STATE_FAILED;
    return true;
}

bool VekmsgConnection_::isFunctional() const {
    return hasPartnersAndBudget() &&
           (m_connectionState == STATE_RECEIVING_HEADER || m_connectionState == STATE_RECEIVING_PAYLOAD);
}

bool VekmsgConnection_::isStarting() const {
    return hasPartnersAndBudget() && m_connectionState == STATE_SENDING_NAME;
}

bool VekmsgConnection_::hasPartnersAndBudget() const {
    return m_sp_socket && m_sp_myName && m_sp_peerName && m_failureCount <= m_maxFailureRetryCount;
}

bool VekmsgConnection_::isConnected() const {
    return isFunctional() && m_sp_socket->isConnected();
}

[[gnu::hot]] bool VekmsgConnection_::isLess(const VekmsgConnection_* p_connection) const {
    if (p_connection == nullptr || !p_connection->m_sp_peerName) return false;
    return !m_sp_peerName || *m_sp_peerName < *p_connection->m_sp_peerName;
}
