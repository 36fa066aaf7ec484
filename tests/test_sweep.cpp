/*
 * The fault sweep: in the phone scenario and in the restart scenario every
 * platform call and every allocation fails in turn, and after each the tables
 * are whole, the daemon runs or was ended and started again, and nothing
 * leaks. Debug levels 1 and 5 take turns, so that both forms of a repeated call
 * are met; what only happens at level 5 is swept there.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_port.h"
#include "sim/player_play.h"
#include "sim/sim_call.h"
#include "sim/sim_loop.h"
#include "sim/sim_process.h"
#include "tests/invariants.h"

namespace
{

constexpr int CODE = -5;
constexpr int LEVELS[] = {1, 5};

using Counts = std::map<std::string, uint64_t>;

struct Fault {
    std::string name;
    uint64_t nth;
};

/* What a play came to. */
struct Outcome {
    Counts counts;
    bool running;
    bool met;
    std::string fault; /* of the tables */
    std::optional<sim::Ended> first_end;
    std::optional<int> repeats; /* of the call that failed, if it is one that is made again */
};

bool is_repeated(const sim::Call &call);
int repeats_of(const sim::Call &failed);

/*
 * The scenario up to a moment, without its expectations: with a fault in it
 * they need not hold.
 */
sim::Script actions_of(const std::string &name, sim::Micros until)
{
    sim::ScriptError error{};
    const std::string file = VVLAN_SOURCE_DIR "/sim/scenarios/" + name;
    auto script = sim::script_load(file, &error);
    EXPECT_TRUE(script) << sim::script_error_text(file, error);
    std::erase_if(script->steps, [until](const sim::Step &step) {
        if (step.when > until)
            return true;
        for (const char *word : {"expect ", "always ", "never ", "end ", "fault "}) {
            if (step.text.starts_with(word))
                return true;
        }
        return false;
    });
    return *script;
}

