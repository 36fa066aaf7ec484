/*
 * ctl_words - what the objects mean, in the words of a network engineer.
 */
#ifndef CTL_CTL_WORDS_H
#define CTL_CTL_WORDS_H

#include <cstdint>
#include <span>
#include <string>

#include "ctl/ctl_value.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/p_libpub.pb-c.h"

namespace ctl
{

/*
 * A change in a few words: "port 3 joins the voice VLAN". operation is a
 * kt_mom_operation, fields those that a hash set changed. A kind that has no
 * words of its own is told by its name and text form.
 */
std::string words_change(uint32_t operation, const ProtobufCMessage &object,
                         std::span<const uint32_t> fields);

/* An object that stands in a database, as words_change() tells of its setting. */
std::string words_standing(const ProtobufCMessage &object);

/* A failure that the daemon reports: "FAILED: port 3 could not be configured". */
std::string words_failure(const PBridge__VvlanErrEvent &event);

/* "1440 minutes", with hours or days behind it where that helps: "(24 h)". */
std::string words_minutes(uint32_t minutes);

/* "45s", "2m05s", "23h59m". */
std::string words_seconds(uint64_t seconds);

/* Bytes of a message as a MAC; missing ones are zero. NULL is all zero. */
Mac mac_of(const PLibpub__Mac *mac);

} // namespace ctl

#endif
