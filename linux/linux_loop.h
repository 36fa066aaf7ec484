/*
 * linux_loop - the event loop of a process on a Linux host (platform/kt_global.h,
 * platform/kt_thread.h), on libevent's core library.
 *
 * There is one loop per process, made when it is first needed. Sockets and
 * signals are libevent's business; timers and posted jobs are kept here, since
 * the platform promises more about them than libevent does: a timer never fires
 * early, timers of one moment fire in the order in which they were armed, and
 * posted jobs run first in, first out. In one turn the loop runs the jobs and
 * the timers that were due when the turn began; what these post or arm with no
 * delay waits for the next turn, so that sockets are never starved.
 *
 * Contexts (kt_global) are handles to that loop. A daemon has one; tests and
 * tools may have several. A finished context stays readable, so that a program
 * that goes on with it gets -ENOTCONN and not a crash; when CONTEXTS_MAX stand,
 * the oldest finished one makes room, and kt_global_init() returns NULL when
 * there is none. It also returns NULL, after one line of log, when the
 * environment holds a bad value (linux/linux_env.h).
 *
 * Everything here belongs to the thread that runs the loop. Nothing is freed
 * when the process calls exit(): it may do so from inside a callback.
 *
 * Limits: 65,536 posted jobs, 65,536 timers, 16 hang-up functions, 64 contexts,
 * 16 finish functions per context.
 */
#ifndef LINUX_LINUX_LOOP_H
#define LINUX_LINUX_LOOP_H

#include <cstddef>
#include <cstdint>
#include <functional>

#include "platform/kt_global.h"

struct event_base;

constexpr size_t LINUX_LOOP_JOBS_MAX = 65'536;
constexpr size_t LINUX_LOOP_TIMERS_MAX = 65'536;
constexpr size_t LINUX_LOOP_CONTEXTS_MAX = 64;

/* The loop, for whoever has a socket. Owned here; the process ends when there is no memory. */
struct event_base *linux_loop_base();

/* Runs `job` from the loop, after all that was posted before. 0, or -ENOSPC. */
int linux_loop_post(std::function<void()> job);

/* Whether that many more jobs can be posted now. */
bool linux_loop_has_room(size_t jobs);

/* Monotonic time in microseconds. */
int64_t linux_loop_now();

/* Runs `job` once, `micros` (>= 0) from now. Returns an id that never comes again, 0: no room. */
uint64_t linux_loop_after(int64_t micros, std::function<void()> job);

/* Disarms a timer; one that has fired, or 0, is ignored. */
void linux_loop_cancel(uint64_t id);

/* Runs `function` from the loop at every SIGHUP. 0, or -ENOSPC. */
int linux_loop_on_hangup(std::function<void()> function);

/* Ends the kt_global_run() that is running, or the next one, as SIGTERM does. */
void linux_loop_stop();

/*
 * For tools and tests: turns the loop until `done` says so. Not from a callback
 * of the loop. Returns false when `micros` went by first.
 */
bool linux_loop_run_until(const std::function<bool()> &done, int64_t micros);

/* For tests: finishes every context and frees the loop, signal handlers included. */
void linux_loop_reset();

/* Whether calls with this context work: given out and not finished. NULL is not. */
bool linux_global_is_open(const kt_global *global);

/* As linux_loop_post(), but the job is dropped when the context is finished by then. -ENOTCONN. */
int linux_global_post(const kt_global *global, std::function<void()> job);

/* Runs `function` inside kt_global_finish(), the last one first. 0, -ENOTCONN or -ENOSPC. */
int linux_global_on_finish(const kt_global *global, std::function<void()> function);

#endif
