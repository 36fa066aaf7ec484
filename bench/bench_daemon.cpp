/*
 * The daemon on a simulated switch: one MAC notification, the first full
 * synchronisation, one aging tick, the deletion of an OUI, bytes per record.
 */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include "app/proc/udp_vvlan_mac.h"
#include "app/proc/udp_vvlan_port.h"
#include "bench/bench_measure.h"
#include "bench/bench_switch.h"
#include "sim/sim_loop.h"

namespace
{

constexpr bench::Size FULL = {4096, 127, 65536};
constexpr sim::Micros TICK = 60 * sim::SECOND;

/* The notifications of all MACs, packed, in random order. */
class Packed
{
public:
    explicit Packed(const bench::Size &size)
    {
        std::vector<uint32_t> order(size.macs);
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), std::mt19937(1));
        for (const uint32_t number : order) {
            const bench::Noti noti(size, number);
            uint8_t buffer[64];
            const size_t length = protobuf_c_message_pack(&noti.message.base, buffer);
            bytes_.insert(bytes_.end(), buffer, buffer + length);
            ends_.push_back(bytes_.size());
        }
    }

    /* Unpacks each in turn, has it looked at, and frees it. */
    template <typename Look> void unpack_each(Look look) const
    {
        size_t start = 0;
        for (const size_t end : ends_) {
            UBridge__MacVidRegNoti *noti =
                u_bridge__mac_vid_reg_noti__unpack(nullptr, end - start, bytes_.data() + start);
            look(noti);
            u_bridge__mac_vid_reg_noti__free_unpacked(noti, nullptr);
            start = end;
        }
    }

private:
    std::vector<uint8_t> bytes_;
    std::vector<size_t> ends_;
};

void notify(const Packed &packed, uint32_t operation)
{
    packed.unpack_each([operation](const UBridge__MacVidRegNoti *noti) {
        const kt_mom_msg message = {operation, noti, KT_MOM_CHANGE, 0};
        udp_vvlan_mac_subscribe_callback(udp_vvlan_global, &message, nullptr);
    });
}

uint32_t mac_records()
{
    return udp_vvlan_mac_map == nullptr ? 0 : udp_vvlan_mac_map->size;
}

void expect_macs(benchmark::State &state, uint32_t count)
{
    if (mac_records() != count)
        state.SkipWithError("the MAC table does not hold what it should");
}

/* What a notification costs before the daemon sees it: unpacked and freed. */
void noti_unpack(benchmark::State &state)
{
    const Packed packed(FULL);
    for (auto _ : state)
        bench::time_it(state, [&] {
            packed.unpack_each([](auto *noti) { benchmark::DoNotOptimize(noti->index->t_mac); });
        });
}

/* The same and the daemon's work on it, for MACs that the table holds. */
void noti_known(benchmark::State &state)
{
    const bench::Switch world(FULL);
    world.configure();
    world.start();
    const Packed packed(FULL);
    notify(packed, KT_MOM_SET);
    for (auto _ : state)
        bench::time_it(state, [&] { notify(packed, KT_MOM_SET); });
    expect_macs(state, FULL.macs);
}

/* For MACs that are new: the table grows from empty. */
void noti_new(benchmark::State &state)
{
    const bench::Switch world(FULL);
    world.configure();
    world.start();
    const Packed packed(FULL);
    for (auto _ : state) {
        bench::time_it(state, [&] { notify(packed, KT_MOM_SET); });
        expect_macs(state, FULL.macs);
        notify(packed, KT_MOM_DEL);
        udp_vvlan_hmap_free(udp_vvlan_mac_map);
    }
}

/* For MACs that go. */
void noti_gone(benchmark::State &state)
{
    const bench::Switch world(FULL);
    world.configure();
    world.start();
    const Packed packed(FULL);
    for (auto _ : state) {
        notify(packed, KT_MOM_SET);
        expect_macs(state, FULL.macs);
        bench::time_it(state, [&] { notify(packed, KT_MOM_DEL); });
        expect_macs(state, 0);
    }
}

bench::Size size_of_sync(const benchmark::State &state)
{
    const auto macs = static_cast<uint32_t>(state.range(0));
    return {macs / 16, std::max(1U, macs * FULL.ouis / FULL.macs), macs};
}

/*
 * A switch starts: from the daemon's start, with the configuration in place,
 * through the bridge's notification of every MAC, until nothing is due.
 * Argument: MACs.
 */
void sync_first(benchmark::State &state)
{
    const bench::Size size = size_of_sync(state);
    for (auto _ : state) {
        const bench::Switch world(size);
        world.configure();
        bench::time_it(state, [&] {
            world.start();
            world.notify_macs();
        });
        expect_macs(state, size.macs);
    }
    state.counters["work"] = size.ports + size.ouis + size.macs;
}

