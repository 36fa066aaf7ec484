/*
 * A database that is not on this machine: over TLS, behind Sentinel, shared by line
 * cards. docs/many-machines.md says what is expected of each; here it is done, with
 * real servers, Sentinels and daemons on the loopback.
 */
#include "linux/linux_env.h"
#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "linux/linux_mom.h"
#include "linux/redis_find.h"
#include "tests/contract_objects.h"
#include "tests/live/command.h"
#include "tests/live/live_daemon.h"
#include "tests/live/redis_server.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using namespace contract;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int64_t PATIENCE = 60'000'000; /* microseconds */
constexpr uint32_t DATABASES[] = {0, 4, 6, 8};
constexpr const char *JOIN = "u_bridge.vvlan_join";
constexpr const char *TRAP = "u_bridge.vvlan_port_cfg";
constexpr const char *REGISTRATION = "u_bridge.mac_vid_reg";

Lines logged, events;

std::string number(uint32_t value)
{
    return std::to_string(value);
}

/* The loop turns meanwhile. */
template <typename Condition> bool until(const Condition &condition)
{
    const int64_t end = linux_loop_now() + PATIENCE;
    while (!condition()) {
        if (linux_loop_now() > end)
            return false;
        linux_loop_run_until([] { return false; }, 5'000);
    }
    return true;
}

class ManyMachines : public testing::Test
{
protected:
    ManyMachines()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "vvlan-test-XXXXXX";
        directory = mkdtemp(pattern.data());
        logged.clear();
        events.clear();
        redis::find_succeeded(0);
        linux_log_divert([](const linux_log_line &line) {
            logged.emplace_back(line.text);
            return 0;
        });
    }
    ~ManyMachines() override
    {
        linux_loop_reset();
        linux_log_divert(nullptr);
        linux_env_use({});
        std::filesystem::remove_all(directory);
    }

    /* As a daemon would find it in its environment. */
    static void use(const LiveDaemon::Environment &environment)
    {
        linux_env_settings settings;
        const auto get = [&](const char *name) -> const char * {
            const auto at =
                std::ranges::find(environment, name, [](const auto &each) { return each.first; });
            return at == environment.end() ? nullptr : at->second.c_str();
        };
        ASSERT_EQ(linux_env_parse(get, &settings), "");
        linux_env_use(settings);
    }
    static kt_global *client(std::initializer_list<uint32_t> databases = {4})
    {
        kt_global *made = kt_global_init("test", nullptr);
        for (const uint32_t db : databases)
            EXPECT_EQ(kt_mom_client_connect_sync(made, db), 0) << testing::PrintToString(logged);
        return made;
    }
    static kt_global *writing_client()
    {
        kt_global *made = client();
        EXPECT_EQ(kt_mom_client_connect(made, 4, nullptr, nullptr), 0);
        EXPECT_TRUE(linux_mom_settle(PATIENCE, [] { return true; }));
        return made;
    }
    static void store(uint32_t ifx)
    {
        EXPECT_EQ(kt_mom_set(writing_client(), 4, make(PORT, port_text(ifx)), 0, 0), 0);
        EXPECT_TRUE(linux_mom_settle(PATIENCE, [] { return true; }));
    }
    /* Every object that is stored, as text. */
    static Lines objects()
    {
        Lines all;
        kt_global *looker = client({0, 4, 6, 8});
        const auto take = [](kt_global *, const kt_mom_msg *msg, void *lines) {
            const auto *object = static_cast<const ProtobufCMessage *>(msg->object);
            if (msg->operation == KT_MOM_HSET)
                object = static_cast<const kt_mom_hash *>(msg->object)->object;
            static_cast<Lines *>(lines)->push_back(std::string(object->descriptor->name) + " " +
                                                   object::to_text(*object));
            return 0;
        };
        for (const object::Kind *kind : object::kinds()) {
            for (const uint32_t db : DATABASES)
                kt_mom_scan_sync(looker, db, object::empty(*kind).get(), KT_MOM_MATCH_EXACT, take,
                                 &all);
        }
        kt_global_finish(looker);
        std::ranges::sort(all);
        return all;
    }
    static Lines objects(const std::string &kind)
    {
        Lines all = objects();
        std::erase_if(all, [&](const std::string &line) { return !line.starts_with(kind + " "); });
        for (std::string &line : all)
            line.erase(0, kind.size() + 1);
        return all;
    }

    std::string directory;
};

