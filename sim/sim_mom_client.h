/*
 * sim_mom_client - who uses the database in memory, and what reaches them.
 *
 * Internal to sim_mom. A client is a life of the process, or the peer; it has
 * one connection to each database. What is under way on a connection belongs
 * to an epoch of it: when the connection is lost or its client ends, the epoch
 * ends, and the jobs of the loop that carry its number come to nothing.
 *
 * A subscription remembers which deletions it has missed (connection lost,
 * queue full) until a scan that it asked for afterwards is over: only then
 * does its owner know everything else, and the deletions follow. Only objects
 * that existed when the loss began are remembered, so these are never more
 * than a database can hold.
 */
#ifndef SIM_SIM_MOM_CLIENT_H
#define SIM_SIM_MOM_CLIENT_H

#include "sim/sim_mom_store.h"

#include <deque>

namespace sim
{

struct MomConnection;

struct MomReceiver {
    kt_global *global;
    kt_mom_callback callback;
    void *user;
};

constexpr uint64_t MOM_NEVER = UINT64_MAX;
constexpr size_t MOM_QUEUE_LIMIT = 65'536;

struct MomSubscription {
    MomConnection *connection;
    MomReceiver receiver;
    MomSelector selector; /* unused by a watcher */
    uint32_t tag;         /* of a field subscription, else 0 */
    uint64_t serial;      /* order of making */
    bool is_watcher = false;
    bool is_replaced = false;
    size_t queued = 0; /* changes on their way */
    bool is_overrun = false;
    uint64_t lost_since = 0;      /* change number at which it began to miss changes */
    uint64_t told_at = MOM_NEVER; /* request number at which it was last told to scan */
    std::map<std::string, MomChangePtr> missed; /* deletions, by key */
};

struct MomItem {
    std::shared_ptr<MomSubscription> subscription;
    MomChangePtr change;
    bool is_counted; /* towards the queue limit */
};

struct MomScan {
    MomReceiver receiver;
    MomSelector selector;
    uint64_t serial = 0; /* request number */
    bool is_begun = false;
    std::string last_key = {};
    MomChangePtr current = {}; /* what a synchronous scan is delivering */
};

struct MomConnection {
    size_t database = 0;
    uint64_t life = 0;
    uint64_t epoch = 0;
    bool is_sync_open = false; /* the connection for synchronous calls */
    bool is_open = false;      /* the program asked for the other one */
    bool is_up = false;        /* and was told that it is up */
    uint64_t connects = 0;     /* which connect request counts */
    kt_global *global = nullptr;
    kt_mom_connect_callback connected = nullptr;
    void *connected_user = nullptr;
    kt_mom_disconnect_callback disconnected = nullptr;
    kt_mom_reconnect_callback reconnected = nullptr;
    uint64_t requests = 0;
    size_t subscriptions = 0;
    std::deque<MomItem> queue;
    std::deque<MomScan> scans;      /* the first is running */
    std::deque<MomScan> sync_scans; /* innermost last; here, as the process may end inside one */
    std::vector<MomItem> farewells; /* operation 28 that a lost connection held up */
};

/* The connection of the context's client; made when there is none yet. */
MomConnection &mom_connection(const kt_global *global, size_t database);
/* Whether calls work: the synchronous ones, the others. */
bool mom_sync_works(const MomConnection &connection);
bool mom_works(const MomConnection &connection);

void mom_connect(MomConnection &connection, kt_global *global, kt_mom_connect_callback callback,
                 void *user);
void mom_forget_clients();

/* The queue and its scans. Connections whose epoch has ended are nullptr. */
MomConnection *mom_epoch_find(uint64_t epoch);
void mom_enqueue(const std::shared_ptr<MomSubscription> &subscription, MomChangePtr change,
                 bool is_counted);
/* A message without an object. */
MomChangePtr mom_control(uint32_t operation, uint32_t scan_state);
/* Operation 29 and scan state 2. */
void mom_enqueue_start(const std::shared_ptr<MomSubscription> &subscription);
/* Tells everyone who subscribes to the object. */
void mom_notify(const MomDatabase &db, size_t kind, const std::string &key,
                const MomChangePtr &change, uint64_t created);
/* Drops what is under way, remembering what must not be lost. */
void mom_drop_queue(MomConnection &connection);
int mom_scan(MomConnection &connection, MomScan scan);
void mom_scan_now(MomConnection &connection, MomScan scan);
/* Calls a callback of the program, or of the peer. */
void mom_call(const MomReceiver &receiver, const MomChange &change);

/* Subscriptions; a new one takes the place of an equal one. 0 or -ENOSPC. */
int mom_subscribe(MomConnection &connection, const MomReceiver &receiver, MomSelector selector,
                  uint32_t tag);
int mom_watch(MomConnection &connection, const MomReceiver &receiver);
void mom_unsubscribe(MomConnection &connection, const MomReceiver &receiver,
                     const MomSelector &selector);
/* Standing subscriptions in the order of their making. */
std::vector<std::shared_ptr<MomSubscription>> mom_subscriptions(const MomConnection &connection);
/* Ends all of them without a word. */
void mom_drop_subscriptions(MomConnection &connection);

} // namespace sim

#endif
