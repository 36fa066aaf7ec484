#include "app/proc/udp_vvlan_event.h"

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_handler.h"
#include "app/proc/udp_vvlan_recover.h"

namespace
{

constexpr uint32_t MODE_AUTO = 1;

int apply_hash(const udp_vvlan_where &where, const kt_mom_hash *hash, uint32_t field_tag);
bool keep_auto_records(const udp_vvlan_where &where, kt_global *global, uint32_t ifx, int *rv);
bool keep_membership(const udp_vvlan_where &where, kt_global *global, uint32_t ifx, int *rv);
bool rewrite_membership(const udp_vvlan_where &where, kt_global *global,
                        const PBridge__VvlanPortAuto *membership, int *rv);
bool keep_join_record(const udp_vvlan_where &where, kt_global *global, uint32_t ifx, int *rv);

} // namespace

int udp_vvlan_event_check(const udp_vvlan_where &where, const kt_mom_msg *msg)
{
    if (msg == nullptr) {
        UDP_VVLAN_LOG_ERROR_FROM(where, "Assert:MOM msg is NULL.\n");
        return UDP_VVLAN_E_MESSAGE;
    }
    if (msg->error != 0) {
        UDP_VVLAN_LOG_ERROR_FROM(where, "Assert:MOM error is %d.\n", msg->error);
        return UDP_VVLAN_E_MESSAGE;
    }
    return 0;
}

const ProtobufCMessage *udp_vvlan_event_object(const kt_mom_msg *msg)
{
    if (msg->operation != KT_MOM_HSET || msg->object == nullptr)
        return static_cast<const ProtobufCMessage *>(msg->object);
    return static_cast<const kt_mom_hash *>(msg->object)->object;
}

int udp_vvlan_event_set_oui_cfg(kt_global *, const kt_mom_msg *msg)
{
    if (udp_vvlan_event_check(UDP_VVLAN_HERE, msg) != 0)
        return UDP_VVLAN_E_MESSAGE;
    const auto *oui_cfg = static_cast<const PBridge__VvlanOuiCfg *>(msg->object);
    int rv = 0;
    switch (msg->operation) {
    case KT_MOM_SET:
        UDP_VVLAN_LOG_INFO("receive a KT_MOM_SET event. operate=%d .", msg->operation);
        rv = udp_vvlan_handler_set_oui_cfg(1, oui_cfg);
        break;
    case KT_MOM_DEL:
        UDP_VVLAN_LOG_INFO("receive a KT_MOM_DEL event. operate=%d .", msg->operation);
        rv = udp_vvlan_handler_set_oui_cfg(0, oui_cfg);
        break;
    default:
        UDP_VVLAN_LOG_WARN("receive a unexpected event. operate=%d .", msg->operation);
        return UDP_VVLAN_E_UNEXPECTED;
    }
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:set vvlan oui failed, rv = %d.", rv);
    else
        UDP_VVLAN_LOG_INFO("set vvlan oui successfully.");
    return rv;
}

int udp_vvlan_event_set_glb_cfg(kt_global *, const kt_mom_msg *msg, uint32_t field_tag)
{
    if (udp_vvlan_event_check(UDP_VVLAN_HERE, msg) != 0)
        return UDP_VVLAN_E_MESSAGE;
    if (field_tag == 0) {
        UDP_VVLAN_LOG_ERROR("Assert:MOM args is NULL.\n");
        return UDP_VVLAN_E_MESSAGE;
    }
    if (msg->object == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:MOM hash is NULL.\n");
        return UDP_VVLAN_E_MESSAGE;
    }
    /* With any other operation the object is no hash record, and nothing is to be done. */
    if (msg->operation == KT_MOM_HSET) {
        const auto *hash = static_cast<const kt_mom_hash *>(msg->object);
        if (hash->error != 0) {
            UDP_VVLAN_LOG_ERROR("Assert:MOM hash error is %d.\n", hash->error);
            return UDP_VVLAN_E_MESSAGE;
        }
        UDP_VVLAN_LOG_INFO("receive a KT_MOM_HSET event. operate=%d .", msg->operation);
        const int rv = apply_hash(UDP_VVLAN_HERE, hash, field_tag);
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR("Assert:set vvlan glb_cfg failed, rv = %d.", rv);
            return rv;
        }
    }
    UDP_VVLAN_LOG_INFO("set vvlan glb cfg successfully.");
    return 0;
}

