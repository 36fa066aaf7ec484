/*
 * A daemon and its database as real processes, and what must come of them.
 *
 * The test is the management plane and the bridge: what it writes goes to the
 * database and is remembered. From that, and from the join records that stood
 * when a daemon began, follows all that a daemon has to write and to know once it
 * has synchronised; implied() is that rule, written down without any of the
 * daemon's code. Every wait turns the loop of the test's own client until what is
 * waited for is seen, or PATIENCE has run out.
 */
#ifndef TESTS_LIVE_LIVE_HOST_H
#define TESTS_LIVE_LIVE_HOST_H

#include "object/object.h"
#include "platform/kt_mom.h"
#include "tests/live/live_daemon.h"
#include "tests/live/redis_server.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

class LiveHost
{
public:
    using Lines = std::multiset<std::string>;
    static constexpr int64_t PATIENCE = 120'000'000; /* microseconds */
    static constexpr uint32_t PORTS = 8;             /* ifx 1 to 8 */

    /* Options for the sanitizer are put behind the test's own. */
    explicit LiveHost(bool keeps_data = false, const std::string &sanitizer = "");
    ~LiveHost();
    LiveHost(const LiveHost &) = delete;
    LiveHost &operator=(const LiveHost &) = delete;

    /* The daemon. */
    void start();
    bool is_ready(); /* it has told so */
    /* SIGKILL; returns when the server has taken all that this daemon had sent. */
    void kill();
    void expect_end(int status);
    std::vector<std::string> shell(const std::string &command) const; /* lines; none: no shell */

    /* What other programs write. A deletion names the key, as an object does. */
    void set(const char *kind, const std::string &text);
    void del(const char *kind, const std::string &text);
    void hset(const std::string &text); /* of p_bridge.vvlan_glb_cfg */
    void notice(uint32_t ifx) const;    /* a phone was seen there */
    void adopt();                       /* what stands was written by somebody else */
    void forget();                      /* the database is empty */
    const ProtobufCMessage *written(const char *kind, const std::string &text) const;

    /* Databases and daemon. */
    void look();                        /* takes down the join records for implied() */
    bool is_joined(uint32_t ifx) const; /* when it was looked last, in both databases */
    Lines stored();
    Lines known() const; /* what the daemon tells of itself */
    Lines implied() const;
    std::string fault(); /* how it differs from what is implied, "" if it does not */
    void expect_settled();
    void lease_runs_out(); /* of daemons that are gone, while none runs */

    void turn(int64_t micros);
    bool until(const std::function<bool()> &done);
    void settle(); /* the test's own client */

    RedisServer server;
    LiveDaemon daemon;
    kt_global *peer = nullptr;
    std::vector<std::string> changes; /* of databases 4 and 8, as "set KIND TEXT"; for tests */

private:
    void open_peer();
    void forget_clients_of(pid_t pid);
    void write(int (*how)(kt_global *, uint32_t, const ProtobufCMessage *, uint32_t, uint64_t),
               const ProtobufCMessage &object) const;

    int notify_ = -1;
    bool is_ready_ = false;
    std::map<std::pair<std::string, std::string>, object::Message> written_; /* kind, key */
    Lines stood_;     /* join records and memberships */
    Lines outliving_; /* registrations whose daemon is gone; they may stand, or go */
};

/* Whether a line of LiveHost::changes tells of this port. */
bool is_of_port(const std::string &line, uint32_t ifx);

#endif
