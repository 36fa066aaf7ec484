#include "linux/linux_mom_client.h"

#include "linux/linux_env.h"
#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "linux/redis_find.h"

#include <algorithm>
#include <cerrno>
#include <event2/event.h>
#include <random>
#include <sys/random.h>

namespace mom
{

namespace
{

constexpr size_t REQUESTS_MAX = 262'144;
constexpr int64_t PROBE_EVERY = 5 * SECOND; /* a third of the lease */
constexpr int64_t BACKOFF_MAX = SECOND;
constexpr int64_t FAREWELL = SECOND / 2;

struct Client {
    kt_global *global;
    std::string life;
    std::array<std::shared_ptr<Connection>, DATABASES> connections;
};

/* Never freed: the program may call exit() from a callback. */
std::vector<std::unique_ptr<Client>> &clients = *new std::vector<std::unique_ptr<Client>>;
std::string ahead = "0"; /* of the server's clock, in milliseconds */

Client *client_of(const kt_global *global);
void end_client(const kt_global *global);
void end_connection(Connection &c);
std::string random_id();
int64_t jittered(int64_t micros);
void answered(Connection &c, redis::Reply reply);
void heard(Connection &c, redis::Reply reply);
void retry_later(Connection &c);
void forget_requests(Connection &c);
void tick(Connection &c);
bool is_awaiting(const Connection &c);
void rest_if_answered(Connection &c);
void tick_within(Connection &c, int64_t micros);
void look_soon(Connection &c);
void pardon(Connection &c);
void probed(Connection &c, const redisReply &reply);
bool is_silent(Connection &c);
std::vector<std::string_view> script_arguments(const Connection &c, redis::Script script,
                                               std::string_view key,
                                               std::initializer_list<std::string_view> arguments);
std::vector<std::string_view> reap_arguments(const Connection &c, const char *lease);

} // namespace

Connection::Connection(kt_global *of, uint32_t number, std::string life_of)
    : global(of), db(number), place(std::to_string(redis::find_database(*linux_env(), number))),
      prefix(place + ":"), life(std::move(life_of)),
      command([this](redis::Reply reply) { answered(*this, std::move(reply)); },
              [this](const std::string &why) { lose(*this, why); }),
      subscriber([this](redis::Reply reply) { heard(*this, std::move(reply)); },
                 [this](const std::string &why) { lose(*this, why); }),
      attempts(redis::find_first()), backoff(BACKOFF_MIN), channels(kinds().size())
{
    const auto run = [](evutil_socket_t, short, void *self) {
        auto &c = *static_cast<Connection *>(self);
        c.is_armed = false;
        deliver(c);
    };
    deliver_event = event_new(linux_loop_base(), -1, 0, run, this);
}

Connection *connection_of(kt_global *global, size_t place)
{
    Client *client = client_of(global);
    if (client == nullptr) {
        if (linux_global_on_finish(global, [global] { end_client(global); }) != 0)
            return nullptr;
        clients.push_back(std::make_unique<Client>(Client{global, random_id(), {}}));
        client = clients.back().get();
    }
    auto &connection = client->connections[place];
    if (connection == nullptr)
        connection = std::make_shared<Connection>(global, DATABASE_IDS[place], client->life);
    return connection.get();
}

Connection *connection_find(const kt_global *global, size_t place)
{
    const Client *client = client_of(global);
    return client == nullptr ? nullptr : client->connections[place].get();
}

void each_connection(const std::function<void(Connection &)> &visit)
{
    for (const auto &client : clients) {
        for (const auto &connection : client->connections) {
            if (connection != nullptr)
                visit(*connection);
        }
    }
}

size_t under_way(const Connection &c)
{
    return c.requests.size() + c.held.size() + c.fences.size() + c.queue.size() + c.scans.size();
}

bool works(const Connection &c)
{
    return c.is_told_up && c.is_ready && !c.is_lost;
}

bool sync_works(const Connection &c)
{
    return c.is_sync_open && c.is_greeted && !c.is_lost;
}

int request(Connection &c, redis::Arguments arguments, Handler handler, bool is_needed)
{
    const bool is_full = c.requests.size() + c.held.size() >= REQUESTS_MAX ||
                         c.command.unsent() + c.held_bytes >= redis::LINK_UNSENT_MAX;
    if (is_full && !is_needed)
        return -ENOBUFS;
    if (c.changing > 0) {
        HeldRequest &held = c.held.emplace_back();
        redis::format(held.bytes, arguments);
        held.handler = std::move(handler);
        c.held_bytes += held.bytes.size();
        return 0;
    }
    if (c.requests.empty()) {
        c.command_heard = linux_loop_now();
        look_soon(c);
    }
    c.requests.push_back(std::move(handler));
    c.command.send(arguments);
    return 0;
}

int request_script(Connection &c, redis::Script script, const std::string &kind,
                   std::initializer_list<std::string_view> arguments, Handler handler)
{
    return request(c, script_arguments(c, script, kind, arguments), std::move(handler));
}

int ask(Connection &c, redis::Arguments arguments, redis::Reply *answer)
{
    const auto keep = c.shared_from_this();
    const uint64_t epoch = c.epoch;
    bool is_answered = false;
    if (!c.is_greeted)
        return -ENOTCONN;
    const auto take = [&](redis::Reply reply) {
        is_answered = true;
        *answer = std::move(reply);
    };
    request(c, arguments, take, true); /* there is never more than one of these */
    const int64_t asked_at = linux_loop_now();
    while (!is_answered && c.epoch == epoch) {
        const int64_t heard_at = std::max({asked_at, c.command_heard, c.subscriber_heard});
        const int64_t left = heard_at + PATIENCE - linux_loop_now();
        const std::array<redis::Link *, 2> links = {&c.command, &c.subscriber};
        /* A process that was stopped looks once more at what has come meanwhile. */
        const int moved =
            redis::links_wait({links.data(), c.changing > 0 ? 2U : 1U}, std::max<int64_t>(left, 0));
        if (left <= 0 && moved == -ETIMEDOUT)
            lose(c, "no answer in three seconds");
    }
    return is_answered ? 0 : -ENOTCONN;
}

int ask_script(Connection &c, redis::Script script, const std::string &kind,
               std::initializer_list<std::string_view> arguments, redis::Reply *answer)
{
    return ask(c, script_arguments(c, script, kind, arguments), answer);
}

void fence(Connection &c, std::function<void()> passed)
{
    if (c.fences.empty())
        c.subscriber_heard = linux_loop_now();
    c.fences.push_back(std::move(passed));
    c.subscriber.send(std::array<std::string_view, 2>{"PING", "fence"});
}

void changing(Connection &c)
{
    c.changing++;
}

void changed(Connection &c)
{
    if (--c.changing > 0)
        return;
    if (c.requests.empty())
        c.command_heard = linux_loop_now();
    for (HeldRequest &held : c.held) {
        c.requests.push_back(std::move(held.handler));
        c.command.send_raw(held.bytes);
    }
    c.held.clear();
    c.held_bytes = 0;
}

void lose(Connection &c, const std::string &why)
{
    if (why != c.last_reason)
        LINUX_LOG(KTDF_ZLOG_LV_WARN, "database %u: not connected: %s", c.db, why.c_str());
    c.last_reason = why;
    c.counts.losses += c.is_greeted;
    c.command.close();
    c.subscriber.close();
    forget_requests(c);
    drop_queue(c);
    c.epoch++;
    c.is_greeted = c.is_ready = false;
    if (c.is_told_up && !c.is_lost)
        c.is_lost = c.owes_disconnect = true;
    if (c.owes_disconnect)
        enqueue_notice(c, [&c] { tell_lost(c); });
    retry_later(c);
}

void probe_within(Connection &c, int64_t millis)
{
    const int64_t wait = std::clamp<int64_t>(millis, 0, PROBE_EVERY / MILLISECOND) * MILLISECOND;
    const int64_t when = linux_loop_now() + wait;
    if (!c.is_greeted || c.probe_at <= when)
        return;
    c.probe_at = when;
    tick_within(c, wait);
}

void clock_ahead(int64_t millis)
{
    ahead = std::to_string(millis);
    each_connection([](Connection &c) {
        c.probe_at = 0;
        tick(c);
    });
}

namespace
{

Client *client_of(const kt_global *global)
{
    const auto at =
        std::ranges::find(clients, global, [](const auto &each) { return each->global; });
    return at == clients.end() ? nullptr : at->get();
}

void end_client(const kt_global *global)
{
    Client *client = client_of(global);
    for (const auto &connection : client->connections) {
        if (connection != nullptr)
            end_connection(*connection);
    }
    std::erase_if(clients, [client](const auto &each) { return each.get() == client; });
}

/* What was written is in the database, and what is owned is gone, when the program goes in order.
 */
void end_connection(Connection &c)
{
    const auto keep = c.shared_from_this();
    if (c.is_greeted && (c.has_owned || !c.requests.empty() || !c.held.empty())) {
        bool is_answered = false;
        const auto arguments = reap_arguments(c, c.has_owned ? "-1" : "0");
        request(
            c, arguments, [&](const redis::Reply &) { is_answered = true; }, true);
        const int64_t deadline = linux_loop_now() + FAREWELL;
        const uint64_t epoch = c.epoch;
        while (!is_answered && c.epoch == epoch && linux_loop_now() < deadline) {
            const std::array<redis::Link *, 2> links = {&c.command, &c.subscriber};
            redis::links_wait({links.data(), c.changing > 0 ? 2U : 1U}, FAREWELL);
        }
    }
    c.has_ended = true;
    c.epoch++;
    c.is_greeted = c.is_ready = c.is_told_up = false;
    c.command.close();
    c.subscriber.close();
    forget_requests(c);
    drop_queue(c);
    drop_subscriptions(c);
    linux_loop_cancel(c.retry_timer);
    linux_loop_cancel(c.tick_timer);
    event_free(c.deliver_event);
    c.deliver_event = nullptr;
}

std::string random_id()
{
    std::string id(8, '\0');
    if (getrandom(id.data(), id.size(), 0) != static_cast<ssize_t>(id.size())) {
        std::random_device device;
        std::ranges::generate(id, [&] { return static_cast<char>(device() & 0xff); });
    }
    return id;
}

int64_t jittered(int64_t micros)
{
    uint32_t random = 0;
    if (getrandom(&random, sizeof(random), GRND_NONBLOCK) != sizeof(random))
        random = static_cast<uint32_t>(linux_loop_now());
    return micros / 2 + random % (micros / 2 + 1);
}

/* --- Answers */

/*
 * Refusals that every request would meet. Without its scripts (they were flushed) a server
 * is of no use until they are loaded anew, and that is done where connections are made.
 */
bool ends_connection(const redisReply &error)
{
    return redis::find_is_demoted(error) || redis::text_of(error).starts_with("NOSCRIPT ");
}

void answered(Connection &c, redis::Reply reply)
{
    c.command_heard = linux_loop_now();
    if (c.requests.empty()) {
        lose(c, std::string(redis::text_of(*reply))); /* "max number of clients reached" */
        return;
    }
    if (redis::is_error(*reply) && ends_connection(*reply)) {
        if (redis::find_is_demoted(*reply))
            c.refusal = redis::text_of(*reply);
        lose(c, std::string(redis::text_of(*reply)));
        return;
    }
    const Handler handler = std::move(c.requests.front());
    c.requests.pop_front();
    if (handler) {
        handler(std::move(reply));
    } else if (redis::is_error(*reply)) {
        c.refusal = redis::text_of(*reply);
        lose(c, "a write was refused: " + c.refusal);
    } else {
        c.refusal.clear();
    }
    rest_if_answered(c);
}

/* RESP2: a link that has joined a channel gets PING's answer as an array, else as it is. */
void heard(Connection &c, redis::Reply reply)
{
    if (!c.fences.empty())
        c.subscriber_heard = linux_loop_now();
    const bool is_array = reply->type == REDIS_REPLY_ARRAY && reply->elements > 0;
    const std::string_view word = redis::text_of(is_array ? *reply->element[0] : *reply);
    if (is_array && word == "message" && reply->elements == 3) {
        hear(c, redis::text_of(*reply->element[1]), redis::text_of(*reply->element[2]));
    } else if (redis::is_error(*reply)) {
        lose(c, std::string(word));
    } else if (word == "fence" || (is_array && word == "pong")) {
        if (c.fences.empty())
            return;
        const std::function<void()> passed = std::move(c.fences.front());
        c.fences.pop_front();
        passed();
        rest_if_answered(c);
    }
}

/* --- Losing and watching */

void retry_later(Connection &c)
{
    linux_loop_cancel(c.retry_timer);
    linux_loop_cancel(c.tick_timer);
    c.tick_timer = 0;
    c.tick_at = 0;
    const int64_t wait = jittered(c.backoff);
    c.backoff = std::min(c.backoff * 2, BACKOFF_MAX);
    c.retry_timer = linux_loop_after(wait, [&c] { connect_now(c); });
}

void forget_requests(Connection &c)
{
    c.requests.clear();
    c.held.clear();
    c.held_bytes = 0;
    c.changing = 0;
    c.fences.clear();
}

void tick_within(Connection &c, int64_t micros)
{
    linux_loop_cancel(c.tick_timer);
    c.tick_at = linux_loop_now() + micros;
    c.tick_timer = linux_loop_after(micros, [&c] { tick(c); });
}

/* A request is made where none was under way. At most one tick a second comes of that. */
void look_soon(Connection &c)
{
    if (c.tick_at > linux_loop_now() + SECOND)
        tick_within(c, SECOND);
}

/*
 * While the loop stood still, what was asked was not sent and what came was not read. That
 * time is not the server's: by as much as the tick is late, it is taken to have been heard
 * later.
 */
void pardon(Connection &c)
{
    const int64_t now = linux_loop_now();
    if (c.tick_at == 0 || now <= c.tick_at)
        return;
    const int64_t late = now - c.tick_at;
    c.command_heard = std::min(now, c.command_heard + late);
    c.subscriber_heard = std::min(now, c.subscriber_heard + late);
}

/*
 * Either something is under way, then it is looked after once a second; or
 * nothing is, then the next probe is waited for.
 */
void tick(Connection &c)
{
    pardon(c);
    if (is_silent(c)) {
        lose(c, "the server has not answered for three seconds");
        return;
    }
    if (!c.is_greeted)
        return;
    const int64_t now = linux_loop_now();
    if (now >= c.probe_at) {
        c.probe_at = (now / PROBE_EVERY + 1) * PROBE_EVERY; /* all connections at once */
        const auto arguments = reap_arguments(c, c.has_owned ? redis::LEASE : "0");
        request(
            c, arguments, [&c](const redis::Reply &reply) { probed(c, *reply); }, true);
        check_role(c);
        if (c.is_ready)
            fence(c, [] {});
    }
    tick_within(c, is_awaiting(c) ? SECOND : c.probe_at - now);
    c.is_watched = is_awaiting(c);
}

bool is_awaiting(const Connection &c)
{
    return !c.requests.empty() || !c.fences.empty();
}

/* Nothing is under way any more: the loop need not wake before the next probe. */
void rest_if_answered(Connection &c)
{
    if (!c.is_watched || is_awaiting(c) || !c.is_greeted)
        return;
    c.is_watched = false;
    tick_within(c, c.probe_at - linux_loop_now());
}

/* With its memory full a server still answers. */
void probed(Connection &c, const redisReply &reply)
{
    const std::string_view text = redis::text_of(reply);
    if (reply.type == REDIS_REPLY_ARRAY && reply.elements > 0) {
        for (size_t i = 1; i < reply.elements; i++)
            report_foreign_book(c, redis::text_of(*reply.element[i]));
        if (reply.element[0]->integer >= 0)
            probe_within(c, reply.element[0]->integer);
    } else if (!text.starts_with("OOM")) {
        c.refusal = text;
        lose(c, c.refusal);
    }
}

/* A loop that was busy itself has not read yet what came meanwhile. */
bool is_silent(Connection &c)
{
    const auto is_overdue = [&c] {
        const int64_t oldest = linux_loop_now() - PATIENCE;
        return (!c.requests.empty() && c.command_heard < oldest) ||
               (!c.fences.empty() && c.subscriber_heard < oldest);
    };
    if (!is_overdue())
        return false;
    const uint64_t epoch = c.epoch;
    c.command.turn();
    if (c.epoch == epoch)
        c.subscriber.turn();
    return c.epoch == epoch && is_overdue();
}

std::vector<std::string_view> script_arguments(const Connection &c, redis::Script script,
                                               std::string_view key,
                                               std::initializer_list<std::string_view> arguments)
{
    std::vector<std::string_view> all = {
        "EVALSHA", c.digests[static_cast<size_t>(script)], "1", key, c.prefix, c.life, ahead};
    all.insert(all.end(), arguments);
    return all;
}

std::vector<std::string_view> reap_arguments(const Connection &c, const char *lease)
{
    std::vector<std::string_view> all =
        script_arguments(c, redis::Script::REAP, redis::REAP_KEY, {lease});
    for (const KindInfo &each : kinds())
        all.push_back(each.name);
    return all;
}

} // namespace

} // namespace mom
