#ifndef VEKMSG_MESSAGE_MESSAGE_BINARY_H
#define VEKMSG_MESSAGE_MESSAGE_BINARY_H

#include "foundation/free_list.h"
#include "message/element_binary.h"
#include "vekmsg/message.h"

class VekMessageBinary_;
using SP_VekMessageBinary_ = SmartPointer_<VekMessageBinary_>;

/// The library's message, with its encoded form: four header items, then the payload up to the end.
///
///     tag 1 destination   tag 2 source   tag 3 time-to-live   tag 4 schema   payload: one element
///
/// This folder knows nothing of sockets, blocks or terminals: it turns messages into bytes in a buffer and
/// back.
class VekMessageBinary_ : public VekMessage_, public libcpp::FromFreeList_<VekMessageBinary_, 256> {
public:
    VekMessageBinary_();
    ~VekMessageBinary_() override;

    void addRef() final { BasicObject_::addRef(); }
    void removeRef() final { BasicObject_::removeRef(); }

    bool setDestination(const Utf8Char_* p_destinationName) override;
    const Utf8Char_* getDestination() const override;
    bool setSource(const Utf8Char_* p_sourceName) override;
    const Utf8Char_* getSource() const override;
    bool swapSourceDestination() override;
    bool setTimeToLive(unsigned int timeToLive) override;
    unsigned int getTimeToLive() const override;
    bool setPayloadSchema(const Utf8Char_* p_schema, SchemaType_ schemaType) override;
    const Utf8Char_* getPayloadSchema() const override;
    SchemaType_ getPayloadSchemaType() const override;
    bool hasGoodPayload() const override;
    SP_VekmsgElement_ getPayload() override;
    SP_BasicBuffer_ getRawPayload() const override;
    bool setPayload(SP_VekmsgElement_ sp_payload) override;
    bool setRawPayload(SP_BasicBuffer_ sp_rawPayload) override;
    SP_VekmsgElement_ createElement(VekmsgTag_ tag) const override;
    bool print(std::ostream* p_stream, unsigned int indent) const override;

    /// Makes the elements of `p_message`, which is not dereferenced: it may be gone. Null with a record when
    /// memory is short.
    static SP_VekmsgElement_ createElement(VekmsgTag_ tag, const VekMessageBinary_* p_message) {
        auto* p_element = new (std::nothrow) VekmsgElementBinary_(tag, p_message);
        return p_element != nullptr ? SP_VekmsgElement_(p_element) : createElement(NoMemory_());
    }

    /// The exact size of the encoded form, or the largest number when there is none for it; a payload of a
    /// foreign class counts as nothing.
    unsigned int getMaxSerializationSize() const;

    /// Encodes the message in front of the buffer's data. A null `sp_buffer` becomes the raw payload's own
    /// when that has the room (the message then gives it away), or else a new one with room for a block
    /// header in front. The length of the message, now at the start of the data area, or 0 with a record; the
    /// buffer is then undefined.
    unsigned int serialize(SP_BasicBuffer_& sp_buffer);

    /// Reads the header items and keeps the buffer, cut to the payload, as the raw payload. The data length
    /// that the buffer had, or 0 with a record; fields read so far are then changed.
    unsigned int deserialize(SP_BasicBuffer_ sp_buffer);

    // The codec of one item: tag, type and length as 16-bit big-endian numbers, then the value. These work on
    // the caller's bytes, allocate nothing, and return 0 with a record where they fail.

    static unsigned int getTtlvHeaderSize();

    /// Writes the header into the 6 bytes directly before `p_endOfFreespace`; only low 16 bits are stored.
    /// Returns 6.
    static unsigned int serializeTtlvHeader(unsigned char* p_endOfFreespace, unsigned int freespaceSize,
                                            VekmsgTag_ tag, VekmsgDataType_ type, unsigned int length);

    /// Writes value and header so that they end directly before `p_endOfFreespace`. Returns 6 + length.
    static unsigned int serializeTtlv(unsigned char* p_endOfFreespace, unsigned int freespaceSize,
                                      VekmsgTag_ tag, VekmsgDataType_ type, unsigned int length,
                                      const unsigned char* p_value);

    static unsigned int deserializeTtlvHeader(const unsigned char* p_bytestream,
                                              unsigned int bytestreamLength, VekmsgTag_& tag,
                                              VekmsgDataType_& type, unsigned int& length);

    /// `p_value` points into the caller's bytes. Returns 6 + length.
    static unsigned int deserializeTtlv(const unsigned char* p_bytestream, unsigned int bytestreamLength,
                                        VekmsgTag_& tag, VekmsgDataType_& type, unsigned int& length,
                                        const unsigned char*& p_value);

    /// Whether the first item is whole. Writes no record.
    static bool isValidTtlv(const unsigned char* p_bytestream, unsigned int bytestreamLength);

    /// Writes `indent` tabs. False when the stream is null.
    static bool printIndents(std::ostream* p_stream, unsigned int indent);

private:
    struct NoMemory_ {};

    static SP_VekmsgElement_ createElement(NoMemory_);

    /// The payload, or null when it is of a foreign class.
    const VekmsgElementBinary_* binaryPayload() const;
    unsigned int headerSize() const;
    unsigned int payloadSize() const;

    bool canReuseRawPayload(unsigned int size) const;

    // The stages of encoding a message of `size` bytes: a new buffer, then from the end to the start the raw
    // payload or the tree, and the header items. Each puts its bytes in front of the data.
    bool serialize(unsigned int size, SP_BasicBuffer_& sp_buffer) const;
    bool prependRawPayload(BasicBuffer_& buffer) const;
    unsigned int serialize(unsigned int size, BasicBuffer_& buffer) const;
    unsigned int prependHeader(BasicBuffer_& buffer) const;

    /// Reads the header items. Their size, or 0 with a record.
    unsigned int deserialize(const unsigned char* p_bytes, unsigned int length);

    bool printMessage(std::ostream& stream, unsigned int indent) const;
    void printPayloadSchema(std::ostream& stream, unsigned int indent) const;
    bool printPayload(std::ostream& stream, unsigned int indent) const;

    Utf8String_ m_destination;
    Utf8String_ m_source;
    unsigned int m_timeToLive = 3;
    Utf8String_ m_payloadSchema;
    SchemaType_ m_schemaType = SCHEMA_LITERAL;
    SP_VekmsgElement_ m_sp_payload;  // at most one of these two is set
    SP_BasicBuffer_ m_sp_rawPayload;
};

#endif
