#include "app/proc/udp_vvlan_fp.h"

#include <cstring>
#include <span>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_err.h"
#include "app/proc/udp_vvlan_oui.h"
#include "proto/p_bridge.pb-c.h"

namespace
{

constexpr uint8_t ACL_KIND = 4;
constexpr uint32_t SEC_ACE_ID = 1; /* the only entry of its ACL, so none of the OUIs' ids */

/* Appends one field to an entry; node is the OUI of the entry, if it has one. */
using ace_field = void (*)(const fp_udp_ace *ace, const vvlan_oui *node);

void append(const fp_udp_ace *ace, const char *name, uint32_t kind, const void *value,
            uint32_t length)
{
    fp_udp_field_list *list = ace->fields;
    list->field_append(list, list->field_make(name, kind, value, length));
}

/* An action whose value is a 32-bit number and a 16-bit zero. */
void append_mark(const fp_udp_ace *ace, const char *name, uint32_t number)
{
    uint8_t value[6] = {};
    std::memcpy(value, &number, sizeof number);
    append(ace, name, FP_UDP_FIELD_ACTION, value, sizeof value);
}

void append_src_mac(const fp_udp_ace *ace, const vvlan_oui *node)
{
    const udp_vvlan_mac_addr value[2] = {node->mac, node->mask};
    append(ace, "src_mac", FP_UDP_FIELD_MATCH, value, sizeof value);
}

void append_vid(const fp_udp_ace *ace, const vvlan_oui *)
{
    const uint16_t value[2] = {static_cast<uint16_t>(udp_vvlan_glb.vid), 0xFFFF};
    append(ace, "vid", FP_UDP_FIELD_MATCH, value, sizeof value);
}

void append_untagged(const fp_udp_ace *ace, const vvlan_oui *)
{
    const uint8_t value[2] = {0, 3};
    append(ace, "vlan_form", FP_UDP_FIELD_MATCH, value, sizeof value);
}

void append_cos(const fp_udp_ace *ace, const vvlan_oui *)
{
    append_mark(ace, "cos", udp_vvlan_glb.cos);
}

void append_dscp(const fp_udp_ace *ace, const vvlan_oui *)
{
    append_mark(ace, "ipv4_dscp", udp_vvlan_glb.dscp);
}

void append_prio(const fp_udp_ace *ace, const vvlan_oui *)
{
    append_mark(ace, "prio_in", udp_vvlan_glb.cos);
}

void append_tag(const fp_udp_ace *ace, const vvlan_oui *)
{
    const uint32_t vid = udp_vvlan_glb.vid & 0xFFFF;
    append(ace, "add_tag", FP_UDP_FIELD_ACTION, &vid, sizeof vid);
}

void append_drop(const fp_udp_ace *ace, const vvlan_oui *)
{
    const uint8_t value = 0;
    append(ace, "fwd", FP_UDP_FIELD_ACTION, &value, sizeof value);
}

constexpr ace_field COS_FIELDS[] = {append_src_mac, append_vid, append_cos, append_dscp,
                                    append_prio};
constexpr ace_field MVLAN_FIELDS[] = {append_src_mac, append_untagged, append_tag};
constexpr ace_field SEC_FIELDS_NORMAL[] = {append_vid, append_cos, append_dscp, append_prio};
constexpr ace_field SEC_FIELDS_SECURE[] = {append_vid, append_drop};

/* All that differs between the three ACLs. The texts are formats, see their use. */
struct acl_traits {
    vvlan_acl *record;
    const char *app_type;
    uint32_t acl_id;
    uint32_t apply_flag;
    std::span<const ace_field> fields;        /* of an entry, in normal mode */
    std::span<const ace_field> fields_secure; /* and in security mode */
    void (*set)(vvlan_acl *record, uint32_t add);
    int (*ensure)(vvlan_acl *record, uint32_t add);
    const char *set_begin, *set_end;
    const char *exec_failed, *ensure_failed;
    const char *oui_shown; /* or NULL */
    const char *add_ace_begin, *add_ace_end, *del_ace_end;
    const char *apply_end; /* NULL: the application is shown, too */
    const char *unapply_end;
};

constexpr acl_traits COS = {
    .record = &udp_vvlan_state_now.cos_acl,
    .app_type = "vvlan_secu_pas_app",
    .acl_id = 101,
    .apply_flag = 0,
    .fields = COS_FIELDS,
    .fields_secure = COS_FIELDS,
    .set = udp_vvlan_set_cos_acl,
    .ensure = udp_vvlan_ensure_cos_acl,
    .set_begin = "set cos acl_id(%d) , add=%d.",
    .set_end = "set cos acl_id(%d) , add=%d",
    .exec_failed = "Assert:udp_vvlan_set_cos_acl failed, rv = %d.",
    .ensure_failed = "Assert:alloc cos acl failed, rv = %d.",
    .oui_shown = "%x %x %x ",
    .add_ace_begin = "add cos ace(%d) begin:",
    .add_ace_end = "add cos ace(%d) end.",
    .del_ace_end = "del cos ace(%d) end.",
    .apply_end = "apply phyid(0x%x) cos acl(%d) end.",
    .unapply_end = "unapply phyid(0x%x) cos acl(%d) end.",
};

constexpr acl_traits MVLAN = {
    .record = &udp_vvlan_state_now.mvlan_acl,
    .app_type = "mac_vlan_app",
    .acl_id = 102,
    .apply_flag = 1,
    .fields = MVLAN_FIELDS,
    .fields_secure = MVLAN_FIELDS,
    .set = udp_vvlan_set_mvlan_acl,
    .ensure = udp_vvlan_ensure_mvlan_acl,
    .set_begin = "set mvlan acl_id(%d), add=%d.",
    .set_end = "set mvlan acl_id(%d) ,  add=%d.",
    .exec_failed = "Assert:udp_vvlan_set_mvlan_acl failed, rv = %d.",
    .ensure_failed = "Assert:aloc mvlan acl failed, rv = %d.",
    .oui_shown = nullptr,
    .add_ace_begin = "add mvlan ace(%d) begin:",
    .add_ace_end = "add mvlan ace(%d) end.",
    .del_ace_end = "del mvlan ace(%d) end.",
    .apply_end = "apply phyid(0x%x) mvlan acl(%d) end.",
    .unapply_end = "unapply phyid(0x%x) mvlan acl(%d) end.",
};

constexpr acl_traits SEC = {
    .record = &udp_vvlan_state_now.sec_acl,
    .app_type = "vvlan_secu_deny_app",
    .acl_id = 100,
    .apply_flag = 0,
    .fields = SEC_FIELDS_NORMAL,
    .fields_secure = SEC_FIELDS_SECURE,
    .set = udp_vvlan_set_sec_acl,
    .ensure = udp_vvlan_ensure_sec_acl,
    .set_begin = "set sec acl_id(%d) , add=%d.",
    .set_end = "set sec acl_id(%d) , add=%d.",
    .exec_failed = "Assert:udp_vvlan_set_sec_acl failed, rv = %d.",
    .ensure_failed = "Assert:alloc sec acl failed, rv = %d.",
    .oui_shown = nullptr,
    .add_ace_begin = "add sec ace(%d) begin:",
    .add_ace_end = "add sec ace(%d) end.",
    .del_ace_end = "del sec ace(%d) end.",
    .apply_end = nullptr,
    .unapply_end = "unapply phyid(0x%x) sec acl(%d) end.",
};

constexpr const acl_traits *ACLS[] = {&COS, &MVLAN, &SEC};

void set_acl(const udp_vvlan_where &where, const acl_traits &acl, vvlan_acl *record, uint32_t add);
int ensure_acl(const acl_traits &acl, vvlan_acl *record, uint32_t add);
int set_ace(const udp_vvlan_where &where, const acl_traits &acl, vvlan_acl *record,
            const vvlan_oui *node, uint32_t add);
int apply_acl(const udp_vvlan_where &where, const acl_traits &acl, vvlan_acl *record,
              uint32_t phyid, uint32_t add);

} // namespace

