/*
 * linux_mom_client - connections to the database server and what is under way on
 * them. Internal to linux_mom.
 *
 * linux_mom_client.cpp    clients, requests and their answers, losing, the watch
 *                         over a silent server
 * linux_mom_connect.cpp   from finding the server to telling the program
 * linux_mom_delivery.cpp  subscriptions, and the queue through which every
 *                         callback is made
 * linux_mom_scan.cpp      scans
 * linux_mom_known.h       what the owner of a subscription knows
 *
 * Nothing here calls the program but deliver(), from the loop, and
 * scan_now(). Either may find its connection ended afterwards (`has_ended`), since
 * the program may finish its context; both hold it by a shared pointer.
 *
 * `epoch` grows with every loss. What a loss leaves behind is dropped at once:
 * requests, fences, scans and the queue; no handler of theirs is called.
 */
#ifndef LINUX_LINUX_MOM_CLIENT_H
#define LINUX_LINUX_MOM_CLIENT_H

#include "linux/linux_mom.h"
#include "linux/linux_mom_known.h"
#include "linux/redis_link.h"
#include "linux/redis_script.h"
#include "linux/redis_value.h"
#include "object/object.h"

#include <array>
#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

struct event;

namespace mom
{

inline constexpr std::array<uint32_t, 4> DATABASE_IDS = {0, 4, 6, 8};
constexpr size_t DATABASES = DATABASE_IDS.size();
constexpr size_t SCANS_MAX = 65'536;
constexpr size_t SUBSCRIPTIONS_MAX = 4'096;
constexpr uint64_t NEVER = UINT64_MAX;

constexpr int64_t MILLISECOND = 1'000; /* in microseconds, as all times here */
constexpr int64_t SECOND = 1'000'000;
constexpr int64_t PATIENCE = 3 * SECOND; /* with a server that does not answer */
constexpr int64_t BACKOFF_MIN = 10 * MILLISECOND;

/* --- Objects */

/* What is worked out once of every kind; the kinds stand in the order of their names. */
struct KindInfo {
    const object::Kind *kind;
    std::string name;
    std::string shape;  /* redis::key_shape() */
    std::string fields; /* numbers of all but `index` */
};

const std::vector<KindInfo> &kinds();

/* Which object a request is about, or which ones. */
struct Selector {
    size_t kind = 0;
    char mode = 'k'; /* as in redis_script.h */
    std::string key;

    bool selects(std::string_view object_key) const;
    bool operator==(const Selector &) const = default;
};

/*
 * What happened to an object, the object still packed: it is unpacked only when it is
 * delivered. Views into what was received.
 */
struct Change {
    uint32_t operation = KT_MOM_NONE;
    size_t kind = 0;
    std::string_view key, fields, message; /* as in redis_value.h */
};

struct Receiver {
    kt_global *global = nullptr;
    kt_mom_callback callback = nullptr;
    void *user = nullptr;

    bool operator==(const Receiver &) const = default;
};

/* --- Connections */

/* starting and ending: from the request until its fence is back. */
enum class Standing { STARTING, LIVE, ENDING, GONE };

struct Subscription {
    Receiver receiver;
    Selector selector; /* unused by a watcher */
    uint32_t tag = 0;  /* of a field subscription */
    uint64_t serial = 0;
    bool is_watcher = false;
    Standing standing = Standing::STARTING;
    size_t queued = 0; /* changes in the queue */
    bool is_overrun = false;
    uint64_t told_at = NEVER; /* the last scan requested before it was told to scan */
    Known known;
    /* Scans up to this one need not ask the server: `known` is all that it would show. */
    uint64_t shown_until = 0;
    bool is_fieldwise = false; /* it has hash sets, whose fields are not kept */
};

using SubscriptionPtr = std::shared_ptr<Subscription>;

struct Channel {
    std::vector<SubscriptionPtr> subscriptions;
    bool is_joined = false;
};

struct Scan {
    Receiver receiver;
    Selector selector;
    uint64_t serial = 0;
    std::string cursor = "0";
    bool is_awaited = false; /* a page is on its way */
    bool is_last = false;    /* the page that came last ends the scan */
    size_t ahead = 0;        /* pages asked for since the queue had its turn */
    redis::Reply page = {};
    redis::Reply next = {}; /* the page behind it, if that is there */
    size_t at = 0;          /* the next one of the page's elements */
};

/* A change or a message without an object for a subscription, or something else. */
struct Item {
    SubscriptionPtr subscription = {};
    uint32_t operation = KT_MOM_NONE;
    uint32_t scan_state = KT_MOM_CHANGE;
    size_t kind = 0;
    std::string note = {};           /* the change as it was published; counts towards the limit */
    std::function<bool()> step = {}; /* false: is to be called again, before all else */
};

using Handler = std::function<void(redis::Reply)>;

struct HeldRequest {
    std::string bytes;
    Handler handler;
};

struct Connection : std::enable_shared_from_this<Connection> {
    Connection(kt_global *of, uint32_t number, std::string life_of);

