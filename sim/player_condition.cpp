#include "sim/player_condition.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <vector>

#include "object/object.h"
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
    Condition (*parse)(Cursor &, const FrameNames &);
};

/* A word that must, or must not, be among others. */
struct WantedWord {
    std::string word;
    bool wanted;
};

Condition parse_object(Cursor &cursor, const FrameNames &frames);
Condition parse_count(Cursor &cursor, const FrameNames &frames);
Condition parse_port(Cursor &cursor, const FrameNames &frames);
Condition parse_switch(Cursor &cursor, const FrameNames &frames);
Condition parse_out(Cursor &cursor, const FrameNames &frames);
Condition parse_probe(Cursor &cursor, const FrameNames &frames);
Condition parse_log(Cursor &cursor, const FrameNames &frames);
Condition parse_process(Cursor &cursor, const FrameNames &frames);
Condition parse_shell(Cursor &cursor, const FrameNames &frames);
Condition parse_calls(Cursor &cursor, const FrameNames &frames);
Condition parse_faults(Cursor &cursor, const FrameNames &frames);

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
std::vector<std::string> port_row(uint32_t ifx);
Outcome process_outcome(const Stage &stage, const std::string &what, int64_t number);
Outcome log_outcome(const Stage &stage, int level, const std::string &text);
std::vector<std::string> words_of(const std::string &text);
bool has_word(const std::vector<std::string> &words, const std::string &word);
std::string ended_text(const Ended &ended);

} // namespace

Condition condition_parse(Cursor &cursor, const FrameNames &frames)
{
    if (cursor.accept("no")) {
        Condition inner = condition_parse(cursor, frames);
        return [inner](const Stage &stage) {
            const Outcome outcome = inner(stage);
            return Outcome{!outcome.holds, outcome.found};
        };
    }
    const size_t column = cursor.column();
    const std::string name = cursor.word("what to expect, such as `port` or `out`");
    for (const ConditionKind &kind : KINDS) {
        if (name == kind.name)
            return kind.parse(cursor, frames);
    }
    throw Refusal{column, "one of: no object count port switch out probe log process shell calls "
                          "faults"};
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

Condition parse_object(Cursor &cursor, const FrameNames &)
{
    const ObjectText wanted = object_parse(cursor);
    return [wanted](const Stage &) {
        const object::Message stored = mom_get(wanted.db, *wanted.message);
        if (stored == nullptr)
            return Outcome{false, "there is no such object"};
        return Outcome{object_has(*stored, wanted), object::to_text(*stored)};
    };
}

Condition parse_count(Cursor &cursor, const FrameNames &)
{
    const ObjectKind asked = object_kind_parse(cursor);
    const uint64_t wanted = cursor.number("how many");
    return [asked, wanted](const Stage &) {
        uint64_t found = 0;
        mom_each(asked.db, [&](const object::Kind &each, const ProtobufCMessage &,
                               const MomMeta &) { found += &each == asked.kind; });
        return Outcome{found == wanted, "there are " + std::to_string(found)};
    };
}

Condition parse_port(Cursor &cursor, const FrameNames &)
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
        if (std::ranges::find(KNOWN, wanted.back()) == std::end(KNOWN))
            throw Refusal{column,
                          "a word of the port's row: AUTO MANUAL ENABLE DISABLE TRAP !TRAP "
                          "SECU !SECU AGING !AGING JOINED UNJOIN no_flw=SECONDS, or absent"};
    } while (!cursor.at_end());
    return [ifx, wanted](const Stage &) { return port_outcome(ifx, wanted); };
}

Outcome port_outcome(uint32_t ifx, const std::vector<std::string> &wanted)
{
    const std::vector<std::string> row = port_row(ifx);
    std::string found;
    for (const std::string &word : row)
        found += (found.empty() ? "" : " ") + word;
    if (row.empty())
        return {wanted == std::vector<std::string>{"absent"}, "the port has no record"};
    for (const std::string &word : wanted) {
        if (!has_word(row, word))
            return {false, found};
    }
    return {true, found};
}

/* The words after the ifx of the port's row in the dump; empty when it has none. */
std::vector<std::string> port_row(uint32_t ifx)
{
    std::string output;
    int status = 0;
    if (!shell_run("dump_all_port", &output, &status))
        return {};
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        unsigned row_ifx = 0;
        int length = 0;
        if (std::sscanf(line.c_str(), " ifx:%u%n", &row_ifx, &length) == 1 && row_ifx == ifx)
            return words_of(line.substr(static_cast<size_t>(length)));
    }
    return {};
}

