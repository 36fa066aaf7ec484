#include "app/proc/udp_vvlan_port.h"

#include <cstdlib>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_err.h"
#include "app/proc/udp_vvlan_fp.h"
#include "app/proc/udp_vvlan_mac.h"
#include "app/proc/udp_vvlan_recover.h"
#include "platform/kt_mom.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"

namespace
{

bool is_enabled(const udp_vvlan_port_node *port)
{
    return udp_vvlan_port_has(port, UDP_VVLAN_PORT_VVLAN_EN);
}

bool is_auto_mode(const udp_vvlan_port_node *port)
{
    return udp_vvlan_port_has(port, UDP_VVLAN_PORT_AUTO_MOD);
}

/* Whether both ACLs that treat voice traffic exist. */
bool are_acls_created(void)
{
    return udp_vvlan_cos_acl.created != 0 && udp_vvlan_mvlan_acl.created != 0;
}

int apply_cos(const udp_vvlan_port_node *port, uint32_t add)
{
    return udp_vvlan_apply_cos_acl(&udp_vvlan_cos_acl, port->phyid, add);
}

int apply_mvlan(const udp_vvlan_port_node *port, uint32_t add)
{
    return udp_vvlan_apply_mvlan_acl(&udp_vvlan_mvlan_acl, port->phyid, add);
}

int apply_sec(const udp_vvlan_port_node *port, uint32_t add)
{
    return udp_vvlan_apply_sec_acl(&udp_vvlan_sec_acl, port->phyid, add);
}

int write_trap(uint32_t ifx, uint32_t add);
int write_membership(uint32_t ifx, uint32_t add);
void record_join(uint32_t ifx, uint32_t add);
bool is_kept_joined(const udp_vvlan_port_node *port);
int treat_as_joined(udp_vvlan_port_node *port);
int treat_as_trapped(udp_vvlan_port_node *port);

} // namespace

int udp_vvlan_port_init(void)
{
    udp_vvlan_port_map =
        static_cast<udp_vvlan_port_map_type *>(std::calloc(1, sizeof(udp_vvlan_port_map_type)));
    return 0;
}

udp_vvlan_port_node *udp_vvlan_port_find(uint32_t ifx)
{
    return udp_vvlan_port_map == nullptr ? nullptr : udp_vvlan_hmap_find(udp_vvlan_port_map, ifx);
}

udp_vvlan_port_node *udp_vvlan_port_node_op(const udp_vvlan_port_node *key, uint32_t add)
{
    if (udp_vvlan_port_map == nullptr)
        return nullptr;
    if (add == 0) {
        udp_vvlan_hmap_del(udp_vvlan_port_map, key->ifx);
        return nullptr;
    }
    if (udp_vvlan_port_node *known = udp_vvlan_port_find(key->ifx))
        return known;
    udp_vvlan_port_node *port = udp_vvlan_hmap_put(udp_vvlan_port_map, key->ifx);
    if (port != nullptr) {
        *port = *key;
        udp_vvlan_list_init(&port->mac_list);
    }
    return port;
}

int udp_vvlan_port_foreach(int (*function)(udp_vvlan_port_node *, void *), void *argument)
{
    return udp_vvlan_port_map == nullptr
               ? 0
               : udp_vvlan_hmap_walk(udp_vvlan_port_map, function, argument);
}

int udp_vvlan_port_foreach(int (*function)(udp_vvlan_port_node *))
{
    return udp_vvlan_port_foreach(
        [](udp_vvlan_port_node *port, void *operation) {
            return (*static_cast<decltype(function) *>(operation))(port);
        },
        &function);
}

int udp_vvlan_port_cfg(udp_vvlan_port_node *port)
{
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR("pointer NULL!");
        return UDP_VVLAN_NULL_RECORD;
    }
    UDP_VVLAN_LOG_INFO(" mod=%d, deny_en=%d, mac_aged=%d, auto_join=%d ", is_auto_mode(port),
                       udp_vvlan_port_has(port, UDP_VVLAN_PORT_DENY_EN),
                       udp_vvlan_port_has(port, UDP_VVLAN_PORT_MAC_AGED),
                       udp_vvlan_port_has(port, UDP_VVLAN_PORT_AUTO_JOIN));
    if (is_enabled(port)) {
        if (udp_vvlan_glb.enable == 0)
            return 0;
        if (udp_vvlan_port_aply_acl(port, is_auto_mode(port)) != 0) {
            UDP_VVLAN_LOG_WARN("set port_cfg(ifx=%d) fail!", port->ifx);
            udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_PORT_ENABLE,
                                        &port->ifx);
        }
        if (is_auto_mode(port)) {
            udp_vvlan_mac_scan(port->ifx);
            return 0;
        }
    } else {
        int rv = udp_vvlan_port_unaply_acl(port);
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR("Assert:set vvlan en del fail!");
            return rv;
        }
        rv = is_auto_mode(port) ? udp_vvlan_port_join_vvlan(port, 0) : 0;
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR("Assert:remove port(ifx:%d) from vvlan fail!", port->ifx);
            return rv;
        }
    }
    udp_vvlan_port_clear_mac(port, 0);
    return 0;
}

