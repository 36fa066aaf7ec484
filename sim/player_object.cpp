#include "sim/player_object.h"

#include <algorithm>
#include <functional>
#include <map>
#include <span>
#include <string_view>

#include "proto/key_role.h"
#include "words/words.h"

namespace sim
{

namespace
{

constexpr uint32_t KEY_FIELD = 5;

/* The one kind whose fields are set and told one by one. */
constexpr std::string_view FIELDWISE = "p_bridge.vvlan_glb_cfg";

using Values = std::map<std::string, std::string, std::less<>>; /* "qos.cos" to "6" */

ObjectKind kind_in(Cursor &cursor, uint32_t db, size_t db_column);
void check_use(const ObjectText &object, const object::Kind &kind, ObjectUse use, size_t column);
std::vector<std::string> key_paths(const object::Kind &kind);
Values values_of(std::string_view text);
std::string value_at(const Values &values, std::string_view path);

} // namespace

ObjectText object_parse(Cursor &cursor, ObjectUse use)
{
    const size_t db_column = cursor.column();
    const uint32_t db = object_db_parse(cursor);
    const size_t kind_column = cursor.column();
    const object::Kind *kind = kind_in(cursor, db, db_column).kind;
    if (use == ObjectUse::set_whole && object::kind_name(*kind) == FIELDWISE)
        throw Refusal{kind_column, "`hset` for p_bridge.vvlan_glb_cfg, which is stored field by "
                                   "field"};
    const size_t column = cursor.column();
    const std::string text(cursor.rest());
    ObjectText result{db, nullptr, {}, {}};
    object::TextError error{};
    object::Message message = object::from_text(*kind, text, &result.fields, &error);
    if (message == nullptr)
        throw Refusal{column + error.column - 1, error.expected};
    result.message = std::shared_ptr<const ProtobufCMessage>(std::move(message));
    if (object::kind_is_keyed(*kind))
        std::erase(result.fields, KEY_FIELD);
    for (const auto &[path, value] : values_of(text))
        result.paths.push_back(path);
    check_use(result, *kind, use, column);
    return result;
}

uint32_t object_db_parse(Cursor &cursor)
{
    const size_t column = cursor.column();
    const uint64_t db = cursor.number("a database: 0, 4, 6 or 8");
    if (db != 0 && db != 4 && db != 6 && db != 8)
        throw Refusal{column, "a database: 0, 4, 6 or 8"};
    return static_cast<uint32_t>(db);
}

ObjectKind object_kind_parse(Cursor &cursor)
{
    const size_t column = cursor.column();
    const uint32_t db = object_db_parse(cursor);
    return kind_in(cursor, db, column);
}

bool object_has(const ProtobufCMessage &stored, const ObjectText &wanted)
{
    const Values there = values_of(object::to_text(stored));
    const Values asked = values_of(object::to_text(*wanted.message));
    return std::ranges::all_of(wanted.paths, [&there, &asked](const std::string &path) {
        return value_at(there, path) == value_at(asked, path);
    });
}

namespace
{

ObjectKind kind_in(Cursor &cursor, uint32_t db, size_t db_column)
{
    constexpr const char *KIND = "the full name of an object kind, such as p_bridge.vvlan_port_cfg";
    const size_t column = cursor.column();
    const std::string name = cursor.word(KIND);
    const object::Kind *kind = object::kind_by_name(name);
    const auto home = words::database_of(name);
    if (kind == nullptr || !home)
        throw Refusal{column, KIND};
    if (*home != db)
        throw Refusal{db_column, std::to_string(*home) + ", the database of " + name};
    return {db, kind};
}

void check_use(const ObjectText &object, const object::Kind &kind, ObjectUse use, size_t column)
{
    for (const std::string &path : key_paths(kind)) {
        if (std::ranges::find(object.paths, path) == object.paths.end())
            throw Refusal{column, "the whole key: " + path + "= is missing"};
    }
    if (use == ObjectUse::set_fields && object.fields.empty())
        throw Refusal{column, "a field to set beside the key"};
}

std::vector<std::string> key_paths(const object::Kind &kind)
{
    std::vector<std::string> paths;
    if (!object::kind_is_keyed(kind))
        return paths;
    const ProtobufCFieldDescriptor *index =
        protobuf_c_message_descriptor_get_field(&object::kind_descriptor(kind), KEY_FIELD);
    const auto *key = static_cast<const ProtobufCMessageDescriptor *>(index->descriptor);
    for (const ProtobufCFieldDescriptor &field : std::span(key->fields, key->n_fields)) {
        const uint32_t role = proto_key_role(&field);
        if (role == PROTO_KEY_ROLE_FIELD || role == PROTO_KEY_ROLE_MAC_FIELD)
            paths.push_back(std::string(index->name) + "." + field.name);
    }
    return paths;
}

/* The pairs of the text form, which is known to be well formed. */
Values values_of(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\r";
    Values values;
    for (size_t at; (at = text.find_first_not_of(BLANKS)) != std::string_view::npos;) {
        text.remove_prefix(at);
        const size_t equals = text.find('=');
        size_t end = equals + 1;
        for (bool quoted = false; end < text.size(); end++) {
            if (!quoted && BLANKS.find(text[end]) != std::string_view::npos)
                break;
            quoted ^= text[end] == '"';
            end += quoted && text[end] == '\\';
        }
        end = std::min(end, text.size());
        values.emplace(text.substr(0, equals), text.substr(equals + 1, end - equals - 1));
        text.remove_prefix(end);
    }
    return values;
}

/* Empty for a value that the text form leaves out. */
std::string value_at(const Values &values, std::string_view path)
{
    const auto found = values.find(path);
    return found == values.end() ? "" : found->second;
}

} // namespace

} // namespace sim
