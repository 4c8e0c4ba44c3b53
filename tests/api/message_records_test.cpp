// What the operations of messages, elements, attributes and of the support layer write.

#include <sstream>

#include "api/public_records.h"
#include "libcpp/time_stamp.h"
#include "message/attribute_binary.h"
#include "message/message_binary.h"
#include "support/buffer_bytes.h"
#include "support/wire_bytes.h"

namespace {

const unsigned char g_bytes[] = {1, 2, 3};
const std::string g_long(9400, 'x');

/// A message, an element with the number 7, and one with the sub-elements 2 (a number), 3 (a text) and 4
/// (bytes).
class MessageRecords : public PublicRecords_ {
protected:
    MessageRecords() {
        m_sp_number->setValue(7U);
        m_sp_text->setValue(utf8("text"));
        m_sp_tree->setSubElementValue(2, 22U);
        m_sp_tree->setSubElementValue(3, utf8("text"));
        m_sp_tree->setSubElementValue(4, g_bytes, 3);
        m_message.setDestination(utf8("beta"));
        m_message.setPayload(m_sp_tree);
    }

    void setRaw(const std::string& bytes) { m_message.setRawPayload(bufferOf(bytes)); }

    SP_VekMessage_ m_sp_message{new VekMessageBinary_};
    VekMessage_& m_message = *m_sp_message;
    SP_VekmsgElement_ m_sp_number = m_message.createElement(1);
    SP_VekmsgElement_ m_sp_text = m_message.createElement(1);
    SP_VekmsgElement_ m_sp_tree = m_message.createElement(1);
    VekmsgElement_& m_number = *m_sp_number;
    VekmsgElement_& m_text = *m_sp_text;
    VekmsgElement_& m_tree = *m_sp_tree;
    unsigned int m_value = 0;
    bool m_isSet = false;
    const Utf8Char_* m_p_text = nullptr;
    std::ostringstream m_stream;
};

}  // namespace

TEST_F(MessageRecords, ofNamesAndTimeToLive) {
    call("VekMessage_::setDestination(const Utf8Char_*)", "succeeds",
         m_message.setDestination(utf8("gamma")));
    call("VekMessage_::setDestination(const Utf8Char_*)", "null name", !m_message.setDestination(nullptr),
         {kNoDestination});
    call("VekMessage_::setDestination(const Utf8Char_*)", "no memory",
         withoutMemory([&] { return !m_message.setDestination(utf8(g_long)); }));
    call("VekMessage_::getDestination() const", "succeeds", plain(m_message.getDestination()) == "gamma");
    call("VekMessage_::setSource(const Utf8Char_*)", "succeeds", m_message.setSource(utf8("alpha")));
    call("VekMessage_::setSource(const Utf8Char_*)", "null name", !m_message.setSource(nullptr), {kNoSource});
    call("VekMessage_::setSource(const Utf8Char_*)", "no memory",
         withoutMemory([&] { return !m_message.setSource(utf8(g_long)); }));
    call("VekMessage_::getSource() const", "succeeds", plain(m_message.getSource()) == "alpha");
    call("VekMessage_::swapSourceDestination()", "succeeds", m_message.swapSourceDestination());
    call("VekMessage_::setTimeToLive(unsigned int)", "succeeds", m_message.setTimeToLive(9));
    call("VekMessage_::getTimeToLive() const", "succeeds", m_message.getTimeToLive() == 9);
}

TEST_F(MessageRecords, ofTheSchema) {
    const char* p_set = "VekMessage_::setPayloadSchema(const Utf8Char_*, SchemaType_)";
    call(p_set, "succeeds", m_message.setPayloadSchema(utf8("schema"), VekMessage_::SCHEMA_URI));
    call(p_set, "null schema", !m_message.setPayloadSchema(nullptr, VekMessage_::SCHEMA_URI), {kNoSchema});
    call(p_set, "no memory",
         withoutMemory([&] { return !m_message.setPayloadSchema(utf8(g_long), VekMessage_::SCHEMA_URI); }));
    call("VekMessage_::getPayloadSchema() const", "succeeds",
         plain(m_message.getPayloadSchema()) == "schema");
    call("VekMessage_::getPayloadSchemaType() const", "succeeds",
         m_message.getPayloadSchemaType() == VekMessage_::SCHEMA_URI);
}

