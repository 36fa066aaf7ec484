#include "linux/linux_mom_known.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <utility>

namespace mom
{

namespace
{

constexpr uint32_t NOWHERE = UINT32_MAX;
constexpr size_t BUCKETS_MIN = 8;
constexpr size_t GAPS_MIN = 4'096; /* fewer bytes are not worth the move */

uint32_t hash_of(std::string_view key)
{
    return static_cast<uint32_t>(std::hash<std::string_view>()(key));
}

} // namespace

void Known::put(std::string_view key, std::string_view message)
{
    keep(key, message, m_round);
}

void Known::put_doubtful(std::string_view key, std::string_view message)
{
    keep(key, message, DOUBTFUL);
}

/* What stands behind moves up, so that no probe ends too soon. */
void Known::erase(std::string_view key)
{
    if (m_count == 0)
        return;
    const size_t mask = m_buckets.size() - 1;
    size_t hole = find(hash_of(key), key);
    const uint32_t erased = m_buckets[hole].at;
    if (erased == NOWHERE)
        return;
    for (size_t at = (hole + 1) & mask; m_buckets[at].at != NOWHERE; at = (at + 1) & mask) {
        if (((at - m_buckets[at].hash) & mask) < ((at - hole) & mask))
            continue; /* it would come before its home */
        m_buckets[hole] = m_buckets[at];
        hole = at;
    }
    m_buckets[hole].at = NOWHERE;
    m_count--;
    leave_gap(erased);
}

void Known::doubt_all()
{
    m_round++;
    m_is_whole = true;
}

std::optional<Known::Object> Known::next_doubtful(Place *place) const
{
    return walk(place, [this](const Header &at) { return at.round != m_round; });
}

std::optional<Known::Object> Known::next(Place *place) const
{
    return walk(place, [](const Header &) { return true; });
}

bool Known::is_whole() const
{
    return m_is_whole;
}

template <typename Wanted>
std::optional<Known::Object> Known::walk(Place *place, Wanted wanted) const
{
    if (place->rebuilt != m_rebuilt)
        *place = {0, m_rebuilt};
    while (place->at < m_bytes.size()) {
        const size_t at = place->at;
        const Header here = header(at);
        place->at += here.size();
        if (here.round != GAP && wanted(here))
            return object(at);
    }
    return std::nullopt;
}

void Known::keep(std::string_view key, std::string_view message, uint32_t round)
{
    m_is_whole = m_is_whole && key.size() <= UINT16_MAX && message.size() <= UINT16_MAX;
    if (key.size() > UINT16_MAX)
        return;
    if (message.size() > UINT16_MAX)
        message = {};
    if ((m_count + 1) * 4 > m_buckets.size() * 3)
        rebuild();
    const uint32_t hash = hash_of(key);
    Bucket &bucket = m_buckets[find(hash, key)];
    const uint32_t old = bucket.at;
    const Header made = {round, static_cast<uint16_t>(key.size()),
                         static_cast<uint16_t>(message.size())};
    if (old != NOWHERE && header(old).message_size == made.message_size) {
        write(old, made, key, message);
        return;
    }
    if (m_bytes.size() - m_gaps + made.size() > KNOWN_BYTES_MAX ||
        (old == NOWHERE && m_count == KNOWN_OBJECTS_MAX)) {
        m_is_whole = false;
        return;
    }
    bucket = {hash, static_cast<uint32_t>(m_bytes.size())};
    m_bytes.resize(m_bytes.size() + made.size());
    write(bucket.at, made, key, message);
    if (old == NOWHERE)
        m_count++;
    else
        leave_gap(old);
}

void Known::write(size_t at, const Header &made, std::string_view key, std::string_view message)
{
    char *to = &m_bytes[at];
    std::memcpy(to, &made, sizeof made);
    to = std::ranges::copy(key, to + sizeof made).out;
    std::ranges::copy(message, to);
}

void Known::leave_gap(size_t at)
{
    Header gone = header(at);
    gone.round = GAP;
    std::memcpy(&m_bytes[at], &gone, sizeof gone);
    m_gaps += gone.size();
    if (m_gaps > GAPS_MIN && m_gaps > m_bytes.size() / 2)
        rebuild();
}

/* The objects without gaps, and as many buckets as they and as many more need. */
void Known::rebuild()
{
    const std::vector<char> old = std::exchange(m_bytes, {});
    m_bytes.reserve(old.size() - m_gaps);
    m_buckets.assign(std::max(BUCKETS_MIN, std::bit_ceil(m_count * 2)), {0, NOWHERE});
    m_gaps = 0;
    m_rebuilt++;
    for (size_t at = 0; at < old.size();) {
        Header here;
        std::memcpy(&here, &old[at], sizeof here);
        const std::string_view whole(&old[at], here.size());
        at += here.size();
        if (here.round == GAP)
            continue;
        const uint32_t hash = hash_of(whole.substr(sizeof here, here.key_size));
        size_t bucket = hash & (m_buckets.size() - 1);
        while (m_buckets[bucket].at != NOWHERE)
            bucket = (bucket + 1) & (m_buckets.size() - 1);
        m_buckets[bucket] = {hash, static_cast<uint32_t>(m_bytes.size())};
        m_bytes.insert(m_bytes.end(), whole.begin(), whole.end());
    }
}

/* The bucket of a key, or the empty one where it would go. There are buckets. */
size_t Known::find(uint32_t hash, std::string_view key) const
{
    const size_t mask = m_buckets.size() - 1;
    size_t at = hash & mask;
    while (m_buckets[at].at != NOWHERE &&
           (m_buckets[at].hash != hash || object(m_buckets[at].at).key != key))
        at = (at + 1) & mask;
    return at;
}

Known::Header Known::header(size_t at) const
{
    Header header;
    std::memcpy(&header, &m_bytes[at], sizeof header);
    return header;
}

Known::Object Known::object(size_t at) const
{
    const Header here = header(at);
    const char *const key = &m_bytes[at] + sizeof here;
    return {{key, here.key_size}, {key + here.key_size, here.message_size}};
}

} // namespace mom
