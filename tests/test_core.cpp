/*
 * The process frame, the subscriptions and the decoders, on the simulated
 * platform. Most tests start the whole daemon and look at what it called, what
 * it logged and what it left in the databases.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_ds.h"
#include "app/proc/udp_vvlan_err.h"
#include "app/proc/udp_vvlan_event.h"
#include "app/proc/udp_vvlan_glb_cfg.h"
#include "app/proc/udp_vvlan_handler.h"
#include "app/proc/udp_vvlan_mac.h"
#include "app/proc/udp_vvlan_oui.h"
#include "app/proc/udp_vvlan_port.h"
#include "object/object.h"
#include "sim/sim_call.h"
#include "sim/sim_host.h"
#include "sim/sim_log.h"
#include "sim/sim_mom.h"
#include "sim/sim_process.h"
#include "sim/sim_switch.h"
#include "sim/sim_world.h"

namespace
{

using sim::calls_count;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Names = std::vector<std::string>;

constexpr char DEBUG_FILE[] = "/var/tmp/udp_vvlan_debug";
constexpr char PID_FILE[] = "/var/run/ox.vvlan.dp.pid";
constexpr char NO_HAM_FILE[] = "/var/tmp/ox.vvlan.dp_no_ham";
constexpr char TIMER[] = "kt_thread_add_timer_timeval_withname";

class Core : public testing::Test
{
protected:
    void SetUp() override
    {
        begin_anew();
    }

    void TearDown() override
    {
        sim::world_reset();
        udp_vvlan_state_reset();
    }

    static void begin_anew()
    {
        sim::world_reset();
        udp_vvlan_state_reset();
        sim::process_install({"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset});
        sim::switch_add_port(3, 0x103, "p3");
        sim::calls_record(true);
    }

    /* Runs the daemon until nothing is due. */
    static void start(const std::string &level = "4")
    {
        sim::host_file_write(DEBUG_FILE, level);
        sim::process_start();
        sim::settle();
    }

    /* Runs the daemon to its end, or to SIGTERM once nothing is due. */
    static int exit_status()
    {
        return sim::process_run(udp_vvlan_main).status;
    }

    static Names log_texts()
    {
        Names texts;
        for (const sim::LogLine &line : sim::log_lines())
            texts.push_back(line.text);
        return texts;
    }

    /* Which of `names` were called, in the order of the calls, repeats included. */
    static Names called(const Names &names)
    {
        Names found;
        for (const sim::Call &call : sim::calls())
            if (std::find(names.begin(), names.end(), call.name) != names.end())
                found.push_back(call.name);
        return found;
    }

    static object::Message make(const char *kind, const char *text)
    {
        return object::from_text(*object::kind_by_name(kind), text, nullptr, nullptr);
    }

    static void peer_set(uint32_t db, const char *kind, const char *text)
    {
        EXPECT_EQ(kt_mom_set(sim::mom_peer(), db, make(kind, text).get(), 0, 0), 0);
        sim::settle();
    }

    static std::string stored(uint32_t db, const char *kind, const char *key)
    {
        const object::Message found = sim::mom_get(db, *make(kind, key));
        return found == nullptr ? "" : object::to_text(*found);
    }

    static kt_mom_msg change(uint32_t operation, const void *object)
    {
        return {operation, object, KT_MOM_CHANGE, 0};
    }
};

TEST_F(Core, DebugLevelIsReadFromItsFile)
{
    const struct {
        const char *text;
        uint32_t level;
    } cases[] = {{"0x3", 3}, {"0X1F", 5}, {"7", 5},  {"-1", 5},
                 {"abc", 0}, {"", 1},     {"2x", 2}, {"000000000000000000031", 3}};
    for (const auto &one : cases) {
        SCOPED_TRACE(one.text);
        begin_anew();
        start(one.text);
        EXPECT_EQ(udp_vvlan_debug_level, one.level);
    }
    begin_anew();
    sim::process_start();
    EXPECT_EQ(udp_vvlan_debug_level, 1U);
}

TEST_F(Core, OnlyOneCopyRuns)
{
    start();
    const std::string pid = std::to_string(sim::process_pid());
    EXPECT_EQ(sim::host_file(PID_FILE), pid + '\0');
    const size_t lines = sim::log_lines().size();
    sim::OutputCapture output;
    EXPECT_EQ(exit_status(), 255);
    EXPECT_EQ(output.text(), "The 'ox.vvlan.dp' process is already running!\n");
    EXPECT_EQ(sim::log_lines().size(), lines);
    EXPECT_EQ(sim::host_file(PID_FILE), pid + '\0');
    EXPECT_TRUE(sim::process_is_running());
}

