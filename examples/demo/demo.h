#ifndef VEKMSG_DEMO_H
#define VEKMSG_DEMO_H

// What panel, sensor and router agree on: who sends what, and with which values in it.

#include <vekmsg/vekmsg.h>

namespace demo {

constexpr const char* PANEL = "panel";          // lists the sensor at its local socket
constexpr const char* PANEL_TCP = "panel-tcp";  // lists it at its TCP port
constexpr const char* PANEL_FAR = "panel-far";  // lists it at the router's local socket
constexpr const char* SENSOR = "sensor";
constexpr const char* COMMAND_PREFIX = "vekmsg-";  // and a process id: the names of the command vekmsg

constexpr const char* REQUEST_SCHEMA = "demo reading request 1.0";
constexpr const char* READING_SCHEMA = "demo reading 1.0";
constexpr const char* NOTE_SCHEMA = "demo note 1.0";
constexpr const char* RECEIPT_SCHEMA = "demo receipt 1.0";
constexpr const char* PING_SCHEMA = "VEK Pinger Request Format version 1.0";
constexpr const char* PING_REPLY_SCHEMA = "VEK Pinger Reply Format version 1.0";

constexpr unsigned int FULL_TIME_TO_LIVE = 3;  // what every new message starts with

inline const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

/// The frame that a message is expected to arrive in.
struct Frame_ {
    const char* m_p_source;
    const char* m_p_destination;
    const char* m_p_schema;
    unsigned int m_timeToLive;
};

/// Each pair fills in a payload and compares one that arrived with it, field by field. A difference is said
/// on standard error.
bool fillRequest(VekMessage_& message);
bool isRequest(VekMessage_& message);
bool fillReading(VekMessage_& message);
bool isReading(VekMessage_& message);
bool fillText(VekMessage_& message, const char* p_text);
bool isText(VekMessage_& message, const char* p_text);
bool fillReceipt(VekMessage_& message, const Frame_& arrived);
bool isReceipt(VekMessage_& message, const Frame_& arrived);

bool isFramed(const VekMessage_& message, const Frame_& expected);

bool hasSchema(const VekMessage_& message, const char* p_schema);

bool isEqual(const char* p_what, unsigned int actual, unsigned int expected);
bool isEqual(const char* p_what, const Utf8Char_* p_actual, const char* p_expected);

/// Prints every message that `terminal` receives and sends, under the component's name and what happened.
bool printMessages(VekmsgTerminal_& terminal);

/// An opened terminal that prints its messages, or null.
VekmsgTerminal_* openTerminal(const char* p_name, const char* p_directoryPath);

/// What a service does with a message addressed to it. False ends the service as failed.
using Handler_ = bool (*)(VekmsgTerminal_& terminal, const SP_VekMessage_& sp_message);

/// Blocks SIGTERM and gives a descriptor that becomes readable when it comes; negative on failure.
int watchForTermination();

/// Writes one line into the pipe at `p_path`, for those who wait until a service is ready.
bool announce(const char* p_path, const char* p_line);

/// Gives messages to `handler` until `termination` becomes readable.
bool serve(VekmsgTerminal_& terminal, int termination, Handler_ handler);

}  // namespace demo

#endif