int udp_vvlan_event_set_port_cfg(kt_global *global, const kt_mom_msg *msg)
{
    if (udp_vvlan_event_check(UDP_VVLAN_HERE, msg) != 0)
        return UDP_VVLAN_E_MESSAGE;
    if (msg->scan_state == KT_MOM_SECTION_NOTE)
        return 0;
    const auto *port_cfg =
        reinterpret_cast<const PBridge__VvlanPortCfg *>(udp_vvlan_event_object(msg));
    if (port_cfg == nullptr || port_cfg->index == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:msg port_cfg param failed.");
        return UDP_VVLAN_E_MESSAGE;
    }
    int rv = 0;
    switch (msg->operation) {
    case KT_MOM_SET:
        UDP_VVLAN_LOG_INFO("receive a KT_MOM_SET event.");
        if (port_cfg->mode == MODE_AUTO &&
            !keep_auto_records(UDP_VVLAN_HERE, global, port_cfg->index->ifx, &rv))
            return rv;
        rv = udp_vvlan_handler_set_port_cfg(1, port_cfg);
        break;
    case KT_MOM_DEL:
        UDP_VVLAN_LOG_INFO("receive a KT_MOM_DEL event.");
        rv = udp_vvlan_handler_set_port_cfg(0, port_cfg);
        break;
    default:
        UDP_VVLAN_LOG_WARN("receive a unexpected event.");
        return UDP_VVLAN_E_UNEXPECTED;
    }
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:set vvlan port_cfg failed, rv = %d.", rv);
    else
        UDP_VVLAN_LOG_INFO("set vvlan port_cfg successfully.");
    return rv;
}

int udp_vvlan_event_set_port_noti(kt_global *, const kt_mom_msg *msg)
{
    if (udp_vvlan_event_check(UDP_VVLAN_HERE, msg) != 0)
        return UDP_VVLAN_E_MESSAGE;
    const auto *port_noty = static_cast<const SBridge__VvlanPortNoty *>(msg->object);
    if (port_noty == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:msg vvlan_port_noty param failed.");
        return 0;
    }
    if (msg->operation != KT_MOM_SET && msg->operation != KT_MOM_PUBLISH) {
        UDP_VVLAN_LOG_WARN("receive a unexpected event. operate=%d .", msg->operation);
        return UDP_VVLAN_E_UNEXPECTED;
    }
    UDP_VVLAN_LOG_INFO("receive a KT_MOM_SET or KT_MOM_PUBLISH event. operate=%d .",
                       msg->operation);
    const int rv = udp_vvlan_handler_set_port_noti(1, port_noty);
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:set mac_noti failed, rv = %d.", rv);
    else
        UDP_VVLAN_LOG_INFO("set mac_noti successfully.");
    return rv;
}

namespace
{

/* Applies the one field of this subscription, if it is among those that were set. */
int apply_hash(const udp_vvlan_where &where, const kt_mom_hash *hash, uint32_t field_tag)
{
    for (uint32_t at = 0; at < hash->count; at++) {
        UDP_VVLAN_LOG_INFO_AT(where, "tag[%d] field[%d].\n", field_tag, hash->fields[at]);
        if (hash->fields[at] == field_tag)
            return udp_vvlan_handler_set_glb_cfg(
                1, reinterpret_cast<const PBridge__VvlanGlbCfg *>(hash->object), field_tag);
    }
    return 0;
}

/*
 * The port may be joined from before a restart; its records must outlive the
 * section that has begun then. Returns true to go on, or false when a call
 * failed at first; *rv is then what to return, 0 if it got through at last.
 */
bool keep_auto_records(const udp_vvlan_where &where, kt_global *global, uint32_t ifx, int *rv)
{
    return keep_membership(where, global, ifx, rv) && keep_join_record(where, global, ifx, rv);
}

bool keep_membership(const udp_vvlan_where &where, kt_global *global, uint32_t ifx, int *rv)
{
    PBridge__VvlanIndex index;
    p_bridge__vvlan_index__init(&index);
    index.ifx = ifx;
    PBridge__VvlanPortAuto membership;
    p_bridge__vvlan_port_auto__init(&membership);
    membership.index = &index;
    UDP_VVLAN_LOG_INFO_AT(where, "port:%d is auto_mode, clear_expire for port_auto.", ifx);
    auto clear = [&] {
        return kt_mom_clear_expire(global, UDP_VVLAN_CFG_DB, &membership.base, 0, 0);
    };
    if (clear() != 0) {
        *rv = udp_vvlan_call_again(where, clear);
        return false;
    }
    membership.enable = 1;
    return rewrite_membership(where, global, &membership, rv);
}

/* Writes the membership again if it stands; what was fetched is given back in any case. */
bool rewrite_membership(const udp_vvlan_where &where, kt_global *global,
                        const PBridge__VvlanPortAuto *membership, int *rv)
{
    int status = 0;
    ProtobufCMessage *stored =
        kt_mom_get_sync(global, UDP_VVLAN_CFG_DB, &membership->base, &status);
    auto write = [&] {
        return kt_mom_set(udp_vvlan_global, UDP_VVLAN_CFG_DB, &membership->base, 0, 0);
    };
    const bool failed = stored != nullptr && write() != 0;
    if (failed)
        *rv = udp_vvlan_call_again(where, write);
    kt_mom_kt_obj_free(stored);
    return !failed;
}

bool keep_join_record(const udp_vvlan_where &where, kt_global *global, uint32_t ifx, int *rv)
{
    udp_vvlan_join_record record;
    const ProtobufCMessage *join = udp_vvlan_join_record_init(&record, ifx);
    auto clear = [&] { return kt_mom_clear_expire(global, KT_MOM_UDP_DB, join, 0, 0); };
    if (clear() == 0)
        return true;
    *rv = udp_vvlan_call_again(where, clear);
    return false;
}

} // namespace
