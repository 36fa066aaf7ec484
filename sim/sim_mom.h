/*
 * sim_mom - the object database in memory.
 *
 * Implements platform/kt_mom.h and mom/kt_mom_peer.h for two clients: the
 * simulated process, and one peer that stands for everything else that writes
 * (bridge, management plane). Databases 0, 4, 6 and 8 exist; any other id is
 * -ENOENT. The functions below are what a test or a scenario does to the
 * database from outside.
 *
 * Only what the process calls is announced to sim_call, and only it meets
 * planned faults; the peer's calls are part of the scenery. Every message is
 * delivered in a loop job of its own, in the order of the requests and
 * changes, so that anything can happen between any two. A scan walks its kind
 * in key order, one object a job, and delivers the objects as they are stored
 * when it reaches them: a write that the program makes while its scan waits is
 * seen by that scan. A deletion carries the object as it was last stored. A
 * program whose connection stays lost for MOM_LEASE counts as gone: its owner
 * objects in that database are deleted.
 *
 * Limits: 1,048,576 objects a database, 4,096 subscriptions and 65,536 waiting
 * scans a client and database (-ENOSPC beyond); changes waiting for one
 * subscription, 65,536 unless mom_queue_limit() says otherwise. When that
 * queue is full its changes are dropped until it has drained; the subscription
 * then gets scan state 4, and the deletions that were dropped follow the next
 * scan, as after a lost connection.
 */
#ifndef SIM_SIM_MOM_H
#define SIM_SIM_MOM_H

#include "mom/kt_mom_peer.h"
#include "object/object.h"
#include "platform/kt_global.h"
#include "platform/kt_mom.h"
#include "sim/sim_loop.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

namespace sim
{

/* What the database knows of an object beside its value. */
struct MomMeta {
    bool pending;                       /* marked by a section that is open */
    bool fieldwise;                     /* stored field by field */
    std::optional<uint64_t> owner_life; /* life of the process that owns it, if one does */
};

/* How long an owner may be silent. */
constexpr Micros MOM_LEASE = 30 * SECOND;

/* The owner life of an object that the peer owns. */
constexpr uint64_t MOM_PEER_LIFE = UINT64_MAX;

using MomListener =
    std::function<void(uint32_t db, uint32_t operation, const ProtobufCMessage &object,
                       std::span<const uint32_t> fields)>;

/* The context of the other client (global_peer()). It is always connected. */
kt_global *mom_peer();

/*
 * The process loses its connection to a database: calls fail with -ENOTCONN
 * from now on, what was on its way is dropped, and the disconnect callback
 * comes from the loop. While it is lost a new process cannot connect either.
 */
void mom_disconnect(uint32_t db);

/*
 * The connection comes back, from the loop, with a kt_mom_reconnect type; a
 * connection that was still being opened is then opened. After type 1 no
 * subscription stands.
 */
void mom_reconnect(uint32_t db, int type);

/* Whether the process can make calls to the database now. */
bool mom_is_connected(uint32_t db);

/* The database loses its contents; nobody is told. */
void mom_clear(uint32_t db);

/* A copy of the object with this key, or null. */
object::Message mom_get(uint32_t db, const ProtobufCMessage &key);

/* Every object of a database, by kind name and then by key. The visitor must not write. */
void mom_each(uint32_t db, const std::function<void(const object::Kind &, const ProtobufCMessage &,
                                                    const MomMeta &)> &visit);

/*
 * Calls the listener for every change of any database as it is made: set,
 * deletion, hash set (with the fields), publish. Listeners stay until
 * mom_reset(), which must therefore come before those who listen are set up.
 */
void mom_on_change(MomListener listener);

/* Changes that may wait for one subscription; at least 1. */
void mom_queue_limit(size_t changes);

/* A process is gone: its connections and subscriptions end, its owner objects are deleted. */
void mom_process_ended(uint64_t life);

/* Empties the databases, forgets clients, listeners and limits. */
void mom_reset();

} // namespace sim

#endif
