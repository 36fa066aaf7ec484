#include "linux/linux_loop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <event2/event.h>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "linux/linux_env.h"
#include "linux/linux_log.h"
#include "linux/linux_restart.h"
#include "platform/kt_thread.h"

struct kt_thread_master {
    kt_global *global;
};

namespace
{

constexpr size_t HANGUPS_MAX = 16;
constexpr size_t FINISHES_MAX = 16;
constexpr int64_t SECOND = 1'000'000;
constexpr long SECONDS_MAX = 1'000'000'000;

struct Context {
    kt_global base; /* first: what programs hold is a pointer to it */
    kt_thread_master master;
    std::string name;
    uint64_t id; /* tells contexts apart that lay at the same address */
    bool is_open;
    std::vector<std::function<void()>> finishes;

    Context(std::string name_, uint64_t id_)
        : base{&master, this}, master{&base}, name(std::move(name_)), id(id_), is_open(true)
    {
    }
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;
};

using Job = std::function<void()>;
using TimerKey = std::pair<int64_t, uint64_t>; /* when due, id */

struct Loop {
    event_base *base = nullptr;
    event *turn = nullptr; /* due when a job or a timer is */
    event *hangup = nullptr;
    std::deque<Job> jobs;
    std::map<TimerKey, Job> timers;
    std::unordered_map<uint64_t, int64_t> due; /* of a timer, by its id */
    uint64_t next_timer = 1;
    bool is_stopped = false;
    std::vector<Job> on_hangup;
    std::vector<std::unique_ptr<Context>> contexts;
    uint64_t next_context = 1;
};

/* Never freed at exit: the process may end from inside a callback. */
Loop *the_loop;

Loop &loop();
void run_turn(evutil_socket_t, short, void *);
void arm_turn();
Context *find_context(const kt_global *global);
Context *open_context(const kt_global *global);
Context *room_for_context();
int run_until_stopped(const Context &context);

} // namespace

struct event_base *linux_loop_base()
{
    return loop().base;
}

int linux_loop_post(std::function<void()> job)
{
    if (!linux_loop_has_room(1))
        return -ENOSPC;
    loop().jobs.push_back(std::move(job));
    if (loop().jobs.size() == 1)
        arm_turn();
    return 0;
}

bool linux_loop_has_room(size_t jobs)
{
    return jobs <= LINUX_LOOP_JOBS_MAX - loop().jobs.size();
}

int64_t linux_loop_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * SECOND + now.tv_nsec / 1'000;
}

uint64_t linux_loop_after(int64_t micros, std::function<void()> job)
{
    Loop &all = loop();
    if (all.timers.size() >= LINUX_LOOP_TIMERS_MAX)
        return 0;
    const uint64_t id = all.next_timer++;
    const int64_t due = linux_loop_now() + std::max<int64_t>(micros, 0);
    const auto at = all.timers.emplace(TimerKey{due, id}, std::move(job)).first;
    all.due.emplace(id, due);
    if (at == all.timers.begin())
        arm_turn();
    return id;
}

void linux_loop_cancel(uint64_t id)
{
    Loop &all = loop();
    const auto at = all.due.find(id);
    if (at == all.due.end())
        return;
    const bool was_first = all.timers.begin()->first.second == id;
    all.timers.erase({at->second, id});
    all.due.erase(at);
    if (was_first)
        arm_turn(); /* rather than wake for nothing */
}

int linux_loop_on_hangup(std::function<void()> function)
{
    Loop &all = loop();
    if (all.on_hangup.size() >= HANGUPS_MAX)
        return -ENOSPC;
    all.on_hangup.push_back(std::move(function));
    if (all.hangup == nullptr) {
        const auto call = [](evutil_socket_t, short, void *) {
            const std::vector<Job> jobs = loop().on_hangup; /* one may add another */
            for (const Job &job : jobs)
                job();
        };
        all.hangup = evsignal_new(all.base, SIGHUP, call, nullptr);
        event_add(all.hangup, nullptr);
    }
    return 0;
}

