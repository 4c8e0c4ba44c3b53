#ifndef VEKMSG_C_BINDING_H
#define VEKMSG_C_BINDING_H

#include <poll.h>
#include <stdint.h>

#include "libcpp/export.h"

/* The C interface: terminals, messages and elements as opaque handles. The object interface has more: filters
 * and the message printer, raw payloads, time-to-live, isConnected, and poll entries for an own event loop.
 *
 * Terminal handles come from vekmsg_terminal_open and end with vekmsg_terminal_close. Message and element
 * handles carry one reference each, given back with vekmsg_free_handle; a handle passed to a function is
 * borrowed. Message and element handles may outlive the terminal. Text and bytes that a getter returns belong
 * to the message or element and stay valid while it lives and that value is not changed.
 *
 * A function fails with VEKMSG_STATUS_FAILURE or null and a record that says why; a lack of memory may leave
 * none. Outputs are untouched on failure. Handles and everything reachable from them belong to one thread at
 * a time. */

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned char utf8_char_; /* one byte of UTF-8 text */
typedef uint32_t vekmsg_tag_;     /* 0 to 65535, or VEKMSG_TAG_ANY in queries */

#define VEKMSG_TAG_ANY 0xFFFFFFFFU

typedef enum { VEKMSG_STATUS_FAILURE = 0, VEKMSG_STATUS_SUCCESS = 1 } vekmsg_status_;
typedef enum { VEKMSG_SCHEMA_LITERAL = 0, VEKMSG_SCHEMA_URI = 1 } vekmsg_schema_type_;
typedef enum {
    VEKMSG_WAIT_ERROR = 0,
    VEKMSG_WAIT_TIMEOUT = 1,
    VEKMSG_WAIT_MESSAGE = 2
} vekmsg_terminal_wait_result_;

/* Opens a terminal under a component's name; a null path means /etc/vek.names.directory. A file of any kind
 * at a local address of its own is deleted. Null when that fails, with nothing left behind. */
VEKMSG_API void* vekmsg_terminal_open(const utf8_char_* componentName, const char* directoryPath);

/* Ends all connections, with whatever is still queued, and the terminal. Null is ignored. */
VEKMSG_API void vekmsg_terminal_close(void* terminal);

/* A new message with time-to-live 3 and nothing else. Null when memory is short. */
VEKMSG_API void* vekmsg_terminal_create_message(void* terminal);

/* Success means taken over, not arrived. The caller keeps its handle. */
VEKMSG_API vekmsg_status_ vekmsg_terminal_send_message(void* terminal, void* message);

/* Never waits. Does no work while received messages are queued; else each connection reads and writes, and
 * each listening socket accepts one peer. On success *message is a new handle, or null when there is no
 * message now. */
VEKMSG_API vekmsg_status_ vekmsg_terminal_receive_message(void* terminal, void** message);

/* Works until a message may be received, or for `timeout` milliseconds without any event. Time spent on
 * events is not charged, nor is a poll that a signal interrupts: a busy peer or a periodic signal may
 * prolong the wait without bound. VEKMSG_WAIT_ERROR says that it could not go on. */
VEKMSG_API vekmsg_terminal_wait_result_ vekmsg_terminal_wait_for_message(void* terminal,
                                                                         unsigned int timeout);

/* Waits on `count` descriptors of the caller (at most 128) and on the terminals that follow as handles, ended
 * by a null pointer: (void*)0, not 0, until `timeout` milliseconds have passed without any event; time is
 * charged as by vekmsg_terminal_wait_for_message. All descriptors together may be 256. Returns -2 on an
 * error, -1 when the time is over, 0 when a terminal has a message, or the number of the caller's descriptors
 * that are ready; 0 tells nothing of these, which are not looked at when a terminal has a message already.
 * Receive on each terminal until nothing is left before waiting again: messages already taken off their
 * streams do not end this wait. */
VEKMSG_API int vekmsg_terminal_pollfd(struct pollfd* fds, unsigned int count, unsigned int timeout, ...);

VEKMSG_API vekmsg_status_ vekmsg_message_set_destination(void* message, const utf8_char_* destinationName);
VEKMSG_API const utf8_char_* vekmsg_message_get_destination(void* message);
VEKMSG_API vekmsg_status_ vekmsg_message_set_source(void* message, const utf8_char_* sourceName);
VEKMSG_API const utf8_char_* vekmsg_message_get_source(void* message);

/* Turns a request into the frame of its reply. */
VEKMSG_API vekmsg_status_ vekmsg_message_swap_source_destination(void* message);

