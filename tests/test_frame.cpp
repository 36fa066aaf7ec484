/* Frames as bytes and fields: known vectors, hostile input, round trips, re-marking. */
#include <gtest/gtest.h>
#include <random>

#include "frame/frame.h"

using frame::Bytes;
using frame::Frame;

namespace
{

Bytes bytes_of(const std::string &hex)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

const std::string ETHERNET = "ffffffffffff001122000001";

/* Checksums computed by hand, apart from the code under test. */
const Bytes UDP4_PADDED =
    bytes_of(ETHERNET + "080045b90023000140004011260e0a0000020a000001"
                        "13c413c4000faf68494e56495445210000000000000000000000");
const Bytes UDP6_TAGGED =
    bytes_of(ETHERNET + "8100b06486dd6b812345000b114020010db800000000000000000000000220010db8"
                        "00000000000000000000000140004001000b41ed727470");
const Bytes TCP4_OPTIONS = bytes_of(ETHERNET + "08004600002c00014000400691c40a0000020a000001"
                                               "94040000303132333435363738396162636465666768696a");
const Bytes UDP4_NO_SUM =
    bytes_of(ETHERNET + "08004500001e00014000401126cc0a0000020a00000100010002000a00007879");
const Bytes UDP4_SUM_ZERO =
    bytes_of(ETHERNET + "08004500001e00014000401126cc0a0000020a00000100070007000affffebc9");
const Bytes FRAGMENT = bytes_of(ETHERNET + "08004500002600012005401146bf0a0000020a000001"
                                           "70617274206f66206120646174616772616d");
const Bytes LLC = bytes_of(ETHERNET + "0005424203616200000000000000");
const Bytes TWO_TAGS = bytes_of(ETHERNET + "810000648100c06508004500");
const Bytes LLDP = bytes_of(ETHERNET + "88cc0207");
const std::vector<Bytes> VALID = {UDP4_PADDED, UDP6_TAGGED,   TCP4_OPTIONS,
                                  UDP4_NO_SUM, UDP4_SUM_ZERO, FRAGMENT,
                                  LLC,         TWO_TAGS,      LLDP};

TEST(Frame, KnownVectors)
{
    for (const Bytes &bytes : VALID) {
        const auto decoded = frame::decode(bytes);
        ASSERT_TRUE(decoded);
        EXPECT_EQ(frame::encode(*decoded), bytes);
        EXPECT_TRUE(!decoded->ipv4 || decoded->ipv4->checksum_ok);
        EXPECT_TRUE(!decoded->udp || decoded->udp->checksum_ok);
    }
    const Frame udp4 = *frame::decode(UDP4_PADDED);
    EXPECT_EQ(udp4.ipv4->dscp, 46);
    EXPECT_EQ(udp4.ipv4->ecn, 1);
    EXPECT_EQ(udp4.udp->dst_port, 5060);
    EXPECT_EQ(std::string(udp4.payload.begin(), udp4.payload.end()), "INVITE!");
    EXPECT_EQ(udp4.trailer.size(), 11U);
    const Frame udp6 = *frame::decode(UDP6_TAGGED);
    EXPECT_EQ(*udp6.tag, (frame::Tag{100, 5, true}));
    EXPECT_EQ(udp6.ipv6->dscp, 46);
    EXPECT_EQ(udp6.ipv6->flow_label, 0x12345U);
    EXPECT_EQ(frame::decode(TCP4_OPTIONS)->ipv4->options, bytes_of("94040000"));
    EXPECT_FALSE(frame::decode(UDP4_NO_SUM)->udp->has_checksum);
    EXPECT_FALSE(frame::decode(FRAGMENT)->udp);
    EXPECT_EQ(frame::decode(LLC)->payload.size(), 5U);
    EXPECT_EQ(frame::decode(TWO_TAGS)->ethertype, 0x8100);
    EXPECT_EQ(frame::mac_text(udp4.src), "00:11:22:00:00:01");
    EXPECT_EQ(frame::checksum(bytes_of("450000730000400040110000c0a80001c0a800c7")), 0xb861);
}

/* Every cut is refused with a reason, or is a frame of its own that comes back as it was. */
TEST(Frame, TruncationAndNoise)
{
    std::mt19937 random(1);
    for (const Bytes &whole : VALID) {
        for (size_t size = 0; size < whole.size(); size++) {
            const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            std::string why;
            const auto decoded = frame::decode(cut, &why);
            EXPECT_NE(decoded.has_value(), !why.empty());
            EXPECT_TRUE(size >= 14 || !decoded);
            EXPECT_TRUE(!decoded || frame::encode(*decoded) == cut);
        }
        for (int round = 0; round < 2'000; round++) {
            Bytes noisy = whole;
            noisy[12 + random() % (noisy.size() - 12)] = static_cast<uint8_t>(random());
            const auto decoded = frame::decode(noisy);
            EXPECT_TRUE(!decoded || frame::encode(*decoded).size() == noisy.size());
            frame::set_ipv4_dscp(noisy, 46);
        }
    }
}

TEST(Frame, LiesAreNamed)
{
    const auto refusal = [](Bytes bytes, size_t at, uint8_t value) {
        bytes[at] = value;
        std::string why = "taken";
        frame::decode(bytes, &why);
        return why;
    };
    EXPECT_EQ(refusal(UDP4_PADDED, 14, 0x65), "IPv4 version is not 4");
    EXPECT_EQ(refusal(UDP4_PADDED, 14, 0x44), "IPv4 header length is impossible");
    EXPECT_EQ(refusal(UDP4_PADDED, 17, 19), "IPv4 header length is impossible");
    EXPECT_EQ(refusal(UDP4_PADDED, 16, 1), "IPv4 packet is cut off");
    EXPECT_EQ(refusal(UDP4_PADDED, 39, 16), "UDP length is not the datagram's");
    EXPECT_EQ(refusal(UDP4_PADDED, 39, 7), "UDP length is not the datagram's");
    EXPECT_EQ(refusal(UDP6_TAGGED, 18, 0x4b), "IPv6 version is not 6");
    EXPECT_EQ(refusal(UDP6_TAGGED, 23, 12), "IPv6 packet is cut off");
    EXPECT_EQ(refusal(LLC, 13, 13), "802.3 length is more than the frame has");
    EXPECT_EQ(refusal(UDP4_PADDED, 24, 0), "taken"); /* a wrong checksum is the sender's */
    Bytes wrong = UDP4_PADDED;
    wrong[24] ^= 1;
    wrong[45] ^= 1;
    EXPECT_FALSE(frame::decode(wrong)->ipv4->checksum_ok);
    EXPECT_FALSE(frame::decode(wrong)->udp->checksum_ok);
    EXPECT_FALSE(frame::decode(Bytes(frame::SIZE_MAX_BYTES + 1, 0x90)));
}

template <size_t N> void fill(std::array<uint8_t, N> *bytes, std::mt19937 &random)
{
    for (uint8_t &byte : *bytes)
        byte = static_cast<uint8_t>(random());
}

Frame random_frame(std::mt19937 &random)
{
    Frame frame;
    fill(&frame.dst, random);
    fill(&frame.src, random);
    if (random() % 2)
        frame.tag = {static_cast<uint16_t>(random() % 4096), static_cast<uint8_t>(random() % 8),
                     random() % 2 == 0};
    frame.payload.resize(random() % 1'400);
    for (uint8_t &byte : frame.payload)
        byte = static_cast<uint8_t>(random());
    const bool is_udp = random() % 2 == 0;
    const uint8_t protocol = is_udp ? frame::PROTOCOL_UDP : 6;
    if (random() % 2) {
        frame.ethertype = frame::ETHERTYPE_IPV4;
        frame.ipv4 =
            frame::Ipv4{static_cast<uint8_t>(random() % 64), 2,   77, 0x4000, 9, protocol, {}, {},
                        Bytes(random() % 11 * 4, 1),         true};
        fill(&frame.ipv4->src, random);
    } else {
        frame.ethertype = frame::ETHERTYPE_IPV6;
        frame.ipv6 =
            frame::Ipv6{static_cast<uint8_t>(random() % 64), 1, 0xfffff, protocol, 9, {}, {}};
        fill(&frame.ipv6->dst, random);
    }
    if (is_udp)
        frame.udp = frame::Udp{static_cast<uint16_t>(random()), 9, random() % 4 != 0, true};
    frame.trailer.resize(random() % 3 * 7);
    return frame;
}

/* Fields to bytes and back; a DSCP set in place is the same as one encoded anew. */
TEST(Frame, RandomRoundTripAndRemark)
{
    std::mt19937 random(2);
    for (int round = 0; round < 3'000; round++) {
        Frame frame = random_frame(random);
        Bytes bytes = frame::encode(frame);
        ASSERT_EQ(frame::decode(bytes), frame);
        const auto dscp = static_cast<uint8_t>(random() % 64);
        EXPECT_EQ(frame::set_ipv4_dscp(bytes, dscp), frame.ipv4.has_value());
        if (frame.ipv4)
            frame.ipv4->dscp = dscp;
        EXPECT_EQ(frame::set_pcp(bytes, 3), frame.tag.has_value());
        EXPECT_EQ(frame::strip_tag(bytes), frame.tag.has_value());
        EXPECT_TRUE(frame::set_tag(bytes, {7, 1, false}));
        EXPECT_TRUE(frame::set_tag(bytes, {100, 6, true}));
        frame.tag = {100, 6, true};
        ASSERT_EQ(bytes, frame::encode(frame));
    }
}

/* A frame that cannot be gives no bytes; a wrong checksum stays as wrong as it was. */
TEST(Frame, Refusals)
{
    Frame frame = *frame::decode(TCP4_OPTIONS);
    frame.ipv4->options.resize(5);
    EXPECT_TRUE(frame::encode(frame).empty());
    frame.ipv4->options.resize(44);
    EXPECT_TRUE(frame::encode(frame).empty());
    frame = *frame::decode(LLC);
    frame.payload.resize(frame::LENGTH_MAX + 1);
    EXPECT_TRUE(frame::encode(frame).empty());
    frame.ethertype = 0x88cc;
    EXPECT_FALSE(frame::encode(frame).empty());
    frame.payload.resize(frame::SIZE_MAX_BYTES);
    EXPECT_TRUE(frame::encode(frame).empty());
    Bytes wrong = UDP4_PADDED;
    wrong[25]++;
    Bytes remarked = wrong;
    frame::set_ipv4_dscp(remarked, 10);
    EXPECT_FALSE(frame::decode(remarked)->ipv4->checksum_ok);
    frame::set_ipv4_dscp(remarked, 46);
    EXPECT_EQ(remarked, wrong);
    Bytes tiny(13, 0);
    EXPECT_FALSE(frame::set_tag(tiny, {}) || frame::strip_tag(tiny) ||
                 frame::set_ipv4_dscp(tiny, 1));
}

} // namespace
