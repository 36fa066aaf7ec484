/*
 * sim_restart - the restart manager.
 *
 * A process that asked for it (reg_process_exit_action()) is started again when
 * it ends, whatever its status was, after a delay of virtual time. One that
 * ends again and again is started ever more slowly: beyond 10 restarts within
 * 60 s the delay doubles with each, up to 10 s. The manager never gives up; an
 * operator may hold it, so that a program that was stopped stays down.
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

/*
 * Held, the manager starts nothing; a process that ends while it is held stays
 * down. A start that waits for its delay is taken back by either call. Released,
 * it sees to the next end again.
 */
void restart_hold(bool held);

/* Restarts since the reset. */
uint64_t restart_count();

/* Told in a sentence what the manager does; nullptr to stop. One listener. */
void restart_listen(std::function<void(const std::string &)> listener);

/* For the end of a process. */
void restart_process_ended(const Ended &ended);

/* Default settings, counters at zero, nothing registered. */
void restart_reset();

} // namespace sim

#endif
