/*
 * Publishes to a topic of the local server and hears itself.
 * Run kypserver first, then: example_topics
 * Among the library's log lines appears: line1/temperature: 21.5
 */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <threads.h>

#include "libkyp/libkyp.h"

static atomic_int arrived;

/* Runs on the connection's receive thread; the pointers are valid during the call only. */
static void on_topic(unsigned int group, unsigned int offset, char const* topic, char const* data,
                     unsigned int size, void* context) {
    (void)group, (void)offset, (void)context;
    printf("%s: %.*s\n", topic, (int)size, data);
    atomic_store(&arrived, 1);
}

int main(void) {
    char const* const topic = "line1/temperature";
    char const* const value = "21.5";
    struct timespec const pause = {0, 10000000};

    libkyp_init();
    void* local = libkyp_createInstance(NULL, 2); /* the Unix-domain stream */
    if (local == NULL) return 1;
    if (libkyp_subscribe(local, topic, on_topic, NULL) != 0) return 1;

    /* A subscription is in force a moment after it was sent, so the value is sent until heard. */
    for (int i = 0; i < 100 && !atomic_load(&arrived); ++i) {
        if (libkyp_publish(local, 0, 0, topic, value, (unsigned)strlen(value)) != 0) return 1;
        thrd_sleep(&pause, NULL);
    }
    libkyp_releaseInstance(local);
    libkyp_destory();
    return atomic_load(&arrived) ? 0 : 1;
}
