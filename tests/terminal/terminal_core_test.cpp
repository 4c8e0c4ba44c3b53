#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "support/system_calls.h"
#include "terminal/installation.h"

namespace {

constexpr char kParseType[] = "bool VekSocketAddress_::setRealName(const char*, std::size_t)";
constexpr char kParseEndpoint[] = "bool VekSocketAddress_::setRealName(const char*, const char*)";
constexpr char kReadEntry[] =
    "static bool NameDirectory_::getEntry(std::ifstream*, unsigned int&, libcpp::SP_StdString_&, "
    "SP_Utf8String_&)";

const Record_ kNoDefault = warning(kOpenDefault, "No default transport address will be used");

Record_ listening(const std::string& component, const std::string& address) {
    return information(kOpenOwn, component + " is listening on " + address);
}

Record_ underDevelopment(const std::string& address) {
    return warning(kOpenOwn, "UDP binding " + address + " for component anna is still under development");
}

class TerminalCore : public Installation_ {
protected:
    bool opens(const std::string& component, const std::vector<std::string>& lines) {
        return m_terminal.open(utf8(component), directory(component, lines).c_str());
    }

    std::string defaultAddress() const { return m_terminal.m_defaultTransportAddress.realName(); }

    TestTerminal_ m_terminal;
};

}  // namespace

TEST_F(TerminalCore, aNullNameDoesNotOpen) {
    EXPECT_FALSE(m_terminal.open(nullptr, directory("anna", {}).c_str()));

    EXPECT_EQ(m_records.take(), Records_{error(kOpen, "VekmsgTerminalImpl_::open() null p_componentName")});
    EXPECT_TRUE(m_terminal.m_sp_componentName.isNull());
}

TEST_F(TerminalCore, anEmptyNameDoesNotOpen) {
    EXPECT_FALSE(opens("", {}));

    EXPECT_EQ(m_records.take(),
              Records_{error(kOpen, "VekmsgTerminalImpl_::open() null component name string")});
    EXPECT_TRUE(m_terminal.m_sp_componentName.isNull());
}

TEST_F(TerminalCore, aNameThatIsRefusedLeavesAnOpenTerminalOpenUnderItsOwn) {
    const Utf8Char_* const names[] = {nullptr, utf8("")};
    EXPECT_TRUE(opens("anna", locals({"anna"})));
    const std::string path = directory("other", {});
    for (const Utf8Char_* p_name : names) {
        EXPECT_FALSE(m_terminal.open(p_name, path.c_str()));

        ASSERT_FALSE(m_terminal.m_sp_componentName.isNull());
        EXPECT_EQ(text(m_terminal.m_sp_componentName->c_str()), "anna");
    }
    EXPECT_EQ(m_terminal.m_listeningSockets.size(), 1U);
    const Terminal_ bert = openLocal("bert", {"anna"});
    EXPECT_TRUE(bert->sendMessage(messageTo("anna", 1)));
    EXPECT_EQ(numberIn(receiveAt(m_terminal)), 1U);
}

TEST_F(TerminalCore, aMissingDirectoryFileDoesNotOpen) {
    const std::string path = m_folder.path("missing");

    EXPECT_FALSE(m_terminal.open(utf8("anna"), path.c_str()));

    EXPECT_EQ(m_records.take(),
              Records_{directoryRecord(3, "bool NameDirectory_::open(const char*)",
                                       "NameDirectory_::open(): can't open directory file " + path + ".")});
    EXPECT_TRUE(m_terminal.m_sp_componentName.isNull());
}

TEST_F(TerminalCore, aFolderInPlaceOfTheDirectoryFileIsReadAsAnEmptyOne) {
    EXPECT_TRUE(m_terminal.open(utf8("anna"), m_folder.path("").c_str()));

    EXPECT_EQ(m_records.take(),
              (Records_{directoryRecord(3, kReadEntry, "NameDirectory_::getEntry(): bad file"), kNoDefault}));
    EXPECT_TRUE(m_terminal.m_listeningSockets.empty());
}

