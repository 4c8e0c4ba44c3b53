/* The finished shared library, used from C alone: two components in one process talk to each other. */

#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vekmsg/c_binding.h"
#include "vekmsg/log.h"

#define TAG_NUMBER 10
#define TAG_TEXT 20
#define TAG_BYTES 30
#define LIMIT_MS 10000

static char s_folder[] = "/tmp/vekmsg-c-XXXXXX";
static char s_directory[128];
static char s_records[4096];

static void check(int holds, const char* what, int line) {
    if (holds) return;
    fprintf(stderr, "line %d: %s does not hold\nrecords: %s\n", line, what, s_records);
    exit(EXIT_FAILURE);
}
#define CHECK(condition) check((condition) != 0, #condition, __LINE__)

static const utf8_char_* utf8(const char* text) {
    return (const utf8_char_*)text;
}

static int is(const utf8_char_* text, const char* expected) {
    return text != NULL && strcmp((const char*)text, expected) == 0;
}

/* Errors and warnings, one a line. */
static void keep(void* context, int severity, const LogSite* site, const char* text) {
    const size_t length = strlen(s_records);
    (void)context;
    (void)site;
    snprintf(s_records + length, sizeof(s_records) - length, "%d %s\n", severity, text);
}

static int recordsAre(const char* expected) {
    const int areEqual = strcmp(s_records, expected) == 0;
    if (areEqual) s_records[0] = '\0';
    return areEqual;
}

static void removeFolder(void) {
    unlink(s_directory);
    rmdir(s_folder);
}

static void makeFolder(void) {
    FILE* file;
    CHECK(mkdtemp(s_folder) != NULL);
    snprintf(s_directory, sizeof(s_directory), "%s/names", s_folder);
    atexit(removeFolder);
    file = fopen(s_directory, "w");
    CHECK(file != NULL);
    fprintf(file, "local://%s/asker asker\nlocal://%s/teller teller\n", s_folder, s_folder);
    CHECK(fclose(file) == 0);
}

static void* openTerminal(const char* name) {
    void* terminal = vekmsg_terminal_open(utf8(name), s_directory);
    CHECK(terminal != NULL);
    CHECK(recordsAre("4 No default transport address will be used\n"));
    return terminal;
}

static void* await(void* terminal) {
    void* message = NULL;
    CHECK(vekmsg_terminal_wait_for_message(terminal, LIMIT_MS) == VEKMSG_WAIT_MESSAGE);
    CHECK(vekmsg_terminal_receive_message(terminal, &message) == VEKMSG_STATUS_SUCCESS);
    CHECK(message != NULL);
    return message;
}

/* A list of bytes, two numbers and a text, added in no order. */
static void* createTree(void* message) {
    static const unsigned char bytes[] = {1, 0, 255};
    void* root = vekmsg_message_create_element(message, 1);
    void* second = vekmsg_message_create_element(message, TAG_NUMBER);
    CHECK(root != NULL && second != NULL);
    CHECK(vekmsg_element_set_subelement_value_as_bytestream(root, TAG_BYTES, bytes, sizeof(bytes)));
    CHECK(vekmsg_element_set_subelement_value_as_uint(root, TAG_NUMBER, 1));
    CHECK(vekmsg_element_set_subelement_value_as_string(root, TAG_TEXT, utf8("text")));
    CHECK(vekmsg_element_set_value_as_uint(second, 2));
    CHECK(vekmsg_element_add_subelements(root, second));
    vekmsg_free_handle(second);
    return root;
}

static void sendTree(void* terminal, const char* destination, const char* schema) {
    void* message = vekmsg_terminal_create_message(terminal);
    void* root;
    CHECK(message != NULL);
    CHECK(vekmsg_message_set_destination(message, utf8(destination)));
    CHECK(vekmsg_message_set_payload_schema(message, utf8(schema), VEKMSG_SCHEMA_URI));
    CHECK(vekmsg_message_get_payload_schema_type(message) == VEKMSG_SCHEMA_URI);
    root = createTree(message);
    CHECK(vekmsg_message_set_payload(message, root));
    vekmsg_free_handle(root);
    CHECK(vekmsg_terminal_send_message(terminal, message));
    vekmsg_free_handle(message);
}

static void checkWalk(void* root) {
    static const vekmsg_tag_ tags[] = {TAG_NUMBER, TAG_NUMBER, TAG_TEXT, TAG_BYTES};
    size_t i;
    CHECK(vekmsg_element_query_subelements(root, VEKMSG_TAG_ANY));
    for (i = 0; i < sizeof(tags) / sizeof(tags[0]); ++i) {
        void* child = vekmsg_element_get_next_subelement(root);
        unsigned int value = 0;
        CHECK(child != NULL);
        CHECK(vekmsg_element_getTag(child) == tags[i]);
        if (i < 2) CHECK(vekmsg_element_get_value_as_uint(child, &value) && value == i + 1);
        vekmsg_free_handle(child);
    }
    CHECK(vekmsg_element_get_next_subelement(root) == NULL);
    vekmsg_element_end_query_subelements(root);
}

static void checkTree(void* message) {
    void* root = vekmsg_message_get_payload(message);
    void* child;
    const utf8_char_* text = NULL;
    const unsigned char* bytes = NULL;
    unsigned int length = 0;
    unsigned int value = 0;
    CHECK(root != NULL);
    checkWalk(root);
    CHECK(vekmsg_element_get_subelement_value_as_uint(root, TAG_NUMBER, &value) && value == 1);
    CHECK(vekmsg_element_get_subelement_value_as_string(root, TAG_TEXT, &text) && is(text, "text"));
    CHECK(vekmsg_element_get_subelement_value_as_bytestream(root, TAG_BYTES, &bytes, &length));
    CHECK(length == 3 && memcmp(bytes, "\1\0\377", 3) == 0);
    child = vekmsg_element_find_first_matching_subelement(root, TAG_TEXT);
    CHECK(child != NULL && vekmsg_element_get_value_as_string(child, &text) && is(text, "text"));
    vekmsg_free_handle(child);
    CHECK(vekmsg_element_find_first_matching_subelement(root, 99) == NULL);
    vekmsg_free_handle(root);
}

