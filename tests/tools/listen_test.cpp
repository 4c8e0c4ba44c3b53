#include <signal.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "support/buffer_bytes.h"
#include "support/wire_bytes.h"
#include "tools/command.h"
#include "tools/component.h"

namespace {

constexpr char kSchema[] = VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json";

// The sanitizers slow it down too much.
#ifdef __SANITIZE_ADDRESS__
constexpr unsigned int kManyLines = 5000;
#else
constexpr unsigned int kManyLines = 100000;
#endif

class ListenVerb : public testing::Test {
protected:
    ListenVerb() {
        m_directory =
            m_folder.writeFile("shop.directory", {m_folder.localAddress("kitchen") + " kitchen",
                                                  m_tcp + " kitchen", m_folder.localAddress("default")});
    }

    Words_ words(const Words_& options) const {
        Words_ all = {"listen", "-D", m_directory, "kitchen"};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }

    /// Fails the test when nobody listens within a minute.
    void waitForKitchen() const {
        EXPECT_EQ(vekmsg({"wait", "-q", "-D", m_directory, "--timeout=60s", "kitchen"}).m_exitCode, 0);
    }

    Ran_ send(const Words_& options) const {
        Words_ all = {"send", "-D", m_directory, "--timeout=30s", "--as", "guest", "kitchen"};
        all.insert(all.end(), options.begin(), options.end());
        return vekmsg(all);
    }

    TemporaryFolder_ m_folder;
    std::string m_tcp = freeTcpAddress();
    std::string m_directory;
};

}  // namespace

TEST_F(ListenVerb, everyMessageIsShownAsXml) {
    RunningCommand_ listening(words({"-C", "2"}));
    waitForKitchen();
    EXPECT_EQ(send({"--schema=order", "5:u=7"}).m_exitCode, 0);
    EXPECT_TRUE(listening.says("</vek:Message>")) << "each message leaves at once";
    EXPECT_EQ(send({"--no-confirm", "6:u=8"}).m_exitCode, 0);

    const Ran_ ran = listening.wait();

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(
        ran.m_output.find("<?xml version=\"1.0\"?>\n<vek:Message>\n\t<vek:Sender>guest</vek:Sender>\n"
                          "\t<vek:Receiver>kitchen</vek:Receiver>\n\t<vek:TimeToLive>3</vek:TimeToLive>\n"
                          "\t<vek:PayloadSchema Type=\"literal\">order</vek:PayloadSchema>\n"
                          "\t<Tag_5 Type=\"uint\">7</Tag_5>\n</vek:Message>\n"),
        0U)
        << ran.m_output;
    EXPECT_NE(ran.m_output.find("\t<Tag_6 Type=\"uint\">8</Tag_6>\n"), std::string::npos);
    EXPECT_EQ(ran.m_errors, "vekmsg: listening as kitchen\n");
}

TEST_F(ListenVerb, whoSentTheLastMessageGetsItConfirmed) {
    const Words_ directories = {m_directory, m_folder.writeFile("tcp.directory", {m_tcp + " kitchen"})};
    for (unsigned int i = 0; i < 10; ++i) {
        const std::string& directory = directories[i % 2];
        RunningCommand_ listening({"listen", "-D", directory, "kitchen", "-C", "1", "-F", "%p"});
        EXPECT_EQ(vekmsg({"wait", "-q", "-D", directory, "--timeout=60s", "kitchen"}).m_exitCode, 0);

        const Ran_ sent = vekmsg({"send", "-D", directory, "--timeout=30s", "kitchen", "5:u=7"});

        EXPECT_EQ(sent.m_exitCode, 0) << sent.m_errors;
        const Ran_ ran = listening.wait();
        EXPECT_EQ(ran.m_exitCode, 0) << ran.m_errors;
        EXPECT_EQ(ran.m_output, "{\"tag\":5,\"uint\":7}\n");
    }
}

TEST_F(ListenVerb, theLastOfManyMessagesIsConfirmed) {
    RunningCommand_ listening(words({"-C", "3", "-q", "-F", "%p"}));
    waitForKitchen();

    for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(send({"5:u=7"}).m_exitCode, 0);

    EXPECT_EQ(listening.wait().m_exitCode, 0);
}

TEST_F(ListenVerb, whoStaysConnectedOrGoesOnSendingDoesNotKeepIt) {
    RunningCommand_ listening(words({"-C", "1", "-q", "-F", "%S"}));
    waitForKitchen();
    Station_ guest("guest", m_directory);
    EXPECT_TRUE(guest.send("kitchen", "first", 7));
    EXPECT_TRUE(guest.workUntil([&] { return listening.says("first\n", 0); }));
    guest.send("kitchen", "second", 8);

    const Ran_ ran = listening.wait();

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output, "first\n");
}

