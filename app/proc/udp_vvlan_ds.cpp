#include "app/proc/udp_vvlan_ds.h"

#include <cstring>
#include <span>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_event.h"
#include "app/proc/udp_vvlan_fp.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/s_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"

namespace
{

/* A kind of configuration object: where it is, who serves it, what is said about it. */
struct ds_kind {
    const ProtobufCMessageDescriptor *descriptor;
    uint32_t db;
    udp_vvlan_ds_entry_id first_entry;
    uint32_t field_count; /* entries, one per field; 0: one entry for the whole object */
    const char *subscribe_begin;
    const char *subscribe_failed; /* format of one int, like all "failed" texts */
    const char *scan_failed;
    const char *scan_done;
};

enum ds_kind_id { DS_OUI_CFG, DS_GLB_CFG, DS_PORT_CFG, DS_PORT_NOTI };

/* In the order in which they are subscribed to. The port scan reports as a global one. */
constexpr ds_kind DS_KINDS[] = {
    {&p_bridge__vvlan_oui_cfg__descriptor, UDP_VVLAN_CFG_DB, UDP_VVLAN_DS_OUI_CFG, 0,
     "<ds> subscribe oui ", "Assert:<ds> subscribe oui configure failed, rv = %d.",
     "Assert:<ds> scan oui configure failed, rv = %d.", "<ds> scan oui configure successfully."},
    {&p_bridge__vvlan_glb_cfg__descriptor, UDP_VVLAN_CFG_DB, UDP_VVLAN_DS_GLB_SWITCH, 4,
     "<ds> subscribe global configure ", "Assert:<ds> subscribe global configure failed, rv = %d.",
     "Assert:<ds> scan global configure failed, rv = %d.",
     "<ds> scan global configure successfully."},
    {&p_bridge__vvlan_port_cfg__descriptor, UDP_VVLAN_CFG_DB, UDP_VVLAN_DS_PORT_CFG, 0,
     "<ds> subscribe port config ", "Assert:<ds> subscribe port config failed, rv = %d.",
     "Assert:<ds> scan global configure failed, rv = %d.",
     "<ds> scan global configure successfully."},
    {&s_bridge__vvlan_port_noty__descriptor, UDP_VVLAN_PORT_NOTI_DB, UDP_VVLAN_DS_PORT_NOTI, 0,
     "<ds> subscribe port_noti ", "Assert:<ds> subscribe port_noti failed, rv = %d.",
     "Assert:<ds> scan port notice failed, rv = %d.", "<ds> scan port notice successfully."},
};

/*
 * A section over objects that the daemon writes itself. What the port logic
 * looks up in the same turn (join records and memberships) must be marked at once;
 * the others may be marked by the time of the next call.
 */
struct ds_section {
    const ProtobufCMessageDescriptor *descriptor;
    uint32_t db;
    bool is_sync;
    const char *begin_text;
    const char *begin_failed;
    const char *end_text;
    const char *end_failed;
};

constexpr ds_section DS_PORT_SECTIONS[] = {
    {&u_bridge__vvlan_join__descriptor, KT_MOM_UDP_DB, true, "<ds> pexpire vvlan_join begin",
     "Assert:<ds> pexpire vvlan_join failed, rv = %d.", "<ds> pexpire vvlan_join begin",
     "Assert:<ds> pexpire vvlan_join failed, rv = %d."},
    {&p_bridge__vvlan_port_auto__descriptor, UDP_VVLAN_CFG_DB, true, "<ds> pexpire port_auto begin",
     "Assert:<ds> pexpire port_auto failed, rv = %d.", "<ds> del pexpire port_auto begin",
     "Assert:<ds> del pexpire port_auto failed, rv = %d."},
    {&u_bridge__vvlan_port_cfg__descriptor, KT_MOM_UDP_DB, false, "<ds> pexpire port_cfg begin",
     "Assert:<ds> pexpire port_cfg failed, rv = %d.", "<ds> del pexpire port_cfg begin",
     "Assert:<ds> del pexpire port_cfg failed, rv = %d."},
};

constexpr ds_section DS_OUI_SECTIONS[] = {
    {&u_bridge__vvlan_oui_cfg__descriptor, KT_MOM_UDP_DB, false, "<ds> pexpire oui_cfg begin",
     "Assert:<ds> pexpire oui_cfg failed, rv = %d.", "<ds> del pexpire oui_cfg begin",
     "Assert:<ds> del pexpire oui_cfg failed, rv = %d."},
};

/* Room for an empty object of any kind in the tables above. */
struct ds_empty {
    union {
        ProtobufCMessage base;
        PBridge__VvlanOuiCfg oui_cfg;
        PBridge__VvlanGlbCfg glb_cfg;
        PBridge__VvlanPortCfg port_cfg;
        PBridge__VvlanPortAuto port_auto;
        SBridge__VvlanPortNoty port_noty;
        UBridge__VvlanJoin join;
        UBridge__VvlanPortCfg trap;
        UBridge__VvlanOuiCfg oui_mirror;
    } object;
    union {
        ProtobufCMessage base;
        PBridge__BOui oui;
        PBridge__VvlanIndex ifx;
        SBridge__VvlanIndex phyid;
        UBridge__VvlanIndex own_ifx;
        UBridge__VvlanOuiCfgIndex ace_id;
    } index;
};

const ProtobufCMessage *empty_object(ds_empty *empty, const ProtobufCMessageDescriptor *descriptor);
void *user_data(const udp_vvlan_ds_entry *entry);

int subscribe(kt_global *global, const ds_kind &kind);
int scan(const udp_vvlan_where &where, kt_global *global, const ds_kind &kind,
         const udp_vvlan_ds_entry *entry);
int begin_sections(const udp_vvlan_where &where, kt_global *global,
                   std::span<const ds_section> sections, const udp_vvlan_ds_entry *entry);
int end_sections(const udp_vvlan_where &where, kt_global *global,
                 std::span<const ds_section> sections);
int section_over(kt_global *global, const kt_mom_msg *msg, void *user);

/* Table handlers beside those that the header declares. */
int nothing(kt_global *global, const kt_mom_msg *msg, const udp_vvlan_ds_entry *entry);
int glb_cfg_scan_over(kt_global *global, const kt_mom_msg *msg, const udp_vvlan_ds_entry *entry);
int port_noti_scan_over(kt_global *global, const kt_mom_msg *msg, const udp_vvlan_ds_entry *entry);

/* A section function, which needs the context only, as a table handler. */
template <int (*Function)(kt_global *)>
int of_section(kt_global *global, const kt_mom_msg *, const udp_vvlan_ds_entry *)
{
    return Function(global);
}

/* A decoder of whole objects, which knows no field, as a table's change handler. */
template <int (*Function)(kt_global *, const kt_mom_msg *)>
int of_object(kt_global *global, const kt_mom_msg *msg, uint32_t)
{
    return Function(global, msg);
}

} // namespace

