// The log as an application sees it: records of public operations, on their way to a sink or to standard
// error.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "api/component_folder.h"
#include "support/child_process.h"
#include "support/temporary_folder.h"
#include "vekmsg/c_binding.h"
#include "vekmsg/log.h"
#include "vekmsg/terminal.h"

namespace {

struct Seen_ {
    int m_severity;
    const LogSite* m_p_site;
    std::string m_text;
};
using AllSeen_ = std::vector<Seen_>;

void see(void* context, int severity, const LogSite* site, const char* text) {
    static_cast<AllSeen_*>(context)->push_back(Seen_{severity, site, text});
}

class LogInterface : public testing::Test {
protected:
    LogInterface() { vekmsg_log_set_sink(see, &m_seen); }
    ~LogInterface() override {
        vekmsg_log_set_sink(nullptr, nullptr);
        vekmsg_log_set_threshold(4);
    }

    /// One record of each severity that a terminal writes on its own: 4 and 6 when it opens, 3 and 7 when it
    /// sends.
    std::vector<int> severitiesUpTo(int threshold) {
        vekmsg_log_set_threshold(threshold);
        VekmsgTerminal_ terminal;
        terminal.open(utf8("alpha"), m_folder.directory());
        terminal.sendMessage(SmartPointer_<VekMessage_>());
        SmartPointer_<VekMessage_> sp_message;
        terminal.createMessage(sp_message);
        sp_message->setDestination(utf8("unlisted"));
        terminal.sendMessage(sp_message);
        std::vector<int> severities;
        for (const Seen_& seen : m_seen) severities.push_back(seen.m_severity);
        m_seen.clear();
        return severities;
    }

    ComponentFolder_ m_folder{{"alpha"}};
    AllSeen_ m_seen;
};

TEST_F(LogInterface, theSinkGetsSeveritySiteAndText) {
    VekmsgTerminal_().isConnected(utf8("beta"));

    ASSERT_EQ(m_seen.size(), 1U);
    EXPECT_EQ(m_seen[0].m_severity, 3);
    EXPECT_EQ(m_seen[0].m_text, "VekmsgTerminal_::isConnected() not open yet");
    const LogSite& site = *m_seen[0].m_p_site;
    EXPECT_EQ(site.moduleAndSeverity, (0x129U << 16) | 3U);
    EXPECT_STREQ(site.p_template, "$fmt");
    EXPECT_STREQ(site.p_sourceName, "vekmsg.cpp");
    EXPECT_NE(std::strstr(site.p_signature, "VekmsgTerminal_::isConnected("), nullptr);
    EXPECT_NE(site.line, 0U);
    EXPECT_EQ(sizeof(site), 16 * sizeof(void*));
}

TEST_F(LogInterface, oneSiteServesAllRecordsOfItsPlaceAndCarriesTheSinksNotes) {
    vekmsg_message_get_source(nullptr);
    const_cast<LogSite*>(m_seen.at(0).m_p_site)->reserved[10] = 77;
    vekmsg_message_get_source(nullptr);
    vekmsg_message_get_destination(nullptr);

    ASSERT_EQ(m_seen.size(), 3U);
    EXPECT_EQ(m_seen[1].m_p_site, m_seen[0].m_p_site);
    EXPECT_EQ(m_seen[1].m_p_site->reserved[10], 77U);
    EXPECT_NE(m_seen[2].m_p_site, m_seen[0].m_p_site);
    EXPECT_EQ(m_seen[2].m_p_site->reserved[10], 0U);
}

TEST_F(LogInterface, theThresholdDecidesWhichSeveritiesPass) {
    EXPECT_EQ(severitiesUpTo(7), (std::vector<int>{4, 6, 3, 7}));
    EXPECT_EQ(severitiesUpTo(6), (std::vector<int>{4, 6, 3}));
    EXPECT_EQ(severitiesUpTo(4), (std::vector<int>{4, 3}));
    EXPECT_EQ(severitiesUpTo(3), (std::vector<int>{3}));
    EXPECT_EQ(severitiesUpTo(-1), std::vector<int>());
}

TEST_F(LogInterface, silenceChangesNoResult) {
    vekmsg_log_set_threshold(-1);
    EXPECT_EQ(vekmsg_element_getTag(nullptr), VEKMSG_TAG_ANY);
    EXPECT_EQ(vekmsg_terminal_wait_for_message(nullptr, 1), VEKMSG_WAIT_ERROR);
    EXPECT_FALSE(VekmsgTerminal_().open(nullptr, m_folder.directory()));
    EXPECT_TRUE(m_seen.empty());
}

TEST_F(LogInterface, aNewSinkTakesOver) {
    AllSeen_ others;
    vekmsg_log_set_sink(see, &others);
    vekmsg_message_get_source(nullptr);
    EXPECT_TRUE(m_seen.empty());
    EXPECT_EQ(others.size(), 1U);
}

/// What a process of its own writes to standard error.
std::string standardErrorOf(const std::function<void()>& body) {
    const TemporaryFolder_ folder;
    const std::string file = folder.path("stderr");
    ChildProcess_ child([&] {
        if (std::freopen(file.c_str(), "w", stderr) == nullptr) return 1;
        body();
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

TEST_F(LogInterface, aNullSinkMeansStandardErrorWithErrorsAndWarnings) {
    const std::string lines = standardErrorOf([this] {
        vekmsg_log_set_sink(nullptr, nullptr);
        VekmsgTerminal_ terminal;
        terminal.open(utf8("alpha"), m_folder.directory());
        terminal.sendMessage(SmartPointer_<VekMessage_>());
    });

    std::istringstream stream(lines);
    std::string line;
    std::getline(stream, line);
    EXPECT_EQ(line.substr(0, line.find(" [")), "vekmsg warning: No default transport address will be used");
    std::getline(stream, line);
    EXPECT_EQ(line.substr(0, line.find(" [")),
              "vekmsg error: VekmsgTerminalImpl_::sendMessage() null sp_message");
    EXPECT_FALSE(std::getline(stream, line));
}

TEST_F(LogInterface, controlBytesOfANameDoNotReachTheReadersTerminal) {
    const std::string lines = standardErrorOf([this] {
        vekmsg_log_set_sink(nullptr, nullptr);
        VekmsgTerminal_ terminal;
        terminal.open(utf8("al\x1B[2J\npha"), m_folder.directory());
        unsigned int count = 0;
        terminal.fillPollFdArray(nullptr, count);
    });

    EXPECT_NE(lines.find("null p_pollFdBuf for al\\x1b[2J\\x0apha ["), std::string::npos) << lines;
    EXPECT_EQ(lines.find('\x1B'), std::string::npos);
}

}  // namespace
