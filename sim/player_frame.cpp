#include "sim/player_frame.h"

#include <algorithm>
#include <arpa/inet.h>
#include <string_view>

namespace sim
{

namespace
{

constexpr uint16_t ETHERTYPE_EXPERIMENTAL = 0x88b5;
constexpr const char *FIELD = "a field of a frame: a name, src= dst= vid= pcp= dei= ethertype= "
                              "ipv4 A > B, ipv6 A > B, dscp= ecn= ttl= udp PORT > PORT, len=";

/* Reads one field; each function below returns whether the next word was its own. */
bool take_layer2(Cursor &cursor, frame::Frame &frame);
bool take_tag(Cursor &cursor, frame::Frame &frame);
bool take_addresses(Cursor &cursor, frame::Frame &frame);
bool take_marking(Cursor &cursor, frame::Frame &frame);
bool take_udp(Cursor &cursor, frame::Frame &frame);
void take_arrow(Cursor &cursor);
void check(const frame::Frame &frame, size_t column);

/* The value of "key=N" if it is next, at most `most`. */
std::optional<uint64_t> take_number(Cursor &cursor, const char *key, uint64_t most);
template <size_t Size>
std::array<uint8_t, Size> take_ip(Cursor &cursor, int family, const char *expected);
template <size_t Size> std::string ip_text(int family, const std::array<uint8_t, Size> &address);

constexpr std::string_view FLAGS[] = {"forwarded", "dropped", "to-cpu", "tagged", "untagged"};
constexpr std::pair<const char *, uint64_t> NUMBERS[] = {
    {"vid", 4094}, {"cos", 7}, {"prio", 7}, {"dscp", 63}};
bool take_flag(Cursor &cursor, VerdictWords &wanted);
bool take_value(Cursor &cursor, VerdictWords &wanted);
bool word_matches(const std::string &word, uint64_t value, const Verdict &verdict);

} // namespace

frame::Frame frame_parse(Cursor &cursor, const FrameNames &names)
{
    const size_t column = cursor.column();
    frame::Frame frame;
    frame.dst.fill(0xff);
    frame.ethertype = ETHERTYPE_EXPERIMENTAL;
    frame.payload.assign(46, 0);
    if (const auto named = names.find(std::string(cursor.peek())); named != names.end()) {
        frame = named->second;
        cursor.word("the name of a frame");
    }
    while (!cursor.at_end() && cursor.peek() != "->") {
        if (!take_layer2(cursor, frame) && !take_tag(cursor, frame) &&
            !take_addresses(cursor, frame) && !take_marking(cursor, frame) &&
            !take_udp(cursor, frame))
            throw Refusal{cursor.column(), FIELD};
    }
    check(frame, column);
    return frame;
}

std::string frame_text(const frame::Frame &frame)
{
    std::string text = frame::mac_text(frame.src) + " > " + frame::mac_text(frame.dst);
    if (frame.tag)
        text += " vid=" + std::to_string(frame.tag->vid) + " pcp=" + std::to_string(frame.tag->pcp);
    if (frame.ipv4)
        text += " ipv4 " + ip_text(AF_INET, frame.ipv4->src) + " > " +
                ip_text(AF_INET, frame.ipv4->dst) + " dscp=" + std::to_string(frame.ipv4->dscp);
    if (frame.ipv6)
        text += " ipv6 " + ip_text(AF_INET6, frame.ipv6->src) + " > " +
                ip_text(AF_INET6, frame.ipv6->dst) + " dscp=" + std::to_string(frame.ipv6->dscp);
    return text;
}

VerdictWords verdict_parse(Cursor &cursor)
{
    VerdictWords wanted;
    do {
        if (!take_flag(cursor, wanted) && !take_value(cursor, wanted))
            throw Refusal{cursor.column(), "forwarded, dropped, to-cpu, tagged, untagged, vid=N, "
                                           "cos=N, prio=N or dscp=N"};
    } while (!cursor.at_end());
    return wanted;
}

bool verdict_matches(const VerdictWords &wanted, const Verdict &verdict)
{
    return std::ranges::all_of(wanted.words, [&verdict](const auto &each) {
        return word_matches(each.first, each.second, verdict);
    });
}

std::string verdict_text(const Verdict &verdict)
{
    const std::string why = verdict.why.empty() ? "" : " (" + verdict.why + ")";
    if (verdict.action == Verdict::dropped)
        return "dropped" + why;
    if (verdict.action == Verdict::to_cpu)
        return "to the CPU" + why;
    std::string text = verdict.tagged ? "forwarded, tagged" : "forwarded, untagged";
    text += " vid=" + std::to_string(verdict.vid);
    if (verdict.tagged)
        text += " cos=" + std::to_string(verdict.cos);
    text += " prio=" + std::to_string(verdict.prio);
    if (verdict.dscp)
        text += " dscp=" + std::to_string(*verdict.dscp);
    return text + why;
}

namespace
{

bool take_layer2(Cursor &cursor, frame::Frame &frame)
{
    const size_t column = cursor.column() + 4;
    if (const auto mac = cursor.accept_value("src"))
        frame.src = text_mac(*mac, column);
    else if (const auto to = cursor.accept_value("dst"))
        frame.dst = text_mac(*to, column);
    else if (const auto type = take_number(cursor, "ethertype", 0xffff))
        frame.ethertype = static_cast<uint16_t>(*type);
    else if (const auto length = take_number(cursor, "len", 9000))
        frame.payload.assign(*length, 0);
    else
        return false;
    return true;
}

bool take_tag(Cursor &cursor, frame::Frame &frame)
{
    frame::Tag tag = frame.tag.value_or(frame::Tag{});
    if (const auto vid = take_number(cursor, "vid", 4095))
        tag.vid = static_cast<uint16_t>(*vid);
    else if (const auto pcp = take_number(cursor, "pcp", 7))
        tag.pcp = static_cast<uint8_t>(*pcp);
    else if (const auto dei = take_number(cursor, "dei", 1))
        tag.dei = *dei != 0;
    else
        return false;
    frame.tag = tag;
    return true;
}

bool take_addresses(Cursor &cursor, frame::Frame &frame)
{
    if (cursor.accept("ipv4")) {
        frame::Ipv4 ip;
        ip.src = take_ip<4>(cursor, AF_INET, "an IPv4 address");
        take_arrow(cursor);
        ip.dst = take_ip<4>(cursor, AF_INET, "an IPv4 address");
        frame.ipv4 = ip;
        frame.ipv6.reset();
        frame.ethertype = frame::ETHERTYPE_IPV4;
        return true;
    }
    if (cursor.accept("ipv6")) {
        frame::Ipv6 ip;
        ip.src = take_ip<16>(cursor, AF_INET6, "an IPv6 address");
        take_arrow(cursor);
        ip.dst = take_ip<16>(cursor, AF_INET6, "an IPv6 address");
        frame.ipv6 = ip;
        frame.ipv4.reset();
        frame.ethertype = frame::ETHERTYPE_IPV6;
        return true;
    }
    return false;
}

bool take_marking(Cursor &cursor, frame::Frame &frame)
{
    constexpr const char *IP = "ipv4 A > B or ipv6 A > B before dscp=, ecn=, ttl= and udp";
    const size_t column = cursor.column();
    const auto dscp = take_number(cursor, "dscp", 63);
    const auto ecn = dscp ? std::nullopt : take_number(cursor, "ecn", 3);
    const auto ttl = dscp || ecn ? std::nullopt : take_number(cursor, "ttl", 255);
    if (!dscp && !ecn && !ttl)
        return false;
    const auto put = [](auto &into, const auto &value) {
        if (value)
            into = static_cast<uint8_t>(*value);
    };
    if (frame.ipv4) {
        put(frame.ipv4->dscp, dscp);
        put(frame.ipv4->ecn, ecn);
        put(frame.ipv4->ttl, ttl);
    } else if (frame.ipv6) {
        put(frame.ipv6->dscp, dscp);
        put(frame.ipv6->ecn, ecn);
        put(frame.ipv6->hop_limit, ttl);
    } else {
        throw Refusal{column, IP};
    }
    return true;
}

bool take_udp(Cursor &cursor, frame::Frame &frame)
{
    const size_t column = cursor.column();
    if (!cursor.accept("udp"))
        return false;
    if (!frame.ipv4 && !frame.ipv6)
        throw Refusal{column, "ipv4 A > B or ipv6 A > B before dscp=, ecn=, ttl= and udp"};
    frame::Udp udp;
    udp.src_port = static_cast<uint16_t>(cursor.number("a UDP port", UINT16_MAX));
    take_arrow(cursor);
    udp.dst_port = static_cast<uint16_t>(cursor.number("a UDP port", UINT16_MAX));
    frame.udp = udp;
    (frame.ipv4 ? frame.ipv4->protocol : frame.ipv6->next_header) = frame::PROTOCOL_UDP;
    return true;
}

void take_arrow(Cursor &cursor)
{
    if (!cursor.accept(">"))
        throw Refusal{cursor.column(), "`>`"};
}

void check(const frame::Frame &frame, size_t column)
{
    if (frame.src == frame::Mac{})
        throw Refusal{column, "a frame with src=MAC, or the name of one"};
    if (frame::encode(frame).empty())
        throw Refusal{column, "a frame that can be: ethertype and addresses do not go together"};
}

std::optional<uint64_t> take_number(Cursor &cursor, const char *key, uint64_t most)
{
    const size_t column = cursor.column() + std::string_view(key).size() + 1;
    const auto value = cursor.accept_value(key);
    if (!value)
        return std::nullopt;
    const std::string expected = "a number up to " + std::to_string(most);
    return text_number(*value, column, expected.c_str(), most);
}

template <size_t Size>
std::array<uint8_t, Size> take_ip(Cursor &cursor, int family, const char *expected)
{
    const size_t column = cursor.column();
    std::array<uint8_t, Size> address{};
    if (inet_pton(family, cursor.word(expected).c_str(), address.data()) != 1)
        throw Refusal{column, expected};
    return address;
}

template <size_t Size> std::string ip_text(int family, const std::array<uint8_t, Size> &address)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address.data(), text, sizeof text);
    return text;
}

