/*
 * kt_mom - client of the shared object database (MOM).
 *
 * Objects are protobuf messages. An object is addressed by database id, full
 * message name and key. The key is the message's `index` sub-message (field 5,
 * key role 2); within it the fields of role 1 or 33 are the key fields, in
 * field order. A message without `index` is one single, unkeyed object. The
 * library learns the roles from data generated from the .proto files.
 *
 * Templates and match flags, one rule for subscribe, unsubscribe, scan,
 * section and owner-delete: a template whose key fields are all zero or empty
 * selects every object of its kind. Otherwise flag 0 selects the object whose
 * key is equal, and flag 2 every object whose key is equal in those key fields
 * that the template has not zero or empty.
 *
 * Requests on one connection take effect in the order in which they were made,
 * and the scans of one connection run one after another: a later scan's first
 * object comes after the earlier one's scan-over. Callbacks run from the event
 * loop, never inside the call that asked for them, but for kt_mom_scan_sync().
 * What a change or scan callback returns goes to the library's statistics and
 * log; it never stops the delivery of later messages.
 *
 * Life of a subscription. Once it is in place its callback gets operation 29
 * (resynchronise) and then a message with scan state 2, and from then on the
 * changes in the order in which they were made. The owner answers by scanning.
 * The connection is kept up by the library: when it is lost the disconnect
 * callback is called, when it is back the reconnect callback with a type. Type
 * 2 means the same database instance; every subscription that stands then gets
 * 29 and scan state 2 again, and one that the program makes anew meanwhile
 * (same database, kind, callback and user data: it replaces the old one) gets
 * them once. Scans of that kind that the old one's callback and user data were
 * waiting for end without a word: their scan-over would be taken for the end of
 * the new one's. Objects that were deleted while the connection was down reach the
 * subscription's callback as operation 3 after the scan that
 * follows the resynchronise. Type 1 means another instance, which may hold
 * other data. Scan state 4 asks for a new scan: the library's queue ran over
 * and it lost changes; a queue is bounded.
 *
 * A deletion carries the object as it was last stored; its receiver may need
 * more of it than the key.
 *
 * Sections remove what a program no longer wants without a gap. Begin marks
 * every object that matches as pending expiry, except those that the calling
 * process has itself written since it started; setting an object, or
 * kt_mom_clear_expire(), takes its mark off; end deletes what is still marked
 * and its subscribers get operation 3. `expire` is the safety limit in seconds
 * after which marked objects go even if the section is never ended. A failed
 * begin or end is told by the result or, where a callback was given, by a
 * message with `error`. An owner section (_ow) covers the owner objects of the
 * calling process, those it wrote itself included: each of them must be
 * written again.
 *
 * Every call returns 0 or a negative errno value: -ENOTCONN when the database
 * is not connected, -ENOENT for an id that does not exist, -EINVAL for a
 * message without the key it needs, -ENOMEM, -ENOSPC for a full table, -EIO when the
 * database answers with a refusal, -ENOBUFS when too many requests of the caller wait for
 * their answer (to be repeated when the loop has turned). A write that returned 0 is in the
 * database, or the connection is reported lost. Templates and objects are read during the call
 * only.
 */
#ifndef PLATFORM_KT_MOM_H
#define PLATFORM_KT_MOM_H

#include <protobuf-c/protobuf-c.h>
#include <stdint.h>

#include "platform/kt_global.h"

