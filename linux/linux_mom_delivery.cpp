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
constexpr size_t KNOWN_MAX = 1'048'576;
constexpr size_t REPORTED_MAX = 1'024;
constexpr size_t DELIVERIES_A_TURN = 512;

size_t limit = QUEUE_LIMIT;

bool deliver_one(Connection &c);
void deliver_to(Connection &c, const SubscriptionPtr &subscription, const ChangePtr &change,
                bool is_counted);
void uncount(Connection &c, const SubscriptionPtr &subscription);
void note(Subscription &subscription, const Change &change);
void tell(Connection &c, const SubscriptionPtr &subscription, const ChangePtr &change);
ChangePtr control(uint32_t operation, uint32_t scan_state);
void start(Connection &c, const SubscriptionPtr &subscription);
void join(Connection &c, size_t kind);
void leave(Connection &c, size_t kind);
void replace(Connection &c, Subscription &old, Subscription &by);
void bid_farewell(Connection &c, const SubscriptionPtr &subscription);
void forget_what_is_known(Subscription &subscription);
template <typename Visit> void each_subscription(Connection &c, const Visit &visit);
ChangePtr change_of_note(Connection &c, size_t kind, const redis::Note &note);
ChangePtr deletion_of(Connection &c, size_t kind, const std::string &key);

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
    event_add(c.deliver_event, &now);
}

void enqueue(Connection &c, const SubscriptionPtr &subscription, ChangePtr change, bool is_counted)
{
    subscription->queued += is_counted;
    c.queue.push_back({subscription, std::move(change), is_counted, {}});
    arm(c);
}

void enqueue_notice(Connection &c, std::function<void()> notice)
{
    c.queue.push_back({nullptr, nullptr, false, std::move(notice)});
    arm(c);
}

void deliver(Connection &c)
{
    const auto keep = c.shared_from_this();
    for (size_t i = 0; i < DELIVERIES_A_TURN && !c.has_ended; i++) {
        if (!deliver_one(c))
            return;
    }
    arm(c);
}

void call(Connection &c, const Receiver &receiver, const Change &change)
{
    if (receiver.callback == nullptr || !linux_global_is_open(receiver.global))
        return;
    const kt_mom_hash hash = {change.object.get(),
                              change.fields.data(),
                              static_cast<uint32_t>(change.fields.size()),
                              {0, 0},
                              0};
    const bool is_hash = change.operation == KT_MOM_HSET;
    const kt_mom_msg msg = {change.operation,
                            is_hash ? static_cast<const void *>(&hash) : change.object.get(),
                            change.scan_state, change.error};
    c.counts.delivered++;
    receiver.callback(receiver.global, &msg, receiver.user);
}

int subscribe(Connection &c, const Receiver &receiver, Selector selector, uint32_t tag)
{
    auto &standing = c.channels[selector.kind].subscriptions;
    const auto equal = std::ranges::find_if(standing, [&](const SubscriptionPtr &each) {
        return each->standing != Standing::ENDING && each->receiver == receiver &&
               each->tag == tag && each->selector.key == selector.key;
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
        report_foreign(c, kind, "(a message)");
        return;
    }
    const auto &subscriptions = c.channels[kind].subscriptions;
    const auto selects = [&](const SubscriptionPtr &each) {
        return each->selector.selects(told->key);
    };
    if (c.watchers.empty() && std::ranges::none_of(subscriptions, selects))
        return;
    const ChangePtr change = change_of_note(c, kind, *told);
    if (change == nullptr)
        return;
    for (const SubscriptionPtr &each : subscriptions) {
        if (selects(each))
            tell(c, each, change);
    }
    for (const SubscriptionPtr &each : c.watchers)
        tell(c, each, change);
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
        for (auto at = each->missed.begin(); at != each->missed.end();) {
            if (!scan.selector.selects(at->first)) {
                ++at;
                continue;
            }
            ChangePtr change = at->second;
            if (change == nullptr)
                change = deletion_of(c, scan.selector.kind, at->first);
            if (change != nullptr)
                enqueue(c, each, std::move(change), true);
            at = each->missed.erase(at);
        }
    }
}

