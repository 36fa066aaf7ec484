/*
 * ctl_json - the documents that programs read; docs/vvlanctl-json.md is their
 * schema. A change that a reader could stumble over raises JSON_VERSION.
 */
#ifndef CTL_CTL_JSON_H
#define CTL_CTL_JSON_H

#include <nlohmann/json.hpp>
#include <string>

#include "ctl/ctl_state.h"
#include "object/object.h"

namespace ctl
{

/* Members stand in the order in which they are added. */
using Json = nlohmann::ordered_json;

constexpr int JSON_VERSION = 1;

/* A document with nothing in it but the version. */
Json json_document();

/* A line of text; bytes that are no UTF-8 are replaced. */
std::string json_text(const Json &json);

/*
 * Any message: every field by its name, a sub-message as an object (left out
 * when absent), a MAC as text (null when absent), bytes as hexadecimal text.
 */
Json json_message(const ProtobufCMessage &message);

/* Elements of the documents, as docs/vvlanctl-json.md has them. */
Json json_settings(const Settings &settings);
Json json_port(uint32_t ifx, const PortState &port, const Settings &settings);
Json json_oui(const Oui &oui, const OuiState &state);
Json json_mac(const MacState &mac);

/* The reported failure, or an empty array. */
Json json_events(const State &state);

} // namespace ctl

#endif
