#include <gtest/gtest.h>

#include <iomanip>
#include <iterator>
#include <sstream>
#include <streambuf>

#include "message/message_fixture.h"
#include "support/allocation_failure.h"

namespace {

std::string printed(const VekmsgElement_& element, unsigned int indent = 0) {
    std::ostringstream stream;
    EXPECT_TRUE(element.print(&stream, indent));
    return stream.str();
}

std::string printed(const VekMessage_& message, unsigned int indent = 0) {
    std::ostringstream stream;
    EXPECT_TRUE(message.print(&stream, indent));
    return stream.str();
}

/// Counts what is written and keeps nothing.
class Counter_ : public std::streambuf {
public:
    unsigned long m_lines = 0;
    unsigned long m_flushes = 0;

protected:
    int_type overflow(int_type character) override {
        if (character == '\n') ++m_lines;
        return character;
    }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
    int sync() override {
        ++m_flushes;
        return 0;
    }
};

/// Keeps what is written without asking for memory.
class Page_ : public std::streambuf {
public:
    Page_() { setp(m_text, std::end(m_text)); }
    std::string text() const { return std::string(pbase(), pptr()); }

private:
    char m_text[1000];
};

/// Keeps what is written, with a bar wherever it was flushed.
class FlushMarks_ : public std::stringbuf {
protected:
    int sync() override {
        sputc('|');
        return 0;
    }
};

class XmlRendering : public RecordingTest_ {
protected:
    XmlRendering() {
        m_sp_message->setSource(text("a"));
        m_sp_message->setDestination(text("b"));
        m_sp_message->setPayloadSchema(text("s"), VekMessage_::SCHEMA_LITERAL);
    }

    SP_VekMessageBinary_ m_sp_message{new VekMessageBinary_};
};

const char* const kHead =
    "<?xml version=\"1.0\"?>\n"
    "<vek:Message>\n"
    "\t<vek:Sender>a</vek:Sender>\n"
    "\t<vek:Receiver>b</vek:Receiver>\n"
    "\t<vek:TimeToLive>3</vek:TimeToLive>\n"
    "\t<vek:PayloadSchema Type=\"literal\">s</vek:PayloadSchema>\n";

}  // namespace

