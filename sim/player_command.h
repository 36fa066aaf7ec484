/*
 * player_command - what a line of a scenario can do.
 *
 * Every command is one row of a table: its name, how its arguments are
 * written, and the function that reads them and returns what is to be done.
 * Reading checks everything that can be known before the play.
 */
#ifndef SIM_PLAYER_COMMAND_H
#define SIM_PLAYER_COMMAND_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "sim/player_condition.h"
#include "sim/player_stage.h"
#include "sim/player_text.h"

namespace sim
{

/* What earlier lines have said. */
struct CommandContext {
    std::string directory; /* of the scenario, for captures */
    KnownNames known;
    std::set<uint32_t> phyids;
    std::set<std::string> watches; /* open */
};

/* Reads one command; throws Refusal. */
std::function<void(Stage &)> command_parse(Cursor &cursor, CommandContext &context);

/* All commands with their arguments, for --help. */
std::string command_help();

} // namespace sim

#endif
