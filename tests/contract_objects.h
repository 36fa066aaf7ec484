/*
 * Objects and messages as text, for the tests of the object database.
 */
#ifndef TESTS_CONTRACT_OBJECTS_H
#define TESTS_CONTRACT_OBJECTS_H

#include "mom/kt_mom_peer.h"
#include "object/object.h"
#include "platform/kt_mom.h"

#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace contract
{

using Lines = std::vector<std::string>;

inline const char *const PORT = "p_bridge.vvlan_port_cfg";
inline const char *const GLOBAL = "p_bridge.vvlan_glb_cfg";
inline const char *const NOTICE = "u_bridge.mac_vid_reg_noti";
inline const char *const OWNED = "u_bridge.mac_vid_reg";

inline uint32_t db_of(const char *kind)
{
    return *kind == 'u' ? 6 : 4;
}

struct Made {
    object::Message message;
    std::vector<uint32_t> fields;
    operator const ProtobufCMessage *() const
    {
        return message.get();
    }
};

/* From text; empty text is the template of the whole kind. */
inline Made make(const char *kind, const std::string &text = "")
{
    Made made;
    const object::Kind *known = object::kind_by_name(kind);
    made.message = text.empty() ? object::empty(*known)
                                : object::from_text(*known, text, &made.fields, nullptr);
    EXPECT_NE(made.message, nullptr) << text;
    return made;
}

inline std::string port_text(uint32_t ifx)
{
    return "index.ifx=" + std::to_string(ifx);
}

/* What one callback was told, a line each. */
struct Seen {
    Lines lines;
    std::function<void(const kt_mom_msg &)> then;

    Lines take()
    {
        return std::exchange(lines, {});
    }
};

inline std::string text_of(const kt_mom_msg &msg)
{
    if (msg.operation == KT_MOM_RESYNC)
        return "resync";
    if (msg.operation == KT_MOM_UNSUBSCRIBED)
        return "gone";
    if (msg.scan_state != KT_MOM_CHANGE)
        return msg.operation != KT_MOM_NONE || msg.object != nullptr
                   ? "malformed"
                   : std::array{"", "over", "start", "note", "again"}[msg.scan_state];
    if (msg.operation == KT_MOM_HSET) {
        const auto *hash = static_cast<const kt_mom_hash *>(msg.object);
        std::string text = "hset";
        for (uint32_t i = 0; i < hash->count; i++)
            text += (i == 0 ? " " : ",") + std::to_string(hash->fields[i]);
        return text + ": " + object::to_text(*hash->object);
    }
    const char *verb = msg.operation == KT_MOM_SET   ? "set "
                       : msg.operation == KT_MOM_DEL ? "del "
                                                     : "publish ";
    return verb + object::to_text(*static_cast<const ProtobufCMessage *>(msg.object));
}

inline int record(kt_global *, const kt_mom_msg *msg, void *user)
{
    Seen &seen = *static_cast<Seen *>(user);
    seen.lines.push_back(text_of(*msg));
    if (seen.then)
        seen.then(*msg);
    return -1; /* is to have no effect */
}

} // namespace contract

#endif
