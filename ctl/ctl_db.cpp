#include "ctl/ctl_db.h"

#include <cerrno>
#include <cstring>
#include <exception>

#include "mom/kt_mom_peer.h"
#include "words/words.h"

namespace ctl
{

namespace
{

struct Walk {
    const Visit &visit;
    std::exception_ptr thrown;
};

int walk(kt_global *, const kt_mom_msg *msg, void *user);
int raise_flag(kt_global *, void *user);
int raise_flag_at_end(kt_global *, const kt_mom_msg *msg, void *user);
std::string reason(int result);

} // namespace

std::string databases_text(const char *last_between)
{
    std::string text;
    for (const uint32_t db : DATABASES) {
        const bool is_last = db == DATABASES[std::size(DATABASES) - 1];
        text += (text.empty() ? "" : is_last ? last_between : ", ") + std::to_string(db);
    }
    return text;
}

uint32_t db_of_kind(std::string_view kind)
{
    const std::optional<uint32_t> db = words::database_of(kind);
    if (!db)
        throw Failure{REFUSED,
                      "it is not known which database holds " + std::string(kind) + ": give --db"};
    return *db;
}

kt_global *Databases::context()
{
    if (global_ == nullptr)
        global_ = host_.open();
    return global_;
}

void Databases::open(uint32_t db)
{
    if (opened_.contains(db))
        return;
    const int result = kt_mom_client_connect_sync(context(), db);
    if (result != 0)
        unreachable(db, reason(result));
    const auto is_up = std::make_shared<bool>(false);
    host_.kept.push_back(is_up);
    const int asked = kt_mom_client_connect(context(), db, raise_flag, is_up.get());
    if (asked != 0)
        unreachable(db, reason(asked));
    if (!host_.run([&] { return *is_up; }, PATIENCE))
        unreachable(db, "no answer");
    opened_.insert(db);
}

void Databases::scan(uint32_t db, const ProtobufCMessage &object_template, uint32_t match,
                     const Visit &visit)
{
    open(db);
    Walk state{visit, nullptr};
    const int result = kt_mom_scan_sync(context(), db, &object_template, match, walk, &state);
    if (state.thrown != nullptr)
        std::rethrow_exception(state.thrown);
    check(result, "read", db, object_template);
}

void Databases::scan(const char *kind, const Visit &visit)
{
    const object::Message all = object::empty(*object::kind_by_name(kind));
    scan(db_of_kind(kind), *all, KT_MOM_MATCH_EXACT, visit);
}

object::Message Databases::get(uint32_t db, const ProtobufCMessage &key)
{
    open(db);
    int status = 0;
    object::Message object(kt_mom_get_sync(context(), db, &key, &status));
    check(status, "read", db, key);
    return object;
}

void Databases::set(uint32_t db, const ProtobufCMessage &object, uint64_t expire)
{
    open(db);
    check(kt_mom_set(context(), db, &object, 0, expire), "set", db, object);
    written_.insert(db);
}

void Databases::hset(uint32_t db, const ProtobufCMessage &object, std::span<const uint32_t> fields)
{
    open(db);
    check(kt_mom_hset(context(), db, &object, fields.data(), static_cast<uint32_t>(fields.size())),
          "set fields of", db, object);
    written_.insert(db);
}

void Databases::del(uint32_t db, const ProtobufCMessage &key)
{
    open(db);
    check(kt_mom_del(context(), db, &key, 0, 0), "delete", db, key);
    written_.insert(db);
}

void Databases::publish(uint32_t db, const ProtobufCMessage &object)
{
    open(db);
    check(kt_mom_publish(context(), db, &object), "publish", db, object);
    written_.insert(db);
}

/* A scan takes effect after every earlier request of its connection. */
void Databases::settle()
{
    const object::Message any = object::empty(*object::kind_by_name("p_bridge.vvlan_glb_cfg"));
    for (const uint32_t db : written_) {
        const auto is_over = std::make_shared<bool>(false);
        host_.kept.push_back(is_over);
        check(kt_mom_scan(context(), db, any.get(), KT_MOM_MATCH_EXACT, raise_flag_at_end,
                          is_over.get()),
              "confirm", db, *any);
        const bool has_ended =
            host_.run([&] { return *is_over || !host_.refusal().empty(); }, PATIENCE);
        check_refusal();
        if (!has_ended)
            throw Failure{NO_REACH, "database " + std::to_string(db) + " at " + host_.server() +
                                        " did not confirm the change: see with vvlanctl show "
                                        "whether it is there"};
    }
    written_.clear();
}

bool Databases::hset_if(uint32_t db, const ProtobufCMessage &before, const ProtobufCMessage &object,
                        std::span<const uint32_t> fields)
{
    open(db);
    const int result = kt_mom_hset_if_sync(context(), db, &before, &object, fields.data(),
                                           static_cast<uint32_t>(fields.size()));
    if (result == -ESTALE)
        return false;
    check(result, "set fields of", db, object);
    return true;
}

void Databases::check(int result, const char *verb, uint32_t db,
                      const ProtobufCMessage &object) const
{
    if (result == 0)
        return;
    check_refusal();
    if (result == -ENOTCONN)
        unreachable(db, "the connection is lost");
    if (result == -EIO && std::string_view(verb) == "read")
        throw Failure{REFUSED, std::string("cannot read ") + object.descriptor->name +
                                   " in database " + std::to_string(db) +
                                   ": what stands there is no object, or you lack the right"};
    throw Failure{REFUSED, std::string("cannot ") + verb + " " + object.descriptor->name +
                               " in database " + std::to_string(db) + ": " + reason(result)};
}

void Databases::check_refusal() const
{
    if (const std::string refusal = host_.refusal(); !refusal.empty())
        throw Failure{REFUSED, host_.server() + " refused the change: " + refusal};
}

void Databases::unreachable(uint32_t db, const std::string &why) const
{
    const std::string trouble = host_.trouble();
    throw Failure{NO_REACH, "cannot reach database " + std::to_string(db) + " at " +
                                host_.server() + ": " + (trouble.empty() ? why : trouble)};
}

namespace
{

int walk(kt_global *, const kt_mom_msg *msg, void *user)
{
    Walk &state = *static_cast<Walk *>(user);
    if (state.thrown != nullptr || msg->object == nullptr || msg->scan_state != KT_MOM_CHANGE)
        return 0;
    try {
        if (msg->operation == KT_MOM_HSET) {
            const auto *hash = static_cast<const kt_mom_hash *>(msg->object);
            state.visit(*hash->object, {hash->fields, hash->count});
        } else {
            state.visit(*static_cast<const ProtobufCMessage *>(msg->object), {});
        }
    } catch (...) {
        state.thrown = std::current_exception();
    }
    return 0;
}

int raise_flag(kt_global *, void *user)
{
    *static_cast<bool *>(user) = true;
    return 0;
}

int raise_flag_at_end(kt_global *, const kt_mom_msg *msg, void *user)
{
    if (msg->scan_state == KT_MOM_SCAN_OVER)
        *static_cast<bool *>(user) = true;
    return 0;
}

std::string reason(int result)
{
    if (result == -EIO)
        return "the server refused it: its memory is full, it is read-only, or you lack the right";
    return std::strerror(result < 0 ? -result : result);
}

} // namespace

} // namespace ctl
