#include "ctl/ctl_json.h"

#include "object/object_field.h"
#include "proto/key_role.h"
#include "proto/p_bridge.pb-c.h"
#include "words/words.h"

namespace ctl
{

namespace
{

Json json_field(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);
std::string hexadecimal(std::string_view bytes);

template <typename Value> Json json_or_null(const std::optional<Value> &value)
{
    return value ? Json(*value) : Json(nullptr);
}

} // namespace

Json json_document()
{
    Json json = Json::object();
    json["version"] = JSON_VERSION;
    return json;
}

std::string json_text(const Json &json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json json_message(const ProtobufCMessage &message)
{
    Json json = Json::object();
    for (const ProtobufCFieldDescriptor &field : object::fields_of(*message.descriptor)) {
        const uint32_t role = proto_key_role(&field);
        const bool is_mac = role == PROTO_KEY_ROLE_MAC || role == PROTO_KEY_ROLE_MAC_FIELD;
        const bool is_absent = field.type == PROTOBUF_C_TYPE_MESSAGE &&
                               object::member<ProtobufCMessage *>(message, field) == nullptr;
        if (is_absent && is_mac)
            json[field.name] = nullptr;
        else if (is_mac)
            json[field.name] =
                words::mac(words::mac_of(object::member<PLibpub__Mac *>(message, field)));
        else if (!is_absent)
            json[field.name] = json_field(message, field);
    }
    return json;
}

Json json_settings(const Settings &settings)
{
    return {{"vlan", settings.vlan},         {"enable", settings.enable},
            {"security", settings.security}, {"aging_minutes", settings.aging},
            {"cos", settings.cos},           {"dscp", settings.dscp}};
}

Json json_port(uint32_t ifx, const PortState &port, const Settings &settings)
{
    Json json = {{"port", ifx},
                 {"configured", port.configured},
                 {"enabled", port.enabled},
                 {"mode", port.automatic ? "auto" : "manual"},
                 {"state", port_word(port, settings)},
                 {"trapped", port.trapped},
                 {"joined", port.joined},
                 {"recorded", port.recorded},
                 {"voice_macs", port.voice_macs},
                 {"phyid", nullptr},
                 {"quiet_seconds", nullptr},
                 {"left_seconds", json_or_null(port_left(port))}};
    if (port.daemon) {
        json["phyid"] = port.daemon->phyid;
        json["quiet_seconds"] = port.daemon->quiet;
    }
    return json;
}

Json json_oui(const Oui &oui, const OuiState &state)
{
    const int length = words::mask_length(oui.mask);
    return {{"mac", words::mac(oui.mac)},
            {"mask", words::mac(oui.mask)},
            {"prefix", length < 0 ? Json(nullptr) : Json(length)},
            {"configured", state.configured},
            {"ace_id", json_or_null(state.ace_id)}};
}

Json json_mac(const MacState &mac)
{
    return {{"mac", words::mac(mac.mac)},
            {"vlan", mac.vlan},
            {"port", mac.port},
            {"oui", mac.oui ? Json(words::oui(*mac.oui)) : Json(nullptr)},
            {"voice", mac.is_voice}};
}

Json json_events(const State &state)
{
    Json events = Json::array();
    if (state.failure == nullptr)
        return events;
    const auto &event = *reinterpret_cast<const PBridge__VvlanErrEvent *>(state.failure.get());
    const auto *name = protobuf_c_enum_descriptor_get_value(&p_bridge__vvlan_err_type__descriptor,
                                                            static_cast<int>(event.msg_type));
    Json json = {{"type", event.msg_type},
                 {"name", name == nullptr ? Json(nullptr) : Json(name->name)},
                 {"words", words::failure(event)},
                 {"object", json_message(event.base)}};
    events.push_back(std::move(json));
    return events;
}

namespace
{

Json json_field(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_MESSAGE:
        return json_message(*object::member<ProtobufCMessage *>(message, field));
    case PROTOBUF_C_TYPE_STRING:
        return std::string(object::text_of(message, field));
    case PROTOBUF_C_TYPE_BYTES:
        return hexadecimal(object::bytes_of(message, field));
    default:
        return object::member<uint32_t>(message, field);
    }
}

std::string hexadecimal(std::string_view bytes)
{
    constexpr const char *DIGITS = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<uint8_t>(byte);
        text += DIGITS[value >> 4];
        text += DIGITS[value & 0x0f];
    }
    return text;
}

} // namespace

} // namespace ctl
