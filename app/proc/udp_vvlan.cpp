#include "app/proc/udp_vvlan.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/proc/udp_vvlan_age.h"
#include "app/proc/udp_vvlan_dbg.h"
#include "app/proc/udp_vvlan_ds.h"
#include "app/proc/udp_vvlan_fp.h"
#include "app/proc/udp_vvlan_glb_cfg.h"
#include "app/proc/udp_vvlan_handler.h"
#include "app/proc/udp_vvlan_recover.h"
#include "platform/kt_mom.h"
#include "platform/rdnd_lib.h"
#include "platform/reg_process.h"

namespace
{

constexpr char PROCESS_NAME[] = "ox.vvlan.dp";
constexpr char MODULE_NAME[] = "udp_vvlan";
constexpr char LOG_CATEGORY[] = "vvlan";

constexpr size_t PATH_SIZE = 256;
constexpr size_t DEBUG_TEXT_SIZE = 20; /* bytes read from the debug-level file */

bool lock_pid_file(void);
void register_restart(void);
bool open_log(void);
void read_debug_level(void);
int register_rdnd(void);

mom_status_node *status_add(uint32_t mom_id);
mom_status_node *status_find(uint32_t mom_id);
bool status_all_ready(void);
int mom_open(kt_global *global, uint32_t *id);

int udp_vvlan_init(kt_global *global);
int udp_vvlan_reinit(kt_global *global);
[[noreturn]] void restart_now(const udp_vvlan_where &where, const char *text, int rv);

} // namespace

void udp_vvlan_log_write(const udp_vvlan_where &where, long line, int level, const char *text)
{
    if (udp_vvlan_zlog != nullptr)
        ktdf_zlog(udp_vvlan_zlog, where.file, where.file_length, where.func, where.func_length,
                  line, level, "%s", text);
}

int udp_vvlan_main(void)
{
    if (!lock_pid_file()) {
        std::printf("The '%s' process is already running!\n", PROCESS_NAME);
        return -1;
    }
    register_restart();
    if (open_log())
        UDP_VVLAN_LOG_INFO("<init> init zlog successfully.");

    udp_vvlan_global = kt_global_init(MODULE_NAME, udp_vvlan_global);
    if (udp_vvlan_global == nullptr) {
        UDP_VVLAN_LOG_ERROR("Assert:<init> init global failed, global is (NULL).");
        return UDP_VVLAN_E_NO_CONTEXT;
    }
    const int rv = register_rdnd();
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("<init> init rdnd failed, rv = %d.", rv);
        kt_global_finish(udp_vvlan_global);
        return rv;
    }
    UDP_VVLAN_LOG_INFO("<init> init rdnd successfully.");
    udp_vvlan_dbg_init(udp_vvlan_global, MODULE_NAME);
    kt_global_run(udp_vvlan_global);
    kt_global_finish(udp_vvlan_global);
    return 0;
}

int udp_vvlan_rdnd_ready(void)
{
    udp_vvlan_mom_init();
    udp_vvlan_mom_connect(udp_vvlan_global, udp_vvlan_mom_ids, UDP_VVLAN_MOM_COUNT);
    return 0;
}

void udp_vvlan_mom_init(void)
{
    udp_vvlan_list_init(&udp_vvlan_mom_status.nodes);
    std::memcpy(udp_vvlan_mom_status.name, MODULE_NAME, sizeof MODULE_NAME);
    udp_vvlan_mom_status.set_up = 1;
    for (const uint32_t mom_id : udp_vvlan_mom_ids) {
        if (status_find(mom_id) != nullptr)
            continue;
        if (status_add(mom_id) == nullptr) {
            UDP_VVLAN_LOG_ERROR("<init> add mom event(%d) failed, rv = %d.", mom_id, -1);
            kt_global_finish(udp_vvlan_global);
        }
    }
    UDP_VVLAN_LOG_INFO("<init> init mom status successfully.");
}

void udp_vvlan_mom_connect(kt_global *global, uint32_t *ids, uint32_t count)
{
    for (uint32_t at = 0; at < count; at++) {
        const int rv = mom_open(global, &ids[at]);
        if (rv != 0) {
            UDP_VVLAN_LOG_ERROR("<init> udp_vvlan_mom_connect failed, rv = %d.", rv);
            kt_global_finish(global);
            std::exit(rv);
        }
    }
    UDP_VVLAN_LOG_INFO("<init> init all mom successfully.");
}