TEST_F(XmlRendering, aMessageIsPrintedLineByLine) {
    const SP_VekmsgElement_ sp_root = m_sp_message->createElement(0);
    sp_root->setSubElementValue(5, 7U);
    m_sp_message->setPayload(sp_root);

    EXPECT_EQ(printed(*m_sp_message), std::string(kHead) +
                                          "\t<Tag_0 Type=\"complex\">\n"
                                          "\t\t<Tag_5 Type=\"uint\">7</Tag_5>\n"
                                          "\t</Tag_0>\n"
                                          "</vek:Message>\n");
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(XmlRendering, everyLineIsIndentedTheDeclarationToo) {
    m_sp_message->setTimeToLive(0xFFFFFFFFU);

    EXPECT_EQ(printed(*m_sp_message, 2),
              "\t\t<?xml version=\"1.0\"?>\n"
              "\t\t<vek:Message>\n"
              "\t\t\t<vek:Sender>a</vek:Sender>\n"
              "\t\t\t<vek:Receiver>b</vek:Receiver>\n"
              "\t\t\t<vek:TimeToLive>4294967295</vek:TimeToLive>\n"
              "\t\t\t<vek:PayloadSchema Type=\"literal\">s</vek:PayloadSchema>\n"
              "\t\t\t<null></null>\n"
              "\t\t</vek:Message>\n");
}

TEST_F(XmlRendering, aMessageWithoutPayloadPrintsNull) {
    EXPECT_EQ(printed(*m_sp_message), std::string(kHead) + "\t<null></null>\n</vek:Message>\n");
}

TEST_F(XmlRendering, theSchemaTypeIsNamed) {
    m_sp_message->setPayloadSchema(text("u"), VekMessage_::SCHEMA_URI);
    EXPECT_NE(printed(*m_sp_message).find("\t<vek:PayloadSchema Type=\"uri\">u</vek:PayloadSchema>\n"),
              std::string::npos);

    m_sp_message->setPayloadSchema(text("u"), static_cast<VekMessage_::SchemaType_>(2));
    EXPECT_NE(printed(*m_sp_message).find("\t<vek:PayloadSchema Type=\"unknown\">u</vek:PayloadSchema>\n"),
              std::string::npos);
}

TEST_F(XmlRendering, aReceivedMessageIsDumpedAndStaysUndecoded) {
    const SP_BasicBuffer_ sp_buffer = bufferOf(header("b", "a", 3, "s") + uintElement(5, 7));
    m_sp_message->deserialize(sp_buffer);
    std::ostringstream dump;
    ASSERT_TRUE(sp_buffer->print(&dump, 16, 2, 16, nullptr));

    EXPECT_EQ(printed(*m_sp_message),
              kHead + ("\t<vek:RawPayload>\n" + dump.str()) + "\t</vek:RawPayload>\n</vek:Message>\n");

    EXPECT_EQ(m_sp_message->getRawPayload(), sp_buffer);
}

TEST_F(XmlRendering, aRawPayloadIsDumpedSixteenBytesALine) {
    m_sp_message->setRawPayload(bufferOf(element(5, VEKMSG_BINARY, {1, 2, 3, 4, 5, 6, 7, 8, 0xAB})));

    EXPECT_EQ(printed(*m_sp_message), std::string(kHead) +
                                          "\t<vek:RawPayload>\n"
                                          "0005 0000 000f 0000 0004 0009 0102 0304\n"
                                          "0506 0708 ab\n"
                                          "\t</vek:RawPayload>\n"
                                          "</vek:Message>\n");
}

TEST_F(XmlRendering, aPayloadThatDoesNotPrintEndsTheMessage) {
    m_sp_message->setPayload(SP_VekmsgElement_(new ForeignElement_(1)));
    std::ostringstream stream;

    EXPECT_FALSE(m_sp_message->print(&stream, 0));
    EXPECT_EQ(stream.str(), kHead);
}

TEST_F(XmlRendering, aDumpWithoutMemoryEndsTheMessage) {
    m_sp_message->setRawPayload(bufferOf(Bytes_(100, 7)));
    Page_ page;
    std::ostream stream(&page);
    {
        const AllocationFailure_ failure(1);
        EXPECT_FALSE(m_sp_message->print(&stream, 0));
        EXPECT_TRUE(failure.hasStruck());
    }
    EXPECT_EQ(page.text(), std::string(kHead) + "\t<vek:RawPayload>\n");
}

TEST_F(XmlRendering, nothingIsPrintedWithoutAStream) {
    EXPECT_FALSE(m_sp_message->print(nullptr, 0));
    EXPECT_FALSE(newElement(1)->print(nullptr, 0));
    EXPECT_FALSE(VekMessageBinary_::printIndents(nullptr, 0));
    EXPECT_EQ(m_records.take(), Records_());
}

TEST_F(XmlRendering, indentsAreTabs) {
    std::ostringstream stream;
    EXPECT_TRUE(VekMessageBinary_::printIndents(&stream, 0));
    EXPECT_EQ(stream.str(), "");

    for (const unsigned int indent : {1U, 15U, 16U, 17U, 100U}) {
        stream.str("");
        EXPECT_TRUE(VekMessageBinary_::printIndents(&stream, indent));
        EXPECT_EQ(stream.str(), std::string(indent, '\t'));
    }
}

TEST_F(XmlRendering, aNumberStandsOnTheLineOfItsTag) {
    EXPECT_EQ(printed(*newElement(5, 4294967295U), 1), "\t<Tag_5 Type=\"uint\">4294967295</Tag_5>\n");
    EXPECT_EQ(printed(*newElement(5, 0U)), "<Tag_5 Type=\"uint\">0</Tag_5>\n");
}

TEST_F(XmlRendering, textStandsOnALineOfItsOwnAndIsNotEscaped) {
    EXPECT_EQ(printed(*newElement(5, text("<a&\"b\">")), 1),
              "\t<Tag_5 Type=\"string\">\n\t\t<a&\"b\">\n\t</Tag_5>\n");
}

TEST_F(XmlRendering, eightBytesStandOnTheLineOfTheirTag) {
    EXPECT_EQ(printed(*newBinary(5, {1, 2, 3, 4, 5, 6, 7, 0xAB}), 1),
              "\t<Tag_5 Type=\"binary\">+++\t01 02 03 04 05 06 07 ab</Tag_5>\n");
    EXPECT_EQ(printed(*newBinary(5, {}), 1), "\t<Tag_5 Type=\"binary\">+++\t</Tag_5>\n");
}

TEST_F(XmlRendering, nineBytesStandOnALineOfTheirOwn) {
    EXPECT_EQ(printed(*newBinary(5, {1, 2, 3, 4, 5, 6, 7, 8, 9}), 1),
              "\t<Tag_5 Type=\"binary\">\n"
              "\t\t+++\t01 02 03 04 05 06 07 08 09\n"
              "\t</Tag_5>\n");
}

TEST_F(XmlRendering, aLongByteStringIsDumpedSixteenBytesALine) {
    EXPECT_EQ(printed(*newBinary(5, Bytes_(33, 0xAB)), 1),
              "\t<Tag_5 Type=\"binary\">\n"
              "\t\t+++\tab ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab\n"
              "+++\tab ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab\n"
              "+++\tab\n"
              "\t</Tag_5>\n");
}

TEST_F(XmlRendering, anElementWithoutValueIsUnknown) {
    EXPECT_EQ(printed(*newElement(12)), "<Tag_12 Type=\"unknown\"></Tag_12>\n");
}

TEST_F(XmlRendering, theTagAnyPrintsAsItsNumber) {
    EXPECT_EQ(printed(*newElement(VEKMSGTAG_ANY)), "<Tag_4294967295 Type=\"unknown\"></Tag_4294967295>\n");
}

TEST_F(XmlRendering, subElementsArePrintedInTagOrder) {
    const SP_VekmsgElementBinary_ sp_root = newElement(1);
    sp_root->addSubelements(newElement(9, 90U));
    sp_root->addSubelements(newElement(3, 30U));
    sp_root->addSubelements(newElement(9, 91U));

    EXPECT_EQ(printed(*sp_root),
              "<Tag_1 Type=\"complex\">\n"
              "\t<Tag_3 Type=\"uint\">30</Tag_3>\n"
              "\t<Tag_9 Type=\"uint\">90</Tag_9>\n"
              "\t<Tag_9 Type=\"uint\">91</Tag_9>\n"
              "</Tag_1>\n");
}

TEST_F(XmlRendering, aSubElementThatDoesNotPrintEndsItsParents) {
    const SP_VekmsgElementBinary_ sp_root = newElement(1);
    const SP_VekmsgElementBinary_ sp_inner = newElement(2);
    sp_inner->addSubelements(SP_VekmsgElement_(new ForeignElement_(3)));
    sp_root->addSubelements(sp_inner);
    std::ostringstream stream;

    EXPECT_FALSE(sp_root->print(&stream, 0));
    EXPECT_EQ(stream.str(), "<Tag_1 Type=\"complex\">\n\t<Tag_2 Type=\"complex\">\n");
}

TEST_F(XmlRendering, theFormattingOfTheStreamNeitherChangesTheLinesNorIsUsedUp) {
    const SP_VekmsgElement_ sp_root = m_sp_message->createElement(31);
    sp_root->setSubElementValue(26, 255U);
    sp_root->setSubElementValue(27, text("text"));
    sp_root->setSubElementValue(28, Bytes_(9, 0xAB).data(), 9);
    m_sp_message->setPayload(sp_root);
    const std::string expected = printed(*m_sp_message, 1);
    std::ostringstream stream;
    stream << std::hex << std::showbase << std::left << std::setfill('*') << std::setw(12);

    EXPECT_TRUE(m_sp_message->print(&stream, 1));

    EXPECT_EQ(stream.str(), expected);
    EXPECT_EQ(stream.width(), 12);
    EXPECT_EQ(stream.fill(), '*');
    EXPECT_NE(stream.flags() & std::ios::hex, 0);
}

TEST_F(XmlRendering, everyLineIsFlushed) {
    Counter_ counter;
    std::ostream stream(&counter);

    EXPECT_TRUE(m_sp_message->print(&stream, 0));

    EXPECT_EQ(counter.m_lines, 8U);
    EXPECT_EQ(counter.m_flushes, 8U);
}

TEST_F(XmlRendering, theLinesAroundADumpAreFlushed) {
    m_sp_message->setRawPayload(bufferOf(uintElement(5, 7)));
    FlushMarks_ marks;
    std::ostream stream(&marks);

    EXPECT_TRUE(m_sp_message->print(&stream, 0));

    const std::string marked = marks.str();
    EXPECT_NE(marked.find("\t<vek:RawPayload>\n|"), std::string::npos) << marked;
    EXPECT_NE(marked.find("\t</vek:RawPayload>\n|</vek:Message>\n|"), std::string::npos) << marked;
}

TEST_F(XmlRendering, everyLineOfATreeIsFlushed) {
    const SP_VekmsgElementBinary_ sp_root = newElement(1);
    sp_root->addSubelements(newElement(2, 20U));
    sp_root->addSubelements(newElement(3, text("three")));
    sp_root->addSubelements(newBinary(4, Bytes_(9, 4)));
    Counter_ counter;
    std::ostream stream(&counter);

    EXPECT_TRUE(sp_root->print(&stream, 0));

    EXPECT_EQ(counter.m_lines, 9U);
    EXPECT_EQ(counter.m_flushes, 9U);
}

TEST_F(XmlRendering, aBrokenStreamIsNotLookedAt) {
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);

    EXPECT_TRUE(m_sp_message->print(&stream, 0));
    EXPECT_TRUE(newElement(1, 5U)->print(&stream, 0));
}

