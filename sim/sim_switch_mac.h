/*
 * sim_switch_mac - the switch's MAC table and its notices.
 *
 * A (VLAN, address) pair is behind one port and was last seen at one moment.
 * The table is sorted, for notices and dumps in a fixed order; beside it runs a
 * list from the longest unseen to the latest seen, so that ageing looks at the
 * head only and one job serves the whole table.
 *
 * Each entry knows whether its notice stands in the database. A notice that
 * could not be written is tried again with the next frame of its address.
 */
#ifndef SIM_SIM_SWITCH_MAC_H
#define SIM_SIM_SWITCH_MAC_H

#include "frame/frame.h"

#include <cstdint>

namespace sim
{

/* The address was seen in the VLAN on this port, now. */
void switch_mac_learn(uint16_t vid, const frame::Mac &mac, uint32_t ifx);

/* Forgets what is behind a port. */
void switch_mac_flush(uint32_t ifx);

/*
 * Whether the VLAN is wanted may have changed: notices are written or deleted
 * accordingly, from the loop. Notices that stand are not written again.
 */
void switch_mac_report(uint32_t vid);

/* The database lost its notices. */
void switch_mac_reports_lost();

void switch_mac_reset();

} // namespace sim

#endif
