/*
 * Voice MACs, recovery and dumps, and what becomes of tables without memory.
 */
#include "tests/tables_fixture.h"

namespace
{

using namespace tables_test;
using testing::Contains;
using testing::IsEmpty;
using testing::Not;

using Macs = Tables;

// --- Voice MACs

TEST_F(Macs, MacsAreLearntMovedAndForgotten)
{
    enable();
    udp_vvlan_oui_add_node(&OUI, &MASK24);
    udp_vvlan_port_node *one = add_port(1, AUTO | DENY), *two = add_port(2, AUTO | AGED);
    const Addr second = {{0x00, 0x1B, 0x54, 9, 9, 9}}, stranger = {{2, 2, 2, 2, 2, 2}};
    EXPECT_EQ(notify(KT_MOM_SET, stranger, 1), 0);
    EXPECT_EQ(one->flags, AUTO | JOIN | AGED); /* marked though the MAC is dropped */
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 9) | notify(KT_MOM_SET, PHONE, 1, 100, 6, 2), 0);
    EXPECT_EQ(udp_vvlan_mac_map->size, 0U);
    one->no_flw = 60;
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 1) | notify(KT_MOM_SET, second, 1, 100, 6, 1), 0);
    EXPECT_EQ(one->flags, AUTO | JOIN);
    EXPECT_EQ(one->no_flw, 0U);
    EXPECT_EQ(shell("dump_port_mac 1"), "\n\n  <00001> mac: 001B.5461.6263 \n"
                                        "  <00002> mac: 001B.5409.0909 \n");
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 2), 0); /* moves; the old port keeps the other one */
    EXPECT_EQ(one->flags & AGED, 0);
    EXPECT_EQ(udp_vvlan_mac_find(&PHONE)->ifx, 2U);
    udp_vvlan_port_set_flags(one, JOIN, false);
    EXPECT_EQ(notify(KT_MOM_SET, second, 2), 0);
    EXPECT_EQ(one->flags, AUTO | AGED); /* empty now; auto_join is left */
    EXPECT_EQ(two->flags, AUTO | JOIN);
    two->flags = EN | AGED; /* no longer automatic: the record stays, the new port wakes */
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 1), 0);
    EXPECT_EQ(udp_vvlan_mac_find(&PHONE)->ifx, 2U);
    EXPECT_EQ(one->flags, AUTO | JOIN);
    EXPECT_EQ(notify(KT_MOM_DEL, PHONE, 2), 0);
    EXPECT_NE(udp_vvlan_mac_find(&PHONE), nullptr);
    two->flags = AUTO;
    udp_vvlan_oui_del_node(udp_vvlan_oui_find(&OUI, &MASK24));
    EXPECT_EQ(udp_vvlan_mac_map->size, 0U);
    EXPECT_EQ(two->flags, AUTO | AGED);

    udp_vvlan_oui_add_node(&OUI, &MASK24);
    two->flags = AUTO | DENY;
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 2), 0);
    udp_vvlan_port_set_flags(two, DENY, true);
    sim::log_clear();
    udp_vvlan_debug_level = 4;
    EXPECT_EQ(notify(KT_MOM_DEL, PHONE, 2) | notify(KT_MOM_DEL, PHONE, 2), 0);
    EXPECT_EQ(two->flags, AUTO | JOIN | AGED);
    /* The raw bytes are the text; this address begins with a NUL. */
    EXPECT_THAT(log_texts(), Contains("udp_vvlan_handler_set_mac_noti: mac() not found"));
    sim::fault_plan("malloc", 1, 0);
    udp_vvlan_port_set_flags(two, AGED, true);
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 2), 0);
    EXPECT_EQ(udp_vvlan_mac_find(&PHONE), nullptr);
    EXPECT_EQ(two->flags & AGED, 0); /* woken all the same */
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 2), 0);
    EXPECT_EQ(udp_vvlan_port_clear_mac(two, 0), 0);
    EXPECT_EQ(udp_vvlan_mac_map->size, 0U);
}

