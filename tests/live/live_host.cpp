#include "tests/live/live_host.h"

#include "ctl/ctl_db.h"
#include "ctl/ctl_shell.h"
#include "linux/linux_env.h"
#include "linux/linux_loop.h"
#include "linux/linux_mom.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"
#include "tests/contract_objects.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using contract::make;

constexpr int SHELL_PATIENCE = 5'000;      /* milliseconds */
constexpr int64_t LEASE_AND_MORE = 20'000; /* milliseconds */
constexpr int64_t GLANCE = 2'000;          /* microseconds between two looks */
constexpr size_t DIFFERENCES_SHOWN = 12;

const char *const GLOBAL = "p_bridge.vvlan_glb_cfg";
const char *const PORT = "p_bridge.vvlan_port_cfg";
const char *const OUI = "p_bridge.vvlan_oui_cfg";
const char *const MEMBERSHIP = "p_bridge.vvlan_port_auto";
const char *const ERROR_EVENT = "p_bridge.vvlan_err_event";
const char *const MAC = "u_bridge.mac_vid_reg_noti";
const char *const REGISTRATION = "u_bridge.mac_vid_reg";
const char *const MIRROR = "u_bridge.vvlan_oui_cfg";
const char *const TRAP = "u_bridge.vvlan_port_cfg";
const char *const JOIN = "u_bridge.vvlan_join";
const char *const PACKET_LIBRARY = "s_cluster.reg_pkt_info";

std::string line(const char *kind, const std::string &text)
{
    return std::string(kind) + " " + text;
}

std::string ifx_text(uint32_t ifx)
{
    return "index.ifx=" + std::to_string(ifx);
}

std::string number(uint32_t value)
{
    return std::to_string(value);
}

/* As the daemon prints it; the first six bytes. */
std::string mac_text(const PLibpub__Mac &mac)
{
    char text[16];
    const uint8_t *b = mac.data.data;
    std::snprintf(text, sizeof text, "%02X%02X.%02X%02X.%02X%02X", b[0], b[1], b[2], b[3], b[4],
                  b[5]);
    return text;
}

const ProtobufCMessage &object_of(const kt_mom_msg &msg)
{
    return msg.operation == KT_MOM_HSET ? *static_cast<const kt_mom_hash *>(msg.object)->object
                                        : *static_cast<const ProtobufCMessage *>(msg.object);
}

/* A line for each object; which of them holds which id is not the mirrors' point. */
int take_line(kt_global *, const kt_mom_msg *msg, void *lines)
{
    auto &into = *static_cast<LiveHost::Lines *>(lines);
    const ProtobufCMessage &object = object_of(*msg);
    std::string text = object::to_text(object);
    if (object.descriptor == &u_bridge__vvlan_oui_cfg__descriptor) {
        const size_t blank = text.find(' ');
        into.insert(line("mirror id", text.substr(0, blank)));
        text.erase(0, blank + 1);
    }
    into.insert(line(object::kind_name(*object::kind_of(object)), text));
    return 0;
}

int take_change(kt_global *, const kt_mom_msg *msg, void *changes)
{
    const ProtobufCMessage &object = object_of(*msg);
    static_cast<std::vector<std::string> *>(changes)->push_back(
        std::string(msg->operation == KT_MOM_DEL ? "del " : "set ") +
        line(object::kind_name(*object::kind_of(object)), object::to_text(object)));
    return 0;
}

bool matches(const PBridge__BOui &oui, const PLibpub__Mac &mac)
{
    for (size_t i = 0; i < mac.data.len; i++) {
        if ((mac.data.data[i] & oui.mask->data.data[i]) != oui.mac->data.data[i])
            return false;
    }
    return true;
}

std::string options_of(const std::string &sanitizer)
{
    const char *given = std::getenv("ASAN_OPTIONS");
    return (given == nullptr ? "" : std::string(given) + ":") + sanitizer;
}