TEST_F(Core, MarkerKeepsTheRestartManagerOut)
{
    sim::host_file_write(NO_HAM_FILE, "");
    start();
    EXPECT_EQ(calls_count("reg_process_exit_action"), 0U);
    sim::process_signal(SIGPIPE);
    EXPECT_FALSE(sim::process_is_running());

    begin_anew();
    sim::OutputCapture output;
    sim::fault_plan("reg_process_exit_action", 1, -3);
    start();
    sim::process_signal(SIGPIPE);
    EXPECT_TRUE(sim::process_is_running());
    EXPECT_EQ(output.text(), "The HAM restart of 'ox.vvlan.dp' reg failed!\n");
}

TEST_F(Core, StartUpFailures)
{
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(calls_count("kt_global_finish"), 1U);

    begin_anew();
    sim::fault_plan("kt_global_init", 1, 0);
    EXPECT_EQ(exit_status(), 256 - 17);
    EXPECT_THAT(log_texts(), ElementsAre("Assert:<init> init global failed, global is (NULL)."));

    begin_anew();
    sim::fault_plan("rdnd_lib_mom_reg", 1, -5);
    EXPECT_EQ(exit_status(), 256 - 5);
    EXPECT_THAT(log_texts(), ElementsAre("<init> init rdnd failed, rv = -5."));
    EXPECT_EQ(calls_count("kt_global_finish"), 1U);
    EXPECT_EQ(calls_count("kt_global_run"), 0U);

    begin_anew();
    sim::OutputCapture output;
    sim::fault_plan("kt_zlog_init", 1, 0);
    start("5");
    EXPECT_EQ(output.text(), "<init> init zlog failed.\n");
    EXPECT_EQ(udp_vvlan_debug_level, 1U);
    EXPECT_EQ(udp_vvlan_inited, 1);
    EXPECT_THAT(log_texts(), IsEmpty());
}

TEST_F(Core, InitialisesOnceWhenAllDatabasesAreUp)
{
    start();
    const Names texts = log_texts();
    EXPECT_EQ(std::count(texts.begin(), texts.end(),
                         "<status: udp_vvlan> udp_vvlan_mom_connect_callback is not already."),
              3);
    EXPECT_THAT(texts, Contains("<init> init vvlan successfully."));
    const Names steps = {"fp_udp_register_acl_handler",
                         "fp_udp_cgst_register",
                         "libddm_init",
                         "kt_mom_scan_sync",
                         "kt_mom_subscribe",
                         "kt_mom_subscribe_field",
                         TIMER};
    EXPECT_THAT(called(steps),
                ElementsAre("fp_udp_register_acl_handler", "fp_udp_cgst_register", "libddm_init",
                            "kt_mom_scan_sync", "kt_mom_subscribe", "kt_mom_subscribe_field",
                            "kt_mom_subscribe", "kt_mom_subscribe", TIMER));
    EXPECT_EQ(stored(0, "s_cluster.reg_pkt_info", "index.name=pkt_vvlan"),
              "index.name=pkt_vvlan dlib_name=libpkt.vvlan.sw.so");
    /* Every scan has ended, and so has the fast path's first synchronisation. */
    EXPECT_EQ(calls_count("acl_sync_end"), 3U);
}

TEST_F(Core, ReconnectResynchronisesWhenTheLastOneIsBack)
{
    start();
    udp_vvlan_glb.vid = 77; /* settings stay */
    sim::calls_clear();
    sim::mom_disconnect(6);
    sim::mom_disconnect(0);
    sim::settle();
    EXPECT_THAT(log_texts(), Contains("<mom> mom(6) is disconneted."));
    sim::mom_reconnect(6, 2);
    sim::settle();
    EXPECT_THAT(called({"kt_mom_subscribe_field", "kt_mom_scan_sync"}), IsEmpty());
    sim::mom_reconnect(0, 2);
    sim::settle();
    EXPECT_THAT(called({"kt_mom_subscribe_field", "kt_mom_scan_sync", "libddm_init", TIMER}),
                ElementsAre("kt_mom_scan_sync", "kt_mom_subscribe_field"));
    EXPECT_THAT(log_texts(), Contains("<reinit> reinit vvlan successfully."));
    /* All four scans count anew: only the last one's end is the end of it. */
    EXPECT_THAT(called({"acl_sync_end"}), testing::SizeIs(3));
    EXPECT_EQ(udp_vvlan_glb.vid, 77U);
}

