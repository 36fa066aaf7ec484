/*
 * ctl_shell - the client's side of the daemon's debug shell
 * (linux/linux_shell.h tells of the server's).
 *
 * A request is a line; the answer is what the command printed, then
 * "\0status N\n".
 */
#ifndef CTL_CTL_SHELL_H
#define CTL_CTL_SHELL_H

#include <string>
#include <string_view>
#include <vector>

#include "ctl/ctl.h"

namespace ctl
{

/*
 * Whether the bytes received so far are a whole answer; then *answer is filled. Throws
 * Failure (NO_REACH) where the status is no number: it is not the daemon that answers.
 */
bool shell_answer_parse(std::string_view received, ShellAnswer *answer);

/*
 * Sends one line to the Unix socket `path` and waits for the answer, at most
 * `milliseconds` for each step: to connect, to send, from byte to byte. Throws Failure.
 */
ShellAnswer shell_ask(const std::string &path, const std::string &line, int milliseconds);

/* The command names in the output of the shell's `help`, a command a line. */
std::vector<std::string> shell_commands(std::string_view help);

} // namespace ctl

#endif
