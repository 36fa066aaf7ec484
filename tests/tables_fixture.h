/*
 * The fixture of the tests of the daemon's tables: the whole daemon is started
 * on the simulated platform; the tests then call a module's functions and
 * compare with what they asked of the platform.
 */
#ifndef TESTS_TABLES_FIXTURE_H
#define TESTS_TABLES_FIXTURE_H

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

namespace tables_test
{

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

} // namespace tables_test

#endif
