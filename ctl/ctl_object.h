/*
 * ctl_object - an object as it is typed: kind, fields, database.
 */
#ifndef CTL_CTL_OBJECT_H
#define CTL_CTL_OBJECT_H

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/ctl_command.h"
#include "object/object.h"

namespace ctl
{

struct ObjectText {
    uint32_t db;
    object::Message message;
    std::vector<uint32_t> fields; /* those that were given, without the key */
};

/*
 * Checks the text against the kind's descriptor; errors name the column. With
 * is_template no fields stand for every object of the kind; otherwise an
 * object of a keyed kind must have its key.
 */
ObjectText object_parse(const ObjectOptions &options, bool is_template);

/* A kt_mom_operation as it is typed and shown: "set", "del", "hset", "publish". */
std::string operation_name(uint32_t operation);

} // namespace ctl

#endif
