/*
 * sim_switch - the simulated switch: ports, MAC learning, the way of a frame.
 *
 * The switch sees the program under simulation as a switch does: through the
 * fast-path tables (sim_fp.h) and through objects that other parts of the
 * platform act on. It follows these, as they change:
 *    u_bridge.vvlan_oui_cfg   db 8  OUIs to look for on trapped ports
 *    u_bridge.vvlan_port_cfg  db 8  ports whose voice traffic is trapped
 *    p_bridge.vvlan_glb_cfg   db 4  glb_switch: the voice VLAN, if enabled
 *    p_bridge.vvlan_port_auto db 4  membership, enable 1: the port has joined it
 *    p_bridge.vvlan_port_cfg  db 4  enable 1, mode 0: the port is in it by hand
 *    u_bridge.mac_vid_reg     db 6  VLANs whose MACs are wanted
 * and answers with s_bridge.vvlan_port_noty (published to db 0, one for each
 * frame trapped) and u_bridge.mac_vid_reg_noti (db 6, one for each MAC learnt
 * in a wanted VLAN, gone with the MAC).
 *
 * Manual ports. Nobody writes a membership for a port in manual mode; the
 * management plane puts such a port into the voice VLAN itself, together with
 * its configuration. The switch stands in for it and reads the configuration.
 *
 * The way of a frame, the same for switch_frame_in() and switch_peek():
 *  1. Decoded; a frame whose Ethernet header or tag is cut off, or with a
 *     multicast source, is dropped. What is wrong further in does not matter.
 *  2. On a trapped port, a source that matches an OUI sends it to the CPU.
 *  3. VLAN: its tag's, else what the MAC-VLAN ACL adds (it then leaves
 *     tagged), else the port's pvid (it leaves untagged; a tag with VLAN 0
 *     carried its priority only and comes off).
 *  4. A VLAN that the port is not a member of: dropped.
 *  5. The CoS ACL, then, for a frame that it did not match, the security ACL.
 *  6. Learnt: (VLAN, source) is behind this port, from now.
 *
 * A frame is forwarded as the same bytes that leave on every port of the VLAN;
 * which ports these are is not modelled.
 *
 * Learnt MACs age by one job at a time, rounded up to the second, never by one
 * per MAC. Limits: 65,536 ports, 131,072 MACs; a MAC that finds the table full
 * is forwarded but not learnt. Notices of many MACs at once (a VLAN is
 * registered, MACs age together) are written 1,024 a job, so that those who
 * listen keep up.
 */
#ifndef SIM_SIM_SWITCH_H
#define SIM_SIM_SWITCH_H

#include "frame/frame.h"
#include "sim/sim_loop.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace sim
{

constexpr size_t SWITCH_PORTS_MAX = 65'536;
constexpr size_t SWITCH_MACS_MAX = 131'072;

struct Verdict {
    enum Action { forwarded, dropped, to_cpu };
    Action action = dropped;
    std::string why;             /* of a drop or a trap, in words */
    uint16_t vid = 0;            /* the VLAN it was switched in */
    bool tagged = false;         /* leaves with a tag */
    uint8_t cos = 0;             /* of the tag it leaves with; 0 without one */
    uint8_t prio = 0;            /* internal priority */
    std::optional<uint8_t> dscp; /* it leaves with; none but for IPv4 and IPv6 */
    frame::Bytes out;            /* what leaves; to_cpu: as it came; dropped: empty */
};

/*
 * Adds a port. False, and nothing done, unless ifx and phyid are new, pvid is
 * 1..4094 and there is room.
 */
bool switch_add_port(uint32_t ifx, uint32_t phyid, const std::string &name, uint16_t pvid = 1);

/* Puts a port into a VLAN for good. False for an unknown port or a vid outside 1..4094. */
bool switch_add_member(uint32_t ifx, uint16_t vid);

bool switch_has_port(uint32_t ifx);
/* Visits the ports in order of ifx. */
void switch_each_port(const std::function<void(uint32_t ifx, const std::string &name)> &visit);

/* The device map: one phyid for one ifx. */
std::optional<uint32_t> switch_phyid_by_ifx(uint32_t ifx);
std::optional<uint32_t> switch_ifx_by_phyid(uint32_t phyid);

/* How long a MAC stays learnt after its last frame, at least 1 s; 300 s at start. */
void switch_set_mac_aging(Micros aging);

/* A frame arrives. Unknown ports drop it. */
Verdict switch_frame_in(uint32_t ifx, std::span<const uint8_t> frame);

/* What would happen to it; nothing is learnt or told. */
Verdict switch_peek(uint32_t ifx, std::span<const uint8_t> frame);

/* Link down: the MACs behind the port are flushed. */
void switch_unplug(uint32_t ifx);

/* How many MACs are learnt, behind one port or in all. */
size_t switch_mac_count(uint32_t ifx);
size_t switch_mac_count();

/*
 * State of a port in words, for timelines and expectations:
 * "trapped member=100 acl=101,102,100 macs=2". "trapped" and "member=" (of the
 * voice VLAN) stand only where they hold; ACLs are listed as CoS, MAC-VLAN,
 * security, or "acl=none".
 */
std::string switch_port_text(uint32_t ifx);

/* The learnt MACs, one a line, by VLAN and address: "vid=100 mac=... ifx=3 age=12s". */
std::string switch_mac_text();

/*
 * For mom_clear(): a database was emptied and nobody is told; what the switch
 * knows from it is read anew.
 */
void switch_mom_cleared(uint32_t db);

/*
 * No ports, no MACs, default aging, an empty fast path; listens to the databases
 * again: after mom_reset().
 */
void switch_reset();

} // namespace sim

#endif
