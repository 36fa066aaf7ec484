/*
 * The C interface: checks what it is given and hands over to the connections.
 */
#include "linux/linux_mom.h"

#include "linux/linux_loop.h"
#include "linux/linux_mom_client.h"
#include "linux/redis_value.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <span>

using namespace mom;

namespace
{

constexpr uint64_t EXPIRE_MAX = 1'000'000'000; /* seconds; some thirty years */

/* What must be open for a call. */
enum class Needs { context, connection, sync_connection };

/* -1: no such database. */
int place_of(uint32_t db)
{
    const auto *at = std::ranges::find(DATABASE_IDS, db);
    return at == DATABASE_IDS.end() ? -1 : static_cast<int>(at - DATABASE_IDS.begin());
}

/* One call: `body` with the connection, if it is there. */
template <typename Body> int serve(kt_global *global, uint32_t db, Needs needs, const Body &body)
{
    if (!linux_global_is_open(global))
        return -ENOTCONN;
    const int place = place_of(db);
    if (place < 0)
        return -ENOENT;
    try {
        Connection *c = connection_of(global, static_cast<size_t>(place));
        if (c == nullptr)
            return -ENOMEM;
        if ((needs == Needs::connection && !works(*c)) ||
            (needs == Needs::sync_connection && !sync_works(*c)))
            return -ENOTCONN;
        return body(*c);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

size_t kind_place(const object::Kind *kind)
{
    const auto at = std::ranges::find(kinds(), kind, &KindInfo::kind);
    return static_cast<size_t>(at - kinds().begin());
}

/* Which object a message is, or -EINVAL. */
int address_of(const ProtobufCMessage *object, Selector *at)
{
    const object::Kind *kind = object == nullptr ? nullptr : object::kind_of(*object);
    if (kind == nullptr || !object::has_key(*object))
        return -EINVAL;
    *at = {kind_place(kind), 'k', object::key(*object)};
    return 0;
}

/* Which objects a template selects, or -EINVAL. One without `index` is as one with an empty one. */
int selector_of(const ProtobufCMessage *templ, uint32_t match, Selector *selector)
{
    const object::Kind *kind = templ == nullptr ? nullptr : object::kind_of(*templ);
    if (kind == nullptr || (match != KT_MOM_MATCH_EXACT && match != KT_MOM_MATCH_PARTIAL))
        return -EINVAL;
    const bool is_empty = object::key_is_empty(*templ);
    if (!object::has_key(*templ) && !is_empty)
        return -EINVAL;
    const char mode = is_empty ? 'a' : match == KT_MOM_MATCH_PARTIAL ? 'p' : 'k';
    *selector = {kind_place(kind), mode, object::key(is_empty ? *object::empty(*kind) : *templ)};
    return 0;
}

/* A call that begins with a template. */
template <typename Body>
int serve_template(kt_global *global, uint32_t db, const ProtobufCMessage *templ, uint32_t match,
                   Needs needs, const Body &body)
{
    return serve(global, db, needs, [&](Connection &c) {
        Selector selector;
        const int error = selector_of(templ, match, &selector);
        return error != 0 ? error : body(c, std::move(selector));
    });
}

/* A call about one object. */
template <typename Body>
int serve_object(kt_global *global, uint32_t db, const ProtobufCMessage *object, const Body &body,
                 Needs needs = Needs::connection)
{
    return serve(global, db, needs, [&](Connection &c) {
        Selector at;
        const int error = address_of(object, &at);
        return error != 0 ? error : body(c, at);
    });
}

bool are_fields(const ProtobufCMessage &object, std::span<const uint32_t> fields)
{
    return fields.size() <= UINT8_MAX && object::fields_are_of_body(object, fields);
}

/* The message with nothing but these fields. */
std::string packed(const ProtobufCMessage &object, std::span<const uint32_t> fields)
{
    const object::Message part(protobuf_c_message_unpack(object.descriptor, nullptr, 0, nullptr));
    if (part == nullptr)
        throw std::bad_alloc();
    object::merge(*part, object, fields);
    return redis::pack(*part);
}

const std::string &name_of(const Selector &selector)
{
    return kinds()[selector.kind].name;
}

int64_t millis_of(uint64_t seconds)
{
    return static_cast<int64_t>(std::min(seconds, EXPIRE_MAX)) * 1000;
}

int set(kt_global *global, uint32_t db, const ProtobufCMessage *object, bool is_owner,
        uint64_t expire)
{
    return serve_object(global, db, object, [&](Connection &c, const Selector &at) {
        const std::string packed = redis::pack(*object);
        const int error = request_script(
            c, redis::Script::SET, name_of(at),
            {at.key, is_owner ? redis::LEASE : "0", std::to_string(millis_of(expire)), packed});
        c.has_owned |= is_owner && error == 0;
        if (error == 0 && expire > 0)
            probe_within(c, millis_of(expire));
        return error;
    });
}

/* A reply that has come, as the result of a call. */
int result_of(const redisReply &reply)
{
    if (!redis::is_error(reply))
        return 0;
    return redis::text_of(reply).starts_with("FULL ") ? -ENOSPC : -EIO;
}

/* A refusal goes to the callback, if there is one; otherwise it ends the connection. */
Handler section_handler(Connection &c, kt_mom_callback callback, void *user)
{
    if (callback == nullptr)
        return {};
    return [&c, receiver = Receiver{c.global, callback, user}](const redis::Reply &reply) {
        const int error = result_of(*reply);
        if (error == 0)
            return;
        enqueue_notice(c, [&c, receiver, error] {
            call(c, receiver, {KT_MOM_NONE, nullptr, KT_MOM_SECTION_NOTE, error});
        });
    };
}

int begin_section(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                  uint64_t expire, bool is_owner, kt_mom_callback callback, void *user)
{
    return serve_template(
        global, db, key, match, Needs::connection, [&](Connection &c, const Selector &selector) {
            const int error = request_script(
                c, redis::Script::BEGIN, name_of(selector),
                {is_owner ? "1" : "0", std::string_view(&selector.mode, 1),
                 kinds()[selector.kind].shape, selector.key, std::to_string(millis_of(expire))},
                section_handler(c, callback, user));
            if (error == 0 && expire > 0)
                probe_within(c, millis_of(expire));
            return error;
        });
}

int end_section(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                bool is_owner, kt_mom_callback callback, void *user)
{
    return serve_template(
        global, db, key, match, Needs::connection, [&](Connection &c, const Selector &selector) {
            return request_script(c, redis::Script::END, name_of(selector),
                                  {is_owner ? "1" : "0", std::string_view(&selector.mode, 1),
                                   kinds()[selector.kind].shape, selector.key},
                                  section_handler(c, callback, user));
        });
}

} // namespace

/* --- Connections */

int kt_mom_client_connect_sync(kt_global *global, uint32_t db)
{
    return serve(global, db, Needs::context, [](Connection &c) {
        c.is_sync_open = true;
        return connect_wait(c);
    });
}

int kt_mom_client_connect(kt_global *global, uint32_t db, kt_mom_connect_callback callback,
                          void *user)
{
    return serve(global, db, Needs::context, [&](Connection &c) {
        c.is_open = true;
        c.connected = callback;
        c.connected_user = user;
        if (c.is_ready)
            connect_told_later(c);
        else
            connect_now(c);
        return 0;
    });
}

int kt_mom_client_set_disconnect_cb(kt_global *global, uint32_t db,
                                    kt_mom_disconnect_callback callback)
{
    return serve(global, db, Needs::context, [&](Connection &c) {
        c.disconnected = callback;
        return 0;
    });
}

int kt_mom_client_set_reconnect_cb(kt_global *global, uint32_t db,
                                   kt_mom_reconnect_callback callback)
{
    return serve(global, db, Needs::context, [&](Connection &c) {
        c.reconnected = callback;
        return 0;
    });
}

/* --- Subscriptions and scans */

int kt_mom_subscribe(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                     uint32_t match, kt_mom_callback callback, void *user)
{
    return serve_template(global, db, object_template, match, Needs::connection,
                          [&](Connection &c, Selector selector) {
                              if (callback == nullptr)
                                  return -EINVAL;
                              return subscribe(c, {global, callback, user}, std::move(selector), 0);
                          });
}

int kt_mom_subscribe_field(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                           uint32_t match, const uint32_t *tags, const kt_mom_callback *callbacks,
                           void *const *users, uint32_t count)
{
    if (tags == nullptr || callbacks == nullptr || users == nullptr)
        count = 0;
    return serve_template(
        global, db, object_template, match, Needs::connection,
        [&](Connection &c, const Selector &selector) {
            if (!are_fields(*object_template, {tags, count}) ||
                std::find(callbacks, callbacks + count, nullptr) != callbacks + count)
                return -EINVAL;
            int error = 0;
            for (uint32_t i = 0; i < count && error == 0; i++)
                error = subscribe(c, {global, callbacks[i], users[i]}, selector, tags[i]);
            return error;
        });
}

int kt_mom_unsubscribe(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                       kt_mom_callback callback, void *user)
{
    return serve_template(global, db, key, match, Needs::connection,
                          [&](Connection &c, const Selector &selector) {
                              unsubscribe(c, {global, callback, user}, selector);
                              return 0;
                          });
}

int kt_mom_scan(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                uint32_t match, kt_mom_callback callback, void *user)
{
    return serve_template(global, db, object_template, match, Needs::connection,
                          [&](Connection &c, Selector selector) {
                              if (callback == nullptr)
                                  return -EINVAL;
                              return scan(c, {global, callback, user}, std::move(selector));
                          });
}

int kt_mom_scan_sync(kt_global *global, uint32_t db, const ProtobufCMessage *object_template,
                     uint32_t match, kt_mom_callback callback, void *user)
{
    return serve_template(global, db, object_template, match, Needs::sync_connection,
                          [&](Connection &c, const Selector &selector) {
                              if (callback == nullptr)
                                  return -EINVAL;
                              return scan_now(c, {global, callback, user}, selector);
                          });
}

/* --- Objects */

int kt_mom_set(kt_global *global, uint32_t db, const ProtobufCMessage *object, uint32_t,
               uint64_t expire)
{
    return set(global, db, object, false, expire);
}

int kt_mom_setow(kt_global *global, uint32_t db, const ProtobufCMessage *object, uint32_t,
                 uint64_t expire, uint64_t)
{
    return set(global, db, object, true, expire);
}

int kt_mom_del(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t, uint64_t)
{
    return serve_object(global, db, key, [](Connection &c, const Selector &at) {
        return request_script(c, redis::Script::DEL, name_of(at), {at.key});
    });
}

int kt_mom_del_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t flag,
                  uint64_t, uint64_t)
{
    return serve_template(global, db, key, flag, Needs::connection,
                          [](Connection &c, const Selector &selector) {
                              return request_script(c, redis::Script::DEL_OW, name_of(selector),
                                                    {std::string_view(&selector.mode, 1),
                                                     kinds()[selector.kind].shape, selector.key});
                          });
}

int kt_mom_clear_expire(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t,
                        uint64_t)
{
    return serve_object(global, db, key, [](Connection &c, const Selector &at) {
        const std::string pending = "vvlan:pending:" + name_of(at);
        return request(c, std::array<std::string_view, 3>{"HDEL", pending, at.key});
    });
}

ProtobufCMessage *kt_mom_get_sync(kt_global *global, uint32_t db, const ProtobufCMessage *key,
                                  int *status)
{
    ProtobufCMessage *found = nullptr;
    const int error = serve_object(
        global, db, key,
        [&](Connection &c, const Selector &at) {
            redis::Reply reply;
            const int failed =
                ask(c, std::array<std::string_view, 3>{"HGET", name_of(at), at.key}, &reply);
            if (failed != 0 || reply->type != REDIS_REPLY_STRING)
                return failed != 0 ? failed : result_of(*reply);
            redis::Unpacked memory;
            const Change stored = change_of(at.kind, at.key, redis::text_of(*reply));
            if (const ProtobufCMessage *object = object_of(c, stored, memory))
                found = object::copy(*object).release();
            return 0;
        },
        Needs::sync_connection);
    if (status != nullptr)
        *status = error;
    return found;
}

void kt_mom_kt_obj_free(ProtobufCMessage *object)
{
    object::Free()(object);
}

/* --- What other programs do */

int kt_mom_hset(kt_global *global, uint32_t db, const ProtobufCMessage *object,
                const uint32_t *fields, uint32_t count)
{
    return serve_object(global, db, object, [&](Connection &c, const Selector &at) {
        const std::vector<uint32_t> told(fields, fields == nullptr ? fields : fields + count);
        if (!are_fields(*object, told))
            return -EINVAL;
        const std::string numbers = redis::fields_text(told);
        return request_script(c, redis::Script::HSET, name_of(at),
                              {at.key, numbers, numbers, kinds()[at.kind].fields,
                               redis::pack(*object::copy_key(*object)), packed(*object, told)});
    });
}

int kt_mom_hset_if_sync(kt_global *global, uint32_t db, const ProtobufCMessage *before,
                        const ProtobufCMessage *object, const uint32_t *fields, uint32_t count)
{
    return serve_object(
        global, db, object,
        [&](Connection &c, const Selector &at) {
            const std::vector<uint32_t> told(fields, fields == nullptr ? fields : fields + count);
            if (before == nullptr || before->descriptor != object->descriptor ||
                !are_fields(*object, told))
                return -EINVAL;
            const std::string numbers = redis::fields_text(told);
            redis::Reply reply;
            const int error = ask_script(c, redis::Script::HSET, name_of(at),
                                         {at.key, numbers, numbers, kinds()[at.kind].fields,
                                          redis::pack(*object::copy_key(*object)),
                                          packed(*object, told), packed(*before, told)},
                                         &reply);
            if (error != 0 || redis::is_error(*reply))
                return error != 0 ? error : result_of(*reply);
            return reply->integer == 0 ? -ESTALE : 0;
        },
        Needs::sync_connection);
}

int kt_mom_publish(kt_global *global, uint32_t db, const ProtobufCMessage *object)
{
    return serve_object(global, db, object, [&](Connection &c, const Selector &at) {
        const std::string packed = redis::pack(*object);
        const std::string channel = c.prefix + name_of(at);
        const std::string note = redis::note_text({KT_MOM_PUBLISH, c.life, at.key, {}, packed});
        return request(c, std::array<std::string_view, 3>{"PUBLISH", channel, note});
    });
}

int kt_mom_watch(kt_global *global, uint32_t db, kt_mom_callback callback, void *user)
{
    return serve(global, db, Needs::connection, [&](Connection &c) {
        if (callback == nullptr)
            return -EINVAL;
        return watch(c, {global, callback, user});
    });
}

/* --- Sections */

int kt_mom_dsbegin_sync(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                        uint64_t expire)
{
    return serve_template(global, db, key, match, Needs::sync_connection,
                          [&](Connection &c, const Selector &selector) {
                              redis::Reply reply;
                              const int error =
                                  ask_script(c, redis::Script::BEGIN, name_of(selector),
                                             {"0", std::string_view(&selector.mode, 1),
                                              kinds()[selector.kind].shape, selector.key,
                                              std::to_string(millis_of(expire))},
                                             &reply);
                              if (error != 0)
                                  return error;
                              if (expire > 0)
                                  probe_within(c, millis_of(expire));
                              return result_of(*reply);
                          });
}

int kt_mom_dsbegin(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                   uint64_t expire, kt_mom_callback callback, void *user)
{
    return begin_section(global, db, key, match, expire, false, callback, user);
}

int kt_mom_dsend(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                 kt_mom_callback callback)
{
    return end_section(global, db, key, match, false, callback, nullptr);
}

int kt_mom_dsbegin_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                      uint64_t expire, kt_mom_callback callback, void *user, uint64_t)
{
    return begin_section(global, db, key, match, expire, true, callback, user);
}

