/*
 * udp_vvlan_state - the process-wide records, all in one place.
 *
 * The daemon is plain procedural code on one thread, so its state is a handful
 * of records that every module may read. They stand together in one structure,
 * udp_vvlan_state_now; each also has its own name, a reference into that
 * structure, which is how the modules use it. Nothing else in the daemon
 * survives a call: no function-local statics, no globals elsewhere. That makes
 * udp_vvlan_state_reset() sufficient to begin anew.
 *
 * Which module owns (writes) which record is said beside it. Tables are bounded
 * by what the configuration and the bridge put into them: one port record per
 * configured port, one MAC record per voice MAC learnt, one OUI node per OUI,
 * of which the first 127 have an ACE id of their own. A record that cannot be
 * allocated is refused by the module that asked for it.
 */
#ifndef APP_PROC_UDP_VVLAN_STATE_H
#define APP_PROC_UDP_VVLAN_STATE_H

#include <cstddef>
#include <cstdint>

#include "app/proc/udp_vvlan_hmap.h"
#include "platform/fp_udp.h"
#include "platform/kt_global.h"
#include "platform/kt_zlog.h"

/* Databases. */
enum : uint32_t {
    UDP_VVLAN_PORT_NOTI_DB = 0, /* the bridge's port notices */
    UDP_VVLAN_CFG_DB = 4,       /* configuration, written by the management plane */
    UDP_VVLAN_MAC_DB = 6,       /* the bridge's MAC notifications */
    KT_MOM_UDP_DB = 8           /* the daemon's own state */
};

enum { UDP_VVLAN_MOM_COUNT = 4 };

/* Seconds after which a section that the daemon began, but never ended, ends by itself. */
enum { UDP_VVLAN_SECTION_EXPIRE = 1000 };

/* The highest debug level; see the log statements in udp_vvlan.h. */
enum : uint32_t { UDP_VVLAN_DEBUG_LEVEL_MAX = 5 };

/* Field numbers of p_bridge.vvlan_glb_cfg, each of which has its own subscription. */
enum udp_vvlan_glb_field : uint32_t {
    UDP_VVLAN_GLB_SWITCH = 5,
    UDP_VVLAN_GLB_SECU_MODE = 6,
    UDP_VVLAN_GLB_AGE_TIME = 7,
    UDP_VVLAN_GLB_QOS = 8
};

/* The program's own result codes; any other nonzero result is a library's. */
enum udp_vvlan_result {
    UDP_VVLAN_NULL_RECORD = 4,    /* "pointer NULL!" */
    UDP_VVLAN_E_ARGUMENT = -1,    /* missing argument in the dispatcher */
    UDP_VVLAN_E_INSERT = -2,      /* an insert or a library object failed */
    UDP_VVLAN_E_MESSAGE = -4,     /* malformed notification or missing sub-message */
    UDP_VVLAN_E_RECOVER = -6,     /* a recovery entry could not be added */
    UDP_VVLAN_E_NOT_FOUND = -7,   /* object not found */
    UDP_VVLAN_E_WRITE = -11,      /* a MOM write, table insert or subscription failed */
    UDP_VVLAN_E_NO_CONTEXT = -17, /* no global context or no fast-path manager */
    UDP_VVLAN_E_UNEXPECTED = -20  /* unexpected operation or field tag */
};

/* Circular doubly linked list; an empty head points at itself both ways. */
struct udp_vvlan_link {
    udp_vvlan_link *next;
    udp_vvlan_link *prev;
};

inline void udp_vvlan_list_init(udp_vvlan_link *head)
{
    head->next = head;
    head->prev = head;
}

inline bool udp_vvlan_list_is_empty(const udp_vvlan_link *head)
{
    return head->next == head;
}

inline void udp_vvlan_list_add_tail(udp_vvlan_link *head, udp_vvlan_link *link)
{
    link->next = head;
    link->prev = head->prev;
    head->prev->next = link;
    head->prev = link;
}

/* Takes the link out of its list and leaves it pointing at itself. */
inline void udp_vvlan_list_del(udp_vvlan_link *link)
{
    link->prev->next = link->next;
    link->next->prev = link->prev;
    udp_vvlan_list_init(link);
}