/* --- TLS */

class Tls : public ManyMachines
{
protected:
    Tls()
    {
        for (const char *name : {"ca", "stranger"})
            openssl("req -x509 " + with_key(name) + " -days 2 -out " + file(name, "crt"));
        certify("server", "ca", 2);
        certify("old", "ca", -1);
        certify("card", "ca", 2);
        certify("outsider", "stranger", 2);
    }
    std::string file(const std::string &name, const char *suffix) const
    {
        return directory + "/" + name + "." + suffix;
    }
    std::string with_key(const std::string &name) const
    {
        return "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=" + name +
               " -keyout " + file(name, "key");
    }
    static void openssl(const std::string &words)
    {
        const Output said = run("openssl " + words);
        ASSERT_EQ(said.status, 0) << said.text;
    }
    void certify(const std::string &name, const std::string &ca, int days) const
    {
        const std::string request = file(name, "csr"), extensions = file(name, "ext");
        std::ofstream(extensions) << "subjectAltName=IP:127.0.0.1\n";
        openssl("req -new " + with_key(name) + " -out " + request);
        openssl("x509 -req -in " + request + " -CA " + file(ca, "crt") + " -CAkey " +
                file(ca, "key") + " -CAcreateserial -days " + std::to_string(days) + " -extfile " +
                extensions + " -out " + file(name, "crt"));
    }
    void start(const std::string &certificate = "server")
    {
        server.reset();
        server = std::make_unique<RedisServer>(std::vector<std::string>{
            "--tls-port", number(port), "--tls-cert-file", file(certificate, "crt"),
            "--tls-key-file", file(certificate, "key"), "--tls-ca-cert-file", file("ca", "crt"),
            "--tls-auth-clients", "optional"});
    }
    LiveDaemon::Environment environment(const std::string &host = "127.0.0.1") const
    {
        return {{"VVLAN_MOM", "tls:" + host + ":" + number(port)},
                {"VVLAN_MOM_CA", file("ca", "crt")}};
    }
    LiveDaemon::Environment with_certificate(const std::string &name) const
    {
        LiveDaemon::Environment all = environment();
        all.emplace_back("VVLAN_MOM_CERT", file(name, "crt"));
        all.emplace_back("VVLAN_MOM_KEY", file(name, "key"));
        return all;
    }
    /* Why no connection can be made. */
    static std::string refusal(const LiveDaemon::Environment &environment)
    {
        use(environment);
        logged.clear();
        kt_global *refused = kt_global_init("test", nullptr);
        EXPECT_EQ(kt_mom_client_connect_sync(refused, 4), -ENOTCONN);
        kt_global_finish(refused);
        return logged.empty() ? "" : logged.back();
    }

    uint16_t port = free_port();
    std::unique_ptr<RedisServer> server;
};

