#ifndef VEKMSG_FOUNDATION_LOG_RECORD_H
#define VEKMSG_FOUNDATION_LOG_RECORD_H

#include "libcpp/utf8_string.h"
#include "vekmsg/log.h"

// How every place in the library writes a record: ask whether it is wanted, only then format the text,
// dispatch it, and go on as if nothing had been written.

/// Non-zero when a record of this severity from this site is to be written: one load and a compare. Declared
/// cold and not inline, so that the compiler takes every branch that leads to a record for a seldom one;
/// where the library is optimised as a whole, it is inlined after that.
int log_accept(int severity, const LogSite* p_site) __attribute__((cold));

/// Formats into a buffer of the thread, which the next call reuses. A longer text is cut; no memory is asked
/// for.
const char* lfmt(const char* p_format, ...) __attribute__((format(printf, 1, 2), cold));

/// Writes one record: the site's template "$fmt" filled with the one argument named "fmt". `errno` is kept.
void log_dispatch(int severity, const LogSite* p_site, int argumentCount, const char* p_name,
                  const char* p_text, const char* p_endOfNames, const char* p_endOfTexts)
    __attribute__((cold));

/// Names for records: null prints as empty text.
inline const char* printable(const Utf8Char_* p_text) {
    return p_text != nullptr ? reinterpret_cast<const char*>(p_text) : "";
}
inline const char* printable(const Utf8String_& text) {
    return printable(text.c_str());
}
inline const char* printable(const SP_Utf8String_& sp_text) {
    return sp_text ? printable(*sp_text) : "";
}

constexpr unsigned int kLogModuleId = 0x129;

constexpr int kLogError = 3;
constexpr int kLogWarning = 4;
constexpr int kLogInfo = 6;
constexpr int kLogDebug = 7;

static_assert(sizeof(LogSite) == 16 * sizeof(void*), "a log site is 16 machine words");

// VEKMSG_MODULE is the name of the module being compiled. The sites of a module lie in one linker section,
// kept even where the compiler can prove that a record is never written, so that they can be counted in the
// finished library.
#define VEKMSG_LOG(severity, ...)                                                             \
    do {                                                                                      \
        static LogSite s_site __attribute__((used, section("vekmsg_log_" VEKMSG_MODULE))) = { \
            (kLogModuleId << 16) | (severity),                                                \
            "$fmt",                                                                           \
            VEKMSG_MODULE ".cpp",                                                             \
            __PRETTY_FUNCTION__,                                                              \
            __LINE__,                                                                         \
            {}};                                                                              \
        if (__builtin_expect(log_accept(severity, &s_site) != 0, 0))                          \
            log_dispatch(severity, &s_site, 1, "fmt", lfmt(__VA_ARGS__), nullptr, nullptr);   \
    } while (false)

#define VEKMSG_LOG_ERROR(...) VEKMSG_LOG(kLogError, __VA_ARGS__)
#define VEKMSG_LOG_WARNING(...) VEKMSG_LOG(kLogWarning, __VA_ARGS__)
#define VEKMSG_LOG_INFO(...) VEKMSG_LOG(kLogInfo, __VA_ARGS__)
#define VEKMSG_LOG_DEBUG(...) VEKMSG_LOG(kLogDebug, __VA_ARGS__)

#endif
