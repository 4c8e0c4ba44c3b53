#ifndef VEKMSG_TESTS_RECORD_LINES_H
#define VEKMSG_TESTS_RECORD_LINES_H

#include <string>
#include <vector>

#include "support/record_capture.h"

using Lines_ = std::vector<std::string>;

/// Severity and text of the records taken, as "E text", "W text", "I text" and "D text". Signatures are left
/// to the tests of the units that write them.
inline Lines_ takeLines(RecordCapture_& records) {
    Lines_ lines;
    for (const Record_& record : records.take())
        lines.push_back(std::string("???EW?ID").substr(static_cast<std::size_t>(record.m_severity), 1) + ' ' +
                        record.m_text);
    return lines;
}

#endif
