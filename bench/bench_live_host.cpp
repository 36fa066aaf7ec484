#include "bench/bench_live_host.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "isolation/own_directories.h"

namespace bench
{

namespace
{

constexpr double LOOK_EVERY = 0.001;
constexpr int LOOKS = 500; /* without work: nothing is left to do */
/* Seconds of processor time in between; what it does every five seconds, at rest, takes less. */
constexpr double WORK = 0.0005;
constexpr double ANSWER_PATIENCE = 30;

[[noreturn]] void fail(const std::string &what);
double seconds_of(const timespec &time);
sockaddr_un address_of(const std::string &path);
bool become_own_host(const std::string &directory);
int listen_for_notices(const std::string &directory);
int connect_shell(const std::string &path);
double status_of(pid_t pid, const std::string &task, const std::string &name);

} // namespace

double now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return seconds_of(time);
}

void rest(double seconds)
{
    const auto whole = static_cast<time_t>(seconds);
    const timespec time = {whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
    nanosleep(&time, nullptr);
}

Child::Child(const std::vector<std::string> &command, const std::function<bool()> &prepare)
{
    std::array<int, 2> out;
    if (pipe2(out.data(), O_CLOEXEC) != 0)
        fail("pipe");
    std::vector<char *> words;
    for (const std::string &word : command)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    started_ = now();
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        if (prepare && !prepare())
            _exit(126);
        prctl(PR_SET_PDEATHSIG, SIGKILL); /* last: it is forgotten when the user changes */
        execvp(words[0], words.data());
        std::perror(words[0]);
        _exit(127);
    }
    close(out[1]);
    out_ = out[0];
    if (pid_ < 0)
        fail("fork");
}

Child::~Child()
{
    kill();
    close(out_);
}

pid_t Child::pid() const
{
    return pid_;
}

int Child::output() const
{
    return out_;
}

double Child::started() const
{
    return started_;
}

std::string Child::line()
{
    std::array<char, 512> chunk;
    size_t end;
    while ((end = said_.find('\n')) == std::string::npos) {
        const ssize_t got = read(out_, chunk.data(), chunk.size());
        if (got <= 0)
            throw std::runtime_error("a process has ended that was still needed: " + said_);
        said_.append(chunk.data(), static_cast<size_t>(got));
    }
    const std::string line = said_.substr(0, end);
    said_.erase(0, end + 1);
    return line;
}

void Child::finish()
{
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, 0) != pid_)
        fail("waitpid");
    pid_ = -1;
    if (status != 0)
        throw std::runtime_error("a process has failed");
}

void Child::kill()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

double Child::processor_time() const
{
    clockid_t clock;
    timespec time;
    if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &time) != 0)
        throw std::runtime_error("a process has ended that was still needed");
    return seconds_of(time);
}

std::string Paths::mom_socket() const
{
    return directory + "/mom.sock";
}

std::string Paths::shell_socket() const
{
    return directory + "/shell.sock";
}

std::string Paths::ports_file() const
{
    return directory + "/ports";
}

Server::Server(const Paths &paths)
    : child_({"redis-server", "--port", "0", "--unixsocket", paths.mom_socket(), "--dir",
              paths.directory, "--save", "", "--appendonly", "no", "--logfile", ""}),
      context_(nullptr)
{
    while (child_.line().find("eady to accept connections") == std::string::npos)
        continue;
    /* It goes on writing now and then, but never as much as a pipe holds. */
    context_ = redisConnectUnix(paths.mom_socket().c_str());
    if (context_ == nullptr || context_->err != 0)
        throw std::runtime_error("the redis-server cannot be reached");
}

Server::~Server()
{
    redisFree(context_);
}

std::string Server::command(std::initializer_list<std::string_view> words)
{
    std::vector<const char *> pieces;
    std::vector<size_t> sizes;
    for (const std::string_view word : words) {
        pieces.push_back(word.data());
        sizes.push_back(word.size());
    }
    auto *reply = static_cast<redisReply *>(
        redisCommandArgv(context_, static_cast<int>(pieces.size()), pieces.data(), sizes.data()));
    const std::string text =
        reply == nullptr || reply->str == nullptr ? "" : std::string(reply->str, reply->len);
    const bool is_good = reply != nullptr && reply->type != REDIS_REPLY_ERROR;
    freeReplyObject(reply);
    if (!is_good)
        throw std::runtime_error(std::string(*words.begin()) + ": " + text);
    return text;
}

void Server::clear(uint32_t db)
{
    command({"SELECT", std::to_string(db)});
    command({"FLUSHDB"});
}

void Server::clear()
{
    command({"FLUSHALL"});
}

double Server::used_memory()
{
    constexpr std::string_view NAME = "used_memory:";
    const std::string info = command({"INFO", "memory"});
    return std::strtod(info.c_str() + info.find(NAME) + NAME.size(), nullptr);
}

double Server::calls_of(const std::string &name)
{
    const std::string info = command({"INFO", "commandstats"});
    const std::string entry = "cmdstat_" + name + ":calls=";
    const size_t at = info.find(entry);
    return at == std::string::npos ? 0 : std::strtod(info.c_str() + at + entry.size(), nullptr);
}