TEST_F(MessageRecords, ofThePayload) {
    const char* p_get = "VekMessage_::getPayload()";
    const char* p_has = "VekMessage_::hasGoodPayload() const";
    call("VekMessage_::setPayload(SP_VekmsgElement_)", "succeeds", m_message.setPayload(m_sp_number));
    call(p_has, "a tree", m_message.hasGoodPayload());
    call(p_get, "a tree", m_message.getPayload() == m_sp_number);
    call("VekMessage_::getRawPayload() const", "none", m_message.getRawPayload().isNull());
    call("VekMessage_::setPayload(SP_VekmsgElement_)", "null", m_message.setPayload(SP_VekmsgElement_()));
    call(p_has, "none", !m_message.hasGoodPayload());
    call(p_get, "none", m_message.getPayload().isNull());

    const std::string element = wire::element(1, wire::Uint, wire::u32(7));
    call("VekMessage_::setRawPayload(SP_BasicBuffer_)", "succeeds",
         m_message.setRawPayload(bufferOf(element)));
    call("VekMessage_::getRawPayload() const", "succeeds", !m_message.getRawPayload().isNull());
    call(p_has, "encoded", m_message.hasGoodPayload());
    call(p_get, "no memory", withoutMemory([&] { return m_message.getPayload().isNull(); }),
         {kNoElement, kNoPayloadElement});
    call(p_get, "succeeds", !m_message.getPayload().isNull());
    setRaw(element + "..");
    call(p_get, "bytes left over", !m_message.getPayload().isNull(), {kPartOfPayload});
    setRaw("abc");
    call(p_has, "damaged", !m_message.hasGoodPayload());
    call(p_get, "damaged", m_message.getPayload().isNull(), {kShortHeader});
}

TEST_F(MessageRecords, ofMakingElementsAndPrinting) {
    const char* p_create = "VekMessage_::createElement(VekmsgTag_) const";
    call(p_create, "succeeds", !m_message.createElement(5).isNull());
    call(p_create, "no memory", withoutMemory([&] { return m_message.createElement(5).isNull(); }),
         {kNoElement});
    const char* p_print = "VekMessage_::print(std::ostream*, unsigned int) const";
    call(p_print, "succeeds", m_message.print(&m_stream, 0));
    call(p_print, "null stream", !m_message.print(nullptr, 0));
    setRaw("abc");
    call(p_print, "damaged payload", m_message.print(&m_stream, 0));
}

TEST_F(MessageRecords, ofGettingValues) {
    const char* p_uint = "VekmsgElement_::getValue(unsigned int&) const";
    const char* p_bool = "VekmsgElement_::getValue(bool&) const";
    const char* p_text = "VekmsgElement_::getValue(const Utf8Char_*&) const";
    const char* p_bytes = "VekmsgElement_::getValue(const unsigned char*&, unsigned int&) const";
    call("VekmsgElement_::getTag() const", "succeeds", m_number.getTag() == 1);
    call("VekmsgElement_::setTag(VekmsgTag_)", "succeeds", m_number.setTag(8));
    call(p_uint, "succeeds", m_number.getValue(m_value));
    call(p_uint, "another type", !m_text.getValue(m_value), {kNoUint});
    call(p_bool, "succeeds", m_number.getValue(m_isSet));
    call(p_bool, "another type", !m_text.getValue(m_isSet), {kNoUint});
    call(p_text, "succeeds", m_text.getValue(m_p_text));
    call(p_text, "another type", !m_number.getValue(m_p_text), {kNoText});
    call(p_bytes, "another type", !m_number.getValue(m_p_text, m_value), {kNoBytes});
    m_number.setValue(g_bytes, 3);
    call(p_bytes, "succeeds", m_number.getValue(m_p_text, m_value));
}

TEST_F(MessageRecords, ofSettingValues) {
    const char* p_text = "VekmsgElement_::setValue(const Utf8Char_*)";
    const char* p_bytes = "VekmsgElement_::setValue(const unsigned char*, unsigned int)";
    const std::string tooLong(9401, 'x');
    call("VekmsgElement_::setValue(unsigned int)", "succeeds", m_number.setValue(1U));
    call("VekmsgElement_::setValue(bool)", "succeeds", m_number.setValue(true));
    call(p_text, "succeeds", m_number.setValue(utf8("text")));
    call(p_text, "null text", !m_number.setValue(static_cast<const Utf8Char_*>(nullptr)), {kNullText});
    call(p_text, "text is cut", m_number.setValue(utf8(g_long)), {kCutText});
    call(p_bytes, "succeeds", m_number.setValue(utf8(g_long), 9400));
    call(p_bytes, "null bytes", !m_number.setValue(nullptr, 3), {kNullBytes});
    call(p_bytes, "too long", !m_number.setValue(utf8(tooLong), 9401), {kLongBytes});
}