/* Far more than a record, than a turn and than a socket takes, both ways, both kinds of call. */
TEST_F(Tls, CarriesRequestsChangesAndScansOfAnySize)
{
    constexpr uint32_t COUNT = 20'000;
    start();
    use(environment());
    kt_global *writer = writing_client(), *reader = writing_client();
    size_t heard = 0, scanned = 0;
    const auto count = [](kt_global *, const kt_mom_msg *msg, void *counter) {
        *static_cast<size_t *>(counter) += msg->operation == KT_MOM_SET;
        return 0;
    };
    EXPECT_EQ(kt_mom_subscribe(reader, 4, make(PORT), 0, count, &heard), 0);
    EXPECT_TRUE(linux_mom_settle(PATIENCE, [] { return true; }));
    for (uint32_t ifx = 1; ifx <= COUNT; ifx++)
        ASSERT_EQ(kt_mom_set(writer, 4, make(PORT, port_text(ifx) + " mode=1"), 0, 0), 0);
    EXPECT_EQ(kt_mom_scan_sync(writer, 4, make(PORT), 0, count, &scanned), 0);
    EXPECT_EQ(scanned, COUNT);
    EXPECT_TRUE(until([&] { return heard == COUNT; })) << heard;
    EXPECT_EQ(kt_mom_scan(reader, 4, make(PORT), 0, count, &heard), 0);
    EXPECT_TRUE(linux_mom_settle(PATIENCE, [] { return true; }));
    EXPECT_EQ(heard, 2 * COUNT);
    EXPECT_THAT(logged, Not(Contains(HasSubstr("not connected"))));
}

TEST_F(Tls, RefusesEveryServerButTheRightOneAndSaysWhy)
{
    start();
    LiveDaemon::Environment with = environment();
    for (const auto &[ca, sentence] :
         {std::pair{file("stranger", "crt"), "signed by no CA in " + file("stranger", "crt")},
          {"", "signed by no CA that this host trusts; VVLAN_MOM_CA can name another"},
          {file("ca", "key"), "VVLAN_MOM_CA=" + file("ca", "key") + ": holds no certificate"},
          {directory + "/none",
           "VVLAN_MOM_CA=" + directory + "/none: No such file or directory"}}) {
        with[1].second = ca;
        EXPECT_THAT(refusal(with), HasSubstr(sentence));
    }
    const char *other = "127.1"; /* the same host by another name, which needs no resolver */
    EXPECT_THAT(refusal(environment(other)), HasSubstr("certificate is not for 127.1"));
    start("old");
    EXPECT_THAT(refusal(environment()), HasSubstr("certificate has expired"));
    server.reset();
    server = std::make_unique<RedisServer>(std::vector<std::string>{"--port", number(port)});
    EXPECT_THAT(refusal(environment()), HasSubstr("does the server speak it on this port?"));
    const std::string accepted = server->command({"INFO", "stats"});
    EXPECT_THAT(accepted, HasSubstr("total_commands_processed:0\r")) << "nothing in the clear";
}

TEST_F(Tls, ShowsACertificateToAServerThatAsks)
{
    start();
    server->command({"CONFIG", "SET", "tls-auth-clients", "yes"});
    EXPECT_THAT(refusal(environment()), HasSubstr("set VVLAN_MOM_CERT and VVLAN_MOM_KEY"));
    EXPECT_THAT(refusal(with_certificate("outsider")), HasSubstr("does not trust the CA of"));
    LiveDaemon::Environment mixed = with_certificate("card");
    mixed.back().second = file("server", "key");
    EXPECT_THAT(refusal(mixed), HasSubstr("holds no key of VVLAN_MOM_CERT"));
    use(with_certificate("card"));
    store(1);
    EXPECT_THAT(objects(PORT), ElementsAre(port_text(1)));
}

/* --- Replicas and Sentinel */

std::vector<std::string> on_port(uint16_t port)
{
    return {"--port", number(port)};
}

/* Waits until the replica has all that the master has. */
void wait_for_replica(RedisServer &master)
{
    EXPECT_TRUE(until([&] {
        return master.command({"INFO", "replication"}).find("state=online") != std::string::npos;
    }));
    EXPECT_EQ(master.command({"WAIT", "1", "10000"}), "1");
}

