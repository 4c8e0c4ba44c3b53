#include "terminal/message_printer.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "foundation/utf8_name.h"
#include "message/message_binary.h"
#include "support/allocation_failure.h"
#include "support/record_capture.h"
#include "support/temporary_folder.h"
#include "support/utf8_text.h"
#include "terminal/foreign_message.h"
#include "terminal/terminal_impl.h"

namespace {

constexpr char kProcess[] = "virtual bool VekmsgPrinter_::process(SP_VekMessage_&)";
constexpr char kCreate[] =
    "bool VekmsgTerminalImpl_::CreateMessagePrinter(std::ostream*, const char*, SP_VekmsgFilter_&) const";

SP_VekMessageBinary_ messageFor(const char* p_destination) {
    SP_VekMessageBinary_ sp_message(new (std::nothrow) VekMessageBinary_);
    sp_message->setSource(utf8("sender"));
    sp_message->setDestination(utf8(p_destination));
    sp_message->setPayloadSchema(utf8("schema"), VekMessage_::SCHEMA_LITERAL);
    SP_VekmsgElement_ sp_payload = sp_message->createElement(0x0123);
    EXPECT_TRUE(sp_payload->setValue(7U));
    sp_message->setPayload(sp_payload);
    return sp_message;
}

/// The same message as it arrives: its payload is still encoded.
SP_VekMessage_ receivedMessageFor(const char* p_destination) {
    SP_BasicBuffer_ sp_buffer;
    EXPECT_NE(messageFor(p_destination)->serialize(sp_buffer), 0U);
    SP_VekMessageBinary_ sp_message(new (std::nothrow) VekMessageBinary_);
    EXPECT_NE(sp_message->deserialize(sp_buffer), 0U);
    EXPECT_TRUE(sp_message->getRawPayload());
    return sp_message;
}

std::string printed(const SP_VekMessage_& sp_message) {
    std::ostringstream stream;
    EXPECT_TRUE(sp_message->print(&stream, 0));
    return stream.str();
}

bool showsEncodedPayload(const std::string& text) {
    return text.find("RawPayload") != std::string::npos;
}

Record_ implRecord(const std::string& signature, const std::string& text) {
    return Record_(3, "vekmsg_impl.cpp", signature, text);
}

/// Notes what is there at each flush.
struct FlushedLines_ : std::stringbuf {
    std::vector<std::string> m_flushed;
    int sync() override {
        m_flushed.push_back(str());
        return 0;
    }
};

class MessagePrinter : public ::testing::Test {
protected:
    bool print(const SP_VekMessage_& sp_message, const char* p_note) {
        VekmsgPrinter_ printer(&m_stream, createUtf8String(utf8("here")), p_note);
        SP_VekMessage_ sp_printed = sp_message;
        const bool result = printer.process(sp_printed);
        EXPECT_EQ(sp_printed, sp_message);
        return result;
    }

    RecordCapture_ m_records;
    std::ostringstream m_stream;
};

}  // namespace

