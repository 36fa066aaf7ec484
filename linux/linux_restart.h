/*
 * linux_restart - restart manager (platform/reg_process.h), redundancy library
 * (platform/rdnd_lib.h) and readiness of a process on a Linux host.
 *
 * Who starts the daemon again is not part of the process: systemd
 * (Restart=always) or packaging/vvlan-supervise. To register
 * (reg_process_exit_action()) is therefore a note to the latter: it creates the
 * empty file that VVLAN_SUPERVISE_FILE names, if it names one. Only the
 * process itself can be registered, and only for action 2. systemd is not
 * told: there the unit decides.
 *
 * A plain host is never the standby of another: the redundancy library calls
 * the ready callback at once, from the loop.
 *
 * systemd, or the supervisor, is told READY=1 once in the life of a process,
 * when the first full synchronisation has ended; STOPPING=1 when the loop is
 * left; and WATCHDOG=1 from the loop, at a third of the time it asks for: a
 * daemon that hangs in a callback is thus replaced. Without NOTIFY_SOCKET all
 * of it does nothing.
 */
#ifndef LINUX_LINUX_RESTART_H
#define LINUX_LINUX_RESTART_H

/* The first full synchronisation has ended; later calls do nothing. */
void linux_restart_ready();

/* The loop is entered (watchdog) and left (stopping). For linux_loop. */
void linux_restart_enter();
void linux_restart_leave();

/* For tests: as if nothing had been told yet. */
void linux_restart_reset();

#endif
