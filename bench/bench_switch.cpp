#include "bench/bench_switch.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

#include "app/proc/udp_vvlan.h"
#include "mom/kt_mom_peer.h"
#include "proto/p_bridge.pb-c.h"
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
/* The address that all of an OUI's MACs begin with, and how many bits of it. */
udp_vvlan_mac_addr oui_address(uint32_t number);
uint32_t oui_length(uint32_t number);
void write_global();
void change_oui(uint32_t number, bool add);

} // namespace

Switch::Switch(const Size &size) : size_(size)
{
    sim::world_reset();
    udp_vvlan_state_reset();
    sim::mom_queue_limit(1U << 20);
    sim::process_install({"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset});
    sim::host_file_write("/var/tmp/udp_vvlan_debug", "1");
    for (uint32_t ifx = 1; ifx <= size.ports; ifx++)
        sim::switch_add_port(ifx, 0x10000 + ifx, std::to_string(ifx));
}

Switch::~Switch()
{
    sim::world_reset();
    udp_vvlan_state_reset();
}

void Switch::configure() const
{
    write_global();
    for (uint32_t number = 0; number < size_.ouis; number++)
        change_oui(number, true);
    for (uint32_t ifx = 1; ifx <= size_.ports; ifx++) {
        PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
        PBridge__VvlanPortCfg port = P_BRIDGE__VVLAN_PORT_CFG__INIT;
        index.ifx = ifx;
        port.index = &index;
        port.enable = 1;
        port.mode = 1;
        write(UDP_VVLAN_CFG_DB, port.base);
    }
    sim::settle();
}

void Switch::notify_macs() const
{
    for (uint32_t number = 0; number < size_.macs; number++) {
        const Noti noti(size_, number);
        write(UDP_VVLAN_MAC_DB, noti.message.base);
    }
    sim::settle();
}

void Switch::start() const
{
    sim::process_start();
    sim::settle();
}

void Switch::delete_oui(uint32_t number) const
{
    change_oui(number, false);
    sim::settle();
}

Noti::Noti(const Size &size, uint32_t number)
    : bytes(oui_address(number % size.ouis)), mac(P_LIBPUB__MAC__INIT),
      index(U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT), message(U_BRIDGE__MAC_VID_REG_NOTI__INIT)
{
    bytes.bytes[4] = static_cast<uint8_t>(bytes.bytes[4] | (number / size.ouis >> 8));
    bytes.bytes[5] = static_cast<uint8_t>(number / size.ouis);
    mac.data = {sizeof bytes.bytes, bytes.bytes};
    index.t_fid = VOICE_VID;
    index.t_mac = &mac;
    message.index = &index;
    message.port_id = 1 + number % size.ports;
    message.flag = 1;
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

udp_vvlan_mac_addr oui_address(uint32_t number)
{
    const auto low = static_cast<uint8_t>(number);
    const auto block = static_cast<uint8_t>(number / 8 << 4);
    switch (oui_length(number)) {
    case 28:
        return {{0x0c, 0x11, 0x05, block, 0, 0}};
    case 36:
        return {{0x70, 0xb3, 0xd5, low, 0x10, 0}};
    default:
        return {{0x00, 0x04, low, 0, 0, 0}};
    }
}

/* Of 8 entries 6 are of 24 bits, 1 of 28, 1 of 36. At most 16 are of 28 bits. */
uint32_t oui_length(uint32_t number)
{
    return number % 8 == 6 ? 28 : number % 8 == 7 ? 36 : 24;
}

void write_global()
{
    PBridge__VvlanEn enable = P_BRIDGE__VVLAN_EN__INIT;
    PBridge__BQos qos = P_BRIDGE__B_QOS__INIT;
    PBridge__VvlanGlbCfg global = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    enable.vlan = VOICE_VID;
    enable.enable = 1;
    qos.cos = 6;
    qos.dscp = 46;
    global.glb_switch = &enable;
    global.age_time = 1440;
    global.qos = &qos;
    const uint32_t fields[] = {5, 7, 8};
    kt_mom_hset(sim::mom_peer(), UDP_VVLAN_CFG_DB, &global.base, fields, std::size(fields));
}

void change_oui(uint32_t number, bool add)
{
    udp_vvlan_mac_addr address = oui_address(number);
    udp_vvlan_mac_addr prefix = {};
    for (uint32_t bit = 0; bit < oui_length(number); bit++)
        prefix.bytes[bit / 8] = static_cast<uint8_t>(prefix.bytes[bit / 8] | 0x80 >> bit % 8);
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    PLibpub__Mac mask = P_LIBPUB__MAC__INIT;
    PBridge__BOui index = P_BRIDGE__B_OUI__INIT;
    PBridge__VvlanOuiCfg oui = P_BRIDGE__VVLAN_OUI_CFG__INIT;
    mac.data = {sizeof address.bytes, address.bytes};
    mask.data = {sizeof prefix.bytes, prefix.bytes};
    index.mac = &mac;
    index.mask = &mask;
    oui.index = &index;
    if (add)
        write(UDP_VVLAN_CFG_DB, oui.base);
    else
        kt_mom_del(sim::mom_peer(), UDP_VVLAN_CFG_DB, &oui.base, 0, 0);
}

} // namespace

} // namespace bench
