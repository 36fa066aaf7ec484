/*
 * player_script - a scenario as it was read: steps with their moments.
 *
 * A scenario is read whole before anything is played, so that a slip in its
 * last line costs nothing: objects, frames, captures, durations and names are
 * all checked here. What a line does is kept as a function of the stage; the
 * player only has to run the steps in order. docs/scenarios.md describes the
 * language.
 *
 * Limits: a file of 1 MiB, 65,536 steps after loops are unrolled, a loop of
 * 4,096 turns, 10,000 packets of a capture. What is longer is refused.
 */
#ifndef SIM_PLAYER_SCRIPT_H
#define SIM_PLAYER_SCRIPT_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/sim_loop.h"

namespace sim
{

struct Stage;

struct Step {
    size_t line;      /* in the file, from 1 */
    Micros when;      /* virtual time */
    std::string text; /* the line without its time stamp and comment */
    std::function<void(Stage &)> run;
};

struct Script {
    std::string file;
    std::vector<Step> steps;
};

struct ScriptError {
    size_t line;   /* 0: the file could not be read at all */
    size_t column; /* from 1 */
    std::string expected;
};

/* "FILE:LINE:COLUMN: expected ...", or "FILE: ..." for a file that cannot be read. */
std::string script_error_text(const std::string &file, const ScriptError &error);

/*
 * Reads a scenario. `file` names it in messages; captures are found relative to
 * its directory. Returns nothing and fills `error` when a line is refused.
 */
std::optional<Script> script_parse(const std::string &file, std::string_view text,
                                   ScriptError *error);
std::optional<Script> script_load(const std::string &file, ScriptError *error);

} // namespace sim

#endif
