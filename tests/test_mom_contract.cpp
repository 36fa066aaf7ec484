/*
 * The contract of platform/kt_mom.h and mom/kt_mom_peer.h, as a program and
 * its peer see it. What the suite needs beside the two headers stands in
 * Platform; another implementation runs it by giving its own.
 */
#include "mom/kt_mom_peer.h"
#include "object/object.h"
#include "platform/kt_mom.h"
#include "proto/p_bridge.pb-c.h"
#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_mom.h"
#include "sim/sim_process.h"
#include "sim/sim_world.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <random>

namespace
{

using Lines = std::vector<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

struct Platform {
    void pass(int64_t seconds)
    {
        sim::run_until(sim::now() + seconds * sim::SECOND);
    }
    void end_program()
    {
        const uint64_t life = sim::process_life();
        sim::mom_process_ended(life);
        sim::global_process_ended(life);
    }
    int64_t lease = sim::MOM_LEASE / sim::SECOND;
    void (&reset)() = sim::world_reset;
    void (&settle)() = sim::settle; /* until quiet */
    void (&cut)(uint32_t db) = sim::mom_disconnect;
    void (&restore)(uint32_t db, int type) = sim::mom_reconnect;
    void (&limit_queue)(size_t changes) = sim::mom_queue_limit;
    kt_global *(&peer_of)() = sim::mom_peer;
};

const char *const PORT = "p_bridge.vvlan_port_cfg";
const char *const GLOBAL = "p_bridge.vvlan_glb_cfg";
const char *const NOTICE = "u_bridge.mac_vid_reg_noti";
const char *const OWNED = "u_bridge.mac_vid_reg";

uint32_t db_of(const char *kind)
{
    return *kind == 'u' ? 6 : 4;
}

struct Made {
    object::Message message;
    std::vector<uint32_t> fields;
    operator const ProtobufCMessage *() const
    {
        return message.get();
    }
};

/* From text; empty text is the template of the whole kind. */
Made make(const char *kind, const std::string &text = "")
{
    Made made;
    const object::Kind *known = object::kind_by_name(kind);
    made.message = text.empty() ? object::empty(*known)
                                : object::from_text(*known, text, &made.fields, nullptr);
    EXPECT_NE(made.message, nullptr) << text;
    return made;
}

std::string port_text(uint32_t ifx)
{
    return "index.ifx=" + std::to_string(ifx);
}

/* What one callback was told, a line each. */
struct Seen {
    Lines lines;
    std::function<void(const kt_mom_msg &)> then;

