#include "tests/live/live_daemon.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "isolation/own_directories.h"

LiveDaemon::LiveDaemon(std::string program, std::string directory, Environment environment)
    : program_(std::move(program)), directory_(std::move(directory)),
      environment_(std::move(environment))
{
    own_directories_make(directory_);
}

LiveDaemon::~LiveDaemon()
{
    if (pid_ < 0)
        return;
    signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void LiveDaemon::start()
{
    ASSERT_LT(pid_, 0) << "it runs";
    pid_ = fork();
    if (pid_ != 0)
        return;
    const std::string log_path = directory_ + "/daemon.log";
    const int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    for (const auto &[name, value] : environment_)
        setenv(name.c_str(), value.c_str(), 1);
    if (!own_directories_enter(directory_)) {
        perror("this host does not let us make namespaces");
        _exit(126);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL); /* a change of credentials takes it back */
    execl(program_.c_str(), program_.c_str(), nullptr);
    perror(program_.c_str());
    _exit(127);
}

void LiveDaemon::signal(int number) const
{
    if (pid_ > 0)
        kill(pid_, number);
}

int LiveDaemon::wait(int milliseconds)
{
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd ended{handle, POLLIN, 0};
    const bool has_ended = handle >= 0 && poll(&ended, 1, milliseconds) == 1;
    close(handle);
    if (!has_ended)
        return -1;
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string LiveDaemon::log() const
{
    std::ifstream file(directory_ + "/daemon.log");
    return {std::istreambuf_iterator<char>(file), {}};
}
