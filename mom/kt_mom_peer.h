/*
 * kt_mom_peer - what other programs do with the object database.
 *
 * The daemon only subscribes, scans, sets and deletes. A management plane, a
 * bridge, a test or a tool also sets single fields of an object, publishes
 * objects that are not stored, and watches a whole database. These calls stand
 * here, beside the client library, and are implemented by the same platform.
 * They follow the rules of platform/kt_mom.h: negative errno results, messages
 * read during the call only.
 */
#ifndef MOM_KT_MOM_PEER_H
#define MOM_KT_MOM_PEER_H

#include "platform/kt_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Sets some fields of an object that is stored field by field; the others keep
 * their values. `object` holds the new values, `fields` the numbers of the
 * fields to take from it. Subscribers get KT_MOM_HSET.
 */
int kt_mom_hset(kt_global *global, uint32_t db, const ProtobufCMessage *object,
                const uint32_t *fields, uint32_t count);

/*
 * The same for two who write at once: only while these fields are still as in `before`,
 * a message of the same kind; where the object does not exist they count as absent. Has
 * taken effect when it returns. Returns -ESTALE, and writes nothing, when they are not.
 */
int kt_mom_hset_if_sync(kt_global *global, uint32_t db, const ProtobufCMessage *before,
                        const ProtobufCMessage *object, const uint32_t *fields, uint32_t count);

/* Sends the object to its subscribers as KT_MOM_PUBLISH; nothing is stored. */
int kt_mom_publish(kt_global *global, uint32_t db, const ProtobufCMessage *object);

/*
 * Calls `callback` for every change that any client makes in a database: the
 * operation, the object (for KT_MOM_HSET the kt_mom_hash), scan state 0. One
 * watcher per (database, callback, user data). Watching is passive: no
 * operation 29, no scans. So nobody tells of changes that were made while the
 * connection was lost, nor of those that a platform dropped because the watcher
 * fell behind. After a reconnect of type 2 the watcher stands; after type 1 it is
 * to be made again.
 */
int kt_mom_watch(kt_global *global, uint32_t db, kt_mom_callback callback, void *user);

#ifdef __cplusplus
}
#endif

#endif
