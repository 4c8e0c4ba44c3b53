#include "time_span.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "exit_code.h"

namespace {

constexpr double kLongestMs = 24.0 * 24 * 60 * 60 * 1000;

/// Milliseconds in one unit, or 0.
double unitOf(const std::string& unit) {
    if (unit == "ms") return 1;
    if (unit.empty() || unit == "s") return 1000;
    return unit == "min" ? 60000 : 0;
}

}  // namespace

TimeSpan_ timeSpanOf(const std::string& text) {
    const std::size_t end = std::min(text.find_first_not_of("0123456789."), text.size());
    const std::string digits = text.substr(0, end);
    char* p_behind = nullptr;
    const double number = std::strtod(digits.c_str(), &p_behind);
    const double span = number * unitOf(text.substr(end));
    const bool isNumber = digits.find_first_of("0123456789") != std::string::npos && *p_behind == '\0';
    if (!isNumber || unitOf(text.substr(end)) == 0 || span > kLongestMs)
        throw Failure_(ExitCode_::Usage, "'" + text + "' is no time: write 500ms, 2s or 1.5min");
    return TimeSpan_(std::llround(span));
}

std::string timeText(std::chrono::nanoseconds time) {
    const double ms = static_cast<double>(time.count()) / 1e6;
    const bool isLong = ms >= 1000;
    const double number = isLong ? ms / 1000 : ms;
    const int decimals = number >= 100 ? 0 : number >= 10 ? 1 : number >= 1 ? 2 : 3;
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f %s", decimals, number, isLong ? "s" : "ms");
    return text;
}

unsigned int Deadline_::leftMs() const {
    const auto left = m_end - std::chrono::steady_clock::now();
    if (left <= left.zero()) return 0;
    return static_cast<unsigned int>(std::chrono::duration_cast<TimeSpan_>(left).count()) + 1;
}
