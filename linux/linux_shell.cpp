#include "linux/linux_shell.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/listener.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "linux/linux_env.h"
#include "linux/linux_fp.h"
#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "platform/ssat.h"
#include "shell/shell_command.h"

namespace
{

constexpr char OWN_MODULE[] = "linux";
constexpr int BACKLOG = 16;
constexpr timeval STALL_MAX = {30, 0};
constexpr int64_t ACCEPT_PAUSE = 1'000'000; /* after accept() failed, for want of descriptors say */
constexpr size_t GROUPS_MAX = 256;

struct Client {
    uint64_t id;
    bufferevent *stream;
    int64_t last_heard;
    bool is_ending; /* nothing more will be read */
};

struct Server {
    shell_table table;
    std::string path;
    evconnlistener *listener = nullptr;
    std::vector<Client> clients;
    uint64_t next_id = 1;
};
Server *the_server; /* never freed, see linux_loop */

Server &server();
int open_server(const std::string &path);
void close_server();
void accept_client(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *);
void pause_accepting(evconnlistener *, void *);
int help(const int *, int);
int show_tables(const int *, int);

} // namespace

size_t linux_shell_clients()
{
    return server().clients.size();
}

void linux_shell_reset()
{
    close_server();
    server().table = {};
}

int ssat_lib_init(kt_global *global, const char *module)
{
    const linux_env_settings *settings = linux_env();
    if (settings == nullptr || !linux_global_is_open(global))
        return -ENOTCONN;
    const int refused = shell_add_module(&server().table, module);
    if (refused != 0 || server().listener != nullptr)
        return refused;
    shell_add_module(&server().table, OWN_MODULE);
    ssat_reg_mod_cmd(OWN_MODULE, "help", 0, "  :this list", help);
    ssat_reg_mod_cmd(OWN_MODULE, "fp_tables", 0, "  :tables of the fast path", show_tables);
    const int failed = open_server(settings->shell);
    if (failed != 0) {
        LINUX_LOG(KTDF_ZLOG_LV_ERROR, "%s: no debug shell: %s", settings->shell.c_str(),
                  std::strerror(-failed));
        return failed;
    }
    return linux_global_on_finish(global, close_server);
}

int ssat_reg_mod_cmd(const char *module, const char *name, uint32_t flag, const char *help_text,
                     ssat_handler handler)
{
    return shell_add_command(&server().table, module, name, flag, help_text, handler);
}

/* ---------------------------------------------------------------- the socket */

namespace
{

Server &server()
{
    if (the_server == nullptr)
        the_server = new Server;
    return *the_server;
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/* Whether a server answers at the address; the socket of one that died refuses. */
bool is_in_use(const sockaddr_un &address)
{
    struct stat status = {};
    if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return true;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return true;
    const int result = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const bool is_refused = result != 0 && errno == ECONNREFUSED;
    close(fd);
    return !is_refused;
}

/* The mask makes the socket 0660 from its first moment. */
int bind_to(int fd, const std::string &path)
{
    const sockaddr_un address = address_of(path);
    const auto *general = reinterpret_cast<const sockaddr *>(&address);
    const mode_t before = umask(0117);
    int result = bind(fd, general, sizeof address);
    if (result != 0 && errno == EADDRINUSE && !is_in_use(address)) {
        unlink(path.c_str());
        result = bind(fd, general, sizeof address);
    }
    const int error = errno;
    umask(before);
    return result == 0 ? 0 : -error;
}

int open_server(const std::string &path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -errno;
    const int failed = bind_to(fd, path);
    evconnlistener *listener = nullptr;
    if (failed == 0)
        listener = evconnlistener_new(linux_loop_base(), accept_client, nullptr,
                                      LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, BACKLOG, fd);
    if (listener == nullptr) {
        close(fd);
        return failed != 0 ? failed : -ENOMEM;
    }
    evconnlistener_set_error_cb(listener, pause_accepting);
    server().listener = listener;
    server().path = path;
    return 0;
}

void close_server()
{
    Server &now = server();
    for (const Client &client : now.clients)
        bufferevent_free(client.stream);
    now.clients.clear();
    if (now.listener == nullptr)
        return;
    evconnlistener_free(std::exchange(now.listener, nullptr));
    unlink(now.path.c_str());
}

void pause_accepting(evconnlistener *listener, void *)
{
    LINUX_LOG(KTDF_ZLOG_LV_WARN, "debug shell: a client cannot be taken: %s", std::strerror(errno));
    evconnlistener_disable(listener);
    linux_loop_after(ACCEPT_PAUSE, [listener] {
        if (server().listener == listener)
            evconnlistener_enable(listener);
    });
}

bool is_in_group(int fd, gid_t group)
{
    gid_t groups[GROUPS_MAX];
    socklen_t size = sizeof groups;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups, &size) != 0)
        return false;
    const gid_t *end = groups + size / sizeof *groups;
    return std::find(std::cbegin(groups), end, group) != end;
}

/* The socket's own mode is no guard where somebody has changed it. */
bool is_welcome(int fd)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return false;
    return peer.uid == 0 || peer.uid == geteuid() || peer.gid == getegid() ||
           is_in_group(fd, getegid());
}

/* --------------------------------------------------------------- the clients */

void serve(uint64_t id);

