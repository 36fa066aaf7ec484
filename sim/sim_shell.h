/*
 * sim_shell - the debug shell in front of the commands that a program registered.
 *
 * A command line is the command's name and one word for each `%d` of its help
 * text: a number, or the name that stands before the `%d` and a number
 * ("set-zlog-level 3", "set-zlog-level level=3"). Numbers are decimal or 0x
 * hexadecimal and must fit an int. While the handler runs, the C library's
 * standard output is a buffer, so that everything it prints becomes the
 * command's output.
 *
 * The table holds 64 commands; a 65th is refused with -ENOSPC. The commands of
 * a process go with it. A command may have at most 8 arguments.
 */
#ifndef SIM_SIM_SHELL_H
#define SIM_SIM_SHELL_H

#include <cstdint>
#include <string>
#include <vector>

namespace sim
{

/*
 * Runs one command line in the process. output (not NULL) gets what the handler
 * printed, status (may be NULL) what it returned. Returns whether a handler was
 * called; if not, output holds one sentence that says why.
 */
bool shell_run(const std::string &command_line, std::string *output, int *status);

struct ShellCommand {
    std::string name;
    std::string help;
};

/* The commands that can be run now, in the order of registration. */
std::vector<ShellCommand> shell_commands();

/* Takes the commands of a life that has ended out of the table. */
void shell_process_ended(uint64_t life);

void shell_reset();

} // namespace sim

#endif
