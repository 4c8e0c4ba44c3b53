#ifndef VEKMSG_MESSAGE_H
#define VEKMSG_MESSAGE_H

#include <cstdint>
#include <iosfwd>

#include "libcpp/basic_buffer.h"
#include "libcpp/basic_object.h"
#include "libcpp/smart_pointer.h"
#include "libcpp/utf8_string.h"
#include "vekmsg/element.h"
#include "vekmsg/tag.h"

class VekMessage_;
using SP_VekMessage_ = SmartPointer_<VekMessage_>;

/// A message between two components: names, time-to-live, schema and a payload.
///
/// A terminal makes messages (VekmsgTerminal_::createMessage). The payload has two forms, of which at most
/// one is set: a tree of elements, or the encoded bytes of such a tree (the raw payload). A received message
/// arrives with its raw payload and is decoded when getPayload() is first called; one that is only passed on
/// never is.
///
/// Operations that return bool fail with false and one record that says why, or none where that is said or
/// memory is short, and change nothing.
class VEKMSG_API VekMessage_ : public BasicObject_ {
public:
    /// What the schema text is. It does not travel: a received message always says SCHEMA_LITERAL.
    enum SchemaType_ : std::uint32_t { SCHEMA_LITERAL = 0, SCHEMA_URI = 1 };

    /// Names are copied and not checked. Null fails. Returned text stays valid until the field changes.
    virtual bool setDestination(const Utf8Char_* p_destinationName) = 0;
    virtual const Utf8Char_* getDestination() const = 0;
    virtual bool setSource(const Utf8Char_* p_sourceName) = 0;
    virtual const Utf8Char_* getSource() const = 0;

    /// Turns a request into the frame of its reply.
    virtual bool swapSourceDestination() = 0;

    /// How many components may forward the message; 3 at first.
    virtual bool setTimeToLive(unsigned int timeToLive) = 0;
    virtual unsigned int getTimeToLive() const = 0;

    /// Null text fails.
    virtual bool setPayloadSchema(const Utf8Char_* p_schema, SchemaType_ schemaType) = 0;
    virtual const Utf8Char_* getPayloadSchema() const = 0;
    virtual SchemaType_ getPayloadSchemaType() const = 0;

    /// True with a tree, or with encoded bytes whose first item is whole; decoding may still find them
    /// damaged. False leaves no record.
    virtual bool hasGoodPayload() const = 0;

    /// The tree, decoded now if it still is in its encoded form. Null when there is no payload or when it
    /// cannot be decoded; the encoded bytes are then kept.
    virtual SP_VekmsgElement_ getPayload() = 0;

    /// The encoded bytes, or null when the payload is a tree or missing. They belong to the message.
    virtual SP_BasicBuffer_ getRawPayload() const = 0;

    /// Each replaces whatever payload there was; null leaves none. A raw payload is one encoded element; the
    /// message shares the buffer, and sending may use it up: it writes into the room in front of the data. A
    /// buffer without such room is copied instead; one with room for the message but not for the 4 bytes of
    /// its block header makes sending fail, and is used up too.
    virtual bool setPayload(SP_VekmsgElement_ sp_payload) = 0;
    virtual bool setRawPayload(SP_BasicBuffer_ sp_rawPayload) = 0;

    /// A new element for a payload tree, not yet part of one. Null when memory is short.
    virtual SP_VekmsgElement_ createElement(VekmsgTag_ tag) const = 0;

    /// Writes the message as XML-like text for people, nothing escaped and nothing decoded. False, without a
    /// record, when the stream is null.
    virtual bool print(std::ostream* p_stream, unsigned int indent) const = 0;
};

#endif