bool take_flag(Cursor &cursor, VerdictWords &wanted)
{
    for (const std::string_view flag : FLAGS) {
        if (cursor.accept(flag)) {
            wanted.words.emplace_back(flag, 0);
            return true;
        }
    }
    return false;
}

bool take_value(Cursor &cursor, VerdictWords &wanted)
{
    for (const auto &[name, most] : NUMBERS) {
        if (const auto value = take_number(cursor, name, most)) {
            wanted.words.emplace_back(name, *value);
            return true;
        }
    }
    return false;
}

bool word_matches(const std::string &word, uint64_t value, const Verdict &verdict)
{
    if (word == "forwarded" || word == "dropped" || word == "to-cpu") {
        const Verdict::Action wanted = word == "forwarded" ? Verdict::forwarded
                                       : word == "dropped" ? Verdict::dropped
                                                           : Verdict::to_cpu;
        return verdict.action == wanted;
    }
    if (verdict.action != Verdict::forwarded)
        return false; /* what does not leave the switch leaves in no way */
    if (word == "tagged" || word == "untagged")
        return verdict.tagged == (word == "tagged");
    if (word == "vid")
        return verdict.vid == value;
    if (word == "cos")
        return verdict.tagged && verdict.cos == value;
    if (word == "prio")
        return verdict.prio == value;
    return verdict.dscp == value;
}

} // namespace

} // namespace sim
