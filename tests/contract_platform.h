/*
 * What the contract suite (test_mom_contract.cpp) needs of a platform beside the
 * declarations that it tests. Each program that runs the suite implements it:
 * contract_sim.cpp for the database in memory, live/contract_redis.cpp for the
 * one on Redis.
 */
#ifndef TESTS_CONTRACT_PLATFORM_H
#define TESTS_CONTRACT_PLATFORM_H

#include "platform/kt_global.h"

#include <cstddef>
#include <cstdint>

namespace contract
{

/* How many rounds of random disturbance the platform gets through in some seconds. */
extern const uint32_t platform_rounds;

/* Empties the databases; no program runs, and the peer is connected to all of them. */
void platform_reset();

/* The other client. */
kt_global *platform_peer();

/* Turns the loop until nothing happens any more. */
void platform_settle();

/* So many seconds pass, as far as leases and limits are concerned, and all is settled. */
void platform_pass(int64_t seconds);

void platform_end_program(kt_global *program);

/*
 * The program's connection to a database is lost, and comes back from the loop, with
 * a kt_mom_reconnect type. Calls fail from the one until after the other.
 */
void platform_cut(kt_global *program, uint32_t db);
void platform_restore(uint32_t db, int type);

/* Changes that may wait for one subscription, until the reset. */
void platform_limit_queue(size_t changes);

} // namespace contract

#endif
