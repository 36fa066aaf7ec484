/*
 * ctl_value - the values that people type, read and checked.
 *
 * A value that cannot be read is a usage error; one that can be read but
 * would not work is refused, with a sentence that says why and what would.
 * All functions throw Failure with one or the other.
 */
#ifndef CTL_CTL_VALUE_H
#define CTL_CTL_VALUE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/ctl.h"
#include "words/words.h"

namespace ctl
{

constexpr uint32_t VLAN_MAX = 4094;
constexpr uint32_t AGING_MAX = 65535; /* minutes; the daemon keeps 16 bits */
constexpr uint32_t COS_MAX = 7;
constexpr uint32_t DSCP_MAX = 63;
constexpr size_t OUI_MAX = 127;     /* entry ids in the ACLs */
constexpr size_t PORTS_MAX = 65536; /* ports in one command */

using words::Mac;
using words::Oui;

/* Decimal or 0x hexadecimal, 32 bits; `what` names it in the error. */
uint32_t number_parse(std::string_view text, const std::string &what);

uint32_t vlan_parse(std::string_view text);
uint32_t aging_parse(std::string_view text);
uint32_t cos_parse(std::string_view text);
uint32_t dscp_parse(std::string_view text);

/* "on" or "off". */
bool switch_parse(std::string_view text, const std::string &what);

/* "1-48,50": each port once, in rising order. Port 0 is refused: no key may be empty. */
std::vector<uint32_t> ports_parse(std::string_view text);

/* "1-48,50" again. The ports are in rising order, each once. */
std::string ports_text(const std::vector<uint32_t> &ports);

/*
 * Six bytes as 00:11:22:33:44:55, 00-11-22-33-44-55 or 0011.2233.4455, in any
 * case.
 */
Mac mac_parse(std::string_view text);

/* A MAC that a bridge may learn: no group address, not all zero. */
Mac mac_station_parse(std::string_view text);

/*
 * ADDRESS[/LENGTH|/MASK]. An address of fewer than six bytes ends in zeros;
 * without a mask, the mask covers the bytes that are given.
 */
Oui oui_parse(std::string_view text);

/* Refuses an OUI that would never match a voice device. */
void oui_check(const Oui &oui);

} // namespace ctl

#endif