TEST_F(TerminalCore, openListensOnEachOwnAddressInTheOrderOfTheDirectory) {
    const std::string tcp = freeTcpAddress();

    EXPECT_TRUE(opens("anna", {tcp + " anna", local("bert") + " bert", local("anna") + " anna"}));

    EXPECT_EQ(m_records.take(),
              (Records_{kNoDefault, listening("anna", tcp), listening("anna", local("anna"))}));
    EXPECT_EQ(m_terminal.m_listeningSockets.size(), 2U);
    EXPECT_TRUE(m_terminal.m_activeConnections.empty());
    RawPeer_ overTcp(tcp);
    RawPeer_ overLocal(local("anna"));
}

TEST_F(TerminalCore, recordsOfOwnAddressesShowThemAsTheyStandInTheDirectory) {
    std::string tcp = freeTcpAddress();
    tcp.insert(tcp.rfind(':') + 1, "0");

    EXPECT_TRUE(opens("anna", {"inetudp://127.0.0.1:00 anna", tcp + " anna"}));

    EXPECT_EQ(m_records.take(),
              (Records_{kNoDefault, underDevelopment("inetudp://127.0.0.1:00"), listening("anna", tcp)}));
}

TEST_F(TerminalCore, theFirstDefaultAddressIsRemembered) {
    EXPECT_TRUE(opens("anna", {local("router"), local("other")}));

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_EQ(defaultAddress(), local("router"));
}

TEST_F(TerminalCore, aDefaultAddressThatDoesNotParseIsNotUsed) {
    EXPECT_TRUE(opens("anna", {"tcp://1.2.3.4:5", local("router")}));

    EXPECT_EQ(
        m_records.take(),
        (Records_{socketRecord(3, kParseType, "VekSocketAddress_::setRealName(tcp://1.2.3.4:5) invalid type"),
                  kNoDefault}));
    EXPECT_EQ(m_terminal.m_defaultTransportAddress.type(), VekSocketAddress_::UNKNOWN);
}

TEST_F(TerminalCore, aWildcardAsDefaultAddressIsNotUsed) {
    EXPECT_TRUE(opens("anna", {"inettcp://"}));

    EXPECT_EQ(m_records.take(),
              Records_{warning(kOpenDefault, "Default transport address can't be a wildcard inettcp://")});
    EXPECT_EQ(m_terminal.m_defaultTransportAddress.type(), VekSocketAddress_::UNKNOWN);
}

TEST_F(TerminalCore, theOwnAddressIsNotUsedAsDefault) {
    EXPECT_TRUE(opens("anna", {local("anna"), local("anna") + " anna"}));

    EXPECT_EQ(m_records.take(),
              (Records_{warning(kOpenOwn, "Default transport address " + local("anna") +
                                              " is the same as anna self address. Not used"),
                        listening("anna", local("anna"))}));
    EXPECT_EQ(m_terminal.m_defaultTransportAddress.type(), VekSocketAddress_::UNKNOWN);
}

TEST_F(TerminalCore, anOwnUdpAddressIsNotUsedAsDefaultEither) {
    EXPECT_TRUE(opens("anna", {"inetudp://127.0.0.1:00", "inetudp://127.0.0.1:0 anna"}));

    EXPECT_EQ(m_records.take(),
              (Records_{warning(kOpenOwn,
                                "Default transport address inetudp://127.0.0.1:00 is the same as anna self "
                                "address. Not used"),
                        underDevelopment("inetudp://127.0.0.1:0")}));
    EXPECT_EQ(m_terminal.m_defaultTransportAddress.type(), VekSocketAddress_::UNKNOWN);
}

TEST_F(TerminalCore, aWildcardAmongTheOwnAddressesIsSkipped) {
    EXPECT_TRUE(opens("anna", {"inettcp:// anna", local("anna") + " anna"}));

    EXPECT_EQ(m_records.take(),
              (Records_{kNoDefault,
                        warning(kOpenOwn, "Transport address inettcp:// for Component anna is not specific"),
                        listening("anna", local("anna"))}));
    EXPECT_EQ(m_terminal.m_listeningSockets.size(), 1U);
}

