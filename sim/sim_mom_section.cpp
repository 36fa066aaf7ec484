#include "sim/sim_mom_store.h"

#include <algorithm>
#include <cerrno>

namespace sim
{

namespace
{

constexpr size_t SECTIONS_MAX = 4'096;

struct Sections {
    std::map<uint64_t, MomSection> open; /* by number */
    uint64_t count = 0;
};

Sections sections;

/* Begun again, a section takes over what the earlier one had marked. */
void close_equal(const MomSection &section)
{
    std::erase_if(sections.open, [&section](const auto &each) { return each.second == section; });
}

void mark(const MomSection &section, const MomSelector &selector, uint64_t number)
{
    MomRecords &records = mom_databases()[section.database].kinds[section.kind].records;
    auto at = selector.selects_one() ? records.find(selector.key) : records.begin();
    for (; at != records.end(); ++at) {
        MomRecord &record = at->second;
        const bool is_covered = section.is_owner ? record.owner == section.life
                                                 : !mom_record_is_own(record, section.life);
        if (is_covered && selector.selects(at->first, *record.object))
            record.section = number;
        if (selector.selects_one())
            return;
    }
}

/* The section was never closed. */
void run_out(uint64_t number)
{
    const auto at = sections.open.find(number);
    if (at == sections.open.end())
        return;
    MomSelector every;
    every.kind = at->second.kind;
    every.selects_all = true;
    MomDatabase &db = mom_databases()[at->second.database];
    sections.open.erase(at);
    mom_store_delete_if(db, every,
                        [number](const MomRecord &record) { return record.section == number; });
}

/* Whether two sections are of one client and of one sort on one kind. */
bool is_akin(const MomSection &one, const MomSection &other)
{
    return one.life == other.life && one.is_owner == other.is_owner &&
           one.database == other.database && one.kind == other.kind;
}

} // namespace

int mom_section_begin(const MomSection &section, const MomSelector &selector, uint64_t expire)
{
    close_equal(section);
    if (sections.open.size() >= SECTIONS_MAX)
        return -ENOSPC;
    const uint64_t number = ++sections.count;
    sections.open.emplace(number, section);
    mark(section, selector, number);
    if (expire > 0)
        post_at(mom_expiry(expire), [number] { run_out(number); });
    return 0;
}

void mom_section_end(const MomSection &section, const MomSelector &selector)
{
    std::vector<uint64_t> ended; /* in order: the map is */
    for (const auto &[number, each] : sections.open) {
        if (is_akin(each, section))
            ended.push_back(number);
    }
    mom_store_delete_if(mom_databases()[section.database], selector,
                        [&ended](const MomRecord &record) {
                            return std::binary_search(ended.begin(), ended.end(), record.section);
                        });
    close_equal(section);
}

void mom_section_clear(size_t database)
{
    std::erase_if(sections.open,
                  [database](const auto &each) { return each.second.database == database; });
}

void mom_section_reset()
{
    sections.open.clear(); /* the count goes on: jobs that still wait find nothing */
}

} // namespace sim
