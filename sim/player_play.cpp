#include "sim/player_play.h"

#include <algorithm>

#include "sim/player_stage.h"
#include "sim/player_text.h"
#include "sim/sim_host.h"
#include "sim/sim_shell.h"
#include "sim/sim_world.h"

namespace sim
{

namespace
{

constexpr const char *DEBUG_LEVEL_FILE = "/var/tmp/udp_vvlan_debug";

void set_up(Stage &stage, const PlayOptions &options);
void play_steps(Stage &stage);
void close_watches(Stage &stage);
void dump_tables(Stage &stage);
void tell_printed(Stage &stage, OutputCapture &capture, size_t &told);

} // namespace

PlayResult script_play(const Script &script, const PlayOptions &options)
{
    Stage stage{};
    stage.script = &script;
    stage.print = options.print;
    stage.quiet = options.quiet;
    stage.level = options.level.value_or(1);
    stage.least_level = options.level.value_or(0);
    world_reset();
    set_up(stage, options);
    if (options.at_begin)
        options.at_begin();
    if (!stage.quiet)
        stage.print("Playing " + script.file + "\n");
    play_steps(stage);
    close_watches(stage);
    if (options.dump)
        dump_tables(stage);
    if (options.at_end)
        options.at_end();
    if (!stage.quiet)
        stage.print("\n" + script.file + ": " + std::to_string(stage.passed) +
                    " expectations met, " + std::to_string(stage.failed) + " failed\n");
    world_reset();
    return {stage.passed, stage.failed};
}

namespace
{

void set_up(Stage &stage, const PlayOptions &options)
{
    process_install(options.program);
    if (stage.level != 1)
        host_file_write(DEBUG_LEVEL_FILE, std::to_string(stage.level));
    stage.life_told = process_life();
    stage_listen(stage, options.trace);
}

void play_steps(Stage &stage)
{
    OutputCapture capture;
    size_t told = 0;
    for (const Step &step : stage.script->steps) {
        run_until(step.when);
        stage.step = &step;
        step.run(stage);
        stage_watch(stage);
        tell_printed(stage, capture, told);
    }
    run_until(std::max(now(), stage.busy_until));
    settle();
    tell_printed(stage, capture, told);
}

/* What the daemon printed to its standard output. */
void tell_printed(Stage &stage, OutputCapture &capture, size_t &told)
{
    const std::string text = capture.text();
    if (text.size() > told)
        stage_tell(stage, "stdout", std::string_view(text).substr(told));
    told = text.size();
}

void close_watches(Stage &stage)
{
    for (const Watch &watch : stage.watches) {
        if (!watch.failed)
            stage_judge(stage, watch.line,
                        watch.text + " (asked " + std::to_string(watch.checks) + " times)",
                        {true, ""});
    }
    stage.watches.clear();
}

void dump_tables(Stage &stage)
{
    for (const char *command : {"show-zlog-level", "dump_glbal_configure", "dump_all_oui",
                                "dump_all_port", "dump_all_mac", "dump_recover_entry"}) {
        std::string output;
        shell_run(command, &output, nullptr);
        stage.print(std::string("\n# ") + command + "\n" + text_printable(output));
    }
}

} // namespace

} // namespace sim
