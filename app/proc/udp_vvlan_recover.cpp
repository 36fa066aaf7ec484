#include "app/proc/udp_vvlan_recover.h"

#include <cstdlib>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_event.h"

const ProtobufCMessage *udp_vvlan_join_record_init(udp_vvlan_join_record *record, uint32_t ifx)
{
    u_bridge__vvlan_index__init(&record->index);
    record->index.ifx = ifx;
    u_bridge__vvlan_join__init(&record->object);
    record->object.index = &record->index;
    return &record->object.base;
}

int udp_vvlan_recover_init(void)
{
    if (udp_vvlan_recover_db == nullptr)
        udp_vvlan_recover_db = static_cast<udp_vvlan_recover_map_type *>(
            std::calloc(1, sizeof(udp_vvlan_recover_map_type)));
    return udp_vvlan_recover_db == nullptr ? UDP_VVLAN_E_INSERT : 0;
}

int udp_vvlan_set_vvlan_join(uint32_t is_set, uint32_t ifx)
{
    udp_vvlan_join_record record;
    const ProtobufCMessage *join = udp_vvlan_join_record_init(&record, ifx);
    const auto write = [is_set, join] {
        const auto operation = is_set != 0 ? kt_mom_set : kt_mom_del;
        return operation(udp_vvlan_global, KT_MOM_UDP_DB, join, 0, 0);
    };
    return write() == 0 ? 0 : udp_vvlan_call_again(UDP_VVLAN_HERE, write);
}

int udp_vvlan_recover_ds_init(kt_global *global)
{
    udp_vvlan_join_record every;
    const int rv = kt_mom_scan_sync(global, KT_MOM_UDP_DB, udp_vvlan_join_record_init(&every, 0),
                                    KT_MOM_MATCH_EXACT, udp_vvlan_recover_vvlan_cfg, nullptr);
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:<ds> scan vvlan_join failed, rv = %d.", rv);
    else
        UDP_VVLAN_LOG_DEBUG("<ds> scan vvlan_join successfully.");
    return rv;
}

int udp_vvlan_recover_vvlan_cfg(kt_global *, const kt_mom_msg *msg, void *)
{
    if (udp_vvlan_event_check(UDP_VVLAN_HERE, msg) != 0)
        return UDP_VVLAN_E_MESSAGE;
    const auto *join = reinterpret_cast<const UBridge__VvlanJoin *>(udp_vvlan_event_object(msg));
    if (join == nullptr || join->index == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:msg vvlan_join param failed.");
        return 0;
    }
    switch (msg->operation) {
    case KT_MOM_SET:
        if (udp_vvlan_recover_add(join->index->ifx) != nullptr)
            return 0;
        UDP_VVLAN_LOG_ERROR("Assert:add recover_entry failed");
        return UDP_VVLAN_E_RECOVER;
    case KT_MOM_DEL:
        udp_vvlan_recover_del(join->index->ifx);
        return 0;
    default:
        return UDP_VVLAN_E_UNEXPECTED;
    }
}

void udp_vvlan_recover_db_clear(void)
{
    udp_vvlan_recover_foreach(
        [](udp_vvlan_recover_entry *entry, void *) {
            udp_vvlan_recover_del(entry->ifx);
            return 0;
        },
        nullptr);
    UDP_VVLAN_LOG_DEBUG("clear udp_vvlan_recover_db successfully.");
}

udp_vvlan_recover_entry *udp_vvlan_recover_find(uint32_t ifx)
{
    return udp_vvlan_recover_db == nullptr ? nullptr
                                           : udp_vvlan_hmap_find(udp_vvlan_recover_db, ifx);
}

udp_vvlan_recover_entry *udp_vvlan_recover_add(uint32_t ifx)
{
    return udp_vvlan_recover_db == nullptr ? nullptr
                                           : udp_vvlan_hmap_put(udp_vvlan_recover_db, ifx);
}

void udp_vvlan_recover_del(uint32_t ifx)
{
    if (udp_vvlan_recover_db != nullptr)
        udp_vvlan_hmap_del(udp_vvlan_recover_db, ifx);
}

int udp_vvlan_recover_foreach(int (*function)(udp_vvlan_recover_entry *, void *), void *argument)
{
    return udp_vvlan_recover_db == nullptr
               ? 0
               : udp_vvlan_hmap_walk(udp_vvlan_recover_db, function, argument);
}
