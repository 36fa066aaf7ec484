#include "linux/linux_mom_known.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <new>
#include <utility>

namespace mom
{

namespace
{

constexpr uint32_t NOWHERE = UINT32_MAX;
constexpr size_t BUCKETS_MIN = 8;
constexpr size_t BYTES_MIN = 256;
constexpr size_t GAPS_MIN = 4'096; /* fewer bytes are not worth the move */

/* As many as the objects and as many more need. */
size_t buckets_for(size_t objects)
{
    return std::max(BUCKETS_MIN, std::bit_ceil(objects * 2));
}

uint32_t hash_of(std::string_view key)
{
    return static_cast<uint32_t>(std::hash<std::string_view>()(key));
}

} // namespace

void Known::put(std::string_view key, std::string_view message)
{
    keep(key, message, round_);
}

void Known::put_doubtful(std::string_view key, std::string_view message)
{
    keep(key, message, DOUBTFUL);
}

/* What stands behind moves up, so that no probe ends too soon. */
void Known::erase(std::string_view key)
{
    if (count_ == 0)
        return;
    const size_t mask = buckets_.size() - 1;
    size_t hole = find(hash_of(key), key);
    const uint32_t erased = buckets_[hole].at;
    if (erased == NOWHERE)
        return;
    for (size_t at = (hole + 1) & mask; buckets_[at].at != NOWHERE; at = (at + 1) & mask) {
        if (((at - buckets_[at].hash) & mask) < ((at - hole) & mask))
            continue; /* it would come before its home */
        buckets_[hole] = buckets_[at];
        hole = at;
    }
    buckets_[hole].at = NOWHERE;
    count_--;
    leave_gap(erased);
}

void Known::doubt_all()
{
    round_++;
    is_whole_ = true;
}

std::optional<Known::Object> Known::next_doubtful(Place *place) const
{
    return walk(place, [this](const Header &at) { return at.round != round_; });
}

std::optional<Known::Object> Known::next(Place *place) const
{
    return walk(place, [](const Header &) { return true; });
}

bool Known::is_whole() const
{
    return is_whole_;
}

template <typename Wanted>
std::optional<Known::Object> Known::walk(Place *place, Wanted wanted) const
{
    if (place->moved != moved_)
        *place = {0, moved_};
    while (place->at < used_) {
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
    is_whole_ = is_whole_ && key.size() <= UINT16_MAX && message.size() <= UINT16_MAX;
    if (key.size() > UINT16_MAX)
        return;
    if (message.size() > UINT16_MAX)
        message = {};
    if ((count_ + 1) * 4 > buckets_.size() * 3)
        grow_buckets();
    const uint32_t hash = hash_of(key);
    Bucket &bucket = buckets_[find(hash, key)];
    const uint32_t old = bucket.at;
    const Header made = {round, static_cast<uint16_t>(key.size()),
                         static_cast<uint16_t>(message.size())};
    if (old != NOWHERE && header(old).message_size == made.message_size) {
        write(old, made, key, message);
        return;
    }
    if (used_ - gaps_ + made.size() > KNOWN_BYTES_MAX ||
        (old == NOWHERE && count_ == KNOWN_OBJECTS_MAX)) {
        is_whole_ = false;
        if (old != NOWHERE) { /* it stands, though with the message of before */
            Header seen = header(old);
            seen.round = round;
            std::memcpy(&bytes_[old], &seen, sizeof seen);
        }
        return;
    }
    bucket = {hash, static_cast<uint32_t>(add(made.size()))};
    write(bucket.at, made, key, message);
    if (old == NOWHERE)
        count_++;
    else
        leave_gap(old);
}

void Known::write(size_t at, const Header &made, std::string_view key, std::string_view message)
{
    char *to = &bytes_[at];
    std::memcpy(to, &made, sizeof made);
    to = std::ranges::copy(key, to + sizeof made).out;
    std::ranges::copy(message, to);
}

/* Where so many bytes more have room. */
size_t Known::add(size_t size)
{
    if (used_ + size > held_)
        hold(std::max({used_ + size, held_ * 2, BYTES_MIN}));
    return std::exchange(used_, used_ + size);
}

/* By realloc(): it moves whole pages, where a vector would copy what is in them. */
void Known::hold(size_t bytes)
{
    auto *held = static_cast<char *>(std::realloc(bytes_.get(), bytes));
    if (held == nullptr)
        throw std::bad_alloc();
    static_cast<void>(bytes_.release());
    bytes_.reset(held);
    held_ = bytes;
}

void Known::leave_gap(size_t at)
{
    Header gone = header(at);
    gone.round = GAP;
    std::memcpy(&bytes_[at], &gone, sizeof gone);
    gaps_ += gone.size();
    if (gaps_ > GAPS_MIN && gaps_ > used_ / 2)
        close_gaps();
}

void Known::close_gaps()
{
    buckets_.assign(buckets_for(count_), {0, NOWHERE});
    size_t end = 0;
    for (size_t at = 0; at < used_;) {
        const Header here = header(at);
        if (here.round != GAP) {
            std::memmove(&bytes_[end], &bytes_[at], here.size());
            place({hash_of(object(end).key), static_cast<uint32_t>(end)});
            end += here.size();
        }
        at += here.size();
    }
    used_ = end;
    gaps_ = 0;
    moved_++;
    hold(std::max(used_, BYTES_MIN));
}

void Known::grow_buckets()
{
    const std::vector<Bucket> old =
        std::exchange(buckets_, std::vector<Bucket>(buckets_for(count_), {0, NOWHERE}));
    for (const Bucket &each : old) {
        if (each.at != NOWHERE)
            place(each);
    }
}

void Known::place(Bucket made)
{
    const size_t mask = buckets_.size() - 1;
    size_t at = made.hash & mask;
    while (buckets_[at].at != NOWHERE)
        at = (at + 1) & mask;
    buckets_[at] = made;
}

/* The bucket of a key, or the empty one where it would go. There are buckets. */
size_t Known::find(uint32_t hash, std::string_view key) const
{
    const size_t mask = buckets_.size() - 1;
    size_t at = hash & mask;
    while (buckets_[at].at != NOWHERE &&
           (buckets_[at].hash != hash || object(buckets_[at].at).key != key))
        at = (at + 1) & mask;
    return at;
}

Known::Header Known::header(size_t at) const
{
    Header header;
    std::memcpy(&header, &bytes_[at], sizeof header);
    return header;
}

Known::Object Known::object(size_t at) const
{
    const Header here = header(at);
    const char *const key = &bytes_[at] + sizeof here;
    return {{key, here.key_size}, {key + here.key_size, here.message_size}};
}

} // namespace mom
