/*
 * ssat - the debug shell.
 *
 * A module registers commands by name. Who sits at the shell types the name
 * and its arguments; the library parses them after the command's help text and
 * calls the handler from the event loop. Whatever the handler prints to its
 * standard output reaches that person.
 *
 * The help text doubles as the argument pattern: each `%d` in it is one
 * integer argument; everything else is for people.
 */
#ifndef PLATFORM_SSAT_H
#define PLATFORM_SSAT_H

#include <stdint.h>

#include "platform/kt_global.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * args   the integers that were parsed, in the order of the pattern; owned by
 *        the library, valid during the call.
 * count  how many; always as many as the pattern has `%d`.
 * The result is shown as the command's status.
 */
typedef int (*ssat_handler)(const int *args, int count);

/* Opens the library for `module` (copied). Returns 0 or a negative errno value. */
int ssat_lib_init(kt_global *global, const char *module);

/*
 * Registers one command; registering a name again replaces its handler.
 *
 * module   as given to ssat_lib_init().
 * name     what is typed; one word.
 * flag     0.
 * help     help text and argument pattern; must outlive the process.
 * handler  not NULL.
 *
 * Returns 0, -EINVAL for a name that is no word, -ENOSPC when the table of
 * commands is full.
 */
int ssat_reg_mod_cmd(const char *module, const char *name, uint32_t flag, const char *help,
                     ssat_handler handler);

#ifdef __cplusplus
}
#endif

#endif
