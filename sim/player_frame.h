/*
 * player_frame - frames and what became of them, as words.
 *
 * A frame is written as fields in any order after an optional name given by
 * `let`, whose fields it takes over:
 *
 *   src=MAC [dst=MAC] [vid=N] [pcp=N] [dei=1] [ethertype=N]
 *   [ipv4 A > B | ipv6 A > B] [dscp=N] [ecn=N] [ttl=N] [udp PORT > PORT] [len=N]
 *
 * dst is broadcast when it is not given. A verdict is asked with the words
 * forwarded, dropped, to-cpu, tagged, untagged, vid=N, cos=N, prio=N, dscp=N.
 */
#ifndef SIM_PLAYER_FRAME_H
#define SIM_PLAYER_FRAME_H

#include <map>
#include <string>

#include "frame/frame.h"
#include "sim/player_text.h"
#include "sim/sim_switch.h"

namespace sim
{

using FrameNames = std::map<std::string, frame::Frame>;

/* Reads a frame up to the end of the line or the word `->`; throws Refusal. */
frame::Frame frame_parse(Cursor &cursor, const FrameNames &names);

/* "00:11:22:00:00:01 > ff:ff:ff:ff:ff:ff vid=100 ipv4 10.0.0.2 > 10.0.0.1 dscp=0" */
std::string frame_text(const frame::Frame &frame);

/* What is wanted of a verdict: a test of each word. */
struct VerdictWords {
    std::vector<std::pair<std::string, uint64_t>> words;
};

/* Reads the words up to the end of the line; at least one; throws Refusal. */
VerdictWords verdict_parse(Cursor &cursor);
bool verdict_matches(const VerdictWords &wanted, const Verdict &verdict);

/* "forwarded, tagged vid=100 cos=6 prio=6 dscp=46 (why)" */
std::string verdict_text(const Verdict &verdict);

} // namespace sim

#endif
