/* The simulated switch and its fast-path library, through the calls and objects of the platform. */
#include <cerrno>
#include <cstring>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mom/kt_mom_peer.h"
#include "object/object.h"
#include "platform/fp_udp.h"
#include "platform/libddm.h"
#include "sim/sim_call.h"
#include "sim/sim_fp.h"
#include "sim/sim_mom.h"
#include "sim/sim_switch.h"
#include "sim/sim_world.h"

using frame::Bytes;
using frame::Frame;
using sim::Verdict;
using testing::ElementsAre;

namespace
{

constexpr char COS[] = "vvlan_secu_pas_app";
constexpr char TAG[] = "mac_vlan_app";
constexpr char DENY[] = "vvlan_secu_deny_app";
constexpr frame::Mac PHONE{0, 0x11, 0x22, 0, 0, 1};
constexpr frame::Mac STRANGER{0, 0x99, 0x99, 0, 0, 1};
constexpr uint16_t VOICE = 100;

std::vector<std::string> told; /* results of the fast path */

fp_udp_acl acl(const char *app_type, uint32_t id)
{
    fp_udp_acl result{};
    std::strncpy(result.app_type, app_type, sizeof result.app_type - 1);
    result.acl_id = id;
    return result;
}

const fp_udp_acl_handler HANDLER = {
    [](void *, const fp_udp_acl *a) {
        told.push_back("acl " + std::to_string(a->acl_id));
        return 0;
    },
    [](void *, const fp_udp_acl *a, int error) {
        told.push_back("acl " + std::to_string(a->acl_id) + " " + std::to_string(error));
        return 0;
    },
    [](void *, const fp_udp_acl *, uint64_t id) {
        told.push_back("ace " + std::to_string(id));
        return 0;
    },
    [](void *, const fp_udp_acl *, uint64_t id, int error) {
        told.push_back("ace " + std::to_string(id) + " " + std::to_string(error));
        return 0;
    },
    [](void *, const fp_udp_acl *, const fp_udp_apply_desc *a) {
        told.push_back("apply " + std::to_string(a->phyid));
        return 0;
    },
    [](void *, const fp_udp_acl *, const fp_udp_apply_desc *a, int error) {
        told.push_back("apply " + std::to_string(a->phyid) + " " + std::to_string(error));
        return 0;
    },
    {}};

struct Field {
    const char *name;
    uint32_t kind;
    Bytes value;
};

const Field SOURCE = {"src_mac", 1, {0, 0x11, 0x22, 0, 0, 0, 255, 255, 255, 0, 0, 0}};
const Field UNTAGGED = {"vlan_form", 1, {0, 3}};
const Field IN_VOICE = {"vid", 1, {VOICE, 0, 255, 255}};
const Field DROP = {"fwd", 2, {0}};

class Switch : public testing::Test
{
protected:
    void SetUp() override
    {
        sim::world_reset();
        told.clear();
        global = kt_global_init("test", nullptr);
        fp = fp_udp_get_mgr();
        ASSERT_EQ(fp_udp_register_acl_handler(global, 8, &HANDLER), 0);
        for (const uint32_t ifx : {1U, 2U})
            ASSERT_TRUE(sim::switch_add_port(ifx, 10 + ifx, "p" + std::to_string(ifx)));
        hset("p_bridge.vvlan_glb_cfg", "glb_switch.vlan=100 glb_switch.enable=1");
    }

    void TearDown() override
    {
        sim::world_reset();
    }

    static object::Message parse(const char *kind, const std::string &text,
                                 std::vector<uint32_t> *fields)
    {
        object::TextError error;
        auto message = object::from_text(*object::kind_by_name(kind), text, fields, &error);
        EXPECT_NE(message, nullptr) << text << ": " << error.expected;
        return message;
    }

    static void set(uint32_t db, const char *kind, const std::string &text)
    {
        EXPECT_EQ(kt_mom_set(sim::mom_peer(), db, parse(kind, text, nullptr).get(), 0, 0), 0);
    }

    static void del(uint32_t db, const char *kind, const std::string &text)
    {
        EXPECT_EQ(kt_mom_del(sim::mom_peer(), db, parse(kind, text, nullptr).get(), 0, 0), 0);
    }

    static void hset(const char *kind, const std::string &text)
    {
        std::vector<uint32_t> fields;
        const auto message = parse(kind, text, &fields);
        EXPECT_EQ(kt_mom_hset(sim::mom_peer(), 4, message.get(), fields.data(),
                              static_cast<uint32_t>(fields.size())),
                  0);
    }