Client *find_client(uint64_t id)
{
    std::vector<Client> &all = server().clients;
    const auto at = std::find_if(all.begin(), all.end(),
                                 [id](const Client &client) { return client.id == id; });
    return at == all.end() ? nullptr : &*at;
}

Client *find_client(const bufferevent *stream)
{
    std::vector<Client> &all = server().clients;
    const auto at = std::find_if(
        all.begin(), all.end(), [stream](const Client &client) { return client.stream == stream; });
    return at == all.end() ? nullptr : &*at;
}

void drop_client(uint64_t id)
{
    std::vector<Client> &all = server().clients;
    Client *client = find_client(id);
    if (client == nullptr)
        return;
    bufferevent_free(client->stream);
    all.erase(all.begin() + (client - all.data()));
}

std::string status_line(int status)
{
    return std::string(1, '\0') + "status " + std::to_string(status) + "\n";
}

void on_data(bufferevent *stream, void *)
{
    Client *client = find_client(stream);
    client->last_heard = linux_loop_now();
    serve(client->id);
}

void on_drained(bufferevent *stream, void *)
{
    serve(find_client(stream)->id);
}

/* The end of what the client sends is not the end of the client. */
void on_event(bufferevent *stream, short what, void *)
{
    Client *client = find_client(stream);
    const uint64_t id = client->id;
    if ((what & BEV_EVENT_EOF) == 0) {
        drop_client(id);
        return;
    }
    client->is_ending = true;
    serve(id);
}

void make_room()
{
    const std::vector<Client> &all = server().clients;
    if (all.size() < LINUX_SHELL_CLIENTS_MAX)
        return;
    const auto silent =
        std::min_element(all.begin(), all.end(), [](const auto &one, const auto &b) {
            return one.last_heard < b.last_heard;
        });
    drop_client(silent->id);
}

void turn_away(int fd)
{
    const std::string answer =
        "Only root, the daemon's user and its group may use this shell.\n" + status_line(-EPERM);
    send(fd, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    close(fd);
}

void accept_client(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *)
{
    if (!is_welcome(fd)) {
        turn_away(fd);
        return;
    }
    make_room();
    bufferevent *stream = bufferevent_socket_new(linux_loop_base(), fd, BEV_OPT_CLOSE_ON_FREE);
    if (stream == nullptr) {
        close(fd);
        return;
    }
    server().clients.push_back({server().next_id++, stream, linux_loop_now(), false});
    bufferevent_setcb(stream, on_data, on_drained, on_event, nullptr);
    bufferevent_setwatermark(stream, EV_READ, 0, LINUX_SHELL_REQUEST_MAX + 1);
    bufferevent_set_timeouts(stream, nullptr, &STALL_MAX);
    bufferevent_enable(stream, EV_READ | EV_WRITE);
}

/* ----------------------------------------------------------------- a request */

/* Takes one request out of what was read. Returns false when there is no whole one. */
bool take_request(const Client &client, std::string *line)
{
    evbuffer *input = bufferevent_get_input(client.stream);
    size_t length = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
        evbuffer_readln(input, &length, EVBUFFER_EOL_CRLF), std::free);
    if (text != nullptr) {
        line->assign(text.get(), length);
        return true;
    }
    const size_t rest = evbuffer_get_length(input);
    if (rest <= LINUX_SHELL_REQUEST_MAX && (!client.is_ending || rest == 0))
        return false;
    line->resize(rest);
    evbuffer_remove(input, line->data(), rest);
    return true;
}

std::string run(const std::string &line)
{
    if (line.find_first_not_of(" \t") == std::string::npos)
        return status_line(0);
    const shell_call call = shell_parse(server().table, line);
    std::string output = call.sentence;
    int status = call.refusal;
    if (call.handler != nullptr) {
        ShellCapture capture(LINUX_SHELL_ANSWER_MAX);
        status = call.handler(call.arguments.data(), static_cast<int>(call.arguments.size()));
        output = capture.text();
    }
    std::erase(output, '\0');
    return output + status_line(status);
}

/* Answers one request, if there is one and the answers before it have been taken. */
void serve(uint64_t id)
{
    Client *client = find_client(id);
    if (evbuffer_get_length(bufferevent_get_output(client->stream)) > 0)
        return;
    std::string line;
    if (!take_request(*client, &line)) {
        if (client->is_ending)
            drop_client(id);
        return;
    }
    std::string answer;
    if (line.size() > LINUX_SHELL_REQUEST_MAX) {
        answer = "A request has at most " + std::to_string(LINUX_SHELL_REQUEST_MAX) + " bytes.\n" +
                 status_line(-EINVAL);
        client->is_ending = true;
        bufferevent_disable(client->stream, EV_READ);
    } else {
        answer = run(line);
    }
    client = find_client(id); /* the handler may have closed the server */
    if (client != nullptr)
        bufferevent_write(client->stream, answer.data(), answer.size());
}

/* -------------------------------------------------------------- own commands */

int help(const int *, int)
{
    for (const shell_command &command : server().table.commands)
        std::printf("%-24s %s\n", command.name.c_str(), command.help);
    return 0;
}

int show_tables(const int *, int)
{
    std::fputs(linux_fp_tables().text().c_str(), stdout);
    return 0;
}

} // namespace