/* Only one of the four fields ends the scan of the global settings. */
constexpr udp_vvlan_ds_entry udp_vvlan_ds_table[UDP_VVLAN_DS_ENTRY_COUNT] = {
    {of_section<udp_vvlan_ds_pexpire_oui_cfg>, udp_vvlan_ds_scan_oui_cfg,
     of_section<udp_vvlan_ds_del_pexpire_oui_cfg>, of_object<udp_vvlan_event_set_oui_cfg>, 0},
    {of_section<udp_vvlan_ds_pexpire_port_cfg>, udp_vvlan_ds_scan_port_cfg,
     of_section<udp_vvlan_ds_del_pexpire_port_cfg>, of_object<udp_vvlan_event_set_port_cfg>, 0},
    {udp_vvlan_ds_scan_glb_cfg, nothing, glb_cfg_scan_over, udp_vvlan_event_set_glb_cfg,
     UDP_VVLAN_GLB_SWITCH},
    {udp_vvlan_ds_scan_glb_cfg, nothing, nothing, udp_vvlan_event_set_glb_cfg,
     UDP_VVLAN_GLB_SECU_MODE},
    {udp_vvlan_ds_scan_glb_cfg, nothing, nothing, udp_vvlan_event_set_glb_cfg,
     UDP_VVLAN_GLB_AGE_TIME},
    {udp_vvlan_ds_scan_glb_cfg, nothing, nothing, udp_vvlan_event_set_glb_cfg, UDP_VVLAN_GLB_QOS},
    {udp_vvlan_ds_scan_port_noti, nothing, port_noti_scan_over,
     of_object<udp_vvlan_event_set_port_noti>, 0},
};

int udp_vvlan_ds_init(kt_global *global, const char *)
{
    for (const ds_kind &kind : DS_KINDS) {
        UDP_VVLAN_LOG_INFO("%s", kind.subscribe_begin);
        const int rv = subscribe(global, kind);
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR(kind.subscribe_failed, rv);
            return rv;
        }
    }
    UDP_VVLAN_LOG_INFO("<ds> subscribe successfully.");
    return 0;
}

