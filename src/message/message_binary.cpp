#include "message/message_binary.h"

#include <new>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/text_room.h"

[[gnu::hot]] VekMessageBinary_::VekMessageBinary_() = default;

[[gnu::hot]] VekMessageBinary_::~VekMessageBinary_() {
    keepRoomOf(m_destination);
    keepRoomOf(m_source);
    keepRoomOf(m_payloadSchema);
}

[[gnu::hot]] bool VekMessageBinary_::setDestination(const Utf8Char_* p_destinationName) try {
    if (p_destinationName == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::setDestination(): null p_destinationName");
        return false;
    }
    assignText(m_destination, p_destinationName, Utf8CharTraits_::length(p_destinationName));
    return true;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

const Utf8Char_* VekMessageBinary_::getDestination() const {
    return m_destination.c_str();
}

[[gnu::hot]] bool VekMessageBinary_::setSource(const Utf8Char_* p_sourceName) try {
    if (p_sourceName == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::setSource(): null p_sourceName");
        return false;
    }
    assignText(m_source, p_sourceName, Utf8CharTraits_::length(p_sourceName));
    return true;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

const Utf8Char_* VekMessageBinary_::getSource() const {
    return m_source.c_str();
}

bool VekMessageBinary_::swapSourceDestination() {
    m_source.swap(m_destination);
    return true;
}

bool VekMessageBinary_::setTimeToLive(unsigned int timeToLive) {
    m_timeToLive = timeToLive;
    return true;
}

unsigned int VekMessageBinary_::getTimeToLive() const {
    return m_timeToLive;
}

[[gnu::hot]] bool VekMessageBinary_::setPayloadSchema(const Utf8Char_* p_schema, SchemaType_ schemaType) try {
    if (p_schema == nullptr) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::setPayloadSchema(): null p_schema");
        return false;
    }
    assignText(m_payloadSchema, p_schema, Utf8CharTraits_::length(p_schema));
    m_schemaType = schemaType;
    return true;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

const Utf8Char_* VekMessageBinary_::getPayloadSchema() const {
    return m_payloadSchema.c_str();
}

VekMessage_::SchemaType_ VekMessageBinary_::getPayloadSchemaType() const {
    return m_schemaType;
}

bool VekMessageBinary_::hasGoodPayload() const {
    if (!m_sp_payload.isNull()) return true;
    return !m_sp_rawPayload.isNull() && isValidTtlv(m_sp_rawPayload->data(), m_sp_rawPayload->dataLength());
}

[[gnu::hot]] SP_VekmsgElement_ VekMessageBinary_::getPayload() try {
    if (!m_sp_payload.isNull() || m_sp_rawPayload.isNull()) return m_sp_payload;

    const SP_BasicBuffer_ sp_rawPayload = m_sp_rawPayload;
    m_sp_payload = createElement(VEKMSGTAG_ANY);
    const SP_VekmsgElementBinary_ sp_root = m_sp_payload;
    if (sp_root.isNull()) {
        VEKMSG_LOG_ERROR("VekMessageBinary_::getPayload() invalid vekMessageBinary_");
        m_sp_payload.reset();
        return m_sp_payload;
    }
    const unsigned int length = sp_rawPayload->dataLength();
    const unsigned int used = sp_root->deserialize(sp_rawPayload->data(), length);
    if (used == 0) {
        m_sp_payload.reset();
        return m_sp_payload;
    }
    if (used != length)
        VEKMSG_LOG_WARNING("VekMessageBinary_::getPayload(): used %u bytes out of %u", used, length);
    m_sp_rawPayload.reset();
    return m_sp_payload;
}
VEKMSG_RETURN_ON_EXCEPTION(SP_VekmsgElement_())

SP_BasicBuffer_ VekMessageBinary_::getRawPayload() const {
    return m_sp_rawPayload;
}

[[gnu::hot]] bool VekMessageBinary_::setPayload(SP_VekmsgElement_ sp_payload) {
    m_sp_payload.swap(sp_payload);
    m_sp_rawPayload.reset();
    return true;
}

bool VekMessageBinary_::setRawPayload(SP_BasicBuffer_ sp_rawPayload) {
    m_sp_rawPayload.swap(sp_rawPayload);
    m_sp_payload.reset();
    return true;
}

[[gnu::hot]] SP_VekmsgElement_ VekMessageBinary_::createElement(VekmsgTag_ tag) const {
    return createElement(tag, this);
}

SP_VekmsgElement_ VekMessageBinary_::createElement(NoMemory_) {
    VEKMSG_LOG_ERROR("VekMessageBinary_::createElement() Can't create vekMessageBinary_");
    return SP_VekmsgElement_();
}
