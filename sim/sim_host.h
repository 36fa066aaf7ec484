/*
 * sim_host - the operating system under the simulated process.
 *
 * The program calls POSIX directly: open, read, write, ftruncate, close, fcntl,
 * getpid, signal, sigaction, malloc, calloc, exit. The linker redirects these
 * here (--wrap), and each goes on to the C library unless the simulated
 * process's own code is running; then it meets a file table in memory, which
 * needs no rights, survives a restart of the process and is the same on every
 * run. Descriptors 0 to 2 are the real ones. Each but exit takes part in fault
 * plans under its own name, calloc under malloc's.
 *
 * Record locks belong to a pid and cover the whole file, whatever range is
 * named; a shared and an exclusive lock are the same thing here, since one
 * process has a file open at a time or is a rival for it. They go when the pid
 * closes any descriptor of the file, or ends.
 *
 * Limits: 4,096 files (ENOSPC), 1 MiB each (EFBIG), 64 open descriptors in all
 * (EMFILE).
 */
#ifndef SIM_SIM_HOST_H
#define SIM_SIM_HOST_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "shell/shell_command.h"

namespace sim
{

/* The contents of a simulated file, or nothing when it does not exist. */
std::optional<std::string> host_file(const std::string &path);

/* Creates or replaces a file. */
void host_file_write(const std::string &path, std::string_view text);

/* Removes a file; open descriptors keep it, as on a real host. */
void host_file_remove(const std::string &path);

/* Gives the file's lock to a pid (0: takes it away), creating the file if need be. */
void host_file_lock(const std::string &path, int pid);

/* The pid that holds the file's lock, or 0. */
int host_file_lock_owner(const std::string &path);

/*
 * Collects, while it lives, what is printed to standard output. Without one,
 * the program's output goes to the simulator's. May be nested.
 */
class OutputCapture : public ShellCapture
{
public:
    OutputCapture() : ShellCapture(SIZE_MAX)
    {
    }
};

/* Closes the descriptors of a pid that has ended and releases its locks. */
void host_process_ended(int pid);

/* Removes all files, descriptors and locks. */
void host_reset();

} // namespace sim

#endif