TEST_F(TerminalCore, anOwnAddressThatDoesNotParseIsSkipped) {
    EXPECT_TRUE(opens("anna", {"inettcp://? anna", local("anna") + " anna"}));

    EXPECT_EQ(
        m_records.take(),
        (Records_{kNoDefault,
                  socketRecord(3, kParseEndpoint, "VekSocketAddress_::setRealName(inettcp://?) invalid port"),
                  listening("anna", local("anna"))}));
    EXPECT_EQ(m_terminal.m_listeningSockets.size(), 1U);
}

TEST_F(TerminalCore, anOwnUdpAddressIsNotServed) {
    EXPECT_TRUE(opens("anna", {"inetudp://127.0.0.1:0 anna", local("anna") + " anna"}));

    EXPECT_EQ(m_records.take(), (Records_{kNoDefault, underDevelopment("inetudp://127.0.0.1:0"),
                                          listening("anna", local("anna"))}));
    EXPECT_EQ(m_terminal.m_listeningSockets.size(), 1U);
}

TEST_F(TerminalCore, aFailedOpenLeavesWhatItHasTakenToClose) {
    const std::string lost = "local://" + m_folder.path("no-folder/anna");

    EXPECT_FALSE(opens("anna", {local("anna") + " anna", lost + " anna"}));

    EXPECT_EQ(m_records.take(),
              (Records_{kNoDefault, listening("anna", local("anna")),
                        socketRecord(7, "bool VekSocket_::initialize(VekSockNativeAddr_&)",
                                     "VekSocket_::initialize() bind(" + lost +
                                         ") failed with error(2): No such file or directory")}));
    EXPECT_EQ(m_terminal.m_listeningSockets.size(), 1U);
    m_terminal.close();
    EXPECT_TRUE(m_terminal.m_listeningSockets.empty());
    EXPECT_TRUE(opens("anna", {local("anna") + " anna"}));
}

TEST_F(TerminalCore, anAddressThatCannotBeListenedOnDoesNotOpen) {
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Listen, EADDRINUSE);

    EXPECT_FALSE(opens("anna", {local("anna") + " anna"}));

    EXPECT_EQ(m_records.take(),
              (Records_{kNoDefault, socketRecord(3, "bool VekSocket_::listen(unsigned int)",
                                                 "VekSocket_::listen() listen(" + local("anna") +
                                                     ") failed with error(98): Address already in use")}));
    EXPECT_TRUE(m_terminal.m_listeningSockets.empty());
}

TEST_F(TerminalCore, openFailsWithoutMemory) {
    // A name that is too long to lie in the string object itself.
    const std::string component = "anna of the longer name";
    const std::string path = directory("anna", {local("router"), local("anna") + " " + component});
    const std::string other = directory("other", {local("router"), local("anna") + " anna"});

    const Outcomes_ withLongName = failEachAllocation([&]() -> Call_ {
        const std::shared_ptr<TestTerminal_> terminal(new TestTerminal_);
        return [=] { return terminal->open(utf8(component), path.c_str()); };
    });
    const Outcomes_ withAddress = failEachAllocation([&]() -> Call_ {
        const std::shared_ptr<TestTerminal_> terminal(new TestTerminal_);
        return [=] { return terminal->open(utf8("anna"), other.c_str()); };
    });

    EXPECT_TRUE(contains(withLongName,
                         {false, {error(kOpen, "VekmsgTerminalImpl_::open() can't create Utf8String_")}}))
        << testing::PrintToString(withLongName);
    EXPECT_TRUE(contains(withAddress,
                         {false, {error(kOpenOwn, "VekmsgTerminalImpl_::open() can't create VekSocket_")}}))
        << testing::PrintToString(withAddress);
}

