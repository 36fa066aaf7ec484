#include "linux/linux_fp.h"

#include <cerrno>
#include <utility>

#include "fastpath/fastpath_library.h"
#include "linux/linux_loop.h"
#include "linux/linux_restart.h"

namespace
{

int announce(const char *, const std::function<std::string()> &)
{
    return 0;
}

int admit(kt_global *global)
{
    return linux_global_is_open(global) ? 0 : -ENOTCONN;
}

bool has_room()
{
    return linux_loop_has_room(1);
}

void post(kt_global *global, std::function<void()> job)
{
    linux_global_post(global, std::move(job));
}

const fastpath::Seam SEAM = {announce, admit, has_room, post, linux_restart_ready};

} // namespace

const fastpath::Tables &linux_fp_tables()
{
    return fastpath::library_tables();
}

int fp_udp_register_acl_handler(kt_global *global, uint32_t, const fp_udp_acl_handler *handler)
{
    if (handler == nullptr)
        return -EINVAL;
    const int refused = admit(global);
    if (refused == 0)
        fastpath::library_set_handler(handler);
    return refused;
}

/* Tables in the process are never congested. */
int fp_udp_cgst_register(kt_global *global, uint32_t, const char *module)
{
    return module == nullptr ? -EINVAL : admit(global);
}

const fp_udp_mgr_ops *fp_udp_get_mgr(void)
{
    return fastpath::library_manager(SEAM);
}
