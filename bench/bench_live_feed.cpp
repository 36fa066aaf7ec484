#include "bench/bench_live_feed.h"

#include <algorithm>
#include <array>
#include <hiredis/hiredis.h>
#include <iterator>
#include <numeric>
#include <random>
#include <stdexcept>
#include <utility>

#include "bench/bench_live_host.h"
#include "linux/linux_env.h"
#include "linux/linux_loop.h"
#include "linux/linux_mom.h"
#include "linux/redis_link.h"
#include "linux/redis_value.h"
#include "object/object.h"

namespace bench
{

namespace
{

constexpr std::array<uint32_t, 4> DATABASES = {UDP_VVLAN_PORT_NOTI_DB, UDP_VVLAN_CFG_DB,
                                               UDP_VVLAN_MAC_DB, KT_MOM_UDP_DB};
constexpr size_t UNANSWERED_MAX = 2048;
constexpr uint32_t LOOK_EVERY = 256;
constexpr size_t BATCH = 256;
constexpr double PATIENCE = 60;

std::string publish_command(const Noti &noti);

} // namespace

Writer::Writer(const std::string &socket)
{
    linux_env_settings settings;
    settings.mom.path = socket;
    linux_env_use(settings);
    global_ = kt_global_init("vvlan_bench_live", nullptr);
    if (global_ == nullptr)
        throw std::runtime_error("the database client cannot be started");
    for (const uint32_t db : DATABASES) {
        const auto ignore = [](kt_global *, void *) { return 0; };
        if (kt_mom_client_connect_sync(global_, db) != 0 ||
            kt_mom_client_connect(global_, db, ignore, nullptr) != 0)
            throw std::runtime_error("the database cannot be reached");
    }
    const auto is_up = [this] {
        return std::ranges::all_of(
            DATABASES, [this](uint32_t db) { return linux_mom_look(global_, db).is_up; });
    };
    if (!run_until(is_up, PATIENCE))
        throw std::runtime_error("the database does not answer");
}

Writer::~Writer()
{
    kt_global_finish(global_);
}

void Writer::configure(const Size &size, uint32_t automatic)
{
    const Global global;
    if (kt_mom_hset(global_, UDP_VVLAN_CFG_DB, &global.message.base, Global::FIELDS,
                    std::size(Global::FIELDS)) != 0)
        throw std::runtime_error("the global settings cannot be written");
    for (uint32_t number = 0; number < size.ouis; number++)
        write(UDP_VVLAN_CFG_DB, Oui(number).message.base);
    for (uint32_t ifx = 1; ifx <= size.ports; ifx++)
        write(UDP_VVLAN_CFG_DB, Port(ifx, ifx <= automatic).message.base);
    settle();
}

void Writer::notify(const Size &size, uint32_t first, uint32_t last)
{
    const std::vector<uint32_t> order = shuffled(size.macs);
    for (uint32_t at = first; at < last; at++) {
        notify_one(Noti(size, order[at % size.macs]));
        if (at % LOOK_EVERY == 0)
            keep_within(UNANSWERED_MAX, UDP_VVLAN_MAC_DB);
    }
}

void Writer::notify_one(const Noti &noti)
{
    write(UDP_VVLAN_MAC_DB, noti.message.base);
}

void Writer::see(uint32_t ifx)
{
    const Seen seen(ifx);
    if (kt_mom_publish(global_, UDP_VVLAN_PORT_NOTI_DB, &seen.message.base) != 0)
        throw std::runtime_error("a notice cannot be published");
}

void Writer::settle()
{
    for (const uint32_t db : DATABASES)
        keep_within(1, db);
}

void Writer::watch_joins(std::function<void(uint32_t)> told)
{
    told_ = std::move(told);
    const auto hear = [](kt_global *, const kt_mom_msg *msg, void *self) {
        const auto *object = static_cast<const ProtobufCMessage *>(msg->object);
        if (msg->operation == KT_MOM_SET && object->descriptor == &u_bridge__vvlan_join__descriptor)
            static_cast<Writer *>(self)->told_(
                reinterpret_cast<const UBridge__VvlanJoin *>(object)->index->ifx);
        return 0;
    };
    if (kt_mom_watch(global_, KT_MOM_UDP_DB, hear, this) != 0)
        throw std::runtime_error("the daemon's database cannot be watched");
    settle();
}

bool Writer::run_until(const std::function<bool()> &done, double seconds)
{
    return linux_loop_run_until(done, static_cast<int64_t>(seconds * 1e6));
}

void Writer::write(uint32_t db, const ProtobufCMessage &object)
{
    if (kt_mom_set(global_, db, &object, 0, 0) != 0)
        throw std::runtime_error("an object cannot be written");
}

/* Until fewer requests than that are without an answer. */
void Writer::keep_within(size_t limit, uint32_t db)
{
    if (!run_until([&] { return linux_mom_look(global_, db).waiting < limit; }, PATIENCE))
        throw std::runtime_error("the database does not answer");
}

Flood::Flood(const std::string &socket, const Size &size, uint32_t count, const Noti &marker)
    : context_(redisConnectUnix(socket.c_str()))
{
    const std::vector<uint32_t> order = shuffled(size.macs);
    std::string batch;
    size_t held = 0;
    for (uint32_t at = 0; at <= count; at++) {
        batch += at < count ? publish_command(Noti(size, order[at % size.macs]))
                            : publish_command(marker);
        if (++held < BATCH && at < count)
            continue;
        batches_.push_back(std::exchange(batch, {}));
        counts_.push_back(std::exchange(held, 0));
    }
}

Flood::~Flood()
{
    redisFree(context_);
}

void Flood::run(double rate)
{
    double due = now();
    for (size_t at = 0; at < batches_.size(); at++) {
        if (rate > 0)
            rest(std::max(0.0, due - now()));
        due += static_cast<double>(counts_[at]) / rate;
        redisAppendFormattedCommand(context_, batches_[at].data(), batches_[at].size());
        for (size_t left = counts_[at]; left > 0; left--) {
            void *reply = nullptr;
            if (redisGetReply(context_, &reply) != REDIS_OK)
                throw std::runtime_error("the database server does not answer");
            freeReplyObject(reply);
        }
    }
}

std::vector<uint32_t> shuffled(uint32_t macs)
{
    std::vector<uint32_t> order(macs);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

namespace
{

/* What the library would publish for a write, without the write. */
std::string publish_command(const Noti &noti)
{
    const ProtobufCMessage &message = noti.message.base;
    const std::string key = object::key(message);
    const std::string packed = redis::pack(message);
    const std::string text = redis::note_text({KT_MOM_SET, "somebody", key, "", packed});
    const std::string channel = std::to_string(UDP_VVLAN_MAC_DB) + ":" + message.descriptor->name;
    std::string command;
    redis::format(command, std::array<std::string_view, 3>{"PUBLISH", channel, text});
    return command;
}

} // namespace

} // namespace bench
