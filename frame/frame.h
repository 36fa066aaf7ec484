/*
 * frame - Ethernet frames as bytes and as fields.
 *
 * decode() takes a frame apart as far as a switch looks: Ethernet II or 802.3
 * length, one 802.1Q tag, IPv4 (options kept) or IPv6, and UDP when the
 * datagram is whole and fills the packet. Everything else - further tags, other
 * ethertypes, other protocols, fragments, IPv6 extension headers - stays in
 * `payload` as it came; bytes behind the length that a header states (padding
 * to the minimum frame size) stay in `trailer`. encode() is the way back: it
 * computes every length and checksum. For a frame whose checksums are right,
 * encode(decode(bytes)) is bytes.
 *
 * A switch on the way does not repair what the sender got wrong, so a wrong
 * checksum is reported in a flag and is no reason to refuse; a header that is
 * cut off or states a length that the frame does not have is one. For the same
 * reason re-marking works on the bytes, with checksums updated by difference:
 * a right one stays right, a wrong one stays wrong, and nothing else changes.
 *
 * Frames are given without preamble and FCS and are at most SIZE_MAX_BYTES
 * long. Nothing here reads past the span it was given.
 */
#ifndef FRAME_FRAME_H
#define FRAME_FRAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace frame
{

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

constexpr size_t SIZE_MAX_BYTES = 16'384;

constexpr uint16_t ETHERTYPE_IPV4 = 0x0800;
constexpr uint16_t ETHERTYPE_TAG = 0x8100;
constexpr uint16_t ETHERTYPE_IPV6 = 0x86dd;
constexpr uint16_t LENGTH_MAX = 1500; /* up to here the ethertype is an 802.3 length */
constexpr uint8_t PROTOCOL_UDP = 17;

struct Tag {
    uint16_t vid = 0; /* 0..4095; 0 carries a priority only */
    uint8_t pcp = 0;  /* 0..7 */
    bool dei = false;
    bool operator==(const Tag &) const = default;
};

struct Ipv4 {
    uint8_t dscp = 0; /* 0..63 */
    uint8_t ecn = 0;  /* 0..3 */
    uint16_t id = 0;
    uint16_t fragment = 0; /* flags and offset as they stand in the header */
    uint8_t ttl = 64;
    uint8_t protocol = 0;
    std::array<uint8_t, 4> src{}, dst{};
    Bytes options;           /* a multiple of 4, at most 40 bytes */
    bool checksum_ok = true; /* of the header; set by decode() */
    bool operator==(const Ipv4 &) const = default;
};

struct Ipv6 {
    uint8_t dscp = 0;        /* 0..63 */
    uint8_t ecn = 0;         /* 0..3 */
    uint32_t flow_label = 0; /* 20 bits */
    uint8_t next_header = 0;
    uint8_t hop_limit = 64;
    std::array<uint8_t, 16> src{}, dst{};
    bool operator==(const Ipv6 &) const = default;
};

struct Udp {
    uint16_t src_port = 0, dst_port = 0;
    bool has_checksum = true; /* false: the field is 0, none was computed */
    bool checksum_ok = true;  /* set by decode() */
    bool operator==(const Udp &) const = default;
};

/* At most one of ipv4 and ipv6, and only with their ethertype; udp only inside one of them. */
struct Frame {
    Mac dst{}, src{};
    std::optional<Tag> tag;
    uint16_t ethertype = 0; /* behind the tag, if there is one; 0..LENGTH_MAX: an 802.3 length */
    std::optional<Ipv4> ipv4;
    std::optional<Ipv6> ipv6;
    std::optional<Udp> udp;
    Bytes payload; /* of the innermost header above */
    Bytes trailer; /* what follows the packet */
    bool operator==(const Frame &) const = default;
};

/*
 * Takes a frame apart. Returns nothing for a frame that is truncated, too long
 * or at odds with its own headers; *why, if not null, then says so in a few
 * words ("IPv4 header is cut off").
 */
std::optional<Frame> decode(std::span<const uint8_t> bytes, std::string *why = nullptr);

/*
 * The same, but only the Ethernet header and the tag can be a reason to refuse:
 * a bridge forwards what it cannot read. A packet that is at odds with its
 * headers is taken apart up to the header that is wrong; from there on it is
 * payload. encode() does not give such a frame back.
 */
std::optional<Frame> decode_link(std::span<const uint8_t> bytes, std::string *why = nullptr);

/*
 * Puts a frame together with right lengths and checksums; checksum_ok is not
 * looked at, and of every field only the bits that its header has are taken.
 * Returns no bytes for a frame that cannot be: too long, IPv4 options of an
 * impossible size, or a header without its ethertype.
 */
Bytes encode(const Frame &frame);

/* The tag, if there is one. The offset of the ethertype behind it is 12 or 16. */
std::optional<Tag> tag_of(std::span<const uint8_t> bytes);

/*
 * Re-marking, in place. Each works on any frame of 14 bytes or more, leaves a
 * shorter one alone, and says whether the frame is of the kind it works on.
 */

/* Inserts a tag, or replaces the outer one. */
bool set_tag(Bytes &bytes, const Tag &tag);
/* Takes the outer tag off; false when there is none. */
bool strip_tag(Bytes &bytes);
/* Sets the priority of the outer tag; false when there is none. */
bool set_pcp(Bytes &bytes, uint8_t pcp);
/* Sets the DSCP of an IPv4 packet, ECN kept; false for every other frame, IPv6 too. */
bool set_ipv4_dscp(Bytes &bytes, uint8_t dscp);

/* The Internet checksum (RFC 1071) of the bytes, as it would stand in a header. */
uint16_t checksum(std::span<const uint8_t> bytes);

inline bool is_multicast(const Mac &mac)
{
    return (mac[0] & 1) != 0;
}

/* "00:11:22:33:44:55" */
std::string mac_text(const Mac &mac);

} // namespace frame

#endif
