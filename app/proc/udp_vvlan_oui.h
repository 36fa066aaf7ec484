/*
 * udp_vvlan_oui - the OUI table, by which voice devices are recognised.
 *
 * An OUI is a MAC address with a mask. Each entry has an ACE id of its own,
 * under which its entries stand in the cos and the mvlan ACL and its mirror,
 * u_bridge.vvlan_oui_cfg, in the daemon's database; the bridge reads the
 * mirror to know whose frames to report from a trapped port.
 *
 * Why 16 lists: there are at most a few hundred entries, they are found by an
 * exact (mac, mask) pair, and the walk order, bucket by bucket in order of
 * arrival, must be the same on every run. A MAC address is matched by looking
 * up its prefixes, at most 48 of them; the table counts its entries per prefix
 * length, so that lengths no entry has cost nothing.
 *
 * Invariants: an entry lies in the bucket of its (mac, mask); prefix_count[n],
 * n from 1 to 48, is the number of entries whose mask is the prefix mask of
 * length n, and bit n of prefix_present is set exactly when it is not zero.
 *
 * The table itself has no limit, but ACE ids end at 127: further entries get
 * the id 0 and share one ACE, so 127 is the practical bound. udp_vvlan_oui_init()
 * comes before every other function but udp_vvlan_oui_foreach().
 */
#ifndef APP_PROC_UDP_VVLAN_OUI_H
#define APP_PROC_UDP_VVLAN_OUI_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"

/* Makes the table empty. Entries that are still in it are not freed. */
void udp_vvlan_oui_init(void);

/*
 * Creates the empty MAC map. It is made here since the two tables are filled
 * from one another: an address enters it by an entry of this table and goes
 * with it. Returns 0 always: without memory the map stays NULL, and then no
 * MAC is ever in it.
 */
int udp_vvlan_mac_init(void);

/*
 * The entry of exactly this pair, or NULL. `mac` is compared as it was given,
 * also where the mask is zero.
 */
vvlan_oui *udp_vvlan_oui_find(const udp_vvlan_mac_addr *mac, const udp_vvlan_mac_addr *mask);

/*
 * The entry that `mac` belongs to, or NULL: of the entries whose mask is a
 * prefix and whose address has no bit outside it, the one of length 24, else
 * 48, else the longest.
 */
vvlan_oui *udp_vvlan_oui_match(const udp_vvlan_mac_addr *mac);

/* Writes the mask of `length` leading one bits, 0..48, to `out`. */
void udp_vvlan_oui_prefix_mask(uint32_t length, udp_vvlan_mac_addr *out);

/*
 * Adds an entry, mirrors it and programs its ACEs; ports that are configured
 * are then brought up to date. An entry that exists is returned as it is.
 *
 * Returns the entry, owned by the table, or NULL when memory ran out. An entry
 * whose ACEs could not be programmed stays; an error event tells of it.
 */
vvlan_oui *udp_vvlan_oui_add_node(const udp_vvlan_mac_addr *mac, const udp_vvlan_mac_addr *mask);

/*
 * Removes an entry of the table: its ACE id, its ACEs, its mirror, the voice
 * MACs that it matched, and the record itself, which is freed.
 */
void udp_vvlan_oui_del_node(vvlan_oui *node);

/*
 * Programs (add 1) or removes (add 0) the ACEs of every entry. Returns 0, or
 * the first failure, after which no further entry is touched.
 */
int udp_vvlan_oui_set_ace(uint32_t add);

/* Programs the cos ACE of every entry anew, after cos or DSCP has changed. */
void udp_vvlan_oui_set_cos(void);

/* Writes (add 1) or deletes (add 0) an entry's mirror. A failure is logged. */
void udp_vvlan_oui_set_db(const vvlan_oui *node, uint32_t add);

/*
 * Calls function(node, argument) for every entry in table order until one
 * returns nonzero, and returns that value, or 0. The function must not add or
 * delete entries.
 */
int udp_vvlan_oui_foreach(int (*function)(vvlan_oui *, void *), void *argument);

#endif
