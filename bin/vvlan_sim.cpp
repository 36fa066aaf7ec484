/*
 * vvlan-sim - plays a scenario with the daemon on the simulated switch.
 *
 * This is the one place where the daemon and the simulator meet: the daemon's
 * main function and the function that frees its memory are handed to the
 * simulated machine as the program to run.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_state.h"
#include "sim/player_command.h"
#include "sim/player_condition.h"
#include "sim/player_play.h"
#include "text/number.h"

namespace
{

enum { EXIT_MET = 0, EXIT_FAILED = 1, EXIT_REFUSED = 2 };

struct Arguments {
    sim::PlayOptions options;
    std::string file;
    bool help = false;
};

int refuse(const std::string &message);
int print_help();
/* Fills `arguments`; returns an empty text or what is wrong with the command line. */
std::string parse(int count, char **words, Arguments &arguments);
std::string take_option(std::string_view option, std::string_view next, Arguments &arguments);

} // namespace

int main(int count, char **words)
{
    Arguments arguments;
    const std::string wrong = parse(count, words, arguments);
    if (!wrong.empty())
        return refuse("vvlan-sim: " + wrong + "; vvlan-sim --help tells more");
    if (arguments.help)
        return print_help();
    sim::ScriptError error{};
    const auto script = sim::script_load(arguments.file, &error);
    if (!script)
        return refuse(sim::script_error_text(arguments.file, error));
    std::FILE *terminal = stdout; /* the daemon's standard output goes elsewhere */
    arguments.options.program = {"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset};
    arguments.options.print = [terminal](std::string_view text) {
        std::fwrite(text.data(), 1, text.size(), terminal);
    };
    const sim::PlayResult result = sim::script_play(*script, arguments.options);
    if (std::fflush(terminal) != 0)
        return refuse(std::string("vvlan-sim: cannot write: ") + std::strerror(errno));
    return result.failed == 0 ? EXIT_MET : EXIT_FAILED;
}

namespace
{

int refuse(const std::string &message)
{
    std::fprintf(stderr, "%s\n", message.c_str());
    return EXIT_REFUSED;
}

int print_help()
{
    std::printf("Usage: vvlan-sim [OPTION]... FILE\n"
                "Plays a scenario with the Voice VLAN daemon on a simulated switch.\n\n"
                "  --trace     print every call that the daemon makes to its platform\n"
                "  --level N   the daemon's debug level, 0..5, and log lines up to it (1)\n"
                "  --dump      print every table of the daemon at the end\n"
                "  --quiet     print nothing but expectations that failed\n"
                "  --help      print this and end\n\n"
                "A line of a scenario is [TIME] COMMAND, # begins a comment. A time is 5s,\n"
                "1m30s or 250ms since the start, or +5s since the line before; a line without\n"
                "one follows when everything that is due has happened. Commands:\n%s\n"
                "Conditions of expect, always and never, also with `no` before them:\n%s\n"
                "Exit status: 0 every expectation was met, 1 one was not, 2 the command line\n"
                "or the scenario was refused and nothing was played.\n",
                sim::command_help().c_str(), sim::condition_help().c_str());
    return EXIT_MET;
}

std::string parse(int count, char **words, Arguments &arguments)
{
    for (int at = 1; at < count; at++) {
        const std::string_view word = words[at];
        if (!word.starts_with("-")) {
            if (!arguments.file.empty())
                return "one scenario at a time";
            arguments.file = word;
            continue;
        }
        std::string wrong = take_option(word, at + 1 < count ? words[at + 1] : "", arguments);
        if (!wrong.empty())
            return wrong;
        at += word == "--level";
    }
    return arguments.file.empty() && !arguments.help ? "a scenario file is missing" : "";
}

std::string take_option(std::string_view option, std::string_view next, Arguments &arguments)
{
    if (option == "--trace")
        arguments.options.trace = true;
    else if (option == "--dump")
        arguments.options.dump = true;
    else if (option == "--quiet")
        arguments.options.quiet = true;
    else if (option == "--help" || option == "-h")
        arguments.help = true;
    else if (option == "--level") {
        const auto level = text::number_read(next);
        if (!level || *level > 5)
            return "--level wants a number of 0..5";
        arguments.options.level = static_cast<int>(*level);
    } else {
        return "unknown option " + std::string(option);
    }
    return {};
}

} // namespace
