/*
 * udp_vvlan_glb_cfg - the global settings and the voice VLAN's switch.
 *
 * The record udp_vvlan_glb holds the voice VLAN id and whether it is on, the
 * security mode, the aging time and the markings given to voice traffic. It has
 * its defaults from udp_vvlan_glb_cfg_init() on and is overwritten by the
 * configuration as it is read; a resynchronisation does not reset it. Two
 * states look odd but are legal: an id with the switch off (switched on with id
 * 0), and the switch on without an id (the ACLs could not be set up).
 */
#ifndef APP_PROC_UDP_VVLAN_GLB_CFG_H
#define APP_PROC_UDP_VVLAN_GLB_CFG_H

#include <cstdint>

/*
 * Sets the defaults and creates the empty tables: OUIs, ports, MACs, recovery
 * entries. Needs no connection; called once, before anything is read. Returns 0
 * or the result of the first table that failed; later ones are not created.
 */
int udp_vvlan_glb_cfg_init(void);

/*
 * Switches the voice VLAN on with `vid`, which is used as it is, or, when vid
 * is 0, off without touching anything else. Sets up the ACLs first, then their
 * entries, then configures the ports. Returns 0 or what the first port that
 * could not be configured returned; later ports are left alone then.
 */
int udp_vvlan_add_vid(uint32_t vid);

/*
 * Switches the voice VLAN off if `vid` is the current one: takes the ports out
 * first, then the entries, then the ACLs. Another id changes nothing.
 */
void udp_vvlan_del_vid(uint32_t vid);

#endif
