#include "sim/sim_switch_view.h"

#include "proto/p_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"
#include "sim/sim_mom.h"
#include "sim/sim_switch_mac.h"

#include <algorithm>
#include <array>
#include <optional>

namespace sim
{
namespace
{

SwitchView view;
uint64_t listening; /* counts resets: an older listener is deaf */

void put(std::unordered_set<uint32_t> *set, uint32_t member, bool present)
{
    if (present)
        set->insert(member);
    else
        set->erase(member);
}

std::optional<frame::Mac> mac_of(const PLibpub__Mac *mac)
{
    frame::Mac bytes;
    if (mac == nullptr || mac->data.len != bytes.size())
        return std::nullopt;
    std::copy_n(mac->data.data, bytes.size(), bytes.begin());
    return bytes;
}

template <typename Object> const Object &as(const ProtobufCMessage &message)
{
    return reinterpret_cast<const Object &>(message);
}

void follow_voice_vlan(bool present, const ProtobufCMessage &message)
{
    const PBridge__VvlanEn *setting = as<PBridge__VvlanGlbCfg>(message).glb_switch;
    const bool is_on = present && setting != nullptr && setting->enable != 0;
    view.voice_vid = is_on && setting->vlan < 4095 ? static_cast<uint16_t>(setting->vlan) : 0;
}

void follow_join(bool present, const ProtobufCMessage &message)
{
    const auto &join = as<PBridge__VvlanPortAuto>(message);
    put(&view.joined, join.index->ifx, present && join.enable == 1);
}

void follow_port(bool present, const ProtobufCMessage &message)
{
    const auto &port = as<PBridge__VvlanPortCfg>(message);
    put(&view.by_hand, port.index->ifx, present && port.enable == 1 && port.mode == 0);
}

void follow_trap(bool present, const ProtobufCMessage &message)
{
    put(&view.trapped, as<UBridge__VvlanPortCfg>(message).index->ifx, present);
}

void follow_oui(bool present, const ProtobufCMessage &message)
{
    const auto &object = as<UBridge__VvlanOuiCfg>(message);
    view.ouis.erase(object.index->ace_id);
    if (!present || object.oui == nullptr)
        return;
    const auto mac = mac_of(object.oui->mac);
    const auto mask = mac_of(object.oui->mask);
    if (mac && mask)
        view.ouis[object.index->ace_id] = {*mac, *mask};
}

void follow_wanted(bool present, const ProtobufCMessage &message)
{
    const uint32_t vid = as<UBridge__MacVidReg>(message).index->vid;
    put(&view.wanted, vid, present);
    switch_mac_report(vid);
}

struct Followed {
    uint32_t db;
    const ProtobufCMessageDescriptor *kind;
    void (*follow)(bool present, const ProtobufCMessage &message);
};
const std::array<Followed, 6> FOLLOWED = {{
    {4, &p_bridge__vvlan_glb_cfg__descriptor, follow_voice_vlan},
    {4, &p_bridge__vvlan_port_auto__descriptor, follow_join},
    {4, &p_bridge__vvlan_port_cfg__descriptor, follow_port},
    {8, &u_bridge__vvlan_port_cfg__descriptor, follow_trap},
    {8, &u_bridge__vvlan_oui_cfg__descriptor, follow_oui},
    {6, &u_bridge__mac_vid_reg__descriptor, follow_wanted},
}};

/* Keyed objects in the database have their index. */
void follow(uint32_t db, bool present, const ProtobufCMessage &message)
{
    for (const Followed &each : FOLLOWED) {
        if (each.db == db && each.kind == message.descriptor)
            each.follow(present, message);
    }
}

} // namespace

const SwitchView &switch_view()
{
    return view;
}

bool switch_view_is_voice(const frame::Mac &mac)
{
    return std::any_of(view.ouis.begin(), view.ouis.end(), [&mac](const auto &item) {
        const SwitchOui &oui = item.second;
        for (size_t i = 0; i < mac.size(); i++) {
            if (((mac[i] ^ oui.mac[i]) & oui.mask[i]) != 0)
                return false;
        }
        return true;
    });
}

void switch_view_read()
{
    view = {};
    for (const uint32_t each : {4U, 6U, 8U}) {
        mom_each(each, [each](const object::Kind &, const ProtobufCMessage &message,
                              const MomMeta &) { follow(each, true, message); });
    }
}

void switch_view_reset()
{
    view = {};
    const uint64_t mine = ++listening;
    mom_on_change([mine](uint32_t db, uint32_t operation, const ProtobufCMessage &message,
                         std::span<const uint32_t>) {
        const bool is_stored = operation == KT_MOM_SET || operation == KT_MOM_HSET;
        if (mine == listening && (is_stored || operation == KT_MOM_DEL))
            follow(db, is_stored, message);
    });
}

} // namespace sim
