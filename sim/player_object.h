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
    std::vector<uint32_t> fields;                    /* numbers of the fields that were given */
};

/* "DB KIND FIELDS", up to the end of the line; each throws Refusal. */
ObjectText object_parse(Cursor &cursor);
uint32_t object_db_parse(Cursor &cursor);
const object::Kind *object_kind_parse(Cursor &cursor);

/*
 * What a change of an object means to a network engineer, in a few words:
 * "port 3 joins the voice VLAN". Empty for a kind that it does not know.
 */
std::string object_change_words(uint32_t operation, const ProtobufCMessage &message);

} // namespace sim

#endif
