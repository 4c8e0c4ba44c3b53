/* A plain C program that has nothing but the installed library. */
#include <stdio.h>
#include <vekmsg/c_binding.h>
#include <vekmsg/log.h>

int main(void) {
    vekmsg_log_set_threshold(-1);
    void* terminal = vekmsg_terminal_open((const utf8_char_*)"consumer", "/nonexistent/directory");
    if (terminal == NULL && vekmsg_terminal_create_message(NULL) == NULL) return 0;
    fprintf(stderr, "consumer: a terminal without a directory\n");
    return 1;
}
