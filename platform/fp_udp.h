/*
 * fp_udp - the fast-path ACL library.
 *
 * An ACL is a named set of entries (ACEs) of one application type; it acts on
 * the ports it is applied to. All programming is asynchronous: an operation
 * returns at once, and its result comes later, from the event loop, through
 * the registered result callbacks, in the order of the calls. What an
 * operation returns says only whether the request was taken; one that was
 * refused at once is told to the failed-callback, too, in its turn. What a
 * callback returns is for the library's statistics.
 *
 * Rules that a program may rely on:
 *  - Adding an ACE or an application that exists replaces it. Deleting what is
 *    absent succeeds.
 *  - Destroying an ACL that still has entries or applications takes effect
 *    when the last of them goes; creating it again before then cancels the
 *    destroy.
 *  - Sync. What a former life of the process left programmed stays in force,
 *    unchanged, from the sync-begin of its app type and kind (ACLs, ACEs,
 *    applications) until the matching sync-end, even where the new life
 *    programs the same id with other contents; then whatever was not
 *    programmed again is removed. A restart opens no gap in the treatment of
 *    traffic.
 *
 * ACE fields, by name. Integers are in host byte order.
 *    "src_mac"    match,  12 bytes: MAC, mask
 *    "vid"        match,   4 bytes: 16-bit VLAN id, 16-bit mask
 *    "vlan_form"  match,   2 bytes: form, mask; form 0 with mask 3 is untagged
 *    "cos"        action,  6 bytes: 32-bit 802.1p priority, 16-bit 0; re-marks
 *    "ipv4_dscp"  action,  6 bytes: 32-bit DSCP, 16-bit 0; re-marks
 *    "prio_in"    action,  6 bytes: 32-bit internal priority, 16-bit 0
 *    "add_tag"    action,  4 bytes: 32-bit VLAN id; tags the frame
 *    "fwd"        action,  1 byte: 0 drops
 *
 * Every structure here has the same layout on every platform; the assertions
 * below hold it.
 */
#ifndef PLATFORM_FP_UDP_H
#define PLATFORM_FP_UDP_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "platform/kt_global.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { FP_UDP_APP_TYPE_SIZE = 32, FP_UDP_FIELD_NAME_SIZE = 16, FP_UDP_FIELD_VALUE_SIZE = 16 };

enum fp_udp_field_kind { FP_UDP_FIELD_MATCH = 1, FP_UDP_FIELD_ACTION = 2 };

/* Names one ACL. */
typedef struct fp_udp_acl {
    char app_type[FP_UDP_APP_TYPE_SIZE]; /* zero-padded */
    uint32_t acl_id;
    uint8_t acl_kind;
    uint8_t pad[3];       /* zero */
    uint8_t reserved[32]; /* zero */
} fp_udp_acl;

static_assert(sizeof(fp_udp_acl) == 72, "ACL descriptor");
static_assert(offsetof(fp_udp_acl, acl_id) == 32, "ACL descriptor: id");
static_assert(offsetof(fp_udp_acl, acl_kind) == 36, "ACL descriptor: kind");
static_assert(offsetof(fp_udp_acl, reserved) == 40, "ACL descriptor: reserved");

/* Names one application of an ACL to a physical port. */
typedef struct fp_udp_apply_desc {
    char app_type[FP_UDP_APP_TYPE_SIZE]; /* zero-padded */
    uint32_t phyid;
    uint32_t apply_flag;
    uint32_t reserved; /* zero */
} fp_udp_apply_desc;

static_assert(sizeof(fp_udp_apply_desc) == 44, "apply descriptor");
static_assert(offsetof(fp_udp_apply_desc, phyid) == 32, "apply descriptor: port");
static_assert(offsetof(fp_udp_apply_desc, apply_flag) == 36, "apply descriptor: flag");

/* One match key or action, passed by value. */
typedef struct fp_udp_field {
    char name[FP_UDP_FIELD_NAME_SIZE]; /* zero-padded */
    uint32_t kind;                     /* fp_udp_field_kind */
    uint32_t length;                   /* bytes used of value */
    uint8_t value[FP_UDP_FIELD_VALUE_SIZE];
} fp_udp_field;

typedef struct fp_udp_field_list fp_udp_field_list;

/* The field list of an ACE, with its two operations. A list takes at least eight fields. */
struct fp_udp_field_list {
    /*
     * Builds one field. name, value: copied; length at most
     * FP_UDP_FIELD_VALUE_SIZE (a longer value gives a field of length 0, which
     * field_append refuses).
     */
    fp_udp_field (*field_make)(const char *name, uint32_t kind, const void *value, uint32_t length);
    /* Appends it. Returns 0, -EINVAL for a bad field, -ENOSPC when the list is full. */
    int (*field_append)(fp_udp_field_list *list, fp_udp_field field);
};

