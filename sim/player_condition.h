/*
 * player_condition - what `expect`, `always` and `never` can ask.
 *
 * Reading a condition checks its words; asking it has no side effects on the
 * switch or the databases. `port` goes through the debug shell, as a person
 * would.
 */
#ifndef SIM_PLAYER_CONDITION_H
#define SIM_PLAYER_CONDITION_H

#include "sim/player_frame.h"
#include "sim/player_stage.h"
#include "sim/player_text.h"

namespace sim
{

/* Reads one condition, up to the end of the line; throws Refusal. */
Condition condition_parse(Cursor &cursor, const FrameNames &frames);

/* All conditions with their arguments, for --help. */
std::string condition_help();

} // namespace sim

#endif
