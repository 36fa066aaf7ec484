/*
 * player_capture - the packets of a capture file, read with libpcap.
 */
#ifndef SIM_PLAYER_CAPTURE_H
#define SIM_PLAYER_CAPTURE_H

#include <optional>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "sim/sim_loop.h"

namespace sim
{

struct CapturedPacket {
    Micros after; /* time since the first packet, at least 0 */
    frame::Bytes bytes;
};

/*
 * Reads an Ethernet capture of at most 10,000 packets. Returns nothing and says
 * why in a few words when the file is missing, no capture, of another link
 * type, or longer.
 */
std::optional<std::vector<CapturedPacket>> capture_load(const std::string &path, std::string *why);

} // namespace sim

#endif
