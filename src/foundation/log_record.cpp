#include "foundation/log_record.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "foundation/quiet_spell.h"
#include "foundation/thread_access.h"

namespace {

int g_logThreshold = kLogWarning;

const char* severityName(int severity) {
    switch (severity) {
        case kLogError:
            return "error";
        case kLogWarning:
            return "warning";
        case kLogInfo:
            return "info";
        default:
            return "debug";
    }
}

/// One line of text in a fixed buffer; what does not fit is cut.
class Line_ {
public:
    void append(char character) {
        if (m_length < sizeof(m_text)) m_text[m_length++] = character;
    }
    void append(const char* p_text) {
        while (*p_text != '\0') append(*p_text++);
    }
    /// Names in a record come from peers: a control byte must not reach the reader's terminal.
    void appendEscaped(const char* p_text) {
        for (; *p_text != '\0'; ++p_text) {
            const auto byte = static_cast<unsigned char>(*p_text);
            if (byte >= 0x20 && byte != 0x7F) {
                append(*p_text);
                continue;
            }
            static const char s_digits[] = "0123456789abcdef";
            append("\\x");
            append(s_digits[byte >> 4]);
            append(s_digits[byte & 15]);
        }
    }
    void writeTo(int descriptor) {
        if (m_length == sizeof(m_text)) --m_length;
        append('\n');
        const ssize_t ignored = write(descriptor, m_text, m_length);
        static_cast<void>(ignored);  // there is nowhere to report that a report could not be written
    }

private:
    char m_text[4096];
    std::size_t m_length = 0;
};

void writeToStandardError(void*, int severity, const LogSite* p_site, const char* p_text) {
    char line[24];
    std::snprintf(line, sizeof(line), "%lu", static_cast<unsigned long>(p_site->line));

    Line_ record;
    record.append("vekmsg ");
    record.append(severityName(severity));
    record.append(": ");
    record.appendEscaped(p_text);
    record.append(" [");
    record.append(p_site->p_sourceName);
    record.append(':');
    record.append(line);
    record.append(' ');
    record.append(p_site->p_signature);
    record.append(']');
    record.writeTo(STDERR_FILENO);
}

using FormattedText_ = char[2048];

VEKMSG_THREAD_ACCESS FormattedText_& threadText() {
    static thread_local FormattedText_ t_text;
    return t_text;
}

vekmsg_log_sink g_p_sink = writeToStandardError;
void* g_p_sinkContext = nullptr;

}  // namespace

void vekmsg_log_set_sink(vekmsg_log_sink sink, void* context) {
    g_p_sink = sink != nullptr ? sink : writeToStandardError;
    g_p_sinkContext = context;
}

void vekmsg_log_set_threshold(int severity) {
    g_logThreshold = severity;
}

int log_accept(int severity, const LogSite*) {
    return severity <= g_logThreshold;
}

const char* lfmt(const char* p_format, ...) {
    char* const p_text = threadText();
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, p_format);
    if (std::vsnprintf(p_text, sizeof(FormattedText_), p_format, arguments) < 0) p_text[0] = '\0';
    va_end(arguments);
    errno = savedErrno;
    return p_text;
}

void log_dispatch(int severity, const LogSite* p_site, int, const char*, const char* p_text, const char*,
                  const char*) {
    const int savedErrno = errno;
    g_p_sink(g_p_sinkContext, severity, p_site, p_text);
    endQuietSpell();
    errno = savedErrno;
}
