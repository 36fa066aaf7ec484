#include "app/proc/udp_vvlan_oui.h"

#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_err.h"
#include "app/proc/udp_vvlan_fp.h"
#include "app/proc/udp_vvlan_mac.h"
#include "app/proc/udp_vvlan_port.h"
#include "platform/kt_mom.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"

namespace
{

/* What most OUIs are: the three bytes that the registry assigns. It wins over all others. */
constexpr uint32_t PREFIX_FIRST = 24;

/*
 * An address in one word, in the order of memory: masked and compared at once.
 * Two loads, since one through a buffer on the stack would wait for its stores.
 */
uint64_t word_of(const udp_vvlan_mac_addr *mac)
{
    uint32_t first;
    uint16_t last;
    std::memcpy(&first, mac->bytes, sizeof first);
    std::memcpy(&last, mac->bytes + sizeof first, sizeof last);
    return first | uint64_t{last} << 32;
}

/* The bucket is the sum of the six bytes modulo 16, to which only low halves contribute. */
udp_vvlan_link *bucket_of(uint64_t masked)
{
    const uint64_t sum = (masked & 0x0F0F0F0F0F0F) * 0x010101010101 >> 40;
    return &vvlan_oui_table.buckets[sum % UDP_VVLAN_OUI_BUCKETS];
}

constexpr udp_vvlan_mac_addr prefix_mask(uint32_t length)
{
    udp_vvlan_mac_addr mask = {};
    for (uint32_t i = 0; i < length / 8; i++)
        mask.bytes[i] = 0xFF;
    if (length / 8 < sizeof mask.bytes)
        mask.bytes[length / 8] = static_cast<uint8_t>(0xFF << (8 - length % 8));
    return mask;
}

constexpr auto PREFIX_MASKS = [] {
    std::array<udp_vvlan_mac_addr, UDP_VVLAN_OUI_PREFIX_MAX + 1> masks = {};
    for (uint32_t length = 0; length < masks.size(); length++)
        masks[length] = prefix_mask(length);
    return masks;
}();

vvlan_oui *node_of(udp_vvlan_link *link)
{
    static_assert(offsetof(vvlan_oui, link) == 0);
    return reinterpret_cast<vvlan_oui *>(link);
}

bool has_prefix(uint32_t length)
{
    return (vvlan_oui_table.prefix_present >> length & 1) != 0;
}

vvlan_oui *find(uint64_t mac, uint64_t mask);
vvlan_oui *find_prefix(uint64_t mac, uint32_t length);
void count_prefix(const udp_vvlan_mac_addr *mask, bool add);
vvlan_oui *link_new(const udp_vvlan_mac_addr *mac, const udp_vvlan_mac_addr *mask);

} // namespace

void udp_vvlan_oui_init(void)
{
    vvlan_oui_table = {};
    for (udp_vvlan_link &bucket : vvlan_oui_table.buckets)
        udp_vvlan_list_init(&bucket);
}

int udp_vvlan_mac_init(void)
{
    udp_vvlan_mac_map =
        static_cast<udp_vvlan_mac_map_type *>(std::calloc(1, sizeof(udp_vvlan_mac_map_type)));
    return 0;
}

vvlan_oui *udp_vvlan_oui_find(const udp_vvlan_mac_addr *mac, const udp_vvlan_mac_addr *mask)
{
    return find(word_of(mac), word_of(mask));
}

vvlan_oui *udp_vvlan_oui_match(const udp_vvlan_mac_addr *mac)
{
    const uint64_t word = word_of(mac);
    if (has_prefix(PREFIX_FIRST)) {
        if (vvlan_oui *node = find_prefix(word, PREFIX_FIRST))
            return node;
    }
    uint64_t lengths = vvlan_oui_table.prefix_present & ~(uint64_t{1} << PREFIX_FIRST);
    while (lengths != 0) {
        const auto length = static_cast<uint32_t>(std::bit_width(lengths)) - 1;
        if (vvlan_oui *node = find_prefix(word, length))
            return node;
        lengths &= ~(uint64_t{1} << length);
    }
    return nullptr;
}

