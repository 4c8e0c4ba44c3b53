#include <fstream>
#include <sstream>

#include "byte_walk.h"
#include "codec.h"
#include "hostile/hostile_input.h"
#include "records.h"
#include "support/format_page.h"
#include "support/utf8_text.h"
#include "support/wire_bytes.h"
#include "tools/command.h"

namespace {

constexpr char kSchema[] = VEKMSG_TOOLS_FOLDER "/vekmsg.schema.json";

How_ reading(const std::string& input) {
    How_ how;
    how.m_input = input;
    return how;
}

Ran_ decode(const char* p_kind, const std::string& bytes, const Words_& options = {"--json"}) {
    Words_ words = {"decode", p_kind, "--from=binary"};
    words.insert(words.end(), options.begin(), options.end());
    return vekmsg(words, reading(bytes));
}

std::string encoded(const std::string& json) {
    const Ran_ ran = vekmsg({"encode", "--to=binary"}, reading(json));
    EXPECT_EQ(ran.m_exitCode, 0) << ran.m_errors;
    return ran.m_output;
}

const FormatPage_& page() {
    static const FormatPage_ s_page(VEKMSG_FORMAT_PAGE);
    return s_page;
}

std::string order() {
    return wire::header("kitchen", "shop", 3, "order 1.0") +
           wire::element(10, wire::Complex,
                         wire::element(1, wire::Uint, wire::u32(2)) +
                             wire::element(2, wire::String, wire::text("soup")) +
                             wire::element(3, wire::Binary, std::string("\x00\xC0\xFF", 3)));
}

constexpr char kOrderJson[] =
    R"({"destination":"kitchen","source":"shop","timeToLive":3,"schema":"order 1.0","payload":{"tag":10,)"
    R"("elements":[{"tag":1,"uint":2},{"tag":2,"string":"soup"},{"tag":3,"binary":"00c0ff"}]}})"
    "\n";

/// Bytes of a message that may or may not be one.
std::string mutatedMessage(Random_& random) {
    std::string message = randomMessage(random, "kitchen", "shop");
    if (!random.oneIn(4)) mutate(random, message);
    return message.substr(0, 9000);
}

}  // namespace

TEST(DecodeVerb, aMessageIsTypedJson) {
    const Ran_ ran = decode("message", order());

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output, kOrderJson);
    EXPECT_EQ(ran.m_errors, "");
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
    EXPECT_EQ(encoded(ran.m_output), order());
    EXPECT_EQ(encoded(decode("message", order(), {"--json=pretty"}).m_output), order());
}

TEST(DecodeVerb, aMessageIsTheXmlOfTheLibrary) {
    const SP_VekMessage_ sp_message = decodeMessage(order());
    ASSERT_TRUE(sp_message->getPayload());
    std::ostringstream xml;
    sp_message->print(&xml, 0);

    const Ran_ ran = decode("message", order(), {});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output, xml.str());
}

TEST(DecodeVerb, theBytesOfTheFormatPageComeBackExactly) {
    for (const char* p_name : {"name-block", "message-block", "ping-request", "ping-reply"}) {
        const Ran_ ran = decode("stream", page().bytes(p_name));
        EXPECT_EQ(ran.m_exitCode, 0) << p_name;
        EXPECT_TRUE(areValid(ran.m_output, kSchema)) << p_name;
        EXPECT_EQ(encoded(ran.m_output), page().bytes(p_name)) << p_name;
    }
    for (const char* p_name : {"short-uint", "long-uint", "string-without-nul", "unused-data"}) {
        const Ran_ ran = decode("element", page().bytes(p_name));
        EXPECT_EQ(ran.m_exitCode, 0) << p_name;
        EXPECT_NE(ran.m_output.find(",\"encoded\":\""), std::string::npos) << ran.m_output;
        EXPECT_TRUE(areValid(ran.m_output, kSchema)) << p_name;
        EXPECT_EQ(encoded(ran.m_output), page().bytes(p_name)) << p_name;
    }
}

TEST(DecodeVerb, aStreamIsOneBlockALine) {
    const std::string stream = wire::nameBlock("shop") + wire::messageBlock(order()) + wire::block(7, "abc");

    const Ran_ ran = decode("stream", stream);

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output, "{\"block\":1,\"name\":\"shop\"}\n{\"block\":2,\"message\":" +
                                std::string(kOrderJson, sizeof(kOrderJson) - 2) +
                                "}\n{\"block\":7,\"bytes\":\"616263\"}\n");
    EXPECT_EQ(encoded(ran.m_output), stream);
}

TEST(DecodeVerb, namesOfEveryShapeComeBackExactly) {
    std::string stream;
    for (const std::string& payload :
         {std::string(), std::string("\0", 1), std::string("abc"), std::string("a\0bc", 4),
          std::string("\xFF\xFE\0", 3), std::string("\0\0\0", 3)})
        stream += wire::block(1, payload);

    const Ran_ ran = decode("stream", stream);

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
    EXPECT_EQ(encoded(ran.m_output), stream);
}

