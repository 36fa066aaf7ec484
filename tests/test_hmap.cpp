/*
 * The keyed hash map against a std::map under random operations, and what the
 * tables rely on: growth, walk order, deletion during a walk, lack of memory.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <vector>

#include "app/proc/udp_vvlan_hmap.h"
#include "app/proc/udp_vvlan_state.h"
#include "sim/sim_call.h"
#include "sim/sim_world.h"

namespace
{

struct Record {
    uint8_t before; /* the key need not come first */
    udp_vvlan_mac_addr key;
    uint32_t value;
};

using Map = udp_vvlan_hmap<&Record::key>;

udp_vvlan_mac_addr key_of(uint32_t number)
{
    udp_vvlan_mac_addr key = {};
    std::memcpy(key.bytes, &number, sizeof number);
    return key;
}

uint32_t number_of(const Record *record)
{
    uint32_t number;
    std::memcpy(&number, record->key.bytes, sizeof number);
    return number;
}

class Hmap : public testing::Test
{
protected:
    ~Hmap() override
    {
        sim::world_reset();
        udp_vvlan_hmap_free(&map);
    }

    bool put(uint32_t number)
    {
        Record *record = udp_vvlan_hmap_put(&map, key_of(number));
        if (record != nullptr)
            record->value = number;
        return record != nullptr;
    }

    std::vector<uint32_t> walked()
    {
        std::vector<uint32_t> order;
        udp_vvlan_hmap_walk(
            &map,
            +[](Record *record, std::vector<uint32_t> *to) {
                to->push_back(number_of(record));
                return 0;
            },
            &order);
        return order;
    }

    void expect_sound() const
    {
        uint32_t live = 0;
        uint32_t occupied = 0;
        for (uint32_t i = 0; i < map.bucket_count; i++) {
            live += map.buckets[i].flags == UDP_VVLAN_HMAP_LIVE;
            occupied += map.buckets[i].flags != UDP_VVLAN_HMAP_EMPTY;
        }
        ASSERT_EQ(live, map.size);
        ASSERT_EQ(occupied, map.occupied);
        ASSERT_EQ(map.bucket_count & (map.bucket_count - 1), 0U);
        ASSERT_TRUE(map.bucket_count == 0 || map.occupied * 100.0 < map.bucket_count * 77.0);
    }

    Map map = {};
};

/* The published macro form of the hash, as a second opinion. */
uint32_t lookup2(const std::vector<uint8_t> &k)
{
    uint32_t a = 0x9e3779b9, b = a, c = static_cast<uint32_t>(k.size());
    for (size_t i = 0; i < k.size(); i++) { /* fewer than 12 bytes: one block */
        const auto byte = static_cast<uint32_t>(k[i]);
        if (i < 4)
            a += byte << (8 * i);
        else if (i < 8)
            b += byte << (8 * (i - 4));
        else
            c += byte << (8 * (i - 7)); /* the lowest byte is the length's */
    }
    a -= b, a -= c, a ^= c >> 13;
    b -= c, b -= a, b ^= a << 8;
    c -= a, c -= b, c ^= b >> 13;
    a -= b, a -= c, a ^= c >> 12;
    b -= c, b -= a, b ^= a << 16;
    c -= a, c -= b, c ^= b >> 5;
    a -= b, a -= c, a ^= c >> 3;
    b -= c, b -= a, b ^= a << 10;
    c -= a, c -= b, c ^= b >> 15;
    return c;
}

TEST_F(Hmap, HashIsLookup2)
{
    std::mt19937 random(1);
    for (size_t length = 0; length < 12; length++) {
        std::vector<uint8_t> key(length);
        for (uint8_t &byte : key)
            byte = static_cast<uint8_t>(random());
        EXPECT_EQ(udp_vvlan_hmap_hash(key.data(), static_cast<uint32_t>(length)), lookup2(key));
    }
}

TEST_F(Hmap, AgreesWithAModel)
{
    std::mt19937 random(2);
    std::map<uint32_t, Record *> model;
    EXPECT_EQ(udp_vvlan_hmap_find(&map, key_of(1)), nullptr);
    for (uint32_t step = 0; step < 60'000; step++) {
        /* The table swells and shrinks between some and all of the keys. */
        const auto number = static_cast<uint32_t>(random() % 3000);
        const bool grows = step / 10'000 % 2 == 0;
        const auto known = model.find(number);
        Record *expected = known == model.end() ? nullptr : known->second;
        ASSERT_EQ(udp_vvlan_hmap_find(&map, key_of(number)), expected);
        if (random() % 3 != 0 ? grows : !grows) {
            Record *record = udp_vvlan_hmap_put(&map, key_of(number));
            ASSERT_NE(record, nullptr);
            ASSERT_EQ(number_of(record), number);
            ASSERT_TRUE(expected == nullptr ? record->value == 0 : record == expected);
            record->value = number + 1;
            model[number] = record;
        } else {
            ASSERT_EQ(udp_vvlan_hmap_del(&map, key_of(number)), expected != nullptr);
            model.erase(number);
        }
        if (step % 1000 == 0)
            expect_sound();
    }
    const std::vector<uint32_t> order = walked();
    EXPECT_EQ(order.size(), model.size());
    for (uint32_t number : order)
        EXPECT_EQ(model.at(number)->value, number + 1);
    EXPECT_EQ(std::set<uint32_t>(order.begin(), order.end()).size(), order.size());
}

