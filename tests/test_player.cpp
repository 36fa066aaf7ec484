/*
 * The scenario player: what it refuses and where, what a failed expectation
 * says, and that a play depends on nothing but its input.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_state.h"
#include "platform/kt_zlog.h"
#include "sim/player_capture.h"
#include "sim/player_play.h"
#include "sim/player_text.h"
#include "sim/sim_process.h"

namespace
{

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

struct Played {
    sim::PlayResult result;
    std::string text;
};

sim::PlayOptions options_for(std::string &text)
{
    sim::PlayOptions options;
    options.program = {"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset};
    options.print = [&text](std::string_view line) { text += line; };
    return options;
}

Played play(const std::string &scenario, bool trace = false, std::optional<int> level = {})
{
    sim::ScriptError error{};
    const auto script = sim::script_parse("dir/a.scn", scenario, &error);
    if (!script)
        return {{}, sim::script_error_text("dir/a.scn", error)};
    Played played{};
    sim::PlayOptions options = options_for(played.text);
    options.trace = trace;
    options.level = level;
    played.result = sim::script_play(*script, options);
    return played;
}

/* "LINE:COLUMN: expected ...", or nothing for a scenario that is fine. */
std::string refusal(const std::string &scenario)
{
    sim::ScriptError error{};
    if (sim::script_parse("x", scenario, &error))
        return "";
    return sim::script_error_text("x", error).substr(2);
}

std::string repeated(const std::string &line, size_t times)
{
    std::string text;
    for (size_t count = 0; count < times; count++)
        text += line;
    return text;
}

TEST(Parser, RefusesWithLineAndColumn)
{
    const struct {
        const char *scenario;
        const char *message;
    } refused[] = {
        {"start\n  fly away\n", "2:3: expected a command"},
        {"5s start\n4s stop\n", "2:1: expected a time stamp that is not before"},
        {"5parsec start", "1:1: expected a time stamp"},
        {"start now", "1:7: expected the end of the line"},
        {"set 5 p_bridge.vvlan_port_cfg index.ifx=1", "1:5: expected a database"},
        {"set 4 p_bridge.vvlan index.ifx=1", "1:7: expected the full name of an object kind"},
        {"set 4 p_bridge.vvlan_port_cfg index.ifx=1 enable=yes", "1:50: expected "},
        {"expect no object 8 p_bridge.vvlan_port_auto index.ifx=3", "1:18: expected 4, the data"},
        {"expect count 4 u_bridge.vvlan_join 0", "1:14: expected 8, the database of u_bridge.v"},
        {"expect no object 4 p_bridge.vvlan_port_auto enable=1", "1:45: expected the whole key"},
        {"set 4 p_bridge.vvlan_oui_cfg index.mac=00:11:22:33:44:55", "1:30: expected the whole"},
        {"set 4 p_bridge.vvlan_glb_cfg secu_mode=1", "1:7: expected `hset`"},
        {"hset 4 p_bridge.vvlan_port_cfg index.ifx=3", "1:32: expected a field to set"},
        {"frame 3 src=00:11:22:33:44:55", "1:7: expected the ifx of a port"},
        {"port 3 phyid=1\nframe 3 dst=00:11:22:33:44:55", "2:9: expected a frame with src=MAC"},
        {"port 3 phyid=1\nframe 3 src=00:11:22:33:44", "2:13: expected a MAC address"},
        {"port 3 phyid=1\nframe 3 src=00:11:22:33:44:55 vid=4096", "2:35: expected a number up"},
        {"port 3 phyid=1\nframe 3 src=00:11:22:33:44:55 dscp=4", "2:31: expected ipv4 A > B"},
        {"port 3 phyid=1\nport 3 phyid=2", "2:6: expected a port that no earlier line"},
        {"port 3 phyid=1\npcap 3 none.pcap", "2:8: expected a capture file that can be read"},
        {"expect port 3 JIONED", "1:15: expected a word of the port's row"},
        {"expect out tagged vid=x", "1:23: expected a number"},
        {"expect no out cos=8", "1:19: expected a number up to 7"},
        {"expect no port 3 absent AUTO", "1:25: expected a word of the port's row"},
        {"port 3 phyid=1\nnever b: switch 3 traped", "2:19: expected trapped, member=VID"},
        {"port 3 phyid=1\nexpect switch 3 not memebr=100", "2:21: expected trapped, member=VID"},
        {"port 3 phyid=1\nexpect switch 3 not acl=1,", "2:27: expected trapped, member=VID"},
        {"expect switch 99 not trapped", "1:15: expected the ifx of a port"},
        {"expect no probe 99 src=00:11:22:33:44:55 -> dropped", "1:17: expected the ifx"},
        {"expect log error \"open", "1:23: expected a closing double quote"},
        {"expect process asleep", "1:16: expected running, stopped"},
        {"always x port 3 AUTO", "1:8: expected a name and a colon"},
        {"end x", "1:5: expected the name of an open watch"},
        {"for n 1..3\nstart\n", "1:1: expected `done`"},
        {"for n 3..1\ndone\n", "1:7: expected a range"},
        {"for number 10..12\nport ${number} phyid=${number} pvid=x\ndone\n", "2:37: expected VLAN"},
        {"for number 4095..4096\nport 3 phyid=1 pvid=${number} x\ndone\n", "2:21: expected VLAN"},
        {"5s for n 1..3\n", "1:4: expected a command; `for` and `done` stand without a time"},
        {"for n 1..2\n  unplug ${m}\ndone\n", "2:12: expected the loop's variable"},
        {"fault kt_mom_set nth=1 code=x", "1:29: expected a number"},
        {"fault kt_mom_sett nth=1 code=-5", "1:7: expected the name of a platform function"},
        {"expect calls kt_mom_sett 0", "1:14: expected the name of a platform function"},
        {"fault kt_mom_set nth=0 code=1", "1:22: expected nth=N, counted from 1, at least 1"},
        {"fault malloc nth=1 code=1 repeat=0", "1:34: expected repeat=N, at least 1"},
        {"kill FOO", "1:6: expected a signal: KILL TERM INT PIPE"},
        {"expect process exited -17", "1:23: expected a status as a parent sees it"},
        {"port 3 phyid=1 pvid=0", "1:21: expected VLAN ids of 1..4094"},
        {"port 3 phyid=1 member=5,0", "1:25: expected VLAN ids of 1..4094"},
        {"port 3 phyid=1 member=5,", "1:25: expected VLAN ids of 1..4094"},
        {"reconnect 4 type=0", "1:18: expected 1 (another instance)"},
    };
    for (const auto &each : refused)
        EXPECT_THAT(refusal(each.scenario), testing::StartsWith(each.message)) << each.scenario;
}

