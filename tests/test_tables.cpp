/*
 * The tables, the port states, the fast path, voice MACs, recovery and dumps,
 * on the simulated platform. The daemon is started as a whole; the tests then
 * call a module's functions and compare with what they asked of the platform.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_age.h"
#include "app/proc/udp_vvlan_fp.h"
#include "app/proc/udp_vvlan_mac.h"
#include "app/proc/udp_vvlan_oui.h"
#include "app/proc/udp_vvlan_port.h"
#include "app/proc/udp_vvlan_recover.h"
#include "object/object.h"
#include "sim/sim_call.h"
#include "sim/sim_host.h"
#include "sim/sim_log.h"
#include "sim/sim_mom.h"
#include "sim/sim_process.h"
#include "sim/sim_shell.h"
#include "sim/sim_switch.h"
#include "sim/sim_world.h"

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Texts = std::vector<std::string>;

constexpr int AUTO = UDP_VVLAN_PORT_VVLAN_EN | UDP_VVLAN_PORT_AUTO_MOD;
constexpr int JOIN = UDP_VVLAN_PORT_AUTO_JOIN, DENY = UDP_VVLAN_PORT_DENY_EN;
constexpr int AGED = UDP_VVLAN_PORT_MAC_AGED, EN = UDP_VVLAN_PORT_VVLAN_EN;

using Addr = udp_vvlan_mac_addr;
constexpr Addr OUI = {{0x00, 0x1B, 0x54, 0, 0, 0}};
constexpr Addr MASK24 = {{0xFF, 0xFF, 0xFF, 0, 0, 0}};
constexpr Addr PHONE = {{0x00, 0x1B, 0x54, 'a', 'b', 'c'}};

class Tables : public testing::Test
{
protected:
    void SetUp() override
    {
        sim::world_reset();
        udp_vvlan_state_reset();
        sim::process_install({"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset});
        for (uint32_t ifx = 1; ifx <= 3; ifx++)
            sim::switch_add_port(ifx, 0x100 + ifx, "p" + std::to_string(ifx));
        sim::process_start();
        sim::settle();
        sim::calls_record(true);
    }

    void TearDown() override
    {
        sim::world_reset();
        udp_vvlan_state_reset();
    }

    /* The voice VLAN is on, with its ACLs. */
    static void enable(uint32_t vid = 100)
    {
        udp_vvlan_glb.vid = vid;
        udp_vvlan_glb.enable = 1;
        udp_vvlan_set_acl(1);
        sim::settle();
        did();
    }

    static udp_vvlan_port_node *add_port(uint32_t ifx, int flags)
    {
        udp_vvlan_port_node key = {};
        key.ifx = ifx;
        key.phyid = 0x100 + ifx;
        key.flags = static_cast<uint8_t>(flags);
        return udp_vvlan_port_node_op(&key, 1);
    }

    /* What was asked of the platform since the last time, in short words. */
    static Texts did()
    {
        const struct {
            std::string name, arguments, word;
        } words[] = {
            {"kt_mom_set", "vvlan_port_cfg", "trap"},
            {"kt_mom_del", "vvlan_port_cfg", "untrap"},
            {"kt_mom_set", "vvlan_port_auto", "join"},
            {"kt_mom_del", "vvlan_port_auto", "leave"},
            {"kt_mom_set", "vvlan_join", "record"},
            {"kt_mom_del", "vvlan_join", "unrecord"},
            {"kt_mom_set", "vvlan_oui_cfg", "mirror"},
            {"kt_mom_del", "vvlan_oui_cfg", "unmirror"},
            {"kt_mom_scan", "mac_vid_reg_noti", "scan"},
            {"apply_add", "pas_app", "cos+"},
            {"apply_del", "pas_app", "cos-"},
            {"apply_add", "mac_vlan", "mvlan+"},
            {"apply_del", "mac_vlan", "mvlan-"},
            {"apply_add", "deny_app", "sec+"},
            {"apply_del", "deny_app", "sec-"},
            {"kt_mom_set", "err_event msg_type=1", "error1"},
            {"kt_mom_set", "err_event msg_type=2", "error2"},
            {"kt_mom_set", "err_event msg_type=3", "error3"},
            {"kt_mom_set", "err_event msg_type=4", "error4"},
            {"kt_mom_set", "vvlan_err_event", "error0"},
        };
        Texts result;
        for (const sim::Call &call : sim::calls()) {
            for (const auto &word : words) {
                if (call.name != word.name ||
                    call.arguments.find(word.arguments) == std::string::npos)
                    continue;
                result.push_back(word.word);
                break;
            }
        }
        sim::calls_clear();
        return result;
    }

    static Texts arguments_of(const std::string &name)
    {
        Texts result;
        for (const sim::Call &call : sim::calls())
            if (call.name == name)
                result.push_back(call.arguments);
        return result;
    }

    static Texts log_texts()
    {
        Texts result;
        for (const sim::LogLine &line : sim::log_lines())
            result.push_back(line.func + ": " + line.text);
        return result;
    }

    static int notify(uint32_t operation, Addr mac, uint32_t ifx, uint32_t vid = 100,
                      size_t length = 6, uint32_t only_ifx = 0)
    {
        PLibpub__Mac t_mac = P_LIBPUB__MAC__INIT;
        t_mac.data = {length, mac.bytes};
        UBridge__UdpL2addrBaseIndex index = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
        index.t_fid = vid;
        index.t_mac = &t_mac;
        UBridge__MacVidRegNoti noti = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
        noti.index = &index;
        noti.port_id = ifx;
        const kt_mom_msg msg = {operation, &noti, KT_MOM_CHANGE, 0};
        return udp_vvlan_event_set_mac_noti(udp_vvlan_global, &msg,
                                            reinterpret_cast<void *>(uintptr_t{only_ifx}));
    }

    static std::string shell(const std::string &line)
    {
        std::string output;
        EXPECT_TRUE(sim::shell_run(line, &output, nullptr)) << output;
        return output;
    }
};