TEST_F(Macs, PortsAreTracedUnderTheNameOfTheFunction)
{
    enable();
    udp_vvlan_oui_add_node(&OUI, &MASK24);
    udp_vvlan_port_node *port = add_port(2, AUTO | DENY);
    udp_vvlan_debug_level = 4;
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 2), 0);
    EXPECT_THAT(log_texts(),
                Contains("udp_vvlan_handler_set_mac_noti: phyid=0x102 vvlan_en=1  auto=1  "
                         "deny_en=0  mac_aged=0 no_flw=0 auto_join=1 age_time=1440\n"));
    const std::string flags = "vvlan_en: 1, auto_mod: 1, deny_en: 0, mac_aged: 1, auto_join: 1, "
                              "phyid: 0x102,";
    udp_vvlan_oui_del_node(udp_vvlan_oui_find(&OUI, &MASK24));
    EXPECT_THAT(log_texts(), Contains("udp_vvlan_del_oui_mac: " + flags));
    sim::log_clear();
    EXPECT_EQ(udp_vvlan_port_mac(port) | udp_vvlan_timer_ops(port), 0); /* these are for level 5 */
    EXPECT_THAT(log_texts(), IsEmpty());
    udp_vvlan_debug_level = 5;
    EXPECT_EQ(udp_vvlan_port_mac(port) | udp_vvlan_timer_ops(port), 0);
    EXPECT_THAT(log_texts(),
                testing::ElementsAre("udp_vvlan_port_mac: " + flags,
                                     "udp_vvlan_timer_ops: phyid=0x102 vvlan_en=1  auto=1  "
                                     "deny_en=0  mac_aged=1 no_flw=0 auto_join=1 age_time=1440\n"));
}

TEST_F(Macs, NotificationsAreCheckedLeniently)
{
    enable();
    udp_vvlan_debug_level = 4;
    udp_vvlan_oui_add_node(&OUI, &MASK24);
    udp_vvlan_port_node *port = add_port(1, AUTO);
    sim::log_clear();
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 1, 100, 5), -4);
    EXPECT_THAT(log_texts(), Contains("udp_vvlan_mac_check_noti: <check> mac length(5) is error."));
    EXPECT_EQ(port->flags, AUTO);
    EXPECT_EQ(notify(KT_MOM_PUBLISH, PHONE, 1), -20);
    EXPECT_THAT(log_texts(), Contains("udp_vvlan_mac_print_noti: <param>   -mac: 001B.5461.6263"));
    EXPECT_THAT(log_texts(), Contains("udp_vvlan_mac_print_noti: <param> +value field"));
    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 1, 7, 5), 0); /* another VLAN: not checked, applied */
    EXPECT_THAT(log_texts(), Contains("udp_vvlan_mac_check_noti: <check> vlan(0007) unmatch "
                                      "vvlan(0100) or type(0)."));
    EXPECT_EQ(udp_vvlan_mac_map->size, 1U);
    EXPECT_EQ(udp_vvlan_event_set_mac_noti(nullptr, nullptr, nullptr), -4);
    kt_mom_msg msg = {KT_MOM_SET, nullptr, KT_MOM_CHANGE, -5};
    EXPECT_EQ(udp_vvlan_event_set_mac_noti(nullptr, &msg, nullptr), -4);
    msg.error = 0;
    EXPECT_EQ(udp_vvlan_event_set_mac_noti(nullptr, &msg, nullptr), 0);
    const UBridge__MacVidRegNoti bare = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    msg.object = &bare;
    EXPECT_EQ(udp_vvlan_event_set_mac_noti(nullptr, &msg, nullptr), 0);

    udp_vvlan_port_node *silent = add_port(2, DENY);
    silent->no_flw = 60;
    msg = {KT_MOM_NONE, nullptr, KT_MOM_SCAN_OVER, 0};
    EXPECT_EQ(udp_vvlan_event_set_mac_noti(nullptr, &msg, nullptr), 0);
    EXPECT_EQ(silent->flags, JOIN | AGED);
    EXPECT_EQ(silent->no_flw, 0U);
    EXPECT_EQ(port->flags, AUTO | JOIN);
}

