/*
 * redis_value - how objects and their changes look in the server.
 *
 * Database n of the contract is database n of the server. A kind is a hash of
 * the kind's full name; a field of it is an object's key (object::key()), "" for
 * an unkeyed kind; the value is a header and the packed message:
 *
 *     'K' flags writers fields  writer*8...  [owner*8]  field*4...  message
 *
 *     flags    1: stored field by field, 2: has an owner
 *     writers  how many ids of the lives that wrote it follow, the latest
 *              first, at most 4: sections leave a process's own objects alone
 *     fields   how many numbers of stored fields follow, sorted, each four
 *              bytes, the most significant first
 *
 * A change is published on the channel "<database>:<kind>":
 *
 *     operation  writer*8  length-of-key*2  key  fields  field*4...  message
 *
 * with the object as it is after the change, for a deletion as it was before.
 * Whatever does not look like this was written by somebody else, or by half;
 * it is skipped.
 *
 * What the scripts keep beside the objects begins with "vvlan:"; see
 * redis_script.h.
 */
#ifndef LINUX_REDIS_VALUE_H
#define LINUX_REDIS_VALUE_H

#include "object/object.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace redis
{

/* Views into the text that was read. */
struct Value {
    bool is_fieldwise = false;
    std::string_view fields; /* four bytes each */
    std::string_view message;
};

struct Note {
    uint32_t operation = 0;
    std::string_view writer;
    std::string_view key;
    std::string_view fields;
    std::string_view message;
};

/* What was stored or published, taken apart; nothing when it is not of our form. */
std::optional<Value> value_of(std::string_view stored);
std::optional<Note> note_of(std::string_view published);
/* The reverse: what the scripts publish. */
std::string note_text(const Note &note);

/* Field numbers as four bytes each, and back. */
std::vector<uint32_t> numbers_of(std::string_view fields);
std::string fields_text(const std::vector<uint32_t> &numbers);

/* A message's bytes on the wire. */
std::string pack(const ProtobufCMessage &message);

/*
 * An object for as long as a callback looks at it. Unpacked into memory that stands
 * beside it: the allocator would cost more than all else that is done with it.
 */
class Unpacked
{
public:
    Unpacked() = default;
    ~Unpacked();
    Unpacked(const Unpacked &) = delete;
    Unpacked &operator=(const Unpacked &) = delete;

    /* At most once: the object, or nullptr if the bytes are no message of the kind with this key.
     */
    const ProtobufCMessage *unpack(const object::Kind &kind, std::string_view key,
                                   std::string_view message);
    /* The object with nothing but its key; nullptr if the bytes are none. */
    const ProtobufCMessage *from_key(const object::Kind &kind, std::string_view key);

private:
    struct Block {
        Block *next;
    };

    void *take(size_t size);

    alignas(std::max_align_t) std::array<char, 1'024> bytes_;
    size_t used_ = 0;
    Block *more_ = nullptr; /* one for each allocation that did not fit */
    object::Message from_key_;
};

/*
 * The widths of a kind's key fields, a character each: '4' bytes, '6' bytes, or
 * 's' for text up to and with its NUL. Together with two keys that is all a match
 * needs, here and in the server's scripts.
 */
std::string key_shape(const object::Kind &kind);

/* Whether the key has every part that is not zero or empty in `wanted`. */
bool key_selects(std::string_view shape, std::string_view wanted, std::string_view key);

} // namespace redis

#endif
