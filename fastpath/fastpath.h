/*
 * fastpath - the tables behind the fast-path ACL library (platform/fp_udp.h).
 *
 * An ACL is named by application type and id. It has entries (ACEs), looked up
 * in ascending order of id, and applications to physical ports; it acts on a
 * port only while it is applied there. This is a pure data structure: no event
 * loop, no callbacks. A platform puts its queueing in front and its frames, or
 * its hardware, behind.
 *
 * Two generations. The tables outlive the program that fills them. new_life()
 * tells that another life of it has started: everything in the tables is then
 * left over from a former life and stays in force. What the new life programs
 * stands beside it:
 *  - A left-over entry is kept unchanged, and is looked up before the new
 *    life's entries, even of its own id: ids do not mean the same entry in two
 *    lives. Between sync_begin and sync_end of an application type's entries,
 *    adding and deleting touch the new life's entries only. Outside of such a
 *    sync an add or a delete also takes the left-over entry of that id away:
 *    a program that does not use syncs sees plain replacement.
 *  - An application means the same in two lives: ACL and port. Adding it
 *    confirms the left-over one; deleting it removes it at once, sync or not.
 *  - An ACL means the same too. Creating it confirms it.
 * sync_end() removes what was left over and not programmed again; without a
 * sync_begin() in the same life it does nothing. A life that ends within a sync
 * leaves its own entries behind the older left-over ones (equal ones once), and
 * the next life's sync covers both.
 *
 * Deferred destroy. An ACL that is destroyed while it has entries or
 * applications of either generation stays, and stays in force, until the last
 * of them goes; acl_create() takes the destroy back. A destroy by the new life
 * does therefore not touch what is left over: that goes with the end of its
 * sync, so a program that destroys and creates its ACLs while it starts opens
 * no gap. An ACL that sync_end() finds not created again is destroyed in the
 * same deferred way.
 *
 * Limits: ACLS_MAX ACLs, SYNCS_MAX application types in sync, ACES_MAX entries
 * per ACL and generation, APPLICATIONS_MAX applications in all. Beyond them an
 * add gets -ENOSPC and changes nothing; left-over entries of several lives that
 * exceed ACES_MAX are cut, the youngest first.
 */
#ifndef FASTPATH_FASTPATH_H
#define FASTPATH_FASTPATH_H