/* Marks an unlinked link, so that a stray use shows in a crash dump. */
inline void udp_vvlan_list_poison(udp_vvlan_link *link)
{
    link->next = reinterpret_cast<udp_vvlan_link *>(uintptr_t{0x100100});
    link->prev = reinterpret_cast<udp_vvlan_link *>(uintptr_t{0x200200});
}

struct udp_vvlan_mac_addr {
    uint8_t bytes[6];
};

/* The databases to open, in order, and the path of the debug-level file. */
struct udp_vvlan_start_table {
    uint32_t mom_ids[UDP_VVLAN_MOM_COUNT];
    char debug_path[28];
};

/* One connection whose readiness counts (module udp_vvlan). */
struct mom_status_node {
    uint32_t mom_id;
    uint32_t ready; /* 1 once connected */
    udp_vvlan_link link;
};

struct udp_vvlan_mom_status_record {
    udp_vvlan_link nodes; /* of mom_status_node */
    uint8_t set_up;
    char name[16];
};

/* Which initial scans are over (modules udp_vvlan_ds, udp_vvlan). */
struct udp_vvlan_scan_over_flags {
    uint8_t oui_cfg;
    uint8_t glb_cfg;
    uint8_t port_cfg;
    uint8_t port_noti;
};

/* Global Voice VLAN settings (modules udp_vvlan_glb_cfg, udp_vvlan_handler). */
struct udp_vvlan_glb_record {
    uint32_t vid;      /* 0: none */
    uint8_t enable;    /* 0, 1 */
    uint16_t age_time; /* minutes */
    uint8_t secu;      /* 0, 1 */
    uint8_t cos;
    uint8_t dscp;
};

/* Flags of a port, as bits of udp_vvlan_port_node::flags. */
enum udp_vvlan_port_flag : uint8_t {
    UDP_VVLAN_PORT_VVLAN_EN = 1 << 0,  /* voice VLAN configured on the port */
    UDP_VVLAN_PORT_AUTO_MOD = 1 << 1,  /* automatic mode */
    UDP_VVLAN_PORT_AUTO_JOIN = 1 << 2, /* joined, in automatic mode */
    UDP_VVLAN_PORT_DENY_EN = 1 << 3,   /* the trap is on the port */
    UDP_VVLAN_PORT_MAC_AGED = 1 << 4   /* no live voice MAC */
};

/* One configured port (module udp_vvlan_port; owned by the port map). */
struct udp_vvlan_port_node {
    udp_vvlan_link mac_list; /* of udp_vvlan_mac_node */
    uint32_t ifx;            /* key */
    uint32_t phyid;
    uint8_t flags;   /* udp_vvlan_port_flag */
    uint32_t no_flw; /* seconds without voice flow */
};

/* One voice MAC (module udp_vvlan_mac; owned by the MAC map). */
struct udp_vvlan_mac_node {
    udp_vvlan_mac_addr mac; /* key */
    udp_vvlan_link link;    /* in the port's mac_list */
    uint32_t ifx;           /* port it was last accepted on */
};

/* One port that was joined before a restart (module udp_vvlan_recover). */
struct udp_vvlan_recover_entry {
    uint32_t ifx; /* key */
};

/* One OUI (module udp_vvlan_oui; owned by its bucket's list). */
struct vvlan_oui {
    udp_vvlan_link link;
    udp_vvlan_mac_addr mac; /* as given, not masked */
    udp_vvlan_mac_addr mask;
    uint32_t ace_id; /* 0 when the id space is exhausted */
    uint32_t reserved;
};

enum { UDP_VVLAN_OUI_BUCKETS = 16, UDP_VVLAN_OUI_PREFIX_MAX = 48 };

struct vvlan_oui_table_record {
    udp_vvlan_link buckets[UDP_VVLAN_OUI_BUCKETS];       /* of vvlan_oui */
    uint32_t prefix_count[UDP_VVLAN_OUI_PREFIX_MAX + 1]; /* entries per prefix length */
    uint64_t prefix_present;                             /* bit n: prefix_count[n] is not 0 */
};

/* One of the three ACLs (module udp_vvlan_fp). */
struct vvlan_acl {
    uint8_t created; /* 1 between create and destroy */
    fp_udp_acl descriptor;
};