TEST_F(MessageRecords, ofLookingForSubElements) {
    const char* p_find = "VekmsgElement_::findFirstMatchingSubelement(VekmsgTag_) const";
    call(p_find, "succeeds", !m_tree.findFirstMatchingSubelement(3).isNull());
    call(p_find, "any", !m_tree.findFirstMatchingSubelement(VEKMSGTAG_ANY).isNull());
    call(p_find, "none with that tag", m_tree.findFirstMatchingSubelement(9).isNull());
    call(p_find, "simple type", m_number.findFirstMatchingSubelement(3).isNull());
    call(p_find, "no memory", withoutMemory([&] { return m_tree.findFirstMatchingSubelement(3).isNull(); }),
         {kNoElement, kNoProbe});

    const char* p_query = "VekmsgElement_::querySubelements(VekmsgTag_)";
    call(p_query, "simple type", !m_number.querySubelements(3), {kNoSubelements});
    call(p_query, "no memory", withoutMemory([&] { return !m_tree.querySubelements(3); }),
         {kNoElement, kNoQueryProbe});
    call(p_query, "any", m_tree.querySubelements(VEKMSGTAG_ANY));
    call(p_query, "succeeds", m_tree.querySubelements(3));
    call("VekmsgElement_::getNextSubelement()", "succeeds", !m_tree.getNextSubelement().isNull());
    call("VekmsgElement_::getNextSubelement()", "none left", m_tree.getNextSubelement().isNull());
    callOf("VekmsgElement_::endQuerySubelements()", "succeeds", [&] { m_tree.endQuerySubelements(); });
}

TEST_F(MessageRecords, ofAddingSubElements) {
    const char* p_add = "VekmsgElement_::addSubelements(SP_VekmsgElement_)";
    call(p_add, "succeeds", m_tree.addSubelements(m_sp_number));
    call(p_add, "null", !m_tree.addSubelements(SP_VekmsgElement_()), {kNullSubelement});
    call(p_add, "no memory", withoutMemory([&] { return !m_number.addSubelements(m_sp_text); }));
    m_number.setTag(VEKMSGTAG_ANY);
    call(p_add, "any tag", !m_tree.addSubelements(m_sp_number), {kAnySubelement});
}

TEST_F(MessageRecords, ofGettingSubElementValues) {
    const char* p_uint = "VekmsgElement_::getSubElementValue(VekmsgTag_, unsigned int&) const";
    const char* p_bool = "VekmsgElement_::getSubElementValue(VekmsgTag_, bool&) const";
    const char* p_text = "VekmsgElement_::getSubElementValue(VekmsgTag_, const Utf8Char_*&) const";
    const char* p_bytes =
        "VekmsgElement_::getSubElementValue(VekmsgTag_, const unsigned char*&, unsigned int&) const";
    call(p_uint, "succeeds", m_tree.getSubElementValue(2, m_value));
    call(p_uint, "none with that tag", !m_tree.getSubElementValue(9, m_value));
    call(p_uint, "another type", !m_tree.getSubElementValue(3, m_value), {kNoUint});
    call(p_uint, "no memory", withoutMemory([&] { return !m_tree.getSubElementValue(2, m_value); }),
         {kNoElement, kNoProbe});
    call(p_bool, "succeeds", m_tree.getSubElementValue(2, m_isSet));
    call(p_bool, "none with that tag", !m_tree.getSubElementValue(9, m_isSet));
    call(p_bool, "another type", !m_tree.getSubElementValue(3, m_isSet), {kNoUint});
    call(p_bool, "no memory", withoutMemory([&] { return !m_tree.getSubElementValue(2, m_isSet); }),
         {kNoElement, kNoProbe});
    call(p_text, "succeeds", m_tree.getSubElementValue(3, m_p_text));
    call(p_text, "none with that tag", !m_tree.getSubElementValue(9, m_p_text));
    call(p_text, "another type", !m_tree.getSubElementValue(2, m_p_text), {kNoText});
    call(p_text, "no memory", withoutMemory([&] { return !m_tree.getSubElementValue(4, m_p_text); }),
         {kNoElement, kNoProbe});
    call(p_bytes, "succeeds", m_tree.getSubElementValue(4, m_p_text, m_value));
    call(p_bytes, "none with that tag", !m_tree.getSubElementValue(9, m_p_text, m_value));
    call(p_bytes, "another type", !m_tree.getSubElementValue(2, m_p_text, m_value), {kNoBytes});
    call(p_bytes, "no memory",
         withoutMemory([&] { return !m_tree.getSubElementValue(4, m_p_text, m_value); }),
         {kNoElement, kNoProbe});
}

