// Opening, closing and looking up connections.

#include <utility>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/quiet_spell.h"
#include "foundation/utf8_name.h"
#include "terminal/message_printer.h"
#include "terminal/terminal_impl.h"

VekmsgTerminalImpl_::VekmsgTerminalImpl_() = default;
VekmsgTerminalImpl_::~VekmsgTerminalImpl_() = default;

bool VekmsgTerminalImpl_::open(const Utf8Char_* p_componentName, const char* p_directoryPath) try {
    if (p_componentName == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::open() null p_componentName");
        return false;
    }
    if (*p_componentName == 0) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::open() null component name string");
        return false;
    }
    m_keptBlocks.clear();
    if (!m_nameDirectory.open(p_directoryPath)) return false;
    m_sp_componentName = createUtf8String(p_componentName);
    if (!m_sp_componentName) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::open() can't create Utf8String_");
        return false;
    }
    AddressNames_ addressNames;
    m_nameDirectory.getTransportAddresses(m_sp_componentName, addressNames);

    SP_StdString_ sp_defaultName;
    open(DefaultAddress_(), sp_defaultName);
    for (const SP_StdString_& sp_addressName : addressNames) {
        if (!open(OwnAddress_(), *sp_addressName, sp_defaultName)) return false;
    }
    for (const SP_VekmsgConnection_& sp_connection : m_activeConnections) sp_connection->stop();
    m_activeConnections.clear();
    return true;
}
VEKMSG_RETURN_ON_EXCEPTION(false)

void VekmsgTerminalImpl_::open(DefaultAddress_, SP_StdString_& sp_defaultName) {
    m_nameDirectory.getFirstDefaultTransportAddress(sp_defaultName);
    if (!sp_defaultName || !m_defaultTransportAddress.setRealName(sp_defaultName->c_str())) {
        VEKMSG_LOG_WARNING("No default transport address will be used");
    } else if (m_defaultTransportAddress.isWildcard()) {
        VEKMSG_LOG_WARNING("Default transport address can't be a wildcard %s", sp_defaultName->c_str());
    } else {
        return;
    }
    m_defaultTransportAddress.initializeAsWildcard(VekSocketAddress_::UNKNOWN);
}

bool VekmsgTerminalImpl_::open(OwnAddress_, const std::string& addressName,
                               const SP_StdString_& sp_defaultName) {
    VekSocketAddress_ address;
    if (!address.setRealName(addressName.c_str())) return true;
    if (address.isWildcard()) {
        VEKMSG_LOG_WARNING("Transport address %s for Component %s is not specific", addressName.c_str(),
                           printable(m_sp_componentName));
        return true;
    }
    if (address.isEqual(m_defaultTransportAddress)) {
        VEKMSG_LOG_WARNING("Default transport address %s is the same as %s self address. Not used",
                           sp_defaultName->c_str(), printable(m_sp_componentName));
        m_defaultTransportAddress.initializeAsWildcard(VekSocketAddress_::UNKNOWN);
    }
    SP_VekSocket_ sp_socket(new (std::nothrow) VekSocket_);
    if (!sp_socket) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::open() can't create VekSocket_");
        return false;
    }
    if (!sp_socket->initialize(address)) return false;
    if (address.type() == VekSocketAddress_::INET_UDP) {
        VEKMSG_LOG_WARNING("UDP binding %s for component %s is still under development", addressName.c_str(),
                           printable(m_sp_componentName));
        return true;
    }
    if (!sp_socket->listen(kListenBacklog)) return false;
    m_listeningSockets.push_back(sp_socket);
    VEKMSG_LOG_INFO("%s is listening on %s", printable(m_sp_componentName), addressName.c_str());
    return true;
}

void VekmsgTerminalImpl_::close() {
    for (const SP_VekSocket_& sp_socket : m_listeningSockets) sp_socket->cleanUp();
    m_listeningSockets.clear();
    for (const SP_VekmsgConnection_& sp_connection : m_unresolvedConnections) sp_connection->stop();
    m_unresolvedConnections.clear();
    for (const SP_VekmsgConnection_& sp_connection : m_activeConnections) sp_connection->stop();
    m_activeConnections.clear();
    m_receivedMessages.clear();
    m_keptBlocks.clear();
    m_nameDirectory.close();
    m_sp_componentName.reset();
}

[[gnu::hot]] SP_VekmsgConnection_ VekmsgTerminalImpl_::findActiveConnection(SP_Utf8String_ sp_peerName) try {
    SP_VekmsgConnection_ sp_probe(new (std::nothrow) VekmsgConnection_);
    if (!sp_probe) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::findActiveConnection() Can't create VekmsgConnection_");
        return SP_VekmsgConnection_();
    }
    sp_probe->setPeerName(std::move(sp_peerName));
    const auto found = m_activeConnections.find(sp_probe);
    if (found == m_activeConnections.end()) return SP_VekmsgConnection_();
    // One that still has to send the name takes messages already: they follow the name.
    if ((*found)->isFunctional() || (*found)->isStarting()) return *found;
    keepReceivedBlocks(**found);
    m_activeConnections.erase(found);
    return SP_VekmsgConnection_();
}
VEKMSG_RETURN_ON_EXCEPTION(SP_VekmsgConnection_())

void VekmsgTerminalImpl_::keepReceivedBlocks(VekmsgConnection_& connection) {
    const SP_Utf8String_ sp_peerName = connection.getPeerName();
    if (!sp_peerName || sp_peerName->empty() || !connection.hasReceived()) return;
    m_keptBlocks.emplace_back();
    m_keptBlocks.back().m_sp_peerName = sp_peerName;
    connection.moveReceivedTo(m_keptBlocks.back().m_blocks);
}

ActiveConnections_::iterator VekmsgTerminalImpl_::retire(ActiveConnections_::iterator active) {
    keepReceivedBlocks(**active);
    (*active)->stop();
    return m_activeConnections.erase(active);
}

bool VekmsgTerminalImpl_::setSendFilter(SP_VekmsgFilter_ sp_filter) {
    m_sp_sendFilter.swap(sp_filter);  // the old filter goes with the argument, after the new one is in place
    return true;
}

bool VekmsgTerminalImpl_::setReceiveFilter(SP_VekmsgFilter_ sp_filter) {
    m_sp_receiveFilter.swap(sp_filter);
    return true;
}

bool VekmsgTerminalImpl_::passesFilter(SP_VekmsgFilter_ sp_filter, SP_VekMessage_& sp_message) try {
    const QuietSpellEnd_ end;
    return sp_filter->process(sp_message);
}
VEKMSG_RETURN_ON_EXCEPTION(false)

bool VekmsgTerminalImpl_::CreateMessagePrinter(std::ostream* p_ostrm, const char* p_note,
                                               SP_VekmsgFilter_& sp_filter) const {
    if (p_ostrm == nullptr) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::CreateMessagePrinter() null p_ostrm");
        return false;
    }
    if (!isOpen()) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::CreateMessagePrinter() null m_sp_componentName");
        return false;
    }
    sp_filter = SP_VekmsgFilter_(new (std::nothrow) VekmsgPrinter_(p_ostrm, m_sp_componentName, p_note));
    if (!sp_filter) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::CreateMessagePrinter() can't create VekmsgPrinter_");
        return false;
    }
    return true;
}