enum { UDP_VVLAN_ACE_ID_COUNT = 128 };

using udp_vvlan_port_map_type = udp_vvlan_hmap<&udp_vvlan_port_node::ifx>;
using udp_vvlan_mac_map_type = udp_vvlan_hmap<&udp_vvlan_mac_node::mac>;
using udp_vvlan_recover_map_type = udp_vvlan_hmap<&udp_vvlan_recover_entry::ifx>;

struct udp_vvlan_state {
    /* Process frame (module udp_vvlan). */
    kt_global *global;
    kt_zlog *zlog;
    uint32_t debug_level; /* 0..UDP_VVLAN_DEBUG_LEVEL_MAX */
    udp_vvlan_start_table start_table;
    udp_vvlan_mom_status_record mom_status;
    uint8_t inited;
    udp_vvlan_scan_over_flags scan_over;

    /* Configuration and tables. */
    udp_vvlan_glb_record glb;
    vvlan_oui_table_record oui_table;
    udp_vvlan_port_map_type *port_map; /* NULL until initialised, like the next two */
    udp_vvlan_mac_map_type *mac_map;
    udp_vvlan_recover_map_type *recover_map;

    /* Fast path (module udp_vvlan_fp). */
    const fp_udp_mgr_ops *fp_mgr;
    vvlan_acl cos_acl;
    vvlan_acl mvlan_acl;
    vvlan_acl sec_acl;
    uint8_t ace_ids[UDP_VVLAN_ACE_ID_COUNT / 8]; /* bit n: ACE id n is taken */

    /* Numbering of a running dump (module udp_vvlan_dbg). */
    uint32_t dump_number;
};

extern udp_vvlan_state udp_vvlan_state_now;

/* Frees every table and puts every record back to its start value. */
void udp_vvlan_state_reset(void);

/* The records by their own names. */
inline kt_global *&udp_vvlan_global = udp_vvlan_state_now.global;
inline kt_zlog *&udp_vvlan_zlog = udp_vvlan_state_now.zlog;
inline uint32_t &udp_vvlan_debug_level = udp_vvlan_state_now.debug_level;
inline uint32_t (&udp_vvlan_mom_ids)[UDP_VVLAN_MOM_COUNT] = udp_vvlan_state_now.start_table.mom_ids;
inline udp_vvlan_mom_status_record &udp_vvlan_mom_status = udp_vvlan_state_now.mom_status;
inline uint8_t &udp_vvlan_inited = udp_vvlan_state_now.inited;
inline udp_vvlan_scan_over_flags &udp_vvlan_scan_over = udp_vvlan_state_now.scan_over;
inline udp_vvlan_glb_record &udp_vvlan_glb = udp_vvlan_state_now.glb;
inline vvlan_oui_table_record &vvlan_oui_table = udp_vvlan_state_now.oui_table;
inline udp_vvlan_port_map_type *&udp_vvlan_port_map = udp_vvlan_state_now.port_map;
inline udp_vvlan_mac_map_type *&udp_vvlan_mac_map = udp_vvlan_state_now.mac_map;
inline udp_vvlan_recover_map_type *&udp_vvlan_recover_db = udp_vvlan_state_now.recover_map;
inline const fp_udp_mgr_ops *&fp_udp_mgr = udp_vvlan_state_now.fp_mgr;
inline vvlan_acl &udp_vvlan_cos_acl = udp_vvlan_state_now.cos_acl;
inline vvlan_acl &udp_vvlan_mvlan_acl = udp_vvlan_state_now.mvlan_acl;
inline vvlan_acl &udp_vvlan_sec_acl = udp_vvlan_state_now.sec_acl;
inline uint8_t (&vvlan_ace_ids)[UDP_VVLAN_ACE_ID_COUNT / 8] = udp_vvlan_state_now.ace_ids;

/* Sets the debug level. Anything above the highest means the highest; so does a negative number. */
inline void udp_vvlan_debug_level_set(uint32_t level)
{
    udp_vvlan_debug_level = level < UDP_VVLAN_DEBUG_LEVEL_MAX ? level : UDP_VVLAN_DEBUG_LEVEL_MAX;
}

#endif
