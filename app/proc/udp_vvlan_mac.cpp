#include "app/proc/udp_vvlan_mac.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_event.h"
#include "app/proc/udp_vvlan_oui.h"
#include "app/proc/udp_vvlan_port.h"

namespace
{

constexpr uint64_t WAIT_MILLISECONDS = 1000;

/* Stands for the index of a notification that came without one. */
const UBridge__UdpL2addrBaseIndex NO_INDEX = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;

/* The key that selects every notification of the current voice VLAN. */
struct noti_key {
    UBridge__UdpL2addrBaseIndex index;
    UBridge__MacVidRegNoti noti;
};

/* The key of a registration. */
struct reg_key {
    UBridge__MacVidIndex index;
    UBridge__MacVidReg reg;
};

/* An address as text: the raw bytes with an end, for the lines that print it with "%s". */
struct raw_mac {
    char text[sizeof(udp_vvlan_mac_addr) + 1];
};

const ProtobufCMessage *noti_key_init(noti_key *key);
const ProtobufCMessage *reg_key_init(reg_key *key, uint32_t vid);
int begin_section(kt_global *global, void *user);
void end_section(kt_global *global);
int delete_registration(void);
int write_registration(void);
const UBridge__UdpL2addrBaseIndex &index_of(const UBridge__MacVidRegNoti *noti);
udp_vvlan_mac_addr mac_of(const UBridge__MacVidRegNoti *noti);
raw_mac raw(const udp_vvlan_mac_addr *mac);
void mark_silent(udp_vvlan_port_node *port);
void mark_joined_and_silent(udp_vvlan_port_node *port);
void move(udp_vvlan_mac_node *record, udp_vvlan_port_node *to);
void take_out(udp_vvlan_mac_node *record, bool poison);

} // namespace

int udp_vvlan_mac_subscribe(uint32_t on)
{
    const uint32_t vid = udp_vvlan_glb.vid;
    noti_key key;
    const ProtobufCMessage *message = noti_key_init(&key);
    int rv;
    if (on != 0) {
        rv = kt_mom_subscribe(udp_vvlan_global, UDP_VVLAN_MAC_DB, message, KT_MOM_MATCH_PARTIAL,
                              udp_vvlan_mac_subscribe_callback, nullptr);
        if (rv != 0)
            UDP_VVLAN_LOG_ERROR("Assert:<ds> subscribe vid_reg_noti failed, rv = %d.", rv);
        else
            UDP_VVLAN_LOG_INFO("sub mac addr for voice vlan(%04u) successfully.", vid);
    } else {
        rv = kt_mom_unsubscribe(udp_vvlan_global, UDP_VVLAN_MAC_DB, message, KT_MOM_MATCH_PARTIAL,
                                udp_vvlan_mac_subscribe_callback, nullptr);
        if (rv != 0)
            UDP_VVLAN_LOG_ERROR("Assert:unsub mac addr for voice vlan(%04u) failed, rv = %d.", vid,
                                rv);
        else
            UDP_VVLAN_LOG_INFO("unsub mac addr for voice vlan(%04u) successfully.", vid);
    }
    return rv;
}

int udp_vvlan_mac_scan(uint32_t ifx)
{
    noti_key key;
    const int rv =
        kt_mom_scan(udp_vvlan_global, UDP_VVLAN_MAC_DB, noti_key_init(&key), KT_MOM_MATCH_PARTIAL,
                    udp_vvlan_event_set_mac_noti, reinterpret_cast<void *>(uintptr_t{ifx}));
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:scan mac noti for vvlan(%04u) failed, rv = %d.",
                            udp_vvlan_glb.vid, rv);
    return rv;
}

