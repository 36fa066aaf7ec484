#include "ctl/ctl_value.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <set>

#include "text/number.h"

namespace ctl
{

namespace
{

constexpr int MAC_BITS = 48;
constexpr uint8_t GROUP_BIT = 0x01; /* of the first byte */

[[noreturn]] void misread(std::string_view text, const std::string &wanted);
[[noreturn]] void refuse(const std::string &text);
uint32_t limited_parse(std::string_view text, const char *what, uint32_t least, uint32_t most,
                       const char *why);
/* Pairs of hexadecimal digits with one kind of separator between them, or nothing. */
std::optional<std::vector<uint8_t>> bytes_parse(std::string_view text);
Mac padded(const std::vector<uint8_t> &bytes);
Mac masked(const Oui &oui);

} // namespace

uint32_t number_parse(std::string_view text, const std::string &what)
{
    const auto number = text::number_read(text);
    if (!number)
        misread(text, what);
    if (*number > UINT32_MAX)
        refuse(std::string(text) + " is too large for " + what + ": a number has 32 bits");
    return static_cast<uint32_t>(*number);
}

uint32_t vlan_parse(std::string_view text)
{
    return limited_parse(text, "VLAN", 1, VLAN_MAX, "0 and 4095 are reserved by 802.1Q");
}

uint32_t aging_parse(std::string_view text)
{
    return limited_parse(text, "aging time", 1, AGING_MAX,
                         "0 would take every quiet port out at once, and the daemon keeps 16 bits "
                         "of minutes");
}

uint32_t cos_parse(std::string_view text)
{
    return limited_parse(text, "CoS", 0, COS_MAX, "an 802.1p priority has 3 bits");
}

uint32_t dscp_parse(std::string_view text)
{
    return limited_parse(text, "DSCP", 0, DSCP_MAX, "a DSCP has 6 bits");
}

bool switch_parse(std::string_view text, const std::string &what)
{
    if (text == "on")
        return true;
    if (text != "off")
        misread(text, "on or off for " + what);
    return false;
}

std::vector<uint32_t> ports_parse(std::string_view text)
{
    std::set<uint32_t> ports;
    for (size_t from = 0; from <= text.size();) {
        const size_t comma = std::min(text.find(',', from), text.size());
        const std::string_view part = text.substr(from, comma - from);
        const size_t dash = part.find('-');
        const uint32_t first = number_parse(part.substr(0, dash), "a port or a range such as 1-48");
        const uint32_t last = dash == std::string_view::npos
                                  ? first
                                  : number_parse(part.substr(dash + 1), "the last port of a range");
        if (first == 0)
            refuse("port 0 cannot be configured: interface indexes begin at 1");
        if (last < first)
            misread(part, "a range that rises, such as " + std::to_string(last) + "-" +
                              std::to_string(first));
        const uint64_t count = uint64_t{last} - first + 1;
        for (uint64_t port = first; port <= last && count <= PORTS_MAX; port++)
            ports.insert(static_cast<uint32_t>(port));
        if (count > PORTS_MAX || ports.size() > PORTS_MAX)
            refuse(std::string(text) + " has more than " + std::to_string(PORTS_MAX) +
                   " ports, the most that one command takes: give them in several");
        from = comma + 1;
    }
    return {ports.begin(), ports.end()};
}

std::string ports_text(const std::vector<uint32_t> &ports)
{
    std::string text;
    for (size_t first = 0; first < ports.size();) {
        size_t last = first;
        while (last + 1 < ports.size() && ports[last + 1] == ports[last] + 1)
            last++;
        text += (text.empty() ? "" : ",") + std::to_string(ports[first]);
        if (last != first)
            text += "-" + std::to_string(ports[last]);
        first = last + 1;
    }
    return text;
}

Mac mac_parse(std::string_view text)
{
    const auto bytes = bytes_parse(text);
    if (!bytes || bytes->size() != Mac{}.size())
        misread(text, "a MAC address such as 00:11:22:33:44:55");
    return padded(*bytes);
}

Mac mac_station_parse(std::string_view text)
{
    const Mac mac = mac_parse(text);
    if ((mac[0] & GROUP_BIT) != 0)
        refuse(words::mac(mac) + " is a group address, which a bridge never learns: give a "
                                 "station's address, its first byte even");
    if (mac == Mac{})
        refuse(words::mac(mac) + " is no station's address");
    return mac;
}

Oui oui_parse(std::string_view text)
{
    constexpr const char *WANTED = "an OUI such as 00:11:22/24 or "
                                   "00:11:22:00:00:00/ff:ff:ff:00:00:00";
    const size_t slash = text.find('/');
    const auto address = bytes_parse(text.substr(0, slash));
    if (!address)
        misread(text, WANTED);
    Oui oui{padded(*address), words::mask_of_length(static_cast<unsigned>(address->size()) * 8)};
    if (slash == std::string_view::npos)
        return oui;
    const std::string_view mask = text.substr(slash + 1);
    if (mask.find_first_of(":-.") != std::string_view::npos) {
        oui.mask = mac_parse(mask);
        return oui;
    }
    const auto length = text::number_read(mask);
    if (!length)
        misread(text, WANTED);
    if (*length > MAC_BITS)
        refuse("/" + std::string(mask) +
               " is no prefix length: a MAC address has 48 bits, an OUI "
               "24 of them");
    oui.mask = words::mask_of_length(static_cast<unsigned>(*length));
    return oui;
}

void oui_check(const Oui &oui)
{
    const std::string text = words::oui(oui);
    const int length = words::mask_length(oui.mask);
    if (length < 0)
        refuse("mask " + words::mac(oui.mask) +
               " is no prefix, so it would never match: give one "
               "bits followed by zero bits, such as /24");
    if (length == 0)
        refuse(text + " would select every address, and is never looked up: give a length of 1 "
                      "to 48");
    if ((oui.mac[0] & GROUP_BIT) != 0)
        refuse(text + " is a group address, which is never a source: voice devices have an even "
                      "first byte");
    if (masked(oui) != oui.mac)
        refuse(text + " has address bits outside its mask, so it would never match: give " +
               words::oui({masked(oui), oui.mask}) + ", or a longer mask");
    if (oui.mac == Mac{})
        refuse(text + " is all zero, which no device has: give the first bytes of the devices' "
                      "addresses");
}

namespace
{

void misread(std::string_view text, const std::string &wanted)
{
    throw Failure{USAGE, "\"" + std::string(text) + "\": expected " + wanted};
}

void refuse(const std::string &text)
{
    throw Failure{REFUSED, text};
}

uint32_t limited_parse(std::string_view text, const char *what, uint32_t least, uint32_t most,
                       const char *why)
{
    const std::string range = std::to_string(least) + " to " + std::to_string(most);
    const auto value = text::number_read(text);
    if (!value)
        misread(text, std::string(what) + " as a number from " + range);
    if (*value < least || *value > most)
        refuse(std::string(what) + " " + std::string(text) + " cannot work, " + why + ": give " +
               range);
    return static_cast<uint32_t>(*value);
}

std::optional<std::vector<uint8_t>> bytes_parse(std::string_view text)
{
    const size_t separator_at = text.find_first_of(":-.");
    const char separator = separator_at == std::string_view::npos ? ':' : text[separator_at];
    const size_t width = separator == '.' ? 4 : 2;
    std::vector<uint8_t> bytes;
    for (size_t from = 0; from <= text.size(); from += width + 1) {
        if (text.size() - from < width || bytes.size() >= Mac{}.size())
            return std::nullopt;
        for (size_t at = from; at < from + width; at += 2) {
            uint8_t byte = 0;
            const char *digits = text.data() + at;
            if (std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2)
                return std::nullopt;
            bytes.push_back(byte);
        }
        if (from + width < text.size() && text[from + width] != separator)
            return std::nullopt;
    }
    return bytes;
}

Mac padded(const std::vector<uint8_t> &bytes)
{
    Mac mac{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), mac.size()), mac.begin());
    return mac;
}

Mac masked(const Oui &oui)
{
    Mac mac = oui.mac;
    for (size_t at = 0; at < mac.size(); at++)
        mac[at] &= oui.mask[at];
    return mac;
}

} // namespace

} // namespace ctl
