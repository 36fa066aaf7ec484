/*
 * The daemon is killed at any moment of a busy life, over and over; a new one must
 * make of what it finds exactly what is implied, and leave a joined port alone.
 */
#include "tests/live/live_host.h"

#include "proto/p_bridge.pb-c.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <set>

namespace
{

constexpr size_t KILLS = 100;
constexpr uint32_t PREFIXES = 6, PHONES = 40;
constexpr int64_t MILLISECOND = 1'000;

const char *const PORT = "p_bridge.vvlan_port_cfg";

std::string number(uint32_t value)
{
    return std::to_string(value);
}

unsigned seed()
{
    const char *given = std::getenv("VVLAN_SEED");
    return given == nullptr ? 1 : static_cast<unsigned>(std::strtoul(given, nullptr, 10));
}

class LiveKill : public testing::Test
{
protected:
    uint32_t pick(uint32_t from, uint32_t to)
    {
        return std::uniform_int_distribution<uint32_t>(from, to)(random);
    }
    bool one_in(uint32_t count)
    {
        return pick(1, count) == 1;
    }
    bool is_on() const;
    bool is_automatic(uint32_t ifx) const;
    void change_something();
    void change_port(uint32_t ifx);
    void change_settings();
    void change_oui(uint32_t prefix);
    void change_phone(uint32_t phone);
    void be_busy(uint32_t most, bool has_daemon);
    void die();
    void expect_kept();
    void expect_synchronised();
    void see_a_phone();

