#include <algorithm>
#include <cstring>
#include <new>

#include "foundation/big_endian.h"
#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/text_room.h"
#include "message/message_binary.h"
#include "message/ttlv_header.h"

namespace {

constexpr unsigned int kBlockHeaderRoom = 256;    // kept free in front of a message for the block's header
constexpr unsigned int kSmallestCapacity = 1024;  // what a new buffer has at least
constexpr unsigned int kPeerCapacity = 9400;      // the size of the buffers that peers receive into
constexpr unsigned int kEncodingLimit = 0x10000;
constexpr unsigned int kTimeToLiveSize = 4;

/// Text with its NUL, as an item holds it.
unsigned int textSize(const Utf8String_& text) {
    return static_cast<unsigned int>(text.size()) + 1;
}

/// Walks over items, one after another.
class ItemReader_ {
public:
    ItemReader_(const unsigned char* p_bytes, unsigned int length) : m_p_rest(p_bytes), m_remaining(length) {}

    /// False, with the codec's record, when no whole item is left.
    bool next() {
        const unsigned int size =
            VekMessageBinary_::deserializeTtlv(m_p_rest, m_remaining, m_tag, m_type, m_length, m_p_value);
        if (size == 0) return false;
        m_p_rest += size;
        m_remaining -= size;
        m_consumed += size;
        return true;
    }

    VekmsgTag_ tag() const { return m_tag; }
    VekmsgDataType_ type() const { return m_type; }
    unsigned int length() const { return m_length; }
    unsigned int consumed() const { return m_consumed; }

    /// The value up to its first NUL. Peers send the NUL, but nothing makes them.
    void copyText(Utf8String_& text) const {
        assignText(text, m_p_value, strnlen(reinterpret_cast<const char*>(m_p_value), m_length));
    }

    /// Requires a length of 4.
    unsigned int number() const { return load32(m_p_value); }

private:
    const unsigned char* m_p_rest;
    unsigned int m_remaining;
    unsigned int m_consumed = 0;
    VekmsgTag_ m_tag = VEKMSGTAG_ANY;
    VekmsgDataType_ m_type = VEKMSG_UNDEFINED;
    unsigned int m_length = 0;
    const unsigned char* m_p_value = nullptr;
};

/// Writes items one behind another into room that has to be enough.
class ItemWriter_ {
public:
    explicit ItemWriter_(unsigned char* p_room) : m_p_next(p_room) {}

    void append(VekmsgTag_ tag, const Utf8String_& text) {
        const unsigned int length = textSize(text);
        storeTtlvHeader(m_p_next, tag, VEKMSG_STRING, length);
        std::memcpy(m_p_next + kTtlvHeaderSize, text.c_str(), length);
        m_p_next += kTtlvHeaderSize + length;
    }

    void append(VekmsgTag_ tag, unsigned int number) {
        storeTtlvHeader(m_p_next, tag, VEKMSG_UINT, kTimeToLiveSize);
        store32(m_p_next + kTtlvHeaderSize, number);
        m_p_next += kTtlvHeaderSize + kTimeToLiveSize;
    }

private:
    unsigned char* m_p_next;
};

}  // namespace

const VekmsgElementBinary_* VekMessageBinary_::binaryPayload() const {
    return libcpp::castTo<const VekmsgElementBinary_>(m_sp_payload.get());
}

unsigned int VekMessageBinary_::headerSize() const {
    return 4 * kTtlvHeaderSize + kTimeToLiveSize + textSize(m_destination) + textSize(m_source) +
           textSize(m_payloadSchema);
}

unsigned int VekMessageBinary_::getMaxSerializationSize() const {
    const unsigned int header = headerSize();
    // A sum that wraps would pass for the size of a small message.
    return header + std::min(payloadSize(), ~0U - header);
}

unsigned int VekMessageBinary_::payloadSize() const {
    if (!m_sp_payload.isNull()) {
        const VekmsgElementBinary_* p_payload = binaryPayload();
        return p_payload != nullptr ? p_payload->getMaxSerializationSize() : 0;
    }
    return m_sp_rawPayload.isNull() ? 0 : m_sp_rawPayload->dataLength();
}

