/*
 * The references: programs that do no more with hiredis than receive what the
 * daemon receives and unpack it.
 *
 *     vvlan_bench_bare subscribe SOCKET COUNT   so many MAC notifications
 *     vvlan_bench_bare scan SOCKET TIMES        everything there is, the MAC
 *                                               notifications so many times
 *
 * A line "ready" when a subscription is in place; at the end a line with the
 * number of objects, the moment on the monotonic clock, and the processor time
 * that it took, in seconds.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <hiredis/hiredis.h>
#include <string>
#include <string_view>

#include "proto/p_bridge.pb-c.h"
#include "proto/s_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"

namespace
{

struct Kind {
    int db;
    const ProtobufCMessageDescriptor *type;
};

const Kind MAC = {6, &u_bridge__mac_vid_reg_noti__descriptor};

/* What the daemon scans beside the MACs. */
const Kind KINDS[] = {{4, &p_bridge__vvlan_oui_cfg__descriptor},
                      {4, &p_bridge__vvlan_glb_cfg__descriptor},
                      {4, &p_bridge__vvlan_port_cfg__descriptor},
                      {0, &s_bridge__vvlan_port_noty__descriptor},
                      {8, &u_bridge__vvlan_join__descriptor}};

constexpr size_t ID = 8;
constexpr size_t NUMBER = 4;

long objects;

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "vvlan_bench_bare: %s\n", what);
    std::exit(1);
}

redisReply *checked(void *reply)
{
    if (reply == nullptr || static_cast<redisReply *>(reply)->type == REDIS_REPLY_ERROR)
        fail("the server refuses");
    return static_cast<redisReply *>(reply);
}

void unpack(const ProtobufCMessageDescriptor &type, std::string_view message)
{
    ProtobufCMessage *object = protobuf_c_message_unpack(
        &type, nullptr, message.size(), reinterpret_cast<const uint8_t *>(message.data()));
    if (object == nullptr)
        fail("no object of its kind");
    objects++;
    protobuf_c_message_free_unpacked(object, nullptr);
}

size_t byte_at(std::string_view text, size_t at)
{
    return static_cast<uint8_t>(text.at(at));
}

/* operation writer*8 length-of-key*2 key fields field*4... message */
void unpack_published(std::string_view text)
{
    const size_t key = byte_at(text, 1 + ID) << 8 | byte_at(text, 2 + ID);
    const size_t fields = 3 + ID + key;
    unpack(*MAC.type, text.substr(fields + 1 + NUMBER * byte_at(text, fields)));
}

/* 'K' flags writers fields writer*8... [owner*8] field*4... message */
void unpack_stored(const ProtobufCMessageDescriptor &type, std::string_view text)
{
    const size_t ids = byte_at(text, 2) + ((byte_at(text, 1) & 2) != 0);
    unpack(type, text.substr(4 + ids * ID + byte_at(text, 3) * NUMBER));
}

void subscribe(redisContext *context, long count)
{
    const std::string channel = std::to_string(MAC.db) + ":" + MAC.type->name;
    freeReplyObject(checked(redisCommand(context, "SUBSCRIBE %s", channel.c_str())));
    std::puts("ready");
    std::fflush(stdout);
    while (objects < count) {
        void *got = nullptr;
        if (redisGetReply(context, &got) != REDIS_OK)
            fail("cut off");
        const redisReply *reply = checked(got);
        unpack_published({reply->element[2]->str, reply->element[2]->len});
        freeReplyObject(got);
    }
}

void scan(redisContext *context, const Kind &kind)
{
    freeReplyObject(checked(redisCommand(context, "SELECT %d", kind.db)));
    std::string cursor = "0";
    do {
        redisReply *reply = checked(
            redisCommand(context, "HSCAN %s %s COUNT 1000", kind.type->name, cursor.c_str()));
        cursor = reply->element[0]->str;
        const redisReply &page = *reply->element[1];
        for (size_t i = 0; i + 1 < page.elements; i += 2)
            unpack_stored(*kind.type, {page.element[i + 1]->str, page.element[i + 1]->len});
        freeReplyObject(reply);
    } while (cursor != "0");
}

double seconds(clockid_t clock)
{
    timespec time;
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

} // namespace

int main(int count, char **words)
{
    if (count != 4)
        fail("usage: vvlan_bench_bare subscribe|scan SOCKET NUMBER");
    redisContext *context = redisConnectUnix(words[2]);
    if (context == nullptr || context->err != 0)
        fail("the server cannot be reached");
    const long number = std::strtol(words[3], nullptr, 10);
    if (std::strcmp(words[1], "subscribe") == 0) {
        subscribe(context, number);
    } else {
        for (const Kind &kind : KINDS)
            scan(context, kind);
        for (long i = 0; i < number; i++)
            scan(context, MAC);
    }
    std::printf("%ld %.9f %.9f\n", objects, seconds(CLOCK_MONOTONIC),
                seconds(CLOCK_PROCESS_CPUTIME_ID));
    redisFree(context);
    return 0;
}
