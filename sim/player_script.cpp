#include "sim/player_script.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "sim/player_command.h"
#include "sim/player_text.h"

namespace sim
{

namespace
{

constexpr size_t MOST_BYTES = size_t{1} << 20;
constexpr size_t MOST_STEPS = 65536;
constexpr uint64_t MOST_TURNS = 4096;

struct SourceLine {
    size_t number;
    std::string text;
};

/* A `for` that is open: its lines are kept until `done`. */
struct Loop {
    std::string variable;
    uint64_t first;
    uint64_t last;
    size_t line;
    std::vector<SourceLine> body;
};

/* A line in which values stand for variables, and where its parts come from. */
struct Substituted {
    struct Part {
        size_t at;     /* in the text */
        size_t source; /* in the line as written */
        bool is_value; /* all of it stands for the one `${` */
    };
    std::string text;
    std::vector<Part> parts;

    size_t source_column(size_t column) const;
};

class Reader
{
public:
    explicit Reader(const std::string &file) : script_{file, {}}
    {
        context_.directory = std::filesystem::path(file).parent_path().string();
    }
    Script read(std::string_view text);
    size_t line() const
    {
        return line_;
    }

private:
    void take(const SourceLine &source);
    void open_loop(Cursor &cursor);
    void close_loop(Cursor &cursor);
    void add_turn(const SourceLine &source, const std::string &variable, uint64_t value);
    void add_step(const SourceLine &source);
    Micros read_time(Cursor &cursor);

    Script script_;
    CommandContext context_;
    std::optional<Loop> loop_;
    Micros when_ = 0;
    size_t line_ = 0;
};

std::string without_comment(std::string_view line);
Substituted with_variable(const std::string &text, const std::string &name, uint64_t value);
std::string variable_text(std::string_view inside, std::string_view name, uint64_t value,
                          size_t column);

} // namespace

std::string script_error_text(const std::string &file, const ScriptError &error)
{
    if (error.line == 0)
        return file + ": " + error.expected;
    return file + ":" + std::to_string(error.line) + ":" + std::to_string(error.column) +
           ": expected " + error.expected;
}

std::optional<Script> script_parse(const std::string &file, std::string_view text,
                                   ScriptError *error)
{
    Reader reader(file);
    try {
        return reader.read(text);
    } catch (const Refusal &refusal) {
        *error = {reader.line(), refusal.column, refusal.expected};
        return std::nullopt;
    }
}

std::optional<Script> script_load(const std::string &file, ScriptError *error)
{
    std::error_code failure;
    if (std::filesystem::is_directory(file, failure)) {
        *error = {0, 0, "is a directory, not a scenario"};
        return std::nullopt;
    }
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    std::string text(MOST_BYTES + 1, '\0'); /* no more is read, however long the file is */
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!stream.eof() && !stream.good()) {
        *error = {0, 0, std::string("cannot be read: ") + std::strerror(errno == 0 ? EIO : errno)};
        return std::nullopt;
    }
    text.resize(static_cast<size_t>(stream.gcount()));
    if (text.size() > MOST_BYTES) {
        *error = {0, 0, "is longer than 1 MiB, which no scenario is"};
        return std::nullopt;
    }
    return script_parse(file, text, error);
}