// --- OUIs

uint64_t number_of(const Addr &addr)
{
    uint64_t number = 0;
    for (uint8_t byte : addr.bytes)
        number = number << 8 | byte;
    return number;
}

/* The order of lengths as it is told; no table, no shortcuts. */
vvlan_oui *naive_match(const std::vector<vvlan_oui *> &nodes, const Addr &mac)
{
    for (int turn = 49; turn > 0; turn--) {
        const int length = turn == 49 ? 24 : turn;
        const uint64_t mask = ((uint64_t{1} << length) - 1) << (48 - length);
        for (vvlan_oui *node : nodes)
            if (number_of(node->mask) == mask && number_of(node->mac) == (number_of(mac) & mask))
                return node;
    }
    return nullptr;
}

TEST_F(Tables, OuiMatchAgreesWithANaiveModel)
{
    std::mt19937 random(3);
    const auto any = [&](uint32_t below) { return static_cast<uint32_t>(random() % below); };
    const auto sparse = [&] { /* few different bits, so that prefixes meet */
                              Addr mac = {};
                              for (int i = 0; i < 3; i++)
                                  mac.bytes[any(6)] = static_cast<uint8_t>(1 << any(8));
                              return mac;
    };
    std::vector<vvlan_oui *> nodes;
    int hits = 0;
    for (int round = 0; round < 300; round++) {
        if (any(3) != 0 || nodes.empty()) {
            Addr mask, mac = sparse();
            udp_vvlan_oui_prefix_mask(any(4) == 0 ? 24 : any(49), &mask);
            if (any(10) == 0)
                mask.bytes[any(6)] ^= 1; /* no prefix, most likely */
            for (size_t i = 0; i < 6 && any(8) != 0; i++)
                mac.bytes[i] &= mask.bytes[i];
            vvlan_oui *node = udp_vvlan_oui_add_node(&mac, &mask);
            ASSERT_EQ(udp_vvlan_oui_find(&mac, &mask), node);
            if (std::find(nodes.begin(), nodes.end(), node) == nodes.end())
                nodes.push_back(node);
        } else {
            const auto at = nodes.begin() + any(static_cast<uint32_t>(nodes.size()));
            udp_vvlan_oui_del_node(*at);
            nodes.erase(at);
        }
        for (int probe = 0; probe < 10; probe++) {
            const Addr mac = sparse();
            vvlan_oui *expected = naive_match(nodes, mac);
            ASSERT_EQ(udp_vvlan_oui_match(&mac), expected);
            hits += expected != nullptr;
        }
        uint64_t lengths = 0; /* that some entry has: only these may cost a look */
        for (const vvlan_oui *node : nodes)
            for (uint32_t length = 1; length <= 48; length++)
                if (number_of(node->mask) == ((uint64_t{1} << length) - 1) << (48 - length))
                    lengths |= uint64_t{1} << length;
        ASSERT_EQ(vvlan_oui_table.prefix_present, lengths);
    }
    EXPECT_GT(hits, 300);
    EXPECT_LT(hits, 2700);
}

