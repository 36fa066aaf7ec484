#include "sim/sim_world.h"

#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_host.h"
#include "sim/sim_log.h"
#include "sim/sim_loop.h"
#include "sim/sim_mom.h"
#include "sim/sim_restart.h"
#include "sim/sim_shell.h"
#include "sim/sim_switch.h"

namespace sim
{

void world_reset()
{
    process_reset();
    loop_reset();
    mom_reset();
    switch_reset();
    shell_reset();
    restart_reset();
    global_reset();
    host_reset();
    log_reset();
    call_reset();
}

void world_process_ended(const Ended &ended)
{
    host_process_ended(ended.pid);
    shell_process_ended(ended.life);
    mom_process_ended(ended.life);
    global_process_ended(ended.life);
    restart_process_ended(ended);
}

} // namespace sim
