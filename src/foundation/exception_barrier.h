#ifndef VEKMSG_FOUNDATION_EXCEPTION_BARRIER_H
#define VEKMSG_FOUNDATION_EXCEPTION_BARRIER_H

#include <exception>

/// Closes the function-try-block of a public operation: whatever travelled up inside ends here as the
/// operation's failure value. A cancelled thread unwinds by something that is no C++ exception, so that there
/// is no current one; it has to go on to its end. (Catching abi::__forced_unwind by its name would bind a
/// reference to nothing.)
#define VEKMSG_RETURN_ON_EXCEPTION(failure)             \
    catch (...) {                                       \
        if (std::current_exception() == nullptr) throw; \
        return failure;                                 \
    }

#endif
