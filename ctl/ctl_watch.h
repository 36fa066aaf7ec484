/*
 * ctl_watch - every change of the databases as it happens, a line each.
 *
 * The database never waits for a person: lines go into a queue that is
 * written as fast as the output takes them, and when the queue is full (of
 * WATCH_QUEUE_LINES or WATCH_QUEUE_BYTES) further changes are counted and skipped until half of it
 * is out; the next line says how many. Those that the database's client had to drop before this
 * tool could take them are counted with them. A line costs a few microseconds, and lines are
 * written together, so that a terminal or a disk is what limits the rate.
 */
#ifndef CTL_CTL_WATCH_H
#define CTL_CTL_WATCH_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ctl/ctl_command.h"

namespace ctl
{

constexpr size_t WATCH_QUEUE_LINES = 65'536;
constexpr size_t WATCH_QUEUE_BYTES = 16u << 20;

struct WatchOptions {
    /* Begin with what stands, and count time from there instead of by the clock. */
    bool since_start = false;
    std::string count;   /* end after so many changes; empty: never */
    std::string seconds; /* end after so long; empty: never */
    std::string queue;   /* lines that may wait; empty: WATCH_QUEUE_LINES */
};

/* All four databases, in words. */
void watch(const Context &context, const WatchOptions &options);

/* The objects of one kind that the key fields select, in text form. */
void watch_objects(const Context &context, const WatchOptions &options,
                   const ObjectOptions &selected);

} // namespace ctl

#endif
