/* SPDX-License-Identifier: MIT */
/* event_subscriber [NAME]: prints the events that some daemon publishes, until one with id 0 comes. */
#include <stdio.h>
#include <vxutils/vxevent.h>
#include <zmq.h>

int main(int argc, char **argv) {
    const char *name = argc > 1 ? argv[1] : "subscriber";
    void *context = zmq_ctx_new();
    void *sink = register_legacy_sink(context);
    if (sink == NULL) {
        perror("register_legacy_sink");
        return 1;
    }
    printf("%s: listening\n", name);
    fflush(stdout);
    vxevent_record record;
    while (zmq_recv(sink, &record, sizeof record, 0) == (int)sizeof record && record.id != 0) {
        printf("%s: event %u, %u, \"%s\"\n", name, record.id, record.param, record.text);
        fflush(stdout);
    }
    zmq_close(sink);
    zmq_ctx_term(context);
    return 0;
}
