#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "tools/command.h"
#include "tools/component.h"

namespace {

constexpr char kSchema[] = VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json";
constexpr VekmsgTag_ kShownTag = 99;

/// A kitchen that writes down every message that it gets, as XML, and answers with an element that holds the
/// number 7 and its payload. A message with the schema "leave" makes it end.
class SendVerb : public testing::Test {
protected:
    SendVerb() {
        m_directory =
            m_folder.writeFile("shop.directory", {m_folder.localAddress("kitchen") + " kitchen",
                                                  m_tcp + " cellar", m_folder.localAddress("default")});
    }

    Component_ component(const std::string& name) const {
        const std::string seen = m_folder.path("seen");
        return Component_(name, m_directory, [seen](Station_& station, const SP_VekMessage_& sp_message) {
            const SP_VekmsgElement_ sp_payload = sp_message->getPayload();
            std::ofstream(seen, std::ios::app) << plain(sp_message->getPayloadSchema()) << ' '
                                               << sp_message->getTimeToLive() << ' ' << xml(sp_payload);
            if (plain(sp_message->getPayloadSchema()) == "leave") _exit(0);
            if (plain(sp_message->getPayloadSchema()) == "quiet") return;
            const SP_VekmsgElement_ sp_answer = sp_message->createElement(kShownTag);
            sp_answer->setValue(7U);
            sp_message->setPayload(sp_answer);
            sp_message->swapSourceDestination();
            station.terminal().sendMessage(sp_message);
        });
    }

    static std::string xml(const SP_VekmsgElement_& sp_element) {
        std::ostringstream text;
        if (sp_element) sp_element->print(&text, 0);
        return text.str();
    }

    std::string seen() const { return readFile(m_folder.path("seen")); }

    Ran_ run(const char* p_verb, const Words_& words, const std::string& input = "") const {
        Words_ all = {p_verb, "-D", m_directory, "--timeout", "30s"};
        all.insert(all.end(), words.begin(), words.end());
        How_ how;
        how.m_input = input;
        return vekmsg(all, how);
    }
    Ran_ send(const Words_& words, const std::string& input = "") const { return run("send", words, input); }
    Ran_ call(const Words_& words, const std::string& input = "") const { return run("call", words, input); }

    TemporaryFolder_ m_folder;
    std::string m_tcp = freeTcpAddress();
    std::string m_directory;
};

class CallVerb : public SendVerb {};

}  // namespace

TEST_F(SendVerb, aMessageHasArrivedWhenItReturns) {
    const Component_ kitchen = component("kitchen");

    const Ran_ ran = send({"kitchen", "--schema", "quiet", "--ttl=1", "5:u=7"});

    EXPECT_EQ(ran.m_exitCode, 0) << ran.m_errors;
    EXPECT_EQ(ran.m_output, "");
    EXPECT_EQ(ran.m_errors, "");
    EXPECT_EQ(seen(), "quiet 1 <Tag_5 Type=\"uint\">7</Tag_5>\n");
}

TEST_F(SendVerb, everyTypeCanBeTyped) {
    const Component_ kitchen = component("kitchen");

    EXPECT_EQ(send({"kitchen", "--uri=quiet", "--tag", "9", "0x5:u=0x10", "6:s=\"a text\"", "7:b=00C0ff",
                    "8:c{1:u=1 2:s=\"in \\\"quotes\\\"\" 3:c{4:s=deep}}", "6:s="})
                  .m_exitCode,
              0);
    EXPECT_EQ(seen(),
              "quiet 3 <Tag_9 Type=\"complex\">\n"
              "\t<Tag_5 Type=\"uint\">16</Tag_5>\n"
              "\t<Tag_6 Type=\"string\">\n\t\ta text\n\t</Tag_6>\n"
              "\t<Tag_6 Type=\"string\">\n\t\t\n\t</Tag_6>\n"
              "\t<Tag_7 Type=\"binary\">+++\t00 c0 ff</Tag_7>\n"
              "\t<Tag_8 Type=\"complex\">\n"
              "\t\t<Tag_1 Type=\"uint\">1</Tag_1>\n"
              "\t\t<Tag_2 Type=\"string\">\n\t\t\tin \"quotes\"\n\t\t</Tag_2>\n"
              "\t\t<Tag_3 Type=\"complex\">\n\t\t\t<Tag_4 Type=\"string\">\n\t\t\t\tdeep\n\t\t\t</Tag_4>\n"
              "\t\t</Tag_3>\n"
              "\t</Tag_8>\n"
              "</Tag_9>\n");
}

