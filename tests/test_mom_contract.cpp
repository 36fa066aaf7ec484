/*
 * The contract of platform/kt_mom.h and mom/kt_mom_peer.h, as a program and
 * its peer see it. The same source is run on every platform; what it needs of one
 * beside the two headers stands in contract_platform.h.
 *
 * Two clients are told apart as the contract does: requests of one take effect in
 * the order in which they are made, but who of two is first is decided by a
 * synchronous call, before which all earlier requests of its client take effect.
 */
#include "mom/kt_mom_peer.h"
#include "object/object.h"
#include "platform/kt_mom.h"
#include "proto/p_bridge.pb-c.h"
#include "tests/contract_objects.h"
#include "tests/contract_platform.h"

#include <algorithm>
#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>

namespace
{

using namespace contract;
using testing::ElementsAre;
using testing::IsEmpty;

/* A scan has no order, nor have deletions that are made at once: sorted between other lines. */
Lines unordered(Lines lines)
{
    const auto is_object = [](const std::string &line) { return line.find(' ') != line.npos; };
    for (auto at = lines.begin(); at != lines.end();) {
        const auto end = std::find_if_not(at, lines.end(), is_object);
        std::sort(at, end);
        at = end == lines.end() ? end : end + 1;
    }
    return lines;
}

/* What the connection callbacks have no user data for. */
Lines link_events;
std::function<void()> on_reconnect;

class Contract : public testing::Test
{
protected:
    Contract()
    {
        platform_reset();
        on_reconnect = nullptr;
        peer = platform_peer();
        program = kt_global_init("contract", nullptr);
        connect(4);
        connect(6);
        platform_settle();
        link_events.clear();
    }
    ~Contract() override
    {
        platform_reset();
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
    /* After this, all that the client has requested of the database has taken effect. */
    int in_effect(kt_global *client, uint32_t db, int result = 0)
    {
        kt_mom_kt_obj_free(kt_mom_get_sync(client, db, make(GLOBAL), nullptr));
        return result;
    }
    int set(const std::string &text, const char *kind = PORT)
    {
        const int result = kt_mom_set(peer, db_of(kind), make(kind, text), 0, 0);
        return in_effect(peer, db_of(kind), result);
    }
    int del(const std::string &text, const char *kind = PORT)
    {
        const int result = kt_mom_del(peer, db_of(kind), make(kind, text), 0, 0);
        return in_effect(peer, db_of(kind), result);
    }
    int hset(const std::string &text)
    {
        const Made made = make(GLOBAL, text);
        return in_effect(peer, 4,
                         kt_mom_hset(peer, 4, made, made.fields.data(),
                                     static_cast<uint32_t>(made.fields.size())));
    }
    int subscribe(Seen &seen, const char *kind = PORT, const std::string &text = "",
                  uint32_t match = 0)
    {
        const uint32_t db = db_of(kind);
        return in_effect(program, db,
                         kt_mom_subscribe(program, db, make(kind, text), match, record, &seen));
    }
    int scan(Seen &seen, const char *kind = PORT, const std::string &text = "", uint32_t match = 0)
    {
        return kt_mom_scan(program, db_of(kind), make(kind, text), match, record, &seen);
    }
    /* What a kind holds. */
    Lines stored(const char *kind = PORT)
    {
        Seen all;
        EXPECT_EQ(kt_mom_scan_sync(peer, db_of(kind), make(kind), 0, record, &all), 0);
        std::ranges::sort(all.lines);
        return all.lines;
    }
    Lines settled(Seen &seen)
    {
        platform_settle();
        return seen.take();
    }

    kt_global *program = nullptr;
    kt_global *peer = nullptr;
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
    platform_cut(program, 4);
    platform_restore(4, KT_MOM_RECONNECT_SAME);
    platform_cut(program, 4);
    platform_settle();
    EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=1"), 0, 0), -ENOTCONN);
}

TEST_F(Contract, PartialMatchAndUnsubscribe)
{
    Seen vlan, every;
    subscribe(vlan, NOTICE, "index.t_fid=7", KT_MOM_MATCH_PARTIAL);
    subscribe(every, NOTICE);
    set("index.t_fid=7 index.t_mac=00:00:00:00:00:01", NOTICE);
    set("index.t_fid=8 index.t_mac=00:00:00:00:00:01", NOTICE);
    platform_settle();
    EXPECT_EQ(vlan.take().size(), 3U);
    EXPECT_EQ(every.take().size(), 4U);

    kt_mom_unsubscribe(program, 6, make(NOTICE, "index.t_fid=8"), 2, record, &vlan);
    kt_mom_unsubscribe(program, 6, make(NOTICE), 0, record, &every);
    in_effect(program, 6);
    set("index.t_fid=7 index.t_mac=00:00:00:00:00:02", NOTICE);
    EXPECT_EQ(settled(vlan).size(), 1U) << "the key did not select it";
    EXPECT_THAT(every.take(), ElementsAre("gone"));
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
    platform_settle();
    seen.take();
    del("index.ifx=1");
    subscribe(seen);
    EXPECT_THAT(settled(seen), ElementsAre("resync", "start"));
    set("index.ifx=2");
    scan(seen);
    EXPECT_THAT(settled(seen), testing::UnorderedElementsAre("set index.ifx=2", "set index.ifx=2",
                                                             "over", "del index.ifx=1"));
}

/* By its callback and user data: the template is no part of what it is known by. */
TEST_F(Contract, AnotherTemplateReplacesToo)
{
    Seen seen;
    seen.then = [&](const kt_mom_msg &msg) {
        if (msg.scan_state == KT_MOM_SCAN_START)
            scan(seen);
    };
    for (const uint32_t ifx : {1U, 2U})
        set(port_text(ifx) + " mode=7");
    subscribe(seen);
    settled(seen);
    for (const uint32_t ifx : {1U, 2U})
        del(port_text(ifx));
    subscribe(seen, PORT, "index.ifx=2");
    set("index.ifx=3");
    EXPECT_THAT(settled(seen),
                ElementsAre("resync", "start", "set index.ifx=3", "over", "del index.ifx=2 mode=7"))
        << "3 by the scan alone, and of 1 nothing more is told";
    set("index.ifx=1");
    set("index.ifx=2");
    EXPECT_THAT(settled(seen), ElementsAre("set index.ifx=2"));
}

TEST_F(Contract, ScansRunOneAfterAnother)
{
    Seen seen, nothing;
    for (const uint32_t ifx : {300U, 2U, 1U})
        set(port_text(ifx));
    scan(seen);
    scan(seen, PORT, "index.ifx=2");
    scan(nothing, NOTICE);
    EXPECT_THAT(unordered(settled(seen)),
                ElementsAre("set index.ifx=1", "set index.ifx=2", "set index.ifx=300", "over",
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
    in_effect(program, 4);
    hset("age_time=5 qos.cos=3");
    hset("secu_mode=1 age_time=0");
    for (Seen &seen : tagged)
        EXPECT_THAT(settled(seen), ElementsAre("resync", "start", "hset 7,8: age_time=5 qos.cos=3",
                                               "hset 6,7: secu_mode=1 qos.cos=3"));
    EXPECT_THAT(stored(GLOBAL), ElementsAre("hset 6,7,8: secu_mode=1 qos.cos=3"));
    const auto swap = [this](const std::string &before, const std::string &text) {
        const Made old = make(GLOBAL, before);
        const Made news = make(GLOBAL, text);
        return kt_mom_hset_if_sync(peer, 4, old, news, news.fields.data(),
                                   static_cast<uint32_t>(news.fields.size()));
    };
    EXPECT_EQ(swap("secu_mode=1", "qos.cos=4 secu_mode=1"), -ESTALE) << "there is a qos";
    EXPECT_EQ(swap("secu_mode=1 qos.cos=3 age_time=3", "qos.cos=4 age_time=2"), -ESTALE);
    EXPECT_EQ(swap("qos.cos=3 age_time=9", "qos.cos=4 secu_mode=0"), -ESTALE);
    EXPECT_THAT(stored(GLOBAL), ElementsAre("hset 6,7,8: secu_mode=1 qos.cos=3"));
    EXPECT_EQ(swap("secu_mode=1 qos.cos=3 age_time=9", "qos.cos=4 secu_mode=0"), 0);
    EXPECT_EQ(swap("", "age_time=7"), 0);
    EXPECT_THAT(stored(GLOBAL), ElementsAre("hset 6,7,8: age_time=7 qos.cos=4"));
    const Made made = make(GLOBAL, "age_time=1");
    const uint32_t unknown = 77;
    EXPECT_EQ(kt_mom_hset_if_sync(peer, 4, nullptr, made, made.fields.data(), 1), -EINVAL);
    EXPECT_EQ(kt_mom_hset(peer, 4, made, &unknown, 1), -EINVAL);
    set("age_time=9", GLOBAL);
    EXPECT_THAT(stored(GLOBAL), ElementsAre("set age_time=9")) << "a plain object from now";
}

/* A deletion that nobody heard carries the object as it was known, whichever way that was. */
TEST_F(Contract, NothingIsLostOverALostConnection)
{
    Seen stands, renewed;
    for (const uint32_t ifx : {1U, 2U, 3U, 4U})
        set(port_text(ifx) + " mode=7");
    for (Seen *seen : {&stands, &renewed}) {
        seen->then = [&, seen](const kt_mom_msg &msg) {
            if (msg.scan_state == KT_MOM_SCAN_START)
                scan(*seen);
        };
        subscribe(*seen);
    }
    platform_settle();
    set("index.ifx=2 mode=8 enable=1"); /* known by a change, larger than before, */
    set("index.ifx=6 mode=300");
    set("index.ifx=6 mode=3"); /* and smaller */
    platform_settle();
    stands.take(), renewed.take();
    del("index.ifx=1"); /* on its way when the connection goes */
    platform_cut(program, 4);
    EXPECT_EQ(kt_mom_set(program, 4, make(PORT, "index.ifx=1"), 0, 0), -ENOTCONN);
    del("index.ifx=2");
    del("index.ifx=3");
    set("index.ifx=3 enable=1");
    set("index.ifx=5");
    del("index.ifx=5");
    EXPECT_THAT(settled(stands), IsEmpty());
    EXPECT_THAT(std::exchange(link_events, {}), ElementsAre("lost 4"));
    on_reconnect = [&] { subscribe(renewed); };
    platform_restore(4, KT_MOM_RECONNECT_SAME);
    for (Seen *seen : {&stands, &renewed})
        EXPECT_THAT(unordered(settled(*seen)),
                    ElementsAre("resync", "start", "set index.ifx=3 enable=1",
                                "set index.ifx=4 mode=7", "set index.ifx=6 mode=3", "over",
                                "del index.ifx=1 mode=7", "del index.ifx=2 enable=1 mode=8"));
    EXPECT_THAT(link_events, ElementsAre("back 4 2"));

    platform_cut(program, 4); /* once more, with what only that scan has shown */
    for (const uint32_t ifx : {3U, 4U, 6U})
        del(port_text(ifx));
    platform_restore(4, KT_MOM_RECONNECT_SAME);
    EXPECT_THAT(unordered(settled(stands)),
                ElementsAre("resync", "start", "over", "del index.ifx=3 enable=1",
                            "del index.ifx=4 mode=7", "del index.ifx=6 mode=3"));
}

/* An object that is stored field by field is told whole, and one of a kind without keys too. */
TEST_F(Contract, WhatIsStoredByFieldsIsNotLostEither)
{
    Seen seen;
    seen.then = [&](const kt_mom_msg &msg) {
        if (msg.scan_state == KT_MOM_SCAN_START)
            scan(seen, GLOBAL);
    };
    hset("age_time=5");
    subscribe(seen, GLOBAL);
    settled(seen);
    hset("secu_mode=2");
    settled(seen);
    platform_cut(program, 4);
    EXPECT_EQ(kt_mom_del(peer, 4, make(GLOBAL), 0, 0), 0);
    in_effect(peer, 4);
    platform_restore(4, KT_MOM_RECONNECT_SAME);
    EXPECT_THAT(settled(seen),
                ElementsAre("resync", "start", "over", "del secu_mode=2 age_time=5"));
}

TEST_F(Contract, ASubscriptionMadeAnewHearsNoScanOfTheOldOne)
{
    Seen seen;
    set("index.ifx=1");
    bool is_first = true;
    seen.then = [&](const kt_mom_msg &msg) {
        if (msg.scan_state != KT_MOM_SCAN_START)
            return;
        scan(seen);
        if (std::exchange(is_first, false))
            kt_mom_subscribe(program, 4, make(PORT), 0, record, &seen);
    };
    subscribe(seen);
    EXPECT_THAT(settled(seen),
                ElementsAre("resync", "start", "resync", "start", "set index.ifx=1", "over"));
}

/* One scan must not be half told when the next begins. */
TEST_F(Contract, WhatAScanShowsToBeGoneComesBeforeALaterScan)
{
    Seen seen;
    set("index.ifx=1 mode=2");
    hset("age_time=5");
    seen.then = [&](const kt_mom_msg &msg) {
        if (msg.scan_state == KT_MOM_SCAN_START) {
            scan(seen);
            scan(seen, GLOBAL);
        }
    };
    subscribe(seen);
    settled(seen);
    platform_cut(program, 4);
    del("index.ifx=1");
    platform_restore(4, KT_MOM_RECONNECT_SAME);
    EXPECT_THAT(settled(seen), ElementsAre("resync", "start", "over", "del index.ifx=1 mode=2",
                                           "hset 7: age_time=5", "over"));
}

TEST_F(Contract, AnotherInstanceKeepsNoSubscription)
{
    Seen seen;
    subscribe(seen);
    platform_settle();
    platform_cut(program, 4);
    platform_restore(4, KT_MOM_RECONNECT_OTHER);
    platform_settle();
    seen.take();
    set("index.ifx=1");
    EXPECT_THAT(settled(seen), IsEmpty());
    EXPECT_THAT(link_events, ElementsAre("lost 4", "back 4 1"));
    connect(4);
    platform_settle();
    EXPECT_EQ(link_events.back(), "up") << "connecting again is told again";
}

TEST_F(Contract, AFullQueueAsksForAnotherScan)
{
    Seen seen;
    set("index.ifx=1 mode=4");
    subscribe(seen);
    platform_settle();
    seen.take();
    platform_limit_queue(2);
    for (const uint32_t ifx : {2U, 3U, 4U})
        set(port_text(ifx));
    del("index.ifx=1");
    Seen other; /* in place after all these changes, which have therefore come */
    subscribe(other, GLOBAL);
    EXPECT_THAT(settled(seen), ElementsAre("set index.ifx=2", "set index.ifx=3", "again"));
    scan(seen);
    EXPECT_THAT(unordered(settled(seen)),
                ElementsAre("set index.ifx=2", "set index.ifx=3", "set index.ifx=4", "over",
                            "del index.ifx=1 mode=4"));
}

TEST_F(Contract, SectionRemovesWhatNobodyWanted)
{
    Seen seen;
    for (const uint32_t ifx : {1U, 2U, 3U, 4U})
        set(port_text(ifx));
    in_effect(program, 4, kt_mom_set(program, 4, make(PORT, "index.ifx=5"), 0, 0));
    set("index.ifx=5 mode=1"); /* the program has written it all the same */
    subscribe(seen);
    platform_settle();
    seen.take();
    ASSERT_EQ(kt_mom_dsbegin_sync(program, 4, make(PORT), 0, 1000), 0);
    set("index.ifx=1");
    kt_mom_clear_expire(program, 4, make(PORT, "index.ifx=2"), 0, 0);
    in_effect(program, 4);
    ASSERT_EQ(kt_mom_dsend(peer, 4, make(PORT), 0, record), 0) << "not the peer's section";
    ASSERT_EQ(kt_mom_dsend(program, 4, make(PORT, "index.ifx=3"), 0, record), 0);
    EXPECT_THAT(settled(seen), ElementsAre("set index.ifx=1", "del index.ifx=3"));
    platform_pass(999);
    EXPECT_THAT(seen.take(), IsEmpty());
    platform_pass(1); /* never closed for the rest */
    EXPECT_THAT(seen.take(), ElementsAre("del index.ifx=4"));
    kt_mom_dsbegin(program, 4, make(PORT), 0, 1000, record, nullptr);
    kt_mom_dsend(program, 4, make(PORT), 0, record);
    EXPECT_THAT(unordered(settled(seen)), ElementsAre("del index.ifx=1", "del index.ifx=2"));
    EXPECT_THAT(stored(), ElementsAre("set index.ifx=5 mode=1")) << "the program's own";
}

TEST_F(Contract, SectionCoversWhatItsTemplateSelects)
{
    for (const char *text : {"index.t_fid=7 index.t_mac=00:00:00:00:00:01",
                             "index.t_fid=7 index.t_type=3 index.t_mac=00:00:00:00:00:02",
                             "index.t_fid=8 index.t_mac=00:00:00:00:00:01"})
        set(text, NOTICE);
    const Made fid = make(NOTICE, "index.t_fid=7");
    for (const uint32_t match : {KT_MOM_MATCH_EXACT, KT_MOM_MATCH_PARTIAL}) {
        EXPECT_EQ(stored(NOTICE).size(), 3U) << "no object has just that key";
        EXPECT_EQ(kt_mom_dsbegin_sync(program, 6, fid, match, 0), 0);
        kt_mom_dsend(program, 6, fid, match, nullptr);
        in_effect(program, 6);
    }
    EXPECT_THAT(stored(NOTICE), ElementsAre(testing::HasSubstr("t_fid=8")));
    EXPECT_EQ(kt_mom_dsbegin_sync(program, 6, fid, 1, 0), -EINVAL) << "no such rule";
}

TEST_F(Contract, OwnedObjectsGoWithTheirOwner)
{
    const auto own = [this](kt_global *who, const char *text) {
        ASSERT_EQ(in_effect(who, 6, kt_mom_setow(who, 6, make(OWNED, text), 0, 0, 1000)), 0);
    };
    for (const char *text : {"index.vid=1", "index.vid=2", "index.vid=3", "index.vid=4"})
        own(program, text);
    own(peer, "index.vid=9");
    kt_mom_dsbegin_ow(program, 6, make(OWNED), 0, 1000, record, nullptr, 1000);
    own(program, "index.vid=2");
    own(program, "index.vid=3");
    set("index.vid=4", OWNED); /* is the program's no more, and wanted */
    kt_mom_dsend_ow(program, 6, make(OWNED), 0, record, nullptr, 1000);
    in_effect(program, 6);
    EXPECT_THAT(stored(OWNED), ElementsAre("set index.vid=2", "set index.vid=3", "set index.vid=4",
                                           "set index.vid=9"));
    kt_mom_del_ow(program, 6, make(OWNED, "index.vid=9"), 0, 0, 1000);
    kt_mom_del_ow(program, 6, make(OWNED, "index.vid=2"), 0, 0, 1000);
    in_effect(program, 6);
    EXPECT_EQ(stored(OWNED).size(), 3U);
    platform_end_program(program);
    EXPECT_THAT(stored(OWNED), ElementsAre("set index.vid=4", "set index.vid=9"));
    EXPECT_EQ(kt_mom_set(program, 6, make(OWNED, "index.vid=5"), 0, 0), -ENOTCONN);
}

TEST_F(Contract, LifeOfAnObjectAndWatching)
{
    Seen seen;
    kt_mom_watch(peer, 4, record, &seen);
    in_effect(peer, 4);
    kt_mom_set(program, 4, make(PORT, "index.ifx=1"), 0, 30);
    kt_mom_set(program, 4, make(PORT, "index.ifx=2"), 0, 30);
    kt_mom_watch(peer, 4, record, &seen);
    platform_pass(10);
    set("index.ifx=2");
    platform_pass(30);
    EXPECT_THAT(seen.take(), ElementsAre("set index.ifx=1", "set index.ifx=2", "set index.ifx=2",
                                         "del index.ifx=1"));
}

/* A program that keeps up as the contract tells it to, while everything around it goes wrong. */
class Follower : public Contract
{
protected:
    Follower()
    {
        platform_limit_queue(4);
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
            platform_cut(program, 4);
        else if (what == 1)
            platform_restore(4, KT_MOM_RECONNECT_SAME);
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
    for (uint32_t round = 0; round < platform_rounds; round++) {
        generator.seed(round);
        budget = 60;
        while (budget > 0) {
            disturb();
            if (random(5) == 0)
                platform_settle();
        }
        platform_restore(4, KT_MOM_RECONNECT_SAME);
        platform_settle();
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

} // namespace