TEST_F(Tables, AnOuiIsMirroredProgrammedAndGoesWithItsMacs)
{
    enable();
    udp_vvlan_debug_level = 2;
    add_port(1, EN);
    udp_vvlan_port_node *automatic = add_port(2, AUTO);
    vvlan_oui *node = udp_vvlan_oui_add_node(&OUI, &MASK24);
    EXPECT_EQ(arguments_of("ace_add"),
              (Texts{"acl=vvlan_secu_pas_app/101 ace=1 src_mac=00:1b:54:00:00:00/ff:ff:ff:00:00:00 "
                     "vid=100/0xffff -> cos=6 ipv4_dscp=46 prio_in=6",
                     "acl=mac_vlan_app/102 ace=1 src_mac=00:1b:54:00:00:00/ff:ff:ff:00:00:00 "
                     "vlan_form=0/3 -> add_tag=100"}));
    Texts after = did();
    EXPECT_EQ(after[0], "mirror");
    std::sort(after.begin(), after.end());
    EXPECT_THAT(after, ElementsAre("cos+", "mirror", "mvlan+", "trap", "untrap"));
    EXPECT_EQ(udp_vvlan_oui_add_node(&OUI, &MASK24), node); /* known: nothing happens */
    EXPECT_THAT(did(), IsEmpty());
    const auto mirror = object::from_text(*object::kind_by_name("u_bridge.vvlan_oui_cfg"),
                                          "index.ace_id=1", nullptr, nullptr);
    EXPECT_EQ(object::to_text(*sim::mom_get(8, *mirror)),
              "index.ace_id=1 oui.mac=00:1b:54:00:00:00 oui.mask=ff:ff:ff:00:00:00");

    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 2), 0);
    EXPECT_EQ(automatic->flags & AGED, 0);
    udp_vvlan_port_set_flags(automatic, JOIN, false);
    did();
    udp_vvlan_oui_del_node(node);
    EXPECT_THAT(did(), ElementsAre("unmirror"));
    EXPECT_EQ(udp_vvlan_mac_find(&PHONE), nullptr);
    EXPECT_EQ(automatic->flags & (AGED | JOIN), AGED); /* silent; but not joined by this */
    /* Removing one entry has destroyed both ACLs; the sec ACL stands. */
    EXPECT_EQ(udp_vvlan_cos_acl.created + udp_vvlan_mvlan_acl.created, 0);
    EXPECT_EQ(udp_vvlan_sec_acl.created, 1);
    EXPECT_EQ(udp_vvlan_oui_add_node(&PHONE, &MASK24)->ace_id, 1U);
}

