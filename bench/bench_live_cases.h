/*
 * bench_live_cases - what is measured of the daemon as a process on Redis.
 *
 * Every case fills the databases, starts what it needs and leaves nothing
 * running. What is compared runs in turns, with the same server and the same
 * bytes. A case also checks that the daemon did the work, and throws
 * std::runtime_error if it did not.
 */
#ifndef BENCH_BENCH_LIVE_CASES_H
#define BENCH_BENCH_LIVE_CASES_H

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "bench/bench_live_feed.h"
#include "bench/bench_live_host.h"
#include "bench/bench_objects.h"

namespace bench
{

/* By name of the figure: all values, in the order of the rounds. */
using Figures = std::map<std::string, std::vector<double>>;
/* By name of what was measured. */
using Results = std::map<std::string, Figures>;

/* A synchronisation that is measured. Each port in automatic mode costs a scan of all MACs. */
struct Sync {
    const char *name;
    Size size;
    uint32_t automatic; /* ports in that mode; the others are in manual mode */
    uint32_t rounds;
};

struct Scale {
    Size size;        /* of the switch */
    uint32_t notices; /* a round */
    uint32_t rounds;  /* of these */
    uint32_t samples; /* of a latency */
    uint32_t watched; /* changes for the tool to tell of */
    double idle;      /* seconds */
    std::span<const Sync> syncs;
};

struct Bench {
    const Paths &paths;
    const Scale &scale;
    Server &server;
    Writer &writer;
    Results &results;
    std::function<void()> save; /* the results as far as they are */
};

/* Seconds a MAC notice, written as they are by a bridge and published only. */
void case_notices(const Bench &bench);
/* First synchronisation and restart, for several shares of ports in automatic mode. */
void case_synchronise(const Bench &bench);
/* From a port notice to the join record. */
void case_latency(const Bench &bench);
/* What the tool's watch tells of when changes come at a steady rate, and all at once. */
void case_watch(const Bench &bench);
/* Bytes per port and MAC; what the daemon does when nothing happens. */
void case_memory_and_idle(const Bench &bench);

/* The process beside the latency: writes MAC notices at that rate until it is killed. */
[[noreturn]] void feed_forever(const std::string &socket, const Size &size, double rate);

} // namespace bench

#endif
