/*
 * ctl - vvlanctl, the command-line tool for people, as a library.
 *
 * The tool is a client of the object database like any other
 * (platform/kt_mom.h, mom/kt_mom_peer.h) and of the daemon's debug shell. It
 * holds no state between calls and knows nothing of the daemon's inside: what
 * it shows as joined or trapped are the records in the databases.
 *
 * Everything that a program on a host has and a test has not is a Host: the
 * context of the database client, the event loop, the debug shell's socket,
 * the output that must never block. The executable fills it in with the
 * platform library, a test with the in-memory database.
 *
 * Every failure is one line on `err` that begins with "vvlanctl: ".
 */
#ifndef CTL_CTL_H
#define CTL_CTL_H

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kt_global.h"

namespace CLI
{
class App;
}

namespace ctl
{

/* Exit statuses; they do not change. */
enum Exit : int {
    DONE = 0,
    REFUSED = 1, /* understood, but it cannot work or did not */
    USAGE = 2,   /* the command line cannot be read */
    NO_REACH = 3 /* the database or the daemon cannot be reached */
};

/* Ends a command: thrown anywhere below ctl_main(), which prints the text. */
struct Failure {
    Exit status;
    std::string text; /* one line, without the program's name; empty: it was said already */
};

/* What the debug shell said to one command line. */
struct ShellAnswer {
    std::string output; /* what the command printed */
    int status;         /* the handler's result; 0 is done */
};

struct Host {
    std::ostream &out;
    std::ostream &err;

    /* The context of the database client, made at the first call; throws Failure. */
    std::function<kt_global *()> open;

    /* Where the database is, for people. */
    std::function<std::string()> server;

    /* Why the last connection could not be made, as far as the platform knows; or empty. */
    std::function<std::string()> trouble;

    /* What the server said when it refused a request of a connection that worked; or empty. */
    std::function<std::string()> refusal;

    /*
     * Runs the event loop until done() holds, asked after every callback, or
     * `milliseconds` have passed (negative: no limit), or the person
     * interrupts. Returns what done() said last.
     */
    std::function<bool(const std::function<bool()> &done, int milliseconds)> run;

    /*
     * Writes as much of the text to the output as can be written without
     * waiting. Returns how many bytes that was, -EPIPE when nobody reads any
     * more, or another negative errno value when it cannot be written.
     */
    std::function<long(std::string_view text)> write_now;

    /* How many changes of a database its client has dropped, since this tool fell behind. */
    std::function<uint64_t(uint32_t db)> missed;

    /* Runs one line in the daemon's debug shell; throws Failure (NO_REACH). */
    std::function<ShellAnswer(const std::string &line)> shell;

    /*
     * Reads lines from the person, with history and completion among `words`,
     * and hands each to `take` until that returns false or the input ends.
     * An empty function: no interactive use.
     */
    std::function<void(const std::vector<std::string> &words,
                       const std::function<bool(const std::string &line)> &take)>
        converse;

    /*
     * What callbacks that cannot be taken back still point at; it lives as
     * long as the host.
     */
    std::vector<std::shared_ptr<void>> kept;
};

/* Where the options --mom and --shell go. */
inline constexpr const char *MOM_VARIABLE = "VVLAN_MOM";
inline constexpr const char *SHELL_VARIABLE = "VVLAN_SHELL";

/*
 * Runs one command line; arguments[0] is the program's name. Sets the two
 * variables above when the options are given. Returns an Exit.
 */
int ctl_main(int count, const char *const *arguments, Host &host);

/* What each exit status means: "done". */
struct ExitMeaning {
    Exit status;
    const char *meaning;
};
std::span<const ExitMeaning> ctl_exits();

/* Hands the command line, as CLI11 describes it, to whoever documents it. */
void ctl_visit(const std::function<void(const CLI::App &app)> &visit);

} // namespace ctl

#endif
