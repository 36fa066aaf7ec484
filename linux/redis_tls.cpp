#include "linux/redis_tls.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <unistd.h>

namespace redis
{

namespace
{

constexpr char HANDSHAKE = 22; /* the first byte of a record says what it holds */
constexpr char ALERT = 21;

struct FreeContext {
    void operator()(SSL_CTX *context) const
    {
        SSL_CTX_free(context);
    }
};

using Context = std::unique_ptr<SSL_CTX, FreeContext>;

std::string library_reason();
std::string check_file(const char *variable, const std::string &path);
std::string trust(SSL_CTX *context, const std::string &ca);
std::string show_certificate(SSL_CTX *context, const TlsFiles &files);
bool expect_host(SSL *session, const std::string &host);

} // namespace

std::unique_ptr<Tls> Tls::begin(const TlsFiles &files, const std::string &host, std::string *why)
{
    ERR_clear_error();
    const Context context(SSL_CTX_new(TLS_client_method()));
    if (context == nullptr) {
        *why = "TLS: " + library_reason();
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(context.get(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    *why = trust(context.get(), files.ca);
    if (why->empty() && !files.certificate.empty())
        *why = show_certificate(context.get(), files);
    if (!why->empty())
        return nullptr;
    SSL *session = SSL_new(context.get()); /* keeps the context */
    BIO *in = BIO_new(BIO_s_mem());
    BIO *out = BIO_new(BIO_s_mem());
    SSL_set_bio(session, in, out);
    SSL_set_connect_state(session);
    std::unique_ptr<Tls> tls(new Tls(session, files, host));
    if (!expect_host(session, host) || !tls->shake()) {
        *why = tls->why_.empty() ? host + " is no name for TLS" : tls->why_;
        return nullptr;
    }
    return tls;
}

Tls::Tls(ssl_st *session, const TlsFiles &files, std::string host)
    : session_(session), files_(files), host_(std::move(host))
{
}

Tls::~Tls()
{
    SSL_free(session_);
}

bool Tls::is_established() const
{
    return SSL_is_init_finished(session_) != 0 && why_.empty();
}

void Tls::receive(std::string_view records)
{
    if (is_first_ && !records.empty() && records[0] != HANDSHAKE && records[0] != ALERT)
        why_ = "the server does not speak TLS on this port";
    is_first_ = false;
    while (!records.empty()) {
        const auto size = static_cast<int>(std::min<size_t>(records.size(), INT_MAX));
        BIO_write(SSL_get_rbio(session_), records.data(), size);
        records.remove_prefix(static_cast<size_t>(size));
    }
}

ssize_t Tls::read(std::span<char> text)
{
    if (!why_.empty() || !shake())
        return -1;
    if (!is_established())
        return 0;
    ERR_clear_error();
    const int got = SSL_read(session_, text.data(), static_cast<int>(text.size()));
    if (got > 0)
        return got;
    switch (SSL_get_error(session_, got)) {
    case SSL_ERROR_WANT_READ:
        return 0;
    case SSL_ERROR_ZERO_RETURN:
        why_ = "the server closed the connection";
        return -1;
    default:
        why_ = explain();
        return -1;
    }
}

size_t Tls::write(std::string_view text)
{
    if (text.empty() || !is_established())
        return 0;
    ERR_clear_error();
    const auto size = static_cast<int>(std::min<size_t>(text.size(), INT_MAX));
    const int sent = SSL_write(session_, text.data(), size);
    if (sent > 0)
        return static_cast<size_t>(sent);
    if (SSL_get_error(session_, sent) != SSL_ERROR_WANT_READ)
        why_ = explain(); /* the next read ends the session */
    return 0;
}

std::string Tls::take_records()
{
    BIO *out = SSL_get_wbio(session_);
    std::string records(BIO_ctrl_pending(out), '\0');
    if (!records.empty())
        BIO_read(out, records.data(), static_cast<int>(records.size()));
    return records;
}

const std::string &Tls::why() const
{
    return why_;
}

std::string Tls::why_hung_up() const
{
    return is_established() ? "the server closed the connection"
                            : "the server closed the connection before TLS was agreed on";
}

bool Tls::shake()
{
    if (SSL_is_init_finished(session_) != 0)
        return true;
    ERR_clear_error();
    const int done = SSL_do_handshake(session_);
    if (done == 1 || SSL_get_error(session_, done) == SSL_ERROR_WANT_READ)
        return true;
    why_ = explain();
    return false;
}

/* The sentence for what the library says went wrong. */
std::string Tls::explain() const
{
    if (const long verdict = SSL_get_verify_result(session_); verdict != X509_V_OK)
        return explain_certificate(verdict);
    switch (ERR_GET_REASON(ERR_peek_error())) {
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
        return "the server wants a certificate from here: set VVLAN_MOM_CERT and VVLAN_MOM_KEY";
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
        return "the server does not trust the CA of " + files_.certificate;
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
        return "the server says that " + files_.certificate + " has expired";
    case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
    case SSL_R_UNSUPPORTED_PROTOCOL:
        return "the server does not speak TLS 1.2 or later";
    case SSL_R_WRONG_VERSION_NUMBER:
        return "the server does not speak TLS on this port";
    default:
        return "TLS: " + library_reason();
    }
}

std::string Tls::explain_certificate(long verdict) const
{
    switch (verdict) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        return files_.ca.empty() ? "the server's certificate is signed by no CA that this host "
                                   "trusts; VVLAN_MOM_CA can name another"
                                 : "the server's certificate is signed by no CA in " + files_.ca;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return "the server's certificate is not for " + host_;
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "the server's certificate has expired";
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return "the server's certificate is not valid yet; is this host's clock right?";
    default:
        return std::string("the server's certificate: ") + X509_verify_cert_error_string(verdict);
    }
}

namespace
{

std::string library_reason()
{
    const unsigned long error = ERR_peek_error();
    const char *reason = error == 0 ? nullptr : ERR_reason_error_string(error);
    return reason == nullptr ? "the library gives no reason" : reason;
}

std::string check_file(const char *variable, const std::string &path)
{
    if (access(path.c_str(), R_OK) == 0)
        return "";
    return std::string(variable) + "=" + path + ": " + std::strerror(errno);
}

std::string trust(SSL_CTX *context, const std::string &ca)
{
    if (ca.empty())
        return SSL_CTX_set_default_verify_paths(context) == 1 ? "" : "TLS: " + library_reason();
    std::string why = check_file("VVLAN_MOM_CA", ca);
    if (why.empty() && SSL_CTX_load_verify_file(context, ca.c_str()) != 1)
        why = "VVLAN_MOM_CA=" + ca + ": holds no certificate";
    return why;
}

std::string show_certificate(SSL_CTX *context, const TlsFiles &files)
{
    std::string why = check_file("VVLAN_MOM_CERT", files.certificate);
    if (why.empty())
        why = check_file("VVLAN_MOM_KEY", files.key);
    if (!why.empty())
        return why;
    if (SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str()) != 1)
        return "VVLAN_MOM_CERT=" + files.certificate + ": holds no certificate";
    if (SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM) != 1)
        return "VVLAN_MOM_KEY=" + files.key + ": holds no key of VVLAN_MOM_CERT";
    return "";
}

/* Only a certificate for this host will do. */
bool expect_host(SSL *session, const std::string &host)
{
    std::array<unsigned char, sizeof(in6_addr)> number;
    const bool is_number = inet_pton(AF_INET, host.c_str(), number.data()) == 1 ||
                           inet_pton(AF_INET6, host.c_str(), number.data()) == 1;
    if (is_number)
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session), host.c_str()) == 1;
    SSL_set_hostflags(session, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return SSL_set1_host(session, host.c_str()) == 1 &&
           SSL_set_tlsext_host_name(session, host.c_str()) == 1;
}

} // namespace

} // namespace redis
