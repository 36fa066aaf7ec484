/*
 * OUIs, the fast path, ports and aging: what each operation asks of the platform.
 */
#include "tests/tables_fixture.h"

namespace
{

using namespace tables_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// --- OUIs

uint64_t number_of(const Addr &addr)
{
    uint64_t number = 0;
    for (uint8_t byte : addr.bytes)
        number = number << 8 | byte;
    return number;
}

/* The order of lengths as it is told; no table, no shortcuts. */
vvlan_oui *naive_match(const std::vector<vvlan_oui *> &nodes, const Addr &mac)
{
    for (int turn = 49; turn > 0; turn--) {
        const int length = turn == 49 ? 24 : turn;
        const uint64_t mask = ((uint64_t{1} << length) - 1) << (48 - length);
        for (vvlan_oui *node : nodes)
            if (number_of(node->mask) == mask && number_of(node->mac) == (number_of(mac) & mask))
                return node;
    }
    return nullptr;
}

TEST_F(Tables, OuiMatchAgreesWithANaiveModel)
{
    std::mt19937 random(3);
    const auto any = [&](uint32_t below) { return static_cast<uint32_t>(random() % below); };
    const auto sparse = [&] { /* few different bits, so that prefixes meet */
                              Addr mac = {};
                              for (int i = 0; i < 3; i++)
                                  mac.bytes[any(6)] = static_cast<uint8_t>(1 << any(8));
                              return mac;
    };
    std::vector<vvlan_oui *> nodes;
    int hits = 0;
    for (int round = 0; round < 300; round++) {
        if (any(3) != 0 || nodes.empty()) {
            Addr mask, mac = sparse();
            udp_vvlan_oui_prefix_mask(any(4) == 0 ? 24 : any(49), &mask);
            if (any(10) == 0)
                mask.bytes[any(6)] ^= 1; /* no prefix, most likely */
            for (size_t i = 0; i < 6 && any(8) != 0; i++)
                mac.bytes[i] &= mask.bytes[i];
            vvlan_oui *node = udp_vvlan_oui_add_node(&mac, &mask);
            ASSERT_EQ(udp_vvlan_oui_find(&mac, &mask), node);
            if (std::find(nodes.begin(), nodes.end(), node) == nodes.end())
                nodes.push_back(node);
        } else {
            const auto at = nodes.begin() + any(static_cast<uint32_t>(nodes.size()));
            udp_vvlan_oui_del_node(*at);
            nodes.erase(at);
        }
        for (int probe = 0; probe < 10; probe++) {
            const Addr mac = sparse();
            vvlan_oui *expected = naive_match(nodes, mac);
            ASSERT_EQ(udp_vvlan_oui_match(&mac), expected);
            hits += expected != nullptr;
        }
        uint64_t lengths = 0; /* that some entry has: only these may cost a look */
        for (const vvlan_oui *node : nodes)
            for (uint32_t length = 1; length <= 48; length++)
                if (number_of(node->mask) == ((uint64_t{1} << length) - 1) << (48 - length))
                    lengths |= uint64_t{1} << length;
        ASSERT_EQ(vvlan_oui_table.prefix_present, lengths);
    }
    EXPECT_GT(hits, 300);
    EXPECT_LT(hits, 2700);
}

TEST_F(Tables, AnOuiIsMirroredProgrammedAndGoesWithItsMacs)
{
    enable();
    udp_vvlan_debug_level = 2;
    add_port(1, EN);
    udp_vvlan_port_node *automatic = add_port(2, AUTO);
    vvlan_oui *node = udp_vvlan_oui_add_node(&OUI, &MASK24);
    EXPECT_EQ(arguments_of("ace_add"),
              (Texts{"acl=vvlan_secu_pas_app/101 ace=1 src_mac=00:1b:54:00:00:00/ff:ff:ff:00:00:00 "
                     "vid=100/0xffff -> cos=6 ipv4_dscp=46 prio_in=6",
                     "acl=mac_vlan_app/102 ace=1 src_mac=00:1b:54:00:00:00/ff:ff:ff:00:00:00 "
                     "vlan_form=0/3 -> add_tag=100"}));
    Texts after = did();
    EXPECT_EQ(after[0], "mirror");
    std::sort(after.begin(), after.end());
    EXPECT_THAT(after, ElementsAre("cos+", "mirror", "mvlan+", "trap", "untrap"));
    EXPECT_EQ(udp_vvlan_oui_add_node(&OUI, &MASK24), node); /* known: nothing happens */
    EXPECT_THAT(did(), IsEmpty());
    const auto mirror = object::from_text(*object::kind_by_name("u_bridge.vvlan_oui_cfg"),
                                          "index.ace_id=1", nullptr, nullptr);
    EXPECT_EQ(object::to_text(*sim::mom_get(8, *mirror)),
              "index.ace_id=1 oui.mac=00:1b:54:00:00:00 oui.mask=ff:ff:ff:00:00:00");

    EXPECT_EQ(notify(KT_MOM_SET, PHONE, 2), 0);
    EXPECT_EQ(automatic->flags & AGED, 0);
    udp_vvlan_port_set_flags(automatic, JOIN, false);
    did();
    udp_vvlan_oui_del_node(node);
    EXPECT_THAT(did(), ElementsAre("unmirror"));
    EXPECT_EQ(udp_vvlan_mac_find(&PHONE), nullptr);
    EXPECT_EQ(automatic->flags & (AGED | JOIN), AGED); /* silent; but not joined by this */
    /* Removing one entry has destroyed both ACLs; the sec ACL stands. */
    EXPECT_EQ(udp_vvlan_cos_acl.created + udp_vvlan_mvlan_acl.created, 0);
    EXPECT_EQ(udp_vvlan_sec_acl.created, 1);
    EXPECT_EQ(udp_vvlan_oui_add_node(&PHONE, &MASK24)->ace_id, 1U);
}

TEST_F(Tables, FailedOuisAreToldAndStay)
{
    udp_vvlan_debug_level = 2;
    for (const char *what : {"first", "second"}) {
        sim::log_clear();
        sim::fault_plan("ace_alloc", what[0] == 'f' ? 1 : 2, 0);
        const Addr mac = {{1, static_cast<uint8_t>(what[0])}};
        EXPECT_NE(udp_vvlan_oui_add_node(&mac, &MASK24), nullptr);
        EXPECT_EQ(arguments_of("ace_alloc").size(), 2U) << what;
        EXPECT_THAT(did(), ElementsAre("mirror", "error2"));
        EXPECT_THAT(log_texts(), Contains("udp_vvlan_oui_add_node: add mvlan_ace fail !"));
    }
    for (uint64_t nth = 1; nth <= 2; nth++) { /* the cos or the mvlan entry of the first OUI */
        sim::fault_plan("ace_alloc", nth, 0);
        EXPECT_EQ(udp_vvlan_oui_set_ace(1), -2);
        EXPECT_EQ(arguments_of("ace_alloc").size(), nth);
        did();
    }
    sim::fault_plan("ace_alloc", 1, 0);
    udp_vvlan_set_ace(1); /* the sec entry fails, the OUIs are programmed all the same */
    EXPECT_EQ(arguments_of("ace_alloc").size(), 5U);
    EXPECT_THAT(did(), ElementsAre("error0"));
    sim::fault_plan("ace_alloc", 2, 0);
    udp_vvlan_oui_set_cos();
    EXPECT_THAT(did(), ElementsAre("error3"));
    sim::fault_plan("malloc", 1, 0);
    EXPECT_EQ(udp_vvlan_oui_add_node(&OUI, &MASK24), nullptr);
    EXPECT_THAT(did(), IsEmpty());
}

// --- Fast path

TEST_F(Tables, AceIdsAreTheLowestFreeOnes)
{
    for (uint32_t id = 1; id <= 127; id++)
        ASSERT_EQ(udp_vvlan_alloc_ace_id(), id);
    EXPECT_EQ(udp_vvlan_alloc_ace_id(), 0U);
    for (uint32_t id : {64U, 5U, 0U, 128U, 4'000'000'000U})
        udp_vvlan_free_ace_id(id);
    EXPECT_EQ(udp_vvlan_alloc_ace_id(), 5U);
    EXPECT_EQ(udp_vvlan_alloc_ace_id(), 64U);
    EXPECT_EQ(udp_vvlan_alloc_ace_id(), 0U);
}

TEST_F(Tables, AclsAreEnsuredFilledAndSynchronised)
{
    EXPECT_EQ(udp_vvlan_set_acl(0), 0);
    EXPECT_THAT(arguments_of("acl_destroy"), IsEmpty());
    EXPECT_EQ(udp_vvlan_set_acl(1) | udp_vvlan_set_acl(1), 0);
    EXPECT_THAT(arguments_of("acl_create"),
                ElementsAre("acl=vvlan_secu_pas_app/101", "acl=mac_vlan_app/102",
                            "acl=vvlan_secu_deny_app/100"));
    udp_vvlan_glb.vid = 65536 + 7;
    udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, 1);
    udp_vvlan_glb.secu = 1;
    udp_vvlan_set_sec_ace(&udp_vvlan_sec_acl, 1);
    EXPECT_THAT(arguments_of("ace_add"),
                ElementsAre("acl=vvlan_secu_deny_app/100 ace=1 vid=7/0xffff -> cos=6 ipv4_dscp=46 "
                            "prio_in=6",
                            "acl=vvlan_secu_deny_app/100 ace=1 vid=7/0xffff -> fwd=0"));

    EXPECT_EQ(sim::calls_count("acl_sync_end"), 3U); /* start-up's */
    udp_vvlan_scan_over.port_noti = 0;
    udp_vvlan_fp_sync_end(udp_vvlan_global);
    EXPECT_EQ(sim::calls_count("acl_sync_end"), 3U);
    udp_vvlan_scan_over.port_noti = 1;
    udp_vvlan_fp_sync_end(udp_vvlan_global);
    EXPECT_EQ(sim::calls_count("acl_sync_end") + sim::calls_count("apply_sync_end"), 12U);

    fp_udp_acl acl = {"some", 9, 4, {}, {}};
    sim::log_clear();
    for (udp_vvlan_debug_level = 3; udp_vvlan_debug_level <= 4; udp_vvlan_debug_level++) {
        udp_vvlan_fp_cb.acl_failed(nullptr, &acl, -1);
        udp_vvlan_fp_cb.ace_success(nullptr, &acl, uint64_t{1} << 40);
        udp_vvlan_fp_cb.apply_failed(nullptr, &acl, nullptr, -3);
    }
    const std::string text = "set acl(id=9, app_type=some) ";
    EXPECT_THAT(
        log_texts(),
        ElementsAre("udp_vvlan_fp_cb_acl_failed: init acl(id=9, app_type=some)  failed. err=-1",
                    "udp_vvlan_fp_cb_ace_success: " + text + "ace(1099511627776) successfully.",
                    "udp_vvlan_fp_cb_apply_failed: " + text + "apply failed. err=-3"));
}

TEST_F(Tables, AclsAreAppliedToOnePort)
{
    udp_vvlan_debug_level = 4;
    EXPECT_EQ(udp_vvlan_apply_sec_acl(&udp_vvlan_sec_acl, 0x101, 1), 0); /* off: nothing */
    EXPECT_THAT(arguments_of("apply_alloc"), IsEmpty());
    EXPECT_EQ(udp_vvlan_apply_sec_acl(&udp_vvlan_sec_acl, 0x101, 0), 0);
    EXPECT_EQ(arguments_of("apply_del").size(), 1U);
    enable();
    sim::log_clear();
    udp_vvlan_apply_cos_acl(&udp_vvlan_cos_acl, 0x101, 1);
    udp_vvlan_apply_mvlan_acl(&udp_vvlan_mvlan_acl, 0x101, 1);
    udp_vvlan_apply_sec_acl(&udp_vvlan_sec_acl, 0x101, 1);
    EXPECT_THAT(arguments_of("apply_add"),
                ElementsAre("acl=vvlan_secu_pas_app/101 phyid=257 flag=0 kind=4",
                            "acl=mac_vlan_app/102 phyid=257 flag=1 kind=4",
                            "acl=vvlan_secu_deny_app/100 phyid=257 flag=0 kind=4"));
    EXPECT_THAT(log_texts()[0], "udp_vvlan_apply_cos_acl: apply phyid(0x101) cos acl(101) end.");
    EXPECT_THAT(log_texts()[2], testing::MatchesRegex("udp_vvlan_apply_sec_acl: apply=0x[0-9a-f]+ "
                                                      "apply phyid\\(0x101\\) sec acl\\(100\\) "
                                                      "end."));
    did();
    sim::fault_plan("apply_alloc", 1, 0);
    const uint64_t freed = sim::calls_count("apply_free");
    EXPECT_EQ(udp_vvlan_apply_mvlan_acl(&udp_vvlan_mvlan_acl, 0x101, 1), -2);
    EXPECT_THAT(arguments_of("apply_add"), IsEmpty());
    EXPECT_EQ(sim::calls_count("apply_free"), freed);
}

// --- Ports

TEST_F(Tables, PortsAreFoundWalkedAndRefusedWhenNull)
{
    add_port(1, 0);
    add_port(2, 0);
    EXPECT_EQ(udp_vvlan_port_find(3), nullptr);
    EXPECT_EQ(add_port(2, 0), udp_vvlan_port_find(2));
    int left = 2;
    const auto countdown = [](udp_vvlan_port_node *, void *count) {
        return --*static_cast<int *>(count) == 0 ? 5 : 0;
    };
    EXPECT_EQ(udp_vvlan_port_foreach(countdown, &left), 5);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(udp_vvlan_port_cfg(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_remove_vvlan(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_cfg_sec(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_set_sec(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_clear_mac(nullptr, 0), 4);
    EXPECT_EQ(udp_vvlan_timer_ops(nullptr), 4);
    EXPECT_EQ(udp_vvlan_port_mac(nullptr), 4);
    EXPECT_EQ(udp_vvlan_del_oui_mac(nullptr, nullptr), 4);
    sim::fault_plan("malloc", 1, 0);
    EXPECT_EQ(add_port(3, 0), nullptr);
}

TEST_F(Tables, EachPortOperationAsksForItsStepsInOrder)
{
    udp_vvlan_port_node *port = add_port(1, AUTO | JOIN | AGED);
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* off: nothing */
    EXPECT_THAT(did(), IsEmpty());
    enable();
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0);
    EXPECT_THAT(did(), ElementsAre("cos-", "mvlan-", "trap", "sec+", "scan"));
    EXPECT_EQ(port->flags, AUTO | JOIN | DENY | AGED);
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 1), 0);
    EXPECT_THAT(did(), ElementsAre("record", "join", "untrap", "cos+", "mvlan+"));
    EXPECT_EQ(port->flags, AUTO | JOIN | AGED);
    EXPECT_NE(udp_vvlan_recover_find(1), nullptr);
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* replay is over: trapped */
    EXPECT_THAT(did(), ElementsAre("cos-", "mvlan-", "trap", "sec+", "scan"));
    udp_vvlan_scan_over.port_cfg = 0;
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* during replay: kept */
    EXPECT_THAT(did(), ElementsAre("untrap", "cos+", "mvlan+", "sec+", "scan"));
    EXPECT_EQ(udp_vvlan_port_cfg_sec(port), 0);
    EXPECT_THAT(did(), ElementsAre("trap"));
    EXPECT_EQ(udp_vvlan_port_set_sec(port), 0);
    EXPECT_THAT(did(), ElementsAre("sec+"));
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 0), 0);
    EXPECT_THAT(did(), ElementsAre("unrecord", "leave", "trap", "cos-", "mvlan-"));
    EXPECT_EQ(port->flags, AUTO | DENY | AGED);
    EXPECT_EQ(udp_vvlan_recover_find(1), nullptr);
    EXPECT_EQ(udp_vvlan_port_remove_vvlan(port), 0); /* the trap is off once already */
    EXPECT_THAT(did(), ElementsAre("untrap", "cos-", "mvlan-", "sec-"));
    udp_vvlan_port_set_flags(port, JOIN, true);
    EXPECT_EQ(udp_vvlan_port_remove_vvlan(port), 0);
    EXPECT_THAT(did(), ElementsAre("cos-", "mvlan-", "sec-", "leave", "unrecord"));
    EXPECT_EQ(port->flags, AUTO | AGED);
    port->flags = UDP_VVLAN_PORT_AUTO_MOD;
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* disabled: no trap, yet deny_en */
    EXPECT_THAT(did(),
                ElementsAre("cos-", "mvlan-", "sec-", "unrecord", "leave", "cos-", "mvlan-"));
    EXPECT_EQ(port->flags, UDP_VVLAN_PORT_AUTO_MOD | DENY);
    EXPECT_EQ(udp_vvlan_port_set_sec(port) | udp_vvlan_port_cfg_sec(port), 0);
    EXPECT_THAT(did(), IsEmpty());

    udp_vvlan_port_node *manual = add_port(2, EN | DENY);
    EXPECT_EQ(udp_vvlan_port_cfg(manual), 0);
    EXPECT_THAT(did(), ElementsAre("untrap", "cos+", "mvlan+", "sec+"));
    EXPECT_EQ(udp_vvlan_port_cfg_sec(manual), 0);
    EXPECT_THAT(did(), ElementsAre("untrap", "cos+", "mvlan+"));
    udp_vvlan_cos_acl.created = 0; /* not both valid: only the sec ACL counts */
    EXPECT_EQ(udp_vvlan_port_cfg(manual) | udp_vvlan_port_unaply_acl(manual), 0);
    EXPECT_EQ(udp_vvlan_port_cfg_sec(manual), 0);
    EXPECT_THAT(did(), ElementsAre("sec+", "sec-"));
}

TEST_F(Tables, PortFailuresAreReportedAsEachOperationSays)
{
    enable();
    udp_vvlan_port_node *port = add_port(1, AUTO | DENY);
    sim::fault_plan("kt_mom_del", 1, -9);
    EXPECT_EQ(udp_vvlan_port_unaply_acl(port), 0); /* only the security ACL's result counts */
    sim::fault_plan("apply_alloc", 1, 0);
    EXPECT_EQ(udp_vvlan_port_set_sec(port), 0);
    did();
    sim::fault_plan("kt_mom_set", 1, -9);
    EXPECT_EQ(udp_vvlan_port_cfg(port), 0); /* told, and goes on */
    EXPECT_THAT(did(), ElementsAre("cos-", "mvlan-", "trap", "error1", "scan"));
    EXPECT_EQ(port->flags, AUTO | DENY); /* the flag stays set though the write failed */
    udp_vvlan_sec_acl.created = 0;
    sim::fault_plan("kt_mom_del", 1, -9);
    EXPECT_EQ(udp_vvlan_port_unaply_acl(port), -11);
    sim::fault_plan("apply_alloc", 1, 0);
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 1), -2);
    sim::fault_plan("apply_alloc", 2, 0);
    did();
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 1), -2);
    EXPECT_THAT(did(), ElementsAre("record", "join", "untrap", "cos+"));

    /* A failing write is made again for the log and for the result. */
    const auto join = [&](uint32_t level, uint64_t first, uint64_t fails, int *rv) {
        udp_vvlan_debug_level = level;
        sim::fault_plan("kt_mom_set", first, -9, fails);
        *rv = udp_vvlan_port_join_vvlan(port, 1);
        const uint64_t spent = sim::faults_are_spent();
        sim::call_reset();
        sim::calls_record(true);
        return spent;
    };
    int rv;
    for (const auto &[level, fails] : {std::pair{1U, 2U}, {2U, 3U}}) {
        EXPECT_TRUE(join(level, 2, fails, &rv)); /* the first write is the recovery's */
        EXPECT_EQ(rv, -9);
        EXPECT_TRUE(join(level, 2, fails - 1, &rv));
        EXPECT_EQ(rv, 0); /* got through at last; nothing follows */
        sim::fault_plan("kt_mom_set", 1, -9, fails);
        EXPECT_EQ(udp_vvlan_set_vvlan_join(1, 7), -9);
        EXPECT_TRUE(sim::faults_are_spent());
    }
    did();
    sim::fault_plan("kt_mom_del", 1, -9, 3); /* the trap: -11 each time */
    EXPECT_EQ(udp_vvlan_port_join_vvlan(port, 1), -11);
    EXPECT_THAT(did(), ElementsAre("record", "join", "untrap", "untrap", "untrap"));
}

