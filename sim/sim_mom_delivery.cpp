#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_mom_client.h"
#include "sim/sim_process.h"

#include <algorithm>
#include <cerrno>

namespace sim
{

namespace
{

constexpr size_t SCANS_MAX = 65'536;

size_t queue_limit = MOM_QUEUE_LIMIT;

void deliver_next(uint64_t epoch);
void scan_next(uint64_t epoch);
MomChangePtr scan_step(MomScan &scan, MomDatabase &db);
void scan_finish(MomConnection &connection);
void tell(const std::shared_ptr<MomSubscription> &subscription, const std::string &key,
          const MomChangePtr &change, uint64_t created);
void tell_missed(const std::shared_ptr<MomSubscription> &subscription);
void lose_from_now(MomSubscription &subscription);

} // namespace

void mom_queue_limit(size_t changes)
{
    queue_limit = std::max<size_t>(changes, 1);
}

MomChangePtr mom_control(uint32_t operation, uint32_t scan_state)
{
    return std::make_shared<const MomChange>(MomChange{operation, scan_state, nullptr, {}});
}

void mom_enqueue(const std::shared_ptr<MomSubscription> &subscription, MomChangePtr change,
                 bool is_counted)
{
    MomConnection &connection = *subscription->connection;
    subscription->queued += is_counted;
    connection.queue.push_back({subscription, std::move(change), is_counted});
    post([epoch = connection.epoch] { deliver_next(epoch); });
}

void mom_enqueue_start(const std::shared_ptr<MomSubscription> &subscription)
{
    mom_enqueue(subscription, mom_control(KT_MOM_RESYNC, KT_MOM_CHANGE), false);
    mom_enqueue(subscription, mom_control(KT_MOM_NONE, KT_MOM_SCAN_START), false);
}

void mom_notify(const MomDatabase &db, size_t kind, const std::string &key,
                const MomChangePtr &change, uint64_t created)
{
    for (const auto &subscription : db.kinds[kind].subscriptions) {
        if (subscription->selector.selects(key, *change->object))
            tell(subscription, key, change, created);
    }
    for (const auto &watcher : db.watchers)
        tell(watcher, key, change, created);
}

void mom_drop_queue(MomConnection &connection)
{
    for (MomItem &item : connection.queue) {
        MomSubscription &subscription = *item.subscription;
        if (item.change->operation == KT_MOM_UNSUBSCRIBED)
            connection.farewells.push_back(std::move(item));
        else if (item.change->operation == KT_MOM_DEL && !subscription.is_watcher)
            subscription.missed.emplace(object::key(*item.change->object), item.change);
    }
    connection.queue.clear();
    connection.scans.clear();
    for (const auto &subscription : mom_subscriptions(connection)) {
        subscription->queued = 0;
        subscription->is_overrun = false;
        lose_from_now(*subscription);
    }
}

int mom_scan(MomConnection &connection, MomScan scan)
{
    if (connection.scans.size() >= SCANS_MAX)
        return -ENOSPC;
    scan.serial = ++connection.requests;
    connection.scans.push_back(std::move(scan));
    if (connection.scans.size() == 1)
        post([epoch = connection.epoch] { scan_next(epoch); });
    return 0;
}

void mom_scan_now(MomConnection &connection, MomScan scan)
{
    MomScan &running = connection.sync_scans.emplace_back(std::move(scan));
    MomDatabase &db = mom_databases()[connection.database];
    while ((running.current = scan_step(running, db)) != nullptr)
        mom_call(running.receiver, *running.current);
    connection.sync_scans.pop_back();
}

void mom_call(const MomReceiver &receiver, const MomChange &change)
{
    if (receiver.callback == nullptr || !global_is_open(receiver.global))
        return;
    const kt_mom_hash hash = {change.object.get(),
                              change.fields.data(),
                              static_cast<uint32_t>(change.fields.size()),
                              {0, 0},
                              0};
    const bool is_hash = change.operation == KT_MOM_HSET;
    const kt_mom_msg msg = {change.operation,
                            is_hash ? static_cast<const void *>(&hash) : change.object.get(),
                            change.scan_state, 0};
    const auto call = [&receiver, &msg] {
        receiver.callback(receiver.global, &msg, receiver.user);
    };
    if (receiver.global == mom_peer())
        call();
    else
        process_call(call);
}

namespace
{

/* One change more or less in the queue of a subscription; when drained it may have to rescan. */
void uncount(const std::shared_ptr<MomSubscription> &subscription)
{
    if (--subscription->queued > 0 || !subscription->is_overrun)
        return;
    subscription->is_overrun = false;
    if (!subscription->is_watcher)
        mom_enqueue(subscription, mom_control(KT_MOM_NONE, KT_MOM_SCAN_AGAIN), false);
}

/* Whether the message asks the subscription's owner to scan. */
bool asks_to_scan(const MomChange &change)
{
    return change.operation == KT_MOM_RESYNC || change.scan_state == KT_MOM_SCAN_AGAIN;
}

void deliver_next(uint64_t epoch)
{
    MomConnection *connection = mom_epoch_find(epoch);
    if (connection == nullptr)
        return;
    const PlatformScope scope;
    const MomItem item = std::move(connection->queue.front());
    connection->queue.pop_front();
    MomSubscription &subscription = *item.subscription;
    if (subscription.is_replaced)
        return;
    if (item.is_counted)
        uncount(item.subscription);
    if (asks_to_scan(*item.change))
        subscription.told_at = connection->requests;
    mom_call(subscription.receiver, *item.change); /* the connection may be gone then */
}

void scan_next(uint64_t epoch)
{
    MomConnection *connection = mom_epoch_find(epoch);
    if (connection == nullptr)
        return;
    const PlatformScope scope;
    MomScan &scan = connection->scans.front();
    const MomReceiver receiver = scan.receiver;
    MomChangePtr change = scan_step(scan, mom_databases()[connection->database]);
    if (change == nullptr) {
        scan_finish(*connection);
        change = mom_control(KT_MOM_NONE, KT_MOM_SCAN_OVER);
    }
    if (!connection->scans.empty())
        post([epoch] { scan_next(epoch); });
    mom_call(receiver, *change); /* the connection may be gone then */
}

/* The scan's next object as it is stored now, or nullptr. */
MomChangePtr scan_step(MomScan &scan, MomDatabase &db)
{
    const auto at = mom_store_next(db, scan.selector, scan.is_begun ? &scan.last_key : nullptr);
    if (at == db.kinds[scan.selector.kind].records.end())
        return nullptr;
    scan.is_begun = true;
    scan.last_key = at->first;
    const MomRecord &record = at->second;
    const uint32_t operation = record.is_fieldwise ? KT_MOM_HSET : KT_MOM_SET;
    return std::make_shared<const MomChange>(
        MomChange{operation, KT_MOM_CHANGE, record.object, record.fields});
}

/* Removes the running scan. Whoever was told to scan before it began learns what it missed. */
void scan_finish(MomConnection &connection)
{
    const MomScan scan = std::move(connection.scans.front());
    connection.scans.pop_front();
    const MomKind &kind = mom_databases()[connection.database].kinds[scan.selector.kind];
    for (const auto &subscription : kind.subscriptions) {
        if (subscription->connection == &connection && scan.serial > subscription->told_at)
            tell_missed(subscription);
    }
}

void tell(const std::shared_ptr<MomSubscription> &subscription, const std::string &key,
          const MomChangePtr &change, uint64_t created)
{
    const bool is_deletion = change->operation == KT_MOM_DEL && !subscription->is_watcher;
    const bool is_heard = mom_works(*subscription->connection);
    if (is_heard && !subscription->is_overrun && subscription->queued < queue_limit) {
        if (is_deletion && !subscription->missed.empty())
            subscription->missed.erase(key);
        mom_enqueue(subscription, change, true);
        return;
    }
    if (is_heard && !subscription->is_overrun) {
        subscription->is_overrun = true;
        lose_from_now(*subscription);
    }
    if (is_deletion && created <= subscription->lost_since)
        subscription->missed.insert_or_assign(key, change);
}

void tell_missed(const std::shared_ptr<MomSubscription> &subscription)
{
    const std::map<std::string, MomChangePtr> missed = std::move(subscription->missed);
    subscription->missed.clear();
    MomDatabase &db = mom_databases()[subscription->connection->database];
    for (const auto &[key, change] : missed) {
        if (mom_store_find(db, {subscription->selector.kind, key}) == nullptr)
            mom_enqueue(subscription, change, true);
    }
}

void lose_from_now(MomSubscription &subscription)
{
    subscription.lost_since = mom_change_count();
    subscription.told_at = MOM_NEVER;
}

} // namespace

} // namespace sim
