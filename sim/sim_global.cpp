#include "sim/sim_global.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/kt_thread.h"
#include "platform/rdnd_lib.h"
#include "sim/sim_call.h"
#include "sim/sim_process.h"

struct kt_thread_master {
    kt_global *global;
};

namespace sim
{

namespace
{

constexpr size_t CONTEXTS_MAX = 64;
constexpr uint32_t TIMERS_MAX = 65'536;
constexpr uint32_t DATABASES_MAX = 64;
constexpr long SECONDS_MAX = 1'000'000'000;

struct Context {
    kt_global base; /* first: what programs hold is a pointer to it */
    kt_thread_master master;
    std::string name;
    uint64_t id; /* tells contexts apart that lay at the same address */
    uint64_t life;
    bool is_open;
    bool is_registered; /* with the redundancy library */
    uint32_t timers;    /* running */

    Context(std::string name_, uint64_t id_, uint64_t life_)
        : base{&master, this}, master{&base}, name(std::move(name_)), id(id_), life(life_),
          is_open(true), is_registered(false), timers(0)
    {
    }
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;
};

struct Contexts {
    std::vector<std::unique_ptr<Context>> all;
    uint64_t next_id = 1;
};

Contexts contexts;
Context peer("peer", 0, 0);

bool is_peer(const Context &context)
{
    return &context == &peer;
}

/* The context if it works, or NULL. */
Context *open_context(const kt_global *global)
{
    if (global == &peer.base)
        return &peer;
    for (const auto &context : contexts.all) {
        if (global == &context->base)
            return context->is_open && context->life == process_life() ? context.get() : nullptr;
    }
    return nullptr;
}

/* The context that a loop belongs to, or NULL for a pointer that was never given out. */
kt_global *owner_of(const kt_thread_master *master)
{
    if (master == &peer.master)
        return &peer.base;
    for (const auto &context : contexts.all) {
        if (master == &context->master)
            return &context->base;
    }
    return nullptr;
}

/* Callback into the program, or into nobody's program for the peer. */
template <typename Function> void call_owner(const Context &context, Function &&function)
{
    if (is_peer(context))
        function();
    else
        process_call(function);
}

int check_timer(const Context *context, kt_thread_callback callback, long seconds,
                long microseconds)
{
    if (callback == nullptr || seconds < 0 || seconds > SECONDS_MAX || microseconds < 0 ||
        microseconds >= SECOND)
        return -EINVAL;
    if (context == nullptr)
        return -ENOTCONN;
    return context->timers < TIMERS_MAX ? 0 : -ENOMEM;
}

int check_record(const rdnd_lib_mom_record *record)
{
    if (record == nullptr || record->global == nullptr)
        return -EINVAL;
    const Context *context = open_context(record->global);
    if (context == nullptr)
        return -ENOTCONN;
    const bool is_good =
        record->context_handle == record->global->rdnd && record->app_name != nullptr &&
        *record->app_name != '\0' && (record->ready != nullptr || record->ready2 != nullptr) &&
        std::all_of(std::begin(record->zero), std::end(record->zero),
                    [](uintptr_t word) { return word == 0; }) &&
        record->mom_ids != nullptr && record->mom_count > 0 && record->mom_count <= DATABASES_MAX;
    if (!is_good)
        return -EINVAL;
    return context->is_registered ? -EALREADY : 0;
}

} // namespace

kt_global *global_peer()
{
    return &peer.base;
}

bool global_is_open(const kt_global *global)
{
    return open_context(global) != nullptr;
}

void global_post_at(kt_global *global, Micros when, std::function<void()> function)
{
    const Context *posted = open_context(global);
    if (posted == nullptr)
        return;
    post_at(when, [global, id = posted->id, function = std::move(function)] {
        const Context *context = open_context(global);
        if (context != nullptr && context->id == id)
            call_owner(*context, function);
    });
}

void global_process_ended(uint64_t life)
{
    std::erase_if(contexts.all, [life](const auto &context) { return context->life == life; });
}

void global_reset()
{
    contexts.all.clear(); /* ids go on, for jobs that are still posted */
    peer.timers = 0;
}

} // namespace sim

kt_global *kt_global_init(const char *name, kt_global *previous)
{
    const sim::PlatformScope scope;
    if (sim::call_enter("kt_global_init",
                        [&] { return std::string("name=") + sim::text_or_null(name); }) != 0)
        return nullptr;
    if (name == nullptr)
        return nullptr;
    if (sim::global_is_open(previous))
        return previous;
    auto &all = sim::contexts.all;
    if (all.size() >= sim::CONTEXTS_MAX)
        return nullptr;
    return &all.emplace_back(std::make_unique<sim::Context>(name, sim::contexts.next_id++,
                                                            sim::process_life()))
                ->base;
}

int kt_global_run(kt_global *global)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter("kt_global_run", [] { return std::string(); });
    if (fault != 0)
        return fault;
    return sim::global_is_open(global) ? sim::process_park() : -ENOTCONN;
}

void kt_global_finish(kt_global *global)
{
    const sim::PlatformScope scope;
    sim::call_enter("kt_global_finish", [] { return std::string(); });
    sim::Context *context = sim::open_context(global);
    if (context != nullptr && !sim::is_peer(*context))
        context->is_open = false;
}

int kt_thread_add_timer_timeval_withname(kt_thread_master *master, kt_thread_callback callback,
                                         void *argument, long seconds, long microseconds,
                                         const char *name)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter("kt_thread_add_timer_timeval_withname", [&] {
        return "seconds=" + std::to_string(seconds) +
               " microseconds=" + std::to_string(microseconds) + " name=" + sim::text_or_null(name);
    });
    if (fault != 0)
        return fault;
    sim::Context *context = sim::open_context(sim::owner_of(master));
    const int refused =
        master == nullptr ? -EINVAL : sim::check_timer(context, callback, seconds, microseconds);
    if (refused != 0)
        return refused;
    context->timers++;
    sim::global_post_at(&context->base, sim::now() + seconds * sim::SECOND + microseconds,
                        [context, callback, argument] {
                            context->timers--;
                            callback(argument);
                        });
    return 0;
}

int rdnd_lib_mom_reg(const rdnd_lib_mom_record *record)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter("rdnd_lib_mom_reg", [&] {
        return record == nullptr ? std::string()
                                 : std::string("app_name=") + sim::text_or_null(record->app_name) +
                                       " mom_count=" + std::to_string(record->mom_count);
    });
    if (fault != 0)
        return fault;
    const int refused = sim::check_record(record);
    if (refused != 0)
        return refused;
    sim::open_context(record->global)->is_registered = true;
    const rdnd_ready_callback ready = record->ready != nullptr ? record->ready : record->ready2;
    sim::global_post_at(record->global, sim::now(), [ready] { ready(); });
    return 0;
}
