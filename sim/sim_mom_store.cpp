#include "sim/sim_mom_store.h"

#include "sim/sim_mom_client.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace sim
{

namespace
{

constexpr std::array<uint32_t, MOM_DATABASES> IDS = {0, 4, 6, 8};
constexpr uint64_t EXPIRE_MAX = 1'000'000'000'000; /* seconds that fit the clock */

struct Store {
    std::array<MomDatabase, MOM_DATABASES> databases;
    std::vector<MomListener> listeners;
    uint64_t changes = 0;
    uint64_t leases = 0;
    bool is_ready = false;
};

Store store;

void prepare();
MomRecord *record_for(MomDatabase &db, const MomAddress &at);
void note_written(MomRecord &record, uint64_t life);
void expire_later(const MomDatabase &db, const MomAddress &at, uint64_t lease, uint64_t seconds);
void merge_fields(MomRecord &record, const ProtobufCMessage &object,
                  std::span<const uint32_t> fields);
void tell(MomDatabase &db, const MomAddress &at, MomChange change, uint64_t created);
MomObject shared(object::Message message);

} // namespace

std::array<MomDatabase, MOM_DATABASES> &mom_databases()
{
    if (!store.is_ready)
        prepare();
    return store.databases;
}

std::optional<size_t> mom_place_of(uint32_t db)
{
    const auto at = std::find(IDS.begin(), IDS.end(), db);
    if (at == IDS.end())
        return std::nullopt;
    return static_cast<size_t>(at - IDS.begin());
}

Micros mom_expiry(uint64_t seconds)
{
    return now() + static_cast<Micros>(std::min(seconds, EXPIRE_MAX)) * SECOND;
}

uint64_t mom_change_count()
{
    return store.changes;
}

bool MomSelector::selects(const std::string &object_key, const ProtobufCMessage &object) const
{
    if (selects_all)
        return true;
    return match == KT_MOM_MATCH_EXACT ? object_key == key : object::matches(*templ, match, object);
}

bool MomSelector::selects_one() const
{
    return !selects_all && match == KT_MOM_MATCH_EXACT;
}

int mom_address(const ProtobufCMessage *object, MomAddress *address)
{
    const object::Kind *kind = object == nullptr ? nullptr : object::kind_of(*object);
    if (kind == nullptr || !object::has_key(*object))
        return -EINVAL;
    const std::vector<MomKind> &kinds = mom_databases()[0].kinds;
    address->kind = 0;
    while (kinds[address->kind].kind != kind)
        address->kind++;
    address->key = object::key(*object);
    return 0;
}

int mom_selector(const ProtobufCMessage *templ, uint32_t match, MomSelector *selector)
{
    const object::Kind *kind = templ == nullptr ? nullptr : object::kind_of(*templ);
    if (kind == nullptr || (match != KT_MOM_MATCH_EXACT && match != KT_MOM_MATCH_PARTIAL))
        return -EINVAL;
    /* A template without index selects everything, as one with an empty index. */
    const bool lacks_index = !object::has_key(*templ) && object::key_is_empty(*templ);
    selector->templ = lacks_index ? object::empty(*kind) : object::copy_key(*templ);
    MomAddress address;
    if (const int error = mom_address(selector->templ.get(), &address))
        return error;
    selector->kind = address.kind;
    selector->key = std::move(address.key);
    selector->match = match;
    selector->selects_all = object::key_is_empty(*selector->templ);
    return 0;
}

int mom_store_set(MomDatabase &db, const MomAddress &at, const ProtobufCMessage &object,
                  const MomWrite &write)
{
    MomRecord *record = record_for(db, at);
    if (record == nullptr)
        return -ENOSPC;
    record->object = shared(object::copy(object));
    record->is_fieldwise = false;
    record->fields.clear();
    record->owner = write.is_owner ? std::optional(write.life) : std::nullopt;
    record->lease = 0;
    if (write.expire > 0) {
        record->lease = ++store.leases;
        expire_later(db, at, record->lease, write.expire);
    }
    note_written(*record, write.life);
    tell(db, at, {KT_MOM_SET, KT_MOM_CHANGE, record->object, {}}, record->created);
    return 0;
}

int mom_store_hset(MomDatabase &db, const MomAddress &at, const ProtobufCMessage &object,
                   std::span<const uint32_t> fields, uint64_t life)
{
    MomRecord *record = record_for(db, at);
    if (record == nullptr)
        return -ENOSPC;
    merge_fields(*record, object, fields);
    note_written(*record, life);
    tell(db, at, {KT_MOM_HSET, KT_MOM_CHANGE, record->object, {fields.begin(), fields.end()}},
         record->created);
    return 0;
}

void mom_store_publish(MomDatabase &db, const MomAddress &at, const ProtobufCMessage &object)
{
    tell(db, at, {KT_MOM_PUBLISH, KT_MOM_CHANGE, shared(object::copy(object)), {}}, 0);
}

void mom_store_delete(MomDatabase &db, size_t kind, const std::string &key)
{
    const auto node = db.kinds[kind].records.extract(key);
    if (node.empty())
        return;
    db.objects--;
    store.changes++;
    tell(db, {kind, node.key()}, {KT_MOM_DEL, KT_MOM_CHANGE, node.mapped().object, {}},
         node.mapped().created);
}

MomRecord *mom_store_find(MomDatabase &db, const MomAddress &at)
{
    MomRecords &records = db.kinds[at.kind].records;
    const auto found = records.find(at.key);
    return found == records.end() ? nullptr : &found->second;
}

MomRecords::iterator mom_store_next(MomDatabase &db, const MomSelector &selector,
                                    const std::string *after)
{
    MomRecords &records = db.kinds[selector.kind].records;
    if (selector.selects_one())
        return after == nullptr ? records.find(selector.key) : records.end();
    auto at = after == nullptr ? records.begin() : records.upper_bound(*after);
    while (at != records.end() && !selector.selects(at->first, *at->second.object))
        ++at;
    return at;
}

void mom_store_delete_if(MomDatabase &db, const MomSelector &selector,
                         const std::function<bool(const MomRecord &)> &condition)
{
    /* Listeners may write while a deletion is told: the walk ends before the first. */
    std::vector<std::string> keys;
    MomRecords &records = db.kinds[selector.kind].records;
    auto at = selector.selects_one() ? records.find(selector.key) : records.begin();
    for (; at != records.end(); ++at) {
        if (selector.selects(at->first, *at->second.object) && condition(at->second))
            keys.push_back(at->first);
        if (selector.selects_one())
            break;
    }
    for (const std::string &key : keys) {
        const MomRecord *record = mom_store_find(db, {selector.kind, key});
        if (record != nullptr && condition(*record))
            mom_store_delete(db, selector.kind, key);
    }
}

void mom_store_delete_owned(size_t database, uint64_t life)
{
    MomDatabase &db = mom_databases()[database];
    for (size_t kind = 0; kind < db.kinds.size(); kind++) {
        MomSelector every;
        every.kind = kind;
        every.selects_all = true;
        mom_store_delete_if(db, every,
                            [life](const MomRecord &record) { return record.owner == life; });
    }
}

bool mom_record_is_own(const MomRecord &record, uint64_t life)
{
    return life == MOM_PEER_LIFE ? record.was_written_by_peer : record.written_by == life;
}

void mom_store_reset()
{
    const uint64_t leases = store.leases; /* jobs that still wait must not meet a new lease */
    store = {};
    store.leases = leases;
}

/* --- What stands in sim_mom.h */

void mom_on_change(MomListener listener)
{
    store.listeners.push_back(std::move(listener));
}

void mom_clear(uint32_t db)
{
    const std::optional<size_t> place = mom_place_of(db);
    if (!place)
        return;
    MomDatabase &cleared = mom_databases()[*place];
    for (MomKind &kind : cleared.kinds)
        kind.records.clear();
    cleared.objects = 0;
    mom_section_clear(*place);
}

object::Message mom_get(uint32_t db, const ProtobufCMessage &key)
{
    const std::optional<size_t> place = mom_place_of(db);
    MomAddress at;
    if (!place || mom_address(&key, &at) != 0)
        return nullptr;
    const MomRecord *record = mom_store_find(mom_databases()[*place], at);
    return record == nullptr ? nullptr : object::copy(*record->object);
}

void mom_each(uint32_t db, const std::function<void(const object::Kind &, const ProtobufCMessage &,
                                                    const MomMeta &)> &visit)
{
    const std::optional<size_t> place = mom_place_of(db);
    if (!place)
        return;
    for (const MomKind &kind : mom_databases()[*place].kinds) {
        for (const auto &[key, record] : kind.records)
            visit(*kind.kind, *record.object,
                  {record.section != 0, record.is_fieldwise, record.owner});
    }
}

namespace
{

void prepare()
{
    store.is_ready = true;
    const std::vector<const object::Kind *> kinds = object::kinds();
    for (size_t i = 0; i < MOM_DATABASES; i++) {
        store.databases[i].id = IDS[i];
        for (const object::Kind *kind : kinds)
            store.databases[i].kinds.push_back({kind, {}, {}});
    }
}

/* The object's record, a new one if need be; nullptr when the database is full. */
MomRecord *record_for(MomDatabase &db, const MomAddress &at)
{
    if (MomRecord *known = mom_store_find(db, at))
        return known;
    if (db.objects >= MOM_OBJECTS_MAX)
        return nullptr;
    db.objects++;
    MomRecord &record = db.kinds[at.kind].records[at.key];
    record.created = store.changes + 1;
    return &record;
}

void note_written(MomRecord &record, uint64_t life)
{
    store.changes++;
    record.section = 0;
    if (life == MOM_PEER_LIFE)
        record.was_written_by_peer = true;
    else
        record.written_by = life;
}

void expire_later(const MomDatabase &db, const MomAddress &at, uint64_t lease, uint64_t seconds)
{
    post_at(mom_expiry(seconds), [place = *mom_place_of(db.id), at, lease] {
        MomDatabase &then = mom_databases()[place];
        const MomRecord *record = mom_store_find(then, at);
        if (record != nullptr && record->lease == lease)
            mom_store_delete(then, at.kind, at.key);
    });
}

void merge_fields(MomRecord &record, const ProtobufCMessage &object,
                  std::span<const uint32_t> fields)
{
    const bool is_new = record.object == nullptr;
    object::Message whole = is_new ? object::copy_key(object) : object::copy(*record.object);
    object::merge(*whole, object, fields);
    if (!is_new && !record.is_fieldwise) { /* a plain object has all its fields */
        for (unsigned i = 0; i < object.descriptor->n_fields; i++)
            record.fields.push_back(object.descriptor->fields[i].id);
    }
    record.fields.insert(record.fields.end(), fields.begin(), fields.end());
    std::sort(record.fields.begin(), record.fields.end());
    record.fields.erase(std::unique(record.fields.begin(), record.fields.end()),
                        record.fields.end());
    if (object::kind_is_keyed(*object::kind_of(object)))
        std::erase(record.fields, 5U);
    record.object = shared(std::move(whole));
    record.is_fieldwise = true;
}

/* Subscribers first: what a listener writes in answer comes behind. */
void tell(MomDatabase &db, const MomAddress &at, MomChange change, uint64_t created)
{
    const auto told = std::make_shared<const MomChange>(std::move(change));
    mom_notify(db, at.kind, at.key, told, created);
    for (size_t i = 0; i < store.listeners.size(); i++) {
        const MomListener listener = store.listeners[i];
        listener(db.id, told->operation, *told->object, told->fields);
    }
}

MomObject shared(object::Message message)
{
    return MomObject(std::move(message));
}

} // namespace

} // namespace sim
