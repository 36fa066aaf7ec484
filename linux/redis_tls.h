/*
 * redis_tls - TLS between a link and the database server.
 *
 * Works in memory: the link keeps its socket, hands on what came from it, and
 * sends the records that are made here. The library therefore never waits for a
 * socket, and nothing that has been decrypted can lie where poll() does not see
 * it, since the link reads on until there is none.
 *
 * TLS 1.2 at least. The server must show a certificate that is valid now, signed
 * by a CA that is trusted, and made out to the host that was asked for: its name,
 * or its address where a number was given. The files are read for every session,
 * so that a renewed one counts from the next connect on.
 */
#ifndef LINUX_REDIS_TLS_H
#define LINUX_REDIS_TLS_H

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>

struct ssl_st;

namespace redis
{

struct TlsFiles {
    std::string ca;          /* "": the host's certificates */
    std::string certificate; /* of this side, with its chain; "": none is shown */
    std::string key;         /* of that certificate */
};

class Tls
{
public:
    /* Begins a session; its first records are ready at once. nullptr: *why says what is wrong. */
    static std::unique_ptr<Tls> begin(const TlsFiles &files, const std::string &host,
                                      std::string *why);
    ~Tls();
    Tls(const Tls &) = delete;
    Tls &operator=(const Tls &) = delete;

    /* Whether text can be written: the handshake is over and the server is the right one. */
    bool is_established() const;

    /* What came from the socket; any size. */
    void receive(std::string_view records);
    /* Up to so many bytes of text; 0 if there are none by now; -1 when the session ends. */
    ssize_t read(std::span<char> text);
    /* How much was made into records; nothing before the session is established. */
    size_t write(std::string_view text);
    /* The records made since the last call, in order; after an end too: the server learns why. */
    std::string take_records();

    /* Why read() has returned -1, or could end now if the server has hung up: one sentence. */
    const std::string &why() const;
    std::string why_hung_up() const;

private:
    Tls(ssl_st *session, const TlsFiles &files, std::string host);
    bool shake();
    std::string explain() const;
    std::string explain_certificate(long verdict) const;

    ssl_st *session_;
    TlsFiles files_;
    std::string host_;
    std::string why_;
    bool is_first_ = true; /* nothing was received yet */
};

} // namespace redis

#endif