TEST(DecodeVerb, whateverAStreamHoldsComesBackExactly) {
    std::string stream = wire::nameBlock("shop");
    for (unsigned int input = 0; input < 2000; ++input) {
        Random_ random(20261121, input);
        stream += wire::messageBlock(mutatedMessage(random));
    }
    stream += wire::u16(2) + 'x';

    const Ran_ ran = decode("stream", stream);

    EXPECT_EQ(ran.m_exitCode, 6);
    const auto lines = linesOf(ran.m_output);
    ASSERT_EQ(lines.size(), 2002U);
    EXPECT_EQ(encoded(ran.m_output), stream);
    std::string some;
    for (std::size_t i = 0; i < lines.size(); i += 10) some += lines[i] + '\n';
    EXPECT_TRUE(areValid(some, kSchema));
    for (const char* p_part : {"\"payload\":null,\"payloadBytes\":", "},\"payloadBytes\":",
                               "\"headerBytes\":", "{\"block\":2,\"bytes\":"})
        EXPECT_NE(ran.m_output.find(p_part), std::string::npos) << p_part;
}

TEST(DecodeVerb, whereItStopsIsWhereTheLibraryRefuses) {
    CaughtRecords_ records;
    unsigned int refused = 0;
    for (unsigned int input = 0; input < 20000; ++input) {
        Random_ random(7, input);
        const std::string bytes = mutatedMessage(random);
        const SP_VekMessage_ sp_message = decodeMessage(bytes);
        const bool isEmpty = sp_message && rawPayloadOf(*sp_message).empty();
        const bool isRead = sp_message && (isEmpty || sp_message->getPayload());
        const auto stop = ByteWalk_(bytes).walkMessage(0);
        ASSERT_EQ(stop.has_value(), !isRead) << input << ' ' << records.last("");
        ASSERT_LE(stop ? stop->m_offset : 0, bytes.size()) << input;
        refused += isRead ? 0 : 1;
        records.take();
    }
    EXPECT_GT(refused, 2000U);
    EXPECT_LT(refused, 18000U);
}

TEST(DecodeVerb, everyPrefixOfAMessageSaysHowFarItGoes) {
    const std::string bytes = order();
    const std::size_t header = wire::header("kitchen", "shop", 3, "order 1.0").size();
    for (std::size_t size = 0; size < bytes.size(); size += 5) {
        const std::string prefix = bytes.substr(0, size);
        const Ran_ ran = decode("message", prefix);
        EXPECT_EQ(ran.m_exitCode, size == header ? 0 : 6) << size;
        EXPECT_EQ(encoded(ran.m_output), prefix) << size;
        if (size == header) continue;
        EXPECT_NE(ran.m_errors.find(" of " + std::to_string(size) + ": "), std::string::npos) << ran.m_errors;
        EXPECT_NE(ran.m_errors.find("\nvekmsg:     the library says: "), std::string::npos) << ran.m_errors;
    }
}

TEST(DecodeVerb, damageIsShownWithItsOffsetReasonAndSurroundings) {
    std::string bytes = order();
    const std::size_t soup = bytes.find("soup") - 4;  // the type of that content item
    bytes[soup + 1] = 9;

    const Ran_ ran = decode("message", bytes, {});

    EXPECT_EQ(ran.m_exitCode, 6);
    EXPECT_NE(ran.m_output.find("<vek:RawPayload>"), std::string::npos) << ran.m_output;
    EXPECT_EQ(
        linesOf(ran.m_errors),
        (Words_{"vekmsg: stopped at offset 87 (0x57) of 111: element 2 has type 9, which there is not",
                "vekmsg:     understood: destination, source, time-to-live, schema, element 10, element 10 > "
                "element 1",
                "vekmsg:     bytes: ... 00 02 00 00 00 0b 00 00 >00< 09 00 05 73 6f 75 70 ...",
                "vekmsg:     the library says: VekmsgElementBinary_::deserialize() tag 2 has invalid data "
                "type 9"}));
}

TEST(DecodeVerb, aStreamGoesOnBehindADamagedMessage) {
    const std::string stream = wire::messageBlock(order().substr(0, 20)) + wire::messageBlock(order());

    const Ran_ ran = decode("stream", stream);

    EXPECT_EQ(ran.m_exitCode, 6);
    ASSERT_EQ(linesOf(ran.m_output).size(), 2U);
    EXPECT_EQ(linesOf(ran.m_output)[1] + '\n',
              "{\"block\":2,\"message\":" + std::string(kOrderJson, sizeof(kOrderJson) - 2) + "}\n");
    EXPECT_NE(ran.m_errors.find("stopped at offset 22 (0x16) of 139: "), std::string::npos) << ran.m_errors;
}

