#include <fstream>
#include <map>

#include "support/wire_bytes.h"
#include "tools/command.h"

namespace {

Ran_ encode(const std::string& json, const Words_& options = {}) {
    Words_ words = {"encode"};
    words.insert(words.end(), options.begin(), options.end());
    How_ how;
    how.m_input = json;
    return vekmsg(words, how);
}

}  // namespace

TEST(EncodeVerb, eachDocumentIsALineOfHex) {
    const Ran_ ran = encode(R"({"tag":1,"uint":7} {"tag":1,
        "type":3,"value":"00"}
        {"bytes":"ff"}{"block":9,"bytes":""})");

    EXPECT_EQ(ran.m_exitCode, 0) << ran.m_errors;
    EXPECT_EQ(ran.m_output, "00010000000a00000002000400000007\n00010003000100\nff\n00090000\n");
    EXPECT_EQ(ran.m_errors, "");
}

TEST(EncodeVerb, elementsComeInTheOrderOfTheirTags) {
    EXPECT_EQ(encode(R"({"tag":9,"elements":[{"tag":2,"binary":"02"},{"tag":1,"binary":"01"}]})").m_output,
              encode(R"({"tag":9,"elements":[{"tag":1,"binary":"01"},{"tag":2,"binary":"02"}]})").m_output);
}

TEST(EncodeVerb, binaryHasNothingBetweenTheDocuments) {
    const Ran_ ran = encode(R"({"block":1,"name":"shop"}{"block":1,"name":"cook"})", {"--to=binary"});

    EXPECT_EQ(ran.m_exitCode, 0);
    EXPECT_EQ(ran.m_output, wire::nameBlock("shop") + wire::nameBlock("cook"));
}

TEST(EncodeVerb, aFileIsReadLikeStandardInput) {
    const TemporaryFolder_ folder;
    std::ofstream(folder.path("json")) << R"({"bytes":"ff"})";

    EXPECT_EQ(vekmsg({"encode", folder.path("json")}).m_output, "ff\n");
    EXPECT_EQ(vekmsg({"encode", folder.path("missing")}).m_exitCode, 6);
}

TEST(EncodeVerb, whatCannotBeEncodedSaysWhereAndWhy) {
    const std::string message = R"({"destination":"a","source":"b","timeToLive":3,"schema":"c","payload":)";
    const std::map<std::string, std::string> faults = {
        {"", "there is no document to encode"},
        {"[]", "document 1: the document is no object"},
        {"7", "document 1: the document is no object"},
        {"{}", "document 1: /bytes is missing"},
        {R"({"tag":1})", "document 1: the document has not one of uint, string, binary and elements"},
        {R"({"tag":1,"uint":1,"string":"a"})",
         "document 1: the document has not one of uint, string, binary and elements"},
        {R"({"tag":1,"uint":1,"other":1})", "document 1: /other is not known here"},
        {R"({"tag":65536,"uint":1})", "document 1: /tag is no whole number from 0 to 65535"},
        {R"({"tag":-1,"uint":1})", "document 1: /tag is no whole number from 0 to 65535"},
        {R"({"tag":1.0,"uint":1})", "document 1: /tag is no whole number from 0 to 65535"},
        {R"({"tag":1,"uint":4294967296})", "document 1: /uint is no whole number from 0 to 4294967295"},
        {R"({"tag":1,"uint":true})", "document 1: /uint is no whole number from 0 to 4294967295"},
        {R"({"tag":1,"string":7})", "document 1: /string is neither a text nor its bytes"},
        {R"({"tag":1,"string":"a\u0000b"})", "document 1: /string has a NUL, at which texts end"},
        {R"({"tag":1,"string":{"bytes":"6100"}})", "document 1: /string has a NUL, at which texts end"},
        {R"({"tag":1,"string":{"bytes":"6"}})",
         "document 1: /string/bytes is no text of hexadecimal digits, two for each byte"},
        {R"({"tag":1,"string":")" + std::string(9400, 'a') + R"("})",
         "document 1: /string has more than 9399 bytes"},
        {R"({"tag":1,"binary":")" + std::string(18802, 'a') + R"("})",
         "document 1: /binary has more than 9400 bytes"},
        {R"({"tag":1,"binary":"0g"})",
         "document 1: /binary is no text of hexadecimal digits, two for each byte"},
        {R"({"tag":1,"elements":[]})", "document 1: /elements is no array of elements"},
        {R"({"tag":1,"elements":[{"tag":1,"elements":[{"tag":1,"uint":-1}]}]})",
         "document 1: /elements/0/elements/0/uint is no whole number from 0 to 4294967295"},
        {R"({"tag":1,"uint":7,"encoded":"00010000000a00000002000400000008"})",
         "document 1: /encoded means something else than what stands beside it; remove one of the two"},
        {R"({"tag":1,"uint":7,"uint":8})", "document 1: the document has two members uint"},
        {R"({"bytes":"00"} {"bytes":"0"})",
         "document 2: /bytes is no text of hexadecimal digits, two for each byte"},
        {R"({"tag":1,"type":65536,"value":""})", "document 1: /type is no whole number from 0 to 65535"},
        {R"({"tag":1,"type":3,"value":")" + std::string(131072, '0') + R"("})",
         "document 1: /value has more than 65535 bytes"},
        {R"({"block":1,"bytes":"00"})", "document 1: /name is missing"},
        {R"({"block":7,"name":"shop"})", "document 1: /name belongs into a block of type 1"},
        {R"({"block":1,"name":"shop","bytes":"00"})",
         "document 1: /bytes means something else than what stands beside it; remove one of the two"},
        {R"({"block":2,"bytes":"","message":{}})",
         "document 1: /message belongs into a block of type 2, without bytes beside it"},
        {R"({"block":2,"message":{"destination":"a"}})", "document 1: /message/source is missing"},
        {message + "7}", "document 1: /payload is no object"},
        {message + R"({"tag":1,"uint":7},"payloadBytes":"00"})",
         "document 1: /payloadBytes means something else than what stands beside it; remove one of the two"},
        {message + R"({"tag":1,"uint":7},"headerBytes":"00"})",
         "document 1: /headerBytes means something else than what stands beside it; remove one of the two"},
    };
    for (const auto& [json, reason] : faults) {
        const Ran_ ran = encode(json);
        EXPECT_EQ(ran.m_exitCode, 6) << json.substr(0, 100);
        EXPECT_EQ(ran.m_errors, "vekmsg: " + reason + '\n') << json.substr(0, 100);
    }
}