void linux_loop_stop()
{
    loop().is_stopped = true;
    event_base_loopbreak(loop().base);
}

bool linux_loop_run_until(const std::function<bool()> &done, int64_t micros)
{
    bool is_late = false;
    const uint64_t timer = linux_loop_after(micros, [&is_late] { is_late = true; });
    while (!done() && !is_late && !loop().is_stopped)
        event_base_loop(loop().base, EVLOOP_ONCE);
    linux_loop_cancel(timer);
    return done();
}

void linux_loop_reset()
{
    if (the_loop == nullptr)
        return;
    for (size_t i = 0; i < the_loop->contexts.size(); i++)
        kt_global_finish(&the_loop->contexts[i]->base);
    event_free(the_loop->turn);
    if (the_loop->hangup != nullptr)
        event_free(the_loop->hangup);
    event_base_free(the_loop->base);
    delete std::exchange(the_loop, nullptr);
}

bool linux_global_is_open(const kt_global *global)
{
    return open_context(global) != nullptr;
}

int linux_global_post(const kt_global *global, std::function<void()> job)
{
    const Context *posted = open_context(global);
    if (posted == nullptr)
        return -ENOTCONN;
    return linux_loop_post([global, id = posted->id, job = std::move(job)] {
        const Context *context = open_context(global);
        if (context != nullptr && context->id == id)
            job();
    });
}

int linux_global_on_finish(const kt_global *global, std::function<void()> function)
{
    Context *context = open_context(global);
    if (context == nullptr)
        return -ENOTCONN;
    if (context->finishes.size() >= FINISHES_MAX)
        return -ENOSPC;
    context->finishes.push_back(std::move(function));
    return 0;
}

kt_global *kt_global_init(const char *name, kt_global *previous)
{
    if (name == nullptr || linux_env() == nullptr)
        return nullptr;
    if (linux_global_is_open(previous))
        return previous;
    Context *context = room_for_context();
    if (context == nullptr)
        return nullptr;
    context->name = name;
    return &context->base;
}

int kt_global_run(kt_global *global)
{
    const Context *context = open_context(global);
    if (context == nullptr)
        return -ENOTCONN;
    std::array<event *, 2> signals = {};
    const auto stop = [](evutil_socket_t, short, void *) { linux_loop_stop(); };
    for (size_t i = 0; i < signals.size(); i++) {
        signals[i] = evsignal_new(loop().base, i == 0 ? SIGTERM : SIGINT, stop, nullptr);
        event_add(signals[i], nullptr);
    }
    linux_restart_enter();
    const int result = run_until_stopped(*context);
    linux_restart_leave();
    std::for_each(signals.begin(), signals.end(), event_free);
    loop().is_stopped = false;
    return result;
}

void kt_global_finish(kt_global *global)
{
    Context *context = open_context(global);
    if (context == nullptr)
        return;
    const std::vector<Job> finishes = std::exchange(context->finishes, {});
    context->is_open = false;
    for (auto job = finishes.rbegin(); job != finishes.rend(); ++job)
        (*job)();
    event_base_loopbreak(loop().base); /* its kt_global_run() must see it */
}

int kt_thread_add_timer_timeval_withname(kt_thread_master *master, kt_thread_callback callback,
                                         void *argument, long seconds, long microseconds,
                                         const char *)
{
    if (master == nullptr || callback == nullptr || seconds < 0 || seconds > SECONDS_MAX ||
        microseconds < 0 || microseconds >= SECOND)
        return -EINVAL;
    const kt_global *global = master->global;
    const Context *armed = open_context(global);
    if (armed == nullptr)
        return -ENOTCONN;
    const uint64_t timer = linux_loop_after(seconds * SECOND + microseconds,
                                            [global, id = armed->id, callback, argument] {
                                                const Context *context = open_context(global);
                                                if (context != nullptr && context->id == id)
                                                    callback(argument);
                                            });
    return timer != 0 ? 0 : -ENOMEM;
}

