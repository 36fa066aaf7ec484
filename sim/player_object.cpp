#include "sim/player_object.h"

#include "platform/kt_mom.h"

namespace sim
{

namespace
{

struct ChangeWords {
    const char *kind;
    const char *set; /* {field} stands for the value of that field */
    const char *del;
};

constexpr ChangeWords WORDS[] = {
    {"p_bridge.vvlan_glb_cfg", "the global settings change", "the global settings are deleted"},
    {"p_bridge.vvlan_oui_cfg", "an OUI is configured", "an OUI is no longer configured"},
    {"p_bridge.vvlan_port_cfg", "port {index.ifx} is configured",
     "port {index.ifx} is no longer configured"},
    {"p_bridge.vvlan_port_auto", "port {index.ifx} joins the voice VLAN",
     "port {index.ifx} leaves the voice VLAN"},
    {"p_bridge.vvlan_err_event", "a failure is reported", "a failure report is deleted"},
    {"s_bridge.vvlan_port_noty", "a voice device is seen", "a notice is deleted"},
    {"u_bridge.mac_vid_reg_noti", "{index.t_mac} is learnt on port {port_id}",
     "{index.t_mac} is gone from port {port_id}"},
    {"u_bridge.vvlan_oui_cfg", "the OUI gets ACE id {index.ace_id}",
     "ACE id {index.ace_id} is given back"},
    {"u_bridge.vvlan_port_cfg", "port {index.ifx} is trapped", "the trap of port {index.ifx} goes"},
    {"u_bridge.vvlan_join", "port {index.ifx} is recorded as joined",
     "port {index.ifx}'s join record goes"},
    {"u_bridge.mac_vid_reg", "MACs of VLAN {index.vid} are wanted",
     "MACs of VLAN {index.vid} are not wanted"},
    {"s_cluster.reg_pkt_info", "the packet plug-in is registered", "the packet plug-in goes"},
};

/* The value of a field as object::to_text() writes it; empty when it is left out there. */
std::string field_text(const std::string &text, const std::string &field);

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
        const std::string values = object::to_text(message);
        std::string text = operation == KT_MOM_DEL ? words.del : words.set;
        for (size_t open; (open = text.find('{')) != std::string::npos;) {
            const size_t close = text.find('}', open);
            const std::string field = text.substr(open + 1, close - open - 1);
            text.replace(open, close - open + 1, field_text(values, field));
        }
        return text;
    }
    return {};
}

namespace
{

std::string field_text(const std::string &text, const std::string &field)
{
    const size_t at = (" " + text).find(" " + field + "=");
    if (at == std::string::npos)
        return {};
    const size_t from = at + field.size() + 1;
    return text.substr(from, text.find(' ', from) - from);
}

} // namespace

} // namespace sim