int udp_vvlan_mom_connect_callback(kt_global *global, void *id_ptr)
{
    const uint32_t mom_id = *static_cast<const uint32_t *>(id_ptr);
    const char *name = udp_vvlan_mom_status.name;
    mom_status_node *node = status_find(mom_id);
    if (node != nullptr) {
        node->ready = 1;
        UDP_VVLAN_LOG_INFO("<status:event(%d) of %s> update already.\n", mom_id, name);
    } else {
        UDP_VVLAN_LOG_ERROR("<status: %s> event(%d) is not found.\n", name, mom_id);
    }
    if (!status_all_ready()) {
        UDP_VVLAN_LOG_INFO("<status: %s> %s is not already.", name, __func__);
        return 0;
    }
    UDP_VVLAN_LOG_INFO("<status: %s> %s is already now.", name, __func__);
    UDP_VVLAN_LOG_INFO("<mom> all mom is connected now.");

    const bool first = udp_vvlan_inited == 0;
    const int rv = first ? udp_vvlan_init(global) : udp_vvlan_reinit(global);
    if (rv != 0)
        restart_now(UDP_VVLAN_HERE,
                    first ? "Assert:<init> init vvlan failed, restart now!"
                          : "Assert:<reinit> reinit vvlan failed, restart now!",
                    rv);
    return 0;
}

int udp_vvlan_mom_disconnect_callback(kt_global *, uint32_t mom_id)
{
    const char *name = udp_vvlan_mom_status.name;
    UDP_VVLAN_LOG_WARN("<mom> mom(%d) is disconneted.", mom_id);
    mom_status_node *node = status_find(mom_id);
    if (node == nullptr) {
        UDP_VVLAN_LOG_ERROR("<status: %s> %s event(%d) is not found.\n", name, __func__, mom_id);
        return 0;
    }
    node->ready = 0;
    UDP_VVLAN_LOG_INFO("<status:event(%d) of %s> %s update waiting.\n", mom_id, name, __func__);
    return 0;
}

int udp_vvlan_mom_reconnect_callback(kt_global *global, uint32_t mom_id, int type)
{
    UDP_VVLAN_LOG_WARN("<mom> mom(%d) reconnected, type = %d.", mom_id, type);
    if (type != KT_MOM_RECONNECT_SAME)
        std::exit(UDP_VVLAN_EXIT_OTHER_INSTANCE);
    const int rv = udp_vvlan_mom_connect_callback(global, &mom_id);
    if (rv != 0)
        UDP_VVLAN_LOG_ERROR("Assert:<mom> deal with mom(%d) reconnected failed, rv = %d.", mom_id,
                            rv);
    return rv;
}

namespace
{

/* The descriptor stays open, so that the lock lasts as long as the process. */
bool lock_pid_file(void)
{
    char path[PATH_SIZE] = {};
    std::snprintf(path, sizeof path, "/var/run/%s.pid", PROCESS_NAME);
    const int fd = open(path, O_RDWR | O_CREAT, 0644);
    if (fd < 0)
        return false;

    struct flock whole_file = {};
    whole_file.l_type = F_WRLCK;
    whole_file.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &whole_file) < 0) {
        close(fd);
        return false;
    }

    /* The lock is what counts; a full disk only costs the readable pid. */
    char pid[32] = {};
    std::snprintf(pid, sizeof pid, "%ld", static_cast<long>(getpid()));
    [[maybe_unused]] const int truncated = ftruncate(fd, 0);
    [[maybe_unused]] const ssize_t written = write(fd, pid, std::strlen(pid) + 1);
    return true;
}

/* The marker file keeps the restart manager out, for instance under a debugger. */
void register_restart(void)
{
    char path[PATH_SIZE] = {};
    std::snprintf(path, sizeof path, "/var/tmp/%s_no_ham", PROCESS_NAME);
    const int fd = open(path, O_RDONLY);
    if (fd >= 0) {
        close(fd);
        return;
    }
    std::signal(SIGPIPE, SIG_IGN);
    if (reg_process_exit_action(getpid(), REG_PROCESS_EXIT_RESTART) != 0)
        std::printf("The HAM restart of '%s' reg failed!\n", PROCESS_NAME);
}

bool open_log(void)
{
    udp_vvlan_zlog = kt_zlog_init(LOG_CATEGORY);
    if (udp_vvlan_zlog == nullptr) {
        std::puts("<init> init zlog failed.");
        return false;
    }
    read_debug_level();
    return true;
}

