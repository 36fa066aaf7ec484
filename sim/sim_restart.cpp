#include "sim/sim_restart.h"

#include <cerrno>
#include <deque>
#include <utility>

#include "platform/reg_process.h"
#include "sim/sim_call.h"

namespace sim
{

namespace
{

struct Restart {
    Micros delay = SECOND / 10;
    uint32_t limit = 10;
    Micros window = 60 * SECOND;
    int pid = 0; /* that asked to be started again */
    uint64_t count = 0;
    std::deque<Micros> recent; /* restarts within the window */
    bool has_given_up = false;
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

bool is_too_fast()
{
    while (!manager.recent.empty() && manager.recent.front() <= now() - manager.window)
        manager.recent.pop_front();
    return manager.recent.size() >= manager.limit;
}

} // namespace

void restart_set_delay(Micros delay)
{
    manager.delay = delay;
}

void restart_set_limit(uint32_t count, Micros window)
{
    manager.limit = count;
    manager.window = window;
}

uint64_t restart_count()
{
    return manager.count;
}

bool restart_has_given_up()
{
    return manager.has_given_up;
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
    if (is_too_fast()) {
        manager.has_given_up = true;
        say(describe(ended) + "; given up after " + std::to_string(manager.recent.size()) +
            " restarts in " + std::to_string(manager.window / SECOND) + " s");
        return;
    }
    say(describe(ended) + "; restart in " + std::to_string(manager.delay / 1000) + " ms");
    manager.recent.push_back(now());
    post_at(now() + manager.delay, [] {
        if (process_is_running())
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
    sim::manager.has_given_up = false;
    return 0;
}
