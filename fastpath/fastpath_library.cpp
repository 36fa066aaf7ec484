#include "fastpath/fastpath_library.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

/* What the opaque handle of an application is here. */
struct fp_udp_apply {
    fp_udp_apply_desc descriptor;
};

namespace fastpath
{
namespace
{

constexpr size_t FIELDS_MAX = 16;

struct FieldList : fp_udp_field_list {
    std::array<fp_udp_field, FIELDS_MAX> fields;
    size_t count;
    bool is_spoilt; /* a field was refused: the entry would match more than was meant */
};

/* An entry under construction. */
struct Draft : fp_udp_ace {
    uint64_t id;
    FieldList list;
};

struct Library {
    Tables tables;
    const fp_udp_acl_handler *handler = nullptr;
    const Seam *seam = nullptr;
};
Library library;

/* What a result callback says, besides the error. */
struct Request {
    Kind kind;
    fp_udp_acl acl;
    uint64_t ace_id;
    fp_udp_apply_desc apply;
};

using Text = std::function<std::string()>;

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

/* Announces an operation. 0, the platform's refusal, or -ENOTCONN for a context not in use. */
int enter(const char *name, kt_global *global, const Text &text)
{
    const int fault = library.seam->announce(name, text);
    return fault != 0 ? fault : library.seam->admit(global);
}

/* One programming operation from call to posted result. */
template <typename Act>
int program(const char *name, kt_global *global, const Request &request, const Text &text,
            Act &&act)
{
    const int refused = enter(name, global, text);
    if (!library.seam->has_room())
        return -ENOSPC;
    const int result = refused == 0 ? act() : refused;
    library.seam->post(global, [request, result] { call_back(request, result); });
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

std::string ace_text(const fp_udp_acl &acl, const Draft &ace)
{
    Ace parsed;
    const int error = ace_parse(ace.id, {ace.list.fields.data(), ace.list.count}, &parsed);
    const std::string fields = error == 0 ? ace_text(parsed) : "bad fields";
    return acl_text(acl) + " ace=" + std::to_string(ace.id) + " " + fields;
}

fp_udp_field field_make(const char *name, uint32_t kind, const void *value, uint32_t length)
{
    fp_udp_field field{};
    const size_t name_length = name == nullptr ? 0 : std::strlen(name);
    if (library.seam->announce("field_make", [name, name_length] {
            return "name=" + (name == nullptr ? "(null)" : std::string(name, name_length));
        }) != 0)
        return field;
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
    auto *list = static_cast<FieldList *>(fields);
    int error = library.seam->announce("field_append", [&field] {
        return "name=" + std::string(field.name, strnlen(field.name, sizeof field.name));
    });
    if (error == 0)
        error = field_check(field);
    if (error == 0 && list->count == FIELDS_MAX)
        error = -ENOSPC;
    if (error == 0)
        list->fields[list->count++] = field;
    else
        list->is_spoilt = true;
    return error;
}

int acl_change(const char *name, kt_global *global, const fp_udp_acl *acl,
               int (Tables::*operation)(const fp_udp_acl &))
{
    if (acl == nullptr)
        return -EINVAL;
    return program(
        name, global, {Kind::acl, *acl, 0, {}}, [&] { return acl_text(*acl); },
        [&] { return (library.tables.*operation)(*acl); });
}

int acl_create(kt_global *global, const fp_udp_acl *acl)
{
    return acl_change("acl_create", global, acl, &Tables::acl_create);
}

int acl_destroy(kt_global *global, const fp_udp_acl *acl)
{
    return acl_change("acl_destroy", global, acl, &Tables::acl_destroy);
}

int ace_add(kt_global *global, const fp_udp_acl *acl, const fp_udp_ace *entry)
{
    if (acl == nullptr || entry == nullptr)
        return -EINVAL;
    const auto &ace = *static_cast<const Draft *>(entry);
    return program(
        "ace_add", global, {Kind::ace, *acl, ace.id, {}}, [&] { return ace_text(*acl, ace); },
        [&] {
            const std::span<const fp_udp_field> fields(ace.list.fields.data(), ace.list.count);
            return ace.list.is_spoilt ? -EINVAL : library.tables.ace_add(*acl, ace.id, fields);
        });
}

int ace_del(kt_global *global, const fp_udp_acl *acl, uint64_t ace_id)
{
    if (acl == nullptr)
        return -EINVAL;
    return program(
        "ace_del", global, {Kind::ace, *acl, ace_id, {}},
        [&] { return acl_text(*acl) + " ace=" + std::to_string(ace_id); },
        [&] { return library.tables.ace_del(*acl, ace_id); });
}

fp_udp_ace *ace_alloc(uint64_t ace_id, uint32_t flag)
{
    const int fault = library.seam->announce("ace_alloc", [&] {
        return "ace=" + std::to_string(ace_id) + " flag=" + std::to_string(flag);
    });
    Draft *ace = fault == 0 ? new (std::nothrow) Draft{} : nullptr;
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
    library.seam->announce("ace_free", [] { return std::string(); });
    delete static_cast<Draft *>(ace);
}

int apply_add(kt_global *global, const fp_udp_acl *acl, uint8_t acl_kind, const fp_udp_apply *apply)
{
    if (acl == nullptr || apply == nullptr)
        return -EINVAL;
    return program(
        "apply_add", global, {Kind::apply, *acl, 0, apply->descriptor},
        [&] { return apply_text(*acl, apply->descriptor) + " kind=" + std::to_string(acl_kind); },
        [&] { return library.tables.apply_add(*acl, apply->descriptor); });
}

int apply_del(kt_global *global, const fp_udp_acl *acl, const fp_udp_apply_desc *apply)
{
    if (acl == nullptr || apply == nullptr)
        return -EINVAL;
    return program(
        "apply_del", global, {Kind::apply, *acl, 0, *apply},
        [&] { return apply_text(*acl, *apply); },
        [&] { return library.tables.apply_del(*acl, *apply); });
}

fp_udp_apply *apply_alloc(const fp_udp_apply_desc *descriptor)
{
    if (descriptor == nullptr)
        return nullptr;
    const int fault = library.seam->announce(
        "apply_alloc", [&] { return "phyid=" + std::to_string(descriptor->phyid); });
    return fault == 0 ? new (std::nothrow) fp_udp_apply{*descriptor} : nullptr;
}

void apply_free(fp_udp_apply *apply)
{
    library.seam->announce("apply_free", [] { return std::string(); });
    delete apply;
}

int sync_change(const char *name, kt_global *global, const char *app_type, Kind kind,
                int (Tables::*operation)(Kind, std::string_view))
{
    if (app_type == nullptr)
        return -EINVAL;
    const int refused = enter(name, global, [&] { return "app_type=" + std::string(app_type); });
    if (refused != 0)
        return refused;
    const bool was_open = library.tables.is_syncing();
    const int result = (library.tables.*operation)(kind, app_type);
    if (was_open && !library.tables.is_syncing() && library.seam->synchronised != nullptr)
        library.seam->synchronised();
    return result;
}

/* By Kind. */
constexpr std::array<const char *, 3> BEGIN_NAMES = {"acl_sync_begin", "ace_sync_begin",
                                                     "apply_sync_begin"};
constexpr std::array<const char *, 3> END_NAMES = {"acl_sync_end", "ace_sync_end",
                                                   "apply_sync_end"};

template <Kind kind> int sync_begin(kt_global *global, const char *app_type)
{
    return sync_change(BEGIN_NAMES[static_cast<size_t>(kind)], global, app_type, kind,
                       &Tables::sync_begin);
}

template <Kind kind> int sync_end(kt_global *global, const char *app_type)
{
    return sync_change(END_NAMES[static_cast<size_t>(kind)], global, app_type, kind,
                       &Tables::sync_end);
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

const fp_udp_mgr_ops *library_manager(const Seam &seam)
{
    library.seam = &seam;
    return &MANAGER;
}

void library_set_handler(const fp_udp_acl_handler *handler)
{
    library.handler = handler;
}

void library_new_life()
{
    library.handler = nullptr;
    library.tables.new_life();
}

const Tables &library_tables()
{
    return library.tables;
}

void library_reset()
{
    library.handler = nullptr;
    library.tables = {};
}

} // namespace fastpath
