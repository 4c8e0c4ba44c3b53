#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <stdexcept>

#include "tools/command.h"
#include "tools/component.h"

namespace {

constexpr char kSchema[] = VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json";

/// A shop that reaches the kitchen and the attic through a relay only; there is nobody in the attic.
class RelayVerb : public testing::Test {
protected:
    RelayVerb() {
        m_shop = m_folder.writeFile(
            "shop.directory",
            {address("relay") + " kitchen", address("relay") + " attic", address("relay") + " relay"});
        m_relay = m_folder.writeFile(
            "relay.directory",
            {address("relay") + " relay", address("kitchen") + " kitchen", address("attic") + " attic"});
        m_kitchen = m_folder.writeFile("kitchen.directory", {address("kitchen") + " kitchen"});
    }

    std::string address(const std::string& name) const { return m_folder.localAddress(name); }

    Words_ words(const Words_& options) const {
        Words_ all = {"relay", "-D", m_relay, "relay"};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }

    void waitForRelay() const {
        EXPECT_EQ(vekmsg({"wait", "-q", "-D", m_relay, "--timeout=60s", "relay"}).m_exitCode, 0);
    }

    /// Through the relay nothing is confirmed.
    void send(const std::string& destination, const Words_& options) const {
        Words_ all = {"send", "-D", m_shop, "--as=shop", "--no-confirm", destination, "5:u=7"};
        all.insert(all.end(), options.begin(), options.end());
        EXPECT_EQ(vekmsg(all).m_exitCode, 0);
    }

