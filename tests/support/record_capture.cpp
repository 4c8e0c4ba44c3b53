#include "support/record_capture.h"

#include <algorithm>
#include <cctype>
#include <ostream>

#include "support/record_notes.h"
#include "vekmsg/log.h"

namespace {

bool isOfName(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

/// What all compilers agree on: blanks differ, and so does whether a type that was named without its
/// namespace or class is shown with it.
std::string comparable(std::string signature) {
    for (auto end = signature.find("::", signature.find('(')); end != std::string::npos;
         end = signature.find("::", end)) {
        auto start = end;
        while (isOfName(signature[start - 1])) --start;
        signature.erase(start, end + 2 - start);
        end = start;
    }
    static const std::string s_namespace = "libcpp::";
    for (auto at = signature.find(s_namespace); at != std::string::npos; at = signature.find(s_namespace, at))
        signature.erase(at, s_namespace.size());
    signature.erase(std::remove(signature.begin(), signature.end(), ' '), signature.end());
    return signature;
}

void append(void* context, int severity, const LogSite* site, const char* text) {
    auto& records = *static_cast<Records_*>(context);
    records.emplace_back(severity, site->p_sourceName, site->p_signature, text);
    records.back().m_p_site = site;
}

}  // namespace

Record_::Record_(int severity, const std::string& source, const std::string& signature,
                 const std::string& text)
    : m_severity(severity), m_source(source), m_signature(comparable(signature)), m_text(text) {}

bool Record_::operator==(const Record_& other) const {
    const bool isEqual = m_severity == other.m_severity && m_source == other.m_source &&
                         m_signature == other.m_signature && m_text == other.m_text;
    // One that was taken and one that a test states: of two that were taken neither says what must be.
    if (isEqual && (m_p_site == nullptr) != (other.m_p_site == nullptr))
        noteAsserted(m_p_site != nullptr ? *this : other);
    return isEqual;
}

std::ostream& operator<<(std::ostream& stream, const Record_& record) {
    return stream << record.m_severity << ' ' << record.m_source << ' ' << record.m_signature << " \""
                  << record.m_text << '"';
}

RecordCapture_::RecordCapture_() {
    vekmsg_log_set_sink(append, &m_records);
    vekmsg_log_set_threshold(7);
}

RecordCapture_::~RecordCapture_() {
    take();
    vekmsg_log_set_sink(nullptr, nullptr);
    vekmsg_log_set_threshold(4);
}

Records_ RecordCapture_::take() {
    Records_ taken;
    taken.swap(m_records);
    for (const Record_& record : taken) noteSeen(record);
    return taken;
}

std::vector<std::string> RecordCapture_::takeTexts() {
    std::vector<std::string> texts;
    for (const Record_& record : take()) texts.push_back(record.m_text);
    return texts;
}
