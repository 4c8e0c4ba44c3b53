#ifndef VEKMSG_TESTS_RECORD_CAPTURE_H
#define VEKMSG_TESTS_RECORD_CAPTURE_H

#include <iosfwd>
#include <string>
#include <vector>

#include "vekmsg/log.h"

/// One log record as a test states it. Compilers spell signatures differently, so blanks and "libcpp::" in
/// them do not count.
struct Record_ {
    Record_(int severity, const std::string& source, const std::string& signature, const std::string& text);

    bool operator==(const Record_& other) const;

    int m_severity;
    std::string m_source;     // "vek_socket.cpp"
    std::string m_signature;  // without blanks: "boolVekSocket_::listen(unsignedint)"
    std::string m_text;
    const LogSite* m_p_site = nullptr;  // of a record that was taken; does not count
};

using Records_ = std::vector<Record_>;

std::ostream& operator<<(std::ostream& stream, const Record_& record);

/// Takes all records of the process, debug included, for as long as it lives.
class RecordCapture_ {
public:
    RecordCapture_();
    ~RecordCapture_();
    RecordCapture_(const RecordCapture_&) = delete;
    RecordCapture_& operator=(const RecordCapture_&) = delete;

    /// The records since the last take, in order.
    Records_ take();

    /// The same, texts alone.
    std::vector<std::string> takeTexts();

private:
    Records_ m_records;
};

#endif