TEST_F(Tables, FailedOuisAreToldAndStay)
{
    udp_vvlan_debug_level = 2;
    for (const char *what : {"first", "second"}) {
        sim::log_clear();
        sim::fault_plan("ace_alloc", what[0] == 'f' ? 1 : 2, 0);
        const Addr mac = {{1, static_cast<uint8_t>(what[0])}};
        EXPECT_NE(udp_vvlan_oui_add_node(&mac, &MASK24), nullptr);
        EXPECT_EQ(arguments_of("ace_alloc").size(), 2U) << what;
        EXPECT_THAT(did(), ElementsAre("mirror", "error2"));
        EXPECT_THAT(log_texts(), Contains("udp_vvlan_oui_add_node: add mvlan_ace fail !"));
    }
    for (uint64_t nth = 1; nth <= 2; nth++) { /* the cos or the mvlan entry of the first OUI */
        sim::fault_plan("ace_alloc", nth, 0);
        EXPECT_EQ(udp_vvlan_oui_set_ace(1), -2);
        EXPECT_EQ(arguments_of("ace_alloc").size(), nth);
        did();
    }
    sim::fault_plan("ace_alloc", 1, 0);
    udp_vvlan_set_ace(1); /* the sec entry fails, the OUIs are programmed all the same */
    EXPECT_EQ(arguments_of("ace_alloc").size(), 5U);
    EXPECT_THAT(did(), ElementsAre("error0"));
    sim::fault_plan("ace_alloc", 2, 0);
    udp_vvlan_oui_set_cos();
    EXPECT_THAT(did(), ElementsAre("error3"));
    sim::fault_plan("malloc", 1, 0);
    EXPECT_EQ(udp_vvlan_oui_add_node(&OUI, &MASK24), nullptr);
    EXPECT_THAT(did(), IsEmpty());
}

// --- Fast path

TEST_F(Tables, AceIdsAreTheLowestFreeOnes)
{
    for (uint32_t id = 1; id <= 127; id++)
        ASSERT_EQ(udp_vvlan_alloc_ace_id(), id);
    EXPECT_EQ(udp_vvlan_alloc_ace_id(), 0U);
    for (uint32_t id : {64U, 5U, 0U, 128U, 4'000'000'000U})
        udp_vvlan_free_ace_id(id);
    EXPECT_EQ(udp_vvlan_alloc_ace_id(), 5U);
    EXPECT_EQ(udp_vvlan_alloc_ace_id(), 64U);
    EXPECT_EQ(udp_vvlan_alloc_ace_id(), 0U);
}

TEST_F(Tables, AclsAreEnsuredFilledAndSynchronised)
{
    EXPECT_EQ(udp_vvlan_set_acl(0), 0);
    EXPECT_THAT(arguments_of("acl_destroy"), IsEmpty());
    EXPECT_EQ(udp_vvlan_set_acl(1) | udp_vvlan_set_acl(1), 0);
    EXPECT_THAT(arguments_of("acl_create"),
                ElementsAre("acl=vvlan_secu_pas_app/101", "acl=mac_vlan_app/102",
                            "acl=vvlan_secu_deny_app/100"));
    udp_vvlan_glb.vid = 65536 + 7;
    udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, 1);
    udp_vvlan_glb.secu = 1;
    udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, 1);
    EXPECT_THAT(arguments_of("ace_add"),
                ElementsAre("acl=vvlan_secu_deny_app/100 ace=1 vid=7/0xffff -> cos=6 ipv4_dscp=46 "
                            "prio_in=6",
                            "acl=vvlan_secu_deny_app/100 ace=1 vid=7/0xffff -> fwd=0"));

    EXPECT_EQ(sim::calls_count("acl_sync_end"), 3U); /* start-up's */
    udp_vvlan_scan_over.port_noti = 0;
    udp_vvlan_fp_sync_end(udp_vvlan_global);
    EXPECT_EQ(sim::calls_count("acl_sync_end"), 3U);
    udp_vvlan_scan_over.port_noti = 1;
    udp_vvlan_fp_sync_end(udp_vvlan_global);
    EXPECT_EQ(sim::calls_count("acl_sync_end") + sim::calls_count("apply_sync_end"), 12U);

    fp_udp_acl acl = {"some", 9, 4, {}, {}};
    sim::log_clear();
    for (udp_vvlan_debug_level = 3; udp_vvlan_debug_level <= 4; udp_vvlan_debug_level++) {
        udp_vvlan_fp_cb.acl_failed(nullptr, &acl, -1);
        udp_vvlan_fp_cb.ace_success(nullptr, &acl, uint64_t{1} << 40);
        udp_vvlan_fp_cb.apply_failed(nullptr, &acl, nullptr, -3);
    }
    const std::string text = "set acl(id=9, app_type=some) ";
    EXPECT_THAT(
        log_texts(),
        ElementsAre("udp_vvlan_fp_cb_acl_failed: init acl(id=9, app_type=some)  failed. err=-1",
                    "udp_vvlan_fp_cb_ace_success: " + text + "ace(1099511627776) successfully.",
                    "udp_vvlan_fp_cb_apply_failed: " + text + "apply failed. err=-3"));
}