    kt_global *global;
    uint32_t db;
    std::string place;  /* its number on the server, "4" */
    std::string prefix; /* of its channels, "4:" */
    std::string life;
    uint64_t epoch = 0;
    bool has_ended = false;

    /* What the program asked for and was told. */
    bool is_sync_open = false;
    bool is_open = false;
    bool is_told_up = false;
    bool is_lost = false;         /* since then, and not told that it is back */
    bool owes_disconnect = false; /* not told that either */
    uint64_t connects = 0;        /* which connect request counts */
    kt_mom_connect_callback connected = nullptr;
    void *connected_user = nullptr;
    kt_mom_disconnect_callback disconnected = nullptr;
    kt_mom_reconnect_callback reconnected = nullptr;

    /* The links. */
    redis::Link command;
    redis::Link subscriber;
    bool is_greeted = false; /* requests may be made */
    bool is_ready = false;   /* and changes are heard */
    std::string refusal;     /* what the server refused a write with, until it takes one */
    unsigned attempts = 0;
    int64_t backoff = 0;       /* microseconds */
    uint64_t retry_timer = 0;  /* also: gives up a greeting */
    int64_t patience_ends = 0; /* when it does */
    const char *awaited = "";  /* what it was waiting for */
    uint64_t tick_timer = 0;
    int64_t tick_at = 0; /* when it is due; 0 without a connection */
    int64_t probe_at = 0;
    bool is_watched = false; /* the tick comes early, for what is under way */
    bool has_owned = false;  /* has written owner objects */
    std::string instance, told_instance;
    std::string last_reason; /* in the log */
    std::array<std::string, redis::SCRIPTS> digests;

    /* Requests. */
    std::deque<Handler> requests; /* sent, without an answer */
    std::deque<HeldRequest> held; /* behind a subscription that is not in place */
    size_t held_bytes = 0;
    size_t changing = 0; /* subscriptions that start or end */
    std::deque<std::function<void()>> fences;
    int64_t command_heard = 0, subscriber_heard = 0;

