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
#include <memory>
#include <string>
#include <type_traits>

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
    uint64_t life;   /* its process_life() */
    bool is_program; /* it was the installed program, begun by process_start() */
};

void process_install(const Program &program);

/* Starts the installed program; nothing happens when it runs already. */
void process_start();

bool process_is_running();

/* The pid of the running process, or of the last one. */
int process_pid();

/*
 * A number that changes whenever a process starts or ends, and never comes
 * again. What belongs to a process (a timer, a message on its way) remembers
 * it and is dropped when it has changed.
 */
uint64_t process_life();

/*
 * Runs `function` in the process; where none runs, or when the process's stack
 * is already the one in use, right here. Afterwards the process may have
 * ended: look at process_life(). Frames below `function` may then be gone
 * without their destructors: what calls the program back from inside a call
 * (kt_mom_scan_sync()) must keep what it owns elsewhere than in its frame.
 */
template <typename Function> void process_call(Function &&function);

/* The same for a plain function and its argument. */
void process_call_with(void (*function)(void *), void *argument);

/* Whether the stack in use is the process's. */
bool process_is_current();

/*
 * Runs `function` as a process of its own and returns how it ended; its
 * result is the exit status. For tests of code that may call exit(). A function
 * that enters the event loop sees everything that is due now happen, then
 * SIGTERM. The restart manager leaves such a process alone. It may run while
 * the installed program is parked (a second start of the daemon); then nothing
 * but its own code runs, and the installed program's memory is not reset.
 */
Ended process_run(const std::function<int()> &function);

/*
 * SIGTERM, SIGINT, SIGKILL or SIGPIPE to the running process. Sent from inside
 * one of its calls, SIGTERM and SIGINT take effect when the running callback
 * has returned.
 */
void process_signal(int signal);

/* For the simulated host: how the process takes a signal. Returns the way before. */
bool process_ignore_signal(int signal, bool ignore);

/* Called after every end of a process; several may listen, until the reset. */
void process_on_end(std::function<void(const Ended &)> listener);

/*
 * For kt_global_run(): parks until the process is told to leave its loop.
 * Returns 0, or -EPERM where no process runs.
 */
int process_park();

/*
 * Drops the running process without telling anyone but the program's reset
 * function, and forgets the program and the listeners.
 */
void process_reset();

template <typename Function> void process_call(Function &&function)
{
    using Target = std::remove_reference_t<Function>;
    process_call_with([](void *target) { (*static_cast<Target *>(target))(); },
                      const_cast<std::remove_const_t<Target> *>(std::addressof(function)));
}

} // namespace sim

#endif
