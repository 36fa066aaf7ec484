/*
 * player_play - plays a scenario on the simulated platform and tells what happens.
 *
 * The player knows nothing of the program that it runs; who joins the two
 * hands the program over. A play begins and ends with everything reset, so
 * that plays do not know of each other, and depends on nothing but the script
 * and the options: the same input prints the same bytes.
 */
#ifndef SIM_PLAYER_PLAY_H
#define SIM_PLAYER_PLAY_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "sim/player_script.h"
#include "sim/sim_process.h"

namespace sim
{

struct PlayOptions {
    Program program;
    std::function<void(std::string_view)> print;
    bool trace = false; /* every platform call */
    bool dump = false;  /* every table at the end */
    bool quiet = false; /* nothing but what failed */

    /* Debug level: the daemon's from the start, no less later, and of the log lines printed. */
    std::optional<int> level; /* none: 1, and the scenario's `level` decides later */

    /* Called, where set, when the world is ready and before it is reset again. */
    std::function<void()> at_begin;
    std::function<void()> at_end;
};

struct PlayResult {
    uint64_t passed; /* expectations */
    uint64_t failed;
};

PlayResult script_play(const Script &script, const PlayOptions &options);

} // namespace sim

#endif
