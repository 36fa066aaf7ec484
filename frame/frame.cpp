#include "frame/frame.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>

namespace frame
{
namespace
{

constexpr size_t ETHERNET_SIZE = 14;
constexpr size_t TAG_SIZE = 4;
constexpr size_t TYPE_AT = 12; /* of the ethertype, or of the tag before it */
constexpr size_t IPV4_SIZE = 20;
constexpr size_t IPV4_OPTIONS_MAX = 40;
constexpr size_t IPV4_CHECKSUM_AT = 10;
constexpr size_t IPV6_SIZE = 40;
constexpr size_t UDP_SIZE = 8;
constexpr size_t UDP_CHECKSUM_AT = 6;
constexpr uint16_t IPV4_FRAGMENT_MASK = 0x3fff; /* more fragments, and the offset */

using View = std::span<const uint8_t>;

uint16_t get16(View bytes, size_t at)
{
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

void put16(Bytes &out, size_t value)
{
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

void set16(std::span<uint8_t> bytes, size_t at, uint16_t value)
{
    bytes[at] = static_cast<uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<uint8_t>(value);
}

void append(Bytes &out, View bytes)
{
    out.insert(out.end(), bytes.begin(), bytes.end());
}

template <size_t N> void take(View bytes, size_t at, std::array<uint8_t, N> *out)
{
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), N, out->begin());
}

Bytes copy_of(View bytes)
{
    return {bytes.begin(), bytes.end()};
}

uint32_t sum16(View bytes, uint32_t sum = 0)
{
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        sum += get16(bytes, i);
    if (bytes.size() % 2 != 0)
        sum += static_cast<uint32_t>(bytes.back() << 8);
    return sum;
}

uint16_t fold(uint32_t sum)
{
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

/* The checksum of a header whose own checksum field counts as zero. */
uint16_t checksum_without(View bytes, size_t checksum_at, uint32_t sum = 0)
{
    const uint16_t field = get16(bytes, checksum_at);
    return static_cast<uint16_t>(~fold(sum16(bytes, sum) + (0xffffU - field)));
}

/* Sum over the addresses and the rest of the pseudo header, alike in both versions of IP. */
uint32_t pseudo_sum(const Frame &frame, size_t udp_size)
{
    const uint32_t sum = static_cast<uint32_t>(udp_size) + PROTOCOL_UDP;
    if (frame.ipv4)
        return sum16(frame.ipv4->src, sum16(frame.ipv4->dst, sum));
    return sum16(frame.ipv6->src, sum16(frame.ipv6->dst, sum));
}

/* A UDP checksum that comes out as zero is sent as all ones: zero means none. */
uint16_t udp_checksum(const Frame &frame, View datagram)
{
    const uint16_t value =
        checksum_without(datagram, UDP_CHECKSUM_AT, pseudo_sum(frame, datagram.size()));
    return value == 0 ? 0xffff : value;
}

/* Each decoder takes its header off `rest`, and returns why it cannot or null. */

const char *decode_udp(View *rest, Frame *frame)
{
    if (rest->size() < UDP_SIZE)
        return "UDP header is cut off";
    const size_t size = get16(*rest, 4);
    if (size < UDP_SIZE || size > rest->size())
        return "UDP length is not the datagram's";
    if (size < rest->size()) /* something follows it inside the packet */
        return nullptr;
    Udp udp;
    udp.src_port = get16(*rest, 0);
    udp.dst_port = get16(*rest, 2);
    udp.has_checksum = get16(*rest, UDP_CHECKSUM_AT) != 0;
    udp.checksum_ok =
        !udp.has_checksum || get16(*rest, UDP_CHECKSUM_AT) == udp_checksum(*frame, *rest);
    frame->udp = udp;
    *rest = rest->subspan(UDP_SIZE);
    return nullptr;
}

Ipv4 ipv4_fields(View header)
{
    Ipv4 ip;
    ip.dscp = header[1] >> 2;
    ip.ecn = header[1] & 3;
    ip.id = get16(header, 4);
    ip.fragment = get16(header, 6);
    ip.ttl = header[8];
    ip.protocol = header[9];
    take(header, 12, &ip.src);
    take(header, 16, &ip.dst);
    ip.options = copy_of(header.subspan(IPV4_SIZE));
    ip.checksum_ok = get16(header, IPV4_CHECKSUM_AT) == checksum_without(header, IPV4_CHECKSUM_AT);
    return ip;
}

const char *decode_ipv4(View *rest, Frame *frame)
{
    if (rest->size() < IPV4_SIZE)
        return "IPv4 header is cut off";
    if ((*rest)[0] >> 4 != 4)
        return "IPv4 version is not 4";
    const size_t header_size = size_t{(*rest)[0] & 15U} * 4;
    const size_t size = get16(*rest, 2);
    if (header_size < IPV4_SIZE || header_size > size)
        return "IPv4 header length is impossible";
    if (size > rest->size())
        return "IPv4 packet is cut off";
    frame->ipv4 = ipv4_fields(rest->first(header_size));
    frame->trailer = copy_of(rest->subspan(size));
    *rest = rest->subspan(header_size, size - header_size);
    const bool whole = (frame->ipv4->fragment & IPV4_FRAGMENT_MASK) == 0;
    return whole && frame->ipv4->protocol == PROTOCOL_UDP ? decode_udp(rest, frame) : nullptr;
}

const char *decode_ipv6(View *rest, Frame *frame)
{
    if (rest->size() < IPV6_SIZE)
        return "IPv6 header is cut off";
    if ((*rest)[0] >> 4 != 6)
        return "IPv6 version is not 6";
    const size_t size = get16(*rest, 4);
    if (size > rest->size() - IPV6_SIZE)
        return "IPv6 packet is cut off";
    Ipv6 ip;
    const auto traffic_class = static_cast<uint8_t>(get16(*rest, 0) >> 4);
    ip.dscp = traffic_class >> 2;
    ip.ecn = traffic_class & 3;
    ip.flow_label = ((*rest)[1] & 15U) << 16 | get16(*rest, 2);
    ip.next_header = (*rest)[6];
    ip.hop_limit = (*rest)[7];
    take(*rest, 8, &ip.src);
    take(*rest, 24, &ip.dst);
    frame->ipv6 = ip;
    frame->trailer = copy_of(rest->subspan(IPV6_SIZE + size));
    *rest = rest->subspan(IPV6_SIZE, size);
    return ip.next_header == PROTOCOL_UDP ? decode_udp(rest, frame) : nullptr;
}

const char *decode_length(View *rest, Frame *frame)
{
    if (frame->ethertype > rest->size())
        return "802.3 length is more than the frame has";
    frame->trailer = copy_of(rest->subspan(frame->ethertype));
    *rest = rest->first(frame->ethertype);
    return nullptr;
}

const char *decode_ethernet(View *rest, Frame *frame)
{
    if (rest->size() > SIZE_MAX_BYTES)
        return "frame is too long";
    if (rest->size() < ETHERNET_SIZE)
        return "Ethernet header is cut off";
    frame->tag = tag_of(*rest);
    const size_t type_at = TYPE_AT + (frame->tag ? TAG_SIZE : 0);
    if (!frame->tag && get16(*rest, TYPE_AT) == ETHERTYPE_TAG)
        return "802.1Q tag is cut off";
    take(*rest, 0, &frame->dst);
    take(*rest, 6, &frame->src);
    frame->ethertype = get16(*rest, type_at);
    *rest = rest->subspan(type_at + 2);
    return nullptr;
}

const char *decode_packet(View *rest, Frame *frame)
{
    if (frame->ethertype <= LENGTH_MAX)
        return decode_length(rest, frame);
    if (frame->ethertype == ETHERTYPE_IPV4)
        return decode_ipv4(rest, frame);
    if (frame->ethertype == ETHERTYPE_IPV6)
        return decode_ipv6(rest, frame);
    return nullptr;
}

bool can_encode(const Frame &frame)
{
    const bool headers_fit = (!frame.ipv4 || frame.ethertype == ETHERTYPE_IPV4) &&
                             (!frame.ipv6 || frame.ethertype == ETHERTYPE_IPV6) &&
                             (!frame.udp || frame.ipv4 || frame.ipv6);
    const size_t options = frame.ipv4 ? frame.ipv4->options.size() : 0;
    const size_t content_max = frame.ethertype <= LENGTH_MAX ? LENGTH_MAX : SIZE_MAX_BYTES;
    const bool sizes_fit = options % 4 == 0 && options <= IPV4_OPTIONS_MAX &&
                           frame.payload.size() <= content_max &&
                           frame.trailer.size() <= SIZE_MAX_BYTES;
    return headers_fit && sizes_fit;
}

uint16_t tag_bits(const Tag &tag)
{
    return static_cast<uint16_t>((tag.pcp & 7U) << 13 | (tag.dei ? 1U << 12 : 0U) |
                                 (tag.vid & 0xfffU));
}

void encode_ethernet(const Frame &frame, Bytes *out)
{
    append(*out, frame.dst);
    append(*out, frame.src);
    if (frame.tag) {
        put16(*out, ETHERTYPE_TAG);
        put16(*out, tag_bits(*frame.tag));
    }
    put16(*out, frame.ethertype <= LENGTH_MAX ? frame.payload.size() : frame.ethertype);
}

void encode_ipv4(const Ipv4 &ip, size_t content_size, Bytes *out)
{
    const size_t start = out->size();
    const size_t header_size = IPV4_SIZE + ip.options.size();
    out->push_back(static_cast<uint8_t>(0x40 | header_size / 4));
    out->push_back(static_cast<uint8_t>(ip.dscp << 2 | (ip.ecn & 3)));
    put16(*out, header_size + content_size);
    put16(*out, ip.id);
    put16(*out, ip.fragment);
    out->push_back(ip.ttl);
    out->push_back(ip.protocol);
    put16(*out, 0);
    append(*out, ip.src);
    append(*out, ip.dst);
    append(*out, ip.options);
    const std::span<uint8_t> header(out->data() + start, header_size);
    set16(header, IPV4_CHECKSUM_AT, checksum(header));
}

void encode_ipv6(const Ipv6 &ip, size_t content_size, Bytes *out)
{
    const auto traffic_class = static_cast<uint8_t>(ip.dscp << 2 | (ip.ecn & 3));
    put16(*out, 0x6000U | static_cast<uint32_t>(traffic_class) << 4 | (ip.flow_label >> 16 & 15));
    put16(*out, ip.flow_label & 0xffff);
    put16(*out, content_size);
    out->push_back(ip.next_header);
    out->push_back(ip.hop_limit);
    append(*out, ip.src);
    append(*out, ip.dst);
}

void encode_udp(const Udp &udp, size_t size, Bytes *out)
{
    put16(*out, udp.src_port);
    put16(*out, udp.dst_port);
    put16(*out, size);
    put16(*out, 0);
}

/* The offset of the IPv4 header, or 0 when the frame carries no whole one. */
size_t ipv4_at(View bytes)
{
    const size_t type_at = TYPE_AT + (tag_of(bytes) ? TAG_SIZE : 0);
    const size_t at = type_at + 2;
    const bool is_ipv4 = bytes.size() >= at + IPV4_SIZE &&
                         get16(bytes, type_at) == ETHERTYPE_IPV4 && bytes[at] >> 4 == 4;
    return is_ipv4 ? at : 0;
}

std::optional<Frame> decode_with(View bytes, bool must_be_whole, std::string *why)
{
    Frame frame;
    View rest = bytes;
    const char *refusal = decode_ethernet(&rest, &frame);
    if (refusal == nullptr) {
        const char *unread = decode_packet(&rest, &frame);
        refusal = must_be_whole ? unread : nullptr;
    }
    if (refusal != nullptr) {
        if (why != nullptr)
            *why = refusal;
        return std::nullopt;
    }
    frame.payload = copy_of(rest);
    return frame;
}

} // namespace

std::optional<Frame> decode(std::span<const uint8_t> bytes, std::string *why)
{
    return decode_with(bytes, true, why);
}

std::optional<Frame> decode_link(std::span<const uint8_t> bytes, std::string *why)
{
    return decode_with(bytes, false, why);
}

Bytes encode(const Frame &frame)
{
    const size_t content = frame.payload.size() + (frame.udp ? UDP_SIZE : 0);
    if (!can_encode(frame))
        return {};
    Bytes out;
    out.reserve(ETHERNET_SIZE + TAG_SIZE + IPV6_SIZE + content + frame.trailer.size());
    encode_ethernet(frame, &out);
    if (frame.ipv4)
        encode_ipv4(*frame.ipv4, content, &out);
    if (frame.ipv6)
        encode_ipv6(*frame.ipv6, content, &out);
    const size_t datagram_at = out.size();
    if (frame.udp)
        encode_udp(*frame.udp, content, &out);
    append(out, frame.payload);
    if (frame.udp && frame.udp->has_checksum) {
        const std::span<uint8_t> datagram(out.data() + datagram_at, content);
        set16(datagram, UDP_CHECKSUM_AT, udp_checksum(frame, datagram));
    }
    append(out, frame.trailer);
    return out.size() <= SIZE_MAX_BYTES ? out : Bytes{};
}

std::optional<Tag> tag_of(std::span<const uint8_t> bytes)
{
    if (bytes.size() < ETHERNET_SIZE + TAG_SIZE || get16(bytes, TYPE_AT) != ETHERTYPE_TAG)
        return std::nullopt;
    const uint16_t bits = get16(bytes, TYPE_AT + 2);
    return Tag{static_cast<uint16_t>(bits & 0xfff), static_cast<uint8_t>(bits >> 13),
               (bits & 0x1000) != 0};
}

bool set_tag(Bytes &bytes, const Tag &tag)
{
    if (bytes.size() < ETHERNET_SIZE)
        return false;
    if (!tag_of(bytes)) {
        const std::array<uint8_t, TAG_SIZE> room{ETHERTYPE_TAG >> 8, ETHERTYPE_TAG & 0xff, 0, 0};
        bytes.insert(bytes.begin() + TYPE_AT, room.begin(), room.end());
    }
    set16(bytes, TYPE_AT + 2, tag_bits(tag));
    return true;
}

bool strip_tag(Bytes &bytes)
{
    if (!tag_of(bytes))
        return false;
    bytes.erase(bytes.begin() + TYPE_AT, bytes.begin() + TYPE_AT + TAG_SIZE);
    return true;
}

bool set_pcp(Bytes &bytes, uint8_t pcp)
{
    std::optional<Tag> tag = tag_of(bytes);
    if (!tag)
        return false;
    tag->pcp = pcp;
    return set_tag(bytes, *tag);
}

bool set_ipv4_dscp(Bytes &bytes, uint8_t dscp)
{
    const size_t at = ipv4_at(bytes);
    if (at == 0)
        return false;
    const uint16_t before = get16(bytes, at);
    bytes[at + 1] = static_cast<uint8_t>(dscp << 2 | (bytes[at + 1] & 3));
    /* RFC 1624, equation 3 */
    const uint32_t sum =
        (0xffffU - get16(bytes, at + IPV4_CHECKSUM_AT)) + (0xffffU - before) + get16(bytes, at);
    set16(bytes, at + IPV4_CHECKSUM_AT, static_cast<uint16_t>(~fold(sum)));
    return true;
}

uint16_t checksum(std::span<const uint8_t> bytes)
{
    return static_cast<uint16_t>(~fold(sum16(bytes)));
}

std::string mac_text(const Mac &mac)
{
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

} // namespace frame
