#include "linux/redis_find.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <optional>

namespace redis
{

namespace
{

constexpr uint32_t DATABASES_A_CARD = 16;

unsigned last_success = 0;

std::optional<TlsFiles> tls_of(const linux_env_settings &settings);

} // namespace

Place find_place(const linux_env_settings &settings, unsigned attempt)
{
    const linux_env_mom &mom = settings.mom;
    if (mom.way == linux_env_way::unix_socket)
        return {{.path = mom.path}};
    const unsigned places = find_places(settings);
    const linux_env_address &chosen = mom.addresses[attempt % places];
    return {{.host = chosen.host,
             .port = chosen.port,
             .attempt = attempt / places,
             .tls = tls_of(settings)},
            mom.way == linux_env_way::sentinel};
}

unsigned find_places(const linux_env_settings &settings)
{
    return std::max(1U, static_cast<unsigned>(settings.mom.addresses.size()));
}

unsigned find_first()
{
    return last_success;
}

void find_succeeded(unsigned attempt)
{
    last_success = attempt;
}

uint32_t find_database(const linux_env_settings &settings, uint32_t db)
{
    return settings.mom_card * DATABASES_A_CARD + db;
}

std::vector<std::string> find_question(const linux_env_settings &settings)
{
    return {"SENTINEL", "get-master-addr-by-name", settings.mom.name};
}

std::string find_read_answer(const redisReply &answer, const linux_env_settings &settings,
                             Address *address)
{
    if (is_error(answer))
        return "Sentinel: " + std::string(text_of(answer));
    if (answer.type == REDIS_REPLY_NIL)
        return "Sentinel knows no server " + settings.mom.name;
    uint16_t port = 0;
    if (answer.type == REDIS_REPLY_ARRAY && answer.elements == 2) {
        const std::string_view digits = text_of(*answer.element[1]);
        std::from_chars(digits.data(), digits.data() + digits.size(), port);
    }
    if (port == 0)
        return "not a Sentinel: it does not answer with host and port";
    *address = {
        .host = std::string(text_of(*answer.element[0])), .port = port, .tls = tls_of(settings)};
    return "";
}

std::string find_login(const linux_env_settings &settings, std::vector<std::string> *words)
{
    const std::string &path = settings.mom_password_file;
    words->clear();
    if (path.empty())
        return "";
    std::ifstream file(path);
    std::string password;
    if (!std::getline(file, password))
        return "VVLAN_MOM_PASSWORD_FILE=" + path + ": " +
               (file.eof() ? "holds no password" : std::strerror(errno));
    words->push_back("AUTH");
    if (!settings.mom_user.empty())
        words->push_back(settings.mom_user);
    words->push_back(password);
    return "";
}

bool find_is_master(const redisReply &role)
{
    return role.type == REDIS_REPLY_ARRAY && role.elements > 0 &&
           text_of(*role.element[0]) == "master";
}

bool find_is_demoted(const redisReply &error)
{
    const std::string_view text = text_of(error);
    return text.starts_with("READONLY ") || text.starts_with("NOREPLICAS ");
}

namespace
{

std::optional<TlsFiles> tls_of(const linux_env_settings &settings)
{
    const bool is_tls = settings.mom.way == linux_env_way::tls ||
                        (settings.mom.way == linux_env_way::sentinel && !settings.mom_ca.empty());
    if (!is_tls)
        return std::nullopt;
    return TlsFiles{settings.mom_ca, settings.mom_certificate, settings.mom_key};
}

} // namespace

} // namespace redis
