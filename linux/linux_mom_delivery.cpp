#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "linux/linux_mom_client.h"
#include "linux/redis_value.h"

#include <algorithm>
#include <cerrno>
#include <event2/event.h>
#include <unordered_map>
#include <utility>

namespace mom
{

namespace
{

constexpr size_t QUEUE_LIMIT = 65'536;
constexpr size_t REPORTED_MAX = 1'024;
constexpr int64_t DELIVER_FOR = 5'000;    /* microseconds a turn of the loop, */
constexpr size_t DELIVERIES_UNTIMED = 64; /* looked at the clock between so many */

size_t limit = QUEUE_LIMIT;

bool is_news(Connection &c, const std::string &name);
void log_foreign(const Connection &c, size_t kind, const char *name);
std::string hex_of(std::string_view bytes);
bool deliver_one(Connection &c);
void run_step(Connection &c, Item item);
void deliver_note(Connection &c, const Item &item);
void deliver_state(Connection &c, const Item &item);
Change change_of_note(size_t kind, const redis::Note &note);
void uncount(Connection &c, const SubscriptionPtr &subscription);
void note(Subscription &subscription, const Change &change);
void tell(Connection &c, const SubscriptionPtr &subscription, const Change &change,
          std::string_view text);
void enqueue(Connection &c, Item item);
void enqueue_start(Connection &c, const SubscriptionPtr &subscription);
bool tell_next_missed(Connection &c, Subscription &subscription, const Selector &selector,
                      Known::Place *place);
void start(Connection &c, const SubscriptionPtr &subscription);
void join(Connection &c, size_t kind);
void leave(Connection &c, size_t kind);
void replace(Connection &c, Subscription &old, Subscription &by);
void forget_unselected(Subscription &subscription);
void doubt(const Item &item);
void bid_farewell(Connection &c, const SubscriptionPtr &subscription);
template <typename Visit> void each_subscription(Connection &c, const Visit &visit);

} // namespace

const std::vector<KindInfo> &kinds()
{
    static const std::vector<KindInfo> KINDS = [] {
        std::vector<KindInfo> all;
        for (const object::Kind *kind : object::kinds()) {
            const ProtobufCMessageDescriptor &type = object::kind_descriptor(*kind);
            std::vector<uint32_t> numbers;
            for (unsigned i = object::kind_is_keyed(*kind) ? 1 : 0; i < type.n_fields; i++)
                numbers.push_back(type.fields[i].id);
            all.push_back({kind, object::kind_name(*kind), redis::key_shape(*kind),
                           redis::fields_text(numbers)});
        }
        return all;
    }();
    return KINDS;
}

bool Selector::selects(std::string_view object_key) const
{
    switch (mode) {
    case 'a':
        return true;
    case 'k':
        return object_key == key;
    default:
        return redis::key_selects(kinds()[kind].shape, key, object_key);
    }
}

void queue_limit(size_t changes)
{
    limit = changes == 0 ? QUEUE_LIMIT : changes;
}

void arm(Connection &c)
{
    if (c.is_armed || c.deliver_event == nullptr)
        return;
    c.is_armed = true;
    const timeval now = {0, 0};
    if (c.is_delivering || c.is_yielding)
        event_add(c.deliver_event, &now); /* in the next turn, or the sockets would starve */
    else
        event_active(c.deliver_event, EV_TIMEOUT, 0);
}

void enqueue_notice(Connection &c, std::function<void()> notice)
{
    enqueue(c, {.step = [notice = std::move(notice)] {
                notice();
                return true;
            }});
}

void enqueue_step(Connection &c, std::function<bool()> step)
{
    enqueue(c, {.step = std::move(step)});
}

/* Until nothing is left or time is up for the others in the loop. */
void deliver(Connection &c)
{
    const auto keep = c.shared_from_this();
    const int64_t until = linux_loop_now() + DELIVER_FOR;
    bool has_more = true;
    c.is_delivering = true;
    c.is_yielding = false;
    for (size_t i = 1; has_more && !c.is_yielding; i++) {
        has_more = deliver_one(c) && !c.has_ended;
        if (i % DELIVERIES_UNTIMED == 0 && linux_loop_now() >= until)
            break;
    }
    if (has_more)
        arm(c);
    c.is_delivering = false;
}

const ProtobufCMessage *object_of(Connection &c, const Change &change, redis::Unpacked &memory)
{
    const object::Kind &kind = *kinds()[change.kind].kind;
    const ProtobufCMessage *object = nullptr;
    if (change.operation != KT_MOM_NONE)
        object = memory.unpack(kind, change.key, change.message);
    if (object == nullptr && change.operation == KT_MOM_DEL)
        object = memory.from_key(kind, change.key);
    if (object == nullptr)
        report_foreign(c, change.kind, change.key);
    return object;
}

void call(Connection &c, const Receiver &receiver, const kt_mom_msg &msg)
{
    if (receiver.callback == nullptr || !linux_global_is_open(receiver.global))
        return;
    c.counts.delivered++;
    receiver.callback(receiver.global, &msg, receiver.user);
}

void call_with(Connection &c, const Receiver &receiver, const Change &change,
               const ProtobufCMessage *object)
{
    if (change.operation != KT_MOM_HSET) {
        call(c, receiver, {change.operation, object, KT_MOM_CHANGE, 0});
        return;
    }
    const std::vector<uint32_t> fields = redis::numbers_of(change.fields);
    const kt_mom_hash hash = {
        object, fields.data(), static_cast<uint32_t>(fields.size()), {0, 0}, 0};
    call(c, receiver, {change.operation, &hash, KT_MOM_CHANGE, 0});
}

int subscribe(Connection &c, const Receiver &receiver, Selector selector, uint32_t tag)
{
    auto &standing = c.channels[selector.kind].subscriptions;
    const auto equal = std::ranges::find_if(standing, [&](const SubscriptionPtr &each) {
        return each->standing != Standing::ENDING && each->receiver == receiver && each->tag == tag;
    });
    if (equal == standing.end() && c.subscriptions >= SUBSCRIPTIONS_MAX)
        return -ENOSPC;
    const auto made = std::make_shared<Subscription>();
    made->receiver = receiver;
    made->selector = std::move(selector);
    made->tag = tag;
    made->serial = ++c.serials;
    if (equal != standing.end()) {
        replace(c, **equal, *made);
        standing.erase(equal);
    } else {
        c.subscriptions++;
    }
    standing.push_back(made);
    start(c, made);
    return 0;
}

int watch(Connection &c, const Receiver &receiver)
{
    for (const SubscriptionPtr &each : c.watchers) {
        if (each->receiver == receiver)
            return 0;
    }
    if (c.subscriptions >= SUBSCRIPTIONS_MAX)
        return -ENOSPC;
    c.subscriptions++;
    const auto made = std::make_shared<Subscription>();
    made->receiver = receiver;
    made->serial = ++c.serials;
    made->is_watcher = true;
    c.watchers.push_back(made);
    start(c, made);
    return 0;
}

void unsubscribe(Connection &c, const Receiver &receiver, const Selector &selector)
{
    for (const SubscriptionPtr &each : c.channels[selector.kind].subscriptions) {
        if (each->standing == Standing::ENDING || !(each->receiver == receiver) ||
            !selector.selects(each->selector.key))
            continue;
        each->standing = Standing::ENDING;
        c.subscriptions--;
        changing(c);
        fence(c, [&c, each] {
            bid_farewell(c, each);
            changed(c);
        });
    }
}

void hear(Connection &c, std::string_view channel, std::string_view text)
{
    static const std::unordered_map<std::string_view, size_t> PLACES = [] {
        std::unordered_map<std::string_view, size_t> places;
        for (size_t i = 0; i < kinds().size(); i++)
            places.emplace(kinds()[i].name, i);
        return places;
    }();
    const auto place = PLACES.find(channel.substr(std::min(c.prefix.size(), channel.size())));
    if (place == PLACES.end())
        return;
    const size_t kind = place->second;
    const std::optional<redis::Note> told = redis::note_of(text);
    if (!told) {
        report_foreign_whole(c, kind, "a message");
        return;
    }
    const Change change = change_of_note(kind, *told);
    for (const SubscriptionPtr &each : c.channels[kind].subscriptions) {
        if (each->selector.selects(change.key))
            tell(c, each, change, text);
    }
    for (const SubscriptionPtr &each : c.watchers)
        tell(c, each, change, text);
}

void note_scanned(Connection &c, const Change &change)
{
    for (const SubscriptionPtr &each : c.channels[change.kind].subscriptions) {
        if (each->selector.selects(change.key))
            note(*each, change);
    }
}

void tell_missed(Connection &c, const Scan &scan)
{
    for (const SubscriptionPtr &each : c.channels[scan.selector.kind].subscriptions) {
        if (each->told_at == NEVER || scan.serial <= each->told_at)
            continue;
        const auto step = [&c, each, selector = scan.selector, place = Known::Place()]() mutable {
            return !tell_next_missed(c, *each, selector, &place);
        };
        enqueue_step(c, step);
    }
}

SubscriptionPtr shown_by(const Connection &c, const Scan &scan)
{
    for (const SubscriptionPtr &each : c.channels[scan.selector.kind].subscriptions) {
        if (each->standing == Standing::LIVE && each->shown_until >= scan.serial &&
            each->selector == scan.selector && !each->is_overrun && !each->is_fieldwise &&
            each->known.is_whole())
            return each;
    }
    return nullptr;
}

void note_shown(Connection &c, const Scan &scan)
{
    for (const SubscriptionPtr &each : c.channels[scan.selector.kind].subscriptions) {
        if (each->told_at != NEVER && scan.serial > each->told_at &&
            each->selector == scan.selector)
            each->shown_until = c.scan_count;
    }
}

void drop_queue(Connection &c)
{
    for (const Item &item : std::exchange(c.queue, {})) {
        if (item.operation == KT_MOM_UNSUBSCRIBED)
            c.farewells.push_back(item.subscription);
        doubt(item);
    }
    c.scans.clear();
    for (Channel &channel : c.channels) {
        channel.is_joined = false;
        for (const SubscriptionPtr &each : channel.subscriptions) {
            if (each->standing == Standing::ENDING)
                c.farewells.push_back(each);
        }
        std::erase_if(channel.subscriptions, [](const SubscriptionPtr &each) {
            return each->standing == Standing::ENDING;
        });
    }
    each_subscription(c, [](const SubscriptionPtr &each) {
        each->standing = Standing::STARTING;
        each->queued = 0;
        each->is_overrun = false;
        each->told_at = NEVER;
        each->shown_until = 0;
        each->known.doubt_all();
    });
}

void drop_subscriptions(Connection &c)
{
    each_subscription(c, [](const SubscriptionPtr &each) { each->standing = Standing::GONE; });
    for (Channel &channel : c.channels)
        channel.subscriptions.clear();
    c.watchers.clear();
    c.farewells.clear();
    c.subscriptions = 0;
}

void restart_subscriptions(Connection &c, uint64_t made_before)
{
    for (const SubscriptionPtr &each : std::exchange(c.farewells, {}))
        enqueue(c, {.subscription = each, .operation = KT_MOM_UNSUBSCRIBED});
    std::vector<SubscriptionPtr> again;
    each_subscription(c, [&](const SubscriptionPtr &each) {
        if (each->serial <= made_before)
            again.push_back(each);
    });
    std::ranges::sort(again, {}, [](const SubscriptionPtr &each) { return each->serial; });
    for (const SubscriptionPtr &each : again)
        start(c, each);
}

void report_foreign(Connection &c, size_t kind, std::string_view key)
{
    if (!is_news(c, kinds()[kind].name + std::string(key)))
        return;
    const object::Message object = object::from_key(*kinds()[kind].kind, key);
    const std::string name = object == nullptr ? "key " + hex_of(key) : object::to_text(*object);
    log_foreign(c, kind, name.c_str());
}

void report_foreign_whole(Connection &c, size_t kind, const char *what)
{
    if (is_news(c, kinds()[kind].name + what))
        log_foreign(c, kind, what);
}

void report_foreign_book(Connection &c, std::string_view name)
{
    if (is_news(c, std::string(name)))
        LINUX_LOG(KTDF_ZLOG_LV_WARN, "database %u: %.*s is not what is kept there; it was deleted",
                  c.db, static_cast<int>(name.size()), name.data());
}

namespace
{

/* Whether this is to be logged: what was is not logged again, and neither is all of a flood. */
bool is_news(Connection &c, const std::string &name)
{
    c.counts.foreign++;
    if (c.reported.size() >= REPORTED_MAX)
        return false;
    return c.reported.insert(std::hash<std::string>()(name)).second;
}

void log_foreign(const Connection &c, size_t kind, const char *name)
{
    LINUX_LOG(KTDF_ZLOG_LV_WARN, "database %u: %s %s is no object of this kind; passed over%s",
              c.db, kinds()[kind].name.c_str(), name,
              c.reported.size() < REPORTED_MAX ? "" : "; further ones are not logged");
}

std::string hex_of(std::string_view bytes)
{
    constexpr size_t SHOWN_MAX = 32;
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes.substr(0, SHOWN_MAX)) {
        text += DIGITS[static_cast<unsigned char>(byte) >> 4];
        text += DIGITS[static_cast<unsigned char>(byte) & 15];
    }
    return bytes.size() > SHOWN_MAX ? text + "..." : text;
}

/* False when there is nothing to deliver now. */
bool deliver_one(Connection &c)
{
    if (!c.scans.empty() && c.scans.front().page != nullptr) {
        scan_deliver(c);
        return true;
    }
    if (!c.scans.empty() && c.scans.front().is_awaited)
        return false; /* armed again when the page is there */
    if (c.queue.empty())
        return false;
    Item item = std::move(c.queue.front());
    c.queue.pop_front();
    if (item.step)
        run_step(c, std::move(item));
    else if (item.subscription->standing == Standing::GONE)
        return true;
    else if (item.note.empty())
        deliver_state(c, item);
    else
        deliver_note(c, item);
    return true;
}

void run_step(Connection &c, Item item)
{
    const uint64_t epoch = c.epoch;
    if (!item.step() && c.epoch == epoch)
        c.queue.push_front(std::move(item));
}

void deliver_note(Connection &c, const Item &item)
{
    uncount(c, item.subscription);
    const Change change = change_of_note(item.kind, *redis::note_of(item.note));
    redis::Unpacked memory;
    const ProtobufCMessage *object = object_of(c, change, memory);
    if (object == nullptr)
        return;
    if (!item.subscription->is_watcher)
        note(*item.subscription, change);
    call_with(c, item.subscription->receiver, change, object);
}

void deliver_state(Connection &c, const Item &item)
{
    Subscription &subscription = *item.subscription;
    if (item.operation == KT_MOM_RESYNC || item.scan_state == KT_MOM_SCAN_AGAIN) {
        /* A page that was already on its way may have shown what is gone since. */
        subscription.known.doubt_all();
        subscription.told_at = c.scan_count;
        subscription.shown_until = 0;
    }
    if (item.operation == KT_MOM_UNSUBSCRIBED)
        subscription.standing = Standing::GONE;
    call(c, subscription.receiver, {item.operation, nullptr, item.scan_state, 0});
}

Change change_of_note(size_t kind, const redis::Note &told)
{
    return {told.operation, kind, told.key, told.fields, told.message};
}

/* One change less in its queue; when that is drained it may have to ask for a scan. */
void uncount(Connection &c, const SubscriptionPtr &subscription)
{
    if (--subscription->queued > 0 || !subscription->is_overrun)
        return;
    subscription->is_overrun = false;
    if (!subscription->is_watcher)
        enqueue(c, {.subscription = subscription, .scan_state = KT_MOM_SCAN_AGAIN});
}

/* What the owner knows after it has been told. */
void note(Subscription &subscription, const Change &change)
{
    if (change.operation == KT_MOM_HSET)
        subscription.is_fieldwise = true;
    if (change.operation == KT_MOM_SET || change.operation == KT_MOM_HSET)
        subscription.known.put(change.key, change.message);
    else if (change.operation == KT_MOM_DEL)
        subscription.known.erase(change.key);
}

/* A change goes to the queue, or is lost: then only deletions are remembered. */
void tell(Connection &c, const SubscriptionPtr &subscription, const Change &change,
          std::string_view text)
{
    const bool is_placed = subscription->standing != Standing::STARTING;
    if (is_placed && !subscription->is_overrun && subscription->queued < limit) {
        subscription->queued++;
        enqueue(c, {.subscription = subscription, .kind = change.kind, .note = std::string(text)});
        return;
    }
    if (is_placed) {
        c.counts.dropped++;
        subscription->is_overrun = true;
        subscription->told_at = NEVER;
        subscription->shown_until = 0;
    }
    if (change.operation == KT_MOM_DEL && !subscription->is_watcher)
        subscription->known.put_doubtful(change.key, change.message);
}

void enqueue(Connection &c, Item item)
{
    c.queue.push_back(std::move(item));
    arm(c);
}

void enqueue_start(Connection &c, const SubscriptionPtr &subscription)
{
    enqueue(c, {.subscription = subscription, .operation = KT_MOM_RESYNC});
    enqueue(c, {.subscription = subscription, .scan_state = KT_MOM_SCAN_START});
}

/* Tells of one object that a scan should have shown; false when there is none. */
bool tell_next_missed(Connection &c, Subscription &subscription, const Selector &selector,
                      Known::Place *place)
{
    if (subscription.standing == Standing::GONE)
        return false;
    auto missed = subscription.known.next_doubtful(place);
    while (missed && !selector.selects(missed->key))
        missed = subscription.known.next_doubtful(place);
    if (!missed)
        return false;
    const std::string key(missed->key), message(missed->message);
    subscription.known.erase(key);
    const Change change = {KT_MOM_DEL, selector.kind, key, {}, message};
    redis::Unpacked memory;
    if (const ProtobufCMessage *object = object_of(c, change, memory))
        call_with(c, Receiver(subscription.receiver), change, object);
    return true;
}

/* Joins what it hears, then tells the owner once everything older has passed. */
void start(Connection &c, const SubscriptionPtr &subscription)
{
    if (subscription->is_watcher) {
        for (size_t kind = 0; kind < kinds().size(); kind++)
            join(c, kind);
    } else {
        join(c, subscription->selector.kind);
    }
    changing(c);
    fence(c, [&c, subscription] {
        if (subscription->standing == Standing::STARTING)
            subscription->standing = Standing::LIVE;
        if (subscription->standing == Standing::LIVE && !subscription->is_watcher)
            enqueue_start(c, subscription);
        changed(c);
    });
}

void join(Connection &c, size_t kind)
{
    Channel &channel = c.channels[kind];
    if (channel.is_joined)
        return;
    channel.is_joined = true;
    c.subscriber.send(
        std::array<std::string_view, 2>{"SUBSCRIBE", std::string(c.prefix + kinds()[kind].name)});
}

void leave(Connection &c, size_t kind)
{
    Channel &channel = c.channels[kind];
    if (!channel.is_joined || !channel.subscriptions.empty() || !c.watchers.empty())
        return;
    channel.is_joined = false;
    c.subscriber.send(
        std::array<std::string_view, 2>{"UNSUBSCRIBE", std::string(c.prefix + kinds()[kind].name)});
}

/*
 * What the old one has not been told yet and a scan would not show goes to the new one;
 * the scans that it was waiting for go on unheard.
 */
void replace(Connection &c, Subscription &old, Subscription &by)
{
    for (const Item &item : c.queue) {
        if (item.subscription.get() == &old)
            doubt(item);
    }
    old.standing = Standing::GONE;
    by.known = std::exchange(old.known, {});
    by.known.doubt_all();
    forget_unselected(by);
    for (Scan &scan : c.scans) {
        if (scan.receiver == old.receiver && scan.selector.kind == old.selector.kind)
            scan.receiver.callback = nullptr;
    }
}

/* Another template may select less than the one before. */
void forget_unselected(Subscription &subscription)
{
    Known::Place place;
    while (const auto known = subscription.known.next_doubtful(&place)) {
        if (!subscription.selector.selects(known->key))
            subscription.known.erase(std::string(known->key));
    }
}

/* What is dropped with an item: a deletion must be told later. */
void doubt(const Item &item)
{
    if (item.note.empty() || item.subscription->is_watcher)
        return;
    const Change change = change_of_note(item.kind, *redis::note_of(item.note));
    if (change.operation == KT_MOM_DEL)
        item.subscription->known.put_doubtful(change.key, change.message);
}

void bid_farewell(Connection &c, const SubscriptionPtr &subscription)
{
    const size_t kind = subscription->selector.kind;
    std::erase(c.channels[kind].subscriptions, subscription);
    enqueue(c, {.subscription = subscription, .operation = KT_MOM_UNSUBSCRIBED});
    leave(c, kind);
}

template <typename Visit> void each_subscription(Connection &c, const Visit &visit)
{
    for (const Channel &channel : c.channels)
        std::ranges::for_each(channel.subscriptions, visit);
    std::ranges::for_each(c.watchers, visit);
}

} // namespace

} // namespace mom