    /* Deliveries. */
    std::deque<Item> queue;
    event *deliver_event = nullptr;
    bool is_armed = false;
    bool is_delivering = false;
    bool is_yielding = false; /* the sockets have a turn before the next delivery */
    std::deque<Scan> scans;   /* the first is running */
    uint64_t scan_count = 0;
    std::vector<Channel> channels; /* by kind */
    std::vector<SubscriptionPtr> watchers;
    std::vector<SubscriptionPtr> farewells; /* KT_MOM_UNSUBSCRIBED that a loss held up */
    size_t subscriptions = 0;
    uint64_t serials = 0;
    std::unordered_set<size_t> reported; /* digests of what was logged as foreign */
    linux_mom_state counts = {};
};

/*
 * The connection of an open context to the database at `place` of the daemon's four, made
 * when there is none yet; nullptr if there is no memory.
 */
Connection *connection_of(kt_global *global, size_t place);
/* The same, but never made. */
Connection *connection_find(const kt_global *global, size_t place);

/* Of all contexts; the visitor makes and ends none. */
void each_connection(const std::function<void(Connection &)> &visit);

/* Requests, fences, scans and deliveries. */
size_t under_way(const Connection &c);
/* Whether calls may be made: the program was told that it is up, and it is. */
bool works(const Connection &c);
/* The same of synchronous calls, which wait for no telling. */
bool sync_works(const Connection &c);

/* Opens what the program asked for, if it is not open. */
void connect_now(Connection &c);
/* The same, and waits for the request link. 0 or -ENOTCONN. */
int connect_wait(Connection &c);
/* The connect callback is called from the queue; of several such calls the last counts. */
void connect_told_later(Connection &c);
/* Called from the queue: the program is told that it is disconnected. */
void tell_lost(Connection &c);
/* Asks whether the server is still the master; if not, the connection is lost. */
void check_role(Connection &c);

/*
 * Makes a request. Its answer goes to `handler`; without one it is a write, whose
 * refusal ends the connection. 0 or -ENOBUFS; what the library itself needs is
 * never refused.
 */
int request(Connection &c, redis::Arguments arguments, Handler handler = {},
            bool is_needed = false);
int request_script(Connection &c, redis::Script script, const std::string &kind,
                   std::initializer_list<std::string_view> arguments, Handler handler = {});
/* Makes a request and waits for its answer. 0 or -ENOTCONN. */
int ask(Connection &c, redis::Arguments arguments, redis::Reply *answer);
int ask_script(Connection &c, redis::Script script, const std::string &kind,
               std::initializer_list<std::string_view> arguments, redis::Reply *answer);

/* `passed` is called when everything that is published by now has been received. */
void fence(Connection &c, std::function<void()> passed);
/* A subscription starts or ends: requests wait until changed() has been called as often. */
void changing(Connection &c);
void changed(Connection &c);

/* Ends the links and begins again. */
void lose(Connection &c, const std::string &why);
/* Something is due in that many milliseconds. */
void probe_within(Connection &c, int64_t millis);

/* For tests: the clock of leases and deadlines is ahead of the server's by so much. */
void clock_ahead(int64_t millis);

/* --- Deliveries */

/* The queue is looked at in this turn of the loop, or the next where the sockets come first. */
void arm(Connection &c);
/* Something for the end of the queue that is called once. */
void enqueue_notice(Connection &c, std::function<void()> notice);
/* The same, but called until it says true; once its turn has come, before all else. */
void enqueue_step(Connection &c, std::function<bool()> step);
/* From the loop: what waits, for five milliseconds at most. */
void deliver(Connection &c);
/* The object of a change; nullptr, and reported, if there is none. */
const ProtobufCMessage *object_of(Connection &c, const Change &change, redis::Unpacked &memory);
/* Calls the program, unless its context is finished. */
void call(Connection &c, const Receiver &receiver, const kt_mom_msg &msg);
void call_with(Connection &c, const Receiver &receiver, const Change &change,
               const ProtobufCMessage *object);

/* 0 or -ENOSPC: SUBSCRIPTIONS_MAX stand, watchers included. */
int subscribe(Connection &c, const Receiver &receiver, Selector selector, uint32_t tag);
int watch(Connection &c, const Receiver &receiver);
void unsubscribe(Connection &c, const Receiver &receiver, const Selector &selector);
/* What was published on a channel. */
void hear(Connection &c, std::string_view channel, std::string_view text);
/* The owners of subscriptions have been told of an object by a scan. */
void note_scanned(Connection &c, const Change &change);
/* After a scan: whoever was told to scan before it learns what it has missed. */
void tell_missed(Connection &c, const Scan &scan);
/* The subscription that knows what this waiting scan would show; nullptr for none. */
SubscriptionPtr shown_by(const Connection &c, const Scan &scan);
/* After a scan that asked the server: equal ones that wait by now need not. */
void note_shown(Connection &c, const Scan &scan);
/* Drops the queue, remembering what must not be lost. */
void drop_queue(Connection &c);
/* At the end of a context: nobody is told of anything any more. */
void drop_subscriptions(Connection &c);
/* After a reconnect: everything made before goes through its start again. */
void restart_subscriptions(Connection &c, uint64_t made_before);
/* For tests: changes that may wait for one subscription; 0: as it is by itself. */
void queue_limit(size_t changes);

/* Something in the server that is no object: logged once, counted. */
void report_foreign(Connection &c, size_t kind, std::string_view key);
/* The same of something without a key, in words. */
void report_foreign_whole(Connection &c, size_t kind, const char *what);
/* The same of what stood in the place of the server's own books (linux/redis_script.h). */
void report_foreign_book(Connection &c, std::string_view name);

/* --- Scans */

/* One more scan, behind those that run or wait. 0 or -ENOSPC: SCANS_MAX do. */
int scan(Connection &c, const Receiver &receiver, Selector selector);
/* Shows everything before it returns. 0 or -ENOTCONN. */
int scan_now(Connection &c, const Receiver &receiver, const Selector &selector);
/* The next object of the running scan's page, or what follows the page. */
void scan_deliver(Connection &c);
/* A stored object, as a change. */
Change change_of(size_t kind, std::string_view key, std::string_view stored);

} // namespace mom

#endif
