#include "linux/linux_env.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <sys/un.h>
#include <unistd.h>

#include "linux/linux_log.h"
#include "text/number.h"

namespace
{

constexpr char MOM_DEFAULT[] = "unix:/run/vvlan/mom.sock";
constexpr char SHELL_DEFAULT[] = "/run/vvlan/shell.sock";
constexpr char PORTS_FILE[] = "/etc/vvlan/ports";
constexpr size_t SENTINELS_MAX = 8;
constexpr size_t SOCKET_PATH_MAX = sizeof(sockaddr_un{}.sun_path) - 1;

std::string take_mom(std::string_view value, linux_env_settings *settings);
std::string take_user(std::string_view value, linux_env_settings *settings);
std::string take_password_file(std::string_view value, linux_env_settings *settings);
std::string take_ca(std::string_view value, linux_env_settings *settings);
std::string take_certificate(std::string_view value, linux_env_settings *settings);
std::string take_key(std::string_view value, linux_env_settings *settings);
std::string take_card(std::string_view value, linux_env_settings *settings);
std::string take_shell(std::string_view value, linux_env_settings *settings);
std::string take_ports(std::string_view value, linux_env_settings *settings);

constexpr linux_env_variable TABLE[] = {
    {"VVLAN_MOM", MOM_DEFAULT,
     "Where the object database listens: unix:PATH, tcp:HOST:PORT, tls:HOST:PORT, or "
     "sentinel:HOST:PORT[,HOST:PORT...]/NAME for the server that Sentinel calls NAME. An IPv6 "
     "address stands in brackets.",
     take_mom},
    {"VVLAN_MOM_USER", "", "The user to log in to the database as; by default the default user.",
     take_user},
    {"VVLAN_MOM_PASSWORD_FILE", "",
     "A file whose first line is that user's password; it is read at every connect.",
     take_password_file},
    {"VVLAN_MOM_CA", "",
     "A file of certificates that the server's must be signed by (tls: and sentinel: only); by "
     "default the host's own. With sentinel: TLS is spoken if this is set, to the Sentinels and "
     "to the server.",
     take_ca},
    {"VVLAN_MOM_CERT", "",
     "A file with the certificate to show to a server that asks for one, and its chain (tls: and "
     "sentinel: only).",
     take_certificate},
    {"VVLAN_MOM_KEY", "", "A file with that certificate's key.", take_key},
    {"VVLAN_MOM_CARD", "0",
     "The number of this line card among those that share the server, 0 to 1023; its databases are "
     "those from 16 times the number on, and the server's `databases` must be 16 times as many as "
     "there are cards.",
     take_card},
    {"VVLAN_SHELL", SHELL_DEFAULT, "The Unix socket of the debug shell.", take_shell},
    {"VVLAN_PORTS", "/etc/vvlan/ports if it exists, else host",
     "The ports: host for the host's own interfaces, or a file of lines \"ifx phyid name\", "
     "which is read again at SIGHUP.",
     take_ports},
};

struct Environment {
    bool is_read = false;
    bool is_good = false;
    linux_env_settings settings;
};

Environment *environment; /* never freed, see linux_loop */

Environment &environment_now()
{
    if (environment == nullptr)
        environment = new Environment;
    return *environment;
}

} // namespace

std::span<const linux_env_variable> linux_env_table()
{
    return TABLE;
}

std::string linux_env_parse(const std::function<const char *(const char *)> &get,
                            linux_env_settings *settings)
{
    *settings = {};
    for (const linux_env_variable &variable : TABLE) {
        const char *set = get(variable.name);
        const bool is_set = set != nullptr && *set != '\0';
        const std::string why = variable.take(is_set ? set : "", settings);
        if (!why.empty())
            return std::string(variable.name) + "=" + (is_set ? set : "") + ": " + why;
    }
    return "";
}

const linux_env_settings *linux_env()
{
    Environment &now = environment_now();
    if (!now.is_read) {
        const std::string mistake = linux_env_parse(std::getenv, &now.settings);
        now.is_read = true;
        now.is_good = mistake.empty();
        if (!now.is_good)
            LINUX_LOG(KTDF_ZLOG_LV_FATAL, "%s", mistake.c_str());
    }
    return now.is_good ? &now.settings : nullptr;
}

void linux_env_use(const linux_env_settings &settings)
{
    environment_now() = {true, true, settings};
}

namespace
{

std::string check_path(std::string_view path)
{
    return path.starts_with('/') ? "" : "a path from the root (\"/...\") is wanted";
}

std::string check_socket(std::string_view path)
{
    if (path.size() > SOCKET_PATH_MAX)
        return "the path of a socket has at most " + std::to_string(SOCKET_PATH_MAX) + " bytes";
    return check_path(path);
}

/* "host:port" or "[v6]:port". */
std::optional<linux_env_address> parse_address(std::string_view text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    std::string_view host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != std::string_view::npos)
        return std::nullopt;
    const auto port = text::number_read(text.substr(colon + 1));
    if (!port || *port == 0 || *port > UINT16_MAX || host.empty() ||
        host.find_first_of(" \t/") != std::string_view::npos)
        return std::nullopt;
    return linux_env_address{.host = std::string(host), .port = static_cast<uint16_t>(*port)};
}