static void aMessageArrivesAsItWasSent(void* asker, void* teller) {
    void* message;
    sendTree(asker, "teller", "urn:question");
    message = await(teller);
    CHECK(is(vekmsg_message_get_source(message), "asker"));
    CHECK(is(vekmsg_message_get_destination(message), "teller"));
    CHECK(is(vekmsg_message_get_payload_schema(message), "urn:question"));
    checkTree(message);

    /* The reply is the same message turned round. */
    CHECK(vekmsg_message_swap_source_destination(message));
    CHECK(vekmsg_terminal_send_message(teller, message));
    CHECK(is(vekmsg_message_get_destination(message), "asker")); /* still the caller's */
    vekmsg_free_handle(message);
    message = await(asker);
    CHECK(is(vekmsg_message_get_source(message), "teller"));
    checkTree(message);
    vekmsg_free_handle(message);
    CHECK(recordsAre(""));
}

static void aPingIsAnsweredInsideTheLibrary(void* asker, void* teller) {
    void* message = NULL;
    sendTree(asker, "teller", "VEK Pinger Request Format version 1.0");
    CHECK(vekmsg_terminal_wait_for_message(teller, LIMIT_MS) == VEKMSG_WAIT_MESSAGE);
    CHECK(vekmsg_terminal_receive_message(teller, &message) == VEKMSG_STATUS_SUCCESS);
    CHECK(message == NULL);
    message = await(asker);
    CHECK(is(vekmsg_message_get_payload_schema(message), "VEK Pinger Reply Format version 1.0"));
    checkTree(message);
    vekmsg_free_handle(message);
    CHECK(recordsAre(""));
}

static void pollfdWatchesTerminalsAndAPipe(void* asker, void* teller) {
    int ends[2];
    struct pollfd entry;
    void* message;
    void* const end = NULL;
    CHECK(pipe(ends) == 0);
    entry.fd = ends[0];
    entry.events = POLLIN;
    entry.revents = 0;

    CHECK(vekmsg_terminal_pollfd(&entry, 1, 1, asker, teller, end) == -1);
    CHECK(write(ends[1], "x", 1) == 1);
    CHECK(vekmsg_terminal_pollfd(&entry, 1, LIMIT_MS, asker, teller, end) == 1);
    CHECK(entry.revents == POLLIN);
    CHECK(vekmsg_terminal_pollfd(&entry, 1, LIMIT_MS, end) == 1);

    sendTree(teller, "asker", "urn:poll");
    CHECK(vekmsg_terminal_pollfd(NULL, 0, LIMIT_MS, asker, teller, end) == 0);
    message = await(asker);
    CHECK(is(vekmsg_message_get_payload_schema(message), "urn:poll"));
    vekmsg_free_handle(message);
    CHECK(recordsAre(""));
    close(ends[0]);
    close(ends[1]);
}

static void faultsAreReported(void* asker) {
    void* message = vekmsg_terminal_create_message(asker);
    CHECK(!vekmsg_terminal_send_message(asker, message));
    CHECK(recordsAre("3 VekmsgTerminalImpl_::sendMessage() null destination\n"));
    CHECK(!vekmsg_terminal_receive_message(asker, NULL));
    CHECK(recordsAre("3 vekmsg_terminal_send_message() null pointer to message handle\n"));
    CHECK(vekmsg_element_getTag(NULL) == VEKMSG_TAG_ANY);
    CHECK(recordsAre("3 vekmsg_element_getTag() null element handle\n"));
    CHECK(vekmsg_terminal_open(utf8(""), s_directory) == NULL);
    CHECK(recordsAre("3 VekmsgTerminalImpl_::open() null component name string\n"));
    vekmsg_free_handle(message);
    vekmsg_free_handle(NULL);
    vekmsg_terminal_close(NULL);
    CHECK(recordsAre(""));
}

static void handlesOutliveTheirTerminal(void) {
    void* terminal = openTerminal("asker");
    void* message = vekmsg_terminal_create_message(terminal);
    void* root = createTree(message);
    CHECK(vekmsg_message_set_payload(message, root));
    vekmsg_free_handle(root);
    vekmsg_terminal_close(terminal);
    checkTree(message);
    root = vekmsg_message_get_payload(message);
    vekmsg_free_handle(message);
    checkWalk(root);
    vekmsg_free_handle(root);
    CHECK(recordsAre(""));
}

static void closingRemovesTheSocketFile(void* terminal, const char* name) {
    char path[192];
    snprintf(path, sizeof(path), "%s/%s", s_folder, name);
    CHECK(access(path, F_OK) == 0);
    vekmsg_terminal_close(terminal);
    CHECK(access(path, F_OK) != 0);
}

int main(void) {
    void* asker;
    void* teller;
    makeFolder();
    vekmsg_log_set_sink(keep, NULL);
    asker = openTerminal("asker");
    teller = openTerminal("teller");
    aMessageArrivesAsItWasSent(asker, teller);
    aPingIsAnsweredInsideTheLibrary(asker, teller);
    pollfdWatchesTerminalsAndAPipe(asker, teller);
    faultsAreReported(asker);
    closingRemovesTheSocketFile(asker, "asker");
    closingRemovesTheSocketFile(teller, "teller");
    handlesOutliveTheirTerminal();
    return EXIT_SUCCESS;
}