/* The type does not travel: a received message always says VEKMSG_SCHEMA_LITERAL, and so does a null handle.
 */
VEKMSG_API vekmsg_status_ vekmsg_message_set_payload_schema(void* message, const utf8_char_* schema,
                                                            vekmsg_schema_type_ schemaType);
VEKMSG_API const utf8_char_* vekmsg_message_get_payload_schema(void* message);
VEKMSG_API vekmsg_schema_type_ vekmsg_message_get_payload_schema_type(void* message);

/* The message takes a reference of its own to the element; a null element leaves it without a payload. */
VEKMSG_API vekmsg_status_ vekmsg_message_set_payload(void* message, void* element);

/* A new handle of the payload's root, decoded now if need be; null when there is none or it cannot be
 * decoded. */
VEKMSG_API void* vekmsg_message_get_payload(void* message);

/* A new element for a payload tree, not yet part of one. */
VEKMSG_API void* vekmsg_message_create_element(void* message, vekmsg_tag_ tag);

/* VEKMSG_TAG_ANY for a null handle. */
VEKMSG_API vekmsg_tag_ vekmsg_element_getTag(void* element);

/* Each replaces the element's value and type. Text is cut to 9399 characters; bytes beyond 9400 are refused.
 */
VEKMSG_API vekmsg_status_ vekmsg_element_set_value_as_uint(void* element, unsigned int value);
VEKMSG_API vekmsg_status_ vekmsg_element_set_value_as_string(void* element, const utf8_char_* value);
VEKMSG_API vekmsg_status_ vekmsg_element_set_value_as_bytestream(void* element, const unsigned char* value,
                                                                 unsigned int length);

/* Each fails when the element holds a value of another type. */
VEKMSG_API vekmsg_status_ vekmsg_element_get_value_as_uint(void* element, unsigned int* p_value);
VEKMSG_API vekmsg_status_ vekmsg_element_get_value_as_string(void* element, const utf8_char_** p_string);
VEKMSG_API vekmsg_status_ vekmsg_element_get_value_as_bytestream(void* element,
                                                                 const unsigned char** p_stream,
                                                                 unsigned int* p_length);

/* Each sets the first sub-element with this tag, adding one when there is none. A value set on the element
 * hides its sub-elements: then one is added behind them, all count again, and reading gives the first. */
VEKMSG_API vekmsg_status_ vekmsg_element_set_subelement_value_as_uint(void* element, vekmsg_tag_ tag,
                                                                      unsigned int value);
VEKMSG_API vekmsg_status_ vekmsg_element_set_subelement_value_as_string(void* element, vekmsg_tag_ tag,
                                                                        const utf8_char_* value);
VEKMSG_API vekmsg_status_ vekmsg_element_set_subelement_value_as_bytestream(void* element, vekmsg_tag_ tag,
                                                                            const unsigned char* value,
                                                                            unsigned int length);

/* Each reads the first sub-element with this tag, and fails without a record when there is none. */
VEKMSG_API vekmsg_status_ vekmsg_element_get_subelement_value_as_uint(void* element, vekmsg_tag_ tag,
                                                                      unsigned int* p_value);
VEKMSG_API vekmsg_status_ vekmsg_element_get_subelement_value_as_string(void* element, vekmsg_tag_ tag,
                                                                        const utf8_char_** p_string);
VEKMSG_API vekmsg_status_ vekmsg_element_get_subelement_value_as_bytestream(void* element, vekmsg_tag_ tag,
                                                                            const unsigned char** p_stream,
                                                                            unsigned int* p_length);

/* A walk over the sub-elements with this tag, or over all; one walk at a time. The next one is a new handle,
 * or null at the end. */
VEKMSG_API vekmsg_status_ vekmsg_element_query_subelements(void* element, vekmsg_tag_ tag);
VEKMSG_API void* vekmsg_element_get_next_subelement(void* element);
VEKMSG_API void vekmsg_element_end_query_subelements(void* element);

/* A new handle of the first sub-element with this tag, or of all; null, without a record, when there is none.
 */
VEKMSG_API void* vekmsg_element_find_first_matching_subelement(void* element, vekmsg_tag_ tag);

/* The parent takes a reference of its own to the sub-element. */
VEKMSG_API vekmsg_status_ vekmsg_element_add_subelements(void* element, void* subElement);

/* Gives back the reference of a message or element handle. Null is ignored. */
VEKMSG_API void vekmsg_free_handle(void* handle);

#ifdef __cplusplus
}
#endif

#endif
