#ifndef VEKMSG_TESTS_TERMINAL_FOREIGN_MESSAGE_H
#define VEKMSG_TESTS_TERMINAL_FOREIGN_MESSAGE_H

#include <string>

#include "support/utf8_text.h"
#include "vekmsg/message.h"

/// A message class of an application's own, which the library cannot encode. Each setter can be made to
/// refuse.
class ForeignMessage_ : public VekMessage_ {
public:
    explicit ForeignMessage_(const std::string& destination) : m_destination(destination) {}

    bool setDestination(const Utf8Char_* p_name) override { return set(m_destination, p_name); }
    const Utf8Char_* getDestination() const override {
        return m_hasDestination ? utf8(m_destination) : nullptr;
    }
    bool setSource(const Utf8Char_* p_name) override { return !m_refusesSource && set(m_source, p_name); }
    const Utf8Char_* getSource() const override { return m_hasSource ? utf8(m_source) : nullptr; }
    bool swapSourceDestination() override {
        if (m_refusesSwap) return false;
        m_source.swap(m_destination);
        return true;
    }
    bool setTimeToLive(unsigned int timeToLive) override {
        if (m_refusesTimeToLive) return false;
        m_timeToLive = timeToLive;
        return true;
    }
    unsigned int getTimeToLive() const override { return m_timeToLive; }
    bool setPayloadSchema(const Utf8Char_* p_schema, SchemaType_) override {
        return !m_refusesSchema && set(m_schema, p_schema);
    }
    const Utf8Char_* getPayloadSchema() const override { return utf8(m_schema); }
    SchemaType_ getPayloadSchemaType() const override { return SCHEMA_LITERAL; }
    bool hasGoodPayload() const override { return false; }
    SP_VekmsgElement_ getPayload() override { return SP_VekmsgElement_(); }
    SP_BasicBuffer_ getRawPayload() const override { return SP_BasicBuffer_(); }
    bool setPayload(SP_VekmsgElement_) override { return false; }
    bool setRawPayload(SP_BasicBuffer_) override { return false; }
    SP_VekmsgElement_ createElement(VekmsgTag_) const override { return SP_VekmsgElement_(); }
    bool print(std::ostream*, unsigned int) const override { return false; }

    std::string m_destination;
    std::string m_source;
    std::string m_schema;
    unsigned int m_timeToLive = 3;
    bool m_hasDestination = true;
    bool m_hasSource = true;
    bool m_refusesSource = false;
    bool m_refusesSwap = false;
    bool m_refusesTimeToLive = false;
    bool m_refusesSchema = false;

private:
    static bool set(std::string& text, const Utf8Char_* p_text) {
        text = reinterpret_cast<const char*>(p_text);
        return true;
    }
};

#endif