void udp_vvlan_oui_prefix_mask(uint32_t length, udp_vvlan_mac_addr *out)
{
    *out = prefix_mask(length);
}

vvlan_oui *udp_vvlan_oui_add_node(const udp_vvlan_mac_addr *mac, const udp_vvlan_mac_addr *mask)
{
    UDP_VVLAN_LOG_INFO("<+param>, mac :%02X%02X.%02X%02X.%02X%02X", mac->bytes[0], mac->bytes[1],
                       mac->bytes[2], mac->bytes[3], mac->bytes[4], mac->bytes[5]);
    UDP_VVLAN_LOG_INFO("<+param>, mask:%02X%02X.%02X%02X.%02X%02X", mask->bytes[0], mask->bytes[1],
                       mask->bytes[2], mask->bytes[3], mask->bytes[4], mask->bytes[5]);
    if (vvlan_oui *known = udp_vvlan_oui_find(mac, mask))
        return known;
    vvlan_oui *node = link_new(mac, mask);
    if (node == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:malloc OUI fail");
        return nullptr;
    }
    node->ace_id = udp_vvlan_alloc_ace_id();
    UDP_VVLAN_LOG_DEBUG("ace_id=%d", node->ace_id);
    udp_vvlan_oui_set_db(node, 1);
    const int cos = udp_vvlan_set_cos_ace(&udp_vvlan_cos_acl, node, 1);
    if (cos != 0)
        UDP_VVLAN_LOG_WARN("add cos_ace fail !");
    const int mvlan = udp_vvlan_set_mvlan_ace(&udp_vvlan_mvlan_acl, node, 1);
    if (cos != 0 || mvlan != 0) {
        UDP_VVLAN_LOG_WARN("add mvlan_ace fail !");
        UDP_VVLAN_LOG_WARN("add oui node fail !");
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_OUI_CONFIG, node);
    } else {
        udp_vvlan_port_foreach(udp_vvlan_port_cfg_sec);
    }
    return node;
}

void udp_vvlan_oui_del_node(vvlan_oui *node)
{
    udp_vvlan_free_ace_id(node->ace_id);
    const int cos = udp_vvlan_set_cos_ace(&udp_vvlan_cos_acl, node, 0);
    const int mvlan = udp_vvlan_set_mvlan_ace(&udp_vvlan_mvlan_acl, node, 0);
    UDP_VVLAN_LOG_INFO("rv = %d.", cos | mvlan);
    udp_vvlan_oui_set_db(node, 0);
    udp_vvlan_mac_foreach(
        [](udp_vvlan_mac_node *record, void *oui) {
            return udp_vvlan_del_oui_mac(record, static_cast<const vvlan_oui *>(oui));
        },
        node);
    count_prefix(&node->mask, false);
    udp_vvlan_list_del(&node->link);
    std::free(node);
}

int udp_vvlan_oui_set_ace(uint32_t add)
{
    for (udp_vvlan_link &head : vvlan_oui_table.buckets) {
        for (udp_vvlan_link *link = head.next; link != &head; link = link->next) {
            int rv = udp_vvlan_set_cos_ace(&udp_vvlan_cos_acl, node_of(link), add);
            if (rv != 0) {
                UDP_VVLAN_LOG_ERROR("Assert:add cos_ace fail !");
                return rv;
            }
            rv = udp_vvlan_set_mvlan_ace(&udp_vvlan_mvlan_acl, node_of(link), add);
            if (rv != 0) {
                UDP_VVLAN_LOG_ERROR("Assert:add mvlan_ace fail !");
                return rv;
            }
        }
    }
    return 0;
}

