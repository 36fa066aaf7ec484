/* Settings, OUIs and ports: what the management plane writes. */
#include <algorithm>
#include <map>

#include "ctl/ctl_command.h"
#include "ctl/ctl_db.h"
#include "ctl/ctl_state.h"
#include "ctl/ctl_value.h"
#include "words/words.h"

namespace ctl
{

namespace
{

struct Wanted {
    std::optional<uint32_t> vlan;
    std::optional<bool> enable;
    std::optional<bool> security;
    std::optional<uint32_t> aging;
    std::optional<uint32_t> cos;
    std::optional<uint32_t> dscp;
};

/* What is wanted, and where a field has two halves what stands of the other. */
struct SettingsMessage {
    SettingsMessage(const Settings &standing, const Wanted &wanted)
    {
        glb_switch.vlan = wanted.vlan.value_or(standing.vlan);
        glb_switch.enable = wanted.enable.value_or(standing.enable) ? 1 : 0;
        qos.cos = wanted.cos.value_or(standing.cos);
        qos.dscp = wanted.dscp.value_or(standing.dscp);
        glb.glb_switch = &glb_switch;
        glb.secu_mode = wanted.security.value_or(false) ? 1 : 0;
        glb.age_time = wanted.aging.value_or(0);
        glb.qos = &qos;
        if (wanted.vlan || wanted.enable)
            fields.push_back(words::GLB_SWITCH);
        if (wanted.security)
            fields.push_back(words::SECU_MODE);
        if (wanted.aging)
            fields.push_back(words::AGE_TIME);
        if (wanted.cos || wanted.dscp)
            fields.push_back(words::QOS);
    }
    SettingsMessage(const SettingsMessage &) = delete;
    SettingsMessage &operator=(const SettingsMessage &) = delete;

    PBridge__VvlanEn glb_switch = P_BRIDGE__VVLAN_EN__INIT;
    PBridge__BQos qos = P_BRIDGE__B_QOS__INIT;
    PBridge__VvlanGlbCfg glb = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    std::vector<uint32_t> fields;
};

/* A p_bridge.vvlan_oui_cfg whose parts stand together. */
struct OuiMessage {
    explicit OuiMessage(const Oui &oui) : bytes(oui)
    {
        mac.data = {bytes.mac.size(), bytes.mac.data()};
        mask.data = {bytes.mask.size(), bytes.mask.data()};
        index.mac = &mac;
        index.mask = &mask;
        config.index = &index;
    }
    OuiMessage(const OuiMessage &) = delete;
    OuiMessage &operator=(const OuiMessage &) = delete;