TEST(Parser, TakesCommentsLoopsQuotesAndTimes)
{
    sim::ScriptError error{};
    const auto script = sim::script_parse("x",
                                          "# nothing\n"
                                          "1m30s note a # b\n"
                                          "+250ms file /etc/x \"a # \\\"b\\\"\"\n"
                                          "for n 1..2\n"
                                          "  +1s port ${n+10} phyid=0x${n:x} member=1,2\n"
                                          "done\n"
                                          "2h\n",
                                          &error);
    ASSERT_TRUE(script) << sim::script_error_text("x", error);
    ASSERT_EQ(script->steps.size(), 5U);
    EXPECT_EQ(script->steps[0].when, 90 * sim::SECOND);
    EXPECT_EQ(script->steps[0].text, "note a ");
    EXPECT_EQ(script->steps[1].text, "file /etc/x \"a # \\\"b\\\"\"");
    EXPECT_EQ(script->steps[3].when, 92 * sim::SECOND + 250'000);
    EXPECT_EQ(script->steps[3].text, "port 12 phyid=0x02 member=1,2");
    EXPECT_EQ(script->steps[3].line, 5U);
    EXPECT_EQ(script->steps[4].when, 7200 * sim::SECOND);
}

TEST(Parser, SaysWhatIsWrongWithTheFile)
{
    sim::ScriptError error{};
    EXPECT_FALSE(sim::script_load("/nowhere/x.scn", &error));
    EXPECT_EQ(sim::script_error_text("/nowhere/x.scn", error),
              "/nowhere/x.scn: cannot be read: No such file or directory");
    EXPECT_FALSE(sim::script_load("/", &error));
    EXPECT_THAT(sim::script_error_text("/", error), HasSubstr("is a directory"));
    EXPECT_FALSE(sim::script_load("/dev/zero", &error));
    EXPECT_THAT(sim::script_error_text("/dev/zero", error), HasSubstr("is longer than 1 MiB"));
    EXPECT_EQ(refusal(repeated("1s\n", 65'536)), "");
    EXPECT_THAT(refusal(repeated("1s\n", 65'537)), HasSubstr("at most 65536 steps"));

    std::string why;
    EXPECT_FALSE(sim::capture_load("/dev/null", &why));
    EXPECT_NE(why, "");
}

/* Logs hold the bytes of addresses; none of them may move a terminal's cursor. */
TEST(Text, IsPrintable)
{
    const std::pair<std::string, const char *> texts[] = {
        {"a\tb\n", "a\tb\n"},
        {std::string("\x1b[2J\r\0\x7f", 7), "\\x1B[2J\\x0D\\x00\\x7F"},
        {"PI\xef\xbc\x81", "PI\xef\xbc\x81"},
        {"\xc2\x9b\xc2\xa7", "\\xC2\\x9B\xc2\xa7"},
        {"\xff\xc0\x80\xe2\x82", "\\xFF\\xC0\\x80\\xE2\\x82"},
    };
    for (const auto &[text, shown] : texts)
        EXPECT_EQ(sim::text_printable(text), shown);
    const Played played = play("shell \x1b[2J\n");
    EXPECT_THAT(played.text, HasSubstr("shell     \\x1B[2J"));
}

constexpr char CONFIGURED[] =
    "port 3 phyid=7\n"
    "let phone src=00:11:22:33:44:55 ipv4 10.0.0.2 > 10.0.0.1\n"
    "start\n"
    "set 4 p_bridge.vvlan_oui_cfg index.mac=00:11:22:00:00:00 index.mask=ff:ff:ff:00:00:00\n"
    "hset 4 p_bridge.vvlan_glb_cfg glb_switch.vlan=100 glb_switch.enable=1\n"
    "set 4 p_bridge.vvlan_port_cfg index.ifx=3 enable=1 mode=0\n"; /* 6 lines */

TEST(Player, NamesTheLineOfAFailedExpectation)
{
    const struct {
        const char *line; /* the 7th and maybe the 8th; the last must fail */
        const char *found;
    } failing[] = {
        {"expect port 3 AUTO", "found: MANUAL"},
        {"expect port 4 MANUAL", "found: the port has no record"},
        {"expect no port 3 MANUAL", "found: MANUAL"},
        {"expect object 8 u_bridge.vvlan_join index.ifx=3", "found: there is no such object"},
        {"expect object 4 p_bridge.vvlan_port_cfg index.ifx=3 mode=1", "found: index.ifx=3 enable"},
        {"expect count 8 u_bridge.vvlan_oui_cfg 2", "found: there are 1"},
        {"expect switch 3 trapped", "found: "},
        {"expect out tagged", "found: no frame has come in"},
        {"expect no out tagged", "found: no frame has come in"},
        {"expect no shell \"x\"", "found: no debug command was run"},
        {"expect probe 3 phone -> untagged", "found: forwarded, tagged vid=100"},
        {"expect log error \"Assert\"", "found: there is no such line"},
        {"expect process starts 2", "found: it was started 1 times"},
        {"expect process exited 0", "found: it has not ended"},
        {"never v: probe 3 phone -> vid=100", "found: forwarded, tagged vid=100"},
        {"shell no-such-command", "found: "},
        {"stop\nexpect port 4 absent", "found: it does not run"},
        {"stop\nexpect no port 3 MANUAL", "found: it does not run"},
    };
    for (const auto &each : failing) {
        const Played played = play(std::string(CONFIGURED) + each.line + "\n");
        EXPECT_EQ(played.result.failed, 1U) << played.text;
        EXPECT_THAT(played.text, ContainsRegex("FAILED    dir/a.scn:[78]: ")) << each.line;
        EXPECT_THAT(played.text, HasSubstr(each.found));
    }
}

/* A watch sees a state that only stands between two jobs of the loop. */
TEST(Player, WatchesBetweenJobs)
{
    const std::string change = "hset 4 p_bridge.vvlan_glb_cfg qos.cos=1 qos.dscp=2\n"
                               "hset 4 p_bridge.vvlan_glb_cfg qos.cos=6 qos.dscp=46\n";
    const std::string end = "end w\nexpect probe 3 phone -> cos=6\n";
    const Played watched = play(CONFIGURED + ("always w: probe 3 phone -> cos=6\n" + change) + end);
    EXPECT_EQ(watched.result.failed, 1U) << watched.text;
    EXPECT_EQ(watched.result.passed, 1U) << watched.text;
    EXPECT_THAT(watched.text, HasSubstr("dir/a.scn:7: always w"));
    const Played holds = play(CONFIGURED + ("always w: probe 3 phone -> vid=100\n" + change) + end);
    EXPECT_EQ(holds.result.failed, 0U) << holds.text;
    EXPECT_THAT(holds.text, Not(HasSubstr("asked 0 times")));
}

/* ... and one inside a job, between the requests that take the port's ACLs off it. */
TEST(Player, WatchesInsideAJob)
{
    const Played played =
        play(CONFIGURED + std::string("never between: switch 3 acl=102,100\n"
                                      "always shown: port 3 MANUAL\n"
                                      "set 4 p_bridge.vvlan_port_cfg index.ifx=3 enable=0\n"
                                      "expect switch 3 acl=none\n"));
    EXPECT_EQ(played.result.failed, 1U) << played.text;
    EXPECT_THAT(played.text, ContainsRegex("FAILED .*:7: never between"));
}

/* An object is asked for what is given of it; the rest does not matter. */
TEST(Player, ComparesWhatIsGiven)
{
    const Played played = play(
        CONFIGURED + std::string("expect object 4 p_bridge.vvlan_glb_cfg glb_switch.vlan=100\n"
                                 "expect no object 4 p_bridge.vvlan_glb_cfg glb_switch.vlan=0\n"
                                 "expect object 4 p_bridge.vvlan_glb_cfg secu_mode=0\n"
                                 "expect no object 4 p_bridge.vvlan_glb_cfg glb_switch={}\n"
                                 "hset 4 p_bridge.vvlan_port_cfg index.ifx=3 mode=1\n"
                                 "expect object 4 p_bridge.vvlan_port_cfg index.ifx=3 mode=1 "
                                 "enable=1\n"));
    EXPECT_EQ(played.result.passed, 5U) << played.text;
    EXPECT_EQ(played.result.failed, 0U) << played.text;
}

TEST(Player, SaysWhatDidNothing)
{
    const struct {
        const char *lines;
        const char *said;
    } told[] = {
        {"start\n", "it runs already"},
        {"reconnect 4 type=2\n", "database 4 was not lost"},
        {"disconnect 4\ndisconnect 4\n", "has lost database 4 already"},
        {"stop\nkill\n", "it does not run"},
        {"stop\n", "ended with status 0; it stays down"},
        {"kill\nstop\n+1s expect process stopped\n", "ok        process stopped"},
        {"stop\nstart\nkill\n+1s expect process starts 3\n", "ok        process starts 3"},
        {"for n 1..65\nfault kt_mom_set nth=90 code=-5\ndone\n", "64 planned faults are still"},
        {"pcap 3 " VVLAN_SOURCE_DIR "/sim/scenarios/phone.pcap\n", "0:00.080  port 3    out: "},
        {"level 0\nrestart\n+1s shell show-zlog-level\n", "KTDF_ZLOG_LV_FATAL"},
    };
    for (const auto &each : told)
        EXPECT_THAT(play(std::string(CONFIGURED) + each.lines).text, HasSubstr(each.said));
    EXPECT_EQ(play("for n 1..65\nfault kt_mom_set nth=90 code=-5\ndone\n").result.failed, 1U);
}

/* A program that says more than the log keeps, in two lives. */
int talk()
{
    kt_zlog *log = kt_zlog_init("talk");
    for (int line = 0; line < 60'000; line++)
        ktdf_zlog(log, "talk", 4, "talk", 4, 1, KTDF_ZLOG_LV_DEBUG, "pid %d line %d",
                  sim::process_pid(), line);
    return 0;
}

TEST(Player, ForgetsLinesWhenTheLogHasLostSome)
{
    sim::ScriptError error{};
    const auto script = sim::script_parse("x",
                                          "start\nforget log\nexpect no log \"pid\"\nstart\n"
                                          "expect log \"pid 1001 line 0\"\n"
                                          "expect no log \"pid 1000\"\n",
                                          &error);
    ASSERT_TRUE(script) << sim::script_error_text("x", error);
    std::string text;
    sim::PlayOptions options = options_for(text);
    options.program = {"talk", talk, nullptr};
    EXPECT_EQ(sim::script_play(*script, options).passed, 3U) << text;
}

TEST(Player, IsTheSameTwice)
{
    const std::string file = VVLAN_SOURCE_DIR "/sim/scenarios/restart.scn";
    std::ifstream stream(file);
    const std::string scenario{std::istreambuf_iterator<char>(stream), {}};
    const Played first = play(scenario, true, 5);
    EXPECT_EQ(first.result.failed, 0U);
    EXPECT_GT(first.text.size(), 10'000U);
    play("start\nexpect process stopped\n");
    EXPECT_EQ(play(scenario, true, 5).text, first.text);
}

} // namespace
