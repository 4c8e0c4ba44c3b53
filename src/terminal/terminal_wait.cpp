// Waiting for events, on one terminal or on several and the caller's own descriptors.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/quiet_spell.h"
#include "foundation/utf8_name.h"
#include "terminal/terminal_impl.h"

namespace {

int nextSlice(unsigned int remainingMs) {
    return static_cast<int>(std::min(remainingMs, VekmsgTerminalImpl_::kLongestPollMs));
}

/// The terminals of a pollFd call: handles up to the null that ends them.
class Terminals_ {
public:
    using Accessor_ = VekmsgTerminalImpl_* (*)(void*);

    Terminals_(Accessor_ accessor, char* handles)
        : m_accessor(accessor), m_p_handles(reinterpret_cast<void* const*>(handles)) {}

    /// One pass over all. The poll entries of those that come before the first one with data are put behind
    /// `used`.
    bool process(bool& gotData, pollfd* p_entries, unsigned int& used) const {
        return forEach([&](VekmsgTerminalImpl_& terminal) {
            bool hasData = false;
            terminal.lookForQuietSockets();
            if (!terminal.makePass(hasData)) return false;
            gotData = gotData || hasData;
            if (gotData) return true;
            unsigned int count = VekmsgTerminalImpl_::kPollFdEntries - used;
            if (!terminal.fillPollFdArray(p_entries + used, count)) return false;
            used += count;
            return true;
        });
    }

    bool process(bool& gotData) const {
        return forEach([&](VekmsgTerminalImpl_& terminal) {
            bool hasData = false;
            if (!terminal.makePass(hasData)) return false;
            gotData = gotData || hasData;
            return true;
        });
    }

    /// What the poll has returned for the entries of `process`. Sockets are told only now: the accessor has
    /// been called in between, which is not ours.
    void noteQuietSockets(const pollfd* p_entries, const pollfd* p_end) const {
        beginQuietSpell(takeQuietSpell());
        const pollfd* p_next = p_entries;
        forEach([&](const VekmsgTerminalImpl_& terminal) {
            p_next = terminal.noteQuietSockets(p_next, static_cast<unsigned int>(p_end - p_next));
            return true;
        });
    }

private:
    template <class Action>
    bool forEach(Action action) const {
        if (m_p_handles == nullptr) return true;
        for (void* const* p_handle = m_p_handles; *p_handle != nullptr; ++p_handle) {
            VekmsgTerminalImpl_* p_terminal = m_accessor(*p_handle);
            if (p_terminal != nullptr && !action(*p_terminal)) return false;
        }
        return true;
    }

    Accessor_ m_accessor;
    void* const* m_p_handles;
};

/// Gives the caller its returned events and counts the entries that have any.
int copyReturnedEvents(const pollfd* p_entries, pollfd* p_callers, unsigned int count) {
    int ready = 0;
    for (unsigned int i = 0; i < count; ++i) {
        p_callers[i].revents = p_entries[i].revents;
        if (p_entries[i].revents != 0) ++ready;
    }
    return ready;
}

}  // namespace

