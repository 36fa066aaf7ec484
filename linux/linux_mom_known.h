/*
 * linux_mom_known - what the owner of a subscription has been told of. Internal
 * to linux_mom.
 *
 * A deletion must be told with the object as it was, also when nobody was there to
 * hear of it. So of every object of a subscription the packed message is kept that
 * its owner was last told of. Objects are known or doubtful: after a loss all of
 * them may be gone without a word, and those that a scan then shows are known
 * again. The difference is a number in each, so that to doubt them all costs
 * nothing.
 *
 * There may be a hundred thousand of them, hence the shape: the objects lie one
 * behind the other in one piece of memory, and an open-addressing table of eight
 * bytes a bucket (linear probing, at most three quarters full) leads to them. An
 * object that is erased or changes its size leaves a gap; when there is more gap
 * than object, they move together.
 *
 * Measured: a MAC notification with its key and message of 35 bytes takes 69 bytes
 * where there are 65,536 of them, and 76 where there are a million.
 *
 * Limits: 1,048,576 objects and 128 MiB of them. A new object beyond is not taken
 * in, a known one stays as it was. Of a message over 65,535 bytes only the key is
 * kept, and of one with a key as long nothing.
 */
#ifndef LINUX_LINUX_MOM_KNOWN_H
#define LINUX_LINUX_MOM_KNOWN_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace mom
{

constexpr size_t KNOWN_OBJECTS_MAX = 1'048'576;
constexpr size_t KNOWN_BYTES_MAX = 128u << 20;

class Known
{
public:
    /* Views end with the next change. */
    struct Object {
        std::string_view key, message;
    };

    /* Where a walk over the objects is. A new one is at the first. */
    struct Place {
        size_t at = 0;
        uint64_t moved = 0;
    };

    /* The owner was told of this object; what no longer fits in is not kept (is_whole()). */
    void put(std::string_view key, std::string_view message);
    /* The same of one that the owner has to be told is gone unless a scan shows it. */
    void put_doubtful(std::string_view key, std::string_view message);
    /* The owner was told that it is gone; unknown keys are passed over. */
    void erase(std::string_view key);
    /* Until put() again every object may be gone. */
    void doubt_all();

    /*
     * The next doubtful object of a walk, during which objects may come, go, and
     * become known. One that becomes doubtful meanwhile may be passed over.
     */
    std::optional<Object> next_doubtful(Place *place) const;
    /* The same of all objects; one may come twice. */
    std::optional<Object> next(Place *place) const;

    /* Whether everything was taken in since the last doubt_all(), whole. */
    bool is_whole() const;

private:
    struct Bucket {
        uint32_t hash;
        uint32_t at; /* of the object among the bytes */
    };

    /* Before an object's bytes. */
    struct Header {
        uint32_t round; /* in which it was last told */
        uint16_t key_size, message_size;

        size_t size() const
        {
            return sizeof(Header) + key_size + message_size;
        }
    };

    /* Not of any round: a gap, and an object that is doubtful from the start. */
    static constexpr uint32_t GAP = 0, DOUBTFUL = 1, FIRST_ROUND = 2;

    template <typename Wanted> std::optional<Object> walk(Place *place, Wanted wanted) const;
    void keep(std::string_view key, std::string_view message, uint32_t round);
    void write(size_t at, const Header &made, std::string_view key, std::string_view message);
    size_t add(size_t size);
    void hold(size_t bytes);
    void leave_gap(size_t at);
    void close_gaps();
    void grow_buckets();
    void place(Bucket made);
    size_t find(uint32_t hash, std::string_view key) const;
    Header header(size_t at) const;
    Object object(size_t at) const;

    struct Free {
        void operator()(char *bytes) const
        {
            std::free(bytes);
        }
    };

    std::vector<Bucket> buckets_; /* a power of two, or none */
    std::unique_ptr<char[], Free> bytes_;
    size_t held_ = 0, used_ = 0, gaps_ = 0; /* bytes; gaps are used */
    size_t count_ = 0;
    uint32_t round_ = FIRST_ROUND;
    uint64_t moved_ = 0; /* times that objects have moved */
    bool is_whole_ = true;
};

} // namespace mom

#endif
