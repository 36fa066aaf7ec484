/*
 * udp_vvlan_age - the aging timer.
 *
 * Every 60 seconds each joined automatic port without a live voice MAC is 60
 * seconds more silent; when it has been silent for the global aging time it
 * leaves the voice VLAN and is trapped again. One timer visits all ports,
 * rather than one timer a port: a tick is a linear pass over the port map and
 * the counter is all the state there is.
 *
 * The timer is one-shot and arms itself again. Should arming it fail it stops:
 * the platform gives no later moment at which to try again.
 */
#ifndef APP_PROC_UDP_VVLAN_AGE_H
#define APP_PROC_UDP_VVLAN_AGE_H

#include "app/proc/udp_vvlan_state.h"

/* Arms the timer for the first time. Once per process. Returns 0. */
int udp_vvlan_timer_init(void);

/* The timer's callback: visits the ports if the voice VLAN is on. Returns 0. */
int udp_vvlan_timer_scan(void *argument);

/*
 * One port's tick. Returns UDP_VVLAN_NULL_RECORD for NULL and 0 otherwise, also
 * when taking the port out failed, so that the pass reaches every port.
 */
int udp_vvlan_timer_ops(udp_vvlan_port_node *port);

#endif
