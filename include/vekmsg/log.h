#ifndef VEKMSG_LOG_H
#define VEKMSG_LOG_H

#include <stdint.h>

#include "libcpp/export.h"

/* Where the library's records go, and which of them. Plain C and C++ read this.
 *
 * Each place in the library that can write a record owns one LogSite. Severities are those of syslog; the
 * library uses 3 (error), 4 (warning), 6 (informational) and 7 (debug). */

#ifdef __cplusplus
extern "C" {
#endif

/* One place that can write a record. Read it during a sink's call or later: it lives as long as the library.
 */
typedef struct LogSite {
    uintptr_t moduleAndSeverity; /* (module id << 16) | severity; the module id of this library is 0x129 */
    const char* p_template;      /* always "$fmt": the record's text as a whole */
    const char* p_sourceName;    /* module and suffix, "vek_socket.cpp": a stable name for log analysis */
    const char* p_signature;     /* the enclosing function, as the compiler spells it */
    uintptr_t line;
    uintptr_t reserved[11]; /* zero at start; free for the use of the sink */
} LogSite;

/* Receives one record. `text` is gone when the call returns. A sink must not call the library. */
typedef void (*vekmsg_log_sink)(void* context, int severity, const LogSite* site, const char* text);

/* Sends all records of the process to `sink`; null restores the default, a line on standard error. Set it
 * before threads start; `context` is handed through untouched. */
VEKMSG_API void vekmsg_log_set_sink(vekmsg_log_sink sink, void* context);

/* Lets records with a severity number up to `severity` pass; 4 at start (errors and warnings), -1 silences
 * all. Set it before threads start. */
VEKMSG_API void vekmsg_log_set_threshold(int severity);

#ifdef __cplusplus
}
#endif

#endif
