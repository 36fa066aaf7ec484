/*
 * sim_global - the contexts that programs hold (kt_global), and their timers.
 *
 * A context belongs to the process that made it and dies with it; where no
 * process runs (a test that calls a module's functions), it lives until the
 * reset. A finished context stays readable until then, so that a program that
 * goes on with it gets -ENOTCONN and not a crash. At most 64 contexts stand at
 * once; kt_global_init() then returns NULL. A context can have 65,536 timers
 * running; one more is -ENOMEM.
 *
 * Besides, there is one context for everybody else on the switch (the bridge,
 * the management plane), which is always open and belongs to no process.
 */
#ifndef SIM_SIM_GLOBAL_H
#define SIM_SIM_GLOBAL_H

#include <cstdint>
#include <functional>

#include "platform/kt_global.h"
#include "sim/sim_loop.h"

namespace sim
{

/* The context of the other programs; the same object for ever. */
kt_global *global_peer();

/* Whether calls with this context work: known, not finished, its process alive. NULL is not. */
bool global_is_open(const kt_global *global);

/*
 * For callbacks: runs `function` from the loop at `when`, in the process the
 * context belongs to (for the peer: outside any process), unless the context
 * has been finished or its process has ended by then.
 */
void global_post_at(kt_global *global, Micros when, std::function<void()> function);

/* Frees the contexts of a life that has ended. */
void global_process_ended(uint64_t life);

/* Forgets all contexts but the peer's. */
void global_reset();

} // namespace sim

#endif
