/*
 * sim_process - the process that is simulated.
 *
 * The program under simulation runs on a stack of its own. Its main function
 * runs until it enters the event loop (kt_global_run()), where it is parked;
 * callbacks are then run on that stack, one at a time. exit() ends the
 * simulated process, not the simulator: its stack is dropped where it stands,
 * as a kernel would, its open files are closed, its locks released and its
 * memory given back through the program's reset function. SIGTERM and SIGINT
 * make kt_global_run() return; SIGKILL drops the process at once. Signals that
 * the program did not ask to ignore end it (SIGPIPE).
 *
 * Tests that drive a module's functions without a main call them directly;
 * call() then simply runs its function.
 *
 * One process at a time. Pids count from 1000.
 */
#ifndef SIM_SIM_PROCESS_H
#define SIM_SIM_PROCESS_H

#include <cstdint>
#include <functional>
#include <string>

namespace sim
{

struct Program {
    std::string name; /* as the restart manager shows it */
    int (*main)();
    void (*reset)(); /* frees what the program still holds after its end */
};

struct Ended {
    int pid;
    int status; /* exit status, 0..255, or the signal */
    bool by_signal;
};

void process_install(const Program &program);

/* Starts the installed program; nothing happens when it runs already. */
void process_start();

bool process_is_running();

/* The pid of the running process, or of the last one. */
int process_pid();

/*
 * Counts the processes so far. What belongs to a process (a timer, a message
 * on its way) remembers this number and is dropped when it has changed.
 */
uint64_t process_life();

/* Runs `function` in the process; where none runs, right here. */
void process_call(const std::function<void()> &function);

/*
 * Runs `function` as a process of its own and returns how it ended; its
 * result is the exit status. For tests of code that may call exit().
 */
Ended process_run(const std::function<int()> &function);

/* SIGTERM, SIGINT, SIGKILL or SIGPIPE to the running process. */
void process_signal(int signal);

/* Called after every end of a process; several may listen. */
void process_on_end(std::function<void(const Ended &)> listener);

/* For kt_global_run(): parks until the process is told to leave its loop. */
void process_park();

void process_reset();

} // namespace sim

#endif
