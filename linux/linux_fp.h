/*
 * linux_fp - the fast-path ACL library (platform/fp_udp.h) in the process.
 *
 * The tables (fastpath/fastpath.h) are filled as a switch's hardware would be
 * and are shown by the debug shell's `fp_tables`; no frame passes through them.
 * The tables live and die with the process: a restart begins with empty ones,
 * so what a sync would have kept in force over a restart is simply programmed
 * again. A program that forwards frames takes the place of this file behind
 * the same seam (fastpath/fastpath_library.h).
 *
 * Operations act at once; results come from the loop, one job each, in the
 * order of the calls. A full job queue refuses an operation with -ENOSPC before
 * anything is changed. When the last sync that was begun has ended, readiness
 * is told (linux/linux_restart.h).
 */
#ifndef LINUX_LINUX_FP_H
#define LINUX_LINUX_FP_H

#include "fastpath/fastpath.h"

/* What the library holds now, for the debug shell and tests; it stands as long as the process. */
const fastpath::Tables &linux_fp_tables();

#endif
