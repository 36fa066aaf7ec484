/*
 * The C interface: checks what it is given and hands over to the store and
 * the connections.
 */
#include "sim/sim_mom.h"

#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_mom_client.h"

#include <algorithm>
#include <cerrno>
#include <new>

using namespace sim;

namespace
{

/* What a call is about, for the record. */
struct Arguments {
    uint32_t db;
    const ProtobufCMessage *object = nullptr;
    uint32_t match = 0;
    uint32_t flag = 0;
    uint64_t expire = 0;
    uint64_t wait = 0;
    std::span<const uint32_t> fields = {};
};

/* What must be open for a call. */
enum class Needs { context, connection, sync_connection };

std::string arguments_text(const Arguments &arguments);
int open_request(kt_global *global, uint32_t db, Needs needs, MomConnection **connection);

/*
 * One call: announced, unless the peer makes it; then `body` with the
 * connection, if it is there.
 */
template <typename Body>
int serve(const char *name, kt_global *global, const Arguments &arguments, Needs needs,
          const Body &body)
{
    if (global != mom_peer()) {
        const int fault = call_enter(name, [&] { return arguments_text(arguments); });
        if (fault != 0)
            return fault;
    }
    const PlatformScope scope;
    MomConnection *connection = nullptr;
    if (const int error = open_request(global, arguments.db, needs, &connection))
        return error;
    try {
        return body(*connection);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

/* A call that begins with a template. */
template <typename Body>
int serve_template(const char *name, kt_global *global, const Arguments &arguments, Needs needs,
                   const Body &body)
{
    return serve(name, global, arguments, needs, [&](MomConnection &connection) {
        MomSelector selector;
        const int error = mom_selector(arguments.object, arguments.match, &selector);
        return error != 0 ? error : body(connection, std::move(selector));
    });
}

/* A call about one object. */
template <typename Body>
int serve_object(const char *name, kt_global *global, const Arguments &arguments, const Body &body,
                 Needs needs = Needs::connection)
{
    return serve(name, global, arguments, needs, [&](MomConnection &connection) {
        MomAddress at;
        const int error = mom_address(arguments.object, &at);
        return error != 0 ? error : body(connection, at);
    });
}

MomDatabase &database_of(const MomConnection &connection)
{
    return mom_databases()[connection.database];
}

bool have_equal_fields(const ProtobufCMessage &left, const ProtobufCMessage &right,
                       std::span<const uint32_t> fields)
{
    const object::Message parts[] = {object::empty(*object::kind_of(left)),
                                     object::empty(*object::kind_of(left))};
    object::merge(*parts[0], left, fields);
    object::merge(*parts[1], right, fields);
    return object::equal(*parts[0], *parts[1]);
}

MomSection section_of(const MomConnection &connection, const MomSelector &selector, bool is_owner)
{
    return {connection.life, is_owner,       connection.database,
            selector.kind,   selector.match, selector.key};
}

int begin_section(const char *name, kt_global *global, const Arguments &arguments, Needs needs,
                  bool is_owner)
{
    return serve_template(name, global, arguments, needs,
                          [&](const MomConnection &connection, const MomSelector &selector) {
                              return mom_section_begin(section_of(connection, selector, is_owner),
                                                       selector, arguments.expire);
                          });
}

int end_section(const char *name, kt_global *global, const Arguments &arguments, bool is_owner)
{
    return serve_template(name, global, arguments, Needs::connection,
                          [&](const MomConnection &connection, const MomSelector &selector) {
                              mom_section_end(section_of(connection, selector, is_owner), selector);
                              return 0;
                          });
}

int set(const char *name, kt_global *global, const Arguments &arguments, bool is_owner)
{
    return serve_object(name, global, arguments,
                        [&](const MomConnection &connection, const MomAddress &at) {
                            return mom_store_set(database_of(connection), at, *arguments.object,
                                                 {connection.life, is_owner, arguments.expire});
                        });
}

} // namespace

/* --- Connections */

int kt_mom_client_connect_sync(kt_global *global, uint32_t db)
{
    return serve("kt_mom_client_connect_sync", global, {.db = db}, Needs::context,
                 [&](MomConnection &connection) {
                     connection.is_sync_open = true;
                     return mom_sync_works(connection) ? 0 : -ENOTCONN;
                 });
}

int kt_mom_client_connect(kt_global *global, uint32_t db, kt_mom_connect_callback callback,
                          void *user)
{
    return serve("kt_mom_client_connect", global, {.db = db}, Needs::context,
                 [&](MomConnection &connection) {
                     mom_connect(connection, global, callback, user);
                     return 0;
                 });
}

int kt_mom_client_set_disconnect_cb(kt_global *global, uint32_t db,
                                    kt_mom_disconnect_callback callback)
{
    return serve("kt_mom_client_set_disconnect_cb", global, {.db = db}, Needs::context,
                 [&](MomConnection &connection) {
                     connection.disconnected = callback;
                     return 0;
                 });
}

int kt_mom_client_set_reconnect_cb(kt_global *global, uint32_t db,
                                   kt_mom_reconnect_callback callback)
{
    return serve("kt_mom_client_set_reconnect_cb", global, {.db = db}, Needs::context,
                 [&](MomConnection &connection) {
                     connection.reconnected = callback;
                     return 0;
                 });
}

/* --- Subscriptions and scans */

int kt_mom_subscribe(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                     uint32_t match, kt_mom_callback callback, void *user)
{
    return serve_template(
        "kt_mom_subscribe", global, {.db = db, .object = object_template, .match = match},
        Needs::connection, [&](MomConnection &connection, MomSelector selector) {
            if (callback == nullptr)
                return -EINVAL;
            return mom_subscribe(connection, {global, callback, user}, std::move(selector), 0);
        });
}

int kt_mom_subscribe_field(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                           uint32_t match, const uint32_t *tags, const kt_mom_callback *callbacks,
                           void *const *users, uint32_t count)
{
    if (tags == nullptr || callbacks == nullptr || users == nullptr)
        count = 0;
    const Arguments arguments = {
        .db = db, .object = object_template, .match = match, .fields = {tags, count}};
    return serve_template(
        "kt_mom_subscribe_field", global, arguments, Needs::connection,
        [&](MomConnection &connection, const MomSelector &) {
            if (!object::fields_are_of_body(*object_template, arguments.fields) ||
                std::find(callbacks, callbacks + count, nullptr) != callbacks + count)
                return -EINVAL;
            for (uint32_t i = 0; i < count; i++) {
                MomSelector selector;
                mom_selector(object_template, match, &selector);
                const int error = mom_subscribe(connection, {global, callbacks[i], users[i]},
                                                std::move(selector), tags[i]);
                if (error != 0)
                    return error;
            }
            return 0;
        });
}

int kt_mom_unsubscribe(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                       kt_mom_callback callback, void *user)
{
    return serve_template("kt_mom_unsubscribe", global, {.db = db, .object = key, .match = match},
                          Needs::connection,
                          [&](MomConnection &connection, const MomSelector &selector) {
                              mom_unsubscribe(connection, {global, callback, user}, selector);
                              return 0;
                          });
}

int kt_mom_scan(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                uint32_t match, kt_mom_callback callback, void *user)
{
    return serve_template("kt_mom_scan", global,
                          {.db = db, .object = object_template, .match = match}, Needs::connection,
                          [&](MomConnection &connection, MomSelector selector) {
                              if (callback == nullptr)
                                  return -EINVAL;
                              return mom_scan(connection, {.receiver = {global, callback, user},
                                                           .selector = std::move(selector)});
                          });
}

int kt_mom_scan_sync(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                     uint32_t match, kt_mom_callback callback, void *user)
{
    return serve_template(
        "kt_mom_scan_sync", global, {.db = db, .object = object_template, .match = match},
        Needs::sync_connection, [&](MomConnection &connection, MomSelector selector) {
            if (callback == nullptr)
                return -EINVAL;
            mom_scan_now(connection,
                         {.receiver = {global, callback, user}, .selector = std::move(selector)});
            return 0;
        });
}

/* --- Objects */

int kt_mom_set(kt_global *global, uint32_t db, const ProtobufCMessage *object, uint32_t flag,
               uint64_t expire)
{
    return set("kt_mom_set", global, {.db = db, .object = object, .flag = flag, .expire = expire},
               false);
}

int kt_mom_setow(kt_global *global, uint32_t db, const ProtobufCMessage *object, uint32_t flag,
                 uint64_t expire, uint64_t wait)
{
    return set("kt_mom_setow", global,
               {.db = db, .object = object, .flag = flag, .expire = expire, .wait = wait}, true);
}

int kt_mom_del(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t flag,
               uint64_t expire)
{
    return serve_object("kt_mom_del", global,
                        {.db = db, .object = key, .flag = flag, .expire = expire},
                        [](const MomConnection &connection, const MomAddress &at) {
                            mom_store_delete(database_of(connection), at.kind, at.key);
                            return 0;
                        });
}

int kt_mom_del_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t flag,
                  uint64_t expire, uint64_t wait)
{
    return serve_template(
        "kt_mom_del_ow", global,
        {.db = db, .object = key, .flag = flag, .expire = expire, .wait = wait}, Needs::connection,
        [](const MomConnection &connection, const MomSelector &selector) {
            mom_store_delete_if(database_of(connection), selector, [&](const MomRecord &record) {
                return record.owner == connection.life;
            });
            return 0;
        });
}

int kt_mom_clear_expire(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t flag,
                        uint64_t expire)
{
    return serve_object("kt_mom_clear_expire", global,
                        {.db = db, .object = key, .flag = flag, .expire = expire},
                        [](const MomConnection &connection, const MomAddress &at) {
                            if (MomRecord *record = mom_store_find(database_of(connection), at))
                                record->section = 0;
                            return 0;
                        });
}

ProtobufCMessage *kt_mom_get_sync(kt_global *global, uint32_t db, const ProtobufCMessage *key,
                                  int *status)
{
    ProtobufCMessage *found = nullptr;
    const int error = serve_object(
        "kt_mom_get_sync", global, {.db = db, .object = key},
        [&](const MomConnection &connection, const MomAddress &at) {
            if (const MomRecord *record = mom_store_find(database_of(connection), at))
                found = object::copy(*record->object).release();
            return 0;
        },
        Needs::sync_connection);
    if (status != nullptr)
        *status = error;
    return found;
}

void kt_mom_kt_obj_free(ProtobufCMessage *object)
{
    call_enter("kt_mom_kt_obj_free", [&] {
        return std::string("object=") + (object == nullptr ? "none" : object->descriptor->name);
    });
    const PlatformScope scope;
    object::Free()(object);
}

/* --- What other programs do */

int kt_mom_hset(kt_global *global, uint32_t db, const ProtobufCMessage *object,
                const uint32_t *fields, uint32_t count)
{
    const Arguments arguments = {
        .db = db, .object = object, .fields = {fields, fields == nullptr ? 0 : count}};
    return serve_object("kt_mom_hset", global, arguments,
                        [&](const MomConnection &connection, const MomAddress &at) {
                            if (!object::fields_are_of_body(*object, arguments.fields))
                                return -EINVAL;
                            return mom_store_hset(database_of(connection), at, *object,
                                                  arguments.fields, connection.life);
                        });
}

int kt_mom_hset_if_sync(kt_global *global, uint32_t db, const ProtobufCMessage *before,
                        const ProtobufCMessage *object, const uint32_t *fields, uint32_t count)
{
    const Arguments arguments = {
        .db = db, .object = object, .fields = {fields, fields == nullptr ? 0 : count}};
    return serve_object(
        "kt_mom_hset_if_sync", global, arguments,
        [&](const MomConnection &connection, const MomAddress &at) {
            if (before == nullptr || before->descriptor != object->descriptor ||
                !object::fields_are_of_body(*object, arguments.fields))
                return -EINVAL;
            const object::Message nothing = object::empty(*object::kind_of(*object));
            const MomRecord *record = mom_store_find(database_of(connection), at);
            const ProtobufCMessage &stored = record == nullptr ? *nothing : *record->object;
            if (!have_equal_fields(stored, *before, arguments.fields))
                return -ESTALE;
            return mom_store_hset(database_of(connection), at, *object, arguments.fields,
                                  connection.life);
        },
        Needs::sync_connection);
}

int kt_mom_publish(kt_global *global, uint32_t db, const ProtobufCMessage *object)
{
    return serve_object("kt_mom_publish", global, {.db = db, .object = object},
                        [&](const MomConnection &connection, const MomAddress &at) {
                            mom_store_publish(database_of(connection), at, *object);
                            return 0;
                        });
}

int kt_mom_watch(kt_global *global, uint32_t db, kt_mom_callback callback, void *user)
{
    return serve("kt_mom_watch", global, {.db = db}, Needs::connection,
                 [&](MomConnection &connection) {
                     if (callback == nullptr)
                         return -EINVAL;
                     return mom_watch(connection, {global, callback, user});
                 });
}

/* --- Sections */

int kt_mom_dsbegin_sync(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                        uint64_t expire)
{
    return begin_section("kt_mom_dsbegin_sync", global,
                         {.db = db, .object = key, .match = match, .expire = expire},
                         Needs::sync_connection, false);
}

int kt_mom_dsbegin(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                   uint64_t expire, kt_mom_callback, void *)
{
    return begin_section("kt_mom_dsbegin", global,
                         {.db = db, .object = key, .match = match, .expire = expire},
                         Needs::connection, false);
}

int kt_mom_dsend(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                 kt_mom_callback)
{
    return end_section("kt_mom_dsend", global, {.db = db, .object = key, .match = match}, false);
}

int kt_mom_dsbegin_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                      uint64_t expire, kt_mom_callback, void *, uint64_t wait)
{
    return begin_section("kt_mom_dsbegin_ow", global,
                         {.db = db, .object = key, .match = match, .expire = expire, .wait = wait},
                         Needs::connection, true);
}