TEST_F(ManyMachines, AReplicaIsNotWrittenToNorListenedTo)
{
    const uint16_t port = free_port();
    RedisServer server, other(on_port(port));
    use({{"VVLAN_MOM", "unix:" + server.link()}});
    kt_global *writer = writing_client();
    kt_mom_client_set_disconnect_cb(writer, 4, [](kt_global *, uint32_t) {
        events.emplace_back("lost");
        return 0;
    });
    kt_mom_client_set_reconnect_cb(writer, 4, [](kt_global *, uint32_t, int type) {
        events.push_back("back " + std::to_string(type));
        return 0;
    });
    const auto is_told = [](const char *text) {
        return std::ranges::any_of(
            logged, [&](const std::string &line) { return line.find(text) != std::string::npos; });
    };
    const auto demote = [&](const std::function<void()> &then, const char *told) {
        server.command({"REPLICAOF", "127.0.0.1", number(port)});
        then();
        EXPECT_TRUE(until([&] { return is_told(told) && is_told("the server is a replica"); }));
        EXPECT_THAT(events, ElementsAre("lost"));
        EXPECT_EQ(kt_mom_set(writer, 4, make(PORT, port_text(2)), 0, 0), -ENOTCONN);
        server.command({"REPLICAOF", "NO", "ONE"});
        EXPECT_TRUE(until([&] { return events.size() == 2; }));
        EXPECT_THAT(events, ElementsAre("lost", "back 1")) << "it may hold other data";
        events.clear();
        logged.clear();
    };
    demote([&] { EXPECT_EQ(kt_mom_set(writer, 4, make(PORT, port_text(1)), 0, 0), 0); },
           "READONLY");
    demote([] { linux_mom_clock_ahead(0); }, "the server is a replica"); /* an idle client asks */
    EXPECT_THAT(objects(PORT), IsEmpty());
}

class Sentinel : public ManyMachines
{
protected:
    void watch_over(uint16_t master)
    {
        sentinel = std::make_unique<RedisServer>(
            on_port(port), "sentinel monitor mom 127.0.0.1 " + number(master) +
                               " 1\n"
                               "sentinel down-after-milliseconds mom 500\n"
                               "sentinel failover-timeout mom 2000\n");
    }
    std::string address(const std::string &name = "mom") const
    {
        return "sentinel:127.0.0.1:" + number(free_port()) + ",127.0.0.1:" + number(port) + "/" +
               name;
    }

    uint16_t port = free_port();
    std::unique_ptr<RedisServer> sentinel;
};

/* The first refuses, the second takes connections and never says a word, the third knows. */
TEST_F(Sentinel, IsAskedUntilOneKnowsTheServer)
{
    const uint16_t master = free_port();
    const RedisServer server(on_port(master));
    watch_over(master);
    const int silent = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof at;
    ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr *>(&at), size), 0);
    ASSERT_EQ(listen(silent, 64), 0);
    getsockname(silent, reinterpret_cast<sockaddr *>(&at), &size);
    std::string places = address();
    places.insert(places.find(','), ",127.0.0.1:" + number(ntohs(at.sin_port)));
    use({{"VVLAN_MOM", places}});
    store(1);
    EXPECT_THAT(logged, ElementsAre(HasSubstr("refused"), HasSubstr("no answer from Sentinel")));
    logged.clear();
    EXPECT_THAT(objects(PORT), ElementsAre(port_text(1)));
    EXPECT_THAT(logged, IsEmpty()) << "the one that knew is asked first";
    close(silent);

    use({{"VVLAN_MOM", address("other")}});
    kt_global *refused = kt_global_init("test", nullptr);
    EXPECT_EQ(kt_mom_client_connect_sync(refused, 4), -ENOTCONN);
    EXPECT_THAT(logged, Contains(HasSubstr("Sentinel knows no server other")));
}