TEST_F(Tables, SilentJoinedPortsLeaveAfterTheAgingTime)
{
    udp_vvlan_port_node *joined = add_port(1, AUTO | JOIN | AGED);
    udp_vvlan_port_node *trapped = add_port(2, AUTO | JOIN | AGED | DENY);
    udp_vvlan_port_node *manual = add_port(3, EN | JOIN | AGED);
    joined->no_flw = 5;
    udp_vvlan_glb.age_time = 2;
    const auto tick = [] { sim::run_until(sim::now() + 60 * sim::SECOND); };
    tick();
    EXPECT_EQ(joined->no_flw, 5U); /* off: no port is visited */
    enable();
    joined->no_flw = trapped->no_flw = manual->no_flw = 0;
    tick();
    EXPECT_EQ(joined->no_flw, 60U);
    EXPECT_EQ(trapped->no_flw + manual->no_flw, 0U);
    udp_vvlan_port_set_flags(joined, AGED, false); /* flow comes back */
    tick();
    EXPECT_EQ(joined->no_flw, 0U);
    udp_vvlan_port_set_flags(joined, AGED, true);
    tick();
    did();
    tick();
    EXPECT_THAT(did(), ElementsAre("unrecord", "leave", "trap", "cos-", "mvlan-", "trap"));
    EXPECT_EQ(joined->flags, AUTO | DENY | AGED);
    EXPECT_EQ(joined->no_flw, 0U);
    joined->flags = AUTO | JOIN | AGED;
    udp_vvlan_glb.age_time = 0;
    sim::fault_plan("kt_mom_del", 1, -9, 99); /* leaving fails; trapped all the same */
    tick();
    EXPECT_EQ(joined->flags, AUTO | DENY | AGED);
}

} // namespace
