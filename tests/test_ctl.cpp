/* vvlanctl, run on the in-memory database with the daemon beside it. */
#include "ctl/ctl.h"
#include "ctl/ctl_command.h"
#include "ctl/ctl_shell.h"
#include "ctl/ctl_state.h"
#include "ctl/ctl_value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_state.h"
#include "object/object.h"
#include "sim/sim_loop.h"
#include "sim/sim_mom.h"
#include "sim/sim_process.h"
#include "sim/sim_shell.h"
#include "sim/sim_switch.h"
#include "sim/sim_world.h"

namespace
{

using nlohmann::json;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class Ctl : public testing::Test
{
protected:
    void SetUp() override
    {
        sim::world_reset();
        for (const uint32_t ifx : {3U, 4U})
            ASSERT_TRUE(sim::switch_add_port(ifx, 0x100 + ifx, "ge" + std::to_string(ifx)));
        sim::process_install({"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset});
        sim::process_start();
        sim::settle();
    }

    void TearDown() override
    {
        sim::world_reset();
    }

    /* Runs a command line and returns its exit status; out and err have what it printed. */
    int run(const std::string &line)
    {
        out.str("");
        err.str("");
        if (line.find("watch") != std::string::npos)
            written.clear();
        std::vector<std::string> words{"vvlanctl"};
        std::istringstream stream(line);
        for (std::string word; stream >> word;)
            words.push_back(word);
        std::vector<const char *> arguments;
        for (const std::string &word : words)
            arguments.push_back(word.c_str());
        const int status =
            ctl::ctl_main(static_cast<int>(arguments.size()), arguments.data(), host);
        sim::settle(); /* the daemon hears of it */
        const std::string error = err.str();
        EXPECT_TRUE(error.empty() || error.starts_with("vvlanctl: ")) << error;
        return status;
    }

    json run_json(const std::string &line)
    {
        EXPECT_EQ(run(line), ctl::DONE) << err.str();
        json parsed = json::parse(out.str());
        EXPECT_EQ(parsed["version"], 1);
        return parsed;
    }

    /* The text of a stored object; "" if it is not there. */
    static std::string stored(uint32_t db, const char *kind, const std::string &key = "")
    {
        const auto wanted = object::from_text(*object::kind_by_name(kind), key, nullptr, nullptr);
        const auto found = sim::mom_get(db, *wanted);
        return found == nullptr ? "" : object::to_text(*found);
    }

    static void pass(int64_t seconds)
    {
        sim::run_until(sim::now() + seconds * sim::SECOND);
    }

    ctl::ShellAnswer ask_shell(const std::string &line) const
    {
        if (!shell_is_up)
            throw ctl::Failure{ctl::NO_REACH, "no daemon here"};
        ctl::ShellAnswer answer{};
        if (!sim::shell_run(line, &answer.output, &answer.status))
            answer.status = -2;
        return answer;
    }

    bool run_loop(const std::function<bool()> &done, int milliseconds)
    {
        if (milliseconds < 0 && during)
            during();
        sim::run_until(sim::now() + sim::SECOND / 10);
        return done();
    }

    std::ostringstream out;
    std::ostringstream err;
    std::string written; /* by write_now */
    size_t room = SIZE_MAX;
    uint64_t missed = 0; /* by the client of database 4 */
    bool shell_is_up = true;
    std::string trouble;          /* what the platform knows of a failed connection */
    std::function<void()> during; /* what happens while a watch runs */
    kt_global *context = sim::mom_peer();
    ctl::Host host{out,
                   err,
                   [this] { return context; },
                   [] { return std::string("memory:"); },
                   [this] { return trouble; },
                   [] { return std::string(); },
                   [this](const auto &done, int limit) { return run_loop(done, limit); },
                   [this](std::string_view text) {
                       written += text.substr(0, room - std::min(room, written.size()));
                       return static_cast<long>(std::min(text.size(), room));
                   },
                   [this](uint32_t db) { return db == 4 ? missed : 0; },
                   [this](const std::string &line) { return ask_shell(line); },
                   {},
                   {}};
};

struct Wrong {
    const char *line;
    int status;
    const char *why;
};

constexpr Wrong WRONGS[] = {
    {"set vlan 0", 1, "give 1 to 4094"},
    {"set vlan 4095", 1, "give 1 to 4094"},
    {"set vlan x", 2, "expected VLAN as a number from 1 to 4094"},
    {"set vlan 4294967296", 1, "give 1 to 4094"},
    {"set vlan", 2, "vlan needs a value"},
    {"set cos 8", 1, "give 0 to 7"},
    {"set dscp 64", 1, "give 0 to 63"},
    {"set aging 0", 1, "give 1 to 65535"},
    {"set aging 65536", 1, "give 1 to 65535"},
    {"set security yes", 2, "expected on or off for security"},
    {"set colour red", 2, "unknown setting"},
    {"set cos 1 cos 2", 2, "cos is given twice"},
    {"set switch on", 1, "vvlanctl set vlan 100 switch on"},
    {"oui add 01:00:5e/24", 1, "group address"},
    {"oui add 00:00:00/24", 1, "all zero"},
    {"oui add 00:11:22:33/24", 1, "give 00:11:22:00:00:00/24"},
    {"oui add 00:11:22:00:00:00/ff:00:ff:00:00:00", 1, "is no prefix"},
    {"oui add 00:11:22/0", 1, "1 to 48"},
    {"oui add 00:11:22/49", 1, "48 bits"},
    {"oui add 00:11:2/24", 2, "expected an OUI such as"},
    {"oui del 00:11:22/24", 1, "is not configured"},
    {"port auto 0", 1, "begin at 1"},
    {"port auto 5-2", 2, "such as 2-5"},
    {"port auto 1,,2", 2, "a port or a range"},
    {"port auto 1-65537", 1, "65536"},
    {"port auto 1-4000000000", 1, "65536"},
    {"port auto 1-65536,70000-70001", 1, "65536"},
    {"port off 3", 1, "port 3 is not configured"},
    {"port del 3-4", 1, "none of ports 3-4 is configured"},
    {"notice 9", 1, "the physical id of port 9 is not known"},
    {"notice", 2, "either ports or --phyid"},
    {"mac learn 3 01:11:22:33:44:55 --vlan 100", 1, "group address"},
    {"mac learn 3 00:11:22:33:44:55", 1, "no voice VLAN is set"},
    {"mac gone 00:11:22:33:44:55 --vlan 7", 1, "is not learnt in VLAN 7"},
    {"object get p_bridge.nothing", 2, "is no kind of object"},
    {"object set p_bridge.vvlan_port_cfg index.ifx=3 enable=x", 2,
     "column 20 of \"index.ifx=3 enable=x\""},
    {"object set p_bridge.vvlan_port_cfg enable=1", 1, "needs its key"},
    {"object get p_bridge.vvlan_port_cfg index.ifx=3", 1, "is not in database 4"},
    {"object get p_bridge.vvlan_glb_cfg --db 5", 1, "no database 5"},
    {"object hset p_bridge.vvlan_port_cfg index.ifx=3", 2, "at least one field"},
    {"object set p_bridge.vvlan_glb_cfg age_time=9", 1, "give vvlanctl object hset"},
    {"object hset p_bridge.vvlan_port_cfg index.ifx=3 mode=1", 1, "give vvlanctl object set"},
    {"object publish p_bridge.vvlan_port_cfg index.ifx=3", 1, "only by set and del"},
    {"show colours", 2, "--help"},
    {"watch --count 0", 2, "at least 1"},
    {"", 2, "--help"},
    {"fly 3", 2, "\"fly\" is no command"},
};

TEST_F(Ctl, RefusesWhatCannotWorkAndSaysWhy)
{
    for (const Wrong &wrong : WRONGS) {
        EXPECT_EQ(run(wrong.line), wrong.status) << wrong.line << ": " << err.str();
        const std::string said = err.str();
        EXPECT_THAT(said, HasSubstr(wrong.why)) << wrong.line;
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << "one line: " << said;
        EXPECT_EQ(out.str(), "") << wrong.line;
    }
    EXPECT_EQ(stored(4, "p_bridge.vvlan_glb_cfg"), "") << "nothing was written";
}

TEST_F(Ctl, SetsOnlyWhatIsGivenAndKeepsTheOtherHalf)
{
    EXPECT_EQ(run("set vlan 100"), 0) << err.str();
    EXPECT_EQ(stored(4, "p_bridge.vvlan_glb_cfg"), "glb_switch.vlan=100");
    EXPECT_EQ(run("set switch on aging 30 cos 5"), 0);
    EXPECT_EQ(out.str(), "settings: voice VLAN 100 on, aging time 30 minutes, CoS 5, DSCP 46\n");
    EXPECT_EQ(run("set dscp 40 security on"), 0);
    const std::string all = "secu_mode=1 age_time=30 qos.cos=5 qos.dscp=40";
    EXPECT_EQ(stored(4, "p_bridge.vvlan_glb_cfg"),
              "glb_switch.vlan=100 glb_switch.enable=1 " + all);
    EXPECT_EQ(run("set vlan 200 switch off"), 1) << "the daemon would stay on with 100";
    EXPECT_EQ(run("set vlan 200"), 0);
    EXPECT_EQ(run("set switch off"), 0);
    EXPECT_EQ(stored(4, "p_bridge.vvlan_glb_cfg"), "glb_switch.vlan=200 " + all);
    EXPECT_FALSE(udp_vvlan_glb.enable);
}

TEST_F(Ctl, KeepsRoomFor127Ouis)
{
    EXPECT_EQ(run("oui add 00:11:22/24 00-11-33 0011.4400.0000/ffff.ff00.0000"), 0) << err.str();
    EXPECT_EQ(out.str(), "OUI 00:11:22:00:00:00/24 00:11:33:00:00:00/24 00:11:44:00:00:00/24 "
                         "configured, 3 of 127\n");
    std::string more;
    for (int number = 0; number < 124; number++)
        more += " 02:" + words::mac({static_cast<uint8_t>(number)}).substr(0, 2) + "/16";
    EXPECT_EQ(run("oui add" + more), 0) << err.str();
    EXPECT_EQ(run("oui add 00:55:66/24"), 1);
    EXPECT_THAT(err.str(), HasSubstr("128 OUIs"));
    EXPECT_EQ(run("oui add 00:11:22/24"), 0) << "it is there already";
    EXPECT_EQ(run("oui del 00:11:33/24"), 0);
    EXPECT_EQ(run("oui add 00:55:66/24"), 0);
    const json ouis = run_json("oui list -j")["ouis"];
    EXPECT_EQ(ouis.size(), 127U);
    for (const json &oui : ouis)
        EXPECT_TRUE(oui["configured"] && oui["ace_id"].is_number()) << oui;
}

TEST_F(Ctl, DrivesThePhonesLifeCycle)
{
    for (const char *line :
         {"set vlan 100 switch on aging 2", "oui add 00:11:22/24", "port auto 3", "port manual 4"})
        ASSERT_EQ(run(line), 0) << err.str();
    EXPECT_EQ(run("show"), 0);
    EXPECT_THAT(out.str(), AllOf(HasSubstr("Voice VLAN   100, on"), HasSubstr("2 minutes"),
                                 ContainsRegex("3 +auto +trapped +yes +no +0 +- +- +0x103"),
                                 ContainsRegex("4 +manual +member +no +no"),
                                 ContainsRegex("00:11:22:00:00:00/24 +yes +yes +1\n"),
                                 HasSubstr("Daemon       running"), Not(HasSubstr("failure"))));
    ASSERT_EQ(run("notice 3"), 0) << err.str();
    EXPECT_EQ(out.str(), "told: voice device seen on physical port 259 (0x103)\n");
    ASSERT_EQ(run("mac learn 3 00:11:22:33:44:55"), 0);
    EXPECT_EQ(err.str(), "");
    EXPECT_EQ(run("mac learn 3 00:11:22:33:44:66 00:99:22:33:44:55 00:98:22:33:44:55"), 0);
    EXPECT_THAT(err.str(), AllOf(HasSubstr("00:99:22:33:44:55 belongs to no OUI"),
                                 HasSubstr("00:98:22:33:44:55 belongs to no OUI"),
                                 Not(HasSubstr("00:11:22:33:44:66"))));
    EXPECT_EQ(run("mac learn 3 00:11:22:33:44:77 --vlan 200"), 0);
    EXPECT_THAT(err.str(), HasSubstr("in VLAN 200 do not count: the voice VLAN is 100"));
    EXPECT_EQ(run("mac learn 4 00:11:22:33:44:88"), 0);
    EXPECT_THAT(err.str(), HasSubstr("not in automatic mode"));
    EXPECT_THAT(ask_shell("dump_all_mac").output, Not(HasSubstr("4477")));
    EXPECT_EQ(run("mac gone 00:11:22:33:44:66"), 0);
    json port = run_json("-j show")["ports"][0];
    EXPECT_EQ(port, json::parse(R"({"port":3,"configured":true,"enabled":true,"mode":"auto",
        "state":"joined","trapped":false,"joined":true,"recorded":true,"voice_macs":1,
        "phyid":259,"quiet_seconds":0,"left_seconds":null})"));
    const json macs = run_json("show macs -j")["macs"];
    ASSERT_EQ(macs.size(), 5U);
    for (const json &mac : macs) {
        EXPECT_EQ(mac["voice"], mac["mac"] == "00:11:22:33:44:55") << mac;
        EXPECT_EQ(mac["oui"].is_null(), std::string(mac["mac"])[3] == '9') << mac;
    }

    EXPECT_EQ(run("mac gone 4 00:11:22:33:44:55"), 1);
    EXPECT_THAT(err.str(), HasSubstr("on port 3, not on port 4"));
    ASSERT_EQ(run("mac gone 3 00:11:22:33:44:55"), 0);
    pass(61);
    EXPECT_EQ(run("show ports"), 0);
    EXPECT_THAT(out.str(), ContainsRegex("3 +auto +aging +no +yes +0 +1m00s +1m00s"));
    shell_is_up = false;
    port = run_json("show -j")["ports"][0];
    EXPECT_TRUE(port["state"] == "joined" && port["left_seconds"].is_null()) << port;
    EXPECT_EQ(run("show"), 0);
    EXPECT_THAT(out.str(), HasSubstr("Daemon       no daemon here"));
    pass(60);
    EXPECT_THAT(run_json("show joins -j")["joins"], testing::IsEmpty());
    EXPECT_EQ(run("port off 3-9"), 0) << "those that are configured";
    EXPECT_EQ(out.str(), "ports 3-4 configured: off\n");
    EXPECT_EQ(stored(4, "p_bridge.vvlan_port_cfg", "index.ifx=3"), "index.ifx=3 mode=1");
    EXPECT_EQ(run("port del 3,4"), 0);
    EXPECT_THAT(run_json("show -j")["ports"], testing::IsEmpty());
}

TEST_F(Ctl, TellsWhatFollowsFromADeletedOui)
{
    const auto state = [this] { return run_json("show -j")["ports"][0]["state"]; };
    ASSERT_EQ(run("oui add 00:11:22/24 00:33:44/24 00:55:66/24"), 0);
    ASSERT_EQ(run("oui del 00:55:66/24"), 0);
    EXPECT_EQ(err.str(), "") << "the switch is off";
    ASSERT_EQ(run("set vlan 100 switch on"), 0);
    ASSERT_EQ(run("oui del 00:11:22/24"), 0);
    EXPECT_THAT(err.str(), HasSubstr("stay pending until another OUI is added, or"));
    ASSERT_EQ(run("port auto 3"), 0);
    EXPECT_EQ(state(), "pending");
    ASSERT_EQ(run("oui add 00:77:88/24"), 0);
    EXPECT_EQ(state(), "trapped");
}

TEST_F(Ctl, WatchesAllDatabasesInWords)
{
    ASSERT_EQ(run("set vlan 100 switch on"), 0);
    ASSERT_EQ(run("oui add 00:11:22/24"), 0);
    during = [this] {
        for (const char *line :
             {"set security on cos 1", "port auto 3", "notice 3", "mac learn 3 00:11:22:33:44:55",
              "port del 3", "object set p_bridge.vvlan_err_event msg_type=1 ifx=12"})
            EXPECT_EQ(run(line), 0) << line << err.str();
    };
    EXPECT_EQ(run("watch"), 0) << err.str();
    for (const char *words :
         {"db 4  settings: security on, CoS 1, DSCP 46", "db 4  port 3 configured: automatic",
          "db 8  port 3 trapped until a voice device is seen", "db 0  voice device seen on",
          "db 4  port 3 joins the voice VLAN", "db 8  port 3 recorded as joined",
          "db 8  port 3 no longer trapped", "db 6  00:11:22:33:44:55 learnt on port 3, VLAN 100",
          "db 4  port 3 no longer configured", "db 4  FAILED: port 12 could not be configured"})
        EXPECT_THAT(written, ContainsRegex("[0-9:]{8}\\.[0-9]{3}  " + std::string(words))) << words;

    during = [this] { run("port manual 4"); };
    EXPECT_EQ(run("watch --since-start --count 1"), 0);
    EXPECT_THAT(written, AllOf(HasSubstr("  OUI 00:11:22:00:00:00/24 in force, ACE id 1\n"),
                               ContainsRegex(" 0\\.[0-9]{3}  --   [0-9]+ objects stand")));
    EXPECT_TRUE(written.ends_with("  db 4  port 4 configured: manual\n")) << written;

    during = [this] { run("set aging 7"); };
    EXPECT_EQ(run("-j watch"), 0);
    const json line = json::parse(written);
    EXPECT_EQ(line["operation"], "hset");
    EXPECT_EQ(line["fields"], json::parse(R"(["age_time"])"));
    EXPECT_EQ(line["object"]["qos"], json::parse(R"({"cos":1,"dscp":46})"));

    during = [this] { run("port auto 3,4"); };
    EXPECT_EQ(run("object watch p_bridge.vvlan_port_cfg index.ifx=4"), 0);
    EXPECT_THAT(written, HasSubstr("  db 4  set p_bridge.vvlan_port_cfg index.ifx=4 enable=1 "
                                   "mode=1\n"));
    EXPECT_THAT(written, Not(HasSubstr("ifx=3")));
    EXPECT_EQ(run("object watch p_bridge.vvlan_port_cfg index.ifx=4 --since-start --count 1"), 0);
    EXPECT_THAT(written, AllOf(HasSubstr("  1 object stands"), Not(HasSubstr("ifx=3"))));
    EXPECT_EQ(run("object watch p_bridge.vvlan_port_cfg --db 8 --since-start --for 1"), 0);
    EXPECT_THAT(written, HasSubstr("  0 objects stand")) << "but in another database";
}

TEST_F(Ctl, CountsWhatASlowOutputSkips)
{
    room = 0;
    during = [this] {
        for (int change = 0; change < 9; change++)
            run("object set p_bridge.vvlan_port_auto index.ifx=7 enable=1");
        sim::run_until(sim::now() + sim::SECOND);
        room = SIZE_MAX;
        missed = 5;
        sim::run_until(sim::now() + sim::SECOND);
        run("object del p_bridge.vvlan_port_auto index.ifx=7");
    };
    EXPECT_EQ(run("watch --queue 3"), 0) << err.str();
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 5) << written;
    EXPECT_THAT(written,
                HasSubstr("  11 changes skipped: the output is slower than the databases"));
    EXPECT_TRUE(written.ends_with("port 7 leaves the voice VLAN\n")) << written;
}

TEST_F(Ctl, HandlesAnyObjectInItsTextForm)
{
    const std::string kind = "u_bridge.mac_vid_reg_noti ";
    const std::string phone = "index.t_fid=100 index.t_type=0 index.t_mac=00:11:22:33:44:55";
    EXPECT_EQ(run("object set " + kind + phone + " port_id=3"), 0) << err.str();
    EXPECT_EQ(run("object set " + kind + "index.t_fid=200 index.t_mac=00:11:22:33:44:55"), 0);
    EXPECT_EQ(run("object get " + kind + phone), 0);
    EXPECT_EQ(out.str(), phone + " port_id=3\n");
    EXPECT_EQ(run_json("-j object get " + kind + phone)["object"]["index"],
              json::parse(R"({"t_fid":100,"t_type":0,"t_mac":"00:11:22:33:44:55"})"));
    EXPECT_EQ(run_json("-j object scan " + kind)["objects"].size(), 2U);
    EXPECT_EQ(run_json("-j object scan " + kind + "index.t_fid=100")["objects"].size(), 1U);
    EXPECT_EQ(run_json("-j object scan --exact " + kind + "index.t_fid=100")["objects"].size(), 0U);
    EXPECT_EQ(run("object del " + kind + phone), 0);
    EXPECT_EQ(run("object del " + kind + phone), 1);
    EXPECT_EQ(run("object hset p_bridge.vvlan_glb_cfg age_time=9"), 0);
    EXPECT_EQ(udp_vvlan_glb.age_time, 9);
    EXPECT_EQ(run("object del p_bridge.vvlan_glb_cfg"), 0);
    EXPECT_THAT(err.str(), HasSubstr("stays in force"));
    EXPECT_EQ(udp_vvlan_glb.age_time, 9);
    EXPECT_EQ(run("object hset u_bridge.vvlan_port_cfg index.ifx=7"), 2) << "it has no field";
    EXPECT_EQ(run("object publish s_bridge.vvlan_port_noty index.phyid=259"), 0) << err.str();
    const json kinds = run_json("object kinds -j")["kinds"];
    EXPECT_EQ(kinds.size(), object::kinds().size());
    for (const json &each : kinds) {
        if (each["kind"] == "p_bridge.vvlan_glb_cfg") {
            EXPECT_EQ(each["taken"], json::parse(R"(["hset"])"));
        }
    }
}

TEST_F(Ctl, SpeaksToTheDebugShell)
{
    EXPECT_EQ(run("shell set-zlog-level 3"), 0);
    EXPECT_EQ(out.str(), "set zlog_level=3 success !\n");
    EXPECT_EQ(run("shell nothing"), 1);
    shell_is_up = false;
    EXPECT_EQ(run("shell show-zlog-level"), 3);
    EXPECT_EQ(err.str(), "vvlanctl: no daemon here\n");

    ctl::ShellAnswer answer{};
    const std::string whole("one\ntwo\0status -22\n", 20);
    for (size_t length = 0; length + 1 < whole.size(); length++)
        EXPECT_FALSE(ctl::shell_answer_parse(whole.substr(0, length), &answer)) << length;
    ASSERT_TRUE(ctl::shell_answer_parse(whole.substr(0, 19), &answer));
    EXPECT_EQ(answer.output, "one\ntwo");
    EXPECT_EQ(answer.status, -22);
    EXPECT_THAT(ctl::shell_commands("a  void\n\n  b x\nc"), testing::ElementsAre("a", "b", "c"));
}

TEST_F(Ctl, SaysWhenTheDatabaseIsAway)
{
    context = kt_global_init("test", nullptr);
    sim::mom_disconnect(4);
    EXPECT_EQ(run("show"), 3);
    EXPECT_THAT(err.str(), HasSubstr("cannot reach database 4 at memory:: Transport endpoint"));
    trouble = "No such file or directory";
    EXPECT_EQ(run("port auto 3"), 3);
    EXPECT_EQ(err.str(), "vvlanctl: cannot reach database 4 at memory:: " + trouble + "\n");
}

/* Rows as the daemon prints them, blank columns and an index beyond 31 bits included. */
TEST(CtlParts, ReadsTheDaemonsPortTable)
{
    const auto ports = ctl::daemon_ports_parse(
        "\n\n    PORT   MODE\n    ------\n"
        "    ifx:   3      AUTO    0x103      ENABLE   00000060(s)   !TRAP  !SECU   AGING   "
        "0002(minute)        0  JOINED     100 \n"
        "    ifx:  -1      MANUAL  0xffffffff     DISABLE   00000000(s)            SECU  !AGING   "
        "1440(minute)        0             0   \n    ifx:");
    ASSERT_EQ(ports.size(), 2U);
    const ctl::DaemonPort &third = ports.at(3);
    EXPECT_TRUE(third.phyid == 0x103 && third.quiet == 60 && third.aging == 2 && third.is_aging);
    EXPECT_FALSE(ports.at(UINT32_MAX).is_aging);
    EXPECT_EQ(ports.at(UINT32_MAX).phyid, UINT32_MAX);
}

TEST(CtlParts, MatchesOuisAsTheDaemonDoes)
{
    std::map<ctl::Oui, ctl::OuiState> ouis;
    for (const char *text : {"00:11:22/24", "00:11:22:33:44:55/48", "00:11/16", "00:12/15"})
        ouis[ctl::oui_parse(text)] = {};
    const auto match = [&](const char *mac) {
        const auto found = ctl::oui_match(ouis, ctl::mac_parse(mac));
        return found ? words::oui(*found) : "none";
    };
    EXPECT_EQ(match("00:11:22:33:44:55"), "00:11:22:00:00:00/24") << "24 bits come first";
    EXPECT_EQ(match("00:11:23:33:44:55"), "00:11:00:00:00:00/16");
    EXPECT_EQ(match("00:13:23:33:44:55"), "00:12:00:00:00:00/15");
    EXPECT_EQ(match("00:14:23:33:44:55"), "none");
    EXPECT_EQ(ctl::ports_text(ctl::ports_parse("7,1-3,2,0x5,4294967295")), "1-3,5,7,4294967295");
}

/* A command and those below it, each as it is typed. */
void collect(const CLI::App &app, const std::string &name, std::vector<std::string> &commands)
{
    for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; })) {
        commands.push_back(name + each->get_name());
        collect(*each, commands.back() + " ", commands);
    }
}