int udp_vvlan_port_remove_vvlan(udp_vvlan_port_node *port)
{
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR("pointer NULL!");
        return UDP_VVLAN_NULL_RECORD;
    }
    udp_vvlan_port_unaply_acl(port);
    udp_vvlan_port_clear_mac(port, 0);
    if (udp_vvlan_port_has(port, UDP_VVLAN_PORT_AUTO_MOD | UDP_VVLAN_PORT_AUTO_JOIN)) {
        udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_AUTO_JOIN, false);
        const int rv = write_membership(port->ifx, 0);
        record_join(port->ifx, 0);
        return rv;
    }
    if (udp_vvlan_port_has(port, UDP_VVLAN_PORT_AUTO_MOD | UDP_VVLAN_PORT_DENY_EN))
        udp_vvlan_port_set_trap(port, 0);
    return 0;
}

int udp_vvlan_port_join_vvlan(udp_vvlan_port_node *port, uint32_t add)
{
    UDP_VVLAN_LOG_INFO("port=%d add=%d", port->ifx, add);
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_DENY_EN, add == 0);
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_AUTO_JOIN, add != 0);
    record_join(port->ifx, add);
    const auto join = [port, add] { return write_membership(port->ifx, add); };
    if (join() != 0)
        return udp_vvlan_call_again(UDP_VVLAN_HERE, join);
    const auto trap = [port, add] { return udp_vvlan_port_set_trap(port, add == 0); };
    if (is_enabled(port) && trap() != 0)
        return udp_vvlan_call_again(UDP_VVLAN_HERE, trap);
    int rv = apply_cos(port, add);
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:apply cos fail");
        return rv;
    }
    rv = apply_mvlan(port, add);
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:apply mvlan fail");
    return rv;
}

int udp_vvlan_port_set_trap(udp_vvlan_port_node *port, uint32_t add)
{
    udp_vvlan_port_set_flags(port, UDP_VVLAN_PORT_DENY_EN, add != 0);
    if (write_trap(port->ifx, add) != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:port(ifx: %d) set(add: %d) vvlan(%d) fail.", port->ifx, add,
                            udp_vvlan_glb.vid);
        return UDP_VVLAN_E_WRITE;
    }
    UDP_VVLAN_LOG_INFO("port(ifx: %d) set(add: %d) vvlan(%d) successful.", port->ifx, add,
                       udp_vvlan_glb.vid);
    return 0;
}

int udp_vvlan_port_aply_acl(udp_vvlan_port_node *port, uint32_t auto_mod)
{
    UDP_VVLAN_LOG_INFO("auto_mod=%d ", auto_mod);
    if (are_acls_created()) {
        int rv;
        if (auto_mod == 0 || is_kept_joined(port)) {
            rv = treat_as_joined(port);
            UDP_VVLAN_LOG_INFO("cos/mvlan apply acl ,rv:%d", rv);
        } else {
            rv = treat_as_trapped(port);
            UDP_VVLAN_LOG_INFO("trap_to_cpu apply acl ,rv:%d", rv);
        }
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR("Assert:set trap_cpu acl fail");
            return rv;
        }
    }
    if (udp_vvlan_sec_acl.created != 0) {
        UDP_VVLAN_LOG_INFO("sec_fp apply acl ,rv:%d", 0);
        const int rv = apply_sec(port, 1);
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR("Assert:udp_vvlan_apply_sec_acl fail");
            return rv;
        }
    }
    UDP_VVLAN_LOG_INFO("apply acl ,rv:%d", 0);
    return 0;
}

