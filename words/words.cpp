#include "words/words.h"

#include <algorithm>
#include <bit>
#include <cstdio>

#include "object/object.h"
#include "platform/kt_mom.h"
#include "proto/s_bridge.pb-c.h"
#include "proto/s_cluster.pb-c.h"
#include "proto/u_bridge.pb-c.h"

namespace words
{

namespace
{

struct Change {
    uint32_t operation;
    const ProtobufCMessage &object;
    std::span<const uint32_t> fields;

    bool is_gone() const
    {
        return operation == KT_MOM_DEL;
    }
};

template <typename Object> const Object &object_of(const Change &change)
{
    return *reinterpret_cast<const Object *>(&change.object);
}

/* The number in an index that may be absent. */
template <typename Object, typename Index>
std::string index_text(const Change &change, uint32_t Index::*number)
{
    const Index *index = object_of<Object>(change).index;
    return std::to_string(index == nullptr ? 0 : index->*number);
}

std::string settings(const Change &change);
std::string oui_configured(const Change &change);
std::string port_configured(const Change &change);
std::string port_joined(const Change &change);
std::string failure_reported(const Change &change);
std::string notice(const Change &change);
std::string mac_learnt(const Change &change);
std::string macs_wanted(const Change &change);
std::string oui_in_force(const Change &change);
std::string port_trapped(const Change &change);
std::string join_recorded(const Change &change);
std::string plug_in(const Change &change);

/* What the daemon takes of the kinds that it reads. */
constexpr uint32_t BY_FIELD[] = {KT_MOM_HSET};
constexpr uint32_t WHOLE[] = {KT_MOM_SET, KT_MOM_DEL};
constexpr uint32_t NOTICE[] = {KT_MOM_SET, KT_MOM_PUBLISH};
constexpr std::span<const uint32_t> UNREAD;

struct Kind {
    const ProtobufCMessageDescriptor *type;
    uint32_t db;
    std::span<const uint32_t> taken;
    std::string (*tell)(const Change &change);
};

constexpr Kind KINDS[] = {
    {&p_bridge__vvlan_glb_cfg__descriptor, 4, BY_FIELD, settings},
    {&p_bridge__vvlan_oui_cfg__descriptor, 4, WHOLE, oui_configured},
    {&p_bridge__vvlan_port_cfg__descriptor, 4, WHOLE, port_configured},
    {&p_bridge__vvlan_port_auto__descriptor, 4, UNREAD, port_joined},
    {&p_bridge__vvlan_err_event__descriptor, 4, UNREAD, failure_reported},
    {&s_bridge__vvlan_port_noty__descriptor, 0, NOTICE, notice},
    {&u_bridge__mac_vid_reg_noti__descriptor, 6, WHOLE, mac_learnt},
    {&u_bridge__mac_vid_reg__descriptor, 6, UNREAD, macs_wanted},
    {&u_bridge__vvlan_oui_cfg__descriptor, 8, UNREAD, oui_in_force},
    {&u_bridge__vvlan_port_cfg__descriptor, 8, UNREAD, port_trapped},
    {&u_bridge__vvlan_join__descriptor, 8, WHOLE, join_recorded},
    {&s_cluster__reg_pkt_info__descriptor, 0, UNREAD, plug_in},
};

const Kind *kind_of(std::string_view name)
{
    const auto *found =
        std::ranges::find_if(KINDS, [name](const Kind &each) { return each.type->name == name; });
    return found == std::end(KINDS) ? nullptr : found;
}

template <typename Pair> Oui oui_of(const Pair *pair)
{
    return pair == nullptr ? Oui{} : Oui{mac_of(pair->mac), mac_of(pair->mask)};
}

} // namespace

std::optional<uint32_t> database_of(std::string_view kind)
{
    const Kind *known = kind_of(kind);
    return known == nullptr ? std::nullopt : std::optional(known->db);
}

std::span<const uint32_t> taken_operations(std::string_view kind)
{
    const Kind *known = kind_of(kind);
    return known == nullptr ? UNREAD : known->taken;
}

std::string change(uint32_t operation, const ProtobufCMessage &object,
                   std::span<const uint32_t> fields)
{
    const auto *kind = std::ranges::find(KINDS, object.descriptor, &Kind::type);
    if (kind != std::end(KINDS))
        return kind->tell({operation, object, fields});
    const char *verb = operation == KT_MOM_DEL ? " deleted: " : " set: ";
    return object.descriptor->name + std::string(verb) + object::to_text(object);
}

std::string failure(const PBridge__VvlanErrEvent &event)
{
    const std::string failed = "FAILED: ";
    switch (event.msg_type) {
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_ENABLE:
        return failed + "voice VLAN " + std::to_string(event.vid) + " could not be switched on";
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_PORT_ENABLE:
        return failed + "port " + std::to_string(event.ifx) + " could not be configured";
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_OUI_CONFIG:
        return failed + "OUI " + oui(oui_of(event.oui)) + " could not be installed";
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_QOS_CONFIG:
        return failed + "voice traffic could not be marked with CoS " +
               std::to_string(event.qos == nullptr ? 0 : event.qos->cos) + ", DSCP " +
               std::to_string(event.qos == nullptr ? 0 : event.qos->dscp);
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_SECURITY_MOD:
        return failed + "the security mode could not be applied to a port";
    default:
        return failed + "an error of unknown type " + std::to_string(event.msg_type);
    }
}

std::string minutes(uint32_t count)
{
    constexpr uint32_t HOUR = 60;
    std::string text = std::to_string(count) + (count == 1 ? " minute" : " minutes");
    if (count > HOUR && count % HOUR == 0)
        text += " (" + std::to_string(count / HOUR) + " h)";
    return text;
}

std::string mac(const Mac &address)
{
    char text[sizeof "00:11:22:33:44:55"];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1],
                  address[2], address[3], address[4], address[5]);
    return text;
}