const fp_udp_acl_handler udp_vvlan_fp_cb = {
    udp_vvlan_fp_cb_acl_success, udp_vvlan_fp_cb_acl_failed,    udp_vvlan_fp_cb_ace_success,
    udp_vvlan_fp_cb_ace_failed,  udp_vvlan_fp_cb_apply_success, udp_vvlan_fp_cb_apply_failed,
    {nullptr, nullptr}};

int udp_vvlan_fp_init(kt_global *global, const char *module_name)
{
    int rv = fp_udp_register_acl_handler(global, KT_MOM_UDP_DB, &udp_vvlan_fp_cb);
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:<init> register fp failed, rv = %d.", rv);
        return rv;
    }
    rv = fp_udp_cgst_register(global, KT_MOM_UDP_DB, module_name);
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:<init> register fp congestion failed, rv = %d.", rv);
        return rv;
    }
    fp_udp_mgr = fp_udp_get_mgr();
    if (fp_udp_mgr == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:<init> get fp mgr failed.");
        return UDP_VVLAN_E_NO_CONTEXT;
    }
    for (const acl_traits *acl : ACLS) {
        fp_udp_mgr->acl_sync_begin(global, acl->app_type);
        fp_udp_mgr->ace_sync_begin(global, acl->app_type);
        fp_udp_mgr->apply_sync_begin(global, acl->app_type);
    }
    UDP_VVLAN_LOG_INFO("<init> init fp successfully.");
    return 0;
}

