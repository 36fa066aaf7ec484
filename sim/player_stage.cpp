#include "sim/player_stage.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "mom/kt_mom_peer.h"
#include "object/object.h"
#include "sim/player_object.h"
#include "sim/player_text.h"
#include "sim/sim_call.h"
#include "sim/sim_log.h"
#include "sim/sim_mom.h"
#include "sim/sim_restart.h"
#include "words/words.h"

namespace sim
{

namespace
{

constexpr size_t TEXT_COLUMN = 23; /* where what happened begins */

void print_line(Stage &stage, std::string_view who, std::string_view what);
std::string without_addresses(std::string_view text);
std::string time_text(Micros when);
void tell_change(Stage &stage, uint32_t db, uint32_t operation, const ProtobufCMessage &object,
                 std::span<const uint32_t> fields);
void tell_log(Stage &stage, const LogLine &line);
void tell_end(Stage &stage, const Ended &ended);
void tell_call(Stage &stage, const Call &call);
void count_start(Stage &stage, uint64_t life, int pid);
int debug_level_of(int level);
const char *writer_of(const ProtobufCMessage &object);

} // namespace

void stage_tell(Stage &stage, std::string_view who, std::string_view what)
{
    stage_notice_start(stage);
    if (!stage.quiet)
        print_line(stage, who, what);
}

void stage_judge(Stage &stage, size_t line, const std::string &text, const Outcome &outcome)
{
    if (outcome.holds) {
        stage.passed++;
        stage_tell(stage, "ok", text);
        return;
    }
    stage.failed++;
    stage_notice_start(stage);
    print_line(stage, "FAILED",
               stage.script->file + ":" + std::to_string(line) + ": " + text +
                   "\nfound: " + outcome.found);
}

void stage_watch(Stage &stage)
{
    stage_notice_start(stage);
    if (stage.is_watching)
        return;
    stage.is_watching = true;
    for (Watch &watch : stage.watches) {
        if (watch.failed || (watch.condition.asks_process && process_is_current()))
            continue;
        watch.checks++;
        const Outcome outcome = watch.condition.ask(stage);
        if (outcome.holds)
            continue;
        watch.failed = true;
        stage_judge(stage, watch.line, watch.text, outcome);
    }
    stage.is_watching = false;
}

void stage_notice_start(Stage &stage)
{
    if (process_is_running() && process_life() != stage.life_told)
        count_start(stage, process_life(), process_pid());
}

void stage_listen(Stage &stage, bool trace)
{
    mom_on_change([&stage](uint32_t db, uint32_t operation, const ProtobufCMessage &object,
                           std::span<const uint32_t> fields) {
        tell_change(stage, db, operation, object, fields);
    });
    log_listen([&stage](const LogLine &line) {
        stage.log_told++;
        tell_log(stage, line);
    });
    restart_listen([&stage](const std::string &text) { stage_tell(stage, "restart", text); });
    process_on_end([&stage](const Ended &ended) { tell_end(stage, ended); });
    loop_after_each([&stage] { stage_watch(stage); });
    call_before_each([&stage] { stage_watch(stage); });
    if (trace)
        calls_listen([&stage](const Call &call) { tell_call(stage, call); });
}

namespace
{

void print_line(Stage &stage, std::string_view who, std::string_view what)
{
    char head[64];
    std::snprintf(head, sizeof head, "%11s  %-9.*s ", time_text(now()).c_str(),
                  static_cast<int>(who.size()), who.data());
    std::string text = head;
    while (!what.empty()) {
        const size_t length = what.find('\n');
        text += text_printable(without_addresses(what.substr(0, length))) + '\n';
        what.remove_prefix(length == std::string_view::npos ? what.size() : length + 1);
        if (!what.empty())
            text += std::string(TEXT_COLUMN, ' ');
    }
    stage.print(text);
}

/*
 * The daemon logs some addresses of its records, which are not the same in two
 * runs. No other number that is printed has more than eight digits.
 */
std::string without_addresses(std::string_view text)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string result;
    for (size_t at; (at = text.find("0x")) != std::string_view::npos;) {
        const size_t end = std::min(text.find_first_not_of(DIGITS, at + 2), text.size());
        result += end - at > 10 ? std::string(text.substr(0, at)) + "0x(address)"
                                : std::string(text.substr(0, end));
        text.remove_prefix(end);
    }
    return result += text;
}

/* "1:02:03.456", without hours and minutes that are zero. */
std::string time_text(Micros when)
{
    const int64_t milliseconds = when / 1000;
    const int64_t hours = milliseconds / 3'600'000;
    const int64_t minutes = milliseconds / 60'000 % 60;
    char text[40];
    if (hours > 0)
        std::snprintf(text, sizeof text, "%" PRId64 ":%02" PRId64 ":%02" PRId64 ".%03" PRId64,
                      hours, minutes, milliseconds / 1000 % 60, milliseconds % 1000);
    else
        std::snprintf(text, sizeof text, "%" PRId64 ":%02" PRId64 ".%03" PRId64, minutes,
                      milliseconds / 1000 % 60, milliseconds % 1000);
    return text;
}

void tell_change(Stage &stage, uint32_t db, uint32_t operation, const ProtobufCMessage &object,
                 std::span<const uint32_t> fields)
{
    const char *verb = operation == KT_MOM_DEL       ? "delete"
                       : operation == KT_MOM_HSET    ? "hset"
                       : operation == KT_MOM_PUBLISH ? "publish"
                                                     : "set";
    std::string text = words::change(operation, object, fields);
    text.resize(std::max<size_t>(text.size(), 46), ' ');
    text += std::string(" | ") + verb + " " + std::to_string(db) + " " + object.descriptor->name;
    object::Message changed;
    const ProtobufCMessage *shown = &object;
    if (operation == KT_MOM_HSET) {
        changed = object::empty(*object::kind_of(object));
        object::merge(*changed, object, fields);
        shown = changed.get();
    }
    const std::string values = object::to_text(*shown);
    stage_tell(stage, writer_of(object), text + (values.empty() ? "" : " ") + values);
}

/*
 * Who writes a kind of object is fixed by the design of the databases; a
 * deletion at the end of a section is the writer's wish as well.
 */
const char *writer_of(const ProtobufCMessage &object)
{
    static constexpr std::pair<std::string_view, const char *> WRITERS[] = {
        {"p_bridge.vvlan_glb_cfg", "operator"},  {"p_bridge.vvlan_oui_cfg", "operator"},
        {"p_bridge.vvlan_port_cfg", "operator"}, {"s_bridge.vvlan_port_noty", "switch"},
        {"u_bridge.mac_vid_reg_noti", "switch"},
    };
    for (const auto &[kind, writer] : WRITERS) {
        if (kind == object.descriptor->name)
            return writer;
    }
    return process_is_running() ? "daemon" : "database"; /* whose leases end with it */
}

void tell_log(Stage &stage, const LogLine &line)
{
    if (debug_level_of(line.level) > stage.level)
        return;
    std::string text = std::string(log_level_name(line.level)) + " " + line.func + ": ";
    for (const char letter : line.text)
        text += letter == '\n' ? ' ' : letter;
    stage_tell(stage, "log", text);
}

/* The lowest debug level at which the daemon writes lines of this level. */
int debug_level_of(int level)
{
    return level >= 100 ? 1 : level >= 80 ? 2 : level >= 40 ? 4 : 5;
}

void tell_end(Stage &stage, const Ended &ended)
{
    if (ended.life != stage.life_told)
        count_start(stage, ended.life, ended.pid);
    stage.ends.push_back(ended);
    const std::string pid = "pid " + std::to_string(ended.pid);
    if (ended.by_signal)
        stage_tell(stage, "process", pid + " is killed by signal " + std::to_string(ended.status));
    else
        stage_tell(stage, "process", pid + " ends with status " + std::to_string(ended.status));
}

void count_start(Stage &stage, uint64_t life, int pid)
{
    stage.life_told = life;
    stage.starts++;
    stage_tell(stage, "process", "the daemon starts, pid " + std::to_string(pid));
}

void tell_call(Stage &stage, const Call &call)
{
    std::string text = call.name + (call.arguments.empty() ? "" : " ") + call.arguments;
    if (call.fault != 0)
        text += " -> fails with " + std::to_string(call.fault);
    stage_tell(stage, "call", text);
}

} // namespace

} // namespace sim