/* An entry under construction. What follows the list is the library's. */
typedef struct fp_udp_ace {
    fp_udp_field_list *fields;
} fp_udp_ace;

/* An application under construction, opaque. */
typedef struct fp_udp_apply fp_udp_apply;

/*
 * Result callbacks, in slot order. `context` is the library's. The descriptors
 * are valid during the call. `error` is a negative errno value.
 */
typedef struct fp_udp_acl_handler {
    int (*acl_success)(void *context, const fp_udp_acl *acl);
    int (*acl_failed)(void *context, const fp_udp_acl *acl, int error);
    int (*ace_success)(void *context, const fp_udp_acl *acl, uint64_t ace_id);
    int (*ace_failed)(void *context, const fp_udp_acl *acl, uint64_t ace_id, int error);
    int (*apply_success)(void *context, const fp_udp_acl *acl, const fp_udp_apply_desc *apply);
    int (*apply_failed)(void *context, const fp_udp_acl *acl, const fp_udp_apply_desc *apply,
                        int error);
    void (*unused[2])(void); /* NULL */
} fp_udp_acl_handler;

static_assert(sizeof(fp_udp_acl_handler) == 8 * sizeof(void *), "eight callback slots");

/*
 * The operations. Unless said otherwise each returns 0 when the request was
 * taken or a negative errno value when it was refused at once (-EINVAL for a
 * bad descriptor, -ENOSPC for a full queue or table). Descriptors are copied.
 * `app_type` is NUL-terminated, at most FP_UDP_APP_TYPE_SIZE - 1 bytes. An ACE
 * id is any 64-bit number. `acl_kind` of apply_add repeats the descriptor's.
 */
typedef struct fp_udp_mgr_ops {
    int (*acl_create)(kt_global *global, const fp_udp_acl *acl);    /* slot 0 */
    int (*acl_destroy)(kt_global *global, const fp_udp_acl *acl);   /* slot 1 */
    int (*acl_sync_begin)(kt_global *global, const char *app_type); /* slot 2 */
    int (*acl_sync_end)(kt_global *global, const char *app_type);   /* slot 3 */
    void (*slot4)(void);                                            /* not called */
    void (*slot5)(void);                                            /* not called */
    int (*ace_add)(kt_global *global, const fp_udp_acl *acl, const fp_udp_ace *ace); /* slot 6 */
    int (*ace_del)(kt_global *global, const fp_udp_acl *acl, uint64_t ace_id);       /* slot 7 */
    int (*ace_sync_begin)(kt_global *global, const char *app_type);                  /* slot 8 */
    int (*ace_sync_end)(kt_global *global, const char *app_type);                    /* slot 9 */
    /* A new, empty entry owned by the caller until ace_free(), or NULL. flag: 0. */
    fp_udp_ace *(*ace_alloc)(uint64_t ace_id, uint32_t flag); /* slot 10 */
    void (*ace_free)(fp_udp_ace *ace);                        /* slot 11 */
    void (*slot12)(void);                                     /* not called */
    void (*slot13)(void);                                     /* not called */
    int (*apply_add)(kt_global *global, const fp_udp_acl *acl, uint8_t acl_kind,
                     const fp_udp_apply *apply); /* slot 14 */
    int (*apply_del)(kt_global *global, const fp_udp_acl *acl,
                     const fp_udp_apply_desc *apply);                 /* slot 15 */
    int (*apply_sync_begin)(kt_global *global, const char *app_type); /* slot 16 */
    int (*apply_sync_end)(kt_global *global, const char *app_type);   /* slot 17 */
    /* A new application owned by the caller until apply_free(), or NULL. */
    fp_udp_apply *(*apply_alloc)(const fp_udp_apply_desc *apply); /* slot 18 */
    void (*apply_free)(fp_udp_apply *apply);                      /* slot 19 */
} fp_udp_mgr_ops;

static_assert(sizeof(fp_udp_mgr_ops) == 20 * sizeof(void *), "twenty operation slots");
static_assert(offsetof(fp_udp_mgr_ops, ace_add) == 6 * sizeof(void *), "slot 6");
static_assert(offsetof(fp_udp_mgr_ops, apply_add) == 14 * sizeof(void *), "slot 14");
static_assert(offsetof(fp_udp_mgr_ops, apply_free) == 19 * sizeof(void *), "slot 19");

/*
 * Registers the result callbacks. `db` is the database that the library keeps
 * its own records in; `handler` must outlive the process's use of the library.
 * Returns 0 or a negative errno value.
 */
int fp_udp_register_acl_handler(kt_global *global, uint32_t db, const fp_udp_acl_handler *handler);

/* Lets the library hold requests back while the hardware is congested. */
int fp_udp_cgst_register(kt_global *global, uint32_t db, const char *module);

/* The manager, owned by the library and valid until the process ends, or NULL. */
const fp_udp_mgr_ops *fp_udp_get_mgr(void);

#ifdef __cplusplus
}
#endif

#endif
