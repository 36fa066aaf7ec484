/* The ACL tables: fields, generations, deferred destroy, precedence, and a plain model. */
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

#include "fastpath/fastpath.h"

using fastpath::Kind;
using fastpath::Phase;
using fastpath::Tables;

namespace
{

constexpr char COS[] = "vvlan_secu_pas_app";
constexpr char TAG[] = "mac_vlan_app";
constexpr char DENY[] = "vvlan_secu_deny_app";
using Fields = std::vector<fp_udp_field>;

fp_udp_acl acl(const char *app_type, uint32_t id)
{
    fp_udp_acl result{};
    std::strncpy(result.app_type, app_type, sizeof result.app_type - 1);
    result.acl_id = id;
    result.acl_kind = 4;
    return result;
}

fp_udp_apply_desc port(const char *app_type, uint32_t phyid)
{
    fp_udp_apply_desc result{};
    std::strncpy(result.app_type, app_type, sizeof result.app_type - 1);
    result.phyid = phyid;
    return result;
}

template <typename T> fp_udp_field field(const char *name, uint32_t kind, const T &value)
{
    fp_udp_field result{};
    std::strncpy(result.name, name, sizeof result.name - 1);
    result.kind = kind;
    result.length = sizeof value;
    std::memcpy(result.value, &value, sizeof value);
    return result;
}

fp_udp_field source(uint8_t last, uint8_t mask_last = 0xff)
{
    return field(
        "src_mac", 1,
        std::array<uint8_t, 12>{0, 0x11, 0x22, 0, 0, last, 255, 255, 255, 0, 0, mask_last});
}

fp_udp_field tag(uint32_t vid)
{
    return field("add_tag", 2, vid);
}

fp_udp_field mark(const char *name, uint32_t value)
{
    return field(name, 2, std::array<uint16_t, 3>{static_cast<uint16_t>(value), 0, 0});
}

fastpath::Key key(uint8_t last, uint16_t vid = 0)
{
    return {{0, 0x11, 0x22, 0, 0, last},
            vid,
            vid == 0 ? fastpath::FORM_UNTAGGED : fastpath::FORM_TAGGED};
}

/* The VLAN that untagged frames of an address get, or -1. */
int tag_of(const Tables &tables, uint32_t phyid, uint8_t last)
{
    const fastpath::Ace *ace = tables.lookup(TAG, phyid, key(last));
    return ace == nullptr ? -1 : ace->actions.add_tag.value_or(0);
}

TEST(Fastpath, FieldsAreChecked)
{
    fastpath::Ace ace;
    const std::array<uint16_t, 2> vid{100, 0xffff};
    const Fields good = {source(1, 0),
                         field("vid", 1, vid),
                         mark("cos", 6),
                         mark("ipv4_dscp", 46),
                         mark("prio_in", 6),
                         field("fwd", 2, uint8_t{0}),
                         field("vlan_form", 1, std::array<uint8_t, 2>{0, 3})};
    ASSERT_EQ(fastpath::ace_parse(3, good, &ace), 0);
    EXPECT_EQ(fastpath::ace_text(ace), "src_mac=00:11:22:00:00:01/ff:ff:ff:00:00:00 vid=100/0xffff "
                                       "vlan_form=0/3 -> cos=6 ipv4_dscp=46 prio_in=6 fwd=0");
    for (const fp_udp_field &bad :
         {field("cosy", 2, std::array<uint16_t, 3>{}), field("cos", 1, std::array<uint16_t, 3>{}),
          field("cos", 2, uint32_t{6}), mark("cos", 8), mark("ipv4_dscp", 64), tag(4096),
          field("", 2, uint8_t{0})}) {
        EXPECT_EQ(fastpath::field_check(bad), -EINVAL) << bad.name;
        EXPECT_EQ(fastpath::ace_parse(3, Fields{bad}, &ace), -EINVAL);
    }
    EXPECT_EQ(fastpath::ace_parse(3, Fields{tag(1), tag(1)}, &ace), -EINVAL);
}

TEST(Fastpath, ReplaceDeleteAndLimits)
{
    Tables tables;
    EXPECT_EQ(tables.acl_create(acl("", 1)), -EINVAL);
    fp_udp_acl endless = acl(TAG, 102);
    std::memset(endless.app_type, 'x', sizeof endless.app_type);
    EXPECT_EQ(tables.acl_create(endless), -EINVAL);
    EXPECT_EQ(tables.ace_add(acl(TAG, 102), 1, Fields{tag(1)}), -ENOENT);
    EXPECT_EQ(tables.apply_add(acl(TAG, 102), port(TAG, 1)), -ENOENT);
    EXPECT_EQ(tables.ace_del(acl(TAG, 102), 1) | tables.apply_del(acl("", 0), port(TAG, 1)) |
                  tables.acl_destroy(acl(TAG, 102)),
              0);
    ASSERT_EQ(tables.acl_create(acl(TAG, 102)), 0);
    EXPECT_EQ(tables.apply_add(acl(TAG, 102), port(COS, 1)), -EINVAL);
    for (uint64_t id = 1; id <= fastpath::ACES_MAX; id++)
        ASSERT_EQ(tables.ace_add(acl(TAG, 102), id, Fields{source(9), tag(9)}), 0);
    EXPECT_EQ(tables.ace_add(acl(TAG, 102), 0, Fields{tag(1)}), -ENOSPC);
    EXPECT_EQ(tables.ace_add(acl(TAG, 102), 5, Fields{source(5), tag(50)}), 0);
    EXPECT_EQ(tag_of(tables, 1, 5), -1) << "acts where it is applied only";
    for (uint32_t phyid = 1; phyid <= fastpath::APPLICATIONS_MAX; phyid++)
        ASSERT_EQ(tables.apply_add(acl(TAG, 102), port(TAG, phyid)), 0);
    EXPECT_EQ(tables.apply_add(acl(TAG, 102), port(TAG, 0)), -ENOSPC);
    EXPECT_EQ(tables.apply_add(acl(TAG, 102), port(TAG, 1)), 0) << "replaced, not counted again";
    EXPECT_EQ(tables.apply_del(acl(TAG, 102), port(TAG, 7)), 0);
    EXPECT_EQ(tables.apply_add(acl(TAG, 102), port(TAG, 0)), 0);
    EXPECT_EQ(tag_of(tables, 1, 5), 50);
}

TEST(Fastpath, Precedence)
{
    Tables tables;
    const std::array<uint16_t, 2> vid{100, 0xffff};
    for (const auto &[type, id] :
         {std::pair(COS, 101U), std::pair(DENY, 100U), std::pair(TAG, 102U)}) {
        tables.acl_create(acl(type, id));
        tables.apply_add(acl(type, id), port(type, 1));
    }
    tables.ace_add(acl(COS, 101), 2, Fields{source(1), field("vid", 1, vid), mark("cos", 6)});
    tables.ace_add(acl(COS, 101), 1, Fields{source(1), field("vid", 1, vid), mark("cos", 5)});
    tables.ace_add(acl(DENY, 100), 1, Fields{field("vid", 1, vid), field("fwd", 2, uint8_t{0})});
    tables.ace_add(acl(TAG, 102), 1, Fields{source(1), tag(100)});
    const auto voice = tables.decide(Phase::treat, 1, key(1, 100));
    EXPECT_STREQ(voice.app_type, COS);
    EXPECT_EQ(voice.ace->actions.cos, 5);
    EXPECT_TRUE(tables.decide(Phase::treat, 1, key(2, 100)).ace->actions.drop);
    EXPECT_EQ(tables.decide(Phase::treat, 1, key(2, 101)).ace, nullptr);
    EXPECT_EQ(tables.decide(Phase::treat, 2, key(1, 100)).ace, nullptr);
    EXPECT_EQ(tables.decide(Phase::classify, 1, key(1)).ace->actions.add_tag, 100);
}

TEST(Fastpath, RestartAndDeferredDestroy)
{
    Tables tables;
    tables.acl_create(acl(TAG, 102));
    tables.apply_add(acl(TAG, 102), port(TAG, 1));
    tables.ace_add(acl(TAG, 102), 1, Fields{source(1), tag(100)});
    tables.new_life();
    for (const Kind kind : {Kind::acl, Kind::ace, Kind::apply})
        ASSERT_EQ(tables.sync_begin(kind, TAG), 0);
    tables.acl_create(acl(TAG, 102));
    tables.ace_add(acl(TAG, 102), 1, Fields{source(1), tag(0)});
    tables.ace_del(acl(TAG, 102), 1);
    tables.acl_destroy(acl(TAG, 102));
    EXPECT_EQ(tag_of(tables, 1, 1), 100) << "what is left over stays unchanged";
    const std::string before = tables.text();
    for (int crash = 0; crash < 2; crash++) {
        tables.ace_add(acl(TAG, 102), 1, Fields{source(1), tag(100)});
        tables.new_life();
        for (const Kind kind : {Kind::acl, Kind::ace, Kind::apply})
            tables.sync_begin(kind, TAG);
    }
    EXPECT_EQ(tables.text(), before) << "a crash loop piles nothing up";
    EXPECT_EQ(tables.text(),
              "acl mac_vlan_app 102 kind=4 destroying\n"
              "  ace 1 left-over: src_mac=00:11:22:00:00:01/ff:ff:ff:00:00:ff -> "
              "add_tag=100\n"
              "  apply phyid=0x1 flag=0 left-over\nsync mac_vlan_app acl ace apply\n");
    tables.acl_create(acl(TAG, 102));
    tables.ace_add(acl(TAG, 102), 7, Fields{source(1), tag(200)});
    tables.sync_end(Kind::acl, TAG);
    tables.sync_end(Kind::ace, TAG);
    EXPECT_EQ(tag_of(tables, 1, 1), 200);
    tables.sync_end(Kind::apply, TAG);
    EXPECT_EQ(tag_of(tables, 1, 1), -1) << "not applied again";
    tables.acl_destroy(acl(TAG, 102));
    tables.ace_del(acl(TAG, 102), 7);
    EXPECT_EQ(tables.text(), "");
}

/* The tables once more, as flat lists and without any care for speed. */
struct Model {
    struct Ace {
        uint32_t acl;
        uint64_t id;
        uint8_t source;
        int tag;
        bool left;
    };
    struct Application {
        uint32_t acl, phyid;
        bool left, current;
    };
    struct Acl {
        bool left, current, destroying;
    };
    std::map<uint32_t, Acl> acls;
    std::vector<Ace> aces;
    std::vector<Application> applications;
    std::array<bool, 3> sync{};

