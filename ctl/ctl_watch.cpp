#include "ctl/ctl_watch.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <map>

#include "ctl/ctl_db.h"
#include "ctl/ctl_json.h"
#include "ctl/ctl_object.h"
#include "ctl/ctl_value.h"
#include "mom/kt_mom_peer.h"
#include "platform/kt_thread.h"
#include "words/words.h"

namespace ctl
{

namespace
{

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds WRITE_EVERY{10};
constexpr std::chrono::seconds SKIPPED_EVERY{1};
constexpr long WRITE_EVERY_MICROS = 10'000;
constexpr size_t WRITE_AT_ONCE = 32'768; /* bytes that do not wait for the timer */
constexpr uint32_t NO_DB = UINT32_MAX;

/* What a line tells of. */
struct Change {
    uint32_t db;
    uint32_t operation;
    const ProtobufCMessage &object;
    std::span<const uint32_t> fields;
    bool is_standing;

    std::string operation_name() const
    {
        return is_standing ? "stands" : ctl::operation_name(operation);
    }
};

/* Lines on their way to the output. */
class Queue
{
public:
    Queue(Host &host, size_t most) : host_(host), limit_(most)
    {
    }
    void take(std::string_view line);
    void write();
    bool is_due() const;
    bool is_empty() const
    {
        return text_.size() == written_;
    }
    size_t waiting() const
    {
        return lines_;
    }
    bool is_closed = false; /* it takes no more */
    long failure = 0;       /* why, a negative errno value */
    uint64_t skipped = 0;

    /* Once it was full, only when half of it is out: fewer gaps, each told once. */
    bool has_room();

private:
    Host &host_;
    size_t limit_;
    std::string text_;
    size_t written_ = 0; /* bytes of the text that are out */
    size_t lines_ = 0;   /* in the rest */
    bool is_full_ = false;
    steady_clock::time_point last_ = steady_clock::now();
};

size_t count_or(const std::string &text, size_t standard, const std::string &what);

class Watch;

/* What a database's callback is given. */
struct Receiver {
    Watch *watch;
    uint32_t db;
};

class Watch
{
public:
    Watch(const Context &context, const WatchOptions &options)
        : context_(context), since_start_(options.since_start),
          most_(count_or(options.count, 0, "a number of lines")),
          seconds_(count_or(options.seconds, 0, "a number of seconds")),
          queue_(context.host, count_or(options.queue, WATCH_QUEUE_LINES, "a number of lines"))
    {
    }
    void run(std::span<const uint32_t> databases);
    void tell(const Change &change);
    void note(uint32_t db, const std::string &words, uint64_t skipped = 0);
    void resume(uint32_t db);
    void write_later();
    void write_from_timer();

    std::function<bool(const Change &)> selects; /* empty: everything */
    std::vector<const object::Kind *> kinds;     /* what is read for since_start */
    std::optional<uint32_t> db_chosen;           /* where; else the kind's own database */
    bool in_words = true;

private:
    bool is_enough() const
    {
        return most_ != 0 && told_ >= most_;
    }
    void tell_what_stands();
    /* Changes that were skipped and not told as such yet. */
    uint64_t untold() const;
    void tell_of_skipped();
    /* Once in a while, and when there is room. */
    void tell_of_skipped_at_times();
    std::string line_of(const Change &change);
    std::string stamp();
    void finish();

