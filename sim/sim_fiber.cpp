/* Jumping between stacks is what is wanted here; the fortified longjmp() refuses it. */
#undef _FORTIFY_SOURCE

#include "sim/sim_fiber.h"

#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#define SIM_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SIM_ASAN 1
#endif
#endif
#ifndef SIM_ASAN
#define SIM_ASAN 0
#endif

#if SIM_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace sim
{

namespace
{

constexpr size_t STACK_SIZE = (SIM_ASAN ? 4U : 1U) << 20;

Fiber *entering; /* hands the fiber to its first function, which takes no pointer */

size_t guard_size()
{
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

/* The stack may hold the only pointers to what the program owns. */
void tell_stack_begins([[maybe_unused]] void *bottom)
{
#if SIM_ASAN
    __lsan_register_root_region(bottom, STACK_SIZE);
#endif
}

/* Dropped frames leave their marks behind. */
void tell_stack_ends([[maybe_unused]] void *bottom)
{
#if SIM_ASAN
    __lsan_unregister_root_region(bottom, STACK_SIZE);
    __asan_unpoison_memory_region(bottom, STACK_SIZE);
#endif
}

/* keep: where to keep the fake stack that is left, or NULL to destroy it. */
void tell_switch_begins([[maybe_unused]] void **keep, [[maybe_unused]] const void *bottom,
                        [[maybe_unused]] size_t size)
{
#if SIM_ASAN
    __sanitizer_start_switch_fiber(keep, bottom, size);
#endif
}

void tell_switch_ended([[maybe_unused]] void *kept, [[maybe_unused]] const void **old_bottom,
                       [[maybe_unused]] size_t *old_size)
{
#if SIM_ASAN
    __sanitizer_finish_switch_fiber(kept, old_bottom, old_size);
#endif
}

} // namespace

Fiber::Fiber(void (*function)(void *), void *argument) : function_(function), argument_(argument)
{
    const size_t guard = guard_size();
    void *mapped = mmap(nullptr, guard + STACK_SIZE, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED || mprotect(mapped, guard, PROT_NONE) != 0) {
        std::perror("sim: no stack for the simulated process");
        std::abort();
    }
    memory_ = static_cast<char *>(mapped);
    tell_stack_begins(memory_ + guard);
}

Fiber::~Fiber()
{
    tell_stack_ends(memory_ + guard_size());
    munmap(memory_, guard_size() + STACK_SIZE);
}

void Fiber::resume()
{
    tell_switch_begins(&simulator_fake_stack_, memory_ + guard_size(), STACK_SIZE);
    if (_setjmp(simulator_) == 0)
        switch_in();
    tell_switch_ended(simulator_fake_stack_, nullptr, nullptr);
}

/* Its frame is abandoned, so it has no local that AddressSanitizer would mark. */
void Fiber::switch_in()
{
    if (begun_)
        _longjmp(here_, 1);
    begun_ = true;
    entering = this;
    getcontext(&start_);
    start_.uc_stack.ss_sp = memory_ + guard_size();
    start_.uc_stack.ss_size = STACK_SIZE;
    start_.uc_link = nullptr;
    makecontext(&start_, &Fiber::enter, 0);
    setcontext(&start_);
}

void Fiber::enter()
{
    Fiber *fiber = entering;
    tell_switch_ended(nullptr, &fiber->simulator_bottom_, &fiber->simulator_size_);
    fiber->function_(fiber->argument_);
    std::abort();
}

void Fiber::suspend()
{
    tell_switch_begins(&fake_stack_, simulator_bottom_, simulator_size_);
    if (_setjmp(here_) == 0)
        _longjmp(simulator_, 1);
    tell_switch_ended(fake_stack_, &simulator_bottom_, &simulator_size_);
}

void Fiber::leave()
{
    left_ = true;
    tell_switch_begins(nullptr, simulator_bottom_, simulator_size_);
    _longjmp(simulator_, 1);
}

} // namespace sim
