/* Playing the bridge: what a switch would tell of its ports and addresses. */
#include "ctl/ctl_command.h"
#include "ctl/ctl_db.h"
#include "ctl/ctl_state.h"
#include "ctl/ctl_value.h"
#include "mom/kt_mom_peer.h"
#include "platform/libddm.h"
#include "proto/s_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"
#include "words/words.h"

namespace ctl
{

namespace
{

/* A u_bridge.mac_vid_reg_noti whose parts stand together. */
struct MacMessage {
    MacMessage(uint32_t vlan, const Mac &address, uint32_t port) : bytes(address)
    {
        mac.data = {bytes.size(), bytes.data()};
        index.t_fid = vlan;
        index.t_mac = &mac;
        notice.index = &index;
        notice.port_id = port;
    }
    MacMessage(const MacMessage &) = delete;
    MacMessage &operator=(const MacMessage &) = delete;

    Mac bytes;
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    UBridge__UdpL2addrBaseIndex index = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    UBridge__MacVidRegNoti notice = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
};

uint32_t port_parse(const std::string &text);
uint32_t vlan_or_voice(Databases &databases, const std::string &vlan);
std::vector<uint32_t> phyids_of(const Context &context, Databases &databases,
                                const std::vector<uint32_t> &ports);
uint32_t learnt_on(Databases &databases, uint32_t vlan, const Mac &mac);
void tell_strangers(const Context &context, Databases &databases, uint32_t port, uint32_t vlan,
                    const std::vector<Mac> &macs);

} // namespace

void bridge_notice(const Context &context, const NoticeOptions &options)
{
    if (options.ports.empty() == options.phyid.empty())
        throw Failure{USAGE, "notice takes either ports or --phyid"};
    Databases databases(context.host);
    const std::vector<uint32_t> phyids =
        options.ports.empty()
            ? std::vector<uint32_t>{number_parse(options.phyid, "a physical port id")}
            : phyids_of(context, databases, ports_parse(options.ports));
    std::string text;
    for (const uint32_t phyid : phyids) {
        SBridge__VvlanIndex index = S_BRIDGE__VVLAN_INDEX__INIT;
        index.phyid = phyid;
        SBridge__VvlanPortNoty notice = S_BRIDGE__VVLAN_PORT_NOTY__INIT;
        notice.index = &index;
        databases.publish(DB_NOTICE, notice.base);
        text += (text.empty() ? "" : "; ") + words::change(KT_MOM_PUBLISH, notice.base, {});
    }
    databases.settle();
    report(context, "told: " + text);
}

void bridge_learn(const Context &context, const std::string &port, const Strings &macs,
                  const std::string &vlan)
{
    const uint32_t ifx = port_parse(port);
    std::vector<Mac> wanted;
    for (const std::string &text : macs)
        wanted.push_back(mac_station_parse(text));
    Databases databases(context.host);
    const uint32_t vid = vlan_or_voice(databases, vlan);
    std::string text;
    for (const Mac &mac : wanted) {
        const MacMessage message(vid, mac, ifx);
        databases.set(DB_MAC, message.notice.base);
        text += (text.empty() ? "" : "; ") + words::change(KT_MOM_SET, message.notice.base, {});
    }
    databases.settle();
    report(context, text);
    tell_strangers(context, databases, ifx, vid, wanted);
}

void bridge_gone(const Context &context, const Strings &words, const std::string &vlan)
{
    const bool has_port = words.front().find_first_of(":-.") == std::string::npos;
    const uint32_t port = has_port ? port_parse(words.front()) : 0;
    std::vector<Mac> wanted;
    for (size_t at = has_port ? 1 : 0; at < words.size(); at++)
        wanted.push_back(mac_parse(words[at]));
    if (wanted.empty())
        throw Failure{USAGE, "mac gone needs at least one MAC address"};
    Databases databases(context.host);
    const uint32_t vid = vlan_or_voice(databases, vlan);
    std::string text;
    for (const Mac &mac : wanted) {
        const uint32_t stands_on = learnt_on(databases, vid, mac);
        if (has_port && stands_on != port)
            throw Failure{REFUSED, words::mac(mac) + " is learnt on port " +
                                       std::to_string(stands_on) + ", not on port " +
                                       std::to_string(port) + ": leave the port out"};
        const MacMessage message(vid, mac, stands_on);
        databases.del(DB_MAC, message.notice.base);
        text += (text.empty() ? "" : "; ") + words::change(KT_MOM_DEL, message.notice.base, {});
    }
    databases.settle();
    report(context, text);
}

namespace
{

uint32_t port_parse(const std::string &text)
{
    const std::vector<uint32_t> ports = ports_parse(text);
    if (ports.size() != 1)
        throw Failure{USAGE, "\"" + text + "\": expected one port"};
    return ports.front();
}

uint32_t vlan_or_voice(Databases &databases, const std::string &vlan)
{
    if (!vlan.empty())
        return vlan_parse(vlan);
    const Settings settings = settings_read(databases);
    if (settings.vlan == 0)
        throw Failure{REFUSED, "no voice VLAN is set, so the VLAN of the address is not known: "
                               "give --vlan, or vvlanctl set vlan 100 switch on first"};
    return settings.vlan;
}

/* The running daemon knows best; what the platform's own map says comes next. */
std::vector<uint32_t> phyids_of(const Context &context, Databases &databases,
                                const std::vector<uint32_t> &ports)
{
    std::map<uint32_t, DaemonPort> rows;
    try {
        rows = daemon_ports_parse(context.host.shell("dump_all_port").output);
    } catch (const Failure &) {
        rows.clear();
    }
    const bool has_map = libddm_init(databases.context(), "vvlanctl") == 0;
    std::vector<uint32_t> phyids;
    for (const uint32_t ifx : ports) {
        uint32_t phyid = 0;
        if (const auto row = rows.find(ifx); row != rows.end())
            phyid = row->second.phyid;
        else if (!has_map || libddm_get_phyid_by_ifx(ifx, &phyid) != 0)
            throw Failure{REFUSED, "the physical id of port " + std::to_string(ifx) +
                                       " is not known: configure the port first (vvlanctl port "
                                       "auto " +
                                       std::to_string(ifx) + "), or give --phyid"};
        phyids.push_back(phyid);
    }
    return phyids;
}

/* The port that a MAC is learnt on. */
uint32_t learnt_on(Databases &databases, uint32_t vlan, const Mac &mac)
{
    const object::Message found = databases.get(DB_MAC, MacMessage(vlan, mac, 0).notice.base);
    if (found == nullptr)
        throw Failure{REFUSED, words::mac(mac) + " is not learnt in VLAN " + std::to_string(vlan) +
                                   ": vvlanctl show macs lists those that are"};
    return reinterpret_cast<const UBridge__MacVidRegNoti *>(found.get())->port_id;
}

/* The daemon drops such addresses without a word, which is hard to find out later. */
void tell_strangers(const Context &context, Databases &databases, uint32_t port, uint32_t vlan,
                    const std::vector<Mac> &macs)
{
    const auto ports = ports_read(databases);
    const auto found = ports.find(port);
    const auto obstacle = macs_obstacle(settings_read(databases),
                                        found == ports.end() ? nullptr : &found->second, vlan);
    if (obstacle)
        return note(context, "addresses on port " + std::to_string(port) + " in VLAN " +
                                 std::to_string(vlan) + " do not count: " + *obstacle);
    const auto ouis = ouis_read(databases);
    for (const Mac &mac : macs) {
        if (!oui_match(ouis, mac))
            note(context, words::mac(mac) + " belongs to no OUI, so it does not count as a voice "
                                            "device");
    }
}

} // namespace

} // namespace ctl
