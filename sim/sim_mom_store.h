/*
 * sim_mom_store - the objects of the database in memory.
 *
 * Internal to sim_mom. A database holds, for each kind, its objects in key
 * order: a scan and a section walk them in that order and can take up where
 * they stopped, whatever was written meanwhile. A stored object is never
 * changed in place; a write puts another in its stead. So one copy serves the
 * store and every message that still carries it.
 *
 * The kinds of a database stand in one vector, in the order of their names,
 * and are named by their place in it: nothing is ever walked in the order of
 * addresses.
 */
#ifndef SIM_SIM_MOM_STORE_H
#define SIM_SIM_MOM_STORE_H

#include "sim/sim_loop.h"
#include "sim/sim_mom.h"

#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sim
{

struct MomSubscription;

using MomObject = std::shared_ptr<const ProtobufCMessage>;

/* What a message says; shared by all who get it. */
struct MomChange {
    uint32_t operation = KT_MOM_NONE;
    uint32_t scan_state = KT_MOM_CHANGE;
    MomObject object;
    std::vector<uint32_t> fields; /* of a hash set */
};

using MomChangePtr = std::shared_ptr<const MomChange>;

struct MomRecord {
    MomObject object;
    std::vector<uint32_t> fields; /* stored ones, in order; of a field-wise object only */
    bool is_fieldwise = false;
    bool was_written_by_peer = false;
    std::optional<uint64_t> written_by; /* the last process life that wrote it */
    std::optional<uint64_t> owner;      /* life */
    uint64_t created = 0;               /* number of the change that made it */
    uint64_t lease = 0;                 /* which job may expire it; 0: for ever */
    uint64_t section = 0;               /* which section marked it; 0: none */
};

using MomRecords = std::map<std::string, MomRecord>;

struct MomKind {
    const object::Kind *kind;
    MomRecords records;
    std::vector<std::shared_ptr<MomSubscription>> subscriptions; /* in the order they were made */
};

struct MomDatabase {
    uint32_t id = 0;
    std::vector<MomKind> kinds; /* by name */
    std::vector<std::shared_ptr<MomSubscription>> watchers;
    size_t objects = 0;
    bool is_cut_off = false; /* from the process */
    uint64_t cuts = 0;       /* counts losses, to tell a return that came before one */
    Micros cut_since = 0;    /* when it was cut off last */
};

constexpr size_t MOM_DATABASES = 4;
constexpr size_t MOM_OBJECTS_MAX = 1'048'576;

/* A template, prepared for many questions. */
struct MomSelector {
    size_t kind = 0;
    uint32_t match = KT_MOM_MATCH_EXACT;
    object::Message templ; /* only its key */
    std::string key;
    bool selects_all = false;

    bool selects(const std::string &object_key, const ProtobufCMessage &object) const;
    bool selects_one() const; /* at most the object with `key` */
};

/* Which object a write is about. */
struct MomAddress {
    size_t kind = 0;
    std::string key;
};

struct MomWrite {
    uint64_t life; /* the writer's */
    bool is_owner;
    uint64_t expire; /* seconds, 0: for ever */
};

/* The place of a database in mom_databases(), or none for an unknown id. */
std::optional<size_t> mom_place_of(uint32_t db);
std::array<MomDatabase, MOM_DATABASES> &mom_databases();

/* The moment so many seconds from now. */
Micros mom_expiry(uint64_t seconds);

/* A number that grows with every change. */
uint64_t mom_change_count();

/* Each returns 0, or -EINVAL for a message that cannot serve. */
int mom_address(const ProtobufCMessage *object, MomAddress *address);
int mom_selector(const ProtobufCMessage *templ, uint32_t match, MomSelector *selector);

/* 0 or -ENOSPC. */
int mom_store_set(MomDatabase &db, const MomAddress &at, const ProtobufCMessage &object,
                  const MomWrite &write);
int mom_store_hset(MomDatabase &db, const MomAddress &at, const ProtobufCMessage &object,
                   std::span<const uint32_t> fields, uint64_t life);
void mom_store_publish(MomDatabase &db, const MomAddress &at, const ProtobufCMessage &object);

/* Nothing happens where there is none. */
void mom_store_delete(MomDatabase &db, size_t kind, const std::string &key);
MomRecord *mom_store_find(MomDatabase &db, const MomAddress &at);

/* The first selected object behind `after` (nullptr: of all); end of the records if none. */
MomRecords::iterator mom_store_next(MomDatabase &db, const MomSelector &selector,
                                    const std::string *after);

/* Deletes all selected objects for which `condition` holds. */
void mom_store_delete_if(MomDatabase &db, const MomSelector &selector,
                         const std::function<bool(const MomRecord &)> &condition);
void mom_store_delete_owned(size_t database, uint64_t life);

/* Whether this life has written the object. */
bool mom_record_is_own(const MomRecord &record, uint64_t life);

/* Sections; see platform/kt_mom.h. begin returns 0 or -ENOSPC. */
struct MomSection {
    uint64_t life;
    bool is_owner;
    size_t database;
    size_t kind;
    uint32_t match;
    std::string key; /* of the template */

    bool operator==(const MomSection &) const = default;
};

int mom_section_begin(const MomSection &section, const MomSelector &selector, uint64_t expire);
void mom_section_end(const MomSection &section, const MomSelector &selector);
void mom_section_clear(size_t database);
void mom_section_reset();

void mom_store_reset();

} // namespace sim

#endif