    Lines take()
    {
        return std::exchange(lines, {});
    }
};

std::string text_of(const kt_mom_msg &msg)
{
    if (msg.operation == KT_MOM_RESYNC)
        return "resync";
    if (msg.operation == KT_MOM_UNSUBSCRIBED)
        return "gone";
    if (msg.scan_state != KT_MOM_CHANGE)
        return msg.operation != KT_MOM_NONE || msg.object != nullptr
                   ? "malformed"
                   : std::array{"", "over", "start", "note", "again"}[msg.scan_state];
    if (msg.operation == KT_MOM_HSET) {
        const auto *hash = static_cast<const kt_mom_hash *>(msg.object);
        std::string text = "hset";
        for (uint32_t i = 0; i < hash->count; i++)
            text += (i == 0 ? " " : ",") + std::to_string(hash->fields[i]);
        return text + ": " + object::to_text(*hash->object);
    }
    const char *verb = msg.operation == KT_MOM_SET   ? "set "
                       : msg.operation == KT_MOM_DEL ? "del "
                                                     : "publish ";
    return verb + object::to_text(*static_cast<const ProtobufCMessage *>(msg.object));
}

int record(kt_global *, const kt_mom_msg *msg, void *user)
{
    Seen &seen = *static_cast<Seen *>(user);
    seen.lines.push_back(text_of(*msg));
    if (seen.then)
        seen.then(*msg);
    return -1; /* is to have no effect */
}

/* What the connection callbacks have no user data for. */
Lines link_events;
std::function<void()> on_reconnect;

class Contract : public testing::Test
{
protected:
    Contract()
    {
        p.reset();
        on_reconnect = nullptr;
        program = kt_global_init("contract", nullptr);
        connect(4);
        connect(6);
        p.settle();
        link_events.clear();
    }
    ~Contract() override
    {
        p.reset();
    }
    void connect(uint32_t db)
    {
        const auto up = [](kt_global *, void *user) {
            link_events.push_back(static_cast<const char *>(user));
            return 0;
        };
        const auto lost = [](kt_global *, uint32_t which) {
            link_events.push_back("lost " + std::to_string(which));
            return 0;
        };
        const auto back = [](kt_global *, uint32_t which, int type) {
            link_events.push_back("back " + std::to_string(which) + " " + std::to_string(type));
            if (on_reconnect)
                on_reconnect();
            return 0;
        };
        ASSERT_EQ(kt_mom_client_connect_sync(program, db), 0);
        ASSERT_EQ(kt_mom_client_connect(program, db, up, const_cast<char *>("up")), 0);
        ASSERT_EQ(kt_mom_client_set_disconnect_cb(program, db, lost), 0);
        ASSERT_EQ(kt_mom_client_set_reconnect_cb(program, db, back), 0);
    }
    int set(const std::string &text, const char *kind = PORT)
    {
        return kt_mom_set(peer, db_of(kind), make(kind, text), 0, 0);
    }
    int del(const std::string &text, const char *kind = PORT)
    {
        return kt_mom_del(peer, db_of(kind), make(kind, text), 0, 0);
    }
    int hset(const std::string &text)
    {
        const Made made = make(GLOBAL, text);
        return kt_mom_hset(peer, 4, made, made.fields.data(),
                           static_cast<uint32_t>(made.fields.size()));
    }
    int subscribe(Seen &seen, const char *kind = PORT, const std::string &text = "",
                  uint32_t match = 0)
    {
        return kt_mom_subscribe(program, db_of(kind), make(kind, text), match, record, &seen);
    }
    int scan(Seen &seen, const char *kind = PORT, const std::string &text = "", uint32_t match = 0)
    {
        return kt_mom_scan(program, db_of(kind), make(kind, text), match, record, &seen);
    }
    /* What a kind holds, in key order. */
    Lines stored(const char *kind = PORT)
    {
        Seen all;
        EXPECT_EQ(kt_mom_scan_sync(peer, db_of(kind), make(kind), 0, record, &all), 0);
        return all.lines;
    }
    Lines settled(Seen &seen)
    {
        p.settle();
        return seen.take();
    }

