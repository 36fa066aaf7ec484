#include "sim/player_condition.h"

#include <algorithm>
#include <cstdio>
#include <span>
#include <sstream>
#include <vector>

#include "object/object.h"
#include "sim/player_function.h"
#include "sim/player_object.h"
#include "sim/sim_call.h"
#include "sim/sim_log.h"
#include "sim/sim_mom.h"
#include "sim/sim_shell.h"
#include "sim/sim_switch.h"

namespace sim
{

namespace
{

struct ConditionKind {
    const char *name;
    const char *arguments;
    Condition (*parse)(Cursor &, const KnownNames &);
};

/* A word that must, or must not, be among others. */
struct WantedWord {
    std::string word;
    bool wanted;
};

Condition parse_object(Cursor &cursor, const KnownNames &known);
Condition parse_count(Cursor &cursor, const KnownNames &known);
Condition parse_port(Cursor &cursor, const KnownNames &known);
Condition parse_switch(Cursor &cursor, const KnownNames &known);
Condition parse_out(Cursor &cursor, const KnownNames &known);
Condition parse_probe(Cursor &cursor, const KnownNames &known);
Condition parse_log(Cursor &cursor, const KnownNames &known);
Condition parse_process(Cursor &cursor, const KnownNames &known);
Condition parse_shell(Cursor &cursor, const KnownNames &known);
Condition parse_calls(Cursor &cursor, const KnownNames &known);
Condition parse_faults(Cursor &cursor, const KnownNames &known);

constexpr ConditionKind KINDS[] = {
    {"object", "DB KIND FIELDS", parse_object},
    {"count", "DB KIND NUMBER", parse_count},
    {"port",
     "IFX absent | [AUTO|MANUAL] [ENABLE|DISABLE] [TRAP|!TRAP] [SECU|!SECU] [AGING|!AGING]\n"
     "             [JOINED|UNJOIN] [no_flw=SECONDS]",
     parse_port},
    {"switch", "IFX [not] WORD...", parse_switch},
    {"out", "[forwarded|dropped|to-cpu] [tagged|untagged] [vid=N] [cos=N] [prio=N] [dscp=N]",
     parse_out},
    {"probe", "IFX FRAME -> the words of `out`", parse_probe},
    {"log", "[error|warning|info|debug] \"TEXT\"", parse_log},
    {"process", "running | stopped | exited STATUS | killed SIGNAL | starts NUMBER", parse_process},
    {"shell", "\"TEXT\"", parse_shell},
    {"calls", "FUNCTION NUMBER", parse_calls},
    {"faults", "met", parse_faults},
};

Outcome port_outcome(uint32_t ifx, const std::vector<std::string> &wanted);
std::vector<std::string> port_row(const std::string &table, uint32_t ifx);
Outcome process_outcome(const Stage &stage, const std::string &what, uint64_t number);
Outcome log_outcome(const Stage &stage, int level, const std::string &text);
std::string switch_word(Cursor &cursor);
std::vector<std::string> words_of(const std::string &text);
bool has_word(const std::vector<std::string> &words, const std::string &word);
std::string ended_text(const Ended &ended);

} // namespace

Condition condition_parse(Cursor &cursor, const KnownNames &known)
{
    if (cursor.accept("no")) {
        const Condition inner = condition_parse(cursor, known);
        return {[inner](const Stage &stage) { return outcome_wanted(inner.ask(stage), false); },
                inner.asks_process};
    }
    const size_t column = cursor.column();
    const std::string name = cursor.word("what to expect, such as `port` or `out`");
    for (const ConditionKind &kind : KINDS) {
        if (name == kind.name)
            return kind.parse(cursor, known);
    }
    throw Refusal{column, "one of: no object count port switch out probe log process shell calls "
                          "faults"};
}

uint32_t port_parse(Cursor &cursor, const KnownNames &known)
{
    constexpr const char *PORT = "the ifx of a port that an earlier line has set up";
    const size_t column = cursor.column();
    const auto ifx = static_cast<uint32_t>(cursor.number(PORT));
    if (!known.ports.contains(ifx))
        throw Refusal{column, PORT};
    return ifx;
}

Outcome outcome_wanted(Outcome outcome, bool wanted)
{
    outcome.holds = outcome.can_tell && outcome.holds == wanted;
    return outcome;
}

std::string condition_help()
{
    std::string help;
    for (const ConditionKind &kind : KINDS)
        help += std::string("    ") + kind.name + " " + kind.arguments + "\n";
    return help;
}

namespace
{

Condition parse_object(Cursor &cursor, const KnownNames &)
{
    const ObjectText wanted = object_parse(cursor);
    return {[wanted](const Stage &) {
        const object::Message stored = mom_get(wanted.db, *wanted.message);
        if (stored == nullptr)
            return Outcome{false, "there is no such object"};
        return Outcome{object_has(*stored, wanted), object::to_text(*stored)};
    }};
}

Condition parse_count(Cursor &cursor, const KnownNames &)
{
    const ObjectKind asked = object_kind_parse(cursor);
    const uint64_t wanted = cursor.number("how many");
    return {[asked, wanted](const Stage &) {
        uint64_t found = 0;
        mom_each(asked.db, [&](const object::Kind &each, const ProtobufCMessage &,
                               const MomMeta &) { found += &each == asked.kind; });
        return Outcome{found == wanted, "there are " + std::to_string(found)};
    }};
}

Condition parse_port(Cursor &cursor, const KnownNames &)
{
    static constexpr std::string_view KNOWN[] = {"AUTO",   "MANUAL", "ENABLE", "DISABLE", "TRAP",
                                                 "!TRAP",  "SECU",   "!SECU",  "AGING",   "!AGING",
                                                 "JOINED", "UNJOIN", "absent"};
    const uint32_t ifx = static_cast<uint32_t>(cursor.number("a port's ifx"));
    std::vector<std::string> wanted;
    do {
        const size_t column = cursor.column();
        if (const auto seconds = cursor.accept_value("no_flw")) {
            char cell[24];
            std::snprintf(
                cell, sizeof cell, "%08u(s)",
                static_cast<unsigned>(text_number(*seconds, column + 7, "seconds", 99999999)));
            wanted.push_back(cell);
            continue;
        }
        wanted.push_back(cursor.word("words of the port's row, such as AUTO JOINED !TRAP"));
        if (std::ranges::find(KNOWN, wanted.back()) == std::end(KNOWN) ||
            (wanted.size() > 1 && has_word(wanted, "absent")))
            throw Refusal{column,
                          "a word of the port's row: AUTO MANUAL ENABLE DISABLE TRAP !TRAP "
                          "SECU !SECU AGING !AGING JOINED UNJOIN no_flw=SECONDS, or absent"};
    } while (!cursor.at_end());
    return {[ifx, wanted](const Stage &) { return port_outcome(ifx, wanted); }, true};
}

Outcome port_outcome(uint32_t ifx, const std::vector<std::string> &wanted)
{
    std::string table;
    if (!process_is_running())
        return {false, "it does not run", false};
    if (!shell_run("dump_all_port", &table, nullptr))
        return {false, table, false};
    const std::vector<std::string> row = port_row(table, ifx);
    std::string found;
    for (const std::string &word : row)
        found += (found.empty() ? "" : " ") + word;
    if (row.empty())
        return {has_word(wanted, "absent"), "the port has no record"};
    const auto is_there = [&row](const std::string &word) { return has_word(row, word); };
    return {std::ranges::all_of(wanted, is_there), found};
}

/* The words after the ifx of the port's row in the dump; empty when it has none. */
std::vector<std::string> port_row(const std::string &table, uint32_t ifx)
{
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        unsigned row_ifx = 0;
        int length = 0;
        if (std::sscanf(line.c_str(), " ifx:%u%n", &row_ifx, &length) == 1 && row_ifx == ifx)
            return words_of(line.substr(static_cast<size_t>(length)));
    }
    return {};
}

Condition parse_switch(Cursor &cursor, const KnownNames &known)
{
    const uint32_t ifx = port_parse(cursor, known);
    std::vector<WantedWord> wanted;
    do {
        const bool negated = cursor.accept("not");
        wanted.push_back({switch_word(cursor), !negated});
    } while (!cursor.at_end());
    return {[ifx, wanted](const Stage &) {
        const std::string text = switch_port_text(ifx);
        const std::vector<std::string> words = words_of(text);
        const bool holds = std::ranges::all_of(wanted, [&words](const WantedWord &each) {
            return has_word(words, each.word) == each.wanted;
        });
        return Outcome{holds, text};
    }};
}

/* A word as switch_port_text() writes it. */
std::string switch_word(Cursor &cursor)
{
    constexpr const char *WORD = "trapped, member=VID, acl=none, acl=ID,ID... or macs=N";
    const size_t column = cursor.column();
    std::string word = cursor.word(WORD);
    if (word == "trapped" || word == "acl=none")
        return word;
    const size_t from = word.find('=') + 1;
    const std::string_view name = std::string_view(word).substr(0, from);
    if (name != "member=" && name != "macs=" && name != "acl=")
        throw Refusal{column, WORD};
    const uint64_t most = name == "member=" ? 4094 : UINT32_MAX;
    for (size_t at = from; at <= word.size();) {
        const size_t comma =
            name == "acl=" ? std::min(word.find(',', at), word.size()) : word.size();
        text_number(std::string_view(word).substr(at, comma - at), column + at, WORD, most);
        at = comma + 1;
    }
    return word;
}

Condition parse_out(Cursor &cursor, const KnownNames &)
{
    const VerdictWords wanted = verdict_parse(cursor);
    return {[wanted](const Stage &stage) {
        if (!stage.verdict)
            return Outcome{false, "no frame has come in", false};
        return Outcome{verdict_matches(wanted, *stage.verdict), verdict_text(*stage.verdict)};
    }};
}

Condition parse_probe(Cursor &cursor, const KnownNames &known)
{
    const uint32_t ifx = port_parse(cursor, known);
    const frame::Bytes bytes = frame::encode(frame_parse(cursor, known.frames));
    const size_t column = cursor.column();
    if (!cursor.accept("->"))
        throw Refusal{column, "a field of a frame, or `->` and what leaves the switch"};
    const VerdictWords wanted = verdict_parse(cursor);
    return {[ifx, bytes, wanted](const Stage &) {
        const Verdict verdict = switch_peek(ifx, bytes);
        return Outcome{verdict_matches(wanted, verdict), verdict_text(verdict)};
    }};
}

Condition parse_log(Cursor &cursor, const KnownNames &)
{
    static constexpr std::pair<std::string_view, int> LEVELS[] = {
        {"error", 100}, {"warning", 80}, {"info", 40}, {"debug", 20}};
    int level = 0;
    for (const auto &[name, value] : LEVELS) {
        if (cursor.accept(name)) {
            level = value;
            break;
        }
    }
    const std::string text = cursor.text("text of a log line in quotes");
    return {[level, text](const Stage &stage) { return log_outcome(stage, level, text); }};
}

Outcome log_outcome(const Stage &stage, int level, const std::string &text)
{
    const auto &lines = log_lines();
    const auto wanted = static_cast<size_t>(stage.log_told - stage.log_from);
    for (const LogLine &line : std::span(lines).last(std::min(wanted, lines.size()))) {
        if ((level == 0 || line.level == level) && line.text.find(text) != std::string::npos)
            return {true, line.text};
    }
    return {false, "there is no such line"};
}

Condition parse_process(Cursor &cursor, const KnownNames &)
{
    const size_t column = cursor.column();
    const std::string what = cursor.word("running, stopped, exited, killed or starts");
    uint64_t number = 0;
    if (what == "exited")
        number = cursor.number("a status as a parent sees it, of 0..255", 255);
    else if (what == "killed")
        number = cursor.number("a signal of 1..64", 64);
    else if (what == "starts")
        number = cursor.number("a number");
    else if (what != "running" && what != "stopped")
        throw Refusal{column, "running, stopped, exited STATUS, killed SIGNAL or starts NUMBER"};
    return {[what, number](const Stage &stage) { return process_outcome(stage, what, number); }};
}

Outcome process_outcome(const Stage &stage, const std::string &what, uint64_t number)
{
    const bool running = process_is_running();
    if (what == "running" || what == "stopped")
        return {running == (what == "running"), running ? "it runs" : "it does not run"};
    if (what == "starts")
        return {stage.starts == number,
                "it was started " + std::to_string(stage.starts) + " times"};
    if (stage.ends.empty())
        return {false, "it has not ended"};
    const Ended &last = stage.ends.back();
    return {last.by_signal == (what == "killed") && static_cast<uint64_t>(last.status) == number,
            ended_text(last)};
}

Condition parse_shell(Cursor &cursor, const KnownNames &)
{
    const std::string text = cursor.text("text of the last debug command's output in quotes");
    return {[text](const Stage &stage) {
        if (!stage.shell_output)
            return Outcome{false, "no debug command was run", false};
        return Outcome{stage.shell_output->find(text) != std::string::npos,
                       "the output has no such text"};
    }};
}

Condition parse_calls(Cursor &cursor, const KnownNames &)
{
    const std::string name = function_parse(cursor);
    const uint64_t wanted = cursor.number("how many calls");
    return {[name, wanted](const Stage &) {
        const uint64_t found = calls_count(name);
        return Outcome{found == wanted, "there were " + std::to_string(found)};
    }};
}

Condition parse_faults(Cursor &cursor, const KnownNames &)
{
    const size_t column = cursor.column();
    if (!cursor.accept("met"))
        throw Refusal{column, "`met`"};
    return {[](const Stage &) {
        return Outcome{faults_are_spent(), "a planned fault has not been met"};
    }};
}

std::vector<std::string> words_of(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

bool has_word(const std::vector<std::string> &words, const std::string &word)
{
    return std::ranges::find(words, word) != words.end();
}

std::string ended_text(const Ended &ended)
{
    return (ended.by_signal ? "it was killed by signal " : "it exited with ") +
           std::to_string(ended.status);
}

} // namespace

} // namespace sim
