/*
 * kt_global - the process-wide context of the platform and its event loop.
 *
 * One context exists per process. Every object-database call, timer and
 * debug-shell registration takes it, so a program never holds more than this
 * one handle. The loop is single-threaded: every callback that any platform
 * library makes runs on the thread that called kt_global_run(), one at a
 * time, and never inside the call that asked for it. The only exception is a
 * call that is synchronous by name (kt_mom_scan_sync()).
 *
 * The context is opaque but for its first two pointer-sized words, which
 * other libraries need: a timer is armed on `master`, and the redundancy
 * library is handed `rdnd`. An implementation puts whatever else it needs
 * behind these two words.
 */
#ifndef PLATFORM_KT_GLOBAL_H
#define PLATFORM_KT_GLOBAL_H

#include <assert.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct kt_thread_master;

typedef struct kt_global {
    struct kt_thread_master *master; /* the loop that timers are armed on */
    void *rdnd;                      /* handle kept for the redundancy library */
} kt_global;

static_assert(offsetof(kt_global, rdnd) == sizeof(void *),
              "the redundancy handle is the second pointer-sized word of the context");

/*
 * Creates the context of this process.
 *
 * name      the module's name, NUL-terminated; copied.
 * previous  the context of an earlier call, or NULL at the first. When it is
 *           not NULL the platform may return it again instead of a new one.
 *
 * Returns the context, owned by the platform until kt_global_finish(), or
 * NULL when it cannot be created.
 */
kt_global *kt_global_init(const char *name, kt_global *previous);

/*
 * Runs the event loop on the calling thread. Returns 0 when the process got
 * SIGTERM or SIGINT, after the callback that was running has returned; a
 * negative errno value when the loop itself failed.
 */
int kt_global_run(kt_global *global);

/*
 * Ends everything that hangs on the context: connections are closed, timers
 * and pending callbacks are dropped. Calls made with the context afterwards
 * are harmless and fail with -ENOTCONN. NULL is ignored.
 */
void kt_global_finish(kt_global *global);

#ifdef __cplusplus
}
#endif

#endif