int udp_vvlan_mac_subscribe_callback(kt_global *global, const kt_mom_msg *msg, void *user)
{
    if (msg != nullptr && msg->operation == KT_MOM_RESYNC) {
        const int rv = begin_section(global, user);
        if (rv != 0)
            UDP_VVLAN_LOG_ERROR("Assert:<ds> pexpire vid_reg failed, rv = %d.", rv);
        return 0;
    }
    if (msg != nullptr && msg->operation == KT_MOM_UNSUBSCRIBED) {
        const int rv = delete_registration();
        if (rv != 0)
            UDP_VVLAN_LOG_ERROR("Assert:unreg mac addr for vvlan(%04u) failed, rv = %d.",
                                udp_vvlan_glb.vid, rv);
        else
            UDP_VVLAN_LOG_INFO("unreg mac addr for vvlan(%04u) successfully.", udp_vvlan_glb.vid);
        return rv;
    }
    if (msg == nullptr || msg->scan_state != KT_MOM_SCAN_START)
        return udp_vvlan_event_set_mac_noti(global, msg, user);

    int rv = write_registration();
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:reg mac addr for vvlan(%04u) failed, rv = %d.",
                            udp_vvlan_glb.vid, rv);
        return rv;
    }
    UDP_VVLAN_LOG_INFO("reg mac addr for vvlan(%04u) successfully.", udp_vvlan_glb.vid);
    end_section(global);
    rv = udp_vvlan_mac_scan(0);
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:scan mac noti for vvlan(%04u) fail!", udp_vvlan_glb.vid);
    else
        UDP_VVLAN_LOG_INFO("scan mac noti for vvlan(%04u) successfully.", udp_vvlan_glb.vid);
    return rv;
}

int udp_vvlan_event_set_mac_noti(kt_global *, const kt_mom_msg *msg, void *ifx_filter)
{
    if (udp_vvlan_event_check(UDP_VVLAN_HERE, msg) != 0)
        return UDP_VVLAN_E_MESSAGE;
    assert(msg != nullptr); /* the check refuses it */
    UDP_VVLAN_LOG_INFO("set_mac_noti: %d", msg->scan_state);
    if (msg->scan_state == KT_MOM_SCAN_OVER) {
        UDP_VVLAN_LOG_INFO("receive a KT_MOM_SCAN_OVER event: %d", msg->scan_state);
        udp_vvlan_port_foreach(udp_vvlan_port_mac);
        return 0;
    }
    const auto *noti =
        reinterpret_cast<const UBridge__MacVidRegNoti *>(udp_vvlan_event_object(msg));
    if (noti == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:mac_noti is NULL.");
        return 0;
    }
    const uintptr_t only_ifx = reinterpret_cast<uintptr_t>(ifx_filter);
    if (only_ifx != 0 && only_ifx != noti->port_id)
        return 0;
    if (udp_vvlan_mac_check_noti(noti) != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:notify mac data is invalid.");
        return UDP_VVLAN_E_MESSAGE;
    }
    udp_vvlan_mac_print_noti(msg->operation, noti);
    int rv;
    if (msg->operation == KT_MOM_SET) {
        UDP_VVLAN_LOG_INFO("receive a KT_MOM_SET event.");
        rv = udp_vvlan_handler_set_mac_noti(1, noti);
    } else if (msg->operation == KT_MOM_DEL) {
        UDP_VVLAN_LOG_INFO("receive a KT_MOM_DEL event.");
        rv = udp_vvlan_handler_set_mac_noti(0, noti);
    } else {
        UDP_VVLAN_LOG_WARN("receive a unexpected event.");
        return UDP_VVLAN_E_UNEXPECTED;
    }
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:set mac_noti failed, rv = %d.", rv);
        return rv;
    }
    UDP_VVLAN_LOG_INFO("set mac_noti successfully.");
    return 0;
}

