#include "sim/player_capture.h"

#include <algorithm>
#include <memory>
#include <pcap/pcap.h>

namespace sim
{

namespace
{
constexpr size_t MOST_PACKETS = 10000;

struct Close {
    void operator()(pcap_t *capture) const
    {
        pcap_close(capture);
    }
};
} // namespace

std::optional<std::vector<CapturedPacket>> capture_load(const std::string &path, std::string *why)
{
    char error[PCAP_ERRBUF_SIZE] = "";
    const std::unique_ptr<pcap_t, Close> capture(pcap_open_offline(path.c_str(), error));
    if (capture == nullptr) {
        *why = error;
        return std::nullopt;
    }
    if (pcap_datalink(capture.get()) != DLT_EN10MB) {
        *why = "it is no Ethernet capture";
        return std::nullopt;
    }
    std::vector<CapturedPacket> packets;
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    Micros first = 0;
    int rv = 0;
    while ((rv = pcap_next_ex(capture.get(), &header, &data)) == 1 &&
           packets.size() <= MOST_PACKETS) {
        const Micros when = Micros{header->ts.tv_sec} * SECOND + header->ts.tv_usec;
        first = packets.empty() ? when : first;
        packets.push_back({std::max<Micros>(when - first, 0), {data, data + header->caplen}});
    }
    if (rv != PCAP_ERROR_BREAK) {
        *why = rv == 1 ? "it has more than 10000 packets" : pcap_geterr(capture.get());
        return std::nullopt;
    }
    return packets;
}

} // namespace sim