int udp_vvlan_fp_cb_acl_success(void *, const fp_udp_acl *acl)
{
    UDP_VVLAN_LOG_INFO("init acl(id=%d, app_type=%s)  successfully.", acl->acl_id, acl->app_type);
    return 0;
}

int udp_vvlan_fp_cb_acl_failed(void *, const fp_udp_acl *acl, int error)
{
    UDP_VVLAN_LOG_INFO("init acl(id=%d, app_type=%s)  failed. err=%d", acl->acl_id, acl->app_type,
                       error);
    return 0;
}

int udp_vvlan_fp_cb_ace_success(void *, const fp_udp_acl *acl, uint64_t ace_id)
{
    UDP_VVLAN_LOG_INFO("set acl(id=%d, app_type=%s) ace(%llu) successfully.", acl->acl_id,
                       acl->app_type, static_cast<unsigned long long>(ace_id));
    return 0;
}

int udp_vvlan_fp_cb_ace_failed(void *, const fp_udp_acl *acl, uint64_t ace_id, int error)
{
    UDP_VVLAN_LOG_INFO("set acl(id=%d, app_type=%s) ace(%llu) failed. err=%d", acl->acl_id,
                       acl->app_type, static_cast<unsigned long long>(ace_id), error);
    return 0;
}

int udp_vvlan_fp_cb_apply_success(void *, const fp_udp_acl *acl, const fp_udp_apply_desc *)
{
    UDP_VVLAN_LOG_INFO("set acl(id=%d, app_type=%s) apply successfully.", acl->acl_id,
                       acl->app_type);
    return 0;
}

int udp_vvlan_fp_cb_apply_failed(void *, const fp_udp_acl *acl, const fp_udp_apply_desc *,
                                 int error)
{
    UDP_VVLAN_LOG_INFO("set acl(id=%d, app_type=%s) apply failed. err=%d", acl->acl_id,
                       acl->app_type, error);
    return 0;
}

void udp_vvlan_set_cos_acl(vvlan_acl *record, uint32_t add)
{
    set_acl(UDP_VVLAN_HERE, COS, record, add);
}

void udp_vvlan_set_mvlan_acl(vvlan_acl *record, uint32_t add)
{
    set_acl(UDP_VVLAN_HERE, MVLAN, record, add);
}

void udp_vvlan_set_sec_acl(vvlan_acl *record, uint32_t add)
{
    set_acl(UDP_VVLAN_HERE, SEC, record, add);
}

int udp_vvlan_ensure_cos_acl(vvlan_acl *record, uint32_t add)
{
    return ensure_acl(COS, record, add);
}

int udp_vvlan_ensure_mvlan_acl(vvlan_acl *record, uint32_t add)
{
    return ensure_acl(MVLAN, record, add);
}

int udp_vvlan_ensure_sec_acl(vvlan_acl *record, uint32_t add)
{
    return ensure_acl(SEC, record, add);
}

int udp_vvlan_set_acl_exec(uint32_t add)
{
    int rv = 0;
    for (const acl_traits *acl : ACLS) {
        rv = acl->ensure(acl->record, add);
        if (rv != 0)
            UDP_VVLAN_LOG_ERROR(acl->exec_failed, rv);
        if (rv != 0 && acl == &COS)
            break; /* without it the other two are of no use */
    }
    return rv;
}

int udp_vvlan_set_acl(uint32_t add)
{
    const int rv = udp_vvlan_set_acl_exec(add);
    if (rv != 0)
        udp_vvlan_glb.vid = 0;
    return rv;
}