TEST_F(Tables, AclsAreAppliedToOnePort)
{
    udp_vvlan_debug_level = 4;
    EXPECT_EQ(udp_vvlan_apply_sec_acl(&udp_vvlan_sec_acl, 0x101, 1), 0); /* off: nothing */
    EXPECT_THAT(arguments_of("apply_alloc"), IsEmpty());
    EXPECT_EQ(udp_vvlan_apply_sec_acl(&udp_vvlan_sec_acl, 0x101, 0), 0);
    EXPECT_EQ(arguments_of("apply_del").size(), 1U);
    enable();
    sim::log_clear();
    udp_vvlan_apply_cos_acl(&udp_vvlan_cos_acl, 0x101, 1);
    udp_vvlan_apply_mvlan_acl(&udp_vvlan_mvlan_acl, 0x101, 1);
    udp_vvlan_apply_sec_acl(&udp_vvlan_sec_acl, 0x101, 1);
    EXPECT_THAT(arguments_of("apply_add"),
                ElementsAre("acl=vvlan_secu_pas_app/101 phyid=257 flag=0 kind=4",
                            "acl=mac_vlan_app/102 phyid=257 flag=1 kind=4",
                            "acl=vvlan_secu_deny_app/100 phyid=257 flag=0 kind=4"));
    EXPECT_THAT(log_texts()[0], "udp_vvlan_apply_cos_acl: apply phyid(0x101) cos acl(101) end.");
    EXPECT_THAT(log_texts()[2], testing::MatchesRegex("udp_vvlan_apply_sec_acl: apply=0x[0-9a-f]+ "
                                                      "apply phyid\\(0x101\\) sec acl\\(100\\) "
                                                      "end."));
    did();
    sim::fault_plan("apply_alloc", 1, 0);
    const uint64_t freed = sim::calls_count("apply_free");
    EXPECT_EQ(udp_vvlan_apply_mvlan_acl(&udp_vvlan_mvlan_acl, 0x101, 1), -2);
    EXPECT_THAT(arguments_of("apply_add"), IsEmpty());
    EXPECT_EQ(sim::calls_count("apply_free"), freed);
}

// --- Ports