TEST_F(SendVerb, aPayloadComesFromAFileOrStandardInputToo) {
    const Component_ kitchen = component("kitchen");
    std::ofstream(m_folder.path("element.json")) << "{\"tag\":5,\n\"uint\":8}\n";
    const std::string message =
        R"({"destination":"x","source":"y","timeToLive":2,"schema":"quiet","payload":{"tag":5,"uint":9}})";

    EXPECT_EQ(send({"kitchen", "--schema=quiet", "-f", m_folder.path("element.json")}).m_exitCode, 0);
    EXPECT_EQ(send({"kitchen", "-s"}, message).m_exitCode, 0);
    EXPECT_EQ(send({"kitchen", "--schema=quiet", "-s"}, "5:u=10\n").m_exitCode, 0);

    EXPECT_EQ(seen(),
              "quiet 3 <Tag_5 Type=\"uint\">8</Tag_5>\n"
              "quiet 2 <Tag_5 Type=\"uint\">9</Tag_5>\n"
              "quiet 3 <Tag_5 Type=\"uint\">10</Tag_5>\n");
}

TEST_F(SendVerb, everyLineIsAMessageAndTheyStayInOrder) {
    const Component_ cellar = component("cellar");
    std::string lines;
    std::string expected;
    for (unsigned int i = 0; i < 1000; ++i) {
        lines += (i % 2 == 0 ? "5:u=" + std::to_string(i) : R"({"tag":5,"uint":)" + std::to_string(i) + '}') +
                 '\n';
        expected += "quiet 3 <Tag_5 Type=\"uint\">" + std::to_string(i) + "</Tag_5>\n";
    }

    EXPECT_EQ(send({"cellar", "--schema=quiet", "-l"}, lines).m_exitCode, 0);

    EXPECT_EQ(seen(), expected);
}

TEST_F(SendVerb, aLineThatIsNoMessageIsNamedAndThoseBeforeItHaveArrived) {
    const Component_ kitchen = component("kitchen");

    const Ran_ ran = send({"kitchen", "--schema=quiet", "-l"}, "5:u=1\n5:u=x\n5:u=3\n");

    EXPECT_EQ(ran.m_exitCode, 6);
    EXPECT_EQ(
        ran.m_errors,
        "vekmsg: line 2: '5:u=x', character 6: a value is a number from 0 to 4294967295 (5:u=7 6:s=text "
        "7:b=00ff 8:c{...})\n");
    EXPECT_EQ(seen(), "quiet 3 <Tag_5 Type=\"uint\">1</Tag_5>\n");
}

TEST_F(SendVerb, countSendsItAgain) {
    const Component_ kitchen = component("kitchen");

    EXPECT_EQ(send({"kitchen", "--schema=quiet", "--count", "3", "--interval", "1ms", "5:u=1"}).m_exitCode,
              0);

    EXPECT_EQ(linesOf(seen()).size(), 3U);
}

TEST_F(SendVerb, whatIsNotConfirmedIsWrittenAllTheSame) {
    const Component_ cellar = component("cellar");

    EXPECT_EQ(send({"cellar", "--schema=quiet", "--no-confirm", "--count=300", "5:u=1"}).m_exitCode, 0);

    EXPECT_TRUE(eventually([&] { return linesOf(seen()).size() == 300; }));
}

TEST_F(SendVerb, whoHangsDoesNotConfirm) {
    const SilentListener_ kitchen("kitchen", m_directory);

    const Ran_ hanging = vekmsg({"send", "-D", m_directory, "--timeout=100ms", "kitchen", "5:u=1"});
    EXPECT_EQ(hanging.m_exitCode, 5);
    EXPECT_EQ(hanging.m_errors,
              "vekmsg: delivery not confirmed: kitchen did not answer in time; behind a relay it cannot "
              "(--no-confirm)\n");
    EXPECT_EQ(vekmsg({"send", "-D", m_directory, "--no-confirm", "kitchen", "5:u=1"}).m_exitCode, 0);
}