namespace
{

Script Reader::read(std::string_view text)
{
    while (!text.empty()) {
        const size_t length = text.find('\n');
        line_++;
        take({line_, without_comment(text.substr(0, length))});
        text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    }
    if (loop_) {
        line_ = loop_->line;
        throw Refusal{1, "`done` after this `for`"};
    }
    return std::move(script_);
}

void Reader::take(const SourceLine &source)
{
    Cursor cursor(source.text);
    if (cursor.at_end())
        return;
    if (cursor.accept("for"))
        open_loop(cursor);
    else if (cursor.accept("done"))
        close_loop(cursor);
    else if (loop_)
        loop_->body.push_back(source);
    else
        add_step(source);
}

void Reader::open_loop(Cursor &cursor)
{
    constexpr const char *RANGE = "a range such as 1..48 (at most 4096 turns)";
    if (loop_)
        throw Refusal{1, "`done` before the next `for` (loops do not nest)"};
    const std::string variable = cursor.word("the name of the loop's variable");
    const size_t column = cursor.column();
    const std::string range = cursor.word(RANGE);
    const size_t dots = range.find("..");
    if (dots == std::string::npos)
        throw Refusal{column, RANGE};
    const uint64_t first =
        text_number(std::string_view(range).substr(0, dots), column, RANGE, UINT32_MAX);
    const uint64_t last =
        text_number(std::string_view(range).substr(dots + 2), column + dots + 2, RANGE, UINT32_MAX);
    if (last < first || last - first >= MOST_TURNS)
        throw Refusal{column, RANGE};
    cursor.end();
    loop_ = Loop{variable, first, last, line_, {}};
}

void Reader::close_loop(Cursor &cursor)
{
    if (!loop_)
        throw Refusal{1, "`for` before this `done`"};
    cursor.end();
    const size_t line = line_;
    const Loop loop = std::move(*loop_);
    loop_.reset();
    for (uint64_t turn = loop.first; turn <= loop.last; turn++) {
        for (const SourceLine &source : loop.body) {
            line_ = source.number;
            add_turn(source, loop.variable, turn);
        }
    }
    line_ = line;
}

/* A line with the loop's value in it; a refusal names the column in the file. */
void Reader::add_turn(const SourceLine &source, const std::string &variable, uint64_t value)
{
    const Substituted turn = with_variable(source.text, variable, value);
    try {
        add_step({source.number, turn.text});
    } catch (const Refusal &refusal) {
        throw Refusal{turn.source_column(refusal.column), refusal.expected};
    }
}

void Reader::add_step(const SourceLine &source)
{
    if (script_.steps.size() == MOST_STEPS)
        throw Refusal{1, "an end: a scenario has at most 65536 steps"};
    Cursor cursor(source.text);
    when_ = read_time(cursor);
    if (cursor.at_end()) {
        script_.steps.push_back({source.number, when_, "", [](Stage &) {}});
        return;
    }
    if (cursor.peek() == "for" || cursor.peek() == "done")
        throw Refusal{cursor.column(), "a command; `for` and `done` stand without a time"};
    const std::string text = source.text.substr(cursor.column() - 1);
    auto run = command_parse(cursor, context_);
    cursor.end();
    script_.steps.push_back({source.number, when_, text, std::move(run)});
}

Micros Reader::read_time(Cursor &cursor)
{
    constexpr const char *TIME = "a time stamp such as 5s, +250ms or 1m30s";
    const std::string_view next = cursor.peek();
    const bool relative = next.starts_with('+');
    if (!relative && (next.empty() || next[0] < '0' || next[0] > '9'))
        return when_;
    const size_t column = cursor.column();
    const Micros given = text_duration(next.substr(relative), column, TIME);
    cursor.word(TIME);
    if (!relative && given < when_)
        throw Refusal{column, "a time stamp that is not before the previous line's"};
    return relative ? when_ + given : given;
}

/* A # begins a comment at the start of a word outside quotes. */
std::string without_comment(std::string_view line)
{
    bool quoted = false;
    for (size_t at = 0; at < line.size(); at++) {
        if (quoted && line[at] == '\\')
            at++;
        else if (line[at] == '"')
            quoted = !quoted;
        else if (line[at] == '#' && !quoted &&
                 (at == 0 || line[at - 1] == ' ' || line[at - 1] == '\t'))
            return std::string(line.substr(0, at));
    }
    return std::string(line);
}

/* Puts the variable's value in: ${n}, ${n+100}, ${n:x} (two hexadecimal digits). */
Substituted with_variable(const std::string &text, const std::string &name, uint64_t value)
{
    Substituted result;
    const auto add = [&result](std::string_view part, size_t source, bool is_value) {
        result.parts.push_back({result.text.size(), source, is_value});
        result.text += part;
    };
    size_t from = 0;
    for (size_t at; (at = text.find("${", from)) != std::string::npos;) {
        const size_t end = text.find('}', at);
        if (end == std::string::npos)
            throw Refusal{at + 1, "`}` after `${`"};
        const std::string_view inside = std::string_view(text).substr(at + 2, end - at - 2);
        add(std::string_view(text).substr(from, at - from), from, false);
        add(variable_text(inside, name, value, at + 3), at, true);
        from = end + 1;
    }
    add(std::string_view(text).substr(from), from, false);
    return result;
}

size_t Substituted::source_column(size_t column) const
{
    const size_t at = column - 1;
    const auto after = std::ranges::upper_bound(parts, at, {}, &Part::at);
    const Part &part = *std::prev(after); /* the first part is at 0 */
    return 1 + part.source + (part.is_value ? 0 : at - part.at);
}

std::string variable_text(std::string_view inside, std::string_view name, uint64_t value,
                          size_t column)
{
    if (!inside.starts_with(name))
        throw Refusal{column, "the loop's variable `" + std::string(name) + "`"};
    const std::string_view how = inside.substr(name.size());
    if (how.starts_with('+'))
        return std::to_string(
            value + text_number(how.substr(1), column + name.size() + 1, "a number", UINT32_MAX));
    if (how == ":x") {
        char digits[17];
        std::snprintf(digits, sizeof digits, "%02llx", static_cast<unsigned long long>(value));
        return digits;
    }
    if (!how.empty())
        throw Refusal{column + name.size(), "`}`, `+NUMBER` or `:x`"};
    return std::to_string(value);
}

} // namespace

} // namespace sim