TEST_F(Hmap, GrowsWhenOccupiedBucketsReachTheLimitAndNotUnderChurn)
{
    uint32_t expected = 4;
    for (uint32_t count = 1; count <= 5000; count++) {
        ASSERT_TRUE(put(count));
        while (count * 100 >= expected * 77)
            expected *= 2;
        ASSERT_EQ(map.bucket_count, expected) << count;
    }
    expect_sound();
    for (uint32_t number = 1; number <= 200'000; number++) {
        ASSERT_EQ(udp_vvlan_hmap_del(&map, key_of(number)), 1);
        ASSERT_TRUE(put(number + 5000));
    }
    EXPECT_LE(map.bucket_count, expected * 2);
    EXPECT_EQ(map.size, 5000U);
    expect_sound();
}

TEST_F(Hmap, WalkOrderIsTheHashOrderAndTheSameEveryTime)
{
    std::vector<uint32_t> first;
    for (int run = 0; run < 2; run++) {
        for (uint32_t number = 0; number < 1000; number++)
            ASSERT_TRUE(put(number * 7));
        for (uint32_t number = 0; number < 1000; number += 3)
            udp_vvlan_hmap_del(&map, key_of(number * 7));
        if (run == 0)
            first = walked();
        EXPECT_EQ(walked(), first);
        udp_vvlan_hmap_free(&map);
    }
    /* Few records seldom collide, and then lie in the buckets of their hashes. */
    ASSERT_TRUE(put(1) && put(2));
    const uint8_t mask = 3;
    const std::vector<uint8_t> one = {1, 0, 0, 0, 0, 0}, two = {2, 0, 0, 0, 0, 0};
    ASSERT_NE(lookup2(one) & mask, lookup2(two) & mask);
    EXPECT_EQ(number_of(static_cast<Record *>(map.buckets[lookup2(one) & mask].record)), 1U);
    EXPECT_EQ(number_of(static_cast<Record *>(map.buckets[lookup2(two) & mask].record)), 2U);
}

TEST_F(Hmap, WalkMayDeleteWhatItVisitsAndStopsAtNonzero)
{
    for (uint32_t number = 0; number < 500; number++)
        ASSERT_TRUE(put(number));
    struct Visit {
        Map *map;
        std::map<uint32_t, int> seen;
    } visit = {&map, {}};
    const auto delete_odd = +[](Record *record, Visit *to) {
        const uint32_t number = number_of(record);
        to->seen[number]++;
        return number % 2 == 0 ? 0 : udp_vvlan_hmap_del(to->map, record->key) - 1;
    };
    EXPECT_EQ(udp_vvlan_hmap_walk(&map, delete_odd, &visit), 0);
    EXPECT_EQ(visit.seen.size(), 500U);
    EXPECT_THAT(visit.seen, testing::Each(testing::Pair(testing::_, 1)));
    EXPECT_EQ(map.size, 250U);
    expect_sound();

    int left = 3;
    const auto countdown = +[](Record *, int *count) { return --*count == 0 ? 42 : 0; };
    EXPECT_EQ(udp_vvlan_hmap_walk(&map, countdown, &left), 42);
    EXPECT_EQ(left, 0);
}

TEST_F(Hmap, PutWithoutMemoryChangesNothing)
{
    int growths = 0;
    for (uint32_t number = 0; number < 60; number++) {
        /* The record is the first allocation, new buckets are the second where they are due. */
        for (uint64_t nth = 1; nth <= 2; nth++) {
            sim::fault_plan("malloc", nth, 0);
            const bool is_put = put(number);
            growths += nth == 2 && !is_put;
            ASSERT_TRUE(nth == 2 || !is_put);
            ASSERT_EQ(map.size, number + is_put);
            ASSERT_EQ(udp_vvlan_hmap_find(&map, key_of(number)) != nullptr, is_put);
            sim::call_reset();
        }
        ASSERT_TRUE(put(number));
        ASSERT_EQ(walked().size(), number + 1);
        expect_sound();
    }
    EXPECT_EQ(growths, 6); /* 4, 8, 16, 32, 64, 128 buckets */
}

} // namespace
