// From a message to a block on the connection with its destination.

#include <utility>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/utf8_name.h"
#include "terminal/terminal_impl.h"

// Not inlined: who sends makes a message, and so does who decodes one.
[[gnu::hot, gnu::noinline]] bool VekmsgTerminalImpl_::createMessage(SP_VekMessage_& sp_message) try {
    sp_message = SP_VekMessage_(new (std::nothrow) VekMessageBinary_);
    if (!sp_message) VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::createMessage() Can't create vekMessageBinary_");
    return !sp_message.isNull();
}
VEKMSG_RETURN_ON_EXCEPTION(false)

[[gnu::hot]] bool VekmsgTerminalImpl_::sendMessage(SP_VekMessage_ sp_message) try {
    if (!sp_message) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() null sp_message");
        return false;
    }
    const char* p_destination = printable(sp_message->getDestination());
    if (*p_destination == '\0') {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() null destination");
        return false;
    }
    const SP_Utf8String_ sp_ownName = m_sp_componentName;  // a filter runs below
    if (!sp_ownName) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() null m_sp_componentName");
        return false;
    }
    if (isSameText(p_destination, printable(sp_ownName))) {
        VEKMSG_LOG_ERROR("Can't send a message to itself (%s)", printable(sp_ownName));
        return false;
    }
    if (*printable(sp_message->getSource()) == '\0' && !sp_message->setSource(sp_ownName->c_str()))
        return false;

    if (m_sp_sendFilter && !passesFilter(m_sp_sendFilter, sp_message)) return false;
    if (!sp_message) return true;

    auto* p_binary = libcpp::castTo<VekMessageBinary_>(sp_message.get());
    if (p_binary == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() sp_message is not binary encoded");
        return false;
    }
    SP_VekmsgConnection_ sp_connection(findAtOnce(p_binary->getDestination()));
    if (!sp_connection && !sendMessage(Finding_(), p_binary->getDestination(), sp_connection)) return false;
    return sendMessage(Handing_(), *p_binary, *sp_connection);
}
VEKMSG_RETURN_ON_EXCEPTION(false)

[[gnu::hot]] VekmsgConnection_* VekmsgTerminalImpl_::findAtOnce(const Utf8Char_* p_name) const {
    VekmsgConnection_* p_latest = m_activeConnections.findLatest(p_name);
    const bool isFound = p_latest != nullptr && p_latest->isFunctional() && VekmsgConnection_::isAtHand() &&
                         isUtf8StringAtHand(Utf8CharTraits_::length(p_name));
    return isFound ? p_latest : nullptr;
}

bool VekmsgTerminalImpl_::sendMessage(Finding_, const Utf8Char_* p_destination,
                                      SP_VekmsgConnection_& sp_connection) {
    const SP_Utf8String_ sp_destination = createUtf8String(p_destination);
    if (!sp_destination) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() can't create Utf8String_");
        return false;
    }
    sp_connection = findActiveConnection(sp_destination);
    return sp_connection || sendMessage(Opening_(), sp_destination, sp_connection);
}

bool VekmsgTerminalImpl_::sendMessage(Opening_, const SP_Utf8String_& sp_destination,
                                      SP_VekmsgConnection_& sp_connection) {
    sp_connection = new (std::nothrow) VekmsgConnection_;
    if (!sp_connection) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() Can't create VekmsgConnection_");
        return false;
    }
    if (!sp_connection->setMyName(m_sp_componentName)) return false;
    sp_connection->setPeerName(sp_destination);

    AddressNames_ addressNames;
    m_nameDirectory.getTransportAddresses(sp_destination, addressNames);
    VekSocketAddress_ address;
    SP_VekSocket_ sp_socket;
    if (!sendMessage(Connecting_(), *sp_destination, addressNames, address, sp_socket)) return false;

    sp_connection->setSocket(sp_socket);
    sp_connection->setMaxFailureRetryCount(address.type());
    if (!sp_connection->start()) return false;
    if (!m_activeConnections.insert(sp_connection).second) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() connection %s -- %s insert failure",
                         printable(m_sp_componentName), printable(sp_destination));
        return false;
    }
    return true;
}