void read_debug_level(void)
{
    const int fd = open(udp_vvlan_state_now.start_table.debug_path, O_RDONLY);
    if (fd < 0)
        return;
    char text[DEBUG_TEXT_SIZE + 1] = {};
    if (read(fd, text, DEBUG_TEXT_SIZE) > 0) {
        const int base = strncasecmp(text, "0x", 2) == 0 ? 16 : 10;
        udp_vvlan_debug_level_set(static_cast<uint32_t>(std::strtol(text, nullptr, base)));
    }
    close(fd);
}

/* Either of the library's two slots may be the one that it calls. */
int register_rdnd(void)
{
    const rdnd_lib_mom_record record = {
        .context_handle = udp_vvlan_global->rdnd,
        .app_name = MODULE_NAME,
        .global = udp_vvlan_global,
        .ready = udp_vvlan_rdnd_ready,
        .ready2 = udp_vvlan_rdnd_ready,
        .zero = {},
        .mom_ids = udp_vvlan_mom_ids,
        .mom_count = UDP_VVLAN_MOM_COUNT,
    };
    return rdnd_lib_mom_reg(&record);
}

mom_status_node *status_add(uint32_t mom_id)
{
    auto *node = static_cast<mom_status_node *>(std::malloc(sizeof(mom_status_node)));
    if (node == nullptr)
        return nullptr;
    node->mom_id = mom_id;
    node->ready = 0;
    udp_vvlan_list_add_tail(&udp_vvlan_mom_status.nodes, &node->link);
    return node;
}

mom_status_node *status_of(udp_vvlan_link *link)
{
    return reinterpret_cast<mom_status_node *>(reinterpret_cast<char *>(link) -
                                               offsetof(mom_status_node, link));
}

mom_status_node *status_find(uint32_t mom_id)
{
    if (udp_vvlan_mom_status.set_up == 0)
        return nullptr;
    udp_vvlan_link *head = &udp_vvlan_mom_status.nodes;
    for (udp_vvlan_link *link = head->next; link != head; link = link->next)
        if (status_of(link)->mom_id == mom_id)
            return status_of(link);
    return nullptr;
}

bool status_all_ready(void)
{
    if (udp_vvlan_mom_status.set_up == 0)
        return false;
    udp_vvlan_link *head = &udp_vvlan_mom_status.nodes;
    for (udp_vvlan_link *link = head->next; link != head; link = link->next)
        if (status_of(link)->ready != 1)
            return false;
    return true;
}

/* Opens one database twice, for synchronous calls and for all others, and hooks it. */
int mom_open(kt_global *global, uint32_t *id)
{
    int rv = kt_mom_client_connect_sync(global, *id);
    rv |= kt_mom_client_connect(global, *id, udp_vvlan_mom_connect_callback, id);
    if (rv != 0)
        return rv;
    rv = kt_mom_client_set_disconnect_cb(global, *id, udp_vvlan_mom_disconnect_callback);
    if (rv != 0)
        return rv;
    return kt_mom_client_set_reconnect_cb(global, *id, udp_vvlan_mom_reconnect_callback);
}

/* Every step runs, whatever the others returned. */
int udp_vvlan_init(kt_global *global)
{
    int rv = udp_vvlan_glb_cfg_init();
    rv |= udp_vvlan_fp_init(global, MODULE_NAME);
    rv |= udp_vvlan_handler_init(global, MODULE_NAME);
    rv |= udp_vvlan_recover_ds_init(global);
    rv |= udp_vvlan_ds_init(global, MODULE_NAME);
    rv |= udp_vvlan_timer_init();
    if (rv != 0)
        return rv;
    UDP_VVLAN_LOG_INFO("<init> init vvlan successfully.");
    udp_vvlan_inited = 1;
    return 0;
}

/* Tables, ACLs and timer stay; the subscriptions bring them up to date. */
int udp_vvlan_reinit(kt_global *global)
{
    udp_vvlan_scan_over = {};
    udp_vvlan_recover_db_clear();
    int rv = udp_vvlan_recover_ds_init(global);
    rv |= udp_vvlan_ds_init(global, MODULE_NAME);
    if (rv != 0)
        return rv;
    UDP_VVLAN_LOG_INFO("<reinit> reinit vvlan successfully.");
    return 0;
}

void restart_now(const udp_vvlan_where &where, const char *text, int rv)
{
    UDP_VVLAN_LOG_ERROR_AT(where, "%s", text);
    UDP_VVLAN_LOG_ERROR_AT(where, "<exit> init udp vvlan failed, rv = %d.", rv);
    std::exit(rv);
}

} // namespace
