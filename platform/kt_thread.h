/*
 * kt_thread - one-shot timers on the event loop.
 *
 * Time is monotonic: setting the host's clock neither delays nor hastens a
 * timer. A timer fires once, not before its time, and is forgotten; who wants
 * it again arms it again, from inside its callback if need be. Timers that
 * are due at the same moment fire in the order in which they were armed.
 */
#ifndef PLATFORM_KT_THREAD_H
#define PLATFORM_KT_THREAD_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kt_thread_master kt_thread_master;

/* The result is for the library's statistics; it never re-arms the timer. */
typedef int (*kt_thread_callback)(void *argument);

/*
 * Arms a one-shot timer.
 *
 * master        the loop, from kt_global; must not be NULL.
 * callback      called once from the loop with `argument`.
 * argument      handed over as it is; not owned.
 * seconds       delay, whole seconds, >= 0.
 * microseconds  and microseconds on top, 0..999999.
 * name          shown in the platform's own lists; copied.
 *
 * Returns 0, -EINVAL for a delay out of range, or -ENOMEM.
 */
int kt_thread_add_timer_timeval_withname(kt_thread_master *master, kt_thread_callback callback,
                                         void *argument, long seconds, long microseconds,
                                         const char *name);

#ifdef __cplusplus
}
#endif

#endif
