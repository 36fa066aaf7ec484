#include "sim/sim_restart.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <utility>

#include "platform/reg_process.h"
#include "sim/sim_call.h"

namespace sim
{

namespace
{

constexpr Micros WINDOW = 60 * SECOND;
constexpr size_t PROMPT_RESTARTS = 10; /* within the window, before the delay grows */
constexpr Micros DELAY_MAX = 10 * SECOND;

struct Restart {
    Micros delay = SECOND / 10;
    int pid = 0; /* that asked to be started again */
    uint64_t count = 0;
    std::deque<Micros> recent; /* restarts within the window */
    bool is_held = false;
    uint64_t planned = 0; /* which start still counts; a hold takes it back */
    std::function<void(const std::string &)> listener;
};

Restart manager;

void say(const std::string &sentence)
{
    if (manager.listener)
        manager.listener(sentence);
}

std::string describe(const Ended &ended)
{
    return "process " + std::to_string(ended.pid) +
           (ended.by_signal ? " ended by signal " : " ended with status ") +
           std::to_string(ended.status);
}

Micros next_delay()
{
    while (!manager.recent.empty() && manager.recent.front() <= now() - WINDOW)
        manager.recent.pop_front();
    Micros delay = manager.delay;
    for (size_t n = PROMPT_RESTARTS; n <= manager.recent.size() && delay < DELAY_MAX; n++)
        delay = std::min(2 * delay, DELAY_MAX);
    return delay;
}

} // namespace

void restart_set_delay(Micros delay)
{
    manager.delay = delay;
}

void restart_hold(bool held)
{
    manager.is_held = held;
    manager.planned++;
}

uint64_t restart_count()
{
    return manager.count;
}

void restart_listen(std::function<void(const std::string &)> listener)
{
    manager.listener = std::move(listener);
}

void restart_process_ended(const Ended &ended)
{
    if (!ended.is_program || ended.pid != manager.pid)
        return;
    manager.pid = 0;
    if (manager.is_held) {
        say(describe(ended) + "; it stays down");
        return;
    }
    const Micros delay = next_delay();
    say(describe(ended) + "; restart in " + std::to_string(delay / 1000) + " ms");
    manager.recent.push_back(now());
    post_at(now() + delay, [planned = ++manager.planned] {
        if (manager.planned != planned || process_is_running())
            return;
        manager.count++;
        process_start();
    });
}

void restart_reset()
{
    manager = {};
}

} // namespace sim

int reg_process_exit_action(pid_t pid, int action)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter("reg_process_exit_action", [&] {
        return "pid=" + std::to_string(pid) + " action=" + std::to_string(action);
    });
    if (fault != 0)
        return fault;
    if (action != REG_PROCESS_EXIT_RESTART)
        return -EINVAL;
    if (!sim::process_is_current() || pid != sim::process_pid())
        return -ESRCH;
    sim::manager.pid = pid;
    return 0;
}
