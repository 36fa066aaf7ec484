/*
 * The scenarios of the simulated switch, replayed against the daemon as a process
 * on Redis, through vvlanctl.
 *
 * A scenario is first played in the simulator, which tells what operator, switch and
 * accidents did to the databases and to the daemon, and every object that stood
 * whenever all had settled (replay_record.cpp). Then the same is done with vvlanctl,
 * signals, and a server that lets the daemon go, and the same objects must stand at
 * every such moment. A frame counts as what the switch told the databases of it. A
 * scenario that plans faults inside the simulated platform is left out and says so.
 * Hours of silence pass as in the simulator: see replay_daemon.cpp.
 */
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>

#include "ctl/ctl.h"
#include "ctl/ctl_shell.h"
#include "linux/linux_env.h"
#include "linux/linux_loop.h"
#include "linux/linux_mom.h"
#include "object/object.h"
#include "platform/kt_mom.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/s_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"
#include "tests/live/command.h"
#include "tests/live/live_daemon.h"
#include "tests/live/redis_server.h"
#include "words/words.h"

namespace
{

using Lines = std::vector<std::string>;

constexpr const char *PROGRAMS = VVLAN_PROGRAM_DIR "/";
constexpr int64_t PATIENCE = 30'000'000; /* microseconds, for the daemon to get somewhere */
constexpr int64_t POLL = 1'000;
constexpr int ENDING = 30'000; /* milliseconds */
constexpr uint32_t DATABASES[] = {0, 4, 6, 8};

/* Polls until it holds; the loop turns meanwhile. */
template <typename Condition> bool until(const Condition &condition)
{
    const int64_t end = linux_loop_now() + PATIENCE;
    while (!condition()) {
        if (linux_loop_now() > end)
            return false;
        linux_loop_run_until([] { return false; }, POLL);
    }
    return true;
}

/* One change by operator or switch, as the recording has it. */
struct Write {
    std::string verb, db, kind, text;
    std::vector<uint32_t> fields;
    object::Message message;
};

Write write_of(const std::string &line)
{
    Write write;
    std::istringstream words(line.substr(0, line.find('|')));
    std::string numbers;
    words >> write.verb >> write.db >> write.kind >> numbers;
    std::istringstream list(numbers);
    for (std::string number; std::getline(list, number, ',');)
        write.fields.push_back(static_cast<uint32_t>(std::stoul(number)));
    write.text = line.substr(line.find('|') + 2);
    write.message =
        object::from_text(*object::kind_by_name(write.kind), write.text, nullptr, nullptr);
    return write;
}

template <typename Object> const Object &as(const Write &write)
{
    return *reinterpret_cast<const Object *>(write.message.get());
}

/* What a person would type; the second form writes the object as such. */
struct Typed {
    std::string command, as_object;
};

std::string number(uint32_t value)
{
    return std::to_string(value);
}

Typed typed_settings(const Write &write)
{
    const auto &glb = as<PBridge__VvlanGlbCfg>(write);
    Typed typed{"set", "object hset " + write.kind};
    const auto add = [&typed](const std::string &words, const std::string &fields) {
        typed.command += " " + words;
        typed.as_object += " " + fields;
    };
    for (const uint32_t field : write.fields) {
        if (field == 5)
            add("vlan " + number(glb.glb_switch->vlan) + " switch " +
                    (glb.glb_switch->enable != 0 ? "on" : "off"),
                "glb_switch.vlan=" + number(glb.glb_switch->vlan) +
                    " glb_switch.enable=" + number(glb.glb_switch->enable));
        else if (field == 6)
            add(std::string("security ") + (glb.secu_mode != 0 ? "on" : "off"),
                "secu_mode=" + number(glb.secu_mode));
        else if (field == 7)
            add("aging " + number(glb.age_time), "age_time=" + number(glb.age_time));
        else
            add("cos " + number(glb.qos->cos) + " dscp " + number(glb.qos->dscp),
                "qos.cos=" + number(glb.qos->cos) + " qos.dscp=" + number(glb.qos->dscp));
    }
    return typed;
}

Typed typed_port(const Write &write)
{
    const auto &port = as<PBridge__VvlanPortCfg>(write);
    const char *mode = write.verb == "delete" ? "del "
                       : port.enable == 0     ? "off "
                       : port.mode != 0       ? "auto "
                                              : "manual ";
    return {"port " + (mode + number(port.index->ifx)),
            "object set " + write.kind + " " + write.text};
}

Typed typed(const Write &write)
{
    const bool is_gone = write.verb == "delete";
    if (write.kind == "p_bridge.vvlan_glb_cfg")
        return typed_settings(write);
    if (write.kind == "p_bridge.vvlan_port_cfg")
        return typed_port(write);
    if (write.kind == "s_bridge.vvlan_port_noty")
        return {"notice --phyid " + number(as<SBridge__VvlanPortNoty>(write).index->phyid), ""};
    if (write.kind == "p_bridge.vvlan_oui_cfg") {
        const auto *index = as<PBridge__VvlanOuiCfg>(write).index;
        return {(is_gone ? "oui del " : "oui add ") +
                    words::oui({words::mac_of(index->mac), words::mac_of(index->mask)}),
                ""};
    }
    const auto &learnt = as<UBridge__MacVidRegNoti>(write);
    return {"mac " + (is_gone ? "gone" : "learn " + number(learnt.port_id)) + " " +
                words::mac(words::mac_of(learnt.index->t_mac)) + " --vlan " +
                number(learnt.index->t_fid),
            ""};
}

int collect(kt_global *, const kt_mom_msg *msg, void *user)
{
    const auto *object = static_cast<const ProtobufCMessage *>(msg->object);
    if (msg->operation == KT_MOM_HSET)
        object = static_cast<const kt_mom_hash *>(msg->object)->object;
    const std::string kind = object->descriptor->name;
    static_cast<Lines *>(user)->push_back(number(*words::database_of(kind)) + " " + kind + " " +
                                          object::to_text(*object));
    return 0;
}

/*
 * In one form: which OUI has which ACE id follows from the order in which the
 * platform's scan told of them, and that is left to the platform.
 */
Lines comparable(Lines lines)
{
    constexpr std::string_view ACE_ID = " index.ace_id=";
    Lines ids;
    for (std::string &line : lines) {
        const size_t at = line.find(ACE_ID);
        if (at == std::string::npos)
            continue;
        const size_t end = line.find(' ', at + 1);
        ids.push_back("ACE id " + line.substr(at + ACE_ID.size(), end - at - ACE_ID.size()));
        line.erase(at, end - at);
    }
    lines.insert(lines.end(), ids.begin(), ids.end());
    std::ranges::sort(lines);
    return lines;
}

class Replay : public testing::TestWithParam<std::filesystem::path>
{
protected:
    void SetUp() override
    {
        linux_loop_reset();
        linux_env_settings settings;
        settings.mom.path = server.socket();
        linux_env_use(settings);
        looker = kt_global_init("test", nullptr);
        for (const uint32_t db : DATABASES) {
            ASSERT_EQ(kt_mom_client_connect_sync(looker, db), 0);
            ASSERT_EQ(kt_mom_client_connect(looker, db, nullptr, nullptr), 0);
        }
        setenv("VVLAN_MOM", ("unix:" + server.socket()).c_str(), 1);
        setenv("VVLAN_SHELL", shell.c_str(), 1);
        setenv("VVLAN_PORTS", ports.c_str(), 1);
        std::ofstream(ports).close();
        std::ofstream(directory + "/password") << "any\n";
        allow();
    }
    void TearDown() override
    {
        linux_loop_reset();
        if (HasFailure())
            printf("-- daemon.log\n%s\n", daemon.log().c_str());
    }

