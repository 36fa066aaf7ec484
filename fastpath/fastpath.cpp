#include "fastpath/fastpath.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace fastpath
{
namespace
{

constexpr std::array<const char *, 3> KIND_NAMES = {"acl", "ace", "apply"};

constexpr uint16_t COS_MAX = 7;
constexpr uint16_t DSCP_MAX = 63;
constexpr uint16_t VID_MAX = 4095;

/* In order of precedence within a phase. */
struct Stage {
    Phase phase;
    const char *app_type;
};
constexpr std::array<Stage, 3> STAGES = {{
    {Phase::classify, "mac_vlan_app"},
    {Phase::treat, "vvlan_secu_pas_app"},
    {Phase::treat, "vvlan_secu_deny_app"},
}};

template <typename T> T load(const uint8_t *value)
{
    T result;
    std::memcpy(&result, value, sizeof result);
    return result;
}

/* An action's 32-bit value, refused above its range. */
template <typename T> bool read_action(const uint8_t *value, uint32_t max, std::optional<T> *out)
{
    const auto number = load<uint32_t>(value);
    if (number > max)
        return false;
    *out = static_cast<T>(number);
    return true;
}

struct FieldShape {
    const char *name;
    uint32_t kind;
    uint32_t length;
    bool (*read)(const uint8_t *value, Ace *ace); /* false: out of range */
};

const std::array<FieldShape, 8> FIELDS = {{
    {"src_mac", FP_UDP_FIELD_MATCH, 12,
     [](const uint8_t *v, Ace *ace) {
         ace->match.src_mac = {load<frame::Mac>(v), load<frame::Mac>(v + 6)};
         return true;
     }},
    {"vid", FP_UDP_FIELD_MATCH, 4,
     [](const uint8_t *v, Ace *ace) {
         ace->match.vid = {load<uint16_t>(v), load<uint16_t>(v + 2)};
         return true;
     }},
    {"vlan_form", FP_UDP_FIELD_MATCH, 2,
     [](const uint8_t *v, Ace *ace) {
         ace->match.vlan_form = {v[0], v[1]};
         return true;
     }},
    {"cos", FP_UDP_FIELD_ACTION, 6,
     [](const uint8_t *v, Ace *ace) { return read_action(v, COS_MAX, &ace->actions.cos); }},
    {"ipv4_dscp", FP_UDP_FIELD_ACTION, 6,
     [](const uint8_t *v, Ace *ace) { return read_action(v, DSCP_MAX, &ace->actions.ipv4_dscp); }},
    {"prio_in", FP_UDP_FIELD_ACTION, 6,
     [](const uint8_t *v, Ace *ace) { return read_action(v, COS_MAX, &ace->actions.prio_in); }},
    {"add_tag", FP_UDP_FIELD_ACTION, 4,
     [](const uint8_t *v, Ace *ace) { return read_action(v, VID_MAX, &ace->actions.add_tag); }},
    {"fwd", FP_UDP_FIELD_ACTION, 1,
     [](const uint8_t *v, Ace *ace) {
         ace->actions.drop = v[0] == 0;
         return true;
     }},
}};

/* Index of the field among those there are; FIELDS.size() when it is none of them. */
size_t shape_index(const fp_udp_field &field)
{
    const auto at = std::find_if(FIELDS.begin(), FIELDS.end(), [&field](const FieldShape &shape) {
        return std::strncmp(field.name, shape.name, sizeof field.name) == 0 &&
               field.kind == shape.kind && field.length == shape.length;
    });
    return static_cast<size_t>(at - FIELDS.begin());
}

bool matches(const Match &match, const Key &key)
{
    if (match.src_mac) {
        for (size_t i = 0; i < key.src.size(); i++) {
            if (((key.src[i] ^ match.src_mac->value[i]) & match.src_mac->mask[i]) != 0)
                return false;
        }
    }
    if (match.vid && ((key.vid ^ match.vid->value) & match.vid->mask) != 0)
        return false;
    return !match.vlan_form || ((key.form ^ match.vlan_form->value) & match.vlan_form->mask) == 0;
}

[[gnu::format(printf, 2, 3)]] void add_text(std::string *out, const char *format, ...)
{
    char text[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    *out += text;
}

template <typename T>
void add_action(std::string *out, const char *name, const std::optional<T> &value)
{
    if (value)
        add_text(out, " %s=%u", name, static_cast<unsigned>(*value));
}

/* The application type of a descriptor, or nothing where it is not terminated. */
std::optional<std::string> app_type_of(const char (&name)[FP_UDP_APP_TYPE_SIZE])
{
    const void *end = std::memchr(name, '\0', sizeof name);
    return end == nullptr ? std::nullopt : std::optional<std::string>(name);
}

/* For what is added: named by a type that is terminated and not empty. */
bool is_named(const char (&name)[FP_UDP_APP_TYPE_SIZE])
{
    return name[0] != '\0' && app_type_of(name).has_value();
}

bool is_sync_name(std::string_view app_type)
{
    return !app_type.empty() && app_type.size() < FP_UDP_APP_TYPE_SIZE;
}

} // namespace

int field_check(const fp_udp_field &field)
{
    const size_t index = shape_index(field);
    Ace scratch;
    return index < FIELDS.size() && FIELDS[index].read(field.value, &scratch) ? 0 : -EINVAL;
}

int ace_parse(uint64_t id, std::span<const fp_udp_field> fields, Ace *ace)
{
    Ace parsed;
    parsed.id = id;
    std::array<bool, FIELDS.size()> seen{};
    for (const fp_udp_field &field : fields) {
        const size_t index = shape_index(field);
        if (index == FIELDS.size() || seen[index] || !FIELDS[index].read(field.value, &parsed))
            return -EINVAL;
        seen[index] = true;
    }
    *ace = parsed;
    return 0;
}

std::string ace_text(const Ace &ace)
{
    std::string text;
    if (const auto &mac = ace.match.src_mac)
        text += " src_mac=" + frame::mac_text(mac->value) + "/" + frame::mac_text(mac->mask);
    if (const auto &vid = ace.match.vid)
        add_text(&text, " vid=%u/0x%x", vid->value, vid->mask);
    if (const auto &form = ace.match.vlan_form)
        add_text(&text, " vlan_form=%u/%u", form->value, form->mask);
    text = text.empty() ? "any" : text.substr(1);
    text += " ->";
    add_action(&text, "cos", ace.actions.cos);
    add_action(&text, "ipv4_dscp", ace.actions.ipv4_dscp);
    add_action(&text, "prio_in", ace.actions.prio_in);
    add_action(&text, "add_tag", ace.actions.add_tag);
    if (ace.actions.drop)
        text += " fwd=0";
    return text;
}

void Tables::new_life()
{
    for (auto &[name, acl] : acls_)
        leave(&acl);
    syncs_.clear();
}

int Tables::acl_create(const fp_udp_acl &acl)
{
    if (!is_named(acl.app_type))
        return -EINVAL;
    auto at = find(acl);
    if (at == acls_.end()) {
        if (acls_.size() >= ACLS_MAX)
            return -ENOSPC;
        at = acls_.try_emplace({acl.app_type, acl.acl_id}).first;
    }
    at->second.acl_kind = acl.acl_kind;
    at->second.current = true;
    at->second.destroying = false;
    return 0;
}

int Tables::acl_destroy(const fp_udp_acl &acl)
{
    if (!app_type_of(acl.app_type))
        return -EINVAL;
    const auto at = find(acl);
    if (at == acls_.end())
        return 0;
    at->second.left = false;
    at->second.current = false;
    at->second.destroying = true;
    settle(at);
    return 0;
}

int Tables::ace_add(const fp_udp_acl &acl, uint64_t ace_id, std::span<const fp_udp_field> fields)
{
    Ace ace;
    if (!is_named(acl.app_type) || ace_parse(ace_id, fields, &ace) != 0)
        return -EINVAL;
    const auto at = find(acl);
    if (at == acls_.end())
        return -ENOENT;
    auto &aces = at->second.aces;
    if (aces.size() >= ACES_MAX && !aces.contains(ace_id))
        return -ENOSPC;
    forget_left(at, ace_id);
    aces[ace_id] = ace;
    return 0;
}

int Tables::ace_del(const fp_udp_acl &acl, uint64_t ace_id)
{
    if (!app_type_of(acl.app_type))
        return -EINVAL;
    const auto at = find(acl);
    if (at == acls_.end())
        return 0;
    at->second.aces.erase(ace_id);
    forget_left(at, ace_id);
    settle(at);
    return 0;
}

int Tables::apply_add(const fp_udp_acl &acl, const fp_udp_apply_desc &apply)
{
    if (!is_named(acl.app_type) || app_type_of(apply.app_type) != app_type_of(acl.app_type))
        return -EINVAL;
    const auto at = find(acl);
    if (at == acls_.end())
        return -ENOENT;
    auto &applications = at->second.applications;
    const bool is_new = !applications.contains(apply.phyid);
    if (is_new && applications_ >= APPLICATIONS_MAX)
        return -ENOSPC;
    applications[apply.phyid].current = apply.apply_flag;
    applications_ += is_new ? 1 : 0;
    return 0;
}

int Tables::apply_del(const fp_udp_acl &acl, const fp_udp_apply_desc &apply)
{
    if (!app_type_of(acl.app_type) || !app_type_of(apply.app_type))
        return -EINVAL;
    const auto at = find(acl);
    if (at == acls_.end())
        return 0;
    applications_ -= at->second.applications.erase(apply.phyid);
    settle(at);
    return 0;
}

int Tables::sync_begin(Kind kind, std::string_view app_type)
{
    if (!is_sync_name(app_type))
        return -EINVAL;
    auto at = syncs_.find(app_type);
    if (at == syncs_.end()) {
        if (syncs_.size() >= SYNCS_MAX)
            return -ENOSPC;
        at = syncs_.try_emplace(std::string(app_type)).first;
    }
    at->second[static_cast<size_t>(kind)] = true;
    return 0;
}

bool Tables::is_syncing() const
{
    return !syncs_.empty();
}

int Tables::sync_end(Kind kind, std::string_view app_type)
{
    if (!is_sync_name(app_type))
        return -EINVAL;
    if (!in_sync(kind, app_type))
        return 0;
    const auto sync = syncs_.find(app_type);
    sync->second[static_cast<size_t>(kind)] = false;
    if (sync->second == std::array<bool, 3>{})
        syncs_.erase(sync);
    for (auto at = acls_.begin(); at != acls_.end();) {
        if (at->first.first == app_type)
            drop_left(kind, &at->second);
        at = settle(at);
    }
    return 0;
}

const Ace *Tables::lookup(std::string_view app_type, uint32_t phyid, const Key &key) const
{
    for (const auto &[name, acl] : acls_) {
        if (name.first != app_type || !acl.applications.contains(phyid))
            continue;
        if (const Ace *ace = match(acl, key))
            return ace;
    }
    return nullptr;
}

Hit Tables::decide(Phase phase, uint32_t phyid, const Key &key) const
{
    for (const Stage &stage : STAGES) {
        if (stage.phase != phase)
            continue;
        if (const Ace *ace = lookup(stage.app_type, phyid, key))
            return {ace, stage.app_type};
    }
    return {};
}

std::vector<uint32_t> Tables::applied(std::string_view app_type, uint32_t phyid) const
{
    std::vector<uint32_t> ids;
    for (const auto &[name, acl] : acls_) {
        if (name.first == app_type && acl.applications.contains(phyid))
            ids.push_back(name.second);
    }
    return ids;
}

std::string Tables::text() const
{
    std::string out;
    for (const auto &[name, acl] : acls_)
        acl_text(name, acl, &out);
    for (const auto &[app_type, open] : syncs_) {
        out += "sync " + app_type;
        for (size_t kind = 0; kind < open.size(); kind++)
            out += open[kind] ? std::string(" ") + KIND_NAMES[kind] : "";
        out += '\n';
    }
    return out;
}

Tables::Acls::iterator Tables::find(const fp_udp_acl &acl)
{
    const std::optional<std::string> app_type = app_type_of(acl.app_type);
    return app_type ? acls_.find({*app_type, acl.acl_id}) : acls_.end();
}

bool Tables::in_sync(Kind kind, std::string_view app_type) const
{
    const auto at = syncs_.find(app_type);
    return at != syncs_.end() && at->second[static_cast<size_t>(kind)];
}

/* Lets a deferred destroy take effect when its time has come. Returns the next ACL. */
Tables::Acls::iterator Tables::settle(Acls::iterator at)
{
    const Acl &acl = at->second;
    const bool is_empty = acl.aces.empty() && acl.left_aces.empty() && acl.applications.empty();
    return acl.destroying && is_empty ? acls_.erase(at) : std::next(at);
}

void Tables::drop_left(Kind kind, Acl *acl)
{
    switch (kind) {
    case Kind::acl:
        acl->destroying = acl->destroying || (acl->left && !acl->current);
        acl->left = false;
        break;
    case Kind::ace:
        acl->left_aces.clear();
        break;
    case Kind::apply:
        for (auto &[phyid, application] : acl->applications)
            application.left.reset();
        applications_ -= std::erase_if(
            acl->applications, [](const auto &item) { return !item.second.current.has_value(); });
        break;
    }
}

/* Outside of a sync an id means the same entry in both generations. */
void Tables::forget_left(Acls::iterator at, uint64_t ace_id)
{
    if (!in_sync(Kind::ace, at->first.first))
        std::erase_if(at->second.left_aces, [ace_id](const Ace &ace) { return ace.id == ace_id; });
}

/* Turns what the life that has ended programmed into what is left over. */
void Tables::leave(Acl *acl)
{
    acl->left = acl->left || acl->current;
    acl->current = false;
    for (const auto &[id, ace] : acl->aces) {
        const auto &left = acl->left_aces;
        const bool is_known = std::find(left.begin(), left.end(), ace) != left.end();
        if (!is_known && left.size() < ACES_MAX)
            acl->left_aces.push_back(ace);
    }
    acl->aces.clear();
    for (auto &[phyid, application] : acl->applications) {
        if (!application.left)
            application.left = application.current;
        application.current.reset();
    }
}

const Ace *Tables::match(const Acl &acl, const Key &key)
{
    for (const Ace &ace : acl.left_aces) {
        if (matches(ace.match, key))
            return &ace;
    }
    for (const auto &[id, ace] : acl.aces) {
        if (matches(ace.match, key))
            return &ace;
    }
    return nullptr;
}

void Tables::acl_text(const AclName &name, const Acl &acl, std::string *out)
{
    *out += "acl " + name.first;
    add_text(out, " %u kind=%u%s%s\n", name.second, acl.acl_kind,
             acl.left && !acl.current ? " left-over" : "", acl.destroying ? " destroying" : "");
    const auto add_ace = [out](const Ace &ace, const char *mark) {
        add_text(out, "  ace %llu%s: ", static_cast<unsigned long long>(ace.id), mark);
        *out += ace_text(ace) + "\n";
    };
    for (const Ace &ace : acl.left_aces)
        add_ace(ace, " left-over");
    for (const auto &[id, ace] : acl.aces)
        add_ace(ace, "");
    for (const auto &[phyid, application] : acl.applications) {
        const bool is_current = application.current.has_value();
        add_text(out, "  apply phyid=0x%x flag=%u%s\n", phyid,
                 is_current ? *application.current : application.left.value_or(0),
                 is_current ? "" : " left-over");
    }
}

} // namespace fastpath