TEST_F(Core, AnotherDatabaseInstanceEndsTheProcess)
{
    start("0");
    int status = -1;
    sim::process_on_end([&status](const sim::Ended &ended) { status = ended.status; });
    sim::mom_disconnect(8);
    sim::mom_reconnect(8, 1);
    sim::settle();
    EXPECT_EQ(status, 77);
}

TEST_F(Core, FailedConnectionsEndTheProcess)
{
    for (const char *name : {"kt_mom_client_connect_sync", "kt_mom_client_connect",
                             "kt_mom_client_set_disconnect_cb", "kt_mom_client_set_reconnect_cb"}) {
        SCOPED_TRACE(name);
        begin_anew();
        sim::fault_plan(name, 2, -5);
        EXPECT_EQ(exit_status(), 256 - 5);
        EXPECT_THAT(log_texts(), ElementsAre("<init> udp_vvlan_mom_connect failed, rv = -5."));
        EXPECT_EQ(calls_count("kt_global_finish"), 1U);
        EXPECT_EQ(calls_count("kt_mom_client_connect"), 2U); /* even when the first one failed */
    }
    begin_anew();
    sim::fault_plan("malloc", 2, 0);
    EXPECT_EQ(exit_status(), 256 - ENOTCONN);
    EXPECT_THAT(log_texts(), Contains("<init> add mom event(0) failed, rv = -1."));
}

TEST_F(Core, FailedInitialisationRunsAllStepsAndEndsTheProcess)
{
    sim::fault_plan("libddm_init", 1, -19);
    sim::fault_plan("fp_udp_get_mgr", 1, 0);
    const int rv = -19 | -17;
    EXPECT_EQ(exit_status(), rv & 0xff);
    EXPECT_THAT(log_texts(),
                ElementsAre("Assert:<init> get fp mgr failed.",
                            "Assert:<init> init ddm failed, rv = -19.",
                            "Assert:<init> init vvlan failed, restart now!",
                            "<exit> init udp vvlan failed, rv = " + std::to_string(rv) + "."));
    EXPECT_EQ(calls_count(TIMER), 1U);

    begin_anew();
    sim::host_file_write(DEBUG_FILE, "0");
    sim::fault_plan("kt_mom_subscribe", 2, -11);
    EXPECT_EQ(exit_status(), 256 - 11);
    EXPECT_THAT(log_texts(), IsEmpty());
    EXPECT_EQ(calls_count("kt_mom_subscribe"), 2U);

    begin_anew();
    start("1");
    sim::fault_plan("kt_mom_subscribe_field", 1, -12);
    sim::mom_disconnect(4);
    sim::mom_reconnect(4, 2);
    sim::settle();
    EXPECT_FALSE(sim::process_is_running());
    EXPECT_THAT(log_texts(), Contains("Assert:<reinit> reinit vvlan failed, restart now!"));
}

TEST_F(Core, LogLinesAreGatedByTheDebugLevel)
{
    udp_vvlan_zlog = kt_zlog_init("vvlan");
    const std::vector<int> ladder[] = {{},        {100},         {100, 80},
                                       {100, 80}, {100, 80, 40}, {100, 80, 40, 20}};
    for (uint32_t level = 0; level <= 5; level++) {
        sim::log_clear();
        udp_vvlan_debug_level = level;
        int evaluated = 0;
        UDP_VVLAN_LOG_ERROR("%s %d", "100% %n", ++evaluated);
        UDP_VVLAN_LOG_WARN("%d", ++evaluated);
        UDP_VVLAN_LOG_INFO("%d", ++evaluated);
        UDP_VVLAN_LOG_DEBUG("%d", ++evaluated);
        std::vector<int> levels;
        for (const sim::LogLine &line : sim::log_lines())
            levels.push_back(line.level);
        EXPECT_EQ(levels, ladder[level]);
        EXPECT_EQ(static_cast<size_t>(evaluated), ladder[level].size());
    }
    const sim::LogLine &line = sim::log_lines().front();
    EXPECT_EQ(line.text, "100% %n 1");
    EXPECT_EQ(line.file, "tests/test_core.cpp");
    EXPECT_EQ(line.func, "TestBody");

    const std::string longest(2000, 'x');
    UDP_VVLAN_LOG_ERROR("%s", longest.c_str());
    EXPECT_EQ(sim::log_lines().back().text, std::string(1023, 'x'));
}

