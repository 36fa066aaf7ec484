/*
 * bench_live_feed - what is written into the database, in the two ways there are.
 *
 * A Writer is a client of the database like the management tool: the same
 * library, which writes and publishes an object in one step. A Flood only
 * publishes, commands that were made before, as fast as the server takes them: it
 * shows what a receiver can take.
 */
#ifndef BENCH_BENCH_LIVE_FEED_H
#define BENCH_BENCH_LIVE_FEED_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench/bench_objects.h"
#include "platform/kt_mom.h"

struct redisContext;

namespace bench
{

/* One per process. Failures are thrown as std::runtime_error. */
class Writer
{
public:
    explicit Writer(const std::string &socket);
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;
    ~Writer();

    /* Global settings, OUIs, and ports, of which the first ones are in automatic mode. */
    void configure(const Size &size, uint32_t automatic);
    /* Notifications first to last - 1, stored; their MACs begin again after size.macs. */
    void notify(const Size &size, uint32_t first, uint32_t last);
    void notify_one(const Noti &noti);
    /* A phone shows up at a port: its notice, published. */
    void see(uint32_t ifx);
    /* Until everything that was written has taken effect. */
    void settle();

    /* Calls `told` with the port of every join record that is written. */
    void watch_joins(std::function<void(uint32_t)> told);
    bool run_until(const std::function<bool()> &done, double seconds);

private:
    void write(uint32_t db, const ProtobufCMessage &object);
    void keep_within(size_t limit, uint32_t db);

    kt_global *global_;
    std::function<void(uint32_t)> told_;
};

class Flood
{
public:
    /* `count` notifications in random order, then one of the marker. */
    Flood(const std::string &socket, const Size &size, uint32_t count, const Noti &marker);
    ~Flood();
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;

    /* `rate`: notifications a second; 0: as fast as the server takes them. */
    void run(double rate = 0);

private:
    redisContext *context_;
    std::vector<std::string> batches_;
    std::vector<size_t> counts_;
};

/* The order in which notifications are made: each of the MACs once before any again. */
std::vector<uint32_t> shuffled(uint32_t macs);

} // namespace bench

#endif