void udp_vvlan_set_ace(uint32_t add)
{
    int rv = udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, add);
    rv |= udp_vvlan_oui_set_ace(add);
    if (rv != 0) {
        UDP_VVLAN_LOG_WARN("add sec_ace fail !");
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_ENABLE, nullptr);
    }
}

void udp_vvlan_fp_sync_end(kt_global *global)
{
    const udp_vvlan_scan_over_flags &over = udp_vvlan_scan_over;
    if (over.oui_cfg == 0 || over.glb_cfg == 0 || over.port_cfg == 0 || over.port_noti == 0)
        return;
    for (const acl_traits *acl : ACLS) {
        if (fp_udp_mgr == nullptr)
            break;
        fp_udp_mgr->acl_sync_end(global, acl->app_type);
        fp_udp_mgr->ace_sync_end(global, acl->app_type);
        fp_udp_mgr->apply_sync_end(global, acl->app_type);
    }
}

uint32_t udp_vvlan_alloc_ace_id(void)
{
    UDP_VVLAN_LOG_DEBUG(".");
    for (uint32_t id = 1; id < UDP_VVLAN_ACE_ID_COUNT; id++) {
        const auto bit = static_cast<uint8_t>(1 << id % 8);
        if ((vvlan_ace_ids[id / 8] & bit) == 0) {
            vvlan_ace_ids[id / 8] |= bit;
            return id;
        }
    }
    return 0;
}

void udp_vvlan_free_ace_id(uint32_t id)
{
    if (id < UDP_VVLAN_ACE_ID_COUNT)
        vvlan_ace_ids[id / 8] &= static_cast<uint8_t>(~(1 << id % 8));
}

int udp_vvlan_set_cos_ace(vvlan_acl *record, const vvlan_oui *node, uint32_t add)
{
    return set_ace(UDP_VVLAN_HERE, COS, record, node, add);
}

int udp_vvlan_set_mvlan_ace(vvlan_acl *record, const vvlan_oui *node, uint32_t add)
{
    return set_ace(UDP_VVLAN_HERE, MVLAN, record, node, add);
}

int udp_vvlan_set_sec_ace(vvlan_acl *record, uint32_t add)
{
    return set_ace(UDP_VVLAN_HERE, SEC, record, nullptr, add);
}

int udp_vvlan_apply_cos_acl(vvlan_acl *record, uint32_t phyid, uint32_t add)
{
    return apply_acl(UDP_VVLAN_HERE, COS, record, phyid, add);
}

int udp_vvlan_apply_mvlan_acl(vvlan_acl *record, uint32_t phyid, uint32_t add)
{
    return apply_acl(UDP_VVLAN_HERE, MVLAN, record, phyid, add);
}

int udp_vvlan_apply_sec_acl(vvlan_acl *record, uint32_t phyid, uint32_t add)
{
    if (add != 0 && udp_vvlan_glb.enable == 0) {
        UDP_VVLAN_LOG_INFO("voice vlan not enable");
        return 0;
    }
    return apply_acl(UDP_VVLAN_HERE, SEC, record, phyid, add);
}