std::vector<std::string> routed;

template <char Name, int Result>
int route(kt_global *, const kt_mom_msg *, const udp_vvlan_ds_entry *entry)
{
    routed.push_back(std::string(1, Name) + std::to_string(entry->field_tag));
    return Result;
}

int route_change(kt_global *, const kt_mom_msg *, uint32_t field_tag)
{
    routed.push_back("c" + std::to_string(field_tag));
    return 14;
}

TEST_F(Core, NotificationsAreRoutedByOperationAndScanState)
{
    udp_vvlan_ds_entry entry = {route<'r', 11>, route<'s', 12>, route<'o', 13>, route_change, 9};
    const int object = 0;
    const struct {
        kt_mom_msg msg;
        int rv;
        Names routes;
    } cases[] = {
        {{29, nullptr, 1, 0}, 11, {"r9"}}, {{0, nullptr, 2, 0}, 12, {"s9"}},
        {{0, nullptr, 4, 0}, 12, {"s9"}},  {{1, &object, 0, 0}, 14, {"c9"}},
        {{0, nullptr, 3, 0}, 14, {"c9"}},  {{1, &object, 1, 0}, 14, {"c9", "o9"}},
        {{0, nullptr, 1, 0}, -1, {"o9"}},
    };
    for (const auto &one : cases) {
        routed.clear();
        EXPECT_EQ(udp_vvlan_ds_callback(nullptr, &one.msg, &entry), one.rv);
        EXPECT_EQ(routed, one.routes);
    }
    EXPECT_EQ(udp_vvlan_ds_callback(nullptr, &cases[0].msg, nullptr), -1);
    /* A message that failed or is missing is every decoder's to refuse. */
    const kt_mom_msg failed = {1, nullptr, 0, -5};
    for (const udp_vvlan_ds_entry &one : udp_vvlan_ds_table) {
        EXPECT_EQ(one.change(nullptr, &failed, one.field_tag), -4);
        EXPECT_EQ(one.change(nullptr, nullptr, one.field_tag), -4);
    }
}

TEST_F(Core, GlobalSettingsAreAppliedFieldByField)
{
    start("4");
    EXPECT_EQ(udp_vvlan_glb.age_time, 1440);
    EXPECT_EQ(udp_vvlan_glb.cos, 6);
    EXPECT_EQ(udp_vvlan_glb.dscp, 46);
    const auto cfg = make("p_bridge.vvlan_glb_cfg",
                          "glb_switch.vlan=10 glb_switch.enable=1 secu_mode=2 age_time=70000 "
                          "qos.cos=260 qos.dscp=300");
    const uint32_t fields[] = {6, 8};
    kt_mom_hset(sim::mom_peer(), 4, cfg.get(), fields, 2);
    sim::log_clear();
    sim::settle();
    EXPECT_EQ(udp_vvlan_glb.vid, 0U);
    EXPECT_EQ(udp_vvlan_glb.secu, 1);
    EXPECT_EQ(udp_vvlan_glb.cos, 4);
    EXPECT_EQ(udp_vvlan_glb.dscp, 44);
    EXPECT_EQ(udp_vvlan_glb.age_time, 1440);
    const Names texts = log_texts();
    EXPECT_THAT(texts, Contains("tag[5] field[8].\n"));
    EXPECT_THAT(texts, Not(Contains("tag[6] field[8].\n"))); /* its own field ends the walk */

    /* A plain set is no hash record, and changes nothing. */
    const kt_mom_msg set = change(KT_MOM_SET, cfg.get());
    EXPECT_EQ(udp_vvlan_event_set_glb_cfg(udp_vvlan_global, &set, 7), 0);
    EXPECT_EQ(udp_vvlan_glb.age_time, 1440);
    const uint32_t age_time = 7;
    kt_mom_hash hash = {cfg.get(), &age_time, 1, {}, -3};
    const kt_mom_msg hset = change(KT_MOM_HSET, &hash);
    EXPECT_EQ(udp_vvlan_event_set_glb_cfg(udp_vvlan_global, &hset, 7), -4);
    hash.error = 0;
    EXPECT_EQ(udp_vvlan_event_set_glb_cfg(udp_vvlan_global, &hset, 0), -4);
    EXPECT_EQ(udp_vvlan_event_set_glb_cfg(udp_vvlan_global, &hset, 7), 0);
    EXPECT_EQ(udp_vvlan_glb.age_time, 4464);

    const auto *typed = reinterpret_cast<const PBridge__VvlanGlbCfg *>(cfg.get());
    EXPECT_EQ(udp_vvlan_handler_set_glb_cfg(1, typed, 9), -20);
    const auto empty = make("p_bridge.vvlan_glb_cfg", "");
    typed = reinterpret_cast<const PBridge__VvlanGlbCfg *>(empty.get());
    EXPECT_EQ(udp_vvlan_handler_set_glb_cfg(1, typed, 5), -4);
    EXPECT_EQ(udp_vvlan_handler_set_glb_cfg(1, typed, 8), -4);
}

