/*
 * libddm - device mapping between logical interfaces and physical ports.
 *
 * `ifx` names an interface to the management plane, `phyid` the same port to
 * the fast path. The map is one to one. It may grow while the process runs
 * (a card is plugged in); a pair that was given out stays.
 */
#ifndef PLATFORM_LIBDDM_H
#define PLATFORM_LIBDDM_H

#include <stdint.h>

#include "platform/kt_global.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the map for the module `name` (copied). Returns 0 or a negative errno value. */
int libddm_init(kt_global *global, const char *name);

/*
 * Look-ups. Return 0 and fill the out value, or nonzero for a port that the
 * map does not hold; the out value is then left alone.
 */
int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid);
int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx);

#ifdef __cplusplus
}
#endif

#endif
