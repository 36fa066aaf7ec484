/*
 * udp_vvlan_mac - voice MACs: the bridge's notifications and the MAC table.
 *
 * The daemon learns no addresses itself. It writes a registration,
 * u_bridge.mac_vid_reg, for the voice VLAN, and the bridge then publishes every
 * address it learns there as u_bridge.mac_vid_reg_noti. An address that
 * matches an OUI, on a port in automatic mode, is kept in the MAC table and in
 * the list of its port; a port whose list is not empty does not age.
 *
 * The table is the keyed hash map by the six bytes of the address. Invariant:
 * a record is in the table exactly when its link is in the list of one port.
 * Notifications of addresses that do not fit into memory are dropped; the
 * table is bounded by what the bridge learns.
 */
#ifndef APP_PROC_UDP_VVLAN_MAC_H
#define APP_PROC_UDP_VVLAN_MAC_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"
#include "platform/kt_mom.h"
#include "proto/u_bridge.pb-c.h"

/*
 * Subscribes to (on not 0) or unsubscribes from the notifications of the
 * voice VLAN that is current at the call. Returns the database's result.
 */
int udp_vvlan_mac_subscribe(uint32_t on);

/*
 * Asks for the notifications that exist in the voice VLAN; those of port `ifx`
 * are applied, of all ports when it is 0. Returns the database's result.
 */
int udp_vvlan_mac_scan(uint32_t ifx);

/*
 * The subscription's callback: keeps the registration in the database and
 * hands notifications on. Returns 0 or the database's result.
 */
int udp_vvlan_mac_subscribe_callback(kt_global *global, const kt_mom_msg *msg, void *user);

/*
 * Applies one notification, or the end of a scan. `ifx_filter` is the ifx of
 * the only port of interest, as an integer in a pointer, NULL for all.
 * Returns 0, UDP_VVLAN_E_MESSAGE for a bad message or address,
 * UDP_VVLAN_E_UNEXPECTED for an operation that is neither set nor delete.
 */
int udp_vvlan_event_set_mac_noti(kt_global *global, const kt_mom_msg *msg, void *ifx_filter);

/* Checks a notification of the voice VLAN. Returns 0 or UDP_VVLAN_E_MESSAGE. */
int udp_vvlan_mac_check_noti(const UBridge__MacVidRegNoti *noti);

/* Traces a notification into the log. `operation` is a kt_mom_operation. */
void udp_vvlan_mac_print_noti(uint32_t operation, const UBridge__MacVidRegNoti *noti);

/* Learns (is_set 1) or forgets (0) the notification's address. Returns 0. */
int udp_vvlan_handler_set_mac_noti(uint32_t is_set, const UBridge__MacVidRegNoti *noti);

/*
 * Puts an address on port `ifx`: a new one is added, one that was on another
 * automatic port moves, any other stays where it is. The port counts as having
 * voice flow in every case.
 */
void udp_vvlan_mac_add(const udp_vvlan_mac_addr *mac, uint32_t ifx);

/* As udp_vvlan_mac_remove(), but an address that is not in the table is logged as an error. */
void udp_vvlan_mac_del(const udp_vvlan_mac_addr *mac);

/*
 * Marks a port without voice MACs as joined and silent from now. Returns 0,
 * UDP_VVLAN_NULL_RECORD for NULL.
 */
int udp_vvlan_port_mac(udp_vvlan_port_node *port);

/*
 * Deletes `record` if `oui` matches it. For a walk over the MAC table: returns
 * 0 so that it goes on, UDP_VVLAN_NULL_RECORD for a NULL record.
 */
int udp_vvlan_del_oui_mac(udp_vvlan_mac_node *record, const vvlan_oui *oui);

/* The record whose link in a port's list this is. */
inline udp_vvlan_mac_node *udp_vvlan_mac_node_of(udp_vvlan_link *link)
{
    return reinterpret_cast<udp_vvlan_mac_node *>(reinterpret_cast<char *>(link) -
                                                  offsetof(udp_vvlan_mac_node, link));
}

/* The record of `mac`, or NULL. It is the table's. */
udp_vvlan_mac_node *udp_vvlan_mac_find(const udp_vvlan_mac_addr *mac);

/*
 * The record of `mac`: the existing one, or a new one of port 0 that is in no
 * list. NULL when memory ran out.
 */
udp_vvlan_mac_node *udp_vvlan_mac_insert(const udp_vvlan_mac_addr *mac);

/* Takes the record of `mac`, if any, out of its port's list and the table, and frees it. */
void udp_vvlan_mac_remove(const udp_vvlan_mac_addr *mac);

/*
 * Both in one, as udp_vvlan_port_node_op() has it for ports, whose module uses
 * it. add 1: udp_vvlan_mac_insert(), and takes key->ifx over. add 0:
 * udp_vvlan_mac_remove(), and returns NULL; `key` may be the record.
 */
udp_vvlan_mac_node *udp_vvlan_mac_node_op(const udp_vvlan_mac_node *key, uint32_t add);

/*
 * Calls function(record, argument) in bucket order until one returns nonzero,
 * and returns that value, or 0. The function may delete the record it was
 * given, and must not add any.
 */
int udp_vvlan_mac_foreach(int (*function)(udp_vvlan_mac_node *, void *), void *argument);

#endif
