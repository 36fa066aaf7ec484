/*
 * bench_switch - a simulated switch of a given size with the daemon on it.
 *
 * Ports are numbered from 1 and are all in automatic mode; OUIs are of the
 * three sizes that the registry gives out, most of them of 24 bits; MACs are
 * spread evenly over OUIs and ports. Debug level 1: errors are logged.
 */
#ifndef BENCH_BENCH_SWITCH_H
#define BENCH_BENCH_SWITCH_H

#include <cstdint>

#include "app/proc/udp_vvlan_state.h"
#include "proto/u_bridge.pb-c.h"

namespace bench
{

constexpr uint32_t VOICE_VID = 100;

struct Size {
    uint32_t ports;
    uint32_t ouis;
    uint32_t macs;
};

/* The constructor starts an empty world; the databases are filled by what follows. */
class Switch
{
public:
    explicit Switch(const Size &size);
    Switch(const Switch &) = delete;
    Switch &operator=(const Switch &) = delete;
    ~Switch();

    /* Writes what the management plane configures: global settings, OUIs, ports. */
    void configure() const;
    /* Writes the bridge's notification of every MAC. */
    void notify_macs() const;
    /* Starts the daemon and runs until nothing is due. */
    void start() const;
    void delete_oui(uint32_t number) const;

private:
    Size size_;
};

/* One notification with the messages it consists of; not to be copied. */
struct Noti {
    Noti(const Size &size, uint32_t number);
    Noti(const Noti &) = delete;
    Noti &operator=(const Noti &) = delete;

    udp_vvlan_mac_addr bytes;
    PLibpub__Mac mac;
    UBridge__UdpL2addrBaseIndex index;
    UBridge__MacVidRegNoti message;
};

} // namespace bench

#endif
