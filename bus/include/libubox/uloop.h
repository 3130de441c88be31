/* The event loop: descriptors, timers and signals of one process, one callback at a time.
 *
 * Records belong to the caller, are zeroed before first use and stay alive while registered. The
 * loop itself allocates nothing. Not thread safe. */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include "list.h"

#include <signal.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
#define ULOOP_BLOCKING (1 << 3) /* leave the descriptor blocking */
#define ULOOP_ERROR_CB (1 << 6) /* stay registered on an error */

struct uloop_fd;
struct uloop_timeout;
struct uloop_signal;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);
typedef void (*uloop_signal_handler)(struct uloop_signal *s);

struct uloop_fd {
    uloop_fd_handler cb;
    int fd;
    bool eof;   /* the peer closed its sending side */
    bool error; /* the peer is gone; unless ULOOP_ERROR_CB, the descriptor is unregistered */
    bool registered;
    uint8_t flags;
};

struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb;
    struct timeval time; /* on the monotonic clock */
};

struct uloop_signal {
    struct list_head list;
    struct sigaction orig;
    bool pending;
    uloop_signal_handler cb;
    int signo;
};

extern bool uloop_cancelled;
extern bool uloop_handle_sigchld;

/* Starts the loop's own machinery; harmless when done already. 0, or -1. */
int uloop_init(void);

/* Stops it: handlers restored, timers cancelled. Registered descriptors stay marked. */
void uloop_done(void);

/* Runs until ended (timeout below 0), or one pass that waits at most `timeout` milliseconds and
 * serves at most one descriptor. 0, or the number of the signal that ended it. */
int uloop_run_timeout(int timeout);
static inline int uloop_run(void) { return uloop_run_timeout(-1); }

/* Ends the run after the current callback. */
void uloop_end(void);

/* True inside a run that was asked to end. */
bool uloop_cancelling(void);

/* Registers or changes a descriptor; without READ and WRITE it is removed. 0, or below 0. */
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);
int uloop_fd_delete(struct uloop_fd *sock);

/* Timers fire once. _add arms at `time`, _set in `msecs`, _cancel gives -1 for an idle one. */
int uloop_timeout_add(struct uloop_timeout *timeout);
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);
int uloop_timeout_cancel(struct uloop_timeout *timeout);
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);

/* Milliseconds until the next timer, or -1. */
int uloop_get_next_timeout(void);

/* Delivers a signal from the loop instead of its default treatment. 0, or -1. */
int uloop_signal_add(struct uloop_signal *s);
int uloop_signal_delete(struct uloop_signal *s);

#ifdef __cplusplus
}
#endif

#endif
