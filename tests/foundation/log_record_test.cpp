#define VEKMSG_MODULE "log_record_test"

#include "foundation/log_record.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <string>

#include "support/allocation_failure.h"
#include "support/child_process.h"
#include "support/record_capture.h"
#include "support/temporary_folder.h"

// Outside any unnamed namespace, whose spelling in signatures differs between compilers.
const int g_warningLine = __LINE__ + 2;
void writeWarning(const char* p_text) {
    VEKMSG_LOG_WARNING("warning %s", p_text);
}

const int g_errorLine = __LINE__ + 2;
void writeOneOfEach() {
    VEKMSG_LOG_ERROR("error %d", 1);
    VEKMSG_LOG_WARNING("warning %d", 2);
    VEKMSG_LOG_INFO("info %d", 3);
    VEKMSG_LOG_DEBUG("debug %d", 4);
}

void writeWithCountedArgument(int& evaluations) {
    VEKMSG_LOG_DEBUG("evaluation %d", ++evaluations);
}

namespace {

struct Taken_ {
    int m_severity = 0;
    const LogSite* m_p_site = nullptr;
    std::string m_text;
};

void takeRecord(void* context, int severity, const LogSite* site, const char* text) {
    auto* p_taken = static_cast<Taken_*>(context);
    p_taken->m_severity = severity;
    p_taken->m_p_site = site;
    p_taken->m_text = text;
    errno = EDOM;  // what a sink does to errno must not reach the library
}

/// Sets a sink for one test and brings the default back.
class LogRecord : public testing::Test {
protected:
    ~LogRecord() override {
        vekmsg_log_set_sink(nullptr, nullptr);
        vekmsg_log_set_threshold(kLogWarning);
    }
};

/// What `body` writes to standard error in a process of its own, where the default sink is in force.
std::string standardErrorOf(void (*p_body)()) {
    const TemporaryFolder_ folder;
    const std::string path = folder.path("stderr");
    ChildProcess_ child([&] {
        const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
        if (descriptor < 0 || dup2(descriptor, STDERR_FILENO) < 0) return 1;
        p_body();
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::string numberOf(const std::string& text, char character) {
    return std::to_string(std::count(text.begin(), text.end(), character));
}

}  // namespace

TEST_F(LogRecord, aSiteIsSixteenMachineWords) {
    EXPECT_EQ(sizeof(LogSite), sizeof(void*) == 4 ? 64U : 128U);
    EXPECT_EQ(offsetof(LogSite, moduleAndSeverity), 0U);
    EXPECT_EQ(offsetof(LogSite, p_template), sizeof(void*));
    EXPECT_EQ(offsetof(LogSite, p_sourceName), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(LogSite, p_signature), 3 * sizeof(void*));
    EXPECT_EQ(offsetof(LogSite, line), 4 * sizeof(void*));
    EXPECT_EQ(offsetof(LogSite, reserved), 5 * sizeof(void*));
}

TEST_F(LogRecord, aSiteSaysWhereItStands) {
    Taken_ taken;
    vekmsg_log_set_sink(takeRecord, &taken);

    writeWarning("here");

    ASSERT_NE(taken.m_p_site, nullptr);
    EXPECT_EQ(taken.m_p_site->moduleAndSeverity, (0x129U << 16) | 4U);
    EXPECT_STREQ(taken.m_p_site->p_template, "$fmt");
    EXPECT_STREQ(taken.m_p_site->p_sourceName, "log_record_test.cpp");
    EXPECT_EQ(taken.m_p_site->line, static_cast<uintptr_t>(g_warningLine));
    for (const uintptr_t word : taken.m_p_site->reserved) EXPECT_EQ(word, 0U);
}

TEST_F(LogRecord, theSinkGetsTheRecord) {
    Taken_ taken;
    vekmsg_log_set_sink(takeRecord, &taken);

    writeWarning("here");

    EXPECT_EQ(taken.m_severity, 4);
    EXPECT_EQ(taken.m_text, "warning here");
}

TEST_F(LogRecord, everyRecordNamesSeveritySourceAndSignature) {
    RecordCapture_ records;

    writeOneOfEach();

    const char* const p_source = "log_record_test.cpp";
    const char* const p_signature = "void writeOneOfEach()";
    EXPECT_EQ(records.take(), (Records_{Record_(3, p_source, p_signature, "error 1"),
                                        Record_(4, p_source, p_signature, "warning 2"),
                                        Record_(6, p_source, p_signature, "info 3"),
                                        Record_(7, p_source, p_signature, "debug 4")}));
}

TEST_F(LogRecord, recordsUpToTheThresholdPass) {
    RecordCapture_ records;

    vekmsg_log_set_threshold(-1);
    writeOneOfEach();
    EXPECT_EQ(records.takeTexts(), (std::vector<std::string>{}));

    vekmsg_log_set_threshold(3);
    writeOneOfEach();
    EXPECT_EQ(records.takeTexts(), (std::vector<std::string>{"error 1"}));

    vekmsg_log_set_threshold(6);
    writeOneOfEach();
    EXPECT_EQ(records.takeTexts(), (std::vector<std::string>{"error 1", "warning 2", "info 3"}));
}

TEST_F(LogRecord, aRecordThatDoesNotPassIsNotFormatted) {
    int evaluations = 0;

    vekmsg_log_set_threshold(6);
    writeWithCountedArgument(evaluations);
    EXPECT_EQ(evaluations, 0);

    Taken_ taken;
    vekmsg_log_set_sink(takeRecord, &taken);
    vekmsg_log_set_threshold(7);
    writeWithCountedArgument(evaluations);
    EXPECT_EQ(evaluations, 1);
}

TEST_F(LogRecord, theGateAnswersBySeverity) {
    vekmsg_log_set_threshold(4);

    EXPECT_NE(log_accept(3, nullptr), 0);
    EXPECT_NE(log_accept(4, nullptr), 0);
    EXPECT_EQ(log_accept(6, nullptr), 0);
    EXPECT_EQ(log_accept(7, nullptr), 0);
}

TEST_F(LogRecord, loggingKeepsErrno) {
    Taken_ taken;
    vekmsg_log_set_sink(takeRecord, &taken);
    errno = ECONNREFUSED;

    writeWarning("here");

    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(taken.m_text, "warning here");
}

TEST_F(LogRecord, anOverlongTextIsCut) {
    Taken_ taken;
    vekmsg_log_set_sink(takeRecord, &taken);

    writeWarning(std::string(10000, 'x').c_str());

    EXPECT_EQ(taken.m_text, "warning " + std::string(2047 - 8, 'x'));
}

TEST_F(LogRecord, aTextOf2047CharactersIsWhole) {
    Taken_ taken;
    vekmsg_log_set_sink(takeRecord, &taken);
    for (const std::size_t length : {2046U, 2047U, 2048U}) {
        writeWarning(std::string(length - 8, 'x').c_str());

        EXPECT_EQ(taken.m_text, "warning " + std::string(std::min<std::size_t>(length, 2047) - 8, 'x'));
    }
}

TEST_F(LogRecord, aRecordAsksForNoMemory) {
    unsigned int records = 0;
    vekmsg_log_set_sink(
        [](void* context, int, const LogSite*, const char*) { ++*static_cast<unsigned int*>(context); },
        &records);
    const unsigned long allocations = allocationCount();

    writeOneOfEach();

    EXPECT_EQ(allocationCount(), allocations);
    EXPECT_EQ(records, 2U);
}

TEST_F(LogRecord, eachThreadFormatsIntoATextOfItsOwn) {
    const char* const p_text = lfmt("%s", "mine");

    inFreshThread([] { EXPECT_STREQ(lfmt("%s", "other"), "other"); });

    EXPECT_STREQ(p_text, "mine");
}

TEST_F(LogRecord, lfmtFormatsLikePrintf) {
    EXPECT_STREQ(lfmt("%s %u %d", "a", 1U, -2), "a 1 -2");
}

TEST_F(LogRecord, whatCannotBeFormattedIsEmptyText) {
    lfmt("%s", "before");

    EXPECT_STREQ(lfmt("%ls", L"\x4E2D"), "");  // no such character in the "C" locale
}

TEST_F(LogRecord, aNullNamePrintsAsEmptyText) {
    EXPECT_STREQ(printable(static_cast<const Utf8Char_*>(nullptr)), "");
    EXPECT_STREQ(printable(SP_Utf8String_()), "");
}

TEST_F(LogRecord, aNamePrintsAsItsBytes) {
    const Utf8String_ name(reinterpret_cast<const Utf8Char_*>("n\xC3\xA4me"));

    EXPECT_STREQ(printable(name.c_str()), "n\xC3\xA4me");
    EXPECT_STREQ(printable(name), "n\xC3\xA4me");
    EXPECT_STREQ(printable(SP_Utf8String_(new Utf8String_(name))), "n\xC3\xA4me");
}

TEST_F(LogRecord, theDefaultSinkWritesOneLineToStandardError) {
    const std::string line = standardErrorOf([] {
        vekmsg_log_set_threshold(3);
        writeOneOfEach();
    });

    EXPECT_EQ(line, "vekmsg error: error 1 [log_record_test.cpp:" + std::to_string(g_errorLine) +
                        " void writeOneOfEach()]\n");
}

TEST_F(LogRecord, byDefaultErrorsAndWarningsPass) {
    const std::string lines = standardErrorOf(writeOneOfEach);

    EXPECT_EQ(numberOf(lines, '\n'), "2");
    EXPECT_EQ(lines.find("vekmsg error: error 1 ["), 0U);
    EXPECT_NE(lines.find("\nvekmsg warning: warning 2 ["), std::string::npos);
}

TEST_F(LogRecord, theDefaultSinkNamesEverySeverity) {
    const std::string lines = standardErrorOf([] {
        vekmsg_log_set_threshold(7);
        writeOneOfEach();
    });

    EXPECT_NE(lines.find("\nvekmsg info: info 3 ["), std::string::npos);
    EXPECT_NE(lines.find("\nvekmsg debug: debug 4 ["), std::string::npos);
}

TEST_F(LogRecord, aNullSinkBringsTheDefaultBack) {
    const std::string lines = standardErrorOf([] {
        Taken_ taken;
        vekmsg_log_set_sink(takeRecord, &taken);
        writeWarning("for the sink");
        vekmsg_log_set_sink(nullptr, nullptr);
        writeWarning("for the default");
    });

    EXPECT_EQ(lines.find("vekmsg warning: warning for the default ["), 0U);
}

TEST_F(LogRecord, theDefaultSinkEscapesControlBytes) {
    const std::string line = standardErrorOf([] { writeWarning("a\nb\x1B[2J\x7F\xC3\xA4"); });

    EXPECT_EQ(line.find("vekmsg warning: warning a\\x0ab\\x1b[2J\\x7f\xC3\xA4 ["), 0U);
    EXPECT_EQ(numberOf(line, '\n'), "1");
}

TEST_F(LogRecord, theDefaultSinkCutsALineThatEscapingMadeTooLong) {
    const std::string line = standardErrorOf([] { writeWarning(std::string(2000, '\x01').c_str()); });

    EXPECT_EQ(line.size(), 4096U);
    EXPECT_EQ(line.find("vekmsg warning: warning \\x01\\x01"), 0U);
    EXPECT_EQ(line.back(), '\n');
}

TEST_F(LogRecord, theDefaultSinkWritesLinesOf4096BytesWhole) {
    static std::string s_empty;  // the line of a record whose own text is empty
    s_empty = standardErrorOf([] { writeWarning(""); });
    const std::string lines = standardErrorOf([] {
        for (const std::size_t size : {4095U, 4096U, 4097U}) {
            const std::size_t rest = size - s_empty.size();  // a control byte takes four places
            writeWarning((std::string(rest / 4, '\x01') + std::string(rest % 4, 'x')).c_str());
        }
    });

    const std::string end = s_empty.substr(s_empty.find(" ["));
    ASSERT_EQ(lines.size(), 4095U + 4096U + 4096U);
    EXPECT_EQ(lines.substr(4095 - end.size(), end.size()), end);
    EXPECT_EQ(lines.substr(4095 + 4096 - end.size(), end.size()), end);
    EXPECT_EQ(lines.substr(4095 + 4096 + 4096 - (end.size() - 1)), end.substr(0, end.size() - 2) + '\n');
}

TEST_F(LogRecord, theDefaultSinkKeepsErrnoWhenStandardErrorIsClosed) {
    ChildProcess_ child([] {
        close(STDERR_FILENO);
        errno = ECONNREFUSED;
        writeWarning("for nobody");
        return errno == ECONNREFUSED ? 0 : 1;
    });

    EXPECT_EQ(child.wait(), 0);
}