TEST_F(Macs, TheRegistrationFollowsItsSubscription)
{
    enable();
    kt_mom_msg resync = {KT_MOM_RESYNC, nullptr, KT_MOM_CHANGE, 0};
    kt_mom_msg gone = {KT_MOM_UNSUBSCRIBED, nullptr, KT_MOM_CHANGE, 0};
    kt_mom_msg in_place = {KT_MOM_NONE, nullptr, KT_MOM_SCAN_START, 0};
    const auto tell = [](const kt_mom_msg *msg) {
        return udp_vvlan_mac_subscribe_callback(udp_vvlan_global, msg, nullptr);
    };
    const auto registered = [] {
        const auto key = object::from_text(*object::kind_by_name("u_bridge.mac_vid_reg"),
                                           "index.vid=100", nullptr, nullptr);
        return sim::mom_get(6, *key) != nullptr;
    };
    EXPECT_EQ(tell(&resync), 0);
    EXPECT_THAT(arguments_of("kt_mom_dsbegin_ow")[0], Not(testing::HasSubstr("index.vid=100")));
    EXPECT_EQ(tell(&in_place), 0);
    EXPECT_TRUE(registered());
    EXPECT_EQ(arguments_of("kt_mom_dsend_ow").size() + arguments_of("kt_mom_scan").size(), 2U);
    EXPECT_EQ(tell(&gone), 0);
    EXPECT_FALSE(registered());
    for (const auto &[name, msg, rv] : {std::tuple{"kt_mom_dsbegin_ow", &resync, 0},
                                        {"kt_mom_del_ow", &gone, -9},
                                        {"kt_mom_scan", &in_place, -9},
                                        {"kt_mom_setow", &in_place, -9}}) {
        did();
        sim::fault_plan(name, 1, -9);
        EXPECT_EQ(tell(msg), rv) << name;
    }
    EXPECT_THAT(arguments_of("kt_mom_dsend_ow"), IsEmpty()); /* the section stays open */
    EXPECT_THAT(did(), IsEmpty());                           /* and nothing is scanned */

    EXPECT_EQ(udp_vvlan_mac_subscribe(1), 0);
    sim::settle();
    EXPECT_TRUE(registered());
    sim::fault_plan("kt_mom_unsubscribe", 1, -9);
    EXPECT_EQ(udp_vvlan_mac_subscribe(0), -9);
    EXPECT_EQ(udp_vvlan_mac_subscribe(0), 0);
    udp_vvlan_glb.vid = 0; /* as when it is switched off: the key then selects every one */
    sim::settle();
    EXPECT_FALSE(registered());
    sim::fault_plan("kt_mom_subscribe", 1, -9);
    EXPECT_EQ(udp_vvlan_mac_subscribe(1), -9);
}

// --- Recovery and dumps

TEST_F(Macs, JoinObjectsAreReadBack)
{
    for (uint32_t ifx : {7U, 8U})
        udp_vvlan_set_vvlan_join(1, ifx);
    udp_vvlan_recover_add(99);
    udp_vvlan_recover_db_clear();
    EXPECT_EQ(udp_vvlan_recover_db->size, 0U);
    EXPECT_EQ(udp_vvlan_recover_ds_init(udp_vvlan_global), 0);
    EXPECT_EQ(udp_vvlan_recover_db->size, 2U);
    udp_vvlan_recover_init(); /* a second time: the table stays */
    EXPECT_EQ(udp_vvlan_recover_db->size, 2U);
    const auto tell = [](uint32_t operation, const void *object, int error = 0) {
        const kt_mom_msg msg = {operation, object, KT_MOM_CHANGE, error};
        return udp_vvlan_recover_vvlan_cfg(udp_vvlan_global, &msg, nullptr);
    };
    const auto join = object::from_text(*object::kind_by_name("u_bridge.vvlan_join"), "index.ifx=7",
                                        nullptr, nullptr);
    EXPECT_EQ(tell(KT_MOM_SET, join.get()), 0);
    EXPECT_EQ(udp_vvlan_recover_db->size, 2U);
    EXPECT_EQ(tell(KT_MOM_DEL, join.get()) | tell(KT_MOM_DEL, join.get()), 0);
    EXPECT_EQ(udp_vvlan_recover_find(7), nullptr);
    sim::fault_plan("malloc", 1, 0);
    EXPECT_EQ(tell(KT_MOM_SET, join.get()), -6);
    EXPECT_EQ(tell(KT_MOM_HSET, join.get()), -20);
    EXPECT_EQ(tell(KT_MOM_SET, nullptr), 0);
    EXPECT_EQ(tell(KT_MOM_SET, join.get(), -5), -4);
    EXPECT_EQ(udp_vvlan_recover_vvlan_cfg(udp_vvlan_global, nullptr, nullptr), -4);
    sim::fault_plan("kt_mom_scan_sync", 1, -9);
    EXPECT_EQ(udp_vvlan_recover_ds_init(udp_vvlan_global), -9);
    EXPECT_EQ(shell("dump_recover_entry"), "ifx = 8\n");
}

