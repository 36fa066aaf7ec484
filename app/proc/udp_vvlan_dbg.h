/*
 * udp_vvlan_dbg - debug-shell commands: the log level and a dump of each table.
 *
 * The commands are a table of name, help text and handler. They print to the
 * process's standard output, which the shell shows, and never to the log. They
 * only read, but for the log level.
 */
#ifndef APP_PROC_UDP_VVLAN_DBG_H
#define APP_PROC_UDP_VVLAN_DBG_H

#include "platform/kt_global.h"

/*
 * Registers the commands under `module`, which must outlive the process.
 * Returns the shell's result: of opening it if that failed, else of the last
 * registration.
 */
int udp_vvlan_dbg_init(kt_global *global, const char *module);

#endif