    Platform p;
    kt_global *program = nullptr;
    kt_global *peer = p.peer_of();
};

TEST_F(Contract, CallsAreRefusedByCode)
{
    const Made port = make(PORT, "index.ifx=1");
    EXPECT_EQ(kt_mom_set(program, 0, port, 0, 0), -ENOTCONN) << "not connected yet";
    EXPECT_EQ(kt_mom_set(program, 5, port, 0, 0), -ENOENT);
    EXPECT_EQ(kt_mom_client_connect_sync(program, 7), -ENOENT);
    const PBridge__VvlanPortCfg bare = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    EXPECT_EQ(kt_mom_set(program, 4, &bare.base, 0, 0), -EINVAL) << "no index";
    Seen seen;
    EXPECT_EQ(kt_mom_scan_sync(program, 4, &bare.base, 0, record, &seen), 0) << "selects all";
    EXPECT_EQ(kt_mom_set(program, 4, nullptr, 0, 0), -EINVAL);
    EXPECT_EQ(kt_mom_subscribe(program, 4, port, 0, nullptr, nullptr), -EINVAL);
    EXPECT_EQ(kt_mom_del(program, 4, port, 0, 0), 0) << "what is not there";
    EXPECT_EQ(kt_mom_clear_expire(program, 4, port, 0, 0), 0);
    int status = 1;
    EXPECT_EQ(kt_mom_get_sync(program, 4, port, &status), nullptr);
    EXPECT_EQ(status, 0);
    kt_mom_kt_obj_free(nullptr);
    kt_global_finish(program);
    EXPECT_EQ(kt_mom_set(program, 4, port, 0, 0), -ENOTCONN);
    EXPECT_EQ(kt_mom_client_connect(program, 4, nullptr, nullptr), -ENOTCONN);
}

TEST_F(Contract, SubscriptionStartsThenTellsChangesInOrder)
{
    Seen all, one;
    ASSERT_EQ(set("index.ifx=9"), 0);
    ASSERT_EQ(subscribe(all), 0);
    ASSERT_EQ(subscribe(one, PORT, "index.ifx=2"), 0);
    set("index.ifx=2 enable=1");
    set("index.ifx=1");
    del("index.ifx=2");
    del("index.ifx=2");
    kt_mom_publish(peer, 4, make(PORT, "index.ifx=3"));
    EXPECT_THAT(all.lines, IsEmpty()) << "nothing comes inside a call";
    EXPECT_THAT(settled(all),
                ElementsAre("resync", "start", "set index.ifx=2 enable=1", "set index.ifx=1",
                            "del index.ifx=2 enable=1", "publish index.ifx=3"));
    EXPECT_THAT(one.take(), ElementsAre("resync", "start", "set index.ifx=2 enable=1",
                                        "del index.ifx=2 enable=1"));
    EXPECT_THAT(stored(), ElementsAre("set index.ifx=1", "set index.ifx=9"));
}

TEST_F(Contract, WhatWasPublishedReachesASubscriptionMadeAnew)
{
    Seen seen;
    subscribe(seen);
    settled(seen);
    kt_mom_publish(peer, 4, make(PORT, "index.ifx=5"));
    subscribe(seen);
    EXPECT_THAT(settled(seen), ElementsAre("resync", "start", "publish index.ifx=5"));
}

TEST_F(Contract, ALossAfterAReturnInTheSameMomentCounts)
{
    p.cut(4);
    p.restore(4, KT_MOM_RECONNECT_SAME);
    p.cut(4);
    p.settle();
    EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=1"), 0, 0), -ENOTCONN);
}

TEST_F(Contract, PartialMatchAndUnsubscribe)
{
    Seen vlan, every;
    subscribe(vlan, NOTICE, "index.t_fid=7", KT_MOM_MATCH_PARTIAL);
    subscribe(every, NOTICE);
    subscribe(every, NOTICE, "index.t_fid=8"); /* another template, another subscription */
    set("index.t_fid=7 index.t_mac=00:00:00:00:00:01", NOTICE);
    set("index.t_fid=8 index.t_mac=00:00:00:00:00:01", NOTICE);
    p.settle();
    EXPECT_EQ(vlan.take().size(), 3U);
    EXPECT_EQ(every.take().size(), 6U);

    kt_mom_unsubscribe(program, 6, make(NOTICE, "index.t_fid=8"), 2, record, &vlan);
    kt_mom_unsubscribe(program, 6, make(NOTICE), 0, record, &every);
    set("index.t_fid=7 index.t_mac=00:00:00:00:00:02", NOTICE);
    EXPECT_EQ(settled(vlan).size(), 1U) << "the key did not select it";
    EXPECT_THAT(every.take(), ElementsAre("gone", "gone"));
    set("index.t_fid=7 index.t_mac=00:00:00:00:00:03", NOTICE);
    kt_mom_unsubscribe(program, 6, make(NOTICE), 2, record, &vlan);
    subscribe(vlan, NOTICE);
    EXPECT_EQ(settled(vlan)[1], "gone") << "and a new one begins behind it";
}

TEST_F(Contract, EqualSubscriptionReplacesAndLosesNoDeletion)
{
    Seen seen;
    set("index.ifx=1");
    subscribe(seen);
    p.settle();
    seen.take();
    del("index.ifx=1");
    subscribe(seen);
    EXPECT_THAT(settled(seen), ElementsAre("resync", "start"));
    scan(seen);
    set("index.ifx=2");
    EXPECT_THAT(settled(seen), testing::UnorderedElementsAre("set index.ifx=2", "set index.ifx=2",
                                                             "over", "del index.ifx=1"));
}

TEST_F(Contract, ScansRunOneAfterAnotherInKeyOrder)
{
    Seen seen, nothing;
    for (const uint32_t ifx : {300U, 2U, 1U})
        set(port_text(ifx));
    scan(seen);
    scan(seen, PORT, "index.ifx=2");
    scan(nothing, NOTICE);
    seen.then = [this](const kt_mom_msg &) { del("index.ifx=300"); };
    EXPECT_THAT(settled(seen), ElementsAre("set index.ifx=1", "set index.ifx=2", "over",
                                           "set index.ifx=2", "over"));
    EXPECT_THAT(nothing.take(), ElementsAre("over"));
}

TEST_F(Contract, FieldwiseObjectIsMergedAndToldWithItsFields)
{
    std::array<Seen, 2> tagged;
    const std::array<uint32_t, 2> tags = {6, 7};
    const std::array<kt_mom_callback, 2> callbacks = {record, record};
    const std::array<void *, 2> users = {&tagged[0], &tagged[1]};
    ASSERT_EQ(kt_mom_subscribe_field(program, 4, make(GLOBAL), 0, tags.data(), callbacks.data(),
                                     users.data(), 2),
              0);
    hset("age_time=5 qos.cos=3");
    hset("secu_mode=1 age_time=0");
    for (Seen &seen : tagged)
        EXPECT_THAT(settled(seen), ElementsAre("resync", "start", "hset 7,8: age_time=5 qos.cos=3",
                                               "hset 6,7: secu_mode=1 qos.cos=3"));
    EXPECT_THAT(stored(GLOBAL), ElementsAre("hset 6,7,8: secu_mode=1 qos.cos=3"));
    const Made made = make(GLOBAL, "age_time=1");
    const uint32_t unknown = 77;
    EXPECT_EQ(kt_mom_hset(peer, 4, made, &unknown, 1), -EINVAL);
    set("age_time=9", GLOBAL);
    EXPECT_THAT(stored(GLOBAL), ElementsAre("set age_time=9")) << "a plain object from now";
}

TEST_F(Contract, NothingIsLostOverALostConnection)
{
    Seen stands, renewed;
    for (const uint32_t ifx : {1U, 2U, 3U, 4U})
        set(port_text(ifx));
    subscribe(stands);
    subscribe(renewed);
    p.settle();
    stands.take(), renewed.take();
    del("index.ifx=1"); /* on its way when the connection goes */
    p.cut(4);
    EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=1"), 0, 0), -ENOTCONN);
    del("index.ifx=2 enable=1");
    del("index.ifx=3");
    set("index.ifx=3 enable=1");
    set("index.ifx=5");
    del("index.ifx=5");
    EXPECT_THAT(settled(stands), IsEmpty());
    EXPECT_THAT(std::exchange(link_events, {}), ElementsAre("lost 4"));
    on_reconnect = [&] { subscribe(renewed); };
    for (Seen *seen : {&stands, &renewed})
        seen->then = [&, seen](const kt_mom_msg &msg) {
            if (msg.scan_state == KT_MOM_SCAN_START)
                scan(*seen);
        };
    p.restore(4, KT_MOM_RECONNECT_SAME);
    for (Seen *seen : {&stands, &renewed})
        EXPECT_THAT(settled(*seen),
                    ElementsAre("resync", "start", "set index.ifx=3 enable=1", "set index.ifx=4",
                                "over", "del index.ifx=1", "del index.ifx=2"));
    EXPECT_THAT(link_events, ElementsAre("back 4 2"));
}

TEST_F(Contract, AnotherInstanceKeepsNoSubscription)
{
    Seen seen;
    subscribe(seen);
    p.settle();
    p.cut(4);
    p.restore(4, KT_MOM_RECONNECT_OTHER);
    p.settle();
    seen.take();
    set("index.ifx=1");
    EXPECT_THAT(settled(seen), IsEmpty());
    EXPECT_THAT(link_events, ElementsAre("lost 4", "back 4 1"));
    connect(4);
    p.settle();
    EXPECT_EQ(link_events.back(), "up") << "connecting again is told again";
}

TEST_F(Contract, AFullQueueAsksForAnotherScan)
{
    Seen seen;
    set("index.ifx=1");
    subscribe(seen);
    p.settle();
    seen.take();
    p.limit_queue(2);
    for (const uint32_t ifx : {2U, 3U, 4U})
        set(port_text(ifx));
    del("index.ifx=1");
    EXPECT_THAT(settled(seen), ElementsAre("set index.ifx=2", "set index.ifx=3", "again"));
    scan(seen);
    EXPECT_THAT(settled(seen), ElementsAre("set index.ifx=2", "set index.ifx=3", "set index.ifx=4",
                                           "over", "del index.ifx=1"));
}

TEST_F(Contract, SectionRemovesWhatNobodyWanted)
{
    Seen seen;
    for (const uint32_t ifx : {1U, 2U, 3U, 4U})
        set(port_text(ifx));
    kt_mom_set(program, 4, make(PORT, "index.ifx=5"), 0, 0);
    subscribe(seen);
    p.settle();
    seen.take();
    ASSERT_EQ(kt_mom_dsbegin_sync(program, 4, make(PORT), 0, 1000), 0);
    set("index.ifx=1");
    kt_mom_clear_expire(program, 4, make(PORT, "index.ifx=2"), 0, 0);
    ASSERT_EQ(kt_mom_dsend(peer, 4, make(PORT), 0, record), 0) << "not the peer's section";
    ASSERT_EQ(kt_mom_dsend(program, 4, make(PORT, "index.ifx=3"), 0, record), 0);
    EXPECT_THAT(settled(seen), ElementsAre("set index.ifx=1", "del index.ifx=3"));
    p.pass(999);
    EXPECT_THAT(seen.take(), IsEmpty());
    p.pass(1); /* never closed for the rest */
    EXPECT_THAT(seen.take(), ElementsAre("del index.ifx=4"));
    kt_mom_dsbegin(program, 4, make(PORT), 0, 1000, record, nullptr);
    kt_mom_dsend(program, 4, make(PORT), 0, record);
    EXPECT_THAT(settled(seen), ElementsAre("del index.ifx=1", "del index.ifx=2"));
    EXPECT_THAT(stored(), ElementsAre("set index.ifx=5")) << "the program's own";
}

TEST_F(Contract, OwnedObjectsGoWithTheirOwner)
{
    const auto own = [](kt_global *who, const char *text) {
        ASSERT_EQ(kt_mom_setow(who, 6, make(OWNED, text), 0, 0, 1000), 0);
    };
    for (const char *text : {"index.vid=1", "index.vid=2", "index.vid=3", "index.vid=4"})
        own(program, text);
    own(peer, "index.vid=9");
    kt_mom_dsbegin_ow(program, 6, make(OWNED), 0, 1000, record, nullptr, 1000);
    own(program, "index.vid=2");
    own(program, "index.vid=3");
    set("index.vid=4", OWNED); /* is the program's no more, and wanted */
    kt_mom_dsend_ow(program, 6, make(OWNED), 0, record, nullptr, 1000);
    EXPECT_THAT(stored(OWNED), ElementsAre("set index.vid=2", "set index.vid=3", "set index.vid=4",
                                           "set index.vid=9"));
    for (const int64_t seconds : {p.lease - 1, p.lease - 1}) {
        p.cut(6);
        p.pass(seconds);
        p.restore(6, KT_MOM_RECONNECT_SAME);
        p.settle();
    }
    EXPECT_EQ(stored(OWNED).size(), 4U) << "each time it was back before the lease had run out";
    p.cut(6);
    p.pass(p.lease - 1);
    p.cut(6); /* lost already: the lease runs on */
    p.pass(1);
    EXPECT_THAT(stored(OWNED), ElementsAre("set index.vid=4", "set index.vid=9"))
        << "it counts as gone, but what it wrote plainly stays";
    p.restore(6, KT_MOM_RECONNECT_SAME);
    p.settle();
    EXPECT_THAT(stored(OWNED), ElementsAre("set index.vid=4", "set index.vid=9"));
    own(program, "index.vid=2");
    own(program, "index.vid=3");
    kt_mom_del_ow(program, 6, make(OWNED, "index.vid=9"), 0, 0, 1000);
    kt_mom_del_ow(program, 6, make(OWNED, "index.vid=2"), 0, 0, 1000);
    EXPECT_EQ(stored(OWNED).size(), 3U);
    p.end_program();
    EXPECT_THAT(stored(OWNED), ElementsAre("set index.vid=4", "set index.vid=9"));
    EXPECT_EQ(kt_mom_set(program, 6, make(OWNED, "index.vid=5"), 0, 0), -ENOTCONN);
}

TEST_F(Contract, LifeOfAnObjectAndWatching)
{
    Seen seen;
    kt_mom_watch(peer, 4, record, &seen);
    kt_mom_set(program, 4, make(PORT, "index.ifx=1"), 0, 30);
    kt_mom_set(program, 4, make(PORT, "index.ifx=2"), 0, 30);
    kt_mom_watch(peer, 4, record, &seen);
    p.pass(10);
    set("index.ifx=2");
    p.pass(30);
    EXPECT_THAT(seen.take(), ElementsAre("set index.ifx=1", "set index.ifx=2", "set index.ifx=2",
                                         "del index.ifx=1"));
}

/* A program that keeps up as the contract tells it to, while everything around it goes wrong. */
class Follower : public Contract
{
protected:
    Follower()
    {
        p.limit_queue(4);
        seen.then = [this](const kt_mom_msg &msg) { follow(msg); };
    }
    void follow(const kt_mom_msg &msg)
    {
        if (msg.scan_state == KT_MOM_SCAN_START || msg.scan_state == KT_MOM_SCAN_AGAIN)
            scan(seen);
        const auto *object = static_cast<const ProtobufCMessage *>(msg.object);
        if (msg.operation == KT_MOM_SET)
            view[object::key(*object)] = text_of(msg);
        else if (msg.operation == KT_MOM_DEL)
            view.erase(object::key(*object));
        if (random(6) == 0)
            disturb();
    }
    /* One thing that somebody does at this moment. */
    void disturb()
    {
        const std::string port = port_text(1 + random(9));
        const uint32_t what = budget == 0 ? 9 : (budget--, random(20));
        if (what == 0)
            p.cut(4);
        else if (what == 1)
            p.restore(4, KT_MOM_RECONNECT_SAME);
        else if (what == 2)
            subscribe(seen);
        else if (what < 9)
            del(port), model.erase(port);
        else if (budget > 0)
            set(port + " mode=" + std::to_string(budget)), model[port] = budget;
    }
    uint32_t random(uint32_t below)
    {
        return static_cast<uint32_t>(generator() % below);
    }