TEST_F(Tables, PortsAreFoundWalkedAndRefusedWhenNull)
{
    add_port(1, 0);
    add_port(2, 0);
    EXPECT_EQ(udp_vvlan_port_find(3), nullptr);
    EXPECT_EQ(add_port(2, 0), udp_vvlan_port_find(2));
    int left = 2;
    const auto countdown = [](udp_vvlan_port_node *, void *count) {
        return --*static_cast<int *>(count) == 0 ? 5 : 0;
    };
    EXPECT_EQ(udp_vvlan_port_foreach(countdown, &left), 5);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(udp_vvlan_port_cfg(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_remove_vvlan(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_cfg_sec(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_set_sec(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_clear_mac(nullptr, 0), 4);
    EXPECT_EQ(udp_vvlan_timer_ops(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_mac(nullptr), 4);
    EXPECT_EQ(udp_vvlan_del_oui_mac(nullptr, nullptr), 4);
    sim::fault_plan("malloc", 1, 0);
    EXPECT_EQ(add_port(3, 0), nullptr);
}

TEST_F(Tables, EachPortOperationAsksForItsStepsInOrder)
{
    udp_vvlan_port_node *port = add_port(1, AUTO | JOIN | AGED);
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* off: nothing */
    EXPECT_THAT(did(), IsEmpty());
    enable();
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0);
    EXPECT_THAT(did(), ElementsAre("cos-", "mvlan-", "trap", "sec+", "scan"));
    EXPECT_EQ(port->flags, AUTO | JOIN | DENY | AGED);
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 1), 0);
    EXPECT_THAT(did(), ElementsAre("record", "join", "untrap", "cos+", "mvlan+"));
    EXPECT_EQ(port->flags, AUTO | JOIN | AGED);
    EXPECT_NE(udp_vvlan_recover_find(1), nullptr);
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* replay is over: trapped */
    EXPECT_THAT(did(), ElementsAre("cos-", "mvlan-", "trap", "sec+", "scan"));
    udp_vvlan_scan_over.port_cfg = 0;
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* during replay: kept */
    EXPECT_THAT(did(), ElementsAre("untrap", "cos+", "mvlan+", "sec+", "scan"));
    EXPECT_EQ(udp_vvlan_port_cfg_sec(port), 0);
    EXPECT_THAT(did(), ElementsAre("trap"));
    EXPECT_EQ(udp_vvlan_port_set_sec(port), 0);
    EXPECT_THAT(did(), ElementsAre("sec+"));
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 0), 0);
    EXPECT_THAT(did(), ElementsAre("unrecord", "leave", "trap", "cos-", "mvlan-"));
    EXPECT_EQ(port->flags, AUTO | DENY | AGED);
    EXPECT_EQ(udp_vvlan_recover_find(1), nullptr);
    EXPECT_EQ(udp_vvlan_port_remove_vvlan(port), 0); /* the trap is off once already */
    EXPECT_THAT(did(), ElementsAre("untrap", "cos-", "mvlan-", "sec-"));
    udp_vvlan_port_set_flags(port, JOIN, true);
    EXPECT_EQ(udp_vvlan_port_remove_vvlan(port), 0);
    EXPECT_THAT(did(), ElementsAre("cos-", "mvlan-", "sec-", "leave", "unrecord"));
    EXPECT_EQ(port->flags, AUTO | AGED);
    port->flags = UDP_VVLAN_PORT_AUTO_MOD;
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* disabled: no trap, yet deny_en */
    EXPECT_THAT(did(),
                ElementsAre("cos-", "mvlan-", "sec-", "unrecord", "leave", "cos-", "mvlan-"));
    EXPECT_EQ(port->flags, UDP_VVLAN_PORT_AUTO_MOD | DENY);
    EXPECT_EQ(udp_vvlan_port_set_sec(port) | udp_vvlan_port_cfg_sec(port), 0);
    EXPECT_THAT(did(), IsEmpty());

    udp_vvlan_port_node *manual = add_port(2, EN | DENY);
    EXPECT_EQ(udp_vvlan_port_cfg(manual), 0);
    EXPECT_THAT(did(), ElementsAre("untrap", "cos+", "mvlan+", "sec+"));
    EXPECT_EQ(udp_vvlan_port_cfg_sec(manual), 0);
    EXPECT_THAT(did(), ElementsAre("untrap", "cos+", "mvlan+"));
    udp_vvlan_cos_acl.created = 0; /* not both valid: only the sec ACL counts */
    EXPECT_EQ(udp_vvlan_port_cfg(manual) | udp_vvlan_port_unaply_acl(manual), 0);
    EXPECT_EQ(udp_vvlan_port_cfg_sec(manual), 0);
    EXPECT_THAT(did(), ElementsAre("sec+", "sec-"));
}