    void new_life()
    {
        const auto aces_before = std::exchange(aces, {});
        for (const bool left : {true, false}) {
            for (Ace ace : aces_before) {
                const bool is_twin = std::ranges::any_of(aces, [&ace](const Ace &other) {
                    return std::tie(ace.acl, ace.id, ace.source, ace.tag) ==
                           std::tie(other.acl, other.id, other.source, other.tag);
                });
                if (ace.left == left && !is_twin)
                    aces.push_back({ace.acl, ace.id, ace.source, ace.tag, true});
            }
        }
        for (auto &application : applications)
            application = {application.acl, application.phyid, true, false};
        for (auto &[id, acl] : acls)
            acl = {acl.left || acl.current, false, acl.destroying};
        sync = {};
    }
    void ace(uint32_t acl, uint64_t id, int source, int tag) /* tag -1 deletes */
    {
        std::erase_if(aces, [&](const Ace &ace) {
            return ace.acl == acl && ace.id == id && (!ace.left || !sync[1]);
        });
        const auto place = std::ranges::find_if(
            aces, [&](const Ace &other) { return !other.left && other.id > id; });
        if (tag >= 0)
            aces.insert(place, {acl, id, static_cast<uint8_t>(source), tag, false});
    }
    void apply(uint32_t acl, uint32_t phyid, bool add)
    {
        bool left = false;
        std::erase_if(applications, [&](const Application &each) {
            const bool is_it = each.acl == acl && each.phyid == phyid;
            left = left || (is_it && each.left);
            return is_it;
        });
        if (add)
            applications.push_back({acl, phyid, left, true});
    }
    void end(size_t kind)
    {
        if (!std::exchange(sync[kind], false))
            return;
        if (kind == 1)
            std::erase_if(aces, [](const Ace &ace) { return ace.left; });
        if (kind == 2)
            std::erase_if(applications, [](const Application &each) { return !each.current; });
        for (auto &application : applications)
            application.left = application.left && kind != 2;
        for (auto &[id, acl] : acls) {
            if (kind == 0)
                acl = {false, acl.current, acl.destroying || (acl.left && !acl.current)};
        }
    }
    void settle()
    {
        std::erase_if(acls, [this](const auto &item) {
            const auto is_its = [&item](const auto &each) { return each.acl == item.first; };
            return item.second.destroying && std::ranges::none_of(aces, is_its) &&
                   std::ranges::none_of(applications, is_its);
        });
    }
    int tag_of(uint32_t phyid, uint8_t source) const
    {
        for (const auto &item : acls) {
            const uint32_t id = item.first;
            const bool is_applied = std::ranges::any_of(applications, [&](const auto &each) {
                return each.acl == id && each.phyid == phyid;
            });
            for (const Ace &ace : aces) {
                if (is_applied && ace.acl == id && ace.source == source)
                    return ace.tag;
            }
        }
        return -1;
    }
};

/* One random operation on both. */
void step(Tables *tables, Model *model, std::mt19937 &random)
{
    const uint32_t id = 1 + random() % 2, phyid = random() % 2;
    const uint64_t ace = random() % 3;
    const auto last = static_cast<uint8_t>(random() % 3);
    const int vid = static_cast<int>(random() % 4096);
    const auto kind = static_cast<Kind>(random() % 3);
    const fp_udp_acl name = acl(TAG, id);
    const bool exists = model->acls.contains(id);
    switch (random() % 18) {
    case 0:
        tables->new_life();
        model->new_life();
        break;
    case 1:
        tables->acl_destroy(name);
        if (exists)
            model->acls[id] = {false, false, true};
        break;
    case 2:
    case 3:
        tables->acl_create(name);
        model->acls[id] = {exists && model->acls[id].left, true, false};
        break;
    case 4:
        tables->sync_begin(kind, TAG);
        model->sync[static_cast<size_t>(kind)] = true;
        break;
    case 5:
        tables->sync_end(kind, TAG);
        model->end(static_cast<size_t>(kind));
        break;
    case 6:
    case 7:
    case 17:
        tables->ace_del(name, ace);
        model->ace(id, ace, 0, -1);
        break;
    case 8:
    case 16:
        tables->apply_del(name, port(TAG, phyid));
        model->apply(id, phyid, false);
        break;
    case 9:
    case 10:
        ASSERT_EQ(tables->apply_add(name, port(TAG, phyid)), exists ? 0 : -ENOENT);
        if (exists)
            model->apply(id, phyid, true);
        break;
    default:
        ASSERT_EQ(tables->ace_add(name, ace, Fields{source(last), tag(static_cast<uint32_t>(vid))}),
                  exists ? 0 : -ENOENT);
        if (exists)
            model->ace(id, ace, last, vid);
    }
    model->settle();
}

void compare(const Tables &tables, const Model &model)
{
    const std::string text = tables.text();
    for (const auto &[each, state] : model.acls) {
        const std::string line = "acl mac_vlan_app " + std::to_string(each) + " kind=4" +
                                 (state.left && !state.current ? " left-over" : "") +
                                 (state.destroying ? " destroying\n" : "\n");
        ASSERT_NE(text.find(line), text.npos) << line << text;
    }
    for (uint32_t at = 0; at < 6; at++)
        ASSERT_EQ(tag_of(tables, at % 2, static_cast<uint8_t>(at / 2)),
                  model.tag_of(at % 2, static_cast<uint8_t>(at / 2)))
            << text;
    const auto acls = static_cast<size_t>(std::count(text.begin(), text.end(), 'k'));
    ASSERT_EQ(acls, model.acls.size()) << text; /* one "kind" each, and no other k */
}

TEST(Fastpath, AgainstTheModel)
{
    std::mt19937 random(3);
    Tables tables;
    Model model;
    for (int round = 0; round < 30'000 && !HasFatalFailure(); round++) {
        step(&tables, &model, random);
        compare(tables, model);
    }
}

} // namespace