    int add_ace(const fp_udp_acl &to, uint64_t id, const std::vector<Field> &fields) const
    {
        fp_udp_ace *ace = fp->ace_alloc(id, 0);
        for (const Field &each : fields)
            ace->fields->field_append(
                ace->fields, ace->fields->field_make(each.name, each.kind, each.value.data(),
                                                     static_cast<uint32_t>(each.value.size())));
        const int rv = fp->ace_add(global, &to, ace);
        fp->ace_free(ace);
        return rv;
    }

    void apply(const fp_udp_acl &which, uint32_t phyid) const
    {
        fp_udp_apply_desc descriptor{};
        std::memcpy(descriptor.app_type, which.app_type, sizeof descriptor.app_type);
        descriptor.phyid = phyid;
        fp_udp_apply *application = fp->apply_alloc(&descriptor);
        EXPECT_EQ(fp->apply_add(global, &which, 4, application), 0);
        fp->apply_free(application);
    }

    static Field mark(const char *name, uint8_t value)
    {
        return {name, 2, {value, 0, 0, 0, 0, 0}};
    }

    /* The three ACLs on port 1, as the daemon programs them in security mode. */
    void program() const
    {
        const fp_udp_acl cos = acl(COS, 101), tag = acl(TAG, 102), deny = acl(DENY, 100);
        for (const fp_udp_acl &each : {cos, tag, deny}) {
            fp->acl_create(global, &each);
            apply(each, 11);
        }
        add_ace(cos, 1,
                {SOURCE, IN_VOICE, mark("cos", 6), mark("ipv4_dscp", 46), mark("prio_in", 7)});
        add_ace(tag, 1, {SOURCE, UNTAGGED, {"add_tag", 2, {VOICE, 0, 0, 0}}});
        add_ace(deny, 1, {IN_VOICE, DROP});
    }

    /* A datagram of one source, as it arrives; tagged if a VLAN is given. */
    static Bytes datagram(const frame::Mac &src, int vid = -1, uint8_t pcp = 0)
    {
        Frame frame;
        frame.src = src;
        if (vid >= 0)
            frame.tag = {static_cast<uint16_t>(vid), pcp, false};
        frame.ethertype = frame::ETHERTYPE_IPV4;
        frame.ipv4 = frame::Ipv4{};
        frame.ipv4->protocol = frame::PROTOCOL_UDP;
        frame.udp = frame::Udp{};
        frame.payload = {1, 2, 3};
        return frame::encode(frame);
    }