TEST_F(MessageRecords, ofSettingSubElementValues) {
    const char* p_uint = "VekmsgElement_::setSubElementValue(VekmsgTag_, unsigned int)";
    const char* p_bool = "VekmsgElement_::setSubElementValue(VekmsgTag_, bool)";
    const char* p_text = "VekmsgElement_::setSubElementValue(VekmsgTag_, const Utf8Char_*)";
    const char* p_bytes =
        "VekmsgElement_::setSubElementValue(VekmsgTag_, const unsigned char*, unsigned int)";
    const auto* p_null = static_cast<const Utf8Char_*>(nullptr);
    call(p_uint, "succeeds", m_tree.setSubElementValue(2, 5U));
    call(p_uint, "any tag", !m_tree.setSubElementValue(VEKMSGTAG_ANY, 5U), {kAnyUint});
    // Without a probe none is found, and there is memory again for a second one of that tag.
    call(p_uint, "no memory for the probe", withoutMemory([&] { return m_tree.setSubElementValue(2, 6U); }),
         {kNoElement, kNoProbe});
    call(p_uint, "no memory for the element",
         withoutMemory([&] { return !m_number.setSubElementValue(2, 6U); }), {kNoElement});
    call(p_bool, "succeeds", m_tree.setSubElementValue(2, true));
    call(p_bool, "any tag", !m_tree.setSubElementValue(VEKMSGTAG_ANY, true), {kAnyUint});
    call(p_bool, "no memory for the element",
         withoutMemory([&] { return !m_number.setSubElementValue(2, true); }), {kNoElement});
    call(p_text, "succeeds", m_tree.setSubElementValue(3, utf8("text")));
    call(p_text, "any tag", !m_tree.setSubElementValue(VEKMSGTAG_ANY, utf8("text")), {kAnyText});
    call(p_text, "null text", !m_tree.setSubElementValue(3, p_null), {kNullText});
    call(p_text, "text is cut", m_tree.setSubElementValue(3, utf8(g_long)), {kCutText});
    call(p_text, "no memory for the element",
         withoutMemory([&] { return !m_number.setSubElementValue(3, utf8("text")); }), {kNoElement});
    call(p_bytes, "succeeds", m_tree.setSubElementValue(4, g_bytes, 3));
    call(p_bytes, "any tag", !m_tree.setSubElementValue(VEKMSGTAG_ANY, g_bytes, 3), {kAnyBytes});
    call(p_bytes, "null bytes", !m_tree.setSubElementValue(4, p_null, 3), {kNullBytes});
    call(p_bytes, "too long", !m_tree.setSubElementValue(4, utf8(std::string(9401, 'x')), 9401),
         {kLongBytes});
    call(p_bytes, "no memory for the element",
         withoutMemory([&] { return !m_number.setSubElementValue(4, g_bytes, 3); }), {kNoElement});
}

TEST_F(MessageRecords, ofPrintingElements) {
    const char* p_print = "VekmsgElement_::print(std::ostream*, unsigned int) const";
    call(p_print, "succeeds", m_tree.print(&m_stream, 0));
    call(p_print, "null stream", !m_tree.print(nullptr, 0));
}

