/*
 * linux_ddm - device mapping (platform/libddm.h) on a Linux host.
 *
 * VVLAN_PORTS says where the map comes from:
 *
 * "host"   The host's own network interfaces. Both numbers are the kernel's
 *          interface index. Each look-up asks the kernel for what it has not
 *          given out before, so that an interface that comes later is found.
 *
 * a file   Lines of `ifx phyid name`, separated by blanks; both numbers from
 *          1 to 4294967295, decimal or 0x hexadecimal, the name at most 63
 *          characters. Empty lines and what follows a `#` do not count. A line
 *          that is wrong, or that names an ifx or a phyid a second time, is
 *          reported with file name and line number and skipped; the others
 *          hold. The file is read again at SIGHUP. When it cannot be read, the
 *          map stays as it is.
 *
 * A pair that was given out stays for the life of the process, whatever the
 * file says later (the daemon has programmed hardware with it): a file that
 * drops or changes it is reported, and the pair takes effect after a restart.
 *
 * Limit: 65,536 pairs; further lines are reported and skipped.
 */
#ifndef LINUX_LINUX_DDM_H
#define LINUX_LINUX_DDM_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t LINUX_DDM_PAIRS_MAX = 65'536;

struct linux_ddm_pair {
    uint32_t ifx;
    uint32_t phyid;
    std::string name;
    bool operator==(const linux_ddm_pair &) const = default;
};

struct linux_ddm_map {
    std::vector<linux_ddm_pair> pairs;   /* in the order of the file */
    std::vector<std::string> complaints; /* "/etc/vvlan/ports:7: ifx 3 stands in line 2 already" */
};

/* Reads a map from text; `file` is named in the complaints. */
linux_ddm_map linux_ddm_parse(std::string_view text, const std::string &file);

/* The pairs that hold now; for "host", the host's interfaces. For whoever shows port names. */
std::vector<linux_ddm_pair> linux_ddm_pairs();

/* Reads the file again, as SIGHUP does. 0, or a negative errno value and the map as it was. */
int linux_ddm_reload();

/* For tests: as if libddm_init() had not been called. */
void linux_ddm_reset();

#endif
