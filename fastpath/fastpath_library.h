/*
 * fastpath_library - the C interface of the fast-path ACL library
 * (platform/fp_udp.h) in front of the tables, for any platform that keeps its
 * ACLs in the process.
 *
 * Operations act on the tables at once; results are posted to the platform's
 * loop, one job each and thus in the order of the calls. A request that is
 * refused (bad descriptor, full table, context not in use) returns its code
 * and is told to the failed-callback as well; one that is taken and fails (no
 * such ACL) is only told. One that finds no room for its result returns
 * -ENOSPC, changes nothing and is told to nobody. Syncs have no callback.
 *
 * The interface has no handle to hang state on, so there is one library in a
 * process: its tables, the registered callbacks, and the seam to the platform.
 * Result callbacks that were posted before library_new_life() are the
 * platform's to drop.
 *
 * An entry under construction holds 16 fields; one more is -ENOSPC, and an
 * entry that a field was refused to cannot be added (-EINVAL): it would match
 * more than was meant.
 */
#ifndef FASTPATH_FASTPATH_LIBRARY_H
#define FASTPATH_FASTPATH_LIBRARY_H

#include <functional>
#include <string>

#include "fastpath/fastpath.h"

namespace fastpath
{

/* What the library asks of the platform. No member is NULL but where it says so. */
struct Seam {
    /* Announces a call. Nonzero: the call fails with it. `text` makes its arguments as text. */
    int (*announce)(const char *name, const std::function<std::string()> &text);
    /* Every call that has a context asks here next. 0, or -ENOTCONN for one that is not in use. */
    int (*admit)(kt_global *global);
    /* Whether one more job can be posted. */
    bool (*has_room)();
    /* Runs `job` from the loop unless the context is gone by then. */
    void (*post)(kt_global *global, std::function<void()> job);
    /* The last sync that was open has ended. May be NULL. */
    void (*synchronised)();
};

/* The manager, working over `seam`, which must outlive the process. */
const fp_udp_mgr_ops *library_manager(const Seam &seam);

/* Takes the result callbacks; NULL takes them away. */
void library_set_handler(const fp_udp_acl_handler *handler);

/* Another life of the program has started: the tables outlive it, the callbacks do not. */
void library_new_life();

const Tables &library_tables();

/* Tables and callbacks as new. */
void library_reset();

} // namespace fastpath

#endif
