/*
 * What only the database in memory does: key order, calls that are recorded and
 * meet planned faults, and a process that ends in the middle of things.
 */
#include "proto/p_bridge.pb-c.h"
#include "sim/sim_call.h"
#include "sim/sim_mom.h"
#include "sim/sim_process.h"
#include "sim/sim_world.h"
#include "tests/contract_objects.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace contract;
using testing::ElementsAre;

class SimMom : public testing::Test
{
protected:
    SimMom()
    {
        sim::world_reset();
        program = kt_global_init("sim", nullptr);
        for (const uint32_t db : {4U, 6U}) {
            kt_mom_client_connect_sync(program, db);
            kt_mom_client_connect(program, db, nullptr, nullptr);
        }
        sim::settle();
    }
    ~SimMom() override
    {
        sim::world_reset();
    }
    /* How many objects of a kind there are. */
    size_t stored(const char *kind)
    {
        Seen all;
        EXPECT_EQ(kt_mom_scan_sync(peer, db_of(kind), make(kind), 0, record, &all), 0);
        return all.lines.size();
    }

    kt_global *program = nullptr;
    kt_global *peer = sim::mom_peer();
};

TEST_F(SimMom, AScanWalksInKeyOrderAndShowsWhatIsStoredWhenItArrives)
{
    Seen seen;
    for (const uint32_t ifx : {300U, 2U, 1U})
        kt_mom_set(peer, 4, make(PORT, port_text(ifx)), 0, 0);
    kt_mom_scan(program, 4, make(PORT), 0, record, &seen);
    seen.then = [this](const kt_mom_msg &) {
        kt_mom_del(peer, 4, make(PORT, "index.ifx=300"), 0, 0);
    };
    sim::settle();
    EXPECT_THAT(seen.lines, ElementsAre("set index.ifx=1", "set index.ifx=2", "over"));
}

TEST_F(SimMom, CallsOfTheProgramAreRecordedAndMeetFaults)
{
    sim::calls_record(true);
    sim::fault_plan("kt_mom_set", 1, -11);
    sim::fault_plan("kt_mom_get_sync", 1, -12);
    EXPECT_EQ(kt_mom_set(peer, 4, make(PORT, "index.ifx=3"), 0, 0), 0) << "not the peer's";
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

TEST_F(SimMom, AnOwnerCountsAsGoneWhenItsLeaseHasRunOut)
{
    constexpr int64_t LEASE = sim::MOM_LEASE;
    const auto pass = [](int64_t time) { sim::run_until(sim::now() + time); };
    const auto restore = [] {
        sim::mom_reconnect(6, KT_MOM_RECONNECT_SAME);
        sim::settle();
    };
    for (const char *text : {"index.vid=2", "index.vid=3"})
        kt_mom_setow(program, 6, make(OWNED, text), 0, 0, 1000);
    kt_mom_set(peer, 6, make(OWNED, "index.vid=4"), 0, 0);
    for (int i = 0; i < 2; i++) {
        sim::mom_disconnect(6);
        pass(LEASE - 1);
        restore();
    }
    EXPECT_EQ(stored(OWNED), 3U) << "each time it was back before the lease had run out";
    sim::mom_disconnect(6);
    pass(LEASE - 1);
    sim::mom_disconnect(6); /* lost already: the lease runs on */
    pass(1);
    EXPECT_EQ(stored(OWNED), 1U) << "it counts as gone, but what was written plainly stays";
    restore();
    EXPECT_EQ(stored(OWNED), 1U);
}

int leave(kt_global *, const kt_mom_msg *, void *)
{
    std::exit(3);
}

TEST(SimMomProcess, AProcessMayEndInsideACallback)
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