    Oui bytes;
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    PLibpub__Mac mask = P_LIBPUB__MAC__INIT;
    PBridge__BOui index = P_BRIDGE__B_OUI__INIT;
    PBridge__VvlanOuiCfg config = P_BRIDGE__VVLAN_OUI_CFG__INIT;
};

Wanted settings_parse(const Strings &words);
void settings_check(const Settings &before, const Wanted &wanted);
void write_port(Databases &databases, uint32_t ifx, const PortState &port);
std::vector<uint32_t> ports_configured(const std::map<uint32_t, PortState> &standing,
                                       const std::vector<uint32_t> &ports);

} // namespace

/*
 * VLAN and switch are one field of the object, and so are CoS and DSCP: the half that is
 * not given is kept as it stands, and when someone else changes it meanwhile, all is
 * looked at again.
 */
void config_set(const Context &context, const Strings &words)
{
    constexpr int TRIES = 100;
    const Wanted wanted = settings_parse(words);
    constexpr const char *SETTINGS = "p_bridge.vvlan_glb_cfg";
    Databases databases(context.host);
    for (int tries = 0; tries < TRIES; tries++) {
        object::Message before = object::empty(*object::kind_by_name(SETTINGS));
        databases.scan(SETTINGS, /* what is no object there counts as none, and is replaced */
                       [&](const ProtobufCMessage &object, std::span<const uint32_t>) {
                           before = object::copy(object);
                       });
        const Settings standing = settings_of(*before, {});
        settings_check(standing, wanted);
        const SettingsMessage after(standing, wanted);
        if (databases.hset_if(DB_CONFIG, *before, after.glb.base, after.fields)) {
            report(context, words::change(KT_MOM_HSET, after.glb.base, after.fields));
            return;
        }
    }
    throw Failure{REFUSED, "other tools keep changing these settings: give it again"};
}

void config_oui_add(const Context &context, const Strings &ouis)
{
    std::vector<Oui> wanted;
    for (const std::string &text : ouis) {
        wanted.push_back(oui_parse(text));
        oui_check(wanted.back());
    }
    Databases databases(context.host);
    const auto before = ouis_read(databases);
    auto standing = before;
    for (const Oui &oui : wanted)
        standing[oui].configured = true;
    if (standing.size() > OUI_MAX)
        throw Failure{REFUSED, "that would be " + std::to_string(standing.size()) +
                                   " OUIs, and the ACLs have room for " + std::to_string(OUI_MAX) +
                                   ": delete one first "
                                   "(vvlanctl oui del), or use a shorter mask for several"};
    std::string text;
    for (const Oui &oui : wanted) {
        databases.set(DB_CONFIG, OuiMessage(oui).config.base);
        text += (text.empty() ? "" : " ") + words::oui(oui);
    }
    databases.settle();
    const size_t count = ouis_read(databases).size();
    if (count > OUI_MAX) { /* someone else took the room meanwhile */
        for (const Oui &oui : wanted) {
            if (!before.contains(oui))
                databases.del(DB_CONFIG, OuiMessage(oui).config.base);
        }
        databases.settle();
        throw Failure{REFUSED, "another tool added OUIs at the same time, and there is no room for "
                               "these: see vvlanctl oui list"};
    }
    report(context, "OUI " + text + " configured, " + std::to_string(count) + " of " +
                        std::to_string(OUI_MAX));
}

void config_oui_del(const Context &context, const Strings &ouis)
{
    std::vector<Oui> wanted;
    for (const std::string &text : ouis)
        wanted.push_back(oui_parse(text));
    Databases databases(context.host);
    const auto standing = ouis_read(databases);
    for (const Oui &oui : wanted) {
        if (!standing.contains(oui))
            throw Failure{REFUSED,
                          "OUI " + words::oui(oui) +
                              " is not configured: vvlanctl oui list shows those that are"};
    }
    std::string text;
    for (const Oui &oui : wanted) {
        databases.del(DB_CONFIG, OuiMessage(oui).config.base);
        text += (text.empty() ? "" : " ") + words::oui(oui);
    }
    databases.settle();
    report(context, "OUI " + text + " no longer configured");
    if (settings_read(databases).enable)
        note(context, "the daemon has taken its ACLs down with that: ports configured from now on "
                      "stay pending until another OUI is added, or the voice VLAN is switched off "
                      "and on");
}

void config_port(const Context &context, PortMode mode, const std::string &ports)
{
    std::vector<uint32_t> wanted = ports_parse(ports);
    Databases databases(context.host);
    const bool must_stand = mode == PortMode::off || mode == PortMode::del;
    const auto standing = must_stand ? ports_read(databases) : std::map<uint32_t, PortState>{};
    if (must_stand)
        wanted = ports_configured(standing, wanted);
    for (const uint32_t ifx : wanted) {
        PortState port;
        port.enabled = mode == PortMode::automatic || mode == PortMode::manual;
        port.automatic =
            mode == PortMode::off ? standing.at(ifx).automatic : mode == PortMode::automatic;
        port.configured = mode != PortMode::del;
        write_port(databases, ifx, port);
    }
    databases.settle();
    constexpr const char *MODES[] = {" configured: automatic", " configured: manual",
                                     " configured: off", " no longer configured"};
    report(context, (wanted.size() == 1 ? "port " : "ports ") + ports_text(wanted) +
                        MODES[static_cast<size_t>(mode)]);
}

namespace
{

template <typename Value, typename Parse>
void take_once(std::optional<Value> &into, const std::string &word, const std::string &value,
               const Parse &parse)
{
    if (into)
        throw Failure{USAGE, word + " is given twice"};
    into = parse(value);
}

Wanted settings_parse(const Strings &words)
{
    constexpr const char *KNOWN = "vlan, switch, security, aging, cos and dscp";
    Wanted wanted;
    for (size_t at = 0; at < words.size(); at += 2) {
        const std::string &word = words[at];
        const std::string value = at + 1 < words.size() ? words[at + 1] : "";
        if (value.empty())
            throw Failure{USAGE, word + " needs a value; there are " + std::string(KNOWN)};
        const auto on_off = [&](std::string_view text) { return switch_parse(text, word); };
        if (word == "vlan")
            take_once(wanted.vlan, word, value, vlan_parse);
        else if (word == "switch")
            take_once(wanted.enable, word, value, on_off);
        else if (word == "security")
            take_once(wanted.security, word, value, on_off);
        else if (word == "aging")
            take_once(wanted.aging, word, value, aging_parse);
        else if (word == "cos")
            take_once(wanted.cos, word, value, cos_parse);
        else if (word == "dscp")
            take_once(wanted.dscp, word, value, dscp_parse);
        else
            throw Failure{USAGE, "unknown setting \"" + word + "\"; there are " + KNOWN};
    }
    return wanted;
}

void settings_check(const Settings &before, const Wanted &wanted)
{
    if (wanted.enable.value_or(false) && wanted.vlan.value_or(before.vlan) == 0)
        throw Failure{REFUSED, "no voice VLAN is set, so it cannot be switched on: name one, as in "
                               "vvlanctl set vlan 100 switch on"};
    const bool goes_off = before.enable && !wanted.enable.value_or(true);
    if (goes_off && wanted.vlan && *wanted.vlan != before.vlan)
        throw Failure{REFUSED, "voice VLAN " + std::to_string(before.vlan) +
                                   " is on, and only that one can be switched off: vvlanctl set "
                                   "switch off, then set vlan " +
                                   std::to_string(*wanted.vlan)};
}

void write_port(Databases &databases, uint32_t ifx, const PortState &port)
{
    PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
    index.ifx = ifx;
    PBridge__VvlanPortCfg config = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    config.index = &index;
    config.enable = port.enabled ? 1 : 0;
    config.mode = port.automatic ? 1 : 0;
    if (port.configured)
        databases.set(DB_CONFIG, config.base);
    else
        databases.del(DB_CONFIG, config.base);
}

/* Those of the ports that are configured; refuses when none is. */
std::vector<uint32_t> ports_configured(const std::map<uint32_t, PortState> &standing,
                                       const std::vector<uint32_t> &ports)
{
    std::vector<uint32_t> found;
    std::copy_if(ports.begin(), ports.end(), std::back_inserter(found),
                 [&](uint32_t ifx) { return standing.contains(ifx); });
    if (found.empty())
        throw Failure{REFUSED, (ports.size() == 1 ? "port " + ports_text(ports) + " is not"
                                                  : "none of ports " + ports_text(ports) + " is") +
                                   std::string(" configured: vvlanctl port auto or port manual "
                                               "does that")};
    return found;
}

} // namespace

} // namespace ctl
