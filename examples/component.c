/*
 * A component: port 600 answers at once, port 601 later from a thread of its own, and what comes on
 * topic example/set goes out on example/value. Run kypserver first, then: example_component
 * Among the library's log lines appears: example serves   Ctrl-C ends it.
 */
#include <stdio.h>
#include <stdlib.h>
#include <threads.h>

#include "libkyp/libkypCmp.h"

static void now(unsigned short port, char const* data, unsigned len, _msg_request req, void* user) {
    int err;
    (void)user;
    if (libkypcmp_send(port, data, len, req, NULL, &err) < 0) puts(libkypcmp_strerror(err));
}

static int wait_and_answer(void* req) {
    thrd_sleep(&(struct timespec){.tv_nsec = 200000000}, NULL);
    now(601, "later", 5, *(_msg_request*)req, NULL);
    free(req);
    return 0;
}

/* Callbacks run on the component's receive thread and must not wait there. */
static void later(unsigned short port, char const* data, unsigned len, _msg_request req,
                  void* user) {
    (void)port, (void)data, (void)len, (void)user;
    _msg_request* copy = malloc(sizeof *copy); /* all that an answer needs */
    if (copy == NULL) return;
    *copy = req;
    thrd_t thread;
    if (thrd_create(&thread, wait_and_answer, copy) == thrd_success)
        thrd_detach(thread);
    else
        free(copy);
}

static void on_set(unsigned group, unsigned offset, char const* topic, char const* data,
                   unsigned len, void* component) {
    (void)topic;
    libkypcmp_publish(component, group, offset, "example/value", data, len);
}

int main(void) {
    tagCmpDrvInfo info = {0, 0, "example"};
    int err;
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ); /* each line at once, also into a pipe */
    libkypcmp_init();
    void* component = libkypcmp_register(&info, NULL, NULL, &err);
    if (component == NULL) return printf("refused: %s\n", libkypcmp_strerror(err)), 1;
    libkypcmp_addrouter(component, 600, now, NULL);
    libkypcmp_addrouter(component, 601, later, NULL);
    libkypcmp_subscribe(component, "example/set", on_set, component);
    libkypcmp_loop_start(component);
    puts("example serves");
    for (;;) thrd_sleep(&(struct timespec){.tv_sec = 60}, NULL); /* ends with the process only */
}
