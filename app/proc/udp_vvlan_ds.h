/*
 * udp_vvlan_ds - subscriptions, initial scans and stale-entry sections.
 *
 * Four kinds of configuration object are subscribed to: OUIs, the global
 * settings (one subscription per field), ports, and the bridge's port notices.
 * One callback serves them all. What differs per kind stands in a table of
 * constant entries, and the entry is the subscription's user data: which
 * handler resynchronises, which one scans again, which one ends a scan and
 * which one takes a change.
 *
 * The cycle of a kind is: subscribed, resynchronise (ports and OUIs: begin the
 * sections over the daemon's own objects, which marks them as stale until they
 * are written again), scan, its objects as changes, scan over (end the
 * sections, which deletes what is still stale; set the kind's scan-over flag),
 * then changes. When all four flags are set the fast path's first
 * synchronisation is over.
 *
 * The module holds no state and allocates nothing. A section that is never
 * ended ends by itself after UDP_VVLAN_SECTION_EXPIRE seconds.
 */
#ifndef APP_PROC_UDP_VVLAN_DS_H
#define APP_PROC_UDP_VVLAN_DS_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"
#include "platform/kt_mom.h"

struct udp_vvlan_ds_entry;

/* Results of all handlers: 0 or what the database library or a decoder returned. */
typedef int (*udp_vvlan_ds_handler)(kt_global *global, const kt_mom_msg *msg,
                                    const udp_vvlan_ds_entry *entry);
typedef int (*udp_vvlan_ds_change)(kt_global *global, const kt_mom_msg *msg, uint32_t field_tag);

/* How one subscription is served. */
struct udp_vvlan_ds_entry {
    udp_vvlan_ds_handler resync;    /* operation 29 */
    udp_vvlan_ds_handler rescan;    /* scan state 2 or 4 */
    udp_vvlan_ds_handler scan_over; /* scan state 1 */
    udp_vvlan_ds_change change;     /* everything else */
    uint32_t field_tag;             /* udp_vvlan_glb_field, 0 for the other kinds */
};

enum udp_vvlan_ds_entry_id {
    UDP_VVLAN_DS_OUI_CFG,
    UDP_VVLAN_DS_PORT_CFG,
    UDP_VVLAN_DS_GLB_SWITCH,
    UDP_VVLAN_DS_GLB_SECU_MODE,
    UDP_VVLAN_DS_GLB_AGE_TIME,
    UDP_VVLAN_DS_GLB_QOS,
    UDP_VVLAN_DS_PORT_NOTI,
    UDP_VVLAN_DS_ENTRY_COUNT
};

extern const udp_vvlan_ds_entry udp_vvlan_ds_table[UDP_VVLAN_DS_ENTRY_COUNT];

/*
 * Makes the four subscriptions, in the order OUIs, global settings, ports, port
 * notices. The name is not used. Returns 0, or the result of the first
 * subscription that failed; later ones are not made then.
 */
int udp_vvlan_ds_init(kt_global *global, const char *app_name);

/*
 * The callback of every subscription, scan and section of this module. `entry`
 * is a const udp_vvlan_ds_entry *. Returns UDP_VVLAN_E_ARGUMENT without an entry and at
 * the end of a scan that carries no object, otherwise what the entry's handler returned.
 */
int udp_vvlan_ds_callback(kt_global *global, const kt_mom_msg *msg, void *entry);

/* Start a scan of one kind; the objects come to udp_vvlan_ds_callback with `entry`. */
int udp_vvlan_ds_scan_oui_cfg(kt_global *global, const kt_mom_msg *msg,
                              const udp_vvlan_ds_entry *entry);
int udp_vvlan_ds_scan_glb_cfg(kt_global *global, const kt_mom_msg *msg,
                              const udp_vvlan_ds_entry *entry);
int udp_vvlan_ds_scan_port_cfg(kt_global *global, const kt_mom_msg *msg,
                               const udp_vvlan_ds_entry *entry);
int udp_vvlan_ds_scan_port_noti(kt_global *global, const kt_mom_msg *msg,
                                const udp_vvlan_ds_entry *entry);

/*
 * Begin the sections over the objects that the daemon derives from the port and
 * the OUI configuration. The port's three are begun in turn, and the first
 * that fails leaves the later ones out. Return 0; failures are logged.
 */
int udp_vvlan_ds_pexpire_port_cfg(kt_global *global);
int udp_vvlan_ds_pexpire_oui_cfg(kt_global *global);

/*
 * End them, in the same order. When every one could be ended, set the kind's
 * scan-over flag and let the fast path know. Return 0; failures are logged.
 */
int udp_vvlan_ds_del_pexpire_port_cfg(kt_global *global);
int udp_vvlan_ds_del_pexpire_oui_cfg(kt_global *global);

#endif
