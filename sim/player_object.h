/*
 * player_object - an object of a database as it stands in a scenario.
 */
#ifndef SIM_PLAYER_OBJECT_H
#define SIM_PLAYER_OBJECT_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "object/object.h"
#include "sim/player_text.h"

namespace sim
{

struct ObjectText {
    uint32_t db;
    std::shared_ptr<const ProtobufCMessage> message; /* shared: steps are copied */
    std::vector<uint32_t> fields;                    /* numbers of those given, without the key's */
    std::vector<std::string> paths;                  /* what was given: "index.ifx", "qos.cos" */
};

/* How an object may be written. */
enum class ObjectUse {
    any,
    set_whole,  /* not for a kind that is stored field by field */
    set_fields, /* at least one field beside the key */
};

/*
 * "DB KIND FIELDS", up to the end of the line; each throws Refusal. An object
 * has its whole key, and a kind stands in its own database only: without that a
 * slip would name something that is never there, and `expect no` be met by it.
 */
ObjectText object_parse(Cursor &cursor, ObjectUse use = ObjectUse::any);
uint32_t object_db_parse(Cursor &cursor);
struct ObjectKind {
    uint32_t db;
    const object::Kind *kind;
};
ObjectKind object_kind_parse(Cursor &cursor);

/* Whether a stored object has the values that are given; others do not matter. */
bool object_has(const ProtobufCMessage &stored, const ObjectText &wanted);

} // namespace sim

#endif