TEST_F(ListenVerb, jsonIsALineForEachMessageThatCanBeSentAgain) {
    RunningCommand_ listening(words({"-C", "1", "--json", "-q"}));
    waitForKitchen();
    EXPECT_EQ(send({"--no-confirm", "--schema=order", "5:c{1:u=7 2:s=soup}"}).m_exitCode, 0);

    const Ran_ ran = listening.wait();

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(
        ran.m_output,
        "{\"destination\":\"kitchen\",\"source\":\"guest\",\"timeToLive\":3,\"schema\":\"order\",\"payload\":"
        "{\"tag\":5,\"elements\":[{\"tag\":1,\"uint\":7},{\"tag\":2,\"string\":\"soup\"}]}}\n");
    EXPECT_EQ(ran.m_errors, "");
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
}

TEST_F(ListenVerb, aDamagedPayloadIsShownAsItsBytes) {
    RunningCommand_ listening(words({"-C", "1", "--json"}));
    waitForKitchen();
    Station_ guest("guest", m_directory);
    const SP_VekMessage_ sp_message = guest.message("kitchen", "order", 7);
    sp_message->setRawPayload(tightBufferOf(wire::element(10, 9, "abc")));
    EXPECT_TRUE(guest.terminal().sendMessage(sp_message));

    const Ran_ ran = listening.wait();

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_NE(ran.m_output.find("\"payload\":null,\"payloadBytes\":\"000a0000000900000009000361626"
                                "3\"}\n"),
              std::string::npos)
        << ran.m_output;
    EXPECT_NE(
        ran.m_errors.find("vekmsg: from guest: VekmsgElementBinary_::deserialize() tag 10 has invalid data "
                          "type 9\n"),
        std::string::npos)
        << ran.m_errors;
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
}

TEST_F(ListenVerb, aFormPutsInWhatItsLettersSay) {
    RunningCommand_ listening(words({"-C", "1", "-F", "%s>%d %t %S %p %x %I %N 100%%%n."}));
    waitForKitchen();
    EXPECT_EQ(send({"--no-confirm", "--schema=order", "5:u=7"}).m_exitCode, 0);

    const Ran_ ran = listening.wait();

    EXPECT_EQ(ran.m_exitCode, 0);
    static const std::regex s_line(
        "guest>kitchen 3 order \\{\"tag\":5,\"uint\":7\\} 00050000000a00000002000400000007 "
        "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{9}[+-][0-9]{2}:[0-9]{2} [0-9]{19} "
        "100%\n\\.\n");
    EXPECT_TRUE(std::regex_match(ran.m_output, s_line)) << ran.m_output;
}

TEST_F(ListenVerb, aFormWithAnUnknownLetterIsAFaultOfUsage) {
    for (const char* p_form : {"%q", "%", "%s %"})
        EXPECT_EQ(vekmsg(words({"-F", p_form})).m_exitCode, 2) << p_form;
    EXPECT_EQ(vekmsg(words({"-C", "0"})).m_exitCode, 2);
    EXPECT_EQ(vekmsg({"listen"}).m_exitCode, 2);
}

TEST_F(ListenVerb, repliesGoToWhoAsked) {
    std::ofstream(m_folder.path("reply")) << "9:s=\"Hello yourself\"\n";
    RunningCommand_ listening(words({"-C", "2", "-q", "--reply", m_folder.path("reply")}));
    waitForKitchen();
    for (unsigned int i = 0; i < 2; ++i) {
        const Ran_ call = vekmsg({"call", "-D", m_directory, "--timeout=30s", "--json", "--as=guest",
                                  "kitchen", "--schema=greeting", "1:s=Hello"});
        EXPECT_EQ(call.m_exitCode, 0) << call.m_errors;
        EXPECT_EQ(
            call.m_output,
            "{\"destination\":\"guest\",\"source\":\"kitchen\",\"timeToLive\":3,\"schema\":\"greeting\","
            "\"payload\":{\"tag\":9,\"string\":\"Hello yourself\"}}\n");
    }
    EXPECT_EQ(listening.wait().m_exitCode, 0);
}

TEST_F(ListenVerb, aReplyThatIsNoneIsToldOfAtOnce) {
    std::ofstream(m_folder.path("reply")) << "9:x=1";

    EXPECT_EQ(vekmsg(words({"--reply", m_folder.path("reply")})).m_exitCode, 6);
    EXPECT_EQ(vekmsg(words({"--reply", m_folder.path("missing")})).m_exitCode, 6);
}