    TemporaryFolder_ m_folder;
    std::string m_shop;
    std::string m_relay;
    std::string m_kitchen;
};

/// What a service manager listens on.
class NotifySocket_ {
public:
    explicit NotifySocket_(const std::string& path)
        : m_descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (bind(m_descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
            throw std::runtime_error("no socket " + path);
    }
    ~NotifySocket_() { close(m_descriptor); }
    NotifySocket_(const NotifySocket_&) = delete;
    NotifySocket_& operator=(const NotifySocket_&) = delete;

    /// The next state told, or nothing within a minute.
    std::string next() const {
        pollfd entry = {m_descriptor, POLLIN, 0};
        char text[256];
        if (poll(&entry, 1, 60000) != 1) return "";
        const ssize_t size = recv(m_descriptor, text, sizeof(text), 0);
        return size < 0 ? "" : std::string(text, static_cast<std::size_t>(size));
    }

private:
    int m_descriptor;
};

/// What the service manager has to say about a unit file. It ends with 0 where it only ignores something.
std::string verified(const std::string& file) {
    How_ how;
    how.m_isShell = true;
    const Ran_ ran = vekmsg({"systemd-analyze verify --man=no " + file + " 2>&1 | grep vekmsg-"}, how);
    return ran.m_output;
}

}  // namespace

TEST_F(RelayVerb, messagesForOthersArePassedOn) {
    RunningCommand_ kitchen({"listen", "-D", m_kitchen, "-C", "1", "-F", "%s>%d %t %p", "kitchen"});
    EXPECT_EQ(vekmsg({"wait", "-q", "-D", m_kitchen, "--timeout=60s", "kitchen"}).m_exitCode, 0);
    RunningCommand_ relay(words({}));
    waitForRelay();

    send("kitchen", {"--schema=order"});

    EXPECT_EQ(kitchen.wait().m_output, "shop>kitchen 2 {\"tag\":5,\"uint\":7}\n");
    EXPECT_TRUE(relay.says("\n"));
    relay.signal(SIGTERM);
    const Ran_ ran = relay.wait();
    EXPECT_EQ(ran.m_exitCode, 143);
    EXPECT_EQ(ran.m_output, "forwarded shop -> kitchen ttl 3 \"order\"\n1 forwarded, 0 dropped\n");
    EXPECT_EQ(ran.m_errors, "vekmsg: relaying as relay\n");
}

TEST_F(RelayVerb, whatCannotBePassedOnIsShownWithItsReason) {
    RunningCommand_ relay(words({}));
    waitForRelay();

    send("attic", {});
    EXPECT_TRUE(relay.says("TTL 3\n"));
    send("attic", {"--ttl=0"});
    EXPECT_TRUE(relay.says("TTL = 0, dest attic src shop\n"));
    send("relay", {});
    EXPECT_TRUE(relay.says("itself\n"));

    relay.signal(SIGINT);
    const Ran_ ran = relay.wait();
    EXPECT_EQ(ran.m_exitCode, 130);
    EXPECT_EQ(
        linesOf(ran.m_output),
        (Words_{
            "dropped shop -> attic ttl 3 \"\": relay failed to route a message from shop with dest attic, "
            "src "
            "shop, TTL 3",
            "dropped shop -> attic ttl 0 \"\": relay can't route a message from shop because TTL = 0, dest "
            "attic src shop",
            "dropped shop -> relay ttl 3 \"\": it is addressed to the relay itself",
            "0 forwarded, 3 dropped"}));
}

TEST_F(RelayVerb, jsonIsALineForEachMessage) {
    const Component_ kitchen("kitchen", m_kitchen);
    RunningCommand_ relay(words({"--json"}));
    waitForRelay();

    send("kitchen", {"--schema=order"});
    EXPECT_TRUE(relay.says("\n"));
    send("relay", {});
    EXPECT_TRUE(relay.says("itself"));

    relay.signal(SIGTERM);
    const Ran_ ran = relay.wait();
    EXPECT_EQ(
        linesOf(ran.m_output),
        (Words_{
            R"({"relay":"forwarded","source":"shop","destination":"kitchen","timeToLive":3,"schema":"order"})",
            R"({"relay":"dropped","source":"shop","destination":"relay","timeToLive":3,"schema":"",)"
            R"("reason":"it is addressed to the relay itself"})",
            R"({"forwarded":1,"dropped":1})"}));
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
}

TEST_F(RelayVerb, itCountsAtASignalAndQuietShowsOnlyWhatIsDropped) {
    const Component_ kitchen("kitchen", m_kitchen);
    RunningCommand_ relay(words({"-q"}));
    waitForRelay();
    send("kitchen", {"--count=3"});
    send("relay", {});
    EXPECT_TRUE(relay.says("itself\n"));

    relay.signal(SIGUSR1);

    EXPECT_TRUE(relay.says("\n3 forwarded, 1 dropped\n"));
    relay.signal(SIGTERM);
    EXPECT_EQ(relay.wait().m_errors, "");
}

TEST_F(RelayVerb, theServiceManagerIsToldOfStartAndEnd) {
    const NotifySocket_ socket(m_folder.path("notify"));
    How_ how;
    how.m_environment = {"NOTIFY_SOCKET=" + m_folder.path("notify")};
    RunningCommand_ relay(words({}), how);
    EXPECT_EQ(socket.next(), "READY=1");
    EXPECT_TRUE(std::filesystem::exists(m_folder.path("relay"))) << "ready means that it listens";

    relay.signal(SIGTERM);

    EXPECT_EQ(socket.next(), "STOPPING=1");
    const Ran_ ran = relay.wait();
    EXPECT_EQ(ran.m_exitCode, 143);
    EXPECT_EQ(ran.m_errors, "vekmsg: relaying as relay\n");
    EXPECT_FALSE(std::filesystem::exists(m_folder.path("relay")));
}

TEST_F(RelayVerb, aServiceManagerThatIsNotThereIsOnlyNoted) {
    How_ how;
    how.m_environment = {"NOTIFY_SOCKET=" + m_folder.path("nobody")};
    RunningCommand_ relay(words({}), how);
    waitForRelay();

    relay.signal(SIGTERM);

    const Ran_ ran = relay.wait();
    EXPECT_EQ(ran.m_exitCode, 143);
    EXPECT_EQ(linesOf(ran.m_errors).front(),
              "vekmsg: cannot tell " + m_folder.path("nobody") + " that READY=1: No such file or directory");
}

TEST_F(RelayVerb, itRefusesWhileSomebodyServesTheName) {
    const Component_ other("relay", m_relay);

    const Ran_ ran = vekmsg(words({}));

    EXPECT_EQ(ran.m_exitCode, 1);
    EXPECT_EQ(ran.m_errors,
              "vekmsg: somebody serves relay at " + address("relay") + "; --take-over pushes it aside\n");
    RunningCommand_ taking(words({"--take-over"}));
    EXPECT_TRUE(eventually([&] { return taking.errors() == "vekmsg: relaying as relay\n"; }, 30000));
    taking.signal(SIGTERM);
    EXPECT_EQ(taking.wait().m_exitCode, 143);
}

TEST_F(RelayVerb, whoIsNotListedIsAFaultOfTheDirectory) {
    EXPECT_EQ(vekmsg({"relay", "-D", m_relay, "cellar"}).m_exitCode, 3);
    EXPECT_EQ(vekmsg({"relay", "-D", m_folder.path("missing"), "relay"}).m_exitCode, 3);
    EXPECT_EQ(vekmsg({"relay", "-D", m_relay}).m_exitCode, 2);
}

TEST_F(RelayVerb, aReaderThatLeavesEndsItAndNoSocketFileIsLeft) {
    How_ how;
    how.m_isClosedOutput = true;
    RunningCommand_ relay(words({}), how);
    waitForRelay();

    send("relay", {});

    const Ran_ ran = relay.wait();
    EXPECT_EQ(ran.m_exitCode, 141);
    EXPECT_EQ(ran.m_errors, "vekmsg: relaying as relay\n");
    EXPECT_FALSE(std::filesystem::exists(m_folder.path("relay")));
}

TEST_F(RelayVerb, aReaderThatLeftEndsItAmidMessagesThatCameTogether) {
    How_ how;
    how.m_isClosedOutput = true;
    for (const char* p_option : {"--json", "-v"}) {
        RunningCommand_ relay(words({p_option}), how);
        waitForRelay();
        relay.signal(SIGSTOP);  // so that it reads several at once
        How_ lines;
        for (unsigned int i = 0; i < 20; ++i) lines.m_input += "5:u=" + std::to_string(i) + '\n';
        EXPECT_EQ(vekmsg({"send", "-D", m_shop, "--no-confirm", "attic", "-l"}, lines).m_exitCode, 0);

        relay.signal(SIGCONT);

        const Ran_ ran = relay.wait();
        EXPECT_EQ(ran.m_exitCode, 141) << ran.m_errors;
        EXPECT_FALSE(std::filesystem::exists(m_folder.path("relay")));
    }
}

TEST_F(RelayVerb, theServiceManagerUnderstandsItsUnit) {
    How_ how;
    how.m_isShell = true;
    if (vekmsg({"command -v systemd-analyze"}, how).m_exitCode != 0)
        GTEST_SKIP() << "systemd-analyze is not here (Debian package systemd): nobody looked at the unit";
    std::string unit = readFile(VEKMSG_TOOLS_FOLDER "/vekmsg-relay@.service");
    const std::string installed = "ExecStart=vekmsg ";
    ASSERT_NE(unit.find(installed), std::string::npos);
    unit.replace(unit.find(installed), installed.size(), "ExecStart=" VEKMSG_COMMAND " ");

    EXPECT_EQ(verified(m_folder.writeFile("vekmsg-relay@.service", {unit})), "");

    // It does look.
    const std::string unknown =
        m_folder.writeFile("vekmsg-unknown@.service", {unit, "[Service]", "Type=odd"});
    EXPECT_NE(verified(unknown).find("Failed to parse service type"), std::string::npos);
    const std::string missing = m_folder.writeFile(
        "vekmsg-missing@.service", {std::regex_replace(unit, std::regex("ExecStart=.* relay"),
                                                       "ExecStart=" + m_folder.path("none") + " relay")});
    EXPECT_NE(verified(missing).find("is not executable"), std::string::npos);
}
