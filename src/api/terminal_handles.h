#ifndef VEKMSG_API_TERMINAL_HANDLES_H
#define VEKMSG_API_TERMINAL_HANDLES_H

#include <cstdarg>
#include <vector>

#include "foundation/exception_barrier.h"
#include "terminal/terminal_impl.h"

/// Polls the terminals of a variadic list that a null pointer ends. The list is copied into an array, because
/// it is walked more than once.
inline VekmsgTerminal_::PollResult_ pollTerminals(pollfd* p_pollFd, unsigned int count, unsigned int timeout,
                                                  VekmsgTerminalImpl_* (*accessor)(void*),
                                                  va_list terminals) try {
    std::vector<void*> handles;
    do {
        handles.push_back(va_arg(terminals, void*));
    } while (handles.back() != nullptr);
    return VekmsgTerminalImpl_::pollFd(p_pollFd, count, timeout, accessor,
                                       reinterpret_cast<char*>(handles.data()));
}
VEKMSG_RETURN_ON_EXCEPTION(VekmsgTerminal_::POLL_ERROR)

#endif
