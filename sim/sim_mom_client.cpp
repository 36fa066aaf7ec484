#include "sim/sim_mom_client.h"

#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_process.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

namespace sim
{

namespace
{

constexpr size_t SUBSCRIPTIONS_MAX = 4'096; /* of a connection */

struct Client {
    const kt_global *context;
    std::array<MomConnection, MOM_DATABASES> connections;
};

struct Clients {
    std::map<uint64_t, Client> by_life; /* connections do not move */
    /* Of finished contexts: a call of theirs may still be on the stack. */
    std::vector<std::map<uint64_t, Client>::node_type> retired;
    std::map<uint64_t, MomConnection *> epochs;
    uint64_t epoch_count = 0;
    uint64_t serials = 0; /* of subscriptions */
};

Clients clients;

void begin_epoch(MomConnection &connection);
void end_epoch(MomConnection &connection);
void begin_client(Client &client, const kt_global *context, uint64_t life);
void end_client(Client &client);
void come_up(uint64_t epoch, uint64_t connects);
void come_up_later(MomConnection &connection);
void lose(MomConnection &connection);
void tell_lost(uint64_t epoch);
void restore_all(size_t database, int type);
void restore(MomConnection &connection, int type);
void resynchronise(MomConnection &connection, uint64_t made_before);
std::shared_ptr<MomSubscription> make(MomConnection &connection, const MomReceiver &receiver);
std::vector<MomChangePtr> replace(MomSubscription &old, MomSubscription &by);
void end_leases(size_t database);
bool is_same(const MomSubscription &one, const MomSubscription &other);

} // namespace

MomConnection &mom_connection(const kt_global *global, size_t database)
{
    const uint64_t life = global == mom_peer() ? MOM_PEER_LIFE : process_life();
    auto at = clients.by_life.find(life);
    if (at != clients.by_life.end() && !global_is_open(at->second.context)) {
        end_client(at->second); /* the life goes on with another context */
        clients.retired.push_back(clients.by_life.extract(at));
        at = clients.by_life.end();
    }
    if (at == clients.by_life.end()) {
        at = clients.by_life.try_emplace(life).first;
        begin_client(at->second, global, life);
    }
    return at->second.connections[database];
}

bool mom_sync_works(const MomConnection &connection)
{
    return connection.is_sync_open &&
           (connection.life == MOM_PEER_LIFE || !mom_databases()[connection.database].is_cut_off);
}

bool mom_works(const MomConnection &connection)
{
    return connection.is_up &&
           (connection.life == MOM_PEER_LIFE || !mom_databases()[connection.database].is_cut_off);
}

void mom_connect(MomConnection &connection, kt_global *global, kt_mom_connect_callback callback,
                 void *user)
{
    connection.is_open = true;
    connection.global = global;
    connection.connected = callback;
    connection.connected_user = user;
    come_up_later(connection);
}

MomConnection *mom_epoch_find(uint64_t epoch)
{
    const auto at = clients.epochs.find(epoch);
    return at == clients.epochs.end() ? nullptr : at->second;
}

void mom_forget_clients()
{
    const uint64_t count = clients.epoch_count; /* jobs that still wait must find nothing */
    clients = {};
    clients.epoch_count = count;
}

int mom_subscribe(MomConnection &connection, const MomReceiver &receiver, MomSelector selector,
                  uint32_t tag)
{
    const auto made = make(connection, receiver);
    made->selector = std::move(selector);
    made->tag = tag;
    made->lost_since = mom_change_count();
    auto &standing = mom_databases()[connection.database].kinds[made->selector.kind].subscriptions;
    const auto equal = std::find_if(standing.begin(), standing.end(),
                                    [&](const auto &each) { return is_same(*each, *made); });
    std::vector<MomChangePtr> published;
    if (equal != standing.end()) {
        published = replace(**equal, *made);
        standing.erase(equal);
    } else if (connection.subscriptions >= SUBSCRIPTIONS_MAX) {
        return -ENOSPC;
    } else {
        connection.subscriptions++;
    }
    standing.push_back(made);
    mom_enqueue_start(made);
    for (MomChangePtr &change : published)
        mom_enqueue(made, std::move(change), true);
    return 0;
}

int mom_watch(MomConnection &connection, const MomReceiver &receiver)
{
    const auto made = make(connection, receiver);
    made->is_watcher = true;
    auto &standing = mom_databases()[connection.database].watchers;
    for (const auto &each : standing) {
        if (is_same(*each, *made))
            return 0;
    }
    if (connection.subscriptions >= SUBSCRIPTIONS_MAX)
        return -ENOSPC;
    connection.subscriptions++;
    standing.push_back(made);
    return 0;
}

void mom_unsubscribe(MomConnection &connection, const MomReceiver &receiver,
                     const MomSelector &selector)
{
    const MomChangePtr farewell = mom_control(KT_MOM_UNSUBSCRIBED, KT_MOM_CHANGE);
    std::erase_if(mom_databases()[connection.database].kinds[selector.kind].subscriptions,
                  [&](const std::shared_ptr<MomSubscription> &each) {
                      if (each->connection != &connection ||
                          each->receiver.callback != receiver.callback ||
                          each->receiver.user != receiver.user ||
                          !selector.selects(each->selector.key, *each->selector.templ))
                          return false;
                      connection.subscriptions--;
                      mom_enqueue(each, farewell, false);
                      return true;
                  });
}

std::vector<std::shared_ptr<MomSubscription>> mom_subscriptions(const MomConnection &connection)
{
    const MomDatabase &db = mom_databases()[connection.database];
    std::vector<std::shared_ptr<MomSubscription>> result;
    const auto take = [&](const std::vector<std::shared_ptr<MomSubscription>> &from) {
        std::copy_if(from.begin(), from.end(), std::back_inserter(result),
                     [&](const auto &each) { return each->connection == &connection; });
    };
    for (const MomKind &kind : db.kinds)
        take(kind.subscriptions);
    take(db.watchers);
    std::sort(result.begin(), result.end(),
              [](const auto &a, const auto &b) { return a->serial < b->serial; });
    return result;
}

void mom_drop_subscriptions(MomConnection &connection)
{
    MomDatabase &db = mom_databases()[connection.database];
    const auto is_of_it = [&](const auto &each) { return each->connection == &connection; };
    for (MomKind &kind : db.kinds)
        std::erase_if(kind.subscriptions, is_of_it);
    std::erase_if(db.watchers, is_of_it);
    connection.farewells.clear();
    connection.subscriptions = 0;
}

/* --- What stands in sim_mom.h */

kt_global *mom_peer()
{
    return global_peer();
}

void mom_disconnect(uint32_t db)
{
    const std::optional<size_t> place = mom_place_of(db);
    if (!place)
        return;
    MomDatabase &cut = mom_databases()[*place];
    cut.cuts++; /* stops a return on its way */
    if (cut.is_cut_off)
        return;
    cut.is_cut_off = true;
    cut.cut_since = now();
    post_at(now() + MOM_LEASE, [place = *place] { end_leases(place); });
    for (auto &[life, client] : clients.by_life) {
        if (life != MOM_PEER_LIFE)
            lose(client.connections[*place]);
    }
}

void mom_reconnect(uint32_t db, int type)
{
    const std::optional<size_t> place = mom_place_of(db);
    if (!place || !mom_databases()[*place].is_cut_off)
        return;
    post([place = *place, type, cuts = mom_databases()[*place].cuts] {
        if (mom_databases()[place].cuts == cuts && mom_databases()[place].is_cut_off)
            restore_all(place, type);
    });
}

bool mom_is_connected(uint32_t db)
{
    const std::optional<size_t> place = mom_place_of(db);
    const auto client = clients.by_life.find(process_life());
    return place && client != clients.by_life.end() &&
           mom_works(client->second.connections[*place]);
}

void mom_process_ended(uint64_t life)
{
    const auto client = clients.by_life.find(life);
    if (client != clients.by_life.end()) {
        end_client(client->second);
        clients.by_life.erase(client);
    }
    std::erase_if(clients.retired, [life](const auto &node) { return node.key() == life; });
    for (size_t database = 0; database < mom_databases().size(); database++)
        mom_store_delete_owned(database, life);
}

void mom_reset()
{
    mom_forget_clients();
    mom_store_reset();
    mom_section_reset();
    mom_queue_limit(MOM_QUEUE_LIMIT);
}

namespace
{

void begin_epoch(MomConnection &connection)
{
    connection.epoch = ++clients.epoch_count;
    clients.epochs.emplace(connection.epoch, &connection);
}

void end_epoch(MomConnection &connection)
{
    clients.epochs.erase(connection.epoch);
}

void begin_client(Client &client, const kt_global *context, uint64_t life)
{
    client.context = context;
    for (size_t i = 0; i < MOM_DATABASES; i++) {
        MomConnection &connection = client.connections[i];
        connection.database = i;
        connection.life = life;
        connection.is_sync_open = connection.is_open = connection.is_up = life == MOM_PEER_LIFE;
        begin_epoch(connection);
    }
}

void end_client(Client &client)
{
    for (MomConnection &connection : client.connections) {
        end_epoch(connection);
        mom_drop_subscriptions(connection);
    }
}

void call(kt_global *global, const std::function<void()> &function)
{
    const PlatformScope scope;
    if (!global_is_open(global))
        return;
    if (global == mom_peer())
        function();
    else
        process_call(function);
}

void come_up_later(MomConnection &connection)
{
    post(
        [epoch = connection.epoch, connects = ++connection.connects] { come_up(epoch, connects); });
}

void come_up(uint64_t epoch, uint64_t connects)
{
    MomConnection *connection = mom_epoch_find(epoch);
    if (connection == nullptr || connection->connects != connects ||
        !global_is_open(connection->global))
        return;
    if (connection->life != MOM_PEER_LIFE && mom_databases()[connection->database].is_cut_off)
        return; /* tried again when the database is back */
    connection->is_up = true;
    const auto callback = connection->connected;
    if (callback != nullptr)
        call(connection->global, [global = connection->global, callback,
                                  user = connection->connected_user] { callback(global, user); });
}

void lose(MomConnection &connection)
{
    mom_drop_queue(connection);
    end_epoch(connection);
    begin_epoch(connection);
    if (connection.is_up)
        post([epoch = connection.epoch] { tell_lost(epoch); });
}

void tell_lost(uint64_t epoch)
{
    const MomConnection *connection = mom_epoch_find(epoch);
    if (connection == nullptr || connection->disconnected == nullptr)
        return;
    call(connection->global,
         [global = connection->global, callback = connection->disconnected,
          db = mom_databases()[connection->database].id] { callback(global, db); });
}

void restore_all(size_t database, int type)
{
    mom_databases()[database].is_cut_off = false;
    std::vector<uint64_t> epochs; /* a callback may end its process */
    for (auto &[life, client] : clients.by_life) {
        if (life != MOM_PEER_LIFE)
            epochs.push_back(client.connections[database].epoch);
    }
    for (const uint64_t epoch : epochs) {
        if (MomConnection *connection = mom_epoch_find(epoch))
            restore(*connection, type);
    }
}

void restore(MomConnection &connection, int type)
{
    if (!connection.is_up) {
        if (connection.is_open)
            come_up_later(connection);
        return;
    }
    if (type != KT_MOM_RECONNECT_SAME)
        mom_drop_subscriptions(connection);
    const uint64_t epoch = connection.epoch;
    const uint64_t made_before = clients.serials;
    if (connection.reconnected != nullptr)
        call(connection.global,
             [global = connection.global, callback = connection.reconnected, type,
              db = mom_databases()[connection.database].id] { callback(global, db, type); });
    if (MomConnection *still = mom_epoch_find(epoch))
        resynchronise(*still, made_before);
}

/* What the reconnect callback has made anew is already on its way. */
void resynchronise(MomConnection &connection, uint64_t made_before)
{
    for (const MomItem &item : std::exchange(connection.farewells, {}))
        mom_enqueue(item.subscription, item.change, false);
    for (const auto &subscription : mom_subscriptions(connection)) {
        if (subscription->serial <= made_before && !subscription->is_watcher)
            mom_enqueue_start(subscription);
    }
}

std::shared_ptr<MomSubscription> make(MomConnection &connection, const MomReceiver &receiver)
{
    auto made = std::make_shared<MomSubscription>();
    made->connection = &connection;
    made->receiver = receiver;
    made->tag = 0;
    made->serial = ++clients.serials;
    return made;
}

/*
 * What the old one has not been told yet and a scan would not show goes to the
 * new one: deletions, and what was published, which is returned. The scans that
 * the old one was waiting for go on unheard.
 */
std::vector<MomChangePtr> replace(MomSubscription &old, MomSubscription &by)
{
    std::vector<MomChangePtr> published;
    old.is_replaced = true;
    by.missed = std::move(old.missed);
    for (const MomItem &item : old.connection->queue) {
        if (item.subscription.get() != &old)
            continue;
        if (item.change->operation == KT_MOM_DEL)
            by.missed.insert_or_assign(object::key(*item.change->object), item.change);
        else if (item.change->operation == KT_MOM_PUBLISH)
            published.push_back(item.change);
    }
    const auto is_unwanted = [&by](const MomChangePtr &change) { /* by another template */
                                                                 return !by.selector.selects(
                                                                     object::key(*change->object),
                                                                     *change->object);
    };
    std::erase_if(by.missed, [&](const auto &each) { return is_unwanted(each.second); });
    std::erase_if(published, is_unwanted);
    for (MomScan &scan : old.connection->scans) {
        if (scan.selector.kind == old.selector.kind &&
            scan.receiver.callback == old.receiver.callback &&
            scan.receiver.user == old.receiver.user)
            scan.receiver.callback = nullptr;
    }
    return published;
}

/* Whoever is still cut off from the database counts as gone there. */
void end_leases(size_t database)
{
    const MomDatabase &db = mom_databases()[database];
    if (!db.is_cut_off || now() - db.cut_since < MOM_LEASE)
        return;
    for (const auto &[life, client] : clients.by_life) {
        if (life != MOM_PEER_LIFE)
            mom_store_delete_owned(database, life);
    }
}

bool is_same(const MomSubscription &one, const MomSubscription &other)
{
    return one.connection == other.connection && one.receiver.callback == other.receiver.callback &&
           one.receiver.user == other.receiver.user && one.tag == other.tag;
}

} // namespace

} // namespace sim
