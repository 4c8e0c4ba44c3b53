#ifndef VEKMSG_TESTS_STREAMS_H
#define VEKMSG_TESTS_STREAMS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "support/child_process.h"
#include "support/record_capture.h"
#include "support/system_calls.h"
#include "support/temporary_folder.h"
#include "transport/socket.h"

inline VekSocketAddress_ addressOf(const std::string& text) {
    VekSocketAddress_ address;
    if (!address.setRealName(text.c_str())) throw std::runtime_error("no address: " + text);
    return address;
}

inline VekSocketAddress_ wildcardOf(VekSocketAddress_::AddressType_ type) {
    VekSocketAddress_ address;
    address.initializeAsWildcard(type);
    return address;
}

inline SP_BasicBuffer_ emptyBuffer(unsigned int capacity) {
    return SP_BasicBuffer_(new BasicBuffer_(capacity));
}

inline SP_BasicBuffer_ bufferWith(const std::string& text, unsigned int trailerRoom = 0) {
    const auto length = static_cast<unsigned int>(text.size());
    SP_BasicBuffer_ sp_buffer = emptyBuffer(length + trailerRoom);
    std::memcpy(sp_buffer->storage(), text.data(), text.size());
    sp_buffer->setDataArea(0, length);
    return sp_buffer;
}

inline std::string textOf(const SP_BasicBuffer_& sp_buffer) {
    if (!sp_buffer) return "(null)";
    return std::string(reinterpret_cast<const char*>(sp_buffer->data()), sp_buffer->dataLength());
}

/// What a record says of a failed system call.
inline std::string errorText(int error) {
    return "error(" + std::to_string(error) + "): " + std::strerror(error);
}

inline Record_ socketRecord(int severity, const std::string& signature, const std::string& text) {
    return Record_(severity, "vek_socket.cpp", signature, text);
}

inline bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

/// The number that the next new descriptor will get.
inline int nextDescriptor() {
    const int descriptor = ::dup(STDIN_FILENO);
    ::close(descriptor);
    return descriptor;
}

inline std::string listenOn(VekSocket_& listener, const std::string& text) {
    if (!listener.initialize(addressOf(text)) || !listener.listen(20))
        throw std::runtime_error("cannot listen");
    return text;
}

/// Starts a connection; a TCP one is still under way when this returns.
inline void startConnecting(VekSocket_& client, const std::string& text) {
    const VekSocketAddress_ address = addressOf(text);
    if (!client.initialize(wildcardOf(address.type())) || !client.connect(address))
        throw std::runtime_error("cannot connect");
}

inline bool becomesConnected(VekSocket_& client) {
    SP_BasicBuffer_ sp_nothing;
    return eventually(
        [&] { return client.isConnected() || (client.check(sp_nothing), client.isConnected()); });
}

inline SP_VekSocket_ acceptOne(VekSocket_& listener) {
    SP_VekSocket_ sp_accepted;
    eventually([&] { return !listener.accept(sp_accepted) || !sp_accepted.isNull(); });
    return sp_accepted;
}

/// Checks until the armed receive is complete.
inline std::string receiveAll(VekSocket_& socket) {
    SP_BasicBuffer_ sp_complete;
    eventually([&] { return !socket.check(sp_complete) || !sp_complete.isNull(); });
    return textOf(sp_complete);
}

inline std::string receiveText(VekSocket_& socket, unsigned int length) {
    socket.receive(length, emptyBuffer(length));
    return receiveAll(socket);
}

/// Two ends of a stream: the client connected, the server was accepted.
struct Streams_ {
    explicit Streams_(VekSocketAddress_::AddressType_ type)
        : m_address(type == VekSocketAddress_::LOCAL ? m_folder.localAddress("server") : freeTcpAddress()) {
        listenOn(m_listener, m_address);
        startConnecting(m_client, m_address);
        m_sp_server = acceptOne(m_listener);
        if (!m_sp_server || !becomesConnected(m_client)) throw std::runtime_error("no stream");
    }

    TemporaryFolder_ m_folder;
    std::string m_address;
    VekSocket_ m_listener;
    VekSocket_ m_client;
    SP_VekSocket_ m_sp_server;
};

/// One socket, with the records it writes and the system calls it makes.
class SocketTest_ : public testing::Test {
protected:
    /// Makes the next call fail and tells what a record says of it.
    std::string failNext(SystemCalls_::Call_ call, int error, unsigned int skipped = 0) {
        m_calls.fail(call, error, skipped);
        return errorText(error);
    }

    TemporaryFolder_ m_folder;
    SystemCalls_ m_calls;
    RecordCapture_ m_records;
    VekSocket_ m_socket;
};

#endif
