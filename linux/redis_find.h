/*
 * redis_find - which server is the object database, and how to log in to it.
 *
 * Pure: it turns the settings (linux/linux_env.h) and Sentinel's answers into
 * addresses; who asks keeps the link. Where several places can be tried (the
 * Sentinels, and the addresses that a name has) attempts are counted through, and
 * each takes the next place: every Sentinel once before another address of one. Where an attempt
 * has led to the server is remembered for the whole process: a connection made later, or made
 * again, begins there, and does not wait once more for a host that is dead.
 *
 * TLS: always with tls:; with sentinel: if VVLAN_MOM_CA is set, then to the
 * Sentinels and to the server alike.
 */
#ifndef LINUX_REDIS_FIND_H
#define LINUX_REDIS_FIND_H

#include "linux/linux_env.h"
#include "linux/redis_link.h"

#include <cstdint>
#include <string>
#include <vector>

namespace redis
{

struct Place {
    Address address;
    bool is_sentinel = false; /* ask it first */
};

/* Where the attempt begins. */
Place find_place(const linux_env_settings &settings, unsigned attempt);
/* How many places there are before attempts come round. */
unsigned find_places(const linux_env_settings &settings);

/* With which attempt to begin, and which one has led to the server. */
unsigned find_first();
void find_succeeded(unsigned attempt);

/* The number that the server knows a database by: every line card has 16 of its own. */
uint32_t find_database(const linux_env_settings &settings, uint32_t db);

/* What to ask a Sentinel, and its answer: *address and "", or one sentence. */
std::vector<std::string> find_question(const linux_env_settings &settings);
std::string find_read_answer(const redisReply &answer, const linux_env_settings &settings,
                             Address *address);

/*
 * The words of AUTH, the password read from its file now; none where there is no password.
 * Returns "", or which file cannot be read and why.
 */
std::string find_login(const linux_env_settings &settings, std::vector<std::string> *words);

/* Answer of ROLE: whether the server takes writes. */
bool find_is_master(const redisReply &role);
/* Whether a refusal means that it does not any more, being a replica or cut off from its own. */
bool find_is_demoted(const redisReply &error);

} // namespace redis

#endif