/* To the Sentinel and to the server. */
TEST_F(Tls, IsSpokenToSentinelToo)
{
    start();
    const uint16_t sentinel_port = free_port();
    const RedisServer sentinel({"--tls-port", number(sentinel_port), "--tls-cert-file",
                                file("server", "crt"), "--tls-key-file", file("server", "key"),
                                "--tls-ca-cert-file", file("ca", "crt"), "--tls-auth-clients",
                                "optional", "--tls-replication", "yes"},
                               "sentinel monitor mom 127.0.0.1 " + number(port) + " 1\n");
    LiveDaemon::Environment with = environment();
    with[0].second = "sentinel:127.0.0.1:" + number(sentinel_port) + "/mom";
    use(with);
    store(1);
    EXPECT_THAT(objects(PORT), ElementsAre(port_text(1)));
    with[1].second = file("stranger", "crt");
    EXPECT_THAT(refusal(with), HasSubstr("signed by no CA in"));
}

/* --- Line cards: daemons with ports, a shell and a /run of their own */

class Card
{
public:
    Card(std::string card_directory, uint32_t first_port, LiveDaemon::Environment environment)
        : directory_(make_directory(std::move(card_directory), first_port)),
          environment_(std::move(environment))
    {
        environment_.emplace_back("VVLAN_SHELL", directory_ + "/shell.sock");
        environment_.emplace_back("RUNTIME_DIRECTORY", directory_);
        environment_.emplace_back("VVLAN_PORTS", directory_ + "/ports");
        daemon_.emplace(directory_ + "/daemon", directory_, environment_);
    }
    /* With another program than the daemon itself: its lines as a script. */
    void start(const std::string &command = VVLAN_PROGRAM_DIR "/ox.vvlan.dp")
    {
        const std::string script = directory_ + "/daemon";
        std::ofstream(script) << "#!/bin/sh\nexec " << command << "\n";
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);
        daemon_->start();
        EXPECT_TRUE(until([&] { return ctl("shell show-zlog-level").status == 0; })) << log();
    }
    void kill(int signal)
    {
        daemon_->signal(signal);
        EXPECT_NE(daemon_->wait(30'000), -1);
    }
    Output ctl(const std::string &words) const
    {
        std::string command = "env";
        for (const auto &[name, value] : environment_)
            command.append(" ").append(name).append("=").append(value);
        return run(command + " " VVLAN_PROGRAM_DIR "/vvlanctl " + words);
    }
    void configure(const std::string &words) const
    {
        const Output said = ctl(words);
        EXPECT_EQ(said.status, 0) << words << ": " << said.text;
    }
    void phone_arrives(uint32_t ifx) const
    {
        const std::string record = "index.ifx=" + number(ifx);
        EXPECT_TRUE(until([&] { return has(TRAP, record); })) << log();
        configure("notice " + number(ifx));
        EXPECT_TRUE(until([&] { return has(JOIN, record) && !has(TRAP, record); })) << log();
    }
    bool has(const std::string &kind, const std::string &text) const
    {
        return ctl("object scan " + kind).text.find(text + "\n") != std::string::npos;
    }
    /* The daemon has read everything at its start, and its sections have ended. */
    bool has_synchronised(size_t times) const
    {
        const std::string all = log(), text = "del pexpire port_cfg and port_auto successfully";
        size_t found = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
            found++;
        return found >= times;
    }
    std::string log() const
    {
        return daemon_->log();
    }

private:
    static std::string make_directory(std::string path, uint32_t first_port)
    {
        std::filesystem::create_directories(path + "/tmp");
        std::ofstream(path + "/tmp/udp_vvlan_debug") << 4;
        std::ofstream ports(path + "/ports");
        for (uint32_t ifx = first_port; ifx < first_port + 4; ifx++)
            ports << ifx << " " << 0x100 + ifx << " ge" << ifx << "\n";
        return path;
    }

    std::string directory_;
    LiveDaemon::Environment environment_;
    std::optional<LiveDaemon> daemon_;
};

void configure(const Card &card, const std::string &ports)
{
    card.configure("oui add 00:11:22/24");
    card.configure("set vlan 100 switch on aging 60");
    card.configure("port auto " + ports);
}

TEST_F(Sentinel, FailoverRestartsTheDaemonAndTheJoinIsRecovered)
{
    const uint16_t first = free_port(), second = free_port();
    RedisServer master({"--port", number(first), "--repl-diskless-sync-delay", "0"});
    RedisServer replica({"--port", number(second), "--replicaof", "127.0.0.1 " + number(first)});
    wait_for_replica(master);
    watch_over(first);
    EXPECT_TRUE(until([&] {
        return sentinel->command({"SENTINEL", "replicas", "mom"}).find("master-link-status\nok") !=
               std::string::npos;
    }));

    Card card(directory + "/card", 1, {{"VVLAN_MOM", address()}});
    card.start(VVLAN_SOURCE_DIR
               "/packaging/vvlan-supervise setpriv --pdeathsig KILL " VVLAN_PROGRAM_DIR
               "/ox.vvlan.dp");
    configure(card, "3-4");
    card.phone_arrives(3);
    use({{"VVLAN_MOM", address()}});
    const Lines before = objects();
    wait_for_replica(master);

    master.kill();
    EXPECT_TRUE(until([&] { return card.log().find("status 77") != std::string::npos; }))
        << card.log();
    EXPECT_TRUE(until([&] { return card.has_synchronised(2); })) << card.log();
    EXPECT_THAT(replica.command({"ROLE"}), testing::StartsWith("master"));
    EXPECT_THAT(replica.clients("name=vvlan:"), testing::SizeIs(testing::Ge(8)));
    EXPECT_EQ(objects(), before);
    EXPECT_THAT(card.ctl("show ports -j").text, HasSubstr("\"joined\":true"));
    EXPECT_EQ(card.ctl("shell dump_recover_entry").text, "ifx = 3\n");
    card.phone_arrives(4); /* and it works on the new server */
}

TEST_F(ManyMachines, LineCardsWithNumbersShareAServerAndNothingElse)
{
    RedisServer server(std::vector<std::string>{"--databases", "32"});
    const std::string where = "unix:" + server.link();
    const LiveDaemon::Environment of_second = {{"VVLAN_MOM", where}, {"VVLAN_MOM_CARD", "1"}};
    Card one(directory + "/1", 1, {{"VVLAN_MOM", where}}), two(directory + "/2", 1, of_second);
    one.start();
    two.start();
    configure(one, "1-2");
    one.phone_arrives(1);
    use(of_second);
    EXPECT_THAT(objects(JOIN), IsEmpty());
    EXPECT_THAT(objects(PORT), IsEmpty());
    configure(two, "2-3");
    two.phone_arrives(3);
    const Lines second = objects();
    use({{"VVLAN_MOM", where}});
    const Lines first = objects();
    one.kill(SIGTERM);
    two.kill(SIGKILL);
    EXPECT_THAT(objects(REGISTRATION), IsEmpty());
    two.start();
    EXPECT_TRUE(until([&] { return two.has_synchronised(2); })) << two.log();
    one.start();
    EXPECT_TRUE(until([&] { return one.has_synchronised(2); })) << one.log();
    EXPECT_EQ(objects(), first);
    use(of_second);
    EXPECT_EQ(objects(), second);

    use({{"VVLAN_MOM", where}, {"VVLAN_MOM_CARD", "2"}});
    kt_global *refused = kt_global_init("test", nullptr);
    EXPECT_EQ(kt_mom_client_connect_sync(refused, 4), -ENOTCONN);
    EXPECT_THAT(logged, Contains(HasSubstr("DB index is out of range")));
}

/* What docs/many-machines.md promises of it, and what it warns of. */
TEST_F(ManyMachines, LineCardsInTheSameDatabasesKeepTheirJoinsOnly)
{
    RedisServer server;
    const std::string where = "unix:" + server.link();
    Card one(directory + "/1", 1, {{"VVLAN_MOM", where}});
    Card two(directory + "/2", 5, {{"VVLAN_MOM", where}});
    one.start();
    two.start();
    configure(one, "1-2");
    configure(two, "5-6");
    one.phone_arrives(1);
    two.phone_arrives(5);
    use({{"VVLAN_MOM", where}});
    EXPECT_THAT(objects(JOIN), ElementsAre(port_text(1), port_text(5)));
    EXPECT_THAT(objects(TRAP), ElementsAre(port_text(2), port_text(6)));
    two.kill(SIGKILL);
    two.start();
    EXPECT_TRUE(until([&] { return two.has_synchronised(2); })) << two.log();
    EXPECT_TRUE(until([&] { return objects(TRAP).size() == 1; }));
    EXPECT_THAT(objects(JOIN), ElementsAre(port_text(1), port_text(5)));
    EXPECT_THAT(objects(TRAP), ElementsAre(port_text(6))) << "the other's trap record is gone";
    EXPECT_THAT(objects(REGISTRATION), ElementsAre("index.vid=100"));
    two.kill(SIGTERM);
    EXPECT_THAT(objects(REGISTRATION), IsEmpty()) << "the last writer took it along";
}

/* Everything that one does to the database, from the daemon's start to its end. */
void live_through_all(Card &card)
{
    card.start();
    configure(card, "1-2");
    card.phone_arrives(1);
    for (const char *words :
         {"mac learn 1 00:11:22:33:44:55", "show", "show events",
          "object scan p_bridge.vvlan_glb_cfg",
          "object publish s_bridge.vvlan_port_noty index.phyid=258", "set cos 5",
          "object set p_bridge.vvlan_port_cfg index.ifx=4 mode=1",
          "object del p_bridge.vvlan_port_cfg index.ifx=4", "mac gone 1 00:11:22:33:44:55"})
        card.configure(words);
    card.kill(SIGKILL);
    card.start();
    EXPECT_TRUE(until([&] { return card.has_synchronised(2); })) << card.log();
    card.configure("port del 2");
    card.configure("oui del 00:11:22/24");
    card.kill(SIGTERM);
}

/* The rules of the private database's user, which others are told to use as well. */
TEST_F(ManyMachines, ShippedRightsSufficeAndAllowNothingElse)
{
    const Output rules =
        run("sed -n 's/^user default on nopass//p' " VVLAN_SOURCE_DIR "/packaging/debian/mom.conf");
    ASSERT_THAT(rules.text, HasSubstr(" +evalsha"));
    const std::string password_file = directory + "/password";
    std::ofstream(password_file) << "secret\n";
    for (const std::string user : {"default", "card"}) {
        std::vector<std::string> options = {"--user", "admin", "on", "nopass",
                                            "+@all",  "~*",    "&*", "--user"};
        for (const char *word : {user.c_str(), "on", user == "card" ? ">secret" : "nopass"})
            options.emplace_back(word);
        std::istringstream words(rules.text);
        options.insert(options.end(), std::istream_iterator<std::string>(words), {});
        if (user == "card")
            options.insert(options.end(), {"--user", "default", "off"});
        RedisServer server(options);
        server.command({"AUTH", "admin", "-"});
        LiveDaemon::Environment with = {{"VVLAN_MOM", "unix:" + server.link()}};
        if (user == "card") {
            with.emplace_back("VVLAN_MOM_USER", user);
            with.emplace_back("VVLAN_MOM_PASSWORD_FILE", password_file);
        }
        Card card(directory + "/" + user, 1, with);
        live_through_all(card);
        EXPECT_EQ(server.command({"ACL", "LOG"}), "");
        for (const char *more :
             {"FLUSHALL", "CONFIG GET dir", "KEYS '*'", "SHUTDOWN NOSAVE", "ACL LIST",
              "HSET other a b", "PUBLISH other text", "REPLICAOF NO ONE"})
            EXPECT_THAT(run("redis-cli -s " + server.link() + " --no-auth-warning --user " + user +
                            " --pass secret " + more)
                            .text,
                        HasSubstr("NOPERM"));
    }
}

} // namespace