TEST_F(Core, TheSwitchSetsUpAclsFirstAndTakesPortsOutFirst)
{
    start("4");
    peer_set(4, "p_bridge.vvlan_port_cfg", "index.ifx=3 enable=1 mode=0");
    const Names steps = {"acl_create", "acl_destroy", "ace_add",          "ace_del",
                         "apply_add",  "apply_del",   "kt_mom_subscribe", "kt_mom_unsubscribe"};
    const auto set_switch = [&](const char *text) {
        sim::calls_clear();
        const auto cfg = make("p_bridge.vvlan_glb_cfg", text);
        const uint32_t field = 5;
        kt_mom_hset(sim::mom_peer(), 4, cfg.get(), &field, 1);
        sim::settle();
        return called(steps);
    };
    EXPECT_THAT(set_switch("glb_switch.vlan=10 glb_switch.enable=1"),
                ElementsAre("acl_create", "acl_create", "acl_create", "ace_add", "apply_add",
                            "apply_add", "apply_add", "kt_mom_subscribe"));
    EXPECT_THAT(set_switch("glb_switch.vlan=99"), ElementsAre("kt_mom_unsubscribe"));
    EXPECT_THAT(log_texts(), Contains("wrong vid(99)!"));
    EXPECT_EQ(udp_vvlan_glb.enable, 1);
    EXPECT_THAT(set_switch("glb_switch.vlan=10"),
                ElementsAre("apply_del", "apply_del", "apply_del", "acl_destroy", "ace_del",
                            "acl_destroy", "acl_destroy", "kt_mom_unsubscribe"));
    EXPECT_EQ(udp_vvlan_glb.vid, 0U);

    set_switch("glb_switch.vlan=10 glb_switch.enable=1");
    sim::fault_plan("kt_mom_subscribe", 1, -9);
    EXPECT_THAT(set_switch("glb_switch.enable=1"), ElementsAre("kt_mom_subscribe"));
    EXPECT_EQ(udp_vvlan_glb.enable, 0);
    EXPECT_EQ(udp_vvlan_glb.vid, 10U); /* id 0 switches off and leaves the id */
    EXPECT_THAT(log_texts(), Contains("Assert: sub(1) mac addr for voice vlan fail! rv=-9 "));
    EXPECT_THAT(log_texts(), Contains("Assert:set vvlan glb_cfg failed, rv = -11."));
}

TEST_F(Core, OuisAreTakenByTheirFirstSixBytes)
{
    start("2");
    const auto handle = [&](uint32_t add, const char *text) {
        const auto cfg = make("p_bridge.vvlan_oui_cfg", text);
        return udp_vvlan_handler_set_oui_cfg(
            add, reinterpret_cast<const PBridge__VvlanOuiCfg *>(cfg.get()));
    };
    const udp_vvlan_mac_addr mac = {{0x00, 0x11, 0x22, 0, 0, 0}};
    const udp_vvlan_mac_addr mask = {{0xff, 0xff, 0xff, 0, 0, 0}};
    EXPECT_EQ(handle(1, "index.mac=00:11:22:00:00:00 index.mask=0xffffff00000011"), 0);
    EXPECT_NE(udp_vvlan_oui_find(&mac, &mask), nullptr);
    EXPECT_EQ(handle(0, "index.mac=00:11:22:00:00:01 index.mask=ff:ff:ff:00:00:00"), -7);
    EXPECT_EQ(handle(0, "index.mac=00:11:22:00:00:00 index.mask=ff:ff:ff:00:00:00"), 0);
    EXPECT_EQ(udp_vvlan_oui_find(&mac, &mask), nullptr);
    for (const char *lacking : {"", "index={}", "index.mac=00:11:22:00:00:00",
                                "index.mac=0x001122 index.mask=ff:ff:ff:00:00:00"})
        EXPECT_EQ(handle(1, lacking), -4) << lacking;

    const auto cfg =
        make("p_bridge.vvlan_oui_cfg", "index.mac=00:11:22:00:00:00 index.mask=ff:ff:ff:00:00:00");
    sim::fault_plan("malloc", 1, 0);
    const kt_mom_msg set = change(KT_MOM_SET, cfg.get());
    EXPECT_EQ(udp_vvlan_event_set_oui_cfg(udp_vvlan_global, &set), -11);
    const kt_mom_msg publish = change(KT_MOM_PUBLISH, cfg.get());
    EXPECT_EQ(udp_vvlan_event_set_oui_cfg(udp_vvlan_global, &publish), -20);
    EXPECT_EQ(log_texts().back(), "receive a unexpected event. operate=24 .");
    EXPECT_EQ(sim::log_lines().back().level, KTDF_ZLOG_LV_WARN);
}

