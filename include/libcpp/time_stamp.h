#ifndef LIBCPP_TIME_STAMP_H
#define LIBCPP_TIME_STAMP_H

#include <cstdint>

#include "libcpp/export.h"

namespace libcpp {

/// A point in time, kept in order to ask later how old it is. Setting the system's clock does not change its
/// age.
class VEKMSG_API TimeStamp_ {
public:
    /// Unset: it has no age until `imprint`.
    TimeStamp_() noexcept = default;
    TimeStamp_(const TimeStamp_&) noexcept = default;
    TimeStamp_& operator=(const TimeStamp_&) noexcept = default;
    virtual ~TimeStamp_();

    /// Records the present time. False when there is no clock; the recorded time then stays as it was.
    bool imprint();

    /// Whole seconds since the last `imprint`, rounded down. False, with `seconds` untouched, when there was
    /// none or when there is no clock.
    bool getAgeInSec(unsigned int& seconds) const;

private:
    std::int64_t m_nanoseconds = 0;
    bool m_isSet = false;
};

}  // namespace libcpp

using libcpp::TimeStamp_;

#endif