int kt_mom_dsend_ow(kt_global *global, uint32_t db, const ProtobufCMessage *key, uint32_t match,
                    kt_mom_callback callback, void *user, uint64_t)
{
    return end_section(global, db, key, match, true, callback, user);
}

/* --- What stands in linux_mom.h */

namespace
{

Connection *existing(const kt_global *global, uint32_t db)
{
    const int place = place_of(db);
    return place < 0 ? nullptr : connection_find(global, static_cast<size_t>(place));
}

} // namespace

linux_mom_state linux_mom_look(const kt_global *global, uint32_t db)
{
    const Connection *c = existing(global, db);
    if (c == nullptr)
        return {};
    linux_mom_state state = c->counts;
    state.is_up = works(*c) || (!c->is_open && sync_works(*c));
    state.waiting = under_way(*c);
    return state;
}

std::string linux_mom_refusal(const kt_global *global)
{
    for (const uint32_t db : DATABASE_IDS) {
        if (const Connection *c = existing(global, db); c != nullptr && !c->refusal.empty())
            return c->refusal;
    }
    return {};
}

bool linux_mom_settle(int64_t micros, const std::function<bool()> &waits_for_lost)
{
    const int64_t deadline = linux_loop_now() + micros;
    const auto is_quiet = [&waits_for_lost] {
        const bool waits = waits_for_lost();
        bool is_busy = false;
        each_connection([&](const Connection &c) {
            is_busy |= under_way(c) > 0 || (waits && c.is_open && !works(c));
        });
        return !is_busy;
    };
    const auto deliveries = [] {
        uint64_t sum = 0;
        each_connection([&](Connection &c) { sum += c.counts.delivered; });
        return sum;
    };
    /* Every request is answered, then what they made the server publish has come. */
    uint64_t before = 0;
    do {
        if (!linux_loop_run_until(is_quiet, deadline - linux_loop_now()))
            return false;
        before = deliveries();
        each_connection([](Connection &c) {
            if (c.is_ready)
                fence(c, [] {});
        });
        if (!linux_loop_run_until(is_quiet, deadline - linux_loop_now()))
            return false;
    } while (before != deliveries());
    return true;
}

void linux_mom_queue_limit(size_t changes)
{
    queue_limit(changes);
}

void linux_mom_clock_ahead(int64_t millis)
{
    clock_ahead(millis);
}
