/*
 * udp_vvlan_port - the port table and the state of each port.
 *
 * A port has a record from the moment it is configured. The record says what
 * is configured (vvlan_en, auto_mod), what the port is doing (auto_join,
 * deny_en, mac_aged, no_flw), and lists the voice MACs seen on it. In automatic
 * mode a port is trapped until a voice device shows up, then joined until it
 * has been silent for the aging time; in manual mode it is treated as joined.
 *
 * Two objects per port tell the rest of the switch: the trap record
 * u_bridge.vvlan_port_cfg in the daemon's database (deny_en is 1), and the
 * membership p_bridge.vvlan_port_auto in the configuration database
 * (auto_join is 1 and the port is joined). The membership is what puts the
 * port into the voice VLAN; the join record, which udp_vvlan_recover keeps for
 * the next start, is another object.
 *
 * Records live in the keyed hash map by ifx, so that they keep their address
 * while MACs are linked to them. Flags are set before the write that they
 * describe and stay set when it fails; nothing that succeeded is undone. A
 * configured port that does not fit into memory is refused.
 *
 * Every operation returns 0 on success and UDP_VVLAN_NULL_RECORD for a NULL
 * record where it says so. Other results are a library's, UDP_VVLAN_E_WRITE,
 * UDP_VVLAN_E_INSERT, or several of these OR-ed.
 */
#ifndef APP_PROC_UDP_VVLAN_PORT_H
#define APP_PROC_UDP_VVLAN_PORT_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"

/* Whether all of `flags`, of udp_vvlan_port_flag, are set. */
inline bool udp_vvlan_port_has(const udp_vvlan_port_node *port, int flags)
{
    return (port->flags & flags) == flags;
}

/* Sets (on) or clears one or more of udp_vvlan_port_flag. */
inline void udp_vvlan_port_set_flags(udp_vvlan_port_node *port, int flags, bool on)
{
    port->flags = static_cast<uint8_t>(on ? port->flags | flags : port->flags & ~flags);
}

/* Enabled and in automatic mode: what trap, join and voice MACs are about. */
inline bool udp_vvlan_port_is_auto(const udp_vvlan_port_node *port)
{
    return udp_vvlan_port_has(port, UDP_VVLAN_PORT_VVLAN_EN | UDP_VVLAN_PORT_AUTO_MOD);
}

/*
 * The two lines that trace a port, each through the log statement `log`
 * (UDP_VVLAN_LOG_INFO, UDP_VVLAN_LOG_DEBUG), so that level, function and line
 * are those of the place that traces: all of the port's state, with the aging
 * time that it counts against, or the flags alone.
 */
#define UDP_VVLAN_PORT_TRACE(log, port)                                                            \
    log("phyid=0x%x vvlan_en=%d  auto=%d  deny_en=%d  mac_aged=%d no_flw=%d "                      \
        "auto_join=%d age_time=%d\n",                                                              \
        (port)->phyid, udp_vvlan_port_has((port), UDP_VVLAN_PORT_VVLAN_EN),                        \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_AUTO_MOD),                                       \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_DENY_EN),                                        \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_MAC_AGED), (port)->no_flw,                       \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_AUTO_JOIN), udp_vvlan_glb.age_time)
#define UDP_VVLAN_PORT_TRACE_FLAGS(log, port)                                                      \
    log("vvlan_en: %d, auto_mod: %d, deny_en: %d, mac_aged: %d, auto_join: %d, phyid: 0x%x,",      \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_VVLAN_EN),                                       \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_AUTO_MOD),                                       \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_DENY_EN),                                        \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_MAC_AGED),                                       \
        udp_vvlan_port_has((port), UDP_VVLAN_PORT_AUTO_JOIN), (port)->phyid)

/* Creates the empty map. Returns 0 always: without memory the map stays NULL. */
int udp_vvlan_port_init(void);

/* The record of `ifx`, or NULL. It is the map's. */
udp_vvlan_port_node *udp_vvlan_port_find(uint32_t ifx);

/*
 * add 1: inserts a copy of `key` with an empty MAC list under key->ifx and
 * returns it; a record that exists is returned as it is; NULL when memory ran
 * out. add 0: deletes and frees the record of key->ifx, if any, whose MAC list
 * must be empty (udp_vvlan_port_clear_mac()), and returns NULL. `key` may be
 * the record itself.
 */
udp_vvlan_port_node *udp_vvlan_port_node_op(const udp_vvlan_port_node *key, uint32_t add);

/*
 * Calls function(port, argument), or function(port), for every record in
 * bucket order until one returns nonzero, and returns that value, or 0. The
 * function may delete the record it was given, and must not add any.
 */
int udp_vvlan_port_foreach(int (*function)(udp_vvlan_port_node *, void *), void *argument);
int udp_vvlan_port_foreach(int (*function)(udp_vvlan_port_node *));

/*
 * Carries out the port's configuration. Does nothing for an enabled port while
 * the voice VLAN is off. Refuses NULL.
 */
int udp_vvlan_port_cfg(udp_vvlan_port_node *port);

/* Takes the port out, for the voice VLAN is switched off. Refuses NULL. */
int udp_vvlan_port_remove_vvlan(udp_vvlan_port_node *port);

/*
 * Joins the port to the voice VLAN (add 1) or takes it out (add 0): join
 * record, membership, trap and ACLs. Returns at the first failure.
 */
int udp_vvlan_port_join_vvlan(udp_vvlan_port_node *port, uint32_t add);

/* Writes (add 1) or deletes (add 0) the trap record. Returns 0 or UDP_VVLAN_E_WRITE. */
int udp_vvlan_port_set_trap(udp_vvlan_port_node *port, uint32_t add);

/*
 * Puts the ACLs that exist on the port, as the mode asks (auto_mod 0 or 1). A
 * port that was joined before a restart stays joined until its configuration
 * has been replayed.
 */
int udp_vvlan_port_aply_acl(udp_vvlan_port_node *port, uint32_t auto_mod);

/*
 * Takes the ACLs that exist off the port. With a security ACL its result alone
 * is returned, so that a port can always be deleted once that ACL is off.
 */
int udp_vvlan_port_unaply_acl(udp_vvlan_port_node *port);

/* Brings an enabled port up to date after an OUI was added. Refuses NULL. */
int udp_vvlan_port_cfg_sec(udp_vvlan_port_node *port);

/*
 * Applies the security ACL to an enabled port. Returns 0 also when that
 * failed, so that a walk reaches every port; an error event tells of it.
 * Refuses NULL.
 */
int udp_vvlan_port_set_sec(udp_vvlan_port_node *port);

/* Removes every voice MAC of the port from its list and the MAC table. Refuses NULL. */
int udp_vvlan_port_clear_mac(udp_vvlan_port_node *port, uint32_t flag);

#endif
