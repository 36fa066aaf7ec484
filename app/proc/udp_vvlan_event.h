/*
 * udp_vvlan_event - decodes the changes of the configuration objects.
 *
 * One decoder per kind checks the message, reads from its operation whether the
 * object is there or gone, and hands the object to the handler layer with an
 * add flag. Decoders keep no state. The objects stay the library's.
 *
 * The global settings are stored field by field, and each field has its own
 * subscription. A hash set that changes several fields therefore arrives once
 * per field, and each call applies its own only.
 *
 * Results: 0; UDP_VVLAN_E_MESSAGE for a malformed message;
 * UDP_VVLAN_E_UNEXPECTED for an operation that the decoder does not take (a
 * warning, not an error); otherwise what a call that failed returned. A port notice without object
 * is reported and yields 0.
 */
#ifndef APP_PROC_UDP_VVLAN_EVENT_H
#define APP_PROC_UDP_VVLAN_EVENT_H

#include <cstdint>

#include "app/proc/udp_vvlan.h"
#include "platform/kt_mom.h"

/*
 * Whether there is a message and it reports no failure. `where` is the
 * callback that got it, whose log lines the complaints are. Returns 0 or
 * UDP_VVLAN_E_MESSAGE.
 */
int udp_vvlan_event_check(const udp_vvlan_where &where, const kt_mom_msg *msg);

/*
 * The message's object, also where a hash set carries it inside a record; NULL
 * if there is none. For kinds that nobody should hash-set but somebody may.
 */
const ProtobufCMessage *udp_vvlan_event_object(const kt_mom_msg *msg);

/* An OUI (p_bridge.vvlan_oui_cfg) was set or deleted. */
int udp_vvlan_event_set_oui_cfg(kt_global *global, const kt_mom_msg *msg);

/*
 * Fields of p_bridge.vvlan_glb_cfg were set. field_tag, a udp_vvlan_glb_field,
 * is the one that this subscription is for. Operations other than a hash set are taken and
 * change nothing.
 */
int udp_vvlan_event_set_glb_cfg(kt_global *global, const kt_mom_msg *msg, uint32_t field_tag);

/*
 * A port's configuration (p_bridge.vvlan_port_cfg) was set or deleted. For a
 * port in automatic mode the membership and the join record are first kept
 * from expiring; when a call for that fails at first, its last repeat's result
 * is returned, 0 included, and the configuration is not applied.
 */
int udp_vvlan_event_set_port_cfg(kt_global *global, const kt_mom_msg *msg);

/* The bridge saw a voice device on a trapped port (s_bridge.vvlan_port_noty). */
int udp_vvlan_event_set_port_noti(kt_global *global, const kt_mom_msg *msg);

#endif