    kt_global *global = nullptr;
    const fp_udp_mgr_ops *fp = nullptr;
};

TEST_F(Switch, TheThreeAclsAndTheVlan)
{
    program();
    EXPECT_EQ(sim::switch_peek(1, datagram(PHONE)).why, "not a member of VLAN 100");
    set(4, "p_bridge.vvlan_port_auto", "index.ifx=1 enable=1");
    Verdict verdict = sim::switch_frame_in(1, datagram(PHONE));
    EXPECT_EQ(verdict.action, Verdict::forwarded);
    EXPECT_EQ(verdict.prio, 7);
    const Frame out = *frame::decode(verdict.out);
    EXPECT_EQ(*out.tag, (frame::Tag{VOICE, 6, false}));
    EXPECT_TRUE(out.ipv4->checksum_ok && out.udp->checksum_ok);
    EXPECT_EQ(out.ipv4->dscp, 46);
    EXPECT_EQ(sim::switch_peek(1, datagram(STRANGER, VOICE)).why, "vvlan_secu_deny_app entry 1");
    verdict = sim::switch_frame_in(1, datagram(STRANGER, 0, 5));
    EXPECT_EQ(verdict.vid, 1);
    EXPECT_EQ(verdict.prio, 5);
    EXPECT_EQ(verdict.out, datagram(STRANGER)) << "a priority tag comes off";
    EXPECT_EQ(sim::switch_port_text(1), "member=100 acl=101,102,100 macs=2");

    EXPECT_EQ(sim::switch_peek(2, datagram(PHONE)).vid, 1) << "no ACL there";
    EXPECT_EQ(sim::switch_peek(2, datagram(PHONE, VOICE)).action, Verdict::dropped);
    set(4, "p_bridge.vvlan_port_cfg", "index.ifx=2 enable=1"); /* mode 0: by hand */
    EXPECT_EQ(sim::switch_peek(2, datagram(PHONE, VOICE, 3)).cos, 3);
    EXPECT_TRUE(sim::switch_add_member(2, 7));
    EXPECT_EQ(sim::switch_peek(2, datagram(PHONE, 7)).action, Verdict::forwarded);
    EXPECT_EQ(sim::switch_peek(2, datagram({1, 0, 0, 0, 0, 1})).why, "multicast source");
    EXPECT_EQ(sim::switch_peek(2, Bytes(9)).why, "Ethernet header is cut off");
    Bytes cut = datagram(PHONE, 7);
    cut.resize(cut.size() - 3); /* a bridge forwards the packet that it cannot read */
    EXPECT_EQ(sim::switch_peek(2, cut).action, Verdict::forwarded);
    Bytes odd = datagram(PHONE, 7);
    odd[18 + 20 + 4] = odd[18 + 20 + 5] = 0; /* the UDP length: it is IPv4 all the same */
    EXPECT_EQ(sim::switch_peek(2, odd).action, Verdict::forwarded);
    EXPECT_EQ(sim::switch_peek(2, odd).dscp, 0);
    EXPECT_EQ(sim::switch_peek(3, datagram(PHONE)).why, "no such port");
    hset("p_bridge.vvlan_glb_cfg", "glb_switch.vlan=100");
    EXPECT_EQ(sim::switch_port_text(2), "acl=none macs=0");
    EXPECT_FALSE(sim::switch_add_port(1, 99, "twice") || sim::switch_add_port(9, 11, "twice") ||
                 sim::switch_add_port(9, 9, "vid", 0) || sim::switch_add_member(9, 7));
}

TEST_F(Switch, TrapTellsAndForwardsOthers)
{
    int notices = 0;
    sim::mom_on_change([&](uint32_t db, uint32_t operation, const ProtobufCMessage &message, auto) {
        notices +=
            db == 0 && operation == KT_MOM_PUBLISH && object::to_text(message) == "index.phyid=11";
    });
    set(8, "u_bridge.vvlan_port_cfg", "index.ifx=1");
    set(8, "u_bridge.vvlan_oui_cfg",
        "index.ace_id=1 oui.mac=00:11:22:00:00:00 oui.mask=ff:ff:ff:00:00:00");
    const Verdict verdict = sim::switch_frame_in(1, datagram(PHONE));
    EXPECT_EQ(verdict.action, Verdict::to_cpu);
    EXPECT_EQ(verdict.out, datagram(PHONE));
    EXPECT_EQ(sim::switch_peek(1, datagram(PHONE)).action, Verdict::to_cpu);
    EXPECT_EQ(sim::switch_frame_in(1, datagram(STRANGER)).action, Verdict::forwarded);
    EXPECT_EQ(notices, 1);
    EXPECT_EQ(sim::switch_port_text(1), "trapped acl=none macs=1");
    del(8, "u_bridge.vvlan_oui_cfg", "index.ace_id=1");
    EXPECT_EQ(sim::switch_peek(1, datagram(PHONE)).action, Verdict::forwarded);
    sim::mom_clear(8);
    sim::switch_mom_cleared(8);
    EXPECT_EQ(sim::switch_port_text(1), "acl=none macs=1");
}

TEST_F(Switch, MacsAreReportedMovedAndAged)
{
    const auto reported = [] {
        std::vector<std::string> notices;
        sim::mom_each(6, [&](const object::Kind &kind, const ProtobufCMessage &message,
                             const sim::MomMeta &) {
            if (std::string(object::kind_name(kind)) == "u_bridge.mac_vid_reg_noti")
                notices.push_back(object::to_text(message));
        });
        return notices;
    };
    const std::string phone_at =
        "index.t_fid=1 index.t_type=0 index.t_mac=00:11:22:00:00:01 port_id=";
    sim::switch_frame_in(1, datagram(PHONE));
    EXPECT_THAT(reported(), ElementsAre());
    set(6, "u_bridge.mac_vid_reg", "index.vid=1");
    sim::settle();
    EXPECT_THAT(reported(), ElementsAre(phone_at + "1")) << "what was learnt before";
    sim::run_until(200 * sim::SECOND);
    sim::switch_frame_in(2, datagram(PHONE));
    sim::switch_frame_in(1, datagram(STRANGER));
    EXPECT_THAT(reported(), ElementsAre(phone_at + "2", testing::HasSubstr("00:99:99")));
    sim::switch_unplug(1);
    EXPECT_EQ(sim::switch_mac_text(), "vid=1 mac=00:11:22:00:00:01 ifx=2 age=0s\n");
    sim::run_until(499 * sim::SECOND);
    EXPECT_THAT(reported(), ElementsAre(phone_at + "2"));
    del(6, "u_bridge.mac_vid_reg", "index.vid=1");
    sim::settle();
    EXPECT_THAT(reported(), ElementsAre());
    sim::mom_clear(6);
    sim::switch_mom_cleared(6);
    set(6, "u_bridge.mac_vid_reg", "index.vid=1");
    sim::settle();
    EXPECT_THAT(reported(), ElementsAre(phone_at + "2"));
    sim::run_until(500 * sim::SECOND);
    EXPECT_THAT(reported(), ElementsAre());
    EXPECT_EQ(sim::switch_mac_count() + sim::switch_mac_count(2), 0U);
    sim::switch_frame_in(1, datagram(PHONE));
    sim::switch_set_mac_aging(10 * sim::SECOND);
    sim::run_until(510 * sim::SECOND);
    EXPECT_EQ(sim::switch_mac_count(), 0U) << "a shorter time counts at once";
}

TEST_F(Switch, MacTableIsBoundedAndAgesInBatches)
{
    for (uint32_t n = 0; n <= sim::SWITCH_MACS_MAX; n++)
        sim::switch_frame_in(1, datagram({2, 0, 0, static_cast<uint8_t>(n >> 16),
                                          static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)}));
    EXPECT_EQ(sim::switch_mac_count(1), sim::SWITCH_MACS_MAX);
    sim::run_until(300 * sim::SECOND);
    EXPECT_EQ(sim::switch_mac_count(), 0U);
}

