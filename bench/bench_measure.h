/*
 * bench_measure - what is measured, the same way everywhere.
 *
 * Time is the thread's own, so that what else runs on the machine counts as
 * little as can be. Memory is counted in the allocator's blocks, headers and
 * rounding included, since that is what a record costs a switch.
 */
#ifndef BENCH_BENCH_MEASURE_H
#define BENCH_BENCH_MEASURE_H

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <ctime>

namespace bench
{

/* Processor time of this thread. */
inline double seconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/* Runs `work` as the measured part of an iteration of a benchmark with manual time. */
template <typename Work> void time_it(benchmark::State &state, Work work)
{
    const double start = seconds();
    work();
    state.SetIterationTime(seconds() - start);
}

/* For a benchmark that measures no time: `bytes` per record, as the counter "bytes". */
inline void report_bytes(benchmark::State &state, double bytes)
{
    state.counters["bytes"] = bytes;
    state.SetIterationTime(1e-9);
}

/* Bytes of all blocks in use, mapped ones included. */
inline double bytes_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks) + static_cast<double>(info.hblkhd);
}

} // namespace bench

#endif
