#ifndef VEKMSG_FOUNDATION_EXCEPTION_BARRIER_H
#define VEKMSG_FOUNDATION_EXCEPTION_BARRIER_H

#include <cxxabi.h>

/// Closes the function-try-block of a public operation: whatever travelled up inside ends here as the
/// operation's failure value. A cancelled thread unwinds by an exception of its own, which has to go on to
/// its end.
#define VEKMSG_RETURN_ON_EXCEPTION(failure) \
    catch (abi::__forced_unwind&) {         \
        throw;                              \
    }                                       \
    catch (...) {                           \
        return failure;                     \
    }

#endif