namespace
{

[[noreturn]] void give_up(const char *what)
{
    LINUX_LOG(KTDF_ZLOG_LV_FATAL, "the event loop cannot be made: %s", what);
    std::_Exit(EXIT_FAILURE);
}

/* A peer that is gone is told by the write's result, not by a signal. */
void ignore_broken_pipes()
{
    struct sigaction now = {};
    sigaction(SIGPIPE, nullptr, &now);
    if (now.sa_handler == SIG_DFL)
        std::signal(SIGPIPE, SIG_IGN);
}

event_base *make_base()
{
    event_config *config = event_config_new();
    if (config == nullptr)
        give_up("no memory");
    event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
    event_base *base = event_base_new_with_config(config);
    event_config_free(config);
    return base;
}

Loop &loop()
{
    if (the_loop != nullptr) [[likely]]
        return *the_loop;
    ignore_broken_pipes();
    the_loop = new Loop;
    the_loop->base = make_base();
    if (the_loop->base == nullptr)
        give_up("libevent has no way to wait");
    the_loop->turn = evtimer_new(the_loop->base, run_turn, nullptr);
    if (the_loop->turn == nullptr)
        give_up("no memory");
    return *the_loop;
}

/* A timer of no delay comes in libevent's next turn, after it has looked at the sockets. */
void arm_turn()
{
    const Loop &all = loop();
    if (all.jobs.empty() && all.timers.empty())
        return;
    int64_t wait = 0;
    if (all.jobs.empty())
        wait = std::max<int64_t>(all.timers.begin()->first.first - linux_loop_now(), 0);
    const timeval delay = {wait / SECOND, wait % SECOND};
    evtimer_add(all.turn, &delay);
}

void run_jobs()
{
    Loop &all = loop();
    for (size_t left = all.jobs.size(); left > 0 && !all.is_stopped; left--) {
        const Job job = std::move(all.jobs.front());
        all.jobs.pop_front();
        job();
    }
}

void run_timers()
{
    Loop &all = loop();
    const int64_t now = linux_loop_now();
    const uint64_t first_new = all.next_timer;
    while (!all.timers.empty() && !all.is_stopped) {
        const auto at = all.timers.begin();
        const auto [due, id] = at->first;
        if (due > now || id >= first_new)
            break;
        const Job job = std::move(at->second);
        all.due.erase(id);
        all.timers.erase(at);
        job();
    }
}

void run_turn(evutil_socket_t, short, void *)
{
    run_jobs();
    run_timers();
    arm_turn();
}

/* Returns 0 when told to stop, -ENOTCONN when the context was finished meanwhile. */
int run_until_stopped(const Context &context)
{
    while (!loop().is_stopped) {
        if (!context.is_open)
            return -ENOTCONN;
        if (event_base_loop(loop().base, EVLOOP_NO_EXIT_ON_EMPTY) < 0)
            return -EIO;
    }
    return 0;
}

Context *find_context(const kt_global *global)
{
    if (the_loop == nullptr)
        return nullptr;
    for (const auto &context : the_loop->contexts) {
        if (global == &context->base)
            return context.get();
    }
    return nullptr;
}

Context *open_context(const kt_global *global)
{
    Context *context = find_context(global);
    return context != nullptr && context->is_open ? context : nullptr;
}

/* A new context; the oldest finished one goes when there are too many. NULL: all are in use. */
Context *room_for_context()
{
    auto &all = loop().contexts;
    if (all.size() >= LINUX_LOOP_CONTEXTS_MAX) {
        const auto finished = std::find_if(all.begin(), all.end(),
                                           [](const auto &context) { return !context->is_open; });
        if (finished == all.end())
            return nullptr;
        all.erase(finished);
    }
    all.push_back(std::make_unique<Context>("", loop().next_context++));
    return all.back().get();
}

} // namespace
