#include "app/proc/udp_vvlan_err.h"

#include <iterator>

#include "app/proc/udp_vvlan.h"
#include "platform/kt_mom.h"
#include "proto/p_bridge.pb-c.h"

namespace
{

/* By error type. The exclamation marks are the full-width ones. */
constexpr const char *ERR_TEXTS[] = {
    "ERR_TYPE__VVLAN_SET_ENABLE！",       "ERR_TYPE__VVLAN_SET_PORT_ENABLE！",
    "ERR_TYPE__VVLAN_SET_OUI_CONFIG！",   "ERR_TYPE__VVLAN_SET_QOS_CONFIG！",
    "ERR_TYPE__VVLAN_SET_SECURITY_MOD！",
};

/* An event with the sub-messages that it may point at. */
struct err_event {
    PBridge__VvlanErrEvent event;
    PBridge__BQos qos;
    PBridge__BOui oui;
    PLibpub__Mac mac;
    PLibpub__Mac mask;
};

void err_init(err_event *err, uint32_t err_type);
void err_fill(err_event *err, const void *data);
void err_set_mac(PLibpub__Mac *field, const udp_vvlan_mac_addr *mac);

} // namespace

void udp_vvlan_handler_err_event(uint32_t err_type, const void *data)
{
    if (err_type >= std::size(ERR_TEXTS)) {
        UDP_VVLAN_LOG_ERROR("err_type(%d) not support！", err_type);
        return;
    }
    UDP_VVLAN_LOG_INFO("%s", ERR_TEXTS[err_type]);
    err_event err;
    err_init(&err, err_type);
    err_fill(&err, data);
    UDP_VVLAN_LOG_INFO("err_type(%d) notice to PI！", err_type);
    kt_mom_set(udp_vvlan_global, UDP_VVLAN_CFG_DB, &err.event.base, 0, 0);
}

namespace
{

void err_init(err_event *err, uint32_t err_type)
{
    p_bridge__vvlan_err_event__init(&err->event);
    p_bridge__b_qos__init(&err->qos);
    p_bridge__b_oui__init(&err->oui);
    p_libpub__mac__init(&err->mac);
    p_libpub__mac__init(&err->mask);
    err->oui.mac = &err->mac;
    err->oui.mask = &err->mask;
    err->event.msg_type = err_type;
}

void err_fill(err_event *err, const void *data)
{
    const auto *oui = static_cast<const vvlan_oui *>(data);
    switch (err->event.msg_type) {
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_ENABLE:
        err->event.vid = udp_vvlan_glb.vid;
        break;
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_PORT_ENABLE:
        err->event.ifx = *static_cast<const uint32_t *>(data);
        break;
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_OUI_CONFIG:
        err_set_mac(&err->mac, &oui->mac);
        err_set_mac(&err->mask, &oui->mask);
        err->event.oui = &err->oui;
        break;
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_QOS_CONFIG:
        err->event.qos = &err->qos;
        err->qos.cos = udp_vvlan_glb.cos;
        err->qos.dscp = udp_vvlan_glb.dscp;
        break;
    default:
        break;
    }
}

/* The library only reads the object, so the OUI's own bytes will do. */
void err_set_mac(PLibpub__Mac *field, const udp_vvlan_mac_addr *mac)
{
    field->data = {sizeof mac->bytes, const_cast<uint8_t *>(mac->bytes)};
}

} // namespace
