#include "linux/redis_link.h"

#include "linux/linux_loop.h"
#include "linux/redis_lookup.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <event2/event.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace redis
{

namespace
{

constexpr size_t READ_CHUNK = 16'384;
constexpr int READS_A_TURN = 4;
constexpr size_t FED_AT_ONCE = 1'024; /* the reader moves what is left of it, again and again */

constexpr size_t ENCRYPTED_AT_ONCE = 262'144;

int connect_unix(const std::string &path);
int connect_tcp(Address &address, unsigned *alternatives, std::string *why);
void append_number(std::string &out, char mark, size_t number);

} // namespace

void format(std::string &out, Arguments arguments)
{
    append_number(out, '*', arguments.size());
    for (const std::string_view argument : arguments) {
        append_number(out, '$', argument.size());
        out.append(argument).append("\r\n");
    }
}

Link::Link(std::function<void(Reply)> replied, std::function<void(const std::string &)> lost)
    : replied_(std::move(replied)), lost_(std::move(lost))
{
}

Link::~Link()
{
    close();
}

void Link::open(const Address &address)
{
    close();
    opening_++;
    const auto on_event = [](evutil_socket_t, short what, void *self) {
        static_cast<Link *>(self)->on_ready((what & EV_READ) != 0, (what & EV_WRITE) != 0);
    };
    reader_ = reply_reader();
    address_ = address;
    const bool is_begun = connect();
    read_ = event_new(linux_loop_base(), fd_, EV_READ | EV_PERSIST, on_event, this);
    write_ = event_new(linux_loop_base(), fd_, EV_WRITE | EV_PERSIST, on_event, this);
    if (!is_begun) {
        event_active(read_, EV_READ, 0);
        return;
    }
    event_add(read_, nullptr);
    is_connecting_ = true;
    want_write(true);
}

void Link::close()
{
    opening_++;
    for (event **each : {&read_, &write_}) {
        if (*each != nullptr)
            event_free(*each);
        *each = nullptr;
    }
    if (reader_ != nullptr)
        redisReaderFree(reader_);
    reader_ = nullptr;
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    refused_.clear();
    tls_.reset();
    out_ = records_ = {};
    is_connecting_ = wants_write_ = false;
}

bool Link::is_open() const
{
    return reader_ != nullptr;
}

const Address &Link::address() const
{
    return address_;
}

bool Link::is_shaking_hands() const
{
    return tls_ != nullptr && !tls_->is_established();
}

unsigned Link::alternatives() const
{
    return alternatives_;
}

void Link::send(Arguments arguments)
{
    format(out_.bytes, arguments);
    want_write(has_to_send());
}

void Link::send_raw(std::string_view request)
{
    out_.bytes.append(request);
    want_write(has_to_send());
}

size_t Link::unsent() const
{
    return out_.left().size() + records_.left().size();
}

void Link::turn()
{
    on_ready(true, unsent() > 0);
}

int links_wait(std::span<Link *const> links, int64_t micros)
{
    std::vector<pollfd> fds;
    std::vector<Link *> open;
    for (Link *link : links) {
        if (!link->is_open())
            continue;
        if (link->fd_ < 0) {
            link->on_ready(false, false);
            return 0;
        }
        const bool writes = link->is_connecting_ || link->has_to_send();
        fds.push_back({link->fd_, static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0});
        open.push_back(link);
    }
    if (fds.empty())
        return -ENOTCONN;
    const auto millis = static_cast<int>(std::clamp<int64_t>((micros + 999) / 1000, 0, 60'000));
    const int ready = poll(fds.data(), fds.size(), millis);
    if (ready < 0)
        return errno == EINTR ? 0 : -errno;
    for (size_t i = 0; i < fds.size(); i++) {
        const short what = fds[i].revents;
        if (what != 0 && open[i]->fd_ == fds[i].fd)
            open[i]->on_ready((what & (POLLIN | POLLHUP | POLLERR)) != 0, (what & POLLOUT) != 0);
    }
    return ready == 0 ? -ETIMEDOUT : 0;
}

std::string_view Link::Outgoing::left() const
{
    return std::string_view(bytes).substr(sent);
}

void Link::Outgoing::took(size_t size)
{
    sent += size;
    if (sent < bytes.size() - sent) /* so that each byte is moved about once */
        return;
    bytes.erase(0, sent);
    sent = 0;
}

/* Makes the socket, or leaves it at -1 and says why in refused_. */
bool Link::connect()
{
    alternatives_ = 1;
    if (address_.tls) {
        tls_ = Tls::begin(*address_.tls, address_.host, &refused_);
        if (tls_ == nullptr)
            return false;
        records_.bytes = tls_->take_records();
    }
    fd_ = address_.path.empty() ? connect_tcp(address_, &alternatives_, &refused_)
                                : connect_unix(address_.path);
    if (fd_ >= 0)
        return true;
    if (refused_.empty())
        refused_ = std::strerror(-fd_);
    fd_ = -1;
    return false;
}

/* What could go to the socket now: before TLS is agreed on, no request can. */
bool Link::has_to_send() const
{
    return !records_.left().empty() || (!is_shaking_hands() && !out_.left().empty());
}

void Link::on_ready(bool is_readable, bool is_writable)
{
    const uint64_t opening = opening_;
    if (!is_open())
        return;
    if (fd_ < 0) {
        fail(std::string(refused_));
        return;
    }
    if (is_connecting_ && (is_writable || is_readable) && !finish_connect())
        return;
    if (is_readable) /* first, as in fail_sending() */
        read_some();
    if (is_writable && opening == opening_)
        write_some();
}

bool Link::finish_connect()
{
    int error = 0;
    socklen_t size = sizeof(error);
    getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        fail(std::strerror(error));
        return false;
    }
    is_connecting_ = false;
    return true;
}

void Link::read_some()
{
    std::array<char, READ_CHUNK> chunk;
    for (int i = 0; i < READS_A_TURN; i++) {
        const ssize_t got = recv(fd_, chunk.data(), chunk.size(), 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == ENOTCONN))
            return;
        if (got < 0) {
            fail(std::strerror(errno));
            return;
        }
        if (got == 0) {
            fail(tls_ == nullptr ? "the server closed the connection" : tls_->why_hung_up());
            return;
        }
        if (!take_bytes({chunk.data(), static_cast<size_t>(got)}))
            return;
        if (static_cast<size_t>(got) < chunk.size())
            return;
    }
}

/* False when the link has ended. */
bool Link::take_bytes(std::string_view bytes)
{
    if (tls_ == nullptr)
        return take_replies(bytes);
    tls_->receive(bytes);
    return decrypt();
}

/* Takes all there is: nobody else would see that something is left. */
bool Link::decrypt()
{
    std::array<char, READ_CHUNK> text;
    ssize_t got = 0;
    while ((got = tls_->read(text)) > 0) {
        if (!take_replies({text.data(), static_cast<size_t>(got)}))
            return false;
    }
    records_.bytes += tls_->take_records();
    if (got < 0) {
        send_some(records_); /* what the server should know of it */
        fail(std::string(tls_->why()));
        return false;
    }
    want_write(has_to_send());
    return true;
}

/* Hands on every reply that is complete; false when the link has ended. */
bool Link::take_replies(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::string_view some = bytes.substr(0, FED_AT_ONCE);
        redisReaderFeed(reader_, some.data(), some.size());
        if (!hand_on_replies())
            return false;
        bytes.remove_prefix(some.size());
    }
    return true;
}

