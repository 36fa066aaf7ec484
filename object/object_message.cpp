#include <cstdlib>
#include <cstring>
#include <new>

#include "object/object.h"
#include "object/object_field.h"

namespace object
{

namespace
{

void *allocate(size_t size);
void copy_field(ProtobufCMessage &into, const ProtobufCMessage &from,
                const ProtobufCFieldDescriptor &field);
void clear_field(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);
bool equal_field(const ProtobufCMessage &left, const ProtobufCMessage &right,
                 const ProtobufCFieldDescriptor &field);
const ProtobufCFieldDescriptor *index_of(const ProtobufCMessage &message);

} // namespace

void Free::operator()(ProtobufCMessage *message) const
{
    protobuf_c_message_free_unpacked(message, nullptr);
}

Message copy(const ProtobufCMessage &message)
{
    Message result = new_message(*message.descriptor);
    for (const auto &field : fields_of(*message.descriptor))
        copy_field(*result, message, field);
    return result;
}

Message copy_key(const ProtobufCMessage &message)
{
    Message result = new_message(*message.descriptor);
    if (const auto *index = index_of(message))
        copy_field(*result, message, *index);
    return result;
}

Message empty(const Kind &kind)
{
    Message result = new_message(kind_descriptor(kind));
    if (const auto *index = index_of(*result))
        sub_message(*result, *index);
    return result;
}

bool equal(const ProtobufCMessage &left, const ProtobufCMessage &right)
{
    if (left.descriptor != right.descriptor)
        return false;
    for (const auto &field : fields_of(*left.descriptor)) {
        if (!equal_field(left, right, field))
            return false;
    }
    return true;
}

void merge(ProtobufCMessage &into, const ProtobufCMessage &from, std::span<const uint32_t> fields)
{
    for (uint32_t number : fields) {
        const auto *field = protobuf_c_message_descriptor_get_field(into.descriptor, number);
        if (field == nullptr)
            continue;
        clear_field(into, *field);
        copy_field(into, from, *field);
    }
}

Message new_message(const ProtobufCMessageDescriptor &type)
{
    auto *message = static_cast<ProtobufCMessage *>(allocate(type.sizeof_message));
    protobuf_c_message_init(&type, message);
    return Message(message);
}

ProtobufCMessage &sub_message(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    auto &sub = member<ProtobufCMessage *>(message, field);
    if (sub == nullptr)
        sub = new_message(message_type(field)).release();
    return *sub;
}

void set_text(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field,
              std::string_view text)
{
    if (text.empty())
        return;
    auto *copied = static_cast<char *>(allocate(text.size() + 1));
    std::memcpy(copied, text.data(), text.size());
    copied[text.size()] = '\0';
    member<char *>(message, field) = copied;
}

void set_bytes(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field,
               std::string_view bytes)
{
    if (bytes.empty())
        return;
    auto *copied = static_cast<uint8_t *>(allocate(bytes.size()));
    std::memcpy(copied, bytes.data(), bytes.size());
    member<ProtobufCBinaryData>(message, field) = {bytes.size(), copied};
}

namespace
{

// From the heap that protobuf-c's default allocator frees to.
void *allocate(size_t size)
{
    void *memory = std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

// The field must be empty in `into`. A sub-message is attached before it is
// filled, so that `into` owns it if memory runs out meanwhile.
void copy_field(ProtobufCMessage &into, const ProtobufCMessage &from,
                const ProtobufCFieldDescriptor &field)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_MESSAGE:
        if (const auto *sub = member<ProtobufCMessage *>(from, field)) {
            auto &sub_into = sub_message(into, field);
            for (const auto &sub_field : fields_of(*sub->descriptor))
                copy_field(sub_into, *sub, sub_field);
        }
        break;
    case PROTOBUF_C_TYPE_STRING:
        set_text(into, field, text_of(from, field));
        break;
    case PROTOBUF_C_TYPE_BYTES:
        set_bytes(into, field, bytes_of(from, field));
        break;
    default:
        member<uint32_t>(into, field) = member<uint32_t>(from, field);
        break;
    }
}

void clear_field(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_MESSAGE: {
        auto &sub = member<ProtobufCMessage *>(message, field);
        protobuf_c_message_free_unpacked(sub, nullptr);
        sub = nullptr;
        break;
    }
    case PROTOBUF_C_TYPE_STRING: {
        auto &text = member<char *>(message, field);
        if (text != field.default_value)
            std::free(text);
        text = static_cast<char *>(const_cast<void *>(field.default_value));
        break;
    }
    case PROTOBUF_C_TYPE_BYTES: {
        auto &bytes = member<ProtobufCBinaryData>(message, field);
        std::free(bytes.data);
        bytes = {0, nullptr};
        break;
    }
    default:
        member<uint32_t>(message, field) = 0;
        break;
    }
}

bool equal_field(const ProtobufCMessage &left, const ProtobufCMessage &right,
                 const ProtobufCFieldDescriptor &field)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_MESSAGE: {
        const auto *left_sub = member<ProtobufCMessage *>(left, field);
        const auto *right_sub = member<ProtobufCMessage *>(right, field);
        if (left_sub == nullptr || right_sub == nullptr)
            return left_sub == right_sub;
        return equal(*left_sub, *right_sub);
    }
    case PROTOBUF_C_TYPE_STRING:
        return text_of(left, field) == text_of(right, field);
    case PROTOBUF_C_TYPE_BYTES:
        return bytes_of(left, field) == bytes_of(right, field);
    default:
        return member<uint32_t>(left, field) == member<uint32_t>(right, field);
    }
}

const ProtobufCFieldDescriptor *index_of(const ProtobufCMessage &message)
{
    const Kind *kind = kind_of(message);
    if (kind == nullptr || !kind_is_keyed(*kind))
        return nullptr;
    return protobuf_c_message_descriptor_get_field(message.descriptor, INDEX_NUMBER);
}

} // namespace

} // namespace object
