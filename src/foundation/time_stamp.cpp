#include "libcpp/time_stamp.h"

#include <time.h>

namespace libcpp {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

// Out of line, so that one place asks.
[[gnu::noinline, gnu::hot]] bool readClock(std::int64_t& nanoseconds) {
    struct timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return false;
    nanoseconds = static_cast<std::int64_t>(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
    return true;
}

}  // namespace

TimeStamp_::~TimeStamp_() = default;

bool TimeStamp_::imprint() {
    if (!readClock(m_nanoseconds)) return false;
    m_isSet = true;
    return true;
}

bool TimeStamp_::getAgeInSec(unsigned int& seconds) const {
    std::int64_t now = 0;
    if (!m_isSet || !readClock(now)) return false;
    seconds = static_cast<unsigned int>((now - m_nanoseconds) / kNanosecondsPerSecond);
    return true;
}

}  // namespace libcpp
