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
    : m_replied(std::move(replied)), m_lost(std::move(lost))
{
}

Link::~Link()
{
    close();
}

void Link::open(const Address &address)
{
    close();
    m_opening++;
    const auto on_event = [](evutil_socket_t, short what, void *self) {
        static_cast<Link *>(self)->on_ready((what & EV_READ) != 0, (what & EV_WRITE) != 0);
    };
    m_reader = reply_reader();
    m_address = address;
    const bool is_begun = connect();
    m_read = event_new(linux_loop_base(), m_fd, EV_READ | EV_PERSIST, on_event, this);
    m_write = event_new(linux_loop_base(), m_fd, EV_WRITE | EV_PERSIST, on_event, this);
    if (!is_begun) {
        event_active(m_read, EV_READ, 0);
        return;
    }
    event_add(m_read, nullptr);
    m_is_connecting = true;
    want_write(true);
}

void Link::close()
{
    m_opening++;
    for (event **each : {&m_read, &m_write}) {
        if (*each != nullptr)
            event_free(*each);
        *each = nullptr;
    }
    if (m_reader != nullptr)
        redisReaderFree(m_reader);
    m_reader = nullptr;
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    m_refused.clear();
    m_tls.reset();
    m_out = m_records = {};
    m_is_connecting = m_wants_write = false;
}

bool Link::is_open() const
{
    return m_reader != nullptr;
}

const Address &Link::address() const
{
    return m_address;
}

bool Link::is_shaking_hands() const
{
    return m_tls != nullptr && !m_tls->is_established();
}

unsigned Link::alternatives() const
{
    return m_alternatives;
}

void Link::send(Arguments arguments)
{
    format(m_out.bytes, arguments);
    want_write(has_to_send());
}

void Link::send_raw(std::string_view request)
{
    m_out.bytes.append(request);
    want_write(has_to_send());
}

size_t Link::unsent() const
{
    return m_out.left().size() + m_records.left().size();
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
        if (link->m_fd < 0) {
            link->on_ready(false, false);
            return 0;
        }
        const bool writes = link->m_is_connecting || link->has_to_send();
        fds.push_back({link->m_fd, static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0});
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
        if (what != 0 && open[i]->m_fd == fds[i].fd)
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

/* Makes the socket, or leaves it at -1 and says why in m_refused. */
bool Link::connect()
{
    m_alternatives = 1;
    if (m_address.tls) {
        m_tls = Tls::begin(*m_address.tls, m_address.host, &m_refused);
        if (m_tls == nullptr)
            return false;
        m_records.bytes = m_tls->take_records();
    }
    m_fd = m_address.path.empty() ? connect_tcp(m_address, &m_alternatives, &m_refused)
                                  : connect_unix(m_address.path);
    if (m_fd >= 0)
        return true;
    if (m_refused.empty())
        m_refused = std::strerror(-m_fd);
    m_fd = -1;
    return false;
}

/* What could go to the socket now: before TLS is agreed on, no request can. */
bool Link::has_to_send() const
{
    return !m_records.left().empty() || (!is_shaking_hands() && !m_out.left().empty());
}

void Link::on_ready(bool is_readable, bool is_writable)
{
    const uint64_t opening = m_opening;
    if (!is_open())
        return;
    if (m_fd < 0) {
        fail(std::string(m_refused));
        return;
    }
    if (m_is_connecting && (is_writable || is_readable) && !finish_connect())
        return;
    if (is_readable) /* first, as in fail_sending() */
        read_some();
    if (is_writable && opening == m_opening)
        write_some();
}

bool Link::finish_connect()
{
    int error = 0;
    socklen_t size = sizeof(error);
    getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        fail(std::strerror(error));
        return false;
    }
    m_is_connecting = false;
    return true;
}

void Link::read_some()
{
    std::array<char, READ_CHUNK> chunk;
    for (int i = 0; i < READS_A_TURN; i++) {
        const ssize_t got = recv(m_fd, chunk.data(), chunk.size(), 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == ENOTCONN))
            return;
        if (got < 0) {
            fail(std::strerror(errno));
            return;
        }
        if (got == 0) {
            fail(m_tls == nullptr ? "the server closed the connection" : m_tls->why_hung_up());
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
    if (m_tls == nullptr)
        return take_replies(bytes);
    m_tls->receive(bytes);
    return decrypt();
}

/* Takes all there is: nobody else would see that something is left. */
bool Link::decrypt()
{
    std::array<char, READ_CHUNK> text;
    ssize_t got = 0;
    while ((got = m_tls->read(text)) > 0) {
        if (!take_replies({text.data(), static_cast<size_t>(got)}))
            return false;
    }
    m_records.bytes += m_tls->take_records();
    if (got < 0) {
        send_some(m_records); /* what the server should know of it */
        fail(std::string(m_tls->why()));
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
        redisReaderFeed(m_reader, some.data(), some.size());
        if (!hand_on_replies())
            return false;
        bytes.remove_prefix(some.size());
    }
    return true;
}

bool Link::hand_on_replies()
{
    const uint64_t opening = m_opening;
    while (true) {
        void *raw = nullptr;
        if (redisReaderGetReply(m_reader, &raw) != REDIS_OK) {
            fail(std::string("not understood: ") + m_reader->errstr);
            return false;
        }
        if (raw == nullptr)
            return true;
        m_replied(Reply(static_cast<redisReply *>(raw)));
        if (opening != m_opening)
            return false;
    }
}

void Link::write_some()
{
    int error = 0;
    do {
        if (m_tls != nullptr)
            encrypt();
        error = send_some(m_tls != nullptr ? m_records : m_out);
    } while (error == 0 && has_to_send());
    if (error != 0 && error != EAGAIN)
        fail_sending(std::strerror(error));
    else
        want_write(has_to_send());
}

/* A server that hangs up has often said why. */
void Link::fail_sending(const std::string &why)
{
    const uint64_t opening = m_opening;
    read_some();
    if (opening == m_opening)
        fail(why);
}

/* Requests become records only when the socket has taken those before. */
void Link::encrypt()
{
    if (!m_records.left().empty())
        return;
    m_out.took(m_tls->write(m_out.left().substr(0, ENCRYPTED_AT_ONCE)));
    m_records.bytes += m_tls->take_records();
}

/* Returns 0 when all is gone, else an errno value. */
int Link::send_some(Outgoing &bytes)
{
    int error = 0;
    while (error == 0 && !bytes.left().empty()) {
        const std::string_view left = bytes.left();
        const ssize_t sent = ::send(m_fd, left.data(), left.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            bytes.took(static_cast<size_t>(sent));
        else if (errno != EINTR)
            error = errno;
    }
    return error;
}

void Link::want_write(bool wanted)
{
    if (wanted == m_wants_write || m_write == nullptr || m_fd < 0)
        return;
    m_wants_write = wanted;
    if (wanted)
        event_add(m_write, nullptr);
    else
        event_del(m_write);
}

void Link::fail(const std::string &why)
{
    close();
    m_lost(why);
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
