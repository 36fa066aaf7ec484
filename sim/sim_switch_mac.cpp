#include "sim/sim_switch_mac.h"

#include "proto/u_bridge.pb-c.h"
#include "sim/sim_loop.h"
#include "sim/sim_mom.h"
#include "sim/sim_switch.h"
#include "sim/sim_switch_view.h"

#include <algorithm>
#include <list>
#include <map>
#include <optional>
#include <unordered_map>

namespace sim
{
namespace
{

constexpr uint32_t MAC_DB = 6;
constexpr size_t BATCH = 1'024; /* entries that one job ages or reports */
constexpr Micros AGING_DEFAULT = 300 * SECOND;
constexpr int VID_SHIFT = 48;

using Key = uint64_t; /* VLAN, then address: sorts as both do */
using Unseen = std::list<Key>;

struct Entry {
    uint32_t ifx;
    Micros seen;
    std::optional<uint32_t> told; /* what its notice in the database names, if there is one */
    Unseen::iterator place;
};

struct Table {
    std::map<Key, Entry> entries;
    Unseen unseen;                                 /* longest first */
    std::unordered_map<uint32_t, size_t> per_port; /* entries by ifx */
    Micros aging = AGING_DEFAULT;
    uint64_t aging_job = 0; /* number of the ageing job that counts; older ones do nothing */
    bool is_aging = false;  /* it is posted */
};

Table table;
uint64_t jobs_of; /* jobs posted under an older number do nothing */

Key key_of(uint16_t vid, const frame::Mac &mac)
{
    Key key = vid;
    for (const uint8_t byte : mac)
        key = key << 8 | byte;
    return key;
}

uint16_t vid_of(Key key)
{
    return static_cast<uint16_t>(key >> VID_SHIFT);
}

frame::Mac mac_of(Key key)
{
    frame::Mac mac;
    for (auto byte = mac.rbegin(); byte != mac.rend(); ++byte, key >>= 8)
        *byte = static_cast<uint8_t>(key);
    return mac;
}

void post_own(Micros when, std::function<void()> job)
{
    post_at(when, [mine = jobs_of, job = std::move(job)] {
        if (mine == jobs_of)
            job();
    });
}

/* Writes or deletes one notice. Returns whether that was done. */
bool write_notice(Key key, uint32_t ifx, bool present)
{
    frame::Mac bytes = mac_of(key);
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    mac.data = {bytes.size(), bytes.data()};
    UBridge__UdpL2addrBaseIndex index = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    index.t_fid = vid_of(key);
    index.t_mac = &mac;
    UBridge__MacVidRegNoti notice = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    notice.index = &index;
    notice.port_id = ifx;
    return (present ? kt_mom_set(mom_peer(), MAC_DB, &notice.base, 0, 0)
                    : kt_mom_del(mom_peer(), MAC_DB, &notice.base, 0, 0)) == 0;
}

void report(Key key, Entry *entry)
{
    const bool is_wanted = switch_view().wanted.contains(vid_of(key));
    const auto right = is_wanted ? std::optional(entry->ifx) : std::nullopt;
    if (entry->told != right && write_notice(key, entry->ifx, is_wanted))
        entry->told = right;
}

void report_from(Key from, Key end)
{
    auto at = table.entries.lower_bound(from);
    for (size_t n = 0; n < BATCH && at != table.entries.end() && at->first < end; n++, ++at)
        report(at->first, &at->second);
    if (at != table.entries.end() && at->first < end)
        post_own(now(), [next = at->first, end] { report_from(next, end); });
}

void count_down(uint32_t ifx)
{
    if (--table.per_port[ifx] == 0)
        table.per_port.erase(ifx);
}

void forget(Key key)
{
    const auto at = table.entries.find(key);
    const Entry &entry = at->second;
    if (entry.told)
        write_notice(key, entry.ifx, false);
    count_down(entry.ifx);
    table.unseen.erase(entry.place);
    table.entries.erase(at);
}

/* When the entry longest unseen goes, rounded up to the second. */
Micros next_due()
{
    const Micros due = table.entries.at(table.unseen.front()).seen + table.aging;
    return (due + SECOND - 1) / SECOND * SECOND;
}

void age();

void schedule_aging()
{
    if (table.is_aging || table.unseen.empty())
        return;
    table.is_aging = true;
    post_own(next_due(), [job = ++table.aging_job] {
        if (job == table.aging_job)
            age();
    });
}

void age()
{
    table.is_aging = false;
    for (size_t n = 0; n < BATCH && !table.unseen.empty() && next_due() <= now(); n++)
        forget(table.unseen.front());
    schedule_aging();
}

Entry *add(Key key, uint32_t ifx)
{
    if (table.entries.size() >= SWITCH_MACS_MAX)
        return nullptr;
    const auto place = table.unseen.insert(table.unseen.end(), key);
    table.per_port[ifx]++;
    return &table.entries.emplace(key, Entry{ifx, now(), {}, place}).first->second;
}

void move(Entry *entry, uint32_t ifx)
{
    count_down(entry->ifx);
    table.per_port[ifx]++;
    entry->ifx = ifx;
}

} // namespace

void switch_mac_learn(uint16_t vid, const frame::Mac &mac, uint32_t ifx)
{
    const Key key = key_of(vid, mac);
    const auto known = table.entries.find(key);
    Entry *entry = known != table.entries.end() ? &known->second : add(key, ifx);
    if (entry == nullptr)
        return;
    if (entry->ifx != ifx)
        move(entry, ifx);
    entry->seen = now();
    table.unseen.splice(table.unseen.end(), table.unseen, entry->place);
    report(key, entry);
    schedule_aging();
}

void switch_mac_flush(uint32_t ifx)
{
    if (!table.per_port.contains(ifx))
        return;
    for (auto at = table.entries.begin(); at != table.entries.end();) {
        const Key key = at->first;
        const bool is_behind = at->second.ifx == ifx;
        ++at;
        if (is_behind)
            forget(key);
    }
}

void switch_mac_report(uint32_t vid)
{
    const Key from = Key{vid & 0xffff} << VID_SHIFT;
    if (vid < 4096)
        post_own(now(), [from] { report_from(from, from + (Key{1} << VID_SHIFT)); });
}

void switch_mac_reports_lost()
{
    for (auto &[key, entry] : table.entries)
        entry.told.reset();
}

void switch_mac_reset()
{
    table = {};
    jobs_of++;
}

void switch_set_mac_aging(Micros aging)
{
    table.aging = std::max(aging, SECOND);
    table.is_aging = false;
    schedule_aging();
}

size_t switch_mac_count(uint32_t ifx)
{
    const auto at = table.per_port.find(ifx);
    return at == table.per_port.end() ? 0 : at->second;
}

size_t switch_mac_count()
{
    return table.entries.size();
}

std::string switch_mac_text()
{
    std::string text;
    for (const auto &[key, entry] : table.entries) {
        text += "vid=" + std::to_string(vid_of(key)) + " mac=" + frame::mac_text(mac_of(key)) +
                " ifx=" + std::to_string(entry.ifx) +
                " age=" + std::to_string((now() - entry.seen) / SECOND) + "s\n";
    }
    return text;
}

} // namespace sim
