/*
 * The keyed hash map against std::unordered_map with the same hash function.
 *
 * Both own heap records of the same size and read the record on a find, so the
 * reference does equal work: it keeps pointers to calloc()ed records and frees
 * the record on a delete. Keys are met in random order, each phase in another.
 */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/proc/udp_vvlan_hmap.h"
#include "bench/bench_measure.h"

namespace
{

struct Key4 {
    uint32_t ifx;
};

struct Key6 {
    uint8_t bytes[6];
};

template <typename Key> struct Record {
    Key key;
    uint32_t value;
    void *links[2];
};

/* Interface numbers count up; MACs share the three bytes of their maker. */
void make_key(uint32_t number, Key4 *key)
{
    key->ifx = number;
}

void make_key(uint32_t number, Key6 *key)
{
    const uint8_t bytes[6] = {0x00,
                              0x04,
                              static_cast<uint8_t>(0x0d + (number >> 24)),
                              static_cast<uint8_t>(number >> 16),
                              static_cast<uint8_t>(number >> 8),
                              static_cast<uint8_t>(number)};
    std::memcpy(key->bytes, bytes, sizeof bytes);
}

template <typename Key> class Ours
{
public:
    Ours() = default;
    Ours(const Ours &) = delete;
    Ours &operator=(const Ours &) = delete;
    ~Ours()
    {
        udp_vvlan_hmap_free(&map_);
    }
    void put(const Key &key)
    {
        udp_vvlan_hmap_put(&map_, key)->value = 1;
    }
    uint32_t find(const Key &key) const
    {
        const Record<Key> *record = udp_vvlan_hmap_find(&map_, key);
        return record == nullptr ? 0 : record->value;
    }
    void del(const Key &key)
    {
        udp_vvlan_hmap_del(&map_, key);
    }

private:
    udp_vvlan_hmap<&Record<Key>::key> map_{};
};

/*
 * `is_cheap` is what the hash function claims by noexcept: the library keeps
 * the hash in the node only when it is not cheap, which is faster here and
 * costs memory. Both are measured; what we are held to is the better one.
 */
template <typename Key, bool is_cheap> class Reference
{
public:
    Reference() = default;
    Reference(const Reference &) = delete;
    Reference &operator=(const Reference &) = delete;
    ~Reference()
    {
        for (auto &entry : map_)
            std::free(entry.second);
    }
    void put(const Key &key)
    {
        auto [at, is_new] = map_.try_emplace(key, nullptr);
        if (is_new) {
            at->second = static_cast<Record<Key> *>(std::calloc(1, sizeof(Record<Key>)));
            at->second->key = key;
        }
        at->second->value = 1;
    }
    uint32_t find(const Key &key) const
    {
        const auto at = map_.find(key);
        return at == map_.end() ? 0 : at->second->value;
    }
    void del(const Key &key)
    {
        const auto at = map_.find(key);
        if (at == map_.end())
            return;
        std::free(at->second);
        map_.erase(at);
    }

private:
    struct Hash {
        size_t operator()(const Key &key) const noexcept(is_cheap)
        {
            return udp_vvlan_hmap_hash(&key, sizeof key);
        }
    };
    struct Equal {
        bool operator()(const Key &a, const Key &b) const noexcept
        {
            return std::memcmp(&a, &b, sizeof a) == 0;
        }
    };
    std::unordered_map<Key, Record<Key> *, Hash, Equal> map_;
};

/* `count` keys from number `first` on, in an order that `seed` chooses. */
template <typename Key> std::vector<Key> make_keys(uint32_t first, uint32_t count, uint32_t seed)
{
    std::vector<Key> keys(count);
    for (uint32_t i = 0; i < count; i++)
        make_key(first + i, &keys[i]);
    std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
    return keys;
}

template <typename Map, typename Key> void fill(Map *map, const std::vector<Key> &keys)
{
    for (const Key &key : keys)
        map->put(key);
}

template <typename Map, typename Key> void bench_put(benchmark::State &state)
{
    const auto keys = make_keys<Key>(1, static_cast<uint32_t>(state.range(0)), 1);
    for (auto _ : state) {
        Map map;
        bench::time_it(state, [&] { fill(&map, keys); });
    }
}

template <typename Map, typename Key>
void bench_look(benchmark::State &state, uint32_t first, uint32_t expected)
{
    const auto count = static_cast<uint32_t>(state.range(0));
    Map map;
    fill(&map, make_keys<Key>(1, count, 1));
    const auto keys = make_keys<Key>(first, count, 2);
    uint32_t found = 0;
    for (auto _ : state) {
        found = 0;
        bench::time_it(state, [&] {
            for (const Key &key : keys)
                found += map.find(key);
        });
    }
    if (found != expected * count)
        state.SkipWithError("found a wrong number of records");
}

template <typename Map, typename Key> void bench_find(benchmark::State &state)
{
    bench_look<Map, Key>(state, 1, 1);
}

template <typename Map, typename Key> void bench_miss(benchmark::State &state)
{
    bench_look<Map, Key>(state, 1 + static_cast<uint32_t>(state.range(0)), 0);
}

template <typename Map, typename Key> void bench_delete(benchmark::State &state)
{
    const auto count = static_cast<uint32_t>(state.range(0));
    const auto stored = make_keys<Key>(1, count, 1);
    const auto keys = make_keys<Key>(1, count, 3);
    for (auto _ : state) {
        Map map;
        fill(&map, stored);
        bench::time_it(state, [&] {
            for (const Key &key : keys)
                map.del(key);
        });
    }
}

/* Not a time: the bytes of a record with its share of the map. */
template <typename Map, typename Key> void bench_memory(benchmark::State &state)
{
    const auto keys = make_keys<Key>(1, static_cast<uint32_t>(state.range(0)), 1);
    for (auto _ : state) {
        const double before = bench::bytes_in_use();
        Map map;
        fill(&map, keys);
        bench::report_bytes(state,
                            (bench::bytes_in_use() - before) / static_cast<double>(keys.size()));
    }
}

template <typename Map, typename Key> void add(const std::string &suffix)
{
    const struct {
        const char *name;
        void (*function)(benchmark::State &);
    } phases[] = {{"put", bench_put<Map, Key>},
                  {"find", bench_find<Map, Key>},
                  {"miss", bench_miss<Map, Key>},
                  {"delete", bench_delete<Map, Key>}};
    for (const auto &phase : phases) {
        const std::string name = std::string("hmap/") + phase.name + "/" + suffix;
        auto *bench = benchmark::RegisterBenchmark(name.c_str(), phase.function);
        bench->Arg(1000)->Arg(64000)->Arg(1000000)->UseManualTime();
    }
    auto *bench =
        benchmark::RegisterBenchmark(("hmap/memory/" + suffix).c_str(), bench_memory<Map, Key>);
    bench->Arg(1000)->Arg(64000)->Arg(1000000)->UseManualTime()->Iterations(1);
}

const bool added = [] {
    add<Ours<Key4>, Key4>("4B/ours");
    add<Reference<Key4, true>, Key4>("4B/std");
    add<Reference<Key4, false>, Key4>("4B/std-cached");
    add<Ours<Key6>, Key6>("6B/ours");
    add<Reference<Key6, true>, Key6>("6B/std");
    add<Reference<Key6, false>, Key6>("6B/std-cached");
    return true;
}();

} // namespace
