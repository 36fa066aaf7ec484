#include "tests/contract_platform.h"

#include "linux/linux_env.h"
#include "linux/linux_loop.h"
#include "linux/linux_mom.h"
#include "proto/p_bridge.pb-c.h"
#include "tests/live/redis_server.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>

namespace contract
{

const uint32_t platform_rounds = 200;

namespace
{

constexpr int64_t PATIENCE = 20'000'000; /* microseconds */

struct Host {
    RedisServer server, other;
    kt_global *peer = nullptr;
    std::vector<std::string> peers_clients;
    bool is_cut = false;
    int64_t ahead = 0; /* milliseconds */
};

/* Lives as long as the tests. */
std::optional<Host> host;

class StopServers : public testing::Environment
{
    void TearDown() override
    {
        linux_loop_reset();
        host.reset();
    }
};

const auto *const stop_servers = testing::AddGlobalTestEnvironment(new StopServers);

} // namespace

void platform_reset()
{
    if (!host)
        host.emplace();
    linux_loop_reset();
    linux_mom_queue_limit(0);
    linux_mom_clock_ahead(host->ahead = 0);
    host->is_cut = false;
    host->server.command({"FLUSHALL"});
    host->server.link_clients(host->server.socket());
    linux_env_settings settings;
    settings.mom.path = host->server.link();
    linux_env_use(settings);
    host->peer = kt_global_init("peer", nullptr);
    for (const uint32_t db : {0U, 4U, 6U, 8U}) {
        ASSERT_EQ(kt_mom_client_connect_sync(host->peer, db), 0);
        ASSERT_EQ(kt_mom_client_connect(host->peer, db, nullptr, nullptr), 0);
    }
    platform_settle();
    host->peers_clients = host->server.clients("name=vvlan:");
}

kt_global *platform_peer()
{
    return host->peer;
}

void platform_settle()
{
    EXPECT_TRUE(linux_mom_settle(PATIENCE, [] { return !host->is_cut; }));
}

void platform_pass(int64_t seconds)
{
    platform_settle();
    linux_mom_clock_ahead(host->ahead += seconds * 1000);
    platform_settle();
}

void platform_end_program(kt_global *program)
{
    kt_global_finish(program);
}

void platform_cut(kt_global *program, uint32_t db)
{
    host->is_cut = true;
    host->server.unlink_clients();
    for (const std::string &id : host->server.clients(":" + std::to_string(db) + ":")) {
        if (std::ranges::count(host->peers_clients, id) == 0)
            host->server.command({"CLIENT", "KILL", "ID", id});
    }
    /* The next call finds out. */
    const PBridge__VvlanGlbCfg any = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    EXPECT_EQ(kt_mom_get_sync(program, db, &any.base, nullptr), nullptr);
}

void platform_restore(uint32_t, int type)
{
    const bool is_same = type == KT_MOM_RECONNECT_SAME;
    host->server.link_clients((is_same ? host->server : host->other).socket());
    host->is_cut = false;
}

void platform_limit_queue(size_t changes)
{
    linux_mom_queue_limit(changes);
}

} // namespace contract
