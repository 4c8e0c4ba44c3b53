#include "message_output.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>

#include "codec.h"
#include "exit_code.h"
#include "hex.h"
#include "message_json.h"
#include "records.h"
#include "session.h"

namespace {

constexpr char kLetters[] = "sdtSpxINn%";
constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// 2026-11-21T17:30:00.123456789+01:00
std::string isoTime(std::int64_t nanoseconds) {
    const auto seconds = static_cast<std::time_t>(nanoseconds / kNanosecondsPerSecond);
    std::tm local = {};
    localtime_r(&seconds, &local);
    char date[64];
    char zone[16];
    char text[128];
    std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(zone, sizeof(zone), "%z", &local);
    std::snprintf(text, sizeof(text), "%s.%09ld%.3s:%s", date,
                  static_cast<long>(nanoseconds % kNanosecondsPerSecond), zone, zone + 3);
    return text;
}

/// The payload's bytes, whether or not it has been decoded.
std::string payloadBytes(VekMessage_& message) {
    if (message.getRawPayload()) return rawPayloadOf(message);
    const SP_VekmsgElement_ sp_payload = message.getPayload();
    return sp_payload ? encodeElement(*sp_payload) : "";
}

}  // namespace

void MessageOutput_::setFormat(const std::string& format) {
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') continue;
        ++i;
        if (i == format.size() || std::string(kLetters).find(format[i]) == std::string::npos)
            throw Failure_(ExitCode_::Usage,
                           "in the form '" + format + "' one of " + kLetters + " follows a %");
    }
    m_format = format;
}

void MessageOutput_::write(VekMessage_& message) {
    CaughtRecords_ records;
    if (!m_format.empty()) {
        m_output.line(formatted(message));
    } else if (m_style != JsonStyle_::None) {
        m_output.write(jsonText(jsonOf(message), m_style));
    } else {
        std::ostringstream xml;
        message.getPayload();
        message.print(&xml, 0);
        m_output.write(xml.str());
    }
    for (const std::string& text : records.texts()) note("from " + plain(message.getSource()) + ": " + text);
}

std::string MessageOutput_::formatted(VekMessage_& message) const {
    const std::int64_t time = now();
    const std::string bytes = payloadBytes(message);
    std::string text;
    for (std::size_t i = 0; i < m_format.size(); ++i) {
        if (m_format[i] != '%') {
            text += m_format[i];
            continue;
        }
        switch (m_format[++i]) {
            case 's':
                text += printableText(plain(message.getSource()));
                break;
            case 'd':
                text += printableText(plain(message.getDestination()));
                break;
            case 't':
                text += std::to_string(message.getTimeToLive());
                break;
            case 'S':
                text += printableText(plain(message.getPayloadSchema()));
                break;
            case 'p': {
                const std::string json = jsonText(jsonOf(message)["payload"], JsonStyle_::Short);
                text += json.substr(0, json.size() - 1);
                break;
            }
            case 'x':
                text += hexOf(bytes);
                break;
            case 'I':
                text += isoTime(time);
                break;
            case 'N':
                text += std::to_string(time);
                break;
            case 'n':
                text += '\n';
                break;
            default:
                text += '%';
                break;
        }
    }
    return text;
}
