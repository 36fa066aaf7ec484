#include "app/proc/udp_vvlan_hmap.h"

namespace
{

constexpr uint32_t HMAP_BUCKETS_MIN = 4;
constexpr uint32_t HMAP_BUCKETS_MAX = 1U << 31;
constexpr uint32_t GOLDEN_RATIO = 0x9e3779b9;

struct lookup2_state {
    uint32_t a, b, c;
};

void lookup2_mix(lookup2_state *s)
{
    auto step = [](uint32_t &x, uint32_t y, uint32_t z, uint32_t shifted) {
        x = (x - y - z) ^ shifted;
    };
    step(s->a, s->b, s->c, s->c >> 13);
    step(s->b, s->c, s->a, s->a << 8);
    step(s->c, s->a, s->b, s->b >> 13);
    step(s->a, s->b, s->c, s->c >> 12);
    step(s->b, s->c, s->a, s->a << 16);
    step(s->c, s->a, s->b, s->b >> 5);
    step(s->a, s->b, s->c, s->c >> 3);
    step(s->b, s->c, s->a, s->a << 10);
    step(s->c, s->a, s->b, s->b >> 15);
}

/* The little-endian word made of the first `count` bytes, at most four. */
uint32_t word_of(const uint8_t *bytes, uint32_t count)
{
    uint32_t word = 0;
    for (uint32_t i = 0; i < count && i < 4; i++)
        word |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    return word;
}

/* Whether this many occupied buckets are 0.77 of all or more. */
bool is_full(uint32_t occupied, uint32_t bucket_count)
{
    return uint64_t{occupied} * 100 >= uint64_t{bucket_count} * 77;
}

udp_vvlan_hmap_bucket *new_buckets(uint32_t count)
{
    auto *buckets = static_cast<udp_vvlan_hmap_bucket *>(
        std::malloc(static_cast<size_t>(count) * sizeof(udp_vvlan_hmap_bucket)));
    for (uint32_t i = 0; buckets != nullptr && i < count; i++)
        buckets[i] = {nullptr, 0, UDP_VVLAN_HMAP_EMPTY};
    return buckets;
}

int rebuild(udp_vvlan_hmap_base *map, uint32_t bucket_count)
{
    udp_vvlan_hmap_base next = {new_buckets(bucket_count), bucket_count, map->size, map->size};
    if (next.buckets == nullptr)
        return -1;
    for (uint32_t i = 0; i < map->bucket_count; i++) {
        if (map->buckets[i].flags == UDP_VVLAN_HMAP_LIVE)
            *udp_vvlan_hmap_vacancy(&next, map->buckets[i].hash) = map->buckets[i];
    }
    std::free(map->buckets);
    *map = next;
    return 0;
}

} // namespace

uint32_t udp_vvlan_hmap_hash(const void *key, uint32_t length)
{
    const auto *bytes = static_cast<const uint8_t *>(key);
    lookup2_state s = {GOLDEN_RATIO, GOLDEN_RATIO, 0};
    uint32_t left = length;
    for (; left >= 12; left -= 12, bytes += 12) {
        s.a += word_of(bytes, 4);
        s.b += word_of(bytes + 4, 4);
        s.c += word_of(bytes + 8, 4);
        lookup2_mix(&s);
    }
    /* The low byte of the last word is the length's, so its data starts at the second. */
    s.c += length;
    s.a += word_of(bytes, left);
    s.b += left > 4 ? word_of(bytes + 4, left - 4) : 0;
    s.c += left > 8 ? word_of(bytes + 8, left - 8) << 8 : 0;
    lookup2_mix(&s);
    return s.c;
}

int udp_vvlan_hmap_reserve_one(udp_vvlan_hmap_base *map)
{
    if (map->bucket_count == 0)
        return rebuild(map, HMAP_BUCKETS_MIN);
    if (!is_full(map->occupied + 1, map->bucket_count))
        return 0;
    if (map->size <= map->bucket_count / 2)
        return rebuild(map, map->bucket_count);
    return map->bucket_count == HMAP_BUCKETS_MAX ? -1 : rebuild(map, map->bucket_count * 2);
}

udp_vvlan_hmap_bucket *udp_vvlan_hmap_vacancy(const udp_vvlan_hmap_base *map, uint32_t hash)
{
    const uint32_t mask = map->bucket_count - 1;
    uint32_t at = hash & mask;
    for (uint32_t step = 1; map->buckets[at].flags == UDP_VVLAN_HMAP_LIVE; step++)
        at = (at + step) & mask;
    return &map->buckets[at];
}

void udp_vvlan_hmap_free(udp_vvlan_hmap_base *map)
{
    for (uint32_t i = 0; i < map->bucket_count; i++)
        std::free(map->buckets[i].record);
    std::free(map->buckets);
    *map = {};
}
