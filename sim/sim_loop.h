/*
 * sim_loop - virtual time and the one queue of things to happen.
 *
 * Everything in the simulator happens as a job of this queue, ordered by due
 * time and, within the same moment, by the order of posting. The clock jumps
 * from job to job, so a day of silence costs nothing, and the same input gives
 * the same output. The queue holds at most 4,194,304 jobs; posting into a full
 * queue aborts the simulation with a message, since it would mean a job that
 * breeds.
 */
#ifndef SIM_SIM_LOOP_H
#define SIM_SIM_LOOP_H

#include <cstdint>
#include <functional>
#include <optional>

namespace sim
{

using Micros = int64_t; /* virtual time since the simulation began */

constexpr Micros SECOND = 1'000'000;

Micros now();

/* Posts a job for this moment, after all that is already due. */
void post(std::function<void()> job);

/* Posts a job for a later moment; a moment that has passed counts as now. */
void post_at(Micros when, std::function<void()> job);

/* Runs every job due up to `when`; the clock then stands at `when`. */
void run_until(Micros when);

/* Runs every job that is due now, and what these post for now. */
void settle();

/* When the next job is due, or nothing when the queue is empty. */
std::optional<Micros> next_due();

/*
 * Runs `hook` after every job, at the job's moment: a timeline or an invariant
 * check looks at the world there. One hook; nullptr stops it. It may post jobs.
 */
void loop_after_each(std::function<void()> hook);

/* Empties the queue, forgets the hook and puts the clock back to 0. */
void loop_reset();

} // namespace sim

#endif
