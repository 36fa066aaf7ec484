/*
 * A redis-server for one test: on a Unix socket in a directory of its own, killed
 * with the test, and the directory removed. Clients go through a link beside the
 * socket, which a test can take away or point elsewhere. It may listen on a port of
 * the loopback as well, and be a Sentinel.
 */
#ifndef TESTS_LIVE_REDIS_SERVER_H
#define TESTS_LIVE_REDIS_SERVER_H

#include <cstdint>
#include <hiredis/hiredis.h>
#include <initializer_list>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

class RedisServer
{
public:
    /* With `keeps_data` everything is in a file before it is acknowledged. */
    explicit RedisServer(bool keeps_data = false);
    /* What is said on redis-server's command line beside that, and of it what differs. */
    explicit RedisServer(std::vector<std::string> options);
    /* A Sentinel, by the lines of its configuration. */
    RedisServer(std::vector<std::string> options, const std::string &sentinel);
    ~RedisServer();
    RedisServer(const RedisServer &) = delete;
    RedisServer &operator=(const RedisServer &) = delete;

    void start(); /* returns when it accepts connections */
    void kill();  /* SIGKILL: the socket stays where it is */
    void freeze();
    void thaw();

    const std::string &directory() const;
    const std::string &socket() const;
    const std::string &link() const;
    void unlink_clients();
    void link_clients(const std::string &to_socket);

    /* A command on a connection of the test's own; the answer as text, lines for an array. */
    std::string command(std::initializer_list<std::string_view> words);
    /* Ids of the clients whose name contains the text. */
    std::vector<std::string> clients(std::string_view name);

private:
    void make_directory();

    std::vector<std::string> words_; /* of the command */
    pid_t pid_ = -1;
    std::string directory_, socket_, link_;
    redisContext *control_ = nullptr;
};

/* A port of the loopback on which nobody listens now. */
uint16_t free_port();

#endif
