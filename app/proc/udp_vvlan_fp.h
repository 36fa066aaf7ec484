/*
 * udp_vvlan_fp - the three ACLs, their entries and their ports.
 *
 *   cos    "vvlan_secu_pas_app"   an entry per OUI: voice-VLAN traffic of a
 *                                 voice device gets the configured cos and DSCP
 *   mvlan  "mac_vlan_app"         an entry per OUI: untagged traffic of a voice
 *                                 device gets the voice VLAN's tag
 *   sec    "vvlan_secu_deny_app"  one entry: other voice-VLAN traffic is
 *                                 re-marked, or dropped in security mode
 *
 * What differs between the three stands in one table; one function each
 * creates, fills and applies an ACL, and the functions below name the ACL.
 * Programming is asynchronous: an operation of the library is taken or not,
 * its outcome is only logged when it comes back through the callbacks.
 *
 * Before any work the manager must have been obtained (udp_vvlan_fp_init());
 * without one the functions keep their records and results, as if the library
 * had taken nothing: an entry or application cannot be allocated then.
 *
 * `add` is 1 to create, add or apply and 0 to destroy, remove or unapply.
 *
 * ACE ids are a bitmap of 127; when all are taken the id 0 is given out.
 */
#ifndef APP_PROC_UDP_VVLAN_FP_H
#define APP_PROC_UDP_VVLAN_FP_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"

/*
 * Registers with the library under `module_name` and begins the sync of the
 * three ACLs. Returns 0, the library's result, or UDP_VVLAN_E_NO_CONTEXT when
 * there is no manager. Once per process.
 */
int udp_vvlan_fp_init(kt_global *global, const char *module_name);

/* The result callbacks, in the library's slot order. */
extern const fp_udp_acl_handler udp_vvlan_fp_cb;

int udp_vvlan_fp_cb_acl_success(void *context, const fp_udp_acl *acl);
int udp_vvlan_fp_cb_acl_failed(void *context, const fp_udp_acl *acl, int error);
int udp_vvlan_fp_cb_ace_success(void *context, const fp_udp_acl *acl, uint64_t ace_id);
int udp_vvlan_fp_cb_ace_failed(void *context, const fp_udp_acl *acl, uint64_t ace_id, int error);
int udp_vvlan_fp_cb_apply_success(void *context, const fp_udp_acl *acl,
                                  const fp_udp_apply_desc *apply);
int udp_vvlan_fp_cb_apply_failed(void *context, const fp_udp_acl *acl,
                                 const fp_udp_apply_desc *apply, int error);

/* Create or destroy an ACL, whether it exists or not. */
void udp_vvlan_set_cos_acl(vvlan_acl *record, uint32_t add);
void udp_vvlan_set_mvlan_acl(vvlan_acl *record, uint32_t add);
void udp_vvlan_set_sec_acl(vvlan_acl *record, uint32_t add);

/*
 * The same, only when the record's `created` differs from `add`. Return 0:
 * ensuring cannot fail today, since creating is asynchronous and its result
 * only logged. The results are looked at below as if it could.
 */
int udp_vvlan_ensure_cos_acl(vvlan_acl *record, uint32_t add);
int udp_vvlan_ensure_mvlan_acl(vvlan_acl *record, uint32_t add);
int udp_vvlan_ensure_sec_acl(vvlan_acl *record, uint32_t add);

/* Ensures all three; a failure of the cos ACL ends it. Returns the last result. */
int udp_vvlan_set_acl_exec(uint32_t add);

/* The same; a failure clears the global voice VLAN id and is returned. */
int udp_vvlan_set_acl(uint32_t add);

/* Programs every ACE of the three ACLs. A failure is told by an error event. */
void udp_vvlan_set_ace(uint32_t add);

/*
 * Ends the sync of the three ACLs once all four initial scans are over; does
 * nothing before.
 */
void udp_vvlan_fp_sync_end(kt_global *global);

/* The lowest free ACE id, 1..127, now taken; 0 when there is none. */
uint32_t udp_vvlan_alloc_ace_id(void);

/* Gives an ACE id back; one that is not taken is ignored. */
void udp_vvlan_free_ace_id(uint32_t id);

/*
 * Program or remove one entry. The ACL is ensured first with the same `add`:
 * adding creates it, removing destroys the whole ACL when it exists. Return 0,
 * or UDP_VVLAN_E_INSERT when the library gives no entry.
 */
int udp_vvlan_set_cos_ace(vvlan_acl *record, const vvlan_oui *node, uint32_t add);
int udp_vvlan_set_mvlan_ace(vvlan_acl *record, const vvlan_oui *node, uint32_t add);
int udp_vvlan_set_sec_ace(vvlan_acl *record, uint32_t add);

/*
 * Apply an ACL to a physical port or take it off. Return 0, or
 * UDP_VVLAN_E_INSERT when the library gives no application. Applying the sec
 * ACL does nothing while the voice VLAN is off.
 */
int udp_vvlan_apply_cos_acl(vvlan_acl *record, uint32_t phyid, uint32_t add);
int udp_vvlan_apply_mvlan_acl(vvlan_acl *record, uint32_t phyid, uint32_t add);
int udp_vvlan_apply_sec_acl(vvlan_acl *record, uint32_t phyid, uint32_t add);

#endif