    Context context_;
    bool since_start_;
    size_t most_;    /* lines, 0: no limit */
    size_t seconds_; /* 0: no limit */
    Queue queue_;
    std::map<uint32_t, Receiver> receivers_; /* by database */
    Databases databases_{context_.host};
    steady_clock::time_point begin_ = steady_clock::now();
    std::time_t stamped_second_ = -1; /* what second_text_ is of */
    std::string second_text_;
    uint64_t told_ = 0;
    steady_clock::time_point skipped_told_;
    uint64_t missed_told_ = 0; /* of those that the database's client dropped */
    bool is_timer_armed_ = false;
    bool is_over_ = false;
};

/* The connection callbacks have no user data. */
Watch *watch_now = nullptr;

void watch_with(const Context &context, const WatchOptions &options,
                std::span<const uint32_t> databases, const std::function<void(Watch &)> &prepare);
std::string utc_now();

} // namespace

void watch(const Context &context, const WatchOptions &options)
{
    watch_with(context, options, DATABASES, [](Watch &made) { made.kinds = object::kinds(); });
}

void watch_objects(const Context &context, const WatchOptions &options,
                   const ObjectOptions &selected)
{
    const auto object_template = std::make_shared<ObjectText>(object_parse(selected, true));
    const uint32_t match = selected.exact ? KT_MOM_MATCH_EXACT : KT_MOM_MATCH_PARTIAL;
    const uint32_t db = object_template->db;
    watch_with(context, options, {&db, 1}, [&](Watch &made) {
        made.in_words = false;
        made.kinds = {object::kind_of(*object_template->message)};
        made.db_chosen = db;
        made.selects = [object_template, match](const Change &change) {
            return object::matches(*object_template->message, match, change.object);
        };
    });
}

namespace
{

int on_change(kt_global *, const kt_mom_msg *msg, void *user);
int on_timer(void *user);
int on_lost(kt_global *, uint32_t db);
int on_back(kt_global *, uint32_t db, int type);

/* --- Queue */

void Queue::take(std::string_view line)
{
    text_ += line;
    text_ += '\n';
    lines_++;
}

void Queue::write()
{
    last_ = steady_clock::now();
    while (!is_empty() && !is_closed) {
        const long count = host_.write_now(std::string_view(text_).substr(written_));
        is_closed = count < 0;
        failure = std::min(count, 0L);
        if (count <= 0)
            return;
        const auto from = text_.begin() + static_cast<std::ptrdiff_t>(written_);
        lines_ -= static_cast<size_t>(std::count(from, from + count, '\n'));
        written_ += static_cast<size_t>(count);
        if (written_ == text_.size() || written_ > WATCH_QUEUE_BYTES) {
            text_.erase(0, written_);
            written_ = 0;
        }
    }
}

bool Queue::has_room()
{
    const size_t bytes = text_.size() - written_;
    if (lines_ >= limit_ || bytes >= WATCH_QUEUE_BYTES)
        is_full_ = true;
    else if (lines_ <= limit_ / 2 && bytes <= WATCH_QUEUE_BYTES / 2)
        is_full_ = false;
    return !is_full_;
}

bool Queue::is_due() const
{
    return text_.size() - written_ >= WRITE_AT_ONCE || steady_clock::now() - last_ >= WRITE_EVERY;
}

/* --- Watch */

void Watch::run(std::span<const uint32_t> watched)
{
    constexpr size_t SECONDS_MAX = 2'000'000;
    for (const uint32_t db : watched) {
        databases_.open(db);
        kt_mom_client_set_disconnect_cb(databases_.context(), db, on_lost);
        kt_mom_client_set_reconnect_cb(databases_.context(), db, on_back);
        resume(db);
    }
    if (since_start_)
        tell_what_stands();
    context_.host.run([&] { return queue_.is_closed || is_enough(); },
                      seconds_ == 0 ? -1
                                    : static_cast<int>(std::min(seconds_, SECONDS_MAX) * 1000));
    finish();
}

/* Passive, and again harmless: there is one watcher per database and receiver. */
void Watch::resume(uint32_t db)
{
    const auto at = receivers_.try_emplace(db, Receiver{this, db}).first;
    if (kt_mom_watch(databases_.context(), db, on_change, &at->second) != 0)
        throw Failure{NO_REACH, "cannot watch database " + std::to_string(db) + " at " +
                                    context_.host.server()};
}

void Watch::tell_what_stands()
{
    size_t standing = 0;
    for (const object::Kind *kind : kinds) {
        const uint32_t db = db_chosen ? *db_chosen : db_of_kind(object::kind_name(*kind));
        const object::Message all = object::empty(*kind);
        databases_.scan(db, *all, KT_MOM_MATCH_EXACT,
                        [&](const ProtobufCMessage &object, std::span<const uint32_t> fields) {
                            const Change change = {db, KT_MOM_SET, object, fields, true};
                            if (selects && !selects(change))
                                return;
                            standing++;
                            tell(change);
                            if (!queue_.has_room())
                                queue_.write();
                        });
    }
    note(NO_DB, std::to_string(standing) + (standing == 1 ? " object stands" : " objects stand") +
                    "; changes follow");
}

void Watch::tell(const Change &change)
{
    if (is_over_ || is_enough() || (selects && !selects(change)))
        return;
    if (!queue_.has_room()) {
        queue_.skipped++;
        write_later();
        return;
    }
    if (queue_.skipped != 0)
        tell_of_skipped();
    queue_.take(line_of(change));
    if (!change.is_standing)
        told_++;
    if (queue_.is_due()) {
        tell_of_skipped_at_times();
        queue_.write();
    }
    write_later();
}

void Watch::note(uint32_t db, const std::string &words, uint64_t skipped)
{
    if (is_over_)
        return;
    if (context_.json) {
        Json json = json_document();
        json["time"] = utc_now();
        json["db"] = db == NO_DB ? Json(nullptr) : Json(db);
        json["operation"] = "note";
        json["words"] = words;
        json["skipped"] = skipped;
        queue_.take(json_text(json));
    } else {
        queue_.take(stamp() + (db == NO_DB ? "  --   " : "  db " + std::to_string(db) + "  ") +
                    words);
    }
    write_later();
}

uint64_t Watch::untold() const
{
    uint64_t missed = 0;
    for (const auto &[db, receiver] : receivers_)
        missed += context_.host.missed(db);
    return queue_.skipped + missed - missed_told_;
}

void Watch::tell_of_skipped_at_times()
{
    if (steady_clock::now() - skipped_told_ >= SKIPPED_EVERY && queue_.has_room())
        tell_of_skipped();
}

void Watch::tell_of_skipped()
{
    const uint64_t count = untold();
    if (count == 0)
        return;
    missed_told_ += count - queue_.skipped;
    queue_.skipped = 0;
    skipped_told_ = steady_clock::now();
    note(NO_DB,
         std::to_string(count) + (count == 1 ? " change" : " changes") +
             " skipped: the output is slower than the databases",
         count);
}

/* Arms the timer unless it runs; it writes what the output did not take or what waits, and tells
 * of skipped changes that no later change gives occasion for. */
void Watch::write_later()
{
    if (is_timer_armed_ || queue_.is_closed || (queue_.is_empty() && untold() == 0))
        return;
    is_timer_armed_ =
        kt_thread_add_timer_timeval_withname(databases_.context()->master, on_timer, this, 0,
                                             WRITE_EVERY_MICROS, "watch") == 0;
}

void Watch::write_from_timer()
{
    is_timer_armed_ = false;
    tell_of_skipped_at_times();
    queue_.write();
    write_later();
}

std::string Watch::line_of(const Change &change)
{
    if (context_.json) {
        Json json = json_document();
        json["time"] = utc_now();
        json["db"] = change.db;
        json["operation"] = change.operation_name();
        json["kind"] = change.object.descriptor->name;
        json["object"] = json_message(change.object);
        json["fields"] = Json::array();
        for (const uint32_t number : change.fields) {
            if (const auto *field =
                    protobuf_c_message_descriptor_get_field(change.object.descriptor, number))
                json["fields"].push_back(field->name);
        }
        json["words"] = words::change(change.operation, change.object, change.fields);
        return json_text(json);
    }
    const std::string head = stamp() + "  db " + std::to_string(change.db) + "  ";
    if (in_words)
        return head + words::change(change.operation, change.object, change.fields);
    return head + change.operation_name() + " " + change.object.descriptor->name + " " +
           object::to_text(change.object);
}

std::string Watch::stamp()
{
    char text[sizeof "99999999.999"];
    if (since_start_) {
        const std::chrono::duration<double> since = steady_clock::now() - begin_;
        std::snprintf(text, sizeof text, "%12.3f", since.count());
        return text;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != stamped_second_) {
        tm broken{};
        localtime_r(&now.tv_sec, &broken);
        std::snprintf(text, sizeof text, "%02u:%02u:%02u", static_cast<unsigned>(broken.tm_hour),
                      static_cast<unsigned>(broken.tm_min), static_cast<unsigned>(broken.tm_sec));
        second_text_ = text;
        stamped_second_ = now.tv_sec;
    }
    std::snprintf(text, sizeof text, ".%03u", static_cast<unsigned>(now.tv_nsec / 1'000'000));
    return second_text_ + text;
}

/* Waits for a slow output, but not for one that stands still, nor when a person interrupts. */
void Watch::finish()
{
    queue_.write();
    tell_of_skipped();
    queue_.write();
    context_.host.run([&] { return queue_.is_empty() || queue_.is_closed; }, PATIENCE);
    is_over_ = true;
    if (queue_.is_closed && queue_.failure != -EPIPE)
        throw Failure{REFUSED, std::string("the output cannot be written: ") +
                                   std::strerror(static_cast<int>(-queue_.failure))};
    if (!queue_.is_empty() && !queue_.is_closed)
        context_.host.err << "vvlanctl: note: the output did not take the last " << queue_.waiting()
                          << " lines\n";
}

/* --- Callbacks; nothing is thrown through the library */

template <typename Body> int guarded(const Body &body)
{
    try {
        body();
        return 0;
    } catch (...) {
        return -1;
    }
}

int on_change(kt_global *, const kt_mom_msg *msg, void *user)
{
    return guarded([&] {
        const Receiver &receiver = *static_cast<const Receiver *>(user);
        if (msg->object == nullptr || msg->scan_state != KT_MOM_CHANGE)
            return;
        if (msg->operation != KT_MOM_HSET)
            return receiver.watch->tell({receiver.db,
                                         msg->operation,
                                         *static_cast<const ProtobufCMessage *>(msg->object),
                                         {},
                                         false});
        const auto *hash = static_cast<const kt_mom_hash *>(msg->object);
        receiver.watch->tell(
            {receiver.db, KT_MOM_HSET, *hash->object, {hash->fields, hash->count}, false});
    });
}

int on_timer(void *user)
{
    return guarded([&] { static_cast<Watch *>(user)->write_from_timer(); });
}

int on_lost(kt_global *, uint32_t db)
{
    return guarded([&] {
        if (watch_now != nullptr)
            watch_now->note(db, "connection lost");
    });
}

int on_back(kt_global *, uint32_t db, int type)
{
    return guarded([&] {
        if (watch_now == nullptr)
            return;
        watch_now->note(db, type == KT_MOM_RECONNECT_SAME
                                ? "connection back; changes meanwhile are not shown"
                                : "connected to another server; what it holds may differ");
        watch_now->resume(db);
    });
}

void watch_with(const Context &context, const WatchOptions &options,
                std::span<const uint32_t> databases, const std::function<void(Watch &)> &prepare)
{
    const auto made = std::make_shared<Watch>(context, options);
    prepare(*made);
    context.host.kept.push_back(made);
    watch_now = made.get();
    try {
        made->run(databases);
    } catch (...) {
        watch_now = nullptr;
        throw;
    }
    watch_now = nullptr;
}

size_t count_or(const std::string &text, size_t standard, const std::string &what)
{
    const size_t count = text.empty() ? standard : number_parse(text, what);
    if (!text.empty() && count == 0)
        throw Failure{USAGE, "\"" + text + "\": expected " + what + ", at least 1"};
    return count;
}

std::string utc_now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm broken{};
    gmtime_r(&now.tv_sec, &broken);
    char date[sizeof "-2147483648-00-00T00:00:00"];
    char text[sizeof date + sizeof ".000Z"];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &broken);
    std::snprintf(text, sizeof text, "%s.%03uZ", date,
                  static_cast<unsigned>(now.tv_nsec / 1'000'000) % 1000);
    return text;
}

} // namespace

} // namespace ctl
