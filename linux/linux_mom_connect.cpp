#include "linux/linux_mom_client.h"

#include "linux/linux_env.h"
#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "linux/redis_find.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace mom
{

namespace
{

constexpr int64_t SENTINEL_PATIENCE = SECOND / 2;
constexpr unsigned TRIES_MAX = 8;
constexpr int64_t TOGETHER = 2 * SECOND; /* more than the longest pause between two attempts */

void expect_within(Connection &c, int64_t micros, const char *what);
void give_up(Connection &c);
void connect_once(Connection &c);
void greet_with(Connection &c, std::initializer_list<std::string_view> arguments,
                const std::function<void(const redisReply &)> &taken = {});
void greet(Connection &c);
void greet_subscriber(Connection &c);
void ask_sentinel(Connection &c);
void greeted(Connection &c);
void become_ready(Connection &c);
void tell_connected(Connection &c);
void tell_reconnected_later(Connection &c);
void tell_reconnected(Connection &c);

} // namespace

void connect_now(Connection &c)
{
    if (c.is_greeted) {
        if (c.is_open && !c.subscriber.is_open())
            greet_subscriber(c);
        return;
    }
    if (c.command.is_open())
        return;
    const redis::Place place = redis::find_place(*linux_env(), c.attempts++);
    c.command.open(place.address);
    if (place.is_sentinel)
        ask_sentinel(c);
    else
        greet(c);
}

/* Every place is tried once: there may be no second call. One that still loads is waited for. */
int connect_wait(Connection &c)
{
    connect_once(c);
    const unsigned places = redis::find_places(*linux_env());
    const unsigned tries = std::max(places, std::min(places * c.command.alternatives(), TRIES_MAX));
    for (unsigned i = 1; i < tries && !c.is_greeted; i++)
        connect_once(c);
    const int64_t deadline = linux_loop_now() + PATIENCE;
    while (!c.is_greeted && c.last_reason.starts_with("LOADING") && linux_loop_now() < deadline) {
        poll(nullptr, 0,
             BACKOFF_MIN / MILLISECOND); /* it has its data soon, and is the right one */
        connect_once(c);
    }
    return sync_works(c) ? 0 : -ENOTCONN;
}

void connect_told_later(Connection &c)
{
    enqueue_notice(c, [&c, connects = ++c.connects] {
        if (c.connects == connects)
            tell_connected(c);
    });
}

void tell_lost(Connection &c)
{
    c.owes_disconnect = false;
    if (c.disconnected != nullptr)
        c.disconnected(c.global, c.db);
}

/* A replica tells of changes too, but takes none. */
void check_role(Connection &c)
{
    greet_with(c, {"ROLE"}, [&c](const redisReply &reply) {
        if (!redis::find_is_master(reply))
            lose(c, "the server is a replica");
    });
}

namespace
{

/* --- Greeting: everything up to the first request of the program */

void expect_within(Connection &c, int64_t micros, const char *what)
{
    linux_loop_cancel(c.retry_timer);
    c.awaited = what;
    c.patience_ends = linux_loop_now() + micros;
    c.retry_timer = linux_loop_after(micros, [&c] { give_up(c); });
}

/* A server without TLS says nothing to what it takes for half a request. */
void give_up(Connection &c)
{
    lose(c, c.command.is_shaking_hands()
                ? "no answer in TLS; does the server speak it on this port?"
                : std::string("no answer ") + c.awaited);
}

/* Turns the request link until it is greeted or lost. */
void connect_once(Connection &c)
{
    connect_now(c);
    const uint64_t epoch = c.epoch;
    while (!c.is_greeted && c.epoch == epoch) {
        const int64_t left = c.patience_ends - linux_loop_now();
        redis::Link *const link = &c.command;
        if (left <= 0)
            give_up(c);
        else if (redis::links_wait({&link, 1}, left) == -ENOTCONN)
            return;
    }
}

/* A request of the greeting; its refusal ends the attempt. */
void greet_with(Connection &c, std::initializer_list<std::string_view> arguments,
                const std::function<void(const redisReply &)> &taken)
{
    const auto handler = [&c, taken](const redis::Reply &reply) {
        if (redis::is_error(*reply))
            lose(c, std::string(redis::text_of(*reply)));
        else if (taken)
            taken(*reply);
    };
    request(c, {arguments.begin(), arguments.size()}, handler, true);
}

std::string link_name(const Connection &c, const char *role)
{
    return "vvlan:" + std::to_string(getpid()) + ":" + c.prefix + role;
}

/* Of a line of INFO; "" where there is none. */
std::string_view value_in(std::string_view info, std::string_view name)
{
    const size_t at = info.find(name);
    if (at == std::string_view::npos)
        return "";
    info.remove_prefix(at + name.size());
    return info.substr(0, info.find('\r'));
}

/*
 * What makes it the same server again: the process, and the history of its data. A master
 * that was a replica meanwhile has another history.
 */
void greet(Connection &c)
{
    expect_within(c, PATIENCE, "to the greeting");
    std::vector<std::string> login;
    if (const std::string why = redis::find_login(*linux_env(), &login); !why.empty()) {
        lose(c, why);
        return;
    }
    if (login.size() == 2)
        greet_with(c, {login[0], login[1]});
    else if (login.size() == 3)
        greet_with(c, {login[0], login[1], login[2]});
    check_role(c);
    greet_with(c, {"SELECT", c.place});
    greet_with(c, {"CLIENT", "SETNAME", link_name(c, "command")});
    for (size_t i = 0; i < redis::SCRIPTS; i++) {
        const std::string text = redis::script_text(static_cast<redis::Script>(i));
        greet_with(c, {"SCRIPT", "LOAD", text},
                   [&c, i](const redisReply &reply) { c.digests[i] = redis::text_of(reply); });
    }
    greet_with(c, {"INFO", "server"}, [&c](const redisReply &reply) {
        c.instance = value_in(redis::text_of(reply), "run_id:");
    });
    greet_with(c, {"INFO", "replication"}, [&c](const redisReply &reply) {
        c.instance += value_in(redis::text_of(reply), "master_replid:");
        greeted(c);
    });
}

/* Sentinel says where the server is now; the greeting then goes there. */
void ask_sentinel(Connection &c)
{
    expect_within(c, SENTINEL_PATIENCE, "from Sentinel");
    const std::vector<std::string> words = redis::find_question(*linux_env());
    const std::vector<std::string_view> question(words.begin(), words.end());
    const auto take = [&c](const redis::Reply &reply) {
        redis::Address server;
        const std::string why = redis::find_read_answer(*reply, *linux_env(), &server);
        if (!why.empty()) {
            lose(c, why);
            return;
        }
        c.command.open(server);
        greet(c);
    };
    request(c, question, take, true);
}

void greeted(Connection &c)
{
    c.is_greeted = true;
    redis::find_succeeded(--c.attempts); /* and where it begins the next time */
    c.probe_at = NEVER / 2;
    probe_within(c, 0);
    if (c.is_open) {
        greet_subscriber(c);
        return;
    }
    linux_loop_cancel(c.retry_timer);
    c.backoff = BACKOFF_MIN;
    c.last_reason.clear();
}

/* The subscriber link answers errors, one bulk string per fence, and what is published. */
void greet_subscriber(Connection &c)
{
    std::vector<std::string> login;
    if (const std::string why = redis::find_login(*linux_env(), &login); !why.empty()) {
        lose(c, why);
        return;
    }
    c.subscriber.open(c.command.address());
    if (!login.empty())
        c.subscriber.send(std::vector<std::string_view>(login.begin(), login.end()));
    const std::string name = link_name(c, "subscriber");
    c.subscriber.send(std::array<std::string_view, 3>{"CLIENT", "SETNAME", name});
    fence(c, [&c] { become_ready(c); });
}

void become_ready(Connection &c)
{
    c.is_ready = true;
    linux_loop_cancel(c.retry_timer);
    if (c.refusal.empty())
        c.backoff = BACKOFF_MIN;
    if (!c.last_reason.empty())
        LINUX_LOG(KTDF_ZLOG_LV_NOTICE, "database %u: connected", c.db);
    c.last_reason.clear();
    if (c.is_lost)
        tell_reconnected_later(c);
    else
        connect_told_later(c);
}

/* --- What the program is told; from the queue */

void tell_connected(Connection &c)
{
    c.is_told_up = true;
    c.told_instance = c.instance;
    if (c.connected != nullptr)
        c.connected(c.global, c.connected_user);
}

/*
 * Connections that were lost together are told together: a program that resynchronises
 * one database while another is still away cannot write there what follows. One that
 * stays away holds the others up for TOGETHER.
 */
void tell_reconnected_later(Connection &c)
{
    const auto tell = [](Connection &back) {
        linux_loop_cancel(back.retry_timer);
        enqueue_notice(back, [&back] { tell_reconnected(back); });
    };
    std::vector<Connection *> lost;
    each_connection([&](Connection &each) {
        if (each.global == c.global && each.is_lost)
            lost.push_back(&each);
    });
    const auto is_away = [](const Connection *each) { return !each->is_ready; };
    if (c.told_instance != c.instance) {
        tell(c);
    } else if (std::ranges::any_of(lost, is_away)) {
        c.retry_timer = linux_loop_after(TOGETHER, [tell, &c] { tell(c); });
    } else {
        for (Connection *each : lost)
            tell(*each);
    }
}

void tell_reconnected(Connection &c)
{
    if (!c.is_lost)
        return; /* told already */
    const bool is_same = c.told_instance == c.instance;
    c.told_instance = c.instance;
    c.is_lost = false;
    if (!is_same)
        drop_subscriptions(c);
    const uint64_t made_before = c.serials;
    const uint64_t epoch = c.epoch;
    if (c.reconnected != nullptr)
        c.reconnected(c.global, c.db, is_same ? KT_MOM_RECONNECT_SAME : KT_MOM_RECONNECT_OTHER);
    if (c.epoch == epoch)
        restart_subscriptions(c, made_before);
}

} // namespace

} // namespace mom
