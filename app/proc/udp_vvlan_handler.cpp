#include "app/proc/udp_vvlan_handler.h"

#include <cstring>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_fp.h"
#include "app/proc/udp_vvlan_glb_cfg.h"
#include "app/proc/udp_vvlan_mac.h"
#include "app/proc/udp_vvlan_oui.h"
#include "app/proc/udp_vvlan_port.h"
#include "platform/kt_mom.h"
#include "platform/libddm.h"
#include "proto/s_cluster.pb-c.h"

namespace
{

/* The cluster's own database, which is also the one of the port notices. */
constexpr uint32_t CLUSTER_DB = 0;

int set_glb_switch(const udp_vvlan_where &where, const PBridge__VvlanEn *glb_switch);
int set_glb_secu_mode(const udp_vvlan_where &where, uint32_t secu_mode);
int set_glb_qos(const udp_vvlan_where &where, const PBridge__BQos *qos);

bool copy_mac(const PLibpub__Mac *field, udp_vvlan_mac_addr *mac);
int add_oui(const udp_vvlan_where &where, const udp_vvlan_mac_addr *mac,
            const udp_vvlan_mac_addr *mask);
int del_oui(const udp_vvlan_where &where, const udp_vvlan_mac_addr *mac,
            const udp_vvlan_mac_addr *mask);

udp_vvlan_port_node *add_port(uint32_t ifx);
int set_port(const udp_vvlan_where &where, const PBridge__VvlanPortCfg *cfg);
int del_port(const udp_vvlan_where &where, uint32_t ifx);

} // namespace

int udp_vvlan_handler_init(kt_global *global, const char *name)
{
    const int rv = libddm_init(global, name);
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:<init> init ddm failed, rv = %d.", rv);
        return rv;
    }
    char app_name[] = "pkt_vvlan";
    char dlib_name[] = "libpkt.vvlan.sw.so";
    SCluster__AppName index;
    s_cluster__app_name__init(&index);
    index.name = app_name;
    SCluster__RegPktInfo record;
    s_cluster__reg_pkt_info__init(&record);
    record.index = &index;
    record.dlib_name = dlib_name;
    record.reg_type = 0;
    kt_mom_set(global, CLUSTER_DB, &record.base, 0, 0);
    return 0;
}

int udp_vvlan_handler_set_glb_cfg(uint32_t, const PBridge__VvlanGlbCfg *cfg, uint32_t field_tag)
{
    const udp_vvlan_where where = UDP_VVLAN_HERE;
    UDP_VVLAN_LOG_INFO("field_tag = %d.", field_tag);
    if (cfg == nullptr)
        return UDP_VVLAN_E_MESSAGE;
    switch (field_tag) {
    case UDP_VVLAN_GLB_SWITCH:
        return set_glb_switch(where, cfg->glb_switch);
    case UDP_VVLAN_GLB_SECU_MODE:
        return set_glb_secu_mode(where, cfg->secu_mode);
    case UDP_VVLAN_GLB_AGE_TIME:
        udp_vvlan_glb.age_time = static_cast<uint16_t>(cfg->age_time);
        return 0;
    case UDP_VVLAN_GLB_QOS:
        return set_glb_qos(where, cfg->qos);
    default:
        UDP_VVLAN_LOG_ERROR(" field_tag(%u)' operation is not found.", field_tag);
        return UDP_VVLAN_E_UNEXPECTED;
    }
}

int udp_vvlan_handler_set_oui_cfg(uint32_t add, const PBridge__VvlanOuiCfg *cfg)
{
    udp_vvlan_mac_addr mac;
    udp_vvlan_mac_addr mask;
    if (cfg == nullptr || cfg->index == nullptr || !copy_mac(cfg->index->mac, &mac) ||
        !copy_mac(cfg->index->mask, &mask))
        return UDP_VVLAN_E_MESSAGE;
    UDP_VVLAN_LOG_INFO("set oui_cfg, add=%d !", add);
    return add != 0 ? add_oui(UDP_VVLAN_HERE, &mac, &mask) : del_oui(UDP_VVLAN_HERE, &mac, &mask);
}

int udp_vvlan_handler_set_port_cfg(uint32_t add, const PBridge__VvlanPortCfg *cfg)
{
    if (cfg == nullptr || cfg->index == nullptr)
        return UDP_VVLAN_E_MESSAGE;
    UDP_VVLAN_LOG_INFO("set port_cfg, add=%d !", add);
    return add != 0 ? set_port(UDP_VVLAN_HERE, cfg) : del_port(UDP_VVLAN_HERE, cfg->index->ifx);
}

int udp_vvlan_handler_set_port_noti(uint32_t, const SBridge__VvlanPortNoty *noti)
{
    if (noti == nullptr || noti->index == nullptr)
        return UDP_VVLAN_E_MESSAGE;
    uint32_t ifx = 0;
    auto get_ifx = [&] { return libddm_get_ifx_by_phyid(noti->index->phyid, &ifx); };
    if (get_ifx() != 0)
        return udp_vvlan_call_again(UDP_VVLAN_HERE, get_ifx);

    udp_vvlan_port_node *port = udp_vvlan_port_find(ifx);
    if (port == nullptr || !udp_vvlan_port_is_auto(port))
        return 0;
    auto join = [&] { return udp_vvlan_port_join_vvlan(port, 1); };
    return join() == 0 ? 0 : udp_vvlan_call_again(UDP_VVLAN_HERE, join);
}

