/*
 * sim_switch_view - what the switch knows from the object database.
 *
 * Indexes over the objects that sim_switch.h lists, kept by the database's
 * change listener. They are of the size of what is stored; a port or VLAN that
 * the switch does not have may stand in them and does no harm.
 */
#ifndef SIM_SIM_SWITCH_VIEW_H
#define SIM_SIM_SWITCH_VIEW_H

#include "frame/frame.h"

#include <cstdint>
#include <map>
#include <unordered_set>

namespace sim
{

struct SwitchOui {
    frame::Mac mac, mask;
};

struct SwitchView {
    uint16_t voice_vid = 0;                       /* 0: the voice VLAN is off */
    std::map<uint32_t, SwitchOui> ouis;           /* by ACE id */
    std::unordered_set<uint32_t> trapped;         /* ifx */
    std::unordered_set<uint32_t> joined, by_hand; /* ifx, members of the voice VLAN */
    std::unordered_set<uint32_t> wanted;          /* VLANs whose MACs are reported */
};

const SwitchView &switch_view();

/* Whether an OUI covers the address. */
bool switch_view_is_voice(const frame::Mac &mac);

/* Reads everything from the databases anew. */
void switch_view_read();

/* Forgets everything and listens (again). */
void switch_view_reset();

} // namespace sim

#endif