TEST_F(MessagePrinter, aMessageIsPrintedUnderACommentWithNameAndNote) {
    const SP_VekMessage_ sp_message = messageFor("there");

    EXPECT_TRUE(print(sp_message, "what it is"));

    EXPECT_EQ(m_stream.str(), "\n<!-- here  what it is -->\n" + printed(sp_message));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(MessagePrinter, withoutANoteTheCommentEndsAfterTwoBlanks) {
    const SP_VekMessage_ sp_message = messageFor("there");

    EXPECT_TRUE(print(sp_message, nullptr));

    EXPECT_EQ(m_stream.str(), "\n<!-- here   -->\n" + printed(sp_message));
}

TEST_F(MessagePrinter, aNoteIsCutTo9399Characters) {
    const std::string longest(9399, 'n');
    const SP_VekMessage_ sp_message = messageFor("there");
    for (const std::string& note : {longest, longest + "x", longest + longest}) {
        m_stream.str("");

        EXPECT_TRUE(print(sp_message, note.c_str()));

        EXPECT_EQ(m_stream.str(), "\n<!-- here  " + longest + " -->\n" + printed(sp_message));
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(MessagePrinter, bothLineEndsOfTheCommentAreFlushed) {
    FlushedLines_ buffer;
    std::ostream stream(&buffer);
    VekmsgPrinter_ printer(&stream, createUtf8String(utf8("here")), "note");
    SP_VekMessage_ sp_message = messageFor("there");

    EXPECT_TRUE(printer.process(sp_message));

    ASSERT_GE(buffer.m_flushed.size(), 2U);
    EXPECT_EQ(buffer.m_flushed[0], "\n");
    EXPECT_EQ(buffer.m_flushed[1], "\n<!-- here  note -->\n");
}

TEST_F(MessagePrinter, theNoteIsACopy) {
    char note[] = "before";
    VekmsgPrinter_ printer(&m_stream, createUtf8String(utf8("here")), note);
    note[0] = 'B';
    SP_VekMessage_ sp_message = messageFor("there");

    EXPECT_TRUE(printer.process(sp_message));

    EXPECT_EQ(m_stream.str().substr(0, 23), "\n<!-- here  before -->\n");
}

TEST_F(MessagePrinter, aMessageForTheComponentItselfIsDecoded) {
    const SP_VekMessage_ sp_message = receivedMessageFor("here");
    const SP_VekMessage_ sp_decoded = receivedMessageFor("here");
    ASSERT_TRUE(sp_decoded->getPayload());

    EXPECT_TRUE(print(sp_message, "in"));

    EXPECT_EQ(m_stream.str(), "\n<!-- here  in -->\n" + printed(sp_decoded));
    EXPECT_FALSE(showsEncodedPayload(m_stream.str()));
    EXPECT_FALSE(sp_message->getRawPayload());
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(MessagePrinter, aMessageForAnotherComponentIsPrintedAsItStands) {
    for (const char* p_other : {"her", "heres", "Here", "there"}) {
        const SP_VekMessage_ sp_message = receivedMessageFor(p_other);
        m_stream.str("");

        EXPECT_TRUE(print(sp_message, "through"));

        EXPECT_EQ(m_stream.str(), "\n<!-- here  through -->\n" + printed(sp_message));
        EXPECT_TRUE(showsEncodedPayload(m_stream.str()));
        EXPECT_TRUE(sp_message->getRawPayload());
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(MessagePrinter, anOwnMessageWithoutAGoodPayloadIsNotDecoded) {
    SP_VekMessage_ sp_message = messageFor("here");
    SP_BasicBuffer_ sp_damaged(new BasicBuffer_(3));
    ASSERT_TRUE(sp_damaged->setDataArea(0, 3));
    sp_damaged->data()[0] = sp_damaged->data()[1] = sp_damaged->data()[2] = 0;
    ASSERT_TRUE(sp_message->setRawPayload(sp_damaged));
    ASSERT_FALSE(sp_message->hasGoodPayload());
    const Records_ recordsOfTheQuestion = m_records.take();

    EXPECT_TRUE(print(sp_message, nullptr));

    EXPECT_EQ(m_records.take(), recordsOfTheQuestion);

    EXPECT_TRUE(sp_message->getRawPayload());
    EXPECT_TRUE(showsEncodedPayload(m_stream.str()));
}

TEST_F(MessagePrinter, theStreamsOwnSettingsAreNeitherUsedNorUsedUp) {
    const SP_VekMessage_ sp_message = messageFor("there");
    m_stream << std::setw(40) << std::setfill('*');

    EXPECT_TRUE(print(sp_message, "note"));

    EXPECT_EQ(m_stream.str(), "\n<!-- here  note -->\n" + printed(sp_message));
    EXPECT_EQ(m_stream.width(), 40);
    EXPECT_EQ(m_stream.fill(), '*');
}

TEST_F(MessagePrinter, aMessageThatCannotBePrintedIsRefusedUnderItsComment) {
    EXPECT_FALSE(print(SP_VekMessage_(new ForeignMessage_("there")), "note"));

    EXPECT_EQ(m_stream.str(), "\n<!-- here  note -->\n");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(MessagePrinter, noMessageIsRefused) {
    EXPECT_FALSE(print(SP_VekMessage_(), "a note"));
    EXPECT_FALSE(print(SP_VekMessage_(), nullptr));

    EXPECT_EQ(m_stream.str(), "");
    EXPECT_EQ(
        m_records.take(),
        (Records_{implRecord(kProcess, "VekmsgPrinter_::process() null sp_message at here with note a note"),
                  implRecord(kProcess, "VekmsgPrinter_::process() null sp_message at here with note ")}));
}

namespace {

/// Takes nothing and says so by an exception.
struct FullBuffer_ : std::streambuf {
    int_type overflow(int_type) override { throw std::runtime_error("full"); }
};

}  // namespace

TEST_F(MessagePrinter, aStreamThatThrowsRefusesTheMessage) {
    FullBuffer_ buffer;
    std::ostream stream(&buffer);
    stream.exceptions(std::ios::badbit);
    VekmsgPrinter_ printer(&stream, createUtf8String(utf8("here")), nullptr);
    SP_VekMessage_ sp_message = messageFor("there");

    EXPECT_NO_THROW(EXPECT_FALSE(printer.process(sp_message)));

    EXPECT_TRUE(stream.bad());
    EXPECT_TRUE(sp_message);
    EXPECT_EQ(m_records.take(), Records_{});
}

namespace {

class CreatingAPrinter : public MessagePrinter {
protected:
    void open() {
        const std::string file = m_folder.writeFile("directory", {m_folder.localAddress("here") + " here"});
        ASSERT_TRUE(m_terminal.open(utf8("here"), file.c_str()));
        m_records.take();
    }

    TemporaryFolder_ m_folder;
    VekmsgTerminalImpl_ m_terminal;
    SP_VekmsgFilter_ m_sp_filter;
};

}  // namespace

TEST_F(CreatingAPrinter, givesAFilterThatNamesTheTerminalsComponent) {
    open();

    EXPECT_TRUE(m_terminal.CreateMessagePrinter(&m_stream, "note", m_sp_filter));

    ASSERT_TRUE(m_sp_filter);
    SP_VekMessage_ sp_message = messageFor("there");
    EXPECT_TRUE(m_sp_filter->process(sp_message));
    EXPECT_EQ(m_stream.str(), "\n<!-- here  note -->\n" + printed(sp_message));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(CreatingAPrinter, outlivesTheTerminalsBeingOpen) {
    open();
    ASSERT_TRUE(m_terminal.CreateMessagePrinter(&m_stream, nullptr, m_sp_filter));
    m_terminal.close();
    m_records.take();
    SP_VekMessage_ sp_message = messageFor("there");

    EXPECT_TRUE(m_sp_filter->process(sp_message));

    EXPECT_EQ(m_stream.str().substr(0, 17), "\n<!-- here   -->\n");
}

TEST_F(CreatingAPrinter, withoutAStreamIsRefused) {
    open();
    const SP_VekmsgFilter_ sp_before(new VekmsgPrinter_(&m_stream, SP_Utf8String_(), nullptr));
    m_sp_filter = sp_before;

    EXPECT_FALSE(m_terminal.CreateMessagePrinter(nullptr, "note", m_sp_filter));

    EXPECT_EQ(m_sp_filter, sp_before);
    EXPECT_EQ(m_records.take(),
              (Records_{implRecord(kCreate, "VekmsgTerminalImpl_::CreateMessagePrinter() null p_ostrm")}));
}

TEST_F(CreatingAPrinter, onAClosedTerminalIsRefused) {
    EXPECT_FALSE(m_terminal.CreateMessagePrinter(&m_stream, "note", m_sp_filter));

    EXPECT_FALSE(m_sp_filter);
    EXPECT_EQ(m_records.take(),
              (Records_{implRecord(kCreate,
                                   "VekmsgTerminalImpl_::CreateMessagePrinter() null m_sp_componentName")}));
}

TEST_F(CreatingAPrinter, withoutMemoryGivesNull) {
    open();
    m_sp_filter = SP_VekmsgFilter_(new VekmsgPrinter_(&m_stream, SP_Utf8String_(), nullptr));
    {
        AllocationFailure_ failure(1);
        EXPECT_FALSE(m_terminal.CreateMessagePrinter(&m_stream, "note", m_sp_filter));
    }
    EXPECT_FALSE(m_sp_filter);
    EXPECT_EQ(m_records.take(),
              (Records_{implRecord(
                  kCreate, "VekmsgTerminalImpl_::CreateMessagePrinter() can't create VekmsgPrinter_")}));
}