int kt_mom_dsend_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                    kt_mom_callback, void *, uint64_t wait)
{
    return end_section("kt_mom_dsend_ow", global,
                       {.db = db, .object = key, .match = match, .wait = wait}, true);
}

namespace
{

/* "db=4 match=2 expire=1000 object=p_bridge.vvlan_port_auto index.ifx=3"; zeros are left out. */
std::string arguments_text(const Arguments &arguments)
{
    std::string text = "db=" + std::to_string(arguments.db);
    if (arguments.match != 0)
        text += " match=" + std::to_string(arguments.match);
    if (arguments.flag != 0)
        text += " flag=" + std::to_string(arguments.flag);
    if (arguments.expire != 0)
        text += " expire=" + std::to_string(arguments.expire);
    if (arguments.wait != 0)
        text += " wait=" + std::to_string(arguments.wait);
    for (size_t i = 0; i < arguments.fields.size(); i++)
        text += (i == 0 ? " fields=" : ",") + std::to_string(arguments.fields[i]);
    if (arguments.object == nullptr)
        return text;
    text += std::string(" object=") + arguments.object->descriptor->name;
    const std::string object =
        object::kind_of(*arguments.object) == nullptr ? "" : object::to_text(*arguments.object);
    return object.empty() ? text : text + " " + object;
}

int open_request(kt_global *global, uint32_t db, Needs needs, MomConnection **connection)
{
    if (!global_is_open(global))
        return -ENOTCONN;
    const std::optional<size_t> place = mom_place_of(db);
    if (!place)
        return -ENOENT;
    *connection = &mom_connection(global, *place);
    if (needs == Needs::connection && !mom_works(**connection))
        return -ENOTCONN;
    if (needs == Needs::sync_connection && !mom_sync_works(**connection))
        return -ENOTCONN;
    return 0;
}

} // namespace
