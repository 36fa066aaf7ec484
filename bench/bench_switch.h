/*
 * bench_switch - a simulated switch of a given size with the daemon on it.
 *
 * What it holds is that of bench_objects; all ports are in automatic mode. Debug
 * level 1: errors are logged.
 */
#ifndef BENCH_BENCH_SWITCH_H
#define BENCH_BENCH_SWITCH_H

#include <cstdint>

#include "bench/bench_objects.h"

namespace bench
{

/* The constructor starts an empty world; the databases are filled by what follows. */
class Switch
{
public:
    explicit Switch(const Size &size);
    Switch(const Switch &) = delete;
    Switch &operator=(const Switch &) = delete;
    ~Switch();

    /* Writes what the management plane configures: global settings, OUIs, ports. */
    void configure() const;
    /* Writes the bridge's notification of every MAC. */
    void notify_macs() const;
    /* Starts the daemon and runs until nothing is due. */
    void start() const;
    void delete_oui(uint32_t number) const;

private:
    Size size_;
};

} // namespace bench

#endif