namespace
{

int set_glb_switch(const udp_vvlan_where &where, const PBridge__VvlanEn *glb_switch)
{
    if (glb_switch == nullptr) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert:glb_switch is NULL!");
        return UDP_VVLAN_E_MESSAGE;
    }
    const uint32_t on = glb_switch->enable != 0;
    if (on != 0)
        udp_vvlan_add_vid(glb_switch->vlan);
    else
        udp_vvlan_del_vid(glb_switch->vlan);
    const int rv = udp_vvlan_mac_subscribe(on);
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert: sub(%d) mac addr for voice vlan fail! rv=%d ",
                               glb_switch->enable, rv);
        return UDP_VVLAN_E_WRITE;
    }
    return 0;
}

/* The entry is made anew for either mode: its actions follow from the record. */
int set_glb_secu_mode(const udp_vvlan_where &where, uint32_t secu_mode)
{
    udp_vvlan_glb.secu = secu_mode != 0;
    UDP_VVLAN_LOG_INFO_AT(where, "sec=%d \n", udp_vvlan_glb.secu);
    udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, 1);
    udp_vvlan_port_foreach(udp_vvlan_port_set_sec);
    return 0;
}

int set_glb_qos(const udp_vvlan_where &where, const PBridge__BQos *qos)
{
    if (qos == nullptr) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert:fp_qos is NULL!");
        return UDP_VVLAN_E_MESSAGE;
    }
    udp_vvlan_glb.cos = static_cast<uint8_t>(qos->cos);
    udp_vvlan_glb.dscp = static_cast<uint8_t>(qos->dscp);
    udp_vvlan_oui_set_cos();
    udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, 1);
    return 0;
}

/* Takes the first 6 bytes; false when there are fewer. */
bool copy_mac(const PLibpub__Mac *field, udp_vvlan_mac_addr *mac)
{
    if (field == nullptr || field->data.len < sizeof mac->bytes)
        return false;
    std::memcpy(mac->bytes, field->data.data, sizeof mac->bytes);
    return true;
}

int add_oui(const udp_vvlan_where &where, const udp_vvlan_mac_addr *mac,
            const udp_vvlan_mac_addr *mask)
{
    const uint8_t *m = mac->bytes;
    UDP_VVLAN_LOG_INFO_AT(where, "set oui_cfg, mac :%02x%02x.%02x%02x.%02x%02x", m[0], m[1], m[2],
                          m[3], m[4], m[5]);
    m = mask->bytes;
    UDP_VVLAN_LOG_INFO_AT(where, "set oui_cfg, mask:%02x%02x.%02x%02x.%02x%02x", m[0], m[1], m[2],
                          m[3], m[4], m[5]);
    if (udp_vvlan_oui_add_node(mac, mask) == nullptr) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert: vvlan_oui, add node fail !");
        return UDP_VVLAN_E_WRITE;
    }
    return 0;
}

int del_oui(const udp_vvlan_where &where, const udp_vvlan_mac_addr *mac,
            const udp_vvlan_mac_addr *mask)
{
    vvlan_oui *node = udp_vvlan_oui_find(mac, mask);
    if (node == nullptr) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert: vvlan_oui, not find!");
        return UDP_VVLAN_E_NOT_FOUND;
    }
    udp_vvlan_oui_del_node(node);
    return 0;
}

/* A new port counts as joined and silent until something says otherwise. */
udp_vvlan_port_node *add_port(uint32_t ifx)
{
    udp_vvlan_port_node key = {};
    key.ifx = ifx;
    udp_vvlan_port_node *port = udp_vvlan_port_node_op(&key, 1);
    if (port != nullptr)
        port->flags = UDP_VVLAN_PORT_AUTO_JOIN | UDP_VVLAN_PORT_MAC_AGED;
    return port;
}

int set_port(const udp_vvlan_where &where, const PBridge__VvlanPortCfg *cfg)
{
    const uint32_t ifx = cfg->index->ifx;
    udp_vvlan_port_node *port = udp_vvlan_port_find(ifx);
    const bool is_new = port == nullptr;
    if (is_new)
        port = add_port(ifx);
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert:node add fail, ifx=%d", ifx);
        return UDP_VVLAN_E_INSERT;
    }
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_VVLAN_EN, (cfg->enable & 1) != 0);
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_AUTO_MOD, (cfg->mode & 1) != 0);
    if (is_new) {
        auto get_phyid = [&] { return libddm_get_phyid_by_ifx(ifx, &port->phyid); };
        if (get_phyid() != 0)
            return udp_vvlan_call_again(where, get_phyid);
        UDP_VVLAN_LOG_INFO_AT(where, "creat new node(ifx = %d phyid = 0x%x.) successfully !", ifx,
                              port->phyid);
    }
    if (udp_vvlan_port_cfg(port) != 0)
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert:config port(ifx:%d) fail!", ifx);
    return 0;
}

int del_port(const udp_vvlan_where &where, uint32_t ifx)
{
    udp_vvlan_port_node *port = udp_vvlan_port_find(ifx);
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert:not find port by ifx(%d)!", ifx);
        return UDP_VVLAN_E_NOT_FOUND;
    }
    const int rv = udp_vvlan_port_unaply_acl(port);
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert:set vvlan en del fail!");
        return rv;
    }
    udp_vvlan_port_clear_mac(port, 0);
    udp_vvlan_port_node_op(port, 0);
    return 0;
}

} // namespace
