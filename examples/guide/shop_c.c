/* The guide's client once more, in C: orders from the kitchen and reads its answer.
 *
 *     shop_c DIRECTORY
 */

#include <poll.h>
#include <stdio.h>
#include <vekmsg/c_binding.h>
#include <vekmsg/log.h>

enum { TAG_ORDER = 100, TAG_DISH, TAG_COUNT, TAG_IS_URGENT, TAG_SEAL, TAG_EXTRA };

static const utf8_char_* utf8(const char* text) {
    return (const utf8_char_*)text;
}

/* [c-build] */
static vekmsg_status_ addExtra(void* message, void* order, const char* text) {
    void* extra = vekmsg_message_create_element(message, TAG_EXTRA);
    vekmsg_status_ isDone =
        vekmsg_element_set_value_as_string(extra, utf8(text)) && vekmsg_element_add_subelements(order, extra);
    vekmsg_free_handle(extra); /* the order keeps a reference of its own */
    return isDone;
}

static vekmsg_status_ fillOrder(void* message) {
    static const unsigned char seal[] = {0x00, 0xC0, 0xFF};
    void* order = vekmsg_message_create_element(message, TAG_ORDER);
    vekmsg_status_ isDone =
        vekmsg_element_set_subelement_value_as_string(order, TAG_DISH, utf8("pie")) &&
        vekmsg_element_set_subelement_value_as_uint(order, TAG_COUNT, 1) &&
        vekmsg_element_set_subelement_value_as_uint(order, TAG_IS_URGENT, 0) && /* a boolean is a number */
        vekmsg_element_set_subelement_value_as_bytestream(order, TAG_SEAL, seal, sizeof(seal)) &&
        addExtra(message, order, "cream") && vekmsg_message_set_payload(message, order);
    vekmsg_free_handle(order);
    return isDone;
}
/* [/c-build] */

/* [c-send] */
static vekmsg_status_ sendOrder(void* terminal) {
    void* message = vekmsg_terminal_create_message(terminal);
    vekmsg_status_ isDone =
        fillOrder(message) && vekmsg_message_set_destination(message, utf8("kitchen")) &&
        vekmsg_message_set_payload_schema(message, utf8("order 1.0"), VEKMSG_SCHEMA_LITERAL) &&
        vekmsg_terminal_send_message(terminal, message);
    vekmsg_free_handle(message);
    return isDone;
}
/* [/c-send] */

/* [c-receive] */
/* A handle that the caller frees; null when none came for so long that the wait ran out. */
static void* receive(void* terminal) {
    void* message = NULL;
    while (message == NULL && vekmsg_terminal_wait_for_message(terminal, 5000) == VEKMSG_WAIT_MESSAGE)
        if (!vekmsg_terminal_receive_message(terminal, &message)) break;
    return message;
}
/* [/c-receive] */

/* [c-read] */
static unsigned int countExtras(void* order) {
    unsigned int count = 0;
    void* extra = NULL;
    if (!vekmsg_element_query_subelements(order, TAG_EXTRA)) return 0;
    while ((extra = vekmsg_element_get_next_subelement(order)) != NULL) {
        ++count;
        vekmsg_free_handle(extra);
    }
    vekmsg_element_end_query_subelements(order);
    return count;
}

static int printOrder(void* message) {
    void* order = vekmsg_message_get_payload(message);
    const utf8_char_* dish = NULL; /* points into the message */
    unsigned int count = 0;
    int isOrder = vekmsg_element_get_subelement_value_as_string(order, TAG_DISH, &dish) &&
                  vekmsg_element_get_subelement_value_as_uint(order, TAG_COUNT, &count);
    if (isOrder) printf("%u %s, %u extras\n", count, (const char*)dish, countExtras(order));
    vekmsg_free_handle(order);
    return isOrder;
}
/* [/c-read] */

/* [c-reply] */
static vekmsg_status_ reply(void* terminal, void* message) {
    return vekmsg_message_swap_source_destination(message) && vekmsg_terminal_send_message(terminal, message);
}
/* [/c-reply] */

/* [c-pollfd] */
static int waitForAny(int descriptor, void* terminal) {
    struct pollfd own = {descriptor, POLLIN, 0};
    return vekmsg_terminal_pollfd(&own, 1, 5000, terminal, (void*)0);
}
/* [/c-pollfd] */

/* [c-log] */
static void writeRecord(void* context, int severity, const LogSite* site, const char* text) {
    fprintf((FILE*)context, "record %d from %s: %s\n", severity, site->p_sourceName, text);
}
/* [/c-log] */

static int printAnswer(void* message) {
    void* payload = vekmsg_message_get_payload(message);
    const utf8_char_* text = NULL;
    int isText = vekmsg_element_get_value_as_string(payload, &text);
    if (isText)
        printf("%s answers: %s\n", (const char*)vekmsg_message_get_source(message), (const char*)text);
    vekmsg_free_handle(payload);
    return isText;
}

/* Back to the kitchen, which reads it as something that is no order. */
static int askAndSendBack(void* terminal) {
    int descriptor = -1; /* no descriptor of our own: poll() passes over it */
    if (!sendOrder(terminal) || waitForAny(descriptor, terminal) != 0) return 0;
    void* answer = receive(terminal);
    int isDone = printAnswer(answer) && reply(terminal, answer);
    vekmsg_free_handle(answer);
    return isDone;
}

static int readOwnOrder(void* terminal) {
    void* message = vekmsg_terminal_create_message(terminal);
    int isDone = fillOrder(message) && printOrder(message);
    vekmsg_free_handle(message);
    return isDone;
}

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    vekmsg_log_set_sink(writeRecord, stdout);
    /* [c-open] */
    void* terminal = vekmsg_terminal_open(utf8("shop_c"), argv[1]);
    if (terminal == NULL) return 1;
    /* [/c-open] */
    int isDone =
        readOwnOrder(terminal) && askAndSendBack(terminal) && !vekmsg_terminal_send_message(terminal, NULL);
    vekmsg_terminal_close(terminal);
    puts(isDone ? "all done" : "something went wrong");
    return isDone ? 0 : 1;
}
