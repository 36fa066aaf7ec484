/*
 * player_stage - what a scenario's steps and expectations work on.
 *
 * One stage exists while a scenario plays. It holds what the platform does not
 * remember by itself: what became of the last frame, what the last debug
 * command printed, how processes ended, which watches stand; and the timeline,
 * to which everything that happens is told.
 *
 * A condition is a question to the platform as it is now. `expect` asks it
 * once, `always` and `never` ask it until their `end` after every single job of
 * the event loop and, unless the process itself is asked, before every single
 * call that the process makes to the platform: a request to the fast path is in
 * force at once, so that one job can pass through many states.
 */
#ifndef SIM_PLAYER_STAGE_H
#define SIM_PLAYER_STAGE_H

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sim/player_script.h"
#include "sim/sim_process.h"
#include "sim/sim_switch.h"

namespace sim
{

struct Outcome {
    bool holds;
    std::string found;    /* what there was instead, in words */
    bool can_tell = true; /* false: there was nothing to ask, so `no` is not met either */
};

struct Condition {
    std::function<Outcome(const Stage &)> ask;
    bool asks_process = false; /* which answers only when no callback of its own runs */
};

struct Watch {
    size_t line;
    std::string name;
    std::string text;
    Condition condition;
    uint64_t checks; /* so far */
    bool failed;     /* said so; a watch fails once */
};

struct Stage {
    const Script *script;
    const Step *step; /* the one that is played; nullptr before the first */
    std::function<void(std::string_view)> print;
    bool quiet; /* only what failed is printed */
    int level;  /* log lines up to this debug level are printed */

    int least_level;         /* of the daemon, whatever the scenario says */
    Micros busy_until;       /* what a step has begun goes on until then */
    std::set<uint32_t> lost; /* databases */
    std::vector<std::pair<std::string, uint64_t>> faults; /* planned: name, its last call */

    uint64_t passed;
    uint64_t failed;
    uint64_t starts;    /* of the process */
    uint64_t life_told; /* process_life() of the last start that was told */

    std::optional<Verdict> verdict;          /* of the last frame */
    std::optional<std::string> shell_output; /* of the last debug command */
    std::vector<Ended> ends;
    uint64_t log_told; /* log lines so far; log_lines() has the last of them */
    uint64_t log_from; /* so many of them are forgotten */
    std::vector<Watch> watches;
    bool is_watching; /* they are being asked; what that calls is not asked about */
};

/* One line of the timeline: now, who, what. Several lines of text are indented alike. */
void stage_tell(Stage &stage, std::string_view who, std::string_view what);

/* Counts an expectation and tells it; a failure names file and line, and is never quiet. */
void stage_judge(Stage &stage, size_t line, const std::string &text, const Outcome &outcome);

/*
 * Asks every watch that stands and has not failed yet; where the process is at
 * work, only those that do not ask it.
 */
void stage_watch(Stage &stage);

/* Tells of a process that has started since the last look. */
void stage_notice_start(Stage &stage);

/* Hooks the timeline to the platform: changes, log, process, faults. */
void stage_listen(Stage &stage, bool trace);

} // namespace sim

#endif
