#include "sim/sim_loop.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <utility>
#include <vector>

namespace sim
{

namespace
{

constexpr size_t JOBS_MAX = 4'194'304;

struct Job {
    Micros when;
    uint64_t order; /* of posting */
    std::function<void()> run;

    bool is_before(const Job &other) const
    {
        return when != other.when ? when < other.when : order < other.order;
    }
};

/* Most jobs are for this very moment; they need no heap. */
struct Loop {
    Micros clock = 0;
    uint64_t posted = 0;
    std::deque<Job> due;    /* in order */
    std::vector<Job> later; /* heap, the first on top */
    std::function<void()> after_each;
};

Loop loop;

bool is_after(const Job &a, const Job &b)
{
    return b.is_before(a);
}

void check_room()
{
    if (loop.due.size() + loop.later.size() < JOBS_MAX)
        return;
    std::fprintf(stderr, "sim: %zu jobs are posted at %lld us; a job breeds\n", JOBS_MAX,
                 static_cast<long long>(loop.clock));
    std::abort();
}

/* The queue whose head is the next job of all, which must exist. */
bool next_is_due_queue()
{
    return !loop.due.empty() &&
           (loop.later.empty() || loop.due.front().is_before(loop.later.front()));
}

Job take_next()
{
    Job job;
    if (next_is_due_queue()) {
        job = std::move(loop.due.front());
        loop.due.pop_front();
    } else {
        std::pop_heap(loop.later.begin(), loop.later.end(), is_after);
        job = std::move(loop.later.back());
        loop.later.pop_back();
    }
    return job;
}

} // namespace

Micros now()
{
    return loop.clock;
}

void post(std::function<void()> job)
{
    check_room();
    loop.due.push_back({loop.clock, loop.posted++, std::move(job)});
}

void post_at(Micros when, std::function<void()> job)
{
    if (when <= loop.clock) {
        post(std::move(job));
        return;
    }
    check_room();
    loop.later.push_back({when, loop.posted++, std::move(job)});
    std::push_heap(loop.later.begin(), loop.later.end(), is_after);
}

void run_until(Micros when)
{
    for (std::optional<Micros> next = next_due(); next && *next <= when; next = next_due()) {
        const Job job = take_next();
        loop.clock = std::max(loop.clock, job.when);
        job.run();
        if (loop.after_each) {
            const std::function<void()> hook = loop.after_each; /* it may replace itself */
            hook();
        }
    }
    loop.clock = std::max(loop.clock, when);
}

void settle()
{
    run_until(loop.clock);
}

std::optional<Micros> next_due()
{
    if (loop.due.empty() && loop.later.empty())
        return std::nullopt;
    return next_is_due_queue() ? loop.due.front().when : loop.later.front().when;
}

void loop_after_each(std::function<void()> hook)
{
    loop.after_each = std::move(hook);
}

void loop_reset()
{
    loop = {};
}

} // namespace sim
