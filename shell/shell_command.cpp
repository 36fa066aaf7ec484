#include "shell/shell_command.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <sstream>
#include <string_view>
#include <utility>

#include "text/number.h"

namespace
{

bool is_word(const char *text)
{
    if (text == nullptr || *text == '\0')
        return false;
    const std::string_view word = text;
    return word.size() <= SHELL_NAME_MAX && word.find_first_of(" \t\r\n") == std::string_view::npos;
}

bool is_known_module(const shell_table &table, const char *module)
{
    return module != nullptr &&
           std::find(table.modules.begin(), table.modules.end(), module) != table.modules.end();
}

/* The names of the arguments: the word before each "=%d", "" where none stands. */
std::vector<std::string> argument_names(std::string_view help)
{
    std::vector<std::string> names;
    for (size_t at = help.find("%d"); at != std::string_view::npos; at = help.find("%d", at + 2)) {
        std::string_view before = help.substr(0, at);
        if (!before.empty() && before.back() == '=') {
            before.remove_suffix(1);
            names.emplace_back(before.substr(before.find_last_of(" \t") + 1));
        } else {
            names.emplace_back();
        }
    }
    return names;
}

std::vector<std::string> split(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

bool parse_int(std::string_view text, int *value)
{
    const bool is_negative = text.starts_with('-');
    text.remove_prefix(is_negative ? 1 : 0);
    const auto number = text::number_read(text);
    if (!number || *number > (is_negative ? uint64_t{INT_MAX} + 1 : INT_MAX))
        return false;
    const auto magnitude = static_cast<int64_t>(*number);
    *value = static_cast<int>(is_negative ? -magnitude : magnitude);
    return true;
}

std::string usage(const std::string &command, const std::vector<std::string> &names)
{
    if (names.empty())
        return "\"" + command + "\" takes no arguments.\n";
    std::string text = "\"" + command + "\" wants:";
    for (const std::string &name : names)
        text += " " + (name.empty() ? "" : name + "=") + "<number>";
    return text + ".\n";
}

/* Parses the words after the command's name; returns "" or why not. */
std::string parse_arguments(const shell_command &command, const std::vector<std::string> &words,
                            std::vector<int> *values)
{
    const std::vector<std::string> names = argument_names(command.help);
    if (words.size() - 1 != names.size())
        return usage(command.name, names);
    for (size_t i = 0; i < names.size(); i++) {
        std::string_view text = words[i + 1];
        if (!names[i].empty() && text.starts_with(names[i] + "="))
            text.remove_prefix(names[i].size() + 1);
        int value = 0;
        if (!parse_int(text, &value))
            return "\"" + words[i + 1] + "\" is not a number that fits; " +
                   usage(command.name, names);
        values->push_back(value);
    }
    return "";
}

shell_call refuse(int refusal, const std::string &sentence)
{
    shell_call call;
    call.refusal = refusal;
    call.sentence = sentence;
    return call;
}

} // namespace

int shell_add_module(shell_table *table, const char *module)
{
    if (!is_word(module))
        return -EINVAL;
    if (is_known_module(*table, module))
        return 0;
    if (table->modules.size() >= SHELL_MODULES_MAX)
        return -ENOSPC;
    table->modules.emplace_back(module);
    return 0;
}

int shell_add_command(shell_table *table, const char *module, const char *name, uint32_t flag,
                      const char *help, ssat_handler handler)
{
    const bool is_good = is_known_module(*table, module) && is_word(name) && flag == 0 &&
                         help != nullptr && handler != nullptr &&
                         argument_names(help).size() <= SHELL_ARGUMENTS_MAX;
    if (!is_good)
        return -EINVAL;
    for (shell_command &known : table->commands) {
        if (known.name == name) {
            known = {name, help, handler};
            return 0;
        }
    }
    if (table->commands.size() >= SHELL_COMMANDS_MAX)
        return -ENOSPC;
    table->commands.push_back({name, help, handler});
    return 0;
}

shell_call shell_parse(const shell_table &table, const std::string &command_line)
{
    const std::vector<std::string> words = split(command_line);
    if (words.empty())
        return refuse(-EINVAL, "No command was given.\n");
    const auto command =
        std::find_if(table.commands.begin(), table.commands.end(),
                     [&words](const shell_command &one) { return one.name == words[0]; });
    if (command == table.commands.end())
        return refuse(-ENOENT, "There is no command \"" + words[0] + "\".\n");
    shell_call call;
    const std::string mistake = parse_arguments(*command, words, &call.arguments);
    if (!mistake.empty())
        return refuse(-EINVAL, mistake);
    call.handler = command->handler;
    return call;
}

ShellCapture::ShellCapture(size_t limit) : limit_(limit), before_(stdout)
{
    std::fflush(stdout);
    stream_ = fopencookie(this, "w", {nullptr, write, nullptr, nullptr});
    if (stream_ != nullptr)
        stdout = stream_;
}

ShellCapture::~ShellCapture()
{
    stdout = before_;
    if (stream_ != nullptr)
        std::fclose(stream_);
}

std::string ShellCapture::text()
{
    if (stream_ != nullptr)
        std::fflush(stream_);
    return is_cut_ ? text_ + "\n... cut off here.\n" : text_;
}

ssize_t ShellCapture::write(void *self, const char *data, size_t length)
{
    auto *capture = static_cast<ShellCapture *>(self);
    const size_t taken = std::min(length, capture->limit_ - capture->text_.size());
    capture->is_cut_ |= taken < length;
    try {
        capture->text_.append(data, taken);
    } catch (const std::bad_alloc &) {
        capture->is_cut_ = true;
    }
    return static_cast<ssize_t>(length);
}