TEST(EncodeVerb, whatIsNoJsonIsBadData) {
    for (const char* p_text :
         {"{", "\"", "{\"tag\":1,}", "tag", "{\"tag\":1 \"uint\":7}", "}", "\xFF", "{\"a\":\"\xFF\"}"}) {
        const Ran_ ran = encode(p_text);
        EXPECT_EQ(ran.m_exitCode, 6) << p_text;
        EXPECT_EQ(ran.m_errors.compare(0, 43, "vekmsg: document 1: the document is no JSON"), 0)
            << ran.m_errors;
        EXPECT_EQ(ran.m_output, "") << p_text;
    }
}

TEST(EncodeVerb, aMillionLevelsAreRefused) {
    std::string arrays(1000000, '[');
    EXPECT_EQ(encode(arrays).m_exitCode, 6);
    std::string elements;
    for (unsigned int i = 0; i < 100000; ++i) elements += R"({"tag":1,"elements":[)";
    elements += R"({"tag":1,"uint":7})";
    for (unsigned int i = 0; i < 100000; ++i) elements += "]}";
    const Ran_ ran = encode(elements);
    EXPECT_EQ(ran.m_exitCode, 6);
    EXPECT_EQ(ran.m_errors, "vekmsg: document 1: an element lies too deep\n");
}

TEST(EncodeVerb, whatIsTooLargeForAMessageIsRefused) {
    std::string children;
    for (unsigned int i = 0; i < 7; ++i)
        children += (i == 0 ? "" : ",") + (R"({"tag":1,"binary":")" + std::string(18800, 'a') + R"("})");
    const Ran_ ran = encode(R"({"tag":1,"elements":[)" + children + "]}");

    EXPECT_EQ(ran.m_exitCode, 6);
    EXPECT_EQ(ran.m_errors, "vekmsg: document 1: cannot be encoded: 65896 bytes are more than 65280\n");
}

TEST(EncodeVerb, documentsInFrontOfABadOneAreWritten) {
    const Ran_ ran = encode(R"({"bytes":"00"} {"tag":1})");

    EXPECT_EQ(ran.m_exitCode, 6);
    EXPECT_EQ(ran.m_output, "00\n");
}

TEST(EncodeVerb, aClosedPipeEndsItWithoutAWord) {
    How_ how;
    how.m_input = R"({"bytes":"00"})";
    how.m_isClosedOutput = true;

    EXPECT_EQ(vekmsg({"encode"}, how).m_exitCode, 141);
    EXPECT_EQ(vekmsg({"encode", "--to=paper"}).m_exitCode, 2);
}