/*
 * The daemon starts again on a switch that runs: the notifications are in the
 * database, and each automatic port looks through all of them for its own.
 * Argument: MACs.
 */
void sync_again(benchmark::State &state)
{
    const bench::Size size = size_of_sync(state);
    for (auto _ : state) {
        const bench::Switch world(size);
        world.configure();
        world.notify_macs();
        bench::time_it(state, [&] { world.start(); });
        expect_macs(state, size.macs);
    }
    state.counters["work"] =
        size.ports + size.ouis + static_cast<double>(size.ports + 1) * size.macs;
}

/* One tick of the aging timer while every port counts its silence. Argument: ports. */
void aging_tick(benchmark::State &state)
{
    const auto ports = static_cast<uint32_t>(state.range(0));
    const bench::Switch world({ports, 1, 1});
    world.configure();
    world.start();
    udp_vvlan_port_foreach(udp_vvlan_port_mac); /* joined and silent */
    for (auto _ : state) {
        udp_vvlan_port_foreach([](udp_vvlan_port_node *port) {
            port->no_flw = 0;
            return 0;
        });
        bench::time_it(state, [] { sim::run_until(sim::now() + TICK); });
    }
    const auto is_counting = [](udp_vvlan_port_node *port) { return port->no_flw == 60 ? 0 : 1; };
    if (udp_vvlan_port_map->size != ports || udp_vvlan_port_foreach(is_counting) != 0)
        state.SkipWithError("a port did not count");
}

/* The management plane deletes one OUI, until nothing is due. Argument: MACs in the table. */
void oui_delete(benchmark::State &state)
{
    const bench::Size size = {FULL.ports, FULL.ouis, static_cast<uint32_t>(state.range(0))};
    for (auto _ : state) {
        const bench::Switch world(size);
        world.configure();
        world.start();
        notify(Packed(size), KT_MOM_SET);
        expect_macs(state, size.macs);
        bench::time_it(state, [&] { world.delete_oui(0); });
        expect_macs(state, size.macs - (size.macs + size.ouis - 1) / size.ouis);
    }
}

/* Not a time: the bytes of a MAC record with its share of the table. */
void mac_bytes(benchmark::State &state)
{
    const bench::Switch world(FULL);
    world.configure();
    world.start();
    const Packed packed(FULL);
    for (auto _ : state) {
        const double before = bench::bytes_in_use();
        notify(packed, KT_MOM_SET);
        bench::report_bytes(state, (bench::bytes_in_use() - before) / FULL.macs);
    }
    expect_macs(state, FULL.macs);
}

/* The same of a port record. Argument: ports. */
void port_bytes(benchmark::State &state)
{
    const auto ports = static_cast<uint32_t>(state.range(0));
    const bench::Switch world({0, 1, 0});
    world.configure();
    world.start();
    for (auto _ : state) {
        const double before = bench::bytes_in_use();
        udp_vvlan_port_node key = {};
        for (key.ifx = 1; key.ifx <= ports; key.ifx++)
            udp_vvlan_port_node_op(&key, 1);
        bench::report_bytes(state, (bench::bytes_in_use() - before) / ports);
    }
}

BENCHMARK(noti_unpack)->Name("daemon/noti/unpack/65536")->UseManualTime();
BENCHMARK(noti_known)->Name("daemon/noti/known/65536")->UseManualTime();
BENCHMARK(noti_new)->Name("daemon/noti/new/65536")->UseManualTime();
BENCHMARK(noti_gone)->Name("daemon/noti/gone/65536")->UseManualTime();
BENCHMARK(sync_first)->Name("daemon/sync_first")->Arg(6554)->Arg(65536)->UseManualTime();
BENCHMARK(sync_again)->Name("daemon/sync_again")->Arg(6554)->Arg(65536)->UseManualTime();
BENCHMARK(aging_tick)->Name("daemon/aging")->Arg(655)->Arg(6554)->Arg(65536)->UseManualTime();
BENCHMARK(oui_delete)
    ->Name("daemon/oui_delete")
    ->Arg(6554)
    ->Arg(65536)
    ->UseManualTime()
    ->Iterations(10);
BENCHMARK(mac_bytes)->Name("daemon/bytes/mac")->UseManualTime()->Iterations(1);
BENCHMARK(port_bytes)
    ->Name("daemon/bytes/port")
    ->Arg(4096)
    ->Arg(65536)
    ->UseManualTime()
    ->Iterations(1);

} // namespace