TEST_F(Macs, CommandsPrintTheTables)
{
    const char *names[] = {"FATAL", "ERROR", "WARN", "NOTICE", "INFO", "DEBUG"};
    for (int level = 0; level <= 5; level++) {
        const std::string number = std::to_string(level);
        EXPECT_EQ(shell("set-zlog-level " + number), "set zlog_level=" + number + " success !\n");
        EXPECT_EQ(shell("show-zlog-level"), " KTDF_ZLOG_LV_" + std::string(names[level]) + " \n");
    }
    EXPECT_EQ(shell("set-zlog-level 9"), "set zlog_level=5 success !\n");
    EXPECT_EQ(shell("set-zlog-level -1"), "set zlog_level=5 success !\n");
    udp_vvlan_debug_level = 6;
    EXPECT_EQ(shell("show-zlog-level"), " can't Distinguish !\n");
    udp_vvlan_debug_level = 1;

    enable();
    udp_vvlan_glb.secu = 1;
    EXPECT_EQ(shell("dump_glbal_configure"), "\n\n  Voice VLAN status        : ENABLE\n"
                                             "  Voice VLAN ID            : 100\n"
                                             "  Voice VLAN security mode : Security\n"
                                             "  Voice VLAN aging time    : 1440 minutes\n"
                                             "  Voice VLAN cos           : 6\n"
                                             "  Voice VLAN dscp          : 46\n");
    udp_vvlan_oui_add_node(&OUI, &MASK24);
    EXPECT_EQ(shell("dump_all_oui"), "\n\n  <01> mac:001B.5400.0000      mask:FFFF.FF00.0000\n");
    const std::string header =
        "\n\n    PORT          MODE    PHYID         STATUS    NO_FLW_CNT    trap   secu   "
        "mac_aged   "
        "age_time    deny_en  auto_join   vvlan\n"
        "    ------------- ------- ------------- --------- -----------   -----  -----  --------   "
        "--------    -------  ---------  -----\n";
    udp_vvlan_port_node *port = add_port(3, AUTO | DENY);
    port->no_flw = 60;
    const struct {
        int flags;
        const char *row;
    } rows[] = {
        {AUTO | DENY, "    ifx:   3      AUTO    0x103      ENABLE   00000060(s)    TRAP   SECU  "
                      "!AGING   1440(minute)        1  UNJOIN     100 \n"},
        {AUTO | JOIN | AGED, "    ifx:   3      AUTO    0x103      ENABLE   00000060(s)   !TRAP   "
                             "SECU   AGING   1440(minute)        0  JOINED     100 \n"},
        {EN, "    ifx:   3      MANUAL  0x103      ENABLE   00000060(s)           SECU  !AGING   "
             "1440(minute)        0  JOINED     100 \n"},
        {0, "    ifx:   3      MANUAL  0x103     DISABLE   00000060(s)           SECU  !AGING   "
            "1440(minute)        0             100 \n"},
    };
    for (const auto &[flags, row] : rows) {
        port->flags = static_cast<uint8_t>(flags);
        EXPECT_EQ(shell("dump_all_port"), header + row);
    }
    port->flags = AUTO;
    notify(KT_MOM_SET, PHONE, 3);
    for (int twice = 0; twice < 2; twice++) /* the numbers begin anew */
        EXPECT_EQ(shell("dump_all_mac"), "\n\n  <00001> mac: 001B.5461.6263    vid:100    ifx:3\n");
    EXPECT_EQ(shell("dump_port_mac ifx=4"), "\n\nNot Found The Port by ifx=4");
}

