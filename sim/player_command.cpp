#include "sim/player_command.h"

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "mom/kt_mom_peer.h"
#include "sim/player_capture.h"
#include "sim/player_function.h"
#include "sim/player_object.h"
#include "sim/sim_call.h"
#include "sim/sim_host.h"
#include "sim/sim_mom.h"
#include "sim/sim_restart.h"
#include "sim/sim_shell.h"
#include "sim/sim_switch.h"

namespace sim
{

namespace
{

using Run = std::function<void(Stage &)>;

struct Command {
    const char *name;
    const char *arguments;
    Run (*parse)(Cursor &, CommandContext &);
};

struct PlannedFault {
    std::string name;
    uint64_t nth;
    int code;
    uint64_t repeat;
};

constexpr const char *DEBUG_LEVEL_FILE = "/var/tmp/udp_vvlan_debug";
constexpr size_t MOST_FAULTS = 64; /* that are still to come; the platform takes no more */

Run parse_port(Cursor &cursor, CommandContext &context);
Run parse_mac_aging(Cursor &cursor, CommandContext &context);
Run parse_level(Cursor &cursor, CommandContext &context);
Run parse_file(Cursor &cursor, CommandContext &context);
Run parse_start(Cursor &cursor, CommandContext &context);
Run parse_restart(Cursor &cursor, CommandContext &context);
Run parse_stop(Cursor &cursor, CommandContext &context);
Run parse_kill(Cursor &cursor, CommandContext &context);
Run parse_set(Cursor &cursor, CommandContext &context);
Run parse_hset(Cursor &cursor, CommandContext &context);
Run parse_delete(Cursor &cursor, CommandContext &context);
Run parse_publish(Cursor &cursor, CommandContext &context);
Run parse_disconnect(Cursor &cursor, CommandContext &context);
Run parse_reconnect(Cursor &cursor, CommandContext &context);
Run parse_clear(Cursor &cursor, CommandContext &context);
Run parse_let(Cursor &cursor, CommandContext &context);
Run parse_frame(Cursor &cursor, CommandContext &context);
Run parse_pcap(Cursor &cursor, CommandContext &context);
Run parse_unplug(Cursor &cursor, CommandContext &context);
Run parse_shell(Cursor &cursor, CommandContext &context);
Run parse_fault(Cursor &cursor, CommandContext &context);
Run parse_note(Cursor &cursor, CommandContext &context);
Run parse_forget(Cursor &cursor, CommandContext &context);
Run parse_expect(Cursor &cursor, CommandContext &context);
Run parse_always(Cursor &cursor, CommandContext &context);
Run parse_never(Cursor &cursor, CommandContext &context);
Run parse_end(Cursor &cursor, CommandContext &context);

constexpr Command COMMANDS[] = {
    {"port", "IFX phyid=N [name=NAME] [pvid=N] [member=VID,VID...]", parse_port},
    {"mac-aging", "DURATION", parse_mac_aging},
    {"level", "0..5", parse_level},
    {"file", "PATH \"TEXT\"", parse_file},
    {"start", "", parse_start},
    {"restart", "", parse_restart},
    {"stop", "", parse_stop},
    {"kill", "[KILL|TERM|INT|PIPE]", parse_kill},
    {"set", "DB KIND FIELDS", parse_set},
    {"hset", "DB KIND FIELDS", parse_hset},
    {"delete", "DB KIND KEY", parse_delete},
    {"publish", "DB KIND FIELDS", parse_publish},
    {"disconnect", "DB", parse_disconnect},
    {"reconnect", "DB type=1|2", parse_reconnect},
    {"clear", "DB", parse_clear},
    {"let", "NAME FRAME", parse_let},
    {"frame", "IFX FRAME", parse_frame},
    {"pcap", "IFX FILE", parse_pcap},
    {"unplug", "IFX", parse_unplug},
    {"shell", "COMMAND [ARGUMENT...]", parse_shell},
    {"fault", "FUNCTION nth=N code=N [repeat=N]", parse_fault},
    {"note", "TEXT", parse_note},
    {"forget", "log", parse_forget},
    {"expect", "CONDITION", parse_expect},
    {"always", "NAME: CONDITION", parse_always},
    {"never", "NAME: CONDITION", parse_never},
    {"end", "NAME", parse_end},
};

/* What a step wants when it is not an expectation: 0, or it is a failure of the scenario. */
void want_success(Stage &stage, const char *what, int rv);
void run_frame(Stage &stage, uint32_t ifx, const std::string &shown, const frame::Bytes &bytes);
Run open_watch(Cursor &cursor, CommandContext &context, bool wanted);
void plan_fault(Stage &stage, const PlannedFault &fault);
void run_start(Stage &stage);
void run_signal(Stage &stage, int signal);
std::vector<uint16_t> vid_list(const std::string &text, size_t column);
uint64_t value_of(Cursor &cursor, const char *key, const char *expected, uint64_t most);
uint64_t count_of(Cursor &cursor, const char *key, const char *expected);

} // namespace

std::function<void(Stage &)> command_parse(Cursor &cursor, CommandContext &context)
{
    const size_t column = cursor.column();
    const std::string name = cursor.word("a command");
    for (const Command &command : COMMANDS) {
        if (name == command.name)
            return command.parse(cursor, context);
    }
    std::string names;
    for (const Command &command : COMMANDS)
        names += std::string(" ") + command.name;
    throw Refusal{column, "a command: for done" + names};
}

std::string command_help()
{
    std::string help = "    for NAME FIRST..LAST, then lines with ${NAME}, then done\n";
    for (const Command &command : COMMANDS)
        help += std::string("    ") + command.name + (*command.arguments == '\0' ? "" : " ") +
                command.arguments + "\n";
    return help;
}

namespace
{

/* --- The machine and its process */

Run parse_port(Cursor &cursor, CommandContext &context)
{
    constexpr const char *TWICE = "a port that no earlier line has set up";
    size_t column = cursor.column();
    const auto ifx = static_cast<uint32_t>(cursor.number("a port's ifx"));
    if (!context.known.ports.insert(ifx).second)
        throw Refusal{column, TWICE};
    column = cursor.column();
    const auto phyid = static_cast<uint32_t>(value_of(cursor, "phyid", "phyid=N", UINT32_MAX));
    if (!context.phyids.insert(phyid).second)
        throw Refusal{column, TWICE};
    const std::string name = cursor.accept_value("name").value_or("port" + std::to_string(ifx));
    column = cursor.column() + 5;
    const auto pvids = vid_list(cursor.accept_value("pvid").value_or("1"), column);
    if (pvids.size() != 1)
        throw Refusal{column, "one VLAN id of 1..4094"};
    column = cursor.column() + 7;
    const auto member = cursor.accept_value("member");
    const auto members = member ? vid_list(*member, column) : std::vector<uint16_t>{};
    return [=, pvid = pvids.front()](Stage &) {
        switch_add_port(ifx, phyid, name, pvid);
        for (const uint16_t vid : members)
            switch_add_member(ifx, vid);
    };
}

Run parse_mac_aging(Cursor &cursor, CommandContext &)
{
    const Micros aging = cursor.duration("how long a MAC stays learnt, such as 300s");
    return [aging](Stage &) { switch_set_mac_aging(std::max(aging, SECOND)); };
}

Run parse_level(Cursor &cursor, CommandContext &)
{
    const auto level = static_cast<int>(cursor.number("a debug level of 0..5", 5));
    return [level](Stage &stage) {
        host_file_write(DEBUG_LEVEL_FILE, std::to_string(std::max(level, stage.least_level)));
    };
}

Run parse_file(Cursor &cursor, CommandContext &)
{
    const std::string path = cursor.word("the path of a simulated file");
    const std::string text = cursor.text("its contents in quotes");
    return [path, text](Stage &) { host_file_write(path, text); };
}

Run parse_start(Cursor &, CommandContext &)
{
    return run_start;
}

void run_start(Stage &stage)
{
    if (process_is_running())
        stage_tell(stage, "process", "it runs already");
    restart_hold(false);
    process_start();
}

Run parse_restart(Cursor &, CommandContext &)
{
    return [](Stage &stage) { run_signal(stage, SIGTERM); };
}

/* The restart manager is told to leave it down, until `start`. */
Run parse_stop(Cursor &, CommandContext &)
{
    return [](Stage &stage) {
        restart_hold(true);
        run_signal(stage, SIGTERM);
    };
}

Run parse_kill(Cursor &cursor, CommandContext &)
{
    static constexpr std::pair<std::string_view, int> SIGNALS[] = {
        {"KILL", SIGKILL}, {"TERM", SIGTERM}, {"INT", SIGINT}, {"PIPE", SIGPIPE}};
    if (cursor.at_end())
        return [](Stage &stage) { run_signal(stage, SIGKILL); };
    const size_t column = cursor.column();
    const std::string given = cursor.word("a signal");
    for (const auto &[name, number] : SIGNALS) {
        if (given == name)
            return [signal = number](Stage &stage) { run_signal(stage, signal); };
    }
    throw Refusal{column, "a signal: KILL TERM INT PIPE, or none for KILL"};
}

void run_signal(Stage &stage, int signal)
{
    if (!process_is_running())
        stage_tell(stage, "process", "it does not run");
    process_signal(signal);
}

/* --- The databases */

Run parse_set(Cursor &cursor, CommandContext &)
{
    return [object = object_parse(cursor, ObjectUse::set_whole)](Stage &stage) {
        want_success(stage, "set", kt_mom_set(mom_peer(), object.db, object.message.get(), 0, 0));
    };
}

Run parse_hset(Cursor &cursor, CommandContext &)
{
    return [object = object_parse(cursor, ObjectUse::set_fields)](Stage &stage) {
        want_success(stage, "hset",
                     kt_mom_hset(mom_peer(), object.db, object.message.get(), object.fields.data(),
                                 static_cast<uint32_t>(object.fields.size())));
    };
}

Run parse_delete(Cursor &cursor, CommandContext &)
{
    return [object = object_parse(cursor)](Stage &stage) {
        want_success(stage, "delete",
                     kt_mom_del(mom_peer(), object.db, object.message.get(), 0, 0));
    };
}

Run parse_publish(Cursor &cursor, CommandContext &)
{
    return [object = object_parse(cursor)](Stage &stage) {
        want_success(stage, "publish", kt_mom_publish(mom_peer(), object.db, object.message.get()));
    };
}

Run parse_disconnect(Cursor &cursor, CommandContext &)
{
    return [db = object_db_parse(cursor)](Stage &stage) {
        const std::string name = "database " + std::to_string(db);
        const bool is_news = stage.lost.insert(db).second;
        stage_tell(stage, "network",
                   is_news ? "the daemon loses " + name
                           : "the daemon has lost " + name + " already");
        mom_disconnect(db);
    };
}

Run parse_reconnect(Cursor &cursor, CommandContext &)
{
    const uint32_t db = object_db_parse(cursor);
    const size_t column = cursor.column() + 5;
    const auto type = static_cast<int>(value_of(cursor, "type", "type=1 or type=2", 2));
    if (type == 0)
        throw Refusal{column, "1 (another instance) or 2 (the same)"};
    return [db, type](Stage &stage) {
        const char *what = stage.lost.erase(db) == 0 ? " was not lost"
                           : type == 1               ? " is back, another instance"
                                                     : " is back, the same instance";
        stage_tell(stage, "network", "database " + std::to_string(db) + what);
        mom_reconnect(db, type);
    };
}

Run parse_clear(Cursor &cursor, CommandContext &)
{
    return [db = object_db_parse(cursor)](Stage &stage) {
        stage_tell(stage, "network", "database " + std::to_string(db) + " loses its contents");
        mom_clear(db);
        switch_mom_cleared(db);
    };
}

/* --- Frames */

Run parse_let(Cursor &cursor, CommandContext &context)
{
    const std::string name = cursor.word("a name for a frame");
    context.known.frames.insert_or_assign(name, frame_parse(cursor, context.known.frames));
    return [](Stage &) {};
}

Run parse_frame(Cursor &cursor, CommandContext &context)
{
    const uint32_t ifx = port_parse(cursor, context.known);
    Cursor again = cursor;
    const frame::Bytes bytes = frame::encode(frame_parse(cursor, context.known.frames));
    return [ifx, bytes, shown = std::string(again.rest())](Stage &stage) {
        run_frame(stage, ifx, shown, bytes);
    };
}

/* The packets come with the distances in time that they were captured with. */
Run parse_pcap(Cursor &cursor, CommandContext &context)
{
    const uint32_t ifx = port_parse(cursor, context.known);
    const size_t column = cursor.column();
    const std::string name = cursor.word("a capture file");
    std::string why;
    const auto packets = capture_load(std::filesystem::path(context.directory) / name, &why);
    if (!packets)
        throw Refusal{column, "a capture file that can be read: " + why};
    return [ifx, name, packets = *packets](Stage &stage) {
        if (!packets.empty())
            stage.busy_until = std::max(stage.busy_until, now() + packets.back().after);
        for (const CapturedPacket &packet : packets) {
            post_at(now() + packet.after, [&stage, ifx, name, bytes = packet.bytes] {
                const auto frame = frame::decode(bytes);
                run_frame(stage, ifx, name + ": " + (frame ? frame_text(*frame) : "bad frame"),
                          bytes);
            });
        }
    };
}

void run_frame(Stage &stage, uint32_t ifx, const std::string &shown, const frame::Bytes &bytes)
{
    const std::string who = "port " + std::to_string(ifx);
    stage_tell(stage, who, "in:  " + shown);
    stage.verdict = switch_frame_in(ifx, bytes);
    stage_tell(stage, who, "out: " + verdict_text(*stage.verdict));
}

Run parse_unplug(Cursor &cursor, CommandContext &context)
{
    return [ifx = port_parse(cursor, context.known)](Stage &stage) {
        stage_tell(stage, "port " + std::to_string(ifx), "is unplugged");
        switch_unplug(ifx);
    };
}

/* --- People, faults and words */

Run parse_shell(Cursor &cursor, CommandContext &)
{
    if (cursor.at_end())
        throw Refusal{cursor.column(), "a debug command"};
    return [line = std::string(cursor.rest())](Stage &stage) {
        int status = 0;
        std::string output;
        const bool called = shell_run(line, &output, &status);
        stage.shell_output = output;
        stage_tell(stage, "shell", line + "\n" + output);
        if (!called)
            stage_judge(stage, stage.step->line, "shell " + line, {false, output});
    };
}

Run parse_fault(Cursor &cursor, CommandContext &)
{
    PlannedFault fault{function_parse(cursor), 0, 0, 1};
    fault.nth = count_of(cursor, "nth", "nth=N, counted from 1");
    size_t column = cursor.column();
    const auto code = cursor.accept_value("code");
    if (!code)
        throw Refusal{column, "code=N, such as code=-5"};
    try {
        fault.code = static_cast<int>(Cursor(*code).signed_number("a number, such as -5"));
    } catch (const Refusal &refusal) {
        throw Refusal{column + 5, refusal.expected};
    }
    if (cursor.peek().starts_with("repeat="))
        fault.repeat = count_of(cursor, "repeat", "repeat=N");
    return [fault](Stage &stage) { plan_fault(stage, fault); };
}

void plan_fault(Stage &stage, const PlannedFault &fault)
{
    std::erase_if(stage.faults,
                  [](const auto &planned) { return calls_count(planned.first) >= planned.second; });
    if (stage.faults.size() == MOST_FAULTS) {
        stage_judge(stage, stage.step->line, stage.step->text,
                    {false, "64 planned faults are still to come"});
        return;
    }
    stage_tell(stage, "fault",
               "call " + std::to_string(fault.nth) + " of " + fault.name + " from now on" +
                   (fault.repeat > 1 ? " and those after it" : "") + " will fail");
    stage.faults.emplace_back(fault.name, calls_count(fault.name) + fault.nth + fault.repeat - 1);
    fault_plan(fault.name, fault.nth, fault.code, fault.repeat);
}

Run parse_note(Cursor &cursor, CommandContext &)
{
    return [text = std::string(cursor.rest())](Stage &stage) {
        if (!stage.quiet)
            stage.print("\n--- " + text + "\n");
    };
}

Run parse_forget(Cursor &cursor, CommandContext &)
{
    if (!cursor.accept("log"))
        throw Refusal{cursor.column(), "`log`"};
    return [](Stage &stage) { stage.log_from = stage.log_told; };
}

/* --- Expectations */

Run parse_expect(Cursor &cursor, CommandContext &context)
{
    Cursor again = cursor;
    return [condition = condition_parse(cursor, context.known), text = std::string(again.rest())](
               Stage &stage) { stage_judge(stage, stage.step->line, text, condition.ask(stage)); };
}

Run parse_always(Cursor &cursor, CommandContext &context)
{
    return open_watch(cursor, context, true);
}

Run parse_never(Cursor &cursor, CommandContext &context)
{
    return open_watch(cursor, context, false);
}

Run open_watch(Cursor &cursor, CommandContext &context, bool wanted)
{
    const size_t column = cursor.column();
    std::string name = cursor.word("a name and a colon, such as treated:");
    if (!name.ends_with(':') || name.size() < 2)
        throw Refusal{column, "a name and a colon, such as treated:"};
    name.pop_back();
    if (!context.watches.insert(name).second)
        throw Refusal{column, "a name that no open watch has"};
    Cursor again = cursor;
    const Condition condition = condition_parse(cursor, context.known);
    const std::string text =
        std::string(wanted ? "always " : "never ") + name + ": " + std::string(again.rest());
    const Condition asked = {[condition, wanted](const Stage &stage) {
                                 return outcome_wanted(condition.ask(stage), wanted);
                             },
                             condition.asks_process};
    return [name, text, asked](Stage &stage) {
        stage.watches.push_back({stage.step->line, name, text, asked, 0, false});
        stage_tell(stage, "watch", text);
    };
}

Run parse_end(Cursor &cursor, CommandContext &context)
{
    const size_t column = cursor.column();
    const std::string name = cursor.word("the name of a watch");
    if (context.watches.erase(name) == 0)
        throw Refusal{column, "the name of an open watch"};
    return [name](Stage &stage) {
        const auto watch = std::ranges::find(stage.watches, name, &Watch::name);
        stage_watch(stage);
        if (!watch->failed)
            stage_judge(stage, watch->line,
                        watch->text + " (asked " + std::to_string(watch->checks) + " times)",
                        {true, ""});
        stage.watches.erase(watch);
    };
}

/* --- What several commands need */

void want_success(Stage &stage, const char *what, int rv)
{
    if (rv != 0)
        stage_judge(stage, stage.step->line, stage.step->text,
                    {false, std::string(what) + " was refused with " + std::to_string(rv)});
}

std::vector<uint16_t> vid_list(const std::string &text, size_t column)
{
    constexpr const char *VIDS = "VLAN ids of 1..4094 with commas between them";
    std::vector<uint16_t> vids;
    for (size_t from = 0; from <= text.size();) {
        const size_t length = std::min(text.find(',', from), text.size()) - from;
        const uint64_t vid =
            text_number(std::string_view(text).substr(from, length), column + from, VIDS, 4094);
        if (vid == 0)
            throw Refusal{column + from, VIDS};
        vids.push_back(static_cast<uint16_t>(vid));
        from += length + 1;
    }
    return vids;
}

uint64_t value_of(Cursor &cursor, const char *key, const char *expected, uint64_t most)
{
    const size_t column = cursor.column();
    const auto value = cursor.accept_value(key);
    if (!value)
        throw Refusal{column, expected};
    return text_number(*value, column + std::string_view(key).size() + 1, expected, most);
}

/* The same for a number that is not 0. */
uint64_t count_of(Cursor &cursor, const char *key, const char *expected)
{
    const size_t column = cursor.column() + std::string_view(key).size() + 1;
    const uint64_t value = value_of(cursor, key, expected, UINT32_MAX);
    if (value == 0)
        throw Refusal{column, std::string(expected) + ", at least 1"};
    return value;
}

} // namespace

} // namespace sim
