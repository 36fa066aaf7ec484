/*
 * udp_vvlan_recover - the join-recovery table.
 *
 * Which ports are joined is kept outside the process, as one join record,
 * u_bridge.vvlan_join, a port in the daemon's database; the join records
 * outlive the process. (They tell nobody else; what makes a port a member of
 * the voice VLAN is its membership, see udp_vvlan_port.) They are read back at start and after each
 * reconnection into a table, keyed by ifx, which says of a port whether it was
 * joined before; such a port keeps its treatment while its configuration is
 * replayed. The table is a set: its records carry the key only.
 *
 * An entry exists for every join record at the last scan, plus the ports joined
 * and minus those taken out since. Entries that do not fit into memory are
 * refused: such a port is trapped at the restart instead of kept.
 */
#ifndef APP_PROC_UDP_VVLAN_RECOVER_H
#define APP_PROC_UDP_VVLAN_RECOVER_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"
#include "platform/kt_mom.h"
#include "proto/u_bridge.pb-c.h"

/* The join record of a port as a message, with the index that it points at. */
struct udp_vvlan_join_record {
    UBridge__VvlanJoin object;
    UBridge__VvlanIndex index;
};

/*
 * Makes it the record of `ifx`, or with 0 the template of all records. Returns
 * the message, which lives as long as `record`.
 */
const ProtobufCMessage *udp_vvlan_join_record_init(udp_vvlan_join_record *record, uint32_t ifx);

/* Creates the empty table, unless there is one. Returns 0 or, without memory, UDP_VVLAN_E_INSERT.
 */
int udp_vvlan_recover_init(void);

/*
 * Writes (is_set not 0) or deletes the join record of `ifx`. Returns 0 or the
 * database's result. A failing call is made again, see udp_vvlan_call_again().
 */
int udp_vvlan_set_vvlan_join(uint32_t is_set, uint32_t ifx);

/* Reads every join record into the table before it returns. Returns the scan's result. */
int udp_vvlan_recover_ds_init(kt_global *global);

/*
 * Takes one join record of that scan over. Returns 0, UDP_VVLAN_E_MESSAGE for a bad
 * message, UDP_VVLAN_E_RECOVER when memory ran out, UDP_VVLAN_E_UNEXPECTED for
 * an operation that is neither set nor delete.
 */
int udp_vvlan_recover_vvlan_cfg(kt_global *global, const kt_mom_msg *msg, void *user);

/* Removes and frees every entry. */
void udp_vvlan_recover_db_clear(void);

/* The entry of `ifx`, or NULL. */
udp_vvlan_recover_entry *udp_vvlan_recover_find(uint32_t ifx);

/* The entry of `ifx`, new if there was none, or NULL when memory ran out. */
udp_vvlan_recover_entry *udp_vvlan_recover_add(uint32_t ifx);

/* Deletes and frees the entry of `ifx`, if any. */
void udp_vvlan_recover_del(uint32_t ifx);

/*
 * Calls function(entry, argument) in bucket order until one returns nonzero,
 * and returns that value, or 0. The function may delete the entry it was
 * given, and must not add any.
 */
int udp_vvlan_recover_foreach(int (*function)(udp_vvlan_recover_entry *, void *), void *argument);

#endif