TEST_F(SendVerb, throughARelayDeliveryIsNotConfirmedAndHappens) {
    const std::string far =
        m_folder.writeFile("far.directory", {m_folder.localAddress("zrelay") + " kitchen"});
    const std::string relay = m_folder.writeFile(
        "relay.directory",
        {m_folder.localAddress("zrelay") + " zrelay", m_folder.localAddress("kitchen") + " kitchen"});
    const Component_ kitchen = component("kitchen");
    const Component_ middle("zrelay", relay);

    const Ran_ ran = vekmsg({"send", "-D", far, "--timeout=1s", "--schema=quiet", "kitchen", "5:u=1"});

    EXPECT_EQ(ran.m_exitCode, 5);
    EXPECT_EQ(ran.m_errors.find("vekmsg: delivery not confirmed: "), 0U) << ran.m_errors;
    EXPECT_TRUE(eventually([&] { return seen() == "quiet 2 <Tag_5 Type=\"uint\">1</Tag_5>\n"; })) << seen();
}

TEST_F(SendVerb, whoIsNotThereCannotBeReached) {
    for (const char* p_name : {"kitchen", "cellar"}) {
        const Ran_ ran = send({p_name, "5:u=1"});
        EXPECT_EQ(ran.m_exitCode, 4) << p_name;
        EXPECT_EQ(ran.m_errors.find(std::string("vekmsg: ") + p_name + " cannot be reached"), 0U)
            << ran.m_errors;
    }
    EXPECT_EQ(send({"attic", "5:u=1"}).m_exitCode, 3);
}

TEST_F(SendVerb, aMessageTooLongToBeReceivedIsNotSent) {
    const Component_ kitchen = component("kitchen");
    const std::string bytes(2 * 9390, '0');

    const Ran_ ran = send({"kitchen", "1:b=" + bytes});

    EXPECT_EQ(ran.m_exitCode, 6);
    EXPECT_NE(ran.m_errors.find(" bytes, and 9396 is the most that can be received"), std::string::npos)
        << ran.m_errors;
    EXPECT_EQ(seen(), "");
}

TEST_F(SendVerb, whatIsNoPayloadSaysWhereAndWhy) {
    const std::map<std::string, std::string> faults = {
        {"", "character 1: there is no element"},
        {"5", "character 2: ':' is missing"},
        {"u=5", "character 1: a tag is a number from 0 to 65535"},
        {"65536:u=5", "character 1: a tag is a number from 0 to 65535"},
        {"5:x=5", "character 3: a type is u, s, b or c"},
        {"5:", "character 3: a type is u, s, b or c"},
        {"5:u", "character 4: '=' is missing"},
        {"5:u=", "character 5: a value is a number from 0 to 4294967295"},
        {"5:u=4294967296", "character 15: a value is a number from 0 to 4294967295"},
        {"5:b=0", "character 6: bytes have two hexadecimal digits each"},
        {"5:s=\"a", "character 7: '\"' is missing"},
        {"5:s=\"a\"b", "character 8: a blank is missing behind the text"},
        {"5:s=\"\\x\"", "character 7: only \\\", \\\\ and \\n are known"},
        {"5:c", "character 4: '{' is missing"},
        {"5:c{", "character 5: '}' is missing"},
        {"5:c{}", "character 5: braces hold one element at least"},
        {"5:c{1:u=1", "character 10: '}' is missing"},
        {"5:u=1}", "character 6: a tag is a number from 0 to 65535"},
    };
    for (const auto& [text, reason] : faults) {
        const Ran_ ran = send({"kitchen", text});
        EXPECT_EQ(ran.m_exitCode, 6) << text;
        EXPECT_EQ(ran.m_errors.find("vekmsg: '" + text + "', " + reason + " ("), 0U) << ran.m_errors;
    }
}

TEST_F(SendVerb, noPayloadOrSeveralAreAFaultOfUsage) {
    EXPECT_EQ(send({"kitchen"}).m_exitCode, 2);
    EXPECT_EQ(send({"kitchen", "-s", "5:u=1"}).m_exitCode, 2);
    EXPECT_EQ(send({"kitchen", "-l", "--count=2"}).m_exitCode, 2);
    EXPECT_EQ(send({"kitchen", "--ttl=-1", "5:u=1"}).m_exitCode, 2);
    EXPECT_EQ(send({}).m_exitCode, 2);
    EXPECT_EQ(send({"kitchen", "-f", m_folder.path("missing")}).m_exitCode, 6);
    EXPECT_EQ(send({"kitchen", "-s"}, "{\"tag\":1}").m_exitCode, 6);
    EXPECT_EQ(send({"kitchen", "-l"}, "").m_exitCode, 6);
}

