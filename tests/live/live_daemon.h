/*
 * A daemon for one test, as a real process: a program that gets a /run and a
 * /var/tmp of its own (namespaces; no root is needed where users may make
 * them), so that its pid file and its debug level are the test's. It ends with
 * the test.
 */
#ifndef TESTS_LIVE_LIVE_DAEMON_H
#define TESTS_LIVE_LIVE_DAEMON_H

#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

class LiveDaemon
{
public:
    using Environment = std::vector<std::pair<std::string, std::string>>; /* beside the test's */

    /* `directory` exists; run/, tmp/ and daemon.log are made in it. */
    LiveDaemon(std::string program, std::string directory, Environment environment);
    ~LiveDaemon();
    LiveDaemon(const LiveDaemon &) = delete;
    LiveDaemon &operator=(const LiveDaemon &) = delete;

    void start(); /* returns at once; a program that runs already is a failure */
    void signal(int number) const;
    /* Waits for its end: the exit status, 128 + the signal that killed it, -1 when it stays. */
    int wait(int milliseconds);

    pid_t pid() const /* -1 when none runs */
    {
        return pid_;
    }
    std::string log() const; /* what it wrote to standard output and error, all lives */

private:
    std::string program_, directory_;
    Environment environment_;
    pid_t pid_ = -1;
};

#endif