/// With an empty list the socket stays null, and starting the connection fails for want of one.
bool VekmsgTerminalImpl_::sendMessage(Connecting_, const Utf8String_& destination,
                                      AddressNames_& addressNames, VekSocketAddress_& address,
                                      SP_VekSocket_& sp_socket) {
    address.initializeAsWildcard(VekSocketAddress_::UNKNOWN);
    while (!addressNames.empty()) {
        if (!sendMessage(Selecting_(), destination, addressNames, address)) return false;
        if (address.isWildcard()) {
            if (m_defaultTransportAddress.isWildcard()) {
                VEKMSG_LOG_ERROR("No route to %s at %s", printable(destination),
                                 printable(m_sp_componentName));
                continue;
            }
            address = m_defaultTransportAddress;
        }
        sp_socket = new (std::nothrow) VekSocket_;
        if (!sp_socket) {
            VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() Can't create vekSocket_");
            return false;
        }
        VekSocketAddress_ localAddress;
        localAddress.initializeAsWildcard(address.type());
        if (!sp_socket->initialize(localAddress)) {
            sp_socket->cleanUp();
            return false;
        }
        if (sp_socket->connect(address)) return true;
        sp_socket->cleanUp();
        if (addressNames.empty()) {
            VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::sendMessage() Unable to send to any %s address",
                             printable(destination));
            return false;
        }
        VEKMSG_LOG_DEBUG("VekmsgTerminalImpl_::sendMessage() Tolerate connect failure - Use next %s address",
                         printable(destination));
    }
    return true;
}

/// False, without a record, when the list ends with an address that cannot be used.
bool VekmsgTerminalImpl_::sendMessage(Selecting_, const Utf8String_& destination, AddressNames_& addressNames,
                                      VekSocketAddress_& address) {
    while (!addressNames.empty()) {
        const SP_StdString_ sp_addressName = addressNames.front();
        addressNames.pop_front();
        if (!address.setRealName(sp_addressName->c_str())) {
            address.initializeAsWildcard(VekSocketAddress_::UNKNOWN);
        } else if (address.type() == VekSocketAddress_::INET_UDP && !address.isWildcard()) {
            VEKMSG_LOG_WARNING("Skipped %s for destination %s because UDP binding is still under development",
                               address.realName().c_str(), printable(destination));
            address.initializeAsWildcard(VekSocketAddress_::UNKNOWN);
        } else if (!address.isWildcard()) {
            return true;
        }
    }
    return false;
}

/// An unrecoverable write error is not the caller's to see: the connection is retired by the next pass.
[[gnu::hot]] bool VekmsgTerminalImpl_::sendMessage(Handing_, VekMessageBinary_& message,
                                                   VekmsgConnection_& connection) {
    SP_BasicBuffer_ sp_buffer;
    const unsigned int length = message.serialize(sp_buffer);
    if (length == 0) return false;
    const unsigned int headerSize = VekmsgConnection_::getEncodingBlockHeaderSize();
    if (sp_buffer->headerRoom() < headerSize) {
        VEKMSG_LOG_ERROR("Not enough header space %u left to encode message (%s -> %s) in a block",
                         sp_buffer->headerRoom(), printable(message.getSource()),
                         printable(message.getDestination()));
        return false;
    }
    VekmsgConnection_::writeEncodingBlockHeader(sp_buffer->data() - headerSize,
                                                VekmsgConnection_::BINARY_ENCODED_MESSAGE, length);
    sp_buffer->extendDataIntoHeader(static_cast<int>(headerSize));
    if (!connection.sendEncodedMessage(std::move(sp_buffer)))
        VEKMSG_LOG_DEBUG("VekmsgTerminalImpl_::sendMessage() Unrecoverable send error at %s",
                         printable(m_sp_componentName));
    return true;
}
