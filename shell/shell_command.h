/*
 * shell_command - the commands behind the debug shell (platform/ssat.h).
 *
 * A command line is the command's name and one word for each `%d` of its help
 * text: a number, or the name that stands before the `%d` and a number
 * ("set-zlog-level 3", "set-zlog-level level=3"). Numbers are decimal or 0x
 * hexadecimal and must fit an int.
 *
 * The table is a plain value: a platform keeps one and puts its way of reading
 * lines and calling handlers around it. While a handler runs, the platform
 * lets a ShellCapture stand, so that everything printed to the C library's
 * standard output becomes the command's output.
 *
 * Limits: 64 commands, 16 modules, 8 arguments, 63 characters to a name.
 */
#ifndef SHELL_SHELL_COMMAND_H
#define SHELL_SHELL_COMMAND_H

#include <cstdio>
#include <string>
#include <vector>

#include "platform/ssat.h"

constexpr size_t SHELL_COMMANDS_MAX = 64;
constexpr size_t SHELL_MODULES_MAX = 16;
constexpr size_t SHELL_ARGUMENTS_MAX = 8;
constexpr size_t SHELL_NAME_MAX = 63;

struct shell_command {
    std::string name;
    const char *help; /* outlives the table */
    ssat_handler handler;
};

struct shell_table {
    std::vector<std::string> modules;
    std::vector<shell_command> commands; /* in the order of registration */
};

/* ssat_lib_init() of a table: -EINVAL for a name that is no word, -ENOSPC, or 0. */
int shell_add_module(shell_table *table, const char *module);

/* ssat_reg_mod_cmd() of a table: a known name is replaced; 0, -EINVAL or -ENOSPC. */
int shell_add_command(shell_table *table, const char *module, const char *name, uint32_t flag,
                      const char *help, ssat_handler handler);

/* A command line, taken apart. */
struct shell_call {
    ssat_handler handler = nullptr; /* NULL: refused */
    std::vector<int> arguments;
    int refusal = 0;      /* -ENOENT: no such command, -EINVAL: its arguments */
    std::string sentence; /* why it was refused, with a line end */
};

/* Takes a command line apart: what to call and with what, or why that is refused. */
shell_call shell_parse(const shell_table &table, const std::string &command_line);

/*
 * Collects, while it lives, what is printed to standard output; at most
 * `limit` bytes of it, the rest is dropped and the text ends with a line that
 * says so. May be nested. Without memory the output goes where it went before.
 */
class ShellCapture
{
public:
    explicit ShellCapture(size_t limit);
    ~ShellCapture();
    ShellCapture(const ShellCapture &) = delete;
    ShellCapture &operator=(const ShellCapture &) = delete;

    /* What was printed so far. */
    std::string text();

private:
    static ssize_t write(void *self, const char *data, size_t length);

    size_t limit_;
    bool is_cut_ = false;
    std::string text_;
    std::FILE *before_;
    std::FILE *stream_;
};

#endif
