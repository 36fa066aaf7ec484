// object - what every holder of objects needs of them: the key, the match
// against a template, and the text form in both directions.
//
// A database, a command-line tool and a scenario file must agree on all three,
// so they stand here once, and nothing is written per message: everything is
// derived from protobuf-c's descriptors and the key roles generated beside them
// (proto/key_role.h). A message of the schemas is an object kind if it has a
// field 5, where the bodies of objects begin; the others are parts of objects.
// What the key and the match need of a kind (where its key fields lie) is worked
// out once, at the first call, and never changes; finding a message's kind is a
// search over some ten descriptors.
//
// Fields are singular and of the types that protoc_gen_key_roles lets through:
// 32-bit numbers (enumerations included), strings, bytes and messages. Zero and
// absent are the same for all of them but messages: a sub-message that is present and
// empty differs from an absent one, and copies, comparison and text keep the
// difference. Fields unknown to the schema are neither copied nor compared.
//
// Unless said otherwise arguments are messages of an object kind, all of one
// kind. Nothing here keeps state; the functions may be called from any thread.
// Where memory runs out they throw std::bad_alloc, as the standard containers
// do, and leak nothing.
#ifndef OBJECT_OBJECT_H
#define OBJECT_OBJECT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <protobuf-c/protobuf-c.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace object
{

// --- Kinds

// One object type. Static data, compared by address.
struct Kind;

// The kind of that full name, such as "p_bridge.vvlan_port_cfg"; nullptr if
// there is none.
const Kind *kind_by_name(std::string_view full_name);

// The kind of a message; nullptr if it is only a part of objects.
const Kind *kind_of(const ProtobufCMessage &message);

// All kinds, sorted by name.
std::vector<const Kind *> kinds();

const char *kind_name(const Kind &kind);
const ProtobufCMessageDescriptor &kind_descriptor(const Kind &kind);

// Whether its objects are told apart by an `index`; of an unkeyed kind there is
// one single object.
bool kind_is_keyed(const Kind &kind);

// Whether `fields` are numbers of fields in the body of the object, one at least: those
// that can be set by themselves, so none of its key.
bool fields_are_of_body(const ProtobufCMessage &object, std::span<const uint32_t> fields);

// --- Messages

struct Free {
    void operator()(ProtobufCMessage *message) const;
};

// A message on the heap, as unpacked with protobuf-c's default allocator; what
// is released may be freed with protobuf_c_message_free_unpacked().
using Message = std::unique_ptr<ProtobufCMessage, Free>;

// A deep copy, of any message.
Message copy(const ProtobufCMessage &message);

// A new message of the same kind with a copy of `index` (absent if it is absent
// there) and nothing else.
Message copy_key(const ProtobufCMessage &message);

// A new message of that kind with nothing in it but, if the kind is keyed, an
// empty `index`. As a template it selects every object of the kind.
Message empty(const Kind &kind);

// Whether two messages have equal contents; false if their types differ. Any
// message.
bool equal(const ProtobufCMessage &left, const ProtobufCMessage &right);

// Gives these top-level fields of `into`, an owned heap message, a deep copy of
// the values that `from` has, zero, empty and absent included; a sub-message is
// replaced as a whole. Numbers that are no fields of the kind are passed over.
// The two must not be the same message.
void merge(ProtobufCMessage &into, const ProtobufCMessage &from, std::span<const uint32_t> fields);

// --- Keys

// Whether the message can be stored: its kind is unkeyed, or it has an `index`
// and every MAC in that is absent, empty or 6 bytes long. False for a message of
// no object kind.
bool has_key(const ProtobufCMessage &message);

// Whether every key field is zero, empty or absent; so for an unkeyed kind.
bool key_is_empty(const ProtobufCMessage &message);

// The key as bytes: the key fields in the order of their numbers, a number as 4
// bytes, the most significant first, a MAC as 6 (an absent one as zeros), a
// string with a NUL behind it. Unlike keys of a kind differ, and compared
// bytewise they sort as their fields do. "" for an unkeyed kind. The message must
// have a key (has_key()).
std::string key(const ProtobufCMessage &message);

// Whether the message has a key and it is this one.
bool key_is(const ProtobufCMessage &message, std::string_view key);

// A new message of that kind with this key, from key(), and nothing else; nullptr
// if the bytes are no key of the kind.
Message from_key(const Kind &kind, std::string_view key);

// Whether a template selects an object; the rule is told in platform/kt_mom.h.
// match_flag 2 leaves out the key fields that the template has zero or empty; any
// other value asks for an equal key. False if the kinds differ.
bool matches(const ProtobufCMessage &templ, uint32_t match_flag, const ProtobufCMessage &object);

// --- Text
//
// A message is written as `field=value` pairs with spaces between them, in the
// order of the field numbers; the fields of a sub-message have its name and a
// dot before theirs:
//
//     index.ifx=3 enable=1
//     index.mac=00:11:22:33:44:55 index.mask=ff:ff:ff:00:00:00
//     glb_switch={} age_time=30
//
// Numbers are decimal. A string stands bare if it has only letters, digits and
// any of _ - . / : @ + and is not empty, else in double quotes, with \" \\ \n \t
// \r and \xHH for other control characters. A MAC is one value. `{}` is a
// sub-message or a MAC that is present and empty; bytes, and a MAC not 6 bytes
// long, are written as 0x0011ff. Zero and empty values are left out, except
// that key fields are always shown. Text read gives an equal message again.

// The text form, without a line end.
std::string to_text(const ProtobufCMessage &message);

struct TextError {
    size_t column;        // byte position in the text, from 1
    std::string expected; // what should stand there: "a number from 0 to 4294967295"
};

// Reads the text form. Pairs may come in any order, each field once; numbers may
// be written 0x1f, any string in quotes. `index` is there only if the text
// mentions it. fields_given, if not nullptr, gets the numbers of the top-level
// fields that were named, zero values included, in order and without repeats:
// what merge() takes for a change of those fields. Returns nullptr and fills in
// *error, if not nullptr, when the text does not fit the kind.
Message from_text(const Kind &kind, std::string_view text, std::vector<uint32_t> *fields_given,
                  TextError *error);

} // namespace object

#endif