std::string take_addresses(std::string_view list, size_t max, linux_env_mom *mom)
{
    for (size_t start = 0; start <= list.size();) {
        const size_t comma = std::min(list.find(',', start), list.size());
        const auto address = parse_address(list.substr(start, comma - start));
        if (!address || mom->addresses.size() >= max)
            return max == 1 ? "HOST:PORT is wanted, the port from 1 to 65535"
                            : "one to eight of HOST:PORT are wanted, ports from 1 to 65535";
        mom->addresses.push_back(*address);
        start = comma + 1;
    }
    return "";
}

std::string take_sentinel(std::string_view rest, linux_env_mom *mom)
{
    const size_t slash = rest.find('/');
    if (slash == std::string_view::npos || slash + 1 == rest.size())
        return "the name that Sentinel gives the server is wanted after a \"/\"";
    mom->name = rest.substr(slash + 1);
    return take_addresses(rest.substr(0, slash), SENTINELS_MAX, mom);
}

std::string take_mom(std::string_view value, linux_env_settings *settings)
{
    if (value.empty())
        value = MOM_DEFAULT;
    linux_env_mom &mom = settings->mom;
    const size_t colon = std::min(value.find(':'), value.size());
    const std::string_view way = value.substr(0, colon);
    const std::string_view rest = colon < value.size() ? value.substr(colon + 1) : "";
    if (way == "unix") {
        mom.way = linux_env_way::unix_socket;
        mom.path = rest;
        return check_socket(rest);
    }
    if (way == "sentinel") {
        mom.way = linux_env_way::sentinel;
        return take_sentinel(rest, &mom);
    }
    if (way != "tcp" && way != "tls")
        return "it must begin with unix:, tcp:, tls: or sentinel:";
    mom.way = way == "tcp" ? linux_env_way::tcp : linux_env_way::tls;
    return take_addresses(rest, 1, &mom);
}

std::string take_user(std::string_view value, linux_env_settings *settings)
{
    settings->mom_user = value;
    return "";
}

std::string take_password_file(std::string_view value, linux_env_settings *settings)
{
    settings->mom_password_file = value;
    if (value.empty())
        return settings->mom_user.empty() ? "" : "it is wanted together with VVLAN_MOM_USER";
    return check_path(value);
}

/* A file that only TLS needs. */
std::string check_tls_file(std::string_view value, const linux_env_settings &settings)
{
    if (value.empty())
        return "";
    const linux_env_way way = settings.mom.way;
    if (way != linux_env_way::tls && way != linux_env_way::sentinel)
        return "VVLAN_MOM names no server with TLS (tls: or sentinel:)";
    return check_path(value);
}

std::string take_ca(std::string_view value, linux_env_settings *settings)
{
    settings->mom_ca = value;
    return check_tls_file(value, *settings);
}

std::string take_certificate(std::string_view value, linux_env_settings *settings)
{
    settings->mom_certificate = value;
    if (!value.empty() && settings->mom.way == linux_env_way::sentinel && settings->mom_ca.empty())
        return "with sentinel: TLS is spoken only if VVLAN_MOM_CA is set";
    return check_tls_file(value, *settings);
}

std::string take_key(std::string_view value, linux_env_settings *settings)
{
    settings->mom_key = value;
    if (value.empty() != settings->mom_certificate.empty())
        return "VVLAN_MOM_CERT and VVLAN_MOM_KEY are wanted both, or neither";
    return check_tls_file(value, *settings);
}

std::string take_card(std::string_view value, linux_env_settings *settings)
{
    if (value.empty())
        return "";
    const auto card = text::number_read(value);
    if (!card || *card > LINUX_ENV_CARD_MAX)
        return "a number from 0 to " + std::to_string(LINUX_ENV_CARD_MAX) + " is wanted";
    settings->mom_card = static_cast<uint32_t>(*card);
    return "";
}

std::string take_shell(std::string_view value, linux_env_settings *settings)
{
    settings->shell = value.empty() ? SHELL_DEFAULT : value;
    return check_socket(settings->shell);
}

std::string take_ports(std::string_view value, linux_env_settings *settings)
{
    if (value.empty())
        value = access(PORTS_FILE, F_OK) == 0 ? PORTS_FILE : "host";
    settings->ports = value;
    if (value != "host" && !value.starts_with('/'))
        return "host is wanted, or the path of a file from the root (\"/...\")";
    return "";
}

} // namespace
