#ifndef VEKMSG_TESTS_TERMINAL_RECORDS_H
#define VEKMSG_TESTS_TERMINAL_RECORDS_H

#include <string>

#include "support/record_capture.h"

// The signatures that records of the terminal carry. A record of a stage carries the stage's own; compilers
// qualify and expand the types in it differently.

#ifdef __clang__
#define STAGE "VekmsgTerminalImpl_::"
#define CONNECTION_STAGE "VekmsgConnection_::"
#define TEXT "Utf8String_"
#define ADDRESS_NAMES "VekmsgTerminalImpl_::AddressNames_&"
#define UNRESOLVED_PLACE "Connections_::iterator"
#else
#define SP_CONNECTION "libcpp::SmartPointer_<VekmsgConnection_>"
#define STAGE ""
#define CONNECTION_STAGE ""
#define TEXT "std::__cxx11::basic_string<unsigned char, Utf8CharTraits_>"
#define ADDRESS_NAMES "AddressNames_&"
#define UNRESOLVED_PLACE \
    "std::__cxx11::list<" SP_CONNECTION ", libcpp::FreeListAllocator_<" SP_CONNECTION ">>::iterator"
#endif

constexpr char kOpen[] = "bool VekmsgTerminalImpl_::open(const Utf8Char_*, const char*)";
constexpr char kOpenDefault[] =
    "void VekmsgTerminalImpl_::open(" STAGE "DefaultAddress_, libcpp::SP_StdString_&)";
constexpr char kOpenOwn[] =
    "bool VekmsgTerminalImpl_::open(" STAGE "OwnAddress_, const std::string&, const libcpp::SP_StdString_&)";
constexpr char kFind[] = "SP_VekmsgConnection_ VekmsgTerminalImpl_::findActiveConnection(SP_Utf8String_)";
constexpr char kAccepting[] = "bool VekmsgTerminalImpl_::processPollEvents(" STAGE "Accepting_, VekSocket_&)";
constexpr char kResolving[] =
    "void VekmsgTerminalImpl_::processPollEvents(" STAGE "Resolving_, " UNRESOLVED_PLACE ")";
constexpr char kSettling[] =
    "void VekmsgTerminalImpl_::processPollEvents(" STAGE "Settling_, VekmsgConnection_&, VekmsgConnection_&)";
constexpr char kServing[] =
    "bool VekmsgTerminalImpl_::processPollEvents(" STAGE "Serving_, VekmsgConnection_&, bool&)";
constexpr char kFill[] = "bool VekmsgTerminalImpl_::fillPollFdArray(pollfd*, unsigned int&)";
constexpr char kCreate[] = "bool VekmsgTerminalImpl_::createMessage(SP_VekMessage_&)";
constexpr char kSend[] = "bool VekmsgTerminalImpl_::sendMessage(SP_VekMessage_)";
constexpr char kSendFinding[] =
    "bool VekmsgTerminalImpl_::sendMessage(" STAGE "Finding_, const Utf8Char_*, SP_VekmsgConnection_&)";
constexpr char kSendOpening[] =
    "bool VekmsgTerminalImpl_::sendMessage(" STAGE "Opening_, const SP_Utf8String_&, SP_VekmsgConnection_&)";
constexpr char kSendConnecting[] =
    "bool VekmsgTerminalImpl_::sendMessage(" STAGE "Connecting_, const Utf8String_&, " ADDRESS_NAMES
    ", VekSocketAddress_&, SP_VekSocket_&)";
constexpr char kSendSelecting[] = "bool VekmsgTerminalImpl_::sendMessage(" STAGE
                                  "Selecting_, const Utf8String_&, " ADDRESS_NAMES ", VekSocketAddress_&)";
constexpr char kSendHanding[] =
    "bool VekmsgTerminalImpl_::sendMessage(" STAGE "Handing_, VekMessageBinary_&, VekmsgConnection_&)";
constexpr char kFirstBlock[] = "VekmsgTerminalImpl_::Decoded_ VekmsgTerminalImpl_::receiveMessage(" STAGE
                               "FirstBlock_, libcpp::SP_BasicBuffer_&, libcpp::SP_BasicBuffer_&, const "
                               "SP_Utf8String_&, SP_VekMessage_&)";
constexpr char kDispatching[] = "void VekmsgTerminalImpl_::receiveMessage(" STAGE
                                "Dispatching_, SP_VekMessage_&&, const SP_Utf8String_&)";
constexpr char kForwarding[] = "void VekmsgTerminalImpl_::receiveMessage(" STAGE
                               "Forwarding_, const SP_VekMessage_&, const SP_Utf8String_&)";
constexpr char kPinging[] = "void VekmsgTerminalImpl_::receiveMessage(" STAGE
                            "Pinging_, const SP_VekMessage_&, const SP_Utf8String_&)";
constexpr char kWait[] = "VekmsgTerminalImpl_::WaitResult_ VekmsgTerminalImpl_::waitForMessage(unsigned int)";
constexpr char kPollFd[] =
    "static VekmsgTerminalImpl_::PollResult_ VekmsgTerminalImpl_::pollFd(pollfd*, unsigned int, unsigned "
    "int, VekmsgTerminalImpl_* (*)(void*), char*)";

constexpr char kPrinter[] =
    "bool VekmsgTerminalImpl_::CreateMessagePrinter(std::ostream*, const char*, SP_VekmsgFilter_&) const";
constexpr char kReceiveRawPayload[] = "virtual bool VekmsgTerminal_::receiveRawPayload(SmartPointer_<" TEXT
                                      ">&, SmartPointer_<" TEXT ">&, SmartPointer_<BasicBuffer_>&)";

constexpr char kConnectionStart[] = "bool VekmsgConnection_::start()";
constexpr char kReconnect[] = "bool VekmsgConnection_::reconnectFailedSocket()";

inline Record_ error(const std::string& signature, const std::string& text) {
    return Record_(3, "vekmsg_impl.cpp", signature, text);
}
inline Record_ warning(const std::string& signature, const std::string& text) {
    return Record_(4, "vekmsg_impl.cpp", signature, text);
}
inline Record_ information(const std::string& signature, const std::string& text) {
    return Record_(6, "vekmsg_impl.cpp", signature, text);
}
inline Record_ debug(const std::string& signature, const std::string& text) {
    return Record_(7, "vekmsg_impl.cpp", signature, text);
}
inline Record_ socketRecord(int severity, const std::string& signature, const std::string& text) {
    return Record_(severity, "vek_socket.cpp", signature, text);
}
inline Record_ messageRecord(int severity, const std::string& signature, const std::string& text) {
    return Record_(severity, "vekmsg_binary.cpp", signature, text);
}
inline Record_ directoryRecord(int severity, const std::string& signature, const std::string& text) {
    return Record_(severity, "name_directory.cpp", signature, text);
}

#endif
