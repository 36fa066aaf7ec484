#include "sim/sim_shell.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <sstream>
#include <string_view>
#include <utility>

#include "platform/ssat.h"
#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_host.h"
#include "sim/sim_process.h"

namespace sim
{

namespace
{

constexpr size_t COMMANDS_MAX = 64;
constexpr size_t MODULES_MAX = 16;
constexpr size_t ARGUMENTS_MAX = 8;
constexpr size_t NAME_MAX_LENGTH = 63;

struct Command {
    std::string name;
    const char *help;
    ssat_handler handler;
    uint64_t life;
};

struct Module {
    std::string name;
    uint64_t life;
};

struct Shell {
    std::vector<Module> modules;
    std::vector<Command> commands;
};

Shell shell;

bool is_word(const char *text)
{
    if (text == nullptr || *text == '\0')
        return false;
    const std::string_view word = text;
    return word.size() <= NAME_MAX_LENGTH &&
           word.find_first_of(" \t\r\n") == std::string_view::npos;
}

bool is_known_module(const std::string &name)
{
    return std::any_of(shell.modules.begin(), shell.modules.end(), [&name](const Module &module) {
        return module.name == name && module.life == process_life();
    });
}

Command *find_command(const std::string &name)
{
    const auto at =
        std::find_if(shell.commands.begin(), shell.commands.end(), [&name](const Command &command) {
            return command.name == name && command.life == process_life();
        });
    return at == shell.commands.end() ? nullptr : &*at;
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
    const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
    text.remove_prefix(is_hex ? 2 : 0);
    unsigned long number = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, is_hex ? 16 : 10);
    const unsigned long limit = is_negative ? -static_cast<unsigned long>(INT_MIN) : INT_MAX;
    if (error != std::errc() || end != text.data() + text.size() || number > limit)
        return false;
    *value = static_cast<int>(is_negative ? -static_cast<long>(number) : static_cast<long>(number));
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
std::string parse_arguments(const Command &command, const std::vector<std::string> &words,
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

bool refuse(const std::string &sentence, std::string *output)
{
    *output = sentence;
    return false;
}

} // namespace

bool shell_run(const std::string &command_line, std::string *output, int *status)
{
    const std::vector<std::string> words = split(command_line);
    if (words.empty())
        return refuse("No command was given.\n", output);
    const Command *command = find_command(words[0]);
    if (command == nullptr)
        return refuse("There is no command \"" + words[0] + "\".\n", output);
    std::vector<int> values;
    const std::string mistake = parse_arguments(*command, words, &values);
    if (!mistake.empty())
        return refuse(mistake, output);
    const ssat_handler handler = command->handler; /* the table may change meanwhile */
    int result = 0;
    OutputCapture capture;
    process_call([&] { result = handler(values.data(), static_cast<int>(values.size())); });
    *output = capture.text();
    if (status != nullptr)
        *status = result;
    return true;
}

std::vector<ShellCommand> shell_commands()
{
    std::vector<ShellCommand> result;
    for (const Command &command : shell.commands) {
        if (command.life == process_life())
            result.push_back({command.name, command.help});
    }
    return result;
}

void shell_process_ended(uint64_t life)
{
    std::erase_if(shell.commands, [life](const Command &one) { return one.life == life; });
    std::erase_if(shell.modules, [life](const Module &one) { return one.life == life; });
}

void shell_reset()
{
    shell = {};
}

} // namespace sim

int ssat_lib_init(kt_global *global, const char *module)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter(
        "ssat_lib_init", [&] { return std::string("module=") + sim::text_or_null(module); });
    if (fault != 0)
        return fault;
    if (!sim::is_word(module))
        return -EINVAL;
    if (!sim::global_is_open(global))
        return -ENOTCONN;
    if (sim::is_known_module(module))
        return 0;
    if (sim::shell.modules.size() >= sim::MODULES_MAX)
        return -ENOSPC;
    sim::shell.modules.push_back({module, sim::process_life()});
    return 0;
}

int ssat_reg_mod_cmd(const char *module, const char *name, uint32_t flag, const char *help,
                     ssat_handler handler)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter("ssat_reg_mod_cmd", [&] {
        return std::string("module=") + sim::text_or_null(module) +
               " name=" + sim::text_or_null(name) + " flag=" + std::to_string(flag) + " help=\"" +
               sim::text_or_null(help) + "\"";
    });
    if (fault != 0)
        return fault;
    const bool is_good = module != nullptr && sim::is_known_module(module) && sim::is_word(name) &&
                         flag == 0 && help != nullptr && handler != nullptr &&
                         sim::argument_names(help).size() <= sim::ARGUMENTS_MAX;
    if (!is_good)
        return -EINVAL;
    const sim::Command command = {name, help, handler, sim::process_life()};
    if (sim::Command *known = sim::find_command(name)) {
        *known = command;
        return 0;
    }
    if (sim::shell.commands.size() >= sim::COMMANDS_MAX)
        return -ENOSPC;
    sim::shell.commands.push_back(command);
    return 0;
}
