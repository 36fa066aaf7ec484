/*
 * ctl_state - what stands in the databases, put together for people.
 *
 * The databases say what is configured (4), what is in force, trapped and
 * recorded as joined (8), and what the bridge has learnt (6). Only the quiet
 * time and the physical ids live in the daemon alone; they come from its debug
 * shell and are absent when that does not answer. The daemon's own flags say
 * more than these records in one case (it marks a port without voice MACs as
 * joined after a scan, trapped or not), so the records are what is shown.
 *
 * The databases are read one after another, not as of one moment.
 */
#ifndef CTL_CTL_STATE_H
#define CTL_CTL_STATE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/ctl_db.h"
#include "ctl/ctl_value.h"

namespace ctl
{

/* The global settings; what was never stored has the daemon's start value. */
struct Settings {
    uint32_t vlan = 0; /* 0: none was ever set */
    bool enable = false;
    bool security = false;
    uint32_t aging = 1440; /* minutes */
    uint32_t cos = 6;
    uint32_t dscp = 46;
};

/* A row of the daemon's own port table. */
struct DaemonPort {
    uint32_t phyid = 0;
    uint32_t quiet = 0; /* seconds */
    uint32_t aging = 0; /* minutes */
    bool is_aging = false;
};

struct PortState {
    bool configured = false;
    bool enabled = false;
    bool automatic = false;
    bool trapped = false;
    bool joined = false;   /* into the voice VLAN, by itself */
    bool recorded = false; /* as joined, for a restart */
    size_t voice_macs = 0;
    std::optional<DaemonPort> daemon;
};

struct OuiState {
    bool configured = false;
    std::optional<uint32_t> ace_id; /* in force with this id */
};

struct MacState {
    Mac mac;
    uint32_t vlan;
    uint32_t port;
    std::optional<Oui> oui; /* the OUI that it belongs to */
    bool is_voice;          /* it counts for its port: macs_obstacle() and oui_match() allow it */
};

struct State {
    Settings settings;
    std::map<uint32_t, PortState> ports; /* by interface index */
    std::map<Oui, OuiState> ouis;
    std::vector<MacState> macs;
    object::Message failure; /* the latest that was reported, or null */
    std::string daemon_away; /* why the daemon was not asked, or empty */
};

Settings settings_read(Databases &databases);

/* Of the stored p_bridge.vvlan_glb_cfg; fields are those that are known to be stored. */
Settings settings_of(const ProtobufCMessage &stored, std::span<const uint32_t> fields);

/* Configured OUIs, and configured ports as their stored objects say. */
std::map<Oui, OuiState> ouis_read(Databases &databases);
std::map<uint32_t, PortState> ports_read(Databases &databases);

State state_read(Databases &databases, const Host &host);

/* "trapped", "joined", "aging", ...: one word for what the port does. */
const char *port_word(const PortState &port, const Settings &settings);

/*
 * Why no address that is learnt on this port (NULL: not configured) in this VLAN counts as
 * a voice device, as an end of "addresses do not count there: "; or nothing.
 */
std::optional<std::string> macs_obstacle(const Settings &settings, const PortState *port,
                                         uint32_t vlan);

/* Seconds until an aging port is taken out; nothing when it is not aging. */
std::optional<uint32_t> port_left(const PortState &port);

/* The daemon's port table as its debug command dump_all_port prints it. */
std::map<uint32_t, DaemonPort> daemon_ports_parse(std::string_view dump);

/*
 * The OUI that a MAC belongs to, as the daemon looks it up: a 24-bit one
 * first, then the full address, then the longest.
 */
std::optional<Oui> oui_match(const std::map<Oui, OuiState> &ouis, const Mac &mac);

} // namespace ctl

#endif