    std::mt19937 random{seed()};
    LiveHost host;
    uint32_t vlan = 100;
    std::set<uint32_t> sure; /* joined when it was looked last, and nothing written against it */
    std::set<uint32_t> kept; /* whose join records must stand until the daemon has settled */
    size_t kills = 0, joins = 0, recoveries = 0;
};

bool LiveKill::is_on() const
{
    const auto *glb =
        reinterpret_cast<const PBridge__VvlanGlbCfg *>(host.written("p_bridge.vvlan_glb_cfg", ""));
    return glb != nullptr && glb->glb_switch != nullptr && glb->glb_switch->enable != 0;
}

bool LiveKill::is_automatic(uint32_t ifx) const
{
    const auto *port = reinterpret_cast<const PBridge__VvlanPortCfg *>(
        host.written(PORT, "index.ifx=" + number(ifx)));
    return port != nullptr && port->enable != 0 && port->mode != 0;
}

void LiveKill::change_something()
{
    const uint32_t what = pick(1, 100);
    if (what <= 20)
        change_port(pick(1, LiveHost::PORTS));
    else if (what <= 35)
        change_settings();
    else if (what <= 45)
        change_oui(pick(1, PREFIXES));
    else if (what <= 75)
        change_phone(pick(1, PHONES));
    else
        host.notice(pick(1, LiveHost::PORTS));
}

void LiveKill::change_port(uint32_t ifx)
{
    const std::string index = "index.ifx=" + number(ifx);
    const uint32_t how = pick(1, 10);
    if (how > 3) {
        host.set(PORT, index + " enable=1 mode=1");
        return;
    }
    sure.erase(ifx);
    if (how == 1)
        host.set(PORT, index + " enable=1");
    else if (how == 2)
        host.set(PORT, index + " mode=1");
    else
        host.del(PORT, index);
}

/* Only the VLAN that is on can be switched off. */
void LiveKill::change_settings()
{
    switch (pick(1, 6)) {
    case 1:
        if (is_on())
            sure.clear();
        host.hset("glb_switch.vlan=" + number(vlan) +
                  " glb_switch.enable=" + (is_on() ? "0" : "1"));
        break;
    case 2:
        vlan = is_on() ? pick(1, 3) * 100 : vlan;
        host.hset("glb_switch.vlan=" + number(vlan) + " glb_switch.enable=1");
        break;
    case 3:
        host.hset("secu_mode=" + number(pick(0, 1)));
        break;
    case 4:
        host.hset("age_time=" + number(pick(1, 2000)) + " secu_mode=" + number(pick(0, 1)));
        break;
    default:
        host.hset("qos.cos=" + number(pick(1, 7)) + " qos.dscp=" + number(pick(1, 63)));
    }
}

void LiveKill::change_oui(uint32_t prefix)
{
    const std::string oui = "index.mac=00:11:0" + number(prefix) +
                            ":00:00:00 index.mask=ff:ff:ff:" + (prefix % 2 == 0 ? "00" : "80") +
                            ":00:00";
    if (one_in(3))
        host.del("p_bridge.vvlan_oui_cfg", oui);
    else
        host.set("p_bridge.vvlan_oui_cfg", oui);
}

/* Learnt, moved to another port, learnt in another VLAN, or gone. */
void LiveKill::change_phone(uint32_t phone)
{
    const std::string index = "index.t_fid=" + number(pick(1, 3) * 100) + " index.t_mac=00:11:0" +
                              number(phone % PREFIXES + 1) + ":" + (one_in(2) ? "00" : "c0") +
                              ":00:" + number(10 + phone);
    if (one_in(3))
        host.del("u_bridge.mac_vid_reg_noti", index);
    else
        host.set("u_bridge.mac_vid_reg_noti",
                 index + " port_id=" + number(pick(1, LiveHost::PORTS)));
}

void LiveKill::be_busy(uint32_t most, bool has_daemon)
{
    for (uint32_t i = pick(0, most); i > 0; i--) {
        change_something();
        if (has_daemon)
            host.turn(pick(0, 200));
    }
    if (has_daemon)
        host.turn(pick(0, 3 * MILLISECOND));
}

/* The next life begins with what this one has left. */
void LiveKill::die()
{
    host.kill();
    kills++;
    host.settle();
    host.look();
    for (const uint32_t ifx : sure)
        EXPECT_TRUE(host.is_joined(ifx)) << "port " << ifx;
    kept.clear();
    host.changes.clear();
}

/* Of what has happened since the kill; the watcher has seen all of it. */
void LiveKill::expect_kept()
{
    host.settle();
    for (const std::string &change : host.changes) {
        const bool is_against = change.starts_with("del u_bridge.vvlan_join") ||
                                change.starts_with("del p_bridge.vvlan_port_auto") ||
                                change.starts_with("set u_bridge.vvlan_port_cfg");
        for (const uint32_t ifx : kept)
            EXPECT_FALSE(is_against && is_of_port(change, ifx)) << change;
    }
}

void LiveKill::expect_synchronised()
{
    EXPECT_TRUE(host.until([&] { return host.is_ready(); }));
    host.expect_settled();
    expect_kept();
    recoveries += kept.size();
    sure = kept;
}

/* A port that is trapped joins. */
void LiveKill::see_a_phone()
{
    uint32_t ifx = 1;
    while (ifx <= LiveHost::PORTS && (!is_automatic(ifx) || sure.contains(ifx)))
        ifx++;
    if (!is_on() || ifx > LiveHost::PORTS)
        return;
    host.notice(ifx);
    EXPECT_TRUE(host.until([&] {
        host.look();
        return host.is_joined(ifx);
    })) << "port "
        << ifx;
    host.expect_settled();
    sure.insert(ifx);
    joins++;
}

TEST_F(LiveKill, WhateverItIsDoing)
{
    SCOPED_TRACE("VVLAN_SEED=" + std::to_string(seed()));
    std::printf("VVLAN_SEED=%u\n", seed());
    be_busy(100, false);
    while (kills < KILLS && !HasFailure()) {
        SCOPED_TRACE("after kill " + std::to_string(kills));
        be_busy(20, false); /* while none runs */
        host.settle();
        if (one_in(2))
            host.lease_runs_out();
        for (uint32_t ifx = 1; ifx <= LiveHost::PORTS; ifx++) {
            if (host.is_joined(ifx) && is_automatic(ifx))
                kept.insert(ifx);
        }
        sure = kept;
        host.start();
        if (one_in(4)) {
            host.turn(pick(0, 200) * MILLISECOND); /* starting, or synchronising */
            expect_kept();
            if (one_in(2))
                be_busy(50, true);
        } else {
            expect_synchronised();
            see_a_phone();
            be_busy(150, true);
        }
        die();
    }
    host.start();
    expect_synchronised();
    std::printf("%zu kills; %zu ports joined, %zu were still joined after a restart\n", kills,
                joins, recoveries);
    EXPECT_GT(joins, KILLS / 5);
    EXPECT_GT(recoveries, KILLS);
}

} // namespace
