/*
 * udp_vvlan - the process frame: start-up, log lines, connections, readiness.
 *
 * The process makes sure that it is the only one, opens its log, asks the
 * redundancy library for leave to work and then hands its one thread to the
 * platform's event loop. When the leave comes it opens one connection per
 * database; when all of them are up for the first time everything else is
 * initialised, once, and every later time that all are up again the
 * configuration is read anew. Connections are few and each reports by its
 * database id, so a list of one node per id is all the bookkeeping there is.
 *
 * There is no recovery inside the process: what cannot be set up ends it with
 * exit(), and the restart manager starts it again.
 *
 * This header also says how every module writes a log line and how a library
 * call that failed is made again.
 */
#ifndef APP_PROC_UDP_VVLAN_H
#define APP_PROC_UDP_VVLAN_H

#include <cstddef>
#include <cstdint>

#include "app/proc/udp_vvlan_state.h"
#include "platform/kt_global.h"
#include "platform/kt_zlog.h"

/* Longest text of a log line, its terminating NUL included; the rest is cut off. */
enum { UDP_VVLAN_LOG_TEXT_SIZE = 1024 };

/* Where a log line comes from. */
struct udp_vvlan_where {
    const char *file;
    size_t file_length;
    const char *func;
    size_t func_length;
    long line; /* read by the _FROM forms only */
};

/* The place that this is written at. Inside a lambda, __func__ is of no use: take it outside. */
#define UDP_VVLAN_HERE                                                                             \
    (udp_vvlan_where{__FILE__, sizeof(__FILE__) - 1, __func__, sizeof(__func__) - 1, __LINE__})

/*
 * Log lines, as statements: UDP_VVLAN_LOG_ERROR("port %d", ifx);
 *
 * The debug level is tested first; when it is too low nothing is formatted and
 * no argument is evaluated. The level is a ladder: 0 silences everything, 1
 * lets errors through, 2 warnings too, 4 progress, 5 everything. The _AT forms
 * take the function from their first argument, so that a helper which several
 * functions share logs under the name of the one that was called; the line is
 * the statement's own. The _FROM forms take the line, too, for a helper that
 * does not stand in its callers' file.
 */
#define UDP_VVLAN_LOG_ERROR(...) UDP_VVLAN_LOG_ERROR_AT(UDP_VVLAN_HERE, __VA_ARGS__)
#define UDP_VVLAN_LOG_WARN(...) UDP_VVLAN_LOG_WARN_AT(UDP_VVLAN_HERE, __VA_ARGS__)
#define UDP_VVLAN_LOG_INFO(...) UDP_VVLAN_LOG_INFO_AT(UDP_VVLAN_HERE, __VA_ARGS__)
#define UDP_VVLAN_LOG_DEBUG(...) UDP_VVLAN_LOG_DEBUG_AT(UDP_VVLAN_HERE, __VA_ARGS__)

#define UDP_VVLAN_LOG_ERROR_AT(where, ...)                                                         \
    UDP_VVLAN_LOG_ABOVE(0, KTDF_ZLOG_LV_ERROR, where, __VA_ARGS__)
#define UDP_VVLAN_LOG_WARN_AT(where, ...)                                                          \
    UDP_VVLAN_LOG_ABOVE(1, KTDF_ZLOG_LV_WARN, where, __VA_ARGS__)
#define UDP_VVLAN_LOG_INFO_AT(where, ...)                                                          \
    UDP_VVLAN_LOG_ABOVE(3, KTDF_ZLOG_LV_INFO, where, __VA_ARGS__)
#define UDP_VVLAN_LOG_DEBUG_AT(where, ...)                                                         \
    UDP_VVLAN_LOG_ABOVE(4, KTDF_ZLOG_LV_DEBUG, where, __VA_ARGS__)

#define UDP_VVLAN_LOG_ERROR_FROM(where, ...)                                                       \
    UDP_VVLAN_LOG_LINE_ABOVE(0, KTDF_ZLOG_LV_ERROR, where, (where).line, __VA_ARGS__)
