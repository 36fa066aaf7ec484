/*
 * ctl_db - the object database, as the commands use it.
 *
 * A thin layer over platform/kt_mom.h that turns results into Failures and
 * waits where a command must: until a connection is up, and until what was
 * written has taken effect, so that a tool that says "done" and ends has done
 * it. Databases are connected when they are first used; one that cannot be
 * reached within PATIENCE ends the command.
 *
 * A write that fails at once is told of with its object. One that the server refuses
 * later is told of in the server's words: which of the requests under way it was is not
 * known.
 */
#ifndef CTL_CTL_DB_H
#define CTL_CTL_DB_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <set>
#include <span>
#include <string>

#include "ctl/ctl.h"
#include "object/object.h"
#include "platform/kt_mom.h"

namespace ctl
{

enum Db : uint32_t { DB_NOTICE = 0, DB_CONFIG = 4, DB_MAC = 6, DB_STATE = 8 };
inline constexpr uint32_t DATABASES[] = {DB_NOTICE, DB_CONFIG, DB_MAC, DB_STATE};

constexpr int PATIENCE = 5000; /* milliseconds */

/* The databases for people: "0, 4, 6 and 8", with " and " between the last two. */
std::string databases_text(const char *last_between);

/* The database that holds the objects of a kind; throws Failure when it is not known. */
uint32_t db_of_kind(std::string_view kind);

/* Called for each object; fields are those that are stored, for an object stored by field. */
using Visit = std::function<void(const ProtobufCMessage &object, std::span<const uint32_t> fields)>;

class Databases
{
public:
    explicit Databases(Host &host) : host_(host)
    {
    }

    /* The context of the database client, for other calls on it; the host's. */
    kt_global *context();

    /* Connects, unless that is done. */
    void open(uint32_t db);

    /* Visits every object that the template selects. The visitor may throw. */
    void scan(uint32_t db, const ProtobufCMessage &object_template, uint32_t match,
              const Visit &visit);

    /* Every object of a kind in its database. */
    void scan(const char *kind, const Visit &visit);

    /* The object with the key of this message; nullptr when there is none. */
    object::Message get(uint32_t db, const ProtobufCMessage &key);

    /* The next ones take effect later: settle() waits for that. */

    /* Stores the whole object; with `expire` it goes after so many seconds. */
    void set(uint32_t db, const ProtobufCMessage &object, uint64_t expire = 0);
    /* Stores these fields of the object, by their numbers; the others keep their values. */
    void hset(uint32_t db, const ProtobufCMessage &object, std::span<const uint32_t> fields);
    /* Deletes the object with the key of this message; there may be none. */
    void del(uint32_t db, const ProtobufCMessage &key);
    /* Tells subscribers of the object and stores nothing. */
    void publish(uint32_t db, const ProtobufCMessage &object);

    /* Returns when every write of this command has taken effect; throws Failure if one has not. */
    void settle();

    /* Writes at once, and only while these fields are as in `before`; returns whether it did. */
    bool hset_if(uint32_t db, const ProtobufCMessage &before, const ProtobufCMessage &object,
                 std::span<const uint32_t> fields);

private:
    void check(int result, const char *verb, uint32_t db, const ProtobufCMessage &object) const;
    /* Throws when the server has refused something since it was connected. */
    void check_refusal() const;
    [[noreturn]] void unreachable(uint32_t db, const std::string &why) const;

    Host &host_;
    kt_global *global_ = nullptr;
    std::set<uint32_t> opened_;
    std::set<uint32_t> written_;
};

} // namespace ctl

#endif
