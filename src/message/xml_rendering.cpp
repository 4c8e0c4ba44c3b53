#include <ostream>

#include "foundation/byte_dump.h"
#include "foundation/exception_barrier.h"
#include "foundation/text_output.h"
#include "message/attribute_binary.h"
#include "message/message_binary.h"

namespace {

constexpr unsigned int kLongestInlineDump = 8;  // byte strings up to here stay on the line of their tag

/// One line: a value between its opening and its closing text.
template <class Value>
void writeLine(std::ostream& stream, unsigned int indent, const char* p_opening, Value value,
               const char* p_closing) {
    VekMessageBinary_::printIndents(&stream, indent);
    writeUnformatted(stream, p_opening);
    writeUnformatted(stream, value);
    writeUnformatted(stream, p_closing);
    stream << std::endl;
}

void writeLine(std::ostream& stream, unsigned int indent, const char* p_text) {
    writeLine(stream, indent, p_text, "", "");
}

void writeDump(std::ostream& stream, const unsigned char* p_bytes, unsigned int length) {
    printBytestream(stream, p_bytes, length, 1, 16, "+++\t", nullptr);
}

const char* name(VekMessage_::SchemaType_ type) {
    switch (type) {
        case VekMessage_::SCHEMA_LITERAL:
            return "literal";
        case VekMessage_::SCHEMA_URI:
            return "uri";
        default:
            return "unknown";
    }
}

}  // namespace

bool VekMessageBinary_::printIndents(std::ostream* p_stream, unsigned int indent) {
    static const char s_tabs[] = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
    constexpr unsigned int kTabs = sizeof(s_tabs) - 1;
    if (p_stream == nullptr) return false;
    for (; indent >= kTabs; indent -= kTabs) p_stream->write(s_tabs, kTabs);
    if (indent != 0) p_stream->write(s_tabs, static_cast<std::streamsize>(indent));
    return true;
}

bool VekMessageBinary_::print(std::ostream* p_stream, unsigned int indent) const {
    try {
        return p_stream != nullptr && printMessage(*p_stream, indent);
    }
    VEKMSG_RETURN_ON_EXCEPTION(false)
}

bool VekMessageBinary_::printMessage(std::ostream& stream, unsigned int indent) const {
    writeLine(stream, indent, R"(<?xml version="1.0"?>)");
    writeLine(stream, indent, "<vek:Message>");
    writeLine(stream, indent + 1, "<vek:Sender>", getSource(), "</vek:Sender>");
    writeLine(stream, indent + 1, "<vek:Receiver>", getDestination(), "</vek:Receiver>");
    writeLine(stream, indent + 1, "<vek:TimeToLive>", m_timeToLive, "</vek:TimeToLive>");
    printPayloadSchema(stream, indent + 1);
    if (!printPayload(stream, indent + 1)) return false;
    writeLine(stream, indent, "</vek:Message>");
    return true;
}

void VekMessageBinary_::printPayloadSchema(std::ostream& stream, unsigned int indent) const {
    printIndents(&stream, indent);
    writeUnformatted(stream, R"(<vek:PayloadSchema Type=")");
    writeUnformatted(stream, name(m_schemaType));
    writeLine(stream, 0, R"(">)", getPayloadSchema(), "</vek:PayloadSchema>");
}

bool VekMessageBinary_::printPayload(std::ostream& stream, unsigned int indent) const {
    if (!m_sp_payload.isNull()) return m_sp_payload->print(&stream, indent);
    if (m_sp_rawPayload.isNull()) {
        writeLine(stream, indent, "<null></null>");
        return true;
    }
    writeLine(stream, indent, "<vek:RawPayload>");
    if (!m_sp_rawPayload->print(&stream, m_sp_rawPayload->dataLength(), 2, 16, nullptr)) return false;
    writeLine(stream, indent, "</vek:RawPayload>");
    return true;
}

bool VekmsgElementBinary_::print(std::ostream* p_stream, unsigned int indent) const {
    try {
        return p_stream != nullptr && printElement(*p_stream, indent);
    }
    VEKMSG_RETURN_ON_EXCEPTION(false)
}

bool VekmsgElementBinary_::printElement(std::ostream& stream, unsigned int indent) const {
    VekMessageBinary_::printIndents(&stream, indent);
    writeUnformatted(stream, "<Tag_");
    writeUnformatted(stream, m_tag);
    writeUnformatted(stream, R"( Type=")");
    if (!printValue(stream, indent)) return false;
    writeLine(stream, 0, "</Tag_", m_tag, ">");
    return true;
}

bool VekmsgElementBinary_::printValue(std::ostream& stream, unsigned int indent) const {
    switch (m_type) {
        case VEKMSG_UINT:
            writeUnformatted(stream, R"(uint">)");
            writeUnformatted(stream, storedUint());
            return true;
        case VEKMSG_STRING:
            writeLine(stream, 0, R"(string">)");
            writeLine(stream, indent + 1, "", m_value, "");
            return VekMessageBinary_::printIndents(&stream, indent);
        case VEKMSG_BINARY:
            writeUnformatted(stream, R"(binary">)");
            if (m_valueLength <= kLongestInlineDump) {
                writeDump(stream, m_value, m_valueLength);
                return true;
            }
            stream << std::endl;
            VekMessageBinary_::printIndents(&stream, indent + 1);
            writeDump(stream, m_value, m_valueLength);
            stream << std::endl;
            return VekMessageBinary_::printIndents(&stream, indent);
        case VEKMSG_COMPLEX:
            return printSubElements(stream, indent);
        default:
            writeUnformatted(stream, R"(unknown">)");
            return true;
    }
}

bool VekmsgElementBinary_::printSubElements(std::ostream& stream, unsigned int indent) const {
    writeLine(stream, 0, R"(complex">)");
    for (const VekmsgElementBinary_* p_child : m_subElements)
        if (p_child == nullptr || !p_child->print(&stream, indent + 1)) return false;
    return VekMessageBinary_::printIndents(&stream, indent);
}

bool VekmsgAttributeBinary_::print(std::ostream* p_stream, unsigned int) const {
    return p_stream != nullptr;
}