TEST_F(Core, PortsAreConfiguredAndForgotten)
{
    start("4");
    peer_set(4, "p_bridge.vvlan_port_cfg", "index.ifx=3 enable=3 mode=1");
    udp_vvlan_port_node *port = udp_vvlan_port_find(3);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->phyid, 0x103U);
    EXPECT_EQ(port->flags, UDP_VVLAN_PORT_VVLAN_EN | UDP_VVLAN_PORT_AUTO_MOD |
                               UDP_VVLAN_PORT_AUTO_JOIN | UDP_VVLAN_PORT_MAC_AGED);
    port->no_flw = 60;
    peer_set(4, "p_bridge.vvlan_port_cfg", "index.ifx=3 enable=1 mode=2");
    EXPECT_EQ(port->flags,
              UDP_VVLAN_PORT_VVLAN_EN | UDP_VVLAN_PORT_AUTO_JOIN | UDP_VVLAN_PORT_MAC_AGED);
    EXPECT_EQ(port->no_flw, 60U);

    sim::fault_plan("libddm_get_phyid_by_ifx", 1, -19, 2);
    sim::log_clear();
    peer_set(4, "p_bridge.vvlan_port_cfg", "index.ifx=9 enable=1");
    EXPECT_EQ(calls_count("libddm_get_phyid_by_ifx"), 4U);
    EXPECT_THAT(log_texts(), Contains("rv = -19"));
    ASSERT_NE(udp_vvlan_port_find(9), nullptr); /* a port that nobody knows is kept all the same */
    EXPECT_EQ(udp_vvlan_port_find(9)->phyid, 0U);

    const udp_vvlan_mac_addr mac = {{0x00, 0x11, 0x22, 1, 2, 3}};
    udp_vvlan_mac_add(&mac, 3);
    ASSERT_NE(udp_vvlan_mac_find(&mac), nullptr);
    const auto key = make("p_bridge.vvlan_port_cfg", "index.ifx=3");
    kt_mom_del(sim::mom_peer(), 4, key.get(), 0, 0);
    sim::settle();
    EXPECT_EQ(udp_vvlan_port_find(3), nullptr);
    EXPECT_EQ(udp_vvlan_mac_find(&mac), nullptr);
    const kt_mom_msg del = change(KT_MOM_DEL, key.get());
    EXPECT_EQ(udp_vvlan_event_set_port_cfg(udp_vvlan_global, &del), -7);
    const kt_mom_msg publish = change(KT_MOM_PUBLISH, key.get());
    EXPECT_EQ(udp_vvlan_event_set_port_cfg(udp_vvlan_global, &publish), -20);
    const auto keyless = make("p_bridge.vvlan_port_cfg", "enable=1");
    const kt_mom_msg no_index = change(KT_MOM_SET, keyless.get());
    EXPECT_EQ(udp_vvlan_event_set_port_cfg(udp_vvlan_global, &no_index), -4);
    sim::log_clear();
    const kt_mom_msg note = {0, nullptr, KT_MOM_SECTION_NOTE, 0};
    EXPECT_EQ(udp_vvlan_event_set_port_cfg(udp_vvlan_global, &note), 0);
    EXPECT_THAT(log_texts(), IsEmpty());
}

