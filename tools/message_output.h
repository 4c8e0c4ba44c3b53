#ifndef VEKMSG_TOOLS_MESSAGE_OUTPUT_H
#define VEKMSG_TOOLS_MESSAGE_OUTPUT_H

#include <string>

#include "arguments.h"
#include "output.h"
#include "vekmsg/vekmsg.h"

/// Writes received messages: as the library's XML, as JSON, or in a form of the user's.
class MessageOutput_ {
public:
    MessageOutput_(Output_& output, JsonStyle_ style) : m_output(output), m_style(style) {}

    /// Takes a form: %s source, %d destination, %t time-to-live, %S schema, %p payload as JSON, %x payload in
    /// hexadecimal, %I time as in ISO 8601, %N nanoseconds since 1970, %n line end, %% percent sign. A line
    /// each. Throws a Failure_ of usage for anything else.
    void setFormat(const std::string& format);

    /// Decodes the payload. What the library has to remark about it becomes notes.
    void write(VekMessage_& message);

private:
    std::string formatted(VekMessage_& message) const;

    Output_& m_output;
    JsonStyle_ m_style;
    std::string m_format;
};

#endif
