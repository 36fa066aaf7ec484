/*
 * What goes wrong with a real server. The contract itself is the matter of
 * test_mom_contract.cpp; here a follower (subscribe, scan when told to, keep a view)
 * must come out with what is stored, whatever happened to the server.
 */
#include "linux/linux_env.h"
#include "linux/linux_loop.h"
#include "linux/linux_mom.h"
#include "linux/linux_mom_known.h"
#include "linux/redis_value.h"
#include "tests/contract_objects.h"
#include "tests/live/redis_server.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using namespace contract;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int64_t SECOND = 1'000'000;
constexpr int64_t PATIENCE = 30 * SECOND;

Lines link_events;

class MomRedis : public testing::Test
{
protected:
    void begin(bool keeps_data = false)
    {
        begin_server(keeps_data);
        begin_clients();
    }
    void begin_clients()
    {
        program = client();
        peer = client();
        link_events.clear();
        seen.then = [this](const kt_mom_msg &msg) { follow(msg); };
    }
    void begin_server(bool keeps_data = false)
    {
        server = std::make_unique<RedisServer>(keeps_data);
        use_server();
    }
    ~MomRedis() override
    {
        linux_loop_reset();
        linux_mom_clock_ahead(0);
    }
    void use_server(const std::string &password_file = "", const std::string &user = "")
    {
        linux_env_settings settings;
        settings.mom.path = server->link();
        settings.mom_password_file = password_file;
        settings.mom_user = user;
        linux_env_use(settings);
    }
    static kt_global *client()
    {
        kt_global *made = kt_global_init("test", nullptr);
        const auto lost = [](kt_global *, uint32_t) {
            link_events.push_back("lost");
            return 0;
        };
        const auto back = [](kt_global *, uint32_t, int type) {
            link_events.push_back("back " + std::to_string(type));
            return 0;
        };
        EXPECT_EQ(kt_mom_client_connect_sync(made, 4), 0);
        EXPECT_EQ(kt_mom_client_connect(made, 4, nullptr, nullptr), 0);
        kt_mom_client_set_disconnect_cb(made, 4, lost);
        kt_mom_client_set_reconnect_cb(made, 4, back);
        settle();
        return made;
    }
    static void settle()
    {
        EXPECT_TRUE(linux_mom_settle(PATIENCE, [] { return true; }));
    }
    static bool until(const std::function<bool()> &done)
    {
        return linux_loop_run_until(done, PATIENCE);
    }
    void subscribe()
    {
        EXPECT_EQ(kt_mom_subscribe(program, 4, make(PORT), 0, record, &seen), 0);
        settle();
    }
    void follow(const kt_mom_msg &msg)
    {
        if (msg.scan_state == KT_MOM_SCAN_START || msg.scan_state == KT_MOM_SCAN_AGAIN)
            kt_mom_scan(program, 4, make(PORT), 0, record, &seen);
        if (msg.operation == KT_MOM_SET)
            view[object::key(*object_of(msg))] = object::to_text(*object_of(msg));
        if (msg.operation == KT_MOM_DEL)
            view.erase(object::key(*object_of(msg)));
    }
    static const ProtobufCMessage *object_of(const kt_mom_msg &msg)
    {
        return static_cast<const ProtobufCMessage *>(msg.object);
    }
    int set(const std::string &text)
    {
        return kt_mom_set(peer, 4, make(PORT, text), 0, 0);
    }
    /* The object as text, "" for none; all requests of the client have then taken effect. */
    static std::string get(kt_global *who, const char *kind, const std::string &text, int *status)
    {
        const object::Message found(kt_mom_get_sync(who, 4, make(kind, text), status));
        return found == nullptr ? "" : object::to_text(*found);
    }
    std::string get(const std::string &text)
    {
        return get(peer, PORT, text, nullptr);
    }
    std::map<std::string, std::string> stored()
    {
        std::map<std::string, std::string> all;
        const auto take = [](kt_global *, const kt_mom_msg *msg, void *user) {
            (*static_cast<std::map<std::string, std::string> *>(
                user))[object::key(*object_of(*msg))] = object::to_text(*object_of(*msg));
            return 0;
        };
        EXPECT_EQ(kt_mom_scan_sync(peer, 4, make(PORT), 0, take, &all), 0);
        return all;
    }
    /* Deletes behind everybody's back: nothing is published. */
    void steal(uint32_t ifx)
    {
        const Made port = make(PORT, port_text(ifx));
        EXPECT_EQ(server->command({"SELECT", "4"}), "OK");
        EXPECT_EQ(server->command({"HDEL", PORT, object::key(*port)}), "1");
    }
    /* Starts the server anew, on its data, without waiting for it. */
    pid_t start_slowly(const char *micros_a_command)
    {
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execlp("redis-server", "redis-server", "--port", "0", "--unixsocket",
                   server->socket().c_str(), "--dir", server->directory().c_str(), "--appendonly",
                   "yes", "--logfile", "/dev/null", "--key-load-delay", micros_a_command, nullptr);
            _exit(127);
        }
        EXPECT_TRUE(until([this] {
            redisContext *context = redisConnectUnix(server->socket().c_str());
            const bool is_there = context->err == 0;
            redisFree(context);
            return is_there;
        }));
        return pid;
    }
    /* How many the server has accepted. */
    int connections()
    {
        const std::string stats = server->command({"INFO", "stats"});
        return std::stoi(stats.substr(stats.find("received:") + 9));
    }
    uint64_t losses()
    {
        return linux_mom_look(program, 4).losses;
    }
    /* One request for each script, in an order in which each has something to do. */
    std::vector<std::function<int()>> scripted()
    {
        const auto note = [](kt_global *, const kt_mom_msg *msg, void *) {
            ADD_FAILURE() << "a section was refused: " << msg->error;
            return 0;
        };
        const auto port = [](uint32_t ifx) { return make(PORT, port_text(ifx) + " mode=1"); };
        static constexpr uint32_t MODE = 7;
        return {
            [this, port] { return kt_mom_set(peer, 4, port(1), 0, 1'000); },
            [this, port] { return kt_mom_setow(peer, 4, port(2), 0, 0, 0); },
            [this, port] { return kt_mom_hset(peer, 4, port(1), &MODE, 1); },
            [this, port] { return kt_mom_hset_if_sync(peer, 4, port(1), port(1), &MODE, 1); },
            [this] { return kt_mom_dsbegin_sync(peer, 4, make(PORT), 0, 1); },
            [this, note] { return kt_mom_dsend(peer, 4, make(PORT), 0, note); },
            [this, note] { return kt_mom_dsbegin_ow(peer, 4, make(PORT), 0, 1, note, nullptr, 0); },
            [this, note] { return kt_mom_dsend_ow(peer, 4, make(PORT), 0, note, nullptr, 0); },
            [this] { return kt_mom_del_ow(peer, 4, make(PORT), 0, 0, 0); },
            [this, port] { return kt_mom_del(peer, 4, port(1), 0, 0); },
            [] { return linux_mom_clock_ahead(0), 0; },
        };
    }

    std::unique_ptr<RedisServer> server;
    kt_global *program = nullptr;
    kt_global *peer = nullptr;
    Seen seen;
    std::map<std::string, std::string> view;
};

TEST_F(MomRedis, AKilledServerIsAnotherOneWhetherItKeptItsDataOrNot)
{
    for (const bool keeps_data : {true, false}) {
        begin(keeps_data);
        set("index.ifx=1 mode=7");
        subscribe();
        EXPECT_EQ(view.size(), 1U);
        server->kill(); /* its socket stays */
        EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=2"), 0, 0), 0) << "or is reported";
        EXPECT_TRUE(until([] { return link_events.size() == 2; }));
        EXPECT_THAT(std::exchange(link_events, {}), ElementsAre("lost", "lost"));
        EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=2"), 0, 0), -ENOTCONN);
        EXPECT_EQ(kt_mom_client_connect_sync(program, 4), -ENOTCONN);
        server->start();
        settle();
        EXPECT_THAT(std::exchange(link_events, {}), ElementsAre("back 1", "back 1"));
        seen.take();
        EXPECT_EQ(get("index.ifx=1"), keeps_data ? "index.ifx=1 mode=7" : "");
        EXPECT_EQ(get("index.ifx=2"), "");
        EXPECT_EQ(linux_mom_look(peer, 4).foreign, 0U) << "what is not there is not foreign";
        set("index.ifx=3");
        settle();
        EXPECT_THAT(seen.take(), IsEmpty()) << "no subscription stands";
        subscribe();
        EXPECT_EQ(seen.lines.back(), "over");
        linux_loop_reset();
        view.clear();
    }
}

TEST_F(MomRedis, AMasterThatWasAReplicaMeanwhileIsAnotherServer)
{
    begin();
    for (const std::string &id : server->clients("name=vvlan:"))
        server->command({"CLIENT", "KILL", "ID", id});
    server->command({"REPLICAOF", "127.0.0.1", "1"});
    server->command({"REPLICAOF", "NO", "ONE"});
    EXPECT_TRUE(until([] { return link_events.size() == 4; }));
    EXPECT_THAT(link_events, ElementsAre("lost", "lost", "back 1", "back 1"));
}

TEST_F(MomRedis, AServerThatStillLoadsIsAskedUntilItHasItsData)
{
    server = std::make_unique<RedisServer>(std::vector<std::string>{"--appendonly", "yes"});
    use_server();
    begin_clients();
    set("index.ifx=1 mode=7");
    EXPECT_EQ(get("index.ifx=1"), "index.ifx=1 mode=7");
    server->command({"EVAL", "for i = 1, 40000 do redis.call('SET', i, '') end", "0"});
    server->kill();
    const pid_t slow = start_slowly("100");
    const auto refused =
        [this] { /* how often */
                 const std::string errors = server->command({"INFO", "errorstats"});
                 const size_t at = errors.find("LOADING:count=");
                 return at == errors.npos ? 0 : std::stoi(errors.substr(at + 14));
        };
    EXPECT_TRUE(until([&] { return refused() >= 3; }));
    EXPECT_FALSE(linux_mom_look(program, 4).is_up);
    EXPECT_EQ(server->command({"CONFIG", "SET", "key-load-delay", "-10"}), "OK"); /* quicker */
    EXPECT_EQ(get(client(), PORT, "index.ifx=1", nullptr), "index.ifx=1 mode=7") << "waits for it";
    settle();
    EXPECT_THAT(link_events, ElementsAre("lost", "lost", "back 1", "back 1"));
    EXPECT_EQ(get("index.ifx=1"), "index.ifx=1 mode=7");
    subscribe();
    EXPECT_EQ(view, stored());
    kill(slow, SIGKILL);
    waitpid(slow, nullptr, 0);
}

TEST_F(MomRedis, AFrozenServerIsLeftAndFoundAgain)
{
    begin();
    for (const uint32_t ifx : {1U, 2U})
        set(port_text(ifx));
    subscribe();
    server->freeze();
    linux_mom_clock_ahead(0); /* probes now */
    EXPECT_TRUE(until([] { return link_events.size() == 2; }));
    EXPECT_EQ(kt_mom_scan_sync(program, 4, make(PORT), 0, record, &seen), -ENOTCONN);
    server->thaw();
    steal(2);
    seen.take();
    settle();
    EXPECT_THAT(link_events, ElementsAre("lost", "lost", "back 2", "back 2"));
    EXPECT_THAT(seen.take(),
                ElementsAre("resync", "start", "set index.ifx=1", "over", "del index.ifx=2"));
    server->freeze();
    int status = 0;
    EXPECT_EQ(get(program, PORT, "index.ifx=1", &status), "");
    EXPECT_EQ(status, -ENOTCONN) << "a call that waits does not wait for ever";
    server->thaw();
    settle();
    EXPECT_EQ(view, stored());
}

TEST_F(MomRedis, AProgramThatStoodStillItselfHasNotLostTheServer)
{
    begin();
    subscribe();
    EXPECT_EQ(set("index.ifx=1"), 0); /* not sent yet */
    EXPECT_EQ(server->command({"BLPOP", "nothing", "3.5"}), "") << "the loop is not turned";
    linux_mom_clock_ahead(0);
    settle();
    EXPECT_THAT(link_events, IsEmpty());
    EXPECT_EQ(view.size(), 1U);
}

TEST_F(MomRedis, OneLinkThatIsCutIsBothAndNothingIsLost)
{
    begin();
    for (const uint32_t ifx : {1U, 2U, 3U})
        set(port_text(ifx));
    subscribe();
    for (const auto &[role, stolen] : {std::pair{":subscriber", 1U}, {":command", 2U}}) {
        for (const std::string &id : server->clients(role))
            server->command({"CLIENT", "KILL", "ID", id});
        steal(stolen);
        EXPECT_TRUE(until([] { return link_events.size() == 4; }));
        settle();
        EXPECT_THAT(std::exchange(link_events, {}),
                    testing::UnorderedElementsAre("lost", "lost", "back 2", "back 2"));
        EXPECT_EQ(view, stored());
    }
    EXPECT_EQ(view.size(), 1U);
}

TEST_F(MomRedis, WhatIsRefusedForWantOfAScriptIsReportedAndThenWorks)
{
    begin();
    kt_global_finish(program);
    for (const std::function<int()> &request : scripted()) {
        server->command({"SCRIPT", "FLUSH"});
        EXPECT_THAT(request(), testing::AnyOf(0, -ENOTCONN));
        EXPECT_TRUE(until([] { return link_events.size() == 2; }));
        settle();
        EXPECT_THAT(std::exchange(link_events, {}), ElementsAre("lost", "back 2"));
        EXPECT_EQ(request(), 0);
        settle();
        EXPECT_THAT(link_events, IsEmpty());
    }
}

TEST_F(MomRedis, AUserNeedsNoMoreRightsThanTheListOfThem)
{
    begin_server();
    server->command({"ACL", "SETUSER", "daemon", "reset", "on", ">secret"});
    std::ifstream header(VVLAN_SOURCE_DIR "/linux/redis_script.h");
    std::string rights = "user default on nopass";
    for (std::string line; std::getline(header, line) && line != " */";) {
        std::istringstream words(line.substr(std::min<size_t>(2, line.size())));
        for (std::string word; words >> word && std::string("~&+").find(word[0]) != word.npos;) {
            EXPECT_EQ(server->command({"ACL", "SETUSER", "daemon", word}), "OK") << word;
            rights += " " + word;
        }
    }
    std::ostringstream installed;
    installed << std::ifstream(VVLAN_SOURCE_DIR "/packaging/debian/mom.conf").rdbuf();
    EXPECT_THAT(installed.str(), HasSubstr("\n" + rights + "\n")) << "the package's server too";
    const std::string password = server->directory() + "/password";
    std::ofstream(password) << "secret\n";
    use_server(password, "daemon");
    begin_clients();
    subscribe();
    EXPECT_EQ(kt_mom_watch(program, 4, record, &seen), 0);
    for (const std::function<int()> &request : scripted())
        EXPECT_EQ(request(), 0);
    EXPECT_EQ(set("index.ifx=3"), 0);
    EXPECT_EQ(kt_mom_clear_expire(peer, 4, make(PORT, "index.ifx=3"), 0, 0), 0);
    EXPECT_EQ(kt_mom_publish(peer, 4, make(PORT, "index.ifx=3")), 0);
    EXPECT_EQ(get("index.ifx=3"), "index.ifx=3");
    EXPECT_EQ(kt_mom_setow(peer, 4, make(PORT, "index.ifx=4"), 0, 0, 0), 0);
    EXPECT_EQ(kt_mom_set(peer, 4, make(PORT, "index.ifx=5"), 0, 1), 0);
    EXPECT_EQ(kt_mom_dsbegin_sync(program, 4, make(PORT, "index.ifx=3"), 0, 1), 0);
    settle();
    EXPECT_EQ(view, stored());
    kt_mom_unsubscribe(program, 4, make(PORT), 0, record, &seen);
    settle();
    linux_mom_clock_ahead(60'000); /* all three are overdue */
    settle();
    EXPECT_THAT(stored(), IsEmpty());
    EXPECT_THAT(link_events, IsEmpty());
    EXPECT_EQ(server->command({"ACL", "LOG"}), "");
}

TEST_F(MomRedis, ASubscriberThatWasTooSlowStartsOver)
{
    begin();
    server->command({"CONFIG", "SET", "client-output-buffer-limit", "pubsub 65536 0 0"});
    for (const uint32_t ifx : {1U, 2U})
        set(port_text(ifx));
    subscribe();
    kt_mom_del(peer, 4, make(PORT, "index.ifx=1"), 0, 0);
    for (uint32_t i = 0; i < 20'000; i++) {
        set("index.ifx=" + std::to_string(3 + i % 100) + " mode=" + std::to_string(i));
        if (i % 1'000 == 0)
            get("index.ifx=1"); /* all is done; the follower sees none of it */
    }
    get("index.ifx=1");
    settle();
    EXPECT_EQ(losses(), 1U);
    EXPECT_THAT(link_events, ElementsAre("lost", "back 2"));
    EXPECT_EQ(view.size(), 101U);
    EXPECT_EQ(view, stored());
}

TEST_F(MomRedis, AFullMemoryRefusesAndIsReported)
{
    begin();
    set("index.ifx=1 mode=1");
    subscribe();
    server->command({"CONFIG", "SET", "maxmemory", "1"});
    linux_mom_clock_ahead(0);
    settle();
    EXPECT_THAT(link_events, IsEmpty()) << "who does not write stays";
    EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=1 mode=2"), 0, 0), 0);
    EXPECT_TRUE(until([] { return link_events.size() == 2; }));
    EXPECT_THAT(link_events, ElementsAre("lost", "back 2"));
    settle();
    EXPECT_EQ(view, stored()) << "refused whole: neither stored nor told";
    EXPECT_EQ(kt_mom_del(program, 4, make(PORT, "index.ifx=1"), 0, 0), 0);
    settle();
    EXPECT_THAT(stored(), IsEmpty()) << "deleting makes room";
    server->command({"CONFIG", "SET", "maxmemory", "0"});
    EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=1 mode=3"), 0, 0), 0);
    settle();
    EXPECT_EQ(view, stored());
    EXPECT_EQ(losses(), 1U);
}

TEST_F(MomRedis, WhatIsNoObjectIsReportedOnceAndPassedOver)
{
    begin();
    set("index.ifx=1 mode=1");
    set("index.ifx=2");
    const std::string key = object::key(*make(PORT, "index.ifx=7"));
    get("index.ifx=1");
    server->command({"SELECT", "4"});
    const std::string whole =
        server->command({"HGET", PORT, object::key(*make(PORT, "index.ifx=1"))});
    testing::internal::CaptureStderr();
    const std::vector<std::string> values = {"",
                                             "foreign",
                                             whole.substr(0, 3),
                                             whole.substr(0, 9),
                                             whole + "\x7f",
                                             whole /* of another key */,
                                             "K" + std::string(40, '\xff')};
    subscribe();
    for (const std::string &value : values) {
        server->command({"HSET", PORT, key, value});
        server->command({"HSET", PORT, "odd key", value});
        server->command({"PUBLISH", std::string("4:") + PORT, value});
        server->command({"PUBLISH", std::string("4:") + PORT,
                         "\x1c" + std::string(8, 'w') + std::string(1, '\0') +
                             static_cast<char>(key.size()) + key + std::string(1, '\0')});
        EXPECT_EQ(stored().size(), 2U) << testing::PrintToString(value);
        EXPECT_EQ(get("index.ifx=7"), "");
        kt_mom_dsbegin_sync(program, 4, make(PORT, "index.ifx=7"), 0, 0);
        kt_mom_dsend(program, 4, make(PORT, "index.ifx=7"), 0, nullptr);
    }
    kt_mom_scan(program, 4, make(PORT), 0, record, &seen);
    settle();
    EXPECT_EQ(view.size(), 2U);
    EXPECT_THAT(seen.lines, testing::Not(testing::Contains("gone")));
    EXPECT_EQ(losses(), 0U);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_THAT(said, HasSubstr("p_bridge.vvlan_port_cfg index.ifx=7 is no object"));
    EXPECT_THAT(said, HasSubstr("p_bridge.vvlan_port_cfg key 6f6464206b6579 is no object"));
    size_t times = 0;
    for (size_t at = 0; (at = said.find("index.ifx=7 is", at)) != said.npos; at++)
        times++;
    EXPECT_EQ(times, 2U) << "once by each client";
    EXPECT_GT(linux_mom_look(peer, 4).foreign, values.size());
}

TEST_F(MomRedis, WhatIsNoObjectGivesWayToOne)
{
    begin();
    subscribe();
    const std::string key = object::key(*make(PORT, "index.ifx=7"));
    server->command({"SELECT", "4"});
    server->command({"HSET", PORT, key, "foreign"});
    const Made fields = make(PORT, "index.ifx=7 mode=3");
    kt_mom_hset(peer, 4, fields, std::array{7U}.data(), 1);
    EXPECT_EQ(get("index.ifx=7"), "index.ifx=7 mode=3");
    server->command({"HSET", PORT, key, "foreign"});
    settle();
    seen.take(); /* a deletion is told with its key */
    kt_mom_del(peer, 4, make(PORT, "index.ifx=7"), 0, 0);
    settle();
    EXPECT_THAT(seen.take(), ElementsAre("del index.ifx=7"));
    /* The kind's place is taken by something else. */
    server->command({"SET", PORT, "a text"});
    EXPECT_THAT(stored(), IsEmpty());
    int status = 0;
    EXPECT_EQ(get(peer, PORT, "index.ifx=1", &status), "");
    EXPECT_EQ(status, -EIO) << "whether there is one cannot be said";
    kt_mom_scan(program, 4, make(PORT), 0, record, &seen);
    kt_mom_dsbegin_sync(program, 4, make(PORT), 0, 0);
    settle();
    EXPECT_THAT(seen.take(), ElementsAre("over"));
    kt_mom_del(peer, 4, make(PORT, "index.ifx=1"), 0, 0);
    kt_mom_dsend(program, 4, make(PORT), 0, nullptr);
    settle();
    EXPECT_EQ(server->command({"GET", PORT}), "a text") << "to delete no object changes nothing";
    set("index.ifx=1");
    EXPECT_EQ(get("index.ifx=1"), "index.ifx=1");
    EXPECT_EQ(losses(), 0U);
}

/* Expiry, sections and owners are kept under names that anybody can write to. */
TEST_F(MomRedis, BooksThatAreNoneGiveWay)
{
    begin();
    server->command({"SELECT", "4"});
    const std::string pending = std::string("vvlan:pending:") + PORT;
    for (const std::string &book : {std::string("vvlan:expiry"), pending})
        server->command({"SET", book, "a text"});
    server->command({"ZADD", "vvlan:deadlines", "0", "none"});
    server->command({"ZADD", "vvlan:leases", "0", "gone"});
    server->command({"SADD", "vvlan:owned:gone", "none"});
    testing::internal::CaptureStderr();
    linux_mom_clock_ahead(0);
    settle();
    EXPECT_EQ(set("index.ifx=1"), 0);
    settle();
    EXPECT_EQ(get("index.ifx=1"), "index.ifx=1");
    for (const char *book : {"vvlan:deadlines", "vvlan:leases"})
        EXPECT_EQ(server->command({"ZRANGE", book, "0", "0"}), "") << book;
    EXPECT_EQ(losses(), 0U);
    const std::string said = testing::internal::GetCapturedStderr();
    for (const std::string &what :
         {std::string("vvlan:expiry"), pending, std::string("a deadline \"none\""),
          std::string("a member \"none\"")})
        EXPECT_THAT(said, HasSubstr("database 4: " + what + " is not what is kept there"));
}

TEST_F(MomRedis, AServerThatRefusesIsTriedAgain)
{
    begin();
    set("index.ifx=1");
    subscribe();
    const std::string password = server->directory() + "/password";
    std::ofstream(password) << "wrong\n";
    server->command({"CONFIG", "SET", "requirepass", "secret"});
    server->command({"AUTH", "secret"});
    testing::internal::CaptureStderr();
    for (const std::string &id : server->clients("name=vvlan:"))
        server->command({"CLIENT", "KILL", "ID", id});
    const int before = connections();
    EXPECT_TRUE(until([&] { return connections() >= before + 4; })) << "tries again and again";
    EXPECT_FALSE(linux_mom_look(program, 4).is_up);
    std::filesystem::remove(password);
    use_server(password);
    const int refused = connections();
    EXPECT_TRUE(until([&] { return connections() >= refused + 2; }));
    std::ofstream(password) << "secret\n";
    settle();
    EXPECT_THAT(link_events, ElementsAre("lost", "lost", "back 2", "back 2"));
    EXPECT_EQ(view, stored());
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_THAT(said, HasSubstr("NOAUTH"));
    EXPECT_THAT(said, HasSubstr("PASSWORD_FILE=" + password + ": No such file or directory"));
    EXPECT_THAT(said, testing::Not(HasSubstr("secret")));
}

TEST_F(MomRedis, AnOwnerThatDiesIsCleanedUpAfterAndOneThatLeavesAtOnce)
{
    begin_server();
    const pid_t child = fork();
    if (child == 0) {
        kt_global *mine = client();
        for (const char *text : {"index.ifx=1", "index.ifx=2"})
            kt_mom_setow(mine, 4, make(PORT, text), 0, 0, 0);
        const bool is_done = !get(mine, PORT, "index.ifx=2", nullptr).empty();
        _exit(is_done ? 0 : 1); /* dies: no farewell */
    }
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    begin_clients();
    subscribe();
    kt_global *third = client();
    kt_mom_setow(third, 4, make(PORT, "index.ifx=3"), 0, 0, 0);
    kt_mom_set(third, 4, make(PORT, "index.ifx=4"), 0, 0);
    settle();
    EXPECT_EQ(view.size(), 4U);
    linux_mom_clock_ahead(9'000);
    settle();
    EXPECT_EQ(view.size(), 4U) << "leases run";
    linux_mom_clock_ahead(16'000);
    settle();
    EXPECT_EQ(view.size(), 2U) << "the third client has renewed its own in time";
    kt_mom_set(third, 4, make(PORT, "index.ifx=5"), 0, 0);
    kt_global_finish(third);
    settle();
    EXPECT_EQ(view.size(), 2U);
    EXPECT_EQ(view, stored()) << "what it wrote last is there, what it owned is gone";
    EXPECT_EQ(server->command({"KEYS", "vvlan:*"}), "") << "nothing is left behind";
}

/* As a program asks that wants to know all whenever something is configured. */
TEST_F(MomRedis, EqualScansThatWaitWalkTheServerOnceAndMissNothing)
{
    begin();
    constexpr size_t PORTS = 3'000, SCANS = 60;
    for (uint32_t ifx = 1; ifx <= PORTS; ifx++)
        set(port_text(ifx) + " mode=1");
    subscribe();
    server->command({"CONFIG", "RESETSTAT"});
    std::array<Seen, SCANS> scans;
    for (uint32_t i = 0; i < SCANS; i++) {
        kt_mom_set(program, 4, make(PORT, port_text(10'000 + i)), 0, 0);
        kt_mom_del(program, 4, make(PORT, port_text(1 + i)), 0, 0);
        kt_mom_scan(program, 4, make(PORT), 0, record, &scans[i]);
    }
    for (uint32_t i = 0; i < 200; i++) /* somebody else is at it as well */
        set(port_text(2'000 + i % 50) + " mode=" + std::to_string(i));
    settle();
    for (uint32_t i = 0; i < SCANS; i++) {
        const Lines &lines = scans[i].lines;
        ASSERT_GT(lines.size(), PORTS - SCANS) << i;
        EXPECT_EQ(lines.back(), "over");
        EXPECT_THAT(lines, testing::Contains("set " + port_text(10'000 + i)));
        EXPECT_THAT(lines, testing::Not(testing::Contains("set " + port_text(1 + i) + " mode=1")));
    }
    EXPECT_EQ(view, stored());
    const std::string stats = server->command({"INFO", "commandstats"});
    const size_t at = stats.find("cmdstat_hscan:calls=");
    ASSERT_NE(at, stats.npos);
    EXPECT_LE(std::stoul(stats.substr(at + 20)), 3U * (PORTS / 500 + 1)) << "a few walks at most";
}

TEST_F(MomRedis, ALongScanAndChangesAllTheWhile)
{
    begin();
    constexpr uint32_t PORTS = 5'000;
    for (uint32_t ifx = 1; ifx <= PORTS; ifx++)
        set(port_text(ifx));
    std::mt19937 random;
    uint32_t told = 0;
    seen.then = [&](const kt_mom_msg &msg) {
        follow(msg);
        const uint32_t port = 1 + static_cast<uint32_t>(random() % PORTS);
        if (++told > 8 * PORTS)
            return;
        if (told % 3 == 0)
            kt_mom_del(peer, 4, make(PORT, port_text(port)), 0, 0);
        else
            set(port_text(port) + " mode=" + std::to_string(told));
    };
    subscribe();
    EXPECT_GT(told, 8 * PORTS);
    EXPECT_EQ(view, stored());
    EXPECT_EQ(linux_mom_look(program, 4).dropped, 0U);
    seen.lines.clear();

    /* Sections and scans of many pages; the program's own objects stay. */
    for (uint32_t ifx = 1; ifx <= 100; ifx++)
        kt_mom_set(program, 4, make(PORT, port_text(ifx)), 0, 0);
    EXPECT_EQ(kt_mom_dsbegin_sync(program, 4, make(PORT), 0, 0), 0);
    set("index.ifx=200 mode=9");
    get("index.ifx=200");
    EXPECT_EQ(kt_mom_dsend(program, 4, make(PORT), 0, nullptr), 0);
    settle();
    EXPECT_EQ(view.size(), 101U);
    EXPECT_EQ(view, stored());
}

/* A page of a megabyte is long on its way; what is deleted meanwhile is told before it is there. */
TEST_F(MomRedis, AChangeThatOvertakesAPageIsNotUndoneByIt)
{
    begin();
    const char *const kind = "s_cluster.reg_pkt_info";
    const auto named = [kind](int number) {
        return make(kind, "index.name=n" + std::to_string(number) + std::string(2'000, 'x'));
    };
    for (int i = 0; i < 500; i++)
        kt_mom_set(peer, 4, named(i), 0, 0);
    EXPECT_EQ(kt_mom_subscribe(program, 4, make(kind), 0, record, &seen), 0);
    settle();
    for (int i = 0; i < 50; i++) {
        kt_mom_scan(program, 4, make(kind), 0, record, &seen);
        kt_mom_del(peer, 4, named(i), 0, 0);
        settle();
        ASSERT_EQ(view.size(), 500U - static_cast<size_t>(i) - 1);
        seen.lines.clear();
    }
}

/* What a subscription keeps, against the plain form of the same: messages, and who is known. */
TEST(MomKnown, IsWhatItShouldBeAfterAnything)
{
    mom::Known known;
    std::map<std::string, std::pair<std::string, bool>> model;
    std::mt19937 random;
    for (int i = 0; i < 200'000; i++) {
        const std::string key = "key" + std::to_string(random() % 300);
        const std::string message(random() % 60, static_cast<char>(random()));
        const auto what = random() % 200;
        if (what < 120) {
            known.put(key, message), model[key] = {message, true};
        } else if (what < 140) {
            known.put_doubtful(key, message), model[key] = {message, false};
        } else if (what < 199) {
            known.erase(key), model.erase(key);
        } else {
            known.doubt_all();
            std::ranges::for_each(model, [](auto &each) { each.second.second = false; });
        }
        if (what < 198)
            continue;
        std::map<std::string, std::string> doubtful, expected;
        mom::Known::Place place;
        while (const auto object = known.next_doubtful(&place))
            EXPECT_TRUE(doubtful.emplace(object->key, object->message).second);
        for (const auto &[name, told] : model) {
            if (!told.second)
                expected.emplace(name, told.first);
        }
        ASSERT_EQ(doubtful, expected);
    }
    known.put("large", std::string(70'000, 'x'));
    known.doubt_all();
    mom::Known::Place place;
    auto object = known.next_doubtful(&place);
    while (object && object->key != "large")
        object = known.next_doubtful(&place);
    ASSERT_TRUE(object);
    EXPECT_EQ(object->message, "") << "only the key";
}

TEST_F(MomRedis, AFullRequestQueueIsRefusedAndWhatWasTakenIsWritten)
{
    begin();
    server->freeze();
    const Made port = make(PORT, "index.ifx=1");
    uint64_t taken = 0;
    int error = 0;
    while ((error = kt_mom_set(peer, 4, port, 0, 0)) == 0)
        taken++;
    EXPECT_EQ(error, -ENOBUFS);
    server->thaw();
    EXPECT_EQ(get("index.ifx=1"), "index.ifx=1") << "the answer comes behind all the others";
    settle();
    EXPECT_THAT(link_events, IsEmpty());
    EXPECT_THAT(server->command({"INFO", "commandstats"}),
                HasSubstr("cmdstat_hset:calls=" + std::to_string(taken)));
}

} // namespace