std::string difference(const LiveHost::Lines &is, const LiveHost::Lines &ought)
{
    std::vector<std::string> beyond, missing;
    std::ranges::set_difference(is, ought, std::back_inserter(beyond));
    std::ranges::set_difference(ought, is, std::back_inserter(missing));
    std::string text;
    for (size_t i = 0; i < std::min(missing.size(), DIFFERENCES_SHOWN); i++)
        text += "missing: " + missing[i] + "\n";
    for (size_t i = 0; i < std::min(beyond.size(), DIFFERENCES_SHOWN); i++)
        text += "too much: " + beyond[i] + "\n";
    return text;
}

template <typename Object, typename Written>
std::vector<const Object *> all_of(const Written &written, const char *kind)
{
    std::vector<const Object *> all;
    for (const auto &[at, object] : written) {
        if (at.first == kind)
            all.push_back(reinterpret_cast<const Object *>(object.get()));
    }
    return all;
}

/* The voice VLAN, 0 while it is off. */
uint32_t imply_settings(LiveHost::Lines &lines, const PBridge__VvlanGlbCfg &glb)
{
    const bool is_on = glb.glb_switch != nullptr && glb.glb_switch->enable != 0;
    const uint32_t vlan = is_on ? glb.glb_switch->vlan : 0;
    const uint32_t aging = glb.age_time != 0 ? glb.age_time : 1440;
    lines.insert(std::string("Voice VLAN status=") + (is_on ? "ENABLE" : "DISABLE"));
    lines.insert("Voice VLAN ID=" + number(vlan));
    lines.insert(std::string("Voice VLAN security mode=") +
                 (glb.secu_mode != 0 ? "Security" : "Normal"));
    lines.insert("Voice VLAN aging time=" + number(aging) + " minutes");
    lines.insert("Voice VLAN cos=" + number(glb.qos == nullptr ? 6 : glb.qos->cos));
    lines.insert("Voice VLAN dscp=" + number(glb.qos == nullptr ? 46 : glb.qos->dscp));
    if (is_on)
        lines.insert(line(REGISTRATION, "index.vid=" + number(vlan)));
    return vlan;
}

/* Returns the ports whose MACs count. */
std::set<uint32_t> imply_ports(LiveHost::Lines &lines,
                               const std::vector<const PBridge__VvlanPortCfg *> &ports,
                               const LiveHost::Lines &stood, bool is_on)
{
    std::set<uint32_t> automatic;
    for (const PBridge__VvlanPortCfg *port : ports) {
        const std::string ifx = ifx_text(port->index->ifx);
        if (port->enable == 0 || port->mode == 0)
            continue;
        automatic.insert(port->index->ifx);
        for (const std::string &record : {line(JOIN, ifx), line(MEMBERSHIP, ifx + " enable=1")}) {
            if (stood.contains(record))
                lines.insert(record);
        }
        if (is_on && !stood.contains(line(JOIN, ifx)))
            lines.insert(line(TRAP, ifx));
    }
    return automatic;
}

void imply_ouis(LiveHost::Lines &lines, const std::vector<const PBridge__VvlanOuiCfg *> &ouis)
{
    size_t id = 0;
    for (const PBridge__VvlanOuiCfg *oui : ouis) {
        UBridge__BOui same = U_BRIDGE__B_OUI__INIT;
        same.mac = oui->index->mac;
        same.mask = oui->index->mask;
        UBridge__VvlanOuiCfg mirror = U_BRIDGE__VVLAN_OUI_CFG__INIT;
        mirror.oui = &same;
        lines.insert(line(MIRROR, object::to_text(mirror.base)));
        lines.insert(line("mirror id", "index.ace_id=" + std::to_string(++id)));
        lines.insert("knows OUI " + mac_text(*same.mac) + " " + mac_text(*same.mask));
    }
}

} // namespace

bool is_of_port(const std::string &line_of, uint32_t ifx)
{
    return (line_of + " ").find(" " + ifx_text(ifx) + " ") != std::string::npos;
}

