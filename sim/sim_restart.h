/*
 * sim_restart - the restart manager.
 *
 * A process that asked for it (reg_process_exit_action()) is started again when
 * it ends, whatever its status was, after a delay of virtual time. One that
 * ends again and again is not started for ever: when a window of time has seen
 * the allowed number of restarts, the manager gives up and says so. Who starts
 * the program again by hand and has it register gets the manager back, within
 * the same limit.
 */
#ifndef SIM_SIM_RESTART_H
#define SIM_SIM_RESTART_H

#include <cstdint>
#include <functional>
#include <string>

#include "sim/sim_loop.h"
#include "sim/sim_process.h"

namespace sim
{

/* Delay between an end and the start that follows; 100 ms at first. */
void restart_set_delay(Micros delay);

/* At most `count` restarts within `window`; 10 in 60 s at first. */
void restart_set_limit(uint32_t count, Micros window);

/* Restarts since the reset. */
uint64_t restart_count();

/* Whether the manager has given up on the program. */
bool restart_has_given_up();

/* Told in a sentence what the manager does; nullptr to stop. One listener. */
void restart_listen(std::function<void(const std::string &)> listener);

/* For the end of a process. */
void restart_process_ended(const Ended &ended);

/* Default settings, counters at zero, nothing registered. */
void restart_reset();

} // namespace sim

#endif
