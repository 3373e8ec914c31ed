/*
 * A component: port 600 answers at once, port 601 later from a thread of its own, and what comes on
 * topic example/set goes out on example/value. Run kypserver first, then: example_component
 * Among the library's log lines appears: example serves   Ctrl-C ends it.
 */
#include <stdio.h>
#include <stdlib.h>
#include <threads.h>

#include "libkyp/libkypCmp.h"

/* Callbacks run on the component's receive thread and must not wait there. */
static void came(VirtualConn* client, void* ctx) {
    (void)client, (void)ctx, puts("a client came");
}
static void left(VirtualConn* client, void* ctx) {
    (void)client, (void)ctx, puts("a client left");
}

static void now(unsigned short port, char const* data, unsigned n, _msg_request req, void* ctx) {
    int err;
    if (libkypcmp_send(port, data, n, req, ctx, &err) < 0) puts(libkypcmp_strerror(err));
}

static int wait_and_answer(void* req) {
    thrd_sleep(&(struct timespec){.tv_nsec = 200000000}, NULL);
    now(601, "later", 5, *(_msg_request*)req, NULL);
    free(req);
    return thrd_detach(thrd_current());
}

static void later(unsigned short port, char const* data, unsigned n, _msg_request req, void* ctx) {
    thrd_t thread;
    _msg_request* copy = malloc(sizeof req); /* all that an answer needs */
    (void)port, (void)data, (void)n, (void)ctx;
    if (copy != NULL) *copy = req, thrd_create(&thread, wait_and_answer, copy);
}

static void on_set(unsigned group, unsigned offset, char const* topic, char const* data,
                   unsigned len, void* component) {
    (void)topic, libkypcmp_publish(component, group, offset, "example/value", data, len);
}

int main(void) {
    tagCmpDrvInfo info = {0, 0, "example"};
    int err;
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ); /* each line at once, also into a pipe */
    libkypcmp_init();
    void* component = libkypcmp_register(&info, NULL, NULL, &err);
    if (component == NULL) return printf("refused: %s\n", libkypcmp_strerror(err)), 1;
    CmpConnConfig* config = libkypcmp_getconfig(component);
    config->onConnect = came, config->onDisconnect = left;
    libkypcmp_addrouter(component, 600, now, NULL);
    libkypcmp_addrouter(component, 601, later, NULL);
    libkypcmp_subscribe(component, "example/set", on_set, component);
    libkypcmp_loop_start(component);
    puts("example serves");
    for (;;) thrd_sleep(&(struct timespec){.tv_sec = 60}, NULL); /* ends with the process only */
}
