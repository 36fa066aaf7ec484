#include "platform/libddm.h"

#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_switch.h"

#include <cerrno>

namespace sim
{
namespace
{

/* Both look-ups: `from` is announced under its name, what is found goes to *to. */
int look_up(const char *function, const char *name, uint32_t from,
            std::optional<uint32_t> (*find)(uint32_t), uint32_t *to)
{
    const PlatformScope scope;
    if (const int fault =
            call_enter(function, [&] { return std::string(name) + "=" + std::to_string(from); }))
        return fault;
    const std::optional<uint32_t> found = find(from);
    if (!found)
        return -ENOENT;
    *to = *found;
    return 0;
}

} // namespace
} // namespace sim

int libddm_init(kt_global *global, const char *name)
{
    const sim::PlatformScope scope;
    if (const int fault = sim::call_enter(
            "libddm_init", [&] { return std::string("name=") + sim::text_or_null(name); }))
        return fault;
    return sim::global_is_open(global) ? 0 : -ENOTCONN;
}

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    return sim::look_up("libddm_get_phyid_by_ifx", "ifx", ifx, sim::switch_phyid_by_ifx, phyid);
}

int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    return sim::look_up("libddm_get_ifx_by_phyid", "phyid", phyid, sim::switch_ifx_by_phyid, ifx);
}