bool Link::hand_on_replies()
{
    const uint64_t opening = opening_;
    while (true) {
        void *raw = nullptr;
        if (redisReaderGetReply(reader_, &raw) != REDIS_OK) {
            fail(std::string("not understood: ") + reader_->errstr);
            return false;
        }
        if (raw == nullptr)
            return true;
        replied_(Reply(static_cast<redisReply *>(raw)));
        if (opening != opening_)
            return false;
    }
}

void Link::write_some()
{
    int error = 0;
    do {
        if (tls_ != nullptr)
            encrypt();
        error = send_some(tls_ != nullptr ? records_ : out_);
    } while (error == 0 && has_to_send());
    if (error != 0 && error != EAGAIN)
        fail_sending(std::strerror(error));
    else
        want_write(has_to_send());
}

/* A server that hangs up has often said why. */
void Link::fail_sending(const std::string &why)
{
    const uint64_t opening = opening_;
    read_some();
    if (opening == opening_)
        fail(why);
}

/* Requests become records only when the socket has taken those before. */
void Link::encrypt()
{
    if (!records_.left().empty())
        return;
    out_.took(tls_->write(out_.left().substr(0, ENCRYPTED_AT_ONCE)));
    records_.bytes += tls_->take_records();
}

/* Returns 0 when all is gone, else an errno value. */
int Link::send_some(Outgoing &bytes)
{
    int error = 0;
    while (error == 0 && !bytes.left().empty()) {
        const std::string_view left = bytes.left();
        const ssize_t sent = ::send(fd_, left.data(), left.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            bytes.took(static_cast<size_t>(sent));
        else if (errno != EINTR)
            error = errno;
    }
    return error;
}

void Link::want_write(bool wanted)
{
    if (wanted == wants_write_ || write_ == nullptr || fd_ < 0)
        return;
    wants_write_ = wanted;
    if (wanted)
        event_add(write_, nullptr);
    else
        event_del(write_);
}

void Link::fail(const std::string &why)
{
    close();
    lost_(why);
}

namespace
{

/* A non-blocking socket on its way to the address, or a negative errno value. */
int connect_socket(int family, const sockaddr *address, socklen_t size)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    if (connect(fd, address, size) == 0 || errno == EINPROGRESS)
        return fd;
    const int error = errno;
    close(fd);
    return -error;
}

int connect_unix(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        return -ENAMETOOLONG;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return connect_socket(AF_UNIX, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
}

/* One of the addresses of the host, in their order; it is noted as the number. */
int connect_tcp(Address &address, unsigned *alternatives, std::string *why)
{
    const std::string &host = address.number.empty() ? address.host : address.number;
    const std::vector<std::string> numbers = lookup(host, why);
    if (numbers.empty()) {
        *why = host + ": " + *why;
        return -EHOSTUNREACH;
    }
    *alternatives = static_cast<unsigned>(numbers.size());
    address.number = numbers[address.attempt % numbers.size()];
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    const std::string port = std::to_string(address.port);
    if (getaddrinfo(address.number.c_str(), port.c_str(), &wanted, &found) != 0)
        return -EHOSTUNREACH;
    const int fd = connect_socket(found->ai_family, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    const int on = 1;
    if (fd >= 0) {
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    }
    return fd;
}

void append_number(std::string &out, char mark, size_t number)
{
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    out += mark;
    out.append(digits.data(), end).append("\r\n");
}

} // namespace

} // namespace redis
