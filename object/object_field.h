// Access to the members of a message by their descriptors, for object/ and for those
// who write messages in yet another form.
#ifndef OBJECT_OBJECT_FIELD_H
#define OBJECT_OBJECT_FIELD_H

#include <protobuf-c/protobuf-c.h>
#include <span>
#include <string_view>

#include "object/object.h"

namespace object
{

// The number of `index`, where the bodies of objects begin.
constexpr uint32_t INDEX_NUMBER = 5;

// The C member of a field: uint32_t for a number or an enumeration, char * for a
// string, ProtobufCBinaryData for bytes, ProtobufCMessage * for a message.
template <typename T> T &member(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    return *reinterpret_cast<T *>(reinterpret_cast<char *>(&message) + field.offset);
}

template <typename T>
const T &member(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    return *reinterpret_cast<const T *>(reinterpret_cast<const char *>(&message) + field.offset);
}

inline std::span<const ProtobufCFieldDescriptor> fields_of(const ProtobufCMessageDescriptor &type)
{
    return {type.fields, type.n_fields};
}

inline const ProtobufCMessageDescriptor &message_type(const ProtobufCFieldDescriptor &field)
{
    return *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
}

// A string field that was never set is the shared empty string, or NULL.
inline std::string_view text_of(const ProtobufCMessage &message,
                                const ProtobufCFieldDescriptor &field)
{
    const char *text = member<char *>(message, field);
    return text == nullptr ? std::string_view() : text;
}

inline std::string_view bytes_of(const ProtobufCMessage &message,
                                 const ProtobufCFieldDescriptor &field)
{
    const auto &bytes = member<ProtobufCBinaryData>(message, field);
    return {reinterpret_cast<const char *>(bytes.data), bytes.len};
}

// The one field, the address itself, of a message that stands for a MAC.
inline const ProtobufCFieldDescriptor &mac_data(const ProtobufCFieldDescriptor &mac)
{
    return message_type(mac).fields[0];
}

// A new message with nothing in it.
Message new_message(const ProtobufCMessageDescriptor &type);

// `field`'s sub-message, made and attached first if it is absent.
ProtobufCMessage &sub_message(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);

// Set a field that is still empty to a copy on the heap. A string must not hold
// a zero byte; it would end there.
void set_text(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field,
              std::string_view text);
void set_bytes(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field,
               std::string_view bytes);

} // namespace object

#endif