    void play(const std::string &recording);
    void play_line(const std::string &line, std::istringstream &rest);
    void write(const Write &change);
    void step(const std::string &what);
    void befall(const std::string &verb, uint32_t db, bool is_same);
    void expect_state(size_t count, std::istringstream &rest);

    /* The daemon may enter the databases that it has not lost. */
    void allow();
    void catch_up();
    Output ask(const std::string &command) const;
    std::pair<bool, Lines> objects();

    RedisServer server{true};
    std::string directory = server.directory();
    std::string shell = directory + "/shell.sock", ports = directory + "/ports";
    LiveDaemon daemon{
        std::string(PROGRAMS) + "vvlan-replay-daemon",
        directory,
        {{"VVLAN_MOM_USER", "daemon"}, {"VVLAN_MOM_PASSWORD_FILE", directory + "/password"}}};
    kt_global *looker = nullptr;
    std::set<uint32_t> lost;
    int64_t now = 0;   /* in the scenario, milliseconds */
    int64_t there = 0; /* how far the daemon's time has passed */
    size_t states = 0;
};

void Replay::play(const std::string &recording)
{
    std::istringstream lines(recording);
    for (std::string line; std::getline(lines, line);) {
        SCOPED_TRACE("at " + number(static_cast<uint32_t>(now)) + " ms: " + line);
        play_line(line, lines);
        if (HasFailure())
            return;
    }
}

void Replay::play_line(const std::string &line, std::istringstream &rest)
{
    const size_t blank = line.find(' ');
    const std::string verb = line.substr(0, blank);
    const std::string what = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (verb == "port")
        std::ofstream(ports, std::ios::app) << what << " ge\n";
    else if (verb == "at")
        now = std::stoll(what);
    else if (verb == "write")
        write(write_of(what));
    else if (verb == "step")
        step(what);
    else if (verb == "state")
        expect_state(std::stoul(what), rest);
    else if (verb == "ended")
        EXPECT_EQ(daemon.wait(ENDING), std::stoi(what));
    else {
        ASSERT_EQ(verb, "started");
        daemon.start();
        there = now;
    }
}

/* What the tool refuses to configure, since it would not do a person good, is an object still. */
void Replay::write(const Write &change)
{
    catch_up();
    const Typed words = typed(change);
    const std::string vvlanctl = std::string(PROGRAMS) + "vvlanctl ";
    Output said = run(vvlanctl + words.command);
    if (said.status == ctl::REFUSED && !words.as_object.empty())
        said = run(vvlanctl + words.as_object);
    ASSERT_EQ(said.status, ctl::DONE) << words.command << ": " << said.text;
    catch_up();
}

void Replay::step(const std::string &what)
{
    std::istringstream words(what);
    std::string verb, argument, type;
    words >> verb >> argument >> type;
    catch_up();
    const std::map<std::string, int> SIGNALS = {
        {"TERM", SIGTERM}, {"INT", SIGINT}, {"PIPE", SIGPIPE}, {"KILL", SIGKILL}, {"", SIGKILL}};
    if (verb == "kill")
        daemon.signal(SIGNALS.at(argument));
    else if (verb == "stop" || verb == "restart")
        daemon.signal(SIGTERM);
    else if (verb != "start") /* which is told when it has started */
        befall(verb, static_cast<uint32_t>(std::stoul(argument)), type == "type=2");
}

void Replay::befall(const std::string &verb, uint32_t db, bool is_same)
{
    if (verb == "clear") {
        EXPECT_EQ(server.command({"SELECT", number(db)}), "OK");
        EXPECT_EQ(server.command({"FLUSHDB"}), "OK");
        return;
    }
    if (verb == "disconnect") {
        lost.insert(db);
        allow();
        const std::string name = "vvlan:" + std::to_string(daemon.pid()) + ":" + number(db) + ":";
        for (const std::string &id : server.clients(name))
            server.command({"CLIENT", "KILL", "ID", id});
        return;
    }
    lost.erase(db);
    if (!is_same) { /* the same data in another process */
        server.kill();
        server.start();
    }
    allow();
}

void Replay::expect_state(size_t count, std::istringstream &rest)
{
    Lines wanted(count);
    for (std::string &line : wanted)
        std::getline(rest, line);
    wanted = comparable(wanted);
    catch_up();
    std::pair<bool, Lines> found;
    const bool is_met = until([&] {
        found = objects();
        return found.first && found.second == wanted;
    });
    EXPECT_TRUE(is_met) << "objects\n"
                        << testing::PrintToString(found.second) << "\ninstead of\n"
                        << testing::PrintToString(wanted);
    states++;
}

void Replay::allow()
{
    EXPECT_EQ(server.command({"ACL", "SETUSER", "daemon", "reset", "on", "nopass", "~*", "&*",
                              "+@all", "-select"}),
              "OK");
    for (const uint32_t db : DATABASES) {
        if (lost.contains(db))
            continue;
        EXPECT_EQ(server.command({"ACL", "SETUSER", "daemon", "+select|" + number(db)}), "OK");
    }
}

/*
 * The daemon has taken notice of all that is in its databases, and its time is the
 * scenario's. Nothing to do where it does not run.
 */
void Replay::catch_up()
{
    if (daemon.pid() < 0)
        return;
    unsigned expected = 0;
    for (const uint32_t db : DATABASES)
        expected |= lost.contains(db) ? 0U : 1U << db;
    Output said;
    const bool is_there = until([&] {
        said = ask("pass 0");
        if (said.status != 0 || !until([&] {
                said = ask("passed");
                int asked = 0, done = -1;
                unsigned connected = 0;
                std::sscanf(said.text.c_str(), "asked=%d done=%d connected=%u", &asked, &done,
                            &connected);
                return asked == done;
            }))
            return false;
        return said.text.ends_with("connected=" + number(expected) + "\n");
    });
    ASSERT_TRUE(is_there) << said.text;
    if (now == there)
        return;
    EXPECT_EQ(ask("pass " + std::to_string(now - there)).status, 0);
    there = now;
    catch_up();
}

Output Replay::ask(const std::string &command) const
{
    try {
        const ctl::ShellAnswer answer = ctl::shell_ask(shell, command, ENDING);
        return {answer.output, answer.status};
    } catch (const ctl::Failure &failure) { /* it is not there yet */
        return {failure.text, -1};
    }
}

/* Every object, and whether every database could be read. */
std::pair<bool, Lines> Replay::objects()
{
    std::pair<bool, Lines> all{true, {}};
    for (const object::Kind *kind : object::kinds()) {
        const uint32_t db = *words::database_of(object::kind_name(*kind));
        const object::Message any = object::empty(*kind);
        all.first &=
            kt_mom_scan_sync(looker, db, any.get(), KT_MOM_MATCH_EXACT, collect, &all.second) == 0;
    }
    all.second = comparable(all.second);
    return all;
}

TEST_P(Replay, HasTheSameObjectsAllAlong)
{
    const Output recording = run(PROGRAMS + ("vvlan-replay-record " + GetParam().string()));
    ASSERT_EQ(recording.status, 0) << recording.text;
    if (recording.text.starts_with("left out"))
        GTEST_SKIP() << GetParam().filename() << ": " << recording.text;
    play(recording.text);
    EXPECT_GT(states, 2U);
}

std::vector<std::filesystem::path> scenarios()
{
    std::vector<std::filesystem::path> found;
    for (const auto &entry :
         std::filesystem::directory_iterator(VVLAN_SOURCE_DIR "/sim/scenarios")) {
        if (entry.path().extension() == ".scn")
            found.push_back(entry.path());
    }
    std::ranges::sort(found);
    return found;
}

/* Those that are left out are few, and nobody leaves out the rest by mistake. */
TEST(ReplayScenarios, AreNearlyAllReplayed)
{
    constexpr size_t REPLAYED_AT_LEAST = 12;
    size_t replayed = 0;
    for (const std::filesystem::path &scenario : scenarios()) {
        const Output recording = run(PROGRAMS + ("vvlan-replay-record " + scenario.string()));
        EXPECT_EQ(recording.status, 0) << scenario << recording.text;
        replayed += recording.text.starts_with("left out") ? 0 : 1;
    }
    EXPECT_GE(replayed, REPLAYED_AT_LEAST);
}

std::string name_of(const testing::TestParamInfo<std::filesystem::path> &scenario)
{
    std::string name = scenario.param.stem();
    std::ranges::replace(name, '-', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Scenario, Replay, testing::ValuesIn(scenarios()), name_of);

} // namespace
