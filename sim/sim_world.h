/*
 * sim_world - everything that is simulated, as one.
 *
 * The parts know little of each other; here stands the order in which they
 * begin anew and in which they learn that a process has ended.
 */
#ifndef SIM_SIM_WORLD_H
#define SIM_SIM_WORLD_H

#include "sim/sim_process.h"

namespace sim
{

/*
 * Puts all parts back to their start: time 0, no process, no program, no
 * files, objects, ports, commands, plans, records or listeners. For a test's
 * SetUp, and before main returns where leaks are looked for: what a parked
 * process holds would count. Not from inside a process.
 */
void world_reset();

/* Tells all parts that a process has ended, before the listeners of process_on_end(). */
void world_process_ended(const Ended &ended);

} // namespace sim

#endif
