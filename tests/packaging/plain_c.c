/* The C half of the interface, included the way a plain C program does. */
#include "vekmsg/c_binding.h"
#include "vekmsg/log.h"

_Static_assert(sizeof(LogSite) == 16 * sizeof(void*), "a log site is 16 machine words");
_Static_assert(sizeof(vekmsg_tag_) == 4, "tags have 32 bits");
_Static_assert(sizeof(vekmsg_status_) == 4, "results have 32 bits");
_Static_assert(VEKMSG_STATUS_FAILURE == 0 && VEKMSG_STATUS_SUCCESS == 1, "the numbers of results");
_Static_assert(VEKMSG_SCHEMA_LITERAL == 0 && VEKMSG_SCHEMA_URI == 1, "the numbers of schema types");
_Static_assert(VEKMSG_WAIT_ERROR == 0 && VEKMSG_WAIT_TIMEOUT == 1 && VEKMSG_WAIT_MESSAGE == 2,
               "the numbers of wait results");