TEST_F(CallVerb, theAnswerIsShown) {
    const Component_ kitchen = component("kitchen");

    const Ran_ ran = call({"kitchen", "--schema=order", "--as", "guest", "5:u=1"});
    EXPECT_EQ(ran.m_exitCode, 0) << ran.m_errors;
    EXPECT_EQ(ran.m_output,
              "<?xml version=\"1.0\"?>\n<vek:Message>\n\t<vek:Sender>kitchen</vek:Sender>\n"
              "\t<vek:Receiver>guest</vek:Receiver>\n\t<vek:TimeToLive>3</vek:TimeToLive>\n"
              "\t<vek:PayloadSchema Type=\"literal\">order</vek:PayloadSchema>\n"
              "\t<Tag_99 Type=\"uint\">7</Tag_99>\n</vek:Message>\n");

    const Ran_ json = call({"kitchen", "--schema=order", "--as", "guest", "--json", "5:u=1"});
    EXPECT_EQ(json.m_output,
              "{\"destination\":\"guest\",\"source\":\"kitchen\",\"timeToLive\":3,\"schema\":\"order\","
              "\"payload\":{\"tag\":99,\"uint\":7}}\n");
    EXPECT_TRUE(areValid(json.m_output, kSchema));
}

// Not each time: a caller that gets no processor for a while may miss the ping behind the answer.
TEST_F(CallVerb, whoAnswersCanHaveItConfirmed) {
    const std::string seen = m_folder.path("seen");
    const Component_ kitchen(
        "kitchen", m_directory, [seen](Station_& station, const SP_VekMessage_& sp_message) {
            const std::string asker = plain(sp_message->getSource());
            std::ofstream(seen, std::ios::app) << plain(sp_message->getPayloadSchema()) << '\n';
            if (plain(sp_message->getPayloadSchema()) != "order") return;
            station.send(asker, "answer", 7);
            usleep(5000);  // so that the caller reads the answer alone
            station.send(asker, "VEK Pinger Request Format version 1.0", 1);
        });
    const auto isConfirmed = [&] {
        EXPECT_EQ(call({"kitchen", "--schema=order", "5:u=7"}).m_exitCode, 0);
        return this->seen().find("VEK Pinger Reply Format version 1.0\n") != std::string::npos;
    };
    EXPECT_TRUE(eventually(isConfirmed, 30000));
}

TEST_F(CallVerb, noAnswerTimesOut) {
    const Component_ kitchen = component("kitchen");

    const Ran_ ran =
        vekmsg({"call", "-D", m_directory, "--timeout=200ms", "--schema=quiet", "kitchen", "5:u=1"});

    EXPECT_EQ(ran.m_exitCode, 5);
    EXPECT_EQ(ran.m_output, "");
    EXPECT_EQ(ran.m_errors, "vekmsg: no answer from kitchen in time\n");
}

TEST_F(CallVerb, whoLeavesInsteadOfAnsweringIsNotAsExpected) {
    const Component_ kitchen = component("kitchen");

    const Ran_ ran = call({"kitchen", "--schema=leave", "5:u=1"});

    EXPECT_EQ(ran.m_exitCode, 1);
    EXPECT_EQ(ran.m_errors, "vekmsg: kitchen ended the connection without an answer\n");
}

TEST_F(CallVerb, whoIsNotThereCannotBeReached) {
    EXPECT_EQ(call({"kitchen", "5:u=1"}).m_exitCode, 4);
    EXPECT_EQ(call({"cellar", "5:u=1"}).m_exitCode, 4);
    EXPECT_EQ(call({"attic", "5:u=1"}).m_exitCode, 3);
    EXPECT_EQ(call({"kitchen"}).m_exitCode, 2);
    EXPECT_EQ(call({"kitchen", "5:u=x"}).m_exitCode, 6);
}

TEST_F(CallVerb, aClosedPipeEndsItWithoutAWord) {
    const Component_ kitchen = component("kitchen");
    How_ how;
    how.m_isClosedOutput = true;

    const Ran_ ran = vekmsg({"call", "-D", m_directory, "--timeout=30s", "kitchen", "5:u=1"}, how);

    EXPECT_EQ(ran.m_exitCode, 141);
    EXPECT_EQ(ran.m_errors, "");
}
