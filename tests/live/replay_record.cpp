/*
 * Plays a scenario on the simulated switch and prints what it comes to for those
 * who share databases with the daemon, a line each, in virtual time:
 *
 *     left out LINE: COMMAND            nothing else is printed
 *     port IFX PHYID
 *     at MILLISECONDS                   of what follows
 *     write set|hset|delete|publish DB KIND [FIELD-NUMBER,...] | TEXT
 *                                       by operator or switch
 *     step COMMAND                      what befalls the daemon or the databases
 *     started
 *     ended STATUS                      128 and more: by a signal
 *     state COUNT                       every object, when all has settled
 *     DB KIND TEXT
 *
 * What the switch writes is how the daemon learns of frames: a notice where a voice
 * device is seen on a trapped port, and the MACs that are learnt and forgotten.
 */
#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_state.h"
#include "sim/player_play.h"
#include "sim/sim_call.h"
#include "sim/sim_mom.h"
#include "sim/sim_process.h"

namespace
{

/* They befall the inside of the simulated platform, so that a real one has no equal. */
constexpr std::string_view ONLY_SIMULATED[] = {"fault", "file"};
constexpr std::string_view BEFALL[] = {"start",      "restart",   "stop", "kill",
                                       "disconnect", "reconnect", "clear"};
/* The daemon writes all others. */
constexpr std::string_view OTHERS_WRITE[] = {"p_bridge.vvlan_glb_cfg", "p_bridge.vvlan_oui_cfg",
                                             "p_bridge.vvlan_port_cfg", "s_bridge.vvlan_port_noty",
                                             "u_bridge.mac_vid_reg_noti"};

std::string recording; /* standard output is the daemon's while it plays */
sim::Micros told_at = -1;
uint64_t life = 0;
bool is_news = false; /* something has happened since the last look at the databases */

template <typename List> bool has(const List &list, std::string_view word)
{
    return std::ranges::find(list, word) != std::end(list);
}

void print(const std::string &line)
{
    if (told_at != sim::now())
        recording += "at " + std::to_string(sim::now() / 1000) + "\n";
    told_at = sim::now();
    recording += line + "\n";
}

void tell_state()
{
    std::vector<std::string> lines;
    for (const uint32_t db : {0U, 4U, 6U, 8U}) {
        sim::mom_each(db, [&](const object::Kind &kind, const ProtobufCMessage &object,
                              const sim::MomMeta &) {
            lines.push_back(std::to_string(db) + " " + object::kind_name(kind) + " " +
                            object::to_text(object));
        });
    }
    is_news = false;
    print("state " + std::to_string(lines.size()));
    for (const std::string &line : lines)
        print(line);
}

void tell_change(uint32_t db, uint32_t operation, const ProtobufCMessage &object,
                 std::span<const uint32_t> fields)
{
    const std::string kind = object.descriptor->name;
    is_news = true;
    if (!has(OTHERS_WRITE, kind))
        return;
    const char *verb = operation == KT_MOM_DEL       ? "delete "
                       : operation == KT_MOM_HSET    ? "hset "
                       : operation == KT_MOM_PUBLISH ? "publish "
                                                     : "set ";
    std::string numbers;
    for (const uint32_t field : fields)
        numbers += (numbers.empty() ? "" : ",") + std::to_string(field);
    print("write " + std::string(verb) + std::to_string(db) + " " + kind + " " + numbers + "| " +
          object::to_text(object));
}

void listen()
{
    sim::mom_on_change(tell_change);
    sim::process_on_end([](const sim::Ended &ended) {
        is_news = true;
        print("ended " + std::to_string(ended.status + (ended.by_signal ? 128 : 0)));
    });
    sim::calls_listen([](const sim::Call &) {
        if (life != sim::process_life())
            print("started");
        life = sim::process_life();
    });
}

std::string word_of(const sim::Step &step, size_t place)
{
    std::istringstream words(step.text);
    std::string word;
    for (size_t at = 0; at <= place && words >> word; at++)
        continue;
    return word;
}

/* Whether all of it can befall a real daemon, too. */
bool is_for_all(const sim::Script &script)
{
    const auto step = std::ranges::find_if(
        script.steps, [](const sim::Step &each) { return has(ONLY_SIMULATED, word_of(each, 0)); });
    if (step == script.steps.end())
        return true;
    std::printf("left out %zu: %s\n", step->line, step->text.c_str());
    return false;
}

/* A look at the databases before each step, when all that was due has happened. */
sim::Script with_looks(const sim::Script &script)
{
    sim::Script result{script.file, {}};
    for (const sim::Step &step : script.steps) {
        const std::string verb = word_of(step, 0);
        result.steps.push_back({step.line, step.when, step.text, [step, verb](sim::Stage &) {
                                    if (is_news)
                                        tell_state();
                                    if (has(BEFALL, verb))
                                        print("step " + step.text);
                                }});
        result.steps.push_back(step);
    }
    return result;
}

void tell_ports(const sim::Script &script)
{
    for (const sim::Step &step : script.steps) {
        if (word_of(step, 0) == "port")
            std::printf("port %s %s\n", word_of(step, 1).c_str(),
                        word_of(step, 2).substr(std::string_view("phyid=").size()).c_str());
    }
}

} // namespace

int main(int count, char **words)
{
    sim::ScriptError error{};
    const auto script = sim::script_load(count == 2 ? words[1] : "", &error);
    if (!script) {
        std::fprintf(stderr, "%s\n", sim::script_error_text(words[count - 1], error).c_str());
        return 2;
    }
    if (!is_for_all(*script))
        return 0;
    tell_ports(*script);
    sim::PlayOptions options;
    options.program = {"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset};
    options.print = [](std::string_view) {};
    options.at_begin = listen;
    options.at_end = tell_state;
    const bool is_met = sim::script_play(with_looks(*script), options).failed == 0;
    std::fputs(recording.c_str(), stdout);
    return is_met ? 0 : 1;
}
