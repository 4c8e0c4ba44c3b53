#include <cstring>

#include "foundation/log_record.h"
#include "message/message_binary.h"
#include "message/ttlv_header.h"

// Everything inside a message is built of one kind of item. Numbers are big-endian.
//
//     message := destination source time-to-live schema payload
//     payload := element                         up to the end: it has no length of its own
//     element := outer(tag, type 0) content      the outer value is the content item
//     content := item(tag 0, real type)
//     item    := tag:2 type:2 length:2 value:length
//     value   := element*                        complex
//              | number:4                        uint; 1 to 3 bytes are read too
//              | text NUL                        string
//              | byte*                           binary

unsigned int VekMessageBinary_::getTtlvHeaderSize() {
    return kTtlvHeaderSize;
}

unsigned int VekMessageBinary_::serializeTtlvHeader(unsigned char* p_endOfFreespace,
                                                    unsigned int freespaceSize, VekmsgTag_ tag,
                                                    VekmsgDataType_ type, unsigned int length) {
    if (p_endOfFreespace == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serializeTlvHeader() null p_endOfFreespace");
        return 0;
    }
    if (freespaceSize < kTtlvHeaderSize) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::serializeTlvHeader() freespaceSize %u is too short for TLV header of (%u, "
            "%u, %u)",
            freespaceSize, tag, type, length);
        return 0;
    }
    storeTtlvHeader(p_endOfFreespace - kTtlvHeaderSize, tag, type, length);
    return kTtlvHeaderSize;
}

unsigned int VekMessageBinary_::serializeTtlv(unsigned char* p_endOfFreespace, unsigned int freespaceSize,
                                              VekmsgTag_ tag, VekmsgDataType_ type, unsigned int length,
                                              const unsigned char* p_value) {
    if (p_endOfFreespace == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serializeTlv() null p_endOfFreespace");
        return 0;
    }
    if (p_value == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serializeTlv() null p_value");
        return 0;
    }
    if (freespaceSize < length) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serializeTlv() freespaceSize %d is too short for data length %d",
                         freespaceSize, length);
        return 0;
    }
    unsigned char* p_start = p_endOfFreespace - length;
    std::memcpy(p_start, p_value, length);
    if (serializeTtlvHeader(p_start, freespaceSize - length, tag, type, length) == 0) return 0;
    return kTtlvHeaderSize + length;
}

unsigned int VekMessageBinary_::deserializeTtlvHeader(const unsigned char* p_bytestream,
                                                      unsigned int bytestreamLength, VekmsgTag_& tag,
                                                      VekmsgDataType_& type, unsigned int& length) {
    tag = VEKMSGTAG_ANY;
    type = VEKMSG_UNDEFINED;
    length = 0;
    if (p_bytestream == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::deserializeTtlvHeader() null p_bytestream");
        return 0;
    }
    if (bytestreamLength < kTtlvHeaderSize) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::deserializeTtlvHeader() bytestreamLength %d is too short",
                         bytestreamLength);
        return 0;
    }
    tag = load16(p_bytestream);
    type = static_cast<VekmsgDataType_>(load16(p_bytestream + 2));
    length = load16(p_bytestream + 4);
    return kTtlvHeaderSize;
}

[[gnu::hot]] unsigned int VekMessageBinary_::deserializeTtlv(const unsigned char* p_bytestream,
                                                             unsigned int bytestreamLength, VekmsgTag_& tag,
                                                             VekmsgDataType_& type, unsigned int& length,
                                                             const unsigned char*& p_value) {
    tag = VEKMSGTAG_ANY;
    p_value = nullptr;
    length = 0;
    type = VEKMSG_UNDEFINED;
    if (p_bytestream == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::deserializeTtlv() null p_bytestream");
        return 0;
    }
    if (deserializeTtlvHeader(p_bytestream, bytestreamLength, tag, type, length) == 0) return 0;
    const unsigned int remaining = bytestreamLength - kTtlvHeaderSize;
    if (remaining < length) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::deserializeTtlv() data length %d is too large for remaining stream %d",
            length, remaining);
        return 0;
    }
    p_value = p_bytestream + kTtlvHeaderSize;
    return kTtlvHeaderSize + length;
}

bool VekMessageBinary_::isValidTtlv(const unsigned char* p_bytestream, unsigned int bytestreamLength) {
    return p_bytestream != nullptr && bytestreamLength >= kTtlvHeaderSize &&
           load16(p_bytestream + 4) <= bytestreamLength - kTtlvHeaderSize;
}
