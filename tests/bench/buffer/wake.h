/*
 * Latency from a write in one process to the wake-up in another, measured in the same way for every transport.
 *
 *     wake-NAME [VARIANT] COUNT RATE SIZE...
 *
 * The program forks: the parent sends COUNT messages of each size, after some that do not count, at most RATE of them per
 * second and each when the one before has been taken, so that the child sleeps before each. Time is stamped into the
 * message right before the transport is called, and taken again when the child has the whole message in its hands. Only
 * then is it compared with what was sent, byte for byte. Standard output gets one line per message ("SIZE NANOSECONDS") and
 * one at the end ("received NUMBER of NUMBER").
 */
#ifndef WAKE_H
#define WAKE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct wake wake_t;

typedef struct wake_transport {
    /* In the parent: makes what the child then connects to. */
    void (*open)(wake_t *wake);
    /* In the parent, once the child is ready: sends what wake_next() gives until that is null. */
    void (*send)(wake_t *wake);
    /* In the parent, once the child has ended. */
    void (*close)(void);
    /* In the child: connects, calls wake_ready() and then wake_take() with each message until that says no. */
    void (*receive)(wake_t *wake);
} wake_transport_t;

int wake_main(int argc, char **argv, const wake_transport_t *transport);

/* The word in front of the numbers on the command line, or "". */
const char *wake_variant(const wake_t *wake);
/* The same in both processes, different in two runs at the same time; without a leading "/". */
const char *wake_name(const wake_t *wake);
size_t wake_largest(const wake_t *wake);

/* Sleeps until the next message is due. It stays as it is until three more have been asked for. */
void *wake_next(wake_t *wake, size_t *size);
/* To be called on the message, wherever it lies then, right before it is sent. */
void wake_stamp(void *message);

void wake_ready(wake_t *wake);
/* The size of the message that comes next, for a transport without boundaries between messages. */
size_t wake_expected(const wake_t *wake);
/* True while more messages are to come. */
bool wake_take(wake_t *wake, const void *message, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* WAKE_H */