#include "frame/frame.h"
#include "platform/fp_udp.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fastpath
{

constexpr size_t ACLS_MAX = 64;
constexpr size_t SYNCS_MAX = 64;
constexpr size_t ACES_MAX = 1'024;
constexpr size_t APPLICATIONS_MAX = size_t{3} * 65'536; /* three ACLs on every port */

/* How a frame arrived: the "vlan_form" of an entry. */
enum Form : uint8_t { FORM_UNTAGGED = 0, FORM_PRIORITY = 1, FORM_TAGGED = 2 };

/* What entries match on. */
struct Key {
    frame::Mac src{};
    uint16_t vid = 0; /* the VLAN that the frame is in so far; 0 before it has one */
    Form form = FORM_UNTAGGED;
};

struct Match {
    struct Address {
        frame::Mac value, mask;
        bool operator==(const Address &) const = default;
    };
    struct Vid {
        uint16_t value, mask;
        bool operator==(const Vid &) const = default;
    };
    struct VlanForm {
        uint8_t value, mask;
        bool operator==(const VlanForm &) const = default;
    };
    std::optional<Address> src_mac;
    std::optional<Vid> vid;
    std::optional<VlanForm> vlan_form;
    bool operator==(const Match &) const = default;
};

struct Actions {
    std::optional<uint8_t> cos;       /* 0..7 */
    std::optional<uint8_t> ipv4_dscp; /* 0..63 */
    std::optional<uint8_t> prio_in;   /* 0..7 */
    std::optional<uint16_t> add_tag;  /* 0..4095; 0: no VLAN yet, leaves the frame alone */
    bool drop = false;                /* "fwd" 0 */
    bool operator==(const Actions &) const = default;
};

struct Ace {
    uint64_t id = 0;
    Match match;
    Actions actions;
    bool operator==(const Ace &) const = default;
};

/*
 * When, in the way of a frame through the switch, an ACL acts. Within a phase
 * the ACLs come in a fixed order of precedence and the first that matches
 * decides: a frame that the CoS ACL ("vvlan_secu_pas_app") matched is voice and
 * is not seen by the security ACL ("vvlan_secu_deny_app").
 */
enum class Phase {
    classify, /* before the frame's VLAN is decided: "mac_vlan_app" */
    treat     /* in its VLAN: "vvlan_secu_pas_app", then "vvlan_secu_deny_app" */
};

/* The entry that decides a phase, or none. Valid until the tables change. */
struct Hit {
    const Ace *ace = nullptr;
    const char *app_type = "";
};

enum class Kind { acl, ace, apply };

/*
 * 0, or -EINVAL for a field of unknown name, of another kind or length than
 * its name has, or with an action value out of range.
 */
int field_check(const fp_udp_field &field);

/*
 * An entry from its field list. Returns 0, or -EINVAL when field_check()
 * refuses a field or a name stands twice.
 */
int ace_parse(uint64_t id, std::span<const fp_udp_field> fields, Ace *ace);

/* "src_mac=00:11:22:00:00:00/ff:ff:ff:00:00:00 vid=100/0xffff -> cos=6 prio_in=6" */
std::string ace_text(const Ace &ace);

class Tables
{
public:
    /* Another life of the program has started; syncs that were open are so no more. */
    void new_life();

    /*
     * Programming. 0, or -EINVAL for a descriptor without a terminated,
     * non-empty application type (a delete takes an empty one: it names
     * nothing) or with bad fields, -ENOENT for adding to an ACL that does not
     * exist, -ENOSPC at a limit. Adding what exists replaces it, deleting what
     * is absent is 0.
     */
    int acl_create(const fp_udp_acl &acl);
    int acl_destroy(const fp_udp_acl &acl);
    int ace_add(const fp_udp_acl &acl, uint64_t ace_id, std::span<const fp_udp_field> fields);
    int ace_del(const fp_udp_acl &acl, uint64_t ace_id);
    /* The application type of both descriptors must be the same. */
    int apply_add(const fp_udp_acl &acl, const fp_udp_apply_desc &apply);
    int apply_del(const fp_udp_acl &acl, const fp_udp_apply_desc &apply);

    /* 0, -EINVAL for an empty or too long application type, -ENOSPC at the limit of syncs. */
    int sync_begin(Kind kind, std::string_view app_type);
    int sync_end(Kind kind, std::string_view app_type);

    /* Whether a sync of any kind and application type is open. */
    bool is_syncing() const;

    /*
     * The first entry that matches on a port, of the ACLs of one application
     * type in ascending order of ACL id, or null. Valid until the next change.
     */
    const Ace *lookup(std::string_view app_type, uint32_t phyid, const Key &key) const;

    /* The entry that decides a phase for a frame. */
    Hit decide(Phase phase, uint32_t phyid, const Key &key) const;

    /* Ids of an application type's ACLs that are applied to a port, ascending. */
    std::vector<uint32_t> applied(std::string_view app_type, uint32_t phyid) const;

    /* Every table as text, sorted, one item a line; what is left over is marked so. */
    std::string text() const;

private:
    struct Application {
        std::optional<uint32_t> left, current; /* the apply flag, per generation */
    };
    struct Acl {
        uint8_t acl_kind = 0;
        bool left = false, current = false; /* created in which generation */
        bool destroying = false;
        std::vector<Ace> left_aces;   /* in order of lookup */
        std::map<uint64_t, Ace> aces; /* the current life's */
        std::map<uint32_t, Application> applications;
    };
    using AclName = std::pair<std::string, uint32_t>;
    using Acls = std::map<AclName, Acl>;

    Acls::iterator find(const fp_udp_acl &acl);
    bool in_sync(Kind kind, std::string_view app_type) const;
    Acls::iterator settle(Acls::iterator at);
    void drop_left(Kind kind, Acl *acl);
    void forget_left(Acls::iterator at, uint64_t ace_id);
    static void leave(Acl *acl);
    static const Ace *match(const Acl &acl, const Key &key);
    static void acl_text(const AclName &name, const Acl &acl, std::string *out);

    Acls acls_;
    std::map<std::string, std::array<bool, 3>, std::less<>> syncs_; /* open, by Kind */
    size_t applications_ = 0;                                       /* in all ACLs */
};

} // namespace fastpath

#endif
