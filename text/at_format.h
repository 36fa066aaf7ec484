/*
 * at_format - the text formatter with MAC addresses.
 *
 * at_snprintf() itself is declared in platform/kt_zlog.h, since the daemon asks
 * any platform for it. Every platform of this project takes it from here.
 *
 * A format without `%m` is the C library's business as a whole. In one with
 * `%m` each conversion is handed to the C library by itself, with its argument
 * fetched by its own type, so that what it prints is what snprintf() prints.
 * Nothing is allocated, and nothing is read of a MAC but its six bytes.
 *
 * Limits, in a format with `%m`: `%n`, numbered arguments (`%1$d`) and a length
 * modifier before the `m` are refused, as is a conversion whose text is longer
 * than 63 characters.
 */
#ifndef TEXT_AT_FORMAT_H
#define TEXT_AT_FORMAT_H

#include <stdarg.h>
#include <stddef.h>

#include "platform/kt_zlog.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * at_snprintf() for an argument list; `arguments` is indeterminate afterwards.
 * `%m` takes flags, width and precision as `%s` does; a NULL pointer prints as
 * "(null)". Returns the length that the whole text has, or -1 with errno set
 * (EINVAL: a conversion that is refused; EOVERFLOW: longer than INT_MAX). At
 * most `size` bytes are written, the last of them a NUL; buffer may be NULL
 * when size is 0.
 */
int at_vsnprintf(char *buffer, size_t size, const char *format, va_list arguments) KT_PRINTF(3, 0);

#ifdef __cplusplus
}
#endif

#endif
