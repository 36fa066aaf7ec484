#include "sim/player_object.h"

#include "platform/kt_mom.h"

namespace sim
{

namespace
{

struct ChangeWords {
    const char *kind;
    const char *set; /* %s is the number in the key, or nothing when there is none */
    const char *del;
};

/* The objects by what they mean; a `*` stands for the value of the key's first field. */
constexpr ChangeWords WORDS[] = {
    {"p_bridge.vvlan_glb_cfg", "global settings change", "global settings are deleted"},
    {"p_bridge.vvlan_oui_cfg", "OUI is configured", "OUI is no longer configured"},
    {"p_bridge.vvlan_port_cfg", "port * is configured", "port * is no longer configured"},
    {"p_bridge.vvlan_port_auto", "port * joins the voice VLAN", "port * leaves the voice VLAN"},
    {"p_bridge.vvlan_err_event", "a failure is reported", "a failure report is deleted"},
    {"s_bridge.vvlan_port_noty", "a phone is seen on phyid *", "the notice of phyid * is deleted"},
    {"u_bridge.vvlan_oui_cfg", "OUI gets ACE id *", "OUI gives ACE id * back"},
    {"u_bridge.vvlan_port_cfg", "port * is trapped", "port * is no longer trapped"},
    {"u_bridge.vvlan_join", "port *'s join is recorded", "port *'s join record goes"},
    {"u_bridge.mac_vid_reg", "MACs of VLAN * are wanted", "MACs of VLAN * are not wanted"},
    {"u_bridge.mac_vid_reg_noti", "MAC is learnt in VLAN *", "MAC is gone from VLAN *"},
    {"s_cluster.reg_pkt_info", "the packet plug-in is registered", "the packet plug-in goes"},
};

/* The value of the first field of the key as text; empty when there is none. */
std::string first_key_value(const ProtobufCMessage &message);

} // namespace

ObjectText object_parse(Cursor &cursor)
{
    ObjectText result;
    result.db = object_db_parse(cursor);
    const object::Kind *kind = object_kind_parse(cursor);
    const size_t column = cursor.column();
    object::TextError error{};
    object::Message message = object::from_text(*kind, cursor.rest(), &result.fields, &error);
    if (message == nullptr)
        throw Refusal{column + error.column - 1, error.expected};
    result.message = std::shared_ptr<const ProtobufCMessage>(std::move(message));
    return result;
}

uint32_t object_db_parse(Cursor &cursor)
{
    const size_t column = cursor.column();
    const uint64_t db = cursor.number("a database: 0, 4, 6 or 8");
    if (db != 0 && db != 4 && db != 6 && db != 8)
        throw Refusal{column, "a database: 0, 4, 6 or 8"};
    return static_cast<uint32_t>(db);
}

const object::Kind *object_kind_parse(Cursor &cursor)
{
    constexpr const char *KIND = "the full name of an object kind, such as p_bridge.vvlan_port_cfg";
    const size_t column = cursor.column();
    const object::Kind *kind = object::kind_by_name(cursor.word(KIND));
    if (kind == nullptr)
        throw Refusal{column, KIND};
    return kind;
}

std::string object_change_words(uint32_t operation, const ProtobufCMessage &message)
{
    for (const ChangeWords &words : WORDS) {
        if (std::string_view(message.descriptor->name) != words.kind)
            continue;
        std::string text = operation == KT_MOM_DEL ? words.del : words.set;
        if (const size_t star = text.find('*'); star != std::string::npos)
            text.replace(star, 1, first_key_value(message));
        return text;
    }
    return {};
}

namespace
{

std::string first_key_value(const ProtobufCMessage &message)
{
    const std::string text = object::to_text(message);
    const size_t from = text.find('=');
    return from == std::string::npos ? "" : text.substr(from + 1, text.find(' ', from) - from - 1);
}

} // namespace

} // namespace sim
