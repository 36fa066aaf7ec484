/*
 * sim_fp - the fast-path ACL library (platform/fp_udp.h) of the simulator.
 *
 * The interface is fastpath/fastpath_library.h's. Results are jobs of the loop,
 * and are dropped when the process that made the call is gone by then.
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
