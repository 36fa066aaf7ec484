/*
 * linux_log - the log (platform/kt_zlog.h) of a process on a Linux host.
 *
 * A line goes to one of two places. When systemd has connected the standard
 * error to its journal (JOURNAL_STREAM names it), the line goes there as a
 * record of its own with PRIORITY, CODE_FILE, CODE_LINE, CODE_FUNC and
 * VVLAN_CATEGORY, and several lines of text stay one record. Otherwise it goes
 * to standard error as
 *
 *     <6>vvlan: port 3 joined [app/proc/udp_vvlan_port.cpp:120 udp_vvlan_port_join_vvlan]
 *
 * with the journal's and syslog's priority in front: what any supervisor that
 * collects standard error understands. Levels: FATAL 2, ERROR 3, WARN 4,
 * NOTICE 5, INFO 6, DEBUG 7; anything else is INFO. Line ends inside the text
 * become blanks and are dropped at its end, so that a line stays a line.
 *
 * The log never stops the process: a standard error that is full loses the line
 * (-EAGAIN), one that is gone says -EPIPE. A line has at most 4,096 bytes; the rest is cut off.
 *
 * The platform's own lines have the category "linux" and are always written;
 * they are few: connections, reloads, what was refused.
 */
#ifndef LINUX_LINUX_LOG_H
#define LINUX_LINUX_LOG_H

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/kt_zlog.h"

constexpr size_t LINUX_LOG_LINE_MAX = 4'096;

/* One line of log, before it is written. Nothing is owned. */
struct linux_log_line {
    std::string_view category;
    std::string_view file;
    std::string_view func;
    long line;
    int level; /* ktdf_zlog_level */
    std::string_view text;
};

/* What goes to standard error, its line end included. */
std::string linux_log_format(const linux_log_line &line);

/* Journal priority of a level. */
int linux_log_priority(int level);

/*
 * For tools, whose standard error is for people: every line goes to `take`
 * instead, which returns what the log call does. NULL: as before.
 */
void linux_log_divert(int (*take)(const linux_log_line &line));

/* A line of the platform's own: LINUX_LOG(KTDF_ZLOG_LV_WARN, "%s: gone", path); */
#define LINUX_LOG(level, ...) linux_log_write(level, __FILE__, __func__, __LINE__, __VA_ARGS__)

/* Not for use by itself. file and func: NUL-terminated. */
int linux_log_write(int level, const char *file, const char *func, long line, const char *format,
                    ...) KT_PRINTF(5, 6);

#endif
