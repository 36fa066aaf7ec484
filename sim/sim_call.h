/*
 * sim_call - the record of every platform call, and planned faults.
 *
 * Each function of the simulated platform announces itself here first. The
 * record keeps name and arguments as text when somebody listens (a test, the
 * --trace option); when nobody does, nothing is formatted. A plan says that
 * the n-th call of a named function fails with a given code, counted from the
 * moment the plan was made; it also fails the n-th allocation of the program
 * ("malloc").
 *
 * The record holds at most 1,000,000 calls; then the oldest tenth goes. At most 64
 * plans stand at once.
 *
 * Whose code runs? Allocations count for "malloc", and POSIX calls go to the
 * simulated host, only while the program's own code runs. A function of the
 * platform says that it took over with a PlatformScope; where it calls the
 * program back from inside (kt_mom_scan_sync()), it does so through
 * process_call(), which hands over again.
 */
#ifndef SIM_SIM_CALL_H
#define SIM_SIM_CALL_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sim/sim_loop.h"

namespace sim
{

struct Call {
    Micros when;
    std::string name;
    std::string arguments; /* "db=4 object=p_bridge.vvlan_port_auto index.ifx=3 enable=1" */
    int fault;             /* code of the planned fault that it met, or 0 */
};

/* Switches recording on or off; off is the start value. */
void calls_record(bool on);
bool calls_are_recorded();

/* What was recorded, oldest first. */
const std::vector<Call> &calls();
void calls_clear();

/* How often a function was called since the last reset; counted always. */
uint64_t calls_count(const std::string &name);
/* All names that were called, for a sweep over every function. */
std::vector<std::string> calls_names();

/* Called for every recorded call as it is made; nullptr to stop. Switches recording on. */
void calls_listen(std::function<void(const Call &)> listener);

/*
 * Called before each call takes effect, but for allocations; an empty function
 * to stop. One hook; without it nothing is spent. It may look at everything
 * and must not end the process; calls that it makes are not announced to it.
 */
void call_before_each(std::function<void()> hook);

/*
 * Plans a fault: the nth call (from 1) of `name` from now on fails. `code` is
 * what it returns, 0 standing for -EIO; a function that returns a pointer
 * returns NULL, and a POSIX function -1 with errno set to -code. `repeat`
 * calls in a row fail, 1 by default. `name` "malloc" stands for malloc() and
 * calloc(), which are recorded only where they fail. A 65th plan that has not
 * been met aborts the simulation with a message.
 */
void fault_plan(const std::string &name, uint64_t nth, int code, uint64_t repeat = 1);

/* Whether every planned fault has been met. */
bool faults_are_spent();

/* Forgets counts, record, listener, hook and plans, and switches recording off. */
void call_reset();

/* Marks, while it lives, that the platform's code runs and not the program's. */
class PlatformScope
{
public:
    PlatformScope();
    ~PlatformScope();
    PlatformScope(const PlatformScope &) = delete;
    PlatformScope &operator=(const PlatformScope &) = delete;

private:
    bool before_;
};

/* What the fast path of call_enter() needs to see; not for use elsewhere. */
namespace call_detail
{

struct Counter {
    const char *name;
    uint64_t count;
    bool is_watched; /* the record is on, a hook is set, or a plan for this name stands */
};

extern bool platform_runs;
extern bool is_recording;

/* The counter of a name. `name` must be a literal: it is cached by its address. */
Counter &counter_of(const char *name);
int enter_watched(Counter &counter, const std::string &arguments);

/* malloc() and calloc() have a counter that is there before any constructor ran. */
extern Counter allocations;
bool allocation_is_refused(size_t size);

} // namespace call_detail

inline PlatformScope::PlatformScope() : before_(call_detail::platform_runs)
{
    call_detail::platform_runs = true;
}

inline PlatformScope::~PlatformScope()
{
    call_detail::platform_runs = before_;
}

/*
 * For the platform's functions: announces a call. name: a string literal.
 * arguments: called as std::string() when the record is on, else not at all.
 * Returns 0, or the code of the fault that the call meets; the function then
 * does nothing and returns it.
 */
template <typename Arguments> int call_enter(const char *name, Arguments &&arguments)
{
    call_detail::Counter &counter = call_detail::counter_of(name);
    if (!counter.is_watched) [[likely]] {
        counter.count++;
        return 0;
    }
    const PlatformScope scope;
    return call_detail::enter_watched(counter,
                                      call_detail::is_recording ? arguments() : std::string());
}

/* For arguments in the record. */
inline const char *text_or_null(const char *text)
{
    return text == nullptr ? "(null)" : text;
}

} // namespace sim

#endif
