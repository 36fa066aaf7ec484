#include "app/proc/udp_vvlan_state.h"

#include <cstdlib>

namespace
{

constexpr udp_vvlan_state start_values()
{
    udp_vvlan_state state = {};
    state.debug_level = 1;
    state.start_table = {
        {UDP_VVLAN_CFG_DB, UDP_VVLAN_PORT_NOTI_DB, UDP_VVLAN_MAC_DB, KT_MOM_UDP_DB},
        "/var/tmp/udp_vvlan_debug"};
    return state;
}

/* Frees the records that start with, or hold, a link; `offset` is where it lies. */
void free_list(udp_vvlan_link *head, size_t offset)
{
    if (head->next == nullptr)
        return;
    for (udp_vvlan_link *link = head->next; link != head;) {
        udp_vvlan_link *next = link->next;
        std::free(reinterpret_cast<char *>(link) - offset);
        link = next;
    }
}

void free_map(udp_vvlan_hmap_base *map)
{
    if (map == nullptr)
        return;
    udp_vvlan_hmap_free(map);
    std::free(map);
}

} // namespace

constinit udp_vvlan_state udp_vvlan_state_now = start_values();

void udp_vvlan_state_reset(void)
{
    udp_vvlan_state &state = udp_vvlan_state_now;
    free_list(&state.mom_status.nodes, offsetof(mom_status_node, link));
    for (udp_vvlan_link &bucket : state.oui_table.buckets)
        free_list(&bucket, offsetof(vvlan_oui, link));
    free_map(state.port_map);
    free_map(state.mac_map);
    free_map(state.recover_map);
    state = start_values();
}