int udp_vvlan_port_unaply_acl(udp_vvlan_port_node *port)
{
    int rv = 0;
    if (are_acls_created()) {
        if (udp_vvlan_port_has(port, UDP_VVLAN_PORT_AUTO_MOD | UDP_VVLAN_PORT_DENY_EN))
            rv = udp_vvlan_port_set_trap(port, 0);
        rv |= apply_cos(port, 0);
        rv |= apply_mvlan(port, 0);
    }
    if (udp_vvlan_sec_acl.created == 0)
        return rv;
    rv = apply_sec(port, 0);
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:unaply_acl fail");
    return rv;
}

int udp_vvlan_port_cfg_sec(udp_vvlan_port_node *port)
{
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR("pointer NULL!");
        return UDP_VVLAN_NULL_RECORD;
    }
    if (!is_enabled(port))
        return 0;
    UDP_VVLAN_LOG_INFO("vvlan_en=%d, mod=%d ", is_enabled(port), is_auto_mode(port));
    if (udp_vvlan_glb.enable == 0 || !are_acls_created())
        return 0;
    const int rv = is_auto_mode(port) ? udp_vvlan_port_set_trap(port, 1) : treat_as_joined(port);
    UDP_VVLAN_LOG_INFO("apply acl ,rv:%d", rv);
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:set trap_cpu acl fail");
    return rv;
}

int udp_vvlan_port_set_sec(udp_vvlan_port_node *port)
{
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR("pointer NULL!");
        return UDP_VVLAN_NULL_RECORD;
    }
    if (!is_enabled(port))
        return 0;
    const int rv = apply_sec(port, 1);
    UDP_VVLAN_LOG_INFO("rv = %d", rv);
    if (rv != 0)
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_SECURITY_MOD, nullptr);
    return 0;
}

int udp_vvlan_port_clear_mac(udp_vvlan_port_node *port, uint32_t flag)
{
    static_cast<void>(flag);
    if (port == nullptr) {
        UDP_VVLAN_LOG_ERROR("pointer NULL!");
        return UDP_VVLAN_NULL_RECORD;
    }
    udp_vvlan_link *head = &port->mac_list;
    for (udp_vvlan_link *link = head->next, *next; link != head; link = next) {
        next = link->next;
        udp_vvlan_mac_node_op(udp_vvlan_mac_node_of(link), 0);
    }
    return 0;
}

namespace
{

int write_trap(uint32_t ifx, uint32_t add)
{
    UBridge__VvlanIndex index;
    u_bridge__vvlan_index__init(&index);
    index.ifx = ifx;
    UBridge__VvlanPortCfg record;
    u_bridge__vvlan_port_cfg__init(&record);
    record.index = &index;
    const auto write = add != 0 ? kt_mom_set : kt_mom_del;
    return write(udp_vvlan_global, KT_MOM_UDP_DB, &record.base, 0, 0);
}

int write_membership(uint32_t ifx, uint32_t add)
{
    PBridge__VvlanIndex index;
    p_bridge__vvlan_index__init(&index);
    index.ifx = ifx;
    PBridge__VvlanPortAuto record;
    p_bridge__vvlan_port_auto__init(&record);
    record.index = &index;
    record.enable = add != 0;
    const auto write = add != 0 ? kt_mom_set : kt_mom_del;
    return write(udp_vvlan_global, UDP_VVLAN_CFG_DB, &record.base, 0, 0);
}

/* Keeps the join record, by which a later process knows that the port is joined, and its entry. */
void record_join(uint32_t ifx, uint32_t add)
{
    udp_vvlan_set_vvlan_join(add, ifx);
    if (add != 0)
        udp_vvlan_recover_add(ifx);
    else
        udp_vvlan_recover_del(ifx);
}

/* Whether the port was joined before a restart and its configuration may still be replayed. */
bool is_kept_joined(const udp_vvlan_port_node *port)
{
    return udp_vvlan_scan_over.port_cfg == 0 && udp_vvlan_recover_find(port->ifx) != nullptr;
}

int treat_as_joined(udp_vvlan_port_node *port)
{
    int rv = udp_vvlan_port_set_trap(port, 0);
    rv |= apply_cos(port, 1);
    rv |= apply_mvlan(port, 1);
    return rv;
}

int treat_as_trapped(udp_vvlan_port_node *port)
{
    int rv = apply_cos(port, 0);
    rv |= apply_mvlan(port, 0);
    rv |= udp_vvlan_port_set_trap(port, 1);
    return rv;
}

} // namespace
