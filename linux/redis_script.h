/*
 * redis_script - what the server does in one step.
 *
 * Every change is one script: it writes, takes the mark of an open section off,
 * and publishes last, so that nobody hears of what is not stored. A script that
 * is refused (memory full) is refused whole. The scripts are loaded when a
 * connection is made and called by the digest that the server answers with.
 *
 * What they keep beside the objects, in the same database:
 *
 *     vvlan:pending:<kind>   hash: key -> number of the section that marked it
 *     vvlan:sections:<kind>  hash: number -> life, sort and template of a section
 *     vvlan:deadlines        sorted set: "number kind" of the open sections
 *     vvlan:number           the last section's number
 *     vvlan:expiry           sorted set: "kind NUL key" of objects with a life
 *     vvlan:leases           sorted set: lives that own objects
 *     vvlan:owned:<life>     set: "kind NUL key" of a life's objects
 *
 * Scores are the server's time in milliseconds. A life is the random id of a
 * client; it makes an object's writer known again after a reconnect, and a new
 * life of the same program is another one.
 *
 * What stands under these names and is of another type is deleted by the reaper, which
 * runs before anything is written on a new connection. A kind whose name stands for
 * something else than a hash is deleted by the next write to it. Objects that have no valid header
 * count as absent; a write puts a whole object in their place.
 *
 * Limit: 4,096 open sections a kind ("FULL" beyond). The reaper deletes at most
 * 1,000 objects a call.
 *
 * What the server must allow a user of the database, as ACL SETUSER takes it. The
 * daemon and the tools need the same: whoever is connected runs the reaper, which
 * deletes objects of any kind, and the commands of a script count as its caller's.
 * A line card with a number has its own databases, hence channels "20:*" and so on.
 * Nothing is asked of a Sentinel but SENTINEL get-master-addr-by-name.
 *
 *     ~p_bridge.* ~s_bridge.* ~s_cluster.* ~u_bridge.* ~vvlan:*
 *     &0:* &4:* &6:* &8:*
 *     +role +select +client|setname +info +ping +script|load +evalsha
 *     +subscribe +unsubscribe +publish
 *     +hget +hscan +hset +hdel +hgetall +hlen +type +del +incr +time
 *     +sadd +srem +smembers +zadd +zrem +zrange +zrangebyscore
 */
#ifndef LINUX_REDIS_SCRIPT_H
#define LINUX_REDIS_SCRIPT_H

#include <cstddef>
#include <string>

namespace redis
{

/*
 * All take the kind as their one key (REAP: REAP_KEY), and first the channel's prefix
 * ("4:"), the caller's life and how many milliseconds the clock is ahead (tests), then:
 *
 * SET     object key, lease of an owner write in ms or 0, life of the object in ms
 *         or 0, message
 * DEL     object key
 * HSET    object key, field numbers as stored, the same as told, numbers of all
 *         fields of the kind, message with the key only, message with the fields,
 *         and perhaps a message with those fields as they must be before. Answers
 *         0 when they are not, and nothing is done.
 * BEGIN   owner's (0, 1), selection, expiry in ms or 0
 * END     owner's (0, 1), selection
 * DEL_OW  selection
 * REAP    lease in ms; 0 for none, -1 if the life ends. Then the names of all kinds.
 *         Answers the ms until something is due, -1 for nothing, and behind it what it
 *         found to be none of ours and has deleted, a hundred at most.
 *
 * A selection is three arguments: 'a' for all, 'k' for one key, 'p' for a key
 * whose zero parts match anything; the shape of the kind's keys; the key.
 */
enum class Script { SET, DEL, HSET, BEGIN, END, DEL_OW, REAP };

constexpr size_t SCRIPTS = 7;

/* One that the caller may use: a server with ACLs looks at it. */
constexpr const char *REAP_KEY = "vvlan:deadlines";

/* How long an owner may be silent, in milliseconds; as text, for the scripts. */
constexpr const char *LEASE = "15000";

/* What SCRIPT LOAD and EVAL are given. */
std::string script_text(Script script);

} // namespace redis

#endif