void drop_queue(Connection &c)
{
    for (const Item &item : std::exchange(c.queue, {})) {
        Subscription *subscription = item.subscription.get();
        if (subscription == nullptr || subscription->is_watcher)
            continue;
        if (item.change->operation == KT_MOM_UNSUBSCRIBED)
            c.farewells.push_back(item.subscription);
        else if (item.change->operation == KT_MOM_DEL)
            subscription->missed.insert_or_assign(item.change->key, item.change);
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
        forget_what_is_known(*each);
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
        enqueue(c, each, control(KT_MOM_UNSUBSCRIBED, KT_MOM_CHANGE), false);
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
    c.counts.foreign++;
    const std::string where = c.prefix + kinds()[kind].name + std::string(key);
    if (c.reported.size() >= REPORTED_MAX ||
        !c.reported.insert(std::hash<std::string>()(where)).second)
        return;
    std::string name(key);
    if (!key.starts_with('(')) {
        const object::Message object = object::from_key(*kinds()[kind].kind, key);
        name = object == nullptr ? "(no key of the kind)" : object::to_text(*object);
    }
    LINUX_LOG(KTDF_ZLOG_LV_WARN, "database %u: %s %s is no object of this kind; passed over", c.db,
              kinds()[kind].name.c_str(), name.c_str());
}

namespace
{

/* False when there is nothing to deliver now. */
bool deliver_one(Connection &c)
{
    if (!c.scans.empty() && c.scans.front().is_awaited)
        return false; /* armed again when the page is there */
    if (!c.scans.empty() && !c.scans.front().page.empty()) {
        Scan &scan = c.scans.front();
        const Receiver receiver = scan.receiver;
        const ChangePtr change = std::move(scan.page.front());
        scan.page.pop_front();
        note_scanned(c, *change);
        if (scan.page.empty())
            scan_go_on(c);
        call(c, receiver, *change);
        return true;
    }
    if (c.queue.empty())
        return false;
    const Item item = std::move(c.queue.front());
    c.queue.pop_front();
    if (item.subscription == nullptr)
        item.notice();
    else
        deliver_to(c, item.subscription, item.change, item.is_counted);
    return true;
}

void deliver_to(Connection &c, const SubscriptionPtr &subscription, const ChangePtr &change,
                bool is_counted)
{
    if (subscription->standing == Standing::GONE)
        return;
    if (is_counted)
        uncount(c, subscription);
    if (change->operation == KT_MOM_RESYNC || change->scan_state == KT_MOM_SCAN_AGAIN) {
        /* A page that was already on its way may have shown what is gone since. */
        forget_what_is_known(*subscription);
        subscription->told_at = c.scan_count;
    }
    if (change->operation == KT_MOM_UNSUBSCRIBED)
        subscription->standing = Standing::GONE;
    if (!subscription->is_watcher)
        note(*subscription, *change);
    const Receiver receiver = subscription->receiver;
    call(c, receiver, *change);
}

/* One change less in its queue; when that is drained it may have to ask for a scan. */
void uncount(Connection &c, const SubscriptionPtr &subscription)
{
    if (--subscription->queued > 0 || !subscription->is_overrun)
        return;
    subscription->is_overrun = false;
    if (!subscription->is_watcher)
        enqueue(c, subscription, control(KT_MOM_NONE, KT_MOM_SCAN_AGAIN), false);
}

/* What the owner knows after it has been told. */
void note(Subscription &subscription, const Change &change)
{
    if (change.operation == KT_MOM_SET || change.operation == KT_MOM_HSET) {
        if (!subscription.missed.empty())
            subscription.missed.erase(change.key);
        if (subscription.known.size() < KNOWN_MAX)
            subscription.known.insert(change.key);
    } else if (change.operation == KT_MOM_DEL) {
        subscription.missed.erase(change.key);
        subscription.known.erase(change.key);
    }
}

/* A change goes to the queue, or is lost: then only deletions are remembered. */
void tell(Connection &c, const SubscriptionPtr &subscription, const ChangePtr &change)
{
    const bool is_placed = subscription->standing != Standing::STARTING;
    if (is_placed && !subscription->is_overrun && subscription->queued < limit) {
        enqueue(c, subscription, change, true);
        return;
    }
    if (is_placed) {
        c.counts.dropped++;
        subscription->is_overrun = true;
        subscription->told_at = NEVER;
    }
    if (change->operation == KT_MOM_DEL && !subscription->is_watcher &&
        subscription->missed.size() < KNOWN_MAX)
        subscription->missed.insert_or_assign(change->key, change);
}

ChangePtr control(uint32_t operation, uint32_t scan_state)
{
    Change change;
    change.operation = operation;
    change.scan_state = scan_state;
    return std::make_shared<const Change>(std::move(change));
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
        if (subscription->standing == Standing::LIVE && !subscription->is_watcher) {
            enqueue(c, subscription, control(KT_MOM_RESYNC, KT_MOM_CHANGE), false);
            enqueue(c, subscription, control(KT_MOM_NONE, KT_MOM_SCAN_START), false);
        }
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

/* What the old one has not been told yet and a scan would not show goes to the new one. */
void replace(Connection &c, Subscription &old, Subscription &by)
{
    old.standing = Standing::GONE;
    by.missed = std::move(old.missed);
    by.known = std::move(old.known);
    forget_what_is_known(by);
    for (const Item &item : c.queue) {
        if (item.subscription.get() == &old && item.change->operation == KT_MOM_DEL)
            by.missed.insert_or_assign(item.change->key, item.change);
    }
}

void bid_farewell(Connection &c, const SubscriptionPtr &subscription)
{
    const size_t kind = subscription->selector.kind;
    std::erase(c.channels[kind].subscriptions, subscription);
    enqueue(c, subscription, control(KT_MOM_UNSUBSCRIBED, KT_MOM_CHANGE), false);
    leave(c, kind);
}

/* From here on each key that the owner knows may be gone without a word. */
void forget_what_is_known(Subscription &subscription)
{
    for (const std::string &key : std::exchange(subscription.known, {})) {
        if (subscription.missed.size() < KNOWN_MAX)
            subscription.missed.emplace(key, nullptr);
    }
}

template <typename Visit> void each_subscription(Connection &c, const Visit &visit)
{
    for (const Channel &channel : c.channels)
        std::ranges::for_each(channel.subscriptions, visit);
    std::ranges::for_each(c.watchers, visit);
}

/* nullptr if it carries no object of the kind; a deletion needs no more than the key. */
ChangePtr change_of_note(Connection &c, size_t kind, const redis::Note &told)
{
    Change change;
    change.operation = told.operation;
    change.kind = kind;
    change.key = told.key;
    change.fields = redis::numbers_of(told.fields);
    change.object = redis::unpack(*kinds()[kind].kind, told.key, told.message);
    if (change.object == nullptr && told.operation == KT_MOM_DEL)
        return deletion_of(c, kind, change.key);
    if (change.object == nullptr) {
        report_foreign(c, kind, told.key);
        return nullptr;
    }
    return std::make_shared<const Change>(std::move(change));
}

ChangePtr deletion_of(Connection &c, size_t kind, const std::string &key)
{
    Change change;
    change.operation = KT_MOM_DEL;
    change.kind = kind;
    change.key = key;
    change.object = object::from_key(*kinds()[kind].kind, key);
    if (change.object == nullptr) {
        report_foreign(c, kind, key);
        return nullptr;
    }
    return std::make_shared<const Change>(std::move(change));
}

} // namespace

} // namespace mom
