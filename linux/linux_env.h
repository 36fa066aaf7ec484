/*
 * linux_env - where the things are that the platform needs on this host.
 *
 * The daemon has neither command line nor configuration file; only what a host
 * decides (where the database listens, where sockets and files lie) comes from
 * the environment. One table names every variable with its default and its
 * meaning; manual pages are made from it, and the same table drives the reading.
 * A variable that is set to nothing counts as not set. A value that cannot work is refused with one
 * sentence that names the variable, the value and what would work: a daemon that guesses would
 * serve the wrong database.
 *
 * Not in the table is what no person sets: NOTIFY_SOCKET, WATCHDOG_USEC and
 * VVLAN_SUPERVISE_FILE (linux_restart) and JOURNAL_STREAM (linux_log) come from
 * whoever starts the process.
 */
#ifndef LINUX_LINUX_ENV_H
#define LINUX_LINUX_ENV_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct linux_env_settings;

struct linux_env_variable {
    const char *name;
    const char *by_default; /* "" for nothing */
    const char *meaning;    /* one or more sentences, for people */
    /* Fills settings from a value, "" for the default; returns "" or why it cannot work. */
    std::string (*take)(std::string_view value, linux_env_settings *settings);
};

/* The table, in the order in which people should read it. */
std::span<const linux_env_variable> linux_env_table();

enum class linux_env_way { unix_socket, tcp, tls, sentinel };

struct linux_env_address {
    std::string host; /* name or address, IPv6 without its brackets */
    uint16_t port = 0;
    bool operator==(const linux_env_address &) const = default;
};

/* VVLAN_MOM, taken apart. */
struct linux_env_mom {
    linux_env_way way = linux_env_way::unix_socket;
    std::string path;                         /* unix_socket */
    std::vector<linux_env_address> addresses; /* tcp, tls: one; sentinel: one to eight */
    std::string name;                         /* sentinel: what it calls the server */
};

constexpr uint32_t LINUX_ENV_CARD_MAX = 1023;

struct linux_env_settings {
    linux_env_mom mom;
    std::string mom_user;          /* "": the default user */
    std::string mom_password_file; /* "": no password */
    std::string mom_ca;            /* "": the host's certificates */
    std::string mom_certificate;   /* shown to the server; "": none */
    std::string mom_key;           /* of that certificate */
    uint32_t mom_card = 0;         /* which set of databases, up to LINUX_ENV_CARD_MAX */
    std::string shell;             /* path of the debug shell's socket */
    std::string ports;             /* "host", or the path of a file */
};

/*
 * Reads every variable through `get`, which returns NULL for one that is not
 * set. Returns "" and fills *settings, or the sentence that says what is wrong.
 */
std::string linux_env_parse(const std::function<const char *(const char *)> &get,
                            linux_env_settings *settings);

/*
 * The settings of this process, read from its environment at the first call.
 * NULL, after one line of log, when a value was refused.
 */
const linux_env_settings *linux_env();

/* For tests and tools: takes these settings in place of the environment's. */
void linux_env_use(const linux_env_settings &settings);

#endif
