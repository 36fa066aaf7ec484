#include "ctl/ctl_object.h"

#include <algorithm>

#include "ctl/ctl_db.h"
#include "ctl/ctl_json.h"
#include "ctl/ctl_table.h"
#include "ctl/ctl_value.h"
#include "object/object_field.h"
#include "platform/kt_mom.h"
#include "words/words.h"

namespace ctl
{

namespace
{

uint32_t db_parse(const ObjectOptions &options);
/* Refuses a change that the daemon would pass over. */
void check_is_taken(const std::string &kind, uint32_t operation);
bool is_taken(const std::string &kind, uint32_t operation);
Strings operation_names(std::span<const uint32_t> operations);
void print_object(const Context &context, uint32_t db, const ProtobufCMessage &object);
Json json_object(uint32_t db, const ProtobufCMessage &object);
std::string name_of(const ProtobufCMessage &object);
std::string joined(const Strings &words, const char *between = " ");

} // namespace

ObjectText object_parse(const ObjectOptions &options, bool is_template)
{
    const object::Kind *kind = object::kind_by_name(options.kind);
    if (kind == nullptr)
        throw Failure{USAGE, "\"" + options.kind +
                                 "\" is no kind of object: vvlanctl object "
                                 "kinds lists them"};
    ObjectText parsed;
    parsed.db = db_parse(options);
    const std::string text = joined(options.fields);
    object::TextError error{};
    parsed.message = object::from_text(*kind, text, &parsed.fields, &error);
    if (parsed.message == nullptr)
        throw Failure{USAGE, options.kind + ", column " + std::to_string(error.column) + " of \"" +
                                 text + "\": expected " + error.expected};
    if (is_template && text.empty())
        parsed.message = object::empty(*kind);
    if (object::kind_is_keyed(*kind))
        std::erase(parsed.fields, object::INDEX_NUMBER);
    const bool lacks_key = object::kind_is_keyed(*kind) && object::key_is_empty(*parsed.message);
    if (!is_template && (lacks_key || !object::has_key(*parsed.message)))
        throw Failure{REFUSED, options.kind + " needs its key, which stands under index.: an empty "
                                              "key would select every object of the kind"};
    return parsed;
}

std::string operation_name(uint32_t operation)
{
    switch (operation) {
    case KT_MOM_SET:
        return "set";
    case KT_MOM_DEL:
        return "del";
    case KT_MOM_HSET:
        return "hset";
    case KT_MOM_PUBLISH:
        return "publish";
    default:
        return "unknown";
    }
}

void object_get(const Context &context, const ObjectOptions &options)
{
    const ObjectText key = object_parse(options, false);
    Databases databases(context.host);
    const object::Message found = databases.get(key.db, *key.message);
    if (found == nullptr)
        throw Failure{REFUSED,
                      name_of(*key.message) + " is not in database " + std::to_string(key.db)};
    print_object(context, key.db, *found);
}

void object_set(const Context &context, const ObjectOptions &options)
{
    const ObjectText object = object_parse(options, false);
    check_is_taken(options.kind, KT_MOM_SET);
    const uint64_t expire =
        options.expire.empty() ? 0 : number_parse(options.expire, "a number of seconds");
    Databases databases(context.host);
    databases.set(object.db, *object.message, expire);
    databases.settle();
    report(context, "set " + name_of(*object.message));
}

void object_hset(const Context &context, const ObjectOptions &options)
{
    const ObjectText object = object_parse(options, false);
    if (object.fields.empty())
        throw Failure{USAGE, "hset needs at least one field beside the key, such as secu_mode=1"};
    check_is_taken(options.kind, KT_MOM_HSET);
    Databases databases(context.host);
    databases.hset(object.db, *object.message, object.fields);
    databases.settle();
    report(context, "set fields of " + name_of(*object.message));
}

void object_del(const Context &context, const ObjectOptions &options)
{
    const ObjectText object = object_parse(options, false);
    Databases databases(context.host);
    if (databases.get(object.db, *object.message) == nullptr)
        throw Failure{REFUSED, name_of(*object.message) + " is not in database " +
                                   std::to_string(object.db)};
    databases.del(object.db, *object.message);
    databases.settle();
    report(context, "deleted " + name_of(*object.message));
    if (!is_taken(options.kind, KT_MOM_DEL))
        note(context, "the daemon passes over that: what it has taken of the object stays in force "
                      "until it starts again");
}

void object_publish(const Context &context, const ObjectOptions &options)
{
    const ObjectText object = object_parse(options, false);
    check_is_taken(options.kind, KT_MOM_PUBLISH);
    Databases databases(context.host);
    databases.publish(object.db, *object.message);
    databases.settle();
    report(context, "published " + name_of(*object.message));
}

void object_scan(const Context &context, const ObjectOptions &options)
{
    const ObjectText selected = object_parse(options, true);
    Json objects = Json::array();
    Databases databases(context.host);
    databases.scan(selected.db, *selected.message,
                   options.exact ? KT_MOM_MATCH_EXACT : KT_MOM_MATCH_PARTIAL,
                   [&](const ProtobufCMessage &object, auto) {
                       if (context.json)
                           objects.push_back(json_object(selected.db, object));
                       else
                           print_object(context, selected.db, object);
                   });
    if (!context.json)
        return;
    Json json = json_document();
    json["objects"] = std::move(objects);
    context.host.out << json_text(json) << '\n';
}

void object_kinds(const Context &context)
{
    Table table({"KIND", "DB", "DAEMON TAKES", "FIELDS"});
    Json kinds = Json::array();
    for (const object::Kind *kind : object::kinds()) {
        const std::string name = object::kind_name(*kind);
        const ProtobufCMessageDescriptor &type = object::kind_descriptor(*kind);
        Strings fields;
        for (unsigned at = 0; at < type.n_fields; at++)
            fields.emplace_back(type.fields[at].name);
        const Strings taken = operation_names(words::taken_operations(name));
        const uint32_t db = db_of_kind(name);
        table.row({name, std::to_string(db), joined(taken, ","), joined(fields)});
        kinds.push_back({{"kind", name}, {"db", db}, {"taken", taken}, {"fields", fields}});
    }
    if (!context.json)
        return table.print(context.host.out);
    Json json = json_document();
    json["kinds"] = std::move(kinds);
    context.host.out << json_text(json) << '\n';
}

namespace
{

uint32_t db_parse(const ObjectOptions &options)
{
    if (options.db.empty())
        return db_of_kind(options.kind);
    const uint32_t db = number_parse(options.db, "a database: " + databases_text(" or "));
    if (std::find(std::begin(DATABASES), std::end(DATABASES), db) == std::end(DATABASES))
        throw Failure{REFUSED, "there is no database " + options.db + ": there are " +
                                   databases_text(" and ")};
    return db;
}

void check_is_taken(const std::string &kind, uint32_t operation)
{
    const std::span<const uint32_t> taken = words::taken_operations(kind);
    if (is_taken(kind, operation))
        return;
    throw Failure{REFUSED,
                  operation_name(operation) + " of " + kind +
                      " would not work, as the daemon takes objects of this kind only by " +
                      joined(operation_names(taken), " and ") + ": give vvlanctl object " +
                      operation_name(taken.front())};
}

/* So is everything of a kind that the daemon does not read. */
bool is_taken(const std::string &kind, uint32_t operation)
{
    const std::span<const uint32_t> taken = words::taken_operations(kind);
    return taken.empty() || std::ranges::find(taken, operation) != taken.end();
}

Strings operation_names(std::span<const uint32_t> operations)
{
    Strings names;
    for (const uint32_t operation : operations)
        names.push_back(operation_name(operation));
    return names;
}

void print_object(const Context &context, uint32_t db, const ProtobufCMessage &object)
{
    if (!context.json) {
        context.host.out << object::to_text(object) << '\n';
        return;
    }
    Json json = json_document();
    json.update(json_object(db, object));
    context.host.out << json_text(json) << '\n';
}

Json json_object(uint32_t db, const ProtobufCMessage &object)
{
    return {{"db", db}, {"kind", object.descriptor->name}, {"object", json_message(object)}};
}

std::string name_of(const ProtobufCMessage &object)
{
    const std::string key = object::to_text(*object::copy_key(object));
    return object.descriptor->name + (key.empty() ? "" : " " + key);
}

std::string joined(const Strings &words, const char *between)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

} // namespace

} // namespace ctl