int udp_vvlan_mac_check_noti(const UBridge__MacVidRegNoti *noti)
{
    const UBridge__UdpL2addrBaseIndex &index = index_of(noti);
    if (index.t_fid != udp_vvlan_glb.vid || index.t_type != 0) {
        UDP_VVLAN_LOG_INFO("<check> vlan(%04u) unmatch vvlan(%04u) or type(%d).", index.t_fid,
                           udp_vvlan_glb.vid, index.t_type);
        return 0;
    }
    const size_t length = index.t_mac == nullptr ? 0 : index.t_mac->data.len;
    if (length != sizeof(udp_vvlan_mac_addr)) {
        UDP_VVLAN_LOG_ERROR("<check> mac length(%u) is error.", static_cast<unsigned>(length));
        return UDP_VVLAN_E_MESSAGE;
    }
    return 0;
}

void udp_vvlan_mac_print_noti(uint32_t operation, const UBridge__MacVidRegNoti *noti)
{
    const UBridge__UdpL2addrBaseIndex &index = index_of(noti);
    const udp_vvlan_mac_addr mac = mac_of(noti);
    UDP_VVLAN_LOG_INFO("<title> UBridge__MacVidRegNoti");
    UDP_VVLAN_LOG_INFO("<param> +operation: %d", operation);
    UDP_VVLAN_LOG_INFO("<param> +index field");
    UDP_VVLAN_LOG_INFO("<param>   -vlan: %04u", index.t_fid);
    UDP_VVLAN_LOG_INFO("<param>   -type: 0x%x", index.t_type);
/* %m is the platform's: it takes the six bytes, of which the compiler does not know. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    UDP_VVLAN_LOG_INFO("<param>   -mac: %m", mac.bytes);
#pragma GCC diagnostic pop
    if (operation != KT_MOM_SET) {
        UDP_VVLAN_LOG_INFO("<param> +value field");
        UDP_VVLAN_LOG_INFO("<param>   -port_type: 0x%x", noti->port_type);
        UDP_VVLAN_LOG_INFO("<param>   -ifx: %u", noti->port_id);
        UDP_VVLAN_LOG_INFO("<param>   -flag: 0x%x", noti->flag);
    }
}

int udp_vvlan_handler_set_mac_noti(uint32_t is_set, const UBridge__MacVidRegNoti *noti)
{
    const uint32_t ifx = noti->port_id;
    udp_vvlan_port_node *port = udp_vvlan_port_find(ifx);
    UDP_VVLAN_LOG_INFO("udp vvlan port get from ifx: %d, port is: %p!", ifx,
                       static_cast<const void *>(port));
    if (port == nullptr || !udp_vvlan_port_is_auto(port))
        return 0;
    if (udp_vvlan_list_is_empty(&port->mac_list))
        mark_joined_and_silent(port);
    const udp_vvlan_mac_addr mac = mac_of(noti);
    if (is_set != 0) {
        if (udp_vvlan_oui_match(&mac) == nullptr) {
            UDP_VVLAN_LOG_INFO("add mac(%s) to mac_hash fail!", raw(&mac).text);
            return 0;
        }
        udp_vvlan_mac_add(&mac, ifx);
    } else {
        if (udp_vvlan_mac_find(&mac) == nullptr) {
            UDP_VVLAN_LOG_INFO("mac(%s) not found", raw(&mac).text);
            return 0;
        }
        udp_vvlan_mac_del(&mac);
        if (udp_vvlan_list_is_empty(&port->mac_list))
            mark_joined_and_silent(port);
    }
    UDP_VVLAN_PORT_TRACE(UDP_VVLAN_LOG_INFO, port);
    return 0;
}

void udp_vvlan_mac_add(const udp_vvlan_mac_addr *mac, uint32_t ifx)
{
    udp_vvlan_port_node *port = udp_vvlan_port_find(ifx);
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:get port by ifx:%d fail !", ifx);
        return;
    }
    if (udp_vvlan_mac_node *record = udp_vvlan_mac_find(mac)) {
        udp_vvlan_port_node *old_port = udp_vvlan_port_find(record->ifx);
        if (old_port != nullptr && old_port != port && udp_vvlan_port_is_auto(old_port)) {
            move(record, port);
            if (udp_vvlan_list_is_empty(&old_port->mac_list))
                mark_silent(old_port);
        }
    } else {
        record = udp_vvlan_mac_insert(mac);
        if (record != nullptr) {
            record->ifx = ifx;
            udp_vvlan_list_add_tail(&port->mac_list, &record->link);
        } else {
            UDP_VVLAN_LOG_ERROR("Assert:add mac(%s) to mac_hash fail!", raw(mac).text);
        }
    }
    port->no_flw = 0;
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_MAC_AGED, false);
}

void udp_vvlan_mac_del(const udp_vvlan_mac_addr *mac)
{
    udp_vvlan_mac_node *record = udp_vvlan_mac_find(mac);
    if (record == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:not find mac(%s) in mac_hash fail!", raw(mac).text);
        return;
    }
    take_out(record, true);
}

int udp_vvlan_port_mac(udp_vvlan_port_node *port)
{
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR("pointer NULL!");
        return UDP_VVLAN_NULL_RECORD;
    }
    if (!udp_vvlan_list_is_empty(&port->mac_list))
        return 0;
    mark_joined_and_silent(port);
    UDP_VVLAN_PORT_TRACE_FLAGS(UDP_VVLAN_LOG_DEBUG, port);
    return 0;
}

int udp_vvlan_del_oui_mac(udp_vvlan_mac_node *record, const vvlan_oui *oui)
{
    if (record == nullptr) {
        UDP_VVLAN_LOG_ERROR("pointer NULL!");
        return UDP_VVLAN_NULL_RECORD;
    }
    for (size_t i = 0; i < sizeof record->mac.bytes; i++) {
        if ((record->mac.bytes[i] & oui->mask.bytes[i]) != oui->mac.bytes[i])
            return 0;
    }
    udp_vvlan_port_node *port = udp_vvlan_port_find(record->ifx);
    take_out(record, false);
    if (port == nullptr || !udp_vvlan_port_is_auto(port))
        return 0;
    if (udp_vvlan_list_is_empty(&port->mac_list))
        mark_silent(port);
    UDP_VVLAN_PORT_TRACE_FLAGS(UDP_VVLAN_LOG_INFO, port);
    return 0;
}

udp_vvlan_mac_node *udp_vvlan_mac_find(const udp_vvlan_mac_addr *mac)
{
    return udp_vvlan_mac_map == nullptr ? nullptr : udp_vvlan_hmap_find(udp_vvlan_mac_map, *mac);
}

udp_vvlan_mac_node *udp_vvlan_mac_insert(const udp_vvlan_mac_addr *mac)
{
    if (udp_vvlan_mac_map == nullptr)
        return nullptr;
    udp_vvlan_mac_node *record = udp_vvlan_hmap_put(udp_vvlan_mac_map, *mac);
    if (record != nullptr && record->link.next == nullptr)
        udp_vvlan_list_init(&record->link);
    return record;
}

void udp_vvlan_mac_remove(const udp_vvlan_mac_addr *mac)
{
    if (udp_vvlan_mac_node *record = udp_vvlan_mac_find(mac))
        take_out(record, true);
}

udp_vvlan_mac_node *udp_vvlan_mac_node_op(const udp_vvlan_mac_node *key, uint32_t add)
{
    if (add == 0) {
        udp_vvlan_mac_remove(&key->mac);
        return nullptr;
    }
    udp_vvlan_mac_node *record = udp_vvlan_mac_insert(&key->mac);
    if (record != nullptr)
        record->ifx = key->ifx;
    return record;
}

int udp_vvlan_mac_foreach(int (*function)(udp_vvlan_mac_node *, void *), void *argument)
{
    return udp_vvlan_mac_map == nullptr
               ? 0
               : udp_vvlan_hmap_walk(udp_vvlan_mac_map, function, argument);
}

namespace
{

const ProtobufCMessage *noti_key_init(noti_key *key)
{
    u_bridge__udp_l2addr_base_index__init(&key->index);
    u_bridge__mac_vid_reg_noti__init(&key->noti);
    key->index.t_fid = udp_vvlan_glb.vid;
    key->noti.index = &key->index;
    return &key->noti.base;
}

const ProtobufCMessage *reg_key_init(reg_key *key, uint32_t vid)
{
    u_bridge__mac_vid_index__init(&key->index);
    u_bridge__mac_vid_reg__init(&key->reg);
    key->index.vid = vid;
    key->reg.index = &key->index;
    return &key->reg.base;
}

/*
 * The section covers every registration (VLAN id 0), so that one of an earlier
 * voice VLAN goes when the section ends.
 */
int begin_section(kt_global *global, void *user)
{
    reg_key key;
    return kt_mom_dsbegin_ow(global, UDP_VVLAN_MAC_DB, reg_key_init(&key, 0), KT_MOM_MATCH_EXACT,
                             UDP_VVLAN_SECTION_EXPIRE, udp_vvlan_mac_subscribe_callback, user,
                             WAIT_MILLISECONDS);
}

void end_section(kt_global *global)
{
    reg_key key;
    kt_mom_dsend_ow(global, UDP_VVLAN_MAC_DB, reg_key_init(&key, 0), KT_MOM_MATCH_EXACT, nullptr,
                    nullptr, WAIT_MILLISECONDS);
}

int write_registration(void)
{
    reg_key key;
    return kt_mom_setow(udp_vvlan_global, UDP_VVLAN_MAC_DB, reg_key_init(&key, udp_vvlan_glb.vid),
                        0, 0, WAIT_MILLISECONDS);
}

int delete_registration(void)
{
    reg_key key;
    return kt_mom_del_ow(udp_vvlan_global, UDP_VVLAN_MAC_DB, reg_key_init(&key, udp_vvlan_glb.vid),
                         0, 0, WAIT_MILLISECONDS);
}

const UBridge__UdpL2addrBaseIndex &index_of(const UBridge__MacVidRegNoti *noti)
{
    return noti->index == nullptr ? NO_INDEX : *noti->index;
}

/* The address, zero-filled where it is short: one of another VLAN is not checked. */
udp_vvlan_mac_addr mac_of(const UBridge__MacVidRegNoti *noti)
{
    udp_vvlan_mac_addr mac = {};
    const PLibpub__Mac *t_mac = index_of(noti).t_mac;
    if (t_mac != nullptr && t_mac->data.len != 0)
        std::memcpy(mac.bytes, t_mac->data.data, std::min(t_mac->data.len, sizeof mac.bytes));
    return mac;
}

raw_mac raw(const udp_vvlan_mac_addr *mac)
{
    raw_mac result = {};
    std::memcpy(result.text, mac->bytes, sizeof mac->bytes);
    return result;
}

/* The port has no voice MAC any more; silence counts from now. */
void mark_silent(udp_vvlan_port_node *port)
{
    port->no_flw = 0;
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_MAC_AGED, true);
}

void mark_joined_and_silent(udp_vvlan_port_node *port)
{
    mark_silent(port);
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_DENY_EN, false);
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_AUTO_JOIN, true);
}

void move(udp_vvlan_mac_node *record, udp_vvlan_port_node *to)
{
    record->ifx = to->ifx;
    udp_vvlan_list_del(&record->link);
    udp_vvlan_list_add_tail(&to->mac_list, &record->link);
}

/*
 * Takes a record out of its port's list and the table, and frees it. The link
 * is poisoned where somebody may be following the list, so that it shows in a
 * crash dump. The walk over the table that deletes the MACs of an OUI follows
 * no list; its records are left pointing at themselves.
 */
void take_out(udp_vvlan_mac_node *record, bool poison)
{
    udp_vvlan_list_del(&record->link);
    if (poison)
        udp_vvlan_list_poison(&record->link);
    udp_vvlan_hmap_del(udp_vvlan_mac_map, record->mac);
}

} // namespace
