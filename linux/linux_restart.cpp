#include "linux/linux_restart.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "platform/rdnd_lib.h"
#include "platform/reg_process.h"

namespace
{

constexpr char SUPERVISE_FILE[] = "VVLAN_SUPERVISE_FILE";
constexpr uintptr_t DATABASES_MAX = 64;

bool is_ready;
uint64_t watchdog; /* its timer, 0: none */

void feed_watchdog(uint64_t period);
int check_record(const rdnd_lib_mom_record *record);

} // namespace

void linux_restart_ready()
{
    if (is_ready)
        return;
    is_ready = true;
    sd_notify(0, "READY=1\nSTATUS=Synchronised with the database.");
}

void linux_restart_enter()
{
    uint64_t limit = 0;
    if (sd_watchdog_enabled(0, &limit) > 0 && limit > 0)
        feed_watchdog(limit / 3);
}

void linux_restart_leave()
{
    linux_loop_cancel(watchdog);
    watchdog = 0;
    sd_notify(0, "STOPPING=1");
}

void linux_restart_reset()
{
    is_ready = false;
}

int reg_process_exit_action(pid_t pid, int action)
{
    if (action != REG_PROCESS_EXIT_RESTART)
        return -EINVAL;
    if (pid != getpid())
        return -ESRCH;
    const char *path = std::getenv(SUPERVISE_FILE);
    if (path == nullptr || *path == '\0')
        return 0;
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return -errno;
    close(fd);
    return 0;
}

int rdnd_lib_mom_reg(const rdnd_lib_mom_record *record)
{
    const int refused = check_record(record);
    if (refused != 0)
        return refused;
    const rdnd_ready_callback ready = record->ready != nullptr ? record->ready : record->ready2;
    return linux_global_post(record->global, [ready] { ready(); });
}

namespace
{

void feed_watchdog(uint64_t period)
{
    sd_notify(0, "WATCHDOG=1");
    watchdog = linux_loop_after(static_cast<int64_t>(period), [period] { feed_watchdog(period); });
}

int check_record(const rdnd_lib_mom_record *record)
{
    if (record == nullptr || record->global == nullptr)
        return -EINVAL;
    if (!linux_global_is_open(record->global))
        return -ENOTCONN;
    const bool is_named = record->app_name != nullptr && *record->app_name != '\0';
    const bool has_callback = record->ready != nullptr || record->ready2 != nullptr;
    const bool has_databases =
        record->mom_ids != nullptr && record->mom_count > 0 && record->mom_count <= DATABASES_MAX;
    const bool is_clean = std::count(std::begin(record->zero), std::end(record->zero), 0U) ==
                          std::ssize(record->zero);
    const bool is_good = is_named && has_callback && has_databases && is_clean &&
                         record->context_handle == record->global->rdnd;
    return is_good ? 0 : -EINVAL;
}

} // namespace