[[gnu::hot]] VekmsgTerminalImpl_::WaitResult_ VekmsgTerminalImpl_::waitForMessage(
    unsigned int timeoutMs) try {
    if (!isOpen()) {
        VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::waitForMessage() null m_sp_componentName");
        return VekmsgTerminal_::WAIT_ERROR;
    }
    if (!m_receivedMessages.empty()) return VekmsgTerminal_::WAIT_MESSAGE;
    const QuietSpellEnd_ end;
    bool gotData = false;
    // What the poll of the wait will tell at once need not be asked before it.
    bool isPassDue = !prepareLook();
    if (isPassDue) look();
    unsigned int remainingMs = std::max(timeoutMs, 1U);  // at least one poll in any case
    while (remainingMs != 0) {
        if (isPassDue) {
            if (!makePass(gotData)) return VekmsgTerminal_::WAIT_ERROR;
            if (gotData) return VekmsgTerminal_::WAIT_MESSAGE;
            if (!preparePoll()) return VekmsgTerminal_::WAIT_ERROR;
        }
        const int slice = nextSlice(remainingMs);
        const int result = m_poll.poll(slice);
        const int error = errno;
        if (result < 0 && error != EINTR) {
            if (!isPassDue && !makePass(gotData)) return VekmsgTerminal_::WAIT_ERROR;
            if (gotData) return VekmsgTerminal_::WAIT_MESSAGE;
            VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::waitForMessage(%u) poll() for %s failed with error(%d) %s",
                             remainingMs, printable(m_sp_componentName), error, std::strerror(error));
            return VekmsgTerminal_::WAIT_ERROR;
        }
        if (result == 0) remainingMs -= static_cast<unsigned int>(slice);
        isPassDue = true;
    }
    return VekmsgTerminal_::WAIT_TIMEOUT;
}
VEKMSG_RETURN_ON_EXCEPTION(VekmsgTerminal_::WAIT_ERROR)

VekmsgTerminalImpl_::PollResult_ VekmsgTerminalImpl_::pollFd(pollfd* p_pollFd, unsigned int count,
                                                             unsigned int timeoutMs,
                                                             VekmsgTerminalImpl_* (*accessor)(void*),
                                                             char* handles) try {
    const QuietSpellEnd_ end;
    const Terminals_ terminals(accessor, handles);
    const unsigned int callers = p_pollFd != nullptr ? count : 0;
    unsigned int remainingMs = timeoutMs;
    for (;;) {
        if (callers > kCallerPollEntries) {
            VEKMSG_LOG_ERROR("VekmsgTerminalImpl_::pollFd() pollfd count %u > %u", callers,
                             kCallerPollEntries);
            return VekmsgTerminal_::POLL_ERROR;
        }
        pollfd entries[kPollFdEntries];
        std::copy_n(p_pollFd, callers, entries);
        unsigned int used = callers;
        bool gotData = false;
        if (!terminals.process(gotData, entries, used)) return VekmsgTerminal_::POLL_ERROR;
        if (gotData) return VekmsgTerminal_::POLL_MESSAGE;

        const int slice = nextSlice(remainingMs);
        endQuietSpell();
        const int result = poll(entries, used, slice);
        const int error = errno;
        if (result < 0 && error != EINTR) {
            VEKMSG_LOG_ERROR(
                "VekmsgTerminal_::pollFd(%u) poll() for multiple terminal failed with error(%d) %s",
                remainingMs, error, std::strerror(error));
            return VekmsgTerminal_::POLL_ERROR;
        }
        if (result == 0) remainingMs -= static_cast<unsigned int>(slice);
        if (result >= 0) terminals.noteQuietSockets(entries + callers, entries + used);
        const int ready = result > 0 ? copyReturnedEvents(entries, p_pollFd, callers) : 0;
        if (!terminals.process(gotData)) return VekmsgTerminal_::POLL_ERROR;
        if (ready != 0) return static_cast<PollResult_>(ready);
        if (gotData) return VekmsgTerminal_::POLL_MESSAGE;
        if (remainingMs == 0) return VekmsgTerminal_::POLL_TIMEOUT;
    }
}
VEKMSG_RETURN_ON_EXCEPTION(VekmsgTerminal_::POLL_ERROR)

bool VekmsgTerminalImpl_::isConnected(const Utf8Char_* p_name) const {
    if (p_name == nullptr) return false;
    const SP_VekmsgConnection_ sp_probe(new (std::nothrow) VekmsgConnection_);
    const SP_Utf8String_ sp_name = createUtf8String(p_name);
    if (!sp_probe || !sp_name) return false;
    sp_probe->setPeerName(sp_name);
    const auto found = m_activeConnections.find(sp_probe);
    return found != m_activeConnections.end() && (*found)->isConnected();
}