int udp_vvlan_ds_callback(kt_global *global, const kt_mom_msg *msg, void *user)
{
    const auto *entry = static_cast<const udp_vvlan_ds_entry *>(user);
    if (entry == nullptr)
        return UDP_VVLAN_E_ARGUMENT;
    if (msg == nullptr)
        return entry->change(global, msg, entry->field_tag); /* which reports it */
    if (msg->operation == KT_MOM_RESYNC)
        return entry->resync(global, msg, entry);
    if (msg->scan_state == KT_MOM_SCAN_START || msg->scan_state == KT_MOM_SCAN_AGAIN)
        return entry->rescan(global, msg, entry);
    if (msg->scan_state != KT_MOM_SCAN_OVER)
        return entry->change(global, msg, entry->field_tag);
    const int rv = msg->object != nullptr ? entry->change(global, msg, entry->field_tag)
                                          : UDP_VVLAN_E_ARGUMENT;
    entry->scan_over(global, msg, entry);
    return rv;
}

int udp_vvlan_ds_scan_oui_cfg(kt_global *global, const kt_mom_msg *,
                              const udp_vvlan_ds_entry *entry)
{
    return scan(UDP_VVLAN_HERE, global, DS_KINDS[DS_OUI_CFG], entry);
}

int udp_vvlan_ds_scan_glb_cfg(kt_global *global, const kt_mom_msg *,
                              const udp_vvlan_ds_entry *entry)
{
    return scan(UDP_VVLAN_HERE, global, DS_KINDS[DS_GLB_CFG], entry);
}

int udp_vvlan_ds_scan_port_cfg(kt_global *global, const kt_mom_msg *,
                               const udp_vvlan_ds_entry *entry)
{
    return scan(UDP_VVLAN_HERE, global, DS_KINDS[DS_PORT_CFG], entry);
}

int udp_vvlan_ds_scan_port_noti(kt_global *global, const kt_mom_msg *,
                                const udp_vvlan_ds_entry *entry)
{
    return scan(UDP_VVLAN_HERE, global, DS_KINDS[DS_PORT_NOTI], entry);
}

int udp_vvlan_ds_pexpire_port_cfg(kt_global *global)
{
    if (begin_sections(UDP_VVLAN_HERE, global, DS_PORT_SECTIONS,
                       &udp_vvlan_ds_table[UDP_VVLAN_DS_PORT_CFG]) == 0)
        UDP_VVLAN_LOG_INFO("<ds> pexpire port_cfg and port_auto successfully.");
    return 0;
}

int udp_vvlan_ds_pexpire_oui_cfg(kt_global *global)
{
    if (begin_sections(UDP_VVLAN_HERE, global, DS_OUI_SECTIONS,
                       &udp_vvlan_ds_table[UDP_VVLAN_DS_OUI_CFG]) == 0)
        UDP_VVLAN_LOG_INFO("<ds> pexpire oui_cfg successfully.");
    return 0;
}

int udp_vvlan_ds_del_pexpire_port_cfg(kt_global *global)
{
    if (end_sections(UDP_VVLAN_HERE, global, DS_PORT_SECTIONS) != 0)
        return 0;
    UDP_VVLAN_LOG_INFO("<ds> del pexpire port_cfg and port_auto successfully.");
    udp_vvlan_scan_over.port_cfg = 1;
    udp_vvlan_fp_sync_end(global);
    return 0;
}

int udp_vvlan_ds_del_pexpire_oui_cfg(kt_global *global)
{
    if (end_sections(UDP_VVLAN_HERE, global, DS_OUI_SECTIONS) != 0)
        return 0;
    UDP_VVLAN_LOG_INFO("<ds> del pexpire oui_cfg successfully.");
    udp_vvlan_scan_over.oui_cfg = 1;
    udp_vvlan_fp_sync_end(global);
    return 0;
}

