#include "sim/sim_fp.h"

#include <cerrno>
#include <utility>

#include "fastpath/fastpath_library.h"
#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_loop.h"
#include "sim/sim_process.h"

namespace sim
{
namespace
{

uint64_t life; /* that the tables know of */

int announce(const char *name, const std::function<std::string()> &text)
{
    return call_enter(name, text);
}

int admit(kt_global *global)
{
    const PlatformScope scope;
    if (!global_is_open(global))
        return -ENOTCONN;
    if (life != process_life()) {
        life = process_life();
        fastpath::library_new_life();
    }
    return 0;
}

/* The simulator's queue ends the simulation when it is full. */
bool has_room()
{
    return true;
}

void post(kt_global *global, std::function<void()> job)
{
    const PlatformScope scope;
    global_post_at(global, now(), std::move(job));
}

const fastpath::Seam SEAM = {announce, admit, has_room, post, nullptr};

/* Announces a call that has a context. */
template <typename Arguments> int enter(const char *name, kt_global *global, Arguments &&arguments)
{
    const int fault = call_enter(name, arguments);
    return fault != 0 ? fault : admit(global);
}

} // namespace

const fastpath::Tables &fp_tables()
{
    return fastpath::library_tables();
}

void fp_reset()
{
    life = 0;
    fastpath::library_reset();
}

} // namespace sim

int fp_udp_register_acl_handler(kt_global *global, uint32_t db, const fp_udp_acl_handler *handler)
{
    const sim::PlatformScope scope;
    if (handler == nullptr)
        return -EINVAL;
    if (const int refused = sim::enter("fp_udp_register_acl_handler", global,
                                       [&] { return "db=" + std::to_string(db); }))
        return refused;
    fastpath::library_set_handler(handler);
    return 0;
}

int fp_udp_cgst_register(kt_global *global, uint32_t db, const char *module)
{
    const sim::PlatformScope scope;
    if (module == nullptr)
        return -EINVAL;
    return sim::enter("fp_udp_cgst_register", global,
                      [&] { return "db=" + std::to_string(db) + " module=" + module; });
}

const fp_udp_mgr_ops *fp_udp_get_mgr(void)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter("fp_udp_get_mgr", [] { return std::string(); });
    return fault == 0 ? fastpath::library_manager(sim::SEAM) : nullptr;
}