/* Every command tells its usage, its examples can be typed, and both completions know it. */
TEST_F(Ctl, HelpsEverywhere)
{
    std::vector<std::string> commands;
    ctl::ctl_visit([&](const CLI::App &app) { collect(app, "", commands); });
    EXPECT_GE(commands.size(), 26U);
    std::string completions[2];
    for (const int at : {0, 1}) {
        const char *const files[] = {"vvlanctl.bash", "_vvlanctl"};
        std::ifstream file(VVLAN_SOURCE_DIR "/ctl/completion/" + std::string(files[at]));
        completions[at].assign(std::istreambuf_iterator<char>(file), {});
    }
    host.converse = [](const auto &, const auto &) {};
    for (const std::string &command : commands) {
        EXPECT_EQ(run(command + " --help"), 0);
        EXPECT_EQ(err.str(), "");
        const std::string help = out.str();
        EXPECT_THAT(help, AllOf(HasSubstr("\nUsage: vvlanctl " + command + " "),
                                HasSubstr("\nExamples:\n  vvlanctl " + command)));
        std::istringstream examples(help.substr(std::min(help.find("Examples:"), help.size())));
        const std::string program = "  vvlanctl ";
        for (std::string line; std::getline(examples, line);) {
            if (line.starts_with(program)) {
                EXPECT_NE(run(line.substr(program.size())), ctl::USAGE) << line << err.str();
            }
        }
        const std::string word = command.substr(command.rfind(' ') + 1);
        for (const std::string &completion : completions)
            EXPECT_THAT(completion, ContainsRegex("[^a-z]" + word + "[^a-z]"));
    }
}

} // namespace
