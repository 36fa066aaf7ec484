#include "proto/key_role.h"

#include <functional>

#include "proto/key_roles.inc" // generated: MESSAGES, ROLES

namespace
{

bool is_field_of(const ProtobufCMessageDescriptor &message, const ProtobufCFieldDescriptor *field)
{
    std::less<> before;
    return !before(field, message.fields) && before(field, message.fields + message.n_fields);
}

} // namespace

uint32_t proto_key_role(const ProtobufCFieldDescriptor *field)
{
    for (size_t i = 0; i < std::size(MESSAGES); i++) {
        if (is_field_of(*MESSAGES[i], field))
            return ROLES[i][field - MESSAGES[i]->fields];
    }
    return PROTO_KEY_ROLE_NONE;
}

const ProtobufCMessageDescriptor *const *proto_messages(size_t *count)
{
    *count = std::size(MESSAGES);
    return MESSAGES;
}
