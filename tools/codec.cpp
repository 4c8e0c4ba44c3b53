#include "codec.h"

#include <cstring>

#include "exit_code.h"
#include "message/element_binary.h"
#include "message/message_binary.h"
#include "records.h"

namespace {

// What one message may have in all. Lengths of more than 16 bits would not fit the encoding.
constexpr unsigned int kMostBytes = 65280;

const unsigned char* dataOf(const std::string& bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

[[noreturn]] void failEncoding(const CaughtRecords_& records) {
    throw Failure_(ExitCode_::BadData, "cannot be encoded: " + records.last("no memory"));
}

}  // namespace

SP_VekMessage_ createMessage() {
    return SP_VekMessage_(new VekMessageBinary_);
}

SP_BasicBuffer_ bufferOf(const std::string& bytes) {
    const auto size = static_cast<unsigned int>(bytes.size());
    SP_BasicBuffer_ sp_buffer(new BasicBuffer_(size));
    if (!sp_buffer->setDataArea(0, size)) throw Failure_(ExitCode_::Refused, "no memory");
    if (size != 0) std::memcpy(sp_buffer->data(), bytes.data(), size);
    return sp_buffer;
}

SP_VekmsgElement_ decodeElement(const std::string& bytes) {
    const SP_VekmsgElementBinary_ sp_element = VekMessageBinary_::createElement(VEKMSGTAG_ANY, nullptr);
    const auto size = static_cast<unsigned int>(bytes.size());
    if (!sp_element || sp_element->deserialize(dataOf(bytes), size) == 0) return SP_VekmsgElement_();
    return sp_element;
}

SP_VekMessage_ decodeMessage(const std::string& bytes) {
    const SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
    if (sp_message->deserialize(bufferOf(bytes)) == 0) return SP_VekMessage_();
    return sp_message;
}

std::string rawPayloadOf(const VekMessage_& message) {
    const SP_BasicBuffer_ sp_payload = message.getRawPayload();
    if (!sp_payload) return "";
    return std::string(reinterpret_cast<const char*>(sp_payload->data()), sp_payload->dataLength());
}

std::string encodeElement(const VekmsgElement_& element) {
    CaughtRecords_ records;
    const auto& binary = dynamic_cast<const VekmsgElementBinary_&>(element);
    const unsigned int size = binary.getMaxSerializationSize();
    if (size > kMostBytes)
        throw Failure_(ExitCode_::BadData, "cannot be encoded: " + std::to_string(size) +
                                               " bytes are more than " + std::to_string(kMostBytes));
    std::string bytes(size, '\0');
    if (binary.serialize(reinterpret_cast<unsigned char*>(&bytes[0]) + size, size) != size)
        failEncoding(records);
    return bytes;
}

std::string encodeHeader(const VekMessage_& message) {
    CaughtRecords_ records;
    const SP_VekMessageBinary_ sp_header(new VekMessageBinary_);
    sp_header->setDestination(message.getDestination());
    sp_header->setSource(message.getSource());
    sp_header->setTimeToLive(message.getTimeToLive());
    sp_header->setPayloadSchema(message.getPayloadSchema(), VekMessage_::SCHEMA_LITERAL);
    sp_header->setRawPayload(bufferOf(""));
    SP_BasicBuffer_ sp_buffer;
    const unsigned int size = sp_header->serialize(sp_buffer);
    if (size == 0) failEncoding(records);
    return std::string(reinterpret_cast<const char*>(sp_buffer->data()), size);
}