void udp_vvlan_oui_set_cos(void)
{
    UDP_VVLAN_LOG_INFO("update all ace about cos.");
    const int rv = udp_vvlan_oui_foreach(
        [](vvlan_oui *node, void *) { return udp_vvlan_set_cos_ace(&udp_vvlan_cos_acl, node, 1); },
        nullptr);
    if (rv != 0) {
        UDP_VVLAN_LOG_WARN("add cos_ace fail !");
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_QOS_CONFIG, nullptr);
    }
}

void udp_vvlan_oui_set_db(const vvlan_oui *node, uint32_t add)
{
    UDP_VVLAN_LOG_INFO("set OuiCfg to KT_MOM_UDP_DB db. add=%d", add);
    udp_vvlan_mac_addr bytes[] = {node->mac, node->mask};
    PLibpub__Mac mac, mask;
    p_libpub__mac__init(&mac);
    p_libpub__mac__init(&mask);
    mac.data = {sizeof bytes[0].bytes, bytes[0].bytes};
    mask.data = {sizeof bytes[1].bytes, bytes[1].bytes};
    UBridge__BOui oui;
    u_bridge__b_oui__init(&oui);
    oui.mac = &mac;
    oui.mask = &mask;
    UBridge__VvlanOuiCfgIndex index;
    u_bridge__vvlan_oui_cfg_index__init(&index);
    index.ace_id = node->ace_id;
    UBridge__VvlanOuiCfg cfg;
    u_bridge__vvlan_oui_cfg__init(&cfg);
    cfg.index = &index;
    cfg.oui = &oui;
    const auto write = add != 0 ? kt_mom_set : kt_mom_del;
    if (write(udp_vvlan_global, KT_MOM_UDP_DB, &cfg.base, 0, 0) != 0)
        UDP_VVLAN_LOG_ERROR("Assert: set OuiCfg to mom error!");
}

int udp_vvlan_oui_foreach(int (*function)(vvlan_oui *, void *), void *argument)
{
    for (udp_vvlan_link &head : vvlan_oui_table.buckets) {
        if (head.next == nullptr)
            continue; /* not initialised yet, and yet a dump may be asked for */
        for (udp_vvlan_link *link = head.next; link != &head; link = link->next) {
            const int rv = function(node_of(link), argument);
            if (rv != 0)
                return rv;
        }
    }
    return 0;
}

namespace
{

vvlan_oui *find(uint64_t mac, uint64_t mask)
{
    udp_vvlan_link *head = bucket_of(mac & mask);
    for (udp_vvlan_link *link = head->next; link != head; link = link->next) {
        vvlan_oui *node = node_of(link);
        if (word_of(&node->mac) == mac && word_of(&node->mask) == mask)
            return node;
    }
    return nullptr;
}

vvlan_oui *find_prefix(uint64_t mac, uint32_t length)
{
    const uint64_t mask = word_of(&PREFIX_MASKS[length]);
    return find(mac & mask, mask);
}

/* Counts an entry with this mask in or out; a mask that is no prefix is not counted. */
void count_prefix(const udp_vvlan_mac_addr *mask, bool add)
{
    uint32_t length = UDP_VVLAN_OUI_PREFIX_MAX;
    while (length > 0 && word_of(mask) != word_of(&PREFIX_MASKS[length]))
        length--;
    if (length == 0)
        return;
    uint32_t &count = vvlan_oui_table.prefix_count[length];
    count += add ? 1U : -1U;
    const uint64_t bit = uint64_t{1} << length;
    if (count != 0)
        vvlan_oui_table.prefix_present |= bit;
    else
        vvlan_oui_table.prefix_present &= ~bit;
}

vvlan_oui *link_new(const udp_vvlan_mac_addr *mac, const udp_vvlan_mac_addr *mask)
{
    auto *node = static_cast<vvlan_oui *>(std::calloc(1, sizeof(vvlan_oui)));
    if (node == nullptr)
        return nullptr;
    node->mac = *mac;
    node->mask = *mask;
    udp_vvlan_list_add_tail(bucket_of(word_of(mac) & word_of(mask)), &node->link);
    count_prefix(mask, true);
    return node;
}

} // namespace
