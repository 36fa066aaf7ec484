/*
 * sim_fiber - a function on a stack of its own.
 *
 * The simulator resumes a fiber, which runs until it suspends itself or leaves
 * for good; then the simulator goes on. One fiber runs at a time and a fiber
 * does not resume another. Leaving drops the stack where it stands: no
 * destructors run, as when a kernel ends a process.
 *
 * A stack is 1 MiB of untouched memory above a guard page, four times that
 * under AddressSanitizer, which is told of every switch. Only the first switch
 * to a fiber goes through makecontext(); the others are _setjmp()/_longjmp(),
 * which, unlike swapcontext(), cost no system call.
 */
#ifndef SIM_SIM_FIBER_H
#define SIM_SIM_FIBER_H

#include <csetjmp>
#include <cstddef>
#include <ucontext.h>

namespace sim
{

class Fiber
{
public:
    /* function(argument) must not return; it ends with leave(). Aborts when memory is out. */
    Fiber(void (*function)(void *), void *argument);
    /* The fiber has left, or was never resumed. */
    ~Fiber();
    Fiber(const Fiber &) = delete;
    Fiber &operator=(const Fiber &) = delete;

    /* For the simulator: runs the fiber until it suspends or leaves. */
    void resume();

    /* For the fiber itself: back to the simulator, until resumed, or for ever. */
    void suspend();
    [[noreturn]] void leave();

    bool has_left() const
    {
        return left_;
    }

private:
    static void enter();
    void switch_in();

    void (*function_)(void *);
    void *argument_;
    char *memory_; /* guard page, then the stack */
    bool begun_ = false;
    bool left_ = false;
    ucontext_t start_;
    jmp_buf here_;      /* where the fiber stands */
    jmp_buf simulator_; /* where the simulator stands */
    void *fake_stack_ = nullptr;
    void *simulator_fake_stack_ = nullptr;
    const void *simulator_bottom_ = nullptr;
    size_t simulator_size_ = 0;
};

} // namespace sim

#endif