TEST_F(Switch, ResultsComeLaterInOrder)
{
    const fp_udp_acl tag = acl(TAG, 102);
    EXPECT_EQ(add_ace(tag, 4, {SOURCE}), 0) << "taken, and fails later";
    EXPECT_EQ(fp->acl_create(global, &tag), 0);
    EXPECT_EQ(add_ace(tag, 5, {SOURCE, {"no_such", 1, {0}}}), -EINVAL);
    sim::fault_plan("ace_add", 1, -EBUSY);
    EXPECT_EQ(add_ace(tag, 6, {SOURCE}), -EBUSY);
    sim::fault_plan("field_make", 2, -ENOMEM);
    EXPECT_EQ(add_ace(tag, 7, {SOURCE, IN_VOICE}), -EINVAL) << "not an entry that matches more";
    apply(tag, 11);
    sim::fault_plan("ace_alloc", 1, -ENOMEM);
    sim::fault_plan("apply_alloc", 1, -ENOMEM);
    sim::fault_plan("fp_udp_get_mgr", 1, -EIO);
    const fp_udp_apply_desc nothing{};
    EXPECT_EQ(fp->ace_alloc(1, 0), nullptr);
    EXPECT_EQ(fp->apply_alloc(&nothing), nullptr);
    EXPECT_EQ(fp_udp_get_mgr(), nullptr);
    EXPECT_THAT(told, ElementsAre());
    sim::settle();
    EXPECT_THAT(told, ElementsAre("ace 4 -2", "acl 102", "ace 5 -22", "ace 6 -16", "ace 7 -22",
                                  "apply 11"));
    fp->acl_create(global, &tag);
    kt_global_finish(global);
    EXPECT_EQ(fp->acl_create(global, &tag), -ENOTCONN);
    sim::settle();
    EXPECT_EQ(told.size(), 6U) << "nobody is there to be told";
}

TEST_F(Switch, TreatmentOutlivesTheProcess)
{
    const auto in_a_life = [this](const std::function<void()> &work) {
        sim::process_run([&] {
            global = kt_global_init("life", nullptr);
            work();
            return 0;
        });
    };
    set(4, "p_bridge.vvlan_port_auto", "index.ifx=1 enable=1");
    in_a_life([this] { program(); });
    EXPECT_EQ(sim::switch_peek(1, datagram(PHONE)).cos, 6);
    in_a_life([this] {
        const fp_udp_acl tag = acl(TAG, 102);
        fp->ace_sync_begin(global, TAG);
        add_ace(tag, 1, {SOURCE, {"add_tag", 2, {0, 0, 0, 0}}});
        EXPECT_EQ(sim::switch_peek(1, datagram(PHONE)).cos, 6) << "no gap within the sync";
        fp->ace_sync_end(global, TAG);
        EXPECT_EQ(sim::switch_peek(1, datagram(PHONE)).vid, 1);
    });
}

TEST_F(Switch, DeviceMap)
{
    uint32_t out = 77;
    sim::calls_record(true);
    EXPECT_EQ(libddm_init(global, "test") | libddm_init(global, nullptr), 0);
    EXPECT_EQ(sim::calls().back().arguments, "name=(null)");
    EXPECT_NE(libddm_get_phyid_by_ifx(9, &out), 0);
    EXPECT_NE(libddm_get_ifx_by_phyid(1, &out), 0);
    EXPECT_EQ(out, 77U);
    EXPECT_EQ(libddm_get_phyid_by_ifx(2, &out), 0);
    EXPECT_EQ(out, 12U);
    EXPECT_EQ(libddm_get_ifx_by_phyid(12, &out), 0);
    EXPECT_EQ(out, 2U);
}

} // namespace
