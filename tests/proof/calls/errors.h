#ifndef VEKMSG_TESTS_PROOF_ERRORS_H
#define VEKMSG_TESTS_PROOF_ERRORS_H

#include <string>
#include <vector>

#include "support/system_calls.h"

using Errors_ = std::vector<int>;

/// What a call may report by its manual page in section 2 and 7, by POSIX, and by what Linux passes on from
/// the protocol below it. EINTR stands in every list: a wrapper or a security module may report it where the
/// page does not.
const Errors_& errorsOf(SystemCalls_::Call_ call);

/// What SO_ERROR may hold while a stream is being connected.
const Errors_& pendingErrors();

/// "EINTR".
std::string nameOfError(int error);

#endif