TEST(DecodeVerb, itemsAreOneALine) {
    const std::string items = wire::item(1, 3, wire::text("kitchen")) + wire::item(65535, 9, "");

    const Ran_ ran = decode("items", items);

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(
        ran.m_output,
        "{\"tag\":1,\"type\":3,\"value\":\"6b69746368656e00\"}\n{\"tag\":65535,\"type\":9,\"value\":\"\"}\n");
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
    EXPECT_EQ(encoded(ran.m_output), items);
    EXPECT_EQ(decode("items", items + "x").m_exitCode, 6);
    EXPECT_EQ(encoded(decode("items", items + "x").m_output), items + "x");
}

TEST(DecodeVerb, textsThatAreNoUtf8AreShownAsBytes) {
    const std::string bytes = wire::header(
                                  "k\xFC"
                                  "che",
                                  "shop", 3, "") +
                              wire::element(2, wire::String, wire::text("caf\xE9"));

    const Ran_ ran = decode("message", bytes);

    EXPECT_EQ(
        ran.m_output,
        "{\"destination\":{\"bytes\":\"6bfc636865\"},\"source\":\"shop\",\"timeToLive\":3,\"schema\":\"\","
        "\"payload\":{\"tag\":2,\"string\":{\"bytes\":\"636166e9\"}}}\n");
    EXPECT_TRUE(areValid(ran.m_output, kSchema));
    EXPECT_EQ(encoded(ran.m_output), bytes);
}

TEST(DecodeVerb, theDeepestTreeIsReadAndWritten) {
    const std::string tree = wire::nest(5400);

    const Ran_ ran = decode("element", tree);

    EXPECT_EQ(ran.m_exitCode, 0) << ran.m_errors;
    EXPECT_EQ(encoded(ran.m_output), tree);
}

TEST(DecodeVerb, hexIsReadAsPeopleCopyIt) {
    const std::string plain =
        vekmsg({"decode", "element", "-x", "000a0000000a00000002000400000007"}).m_output;
    EXPECT_EQ(plain, "<Tag_10 Type=\"uint\">7</Tag_10>\n");
    for (const char* p_text :
         {"00 0a 00 00 00 0a 00 00 00 02 00 04 00 00 00 07", "000a:0000:000a:0000:0002:0004:0000:0007",
          "0x00, 0x0A, 0x00, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x00, 0x02, 0x00, 0x04, 0x00000007",
          "00 0a 00 00 00 0a | element 10\n00 00 00 02 00 04 # content\n+++\t00-00-00-07\n"})
        EXPECT_EQ(vekmsg({"decode", "element"}, reading(p_text)).m_output, plain) << p_text;
}

TEST(DecodeVerb, whatIsNoHexIsBadData) {
    for (const char* p_text : {"0", "0g", "00 0", "0x", "zz"}) {
        const Ran_ ran = vekmsg({"decode", "element", "-x", p_text});
        EXPECT_EQ(ran.m_exitCode, 6) << p_text;
        EXPECT_EQ(ran.m_errors, "vekmsg: the input is no hexadecimal, two digits for each byte\n") << p_text;
    }
}

TEST(DecodeVerb, filesAreReadWhateverTheirForm) {
    const TemporaryFolder_ folder;
    std::ofstream(folder.path("binary"), std::ios::binary) << order();
    std::ofstream(folder.path("hex")) << vekmsg({"encode"}, reading(kOrderJson)).m_output;

    EXPECT_EQ(vekmsg({"decode", "message", "--json", folder.path("binary")}).m_output, kOrderJson);
    EXPECT_EQ(vekmsg({"decode", "message", "--json", folder.path("hex")}).m_output, kOrderJson);
    EXPECT_EQ(vekmsg({"decode", "message", folder.path("missing")}).m_exitCode, 6);
    EXPECT_EQ(vekmsg({"decode", "message", folder.path("")}).m_exitCode, 6);
}

TEST(DecodeVerb, anUnknownKindIsAFaultOfUsage) {
    const Ran_ ran = vekmsg({"decode", "letter", "-x", "00"});

    EXPECT_EQ(ran.m_exitCode, 2);
    EXPECT_EQ(ran.m_errors, "vekmsg: 'letter' is no kind: message, element, items or stream\n");
    EXPECT_EQ(vekmsg({"decode"}).m_exitCode, 2);
}

TEST(DecodeVerb, aClosedPipeEndsItWithoutAWord) {
    How_ how = reading(order());
    how.m_isClosedOutput = true;

    const Ran_ ran = vekmsg({"decode", "message"}, how);

    EXPECT_EQ(ran.m_exitCode, 141);
    EXPECT_EQ(ran.m_errors, "");
}
