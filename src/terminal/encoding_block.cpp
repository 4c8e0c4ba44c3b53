// How bytes on a stream are cut into blocks and taken out of a receive buffer.
//
//     block = type:2 length:2 payload:length        (big-endian, back to back, nothing between them)

#include <cstring>

#include "foundation/big_endian.h"
#include "foundation/log_record.h"
#include "terminal/connection.h"

void VekmsgConnection_::writeEncodingBlockHeader(unsigned char* p_header, EncodingBlockType_ type,
                                                 unsigned int length) {
    store16(p_header, type);
    store16(p_header + 2, length);
}

unsigned int VekmsgConnection_::readEncodingBlockHeader(const unsigned char* p_header,
                                                        EncodingBlockType_& type, unsigned int& length) {
    type = static_cast<EncodingBlockType_>(load16(p_header));
    length = load16(p_header + 2);
    return getEncodingBlockHeaderSize();
}

[[gnu::hot]] bool VekmsgConnection_::extractEncodingHeader(SP_BasicBuffer_ sp_buffer) {
    const unsigned int dataLength = sp_buffer->dataLength();
    if (m_decodeOffset > dataLength) {
        VEKMSG_LOG_ERROR(
            "VekmsgConnection_::extractEncodingHeader() data length %d is shorter than decode offset %d",
            dataLength, m_decodeOffset);
        m_connectionState = STATE_FAILED;
    } else if (dataLength - m_decodeOffset < getEncodingBlockHeaderSize()) {
        VEKMSG_LOG_ERROR(
            "VekmsgConnection_::extractEncodingHeader() data length %d is too short for encoding header",
            dataLength - m_decodeOffset);
        m_connectionState = STATE_FAILED;
    } else {
        m_decodeOffset +=
            readEncodingBlockHeader(sp_buffer->data() + m_decodeOffset, m_blockType, m_blockLength);
    }
    return true;
}

[[gnu::hot]] bool VekmsgConnection_::extractEncodingPayload(SP_BasicBuffer_ sp_buffer,
                                                            unsigned char*& p_payload) {
    p_payload = nullptr;
    const unsigned int dataLength = sp_buffer->dataLength();
    if (dataLength < m_decodeOffset) {
        VEKMSG_LOG_ERROR(
            "VekmsgConnection_::extractEncodingPayload() data length %d is shorter than decode offset %d",
            dataLength, m_decodeOffset);
        m_connectionState = STATE_FAILED;
    } else if (dataLength - m_decodeOffset < m_blockLength) {
        VEKMSG_LOG_ERROR(
            "VekmsgConnection_::extractEncodingPayload() data length %d is shorter than the expected payload "
            "%d",
            dataLength - m_decodeOffset, m_blockLength);
        m_connectionState = STATE_FAILED;
    } else {
        p_payload = sp_buffer->data() + m_decodeOffset;
        m_decodeOffset += m_blockLength;
    }
    return true;
}

[[gnu::hot]] bool VekmsgConnection_::discardAllDecodedPayload(SP_BasicBuffer_& sp_buffer) {
    if (sp_buffer && m_decodeOffset >= sp_buffer->dataLength()) {
        sp_buffer->setDataArea(0, 0);
        m_decodeOffset = 0;
        return true;
    }
    SP_BasicBuffer_ sp_fresh(new (std::nothrow) BasicBuffer_(kBlockBufferSize));
    if (!sp_fresh) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::discardAllDecodedPayload() Can't create basicBuffer_");
        return false;
    }
    if (sp_fresh->capacity() == 0) {
        VEKMSG_LOG_ERROR("VekmsgConnection_::discardAllDecodedPayload() can't allocate basicBuffer");
        return false;
    }
    if (sp_buffer) {
        const unsigned int undecoded = sp_buffer->dataLength() - m_decodeOffset;
        if (undecoded > sp_fresh->trailerRoom()) return false;
        std::memcpy(sp_fresh->data(), sp_buffer->data() + m_decodeOffset, undecoded);
        sp_fresh->extendDataIntoTrailer(static_cast<int>(undecoded));
    }
    m_decodeOffset = 0;
    sp_buffer = sp_fresh;
    return true;
}