LiveHost::LiveHost(bool keeps_data, const std::string &sanitizer)
    : server(keeps_data), daemon(VVLAN_PROGRAM_DIR "/ox.vvlan.dp", server.directory(),
                                 {{"VVLAN_MOM", "unix:" + server.link()},
                                  {"VVLAN_SHELL", server.directory() + "/shell.sock"},
                                  {"VVLAN_PORTS", server.directory() + "/ports"},
                                  {"NOTIFY_SOCKET", server.directory() + "/notify.sock"},
                                  {"ASAN_OPTIONS", options_of(sanitizer)}})
{
    std::ofstream ports(server.directory() + "/ports");
    for (uint32_t ifx = 1; ifx <= PORTS; ifx++)
        ports << ifx << ' ' << 0x100 + ifx << " ge" << ifx << '\n';
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (server.directory() + "/notify.sock").copy(address.sun_path, sizeof address.sun_path - 1);
    notify_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(notify_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    open_peer();
}

LiveHost::~LiveHost()
{
    if (daemon.pid() > 0) { /* in order, so that what it leaks is told */
        daemon.signal(SIGCONT);
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.wait(static_cast<int>(PATIENCE / 1000)), 0);
    }
    linux_loop_reset();
    linux_mom_clock_ahead(0);
    close(notify_);
    const std::string log = daemon.log();
    for (const char *report : {"Sanitizer", "runtime error"})
        EXPECT_EQ(log.find(report), std::string::npos);
    if (testing::Test::HasFailure())
        std::printf("-- daemon.log\n%s\n",
                    log.substr(log.size() - std::min<size_t>(log.size(), 8'000)).c_str());
}

void LiveHost::open_peer()
{
    linux_env_settings settings;
    settings.mom.path = server.link();
    linux_env_use(settings);
    peer = kt_global_init("peer", nullptr);
    for (const uint32_t db : ctl::DATABASES) {
        EXPECT_EQ(kt_mom_client_connect_sync(peer, db), 0);
        EXPECT_EQ(kt_mom_client_connect(peer, db, nullptr, nullptr), 0);
    }
    settle();
    for (const uint32_t db : {4U, 8U})
        EXPECT_EQ(kt_mom_watch(peer, db, take_change, &changes), 0);
    settle();
}

/* --- The daemon */

void LiveHost::start()
{
    is_ready(); /* what an earlier one has told is not for this one */
    is_ready_ = false;
    daemon.start();
}

bool LiveHost::is_ready()
{
    char text[256];
    for (ssize_t got; (got = recv(notify_, text, sizeof text, 0)) > 0;)
        is_ready_ |= std::string_view(text, static_cast<size_t>(got)).starts_with("READY=1");
    return is_ready_;
}

void LiveHost::kill()
{
    const pid_t pid = daemon.pid();
    daemon.signal(SIGKILL);
    EXPECT_EQ(daemon.wait(static_cast<int>(PATIENCE / 1000)), 128 + SIGKILL);
    forget_clients_of(pid);
}

void LiveHost::expect_end(int status)
{
    const pid_t pid = daemon.pid();
    EXPECT_EQ(daemon.wait(static_cast<int>(PATIENCE / 1000)), status);
    forget_clients_of(pid);
}

void LiveHost::forget_clients_of(pid_t pid)
{
    const std::string name = "name=vvlan:" + std::to_string(pid) + ":";
    EXPECT_TRUE(until([&] { return server.clients(name).empty(); }));
    const Lines all = stored();
    std::ranges::copy_if(all, std::inserter(outliving_, outliving_.end()),
                         [](const auto &each) { return each.starts_with(line(REGISTRATION, "")); });
}

std::vector<std::string> LiveHost::shell(const std::string &command) const
{
    std::vector<std::string> lines;
    try {
        std::istringstream output(
            ctl::shell_ask(server.directory() + "/shell.sock", command, SHELL_PATIENCE).output);
        for (std::string each; std::getline(output, each);)
            lines.push_back(each);
    } catch (const ctl::Failure &) {
        lines.clear(); /* not listening yet */
    }
    return lines;
}

/* --- What other programs write */

void LiveHost::write(int (*how)(kt_global *, uint32_t, const ProtobufCMessage *, uint32_t,
                                uint64_t),
                     const ProtobufCMessage &object) const
{
    const uint32_t db = ctl::db_of_kind(object::kind_name(*object::kind_of(object)));
    EXPECT_EQ(how(peer, db, &object, 0, 0), 0);
}

void LiveHost::set(const char *kind, const std::string &text)
{
    object::Message object = make(kind, text).message;
    write(kt_mom_set, *object);
    const std::string key = object::key(*object);
    written_.insert_or_assign({kind, key}, std::move(object));
}

void LiveHost::del(const char *kind, const std::string &text)
{
    const object::Message object = make(kind, text).message;
    write(kt_mom_del, *object);
    written_.erase({kind, object::key(*object)});
}

void LiveHost::hset(const std::string &text)
{
    const contract::Made part = make(GLOBAL, text);
    EXPECT_EQ(
        kt_mom_hset(peer, 4, part, part.fields.data(), static_cast<uint32_t>(part.fields.size())),
        0);
    object::Message &whole = written_[{GLOBAL, ""}];
    if (whole == nullptr)
        whole = object::empty(*object::kind_by_name(GLOBAL));
    object::merge(*whole, *part, part.fields);
}

void LiveHost::notice(uint32_t ifx) const
{
    const contract::Made seen =
        make("s_bridge.vvlan_port_noty", "index.phyid=" + number(0x100 + ifx));
    EXPECT_EQ(kt_mom_publish(peer, 0, seen), 0);
}

void LiveHost::adopt()
{
    const auto take = [](kt_global *, const kt_mom_msg *msg, void *self) {
        const ProtobufCMessage &object = object_of(*msg);
        const std::pair at(std::string(object.descriptor->name), object::key(object));
        static_cast<LiveHost *>(self)->written_[at] = object::copy(object);
        return 0;
    };
    written_.clear();
    for (const char *kind : {GLOBAL, PORT, OUI, MAC})
        EXPECT_EQ(kt_mom_scan_sync(peer, ctl::db_of_kind(kind), make(kind), 0, take, this), 0);
}

void LiveHost::forget()
{
    written_.clear();
    stood_.clear();
    outliving_.clear();
}

const ProtobufCMessage *LiveHost::written(const char *kind, const std::string &text) const
{
    const auto at = written_.find({kind, object::key(*make(kind, text))});
    return at == written_.end() ? nullptr : at->second.get();
}

/* --- What is there, and what ought to be */

void LiveHost::look()
{
    stood_.clear();
    for (const std::string &each : stored()) {
        if (each.starts_with(line(JOIN, "")) || each.starts_with(line(MEMBERSHIP, "")))
            stood_.insert(each);
    }
}

bool LiveHost::is_joined(uint32_t ifx) const
{
    return stood_.contains(line(JOIN, ifx_text(ifx))) &&
           stood_.contains(line(MEMBERSHIP, ifx_text(ifx) + " enable=1"));
}

LiveHost::Lines LiveHost::stored()
{
    Lines lines;
    for (const char *kind : {GLOBAL, PORT, OUI, MEMBERSHIP, ERROR_EVENT, MAC, REGISTRATION, MIRROR,
                             TRAP, JOIN, PACKET_LIBRARY})
        kt_mom_scan_sync(peer, ctl::db_of_kind(kind), make(kind), 0, take_line, &lines);
    for (const uint32_t db : ctl::DATABASES) {
        server.command({"SELECT", number(db)});
        std::istringstream marks(server.command({"KEYS", "vvlan:pending:*"}));
        for (std::string each; std::getline(marks, each);) {
            if (!each.ends_with(REGISTRATION)) /* of a daemon that is gone; its lease has them */
                lines.insert("marked for deletion: " + each);
        }
    }
    return lines;
}

LiveHost::Lines LiveHost::known() const
{
    Lines lines;
    for (const std::string &each : shell("dump_glbal_configure")) {
        const size_t colon = each.find(" : "), name = each.find_first_not_of(' ');
        if (colon != std::string::npos)
            lines.insert(each.substr(name, each.find_last_not_of(' ', colon) + 1 - name) + "=" +
                         each.substr(colon + 3));
    }
    char first[16], second[16];
    for (const std::string &each : shell("dump_all_oui")) {
        if (std::sscanf(each.c_str(), " <%*d> mac:%15s mask:%15s", first, second) == 2)
            lines.insert(std::string("knows OUI ") + first + " " + second);
    }
    uint32_t ifx = 0;
    for (const std::string &each : shell("dump_all_mac")) {
        if (std::sscanf(each.c_str(), " <%*d> mac: %15s vid:%*d ifx:%u", first, &ifx) == 2)
            lines.insert(std::string("knows MAC ") + first + " on " + number(ifx));
    }
    return lines;
}

/*
 * What a daemon that has begun with these objects, and with the join records that
 * stood then, has written and knows:
 *
 * - a trap for every automatic port that is on and was not joined. The others, if
 *   their voice VLAN is on, are as they were: joined, without a trap;
 * - the records of a joined port as they stood, also while the voice VLAN is off.
 *   They are written to two databases, one after the other: a daemon that was killed
 *   in between has left one of them, which stays alone until the next notice;
 * - no record of a port that is manual, off or not configured any more;
 * - a mirror of every OUI, numbered from 1, and the registration for the VLAN;
 * - the voice MACs of automatic ports.
 *
 * What a daemon had in memory only begins anew with it: how long a port has been
 * quiet, and notices that came while none ran (a phone that is still trapped will
 * be seen again).
 */
LiveHost::Lines LiveHost::implied() const
{
    Lines lines = {line(PACKET_LIBRARY, "index.name=pkt_vvlan dlib_name=libpkt.vvlan.sw.so")};
    for (const auto &[at, object] : written_)
        lines.insert(line(at.first.c_str(), object::to_text(*object)));
    const auto glb = all_of<PBridge__VvlanGlbCfg>(written_, GLOBAL);
    const PBridge__VvlanGlbCfg none = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    const uint32_t vlan = imply_settings(lines, glb.empty() ? none : *glb.front());
    const auto automatic =
        imply_ports(lines, all_of<PBridge__VvlanPortCfg>(written_, PORT), stood_, vlan != 0);
    const auto ouis = all_of<PBridge__VvlanOuiCfg>(written_, OUI);
    imply_ouis(lines, ouis);
    for (const auto *seen : all_of<UBridge__MacVidRegNoti>(written_, MAC)) {
        const PLibpub__Mac &mac = *seen->index->t_mac;
        const auto is_of = [&](const auto *oui) { return matches(*oui->index, mac); };
        if (vlan != 0 && seen->index->t_fid == vlan && automatic.contains(seen->port_id) &&
            std::ranges::any_of(ouis, is_of))
            lines.insert("knows MAC " + mac_text(mac) + " on " + number(seen->port_id));
    }
    return lines;
}

std::string LiveHost::fault()
{
    Lines is = stored(), ought = implied();
    is.merge(known());
    for (const std::string &each : outliving_) {
        if (is.contains(each) && !ought.contains(each))
            ought.insert(each);
    }
    return difference(is, ought);
}

void LiveHost::expect_settled()
{
    std::string last;
    EXPECT_TRUE(until([&] { return (last = fault()).empty(); })) << last;
    EXPECT_EQ(fault(), ""); /* the daemon's loop has turned since */
}

void LiveHost::lease_runs_out()
{
    linux_mom_clock_ahead(LEASE_AND_MORE);
    settle();
    linux_mom_clock_ahead(0);
    outliving_.clear();
}

void LiveHost::turn(int64_t micros)
{
    linux_loop_run_until([] { return false; }, micros);
}

bool LiveHost::until(const std::function<bool()> &done)
{
    const int64_t end = linux_loop_now() + PATIENCE;
    while (!done()) {
        if (linux_loop_now() > end)
            return false;
        turn(GLANCE);
    }
    return true;
}

void LiveHost::settle()
{
    EXPECT_TRUE(linux_mom_settle(PATIENCE, [] { return true; }));
}