std::string oui(const Oui &value)
{
    const int length = mask_length(value.mask);
    return mac(value.mac) + "/" + (length < 0 ? mac(value.mask) : std::to_string(length));
}

int mask_length(const Mac &mask)
{
    int length = 0;
    for (const uint8_t byte : mask)
        length += std::popcount(byte);
    return mask == mask_of_length(static_cast<unsigned>(length)) ? length : -1;
}

Mac mask_of_length(unsigned length)
{
    Mac mask{};
    for (unsigned bit = 0; bit < length; bit++)
        mask[bit / 8] = static_cast<uint8_t>(mask[bit / 8] | 0x80 >> bit % 8);
    return mask;
}

Mac mac_of(const PLibpub__Mac *message)
{
    Mac bytes{};
    if (message != nullptr)
        std::copy_n(message->data.data, std::min(message->data.len, bytes.size()), bytes.begin());
    return bytes;
}

namespace
{

std::string on_off(uint32_t value)
{
    return value != 0 ? "on" : "off";
}

std::string settings(const Change &change)
{
    const auto &glb = object_of<PBridge__VvlanGlbCfg>(change);
    if (change.is_gone())
        return "global settings deleted";
    const auto tells = [&](uint32_t field, bool is_set) {
        return change.fields.empty() ? is_set
                                     : std::find(change.fields.begin(), change.fields.end(),
                                                 field) != change.fields.end();
    };
    std::string text;
    const auto add = [&](const std::string &words) { text += (text.empty() ? "" : ", ") + words; };
    if (tells(GLB_SWITCH, glb.glb_switch != nullptr))
        add(glb.glb_switch == nullptr ? "voice VLAN unset"
                                      : "voice VLAN " + std::to_string(glb.glb_switch->vlan) + " " +
                                            on_off(glb.glb_switch->enable));
    if (tells(SECU_MODE, glb.secu_mode != 0))
        add("security " + on_off(glb.secu_mode));
    if (tells(AGE_TIME, glb.age_time != 0))
        add("aging time " + minutes(glb.age_time));
    if (tells(QOS, glb.qos != nullptr))
        add(glb.qos == nullptr ? "CoS and DSCP unset"
                               : "CoS " + std::to_string(glb.qos->cos) + ", DSCP " +
                                     std::to_string(glb.qos->dscp));
    return "settings: " + (text.empty() ? "nothing set" : text);
}

std::string oui_configured(const Change &change)
{
    return "OUI " + oui(oui_of(object_of<PBridge__VvlanOuiCfg>(change).index)) +
           (change.is_gone() ? " no longer configured" : " configured");
}

std::string port_configured(const Change &change)
{
    const auto &port = object_of<PBridge__VvlanPortCfg>(change);
    const std::string name =
        "port " + index_text<PBridge__VvlanPortCfg>(change, &PBridge__VvlanIndex::ifx);
    if (change.is_gone())
        return name + " no longer configured";
    const char *mode = (port.mode & 1) != 0 ? "automatic" : "manual";
    if ((port.enable & 1) == 0)
        return name + " configured: off (" + mode + ")";
    return name + " configured: " + mode;
}

std::string port_joined(const Change &change)
{
    const bool joins = !change.is_gone() && object_of<PBridge__VvlanPortAuto>(change).enable != 0;
    return "port " + index_text<PBridge__VvlanPortAuto>(change, &PBridge__VvlanIndex::ifx) +
           (joins ? " joins" : " leaves") + " the voice VLAN";
}

std::string failure_reported(const Change &change)
{
    return change.is_gone() ? "failure report deleted"
                            : failure(object_of<PBridge__VvlanErrEvent>(change));
}

std::string notice(const Change &change)
{
    const auto *index = object_of<SBridge__VvlanPortNoty>(change).index;
    const uint32_t phyid = index == nullptr ? 0 : index->phyid;
    char name[sizeof "4294967295 (0xffffffff)"];
    std::snprintf(name, sizeof name, "%u (0x%x)", phyid, phyid);
    return (change.is_gone() ? "notice deleted: physical port "
                             : "voice device seen on physical port ") +
           std::string(name);
}

std::string mac_learnt(const Change &change)
{
    const auto &noti = object_of<UBridge__MacVidRegNoti>(change);
    const auto *index = noti.index;
    return mac(mac_of(index == nullptr ? nullptr : index->t_mac)) +
           (change.is_gone() ? " gone from port " : " learnt on port ") +
           std::to_string(noti.port_id) + ", VLAN " +
           std::to_string(index == nullptr ? 0 : index->t_fid);
}

std::string macs_wanted(const Change &change)
{
    return "MACs of VLAN " + index_text<UBridge__MacVidReg>(change, &UBridge__MacVidIndex::vid) +
           (change.is_gone() ? " no longer wanted" : " wanted");
}

std::string oui_in_force(const Change &change)
{
    const auto &entry = object_of<UBridge__VvlanOuiCfg>(change);
    const std::string id =
        index_text<UBridge__VvlanOuiCfg>(change, &UBridge__VvlanOuiCfgIndex::ace_id);
    return "OUI " + oui(oui_of(entry.oui)) +
           (change.is_gone() ? " out of force, ACE id " + id + " free" : " in force, ACE id " + id);
}

std::string port_trapped(const Change &change)
{
    return "port " + index_text<UBridge__VvlanPortCfg>(change, &UBridge__VvlanIndex::ifx) +
           (change.is_gone() ? " no longer trapped" : " trapped until a voice device is seen");
}

std::string join_recorded(const Change &change)
{
    return "port " + index_text<UBridge__VvlanJoin>(change, &UBridge__VvlanIndex::ifx) +
           (change.is_gone() ? " no longer recorded as joined" : " recorded as joined");
}

std::string plug_in(const Change &change)
{
    return "packet plug-in " + std::string(object_of<SCluster__RegPktInfo>(change).dlib_name) +
           (change.is_gone() ? " withdrawn" : " registered");
}

} // namespace

} // namespace words
