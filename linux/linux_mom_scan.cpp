#include "linux/linux_mom_client.h"
#include "linux/redis_value.h"

#include <cerrno>

namespace mom
{

namespace
{

constexpr const char *PAGE = "1000"; /* objects, about */

void ask_page(Connection &c);
void ask_behind_queue(Connection &c);
void take_page(Connection &c, const redisReply &reply);
bool read_page(Connection &c, const redisReply &reply, const Selector &selector,
               std::string *cursor, std::deque<ChangePtr> *page);
void finish(Connection &c);

/* HGET for one object, else the next page. */
std::vector<std::string_view> page_arguments(const Selector &selector, const std::string &cursor)
{
    const std::string &kind = kinds()[selector.kind].name;
    if (selector.mode == 'k')
        return {"HGET", kind, selector.key};
    return {"HSCAN", kind, cursor, "COUNT", PAGE};
}

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
        ask_behind_queue(c);
    return 0;
}

int scan_now(Connection &c, const Receiver &receiver, const Selector &selector)
{
    const auto keep = c.shared_from_this();
    std::string cursor = "0";
    do {
        redis::Reply reply;
        if (const int error = ask(c, page_arguments(selector, cursor), &reply))
            return error;
        std::deque<ChangePtr> page;
        if (!read_page(c, *reply, selector, &cursor, &page))
            return -ENOTCONN;
        for (const ChangePtr &change : page) {
            if (c.has_ended)
                return -ENOTCONN;
            note_scanned(c, *change);
            call(c, receiver, *change);
        }
    } while (cursor != "0");
    return 0;
}

/* Changes that came meanwhile go first, so that a long scan does not starve them. */
void scan_go_on(Connection &c)
{
    if (c.scans.front().is_last)
        fence(c, [&c] { enqueue_notice(c, [&c] { finish(c); }); });
    else
        enqueue_notice(c, [&c] { ask_page(c); });
}

ChangePtr change_of(Connection &c, size_t kind, std::string_view key, std::string_view stored)
{
    const std::optional<redis::Value> value = redis::value_of(stored);
    Change change;
    change.kind = kind;
    change.key = key;
    if (value) {
        change.operation = value->is_fieldwise ? KT_MOM_HSET : KT_MOM_SET;
        change.fields = redis::numbers_of(value->fields);
        change.object = redis::unpack(*kinds()[kind].kind, key, value->message);
    }
    if (change.object == nullptr) {
        report_foreign(c, kind, key);
        return nullptr;
    }
    return std::make_shared<const Change>(std::move(change));
}

namespace
{

void ask_page(Connection &c)
{
    Scan &scan = c.scans.front();
    scan.is_awaited = true;
    request(
        c, page_arguments(scan.selector, scan.cursor),
        [&c](const redis::Reply &reply) { take_page(c, *reply); }, true);
}

/* What the scan before has found to be gone is told before the first object of this one. */
void ask_behind_queue(Connection &c)
{
    if (c.queue.empty())
        ask_page(c);
    else
        enqueue_notice(c, [&c] { ask_page(c); });
}

void take_page(Connection &c, const redisReply &reply)
{
    Scan &scan = c.scans.front();
    scan.is_awaited = false;
    if (!read_page(c, reply, scan.selector, &scan.cursor, &scan.page))
        return;
    scan.is_last = scan.cursor == "0";
    arm(c);
    if (scan.page.empty())
        scan_go_on(c);
}

/* The objects of a reply; false when it ended the connection. */
bool read_page(Connection &c, const redisReply &reply, const Selector &selector,
               std::string *cursor, std::deque<ChangePtr> *page)
{
    const auto take = [&](std::string_view key, std::string_view stored) {
        if (!selector.selects(key))
            return;
        if (ChangePtr change = change_of(c, selector.kind, key, stored))
            page->push_back(std::move(change));
    };
    *cursor = "0";
    if (redis::is_error(reply)) {
        if (!redis::text_of(reply).starts_with("WRONGTYPE")) {
            lose(c, std::string(redis::text_of(reply)));
            return false;
        }
        report_foreign(c, selector.kind, "(the whole kind)");
    } else if (reply.type == REDIS_REPLY_STRING) {
        take(selector.key, redis::text_of(reply));
    } else if (reply.type == REDIS_REPLY_ARRAY && reply.elements == 2) {
        const redisReply &entries = *reply.element[1];
        for (size_t i = 0; i + 1 < entries.elements; i += 2)
            take(redis::text_of(*entries.element[i]), redis::text_of(*entries.element[i + 1]));
        *cursor = redis::text_of(*reply.element[0]);
    }
    return true;
}

/* The fence behind the last page is back, and all that it held back is delivered. */
void finish(Connection &c)
{
    const Scan scan = std::move(c.scans.front());
    c.scans.pop_front();
    tell_missed(c, scan);
    if (!c.scans.empty())
        ask_behind_queue(c);
    Change over;
    over.scan_state = KT_MOM_SCAN_OVER;
    call(c, scan.receiver, over);
}

} // namespace

} // namespace mom
