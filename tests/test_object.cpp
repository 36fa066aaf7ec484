#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <tuple>

#include "object/object.h"
#include "platform/kt_mom.h"
#include "proto/key_role.h"
#include "proto/p_bridge.pb-c.h"

using object::Message;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using Random = std::mt19937;

uint32_t below(Random &random, uint32_t bound)
{
    return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random);
}

// protobuf-c's own encoding, as the measure of what a message holds.
std::string packed(const ProtobufCMessage &message)
{
    std::string out(protobuf_c_message_get_packed_size(&message), '\0');
    protobuf_c_message_pack(&message, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

Message read(const char *kind, std::string_view text)
{
    object::TextError error = {0, ""};
    auto message = object::from_text(*object::kind_by_name(kind), text, nullptr, &error);
    EXPECT_NE(message, nullptr) << text << ": column " << error.column << ": " << error.expected;
    return message;
}

std::string random_bytes(Random &random, uint32_t length, uint32_t lowest)
{
    std::string bytes(length, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(lowest + below(random, 256 - lowest));
    return bytes;
}

template <typename T> T &at(ProtobufCMessage *message, const ProtobufCFieldDescriptor &field)
{
    return *reinterpret_cast<T *>(reinterpret_cast<char *>(message) + field.offset);
}

// Each field is left alone once in three times and else filled with anything
// its type can hold.
ProtobufCMessage *random_message(Random &random, const ProtobufCMessageDescriptor &type)
{
    auto *message = static_cast<ProtobufCMessage *>(std::malloc(type.sizeof_message));
    protobuf_c_message_init(&type, message);
    for (unsigned i = 0; i < type.n_fields; i++) {
        const auto &field = type.fields[i];
        if (below(random, 3) == 0)
            continue;
        if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
            at<ProtobufCMessage *>(message, field) = random_message(
                random, *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor));
        } else if (field.type == PROTOBUF_C_TYPE_STRING) {
            at<char *>(message, field) = strdup(random_bytes(random, below(random, 9), 1).c_str());
        } else if (field.type == PROTOBUF_C_TYPE_BYTES) {
            auto bytes =
                random_bytes(random, std::array{0U, 1U, 5U, 6U, 6U, 7U}[below(random, 6)], 0);
            at<ProtobufCBinaryData>(message, field) = {
                bytes.size(),
                reinterpret_cast<uint8_t *>(bytes.empty() ? nullptr : std::malloc(bytes.size()))};
            std::copy(bytes.begin(), bytes.end(), at<ProtobufCBinaryData>(message, field).data);
        } else {
            at<uint32_t>(message, field) = std::array{0U, 1U, 4094U, ~0U}[below(random, 4)];
        }
    }
    return message;
}

TEST(Schema, NumbersAndKeyRolesOfEveryField)
{
    std::vector<std::string> schema;
    size_t count = 0;
    const auto *const *types = proto_messages(&count);
    for (const auto *type : std::span(types, count)) {
        schema.emplace_back(type->name);
        for (const auto &field : std::span(type->fields, type->n_fields)) {
            const auto role = proto_key_role(&field);
            schema.back() += " " + std::to_string(field.id) + "." + field.name;
            schema.back() += role != 0 ? "/" + std::to_string(role) : "";
        }
    }
    const char *expected[] = {
        "p_libpub.mac 1.data",
        "p_bridge.vvlan_index 1.ifx/1",
        "p_bridge.b_qos 1.cos 2.dscp",
        "p_bridge.vvlan_en 1.vlan 2.enable",
        "p_bridge.b_oui 1.mac/33 2.mask/33",
        "s_bridge.vvlan_index 1.phyid/1",
        "u_bridge.vvlan_index 1.ifx/1",
        "u_bridge.vvlan_oui_cfg_index 6.ace_id/1",
        "u_bridge.b_oui 1.mac/32 2.mask/32",
        "u_bridge.udp_l2addr_base_index 1.t_fid/1 2.t_type/1 3.t_mac/33",
        "u_bridge.mac_vid_index 1.vid/1",
        "s_cluster.app_name 1.name/1",
        "p_bridge.vvlan_glb_cfg 5.glb_switch 6.secu_mode 7.age_time 8.qos",
        "p_bridge.vvlan_oui_cfg 5.index/2",
        "p_bridge.vvlan_port_cfg 5.index/2 6.enable 7.mode",
        "p_bridge.vvlan_port_auto 5.index/2 6.enable",
        "p_bridge.vvlan_err_event 5.msg_type 6.vid 7.ifx 8.qos 9.oui",
        "s_bridge.vvlan_port_noty 5.index/2",
        "u_bridge.vvlan_oui_cfg 5.index/2 6.oui",
        "u_bridge.vvlan_port_cfg 5.index/2",
        "u_bridge.vvlan_join 5.index/2",
        "u_bridge.mac_vid_reg 5.index/2",
        ("u_bridge.mac_vid_reg_noti 5.index/2 6.port_type 7.port_id 8.sub_port_id 9.metadata"
         " 10.flag"),
        "s_cluster.reg_pkt_info 5.index/2 6.dlib_name 7.reg_type",
    };
    EXPECT_THAT(schema, testing::UnorderedElementsAreArray(expected));
    const auto copied = p_bridge__vvlan_index__descriptor.fields[0];
    EXPECT_EQ(proto_key_role(&copied), 0U);
    EXPECT_EQ(proto_key_role(nullptr), 0U);
}

TEST(Object, KindsAreTheTwelveObjects)
{
    std::vector<std::string> names, unkeyed;
    for (const auto *kind : object::kinds()) {
        names.emplace_back(object::kind_name(*kind));
        if (!object::kind_is_keyed(*kind))
            unkeyed.push_back(names.back());
        const auto message = object::empty(*kind);
        EXPECT_EQ(object::kind_of(*message), kind);
        EXPECT_EQ(object::kind_by_name(names.back()), kind);
        EXPECT_TRUE(object::has_key(*message) && object::key_is_empty(*message)) << names.back();
    }
    EXPECT_EQ(names.size(), 12U);
    EXPECT_TRUE(std::ranges::is_sorted(names));
    EXPECT_THAT(unkeyed, ElementsAre("p_bridge.vvlan_err_event", "p_bridge.vvlan_glb_cfg"));
    for (const char *none : {"", "p_bridge.b_oui", "p_bridge.vvlan_port_cf", "zz"})
        EXPECT_EQ(object::kind_by_name(none), nullptr) << none;
    PBridge__BOui part = P_BRIDGE__B_OUI__INIT;
    EXPECT_EQ(object::kind_of(part.base), nullptr);
    EXPECT_FALSE(object::has_key(part.base));
}

TEST(Object, KeyIsFixedWidthAndBigEndian)
{
    using namespace std::string_literals;
    auto key_of = [](const char *kind, const char *text) { return object::key(*read(kind, text)); };
    EXPECT_EQ(key_of("u_bridge.vvlan_oui_cfg", "index.ace_id=0x01020304 oui={}"), "\1\2\3\4");
    EXPECT_EQ(key_of("p_bridge.vvlan_oui_cfg", "index.mask=ff:ff:ff:00:00:01"),
              "\0\0\0\0\0\0\xff\xff\xff\0\0\1"s);
    EXPECT_EQ(key_of("s_cluster.reg_pkt_info", "index.name=ox reg_type=1"), "ox\0"s);
    EXPECT_EQ(key_of("p_bridge.vvlan_glb_cfg", "age_time=5"), "");

    EXPECT_TRUE(object::has_key(*read("p_bridge.vvlan_glb_cfg", "")));
    EXPECT_FALSE(object::has_key(*read("p_bridge.vvlan_port_cfg", "enable=1")));
    EXPECT_FALSE(object::has_key(*read("p_bridge.vvlan_oui_cfg", "index.mac=0x0011223344")));
    EXPECT_FALSE(object::has_key(*read("p_bridge.vvlan_oui_cfg", "index.mask=0x00112233445566")));
    EXPECT_TRUE(object::has_key(*read("p_bridge.vvlan_oui_cfg", "index.mac={}")));
    for (const char *broken : {"enable=1", "index.ifx=256"})
        EXPECT_FALSE(object::key_is(*read("p_bridge.vvlan_port_cfg", broken), "\0\0\0\0"s));
    EXPECT_FALSE(object::key_is(*read("p_bridge.vvlan_oui_cfg", "index.mac=0x0011223344"),
                                "\0\x11\x22\x33\x44\0\0\0\0\0\0"s));
    EXPECT_FALSE(object::key_is(*read("s_cluster.reg_pkt_info", "index.name=ox"), "ox"));
    EXPECT_TRUE(object::key_is_empty(*read("p_bridge.vvlan_port_cfg", "index.ifx=0 enable=1")));
    EXPECT_FALSE(object::key_is_empty(*read("p_bridge.vvlan_port_cfg", "index.ifx=256")));

    const auto whole = read("u_bridge.vvlan_oui_cfg", "index.ace_id=7 oui.mac=00:01:02:03:04:05");
    EXPECT_EQ(object::to_text(*object::copy_key(*whole)), "index.ace_id=7");

    for (const auto &[kind, text] :
         {std::pair("s_cluster.reg_pkt_info", "index.name=ox"),
          std::pair("u_bridge.mac_vid_reg_noti", "index.t_fid=258 index.t_mac=00:01:02:03:04:05"),
          std::pair("p_bridge.vvlan_glb_cfg", "")}) {
        const object::Kind &known = *object::kind_by_name(kind);
        const std::string key = key_of(kind, text);
        const auto again = object::from_key(known, key);
        ASSERT_NE(again, nullptr) << kind;
        EXPECT_EQ(object::key(*again), key);
        EXPECT_TRUE(object::key_is(*again, key));
        EXPECT_FALSE(object::key_is(*again, key + "x"));
        EXPECT_EQ(object::from_key(known, key + "x"), nullptr);
        EXPECT_EQ(key.empty(),
                  object::from_key(known, key.substr(0, key.size() - !key.empty())) != nullptr);
    }
}

// The widest index as plain values (t_fid, t_type, t_mac), written in any of the
// ways that mean them.
using Noti = std::tuple<uint32_t, uint32_t, std::string>;
const std::string NO_MAC(6, '\0');

std::pair<Noti, Message> random_noti(Random &random)
{
    const std::pair<const char *, std::string> macs[] = {
        {"", NO_MAC},
        {" index.t_mac={}", NO_MAC},
        {" index.t_mac=00:00:00:00:00:00", NO_MAC},
        {" index.t_mac=00:00:00:00:00:01", std::string("\0\0\0\0\0\1", 6)},
        {" index.t_mac=80:00:00:00:00:00", std::string("\x80\0\0\0\0\0", 6)}};
    const auto &[text, mac] = macs[below(random, 5)];
    const auto fid = std::array{0U, 1U, 256U}[below(random, 3)], type = below(random, 2);
    auto message =
        read("u_bridge.mac_vid_reg_noti", "index.t_fid=" + std::to_string(fid) + text + " flag=1" +
                                              (type != 0 ? " index.t_type=1" : ""));
    return {Noti(fid, type, mac), std::move(message)};
}

TEST(Object, MatchAndKeyOrderAgreeWithPlainValues)
{
    Random random(1);
    for (int round = 0; round < 4000; round++) {
        const auto [want, templ] = random_noti(random);
        const auto [have, message] = random_noti(random);
        const bool all = want == Noti(0, 0, NO_MAC);
        const bool fits = (std::get<0>(want) == 0 || std::get<0>(want) == std::get<0>(have)) &&
                          (std::get<1>(want) == 0 || std::get<1>(want) == std::get<1>(have)) &&
                          (std::get<2>(want) == NO_MAC || std::get<2>(want) == std::get<2>(have));
        SCOPED_TRACE(object::to_text(*templ) + " against " + object::to_text(*message));
        EXPECT_EQ(object::matches(*templ, KT_MOM_MATCH_EXACT, *message), want == have || all);
        EXPECT_EQ(object::matches(*templ, KT_MOM_MATCH_PARTIAL, *message), fits);
        EXPECT_EQ(object::key_is_empty(*templ), all);
        EXPECT_EQ(object::key(*templ) <=> object::key(*message), want <=> have);
        EXPECT_EQ(object::key_is(*templ, object::key(*message)), want == have);
    }
    auto selects = [](const char *kind, const char *templ, const char *other, const char *object) {
        return object::matches(*read(kind, templ), KT_MOM_MATCH_EXACT, *read(other, object));
    };
    const char *port = "p_bridge.vvlan_port_cfg", *automatic = "p_bridge.vvlan_port_auto";
    const char *settings = "p_bridge.vvlan_glb_cfg", *packets = "s_cluster.reg_pkt_info";
    EXPECT_TRUE(selects(port, "", port, "index.ifx=1")) << "a template without index";
    EXPECT_FALSE(selects(port, "index={}", automatic, "index.ifx=1")) << "another kind";
    EXPECT_TRUE(selects(settings, "age_time=5", settings, "")) << "no key";
    EXPECT_FALSE(selects(packets, "index.name=b", packets, "index.name=bb"));
}

TEST(Object, RandomMessagesOfEveryKindSurviveTextCopyAndMerge)
{
    Random random(2);
    for (const auto *kind : object::kinds()) {
        const auto &type = object::kind_descriptor(*kind);
        for (int round = 0; round < 300; round++) {
            const Message message(random_message(random, type));
            const Message other(random_message(random, type));
            const auto text = object::to_text(*message);
            const auto again = read(type.name, text);
            ASSERT_EQ(packed(*again), packed(*message)) << text;
            EXPECT_EQ(object::to_text(*again), text);

            // One wrong byte: refused, or something else that is as well-formed.
            auto garbled = text + " ";
            garbled[below(random, static_cast<uint32_t>(garbled.size()))] =
                random_bytes(random, 1, 0)[0];
            if (const auto odd = object::from_text(*kind, garbled, nullptr, nullptr)) {
                const auto odd_text = object::to_text(*odd);
                EXPECT_TRUE(object::equal(*read(type.name, odd_text), *odd)) << garbled;
            }

            const auto copied = object::copy(*message);
            EXPECT_EQ(packed(*copied), packed(*message)) << text;
            EXPECT_TRUE(object::equal(*copied, *message)) << text;
            EXPECT_EQ(object::equal(*other, *message), packed(*other) == packed(*message)) << text;

            // Field by field the copy turns into the other; 99 is no field.
            for (unsigned f = 0; f < type.n_fields; f++) {
                EXPECT_EQ(object::equal(*copied, *other), packed(*copied) == packed(*other));
                object::merge(*copied, *other, std::array{99U, type.fields[f].id});
            }
            EXPECT_EQ(packed(*copied), packed(*other)) << object::to_text(*other);
        }
    }
}

TEST(ObjectText, WritesWhatPeopleRead)
{
    const std::pair<const char *, const char *> same[] = {
        {"p_bridge.vvlan_port_cfg", "index.ifx=3 enable=1"},
        {"p_bridge.vvlan_port_cfg", "index.ifx=0"},
        {"p_bridge.vvlan_port_cfg", ""},
        {"p_bridge.vvlan_oui_cfg", "index.mac=00:1a:22:33:44:55 index.mask=ff:ff:ff:00:00:00"},
        {"p_bridge.vvlan_oui_cfg", "index.mac={} index.mask=0x0011223344"},
        {"p_bridge.vvlan_oui_cfg", "index={}"},
        {"p_bridge.vvlan_glb_cfg", "glb_switch={} age_time=4294967295 qos.dscp=46"},
        {"s_cluster.reg_pkt_info", R"(index.name="" dlib_name="a b\"\\\n\x01\x7f")"},
        {"s_cluster.reg_pkt_info", "index.name=/lib/x-1.so:0 reg_type=2"},
    };
    for (const auto &[kind, text] : same)
        EXPECT_EQ(object::to_text(*read(kind, text)), text);
    const auto loose = read("s_cluster.reg_pkt_info", "\t reg_type=0x1F  dlib_name=\"\\x41=\"\r\n");
    EXPECT_EQ(object::to_text(*loose), "dlib_name=\"A=\" reg_type=31");
    EXPECT_EQ(object::to_text(*read("p_bridge.vvlan_oui_cfg", "index.mac=AA:bB:00:00:00:01")),
              "index.mac=aa:bb:00:00:00:01");
}

TEST(ObjectText, TellsWhichFieldsWereGiven)
{
    std::vector<uint32_t> given = {77};
    const auto *kind = object::kind_by_name("p_bridge.vvlan_glb_cfg");
    const char *text = "qos.cos=0 age_time=0 qos.dscp=1 glb_switch={}";
    EXPECT_NE(object::from_text(*kind, text, &given, nullptr), nullptr);
    EXPECT_THAT(given, ElementsAre(8, 7, 5));
    EXPECT_NE(object::from_text(*kind, "", &given, nullptr), nullptr);
    EXPECT_THAT(given, IsEmpty());
    EXPECT_EQ(object::from_text(*kind, "qos", nullptr, nullptr), nullptr);
}

TEST(ObjectText, ErrorsTellColumnAndWhatWasExpected)
{
    const std::string number = "a number from 0 to 4294967295";
    const std::string mac = "a MAC address such as 00:11:22:33:44:55";
    const std::string escape = R"(an escape: \" \\ \n \t \r or \x01 to \xff)";
    const std::string port = "p_bridge.vvlan_port_cfg", oui = "p_bridge.vvlan_oui_cfg";
    const std::string glb = "p_bridge.vvlan_glb_cfg", pkt = "s_cluster.reg_pkt_info";
    const std::string port_fields = "a field of p_bridge.vvlan_port_cfg: enable, index, mode";
    const std::tuple<std::string, std::string, size_t, std::string> cases[] = {
        {port, "enabled=1", 1, port_fields},
        {port, " =1", 2, port_fields},
        {port, "index.ifx=1 index.phyid=1", 19, "a field of p_bridge.vvlan_index: ifx"},
        {port, "index.=1", 7, "a field of p_bridge.vvlan_index: ifx"},
        {port, "enable", 7, "'='"},
        {port, "enable.x=1", 7, "'='"},
        {port, "enable =1", 7, "'='"},
        {port, "index=3", 7,
         "{}, or before the '=' a dot and a field of p_bridge.vvlan_index: ifx"},
        {port, "enable=", 8, number},
        {port, "enable=4294967296", 8, number},
        {port, "mode=1 enable=-1", 15, number},
        {port, "enable=0x", 8, number},
        {port, "enable=1x", 8, number},
        {oui, "index.mac=00:11:22:33:44", 11, mac},
        {oui, "index.mac=00:11:22:33:44:5", 11, mac},
        {oui, "index.mac=00-11-22-33-44-55", 11, mac},
        {oui, "index.mac=0x", 11, mac},
        {oui, "index.mac=0x123", 11, mac},
        {oui, "index.mac.data=0x00", 10, "'='"},
        {port, "enable=1 enable=1", 10, "another field: enable is already given"},
        {port, "index={} index.ifx=1", 10, "another field: index is already given"},
        {glb, "qos.cos=1 qos={}", 11, "another field: qos.cos is already given"},
        {pkt, "dlib_name=", 11, "a string"},
        {pkt, "dlib_name=a\"b", 12, "a space or the end"},
        {pkt, "dlib_name=\"a\"b", 14, "a space or the end"},
        {pkt, "dlib_name=\"a b", 15, "a closing \""},
        {pkt, "dlib_name=\"a\\", 13, escape},
        {pkt, R"(dlib_name="\x00")", 12, escape},
        {pkt, R"(dlib_name="\x1")", 12, escape},
    };
    for (const auto &[kind, text, column, expected] : cases) {
        object::TextError error = {0, ""};
        EXPECT_EQ(object::from_text(*object::kind_by_name(kind), text, nullptr, &error), nullptr)
            << text;
        EXPECT_EQ(error.column, column) << text;
        EXPECT_EQ(error.expected, expected) << text;
    }
}

} // namespace
