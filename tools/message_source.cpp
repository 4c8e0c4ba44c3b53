#include "message_source.h"

#include <nlohmann/json.hpp>

#include "codec.h"
#include "element_text.h"
#include "exit_code.h"
#include "input.h"
#include "message_json.h"
#include "session.h"

namespace {

/// Without the line end with which files end.
std::string trimmed(const std::string& text) {
    const std::size_t end = text.find_last_not_of(" \t\r\n");
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    return end == std::string::npos ? "" : text.substr(begin, end + 1 - begin);
}

}  // namespace

void MessageSource_::declare(Arguments_& arguments) {
    arguments.text("--schema", "TEXT", m_schema, "what kind of message it is");
    arguments.text("--uri", "URI", m_uri, "the same as a URI");
    arguments.text("--ttl", "N", m_timeToLive, "how many may forward it (3)");
    arguments.number("--tag", 0, 65535, m_root, "of the element around several (1)");
    arguments.text("-f,--file", "FILE", m_file, "the payload: JSON, or elements as on the line");
    arguments.flag("-s,--stdin", m_isFromInput, "the same from standard input");
}

void MessageSource_::declareWords(Arguments_& arguments) {
    arguments.words("ELEMENT", true, m_words, "");
}

SP_VekMessage_ MessageSource_::read(const std::string& destination) const {
    const int sources = (m_words.empty() ? 0 : 1) + (m_file.empty() ? 0 : 1) + (m_isFromInput ? 1 : 0);
    if (sources != 1)
        throw Failure_(ExitCode_::Usage,
                       "a payload is needed, from words like 5:u=7, from -f FILE or from -s");
    if (m_words.empty()) return readText(destination, readInput(m_file));
    if (m_words.size() == 1) return readText(destination, m_words.front());
    std::vector<SP_VekmsgElement_> elements;
    for (const std::string& word : m_words) {
        const std::vector<SP_VekmsgElement_> some = elementsOfText(word);
        elements.insert(elements.end(), some.begin(), some.end());
    }
    const SP_VekMessage_ sp_message = createMessage();
    sp_message->setPayload(payloadOf(elements, m_root));
    setHeader(*sp_message, destination);
    return sp_message;
}

SP_VekMessage_ MessageSource_::readText(const std::string& destination, const std::string& text) const {
    const std::string content = trimmed(text);
    SP_VekMessage_ sp_message = createMessage();
    if (content.empty() || content[0] != '{') {
        sp_message->setPayload(payloadOf(elementsOfText(content), m_root));
    } else {
        const std::vector<Json_> documents = parseDocuments(content);
        if (documents.size() != 1) throw Failure_(ExitCode_::BadData, "there is more than one document");
        if (documents.front().contains("destination")) {
            sp_message = messageOf(documents.front());
        } else {
            sp_message->setPayload(elementOf(documents.front()));
        }
    }
    setHeader(*sp_message, destination);
    return sp_message;
}

void MessageSource_::setHeader(VekMessage_& message, const std::string& destination) const {
    message.setDestination(utf8(destination));
    message.setSource(utf8(""));  // the terminal fills it in
    if (!m_uri.empty()) message.setPayloadSchema(utf8(m_uri), VekMessage_::SCHEMA_URI);
    if (!m_schema.empty()) message.setPayloadSchema(utf8(m_schema), VekMessage_::SCHEMA_LITERAL);
    if (m_timeToLive.empty()) return;
    const bool isNumber =
        m_timeToLive.size() <= 9 && m_timeToLive.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber)
        throw Failure_(ExitCode_::Usage, "--ttl " + m_timeToLive + ": it is a number from 0 to 999999999");
    message.setTimeToLive(static_cast<unsigned int>(std::stoul(m_timeToLive)));
}
