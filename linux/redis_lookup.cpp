#include "linux/redis_lookup.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <utility>

namespace redis
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr size_t NAMES_MAX = 64;

/* Shared with the thread that asks. */
struct Name {
    std::mutex mutex;
    std::condition_variable answered;
    bool is_asked = false;
    bool was_awaited = false; /* once is enough to stand still */
    Clock::time_point fresh_until = Clock::time_point::min();
    std::vector<std::string> numbers;
    std::string why; /* there are none */
};

int resolve_numbers(const std::string &host, std::vector<std::string> *numbers);
int resolve_by_library(const std::string &host, std::vector<std::string> *numbers);

struct Manner {
    Resolver resolver = resolve_by_library;
    std::chrono::milliseconds first_wait{2000};
    std::chrono::milliseconds fresh{1000};
};

/* Never freed: the program may call exit() while a thread asks. */
Manner &manner = *new Manner;
std::map<std::string, std::shared_ptr<Name>> &names =
    *new std::map<std::string, std::shared_ptr<Name>>;

void ask(const std::shared_ptr<Name> &name, const std::string &host);
void take_answer(Name &name, const std::string &host, const Manner &by);

} // namespace

std::vector<std::string> lookup(const std::string &host, std::string *why)
{
    std::vector<std::string> numbers;
    if (resolve_numbers(host, &numbers) == 0)
        return numbers;
    if (names.size() >= NAMES_MAX && !names.contains(host))
        names.clear();
    std::shared_ptr<Name> &name = names[host];
    if (name == nullptr)
        name = std::make_shared<Name>();
    std::unique_lock lock(name->mutex);
    if (!name->is_asked && Clock::now() >= name->fresh_until) {
        ask(name, host);
        if (name->numbers.empty() && !std::exchange(name->was_awaited, true))
            name->answered.wait_for(lock, manner.first_wait, [&] { return !name->is_asked; });
    }
    if (name->numbers.empty())
        *why = name->why.empty() ? "no answer from the resolver yet" : name->why;
    return name->numbers;
}

void lookup_with(Resolver resolver, std::chrono::milliseconds first_wait,
                 std::chrono::milliseconds fresh)
{
    names.clear();
    manner = resolver ? Manner{std::move(resolver), first_wait, fresh} : Manner{};
}

namespace
{

int resolve(const std::string &host, int flags, std::vector<std::string> *numbers)
{
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = flags;
    addrinfo *found = nullptr;
    if (const int error = getaddrinfo(host.c_str(), nullptr, &wanted, &found); error != 0)
        return error;
    for (const addrinfo *each = found; each != nullptr; each = each->ai_next) {
        std::array<char, NI_MAXHOST> number;
        if (getnameinfo(each->ai_addr, each->ai_addrlen, number.data(), number.size(), nullptr, 0,
                        NI_NUMERICHOST) == 0)
            numbers->emplace_back(number.data());
    }
    freeaddrinfo(found);
    return numbers->empty() ? EAI_NONAME : 0;
}

int resolve_numbers(const std::string &host, std::vector<std::string> *numbers)
{
    return resolve(host, AI_NUMERICHOST, numbers);
}

int resolve_by_library(const std::string &host, std::vector<std::string> *numbers)
{
    return resolve(host, 0, numbers);
}

/* Signals are for the thread that runs the loop. */
void ask(const std::shared_ptr<Name> &name, const std::string &host)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        name->is_asked = true;
        std::thread([name, host, by = manner] { take_answer(*name, host, by); }).detach();
    } catch (const std::system_error &error) {
        name->is_asked = false;
        name->why = error.what();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void take_answer(Name &name, const std::string &host, const Manner &by)
{
    std::vector<std::string> numbers;
    const int error = by.resolver(host, &numbers);
    const std::lock_guard lock(name.mutex);
    name.is_asked = false;
    name.fresh_until = Clock::now() + by.fresh;
    name.why = error == 0 ? "" : gai_strerror(error);
    if (error == 0)
        name.numbers = std::move(numbers);
    name.answered.notify_one();
}

} // namespace

} // namespace redis
