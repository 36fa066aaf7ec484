/*
 * bench_live_host - the processes that are measured: a private redis-server, the
 * daemon, and whatever else runs beside them.
 *
 * All of them end with the program that started them, however it ends. Files and
 * sockets lie in the directory that the caller gives, who also removes it. The
 * daemon runs in a mount namespace of its own, since its pid file and debug level
 * lie where another daemon may have its own.
 *
 * What goes wrong is thrown as a std::runtime_error. Times are seconds.
 */
#ifndef BENCH_BENCH_LIVE_HOST_H
#define BENCH_BENCH_LIVE_HOST_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

struct redisContext;

namespace bench
{

/* The monotonic clock, which is the same in every process. */
double now();
void rest(double seconds);

/* A child process; its standard output is read line by line. */
class Child
{
public:
    /* `prepare` runs in the child before the program; false: it ends. */
    explicit Child(const std::vector<std::string> &command,
                   const std::function<bool()> &prepare = {});
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const;
    /* Its standard output, which stays ours; hangs up when it has ended. */
    int output() const;
    double started() const;
    /* Waits for the next line; throws when the output ends. */
    std::string line();
    /* Waits until it ends; throws unless its status is 0. */
    void finish();
    void kill();
    /* What it has used so far. */
    double processor_time() const;

private:
    pid_t pid_;
    int out_;
    double started_;
    std::string said_;
};

struct Paths {
    std::string directory; /* for this run */
    std::string daemon, tool, bare;

    std::string mom_socket() const;
    std::string shell_socket() const;
    std::string ports_file() const;
};

/* A redis-server with nothing in it. */
class Server
{
public:
    explicit Server(const Paths &paths);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    /* A command's answer as text; throws when it is an error. */
    std::string command(std::initializer_list<std::string_view> words);
    void clear(uint32_t db);
    void clear();
    double used_memory();
    /* How often it has run a command. */
    double calls_of(const std::string &name);

private:
    Child child_;
    redisContext *context_;
};

/* The daemon as a process; made when it is started, killed when the object goes. */
class Daemon
{
public:
    explicit Daemon(const Paths &paths);
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    double started() const;
    /* When it told the restart manager that it has synchronised. */
    double wait_ready(double patience);
    /*
     * When it last did something before it took no processor time at 500 looks in
     * turn, a millisecond apart, so that nothing is left to do.
     */
    double wait_settled(double patience);
    /* What a command of the debug shell prints. */
    std::string ask(const std::string &line);
    /* How many MACs it holds on a port, or in all. */
    size_t macs_on(uint32_t ifx);
    size_t macs();

    double processor_time() const;
    double resident_bytes() const;
    double voluntary_switches() const;

private:
    Paths paths_;
    int notices_;
    int shell_ = -1;
    Child child_;
};

} // namespace bench

#endif
