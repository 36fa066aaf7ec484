/*
 * linux_shell - the debug shell (platform/ssat.h) of a process on a Linux host.
 *
 * A server on a Unix stream socket (VVLAN_SHELL, mode 0660). One line is one
 * request, and each request gets one answer, in order:
 *
 *     request    command and arguments, separated by blanks, then "\n"
 *     answer     what the command printed (no NUL byte in it), then
 *                "\0status N\n", where N is what the handler returned
 *
 * A request that reaches no handler is answered with one sentence that says
 * why and status -2 (no such command) or -22 (wrong arguments, line too long).
 * An empty line is answered with nothing but status 0. Several requests may be
 * sent at once; closing the sending side after them is fine.
 *
 * Command lines and the table of commands are those of shell/shell_command.h.
 * Besides what the daemon registers there are `help`, one command a line, and
 * `fp_tables`, the tables of the fast path.
 *
 * Who may connect: root, the user that the daemon runs as, and members of the
 * group that owns the socket (the daemon's). The kernel says who the peer is;
 * others get one sentence with status -1 and are cut off, even where the
 * socket's directory would let them in.
 *
 * A client cannot stop the daemon. Nothing here blocks. A client's requests are
 * read only while its earlier answers have been taken, so it owes at most one
 * answer, of at most 16 MiB (the rest is cut off, with a line that says so); one
 * that takes nothing for 30 seconds is cut off. A request has at most 1,023
 * bytes. 16 clients are served; when one more comes, the one that has been
 * silent longest is cut off. Commands run one at a time, from the loop.
 */
#ifndef LINUX_LINUX_SHELL_H
#define LINUX_LINUX_SHELL_H

#include <cstddef>

constexpr size_t LINUX_SHELL_CLIENTS_MAX = 16;
constexpr size_t LINUX_SHELL_REQUEST_MAX = 1'023;
constexpr size_t LINUX_SHELL_ANSWER_MAX = 16u << 20;

/* How many clients are connected. */
size_t linux_shell_clients();

/* For tests: closes the server and forgets every command. */
void linux_shell_reset();

#endif
