/*
 * udp_vvlan_handler - applies configuration objects to the daemon's state.
 *
 * The one place where a decoded object changes anything: the global record, the
 * OUI table or the port table, and through these the fast path. Handlers read
 * the object during the call only. A failure is told by the result and one log
 * line; what was done before it stays done.
 *
 * Results: 0; UDP_VVLAN_E_INSERT a port record could not be added;
 * UDP_VVLAN_E_MESSAGE a sub-message is missing; UDP_VVLAN_E_NOT_FOUND the
 * object to delete is not there; UDP_VVLAN_E_WRITE an OUI could not be added or
 * the MAC subscription failed; UDP_VVLAN_E_UNEXPECTED unknown field; otherwise
 * a library's result.
 */
#ifndef APP_PROC_UDP_VVLAN_HANDLER_H
#define APP_PROC_UDP_VVLAN_HANDLER_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"
#include "platform/kt_global.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/s_bridge.pb-c.h"

/*
 * Opens the device map under `name` and registers the packet plug-in with the
 * cluster, whose result does not matter. Before any other handler, once.
 */
int udp_vvlan_handler_init(kt_global *global, const char *name);

/*
 * Applies one field of the global settings; field_tag, a udp_vvlan_glb_field,
 * says which. The operation is not used.
 *
 * No value is checked against a range. age_time, in minutes, keeps its low 16
 * bits, cos and dscp their low 8; switches are on when they are not 0. A cos
 * above 7 or a dscp above 63 is kept in the record, but the fast path refuses
 * an entry that carries it: the previous entry stays in force, and the refusal
 * shows as an info line of the result callbacks only.
 */
int udp_vvlan_handler_set_glb_cfg(uint32_t operation, const PBridge__VvlanGlbCfg *cfg,
                                  uint32_t field_tag);

/*
 * Adds (add 1) or deletes (add 0) an OUI. MAC and mask are the first 6 bytes of
 * their fields. An object that lacks one of them is refused with
 * UDP_VVLAN_E_MESSAGE: a mask taken as zero would make everybody a voice device.
 */
int udp_vvlan_handler_set_oui_cfg(uint32_t add, const PBridge__VvlanOuiCfg *cfg);

/*
 * Configures (add 1) or forgets (add 0) a port. A port that is configured for
 * the first time gets its record here; a record whose ACLs cannot be taken off
 * is not forgotten.
 */
int udp_vvlan_handler_set_port_cfg(uint32_t add, const PBridge__VvlanPortCfg *cfg);

/*
 * Joins the noticed port to the voice VLAN, if it is enabled and in automatic
 * mode; any other port is no error. The operation is not used.
 */
int udp_vvlan_handler_set_port_noti(uint32_t operation, const SBridge__VvlanPortNoty *noti);

#endif
