#ifndef VEKMSG_TOOLS_MESSAGE_SOURCE_H
#define VEKMSG_TOOLS_MESSAGE_SOURCE_H

#include <string>
#include <vector>

#include "arguments.h"
#include "vekmsg/vekmsg.h"

/// What a verb sends: a message made of options, with a payload from words, a file or standard input.
class MessageSource_ {
public:
    /// Declares --schema, --uri, --ttl, --tag, -f and -s.
    void declare(Arguments_& arguments);

    /// Declares the words of the payload; to be called behind the other words of the verb.
    void declareWords(Arguments_& arguments);

    /// The message that words, file or standard input give. Throws a Failure_.
    SP_VekMessage_ read(const std::string& destination) const;

    /// The message of one text, which is a message or an element in JSON, or elements as people type them.
    SP_VekMessage_ readText(const std::string& destination, const std::string& text) const;

private:
    void setHeader(VekMessage_& message, const std::string& destination) const;

    std::string m_schema;
    std::string m_uri;
    std::string m_timeToLive;
    unsigned int m_root = 1;
    std::string m_file;
    bool m_isFromInput = false;
    std::vector<std::string> m_words;
};

#endif