Condition parse_switch(Cursor &cursor, const FrameNames &)
{
    const uint32_t ifx = static_cast<uint32_t>(cursor.number("a port's ifx"));
    std::vector<WantedWord> wanted;
    do {
        const bool negated = cursor.accept("not");
        wanted.push_back({cursor.word("words such as trapped or member=100"), !negated});
    } while (!cursor.at_end());
    return [ifx, wanted](const Stage &) {
        const std::string text = switch_port_text(ifx);
        const std::vector<std::string> words = words_of(text);
        const bool holds = std::ranges::all_of(wanted, [&words](const WantedWord &each) {
            return has_word(words, each.word) == each.wanted;
        });
        return Outcome{holds, text.empty() ? "the port is plain" : text};
    };
}

Condition parse_out(Cursor &cursor, const FrameNames &)
{
    const VerdictWords wanted = verdict_parse(cursor);
    return [wanted](const Stage &stage) {
        if (!stage.verdict)
            return Outcome{false, "no frame has come in"};
        return Outcome{verdict_matches(wanted, *stage.verdict), verdict_text(*stage.verdict)};
    };
}

Condition parse_probe(Cursor &cursor, const FrameNames &frames)
{
    const uint32_t ifx = static_cast<uint32_t>(cursor.number("a port's ifx"));
    const frame::Bytes bytes = frame::encode(frame_parse(cursor, frames));
    const size_t column = cursor.column();
    if (!cursor.accept("->"))
        throw Refusal{column, "a field of a frame, or `->` and what leaves the switch"};
    const VerdictWords wanted = verdict_parse(cursor);
    return [ifx, bytes, wanted](const Stage &) {
        const Verdict verdict = switch_peek(ifx, bytes);
        return Outcome{verdict_matches(wanted, verdict), verdict_text(verdict)};
    };
}

Condition parse_log(Cursor &cursor, const FrameNames &)
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
    return [level, text](const Stage &stage) { return log_outcome(stage, level, text); };
}

Outcome log_outcome(const Stage &stage, int level, const std::string &text)
{
    const auto &lines = log_lines();
    for (size_t at = std::min(stage.log_from, lines.size()); at < lines.size(); at++) {
        const LogLine &line = lines[at];
        if ((level == 0 || line.level == level) && line.text.find(text) != std::string::npos)
            return {true, line.text};
    }
    return {false, "there is no such line"};
}

Condition parse_process(Cursor &cursor, const FrameNames &)
{
    const size_t column = cursor.column();
    const std::string what = cursor.word("running, stopped, exited, killed or starts");
    int64_t number = 0;
    if (what == "exited" || what == "killed" || what == "starts")
        number = cursor.signed_number("a number");
    else if (what != "running" && what != "stopped")
        throw Refusal{column, "running, stopped, exited STATUS, killed SIGNAL or starts NUMBER"};
    return [what, number](const Stage &stage) { return process_outcome(stage, what, number); };
}

Outcome process_outcome(const Stage &stage, const std::string &what, int64_t number)
{
    const bool running = process_is_running();
    if (what == "running" || what == "stopped")
        return {running == (what == "running"), running ? "it runs" : "it does not run"};
    if (what == "starts")
        return {stage.starts == static_cast<uint64_t>(number),
                "it was started " + std::to_string(stage.starts) + " times"};
    if (stage.ends.empty())
        return {false, "it has not ended"};
    const Ended &last = stage.ends.back();
    return {last.by_signal == (what == "killed") && last.status == number, ended_text(last)};
}

Condition parse_shell(Cursor &cursor, const FrameNames &)
{
    const std::string text = cursor.text("text of the last debug command's output in quotes");
    return [text](const Stage &stage) {
        return Outcome{stage.shell_output.find(text) != std::string::npos,
                       "the output has no such text"};
    };
}

Condition parse_calls(Cursor &cursor, const FrameNames &)
{
    const std::string name = cursor.word("the name of a platform function");
    const uint64_t wanted = cursor.number("how many calls");
    return [name, wanted](const Stage &) {
        const uint64_t found = calls_count(name);
        return Outcome{found == wanted, "there were " + std::to_string(found)};
    };
}

Condition parse_faults(Cursor &cursor, const FrameNames &)
{
    const size_t column = cursor.column();
    if (!cursor.accept("met"))
        throw Refusal{column, "`met`"};
    return [](const Stage &) {
        return Outcome{faults_are_spent(), "a planned fault has not been met"};
    };
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