    std::mt19937 generator;
    uint32_t budget = 0;
    Seen seen;
    std::map<std::string, std::string> view;
    std::map<std::string, uint32_t> model;
};

TEST_F(Follower, EndsWithTheSameViewAsTheStore)
{
    on_reconnect = [this] {
        if (random(2) == 0)
            subscribe(seen);
    };
    subscribe(seen);
    for (uint32_t round = 0; round < 300; round++) {
        generator.seed(round);
        budget = 60;
        while (budget > 0) {
            disturb();
            if (random(5) == 0)
                p.settle();
        }
        p.restore(4, KT_MOM_RECONNECT_SAME);
        p.settle();
        Lines expected, viewed;
        for (const auto &[port, mode] : model)
            expected.push_back("set " + port + " mode=" + std::to_string(mode));
        for (const auto &[key, text] : view)
            viewed.push_back(text);
        ASSERT_EQ(stored(), expected) << "round " << round;
        ASSERT_EQ(viewed, expected) << "round " << round;
        seen.take();
    }
}

/* --- Of the simulated platform only */

TEST_F(Contract, CallsOfTheProgramAreRecordedAndMeetFaults)
{
    sim::calls_record(true);
    sim::fault_plan("kt_mom_set", 1, -11);
    sim::fault_plan("kt_mom_get_sync", 1, -12);
    EXPECT_EQ(set("index.ifx=3"), 0) << "not the peer's";
    EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=3 mode=1"), 0, 0), -11);
    int status = 0;
    EXPECT_EQ(kt_mom_get_sync(program, 4, make(PORT, "index.ifx=3"), &status), nullptr);
    EXPECT_EQ(status, -12);
    kt_mom_dsbegin(program, 4, make(PORT), 0, 1000, record, nullptr);
    kt_mom_del(program, 4, make(PORT, "index.ifx=3"), 2, 0);
    ASSERT_EQ(sim::calls().size(), 4U);
    EXPECT_EQ(sim::calls()[0].arguments, "db=4 object=p_bridge.vvlan_port_cfg index.ifx=3 mode=1");
    EXPECT_EQ(sim::calls()[2].arguments,
              "db=4 expire=1000 object=p_bridge.vvlan_port_cfg index.ifx=0");
    EXPECT_EQ(sim::calls()[3].arguments, "db=4 flag=2 object=p_bridge.vvlan_port_cfg index.ifx=3");
}

int leave(kt_global *, const kt_mom_msg *, void *)
{
    std::exit(3);
}

TEST(SimMom, AProcessMayEndInsideACallback)
{
    sim::world_reset();
    for (const bool is_sync : {true, false}) {
        for (const uint32_t ifx : {1U, 2U})
            kt_mom_set(sim::mom_peer(), 4, make(PORT, port_text(ifx)), 0, 0);
        const sim::Ended ended = sim::process_run([&] {
            kt_global *global = kt_global_init("short", nullptr);
            kt_mom_client_connect_sync(global, 4);
            const auto up = [](kt_global *mine, void *user) {
                const PBridge__VvlanPortCfg every = P_BRIDGE__VVLAN_PORT_CFG__INIT;
                (*static_cast<const bool *>(user) ? kt_mom_scan_sync : kt_mom_subscribe)(
                    mine, 4, &every.base, 0, leave, nullptr);
                return 0;
            };
            kt_mom_client_connect(global, 4, up, const_cast<bool *>(&is_sync));
            return kt_global_run(global);
        });
        EXPECT_EQ(ended.status, 3);
        sim::settle(); /* what was on its way to it comes to nothing */
    }
    sim::world_reset();
}

} // namespace
