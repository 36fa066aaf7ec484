/*
 * The daemon as it is shipped, but for the clock of the platform's timers: it
 * stands still until a command of the debug shell has it pass. Only the daemon's
 * own timers go by it, the aging tick; the database client keeps real time.
 *
 * `pass ms=N` answers at once. The time then passes when all that was in the
 * databases before has reached the daemon: behind a scan of each database that is
 * connected, which the platform puts behind every earlier scan and change.
 *
 * `passed` prints how many passes were asked for and are over, and which databases
 * the last of them found connected.
 */
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_state.h"
#include "linux/linux_loop.h"
#include "platform/kt_mom.h"
#include "platform/kt_thread.h"
#include "platform/ssat.h"
#include "proto/p_bridge.pb-c.h"

namespace
{

struct Timer {
    int64_t due; /* milliseconds of this process's time */
    kt_thread_callback callback;
    void *argument;
};

struct Pass {
    int millis = 0;
    unsigned scans = 0; /* that are not over yet */
};

std::vector<Timer> timers;
int64_t now = 0;
Pass pass;
int asked = 0;
int done = 0;
unsigned connected = 0; /* bit N: database N, at the last pass */

/* One after the other; what a timer arms may be due as well. */
void let_time_pass()
{
    const int64_t end = now + pass.millis;
    while (true) {
        const auto next = std::ranges::min_element(timers, {}, &Timer::due);
        if (next == timers.end() || next->due > end)
            break;
        const Timer timer = *next;
        timers.erase(next);
        now = timer.due;
        timer.callback(timer.argument);
    }
    now = end;
    done = asked;
}

void pass_when_scanned()
{
    if (pass.scans == 0)
        linux_loop_post(let_time_pass);
}

int on_scan(kt_global *, const kt_mom_msg *msg, void *)
{
    if (msg->scan_state == KT_MOM_SCAN_OVER) {
        pass.scans--;
        pass_when_scanned();
    }
    return 0;
}

int ask_pass(const int *arguments, int)
{
    if (asked != done || udp_vvlan_inited == 0)
        return -1;
    asked++;
    pass = {arguments[0], 0};
    connected = 0;
    const PBridge__VvlanGlbCfg any = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    for (const uint32_t db : {0U, 4U, 6U, 8U}) {
        if (kt_mom_scan(udp_vvlan_global, db, &any.base, KT_MOM_MATCH_EXACT, on_scan, nullptr) != 0)
            continue;
        connected |= 1U << db;
        pass.scans++;
    }
    pass_when_scanned();
    return 0;
}

int tell_passed(const int *, int)
{
    std::printf("asked=%d done=%d connected=%u\n", asked, done, connected);
    return 0;
}

} // namespace

extern "C" {

int __real_ssat_lib_init(kt_global *global, const char *module);

int __wrap_ssat_lib_init(kt_global *global, const char *module)
{
    const int result = __real_ssat_lib_init(global, module);
    ssat_reg_mod_cmd(module, "pass", 0, "ms=%d", ask_pass);
    ssat_reg_mod_cmd(module, "passed", 0, "void", tell_passed);
    return result;
}

int __wrap_kt_thread_add_timer_timeval_withname(kt_thread_master *, kt_thread_callback callback,
                                                void *argument, long seconds, long microseconds,
                                                const char *)
{
    timers.push_back({now + seconds * 1000 + microseconds / 1000, callback, argument});
    return 0;
}
}

int main()
{
    return udp_vvlan_main();
}
