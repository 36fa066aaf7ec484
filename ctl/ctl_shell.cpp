#include "ctl/ctl_shell.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "ctl/ctl_command.h"
#include "ctl/ctl_json.h"

namespace ctl
{

namespace
{

constexpr size_t ANSWER_MAX = 64u << 20; /* several times what the daemon sends at most */

class Socket
{
public:
    /* `milliseconds` also for send(). */
    Socket(const std::string &path, int milliseconds);
    ~Socket()
    {
        ::close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    void send(std::string_view text) const;
    /* Appends what comes next; throws at the end of the stream and when nothing comes. */
    void receive(std::string *text, int milliseconds) const;

private:
    int fd_;
};

[[noreturn]] void no_reach(const std::string &why);
void converse(const Context &context);
/* One command, its output printed. Returns its status. */
int run_line(const Context &context, const std::string &line);

} // namespace

void shell(const Context &context, const Strings &words)
{
    if (words.empty())
        return converse(context);
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + word;
    if (const int status = run_line(context, line); status != 0)
        throw Failure{REFUSED, "\"" + line + "\" ended with status " + std::to_string(status)};
}

/* The output holds no NUL, so the first one begins the end. */
bool shell_answer_parse(std::string_view received, ShellAnswer *answer)
{
    constexpr std::string_view MARK("\0status ", 8);
    const size_t at = received.find(MARK);
    if (at == std::string_view::npos || !received.ends_with('\n'))
        return false;
    const std::string_view number = received.substr(at + MARK.size());
    int status = 0;
    const auto [stop, error] =
        std::from_chars(number.data(), number.data() + number.size() - 1, status);
    if (error != std::errc{} || *stop != '\n')
        throw Failure{NO_REACH, "the debug shell's answer has no readable status"};
    *answer = {std::string(received.substr(0, at)), status};
    return true;
}

ShellAnswer shell_ask(const std::string &path, const std::string &line, int milliseconds)
{
    if (line.find_first_of(std::string_view("\n\0", 2)) != std::string::npos)
        throw Failure{USAGE, "a command of the debug shell is one line"};
    const Socket socket(path, milliseconds);
    socket.send(line + "\n");
    std::string received;
    ShellAnswer answer;
    while (!shell_answer_parse(received, &answer))
        socket.receive(&received, milliseconds);
    return answer;
}

std::vector<std::string> shell_commands(std::string_view help)
{
    std::vector<std::string> commands;
    while (!help.empty()) {
        const std::string_view line = help.substr(0, help.find('\n'));
        const size_t from = std::min(line.find_first_not_of(' '), line.size());
        const std::string_view word = line.substr(from, line.find(' ', from) - from);
        if (!word.empty())
            commands.emplace_back(word);
        help.remove_prefix(std::min(line.size() + 1, help.size()));
    }
    return commands;
}

namespace
{

void no_reach(const std::string &why)
{
    throw Failure{NO_REACH, why};
}

Socket::Socket(const std::string &path, int milliseconds)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw Failure{USAGE, path + " is too long for a socket's path: at most " +
                                 std::to_string(sizeof address.sun_path - 1) + " bytes"};
    path.copy(address.sun_path, path.size());
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        no_reach(std::string("cannot make a socket: ") + std::strerror(errno));
    const timeval limit = {milliseconds / 1000, milliseconds % 1000 * 1000L};
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit); /* connecting is sending */
    if (::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return;
    const int error = errno;
    ::close(fd_);
    if (error == EAGAIN)
        no_reach("the debug shell does not answer");
    const char *hint = error == ENOENT || error == ECONNREFUSED ? " (the daemon is not running)"
                       : error == EACCES ? " (is your user in the daemon's group?)"
                                         : "";
    no_reach("cannot reach the debug shell at " + path + ": " + std::strerror(error) + hint);
}

void Socket::send(std::string_view text) const
{
    while (!text.empty()) {
        const ssize_t count = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) /* what it said before it closed is more telling */
            return;
        text.remove_prefix(static_cast<size_t>(count));
    }
}

void Socket::receive(std::string *text, int milliseconds) const
{
    pollfd waited{fd_, POLLIN, 0};
    const int ready = ::poll(&waited, 1, milliseconds);
    if (ready < 0 && errno == EINTR)
        return;
    if (ready <= 0)
        no_reach("the debug shell does not answer");
    char bytes[16384];
    const ssize_t count = ::recv(fd_, bytes, sizeof bytes, 0);
    if (count < 0 && errno == EINTR)
        return;
    if (count <= 0)
        no_reach("the debug shell closed the connection");
    text->append(bytes, static_cast<size_t>(count));
    if (text->size() > ANSWER_MAX)
        no_reach("the debug shell's answer has no end");
}

int run_line(const Context &context, const std::string &line)
{
    const ShellAnswer answer = context.host.shell(line);
    if (context.json) {
        Json json = json_document();
        json["status"] = answer.status;
        json["output"] = answer.output;
        context.host.out << json_text(json) << '\n';
    } else {
        context.host.out << answer.output;
        if (!answer.output.empty() && !answer.output.ends_with('\n'))
            context.host.out << '\n';
    }
    context.host.out.flush();
    return answer.status;
}

/* A daemon that goes and comes again does not end the conversation. */
void converse(const Context &context)
{
    if (!context.host.converse)
        throw Failure{USAGE, "shell needs a command here"};
    const std::vector<std::string> commands = shell_commands(context.host.shell("help").output);
    Exit status = DONE;
    context.host.converse(commands, [&](const std::string &line) {
        if (line == "exit" || line == "quit")
            return false;
        if (line.find_first_not_of(" \t") == std::string::npos)
            return true;
        try {
            status = run_line(context, line) == 0 ? DONE : REFUSED;
        } catch (const Failure &failure) {
            context.host.err << "vvlanctl: " << failure.text << '\n';
            status = failure.status;
        }
        return true;
    });
    if (status != DONE)
        throw Failure{status, ""}; /* said already */
}

} // namespace

} // namespace ctl
