/*
 * key_role - the key roles of message fields, at run time.
 *
 * protobuf-c's descriptors carry no custom options, so the roles that the
 * .proto files state as (p_libpub.key_role) are generated beside them, from
 * the same files, by protoc_gen_key_roles: one table with a row per message
 * and in it one role per field, in the order of the descriptor's fields. A
 * field is found by the row whose descriptor's field array it lies in. The
 * table is static data; looking a role up costs a walk over the messages (some
 * twenty), so what needs roles per object works out what it needs once.
 */
#ifndef PROTO_KEY_ROLE_H
#define PROTO_KEY_ROLE_H

#include <protobuf-c/protobuf-c.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PROTO_KEY_ROLE_NONE = 0,
    PROTO_KEY_ROLE_FIELD = 1,     /* a key field inside an index message */
    PROTO_KEY_ROLE_INDEX = 2,     /* the key sub-message, field 5 `index` */
    PROTO_KEY_ROLE_MAC = 32,      /* a MAC address, a p_libpub.mac */
    PROTO_KEY_ROLE_MAC_FIELD = 33 /* a MAC address that is a key field */
};

/*
 * The role of a field, as in its .proto file. The descriptor must be an
 * element of a generated message descriptor's `fields`, not a copy; for any
 * other, and for NULL, the role is 0.
 */
uint32_t proto_key_role(const ProtobufCFieldDescriptor *field);

/*
 * Descriptors of all generated messages, objects and sub-messages alike, in
 * no particular order; *count gets how many. Static data.
 */
const ProtobufCMessageDescriptor *const *proto_messages(size_t *count);

#ifdef __cplusplus
}
#endif

#endif
