/*
 * player_condition - what `expect`, `always` and `never` can ask.
 *
 * Reading a condition checks its words, so that a slip in one is refused and
 * not met by `no`; asking it has no side effects on the switch or the databases.
 * `port` goes through the debug shell, as a person would.
 */
#ifndef SIM_PLAYER_CONDITION_H
#define SIM_PLAYER_CONDITION_H

#include <cstdint>
#include <set>
#include <string>

#include "sim/player_frame.h"
#include "sim/player_stage.h"
#include "sim/player_text.h"

namespace sim
{

/* What earlier lines of a scenario have set up. */
struct KnownNames {
    FrameNames frames;
    std::set<uint32_t> ports; /* ifx */
};

/* Reads one condition, up to the end of the line; throws Refusal. */
Condition condition_parse(Cursor &cursor, const KnownNames &known);

/* Reads the ifx of a port that an earlier line has set up; throws Refusal. */
uint32_t port_parse(Cursor &cursor, const KnownNames &known);

/* The outcome for one who wants the condition to hold, or not to. */
Outcome outcome_wanted(Outcome outcome, bool wanted);

/* All conditions with their arguments, for --help. */
std::string condition_help();

} // namespace sim

#endif
