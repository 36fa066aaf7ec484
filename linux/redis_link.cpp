#include "linux/redis_link.h"

#include "linux/linux_loop.h"

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
constexpr int READS_A_TURN = 64;

int connect_unix(const std::string &path);
int connect_tcp(const Address &address);
void append_number(std::string &out, char mark, size_t number);

} // namespace

std::string_view text_of(const redisReply &reply)
{
    return reply.str == nullptr ? std::string_view() : std::string_view(reply.str, reply.len);
}

bool is_error(const redisReply &reply)
{
    return reply.type == REDIS_REPLY_ERROR;
}

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
    m_reader = redisReaderCreate();
    m_fd = connect_to(address);
    m_read = event_new(linux_loop_base(), m_fd, EV_READ | EV_PERSIST, on_event, this);
    m_write = event_new(linux_loop_base(), m_fd, EV_WRITE | EV_PERSIST, on_event, this);
    if (m_fd < 0) {
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
    m_out.clear();
    m_sent = 0;
    m_is_connecting = m_wants_write = false;
}

bool Link::is_open() const
{
    return m_reader != nullptr;
}

void Link::send(Arguments arguments)
{
    format(m_out, arguments);
    want_write(true);
}

void Link::send_raw(std::string_view request)
{
    m_out.append(request);
    want_write(true);
}

size_t Link::unsent() const
{
    return m_out.size() - m_sent;
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
        const bool writes = link->m_is_connecting || link->unsent() > 0;
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

/* The socket, or -1 and m_refused. */
int Link::connect_to(const Address &address)
{
    const int fd = address.path.empty() ? connect_tcp(address) : connect_unix(address.path);
    if (fd >= 0)
        return fd;
    m_refused = std::strerror(-fd);
    return -1;
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
    /* Answers first: a server that hangs up has often said why. */
    if (is_readable)
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
    const uint64_t opening = m_opening;
    std::array<char, READ_CHUNK> chunk;
    for (int i = 0; i < READS_A_TURN; i++) {
        const ssize_t got = recv(m_fd, chunk.data(), chunk.size(), 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == ENOTCONN))
            return;
        if (got <= 0) {
            fail(got == 0 ? "the server closed the connection" : std::strerror(errno));
            return;
        }
        redisReaderFeed(m_reader, chunk.data(), static_cast<size_t>(got));
        if (!take_replies() || opening != m_opening)
            return;
        if (static_cast<size_t>(got) < chunk.size())
            return;
    }
}

/* Hands on every reply that is complete; false when the link has ended. */
bool Link::take_replies()
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
    while (unsent() > 0) {
        const ssize_t sent = ::send(m_fd, m_out.data() + m_sent, unsent(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0) {
            if (errno != EAGAIN)
                fail(std::strerror(errno));
            break;
        }
        m_sent += static_cast<size_t>(sent);
    }
    if (m_sent >= unsent() || unsent() == 0) { /* so that each byte is moved about once */
        m_out.erase(0, m_sent);
        m_sent = 0;
    }
    if (is_open())
        want_write(unsent() > 0);
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

int connect_tcp(const Address &address)
{
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = AI_NUMERICSERV;
    addrinfo *found = nullptr;
    const std::string port = std::to_string(address.port);
    if (getaddrinfo(address.host.c_str(), port.c_str(), &wanted, &found) != 0)
        return -EHOSTUNREACH;
    unsigned count = 0;
    for (const addrinfo *each = found; each != nullptr; each = each->ai_next)
        count++;
    const addrinfo *chosen = found;
    for (unsigned i = 0; i < address.attempt % count; i++)
        chosen = chosen->ai_next;
    const int fd = connect_socket(chosen->ai_family, chosen->ai_addr, chosen->ai_addrlen);
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
