/*
 * udp_vvlan_hmap - the keyed hash map.
 *
 * One open-addressing design serves every keyed table of the daemon: ports by
 * ifx, voice MACs by address, recovery entries by ifx. The map owns heap
 * records and keeps pointers to them; the key is a member of the record,
 * compared bytewise over its fixed length. Pointers stay valid while the map
 * grows, so that records can be linked into lists of other tables.
 *
 * Why this shape: records must not move, keys are short and of one length, and
 * the walk order must be the same on every run. Each bucket holds the pointer,
 * the key's full hash and two flag bits (empty, deleted). With the hash beside
 * the pointer a miss or a colliding probe does not touch the record, and
 * growing does not either.
 *
 * Invariants:
 *  - the bucket count is 0 or a power of two, at least 4;
 *  - a probe starts at hash & (buckets - 1) and steps by 1, 2, 3, ..., which
 *    visits every bucket once in a cycle; it ends at an empty bucket or after
 *    a full cycle;
 *  - occupied buckets, live or deleted, stay below 0.77 of the bucket count
 *    after every put; there is thus always an empty bucket.
 *
 * When the occupied buckets reach the limit the map doubles; when half of the
 * buckets or fewer hold a live record it is rebuilt at its size instead, which
 * sheds the deleted marks: a table under churn does not grow. Records are
 * limited by memory, and by 2^31 buckets. A put that cannot allocate changes
 * nothing and returns NULL.
 *
 * Not for use from several threads. A walk's function may delete the record
 * that it was given (but no other) and must not put into the same map.
 */
#ifndef APP_PROC_UDP_VVLAN_HMAP_H
#define APP_PROC_UDP_VVLAN_HMAP_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

/* Bob Jenkins' lookup2 hash of `length` bytes, initial value 0. */
uint32_t udp_vvlan_hmap_hash(const void *key, uint32_t length);

struct udp_vvlan_hmap_bucket {
    void *record;
    uint32_t hash;
    uint8_t flags; /* udp_vvlan_hmap_flag */
};

enum udp_vvlan_hmap_flag : uint8_t {
    UDP_VVLAN_HMAP_LIVE = 0,
    UDP_VVLAN_HMAP_DELETED = 1,
    UDP_VVLAN_HMAP_EMPTY = 2
};

/* The part that does not depend on the type of the record. Zero is an empty map. */
struct udp_vvlan_hmap_base {
    udp_vvlan_hmap_bucket *buckets;
    uint32_t bucket_count;
    uint32_t size;     /* live records */
    uint32_t occupied; /* live and deleted buckets */
};

/* Makes room for one more record. Returns 0, or -1 when memory ran out. */
int udp_vvlan_hmap_reserve_one(udp_vvlan_hmap_base *map);

/* The live bucket of `hash` for which equal(record) holds, or NULL. */
template <typename Equal>
udp_vvlan_hmap_bucket *udp_vvlan_hmap_probe(const udp_vvlan_hmap_base *map, uint32_t hash,
                                            Equal equal)
{
    const uint32_t mask = map->bucket_count - 1;
    uint32_t at = hash & mask;
    for (uint32_t step = 1; step <= map->bucket_count; at = (at + step++) & mask) {
        udp_vvlan_hmap_bucket *bucket = &map->buckets[at];
        if (bucket->flags == UDP_VVLAN_HMAP_EMPTY)
            return nullptr;
        if (bucket->hash == hash && bucket->flags == UDP_VVLAN_HMAP_LIVE && equal(bucket->record))
            return bucket;
    }
    return nullptr;
}

/* Where a record of `hash` that is not in the map goes. Room must have been made. */
udp_vvlan_hmap_bucket *udp_vvlan_hmap_vacancy(const udp_vvlan_hmap_base *map, uint32_t hash);

template <auto Member> struct udp_vvlan_hmap_member;

template <typename Record, typename Key, Key Record::*Member> struct udp_vvlan_hmap_member<Member> {
    using record_type = Record;
    using key_type = Key;
};

/*
 * A map of heap records keyed by one of their members, for example
 * udp_vvlan_hmap<&udp_vvlan_port_node::ifx>. The key's bytes are compared as
 * they lie in memory, so the member must have no padding. Records are plain
 * data, allocated with calloc() and freed with free().
 */
