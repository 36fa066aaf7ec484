#include "bench/bench_switch.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

#include "app/proc/udp_vvlan.h"
#include "mom/kt_mom_peer.h"
#include "sim/sim_host.h"
#include "sim/sim_loop.h"
#include "sim/sim_mom.h"
#include "sim/sim_process.h"
#include "sim/sim_switch.h"
#include "sim/sim_world.h"

namespace bench
{

namespace
{

void write(uint32_t db, const ProtobufCMessage &object);

} // namespace

Switch::Switch(const Size &size) : size_(size)
{
    sim::world_reset();
    udp_vvlan_state_reset();
    sim::mom_queue_limit(1U << 20);
    sim::process_install({"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset});
    sim::host_file_write("/var/tmp/udp_vvlan_debug", "1");
    for (uint32_t ifx = 1; ifx <= size.ports; ifx++)
        sim::switch_add_port(ifx, phyid_of(ifx), std::to_string(ifx));
}

Switch::~Switch()
{
    sim::world_reset();
    udp_vvlan_state_reset();
}

void Switch::configure() const
{
    const Global global;
    kt_mom_hset(sim::mom_peer(), UDP_VVLAN_CFG_DB, &global.message.base, Global::FIELDS,
                std::size(Global::FIELDS));
    for (uint32_t number = 0; number < size_.ouis; number++)
        write(UDP_VVLAN_CFG_DB, Oui(number).message.base);
    for (uint32_t ifx = 1; ifx <= size_.ports; ifx++)
        write(UDP_VVLAN_CFG_DB, Port(ifx).message.base);
    sim::settle();
}

void Switch::notify_macs() const
{
    for (uint32_t number = 0; number < size_.macs; number++)
        write(UDP_VVLAN_MAC_DB, Noti(size_, number).message.base);
    sim::settle();
}

void Switch::start() const
{
    sim::process_start();
    sim::settle();
}

void Switch::delete_oui(uint32_t number) const
{
    const Oui oui(number);
    kt_mom_del(sim::mom_peer(), UDP_VVLAN_CFG_DB, &oui.message.base, 0, 0);
    sim::settle();
}

namespace
{

void write(uint32_t db, const ProtobufCMessage &object)
{
    if (kt_mom_set(sim::mom_peer(), db, &object, 0, 0) != 0) {
        std::fprintf(stderr, "bench: a database is full\n");
        std::abort();
    }
}

} // namespace

} // namespace bench
