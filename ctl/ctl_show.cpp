/* Tables and documents of what stands in the databases. */
#include "ctl/ctl_command.h"
#include "ctl/ctl_json.h"
#include "ctl/ctl_state.h"
#include "ctl/ctl_table.h"
#include "words/words.h"

namespace ctl
{

namespace
{

constexpr size_t ROWS_ON_SCREEN = 20; /* of OUIs and of MACs */
constexpr size_t ALL = SIZE_MAX;

void print_screen(const Context &context, const State &state);
void print_settings(const Context &context, const State &state);
void print_ports(std::ostream &out, const State &state);
void print_ouis(std::ostream &out, const State &state, size_t most);
void print_macs(std::ostream &out, const State &state, bool only_voice, size_t most);
void print_joins(std::ostream &out, const State &state);
void print_events(std::ostream &out, const State &state);
void print_nothing_or(std::ostream &out, const Table &table, const char *nothing);
/* How many of the rows were not shown, and what shows them. */
void print_rest(std::ostream &out, size_t count, size_t most, const char *part);
Json json_of(const Context &context, const State &state, const std::string &what);

std::string yes_no(bool value)
{
    return value ? "yes" : "no";
}

/* "45s", "2m05s", "23h59m" */
std::string seconds_text(uint32_t seconds)
{
    const uint32_t minutes = seconds / 60;
    char text[sizeof "71582788h59m"];
    if (minutes == 0)
        std::snprintf(text, sizeof text, "%us", seconds);
    else if (minutes < 60)
        std::snprintf(text, sizeof text, "%um%02us", minutes, seconds % 60);
    else
        std::snprintf(text, sizeof text, "%uh%02um", minutes / 60, minutes % 60);
    return text;
}

} // namespace

void show(const Context &context, const std::string &what)
{
    Databases databases(context.host);
    const State state = state_read(databases, context.host);
    std::ostream &out = context.host.out;
    if (context.json)
        out << json_text(json_of(context, state, what)) << '\n';
    else if (what.empty())
        print_screen(context, state);
    else if (what == "ports")
        print_ports(out, state);
    else if (what == "ouis")
        print_ouis(out, state, ALL);
    else if (what == "macs")
        print_macs(out, state, false, ALL);
    else if (what == "joins")
        print_joins(out, state);
    else
        print_events(out, state);
}

void report(const Context &context, const std::string &words)
{
    if (!context.json) {
        context.host.out << words << '\n';
        return;
    }
    Json json = json_document();
    json["done"] = words;
    context.host.out << json_text(json) << '\n';
}

void note(const Context &context, const std::string &words)
{
    if (!context.json)
        context.host.err << "vvlanctl: note: " << words << '\n';
}

namespace
{

void print_screen(const Context &context, const State &state)
{
    std::ostream &out = context.host.out;
    print_settings(context, state);
    out << "\nPorts (" << state.ports.size() << ")\n";
    print_ports(out, state);
    out << "\nOUIs (" << state.ouis.size() << " of " << OUI_MAX << ")\n";
    print_ouis(out, state, ROWS_ON_SCREEN);
    size_t voice = 0;
    for (const MacState &mac : state.macs)
        voice += mac.is_voice ? 1 : 0;
    out << "\nVoice MACs (" << voice << ")\n";
    print_macs(out, state, true, ROWS_ON_SCREEN);
    if (state.failure != nullptr) {
        out << "\nLatest failure\n";
        print_events(out, state);
    }
}

void print_settings(const Context &context, const State &state)
{
    const Settings &now = state.settings;
    const std::string vlan = now.vlan == 0 ? "none" : std::to_string(now.vlan);
    std::ostream &out = context.host.out;
    out << "Voice VLAN   " << vlan << (now.enable ? ", on" : ", off") << '\n'
        << "Security     " << (now.security ? "on" : "off") << '\n'
        << "Aging time   " << words::minutes(now.aging) << '\n'
        << "Marking      CoS " << now.cos << ", DSCP " << now.dscp << '\n'
        << "Database     " << context.host.server() << '\n'
        << "Daemon       " << (state.daemon_away.empty() ? "running" : state.daemon_away) << '\n';
}

void print_ports(std::ostream &out, const State &state)
{
    Table table({"PORT", "MODE", "STATE", "TRAP", "JOIN", "MACS", "QUIET", "LEFT", "PHYID"});
    for (const auto &[ifx, port] : state.ports) {
        const auto left = port_left(port);
        char phyid[sizeof "0xffffffff"] = "";
        if (port.daemon)
            std::snprintf(phyid, sizeof phyid, "0x%x", port.daemon->phyid);
        table.row({std::to_string(ifx),
                   !port.configured ? ""
                   : port.automatic ? "auto"
                                    : "manual",
                   port_word(port, state.settings), yes_no(port.trapped), yes_no(port.joined),
                   std::to_string(port.voice_macs), left ? seconds_text(port.daemon->quiet) : "",
                   left ? seconds_text(*left) : "", phyid});
    }
    print_nothing_or(out, table, "none configured: vvlanctl port auto 1-48");
}

void print_ouis(std::ostream &out, const State &state, size_t most)
{
    Table table({"OUI", "CONFIGURED", "IN FORCE", "ACE ID"});
    size_t shown = 0;
    for (const auto &[oui, row] : state.ouis) {
        if (shown++ < most)
            table.row({words::oui(oui), yes_no(row.configured), yes_no(row.ace_id.has_value()),
                       row.ace_id ? std::to_string(*row.ace_id) : ""});
    }
    print_nothing_or(out, table, "none configured: vvlanctl oui add 00:11:22/24");
    print_rest(out, shown, most, "ouis");
}

void print_macs(std::ostream &out, const State &state, bool only_voice, size_t most)
{
    Table table({"MAC", "PORT", "VLAN", "OUI", "VOICE"});
    size_t shown = 0;
    for (const MacState &mac : state.macs) {
        if (only_voice && !mac.is_voice)
            continue;
        if (shown++ < most)
            table.row({words::mac(mac.mac), std::to_string(mac.port), std::to_string(mac.vlan),
                       mac.oui ? words::oui(*mac.oui) : "", yes_no(mac.is_voice)});
    }
    print_nothing_or(out, table, only_voice ? "none" : "none learnt");
    print_rest(out, shown, most, "macs");
}

/* Both records of a join; they differ only for a moment, or where something is wrong. */
void print_joins(std::ostream &out, const State &state)
{
    Table table({"PORT", "JOINED", "RECORDED", "MACS"});
    for (const auto &[ifx, port] : state.ports) {
        if (port.joined || port.recorded)
            table.row({std::to_string(ifx), yes_no(port.joined), yes_no(port.recorded),
                       std::to_string(port.voice_macs)});
    }
    print_nothing_or(out, table, "no port has joined");
}

void print_events(std::ostream &out, const State &state)
{
    if (state.failure == nullptr)
        out << "  none reported\n";
    else
        out << "  "
            << words::failure(
                   *reinterpret_cast<const PBridge__VvlanErrEvent *>(state.failure.get()))
            << '\n';
}

void print_nothing_or(std::ostream &out, const Table &table, const char *nothing)
{
    if (table.is_empty())
        out << "  " << nothing << '\n';
    else
        table.print(out);
}

void print_rest(std::ostream &out, size_t count, size_t most, const char *part)
{
    if (count > most)
        out << "  and " << count - most << " more: vvlanctl show " << part << '\n';
}

template <typename Rows, typename Make> Json json_array(const Rows &rows, const Make &make)
{
    Json array = Json::array();
    for (const auto &row : rows)
        array.push_back(make(row));
    return array;
}

Json json_joins(const State &state)
{
    Json joins = Json::array();
    for (const auto &[ifx, port] : state.ports) {
        if (port.joined || port.recorded)
            joins.push_back({{"port", ifx}, {"joined", port.joined}, {"recorded", port.recorded}});
    }
    return joins;
}

Json json_of(const Context &context, const State &state, const std::string &what)
{
    Json json = json_document();
    if (what.empty()) {
        json["server"] = context.host.server();
        json["daemon"] = state.daemon_away.empty();
        json["settings"] = json_settings(state.settings);
    }
    const auto wants = [&](const char *part) { return what.empty() || what == part; };
    if (wants("ports"))
        json["ports"] = json_array(state.ports, [&](const auto &row) {
            return json_port(row.first, row.second, state.settings);
        });
    if (wants("ouis"))
        json["ouis"] =
            json_array(state.ouis, [](const auto &row) { return json_oui(row.first, row.second); });
    if (wants("macs"))
        json["macs"] = json_array(state.macs, json_mac);
    if (wants("joins"))
        json["joins"] = json_joins(state);
    if (wants("events"))
        json["events"] = json_events(state);
    return json;
}

} // namespace

} // namespace ctl
