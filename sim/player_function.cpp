#include "sim/player_function.h"

#include <algorithm>
#include <string_view>

namespace sim
{

namespace
{

/* In the order of platform/, then the fast path's operations, then POSIX. */
constexpr std::string_view FUNCTIONS[] = {
    "kt_global_init",
    "kt_global_run",
    "kt_global_finish",
    "kt_mom_client_connect_sync",
    "kt_mom_client_connect",
    "kt_mom_client_set_disconnect_cb",
    "kt_mom_client_set_reconnect_cb",
    "kt_mom_subscribe",
    "kt_mom_subscribe_field",
    "kt_mom_unsubscribe",
    "kt_mom_scan",
    "kt_mom_scan_sync",
    "kt_mom_set",
    "kt_mom_del",
    "kt_mom_clear_expire",
    "kt_mom_get_sync",
    "kt_mom_kt_obj_free",
    "kt_mom_setow",
    "kt_mom_del_ow",
    "kt_mom_dsbegin_sync",
    "kt_mom_dsbegin",
    "kt_mom_dsend",
    "kt_mom_dsbegin_ow",
    "kt_mom_dsend_ow",
    "kt_thread_add_timer_timeval_withname",
    "kt_zlog_init",
    "ktdf_zlog",
    "at_snprintf",
    "libddm_init",
    "libddm_get_phyid_by_ifx",
    "libddm_get_ifx_by_phyid",
    "rdnd_lib_mom_reg",
    "reg_process_exit_action",
    "ssat_lib_init",
    "ssat_reg_mod_cmd",
    "fp_udp_get_mgr",
    "fp_udp_register_acl_handler",
    "fp_udp_cgst_register",
    "acl_create",
    "acl_destroy",
    "acl_sync_begin",
    "acl_sync_end",
    "ace_add",
    "ace_del",
    "ace_sync_begin",
    "ace_sync_end",
    "ace_alloc",
    "ace_free",
    "apply_add",
    "apply_del",
    "apply_sync_begin",
    "apply_sync_end",
    "apply_alloc",
    "apply_free",
    "field_make",
    "field_append",
    "open",
    "read",
    "write",
    "ftruncate",
    "fcntl",
    "close",
    "getpid",
    "signal",
    "sigaction",
    "exit",
    "malloc",
};

} // namespace

std::string function_parse(Cursor &cursor)
{
    constexpr const char *FUNCTION = "the name of a platform function, such as kt_mom_set, or "
                                     "malloc";
    const size_t column = cursor.column();
    std::string name = cursor.word(FUNCTION);
    if (std::ranges::find(FUNCTIONS, name) == std::end(FUNCTIONS))
        throw Refusal{column, FUNCTION};
    return name;
}

} // namespace sim
