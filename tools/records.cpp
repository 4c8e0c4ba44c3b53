#include "records.h"

#include "output.h"
#include "vekmsg/log.h"

namespace {

constexpr int kError = 3;
constexpr int kWarning = 4;
constexpr int kInfo = 6;
constexpr int kAll = 7;
constexpr int kNone = -1;

CaughtRecords_* g_p_caught = nullptr;
bool g_isVerbose = false;
bool g_isQuiet = false;

const char* nameOf(int severity) {
    switch (severity) {
        case kError:
            return "error";
        case kWarning:
            return "warning";
        case kInfo:
            return "info";
        default:
            return "debug";
    }
}

void passRecords() {
    vekmsg_log_set_threshold(g_isVerbose ? kAll : kWarning);
}

void writeRecord(void*, int severity, const LogSite* p_site, const char* p_text) {
    if (g_p_caught != nullptr && severity <= kWarning) g_p_caught->add(p_text);
    if (g_isVerbose) {
        note(std::string(nameOf(severity)) + ": " + p_site->p_sourceName + ": " + p_text);
    } else if (g_p_caught == nullptr && !g_isQuiet) {
        note(std::string(nameOf(severity)) + ": " + p_text);
    }
}

}  // namespace

void showRecords(bool isQuiet, bool isVerbose) {
    g_isQuiet = isQuiet;
    g_isVerbose = isVerbose;
    passRecords();
    vekmsg_log_set_sink(writeRecord, nullptr);
}

CaughtRecords_::CaughtRecords_() : m_p_outer(g_p_caught) {
    g_p_caught = this;
}

CaughtRecords_::~CaughtRecords_() {
    g_p_caught = m_p_outer;
}

std::vector<std::string> CaughtRecords_::take() {
    std::vector<std::string> texts;
    texts.swap(m_texts);
    return texts;
}

std::string CaughtRecords_::last(const std::string& otherwise) const {
    return m_texts.empty() ? otherwise : m_texts.back();
}

NoRecords_::NoRecords_() {
    vekmsg_log_set_threshold(kNone);
}

NoRecords_::~NoRecords_() {
    passRecords();
}
