/*
 * vvlanctl - the tool as a process: the platform library on this host, the
 * terminal, signals.
 */
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <editline/readline.h>
#include <event2/event.h>
#include <iostream>
#include <poll.h>
#include <unistd.h>

#include "ctl/ctl.h"
#include "ctl/ctl_shell.h"
#include "linux/linux_env.h"
#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "linux/linux_mom.h"

namespace
{

constexpr int64_t MICROS_PER_MILLI = 1000;
constexpr int64_t LONG_TIME = 3'600'000'000; /* microseconds; then the loop is entered again */
constexpr int SHELL_PATIENCE = 10'000;       /* milliseconds */
constexpr const char *HISTORY_FILE = "/.vvlanctl_history";
constexpr int HISTORY_MAX = 1000;

bool is_interrupted = false;
kt_global *context = nullptr;

/*
 * What the platform logged: it explains a connection that failed, and is a
 * note for the person otherwise.
 */
constexpr size_t NOTES_MAX = 16;
constexpr std::string_view NO_CONNECTION = "not connected: ";
std::vector<std::string> notes; /* but for the connections */
std::string trouble;            /* the latest with a connection */
int take_note(const linux_log_line &line);

/* The environment, after the options were put into it. */
const linux_env_settings &settings();
kt_global *open_context();
std::string server_text();
std::string trouble_text();
bool run_loop(const std::function<bool()> &done, int milliseconds);
long write_now(std::string_view text);
void converse(const std::vector<std::string> &words,
              const std::function<bool(const std::string &)> &take);

} // namespace

int main(int count, char **arguments)
{
    std::signal(SIGPIPE, SIG_IGN);
    ctl::Host host{std::cout,
                   std::cerr,
                   open_context,
                   server_text,
                   trouble_text,
                   [] { return linux_mom_refusal(context); },
                   run_loop,
                   write_now,
                   [](uint32_t db) { return linux_mom_look(context, db).dropped; },
                   [](const std::string &line) {
                       return ctl::shell_ask(settings().shell, line, SHELL_PATIENCE);
                   },
                   converse,
                   {}};
    linux_log_divert(take_note);
    const int status = ctl::ctl_main(count, arguments, host);
    for (const std::string &note : notes)
        std::cerr << "vvlanctl: note: " << note << '\n';
    return status;
}

namespace
{

const linux_env_settings &settings()
{
    static const linux_env_settings read = [] {
        linux_env_settings made;
        const std::string wrong = linux_env_parse(
            [](const char *name) -> const char * { return std::getenv(name); }, &made);
        if (!wrong.empty())
            throw ctl::Failure{ctl::USAGE, wrong};
        return made;
    }();
    return read;
}

kt_global *open_context()
{
    linux_env_use(settings());
    context = kt_global_init("vvlanctl", nullptr);
    if (context == nullptr)
        throw ctl::Failure{ctl::NO_REACH, "the database client cannot be started"};
    return context;
}

std::string server_text()
{
    const char *value = std::getenv(ctl::MOM_VARIABLE);
    if (value != nullptr && *value != '\0')
        return value;
    for (const linux_env_variable &variable : linux_env_table()) {
        if (std::strcmp(variable.name, ctl::MOM_VARIABLE) == 0)
            return variable.by_default;
    }
    return {};
}

int take_note(const linux_log_line &line)
{
    const size_t at = line.text.find(NO_CONNECTION);
    if (at != std::string_view::npos)
        trouble = line.text.substr(at + NO_CONNECTION.size());
    else if (line.level >= KTDF_ZLOG_LV_WARN && notes.size() < NOTES_MAX)
        notes.emplace_back(line.text);
    return 0;
}

/* Of "database 4: not connected: No such file or directory" the end. */
std::string trouble_text()
{
    return trouble;
}

/* A signal ends the waiting; what was asked for is then not done. */
bool run_loop(const std::function<bool()> &done, int milliseconds)
{
    const auto on_signal = [](evutil_socket_t, short, void *) { is_interrupted = true; };
    struct event *signals[] = {evsignal_new(linux_loop_base(), SIGINT, on_signal, nullptr),
                               evsignal_new(linux_loop_base(), SIGTERM, on_signal, nullptr)};
    for (struct event *signal : signals)
        event_add(signal, nullptr);
    const int64_t limit =
        milliseconds < 0 ? INT64_MAX : linux_loop_now() + milliseconds * MICROS_PER_MILLI;
    while (!is_interrupted && !done()) {
        const int64_t left = limit - linux_loop_now();
        if (left <= 0)
            break;
        linux_loop_run_until([&] { return is_interrupted || done(); }, std::min(left, LONG_TIME));
    }
    for (struct event *signal : signals)
        event_free(signal);
    return done();
}

/* A pipe that poll() calls writable takes PIPE_BUF bytes without waiting, a terminal about that. */
long write_now(std::string_view text)
{
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    if (::poll(&out, 1, 0) <= 0)
        return 0;
    if ((out.revents & (POLLERR | POLLNVAL)) != 0)
        return (out.revents & POLLERR) != 0 ? -EPIPE : -EBADF;
    const ssize_t count =
        ::write(STDOUT_FILENO, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
    if (count >= 0)
        return count;
    return errno == EAGAIN || errno == EINTR ? 0 : -errno;
}

/* The words, and how many of them have been looked at for the word that is being typed. */
const std::vector<std::string> *completions = nullptr;
size_t completions_seen = 0;

/* Called by the line editor with state 0, then 1 until it returns NULL. */
char *next_completion(const char *begun, int state)
{
    if (state == 0)
        completions_seen = 0;
    while (completions != nullptr && completions_seen < completions->size()) {
        const std::string &word = (*completions)[completions_seen++];
        if (word.starts_with(begun))
            return ::strdup(word.c_str());
    }
    return nullptr;
}

void converse_by_line(const std::function<bool(const std::string &)> &take)
{
    for (std::string line; std::getline(std::cin, line) && take(line);)
        continue;
}

void converse(const std::vector<std::string> &words,
              const std::function<bool(const std::string &)> &take)
{
    if (::isatty(STDIN_FILENO) == 0)
        return converse_by_line(take);
    const char *home = std::getenv("HOME");
    const std::string history = home == nullptr ? "" : std::string(home) + HISTORY_FILE;
    completions = &words;
    rl_initialize();
    rl_completion_entry_function = next_completion;
    stifle_history(HISTORY_MAX);
    if (!history.empty())
        read_history(history.c_str());
    for (bool goes_on = true; goes_on;) {
        char *typed = ::readline("vvlan> ");
        if (typed == nullptr)
            break;
        if (*typed != '\0')
            add_history(typed);
        goes_on = take(typed);
        std::free(typed);
    }
    if (!history.empty())
        write_history(history.c_str());
    completions = nullptr;
}

} // namespace
