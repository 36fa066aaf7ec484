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
 * The record holds at most 1,000,000 calls; then the oldest go. At most 64
 * plans stand at once.
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
 * Plans a fault: the nth call (from 1) of `name` from now on fails. `code` is
 * what it returns; a function that returns a pointer returns NULL, whatever
 * the code. `repeat` calls in a row fail, 1 by default.
 */
void fault_plan(const std::string &name, uint64_t nth, int code, uint64_t repeat = 1);

/* Whether every planned fault has been met. */
bool faults_are_spent();

/*
 * For the platform's functions: announces a call. Returns 0, or the code of
 * the fault that it meets; the function then does nothing and returns it.
 * `arguments` is only called when the record is on.
 */
int call_enter(const char *name, const std::function<std::string()> &arguments);

void call_reset();

} // namespace sim

#endif