template <auto Member> struct udp_vvlan_hmap : udp_vvlan_hmap_base {
    using record_type = typename udp_vvlan_hmap_member<Member>::record_type;
    using key_type = typename udp_vvlan_hmap_member<Member>::key_type;
    static_assert(std::is_trivially_copyable_v<record_type>, "records are plain data");
};

/* The bucket of a key, or NULL. */
template <auto Member, typename Key>
udp_vvlan_hmap_bucket *udp_vvlan_hmap_bucket_of(const udp_vvlan_hmap<Member> *map, const Key &key,
                                                uint32_t hash)
{
    using record_type = typename udp_vvlan_hmap<Member>::record_type;
    return udp_vvlan_hmap_probe(map, hash, [&key](const void *record) {
        return std::memcmp(&(static_cast<const record_type *>(record)->*Member), &key,
                           sizeof(Key)) == 0;
    });
}

/* The record of `key`, or NULL. It stays the map's. */
template <auto Member>
auto udp_vvlan_hmap_find(const udp_vvlan_hmap<Member> *map,
                         const typename udp_vvlan_hmap<Member>::key_type &key) ->
    typename udp_vvlan_hmap<Member>::record_type *
{
    const udp_vvlan_hmap_bucket *bucket =
        udp_vvlan_hmap_bucket_of(map, key, udp_vvlan_hmap_hash(&key, sizeof key));
    return bucket == nullptr
               ? nullptr
               : static_cast<typename udp_vvlan_hmap<Member>::record_type *>(bucket->record);
}

/*
 * The record of `key`: the existing one, or a new one that is zero but for the
 * key. NULL when memory ran out; nothing has changed then.
 */
template <auto Member>
auto udp_vvlan_hmap_put(udp_vvlan_hmap<Member> *map,
                        const typename udp_vvlan_hmap<Member>::key_type &key) ->
    typename udp_vvlan_hmap<Member>::record_type *
{
    using record_type = typename udp_vvlan_hmap<Member>::record_type;
    const uint32_t hash = udp_vvlan_hmap_hash(&key, sizeof key);
    if (const udp_vvlan_hmap_bucket *found = udp_vvlan_hmap_bucket_of(map, key, hash))
        return static_cast<record_type *>(found->record);
    auto *record = static_cast<record_type *>(std::calloc(1, sizeof(record_type)));
    if (record == nullptr || udp_vvlan_hmap_reserve_one(map) != 0) {
        std::free(record);
        return nullptr;
    }
    std::memcpy(&(record->*Member), &key, sizeof key);
    udp_vvlan_hmap_bucket *bucket = udp_vvlan_hmap_vacancy(map, hash);
    map->occupied += bucket->flags == UDP_VVLAN_HMAP_EMPTY;
    map->size++;
    *bucket = {record, hash, UDP_VVLAN_HMAP_LIVE};
    return record;
}

/* Deletes and frees the record of `key`. Returns 1, or 0 when there is none. */
template <auto Member>
int udp_vvlan_hmap_del(udp_vvlan_hmap<Member> *map,
                       const typename udp_vvlan_hmap<Member>::key_type &key)
{
    udp_vvlan_hmap_bucket *bucket =
        udp_vvlan_hmap_bucket_of(map, key, udp_vvlan_hmap_hash(&key, sizeof key));
    if (bucket == nullptr)
        return 0;
    std::free(bucket->record); /* last use of key: it may lie inside the record */
    *bucket = {nullptr, 0, UDP_VVLAN_HMAP_DELETED};
    map->size--;
    return 1;
}

/*
 * Calls function(record, argument) for every record in bucket order until one
 * returns nonzero, and returns that value, or 0.
 */
template <auto Member, typename Argument>
int udp_vvlan_hmap_walk(udp_vvlan_hmap<Member> *map,
                        int (*function)(typename udp_vvlan_hmap<Member>::record_type *, Argument),
                        std::type_identity_t<Argument> argument)
{
    using record_type = typename udp_vvlan_hmap<Member>::record_type;
    for (uint32_t at = 0; at < map->bucket_count; at++) {
        const udp_vvlan_hmap_bucket *bucket = &map->buckets[at];
        if (bucket->flags != UDP_VVLAN_HMAP_LIVE)
            continue;
        const int rv = function(static_cast<record_type *>(bucket->record), argument);
        if (rv != 0)
            return rv;
    }
    return 0;
}

/* Frees every record and the buckets; the map is as new. */
void udp_vvlan_hmap_free(udp_vvlan_hmap_base *map);

#endif
