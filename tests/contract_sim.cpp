#include "tests/contract_platform.h"

#include "sim/sim_global.h"
#include "sim/sim_mom.h"
#include "sim/sim_process.h"
#include "sim/sim_world.h"

namespace contract
{

const uint32_t platform_rounds = 300;

void platform_reset()
{
    sim::world_reset();
}

kt_global *platform_peer()
{
    return sim::mom_peer();
}

void platform_settle()
{
    sim::settle();
}

void platform_pass(int64_t seconds)
{
    sim::run_until(sim::now() + seconds * sim::SECOND);
}

void platform_end_program(kt_global *)
{
    const uint64_t life = sim::process_life();
    sim::mom_process_ended(life);
    sim::global_process_ended(life);
}

void platform_cut(kt_global *, uint32_t db)
{
    sim::mom_disconnect(db);
}

void platform_restore(uint32_t db, int type)
{
    sim::mom_reconnect(db, type);
}

void platform_limit_queue(size_t changes)
{
    sim::mom_queue_limit(changes);
}

} // namespace contract