TEST_F(Core, AutoPortsKeepTheirRecordsAlive)
{
    start("1");
    const auto cfg = make("p_bridge.vvlan_port_cfg", "index.ifx=3 enable=1 mode=1");
    const kt_mom_msg set = change(KT_MOM_SET, cfg.get());
    const Names names = {"kt_mom_clear_expire", "kt_mom_get_sync", "kt_mom_set",
                         "kt_mom_kt_obj_free", "libddm_get_phyid_by_ifx"};
    peer_set(4, "p_bridge.vvlan_port_auto", "index.ifx=3");
    /* A call that fails is made again, and once more for the log line; then that is all. */
    for (const uint32_t level : {1U, 2U}) {
        udp_vvlan_debug_level = level;
        const Names again(level + 1, "kt_mom_clear_expire");
        sim::calls_clear();
        sim::fault_plan("kt_mom_clear_expire", 1, -5);
        EXPECT_EQ(udp_vvlan_event_set_port_cfg(udp_vvlan_global, &set), 0);
        EXPECT_EQ(called(names), again);
        sim::calls_clear();
        sim::fault_plan("kt_mom_clear_expire", 1, -5, level + 1);
        EXPECT_EQ(udp_vvlan_event_set_port_cfg(udp_vvlan_global, &set), -5);
        EXPECT_EQ(called(names), again);
    }
    udp_vvlan_debug_level = 1;
    sim::calls_clear();
    sim::fault_plan("kt_mom_set", 1, -6, 2);
    EXPECT_EQ(udp_vvlan_event_set_port_cfg(udp_vvlan_global, &set), -6);
    EXPECT_THAT(called(names), ElementsAre("kt_mom_clear_expire", "kt_mom_get_sync", "kt_mom_set",
                                           "kt_mom_set", "kt_mom_kt_obj_free"));
    EXPECT_EQ(udp_vvlan_port_find(3), nullptr);
    sim::calls_clear();
    EXPECT_EQ(udp_vvlan_event_set_port_cfg(udp_vvlan_global, &set), 0);
    EXPECT_THAT(called(names), ElementsAre("kt_mom_clear_expire", "kt_mom_get_sync", "kt_mom_set",
                                           "kt_mom_kt_obj_free", "kt_mom_clear_expire",
                                           "libddm_get_phyid_by_ifx"));
    EXPECT_EQ(stored(4, "p_bridge.vvlan_port_auto", "index.ifx=3"), "index.ifx=3 enable=1");
}

TEST_F(Core, PortNoticesJoinAutomaticPortsOnly)
{
    start("2");
    const auto noty = make("s_bridge.vvlan_port_noty", "index.phyid=259");
    const auto notice = [&] {
        EXPECT_EQ(kt_mom_publish(sim::mom_peer(), 0, noty.get()), 0);
        sim::settle();
        return stored(4, "p_bridge.vvlan_port_auto", "index.ifx=3");
    };
    EXPECT_EQ(notice(), "");
    peer_set(4, "p_bridge.vvlan_port_cfg", "index.ifx=3 enable=1");
    EXPECT_EQ(notice(), "");
    peer_set(4, "p_bridge.vvlan_port_cfg", "index.ifx=3 mode=1");
    EXPECT_EQ(notice(), "");
    peer_set(4, "p_bridge.vvlan_port_cfg", "index.ifx=3 enable=1 mode=1");
    EXPECT_EQ(notice(), "index.ifx=3 enable=1");

    const kt_mom_msg del = change(KT_MOM_DEL, noty.get());
    EXPECT_EQ(udp_vvlan_event_set_port_noti(udp_vvlan_global, &del), -20);
    const kt_mom_msg empty = change(KT_MOM_SET, nullptr);
    EXPECT_EQ(udp_vvlan_event_set_port_noti(udp_vvlan_global, &empty), 0);
    const auto keyless = make("s_bridge.vvlan_port_noty", "");
    const kt_mom_msg no_index = change(KT_MOM_SET, keyless.get());
    EXPECT_EQ(udp_vvlan_event_set_port_noti(udp_vvlan_global, &no_index), -4);
    const auto unknown = make("s_bridge.vvlan_port_noty", "index.phyid=8");
    const kt_mom_msg set = change(KT_MOM_SET, unknown.get());
    const uint64_t before = calls_count("libddm_get_ifx_by_phyid");
    EXPECT_NE(udp_vvlan_event_set_port_noti(udp_vvlan_global, &set), 0);
    EXPECT_EQ(calls_count("libddm_get_ifx_by_phyid"), before + 3);
}

