/*
 * kt_zlog - the platform's log and its text formatter.
 *
 * A line of log carries where it was written (source path, function, line)
 * and a level; the library adds the time and the process. What is gated off is
 * the caller's business: a line that reaches ktdf_zlog() is written.
 */
#ifndef PLATFORM_KT_ZLOG_H
#define PLATFORM_KT_ZLOG_H

#include <stddef.h>

#if defined(__GNUC__)
#define KT_PRINTF(format_at, first_at) __attribute__((format(printf, format_at, first_at)))
#else
#define KT_PRINTF(format_at, first_at)
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kt_zlog kt_zlog;

enum ktdf_zlog_level {
    KTDF_ZLOG_LV_DEBUG = 20,
    KTDF_ZLOG_LV_INFO = 40,
    KTDF_ZLOG_LV_NOTICE = 60,
    KTDF_ZLOG_LV_WARN = 80,
    KTDF_ZLOG_LV_ERROR = 100,
    KTDF_ZLOG_LV_FATAL = 120
};

/*
 * Opens the log for a category such as "vvlan" (copied). Returns a handle that
 * stays valid for the life of the process, or NULL when the log cannot be
 * opened.
 */
kt_zlog *kt_zlog_init(const char *category);

/*
 * Writes one line.
 *
 * log            from kt_zlog_init(), not NULL.
 * file, func     source path and function name, with their lengths in bytes,
 *                without a terminating NUL.
 * line           source line, from 1.
 * level          one of ktdf_zlog_level.
 * format, ...    as for printf(3).
 *
 * Returns 0, or a negative errno value when the line could not be written.
 */
int ktdf_zlog(kt_zlog *log, const char *file, size_t file_length, const char *func,
              size_t func_length, long line, int level, const char *format, ...) KT_PRINTF(8, 9);

/*
 * snprintf(3) with one more conversion: `%m` takes a pointer to the 6 bytes of
 * a MAC address and prints them as "%02X%02X.%02X%02X.%02X%02X". It reads
 * exactly six bytes. The compiler checks all other conversions; it takes `%m`
 * for the C library's, so the one who uses it silences -Wformat-extra-args
 * around the call.
 */
int at_snprintf(char *buffer, size_t size, const char *format, ...) KT_PRINTF(3, 4);

#ifdef __cplusplus
}
#endif

#endif
