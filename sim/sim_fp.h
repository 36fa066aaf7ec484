/*
 * sim_fp - the fast-path ACL library (platform/fp_udp.h) of the simulator.
 *
 * Operations act on the tables (fastpath/fastpath.h) at once; results come
 * later from the loop, one job each and thus in the order of the calls, and
 * not at all when the process that made the call is gone by then. A request
 * that is refused (bad descriptor, full table, planned fault) returns its code
 * and is told to the failed-callback as well; one that is taken and fails (no
 * such ACL) is only told. Syncs have no callback.
 *
 * The tables outlive the process: its first call in a new life tells them so.
 * Registered callbacks do not.
 */
#ifndef SIM_SIM_FP_H
#define SIM_SIM_FP_H

#include "fastpath/fastpath.h"

namespace sim
{

/* The tables, for the switch and for whoever shows them. */
const fastpath::Tables &fp_tables();

/* Tables, callbacks and counters as new. */
void fp_reset();

} // namespace sim

#endif
