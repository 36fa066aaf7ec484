#include "object/object.h"

#include <algorithm>
#include <array>
#include <functional>

#include "object/object_field.h"
#include "platform/kt_mom.h"
#include "proto/key_role.h"

namespace object
{

struct Kind {
    const ProtobufCMessageDescriptor *type;
    const ProtobufCFieldDescriptor *index;                    // nullptr: unkeyed
    std::vector<const ProtobufCFieldDescriptor *> key_fields; // of the index, by number
};

namespace
{

constexpr size_t MAC_LENGTH = 6;

struct Registry {
    std::vector<Kind> by_name;
    std::vector<const Kind *> by_type; // sorted by the descriptor's address
};

// Room for the bytes of a number; a view into it is what key_bytes() gives.
using Number = std::array<char, sizeof(uint32_t)>;

const Registry &registry();
const ProtobufCMessage *index_of(const Kind &kind, const ProtobufCMessage &message);
std::string_view key_bytes(const ProtobufCMessage *index, const ProtobufCFieldDescriptor &field,
                           Number *number);
bool is_zero(std::string_view bytes);
bool take_key_field(ProtobufCMessage &index, const ProtobufCFieldDescriptor &field,
                    std::string_view *bytes);

} // namespace

const Kind *kind_by_name(std::string_view full_name)
{
    const auto &kinds = registry().by_name;
    auto found = std::ranges::lower_bound(
        kinds, full_name, {}, [](const Kind &kind) { return std::string_view(kind.type->name); });
    return found != kinds.end() && found->type->name == full_name ? &*found : nullptr;
}

const Kind *kind_of(const ProtobufCMessage &message)
{
    const auto &kinds = registry().by_type;
    auto found = std::ranges::lower_bound(kinds, message.descriptor, std::less<>(),
                                          [](const Kind *kind) { return kind->type; });
    return found != kinds.end() && (*found)->type == message.descriptor ? *found : nullptr;
}

std::vector<const Kind *> kinds()
{
    std::vector<const Kind *> result;
    for (const auto &kind : registry().by_name)
        result.push_back(&kind);
    return result;
}

const char *kind_name(const Kind &kind)
{
    return kind.type->name;
}

const ProtobufCMessageDescriptor &kind_descriptor(const Kind &kind)
{
    return *kind.type;
}

bool kind_is_keyed(const Kind &kind)
{
    return kind.index != nullptr;
}

bool fields_are_of_body(const ProtobufCMessage &object, std::span<const uint32_t> fields)
{
    const bool is_keyed = kind_is_keyed(*kind_of(object));
    return !fields.empty() && std::ranges::all_of(fields, [&](uint32_t field) {
        return !(is_keyed && field == INDEX_NUMBER) &&
               protobuf_c_message_descriptor_get_field(object.descriptor, field) != nullptr;
    });
}

bool has_key(const ProtobufCMessage &message)
{
    const Kind *kind = kind_of(message);
    if (kind == nullptr || kind->index == nullptr)
        return kind != nullptr;
    const auto *index = index_of(*kind, message);
    Number number;
    return index != nullptr && std::ranges::all_of(kind->key_fields, [&](const auto *field) {
               return field->type != PROTOBUF_C_TYPE_MESSAGE ||
                      key_bytes(index, *field, &number).size() == MAC_LENGTH;
           });
}

bool key_is_empty(const ProtobufCMessage &message)
{
    const Kind *kind = kind_of(message);
    if (kind == nullptr)
        return true;
    const auto *index = index_of(*kind, message);
    Number number;
    return std::ranges::all_of(kind->key_fields, [&](const auto *field) {
        return is_zero(key_bytes(index, *field, &number));
    });
}

std::string key(const ProtobufCMessage &message)
{
    std::string result;
    const Kind *kind = kind_of(message);
    if (kind == nullptr)
        return result;
    const auto *index = index_of(*kind, message);
    Number number;
    for (const auto *field : kind->key_fields) {
        result += key_bytes(index, *field, &number);
        if (field->type == PROTOBUF_C_TYPE_STRING)
            result += '\0';
    }
    return result;
}

bool key_is(const ProtobufCMessage &message, std::string_view key)
{
    const Kind *kind = kind_of(message);
    const auto *index = kind == nullptr ? nullptr : index_of(*kind, message);
    if (kind == nullptr || (kind->index != nullptr && index == nullptr))
        return false;
    Number number;
    for (const auto *field : kind->key_fields) {
        const auto bytes = key_bytes(index, *field, &number);
        const bool is_text = field->type == PROTOBUF_C_TYPE_STRING;
        const bool is_mac = field->type == PROTOBUF_C_TYPE_MESSAGE;
        if ((is_mac && bytes.size() != MAC_LENGTH) || !key.starts_with(bytes))
            return false;
        key.remove_prefix(bytes.size());
        if (is_text && !key.starts_with('\0'))
            return false;
        key.remove_prefix(is_text);
    }
    return key.empty();
}

Message from_key(const Kind &kind, std::string_view key)
{
    Message result = empty(kind);
    for (const auto *field : kind.key_fields) {
        if (!take_key_field(sub_message(*result, *kind.index), *field, &key))
            return nullptr;
    }
    return key.empty() ? std::move(result) : nullptr;
}

bool matches(const ProtobufCMessage &templ, uint32_t match_flag, const ProtobufCMessage &object)
{
    const Kind *kind = kind_of(templ);
    if (kind == nullptr || templ.descriptor != object.descriptor)
        return false;
    const auto *wanted_index = index_of(*kind, templ);
    const auto *index = index_of(*kind, object);
    bool all_zero = true;
    bool all_equal = true;
    for (const auto *field : kind->key_fields) {
        Number wanted_number, number;
        auto wanted = key_bytes(wanted_index, *field, &wanted_number);
        bool zero = is_zero(wanted);
        all_zero = all_zero && zero;
        if (!zero || match_flag != KT_MOM_MATCH_PARTIAL)
            all_equal = all_equal && wanted == key_bytes(index, *field, &number);
    }
    return all_zero || all_equal;
}

namespace
{

// What a key is made of. A sub-message among key fields is a MAC.
bool is_key_field(const ProtobufCFieldDescriptor &field)
{
    uint32_t role = proto_key_role(&field);
    return role == PROTO_KEY_ROLE_FIELD || role == PROTO_KEY_ROLE_MAC_FIELD;
}

Kind make_kind(const ProtobufCMessageDescriptor &type, const ProtobufCFieldDescriptor &first)
{
    Kind kind = {&type, nullptr, {}};
    if (proto_key_role(&first) != PROTO_KEY_ROLE_INDEX)
        return kind;
    kind.index = &first;
    for (const auto &field : fields_of(message_type(first))) {
        if (is_key_field(field))
            kind.key_fields.push_back(&field);
    }
    return kind;
}

Registry make_registry()
{
    Registry result;
    size_t count = 0;
    const auto *const *types = proto_messages(&count);
    for (const auto *type : std::span(types, count)) {
        if (const auto *first = protobuf_c_message_descriptor_get_field(type, INDEX_NUMBER))
            result.by_name.push_back(make_kind(*type, *first));
    }
    std::ranges::sort(result.by_name, {},
                      [](const Kind &kind) { return std::string_view(kind.type->name); });
    for (const auto &kind : result.by_name)
        result.by_type.push_back(&kind);
    std::ranges::sort(result.by_type, std::less<>(), [](const Kind *kind) { return kind->type; });
    return result;
}

// Built at the first call rather than at start-up, so that other static data
// may be initialised from kinds.
const Registry &registry()
{
    static const Registry REGISTRY = make_registry();
    return REGISTRY;
}

const ProtobufCMessage *index_of(const Kind &kind, const ProtobufCMessage &message)
{
    return kind.index == nullptr ? nullptr : member<ProtobufCMessage *>(message, *kind.index);
}

std::string_view number_bytes(uint32_t value, Number *number)
{
    for (size_t i = number->size(); i > 0; i--, value >>= 8)
        (*number)[i - 1] = static_cast<char>(value & 0xff);
    return {number->data(), number->size()};
}

std::string_view mac_bytes(const ProtobufCMessage *mac, const ProtobufCFieldDescriptor &field)
{
    auto bytes = mac == nullptr ? std::string_view() : bytes_of(*mac, mac_data(field));
    return bytes.empty() ? std::string_view("\0\0\0\0\0\0", MAC_LENGTH) : bytes;
}

// A key field's part of the key, those of an absent index being zero or empty.
// Valid as long as the message and *number, which it may lie in.
std::string_view key_bytes(const ProtobufCMessage *index, const ProtobufCFieldDescriptor &field,
                           Number *number)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_MESSAGE:
        return mac_bytes(index == nullptr ? nullptr : member<ProtobufCMessage *>(*index, field),
                         field);
    case PROTOBUF_C_TYPE_STRING:
        return index == nullptr ? std::string_view() : text_of(*index, field);
    default:
        return number_bytes(index == nullptr ? 0 : member<uint32_t>(*index, field), number);
    }
}

bool is_zero(std::string_view bytes)
{
    return std::ranges::all_of(bytes, [](char byte) { return byte == 0; });
}

// Moves a key field's part from the front of a key into an index.
bool take_key_field(ProtobufCMessage &index, const ProtobufCFieldDescriptor &field,
                    std::string_view *bytes)
{
    size_t size = sizeof(uint32_t);
    if (field.type == PROTOBUF_C_TYPE_MESSAGE)
        size = MAC_LENGTH;
    else if (field.type == PROTOBUF_C_TYPE_STRING)
        size = bytes->find('\0') + 1; // 0 if there is none
    if (size == 0 || size > bytes->size())
        return false;
    const std::string_view part = bytes->substr(0, size);
    bytes->remove_prefix(size);
    if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
        set_bytes(sub_message(index, field), mac_data(field), part);
    } else if (field.type == PROTOBUF_C_TYPE_STRING) {
        set_text(index, field, part.substr(0, size - 1));
    } else {
        uint32_t number = 0;
        for (const char byte : part)
            number = number << 8 | static_cast<uint8_t>(byte);
        member<uint32_t>(index, field) = number;
    }
    return true;
}

} // namespace

} // namespace object
