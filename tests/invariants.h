/*
 * invariants - what must hold of the daemon's tables between any two callbacks.
 *
 * table_fault() walks every table and list, bounded, and returns what is wrong
 * in words, or an empty text. Tables that do not exist yet are fine.
 */
#ifndef TESTS_INVARIANTS_H
#define TESTS_INVARIANTS_H

#include <bit>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "app/proc/udp_vvlan_oui.h"
#include "app/proc/udp_vvlan_state.h"

namespace invariants
{

constexpr size_t LIST_MAX = 1'000'000;

/* The links of a circular list, or the fault of one that is not. */
inline std::string collect(const udp_vvlan_link *head, std::vector<const udp_vvlan_link *> &links)
{
    for (const udp_vvlan_link *at = head; links.size() < LIST_MAX; at = at->next) {
        if (at->next->prev != at)
            return "a list is torn";
        if (at->next == head)
            return {};
        links.push_back(at->next);
    }
    return "a list does not end";
}

/* Walks a map; every record is handed to `visit`, which returns its fault. */
template <auto Member, typename Visit>
std::string map_fault(udp_vvlan_hmap<Member> *map, const char *name, Visit visit)
{
    using Record = typename udp_vvlan_hmap<Member>::record_type;
    if (map == nullptr)
        return {};
    struct Walk {
        udp_vvlan_hmap<Member> *map;
        Visit *visit;
        size_t count;
        std::string fault;
    } walk{map, &visit, 0, {}};
    udp_vvlan_hmap_walk(
        map,
        +[](Record *record, Walk *state) {
            state->count++;
            state->fault = udp_vvlan_hmap_find(state->map, record->*Member) == record
                               ? (*state->visit)(*record)
                               : "a record is not found by its key";
            return state->fault.empty() ? 0 : 1;
        },
        &walk);
    if (walk.fault.empty() && walk.count != map->size)
        walk.fault = "its size is not what a walk counts";
    if (walk.fault.empty() && map->occupied < map->size)
        walk.fault = "more live buckets than occupied ones";
    return walk.fault.empty() ? "" : std::string(name) + ": " + walk.fault;
}

/* Ports and MACs: every MAC is in the list of the port of its ifx and no other, or in none. */
inline std::string mac_fault()
{
    std::map<const udp_vvlan_link *, uint32_t> port_of;
    std::string fault = map_fault(udp_vvlan_port_map, "ports", [&](udp_vvlan_port_node &port) {
        std::vector<const udp_vvlan_link *> links;
        std::string torn = collect(&port.mac_list, links);
        for (const udp_vvlan_link *link : links) {
            if (!port_of.emplace(link, port.ifx).second)
                torn = "a MAC is in two lists";
        }
        return torn;
    });
    if (!fault.empty())
        return fault;
    fault = map_fault(udp_vvlan_mac_map, "MACs", [&](udp_vvlan_mac_node &mac) -> std::string {
        const auto at = port_of.find(&mac.link);
        if (at == port_of.end())
            return mac.link.next == &mac.link ? "" : "a MAC in no port's list is linked";
        const bool own = at->second == mac.ifx;
        port_of.erase(at);
        return own ? "" : "a MAC is in another port's list";
    });
    return fault.empty() && !port_of.empty() ? "a port's list holds what is no MAC" : fault;
}

/* The length of a prefix mask, or 0 for no prefix. */
inline size_t prefix_length(const udp_vvlan_mac_addr &mask)
{
    uint64_t word = 0;
    for (const uint8_t byte : mask.bytes)
        word = word << 8 | byte;
    const auto length = static_cast<size_t>(std::popcount(word));
    return word << 16 == (length == 0 ? 0 : ~uint64_t{0} << (64 - length)) ? length : 0;
}

/* OUIs: ids are unique or 0 and are those of the bitmap; the prefix counters agree. */
inline std::string oui_fault()
{
    if (vvlan_oui_table.buckets[0].next == nullptr)
        return {}; /* before the initialisation */
    std::set<uint32_t> ids;
    std::vector<uint32_t> lengths(UDP_VVLAN_OUI_PREFIX_MAX + 1, 0);
    for (size_t bucket = 0; bucket < UDP_VVLAN_OUI_BUCKETS; bucket++) {
        std::vector<const udp_vvlan_link *> links;
        if (std::string torn = collect(&vvlan_oui_table.buckets[bucket], links); !torn.empty())
            return "OUIs: " + torn;
        for (const udp_vvlan_link *link : links) {
            static_assert(offsetof(vvlan_oui, link) == 0);
            const auto &oui = *reinterpret_cast<const vvlan_oui *>(link);
            size_t sum = 0;
            for (size_t at = 0; at < sizeof oui.mac.bytes; at++)
                sum += oui.mac.bytes[at] & oui.mask.bytes[at];
            if (sum % UDP_VVLAN_OUI_BUCKETS != bucket)
                return "an OUI is in another bucket than its own";
            if (oui.ace_id != 0 && !ids.insert(oui.ace_id).second)
                return "two OUIs have one ACE id";
            lengths[prefix_length(oui.mask)]++;
        }
    }
    for (uint32_t id = 0; id < UDP_VVLAN_ACE_ID_COUNT; id++) {
        if (((vvlan_ace_ids[id / 8] >> id % 8 & 1) != 0) != ids.contains(id))
            return "ACE id " + std::to_string(id) + " is taken without its OUI, or free with it";
    }
    for (size_t length = 1; length < lengths.size(); length++) {
        if (lengths[length] != vvlan_oui_table.prefix_count[length])
            return "the counter of prefix length " + std::to_string(length) + " is wrong";
    }
    return {};
}

inline std::string table_fault()
{
    std::string fault = mac_fault();
    if (fault.empty())
        fault = oui_fault();
    if (fault.empty())
        fault = map_fault(udp_vvlan_recover_db, "recovery",
                          [](udp_vvlan_recover_entry &) { return std::string(); });
    return fault;
}

} // namespace invariants

#endif
