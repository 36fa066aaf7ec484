#include "sim/sim_process.h"

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "sim/sim_call.h"
#include "sim/sim_fiber.h"
#include "sim/sim_loop.h"
#include "sim/sim_world.h"

namespace sim
{

namespace
{

constexpr int FIRST_PID = 1000;
constexpr int SIGNALS = 65;

void process_main(void *process);

struct Process {
    int pid;
    uint64_t life;
    bool is_program;
    std::function<int()> main;

    Fiber fiber{process_main, this};
    bool leaves_loop = false; /* SIGTERM or SIGINT has come */
    int kill_signal = 0;      /* ends it as soon as its stack runs */
    void (*work)(void *) = nullptr;
    void *work_argument = nullptr;
    std::bitset<SIGNALS> ignored = {};
    std::optional<Ended> ended = {};
    std::optional<Ended> *result = nullptr; /* of process_run() */
};

struct Processes {
    Program program = {};
    std::vector<std::unique_ptr<Process>> alive; /* the innermost last */
    Process *current = nullptr;                  /* whose stack is in use */
    int next_pid = FIRST_PID;
    uint64_t lives = 0;
    bool is_quiet = false; /* nobody is told of ends */
    std::vector<std::function<void(const Ended &)>> listeners;
};

Processes processes;

Process *innermost()
{
    return processes.alive.empty() ? nullptr : processes.alive.back().get();
}

bool is_signal(int signal)
{
    return signal > 0 && signal < SIGNALS;
}

/* Ends the process whose stack is in use. */
[[noreturn]] void leave(int status, bool by_signal)
{
    Process *process = processes.current;
    process->ended = {process->pid, status, by_signal, process->life, process->is_program};
    process->fiber.leave();
}

void process_main(void *process)
{
    leave(static_cast<Process *>(process)->main() & 0xff, false);
}

void call_as_program(void (*function)(void *), void *argument)
{
    const bool before = std::exchange(call_detail::platform_runs, false);
    function(argument);
    call_detail::platform_runs = before;
}

/* What a kernel does when a process has ended. */
void bury(const Process &dead)
{
    const Ended ended = *dead.ended;
    if (dead.result != nullptr)
        *dead.result = ended;
    std::erase_if(processes.alive, [&dead](const auto &one) { return one.get() == &dead; });
    processes.lives++;
    if (processes.alive.empty() && processes.program.reset != nullptr)
        processes.program.reset();
    if (processes.is_quiet)
        return;
    world_process_ended(ended);
    const auto listeners = processes.listeners; /* one may add another */
    for (const auto &listener : listeners)
        listener(ended);
}

/* Lets the process run until it is parked again or has ended. */
void run(Process &process)
{
    const bool before = std::exchange(call_detail::platform_runs, false);
    processes.current = &process;
    process.fiber.resume();
    processes.current = nullptr;
    call_detail::platform_runs = before; /* scopes on a dropped stack did not end */
    if (process.fiber.has_left())
        bury(process);
}

Process &add_process(bool is_program, std::function<int()> function)
{
    auto process = std::unique_ptr<Process>(
        new Process{processes.next_pid++, ++processes.lives, is_program, std::move(function)});
    return *processes.alive.emplace_back(std::move(process));
}

} // namespace

void process_install(const Program &program)
{
    processes.program = program;
}

void process_start()
{
    if (processes.current == nullptr && innermost() == nullptr && processes.program.main != nullptr)
        run(add_process(true, processes.program.main));
}

bool process_is_running()
{
    return std::any_of(processes.alive.begin(), processes.alive.end(),
                       [](const auto &process) { return process->is_program; });
}

int process_pid()
{
    const Process *process = innermost();
    return process == nullptr ? processes.next_pid - 1 : process->pid;
}

uint64_t process_life()
{
    const Process *process = innermost();
    return process == nullptr ? processes.lives : process->life;
}

bool process_is_current()
{
    return processes.current != nullptr;
}

void process_call_with(void (*function)(void *), void *argument)
{
    Process *process = innermost();
    if (process == nullptr || processes.current != nullptr) {
        call_as_program(function, argument);
        return;
    }
    process->work = function;
    process->work_argument = argument;
    run(*process);
}

Ended process_run(const std::function<int()> &function)
{
    if (processes.current != nullptr) {
        std::fputs("sim: process_run() from inside a process\n", stderr);
        std::abort();
    }
    const bool is_alone = processes.alive.empty();
    std::optional<Ended> result;
    Process &process = add_process(false, function);
    process.result = &result;
    run(process);
    if (!result && is_alone)
        settle();
    for (const int signal : {SIGTERM, SIGKILL}) {
        if (!result)
            process_signal(signal);
    }
    return *result;
}

void process_signal(int signal)
{
    Process *process = innermost();
    if (process == nullptr || !is_signal(signal))
        return;
    if (signal != SIGKILL && process->ignored.test(static_cast<size_t>(signal)))
        return;
    if (signal == SIGTERM || signal == SIGINT)
        process->leaves_loop = true;
    else if (processes.current != nullptr)
        leave(signal, true);
    else
        process->kill_signal = signal;
    if (processes.current == nullptr)
        run(*process);
}

bool process_ignore_signal(int signal, bool ignore)
{
    Process *process = innermost();
    if (process == nullptr || !is_signal(signal))
        return false;
    const auto at = static_cast<size_t>(signal);
    const bool before = process->ignored.test(at);
    process->ignored.set(at, ignore);
    return before;
}

void process_on_end(std::function<void(const Ended &)> listener)
{
    processes.listeners.push_back(std::move(listener));
}

int process_park()
{
    Process *process = processes.current;
    if (process == nullptr)
        return -EPERM;
    while (!process->leaves_loop) {
        process->fiber.suspend();
        if (process->kill_signal != 0)
            leave(process->kill_signal, true);
        if (auto *work = std::exchange(process->work, nullptr))
            work(process->work_argument);
    }
    process->leaves_loop = false;
    return 0;
}

void process_reset()
{
    processes.is_quiet = true;
    while (innermost() != nullptr)
        process_signal(SIGKILL);
    const uint64_t lives = processes.lives;
    processes = {};
    processes.lives = lives;
}

} // namespace sim

extern "C" {

[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);

void __wrap_exit(int status)
{
    if (!sim::process_is_current())
        __real_exit(status);
    sim::call_enter("exit", [status] { return "status=" + std::to_string(status); });
    sim::leave(status & 0xff, false);
}
}
