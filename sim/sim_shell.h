/*
 * sim_shell - the debug shell in front of the commands that a program registered.
 *
 * Command lines and limits are those of shell/shell_command.h. The commands of a
 * process go with it.
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
