#include "sim/sim_switch.h"

#include "proto/s_bridge.pb-c.h"
#include "sim/sim_fp.h"
#include "sim/sim_mom.h"
#include "sim/sim_switch_mac.h"
#include "sim/sim_switch_view.h"

#include <array>
#include <map>
#include <set>
#include <unordered_map>

namespace sim
{
namespace
{

constexpr uint32_t NOTICE_DB = 0;
constexpr uint32_t MAC_DB = 6;
constexpr uint16_t VID_MAX = 4094;

/* In the order in which a port's text lists them. */
constexpr std::array<const char *, 3> LISTED = {"vvlan_secu_pas_app", "mac_vlan_app",
                                                "vvlan_secu_deny_app"};

struct Port {
    uint32_t phyid;
    std::string name;
    uint16_t pvid;
    std::set<uint16_t> members;
};

std::map<uint32_t, Port> ports; /* by ifx */
std::unordered_map<uint32_t, uint32_t> ifx_by_phyid;

bool is_vid(uint16_t vid)
{
    return vid >= 1 && vid <= VID_MAX;
}

bool is_voice_member(uint32_t ifx)
{
    const SwitchView &view = switch_view();
    return view.voice_vid != 0 && (view.joined.contains(ifx) || view.by_hand.contains(ifx));
}

bool is_member(uint32_t ifx, const Port &port, uint16_t vid)
{
    return vid == port.pvid || port.members.contains(vid) ||
           (vid == switch_view().voice_vid && is_voice_member(ifx));
}

/* A frame on its way through the switch. */
struct Way {
    uint32_t ifx;
    const Port *port;
    frame::Frame frame;
    fastpath::Key key;
    Verdict verdict;
};

/* The frame's fate is decided. Always true, for the steps below. */
bool end(Way *way, Verdict::Action action, std::string why)
{
    way->verdict.action = action;
    way->verdict.why = std::move(why);
    if (action == Verdict::dropped)
        way->verdict.out.clear();
    return true;
}

/* Each step returns whether the frame's fate is decided; if not, it goes on. */

bool arrive(Way *way, std::span<const uint8_t> bytes)
{
    const auto at = ports.find(way->ifx);
    if (at == ports.end())
        return end(way, Verdict::dropped, "no such port");
    way->port = &at->second;
    std::string why;
    std::optional<frame::Frame> decoded = frame::decode_link(bytes, &why);
    if (!decoded)
        return end(way, Verdict::dropped, why);
    way->frame = std::move(*decoded);
    way->verdict.out.assign(bytes.begin(), bytes.end());
    if (frame::is_multicast(way->frame.src))
        return end(way, Verdict::dropped, "multicast source");
    return false;
}

bool trap(Way *way)
{
    if (!switch_view().trapped.contains(way->ifx) || !switch_view_is_voice(way->frame.src))
        return false;
    return end(way, Verdict::to_cpu, "voice device on a trapped port");
}

/* What the header says, before any ACL. */
void read_marking(Way *way)
{
    const frame::Frame &frame = way->frame;
    if (frame.ipv4 || frame.ipv6)
        way->verdict.dscp = frame.ipv4 ? frame.ipv4->dscp : frame.ipv6->dscp;
    way->key.src = frame.src;
    if (!frame.tag)
        return;
    way->verdict.prio = frame.tag->pcp;
    way->key.vid = frame.tag->vid;
    way->key.form = frame.tag->vid == 0 ? fastpath::FORM_PRIORITY : fastpath::FORM_TAGGED;
}

/* Drops the frame or re-marks it, as an ACL's entry says. */
bool act(Way *way, const fastpath::Hit &hit)
{
    if (hit.ace == nullptr)
        return false;
    const fastpath::Actions &actions = hit.ace->actions;
    Verdict &verdict = way->verdict;
    if (actions.drop) {
        return end(way, Verdict::dropped,
                   std::string(hit.app_type) + " entry " + std::to_string(hit.ace->id));
    }
    verdict.prio = actions.prio_in.value_or(verdict.prio);
    if (actions.cos && frame::set_pcp(verdict.out, *actions.cos))
        verdict.cos = *actions.cos;
    if (actions.ipv4_dscp && frame::set_ipv4_dscp(verdict.out, *actions.ipv4_dscp))
        verdict.dscp = *actions.ipv4_dscp;
    return false;
}

/* Decides the VLAN, and with it whether the frame leaves tagged. */
bool classify(Way *way)
{
    const auto hit = fp_tables().decide(fastpath::Phase::classify, way->port->phyid, way->key);
    const uint16_t add = hit.ace == nullptr ? 0 : hit.ace->actions.add_tag.value_or(0);
    Verdict &verdict = way->verdict;
    verdict.tagged = true;
    if (add != 0) {
        verdict.vid = add;
        frame::set_tag(verdict.out, {add, verdict.prio, false});
    } else if (way->key.form == fastpath::FORM_TAGGED) {
        verdict.vid = way->key.vid;
    } else {
        verdict.vid = way->port->pvid;
        verdict.tagged = false;
        frame::strip_tag(verdict.out);
    }
    verdict.cos = verdict.tagged ? verdict.prio : 0;
    way->key.vid = verdict.vid;
    return act(way, hit);
}

bool admit(Way *way)
{
    if (is_member(way->ifx, *way->port, way->verdict.vid))
        return false;
    return end(way, Verdict::dropped, "not a member of VLAN " + std::to_string(way->verdict.vid));
}

bool treat(Way *way)
{
    return act(way, fp_tables().decide(fastpath::Phase::treat, way->port->phyid, way->key));
}

/* The whole way, without a trace left behind. */
Way decide(uint32_t ifx, std::span<const uint8_t> bytes)
{
    Way way{ifx, nullptr, {}, {}, {}};
    if (arrive(&way, bytes) || trap(&way))
        return way;
    read_marking(&way);
    if (classify(&way) || admit(&way) || treat(&way))
        return way;
    end(&way, Verdict::forwarded, "");
    return way;
}

/* Tells that a voice device was seen on a trapped port. */
void notify(uint32_t phyid)
{
    SBridge__VvlanIndex index = S_BRIDGE__VVLAN_INDEX__INIT;
    index.phyid = phyid;
    SBridge__VvlanPortNoty notice = S_BRIDGE__VVLAN_PORT_NOTY__INIT;
    notice.index = &index;
    kt_mom_publish(mom_peer(), NOTICE_DB, &notice.base);
}

std::string acls_text(uint32_t phyid)
{
    std::string text;
    for (const char *app_type : LISTED) {
        for (const uint32_t id : fp_tables().applied(app_type, phyid))
            text += (text.empty() ? "" : ",") + std::to_string(id);
    }
    return text.empty() ? "none" : text;
}

} // namespace

bool switch_add_port(uint32_t ifx, uint32_t phyid, const std::string &name, uint16_t pvid)
{
    const bool is_new = !ports.contains(ifx) && !ifx_by_phyid.contains(phyid);
    if (!is_new || !is_vid(pvid) || ports.size() >= SWITCH_PORTS_MAX)
        return false;
    ports.emplace(ifx, Port{phyid, name, pvid, {}});
    ifx_by_phyid.emplace(phyid, ifx);
    return true;
}

bool switch_add_member(uint32_t ifx, uint16_t vid)
{
    const auto at = ports.find(ifx);
    if (at == ports.end() || !is_vid(vid))
        return false;
    at->second.members.insert(vid);
    return true;
}

bool switch_has_port(uint32_t ifx)
{
    return ports.contains(ifx);
}

void switch_each_port(const std::function<void(uint32_t ifx, const std::string &name)> &visit)
{
    for (const auto &[ifx, port] : ports)
        visit(ifx, port.name);
}

std::optional<uint32_t> switch_phyid_by_ifx(uint32_t ifx)
{
    const auto at = ports.find(ifx);
    return at == ports.end() ? std::nullopt : std::optional(at->second.phyid);
}

std::optional<uint32_t> switch_ifx_by_phyid(uint32_t phyid)
{
    const auto at = ifx_by_phyid.find(phyid);
    return at == ifx_by_phyid.end() ? std::nullopt : std::optional(at->second);
}

Verdict switch_frame_in(uint32_t ifx, std::span<const uint8_t> frame)
{
    Way way = decide(ifx, frame);
    if (way.verdict.action == Verdict::to_cpu)
        notify(way.port->phyid);
    else if (way.verdict.action == Verdict::forwarded)
        switch_mac_learn(way.verdict.vid, way.frame.src, ifx);
    return std::move(way.verdict);
}

Verdict switch_peek(uint32_t ifx, std::span<const uint8_t> frame)
{
    return decide(ifx, frame).verdict;
}

void switch_unplug(uint32_t ifx)
{
    switch_mac_flush(ifx);
}

std::string switch_port_text(uint32_t ifx)
{
    const auto at = ports.find(ifx);
    if (at == ports.end())
        return "";
    std::string text;
    if (switch_view().trapped.contains(ifx))
        text += "trapped ";
    if (is_voice_member(ifx))
        text += "member=" + std::to_string(switch_view().voice_vid) + " ";
    return text + "acl=" + acls_text(at->second.phyid) +
           " macs=" + std::to_string(switch_mac_count(ifx));
}

void switch_mom_cleared(uint32_t db)
{
    if (db == MAC_DB)
        switch_mac_reports_lost();
    switch_view_read();
}

void switch_reset()
{
    ports.clear();
    ifx_by_phyid.clear();
    fp_reset();
    switch_mac_reset();
    switch_view_reset();
}

} // namespace sim
