/*
 * bench_objects - what the databases of a switch of a given size hold.
 *
 * Ports are numbered from 1; OUIs are of the three sizes that the registry gives
 * out, most of them of 24 bits; MACs are spread evenly over OUIs and ports.
 *
 * Each type here is one message with the messages it consists of; the parts
 * point at each other, so they are not to be copied.
 */
#ifndef BENCH_BENCH_OBJECTS_H
#define BENCH_BENCH_OBJECTS_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/s_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"

namespace bench
{

constexpr uint32_t VOICE_VID = 100;

struct Size {
    uint32_t ports;
    uint32_t ouis;
    uint32_t macs;
};

constexpr uint32_t phyid_of(uint32_t ifx)
{
    return 0x10000 + ifx;
}

/* The global settings: voice VLAN on, an aging time of a day. Stored field by field. */
struct Global {
    Global();
    Global(const Global &) = delete;
    Global &operator=(const Global &) = delete;

    static constexpr uint32_t FIELDS[] = {5, 7, 8};

    PBridge__VvlanEn enable;
    PBridge__BQos qos;
    PBridge__VvlanGlbCfg message;
};

/* An OUI by its number, from 0. */
struct Oui {
    explicit Oui(uint32_t number);
    Oui(const Oui &) = delete;
    Oui &operator=(const Oui &) = delete;

    udp_vvlan_mac_addr address, prefix;
    PLibpub__Mac mac, mask;
    PBridge__BOui index;
    PBridge__VvlanOuiCfg message;
};

/* A port's configuration, in automatic or manual mode. */
struct Port {
    explicit Port(uint32_t ifx, bool is_automatic = true);
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;

    PBridge__VvlanIndex index;
    PBridge__VvlanPortCfg message;
};

/* The notification of the MAC with that number, from 0. */
struct Noti {
    Noti(const Size &size, uint32_t number);
    Noti(const Noti &) = delete;
    Noti &operator=(const Noti &) = delete;

    udp_vvlan_mac_addr bytes;
    PLibpub__Mac mac;
    UBridge__UdpL2addrBaseIndex index;
    UBridge__MacVidRegNoti message;
};

/* The notice that a voice device was seen on a port. */
struct Seen {
    explicit Seen(uint32_t ifx);
    Seen(const Seen &) = delete;
    Seen &operator=(const Seen &) = delete;

    SBridge__VvlanIndex index;
    SBridge__VvlanPortNoty message;
};

} // namespace bench

#endif
