/*
 * reg_process - the restart manager, which starts a process again when it ends.
 */
#ifndef PLATFORM_REG_PROCESS_H
#define PLATFORM_REG_PROCESS_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { REG_PROCESS_EXIT_RESTART = 2 };

/*
 * Says what to do when a process ends.
 *
 * pid     the process, its own or a child's.
 * action  2: start it again, whatever its exit status was. Other values are
 *         the platform's.
 *
 * Returns 0, -ESRCH for a pid that the manager cannot watch, -EINVAL for an
 * unknown action. A process that never registers is not started again.
 */
int reg_process_exit_action(pid_t pid, int action);

#ifdef __cplusplus
}
#endif

#endif
