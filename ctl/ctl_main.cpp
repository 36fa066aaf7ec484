/* The command line: what can be said, and what is run for it. */
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <new>

#include "ctl/ctl.h"
#include "ctl/ctl_command.h"
#include "ctl/ctl_watch.h"

namespace ctl
{

namespace
{

using Action = std::function<void(const Context &)>;

/* What the command line said; options write into it while it is read. */
struct Said {
    bool json = false;
    std::string mom;
    std::string shell_path;
    Action action;

    Strings words;
    std::string word;
    std::string vlan;
    NoticeOptions notice;
    ObjectOptions object;
    WatchOptions watch;
};

constexpr const char *SUMMARY =
    "Configures and shows the Voice VLAN of a switch, and plays the bridge.";

constexpr ExitMeaning EXITS[] = {
    {DONE, "done"},
    {REFUSED, "refused"},
    {USAGE, "usage"},
    {NO_REACH, "the database or the daemon cannot be reached"},
};

constexpr const char *EXAMPLES = "Examples:\n"
                                 "  vvlanctl set vlan 100 switch on aging 30\n"
                                 "  vvlanctl oui add 00:11:22/24\n"
                                 "  vvlanctl port auto 1-48,50\n"
                                 "  vvlanctl show\n"
                                 "  vvlanctl watch\n"
                                 "  vvlanctl --mom tcp:10.0.0.1:6379 show ports -j\n";

void add_everything(CLI::App &app, Said &said);
void add_settings(CLI::App &app, Said &said);
void add_ouis(CLI::App &app, Said &said);
void add_ports(CLI::App &app, Said &said);
void add_show(CLI::App &app, Said &said);
void add_watch(CLI::App &app, Said &said);
void add_bridge(CLI::App &app, Said &said);
void add_objects(CLI::App &app, Said &said);
void add_shell(CLI::App &app, Said &said);
int run(const Action &action, const Context &context);
int fail(std::ostream &err, Exit status, std::string text);

} // namespace

int ctl_main(int count, const char *const *arguments, Host &host)
{
    Said said;
    CLI::App app(SUMMARY, "vvlanctl");
    add_everything(app, said);
    try {
        app.parse(count, arguments);
    } catch (const CLI::Success &success) { /* --help, --version */
        return app.exit(success, host.out, host.err);
    } catch (const CLI::ParseError &error) {
        const Strings unread = app.remaining();
        const bool is_unknown = app.get_subcommands().empty() && !unread.empty();
        return fail(host.err, USAGE,
                    (is_unknown ? "\"" + unread.front() + "\" is no command" : error.what()) +
                        "; vvlanctl --help tells more");
    }
    if (!said.mom.empty())
        ::setenv(MOM_VARIABLE, said.mom.c_str(), 1);
    if (!said.shell_path.empty())
        ::setenv(SHELL_VARIABLE, said.shell_path.c_str(), 1);
    return run(said.action, {host, said.json});
}

std::span<const ExitMeaning> ctl_exits()
{
    return EXITS;
}

void ctl_visit(const std::function<void(const CLI::App &app)> &visit)
{
    Said said;
    CLI::App app(SUMMARY, "vvlanctl");
    add_everything(app, said);
    visit(app);
}

namespace
{

std::string footer()
{
    std::string text = "Exit status:";
    const char *between = " ";
    for (const ExitMeaning &exit : EXITS) {
        text += between + std::to_string(exit.status) + " " + exit.meaning;
        between = ", ";
    }
    return text + ".\n\n" + EXAMPLES;
}

void add_everything(CLI::App &app, Said &said)
{
    app.fallthrough();
    app.require_subcommand(1);
    app.footer(footer());
    app.set_version_flag("--version", "vvlanctl " VVLAN_VERSION);
    app.add_flag("-j,--json", said.json, "Print JSON for programs");
    app.add_option("--mom", said.mom,
                   "The database: unix:PATH, tcp:HOST:PORT, tls:HOST:PORT or "
                   "sentinel:HOST:PORT[,...]/NAME; else $VVLAN_MOM")
        ->type_name("SERVER");
    app.add_option("--shell", said.shell_path, "The debug shell's socket; else $VVLAN_SHELL")
        ->type_name("PATH");
    for (const auto add : {add_settings, add_ouis, add_ports, add_show, add_watch, add_bridge,
                           add_objects, add_shell})
        add(app, said);
}

int run(const Action &action, const Context &context)
{
    std::ostream &err = context.host.err;
    try {
        action(context);
    } catch (const Failure &failure) {
        context.host.out.flush();
        return failure.text.empty() ? failure.status : fail(err, failure.status, failure.text);
    } catch (const std::bad_alloc &) {
        return fail(err, REFUSED, "out of memory");
    } catch (const std::exception &error) {
        return fail(err, REFUSED, error.what());
    }
    context.host.out.flush();
    return context.host.out ? DONE : fail(err, REFUSED, "the output cannot be written");
}

int fail(std::ostream &err, Exit status, std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    err << "vvlanctl: " << text << '\n';
    return status;
}

/* A command with its help; running it is `action`. */
CLI::App *add_command(CLI::App &parent, Said &said, const char *name, const char *help,
                      const char *examples, Action action)
{
    CLI::App *command = parent.add_subcommand(name, help);
    command->footer(std::string("Examples:\n") + examples);
    command->callback([&said, action = std::move(action)] { said.action = action; });
    return command;
}

CLI::App *add_group(CLI::App &parent, const char *name, const char *help, const char *examples)
{
    CLI::App *group = parent.add_subcommand(name, help);
    group->require_subcommand(1);
    group->footer(std::string("Examples:\n") + examples);
    return group;
}

void add_settings(CLI::App &app, Said &said)
{
    CLI::App *set = add_command(
        app, said, "set",
        "Sets global settings: vlan 1-4094, switch on|off, security on|off, aging 1-65535 "
        "(minutes), cos 0-7, dscp 0-63. All that are given change at once.",
        "  vvlanctl set vlan 100 switch on\n  vvlanctl set cos 5 dscp 40 security on\n",
        [&said](const Context &context) { config_set(context, said.words); });
    set->add_option("settings", said.words, "Pairs of a setting and its value")
        ->required()
        ->type_name("SETTING VALUE");
}

void add_ouis(CLI::App &app, Said &said)
{
    CLI::App *oui = add_group(app, "oui", "OUIs: the addresses of voice devices",
                              "  vvlanctl oui add 00:11:22/24 00:aa:bb:cc:00:00/32\n"
                              "  vvlanctl oui add 00:11:22:00:00:00/ff:ff:ff:00:00:00\n"
                              "  vvlanctl oui del 00:11:22/24\n  vvlanctl oui list\n");
    CLI::App *add = add_command(*oui, said, "add", "Configures OUIs, 127 at most",
                                "  vvlanctl oui add 00:11:22/24 00:33:44/24\n",
                                [&said](const Context &c) { config_oui_add(c, said.words); });
    CLI::App *del =
        add_command(*oui, said, "del", "Takes OUIs away", "  vvlanctl oui del 00:11:22/24\n",
                    [&said](const Context &c) { config_oui_del(c, said.words); });
    for (CLI::App *command : {add, del})
        command->add_option("ouis", said.words, "ADDRESS/LENGTH or ADDRESS/MASK")
            ->required()
            ->type_name("OUI");
    add_command(*oui, said, "list", "Lists the OUIs", "  vvlanctl oui list -j\n",
                [](const Context &context) { show(context, "ouis"); });
}

void add_ports(CLI::App &app, Said &said)
{
    struct Mode {
        const char *name;
        const char *help;
        PortMode mode;
    };
    constexpr Mode MODES[] = {
        {"auto", "Traps the ports until a voice device is seen, then joins them",
         PortMode::automatic},
        {"manual", "Puts the ports into the voice VLAN for good", PortMode::manual},
        {"off", "Keeps the configuration and switches the voice VLAN off on the ports",
         PortMode::off},
        {"del", "Deletes the configuration of the ports", PortMode::del},
    };
    CLI::App *port = add_group(app, "port", "Ports, by interface index: 1-48,50",
                               "  vvlanctl port auto 1-48,50\n  vvlanctl port off 7\n");
    for (const Mode &mode : MODES) {
        const std::string example = std::string("  vvlanctl port ") + mode.name + " 1-48,50\n";
        add_command(*port, said, mode.name, mode.help, example.c_str(),
                    [&said, mode](const Context &c) { config_port(c, mode.mode, said.word); })
            ->add_option("ports", said.word, "Ports and ranges")
            ->required()
            ->type_name("PORTS");
    }
}

void add_show(CLI::App &app, Said &said)
{
    add_command(app, said, "show",
                "Shows settings, ports, OUIs and voice MACs on one screen, or one part of it",
                "  vvlanctl show\n  vvlanctl show ports\n  vvlanctl show macs -j\n",
                [&said](const Context &context) { show(context, said.word); })
        ->add_option("part", said.word, "ports, ouis, macs, joins or events")
        ->type_name("PART")
        ->check(CLI::IsMember({"ports", "ouis", "macs", "joins", "events"}));
}

void add_watch_options(CLI::App &command, Said &said)
{
    command.add_flag("--since-start", said.watch.since_start,
                     "Begin with what stands now, and count time in seconds from there");
    command.add_option("--count", said.watch.count, "End after so many changes")->type_name("N");
    command.add_option("--for", said.watch.seconds, "End after so many seconds")->type_name("S");
    command
        .add_option("--queue", said.watch.queue,
                    "Lines that may wait for a slow output, in 16 MiB at most, before changes "
                    "are skipped (65536)")
        ->type_name("N");
}

void add_watch(CLI::App &app, Said &said)
{
    CLI::App *command = add_command(
        app, said, "watch",
        "Tells every change in all four databases, and every failure, as it happens",
        "  vvlanctl watch\n  vvlanctl watch --since-start\n  vvlanctl watch -j --for 60\n",
        [&said](const Context &context) { watch(context, said.watch); });
    add_watch_options(*command, said);
}

void add_bridge(CLI::App &app, Said &said)
{
    CLI::App *notice =
        add_command(app, said, "notice", "Plays the bridge: a voice device is seen on ports",
                    "  vvlanctl notice 3\n  vvlanctl notice --phyid 0x103\n",
                    [&said](const Context &context) { bridge_notice(context, said.notice); });
    notice->add_option("ports", said.notice.ports, "Ports and ranges")->type_name("PORTS");
    notice->add_option("--phyid", said.notice.phyid, "The physical port id instead of a port")
        ->type_name("ID");

    CLI::App *mac = add_group(app, "mac", "Plays the bridge: addresses come and go",
                              "  vvlanctl mac learn 3 00:11:22:33:44:55\n"
                              "  vvlanctl mac gone 3 00:11:22:33:44:55\n");
    CLI::App *learn = add_command(
        *mac, said, "learn", "Addresses are learnt on a port",
        "  vvlanctl mac learn 3 00:11:22:33:44:55\n"
        "  vvlanctl mac learn 3 00:11:22:33:44:55 --vlan 200\n",
        [&said](const Context &c) { bridge_learn(c, said.word, said.words, said.vlan); });
    learn->add_option("port", said.word, "The port")->required()->type_name("PORT");
    learn->add_option("macs", said.words, "Addresses")->required()->type_name("MAC");
    CLI::App *gone = add_command(
        *mac, said, "gone", "Addresses are no longer learnt",
        "  vvlanctl mac gone 00:11:22:33:44:55\n  vvlanctl mac gone 3 00:11:22:33:44:55\n",
        [&said](const Context &context) { bridge_gone(context, said.words, said.vlan); });
    gone->add_option("macs", said.words, "The port, if it is to be checked, and addresses")
        ->required()
        ->type_name("[PORT] MAC");
    for (CLI::App *command : {learn, gone})
        command->add_option("--vlan", said.vlan, "Another VLAN than the voice VLAN")
            ->type_name("VLAN");
}

CLI::App *add_object(CLI::App &group, Said &said, const char *name, const char *help,
                     const char *example, void (*run_it)(const Context &, const ObjectOptions &))
{
    CLI::App *command =
        add_command(group, said, name, help, example,
                    [&said, run_it](const Context &context) { run_it(context, said.object); });
    command->add_option("kind", said.object.kind, "Full name, such as p_bridge.vvlan_port_cfg")
        ->required()
        ->type_name("KIND");
    command->add_option("fields", said.object.fields, "field=value, the key under index.")
        ->type_name("FIELD=VALUE");
    command->add_option("--db", said.object.db, "Another database than the kind's own")
        ->type_name("DB");
    return command;
}

void add_objects(CLI::App &app, Said &said)
{
    CLI::App *group = add_group(app, "object", "Any object by name, in its text form",
                                "  vvlanctl object get p_bridge.vvlan_port_cfg index.ifx=3\n"
                                "  vvlanctl object hset p_bridge.vvlan_glb_cfg age_time=30\n"
                                "  vvlanctl object scan u_bridge.vvlan_join\n");
    add_object(*group, said, "get", "Prints an object",
               "  vvlanctl object get p_bridge.vvlan_glb_cfg\n", object_get);
    add_object(*group, said, "set",
               "Writes a whole object; refused for the kinds that the daemon takes only by field "
               "(object kinds tells)",
               "  vvlanctl object set p_bridge.vvlan_port_cfg index.ifx=3 enable=1 mode=1\n",
               object_set)
        ->add_option("--expire", said.object.expire, "Seconds until it goes by itself")
        ->type_name("S");
    add_object(*group, said, "hset",
               "Sets the given fields, the others keep their values; refused for the kinds that "
               "the daemon takes only as a whole (object kinds tells)",
               "  vvlanctl object hset p_bridge.vvlan_glb_cfg qos.cos=5 qos.dscp=40\n",
               object_hset);
    add_object(*group, said, "del", "Deletes an object",
               "  vvlanctl object del p_bridge.vvlan_port_cfg index.ifx=3\n", object_del);
    add_object(*group, said, "publish",
               "Tells the subscribers and stores nothing; refused for the kinds that the daemon "
               "takes only when they are stored (object kinds tells)",
               "  vvlanctl object publish s_bridge.vvlan_port_noty index.phyid=259\n",
               object_publish);
    CLI::App *scan = add_object(
        *group, said, "scan", "Prints every object that the key fields select",
        "  vvlanctl object scan u_bridge.mac_vid_reg_noti index.t_fid=100\n", object_scan);
    CLI::App *watch_it = add_object(*group, said, "watch", "Tells changes in text form",
                                    "  vvlanctl object watch u_bridge.vvlan_join\n", nullptr);
    watch_it->callback([&said] {
        said.action = [&said](const Context &context) {
            watch_objects(context, said.watch, said.object);
        };
    });
    for (CLI::App *command : {scan, watch_it})
        command->add_flag("--exact", said.object.exact, "The whole key must be equal");
    add_watch_options(*watch_it, said);
    add_command(*group, said, "kinds",
                "Lists the kinds of objects, with the changes that the daemon takes",
                "  vvlanctl object kinds\n", object_kinds);
}

void add_shell(CLI::App &app, Said &said)
{
    add_command(app, said, "shell",
                "The daemon's debug shell: one command, or without one a conversation",
                "  vvlanctl shell\n  vvlanctl shell dump_all_port\n"
                "  vvlanctl shell set-zlog-level 5\n",
                [&said](const Context &context) { shell(context, said.words); })
        ->add_option("command", said.words, "The command and its arguments")
        ->type_name("WORD");
}

} // namespace

} // namespace ctl