Outcome play(const sim::Script &script, int level, const std::optional<Fault> &fault)
{
    Outcome outcome{};
    sim::PlayOptions options;
    options.program = {"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset};
    options.print = [](std::string_view) {};
    options.quiet = true;
    options.level = level;
    options.at_begin = [&] {
        if (fault) {
            sim::fault_plan(fault->name, fault->nth, CODE);
            sim::calls_record(fault->name.starts_with("kt_mom_") ||
                              fault->name.starts_with("libddm_"));
        }
        sim::process_on_end([&outcome](const sim::Ended &ended) {
            if (!outcome.first_end)
                outcome.first_end = ended;
        });
        sim::loop_after_each([&outcome] {
            if (outcome.fault.empty())
                outcome.fault = invariants::table_fault();
        });
    };
    options.at_end = [&] {
        outcome.running = sim::process_is_running();
        outcome.met = sim::faults_are_spent();
        for (const sim::Call &call : sim::calls()) {
            if (call.fault != 0 && is_repeated(call))
                outcome.repeats = repeats_of(call);
        }
        for (const std::string &name : sim::calls_names())
            outcome.counts[name] = sim::calls_count(name);
    };
    sim::script_play(script, options);
    return outcome;
}

/* The status with which a process ends when the first such call of its life fails. */
std::optional<int> status_of_first(const std::string &name)
{
    static const std::map<std::string, int> STATUS = {
        {"open", 255},
        {"fcntl", 255},
        {"kt_global_init", 256 - 17},
        {"fp_udp_get_mgr", 256 - 17},
        {"rdnd_lib_mom_reg", 256 + CODE},
        {"fp_udp_register_acl_handler", 256 + CODE},
        {"fp_udp_cgst_register", 256 + CODE},
        {"libddm_init", 256 + CODE},
        {"kt_mom_client_connect", 256 + CODE},
        {"kt_mom_client_connect_sync", 256 + CODE},
        {"kt_mom_client_set_disconnect_cb", 256 + CODE},
        {"kt_mom_client_set_reconnect_cb", 256 + CODE},
        {"kt_mom_scan_sync", 256 + CODE},
        {"kt_mom_subscribe", 256 + CODE},
        {"kt_mom_subscribe_field", 256 + CODE},
    };
    const auto found = STATUS.find(name);
    return found == STATUS.end() ? std::nullopt : std::optional(found->second);
}

/* Calls that are made again when they fail: once for the log line, once for the result. */
bool is_repeated(const sim::Call &call)
{
    const auto is_about = [&call](const char *kind) {
        return call.arguments.find(kind) != std::string::npos;
    };
    if (call.name == "kt_mom_set" || call.name == "kt_mom_del")
        return is_about("u_bridge.vvlan_join") || is_about("p_bridge.vvlan_port_auto");
    return call.name == "kt_mom_clear_expire" || call.name.starts_with("libddm_get");
}

/* How often the call that failed was made again at once. */
int repeats_of(const sim::Call &failed)
{
    int repeats = 0;
    for (const sim::Call *call = &failed + 1; call <= &sim::calls().back(); call++) {
        if (call->name == failed.name && call->arguments == failed.arguments &&
            call->when == failed.when)
            repeats++;
        else if (call->name != "ktdf_zlog" && call->name != "at_snprintf")
            break;
    }
    return repeats;
}

/* Without restart registration (or before it) an end is final. */
bool may_stay_down(const std::string &name)
{
    return name == "open" || name == "fcntl" || name == "reg_process_exit_action" ||
           name == "getpid" || name == "kt_global_run";
}

void check(const Fault &fault, int level, const Outcome &outcome)
{
    SCOPED_TRACE(fault.name + " call " + std::to_string(fault.nth) + " at level " +
                 std::to_string(level));
    EXPECT_TRUE(outcome.met);
    EXPECT_EQ(outcome.fault, "");
    EXPECT_TRUE(outcome.running || may_stay_down(fault.name));
    const std::optional<int> status = status_of_first(fault.name);
    if (status && fault.nth == 1) {
        ASSERT_TRUE(outcome.first_end);
        EXPECT_FALSE(outcome.first_end->by_signal);
        EXPECT_EQ(outcome.first_end->status, *status);
    }
    if (outcome.repeats) {
        EXPECT_EQ(*outcome.repeats, level > 1 ? 2 : 1);
    }
}

/* Fails every call of the scenario, its levels in turn. Returns the plays. */
uint64_t sweep(const std::string &scenario, sim::Micros until)
{
    const sim::Script script = actions_of(scenario, until);
    const Outcome plain[] = {play(script, LEVELS[0], {}), play(script, LEVELS[1], {})};
    EXPECT_EQ(plain[0].fault + plain[1].fault, "");
    EXPECT_TRUE(plain[0].running && plain[1].running);
    uint64_t plays = 0;
    for (const auto &[name, most] : plain[1].counts) {
        sim::ScriptError error{};
        EXPECT_TRUE(sim::script_parse("x", "expect calls " + name + " 0", &error))
            << "the player does not know " << name;
        const auto low = plain[0].counts.find(name);
        const uint64_t at_low = low == plain[0].counts.end() ? 0 : low->second;
        for (uint64_t nth = 1; nth <= std::max(most, at_low); nth++) {
            const int level = LEVELS[nth > at_low ? 1 : nth % 2];
            check({name, nth}, level, play(script, level, Fault{name, nth}));
            plays++;
        }
    }
    return plays;
}

/* The checker of the tables sees each kind of damage, and none where there is none. */
TEST(Invariants, SeeDamage)
{
    std::string seen;
    const auto see = [&seen](auto &value, auto damaged) {
        const auto whole = value;
        value = damaged;
        seen += invariants::table_fault() + "|";
        value = whole;
    };
    sim::PlayOptions options;
    options.program = {"ox.vvlan.dp", udp_vvlan_main, udp_vvlan_state_reset};
    options.print = [](std::string_view) {};
    options.at_end = [&] {
        udp_vvlan_port_node *port = udp_vvlan_port_find(3);
        ASSERT_NE(port, nullptr);
        auto *mac = reinterpret_cast<udp_vvlan_mac_node *>(
            reinterpret_cast<char *>(port->mac_list.next) - offsetof(udp_vvlan_mac_node, link));
        see(vvlan_ace_ids[0], uint8_t{6});
        see(vvlan_oui_table.prefix_count[24], 2U);
        see(mac->ifx, 4U);
        see(mac->link.prev, &mac->link);
        see(udp_vvlan_mac_map->size, 2U);
        see(port->ifx, 4U);
        seen += invariants::table_fault();
    };
    sim::script_play(actions_of("phone.scn", 20 * sim::SECOND), options);
    EXPECT_EQ(seen, "ACE id 2 is taken without its OUI, or free with it|"
                    "the counter of prefix length 24 is wrong|"
                    "MACs: a MAC is in another port's list|"
                    "ports: a list is torn|"
                    "MACs: its size is not what a walk counts|"
                    "ports: a record is not found by its key|");
}

TEST(Sweep, Phone)
{
    RecordProperty("plays", std::to_string(sweep("phone.scn", 3600 * sim::SECOND)));
}

/* Two restarts, after kill -9 and after a fatal exit; the later ones call nothing new. */
TEST(Sweep, Restart)
{
    RecordProperty("plays", std::to_string(sweep("restart.scn", 12 * sim::SECOND)));
}

} // namespace
