#include "sim/sim_call.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <utility>

namespace sim
{

namespace
{

using call_detail::Counter;

constexpr size_t CALLS_MAX = 1'000'000;
constexpr size_t PLANS_MAX = 64;
constexpr size_t CACHE_SIZE = 512; /* power of two, well above the number of functions */

struct Plan {
    const Counter *counter;
    uint64_t first, last; /* counts that fail */
    int code;

    bool is_spent() const
    {
        return counter->count >= last;
    }
};

struct Record {
    std::vector<Call> calls;
    std::vector<Plan> plans;
    std::function<void(const Call &)> listener;
    std::function<void()> hook;
    bool hook_runs = false;
};

Record record;
std::deque<Counter> counters;              /* do not move, are never removed */
std::deque<std::string> names;             /* what counters that a plan made point at */
std::array<Counter *, CACHE_SIZE> cache;   /* by address of the name */
std::array<const char *, CACHE_SIZE> keys; /* whose they are */
size_t cached;

template <typename Function> void each_counter(Function function)
{
    function(call_detail::allocations);
    std::for_each(counters.begin(), counters.end(), function);
}

Counter *find_counter(const std::string &name)
{
    Counter *found = nullptr;
    each_counter([&name, &found](Counter &counter) {
        if (name == counter.name)
            found = &counter;
    });
    return found;
}

Counter &counter_for(const std::string &name)
{
    if (Counter *known = find_counter(name))
        return *known;
    names.push_back(name);
    return counters.emplace_back(
        Counter{names.back().c_str(), 0, call_detail::is_recording || record.hook != nullptr});
}

void watch_what_matters()
{
    each_counter([](Counter &counter) {
        counter.is_watched =
            call_detail::is_recording ||
            (record.hook != nullptr && &counter != &call_detail::allocations) ||
            std::any_of(record.plans.begin(), record.plans.end(), [&counter](const Plan &plan) {
                return plan.counter == &counter && !plan.is_spent();
            });
    });
}

int fault_of(const Counter &counter)
{
    for (const Plan &plan : record.plans) {
        if (plan.counter == &counter && counter.count >= plan.first && counter.count <= plan.last)
            return plan.code;
    }
    return 0;
}

void remember(Call call)
{
    if (record.calls.size() >= CALLS_MAX)
        record.calls.erase(record.calls.begin(), record.calls.begin() + CALLS_MAX / 10);
    record.calls.push_back(std::move(call));
    if (record.listener) {
        const std::function<void(const Call &)> listener = record.listener;
        listener(record.calls.back());
    }
}

void run_hook()
{
    if (record.hook == nullptr || record.hook_runs)
        return;
    record.hook_runs = true;
    const std::function<void()> hook = record.hook; /* it may set another */
    hook();
    record.hook_runs = false;
}

/* What a call that was just counted meets. */
int meet(const Counter &counter, const std::string &arguments)
{
    const int fault = fault_of(counter);
    if (call_detail::is_recording)
        remember({now(), counter.name, arguments, fault});
    else if (fault != 0)
        watch_what_matters();
    return fault;
}

} // namespace

namespace call_detail
{

constinit bool platform_runs = false;
constinit bool is_recording = false;
constinit Counter allocations = {"malloc", 0, false};

Counter &counter_of(const char *name)
{
    size_t at = (reinterpret_cast<uintptr_t>(name) * 0x9E3779B97F4A7C15U) >> 55;
    while (keys[at] != name && keys[at] != nullptr)
        at = (at + 1) % CACHE_SIZE;
    if (keys[at] != nullptr)
        return *cache[at];
    const PlatformScope scope;
    Counter &counter = counter_for(name);
    if (cached < CACHE_SIZE / 2) { /* there must be an end to every probe */
        cache[at] = &counter;
        keys[at] = name;
        cached++;
    }
    return counter;
}

int enter_watched(Counter &counter, const std::string &arguments)
{
    run_hook();
    counter.count++;
    return meet(counter, arguments);
}

bool allocation_is_refused(size_t size)
{
    const PlatformScope scope;
    return fault_of(allocations) != 0 && meet(allocations, "size=" + std::to_string(size)) != 0;
}

} // namespace call_detail

void calls_record(bool on)
{
    call_detail::is_recording = on;
    watch_what_matters();
}

bool calls_are_recorded()
{
    return call_detail::is_recording;
}

const std::vector<Call> &calls()
{
    return record.calls;
}

void calls_clear()
{
    record.calls.clear();
}

uint64_t calls_count(const std::string &name)
{
    const Counter *counter = find_counter(name);
    return counter == nullptr ? 0 : counter->count;
}

std::vector<std::string> calls_names()
{
    std::vector<std::string> result;
    each_counter([&result](const Counter &counter) {
        if (counter.count > 0)
            result.emplace_back(counter.name);
    });
    std::sort(result.begin(), result.end());
    return result;
}

void calls_listen(std::function<void(const Call &)> listener)
{
    record.listener = std::move(listener);
    if (record.listener)
        calls_record(true);
}

void call_before_each(std::function<void()> hook)
{
    record.hook = std::move(hook);
    watch_what_matters();
}

void fault_plan(const std::string &name, uint64_t nth, int code, uint64_t repeat)
{
    std::erase_if(record.plans, [](const Plan &plan) { return plan.is_spent(); });
    if (record.plans.size() >= PLANS_MAX || nth == 0 || repeat == 0) {
        std::fprintf(stderr, "sim: fault plan for %s refused: %zu plans stand, call %llu\n",
                     name.c_str(), record.plans.size(), static_cast<unsigned long long>(nth));
        std::abort();
    }
    const Counter &counter = counter_for(name);
    const uint64_t first = counter.count + nth;
    record.plans.push_back({&counter, first, first + repeat - 1, code == 0 ? -EIO : code});
    watch_what_matters();
}

bool faults_are_spent()
{
    return std::all_of(record.plans.begin(), record.plans.end(),
                       [](const Plan &plan) { return plan.is_spent(); });
}

void call_reset()
{
    record = {};
    each_counter([](Counter &counter) { counter.count = 0; });
    calls_record(false);
}

} // namespace sim