#ifdef __cplusplus
extern "C" {
#endif

enum kt_mom_operation {
    KT_MOM_NONE = 0,
    KT_MOM_SET = 1,
    KT_MOM_DEL = 3,
    KT_MOM_HSET = 4,
    KT_MOM_PUBLISH = 24,
    KT_MOM_UNSUBSCRIBED = 28, /* the last message of a subscription */
    KT_MOM_RESYNC = 29
};

enum kt_mom_scan_state {
    KT_MOM_CHANGE = 0,       /* a change, or an object of a scan */
    KT_MOM_SCAN_OVER = 1,    /* a scan has ended */
    KT_MOM_SCAN_START = 2,   /* the subscription is in place: scan now */
    KT_MOM_SECTION_NOTE = 3, /* a notice about a section */
    KT_MOM_SCAN_AGAIN = 4    /* changes were lost: scan again */
};

enum kt_mom_match { KT_MOM_MATCH_EXACT = 0, KT_MOM_MATCH_PARTIAL = 2 };

enum kt_mom_reconnect { KT_MOM_RECONNECT_OTHER = 1, KT_MOM_RECONNECT_SAME = 2 };

/* What a hash set carries in place of the plain object. */
typedef struct kt_mom_hash {
    const ProtobufCMessage *object; /* the whole object after the change */
    const uint32_t *fields;         /* numbers of the fields that were set */
    uint32_t count;                 /* how many */
    uint32_t reserved[2];
    int32_t error; /* nonzero when the hash set failed */
} kt_mom_hash;

/*
 * What every callback receives. Operation 29 and the scan states 1 to 4 come
 * in messages of their own; they carry no object and, but for 29, operation 0.
 */
typedef struct kt_mom_msg {
    uint32_t operation; /* kt_mom_operation */
    /*
     * The decoded object (const ProtobufCMessage *), for KT_MOM_HSET the
     * const kt_mom_hash *, or NULL. Owned by the library, valid during the
     * call.
     */
    const void *object;
    uint32_t scan_state; /* kt_mom_scan_state */
    int32_t error;       /* nonzero when the library reports a failure */
} kt_mom_msg;

typedef int (*kt_mom_callback)(kt_global *global, const kt_mom_msg *msg, void *user);
typedef int (*kt_mom_connect_callback)(kt_global *global, void *user);
typedef int (*kt_mom_disconnect_callback)(kt_global *global, uint32_t db);
typedef int (*kt_mom_reconnect_callback)(kt_global *global, uint32_t db, int type);

/*
 * Connections. connect_sync opens the connection that the synchronous calls
 * use and returns when it is up or has failed; connect opens the one for
 * everything else and calls `callback` with `user` from the loop once it is
 * up. The other two hook what is called when it is lost and when it is back.
 */
int kt_mom_client_connect_sync(kt_global *global, uint32_t db);
int kt_mom_client_connect(kt_global *global, uint32_t db, kt_mom_connect_callback callback,
                          void *user);
int kt_mom_client_set_disconnect_cb(kt_global *global, uint32_t db,
                                    kt_mom_disconnect_callback callback);
int kt_mom_client_set_reconnect_cb(kt_global *global, uint32_t db,
                                   kt_mom_reconnect_callback callback);

/*
 * Subscriptions; match is a kt_mom_match. `user` is handed to the callback as
 * it is. A second subscription with the same database, kind, callback and user
 * data replaces the first, whatever their templates are.
 */
int kt_mom_subscribe(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                     uint32_t match, kt_mom_callback callback, void *user);

/*
 * Field subscription of an object that is stored field by field: `count`
 * triples (tag, callback, user data), each a subscription of its own; the tag
 * tells it from another one, as the callback does. Each gets its own 29 and scan state 2, and every
 * hash set of the object, whichever fields it changed; the hash record lists them.
 */
int kt_mom_subscribe_field(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                           uint32_t match, const uint32_t *tags, const kt_mom_callback *callbacks,
                           void *const *users, uint32_t count);

/*
 * Ends every subscription whose template the key selects and whose callback
 * and user data are the given ones; each gets operation 28 as its last
 * message.
 */
int kt_mom_unsubscribe(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                       kt_mom_callback callback, void *user);

/*
 * Delivers every object that matches when the scan runs: operation 1 (for an
 * object stored field by field: operation 4, all stored fields listed), scan
 * state 0; then one message with scan state 1 and no object.
 */
int kt_mom_scan(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                uint32_t match, kt_mom_callback callback, void *user);

/* The same inside the call and without the last message: returning is the end. */
int kt_mom_scan_sync(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                     uint32_t match, kt_mom_callback callback, void *user);

/*
 * Writes. flag is 0. For kt_mom_set(), expire is the object's life in seconds,
 * 0 for ever; for the others it is 0. Deleting, or clearing the mark of, what
 * does not exist is 0. kt_mom_clear_expire() takes the pending-expiry mark of
 * a section off and leaves the object as it is.
 */
int kt_mom_set(kt_global *global, uint32_t db, const ProtobufCMessage *object, uint32_t flag,
               uint64_t expire);
int kt_mom_del(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t flag,
               uint64_t expire);
int kt_mom_clear_expire(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t flag,
                        uint64_t expire);

/*
 * Fetches one object. status, if not NULL, gets 0 or a negative errno value.
 * Returns the object, to be freed with kt_mom_kt_obj_free(), or NULL: when there
 * is none, status is 0 then, or when it could not be asked for. Freeing NULL does
 * nothing.
 */
ProtobufCMessage *kt_mom_get_sync(kt_global *global, uint32_t db, const ProtobufCMessage *key,
                                  int *status);
void kt_mom_kt_obj_free(ProtobufCMessage *object);

/*
 * Owner writes. The object carries the writer's lease and is deleted when the
 * writer is gone: its process ended, or it was silent for longer than the
 * lease. wait is how long the call may take, in milliseconds.
 * kt_mom_del_ow() deletes every owner object of the caller that the key
 * selects.
 */
int kt_mom_setow(kt_global *global, uint32_t db, const ProtobufCMessage *object, uint32_t flag,
                 uint64_t expire, uint64_t wait);
int kt_mom_del_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t flag,
                  uint64_t expire, uint64_t wait);

/*
 * Sections. match as above, expire in seconds. kt_mom_dsbegin_sync() has
 * marked when it returns, the others before any later call on that connection
 * takes effect. The callback, if not NULL, is told of a failure; that of
 * kt_mom_dsend() gets NULL as user data.
 */
int kt_mom_dsbegin_sync(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                        uint64_t expire);
int kt_mom_dsbegin(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                   uint64_t expire, kt_mom_callback callback, void *user);
int kt_mom_dsend(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                 kt_mom_callback callback);
int kt_mom_dsbegin_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                      uint64_t expire, kt_mom_callback callback, void *user, uint64_t wait);
int kt_mom_dsend_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                    kt_mom_callback callback, void *user, uint64_t wait);

#ifdef __cplusplus
}
#endif

#endif
