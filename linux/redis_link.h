/*
 * redis_link - one socket to the database server.
 *
 * hiredis takes replies apart; sockets and buffers are kept here. That is what
 * lets one connection serve both the event loop and the synchronous calls: a
 * caller that must wait turns the link by itself (links_wait()), and what
 * it was not waiting for is handled as it would have been from the loop. A
 * second connection for such calls could overtake requests that are still
 * queued here.
 *
 * Requests are appended to a buffer and sent when the socket takes them,
 * everything of one turn of the loop in one piece. Every reply goes to
 * `replied`, in order; the end of the link goes to `lost`, once, with the
 * reason, unless close() was called. Both may close the link. Nothing is sent
 * again and nothing is kept over the end of a link; what that means for
 * requests without a reply is the owner's business.
 *
 * With TLS (linux/redis_tls.h) what is sent and received passes through a
 * session in memory; all else stays as it is.
 *
 * At most 64 KiB is read a turn, so that what is received is handled while it is
 * fresh, and a flood waits in the server. How much may wait to be sent is for the
 * owner to limit, who can refuse a request: see unsent() and LINK_UNSENT_MAX.
 */
#ifndef LINUX_REDIS_LINK_H
#define LINUX_REDIS_LINK_H

#include "linux/redis_reply.h"
#include "linux/redis_tls.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct event;

namespace redis
{

constexpr size_t LINK_UNSENT_MAX = 64u << 20;

using Arguments = std::span<const std::string_view>;

/*
 * A Unix socket if there is a path, else TCP. A host that is a name is looked up
 * (linux/redis_lookup.h) when a link is opened to it; the caller may wait two seconds for
 * that, once.
 */
struct Address {
    std::string path = {};
    std::string host = {}; /* name or number */
    uint16_t port = 0;
    unsigned attempt = 0;             /* which of the addresses of a name: they take turns */
    std::optional<TlsFiles> tls = {}; /* the server speaks TLS */
    std::string number = {};          /* the host's, once it was looked up */
};

/* Appends the request's bytes to `out`. */
void format(std::string &out, Arguments arguments);

class Link
{
public:
    Link(std::function<void(Reply)> replied, std::function<void(const std::string &)> lost);
    ~Link();
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    /*
     * Begins to connect; requests may be sent at once. What goes wrong, now or
     * later, comes to `lost` from the loop or from a wait, never from inside.
     */
    void open(const Address &address);
    void close();
    bool is_open() const;
    /* Where it was opened to, the number filled: there another link meets the same server. */
    const Address &address() const;
    /* TLS is wanted and the server has not agreed to it yet. */
    bool is_shaking_hands() const;
    /* How many addresses the name had, at least 1. */
    unsigned alternatives() const;

    void send(Arguments arguments);
    /* A request that was formatted before. */
    void send_raw(std::string_view request);
    size_t unsent() const;

    /* Takes what the socket has and gives it what it takes; never blocks. */
    void turn();

private:
    friend int links_wait(std::span<Link *const> links, int64_t micros);

    /* Bytes on their way, the first of them gone already. */
    struct Outgoing {
        std::string bytes = {};
        size_t sent = 0;

        std::string_view left() const;
        void took(size_t size);
    };

    bool connect();
    bool has_to_send() const;
    void on_ready(bool is_readable, bool is_writable);
    bool finish_connect();
    void read_some();
    bool take_bytes(std::string_view bytes);
    bool decrypt();
    bool take_replies(std::string_view bytes);
    bool hand_on_replies();
    void write_some();
    void encrypt();
    int send_some(Outgoing &bytes);
    void fail_sending(const std::string &why);
    void want_write(bool wanted);
    void fail(const std::string &why);

    std::function<void(Reply)> replied_;
    std::function<void(const std::string &)> lost_;
    int fd_ = -1;
    uint64_t opening_ = 0; /* grows with every open() and close() */
    bool is_connecting_ = false;
    bool wants_write_ = false;
    std::string refused_; /* why open() failed; told from the loop */
    Address address_;
    unsigned alternatives_ = 1;
    Outgoing out_;     /* requests */
    Outgoing records_; /* the same, encrypted; a little at a time */
    std::unique_ptr<Tls> tls_;
    redisReader *reader_ = nullptr;
    event *read_ = nullptr;
    event *write_ = nullptr;
};

/*
 * Waits at most so many microseconds for any of the open links to move, and
 * turns those that do. 0, -ETIMEDOUT, or another negative errno value.
 */
int links_wait(std::span<Link *const> links, int64_t micros);

} // namespace redis

#endif
