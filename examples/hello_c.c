/* A first program in C: opens a terminal as the component "sender", sends a text to the component "receiver"
 * (hello_receiver) and prints the answer.
 *
 *     hello_c DIRECTORY
 */

#include <stdio.h>
#include <vekmsg/c_binding.h>

enum { TAG_TEXT = 100, PATIENCE_MS = 5000 };

static const utf8_char_* utf8(const char* text) {
    return (const utf8_char_*)text;
}

static vekmsg_status_ sendText(void* terminal, const char* destination, const char* text) {
    void* message = vekmsg_terminal_create_message(terminal);
    void* payload = vekmsg_message_create_element(message, TAG_TEXT);
    vekmsg_status_ isDone =
        vekmsg_element_set_value_as_string(payload, utf8(text)) &&
        vekmsg_message_set_destination(message, utf8(destination)) &&
        vekmsg_message_set_payload_schema(message, utf8("greeting 1.0"), VEKMSG_SCHEMA_LITERAL) &&
        vekmsg_message_set_payload(message, payload) && vekmsg_terminal_send_message(terminal, message);
    vekmsg_free_handle(payload);
    vekmsg_free_handle(message);
    return isDone;
}

static void* receive(void* terminal) {
    void* message = NULL;
    while (message == NULL && vekmsg_terminal_wait_for_message(terminal, PATIENCE_MS) == VEKMSG_WAIT_MESSAGE)
        if (!vekmsg_terminal_receive_message(terminal, &message)) break;
    return message;
}

static int printAnswer(void* message) {
    void* payload = vekmsg_message_get_payload(message);
    const utf8_char_* text = NULL;
    vekmsg_status_ isText = vekmsg_element_get_value_as_string(payload, &text);
    if (isText)
        printf("%s answers: %s\n", (const char*)vekmsg_message_get_source(message), (const char*)text);
    vekmsg_free_handle(payload);
    return isText;
}

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    void* terminal = vekmsg_terminal_open(utf8("sender"), argv[1]);
    if (terminal == NULL) return 1;

    int isDone = 0;
    if (sendText(terminal, "receiver", "Hello from C")) {
        void* answer = receive(terminal);
        isDone = answer != NULL && printAnswer(answer);
        vekmsg_free_handle(answer);
    }
    vekmsg_terminal_close(terminal);
    return isDone ? 0 : 1;
}