TEST_F(XmlRendering, noExceptionOfTheStreamLeavesPrinting) {
    class Refusing_ : public std::streambuf {
    } refusing;
    std::ostream stream(&refusing);
    stream.exceptions(std::ios::badbit | std::ios::failbit);

    EXPECT_FALSE(m_sp_message->print(&stream, 0));
    stream.clear();
    EXPECT_FALSE(newElement(1, 5U)->print(&stream, 0));
}

TEST_F(XmlRendering, printingSurvivesEveryFailedAllocation) {
    const SP_VekmsgElementBinary_ sp_root = newElement(1);
    sp_root->addSubelements(newBinary(2, Bytes_(100, 2)));
    const unsigned int failures = failEachAllocation([&](unsigned int number) {
        Counter_ counter;
        std::ostream stream(&counter);
        const AllocationFailure_ failure(number);
        const bool isPrinted = sp_root->print(&stream, 0);
        EXPECT_NE(isPrinted, failure.hasStruck());
        return failure.hasStruck();
    });
    EXPECT_GT(failures, 0U);
}

TEST_F(XmlRendering, theDeepestTreesFitOnAUsualStack) {
    for (const unsigned int levels : {780U, 5460U}) {
        onUsualStack([levels] {
            const SP_VekmsgElementBinary_ sp_root = newElement(0);
            ASSERT_NE(deserialize(*sp_root, nestedElements(levels)), 0U);
            Counter_ counter;
            std::ostream stream(&counter);
            EXPECT_TRUE(sp_root->print(&stream, 0));
            EXPECT_EQ(counter.m_lines, 2UL * levels - 1);
        });
    }
}