TEST_F(MessageRecords, ofAttributes) {
    unsigned char* p_bytes = nullptr;
    call("VekmsgElement_::createAttribute(VekmsgTag_) const", "not provided",
         m_tree.createAttribute(1).isNull());
    call("VekmsgElement_::getAttribute(VekmsgTag_) const", "not provided", m_tree.getAttribute(1).isNull());
    call("VekmsgElement_::getAttribute(VekmsgTag_, unsigned char*&) const", "not provided",
         m_tree.getAttribute(1, p_bytes));
    call("VekmsgElement_::getAttribute(VekmsgTag_, unsigned int&) const", "not provided",
         m_tree.getAttribute(1, m_value));
    call("VekmsgElement_::setAttribute(SmartPointer_<VekmsgAttribute_>)", "not provided",
         m_tree.setAttribute(SmartPointer_<VekmsgAttribute_>()));
    call("VekmsgElement_::setAttribute(VekmsgTag_, const unsigned char*)", "not provided",
         m_tree.setAttribute(1, g_bytes));
    call("VekmsgElement_::setAttribute(VekmsgTag_, unsigned int)", "not provided",
         m_tree.setAttribute(1, 1U));

    VekmsgAttributeBinary_ attribute;
    call("VekmsgAttribute_::getTag() const", "succeeds", attribute.getTag() == VEKMSGTAG_ANY);
    call("VekmsgAttribute_::getValue(const unsigned char*&) const", "not provided",
         !attribute.getValue(m_p_text));
    call("VekmsgAttribute_::getValue(unsigned int&) const", "not provided", !attribute.getValue(m_value));
    call("VekmsgAttribute_::setValue(const unsigned char*)", "not provided", !attribute.setValue(g_bytes));
    call("VekmsgAttribute_::setValue(unsigned int)", "not provided", !attribute.setValue(1U));
    call("VekmsgAttribute_::print(std::ostream*, unsigned int) const", "succeeds",
         attribute.print(&m_stream, 0));
    call("VekmsgAttribute_::print(std::ostream*, unsigned int) const", "null stream",
         !attribute.print(nullptr, 0));
}

TEST_F(MessageRecords, ofTheSupportLayerThereAreNone) {
    {
        BasicBuffer_ buffer(16);
        call("libcpp::BasicBuffer_::BasicBuffer_", "succeeds", buffer.capacity() == 16);
        call("libcpp::BasicBuffer_::setDataArea", "succeeds", buffer.setDataArea(4, 4));
        call("libcpp::BasicBuffer_::setDataArea", "beyond the capacity", !buffer.setDataArea(4, 13));
        call("libcpp::BasicBuffer_::extendDataIntoHeader", "succeeds", buffer.extendDataIntoHeader(4));
        call("libcpp::BasicBuffer_::extendDataIntoHeader", "no room", !buffer.extendDataIntoHeader(1));
        call("libcpp::BasicBuffer_::extendDataIntoTrailer", "succeeds", buffer.extendDataIntoTrailer(4));
        call("libcpp::BasicBuffer_::extendDataIntoTrailer", "no room", !buffer.extendDataIntoTrailer(9));
        call("libcpp::BasicBuffer_::copy", "succeeds", !buffer.copy().isNull());
        call("libcpp::BasicBuffer_::copy", "no memory",
             withoutMemory([&] { return buffer.copy().isNull(); }));
        call("libcpp::BasicBuffer_::print", "succeeds", buffer.print(&m_stream, 4, 2, 16, nullptr));
        call("libcpp::BasicBuffer_::print", "null stream", !buffer.print(nullptr, 4, 2, 16, nullptr));
    }
    call("libcpp::BasicBuffer_::~BasicBuffer_", "succeeds", true);
    call("libcpp::BasicBuffer_::BasicBuffer_", "no memory",
         withoutMemory([] { return BasicBuffer_(16).capacity() == 0; }));
    SP_BasicBuffer_ sp_buffer(new BasicBuffer_(16));
    call("libcpp::BasicBuffer_::operator new", "succeeds", !sp_buffer.isNull());
    sp_buffer.reset();
    call("libcpp::BasicObject_::removeRef", "succeeds", sp_buffer.isNull());
    call("libcpp::BasicBuffer_::operator delete", "succeeds", sp_buffer.isNull());
    call("libcpp::BasicObject_::~BasicObject_", "succeeds", sp_buffer.isNull());
    call("libcpp::BasicBuffer_::operator new", "no memory",
         withoutMemory([] { return new (std::nothrow) BasicBuffer_(16) == nullptr; }));
    {
        TimeStamp_ stamp;
        call("libcpp::TimeStamp_::getAgeInSec", "unset", !stamp.getAgeInSec(m_value));
        call("libcpp::TimeStamp_::imprint", "succeeds", stamp.imprint());
        call("libcpp::TimeStamp_::getAgeInSec", "succeeds", stamp.getAgeInSec(m_value));
    }
    call("libcpp::TimeStamp_::~TimeStamp_", "succeeds", true);
    call("vekMsgTagCompare", "succeeds", vekMsgTagCompare(1, 2) == -1);
}
