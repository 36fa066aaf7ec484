#include "ctl/ctl_state.h"

#include <algorithm>
#include <charconv>

#include "proto/u_bridge.pb-c.h"
#include "words/words.h"

namespace ctl
{

namespace
{

constexpr const char *DUMP_PORTS = "dump_all_port";
constexpr int OUI_BITS = 24;
constexpr int MAC_BITS = 48;

template <typename Object> const Object &as(const ProtobufCMessage &message)
{
    return *reinterpret_cast<const Object *>(&message);
}

/* The interface index of an object that has one as its key. */
template <typename Object> uint32_t ifx_of(const ProtobufCMessage &message)
{
    const auto *index = as<Object>(message).index;
    return index == nullptr ? 0 : index->ifx;
}

void read_records(Databases &databases, State *state);
void read_macs(Databases &databases, State *state);
void ask_daemon(const Host &host, State *state);
uint32_t number_in(std::string_view text, int base);

} // namespace

Settings settings_read(Databases &databases)
{
    Settings settings;
    databases.scan("p_bridge.vvlan_glb_cfg",
                   [&](const ProtobufCMessage &stored, std::span<const uint32_t> fields) {
                       settings = settings_of(stored, fields);
                   });
    return settings;
}

Settings settings_of(const ProtobufCMessage &stored, std::span<const uint32_t> fields)
{
    const auto &glb = as<PBridge__VvlanGlbCfg>(stored);
    const bool has_aging = glb.age_time != 0 ||
                           std::find(fields.begin(), fields.end(), words::AGE_TIME) != fields.end();
    Settings settings;
    if (glb.glb_switch != nullptr) {
        settings.vlan = glb.glb_switch->vlan;
        settings.enable = settings.vlan != 0 && glb.glb_switch->enable != 0;
    }
    settings.security = glb.secu_mode != 0;
    if (has_aging)
        settings.aging = glb.age_time;
    if (glb.qos != nullptr) {
        settings.cos = glb.qos->cos;
        settings.dscp = glb.qos->dscp;
    }
    return settings;
}

std::map<Oui, OuiState> ouis_read(Databases &databases)
{
    std::map<Oui, OuiState> ouis;
    databases.scan("p_bridge.vvlan_oui_cfg", [&](const ProtobufCMessage &message, auto) {
        const auto *index = as<PBridge__VvlanOuiCfg>(message).index;
        if (index != nullptr)
            ouis[{words::mac_of(index->mac), words::mac_of(index->mask)}].configured = true;
    });
    return ouis;
}

std::map<uint32_t, PortState> ports_read(Databases &databases)
{
    std::map<uint32_t, PortState> ports;
    databases.scan("p_bridge.vvlan_port_cfg", [&](const ProtobufCMessage &message, auto) {
        const auto &config = as<PBridge__VvlanPortCfg>(message);
        PortState &port = ports[ifx_of<PBridge__VvlanPortCfg>(message)];
        port.configured = true;
        port.enabled = (config.enable & 1) != 0;
        port.automatic = (config.mode & 1) != 0;
    });
    return ports;
}

State state_read(Databases &databases, const Host &host)
{
    State state;
    state.settings = settings_read(databases);
    state.ouis = ouis_read(databases);
    state.ports = ports_read(databases);
    read_records(databases, &state);
    read_macs(databases, &state);
    ask_daemon(host, &state);
    return state;
}

const char *port_word(const PortState &port, const Settings &settings)
{
    if (!port.configured)
        return "stale";
    if (!port.enabled)
        return "off";
    if (!settings.enable)
        return "idle";
    if (!port.automatic)
        return "member";
    if (port.joined && port.trapped)
        return "conflict";
    if (port.joined)
        return port.daemon && port.daemon->is_aging ? "aging" : "joined";
    return port.trapped ? "trapped" : "pending";
}

std::optional<std::string> macs_obstacle(const Settings &settings, const PortState *port,
                                         uint32_t vlan)
{
    if (port == nullptr || !port->enabled || !port->automatic)
        return "the port is not in automatic mode";
    if (!settings.enable)
        return "the voice VLAN is switched off";
    if (vlan != settings.vlan)
        return "the voice VLAN is " + std::to_string(settings.vlan);
    return std::nullopt;
}

std::optional<uint32_t> port_left(const PortState &port)
{
    const bool counts = port.enabled && port.automatic && port.joined && !port.trapped;
    if (!counts || !port.daemon || !port.daemon->is_aging)
        return std::nullopt;
    const uint32_t limit = port.daemon->aging * 60;
    return limit - std::min(limit, port.daemon->quiet);
}

/*
 * A row is words with blanks between them, some columns of which may be blank
 * altogether, so each is known by its look: "ifx:   3  AUTO  0x103  ENABLE
 * 00000060(s)  TRAP  !SECU  AGING  0002(minute) ...".
 */
std::map<uint32_t, DaemonPort> daemon_ports_parse(std::string_view dump)
{
    constexpr std::string_view ROW = "ifx:";
    std::map<uint32_t, DaemonPort> ports;
    for (size_t at = dump.find(ROW); at != std::string_view::npos; at = dump.find(ROW, at)) {
        const size_t end = std::min(dump.find('\n', at), dump.size());
        std::string_view row = dump.substr(at + ROW.size(), end - at - ROW.size());
        at = end;
        DaemonPort *port = nullptr;
        while (!row.empty()) {
            const size_t from = std::min(row.find_first_not_of(' '), row.size());
            row.remove_prefix(from);
            const std::string_view word = row.substr(0, row.find(' '));
            row.remove_prefix(word.size());
            if (port == nullptr)
                port = &ports[number_in(word, 10)];
            else if (word.starts_with("0x"))
                port->phyid = number_in(word.substr(2), 16);
            else if (word.ends_with("(s)"))
                port->quiet = number_in(word, 10);
            else if (word.ends_with("(minute)"))
                port->aging = number_in(word, 10);
            else if (word == "AGING")
                port->is_aging = true;
        }
    }
    return ports;
}

std::optional<Oui> oui_match(const std::map<Oui, OuiState> &ouis, const Mac &mac)
{
    const auto at_length = [&](int length) -> std::optional<Oui> {
        Oui key;
        for (int bit = 0; bit < length; bit++) {
            const auto byte = static_cast<size_t>(bit / 8);
            key.mask[byte] = static_cast<uint8_t>(key.mask[byte] | 0x80 >> bit % 8);
            key.mac[byte] = mac[byte] & key.mask[byte];
        }
        return ouis.contains(key) ? std::optional(key) : std::nullopt;
    };
    std::optional<Oui> found = at_length(OUI_BITS);
    for (int length = MAC_BITS; length > 0 && !found; length--)
        found = at_length(length);
    return found;
}

namespace
{

void read_records(Databases &databases, State *state)
{
    databases.scan("p_bridge.vvlan_port_auto", [&](const ProtobufCMessage &message, auto) {
        state->ports[ifx_of<PBridge__VvlanPortAuto>(message)].joined =
            as<PBridge__VvlanPortAuto>(message).enable != 0;
    });
    databases.scan("u_bridge.vvlan_port_cfg", [&](const ProtobufCMessage &message, auto) {
        state->ports[ifx_of<UBridge__VvlanPortCfg>(message)].trapped = true;
    });
    databases.scan("u_bridge.vvlan_join", [&](const ProtobufCMessage &message, auto) {
        state->ports[ifx_of<UBridge__VvlanJoin>(message)].recorded = true;
    });
    databases.scan("u_bridge.vvlan_oui_cfg", [&](const ProtobufCMessage &message, auto) {
        const auto &oui = as<UBridge__VvlanOuiCfg>(message);
        if (oui.oui != nullptr && oui.index != nullptr)
            state->ouis[{words::mac_of(oui.oui->mac), words::mac_of(oui.oui->mask)}].ace_id =
                oui.index->ace_id;
    });
    databases.scan("p_bridge.vvlan_err_event", [&](const ProtobufCMessage &message, auto) {
        state->failure = object::copy(message);
    });
}

void read_macs(Databases &databases, State *state)
{
    databases.scan("u_bridge.mac_vid_reg_noti", [&](const ProtobufCMessage &message, auto) {
        const auto &noti = as<UBridge__MacVidRegNoti>(message);
        if (noti.index == nullptr)
            return;
        const Mac mac = words::mac_of(noti.index->t_mac);
        const auto oui = oui_match(state->ouis, mac);
        const auto found = state->ports.find(noti.port_id);
        PortState *port = found == state->ports.end() ? nullptr : &found->second;
        const uint32_t vlan = noti.index->t_fid;
        const bool is_voice =
            oui.has_value() && !macs_obstacle(state->settings, port, vlan).has_value();
        if (is_voice)
            port->voice_macs++;
        state->macs.push_back({mac, vlan, noti.port_id, oui, is_voice});
    });
}

void ask_daemon(const Host &host, State *state)
{
    try {
        for (const auto &[ifx, row] : daemon_ports_parse(host.shell(DUMP_PORTS).output)) {
            if (const auto port = state->ports.find(ifx); port != state->ports.end())
                port->second.daemon = row;
        }
    } catch (const Failure &failure) {
        state->daemon_away = failure.text;
    }
}

/* The number that a word begins with; one beyond 31 bits is printed negative. */
uint32_t number_in(std::string_view text, int base)
{
    int64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, base);
    return static_cast<uint32_t>(value);
}

} // namespace

} // namespace ctl