TEST(TablesBeforeInit, EveryDumpWorksOnANodeThatMayNotWorkYet)
{
    sim::world_reset();
    udp_vvlan_state_reset();
    sim::process_install({"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset});
    sim::process_start(); /* nothing settles: the ready callback has not come */
    for (const char *command : {"dump_glbal_configure", "dump_all_oui", "dump_all_port",
                                "dump_port_mac 1", "dump_all_mac", "dump_recover_entry"}) {
        std::string output;
        EXPECT_TRUE(sim::shell_run(command, &output, nullptr)) << command;
        EXPECT_THAT(output, Not(testing::HasSubstr("mac:"))) << command;
    }
    sim::world_reset();
}

/* A peer that hash-sets what is stored whole is out of order, but no reason to fall over. */
TEST_F(Macs, HashSetsOfWholeObjectsAreUnexpected)
{
    UBridge__VvlanIndex ifx = U_BRIDGE__VVLAN_INDEX__INIT;
    UBridge__VvlanJoin join = U_BRIDGE__VVLAN_JOIN__INIT;
    join.index = &ifx;
    UBridge__UdpL2addrBaseIndex address = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    UBridge__MacVidRegNoti noti = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    noti.index = &address;
    address.t_type = 1; /* of no interest to the length check */
    kt_mom_hash hash = {};
    kt_mom_msg msg = {};
    msg.operation = KT_MOM_HSET;
    msg.object = &hash;
    hash.object = &noti.base;
    EXPECT_EQ(udp_vvlan_event_set_mac_noti(udp_vvlan_global, &msg, nullptr), -20);
    hash.object = &join.base;
    EXPECT_EQ(udp_vvlan_recover_vvlan_cfg(udp_vvlan_global, &msg, nullptr), -20);
}

TEST(TablesWithoutMemory, EveryTableToleratesThatItWasNeverMade)
{
    sim::world_reset();
    udp_vvlan_state_reset();
    for (int table = 0; table < 3; table++)
        sim::fault_plan("malloc", static_cast<uint64_t>(table) + 1, 0);
    udp_vvlan_oui_init();
    EXPECT_EQ(udp_vvlan_port_init() | udp_vvlan_mac_init(), 0);
    EXPECT_EQ(udp_vvlan_recover_init(), -2);
    EXPECT_TRUE(sim::faults_are_spent());
    udp_vvlan_port_node port = {};
    EXPECT_EQ(udp_vvlan_port_node_op(&port, 1), nullptr);
    EXPECT_EQ(udp_vvlan_port_node_op(&port, 0), nullptr);
    EXPECT_EQ(udp_vvlan_port_find(1), nullptr);
    EXPECT_EQ(udp_vvlan_port_foreach(udp_vvlan_port_cfg), 0);
    EXPECT_EQ(udp_vvlan_mac_find(&PHONE), nullptr);
    EXPECT_EQ(udp_vvlan_mac_insert(&PHONE), nullptr);
    udp_vvlan_mac_remove(&PHONE);
    EXPECT_EQ(udp_vvlan_mac_foreach(nullptr, nullptr), 0);
    EXPECT_EQ(udp_vvlan_recover_add(1), nullptr);
    udp_vvlan_recover_del(1);
    udp_vvlan_recover_db_clear();
    /* Nor is there a fast path, yet nothing is touched. */
    EXPECT_EQ(udp_vvlan_set_acl(1) | udp_vvlan_set_acl(0), 0);
    EXPECT_EQ(udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, 0), 0);
    EXPECT_EQ(udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, 1), -2);
    EXPECT_EQ(udp_vvlan_apply_cos_acl(&udp_vvlan_cos_acl, 1, 1), -2);
    EXPECT_EQ(udp_vvlan_apply_cos_acl(&udp_vvlan_cos_acl, 1, 0), 0);
    udp_vvlan_state_reset();
    sim::world_reset();
}

} // namespace