[[gnu::hot]] unsigned int VekMessageBinary_::serialize(SP_BasicBuffer_& sp_buffer) {
    if (!m_sp_payload.isNull() && !m_sp_rawPayload.isNull()) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serialize() dual payloads");
        return 0;
    }
    if (m_sp_payload.isNull() && m_sp_rawPayload.isNull()) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serialize() null payload");
        return 0;
    }
    const unsigned int size = getMaxSerializationSize();
    unsigned int payloadLength = m_sp_rawPayload.isNull() ? 0 : m_sp_rawPayload->dataLength();
    if (!sp_buffer.isNull()) {
        if (sp_buffer->headerRoom() < size) {
            VEKMSG_LOG_ERROR("Not enough header space %u. Message (%s -> %s) needs %u",
                             sp_buffer->headerRoom(), printable(m_source), printable(m_destination), size);
            return 0;
        }
    } else if (canReuseRawPayload(size)) {
        sp_buffer.swap(m_sp_rawPayload);
    } else if (!serialize(size, sp_buffer)) {
        return 0;
    }
    if (!m_sp_rawPayload.isNull() && !prependRawPayload(*sp_buffer)) return 0;
    if (!m_sp_payload.isNull()) {
        payloadLength = serialize(size, *sp_buffer);
        if (payloadLength == 0) return 0;
    }
    return prependHeader(*sp_buffer) + payloadLength;
}

// A larger message would not pass the limit of the block that carries it, whatever room its buffer has.
bool VekMessageBinary_::canReuseRawPayload(unsigned int size) const {
    return !m_sp_rawPayload.isNull() && size < kEncodingLimit &&
           m_sp_rawPayload->headerRoom() >= size - m_sp_rawPayload->dataLength();
}

[[gnu::hot]] bool VekMessageBinary_::serialize(unsigned int size, SP_BasicBuffer_& sp_buffer) const {
    unsigned int capacity = size + kBlockHeaderRoom;
    if (capacity > kEncodingLimit) {
        VEKMSG_LOG_ERROR("Message (%s -> %s) size %u exceeds the encoding limit", printable(m_source),
                         printable(m_destination), size);
        return false;
    }
    if (capacity > kPeerCapacity)
        VEKMSG_LOG_WARNING("Message (%s -> %s) size %u could be too large for the peer", printable(m_source),
                           printable(m_destination), size);
    capacity = std::max(capacity, kSmallestCapacity);
    sp_buffer = new (std::nothrow) BasicBuffer_(capacity);
    if (sp_buffer.isNull()) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serialize() Can't create basicBuffer_");
        return false;
    }
    if (sp_buffer->capacity() == 0) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serialize() can't allocate basicBuffer");
        return false;
    }
    sp_buffer->setDataArea(sp_buffer->capacity(), 0);
    // Reached when the capacity wrapped to a small number: an element that is shared many times makes that.
    if (size > sp_buffer->headerRoom()) {
        VEKMSG_LOG_ERROR("Message (%s -> %s) size %u exceeds %u", printable(m_source),
                         printable(m_destination), size, sp_buffer->headerRoom());
        return false;
    }
    return true;
}

// The raw payload may lie in this very buffer: its place is taken before the data grows.
bool VekMessageBinary_::prependRawPayload(BasicBuffer_& buffer) const {
    const unsigned char* p_payload = m_sp_rawPayload->data();
    const unsigned int length = m_sp_rawPayload->dataLength();
    if (!buffer.extendDataIntoHeader(static_cast<int>(length))) return false;
    if (length != 0) std::memcpy(buffer.data(), p_payload, length);
    return true;
}

[[gnu::hot]] unsigned int VekMessageBinary_::serialize(unsigned int size, BasicBuffer_& buffer) const {
    const VekmsgElementBinary_* p_payload = binaryPayload();
    if (p_payload == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::serialize() invalid vekMessageBinary_");
        return 0;
    }
    const unsigned int written = p_payload->serialize(buffer.data(), buffer.headerRoom());
    if (written == 0) {
        VEKMSG_LOG_ERROR("Serialization of Message (%s -> %s) of %u bytes failed. Free space %u",
                         printable(m_source), printable(m_destination), size, buffer.headerRoom());
        return 0;
    }
    buffer.extendDataIntoHeader(static_cast<int>(written));
    return written;
}