namespace
{

/* Every field zero, the index, where the kind has one, present: it selects all objects. */
const ProtobufCMessage *empty_object(ds_empty *empty, const ProtobufCMessageDescriptor *descriptor)
{
    descriptor->message_init(&empty->object.base);
    const ProtobufCFieldDescriptor *field =
        protobuf_c_message_descriptor_get_field_by_name(descriptor, "index");
    if (field != nullptr) {
        const auto *kind = static_cast<const ProtobufCMessageDescriptor *>(field->descriptor);
        kind->message_init(&empty->index.base);
        const ProtobufCMessage *index = &empty->index.base;
        std::memcpy(reinterpret_cast<char *>(&empty->object) + field->offset, &index,
                    sizeof(void *));
    }
    return &empty->object.base;
}

/* The library hands user data through untouched; the entries are constant. */
void *user_data(const udp_vvlan_ds_entry *entry)
{
    return const_cast<udp_vvlan_ds_entry *>(entry);
}

int subscribe(kt_global *global, const ds_kind &kind)
{
    constexpr uint32_t FIELDS_MAX = 4;
    ds_empty empty;
    const ProtobufCMessage *all = empty_object(&empty, kind.descriptor);
    const udp_vvlan_ds_entry *entry = &udp_vvlan_ds_table[kind.first_entry];
    if (kind.field_count == 0)
        return kt_mom_subscribe(global, kind.db, all, KT_MOM_MATCH_EXACT, udp_vvlan_ds_callback,
                                user_data(entry));

    uint32_t tags[FIELDS_MAX];
    kt_mom_callback callbacks[FIELDS_MAX];
    void *users[FIELDS_MAX];
    for (uint32_t at = 0; at < kind.field_count; at++) {
        tags[at] = entry[at].field_tag;
        callbacks[at] = udp_vvlan_ds_callback;
        users[at] = user_data(&entry[at]);
    }
    return kt_mom_subscribe_field(global, kind.db, all, KT_MOM_MATCH_EXACT, tags, callbacks, users,
                                  kind.field_count);
}

int scan(const udp_vvlan_where &where, kt_global *global, const ds_kind &kind,
         const udp_vvlan_ds_entry *entry)
{
    ds_empty empty;
    const int rv = kt_mom_scan(global, kind.db, empty_object(&empty, kind.descriptor),
                               KT_MOM_MATCH_EXACT, udp_vvlan_ds_callback, user_data(entry));
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR_AT(where, kind.scan_failed, rv);
    else
        UDP_VVLAN_LOG_DEBUG_AT(where, "%s", kind.scan_done);
    return rv;
}

int begin_sections(const udp_vvlan_where &where, kt_global *global,
                   std::span<const ds_section> sections, const udp_vvlan_ds_entry *entry)
{
    for (const ds_section &section : sections) {
        ds_empty empty;
        const ProtobufCMessage *all = empty_object(&empty, section.descriptor);
        UDP_VVLAN_LOG_INFO_AT(where, "%s", section.begin_text);
        const int rv =
            section.is_sync
                ? kt_mom_dsbegin_sync(global, section.db, all, KT_MOM_MATCH_EXACT,
                                      UDP_VVLAN_SECTION_EXPIRE)
                : kt_mom_dsbegin(global, section.db, all, KT_MOM_MATCH_EXACT,
                                 UDP_VVLAN_SECTION_EXPIRE, udp_vvlan_ds_callback, user_data(entry));
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR_AT(where, section.begin_failed, rv);
            return rv;
        }
    }
    return 0;
}

int end_sections(const udp_vvlan_where &where, kt_global *global,
                 std::span<const ds_section> sections)
{
    for (const ds_section &section : sections) {
        ds_empty empty;
        const ProtobufCMessage *all = empty_object(&empty, section.descriptor);
        UDP_VVLAN_LOG_INFO_AT(where, "%s", section.end_text);
        const int rv = kt_mom_dsend(global, section.db, all, KT_MOM_MATCH_EXACT,
                                    section.is_sync ? section_over : udp_vvlan_ds_callback);
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR_AT(where, section.end_failed, rv);
            return rv;
        }
    }
    return 0;
}

int section_over(kt_global *, const kt_mom_msg *, void *)
{
    return 0;
}

int nothing(kt_global *, const kt_mom_msg *, const udp_vvlan_ds_entry *)
{
    return 0;
}

int glb_cfg_scan_over(kt_global *global, const kt_mom_msg *, const udp_vvlan_ds_entry *)
{
    udp_vvlan_scan_over.glb_cfg = 1;
    udp_vvlan_fp_sync_end(global);
    return 0;
}

int port_noti_scan_over(kt_global *global, const kt_mom_msg *, const udp_vvlan_ds_entry *)
{
    udp_vvlan_scan_over.port_noti = 1;
    udp_vvlan_fp_sync_end(global);
    return 0;
}

} // namespace
