/*
 * ctl_command - what the words of a command line do.
 *
 * One function per command, taking what the person typed. Each throws Failure;
 * each prints what it did, as a line for people or, with `json`, as one JSON
 * document (docs/vvlanctl-json.md).
 */
#ifndef CTL_CTL_COMMAND_H
#define CTL_CTL_COMMAND_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ctl/ctl.h"

namespace ctl
{

struct Context {
    Host &host;
    bool json;
};

using Strings = std::vector<std::string>;

/* Configuration. words: pairs such as "vlan" "100". */
void config_set(const Context &context, const Strings &words);
void config_oui_add(const Context &context, const Strings &ouis);
void config_oui_del(const Context &context, const Strings &ouis);

enum class PortMode { automatic, manual, off, del };
void config_port(const Context &context, PortMode mode, const std::string &ports);

/* The bridge. */
struct NoticeOptions {
    std::string ports;
    std::string phyid; /* instead of the ports, or empty */
};
void bridge_notice(const Context &context, const NoticeOptions &options);

/* vlan: empty for the voice VLAN. */
void bridge_learn(const Context &context, const std::string &port, const Strings &macs,
                  const std::string &vlan);
/* words: an optional port, then addresses. */
void bridge_gone(const Context &context, const Strings &words, const std::string &vlan);

/* Showing; what: "", "ports", "ouis", "macs", "joins" or "events". */
void show(const Context &context, const std::string &what);

/* Objects in their text form. */
struct ObjectOptions {
    std::string kind;
    Strings fields;     /* pairs, joined by blanks */
    std::string db;     /* empty: where the kind lives */
    std::string expire; /* seconds, for set */
    bool exact = false; /* for scan and watch */
};
void object_get(const Context &context, const ObjectOptions &options);
void object_set(const Context &context, const ObjectOptions &options);
void object_hset(const Context &context, const ObjectOptions &options);
void object_del(const Context &context, const ObjectOptions &options);
void object_publish(const Context &context, const ObjectOptions &options);
void object_scan(const Context &context, const ObjectOptions &options);
void object_kinds(const Context &context);

/* The debug shell: one command, or a conversation when there are no words. */
void shell(const Context &context, const Strings &words);

/* "Done" for a person or a program. */
void report(const Context &context, const std::string &words);

/* What a person should know beside that; on the error output, and not with `json`. */
void note(const Context &context, const std::string &words);

} // namespace ctl

#endif
