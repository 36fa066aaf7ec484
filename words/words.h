/*
 * words - what the objects are for, and a change of one in a sentence.
 *
 * Whoever shows changes to people (the management tool, the timeline of a
 * scenario) tells them in the same words, those of a network engineer: "port 3
 * joins the voice VLAN". The table behind it also knows in which database the
 * objects of a kind are, and which changes of them the daemon takes. Everything is
 * derived from the message that is given; sub-messages may be absent, byte fields of
 * any length.
 */
#ifndef WORDS_WORDS_H
#define WORDS_WORDS_H

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "proto/p_bridge.pb-c.h"
#include "proto/p_libpub.pb-c.h"

namespace words
{

using Mac = std::array<uint8_t, 6>;

struct Oui {
    Mac mac{};
    Mac mask{};
    auto operator<=>(const Oui &) const = default;
};

/* The fields of p_bridge.vvlan_glb_cfg. */
enum SettingsField : uint32_t { GLB_SWITCH = 5, SECU_MODE = 6, AGE_TIME = 7, QOS = 8 };

/* The database that holds the objects of a kind; nothing for an unknown name. */
std::optional<uint32_t> database_of(std::string_view kind);

/*
 * The operations (kt_mom_operation) on objects of a kind that the daemon takes; it passes
 * over the others. The first is what one writes such an object with. Empty for a kind that
 * the daemon does not read, and for an unknown name.
 */
std::span<const uint32_t> taken_operations(std::string_view kind);

/*
 * A change in a few words. operation is a kt_mom_operation, fields those that a
 * hash set changed; without fields, those that are set. A kind that has no words
 * of its own is told by its name and text form.
 */
std::string change(uint32_t operation, const ProtobufCMessage &object,
                   std::span<const uint32_t> fields);

/* A failure that the daemon reports: "FAILED: port 3 could not be configured". */
std::string failure(const PBridge__VvlanErrEvent &event);

/* "1440 minutes (24 h)"; hours only where they are whole. */
std::string minutes(uint32_t count);

/* "00:11:22:33:44:55" */
std::string mac(const Mac &address);

/* "00:11:22:00:00:00/24"; a mask that is no prefix is written out. */
std::string oui(const Oui &value);

/* The length of a prefix mask, or -1 when the mask is none. */
int mask_length(const Mac &mask);

/* The mask whose first `length` bits are one; 0 to 48. */
Mac mask_of_length(unsigned length);

/* Bytes of a message as a MAC; missing ones are zero. NULL is all zero. */
Mac mac_of(const PLibpub__Mac *message);

} // namespace words

#endif