TEST_F(Core, FailuresAreToldToTheManagementPlane)
{
    start("3");
    udp_vvlan_glb.vid = 200;
    const uint32_t ifx = 12;
    vvlan_oui oui = {};
    oui.mac = {{0, 0x11, 0x22, 0, 0, 0}};
    oui.mask = {{0xff, 0xff, 0xff, 0, 0, 0}};
    const struct {
        const void *data;
        const char *event;
    } types[] = {{nullptr, "vid=200"},
                 {&ifx, "msg_type=1 ifx=12"},
                 {&oui, "msg_type=2 oui.mac=00:11:22:00:00:00 oui.mask=ff:ff:ff:00:00:00"},
                 {nullptr, "msg_type=3 qos.cos=6 qos.dscp=46"},
                 {nullptr, "msg_type=4"}};
    sim::log_clear();
    for (uint32_t type = 0; type < 5; type++) {
        udp_vvlan_handler_err_event(type, types[type].data);
        EXPECT_EQ(stored(4, "p_bridge.vvlan_err_event", ""), types[type].event);
    }
    EXPECT_THAT(log_texts(), IsEmpty());
    udp_vvlan_handler_err_event(7, nullptr);
    EXPECT_THAT(log_texts(), ElementsAre("err_type(7) not support\xEF\xBC\x81"));
    EXPECT_EQ(stored(4, "p_bridge.vvlan_err_event", ""), "msg_type=4");
    udp_vvlan_debug_level = 4;
    udp_vvlan_handler_err_event(4, nullptr);
    EXPECT_THAT(log_texts(), Contains("ERR_TYPE__VVLAN_SET_SECURITY_MOD\xEF\xBC\x81"));
}

TEST_F(Core, SectionsStopAtTheFirstFailure)
{
    start("1");
    const Names names = {"kt_mom_dsbegin_sync", "kt_mom_dsbegin", "kt_mom_dsend"};
    sim::calls_clear();
    sim::fault_plan("kt_mom_dsbegin_sync", 2, -5);
    EXPECT_EQ(udp_vvlan_ds_pexpire_port_cfg(udp_vvlan_global), 0);
    EXPECT_THAT(called(names), ElementsAre("kt_mom_dsbegin_sync", "kt_mom_dsbegin_sync"));
    EXPECT_EQ(log_texts().back(), "Assert:<ds> pexpire port_auto failed, rv = -5.");
    EXPECT_EQ(sim::log_lines().back().func, "udp_vvlan_ds_pexpire_port_cfg");
    udp_vvlan_scan_over = {};
    for (uint64_t nth = 1; nth <= 3; nth++) {
        sim::fault_plan("kt_mom_dsend", nth, -6);
        EXPECT_EQ(udp_vvlan_ds_del_pexpire_port_cfg(udp_vvlan_global), 0);
        EXPECT_TRUE(sim::faults_are_spent());
        EXPECT_EQ(udp_vvlan_scan_over.port_cfg, 0);
    }
    sim::fault_plan("kt_mom_dsend", 1, -6);
    EXPECT_EQ(udp_vvlan_ds_del_pexpire_oui_cfg(udp_vvlan_global), 0);
    EXPECT_EQ(udp_vvlan_scan_over.oui_cfg, 0);
    EXPECT_EQ(log_texts().back(), "Assert:<ds> del pexpire oui_cfg failed, rv = -6.");
}

TEST_F(Core, WhatIsNoLongerConfiguredGoesAfterARestart)
{
    const char *configured = "index.ifx=3";
    const char *stale = "index.ifx=9";
    peer_set(4, "p_bridge.vvlan_port_cfg", "index.ifx=3 enable=1 mode=1");
    for (const char *key : {configured, stale}) {
        peer_set(8, "u_bridge.vvlan_join", key);
        peer_set(4, "p_bridge.vvlan_port_auto", key);
    }
    peer_set(8, "u_bridge.vvlan_port_cfg", stale);
    peer_set(8, "u_bridge.vvlan_oui_cfg", "index.ace_id=5");
    start("1");
    EXPECT_EQ(stored(8, "u_bridge.vvlan_join", configured), "index.ifx=3");
    EXPECT_EQ(stored(4, "p_bridge.vvlan_port_auto", configured), "index.ifx=3 enable=1");
    EXPECT_EQ(stored(8, "u_bridge.vvlan_join", stale), "");
    EXPECT_EQ(stored(4, "p_bridge.vvlan_port_auto", stale), "");
    EXPECT_EQ(stored(8, "u_bridge.vvlan_port_cfg", stale), "");
    EXPECT_EQ(stored(8, "u_bridge.vvlan_oui_cfg", "index.ace_id=5"), "");
}

} // namespace
