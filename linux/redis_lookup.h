/*
 * redis_lookup - the addresses of a server's name, without standing still for the resolver.
 *
 * The resolver of the C library blocks, with no name server in reach for half a minute,
 * and the loop of a program that must not stand still has several connections to make. So
 * a thread asks it, one at a time for a name, and its answer serves every connection that
 * is made within a second. Where an address is known it is used at once, though the name
 * is asked for anew beside that: if the name has moved, a later attempt to connect hears
 * of it. What is known stays known while the resolver fails.
 *
 * Limits: who asks for a name for the first time waits two seconds at most; later nobody
 * waits, and a name of which nothing is known yet fails at once. An address in figures is never
 * looked up. 64 names are remembered; one more, and all are forgotten.
 */
#ifndef LINUX_REDIS_LOOKUP_H
#define LINUX_REDIS_LOOKUP_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace redis
{

/*
 * The addresses of a host, given by name or in figures, as figures, the resolver's first
 * choice first. None, and *why says so, if there is none or none is known yet. To be called
 * from one thread.
 */
std::vector<std::string> lookup(const std::string &host, std::string *why);

/* 0 and addresses in figures, or what gai_strerror() explains. Called by a thread. */
using Resolver = std::function<int(const std::string &host, std::vector<std::string> *numbers)>;

/*
 * For tests: who is asked in place of the C library, how long is waited for the first
 * answer about a name, and how long an answer serves; no resolver: all as it is by itself.
 * Everything known is forgotten.
 */
void lookup_with(Resolver resolver, std::chrono::milliseconds first_wait,
                 std::chrono::milliseconds fresh);

} // namespace redis

#endif