Daemon::Daemon(const Paths &paths)
    : paths_(paths), notices_(listen_for_notices(paths.directory)),
      child_({paths.daemon}, [&paths] {
          const std::string log = paths.directory + "/daemon.log";
          const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
          dup2(fd, STDERR_FILENO);
          setenv("VVLAN_MOM", ("unix:" + paths.mom_socket()).c_str(), 1);
          setenv("VVLAN_SHELL", paths.shell_socket().c_str(), 1);
          setenv("VVLAN_PORTS", paths.ports_file().c_str(), 1);
          setenv("NOTIFY_SOCKET", (paths.directory + "/notices").c_str(), 1);
          return become_own_host(paths.directory);
      })
{
}

Daemon::~Daemon()
{
    if (shell_ >= 0)
        close(shell_);
    close(notices_);
}

double Daemon::started() const
{
    return child_.started();
}

double Daemon::wait_ready(double patience)
{
    const double end = now() + patience;
    std::array<char, 1024> text;
    for (;;) {
        std::array<pollfd, 2> watched = {{{notices_, POLLIN, 0}, {child_.output(), 0, 0}}};
        const int wait = static_cast<int>(std::max(0.0, end - now()) * 1e3);
        if (poll(watched.data(), watched.size(), wait) <= 0)
            throw std::runtime_error("the daemon has not become ready");
        if (watched[1].revents != 0)
            throw std::runtime_error("the daemon has ended before it was ready");
        const double at = now();
        const ssize_t size = recv(notices_, text.data(), text.size(), 0);
        const std::string_view notice(text.data(), static_cast<size_t>(std::max<ssize_t>(0, size)));
        if (notice.starts_with("READY=1"))
            return at;
    }
}

/* Looks are counted, not seconds: when the whole machine stands still, so does the daemon. */
double Daemon::wait_settled(double patience)
{
    const double end = now() + patience;
    double used = processor_time();
    double moved_at = now();
    for (int still = 0; still < LOOKS; still++) {
        if (now() > end)
            throw std::runtime_error("the daemon does not settle");
        rest(LOOK_EVERY);
        const double use = processor_time();
        if (use > used + WORK) {
            moved_at = now();
            still = 0;
            used = use;
        }
    }
    return moved_at;
}

std::string Daemon::ask(const std::string &line)
{
    if (shell_ < 0)
        shell_ = connect_shell(paths_.shell_socket());
    const std::string request = line + "\n";
    if (write(shell_, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
        fail("debug shell");
    constexpr std::string_view MARK("\0status ", 8);
    std::string answer;
    std::vector<char> chunk(1 << 16);
    while (!answer.ends_with('\n') || answer.find(MARK) == std::string::npos) {
        pollfd readable = {shell_, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(ANSWER_PATIENCE * 1e3)) <= 0)
            throw std::runtime_error("the debug shell does not answer");
        const ssize_t got = read(shell_, chunk.data(), chunk.size());
        if (got <= 0)
            fail("debug shell");
        answer.append(chunk.data(), static_cast<size_t>(got));
    }
    return answer.substr(0, answer.find(MARK));
}

size_t Daemon::macs_on(uint32_t ifx)
{
    const std::string said = ask("dump_port_mac ifx=" + std::to_string(ifx));
    return static_cast<size_t>(std::ranges::count(said, '<'));
}

size_t Daemon::macs()
{
    const std::string said = ask("dump_all_mac");
    return static_cast<size_t>(std::ranges::count(said, '<'));
}

double Daemon::processor_time() const
{
    return child_.processor_time();
}

double Daemon::resident_bytes() const
{
    return status_of(child_.pid(), "", "VmRSS:") * 1024;
}

double Daemon::voluntary_switches() const
{
    const std::string tasks = "/proc/" + std::to_string(child_.pid()) + "/task";
    double sum = 0;
    for (const auto &task : std::filesystem::directory_iterator(tasks))
        sum += status_of(child_.pid(), "/task/" + task.path().filename().string(),
                         "voluntary_ctxt_switches:");
    return sum;
}

namespace
{

void fail(const std::string &what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

double seconds_of(const timespec &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": too long for a socket");
    path.copy(address.sun_path, path.size());
    return address;
}

bool write_file(const std::string &path, const std::string &text)
{
    std::ofstream file(path);
    file << text;
    file.close();
    return file.good();
}

/* In the child, which tells little in its log. */
bool become_own_host(const std::string &directory)
{
    own_directories_make(directory);
    if (write_file(directory + "/tmp/udp_vvlan_debug", "1") && own_directories_enter(directory))
        return true;
    std::perror("a /run of its own for the daemon");
    return false;
}

int listen_for_notices(const std::string &directory)
{
    const std::string path = directory + "/notices";
    unlink(path.c_str());
    const sockaddr_un address = address_of(path);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(path);
    return fd;
}

int connect_shell(const std::string &path)
{
    const sockaddr_un address = address_of(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(path);
    return fd;
}

/* A number from a process's status in /proc, or from that of one of its tasks. */
double status_of(pid_t pid, const std::string &task, const std::string &name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + task + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name))
            return std::strtod(line.c_str() + name.size(), nullptr);
    }
    throw std::runtime_error("no " + name + " of a process");
}

} // namespace

} // namespace bench
