#include "tests/live/live_daemon.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace
{

void write_file(const char *path, const std::string &text)
{
    std::ofstream(path) << text;
}

/* A user who may make namespaces is root in them; real root needs no user namespace. */
bool enter_namespaces()
{
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return unshare(CLONE_NEWNS) == 0;
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    return true;
}

/*
 * What we mount is for us only. That is said of a mount, and in a chroot "/" may be a
 * mere folder of one that cannot be named: joining a namespace leads to its real root,
 * from which we come back.
 */
bool keep_mounts_to_ourselves()
{
    const auto make_private = [] {
        return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    };
    if (make_private())
        return true;
    if (errno != EINVAL)
        return false;
    const int root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int own = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    return setns(own, CLONE_NEWNS) == 0 && make_private() && fchdir(root) == 0 && chroot(".") == 0;
}

bool take_own_directories(const std::string &directory)
{
    const auto bind = [](const std::string &from, const char *to) {
        return mount(from.c_str(), to, nullptr, MS_BIND | MS_REC, nullptr) == 0;
    };
    return enter_namespaces() && keep_mounts_to_ourselves() && bind(directory + "/run", "/run") &&
           bind(directory + "/tmp", "/var/tmp");
}

} // namespace

LiveDaemon::LiveDaemon(std::string program, std::string directory, Environment environment)
    : m_program(std::move(program)), m_directory(std::move(directory)),
      m_environment(std::move(environment))
{
    for (const char *name : {"/run", "/tmp"})
        std::filesystem::create_directory(m_directory + name);
}

LiveDaemon::~LiveDaemon()
{
    if (m_pid < 0)
        return;
    signal(SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

void LiveDaemon::start()
{
    ASSERT_LT(m_pid, 0) << "it runs";
    m_pid = fork();
    if (m_pid != 0)
        return;
    const std::string log_path = m_directory + "/daemon.log";
    const int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    for (const auto &[name, value] : m_environment)
        setenv(name.c_str(), value.c_str(), 1);
    if (!take_own_directories(m_directory)) {
        perror("this host does not let us make namespaces");
        _exit(126);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL); /* a change of credentials takes it back */
    execl(m_program.c_str(), m_program.c_str(), nullptr);
    perror(m_program.c_str());
    _exit(127);
}

void LiveDaemon::signal(int number) const
{
    if (m_pid > 0)
        kill(m_pid, number);
}

int LiveDaemon::wait(int milliseconds)
{
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0));
    pollfd ended{handle, POLLIN, 0};
    const bool has_ended = handle >= 0 && poll(&ended, 1, milliseconds) == 1;
    close(handle);
    if (!has_ended)
        return -1;
    int status = 0;
    waitpid(std::exchange(m_pid, -1), &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string LiveDaemon::log() const
{
    std::ifstream file(m_directory + "/daemon.log");
    return {std::istreambuf_iterator<char>(file), {}};
}
