#include "sim/sim_fp.h"

#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_loop.h"
#include "sim/sim_process.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

using fastpath::Kind;

/* What the opaque handle of an application is here. */
struct fp_udp_apply {
    fp_udp_apply_desc descriptor;
};

namespace sim
{
namespace
{

constexpr size_t FIELDS_MAX = 16;

struct FieldList : fp_udp_field_list {
    std::array<fp_udp_field, FIELDS_MAX> fields;
    size_t count;
    bool is_spoilt; /* a field was refused: the entry would match more than was meant */
};

struct Ace : fp_udp_ace {
    uint64_t id;
    FieldList list;
};

struct Library {
    fastpath::Tables tables;
    uint64_t life = 0; /* that the tables know of */
    const fp_udp_acl_handler *handler = nullptr;
};
Library library;

/* What a result callback says, besides the error. */
struct Request {
    Kind kind;
    fp_udp_acl acl;
    uint64_t ace_id;
    fp_udp_apply_desc apply;
};

void notice_life()
{
    if (library.life == process_life())
        return;
    library.life = process_life();
    library.handler = nullptr;
    library.tables.new_life();
}

void call_back(const Request &request, int error)
{
    const fp_udp_acl_handler *handler = library.handler;
    if (handler == nullptr)
        return;
    const auto call = [error](auto success, auto failed, auto... arguments) {
        if (error == 0 && success != nullptr)
            success(nullptr, arguments...);
        else if (error != 0 && failed != nullptr)
            failed(nullptr, arguments..., error);
    };
    if (request.kind == Kind::acl)
        call(handler->acl_success, handler->acl_failed, &request.acl);
    else if (request.kind == Kind::ace)
        call(handler->ace_success, handler->ace_failed, &request.acl, request.ace_id);
    else
        call(handler->apply_success, handler->apply_failed, &request.acl, &request.apply);
}

/* Announces an operation. 0, a planned fault, or -ENOTCONN for a context that is not in use. */
template <typename Arguments>
int enter(const char *name, const kt_global *global, Arguments &&arguments)
{
    if (const int fault = call_enter(name, arguments))
        return fault;
    if (!global_is_open(global))
        return -ENOTCONN;
    notice_life();
    return 0;
}

/* One programming operation from call to posted result. */
template <typename Arguments, typename Act>
int program(const char *name, kt_global *global, const Request &request, Arguments &&arguments,
            Act &&act)
{
    const int refused = enter(name, global, arguments);
    const int result = refused == 0 ? act() : refused;
    global_post_at(global, now(), [request, result] { call_back(request, result); });
    return result == -ENOENT && refused == 0 ? 0 : result;
}

std::string acl_text(const fp_udp_acl &acl)
{
    const size_t length = strnlen(acl.app_type, sizeof acl.app_type);
    return "acl=" + std::string(acl.app_type, length) + "/" + std::to_string(acl.acl_id);
}

std::string apply_text(const fp_udp_acl &acl, const fp_udp_apply_desc &apply)
{
    return acl_text(acl) + " phyid=" + std::to_string(apply.phyid) +
           " flag=" + std::to_string(apply.apply_flag);
}

std::string ace_text(const fp_udp_acl &acl, const Ace &ace)
{
    fastpath::Ace parsed;
    const int error =
        fastpath::ace_parse(ace.id, {ace.list.fields.data(), ace.list.count}, &parsed);
    const std::string fields = error == 0 ? fastpath::ace_text(parsed) : "bad fields";
    return acl_text(acl) + " ace=" + std::to_string(ace.id) + " " + fields;
}

fp_udp_field field_make(const char *name, uint32_t kind, const void *value, uint32_t length)
{
    const PlatformScope scope;
    fp_udp_field field{};
    if (call_enter("field_make", [&] { return std::string("name=") + text_or_null(name); }) != 0)
        return field;
    const size_t name_length = name == nullptr ? 0 : std::strlen(name);
    const bool fits = name_length < sizeof field.name && length <= sizeof field.value;
    field.kind = kind;
    if (!fits || (value == nullptr && length != 0))
        return field;
    std::copy_n(name, name_length, field.name);
    field.length = length;
    std::copy_n(static_cast<const uint8_t *>(value), length, field.value);
    return field;
}

int field_append(fp_udp_field_list *fields, fp_udp_field field)
{
    const PlatformScope scope;
    auto *list = static_cast<FieldList *>(fields);
    int error = call_enter("field_append", [&field] {
        return "name=" + std::string(field.name, strnlen(field.name, sizeof field.name));
    });
    if (error == 0)
        error = fastpath::field_check(field);
    if (error == 0 && list->count == FIELDS_MAX)
        error = -ENOSPC;
    if (error == 0)
        list->fields[list->count++] = field;
    else
        list->is_spoilt = true;
    return error;
}

int acl_change(const char *name, kt_global *global, const fp_udp_acl *acl,
               int (fastpath::Tables::*operation)(const fp_udp_acl &))
{
    const PlatformScope scope;
    if (acl == nullptr)
        return -EINVAL;
    return program(
        name, global, {Kind::acl, *acl, 0, {}}, [&] { return acl_text(*acl); },
        [&] { return (library.tables.*operation)(*acl); });
}

int acl_create(kt_global *global, const fp_udp_acl *acl)
{
    return acl_change("acl_create", global, acl, &fastpath::Tables::acl_create);
}

int acl_destroy(kt_global *global, const fp_udp_acl *acl)
{
    return acl_change("acl_destroy", global, acl, &fastpath::Tables::acl_destroy);
}

int ace_add(kt_global *global, const fp_udp_acl *acl, const fp_udp_ace *entry)
{
    const PlatformScope scope;
    if (acl == nullptr || entry == nullptr)
        return -EINVAL;
    const auto &ace = *static_cast<const Ace *>(entry);
    return program(
        "ace_add", global, {Kind::ace, *acl, ace.id, {}}, [&] { return ace_text(*acl, ace); },
        [&] {
            const std::span<const fp_udp_field> fields(ace.list.fields.data(), ace.list.count);
            return ace.list.is_spoilt ? -EINVAL : library.tables.ace_add(*acl, ace.id, fields);
        });
}

int ace_del(kt_global *global, const fp_udp_acl *acl, uint64_t ace_id)
{
    const PlatformScope scope;
    if (acl == nullptr)
        return -EINVAL;
    return program(
        "ace_del", global, {Kind::ace, *acl, ace_id, {}},
        [&] { return acl_text(*acl) + " ace=" + std::to_string(ace_id); },
        [&] { return library.tables.ace_del(*acl, ace_id); });
}

fp_udp_ace *ace_alloc(uint64_t ace_id, uint32_t flag)
{
    const PlatformScope scope;
    const int fault = call_enter("ace_alloc", [&] {
        return "ace=" + std::to_string(ace_id) + " flag=" + std::to_string(flag);
    });
    Ace *ace = fault == 0 ? new (std::nothrow) Ace{} : nullptr;
    if (ace == nullptr)
        return nullptr;
    ace->id = ace_id;
    ace->list.field_make = field_make;
    ace->list.field_append = field_append;
    ace->fields = &ace->list;
    return ace;
}

void ace_free(fp_udp_ace *ace)
{
    const PlatformScope scope;
    call_enter("ace_free", [] { return std::string(); });
    delete static_cast<Ace *>(ace);
}

int apply_add(kt_global *global, const fp_udp_acl *acl, uint8_t acl_kind, const fp_udp_apply *apply)
{
    const PlatformScope scope;
    if (acl == nullptr || apply == nullptr)
        return -EINVAL;
    return program(
        "apply_add", global, {Kind::apply, *acl, 0, apply->descriptor},
        [&] { return apply_text(*acl, apply->descriptor) + " kind=" + std::to_string(acl_kind); },
        [&] { return library.tables.apply_add(*acl, apply->descriptor); });
}

int apply_del(kt_global *global, const fp_udp_acl *acl, const fp_udp_apply_desc *apply)
{
    const PlatformScope scope;
    if (acl == nullptr || apply == nullptr)
        return -EINVAL;
    return program(
        "apply_del", global, {Kind::apply, *acl, 0, *apply},
        [&] { return apply_text(*acl, *apply); },
        [&] { return library.tables.apply_del(*acl, *apply); });
}

fp_udp_apply *apply_alloc(const fp_udp_apply_desc *descriptor)
{
    const PlatformScope scope;
    if (descriptor == nullptr)
        return nullptr;
    const int fault =
        call_enter("apply_alloc", [&] { return "phyid=" + std::to_string(descriptor->phyid); });
    return fault == 0 ? new (std::nothrow) fp_udp_apply{*descriptor} : nullptr;
}

void apply_free(fp_udp_apply *apply)
{
    const PlatformScope scope;
    call_enter("apply_free", [] { return std::string(); });
    delete apply;
}

int sync_change(const char *name, kt_global *global, const char *app_type, Kind kind,
                int (fastpath::Tables::*operation)(Kind, std::string_view))
{
    const PlatformScope scope;
    if (app_type == nullptr)
        return -EINVAL;
    const int refused = enter(name, global, [&] { return "app_type=" + std::string(app_type); });
    return refused == 0 ? (library.tables.*operation)(kind, app_type) : refused;
}

/* By Kind. */
constexpr std::array<const char *, 3> BEGIN_NAMES = {"acl_sync_begin", "ace_sync_begin",
                                                     "apply_sync_begin"};
constexpr std::array<const char *, 3> END_NAMES = {"acl_sync_end", "ace_sync_end",
                                                   "apply_sync_end"};

template <Kind kind> int sync_begin(kt_global *global, const char *app_type)
{
    return sync_change(BEGIN_NAMES[static_cast<size_t>(kind)], global, app_type, kind,
                       &fastpath::Tables::sync_begin);
}

template <Kind kind> int sync_end(kt_global *global, const char *app_type)
{
    return sync_change(END_NAMES[static_cast<size_t>(kind)], global, app_type, kind,
                       &fastpath::Tables::sync_end);
}

const fp_udp_mgr_ops MANAGER = {
    acl_create,
    acl_destroy,
    sync_begin<Kind::acl>,
    sync_end<Kind::acl>,
    nullptr,
    nullptr,
    ace_add,
    ace_del,
    sync_begin<Kind::ace>,
    sync_end<Kind::ace>,
    ace_alloc,
    ace_free,
    nullptr,
    nullptr,
    apply_add,
    apply_del,
    sync_begin<Kind::apply>,
    sync_end<Kind::apply>,
    apply_alloc,
    apply_free,
};

} // namespace

const fastpath::Tables &fp_tables()
{
    return library.tables;
}

void fp_reset()
{
    library = {};
}

} // namespace sim

int fp_udp_register_acl_handler(kt_global *global, uint32_t db, const fp_udp_acl_handler *handler)
{
    const sim::PlatformScope scope;
    if (handler == nullptr)
        return -EINVAL;
    if (const int refused = sim::enter("fp_udp_register_acl_handler", global,
                                       [&] { return "db=" + std::to_string(db); }))
        return refused;
    sim::library.handler = handler;
    return 0;
}

int fp_udp_cgst_register(kt_global *global, uint32_t db, const char *module)
{
    const sim::PlatformScope scope;
    if (module == nullptr)
        return -EINVAL;
    return sim::enter("fp_udp_cgst_register", global,
                      [&] { return "db=" + std::to_string(db) + " module=" + module; });
}

const fp_udp_mgr_ops *fp_udp_get_mgr(void)
{
    const sim::PlatformScope scope;
    return sim::call_enter("fp_udp_get_mgr", [] { return std::string(); }) == 0 ? &sim::MANAGER
                                                                                : nullptr;
}