TEST_F(TerminalCore, aComponentThatIsNotListedOpensAndIsAnsweredOnItsOwnConnection) {
    const Terminal_ bert = openLocal("bert");
    EXPECT_TRUE(opens("guest", locals({"bert"})));
    EXPECT_EQ(m_records.take(), Records_{kNoDefault});
    EXPECT_TRUE(m_terminal.m_listeningSockets.empty());

    EXPECT_TRUE(m_terminal.sendMessage(messageTo("bert", 1)));
    EXPECT_EQ(numberIn(receiveAt(*bert)), 1U);
    EXPECT_TRUE(bert->sendMessage(messageTo("guest", 2)));

    EXPECT_EQ(numberIn(receiveAt(m_terminal)), 2U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalCore, openingAgainEndsActiveConnectionsAndForgetsKeptBlocks) {
    EXPECT_TRUE(opens("anna", locals({"anna"})));
    RawPeer_ peer(local("anna"));
    peer.write(nameBlock("bert"));
    ASSERT_TRUE(m_terminal.pass());
    ASSERT_EQ(m_terminal.m_activeConnections.size(), 1U);
    m_terminal.m_keptBlocks.push_back({name("cora"), BufferQueue_(1, bufferOf("kept"))});

    EXPECT_TRUE(opens("anna", {local("anna2") + " anna"}));

    EXPECT_TRUE(m_terminal.m_activeConnections.empty());
    EXPECT_TRUE(m_terminal.m_keptBlocks.empty());
    EXPECT_TRUE(peer.isAtEnd());
}

TEST_F(TerminalCore, openingAgainLeavesUnresolvedConnectionsAndReceivedMessages) {
    EXPECT_TRUE(opens("anna", locals({"anna"})));
    RawPeer_ unresolved(local("anna"));
    ASSERT_TRUE(m_terminal.pass());
    m_terminal.m_receivedMessages.push_back(messageTo("anna", 7));

    EXPECT_TRUE(opens("anna", {local("anna2") + " anna"}));

    EXPECT_EQ(m_terminal.m_unresolvedConnections.size(), 1U);
    unresolved.write(nameBlock("bert") + messageBlock("anna", "bert", 8));
    EXPECT_EQ(numbersAt(m_terminal), (std::vector<unsigned int>{7, 8}));
}

TEST_F(TerminalCore, openingAgainInVainLeavesConnectionsAndReceivedMessages) {
    EXPECT_TRUE(opens("anna", locals({"anna"})));
    RawPeer_ active(local("anna"));
    active.write(nameBlock("bert"));
    ASSERT_TRUE(m_terminal.pass());
    RawPeer_ unresolved(local("anna"));
    ASSERT_TRUE(m_terminal.pass());
    m_terminal.m_receivedMessages.push_back(messageTo("anna", 1));
    const struct {
        std::string m_directory;
        std::string m_component;  // whose name the terminal has afterwards
        std::size_t m_listening;
    } cases[] = {
        {m_folder.path("missing"), "anna", 1},
        {directory("cora", {local("cora") + " cora", "local://" + m_folder.path("no-folder/cora") + " cora"}),
         "cora", 2}};
    for (const auto& each : cases) {
        EXPECT_FALSE(m_terminal.open(utf8("cora"), each.m_directory.c_str()));

        ASSERT_FALSE(m_terminal.m_sp_componentName.isNull());
        EXPECT_EQ(text(m_terminal.m_sp_componentName->c_str()), each.m_component);
        EXPECT_EQ(m_terminal.m_listeningSockets.size(), each.m_listening);
        EXPECT_TRUE(m_terminal.isConnected(utf8("bert")));
        EXPECT_EQ(m_terminal.m_unresolvedConnections.size(), 1U);
        EXPECT_EQ(m_terminal.m_receivedMessages.size(), 1U);
    }
    active.write(messageBlock("cora", "bert", 2));
    unresolved.write(nameBlock("dora") + messageBlock("cora", "dora", 3));
    EXPECT_EQ(numbersAt(m_terminal), (std::vector<unsigned int>{1, 2, 3}));
}

TEST_F(TerminalCore, closingAClosedTerminalDoesNothing) {
    m_terminal.close();

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_TRUE(m_terminal.m_sp_componentName.isNull());
    EXPECT_TRUE(m_terminal.m_listeningSockets.empty());
}

TEST_F(TerminalCore, closeEndsAllConnectionsAndRemovesTheSocketFile) {
    EXPECT_TRUE(opens("anna", locals({"anna"})));
    RawPeer_ resolved(local("anna"));
    resolved.write(nameBlock("bert"));
    ASSERT_TRUE(m_terminal.pass());
    RawPeer_ unresolved(local("anna"));
    ASSERT_TRUE(m_terminal.pass());
    ASSERT_EQ(m_terminal.m_unresolvedConnections.size(), 1U);
    m_terminal.m_receivedMessages.push_back(messageTo("anna", 1));
    m_terminal.m_keptBlocks.push_back({name("cora"), BufferQueue_(1, bufferOf("kept"))});
    ASSERT_TRUE(std::filesystem::exists(m_folder.path("anna")));
    m_records.take();

    m_terminal.close();

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_TRUE(resolved.isAtEnd());
    EXPECT_TRUE(unresolved.isAtEnd());
    EXPECT_FALSE(std::filesystem::exists(m_folder.path("anna")));
    EXPECT_TRUE(m_terminal.m_unresolvedConnections.empty());
    EXPECT_TRUE(m_terminal.m_activeConnections.empty());
    EXPECT_TRUE(m_terminal.m_receivedMessages.empty());
    EXPECT_TRUE(m_terminal.m_keptBlocks.empty());
    EXPECT_TRUE(m_terminal.m_sp_componentName.isNull());
}

TEST_F(TerminalCore, theDefaultAddressAndTheFiltersOutliveClose) {
    const SP_VekmsgFilter_ sp_filter = filterOf([](SP_VekMessage_&) { return true; });
    EXPECT_TRUE(opens("anna", {local("router")}));
    m_terminal.setSendFilter(sp_filter);
    m_terminal.setReceiveFilter(sp_filter);

    m_terminal.close();

    EXPECT_EQ(defaultAddress(), local("router"));
    EXPECT_EQ(m_terminal.m_sp_sendFilter, sp_filter);
    EXPECT_EQ(m_terminal.m_sp_receiveFilter, sp_filter);
    EXPECT_TRUE(opens("anna", {}));
    EXPECT_EQ(m_terminal.m_sp_sendFilter, sp_filter);
    EXPECT_EQ(m_terminal.m_sp_receiveFilter, sp_filter);
}

TEST_F(TerminalCore, openingAgainReadsTheDirectoryAgain) {
    const Terminal_ bert = openLocal("bert");
    EXPECT_TRUE(opens("anna", locals({"anna"})));
    EXPECT_FALSE(m_terminal.sendMessage(messageTo("bert", 1)));
    m_terminal.close();

    EXPECT_TRUE(opens("anna", locals({"anna", "bert"})));

    EXPECT_TRUE(m_terminal.sendMessage(messageTo("bert", 2)));
    EXPECT_EQ(numberIn(receiveAt(*bert)), 2U);
}

TEST_F(TerminalCore, theFirstDefaultAddressEverReadStays) {
    EXPECT_TRUE(opens("anna", {local("router")}));
    m_terminal.close();

    EXPECT_TRUE(opens("anna", {local("other")}));

    EXPECT_EQ(defaultAddress(), local("router"));
}

TEST_F(TerminalCore, anUnknownPeerHasNoActiveConnection) {
    EXPECT_TRUE(opens("anna", {}));
    m_terminal.addActive("bert");
    m_records.take();

    EXPECT_TRUE(m_terminal.findActiveConnection(name("cora")).isNull());

    EXPECT_EQ(m_terminal.m_activeConnections.size(), 1U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalCore, anEstablishedConnectionAndOneUnderWayAreFound) {
    RawListener_ bert(local("bert"));
    EXPECT_TRUE(opens("anna", locals({"bert"})));
    ASSERT_TRUE(m_terminal.sendMessage(messageTo("bert", 1)));
    const SP_VekmsgConnection_ sp_connection = m_terminal.active("bert");
    ASSERT_TRUE(sp_connection->isFunctional());

    EXPECT_EQ(m_terminal.findActiveConnection(name("bert")), sp_connection);

    const SP_TestConnection_ sp_starting = m_terminal.addActive("cora");
    sp_connection->getSocket(sp_starting->m_sp_socket);
    sp_starting->m_connectionState = VekmsgConnection_::STATE_SENDING_NAME;
    EXPECT_EQ(m_terminal.findActiveConnection(name("cora")).get(), sp_starting.get());
}

TEST_F(TerminalCore, aConnectionThatIsOfNoUseIsErasedAndNotStopped) {
    EXPECT_TRUE(opens("anna", locals({"bert"})));
    RawListener_ bert(local("bert"));
    ASSERT_TRUE(m_terminal.sendMessage(messageTo("bert", 1)));
    SP_VekSocket_ sp_socket;
    m_terminal.active("bert")->getSocket(sp_socket);
    m_terminal.m_activeConnections.clear();
    m_records.take();
    struct {
        VekmsgConnection_::ConnectionState_ m_state;
        unsigned int m_failures;
    } const cases[] = {{VekmsgConnection_::STATE_FAILED, 0},
                       {VekmsgConnection_::STATE_IDLE, 0},
                       {VekmsgConnection_::STATE_RECEIVING_HEADER, 2},
                       {VekmsgConnection_::STATE_SENDING_NAME, 2}};
    for (const auto& each : cases) {
        const SP_TestConnection_ sp_connection = m_terminal.addActive("bert");
        sp_connection->m_sp_socket = sp_socket;
        sp_connection->m_connectionState = each.m_state;
        sp_connection->m_failureCount = each.m_failures;

        EXPECT_TRUE(m_terminal.findActiveConnection(name("bert")).isNull()) << each.m_state;

        EXPECT_TRUE(m_terminal.m_activeConnections.empty()) << each.m_state;
        EXPECT_EQ(sp_connection->m_connectionState, each.m_state);
        EXPECT_TRUE(sp_socket->isConnected());
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(TerminalCore, whatAnErasedConnectionHadReceivedIsKept) {
    EXPECT_TRUE(opens("anna", locals({"anna"})));
    const SP_TestConnection_ sp_connection = m_terminal.addActive("bert");
    sp_connection->m_receivedBuffers.push_back(bufferOf(messageBlock("anna", "bert", 1)));
    sp_connection->m_receivedBuffers.push_back(bufferOf(messageBlock("anna", "bert", 2)));

    EXPECT_TRUE(m_terminal.findActiveConnection(name("bert")).isNull());

    EXPECT_EQ(m_terminal.m_keptBlocks.size(), 1U);
    EXPECT_EQ(numbersAt(m_terminal), (std::vector<unsigned int>{1, 2}));
}

TEST_F(TerminalCore, theLookUpFailsWithoutMemory) {
    const std::string path = directory("anna", {});

    const Outcomes_ outcomes = failEachAllocation([&]() -> Call_ {
        const std::shared_ptr<TestTerminal_> terminal(new TestTerminal_);
        terminal->open(utf8("anna"), path.c_str());
        terminal->addActive("bert");
        const SP_Utf8String_ sp_name = name("bert");
        return [=] { return !terminal->findActiveConnection(sp_name).isNull(); };
    });

    EXPECT_EQ(outcomes, (Outcomes_{{false,
                                    {error(kFind,
                                           "VekmsgTerminalImpl_::findActiveConnection() Can't create "
                                           "VekmsgConnection_")}}}));
}

TEST_F(TerminalCore, aLookUpThatFindsNoMemoryToKeepBlocksLeavesThemWhereTheyAre) {
    const std::string path = directory("anna", {});

    const Outcomes_ outcomes = failEachAllocation([&]() -> Call_ {
        const std::shared_ptr<TestTerminal_> terminal(new TestTerminal_);
        terminal->open(utf8("anna"), path.c_str());
        const SP_TestConnection_ sp_connection = terminal->addActive("bert");
        sp_connection->m_receivedBuffers.push_back(bufferOf(messageBlock("anna", "bert", 1)));
        const SP_Utf8String_ sp_name = name("bert");
        return [=] {
            EXPECT_TRUE(terminal->findActiveConnection(sp_name).isNull());
            return terminal->m_activeConnections.size() == 1 && sp_connection->hasReceived();
        };
    });

    EXPECT_EQ(outcomes, (Outcomes_{{true,
                                    {error(kFind,
                                           "VekmsgTerminalImpl_::findActiveConnection() Can't create "
                                           "VekmsgConnection_")}},
                                   {true, {}}}));
}

TEST_F(TerminalCore, filtersCanBeSetOnAClosedTerminalAndReplaceEachOther) {
    bool isGone = false;
    const std::shared_ptr<void> mark(nullptr, [&](void*) { isGone = true; });
    SP_VekmsgFilter_ sp_filter = filterOf([mark](SP_VekMessage_&) { return true; });
    std::weak_ptr<void> watched = mark;

    EXPECT_TRUE(m_terminal.setSendFilter(sp_filter));
    EXPECT_TRUE(m_terminal.setReceiveFilter(sp_filter));
    sp_filter.reset();
    const long held = watched.use_count();
    EXPECT_TRUE(m_terminal.setSendFilter(SP_VekmsgFilter_()));
    EXPECT_EQ(watched.use_count(), held);
    EXPECT_TRUE(m_terminal.setReceiveFilter(filterOf([](SP_VekMessage_&) { return true; })));

    EXPECT_EQ(watched.use_count(), held - 1);
    EXPECT_FALSE(m_terminal.m_sp_receiveFilter.isNull());
    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_FALSE(isGone);
}

TEST_F(TerminalCore, aNullFilterSwitchesFilteringOff) {
    const Terminal_ bert = openLocal("bert");
    EXPECT_TRUE(opens("anna", locals({"anna", "bert"})));
    m_terminal.setSendFilter(filterOf([](SP_VekMessage_&) { return false; }));
    EXPECT_FALSE(m_terminal.sendMessage(messageTo("bert", 1)));

    m_terminal.setSendFilter(SP_VekmsgFilter_());

    EXPECT_TRUE(m_terminal.sendMessage(messageTo("bert", 2)));
    EXPECT_EQ(numberIn(receiveAt(*bert)), 2U);
}

TEST_F(TerminalCore, aPrinterIsAFilterThatPassesWhatItPrints) {
    const Terminal_ bert = openLocal("bert");
    EXPECT_TRUE(opens("anna", locals({"bert"})));
    std::ostringstream output;
    SP_VekmsgFilter_ sp_sent;
    SP_VekmsgFilter_ sp_received;
    EXPECT_TRUE(m_terminal.CreateMessagePrinter(&output, "sent", sp_sent));
    EXPECT_TRUE(bert->CreateMessagePrinter(&output, "received", sp_received));
    EXPECT_TRUE(m_terminal.m_sp_sendFilter.isNull());  // making one does not install it
    m_terminal.setSendFilter(sp_sent);
    bert->setReceiveFilter(sp_received);

    EXPECT_TRUE(m_terminal.sendMessage(messageTo("bert", 7)));
    EXPECT_EQ(numbersAt(*bert), std::vector<unsigned int>{7});

    const std::string xml =
        "<?xml version=\"1.0\"?>\n<vek:Message>\n\t<vek:Sender>anna</vek:Sender>\n"
        "\t<vek:Receiver>bert</vek:Receiver>\n\t<vek:TimeToLive>3</vek:TimeToLive>\n"
        "\t<vek:PayloadSchema Type=\"literal\">numbers</vek:PayloadSchema>\n"
        "\t<Tag_9 Type=\"uint\">7</Tag_9>\n</vek:Message>\n";
    EXPECT_EQ(output.str(), "\n<!-- anna  sent -->\n" + xml + "\n<!-- bert  received -->\n" + xml);
}
