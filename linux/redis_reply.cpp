#include "linux/redis_reply.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace redis
{

namespace
{

constexpr size_t BLOCK_FIRST =
    1'024;                           /* with a message in it; no more than malloc() keeps at hand */
constexpr size_t BLOCK_MAX = 65'536; /* but for what is larger */

/* The first one of a reply has the reply itself right behind it. */
struct alignas(std::max_align_t) Block {
    Block *newest; /* in the first: where there is room */
    Block *older;
    size_t size, used;
};

constexpr size_t aligned(size_t size)
{
    return (size + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
}

Block *new_block(Block *older, size_t size)
{
    auto *block = static_cast<Block *>(std::malloc(size));
    if (block != nullptr)
        *block = {block, older, size, sizeof(Block)};
    return block;
}

/* Memory of a reply that begins with this block, or nullptr. */
void *take(Block *first, size_t size)
{
    Block *block = first->newest;
    if (block->size - block->used < size) {
        const size_t wanted = std::min(block->size * 4, BLOCK_MAX);
        block = new_block(block, std::max(wanted, sizeof(Block) + size));
        if (block == nullptr)
            return nullptr;
        first->newest = block;
    }
    void *taken = reinterpret_cast<char *>(block) + block->used;
    block->used += size;
    return taken;
}

Block *first_of(void *reply)
{
    return static_cast<Block *>(reply) - 1;
}

/* What the reader's task has read, with so many bytes behind it; nullptr without memory. */
redisReply *make(const redisReadTask &task, size_t bytes_behind)
{
    const size_t size = aligned(sizeof(redisReply) + bytes_behind);
    const redisReadTask *root = &task;
    while (root->parent != nullptr)
        root = root->parent;
    Block *first = root != &task ? first_of(root->obj)
                                 : new_block(nullptr, std::max(BLOCK_FIRST, sizeof(Block) + size));
    auto *made = first == nullptr ? nullptr : static_cast<redisReply *>(take(first, size));
    if (made == nullptr)
        return nullptr;
    *made = {task.type, 0, 0, nullptr, 0, nullptr};
    if (task.parent != nullptr)
        static_cast<redisReply *>(task.parent->obj)->element[task.idx] = made;
    return made;
}

void *make_string(const redisReadTask *task, char *text, size_t size)
{
    redisReply *made = make(*task, size + 1);
    if (made == nullptr)
        return nullptr;
    made->str = reinterpret_cast<char *>(made + 1);
    made->len = size;
    std::memcpy(made->str, text, size);
    made->str[size] = '\0';
    return made;
}

void *make_array(const redisReadTask *task, int count)
{
    const auto elements = static_cast<size_t>(std::max(count, 0));
    redisReply *made = make(*task, elements * sizeof(redisReply *));
    if (made == nullptr)
        return nullptr;
    made->element = reinterpret_cast<redisReply **>(made + 1);
    made->elements = elements;
    return made;
}

void *make_integer(const redisReadTask *task, long long value)
{
    redisReply *made = make(*task, 0);
    if (made != nullptr)
        made->integer = value;
    return made;
}

/* In place of a string or an array, for which the task was. */
void *make_nil(const redisReadTask *task)
{
    redisReply *made = make(*task, 0);
    if (made != nullptr)
        made->type = REDIS_REPLY_NIL;
    return made;
}

void free_reply(void *reply)
{
    if (reply == nullptr)
        return;
    for (Block *block = first_of(reply)->newest; block != nullptr;) {
        Block *older = block->older;
        std::free(block);
        block = older;
    }
}

redisReplyObjectFunctions functions = {make_string, make_array, make_integer, make_nil, free_reply};

} // namespace

void FreeReply::operator()(redisReply *reply) const
{
    free_reply(reply);
}

redisReader *reply_reader()
{
    return redisReaderCreateWithFunctions(&functions);
}

std::string_view text_of(const redisReply &reply)
{
    return reply.str == nullptr ? std::string_view() : std::string_view(reply.str, reply.len);
}

bool is_error(const redisReply &reply)
{
    return reply.type == REDIS_REPLY_ERROR;
}

} // namespace redis