[[gnu::hot]] unsigned int VekMessageBinary_::prependHeader(BasicBuffer_& buffer) const {
    const unsigned int size = headerSize();
    buffer.extendDataIntoHeader(static_cast<int>(size));
    ItemWriter_ items(buffer.data());
    items.append(VEKMSGTAG_DESTINATION_NAME, m_destination);
    items.append(VEKMSGTAG_SOURCE_NAME, m_source);
    items.append(VEKMSGTAG_TIME_TO_LIVE, m_timeToLive);
    items.append(VEKMSGTAG_SCHEMA_URI, m_payloadSchema);
    return size;
}

[[gnu::hot]] unsigned int VekMessageBinary_::deserialize(SP_BasicBuffer_ sp_buffer) try {
    if (sp_buffer.isNull()) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::deserialize() null sp_buffer");
        return 0;
    }
    m_sp_payload.reset();
    m_sp_rawPayload.reset();
    const unsigned int length = sp_buffer->dataLength();
    const unsigned int headerLength = deserialize(sp_buffer->data(), length);
    if (headerLength == 0) return 0;
    sp_buffer->extendDataIntoHeader(-static_cast<int>(headerLength));
    m_sp_rawPayload.swap(sp_buffer);
    return length;
}
VEKMSG_RETURN_ON_EXCEPTION(0)

[[gnu::hot]] unsigned int VekMessageBinary_::deserialize(const unsigned char* p_bytes, unsigned int length) {
    ItemReader_ item(p_bytes, length);
    if (!item.next()) return 0;
    if (item.tag() != VEKMSGTAG_DESTINATION_NAME) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::deserialize() Expecting VEKMSGTAG_DESTINATION_NAME got %d",
                         item.tag());
        return 0;
    }
    if (item.type() != VEKMSG_STRING) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::deserialize(VEKMSGTAG_DESTINATION_NAME) Expecting VEKMSG_STRING got %d",
            item.type());
        return 0;
    }
    item.copyText(m_destination);

    if (!item.next()) return 0;
    if (item.tag() != VEKMSGTAG_SOURCE_NAME) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::deserialize() Expecting VEKMSGTAG_SOURCE_NAME got %d dest %s",
                         item.tag(), printable(m_destination));
        return 0;
    }
    if (item.type() != VEKMSG_STRING) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::deserialize(VEKMSGTAG_SOURCE_NAME) Expecting VEKMSG_STRING got %d dest %s",
            item.type(), printable(m_destination));
        return 0;
    }
    item.copyText(m_source);

    if (!item.next()) return 0;
    if (item.tag() != VEKMSGTAG_TIME_TO_LIVE) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_TIME_TO_LIVE got %d dest %s src %s",
            item.tag(), printable(m_destination), printable(m_source));
        return 0;
    }
    if (item.type() != VEKMSG_UINT) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) Expecting VEKMSG_UINT got %d dest %s src "
            "%s",
            item.type(), printable(m_destination), printable(m_source));
        return 0;
    }
    if (item.length() != kTimeToLiveSize) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) invalid length %d dest %s src %s",
            item.length(), printable(m_destination), printable(m_source));
        return 0;
    }
    m_timeToLive = item.number();

    if (!item.next()) return 0;
    if (item.tag() != VEKMSGTAG_SCHEMA_URI) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::deserialize() Expecting VEKMSGTAG_SCHEMA_URI got %d dest %s src %s",
            item.tag(), printable(m_destination), printable(m_source));
        return 0;
    }
    if (item.type() != VEKMSG_STRING) {
        VEKMSG_LOG_ERROR(
            "VekMessageBinary_::deserialize(VEKMSGTAG_SCHEMA_URI) Expecting VEKMSG_STRING got %d dest %s src "
            "%s",
            item.type(), printable(m_destination), printable(m_source));
        return 0;
    }
    item.copyText(m_payloadSchema);
    return item.consumed();
}
