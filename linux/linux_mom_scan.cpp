#include "linux/linux_mom_client.h"

#include <array>
#include <cerrno>
#include <optional>

namespace mom
{

namespace
{

constexpr const char *PAGE = "1000"; /* objects, about */
constexpr size_t AHEAD_MAX = 4;      /* pages before the queue has its turn */

std::vector<std::string_view> page_arguments(const Selector &selector, const std::string &cursor);
void ask_page(Connection &c);
void ask_ahead(Connection &c);
void begin(Connection &c);
void show_behind_queue(Connection &c);
bool show_next(Connection &c, Known::Place *place);
void take_page(Connection &c, redis::Reply reply);
bool take_cursor(Connection &c, const redisReply &page, size_t kind, std::string *cursor);
std::optional<Change> next_of_page(const redisReply &page, const Selector &selector, size_t *at);
void tell_scanned(Connection &c, Receiver receiver, const Change &change);
void go_on(Connection &c);
void finish(Connection &c);

} // namespace

int scan(Connection &c, const Receiver &receiver, Selector selector)
{
    if (c.scans.size() >= SCANS_MAX)
        return -ENOSPC;
    Scan &made = c.scans.emplace_back();
    made.receiver = receiver;
    made.selector = std::move(selector);
    made.serial = ++c.scan_count;
    if (c.scans.size() == 1)
        begin(c);
    return 0;
}

int scan_now(Connection &c, const Receiver &receiver, const Selector &selector)
{
    const auto keep = c.shared_from_this();
    std::string cursor = "0";
    do {
        redis::Reply page;
        if (const int error = ask(c, page_arguments(selector, cursor), &page))
            return error;
        if (!take_cursor(c, *page, selector.kind, &cursor))
            return -ENOTCONN;
        size_t at = 0;
        while (const auto change = next_of_page(*page, selector, &at)) {
            if (c.has_ended)
                return -ENOTCONN;
            tell_scanned(c, receiver, *change);
        }
    } while (cursor != "0");
    return 0;
}

void scan_deliver(Connection &c)
{
    Scan &scan = c.scans.front();
    if (const auto change = next_of_page(*scan.page, scan.selector, &scan.at)) {
        tell_scanned(c, scan.receiver, *change);
        return;
    }
    scan.page = std::move(scan.next);
    scan.at = 0;
    if (scan.page != nullptr)
        ask_ahead(c);
    else if (!scan.is_awaited)
        go_on(c);
}

Change change_of(size_t kind, std::string_view key, std::string_view stored)
{
    const std::optional<redis::Value> value = redis::value_of(stored);
    if (!value)
        return {KT_MOM_NONE, kind, key, {}, {}};
    return {value->is_fieldwise ? KT_MOM_HSET : KT_MOM_SET, kind, key, value->fields,
            value->message};
}

namespace
{

/* HGET for one object, else the next page. */
std::vector<std::string_view> page_arguments(const Selector &selector, const std::string &cursor)
{
    const std::string &kind = kinds()[selector.kind].name;
    if (selector.mode == 'k')
        return {"HGET", kind, selector.key};
    return {"HSCAN", kind, cursor, "COUNT", PAGE};
}

void ask_page(Connection &c)
{
    Scan &scan = c.scans.front();
    scan.is_awaited = true;
    scan.ahead++;
    request(
        c, page_arguments(scan.selector, scan.cursor),
        [&c](redis::Reply reply) { take_page(c, std::move(reply)); }, true);
}

/*
 * The server looks for the next page while this one is delivered, once it has been
 * asked. All of them go ahead of the queue, so that no page is older than a change
 * that was told before it.
 */
void ask_ahead(Connection &c)
{
    const Scan &scan = c.scans.front();
    if (scan.is_last || scan.ahead >= AHEAD_MAX)
        return;
    c.is_yielding = true;
    ask_page(c);
}

/*
 * What the scan before has found to be gone is told before the first object of this
 * one. If that one was equal, and this one waited already, then the server need not
 * be asked again: only that what was requested before this scan has been heard of.
 */
void begin(Connection &c)
{
    if (shown_by(c, c.scans.front()) != nullptr)
        request(
            c, std::array<std::string_view, 1>{"PING"},
            [&c](const redis::Reply &) { fence(c, [&c] { show_behind_queue(c); }); }, true);
    else if (c.queue.empty())
        ask_page(c);
    else
        enqueue_notice(c, [&c] { ask_page(c); });
}

void show_behind_queue(Connection &c)
{
    enqueue_step(c, [&c, place = Known::Place()]() mutable { return !show_next(c, &place); });
}

/* Delivers one of the objects that are known; false behind the last one. */
bool show_next(Connection &c, Known::Place *place)
{
    const Scan &scan = c.scans.front();
    const SubscriptionPtr subscription = shown_by(c, scan);
    if (subscription == nullptr) {
        ask_page(c); /* something was lost meanwhile */
        return false;
    }
    const std::optional<Known::Object> known = subscription->known.next(place);
    if (!known) {
        finish(c);
        return false;
    }
    const std::string key(known->key), message(known->message);
    tell_scanned(c, scan.receiver, {KT_MOM_SET, scan.selector.kind, key, {}, message});
    return true;
}

void take_page(Connection &c, redis::Reply reply)
{
    Scan &scan = c.scans.front();
    scan.is_awaited = false;
    if (!take_cursor(c, *reply, scan.selector.kind, &scan.cursor))
        return;
    scan.is_last = scan.cursor == "0";
    if (scan.page == nullptr) {
        scan.page = std::move(reply);
        scan.at = 0;
        ask_ahead(c);
    } else {
        scan.next = std::move(reply);
    }
    arm(c);
}

/* Where the next page begins, "0" for none; false when the reply ended the connection. */
bool take_cursor(Connection &c, const redisReply &page, size_t kind, std::string *cursor)
{
    *cursor = "0";
    if (page.type == REDIS_REPLY_ARRAY && page.elements == 2)
        *cursor = redis::text_of(*page.element[0]);
    if (!redis::is_error(page))
        return true;
    if (!redis::text_of(page).starts_with("WRONGTYPE")) {
        lose(c, std::string(redis::text_of(page)));
        return false;
    }
    report_foreign_whole(c, kind, "the whole kind");
    return true;
}

/* The next selected object; none when the page is at its end. */
std::optional<Change> next_of_page(const redisReply &page, const Selector &selector, size_t *at)
{
    if (page.type == REDIS_REPLY_STRING && (*at)++ == 0)
        return change_of(selector.kind, selector.key, redis::text_of(page));
    if (page.type != REDIS_REPLY_ARRAY || page.elements != 2)
        return std::nullopt;
    const redisReply &entries = *page.element[1];
    while (*at + 1 < entries.elements) {
        const std::string_view key = redis::text_of(*entries.element[*at]);
        const std::string_view stored = redis::text_of(*entries.element[*at + 1]);
        *at += 2;
        if (selector.selects(key))
            return change_of(selector.kind, key, stored);
    }
    return std::nullopt;
}

/* The callback may end the scan, and with it what the arguments lie in. */
void tell_scanned(Connection &c, Receiver receiver, const Change &change)
{
    redis::Unpacked memory;
    const ProtobufCMessage *object = object_of(c, change, memory);
    if (object == nullptr)
        return;
    note_scanned(c, change);
    call_with(c, receiver, change, object);
}

/* Changes that came meanwhile go first, so that a long scan does not starve them. */
void go_on(Connection &c)
{
    if (c.scans.front().is_last)
        fence(c, [&c] { enqueue_notice(c, [&c] { finish(c); }); });
    else
        enqueue_notice(c, [&c] {
            c.scans.front().ahead = 0;
            ask_page(c);
        });
}

/* The fence behind the last page is back, and all that it held back is delivered. */
void finish(Connection &c)
{
    const Scan scan = std::move(c.scans.front());
    c.scans.pop_front();
    tell_missed(c, scan);
    if (scan.is_last)
        note_shown(c, scan);
    if (!c.scans.empty())
        begin(c);
    call(c, scan.receiver, {KT_MOM_NONE, nullptr, KT_MOM_SCAN_OVER, 0});
}

} // namespace

} // namespace mom
