/*
 * redis_reply - the database server's replies, each in one piece of memory.
 *
 * hiredis asks the allocator three times for every element of a reply, which is
 * most of what a published message costs. Here a reply lies in a block of its own,
 * which grows by further blocks: a message takes one, a page of a scan a few.
 * What is read is hiredis's redisReply, except that nothing in it can be freed by
 * itself, and that strings end in a NUL of no meaning.
 */
#ifndef LINUX_REDIS_REPLY_H
#define LINUX_REDIS_REPLY_H

#include <hiredis/hiredis.h>
#include <memory>
#include <string_view>

namespace redis
{

struct FreeReply {
    void operator()(redisReply *reply) const;
};

using Reply = std::unique_ptr<redisReply, FreeReply>;

/* A reader whose replies must become Reply; to be freed with redisReaderFree(). */
redisReader *reply_reader();

/* The bytes of a string or an error; empty for any other reply. They go with the reply. */
std::string_view text_of(const redisReply &reply);
/* The server refused; text_of() says why. */
bool is_error(const redisReply &reply);

} // namespace redis

#endif