#define UDP_VVLAN_LOG_WARN_FROM(where, ...)                                                        \
    UDP_VVLAN_LOG_LINE_ABOVE(1, KTDF_ZLOG_LV_WARN, where, (where).line, __VA_ARGS__)

/* What the forms above are made of; not for use by itself. */
#define UDP_VVLAN_LOG_ABOVE(debug_level, level, where, ...)                                        \
    UDP_VVLAN_LOG_LINE_ABOVE(debug_level, level, where, __LINE__, __VA_ARGS__)
#define UDP_VVLAN_LOG_LINE_ABOVE(debug_level, level, where, line_number, ...)                      \
    do {                                                                                           \
        if (udp_vvlan_debug_level > (debug_level)) [[unlikely]] {                                  \
            char udp_vvlan_log_text[UDP_VVLAN_LOG_TEXT_SIZE] = {};                                 \
            at_snprintf(udp_vvlan_log_text, sizeof udp_vvlan_log_text, __VA_ARGS__);               \
            udp_vvlan_log_write((where), (line_number), (level), udp_vvlan_log_text);              \
        }                                                                                          \
    } while (0)

/* Writes a finished text of source line `line` to the log, if it is open. level: ktdf_zlog_level.
 */
void udp_vvlan_log_write(const udp_vvlan_where &where, long line, int level, const char *text);

/*
 * What follows a library call that failed: above debug level 1 the call is made
 * once more to log its result as a warning, and then, at any level, once more
 * for the result that the caller returns. So a failing call is made two or
 * three times, and one that gets through at last counts as success:
 *
 *     auto write = [&] { return kt_mom_set(...); };
 *     if (write() != 0)
 *         return udp_vvlan_call_again(UDP_VVLAN_HERE, write);
 *
 * where  whose log line it is.
 * call   takes nothing, returns int.
 * Returns the result of the last call.
 */
template <typename Call> int udp_vvlan_call_again(const udp_vvlan_where &where, Call call)
{
    UDP_VVLAN_LOG_WARN_FROM(where, "rv = %d", call());
    return call();
}

/*
 * The daemon. Returns 0 when the event loop has ended, -1 when another copy
 * runs (or the pid file cannot be opened), UDP_VVLAN_E_NO_CONTEXT without a
 * global context, or what the redundancy library refused the registration with.
 */
int udp_vvlan_main(void);

/* The redundancy library's callback: opens the connections. Returns 0; may exit(). */
int udp_vvlan_rdnd_ready(void);

/*
 * Builds the readiness record, one node per database id, none of them ready. A
 * node that cannot be allocated is logged and finishes the global context; the
 * others are still built.
 */
void udp_vvlan_mom_init(void);

/*
 * Opens and hooks the connections to `count` databases. `ids` must stay valid:
 * each connection's callback gets the address of its own id. Exits with the
 * library's result at the first failure.
 */
void udp_vvlan_mom_connect(kt_global *global, uint32_t *ids, uint32_t count);

/*
 * The connection whose id `id_ptr` (uint32_t *) points at is up. When it was
 * the last one, runs the full initialisation, or, once that has succeeded, the
 * resynchronisation. Returns 0; exits when either fails.
 */
int udp_vvlan_mom_connect_callback(kt_global *global, void *id_ptr);

/* The connection is lost: it no longer counts as ready. Returns 0. */
int udp_vvlan_mom_disconnect_callback(kt_global *global, uint32_t mom_id);

/*
 * The connection is back. type: kt_mom_reconnect; with any other database
 * instance than before the process exits with UDP_VVLAN_EXIT_OTHER_INSTANCE.
 * Returns what the connect callback returned.
 */
enum { UDP_VVLAN_EXIT_OTHER_INSTANCE = 77 };
int udp_vvlan_mom_reconnect_callback(kt_global *global, uint32_t mom_id, int type);

#endif