TEST_F(Tables, PortFailuresAreReportedAsEachOperationSays)
{
    enable();
    udp_vvlan_port_node *port = add_port(1, AUTO | DENY);
    sim::fault_plan("kt_mom_del", 1, -9);
    EXPECT_EQ(udp_vvlan_port_unaply_acl(port), 0); /* only the security ACL's result counts */
    sim::fault_plan("apply_alloc", 1, 0);
    EXPECT_EQ(udp_vvlan_port_set_sec(port), 0);
    did();
    sim::fault_plan("kt_mom_set", 1, -9);
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* told, and goes on */
    EXPECT_THAT(did(), ElementsAre("cos-", "mvlan-", "trap", "error1", "scan"));
    EXPECT_EQ(port->flags, AUTO | DENY); /* the flag stays set though the write failed */
    udp_vvlan_sec_acl.created = 0;
    sim::fault_plan("kt_mom_del", 1, -9);
    EXPECT_EQ(udp_vvlan_port_unaply_acl(port), -11);
    sim::fault_plan("apply_alloc", 1, 0);
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 1), -2);
    sim::fault_plan("apply_alloc", 2, 0);
    did();
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 1), -2);
    EXPECT_THAT(did(), ElementsAre("record", "join", "untrap", "cos+"));

    /* A failing write is made again for the log and for the result. */
    const auto join = [&](uint32_t level, uint64_t first, uint64_t fails, int *rv) {
        udp_vvlan_debug_level = level;
        sim::fault_plan("kt_mom_set", first, -9, fails);
        *rv = udp_vvlan_port_join_vvlan(port, 1);
        const uint64_t spent = sim::faults_are_spent();
        sim::call_reset();
        sim::calls_record(true);
        return spent;
    };
    int rv;
    for (const auto &[level, fails] : {std::pair{1U, 2U}, {2U, 3U}}) {
        EXPECT_TRUE(join(level, 2, fails, &rv)); /* the first write is the recovery's */
        EXPECT_EQ(rv, -9);
        EXPECT_TRUE(join(level, 2, fails - 1, &rv));
        EXPECT_EQ(rv, 0); /* got through at last; nothing follows */
        sim::fault_plan("kt_mom_set", 1, -9, fails);
        EXPECT_EQ(udp_vvlan_set_vvlan_join(1, 7), -9);
        EXPECT_TRUE(sim::faults_are_spent());
    }
    did();
    sim::fault_plan("kt_mom_del", 1, -9, 3); /* the trap: -11 each time */
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 1), -11);
    EXPECT_THAT(did(), ElementsAre("record", "join", "untrap", "untrap", "untrap"));
}

TEST_F(Tables, SilentJoinedPortsLeaveAfterTheAgingTime)
{
    udp_vvlan_port_node *joined = add_port(1, AUTO | JOIN | AGED);
    udp_vvlan_port_node *trapped = add_port(2, AUTO | JOIN | AGED | DENY);
    udp_vvlan_port_node *manual = add_port(3, EN | JOIN | AGED);
    joined->no_flw = 5;
    udp_vvlan_glb.age_time = 2;
    const auto tick = [] { sim::run_until(sim::now() + 60 * sim::SECOND); };
    tick();
    EXPECT_EQ(joined->no_flw, 5U); /* off: no port is visited */
    enable();
    joined->no_flw = trapped->no_flw = manual->no_flw = 0;
    tick();
    EXPECT_EQ(joined->no_flw, 60U);
    EXPECT_EQ(trapped->no_flw + manual->no_flw, 0U);
    udp_vvlan_port_set_flags(joined, AGED, false); /* flow comes back */
    tick();
    EXPECT_EQ(joined->no_flw, 0U);
    udp_vvlan_port_set_flags(joined, AGED, true);
    tick();
    did();
    tick();
    EXPECT_THAT(did(), ElementsAre("unrecord", "leave", "trap", "cos-", "mvlan-", "trap"));
    EXPECT_EQ(joined->flags, AUTO | DENY | AGED);
    EXPECT_EQ(joined->no_flw, 0U);
    joined->flags = AUTO | JOIN | AGED;
    udp_vvlan_glb.age_time = 0;
    sim::fault_plan("kt_mom_del", 1, -9, 99); /* leaving fails; trapped all the same */
    tick();
    EXPECT_EQ(joined->flags, AUTO | DENY | AGED);
}

// --- Voice MACs

TEST_F(Tables, MacsAreLearntMovedAndForgotten)
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

TEST_F(Tables, NotificationsAreCheckedLeniently)
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

TEST_F(Tables, TheRegistrationFollowsItsSubscription)
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

TEST_F(Tables, JoinObjectsAreReadBack)
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

TEST_F(Tables, CommandsPrintTheTables)
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
TEST_F(Tables, HashSetsOfWholeObjectsAreUnexpected)
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
