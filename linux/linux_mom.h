/*
 * linux_mom - the object database (platform/kt_mom.h, mom/kt_mom_peer.h) on a
 * Redis server.
 *
 * Every context is a client of its own, with a random id, its life. For each
 * database that it opens it has one link for requests and one for what is
 * published; VVLAN_MOM (linux/linux_env.h) says where the server is. The
 * synchronous calls use the request link too and wait for their answer in place:
 * what was requested before has then taken effect, subscriptions included.
 *
 * How order is kept between the two links. Whatever must not be overtaken is
 * fenced: a PING on the subscriber link comes back behind everything that was
 * published before it. A subscription is in place when its fence is back, and
 * requests made after it wait until then; a scan is over when the fence behind
 * its last page is back. While a page of a scan is on its way, changes are kept
 * back and delivered behind it: each of them is newer than what the page holds,
 * or followed by one that is. So a callback's last word on an object is always
 * the latest.
 *
 * A subscription keeps what its owner has been told of (linux/linux_mom_known.h).
 * When the link is lost all of it may have gone; what the next scan does not show is
 * told as deleted, each object as its owner last was told of it. Deletions that
 * arrive but cannot be delivered (queue full, subscription not in place yet) are
 * told in that way too.
 *
 * The server is not walked again for a scan that waited while an equal one was
 * running and that a subscription with the same template covers: what the server
 * would show is known by then. (A program that asks for a scan whenever it configures a
 * port asks for thousands of equal ones.) What is hash set is always asked for.
 *
 * Changes wait as they were published and are unpacked when they are delivered. A
 * turn of the loop delivers for about five milliseconds.
 *
 * A lost link, a refused write (memory full), a server that has become a replica, an
 * answer that does not come within
 * three seconds (during which the loop turns: one that stands still has nobody to
 * blame), a server that lost its scripts: all end the connection, both links, and it
 * is made anew, after 10 ms growing to 1 s, with jitter. The same server process with
 * the same history (run_id and master_replid) is reconnect type 2, any other type 1: a
 * master that was a replica meanwhile may hold other data. (A master that gets its
 * first replica begins a new history too; that costs a type 1.) Connections that were lost
 * together are told to be back together, if the others take no longer than two
 * seconds more: a program should not resynchronise with half of its databases. A
 * server that still loads its data refuses all requests; it is asked again in the
 * same way, and kt_mom_client_connect_sync() waits three seconds for it.
 *
 * Every five seconds, or sooner when something is due, a client renews its lease
 * (15 s, if it owns objects), has the server delete what has run out (its own and
 * others') and thereby sees whether the server still answers.
 *
 * Limits, each per context and database: 262,144 requests without an answer, and
 * 64 MiB of them unsent (-ENOBUFS beyond); 4,096 subscriptions and 65,536 scans
 * (-ENOSPC); 65,536 changes waiting for one subscription (then scan state 4); what
 * a program is too slow to take waits in the server, whose own limit (32 MiB unless
 * it is told otherwise) then costs the connection;
 * 1,048,576 objects known to one subscription and 128 MiB of them, beyond which a
 * deletion made while disconnected may go untold. A watcher that falls behind loses
 * changes; they are counted. A kind is scanned a thousand objects at a time, in no
 * order.
 */
#ifndef LINUX_LINUX_MOM_H
#define LINUX_LINUX_MOM_H

#include "mom/kt_mom_peer.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

/* A connection as it is now, and what has happened on it since the context was made. */
struct linux_mom_state {
    bool is_up;         /* calls work */
    size_t waiting;     /* requests, fences, scans and deliveries that are under way */
    uint64_t delivered; /* callbacks made */
    uint64_t foreign;   /* values and messages that were no objects */
    uint64_t dropped;   /* changes that found a full queue */
    uint64_t losses;    /* of the connection */
};

/* All zero for a context or a database that is not open. */
linux_mom_state linux_mom_look(const kt_global *global, uint32_t db);

/*
 * What the server said when it refused a write of this context, on whichever connection;
 * empty when there was none, or when it has taken a write since.
 */
std::string linux_mom_refusal(const kt_global *global);

/*
 * For tests and tools, not from a callback: turns the loop until nothing is under way
 * on any connection, and nothing that was published has yet to be delivered. As long
 * as `waits_for_lost` says so, connections that are down must be up again first. False
 * when `micros` went by before.
 */
bool linux_mom_settle(int64_t micros, const std::function<bool()> &waits_for_lost);

/* For tests: changes that may wait for one subscription, at least 1; 0 for the standard. */
void linux_mom_queue_limit(size_t changes);

/*
 * For tests: the server's clock as this process takes it, in milliseconds ahead. Every
 * client then does at once what it does every five seconds.
 */
void linux_mom_clock_ahead(int64_t millis);

#endif