namespace
{

/* `to` is zero before. */
void copy_app_type(char (&to)[FP_UDP_APP_TYPE_SIZE], const acl_traits &acl)
{
    std::strncpy(to, acl.app_type, sizeof to - 1);
}

void set_acl(const udp_vvlan_where &where, const acl_traits &acl, vvlan_acl *record, uint32_t add)
{
    fp_udp_acl *descriptor = &record->descriptor;
    UDP_VVLAN_LOG_INFO_AT(where, acl.set_begin, descriptor->acl_id, add);
    *descriptor = {};
    copy_app_type(descriptor->app_type, acl);
    descriptor->acl_id = acl.acl_id;
    descriptor->acl_kind = ACL_KIND;
    if (fp_udp_mgr != nullptr) {
        const auto program = add != 0 ? fp_udp_mgr->acl_create : fp_udp_mgr->acl_destroy;
        program(udp_vvlan_global, descriptor);
    }
    record->created = add != 0;
    UDP_VVLAN_LOG_INFO_AT(where, acl.set_end, descriptor->acl_id, add);
}

int ensure_acl(const acl_traits &acl, vvlan_acl *record, uint32_t add)
{
    if (record->created != add)
        acl.set(record, add);
    return 0;
}

/* Adds the entry to the ACL. Returns 0, or UDP_VVLAN_E_INSERT when there is none to be had. */
int add_ace(const acl_traits &acl, const vvlan_acl *record, const vvlan_oui *node, uint32_t ace_id)
{
    fp_udp_ace *ace = fp_udp_mgr == nullptr ? nullptr : fp_udp_mgr->ace_alloc(ace_id, 0);
    if (ace == nullptr)
        return UDP_VVLAN_E_INSERT;
    for (ace_field append_field : udp_vvlan_glb.secu != 0 ? acl.fields_secure : acl.fields)
        append_field(ace, node);
    fp_udp_mgr->ace_add(udp_vvlan_global, &record->descriptor, ace);
    fp_udp_mgr->ace_free(ace);
    return 0;
}

/* node is NULL for the sec ACL. */
int set_ace(const udp_vvlan_where &where, const acl_traits &acl, vvlan_acl *record,
            const vvlan_oui *node, uint32_t add)
{
    int rv = acl.ensure(record, add);
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR_AT(where, acl.ensure_failed, rv);
        return rv;
    }
    if (acl.oui_shown != nullptr) {
        const uint8_t *mac = node->mac.bytes;
        UDP_VVLAN_LOG_INFO_AT(where, acl.oui_shown, mac[0], mac[1], mac[2]);
    }
    const uint32_t ace_id = node == nullptr ? SEC_ACE_ID : node->ace_id;
    if (add == 0) {
        if (fp_udp_mgr != nullptr)
            fp_udp_mgr->ace_del(udp_vvlan_global, &record->descriptor, ace_id);
        UDP_VVLAN_LOG_INFO_AT(where, acl.del_ace_end, ace_id);
        return 0;
    }
    UDP_VVLAN_LOG_INFO_AT(where, acl.add_ace_begin, ace_id);
    rv = add_ace(acl, record, node, ace_id);
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert:alloc ace get a (NULL) data.");
    else
        UDP_VVLAN_LOG_INFO_AT(where, acl.add_ace_end, ace_id);
    return rv;
}

/*
 * Applies the ACL. Returns where the application lay, as a number since it is
 * freed, or 0 when there was none to be had.
 */
uintptr_t add_apply(const vvlan_acl *record, const fp_udp_apply_desc *vvlan_apply)
{
    fp_udp_apply *apply = fp_udp_mgr == nullptr ? nullptr : fp_udp_mgr->apply_alloc(vvlan_apply);
    if (apply == nullptr)
        return 0;
    const auto address = reinterpret_cast<uintptr_t>(apply);
    fp_udp_mgr->apply_add(udp_vvlan_global, &record->descriptor, record->descriptor.acl_kind,
                          apply);
    fp_udp_mgr->apply_free(apply);
    return address;
}

int apply_acl(const udp_vvlan_where &where, const acl_traits &acl, vvlan_acl *record,
              uint32_t phyid, uint32_t add)
{
    const uint32_t acl_id = record->descriptor.acl_id;
    fp_udp_apply_desc vvlan_apply = {};
    copy_app_type(vvlan_apply.app_type, acl);
    vvlan_apply.phyid = phyid;
    vvlan_apply.apply_flag = acl.apply_flag;
    if (add == 0) {
        if (fp_udp_mgr != nullptr)
            fp_udp_mgr->apply_del(udp_vvlan_global, &record->descriptor, &vvlan_apply);
        UDP_VVLAN_LOG_INFO_AT(where, acl.unapply_end, phyid, acl_id);
        return 0;
    }
    const uintptr_t address = add_apply(record, &vvlan_apply);
    if (address == 0) {
        UDP_VVLAN_LOG_ERROR_AT(where, "Assert:phyid(0x%x) alloc apply get a (NULL) data.", phyid);
        return UDP_VVLAN_E_INSERT;
    }
    if (acl.apply_end != nullptr)
        UDP_VVLAN_LOG_INFO_AT(where, acl.apply_end, phyid, acl_id);
    else
        UDP_VVLAN_LOG_INFO_AT(where, "apply=%p apply phyid(0x%x) sec acl(%d) end.",
                              reinterpret_cast<const void *>(address), phyid, acl_id);
    return 0;
}

} // namespace
