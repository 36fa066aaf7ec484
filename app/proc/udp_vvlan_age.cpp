#include "app/proc/udp_vvlan_age.h"

#include <sys/time.h>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_port.h"
#include "platform/kt_thread.h"

namespace
{

constexpr timeval TICK = {60, 0};
constexpr char TIMER_NAME[] = "udp_vvlan";

/* The flags of a joined automatic port that is not trapped and has no live voice MAC. */
constexpr int SILENT = UDP_VVLAN_PORT_VVLAN_EN | UDP_VVLAN_PORT_AUTO_MOD |
                       UDP_VVLAN_PORT_AUTO_JOIN | UDP_VVLAN_PORT_MAC_AGED;
constexpr int FLAGS_LOOKED_AT = SILENT | UDP_VVLAN_PORT_DENY_EN;

void arm(void)
{
    kt_thread_add_timer_timeval_withname(udp_vvlan_global->master, udp_vvlan_timer_scan, nullptr,
                                         TICK.tv_sec, TICK.tv_usec, TIMER_NAME);
}

} // namespace

int udp_vvlan_timer_init(void)
{
    UDP_VVLAN_LOG_DEBUG("<timer> :init timer");
    arm();
    return 0;
}

int udp_vvlan_timer_scan(void *)
{
    if (udp_vvlan_glb.enable != 0) {
        UDP_VVLAN_LOG_DEBUG("\n Timer(60s) is time out, Scan vvlan port:");
        udp_vvlan_port_foreach(udp_vvlan_timer_ops);
        UDP_VVLAN_LOG_DEBUG("\n Scan vvlan port over!");
    }
    UDP_VVLAN_LOG_DEBUG("\n************Start timer: time interval(60s)\n");
    arm();
    return 0;
}

int udp_vvlan_timer_ops(udp_vvlan_port_node *port)
{
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR("pointer NULL!");
        return UDP_VVLAN_NULL_RECORD;
    }
    if (udp_vvlan_port_has(port, UDP_VVLAN_PORT_VVLAN_EN))
        UDP_VVLAN_PORT_TRACE(UDP_VVLAN_LOG_DEBUG, port);
    if ((port->flags & FLAGS_LOOKED_AT) != SILENT) {
        port->no_flw = 0;
        return 0;
    }
    port->no_flw += static_cast<uint32_t>(TICK.tv_sec);
    if (port->no_flw >= udp_vvlan_glb.age_time * 60U) {
        port->no_flw = 0;
        int rv = udp_vvlan_port_join_vvlan(port, 0);
        UDP_VVLAN_LOG_INFO("port(ifx:%d) out from vvlan, rv=%d!", port->ifx, rv);
        /* Leaving has written the trap already, unless it failed half-way. */
        rv = udp_vvlan_port_set_trap(port, 1);
        UDP_VVLAN_LOG_INFO("port(ifx:%d), trap_to_cpu, rv=%d!", port->ifx, rv);
        udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_DENY_EN, true);
    }
    return 0;
}