TEST_F(ListenVerb, itEndsAfterItsTime) {
    const Ran_ ran = vekmsg(words({"-W", "100ms"}));

    EXPECT_EQ(ran.m_exitCode, 5);
    EXPECT_EQ(ran.m_output, "");
}

TEST_F(ListenVerb, itRefusesWhileSomebodyServesTheName) {
    {
        const Component_ kitchen("kitchen", m_directory);
        const Ran_ ran = vekmsg(words({"-W", "100ms"}));
        EXPECT_EQ(ran.m_exitCode, 1);
        EXPECT_EQ(ran.m_errors, "vekmsg: somebody serves kitchen at " + m_folder.localAddress("kitchen") +
                                    "; --take-over pushes it aside\n");
        EXPECT_EQ(vekmsg({"list", "--probe", "-q", "-D", m_directory, "--timeout=30s"}).m_exitCode, 0)
            << "the kitchen is served as before";
    }
    const SilentListener_ kitchen("kitchen", m_directory);
    EXPECT_EQ(vekmsg(words({"-W", "100ms"})).m_exitCode, 1) << "also by somebody who hangs";
}

TEST_F(ListenVerb, takingOverTakesTheSocketFile) {
    const std::string local =
        m_folder.writeFile("local.directory", {m_folder.localAddress("kitchen") + " kitchen"});
    const Component_ kitchen("kitchen", local);
    RunningCommand_ listening({"listen", "-D", local, "kitchen", "--take-over", "-C", "1", "-F", "%p"});
    EXPECT_TRUE(eventually([&] { return listening.errors() == "vekmsg: listening as kitchen\n"; }, 30000));

    EXPECT_EQ(vekmsg({"send", "-D", local, "--no-confirm", "kitchen", "5:u=7"}).m_exitCode, 0);

    EXPECT_EQ(listening.wait().m_output, "{\"tag\":5,\"uint\":7}\n");
}

TEST_F(ListenVerb, anAddressThatIsTakenByAnotherProgramIsAFaultOfTheConfiguration) {
    const Component_ other("other", m_folder.writeFile("other.directory", {m_tcp + " other"}));

    EXPECT_EQ(vekmsg(words({"--take-over", "-W", "100ms"})).m_exitCode, 3);
    EXPECT_EQ(vekmsg({"listen", "-D", m_directory, "attic"}).m_exitCode, 3);
}

TEST_F(ListenVerb, aSignalEndsItAndNoSocketFileIsLeft) {
    for (const int number : {SIGINT, SIGTERM}) {
        RunningCommand_ listening(words({}));
        waitForKitchen();
        EXPECT_TRUE(std::filesystem::exists(m_folder.path("kitchen")));

        listening.signal(number);

        EXPECT_EQ(listening.wait().m_exitCode, 128 + number);
        EXPECT_FALSE(std::filesystem::exists(m_folder.path("kitchen")));
    }
}

TEST_F(ListenVerb, aReaderThatLeavesEndsItAndNoSocketFileIsLeft) {
    How_ how;
    how.m_isClosedOutput = true;
    RunningCommand_ listening(words({}), how);
    waitForKitchen();
    EXPECT_EQ(send({"--no-confirm", "5:u=7"}).m_exitCode, 0);

    const Ran_ ran = listening.wait();

    EXPECT_EQ(ran.m_exitCode, 141);
    EXPECT_EQ(ran.m_errors, "vekmsg: listening as kitchen\n");
    EXPECT_FALSE(std::filesystem::exists(m_folder.path("kitchen")));
}

TEST_F(ListenVerb, aHundredThousandLinesArriveInOrder) {
    RunningCommand_ listening(words({"-q", "-C", std::to_string(kManyLines), "--json=short"}));
    waitForKitchen();
    How_ how;
    std::string expected;
    for (unsigned int i = 0; i < kManyLines; ++i) {
        how.m_input += "5:u=" + std::to_string(i) + '\n';
        expected +=
            R"({"destination":"kitchen","source":"guest","timeToLive":3,"schema":"","payload":{"tag":5,"uint":)" +
            std::to_string(i) + "}}\n";
    }
    RunningCommand_ sending(
        {"send", "-D", m_directory, "--timeout=60s", "--no-confirm", "--as=guest", "kitchen", "-l"}, how);

    EXPECT_EQ(sending.wait(100000).m_exitCode, 0);
    const Ran_ ran = listening.wait(100000);

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_TRUE(ran.m_output == expected) << linesOf(ran.m_output).size() << " lines";
}
